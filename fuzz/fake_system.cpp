#include "fuzz/fake_system.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "front/installation.h"
#include "front/session_folder.h"
#include "fuzz/target.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "osx/job_files.h"
#include "platform/platform.h"

namespace fake {

system& mac = *new system;  // the endpoint's thread may outlive static objects

namespace {

std::string parent_of(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

bool is_below(const std::string& path, const std::string& folder) {
  return path.compare(0, folder.size() + 1, folder + "/") == 0;
}

/// The path as the runtime hands it to the system; one with a zero byte names nothing.
bool is_possible(const std::string& path) {
  return !path.empty() && path.find('\0') == std::string::npos;
}

[[noreturn]] void fail(const char* function, int error) {
  errno = error;
  throw muro::exception::function(function);
}

/// Whether the operation is to have no effect. Throws where that is how it fails.
bool strikes() {
  if (mac.next_fault == fault::none || mac.good_operations-- > 0) return false;
  const fault now = mac.next_fault;
  mac.next_fault = fault::none;
  if (now == fault::exception) fail("fault", EIO);
  if (now == fault::no_memory) throw std::bad_alloc();
  if (now == fault::other_exception) throw 7;
  return true;
}

void permit(bool permitted, const char* operation) {
  if (permitted) return;
  std::fprintf(stderr, "not permitted: %s\n", operation);
  fuzz::require(false, "a request changes nothing but its own session's places");
}

}  // namespace

bool system::exists(const std::string& path) const {
  return is_possible(path) && (files.count(path) != 0 || folders.count(path) != 0);
}

bool system::make_file(const std::string& path, const std::string& content) {
  if (!is_possible(path) || path.back() == '/' || exists(path) || !exists(parent_of(path)))
    return false;
  files[path] = content;
  return true;
}

void system::make_folders(std::string path) {
  for (; !path.empty(); path = parent_of(path)) folders.insert(path);
}

void system::remove_tree(const std::string& path) {
  const auto goes = [&](const std::string& each) { return each == path || is_below(each, path); };
  std::erase_if(files, [&](const auto& file) { return goes(file.first); });
  std::erase_if(folders, goes);
}

}  // namespace fake

using fake::mac;

namespace muro {

bool file_exists(std::string path) {
  return mac.exists(path);
}

void move_file(std::string, std::string) {
  fake::permit(false, "move_file");
}

void move_file_into(const std::string& from, const std::string& folder, const std::string& name) {
  const std::string to = folder + "/" + name;
  fake::permit(mac.permitted.may_install && from == mac.permitted.move_from &&
                   folder == mac.permitted.new_folder &&
                   name == folder.substr(folder.rfind('/') + 1) + ".dat",
               "move_file_into");
  if (fake::strikes()) fake::fail("move_file", EXDEV);
  if (mac.exists(to)) fake::fail("move_file", EEXIST);
  const auto file = mac.files.find(from);
  if (file == mac.files.end() || !mac.exists(folder)) fake::fail("move_file", ENOENT);
  mac.files[to] = file->second;
  mac.files.erase(from);
}

void set_executable_of(int) {
  fake::permit(false, "set_executable_of");
}

void delete_file(std::string path) {
  // The endpoint's own socket is a real one.
  if (path.compare(0, std::strlen(fake::kSocketPrefix), fake::kSocketPrefix) == 0) {
    if (::unlink(path.c_str()) != 0) fake::fail("delete_file", errno);
    return;
  }
  fake::permit(!mac.permitted.daemon_label.empty() &&
                   path == osx::launchd_daemon_path(mac.permitted.daemon_label),
               "delete_file");
  if (fake::strikes() || mac.files.erase(path) == 0) fake::fail("delete_file", ENOENT);
}

void delete_recursive(std::string path) {
  fake::permit(path == mac.permitted.deleted_folder, "delete_recursive");
  if (fake::strikes() || !mac.exists(path)) fake::fail("delete_recursive", ENOENT);
  mac.remove_tree(path);
}

}  // namespace muro

namespace platform {

file_outcome create_folder(const std::string& path, mode_t mode) {
  fake::permit(mac.permitted.may_install && path == mac.permitted.new_folder && mode == 0777,
               "create_folder");
  if (fake::strikes() || mac.files.count(path) != 0) return {false, std::nullopt};
  mac.make_folders(path);
  return {true, std::nullopt};
}

copy_outcome copy_item(const std::string&, const std::string&, const std::optional<item_rights>&) {
  fake::permit(false, "copy_item");
  return {{false, std::nullopt}, false};
}

}  // namespace platform

namespace osx {

std::string launchd_agent_path(const std::string& label) {
  return "/Library/LaunchAgents/" + label + ".plist";
}

std::string launchd_daemon_path(const std::string& label) {
  return "/Library/LaunchDaemons/" + label + ".plist";
}

void launchd_agent_install(const std::string& label, const std::vector<std::string>& args) {
  fake::permit(mac.permitted.may_install && label == mac.permitted.agent_label,
               "launchd_agent_install");
  std::string job;
  for (const std::string& word : args) job += word + "\n";
  const std::string path = launchd_agent_path(label);
  if (!mac.exists(fake::parent_of(path))) return;
  if (!fake::strikes()) mac.files[path] = job;
}

void launchd_agent_uninstall(const std::string& label) {
  fake::permit(!mac.permitted.agent_label.empty() && label == mac.permitted.agent_label,
               "launchd_agent_uninstall");
  if (!fake::strikes()) mac.files.erase(launchd_agent_path(label));
}

void launchd_daemon_install(const std::string&, const std::vector<std::string>&) {
  fake::permit(false, "launchd_daemon_install");
}

void launchd_daemon_start(const std::string&, bool) {
  fake::permit(false, "launchd_daemon_start");
}

void launchd_daemon_uninstall(const std::string& label) {
  fake::permit(!mac.permitted.daemon_label.empty() && label == mac.permitted.daemon_label,
               "launchd_daemon_uninstall");
  if (!fake::strikes()) mac.files.erase(launchd_daemon_path(label));
}

}  // namespace osx

// Through the front's own functions, each of which calls the fakes from another source file.
void fake::start() {
  const auto in_effect = [](bool yes, const char* name) {
    if (!yes) std::fprintf(stderr, "the fake of %s is not linked in\n", name);
    if (!yes) std::abort();
  };
  const nil_string id = "fuzz-self-check";
  const std::string folder = sessionFolder(*id);
  mac.permitted = {"/fake/x.dat",
                   folder,
                   std::string(kVeskRNRAgentName) + "." + *id,
                   std::string(kVeskRNRServiceName) + "." + *id,
                   folder,
                   true};
  mac.make_folders("/fake");
  mac.make_folders("/Library/LaunchAgents");
  mac.make_folders("/Library/LaunchDaemons");
  mac.make_file("/fake/x.dat", "x");
  const std::string daemon = osx::launchd_daemon_path(mac.permitted.daemon_label);
  mac.make_file(daemon, "x");
  in_effect(createFolder(folder, 0777) && mac.exists(folder), "create_folder");
  in_effect(moveRestoreFileIfNeeded("/fake/x.dat", id) && mac.exists(folder + "/" + *id + ".dat"),
            "move_file_into");
  in_effect(installAgent(id, "x", "x") && mac.files.size() == 3, "launchd_agent_install");
  in_effect(uninstallAgent(id) && mac.files.size() == 2, "launchd_agent_uninstall");
  uninstallServiceRemove(id);
  in_effect(!mac.exists(daemon) && !mac.exists(folder), "delete_file or delete_recursive");
  mac = {};
}
