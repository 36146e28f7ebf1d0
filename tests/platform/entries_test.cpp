#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using platform::descriptor;
using platform::entry_kind;
using platform::links;

namespace {

/// 0, or the errno of a call that returned `result`.
int error_of(int result) {
  return result < 0 ? errno : 0;
}

bool closes_on_exec(int file) {
  return (::fcntl(file, F_GETFD) & FD_CLOEXEC) != 0;
}

std::vector<std::string> names_in(int folder) {
  std::vector<std::string> names;
  DIR* const stream = platform::open_stream(folder);
  if (stream == nullptr) return {"no stream"};
  while (const dirent* entry = ::readdir(stream)) names.emplace_back(entry->d_name);
  ::closedir(stream);
  std::sort(names.begin(), names.end());
  return names;
}

class entries : public testing::Test {
 protected:
  entries() {
    fs::create_directory(at("in")), folder = descriptor(platform::open_folder(at("in")));
  }

  std::string at(const std::string& name) const { return dir_ / name; }
  void file(const std::string& name, const std::string& content = "x") const {
    test::write_file(at(name), content);
  }
  std::string content(const std::string& name) const { return test::read_file(at(name)); }
  bool there(const std::string& name) const { return fs::exists(fs::symlink_status(at(name))); }
  int rename_new(const std::string& from, const char* to) const {
    return error_of(platform::rename_new(at(from).c_str(), folder.get(), to));
  }

  test::temp_dir dir_;
  descriptor folder;  // "in"
};

TEST_F(entries, are_opened_in_the_folder_wherever_it_is_moved) {
  file("in/a", "right");
  fs::rename(at("in"), at("moved"));
  fs::create_directory(at("in"));
  file("in/a", "wrong");
  const descriptor opened(platform::open_at(folder.get(), "a", O_RDONLY));
  char text[16] = {};
  EXPECT_EQ(::read(opened.get(), text, sizeof text - 1), 5);
  EXPECT_STREQ(text, "right");
  EXPECT_TRUE(closes_on_exec(opened.get()));
}

TEST_F(entries, are_opened_by_path_too) {
  file("in/a");
  EXPECT_TRUE(descriptor(platform::open_at(AT_FDCWD, at("in/a").c_str(), O_RDONLY)).is_open());
  EXPECT_EQ(error_of(platform::open_at(AT_FDCWD, at("in/b").c_str(), O_RDONLY)), ENOENT);
}

TEST_F(entries, are_created_with_flags_and_mode) {
  const descriptor made(platform::open_at(folder.get(), "a", O_WRONLY | O_CREAT | O_EXCL, 0600));
  EXPECT_TRUE(made.is_open());
  EXPECT_EQ(fs::status(at("in/a")).permissions(), fs::perms(0600));
  EXPECT_EQ(error_of(platform::open_at(folder.get(), "a", O_WRONLY | O_CREAT | O_EXCL, 0600)),
            EEXIST);
}

TEST_F(entries, that_are_links_are_opened_only_without_nofollow) {
  file("target");
  fs::create_symlink(at("target"), at("in/link"));
  EXPECT_TRUE(descriptor(platform::open_at(folder.get(), "link", O_RDONLY)).is_open());
  EXPECT_EQ(error_of(platform::open_at(folder.get(), "link", O_RDONLY | O_NOFOLLOW)), ELOOP);
}

TEST_F(entries, are_looked_at_as_themselves_or_through_a_link) {
  file("target", "12345");
  fs::create_symlink(at("target"), at("in/link"));
  fs::create_symlink("nowhere", at("in/dangling"));
  struct stat status;
  EXPECT_EQ(platform::status_at(folder.get(), "link", status, links::kept), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  EXPECT_EQ(platform::status_at(folder.get(), "link", status, links::followed), 0);
  EXPECT_EQ(status.st_size, 5);
  EXPECT_EQ(platform::status_at(folder.get(), "dangling", status, links::kept), 0);
  EXPECT_EQ(error_of(platform::status_at(folder.get(), "dangling", status, links::followed)),
            ENOENT);
}

TEST_F(entries, folders_are_made_in_the_folder) {
  EXPECT_EQ(platform::make_folder_at(folder.get(), "a", 0700), 0);
  EXPECT_TRUE(fs::is_directory(at("in/a")));
  EXPECT_EQ(error_of(platform::make_folder_at(folder.get(), "a", 0700)), EEXIST);
}

TEST_F(entries, are_removed_by_their_kind) {
  file("in/file");
  fs::create_directories(at("in/empty"));
  fs::create_directories(at("in/full/x"));
  fs::create_directory_symlink(at("in/full"), at("in/link"));
  EXPECT_EQ(platform::remove_at(folder.get(), "file", entry_kind::file), 0);
  EXPECT_EQ(platform::remove_at(folder.get(), "empty", entry_kind::folder), 0);
  EXPECT_EQ(error_of(platform::remove_at(folder.get(), "full", entry_kind::folder)), ENOTEMPTY);
  EXPECT_EQ(error_of(platform::remove_at(folder.get(), "link", entry_kind::folder)), ENOTDIR);
  EXPECT_NE(error_of(platform::remove_at(folder.get(), "full", entry_kind::file)), 0);
  EXPECT_EQ(platform::remove_at(folder.get(), "link", entry_kind::file), 0);
  EXPECT_EQ(names_in(folder.get()), (std::vector<std::string>{".", "..", "full"}));
}

TEST_F(entries, remover_removes_files_and_links_and_nothing_else) {
  file("in/file");
  fs::create_directories(at("in/folder"));
  fs::create_directory_symlink(at("in/folder"), at("in/link"));
  platform::file_remover files;
  EXPECT_EQ(files.remove(folder.get(), "file"), 0);
  EXPECT_EQ(files.remove(folder.get(), "link"), 0);
  EXPECT_NE(error_of(files.remove(folder.get(), "folder")), 0);
  EXPECT_EQ(error_of(files.remove(folder.get(), "file")), ENOENT);
  EXPECT_EQ(names_in(folder.get()), (std::vector<std::string>{".", "..", "folder"}));
}

TEST_F(entries, remover_tells_each_of_many_files_that_is_there_or_not) {
  constexpr int kMany = 1000;
  for (int i = 0; i < kMany; i += 2) file("in/" + std::to_string(i));
  platform::file_remover files;
  for (int i = 0; i < kMany; ++i)
    EXPECT_EQ(error_of(files.remove(folder.get(), std::to_string(i).c_str())),
              i % 2 == 0 ? 0 : ENOENT);
  EXPECT_EQ(names_in(folder.get()), (std::vector<std::string>{".", ".."}));
}

TEST_F(entries, are_listed_from_the_beginning_each_time) {
  file("in/a");
  EXPECT_EQ(names_in(folder.get()), (std::vector<std::string>{".", "..", "a"}));
  EXPECT_EQ(names_in(folder.get()), (std::vector<std::string>{".", "..", "a"}));
}

TEST_F(entries, stream_closes_on_exec_and_leaves_the_folder_open) {
  DIR* const stream = platform::open_stream(folder.get());
  ASSERT_NE(stream, nullptr);
  EXPECT_NE(::dirfd(stream), folder.get());
  EXPECT_TRUE(closes_on_exec(::dirfd(stream)));
  ::closedir(stream);
  EXPECT_EQ(platform::make_folder_at(folder.get(), "a", 0700), 0);
}

TEST_F(entries, of_what_is_no_folder_are_a_failure) {
  const descriptor no_folder(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  struct stat status;
  EXPECT_EQ(error_of(platform::open_at(no_folder.get(), "a", O_RDONLY)), ENOTDIR);
  EXPECT_EQ(error_of(platform::status_at(no_folder.get(), "a", status, links::kept)), ENOTDIR);
  EXPECT_EQ(error_of(platform::make_folder_at(no_folder.get(), "a", 0700)), ENOTDIR);
  EXPECT_EQ(error_of(platform::remove_at(no_folder.get(), "a", entry_kind::file)), ENOTDIR);
  EXPECT_EQ(platform::open_stream(no_folder.get()), nullptr);
  EXPECT_EQ(error_of(platform::open_at(-1, "a", O_RDONLY)), EBADF);
}

TEST_F(entries, leave_the_working_folder_as_it_is) {
  const fs::path before = fs::current_path();
  platform::make_folder_at(folder.get(), "a", 0700);
  ::closedir(platform::open_stream(folder.get()));
  EXPECT_EQ(fs::current_path(), before);
}

TEST_F(entries, rename_moves_a_file_a_folder_and_a_link) {
  file("file", "content");
  fs::create_directories(at("folder/x"));
  fs::create_symlink("nowhere", at("link"));
  EXPECT_EQ(rename_new("file", "1"), 0);
  EXPECT_EQ(rename_new("folder", "2"), 0);
  EXPECT_EQ(rename_new("link", "3"), 0);
  EXPECT_EQ(content("in/1"), "content");
  EXPECT_TRUE(there("in/2/x"));
  EXPECT_EQ(fs::read_symlink(at("in/3")), "nowhere");
  for (const char* old : {"file", "folder", "link"}) EXPECT_FALSE(there(old)) << old;
}

TEST_F(entries, rename_replaces_nothing) {
  file("file", "new");
  fs::create_directory(at("folder"));
  file("in/file", "old");
  fs::create_directory(at("in/empty"));
  fs::create_symlink("nowhere", at("in/dangling"));
  for (const char* from : {"file", "folder"})
    for (const char* to : {"file", "empty", "dangling"})
      EXPECT_EQ(rename_new(from, to), EEXIST) << from << " " << to;
  EXPECT_EQ(content("file"), "new");
  EXPECT_EQ(content("in/file"), "old");
  EXPECT_TRUE(there("in/dangling"));
}

TEST_F(entries, rename_of_a_second_name_onto_the_first_replaces_nothing) {
  file("in/file");
  fs::create_hard_link(at("in/file"), at("second"));
  EXPECT_EQ(rename_new("second", "file"), EEXIST);
  EXPECT_TRUE(there("second"));
}

TEST_F(entries, rename_of_nothing_and_to_nowhere_tells_why) {
  file("file");
  EXPECT_EQ(rename_new("none", "a"), ENOENT);
  EXPECT_EQ(error_of(platform::rename_new(at("file").c_str(), AT_FDCWD, at("none/a").c_str())),
            ENOENT);
  EXPECT_TRUE(there("file"));
}

TEST_F(entries, rename_takes_a_relative_path) {
  file("file");
  const fs::path before = fs::current_path();
  fs::current_path(dir_.path());
  const int result = platform::rename_new("file", folder.get(), "a");
  fs::current_path(before);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(there("in/a"));
}

TEST_F(entries, folder_is_opened_through_links_that_nobody_else_can_have_put) {
  fs::create_directories(at("real/below"));
  fs::create_directory_symlink(at("real"), at("link"));
  fs::create_directory_symlink("link/below", at("second"));
  for (const char* path : {"link", "link/below/", "link/.././/real", "second"})
    EXPECT_TRUE(descriptor(platform::open_folder(at(path))).is_open()) << path;
}

TEST_F(entries, folder_is_not_opened_through_a_link_where_everyone_may_write) {
  fs::create_directories(at("real/below"));
  fs::create_directory_symlink(at("real"), at("in/link"));
  ASSERT_EQ(::chmod(at("in").c_str(), 01777), 0);
  EXPECT_EQ(error_of(platform::open_folder(at("in/link"))), ELOOP);
  EXPECT_EQ(error_of(platform::open_folder(at("in/link/below"))), ELOOP);
  EXPECT_TRUE(descriptor(platform::open_folder(at("in"))).is_open());
}

TEST_F(entries, folder_that_is_none_tells_why) {
  file("file");
  fs::create_symlink("nowhere", at("dangling"));
  EXPECT_EQ(error_of(platform::open_folder(at("none"))), ENOENT);
  EXPECT_EQ(error_of(platform::open_folder(at("dangling"))), ENOENT);
  EXPECT_EQ(error_of(platform::open_folder(at("file"))), ENOTDIR);
  EXPECT_EQ(error_of(platform::open_folder(at("file/a"))), ENOTDIR);
  EXPECT_EQ(error_of(platform::open_folder("")), ENOENT);
  EXPECT_EQ(error_of(platform::open_folder(std::string("/tmp\0x", 6))), EINVAL);
}

}  // namespace
