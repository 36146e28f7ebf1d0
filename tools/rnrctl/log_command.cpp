#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "muro/sys/time.h"
#include "muro/sys/unique_fd.h"
#include "tools/rnrctl/commands.h"
#include "tools/rnrctl/log_reader.h"

namespace rnrctl {
namespace {

constexpr unsigned long long kLook_us = 200'000;

struct log_options {
  log_filter filter;
  std::vector<std::string> files;
  bool follow = false;
  bool json = false;
};

void print(const log_entry& entry, const log_options& options, std::ostream& out) {
  if (!options.filter.passes(entry)) return;
  if (options.json) {
    nlohmann::json line{{"time", entry.time},
                        {"component", entry.component},
                        {"message", entry.message},
                        {"file", entry.file}};
    if (entry.repeats != 0) line["repeats"] = entry.repeats, line["last_time"] = entry.last_time;
    out << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return;
  }
  out << (entry.time.empty() ? "(no time)           " : entry.time) << ' ';
  if (!entry.component.empty()) out << entry.component << ": ";
  out << printable(entry.message);
  if (entry.repeats != 0)
    out << "  (" << entry.repeats << " more, the last at " << entry.last_time << ')';
  out << '\n';
}

std::vector<std::string> files_of(const log_options& options) {
  return options.files.empty() ? log_files() : options.files;
}

/// Reads on where it stopped, in the same file even after that has become an older generation, and
/// then in the one that took its place.
class follower {
 public:
  explicit follower(std::string path) : path_(std::move(path)) {}

  /// What has come since the last call, at first all that is there.
  std::vector<log_entry> news() {
    std::vector<log_entry> entries;
    read_on(entries);
    if (!was_replaced()) return entries;
    file_.reset(::open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    begun_.clear();
    read_on(entries);
    return entries;
  }

 private:
  bool was_replaced() const {
    struct stat named, open;
    if (::stat(path_.c_str(), &named) != 0) return false;
    if (!file_.is_open() || ::fstat(file_.get(), &open) != 0) return true;
    return named.st_ino != open.st_ino || named.st_dev != open.st_dev || shrank(open);
  }

  bool shrank(const struct stat& open) const {
    return open.st_size < ::lseek(file_.get(), 0, SEEK_CUR);
  }

  void read_on(std::vector<log_entry>& entries) {
    if (!file_.is_open()) return;
    char piece[65536];
    for (ssize_t got; (got = ::read(file_.get(), piece, sizeof piece)) > 0;)
      begun_.append(piece, static_cast<std::size_t>(got));
    for (std::size_t end; (end = begun_.find('\n')) != std::string::npos;) {
      add_line(entries, begun_.substr(0, end), path_);
      begun_.erase(0, end + 1);
    }
  }

  std::string path_;
  muro::unique_fd file_;
  std::string begun_;  // a line whose end has not come yet
};

// Unbounded on purpose: until the person ends it. A marker that counts up in place is shown with the
// number it had when it was read.
[[noreturn]] void follow(const log_options& options, std::ostream& out) {
  std::map<std::string, follower> followers;
  for (;; muro::pause_us(kLook_us)) {
    std::vector<std::vector<log_entry>> logs;
    for (const std::string& path : files_of(options))
      logs.push_back(followers.try_emplace(path, path).first->second.news());
    for (const log_entry& entry : merged(std::move(logs))) print(entry, options, out);
    if (!out.flush()) throw failure(exit_status::failed, "cannot write the output");
  }
}

exit_status show(const log_options& options, std::ostream& out) {
  if (options.follow) follow(options, out);
  std::vector<std::vector<log_entry>> logs;
  for (const std::string& path : files_of(options)) logs.push_back(read_log(path));
  for (const log_entry& entry : merged(std::move(logs))) print(entry, options, out);
  return exit_status::done;
}

}  // namespace

void add_log(CLI::App& app, invocation& asked) {
  CLI::App* const command =
      app.add_subcommand("log", "show the helper's logs, older generations included, by time");
  const auto options = std::make_shared<log_options>();
  command->add_flag("--follow", options->follow, "go on showing what comes");
  command->add_option("--id", options->filter.id, "only what concerns the session of this ID");
  command->add_option("--component", options->filter.component, "only this component's lines")
      ->type_name("NAME");
  command->add_option("--file", options->files, "this log instead of those in their usual places")
      ->type_name("PATH");
  command->add_flag("--json", options->json, "one JSON object a line");
  command->callback([&asked, options] {
    asked.chosen = [options](std::ostream& out, std::ostream&) { return show(*options, out); };
  });
}

}  // namespace rnrctl
