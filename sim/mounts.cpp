#include "sim/mounts.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <cstdint>

#include "sim/posix_kit.h"

namespace macroot {
namespace {

/// mount_setattr's argument and number, which the C library of older distributions lacks.
struct mount_attributes {
  std::uint64_t set, clear, propagation, user_namespace;
};
constexpr long kMountSetattr = 442;
constexpr std::uint64_t kReadOnly = 1;
constexpr unsigned kRecursive = 0x8000;

/// The flags that a less privileged namespace may not drop when it remounts.
unsigned long kept_flags(const std::string& path) {
  struct statvfs info {};
  check(::statvfs(path.c_str(), &info), "statvfs " + path);
  unsigned long flags = 0;
  if (info.f_flag & ST_NOSUID) flags |= MS_NOSUID;
  if (info.f_flag & ST_NODEV) flags |= MS_NODEV;
  if (info.f_flag & ST_NOEXEC) flags |= MS_NOEXEC;
  if (info.f_flag & ST_NOATIME) flags |= MS_NOATIME;
  if (info.f_flag & ST_NODIRATIME) flags |= MS_NODIRATIME;
  if (info.f_flag & ST_RELATIME) flags |= MS_RELATIME;
  return flags;
}

void make_read_only(const std::string& path) {
  mount_attributes attributes{kReadOnly, 0, 0, 0};
  if (::syscall(kMountSetattr, AT_FDCWD, path.c_str(), kRecursive, &attributes,
                sizeof attributes) == 0)
    return;
  const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | kept_flags(path);
  check(::mount(nullptr, path.c_str(), nullptr, flags, nullptr), "remount " + path);
}

void make_mount_point(const struct stat& source, const std::string& target) {
  struct stat present {};
  if (::stat(target.c_str(), &present) == 0) return;
  if (S_ISDIR(source.st_mode)) return make_folders(target);
  make_folders(target.substr(0, target.rfind('/')));
  const unique_fd file(::open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  check(file.get(), "create " + target);
}

}  // namespace

void pivot_into_memory() {
  check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount / private");
  // Any folder serves as the place to start from; once the tmpfs is the root, it is visible again.
  check(::mount("macroot", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), "mount tmpfs");
  const std::string machine = std::string("/tmp") + kMachine;
  check(::mkdir(machine.c_str(), 0755), "mkdir");
  check(::syscall(SYS_pivot_root, "/tmp", machine.c_str()), "pivot_root");
  check(::chdir("/"), "chdir /");
}

void detach_machine() {
  check(::umount2(kMachine, MNT_DETACH), "umount the machine");
  check(::rmdir(kMachine), "rmdir");
}

void make_folders(const std::string& path) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string folder = path.substr(0, end);
    if (!folder.empty() && ::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST && errno != EROFS)
      throw_errno("mkdir " + folder);
    if (end == path.npos) return;
  }
}

void show(const std::string& source, const std::string& target, bool writable) {
  const std::string from = kMachine + source;
  struct stat info {};
  check(::stat(from.c_str(), &info), "stat " + source);
  make_mount_point(info, target);
  check(::mount(from.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
        "bind " + source + " at " + target);
  if (!writable) make_read_only(target);
}

bool show_if_present(const std::string& source, const std::string& target, bool writable) {
  struct stat info {};
  if (::stat((kMachine + source).c_str(), &info) != 0) return false;
  show(source, target, writable);
  return true;
}

void mount_proc(const std::string& target) {
  make_folders(target);
  check(::mount("proc", target.c_str(), "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr),
        "mount proc");
}

void mount_terminals(const std::string& target) {
  make_folders(target);
  // Comfort for a person's shell only: a root without terminals of its own is still a root.
  if (::mount("devpts", target.c_str(), "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=0620") == 0) [[maybe_unused]]
    const int linked = ::symlink("pts/ptmx", (target + "/../ptmx").c_str());
}

}  // namespace macroot
