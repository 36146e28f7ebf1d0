#pragma once

/// The seam to the operating system: the whole list of what the program needs from it beyond
/// POSIX. Everything above this header is the same source on every system; each system has one
/// folder beside this file that implements every declaration here and nothing else.
///
/// No function here logs and none throws anything but `std::bad_alloc`. Decisions stay above the
/// seam: a function converts its arguments, makes the system's call and converts the answer back.

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// A platform string: UTF-8 bytes, or nil (`std::nullopt`).
using nil_string = std::optional<std::string>;

/// Hands over the argument list before anything else is asked. macOS keeps its own copy and
/// ignores the call; Linux reads the start options from it. The vector must outlive the process's
/// use of options. Call once, on the main thread, before other threads exist.
void set_arguments(int argc, char** argv);

// Start options are pairs of words, "-key value". What holds on every system:
//
//   - a word that starts with "-" is never a value: the key before it is absent, and the word is
//     read as the next key; so is a key at the end of the list;
//   - the last pair of a key wins; keys have letter case; all other words are passed over;
//   - a value that is a whole property list is read as one: a quoted text loses its quotes, an
//     array, a dictionary or data is no string. What is no property list is taken as it stands.
//
// Source: the argument domain of `NSUserDefaults` (Apple, "Preferences and Settings Programming
// Guide"); on Linux, which has none, platform/linux/argument_value.h tells the rules in full.

/// The start option `key` (without its minus sign) as a boolean; false when absent. "1", "YES" and
/// "true" in any letter case are true, as is any text that begins with a digit from 1 to 9; "0",
/// "NO", "false" and the empty text are false. macOS: `NSUserDefaults boolForKey:`.
bool bool_option(const char* key);

/// The start option `key` as a string; nil when absent, empty when the empty word was given.
/// macOS: `NSUserDefaults stringForKey:`.
nil_string string_option(const char* key);

/// A scope in which the system's temporary objects are collected: `NSAutoreleasePool` on macOS,
/// nothing on Linux. Pools nest; one belongs to the thread that made it.
class autorelease_pool {
 public:
  autorelease_pool();
  ~autorelease_pool();
  autorelease_pool(const autorelease_pool&) = delete;
  autorelease_pool& operator=(const autorelease_pool&) = delete;

 private:
  [[maybe_unused]] void* pool_;
};

/// Blocks the main thread in the system's run loop (`CFRunLoopRun`), without using time; on Linux
/// for ever. Signals that are handled do not end it. Returns only when the system ends the loop.
void run_main_loop();

/// The path of the running executable as the system keeps it (`_NSGetExecutablePath`,
/// `/proc/self/exe`); nil when the system cannot tell. After the file was moved macOS still gives
/// the path of the start, Linux the new one; after it was removed both give the last path.
nil_string executable_path();

/// Whether the entry through which `descriptor` was opened is still there; after it was removed, or
/// another put in its place, false. `name` is its last component. A file may have got and lost other
/// names meanwhile. Linux: the link in /proc/self/fd tells of the very entry. macOS: F_GETPATH of
/// fcntl(2) gives a name that the file has now, which has to be `name`. True where the system cannot
/// tell. Keeps nothing, allocates nothing; errno is anything afterwards.
bool is_still_named(int descriptor, const char* name) noexcept;

/// The calling security session: `SessionGetInfo(callerSecuritySession)` on macOS. On Linux the id
/// is `XDG_SESSION_ID` (0 when unset or no number) and bit 0x10 is set when `XDG_SESSION_TYPE` is
/// "x11" or "wayland". Both are 0 when the system cannot tell.
struct security_session {
  std::uint32_t id;
  std::uint32_t attributes;
};
security_session calling_security_session();

/// The bit of `security_session::attributes` that says the session has the graphical display.
inline constexpr std::uint32_t kSessionHasGraphicAccess = 0x10;

/// The product version text, for example "10.11.6": the string "ProductVersion" of the dictionary
/// in /System/Library/CoreServices/SystemVersion.plist. Nil when the file cannot be read or
/// parsed, holds no dictionary, or has no such string. The file is read anew at each call.
nil_string product_version();

/// The older version selectors: `Gestalt` on macOS for 'sys1', 'sys2', 'sys3'. Returns true and
/// fills `value` where the system answers; else `value` is unchanged. Linux answers none.
bool older_version_selector(std::uint32_t selector, int& value);

/// The kernel's number of the calling thread (`pthread_mach_thread_np`, `gettid`).
std::uint64_t thread_number();

/// Closes every open descriptor numbered `first` to `last`, both included; `last` may be INT_MAX.
/// For the child between fork and exec: async-signal-safe, no allocation, no lock; errno is
/// anything afterwards. The cost follows the number of open descriptors where the system allows it
/// (Linux: close_range(2); macOS: proc_pidinfo, up to 1,023 of them); else each number below the
/// descriptor table's size is closed.
void close_descriptors(int first, int last) noexcept;

/// Waits until the child `pid` has ended, reaped it is not; for at most `limit_ms` milliseconds.
/// Signals neither cut the wait short nor draw it out. False, at once, where the end cannot be
/// waited for: no such child, no descriptor left, or a system without the call, Linux before 5.3
/// (pidfd_open(2); macOS: EVFILT_PROC of kevent(2)). errno is anything afterwards. Any thread.
bool await_process_end(pid_t pid, int limit_ms) noexcept;

// Calls on one entry of an open folder, for whoever works where others may write: a name is looked
// up in the folder that the descriptor stands for, wherever that has been moved, and no link can be
// put between the two. `folder` is a folder's descriptor, and `name` one name in it; or AT_FDCWD,
// and `name` a path. They return 0 or a descriptor, which is closed on exec and the caller's to
// close; or -1 with errno as POSIX has it. Nothing is retried. Any thread may call.
//
// Linux: openat(2) and its kin. macOS: the same from 10.10 on. Before, the calling thread alone
// enters the folder for the length of the call (platform/darwin/entries.cpp).

/// Whether a link is looked at as itself, or followed.
enum class links { kept, followed };
/// What an entry is removed as.
enum class entry_kind { file, folder };

/// Opens an entry; `flags` as open(2) has them. Follows a link unless O_NOFOLLOW is among them.
int open_at(int folder, const char* name, int flags, mode_t mode = 0) noexcept;
/// Fills in `status`.
int status_at(int folder, const char* name, struct stat& status, links which) noexcept;
/// Makes a folder; the umask counts.
int make_folder_at(int folder, const char* name, mode_t mode) noexcept;
/// Removes a file or link (unlink), or an empty folder (rmdir). Never follows a link.
int remove_at(int folder, const char* name, entry_kind kind) noexcept;

/// Removes the files of a tree that may be large, each as `remove_at` does. On Linux what the files
/// held is given back by a second thread once many have gone; the destructor waits for it. Call from
/// one thread.
class file_remover {
 public:
  /// May throw `std::bad_alloc`.
  file_remover();
  ~file_remover();
  file_remover(const file_remover&) = delete;
  file_remover& operator=(const file_remover&) = delete;

  /// Removes a file or link, as `remove_at(folder, name, entry_kind::file)`.
  int remove(int folder, const char* name) noexcept;

 private:
  struct background;
  std::unique_ptr<background> background_;
};

/// A stream of the entries in `folder`, at the beginning, on a descriptor of its own; null with
/// errno. To be closed with closedir.
DIR* open_stream(int folder) noexcept;

/// Gives `from`, a path, the name `to` in `folder`, in one step and only if nothing is there:
/// EEXIST else, for a link that leads nowhere too. Linux: renameat2(2). macOS: renameatx_np, from
/// 10.12 on. Where system or file system have no such call: a file gets its second name before it
/// loses the first (link, unlink), so that it still replaces nothing but has both for an instant;
/// for all else, and where there are no second names, a look and a rename, which could replace what
/// appears between the two. May throw `std::bad_alloc`.
int rename_new(const char* from, int folder, const char* to);

/// Opens the folder `path` to read it and to look up its entries. A link on the way or at its end
/// is followed only where nobody but root and this process can have put it: in a folder that is
/// root's or the effective user's and that not everyone may write to. ELOOP else; the path
/// /tmp/..., where /tmp is a link in "/", passes. May throw `std::bad_alloc`.
int open_folder(const std::string& path);

// The file-manager operations: `NSFileManager` on macOS, POSIX calls on Linux. They block, keep no
// state and may be called from any thread. A path that is empty or holds a zero byte is a failure.
// None is undone when it fails half-way.

/// The outcome of a file-manager operation: whether it succeeded, and if not the system's own
/// description of the failure in one line (`localizedDescription`; on Linux the text of the failed
/// call's errno), nil when the system gave none.
struct file_outcome {
  bool ok;
  nil_string description;
};

/// Makes the folder `path` with exactly the permission bits `mode`, and every missing folder above
/// it with 0755, whatever the umask; at no instant do they have more. They belong to the effective
/// user. A folder that exists already counts as success and keeps its mode; any other entry at the
/// path is a failure. Slashes at the end do not count. Links: as in `open_folder`, so a link to a
/// folder counts as that folder unless everyone may write where it lies.
file_outcome create_folder(const std::string& path, mode_t mode);

/// Owner, group and permission bits of an item.
struct item_rights {
  uid_t owner;
  gid_t group;
  mode_t mode;
};

/// The outcome of a copy. `has_rights` tells of a copy that succeeded whether every file and folder
/// of it has the rights that were asked for and every link in it leads somewhere. False also where
/// none were asked for; on macOS always, whose file manager sets none on the way.
struct copy_outcome : file_outcome {
  bool has_rights;
};

/// Copies the file or tree `from` to `to`, which must not exist yet while its parent folder does.
/// That folder is opened as `open_folder` opens it, and the copy lands there whatever becomes of its
/// path. Links are copied as links. On Linux a folder is not copied into itself, and what is no
/// file, folder or link is not copied; both are failures.
///
/// Without `rights` permission bits are kept and owners are not. With them every file and folder is
/// given these instead as soon as it is complete, the outermost folder last: until then it is
/// closed to others, so nobody meets a copy that is not whole, and what a killed process leaves is
/// closed too. An item that cannot be given them has the bits of its source.
///
/// On Linux a large tree is copied by two threads; none is left when the function returns.
copy_outcome copy_item(const std::string& from, const std::string& to,
                       const std::optional<item_rights>& rights = std::nullopt);

}  // namespace platform
