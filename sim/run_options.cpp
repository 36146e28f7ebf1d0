#include "sim/run_options.h"

#include <climits>
#include <cstdlib>
#include <functional>
#include <map>

namespace macroot {

const char* const kHelp =
    R"(usage: macroot-run [OPTIONS] [--] COMMAND [ARGUMENT...]

Makes a private Mac root (its own mounts, processes and IPC, a file system in
memory), runs COMMAND in it as root but not as process 1, and ends with its exit
status (128 + N when signal N ended it). Nothing is left behind.

  --release VERSION    product version of the simulated Mac (default 10.11.6)
  --user NAME:UID      a user; repeatable, replaces the defaults alice:501 bob:502
  --console UID        who owns /dev/console (default 0, the login window)
  --no-client          leave out /Applications/Korvel.app
  --bind SRC:DST[:rw]  show SRC at DST, read-only unless :rw is given; repeatable
  --build DIR          build folder to show, at its own path and at /build
  --source DIR         source folder to show at its own path
  --env NAME[=VALUE]   a variable for COMMAND; without a value, the caller's
  --chdir DIR          current folder of COMMAND, seen from inside (default /)
  --init               run COMMAND as process 1 instead
  --info-fd N          write one line, "PID MODE", to descriptor N when the root stands
  --required           a machine that allows no private root is a failure (status 1)
  --help               this text

Status 77 means that this machine allows no private root, 127 that COMMAND
cannot be run, 2 wrong use.
)";

namespace {

std::string resolved(const std::string& path) {
  char buffer[PATH_MAX];
  if (::realpath(path.c_str(), buffer) == nullptr) return "";
  return buffer;
}

std::string existing_folder(const std::string& path) {
  std::string folder = resolved(path);
  if (folder.empty()) throw usage_error("no such file or folder: " + path);
  return folder;
}

unsigned long number(const std::string& text, const std::string& option) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != text.npos)
    throw usage_error(option + ": not a number: \"" + text + "\"");
  return std::stoul(text);
}

std::string release(const std::string& text) {
  const bool plain = !text.empty() && text.find_first_not_of("0123456789.") == text.npos;
  if (!plain || text.front() == '.') throw usage_error("--release: not a version: " + text);
  return text;
}

user_entry user(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::string name = text.substr(0, colon);
  const bool plain = !name.empty() && name.find_first_of("/,\n") == name.npos && name != "root";
  if (colon == text.npos || !plain) throw usage_error("--user: not NAME:UID: " + text);
  const auto uid = static_cast<uid_t>(number(text.substr(colon + 1), "--user"));
  if (uid == 0) throw usage_error("--user: user id 0 is root's");
  return {name, uid};
}

bind_entry bind(std::string text) {
  const bool writable = text.size() > 3 && text.compare(text.size() - 3, 3, ":rw") == 0;
  if (writable) text.resize(text.size() - 3);
  const std::size_t colon = text.find(':');
  const std::string target = colon == text.npos ? "" : text.substr(colon + 1);
  if (target.size() < 2 || target.front() != '/' || target.find(':') != target.npos)
    throw usage_error("--bind: not SRC:DST[:rw] with an absolute DST: " + text);
  return {existing_folder(text.substr(0, colon)), target, writable};
}

std::string variable(const std::string& text) {
  if (text.find('=') != text.npos) return text;
  const char* value = std::getenv(text.c_str());
  return value == nullptr ? "" : text + "=" + value;
}

using flag_table = std::map<std::string, std::function<void(run_options&)>>;
using value_table = std::map<std::string, std::function<void(run_options&, const std::string&)>>;

const flag_table& flags() {
  static const auto* table = new flag_table{
      {"--no-client", [](run_options& o) { o.client = false; }},
      {"--required", [](run_options& o) { o.required = true; }},
      {"--init", [](run_options& o) { o.as_init = true; }},
  };
  return *table;
}

const value_table& values() {
  using text = const std::string&;
  static const auto* table = new value_table{
      {"--release", [](run_options& o, text v) { o.release = release(v); }},
      {"--user", [](run_options& o, text v) { o.users.push_back(user(v)); }},
      {"--console",
       [](run_options& o, text v) { o.console_uid = static_cast<uid_t>(number(v, "--console")); }},
      {"--bind", [](run_options& o, text v) { o.binds.push_back(bind(v)); }},
      {"--build", [](run_options& o, text v) { o.build_folder = existing_folder(v); }},
      {"--source", [](run_options& o, text v) { o.source_folder = existing_folder(v); }},
      {"--env",
       [](run_options& o, text v) {
         if (const std::string entry = variable(v); !entry.empty()) o.variables.push_back(entry);
       }},
      {"--chdir", [](run_options& o, text v) { o.work_folder = v; }},
      {"--info-fd",
       [](run_options& o, text v) { o.info_fd = static_cast<int>(number(v, "--info-fd")); }},
  };
  return *table;
}

/// Applies the option at `index` and gives the index of the next word.
int take_option(run_options& options, int argc, char** argv, int index) {
  const std::string name = argv[index];
  if (const auto flag = flags().find(name); flag != flags().end()) {
    flag->second(options);
    return index + 1;
  }
  const auto value = values().find(name);
  if (value == values().end()) throw usage_error("unknown option: " + name);
  if (index + 1 >= argc) throw usage_error(name + ": value missing");
  value->second(options, argv[index + 1]);
  return index + 2;
}

}  // namespace

run_options parse_options(int argc, char** argv, bool& help) {
  run_options options;
  options.build_folder = resolved(KORVEL_BUILD_FOLDER);
  options.source_folder = resolved(KORVEL_SOURCE_FOLDER);
  int index = 1;
  while (index < argc && argv[index][0] == '-') {
    const std::string word = argv[index];
    if (word == "--help") return help = true, options;
    if (word == "--") {
      ++index;
      break;
    }
    index = take_option(options, argc, argv, index);
  }
  options.command.assign(argv + index, argv + argc);
  if (options.command.empty()) throw usage_error("command missing; --help tells more");
  if (options.users.empty()) options.users = {{"alice", 501}, {"bob", 502}};
  return options;
}

}  // namespace macroot
