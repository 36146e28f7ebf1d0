#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "front/session_folder.h"
#include "muro/core/exception.h"
#include "muro/core/fmt.h"
#include "muro/sys/files.h"
#include "muro/sys/process.h"
#include "muro/sys/xfile.h"
#include "platform/platform.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/doctor.h"
#include "tools/rnrctl/log_reader.h"
#include "tools/rnrctl/survey.h"

namespace rnrctl {
namespace {

constexpr long kLimit_s = 10;

/// A folder that is filled and then packed. What cannot be had is told in "missing.txt" instead: a
/// Mac that needs a bundle is a Mac on which things fail.
class collection {
 public:
  explicit collection(std::string folder) : folder_(std::move(folder)) {}

  /// Writes what `make` gives to the file `name`; its failure is noted.
  void add(const std::string& name, const std::function<std::string()>& make) {
    try {
      muro::put_file(folder_ + "/" + name, make());
    } catch (const std::exception& e) {
      missing_ += name + ": " + e.what() + "\n";
      ++failed_;
    }
  }

  void finish() {
    if (failed_ != 0) muro::put_file(folder_ + "/missing.txt", missing_);
  }

  int failed() const { return failed_; }

 private:
  std::string folder_;
  std::string missing_;
  int failed_ = 0;
};

std::string content_of(const std::string& path) {
  std::string content;
  muro::xfile file(path, muro::xfile::read_only, true);
  while (file.read(content)) {
  }
  return content;
}

std::string output_of(const std::string& program, const std::vector<std::string>& args) {
  long long status = 0;
  const std::string text = muro::process::system_immediate(program, args, &status, kLimit_s);
  return text + muro::stringify("\n(", program, " ended with ", status, ")\n");
}

// A path as a file name: "/a/b" becomes "a_b".
std::string flat(const std::string& path) {
  std::string name = path.substr(1);
  for (char& c : name) c = c == '/' ? '_' : c;
  return name;
}

void list(const std::string& path, int depth, std::string& out) {
  constexpr int kDeepest = 12;
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return;
  out += mode_text(facts_of(path)) +
         muro::stringify(" ", static_cast<long long>(status.st_size), " ", path, "\n");
  if (!S_ISDIR(status.st_mode) || depth == kDeepest) return;
  std::vector<std::string> entries;
  muro::find_files(entries, path + "/*");
  for (const std::string& entry : entries) list(entry, depth + 1, out);
}

std::string listings() {
  std::string text;
  for (const char* const path : {"/Library/VeskRuntime", "/Library/PrivilegedHelperTools",
                                 "/Applications/Korvel.app", "/tmp"})
    list(path, path == std::string("/tmp") ? 11 : 0, text);
  return text;
}

std::string versions() {
  return muro::stringify("macOS ", platform::product_version().value_or("not known"), "\nrnrctl ",
                         kToolVersion, "\n");
}

std::string findings_text(const survey_result& all) {
  std::string text;
  for (const finding& found : diagnose(all, true))
    text += found.name + " " + found.id + ": " + found.seen + "\n";
  return text.empty() ? "nothing found\n" : text;
}

void add_job_files(collection& into) {
  std::vector<std::string> files;
  for (const char* const folder : {"/Library/LaunchDaemons/", "/Library/LaunchAgents/"})
    muro::find_files(files, std::string(folder) + "com.norvane.korvel.*");
  for (const std::string& path : files)
    into.add("job_" + flat(path), [&path] { return content_of(path); });
}

void add_logs(collection& into) {
  for (const std::string& path : log_files()) {
    into.add("log_" + flat(path), [&path] { return content_of(path); });
    if (muro::file_exists(path + ".0"))
      into.add("log_" + flat(path) + ".0", [&path] { return content_of(path + ".0"); });
  }
}

// Never a restore file: it holds the address and key of a session.
void fill(collection& into) {
  const survey_result all = look();
  into.add("status.json", [&all] { return status_json(all); });
  into.add("doctor.txt", [&all] { return findings_text(all); });
  into.add("versions.txt", versions);
  into.add("listing.txt", listings);
  into.add("launchctl.txt", [] { return output_of("/bin/launchctl", {"list"}); });
  into.add("processes.txt", [] { return output_of("ps", {"-axww", "-o", "pid,user,args"}); });
  add_job_files(into);
  add_logs(into);
}

std::string scratch_folder() {
  std::string pattern = "/tmp/korvel-support.XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr)
    throw failure(exit_status::failed,
                  "cannot make a folder in /tmp: " + muro::system_error_string());
  return pattern;
}

void pack(const std::string& folder, const std::string& archive) {
  const int status = muro::process::system(
      "tar", {"-czf", archive, "-C", muro::dirname(folder), muro::basename(folder)}, 60);
  if (status != 0)
    throw failure(exit_status::failed,
                  muro::stringify("tar ended with ", status, "; all is in ", folder));
}

exit_status bundle(const std::string& archive, std::ostream& out) {
  const std::string folder = scratch_folder();
  collection into(folder);
  fill(into);
  into.finish();
  pack(folder, archive);
  muro::delete_recursive(folder);
  out << archive << " is written";
  if (into.failed() != 0) out << ", without " << into.failed() << " parts (missing.txt)";
  out << '\n';
  return exit_status::done;
}

}  // namespace

void add_bundle(CLI::App& app, invocation& asked) {
  CLI::App* const command = app.add_subcommand(
      "bundle", "pack logs, job files, status and listings for a support ticket");
  const auto archive = std::make_shared<std::string>("korvel-support.tar.gz");
  command->add_option("FILE", *archive, "the archive to write")->capture_default_str();
  command->callback([&asked, archive] {
    asked.chosen = [archive](std::ostream& out, std::ostream&) { return bundle(*archive, out); };
  });
}

}  // namespace rnrctl
