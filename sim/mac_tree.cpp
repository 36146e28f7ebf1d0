#include "sim/mac_tree.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include <cstdlib>

#include "sim/mounts.h"
#include "sim/posix_kit.h"

namespace macroot {
namespace {

constexpr gid_t kWheel = 0, kDaemon = 1, kStaff = 20, kAdmin = 80;

void folder(const std::string& path, mode_t mode, uid_t uid = 0, gid_t gid = kWheel) {
  if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) throw_errno("mkdir " + path);
  check(::chmod(path.c_str(), mode), "chmod " + path);
  if (uid != 0 || gid != 0) check(::chown(path.c_str(), uid, gid), "chown " + path);
}

void link(const std::string& target, const std::string& path) {
  check(::symlink(target.c_str(), path.c_str()), "symlink " + path);
}

void file(const std::string& path, const std::string& text, mode_t mode) {
  const unique_fd out(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  check(out.get(), "create " + path);
  check(::write(out.get(), text.data(), text.size()), "write " + path);
  check(::fchmod(out.get(), mode), "chmod " + path);
}

/// Copies a program that was built beside this launcher.
void program(const std::string& name, const std::string& path) {
  const std::string from = std::string(kMachine) + KORVEL_SIM_FOLDER + "/" + name;
  const unique_fd in(check(::open(from.c_str(), O_RDONLY | O_CLOEXEC), "open " + name));
  const unique_fd out(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0755));
  check(out.get(), "create " + path);
  struct stat info {};
  check(::fstat(in.get(), &info), "stat " + name);
  for (off_t rest = info.st_size; rest > 0;)
    rest -= check(::sendfile(out.get(), in.get(), nullptr, static_cast<std::size_t>(rest)),
                  "copy " + name);
}

/// Giving something to a user who does not exist in a root with a single id stays without effect.
class giver {
 public:
  explicit giver(id_mode mode) : alone_(mode == id_mode::single) {}
  uid_t uid(uid_t wanted) const { return alone_ ? 0 : wanted; }
  gid_t gid(gid_t wanted) const { return alone_ ? 0 : wanted; }

 private:
  bool alone_;
};

void make_private(const giver& to) {
  for (const char* path : {"/private", "/private/etc", "/private/var", "/private/var/db",
                           "/private/var/log", "/private/var/folders"})
    folder(path, 0755);
  folder("/private/tmp", 01777);
  folder("/private/var/tmp", 01777);
  folder("/private/var/empty", 0555);
  folder("/private/var/root", 0750);
  folder("/private/var/run", 0775, 0, to.gid(kDaemon));
  for (const std::string name : {"etc", "tmp", "var"}) link("private/" + name, "/" + name);
  link("private/var/run", "/run");  // the machine's programs (sudo, utmp readers) look there
  file("/private/var/run/utmp", "", 0644);
  file("/private/var/log/korvel-client.jsonl", "", 0666);
}

/// /bin holds what a Mac's does, as links, and is a folder of the root's own.
void make_program_folders() {
  folder("/bin", 0755);
  for (const std::string name :
       {"bash", "cat",  "chmod",    "cp",   "csh",   "dash", "date", "dd",    "df",     "echo",
        "ed",   "expr", "hostname", "kill", "link",  "ln",   "ls",   "mkdir", "mv",     "ps",
        "pwd",  "rm",   "rmdir",    "sh",   "sleep", "stty", "sync", "test",  "unlink", "zsh"})
    if (::access((std::string(kMachine) + "/usr/bin/" + name).c_str(), F_OK) == 0)
      link("../usr/bin/" + name, "/bin/" + name);
  link("usr/sbin", "/sbin");
  program("macroot-launchctl", "/bin/launchctl");
}

void make_usr() {
  show("/usr", "/usr", false);
  for (const std::string name : {"lib", "lib32", "lib64", "libx32"}) {
    char target[256];
    const std::string of_machine = std::string(kMachine) + "/" + name;
    const ssize_t n = ::readlink(of_machine.c_str(), target, sizeof target);
    if (n > 0)
      link(std::string(target, static_cast<std::size_t>(n)), "/" + name);
    else
      show_if_present("/" + name, "/" + name, false);
  }
}

std::string passwd_text(const run_options& options) {
  std::string text =
      "root:*:0:0:System Administrator:/var/root:/bin/sh\n"
      "daemon:*:1:1:System Services:/var/root:/usr/bin/false\n"
      "nobody:*:65534:65534:Unprivileged User:/var/empty:/usr/bin/false\n";
  for (const user_entry& user : options.users)
    text += user.name + ":*:" + std::to_string(user.uid) + ":20:" + user.name + ":/Users/" +
            user.name + ":/bin/sh\n";
  return text;
}

/// The first user is an administrator, as the first account of a Mac is.
std::string group_text(const run_options& options) {
  return "wheel:*:0:root\n"
         "daemon:*:1:root\n"
         "tty:*:4:root\n"
         "staff:*:20:root\n"
         "everyone:*:12:\n"
         "admin:*:80:root," +
         options.users[0].name + "\nnobody:*:65534:\n";
}

void make_etc(const run_options& options) {
  file("/etc/passwd", passwd_text(options), 0644);
  file("/etc/group", group_text(options), 0644);
  file("/etc/hosts", "127.0.0.1 localhost mac\n::1 localhost\n", 0644);
  file("/etc/nsswitch.conf",
       "passwd: files\ngroup: files\nshadow: files\nhosts: files\nsudoers: files\n", 0644);
  // A numeric user is taken even without an entry, as on a Mac. The display belongs to a session
  // there, not to an environment, and so outlives sudo.
  file("/etc/sudoers",
       "Defaults env_reset, runas_allow_unknown_id, !syslog, !use_pty, lecture=never\n"
       "Defaults env_keep += \"XDG_SESSION_ID XDG_SESSION_TYPE\"\n"
       "root ALL=(ALL:ALL) NOPASSWD: ALL\n"
       "%admin ALL=(ALL:ALL) NOPASSWD: ALL\n",
       0440);
  folder("/etc/pam.d", 0755);
  const std::string permit =
      "auth sufficient pam_permit.so\n"
      "account sufficient pam_permit.so\n"
      "session required pam_permit.so\n";
  file("/etc/pam.d/sudo", permit, 0644);
  file("/etc/pam.d/other", permit, 0644);
  show_if_present("/etc/ld.so.cache", "/etc/ld.so.cache", false);
  show_if_present("/etc/alternatives", "/etc/alternatives", false);
}

void make_dev(const run_options& options, const giver& to) {
  folder("/dev", 0755);
  for (const std::string name : {"null", "zero", "full", "random", "urandom", "tty"})
    show_if_present("/dev/" + name, "/dev/" + name, true);
  mount_terminals("/dev/pts");
  link("/proc/self/fd", "/dev/fd");
  link("fd/0", "/dev/stdin");
  link("fd/1", "/dev/stdout");
  link("fd/2", "/dev/stderr");
  folder("/dev/shm", 01777);
  file("/dev/console", "", 0620);
  check(::chown("/dev/console", to.uid(options.console_uid), to.gid(4)), "chown /dev/console");
}

/// The product's name changed with 10.12.
const char* product_name(const std::string& release) {
  const bool ten = release.compare(0, 3, "10.") == 0;
  return ten && std::strtol(release.c_str() + 3, nullptr, 10) < 12 ? "Mac OS X" : "macOS";
}

std::string version_text(const std::string& release) {
  const auto pair = [](const std::string& key, const std::string& value) {
    return "\t<key>" + key + "</key>\n\t<string>" + value + "</string>\n";
  };
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\">\n<dict>\n" +
         pair("ProductBuildVersion", "MACROOT") + pair("ProductName", product_name(release)) +
         pair("ProductUserVisibleVersion", release) + pair("ProductVersion", release) +
         "</dict>\n</plist>\n";
}

void make_library(const std::string& release) {
  for (const char* path :
       {"/Library", "/Library/LaunchAgents", "/Library/LaunchDaemons", "/Library/Logs", "/System",
        "/System/Library", "/System/Library/CoreServices", "/System/Library/LaunchAgents",
        "/System/Library/LaunchDaemons", "/Volumes"})
    folder(path, 0755);
  folder("/Library/Application Support", 0755);
  const std::string window = "/System/Library/CoreServices/loginwindow.app/Contents/MacOS";
  make_folders(window);
  program("macroot-loginwindow", window + "/loginwindow");
  file("/System/Library/CoreServices/SystemVersion.plist", version_text(release), 0644);
}

void make_users(const run_options& options, const giver& to) {
  folder("/Users", 0755, 0, to.gid(kAdmin));
  folder("/Users/Shared", 01777);
  for (const user_entry& user : options.users) {
    const std::string home = "/Users/" + user.name;
    folder(home, 0755, to.uid(user.uid), to.gid(kStaff));
    for (const std::string name : {"/Desktop", "/Library"})
      folder(home + name, 0700, to.uid(user.uid), to.gid(kStaff));
  }
}

void make_applications(const run_options& options, const giver& to) {
  folder("/Applications", 0775, 0, to.gid(kAdmin));
  if (!options.client) return;
  const std::string bundle = "/Applications/Korvel.app";
  for (const std::string name : {"", "/Contents", "/Contents/MacOS", "/Contents/Resources"})
    folder(bundle + name, 0775, 0, to.gid(kAdmin));
  file(bundle + "/Contents/Info.plist", "<plist version=\"1.0\"><dict/></plist>\n", 0664);
  file(bundle + "/Contents/Resources/about.txt", "stand-in client\n", 0664);
  program("macroot-client", bundle + "/Contents/MacOS/korvel");
}

void show_folders(const run_options& options) {
  for (const std::string& path : {options.source_folder, options.build_folder})
    if (!path.empty()) show(path, path, false);
  if (!options.build_folder.empty()) show(options.build_folder, "/build", false);
#ifdef KORVEL_PROFILE_FOLDER  // of the preset "coverage": where the programs save their counters
  show(KORVEL_PROFILE_FOLDER, KORVEL_PROFILE_FOLDER, true);
#endif
  for (const bind_entry& entry : options.binds) show(entry.source, entry.target, entry.writable);
}

/// Tells programs inside which root they are in: a test compares the number with its own.
void leave_mark(const run_options& options, id_mode mode) {
  struct stat info {};
  check(::stat("/proc/self/ns/pid", &info), "stat /proc/self/ns/pid");
  file("/etc/macroot",
       "release=" + options.release + "\nids=" + name_of(mode) +
           "\npid_namespace=" + std::to_string(info.st_ino) + "\n",
       0644);
}

}  // namespace

void enter_mac_tree(const run_options& options, id_mode mode) {
  const giver to(mode);
  ::umask(0);
  pivot_into_memory();
  make_usr();
  make_program_folders();
  make_private(to);
  make_etc(options);
  mount_proc("/proc");
  make_dev(options, to);
  make_library(options.release);
  make_users(options, to);
  make_applications(options, to);
  show_folders(options);
  leave_mark(options, mode);
  detach_machine();
  ::umask(022);
}

}  // namespace macroot
