#include "muro/sys/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "muro/core/exception.h"
#include "muro/sys/files_internal.h"
#include "tests/muro/sys/files_support.h"
#include "tests/muro/sys/replaced.h"

namespace {

namespace fs = std::filesystem;
using test::error_from;
using test::error_in;
using test::files;
using test::files_of_a_user;
using test::replaced;
using test::thrown;
using names = std::vector<std::string>;

/// The working folder for a scope.
class working_folder {
 public:
  explicit working_folder(const std::string& path) : before_(fs::current_path()) {
    fs::current_path(path);
  }
  ~working_folder() {
    std::error_code ignored;
    fs::current_path(before_, ignored);
  }
  working_folder(const working_folder&) = delete;
  working_folder& operator=(const working_folder&) = delete;

 private:
  fs::path before_;
};

/// An environment variable for a scope; null unsets it.
class variable {
 public:
  variable(const char* name, const char* value) : name_(name) {
    if (const char* const before = ::getenv(name)) before_ = before;
    set(value);
  }
  ~variable() { set(before_ ? before_->c_str() : nullptr); }
  variable(const variable&) = delete;
  variable& operator=(const variable&) = delete;

 private:
  void set(const char* value) const {
    if (value != nullptr) {
      ::setenv(name_, value, 1);
    } else {
      ::unsetenv(name_);
    }
  }

  const char* name_;
  std::optional<std::string> before_;
};

unsigned mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

}  // namespace

TEST_F(files, get_current_dir_names_the_working_folder) {
  const working_folder here(root);
  EXPECT_EQ(muro::get_current_dir(), root);
}

TEST_F(files, get_current_dir_fails_without_a_working_folder) {
  make_folder("gone");
  const working_folder here(at("gone"));
  fs::remove(at("gone"));
  EXPECT_EQ(thrown([] { muro::get_current_dir(); }), error_in("get_current_dir", ENOENT));
}

TEST_F(files, get_current_dir_has_room_for_16383_bytes) {
  // Longer than a path may be at one go: made and entered level by level.
  const working_folder here(root);
  const std::string level(200, 'd');
  for (int i = 0; i < 60; ++i) {
    ASSERT_EQ(::mkdir(level.c_str(), 0700), 0);
    ASSERT_EQ(::chdir(level.c_str()), 0);
  }
  EXPECT_EQ(muro::get_current_dir().size(), root.size() + 60 * 201);
}

TEST_F(files, expand_filename_resolves_links_and_dots_of_what_exists) {
  make_folder("real");
  make_file("real/file");
  make_link(at("real"), "link");
  EXPECT_EQ(muro::expand_filename(at("link/../link/./file")), at("real/file"));
}

TEST_F(files, expand_filename_resolves_an_existing_relative_path) {
  make_file("file");
  const working_folder here(root);
  EXPECT_EQ(muro::expand_filename("./file"), at("file"));
}

TEST_F(files, expand_filename_appends_a_missing_relative_path_as_written) {
  make_folder("real");
  make_link(at("real"), "link");
  const working_folder here(at("link"));
  EXPECT_EQ(muro::expand_filename("x/../y"), at("real/x/../y"));
  EXPECT_EQ(muro::expand_filename(""), at("real/"));
}

TEST(expand_filename, adds_no_second_slash_to_the_root) {
  const working_folder here("/");
  EXPECT_EQ(muro::expand_filename("no-such-entry/x"), "/no-such-entry/x");
  EXPECT_EQ(muro::expand_filename("/no-such-entry"), "/no-such-entry");
}

TEST_F(files, expand_filename_resolves_the_folder_of_a_missing_file) {
  make_folder("real");
  make_link(at("real"), "link");
  EXPECT_EQ(muro::expand_filename(at("link/new")), at("real/new"));
}

TEST_F(files, expand_filename_resolves_the_deepest_folder_and_appends_the_rest) {
  make_folder("real");
  make_link(at("real"), "link");
  EXPECT_EQ(muro::expand_filename(at("link/a/../b/c")), at("real/a/../b/c"));
  EXPECT_EQ(muro::expand_filename(at("link/a/")), at("real/a/"));
}

TEST_F(files, expand_filename_splits_the_missing_rest_as_dirname_does) {
  // A backslash separates there too, and what stood before it is cut with it.
  EXPECT_EQ(muro::expand_filename(at("a\\b")),
            root.substr(0, root.rfind('/')) + "/" + fs::path(root).filename().string() + "/b");
}

TEST_F(files, expand_filename_fails_when_not_even_the_root_resolves) {
  const auto refuse = [](const char*, char*) -> char* {
    errno = EACCES;
    return nullptr;
  };
  const replaced<decltype(muro::detail::g_realpath), char* (*)(const char*, char*)> injected(
      muro::detail::g_realpath, refuse);
  EXPECT_EQ(thrown([] { muro::expand_filename("/a/b"); }), error_in("expand_filename", EACCES));
  EXPECT_EQ(thrown([] { muro::expand_filename("x"); }), error_in("expand_filename", EACCES));
}

TEST_F(files, expand_filename_fails_without_a_working_folder) {
  make_folder("gone");
  const working_folder here(at("gone"));
  fs::remove(at("gone"));
  EXPECT_EQ(thrown([] { muro::expand_filename("x"); }), error_in("get_current_dir", ENOENT));
}

TEST(expand_filename, survives_a_path_of_very_many_components) {
  std::string path;
  for (int i = 0; i < 5000; ++i) path += "/q";
  EXPECT_EQ(muro::expand_filename(path), path);
}

TEST_F(files, expand_filename_does_not_cut_at_a_zero_byte) {
  make_file("file");
  const std::string path = at("file") + std::string("\0x", 2);
  EXPECT_EQ(muro::expand_filename(path), path);
}

TEST(dirname, follows_its_table) {
  const std::pair<const char*, const char*> table[] = {
      {"x", "."},         {"", "."},
      {"/", "/"},         {"/x", "/"},
      {"/a/b", "/a"},     {"/a/b/", "/a/b"},
      {"a/b", "a"},       {"a/", "a"},
      {"//x", "/"},       {"a\\b", "a"},
      {"a\\b/c", "a"},    {"a/b\\c", "a"},
      {"\\x", ""},        {"/\\x", "/"},
      {"/a\\b", "/"},     {"C:x", "."},
      {"C:/x", "C:\\"},   {"C:\\x", "C:\\"},
      {"C:/", "C:\\"},    {"C:", "."},
      {"C:/a/b", "C:/a"}, {"C:\\a\\b", "C:\\a"},
      {"C:a/b", "C:a\\"}, {".", "."},
      {"../x", ".."},     {"/a/b\\c/d", "/a/b"},
      {"a\\\\b", "a\\"},
  };
  for (const auto& [path, folder] : table) EXPECT_EQ(muro::dirname(path), folder) << path;
}

TEST(basename, follows_its_table) {
  const std::pair<const char*, const char*> table[] = {
      {"/a/b", "b"},   {"/a/b/", ""},   {"a\\b", "b"}, {"x", "x"},     {"", ""},    {"/", ""},
      {"a/b\\c", "c"}, {"a\\b/c", "c"}, {"C:/x", "x"}, {"C:x", "C:x"}, {"a\\", ""},
  };
  for (const auto& [path, name] : table) EXPECT_EQ(muro::basename(path), name) << path;
}

TEST_F(files, move_file_renames) {
  make_file("from", "content");
  muro::move_file(at("from"), at("to"));
  EXPECT_FALSE(there("from"));
  EXPECT_EQ(test::read_file(at("to")), "content");
}

TEST_F(files, move_file_onto_an_existing_file_leaves_both) {
  make_file("from", "1");
  make_file("to", "2");
  EXPECT_EQ(thrown([&] { muro::move_file(at("from"), at("to")); }), error_in("move_file", EEXIST));
  EXPECT_EQ(test::read_file(at("from")), "1");
  EXPECT_EQ(test::read_file(at("to")), "2");
}

TEST_F(files, move_file_does_not_overwrite_an_empty_folder) {
  make_folder("from");
  make_folder("to");
  EXPECT_EQ(thrown([&] { muro::move_file(at("from"), at("to")); }), error_in("move_file", EEXIST));
  EXPECT_TRUE(there("from"));
}

TEST_F(files, move_file_of_a_missing_file_fails_with_the_errno_of_rename) {
  EXPECT_EQ(thrown([&] { muro::move_file(at("from"), at("to")); }), error_in("move_file", ENOENT));
}

TEST_F(files, move_file_does_not_copy_across_file_systems) {
  struct stat here {};
  struct stat other {};
  ASSERT_EQ(::stat(root.c_str(), &here), 0);
  if (::stat("/dev/shm", &other) != 0 || here.st_dev == other.st_dev) {
    GTEST_SKIP() << "the machine has no second file system at /dev/shm";
  }
  const std::string target = "/dev/shm/" + fs::path(root).filename().string();
  make_file("from");
  EXPECT_EQ(thrown([&] { muro::move_file(at("from"), target); }), error_in("move_file", EXDEV));
  EXPECT_TRUE(there("from"));
  EXPECT_FALSE(fs::exists(target));
}

TEST_F(files, move_file_takes_a_link_as_it_is) {
  make_link(at("nowhere"), "from");
  muro::move_file(at("from"), at("to"));
  EXPECT_EQ(fs::read_symlink(at("to")), at("nowhere"));
}

TEST_F(files, file_exists_follows_links) {
  make_file("file");
  make_link(at("file"), "good");
  make_link(at("nowhere"), "dangling");
  EXPECT_TRUE(muro::file_exists(at("file")));
  EXPECT_TRUE(muro::file_exists(root));
  EXPECT_TRUE(muro::file_exists(at("good")));
  EXPECT_FALSE(muro::file_exists(at("dangling")));
  EXPECT_FALSE(muro::file_exists(at("missing")));
  EXPECT_FALSE(muro::file_exists(""));
}

TEST_F(files, a_path_with_a_zero_byte_names_no_file) {
  make_file("file");
  const std::string path = at("file") + std::string("\0.dat", 5);
  EXPECT_FALSE(muro::file_exists(path));
  EXPECT_EQ(thrown([&] { muro::delete_file(path); }).error, ENOENT);
  EXPECT_EQ(thrown([&] { muro::delete_recursive(path); }).error, ENOENT);
  EXPECT_EQ(thrown([&] { muro::move_file(path, at("to")); }).error, ENOENT);
  EXPECT_EQ(thrown([&] { muro::set_executable(path); }).error, ENOENT);
  EXPECT_EQ(thrown([&] { muro::remove_directory(root + std::string(1, '\0')); }).error, ENOENT);
  EXPECT_TRUE(there("file"));
}

TEST_F(files, set_executable_adds_to_each_class_that_may_read) {
  make_file("file");
  const std::pair<unsigned, unsigned> table[] = {
      {0640, 0750}, {0600, 0700},   {0200, 0200},   {0000, 0000},  {0444, 0555},
      {0004, 0005}, {0040, 0050},   {0755, 0755},   {0222, 0222},  {0666, 0777},
      {0100, 0100}, {04644, 04755}, {01444, 01555}, {02640, 02750}};
  for (const auto& [before, after] : table) {
    ASSERT_EQ(::chmod(at("file").c_str(), before), 0);
    muro::set_executable(at("file"));
    EXPECT_EQ(mode_of(at("file")), after) << std::oct << before;
  }
}

TEST_F(files, set_executable_of_a_missing_file_fails_as_get_file_mode) {
  EXPECT_EQ(thrown([&] { muro::set_executable(at("x")); }), error_in("get_file_mode", ENOENT));
}

TEST(set_executable, that_may_not_change_the_mode_fails_by_its_own_name) {
  // The kernel's process files refuse a change of mode to everyone.
  EXPECT_EQ(thrown([] { muro::set_executable("/proc/self/status"); }),
            error_in("set_executable", EPERM));
}

TEST_F(files, remove_directory_removes_an_empty_folder) {
  make_folder("empty");
  muro::remove_directory(at("empty"));
  EXPECT_FALSE(there("empty"));
}

TEST_F(files, remove_directory_reports_call_path_and_reason) {
  make_folder("full/x");
  EXPECT_EQ(thrown([&] { muro::remove_directory(at("full")); }),
            error_from("rmdir", "remove_directory", at("full"), ENOTEMPTY));
  EXPECT_EQ(thrown([&] { muro::remove_directory(at("none")); }),
            error_from("rmdir", "remove_directory", at("none"), ENOENT));
}

TEST_F(files, delete_file_removes_a_file_and_a_link) {
  make_file("file");
  make_link(at("file"), "link");
  muro::delete_file(at("link"));
  EXPECT_FALSE(there("link"));
  muro::delete_file(at("file"));
  EXPECT_FALSE(there("file"));
}

TEST_F(files, delete_file_reports_call_path_and_reason) {
  EXPECT_EQ(thrown([&] { muro::delete_file(at("x")); }),
            error_from("unlink", "delete_file", at("x"), ENOENT));
  EXPECT_EQ(thrown([&] { muro::delete_file(root); }),
            error_from("unlink", "delete_file", root, EISDIR));
}

TEST_F(files, find_files_appends_the_sorted_matches) {
  make_file("b.dat");
  make_file("a.dat");
  make_file("c.txt");
  names found{"kept"};
  muro::find_files(found, at("*.dat"));
  EXPECT_EQ(found, (names{"kept", at("a.dat"), at("b.dat")}));
}

TEST_F(files, find_files_finds_nothing_without_a_match) {
  names found;
  muro::find_files(found, at("*.none"));
  muro::find_files(found, at("none"));
  muro::find_files(found, "");
  EXPECT_EQ(found, names{});
}

TEST_F(files, find_files_takes_a_name_without_a_pattern) {
  make_file("x");
  names found;
  muro::find_files(found, at("x"));
  EXPECT_EQ(found, names{at("x")});
}

TEST_F(files, find_files_skips_dot_and_dot_dot_alone) {
  make_file(".hidden");
  const working_folder here(root);
  names found;
  muro::find_files(found, ".*");
  EXPECT_EQ(found, names{".hidden"});
}

TEST_F(files, find_files_skips_only_entries_that_are_exactly_dots) {
  names found;
  muro::find_files(found, root + "/.*");
  EXPECT_EQ(found, (names{root + "/.", root + "/.."}));
}

TEST_F(files, find_files_marks_and_sorts_nothing_beyond_globs_flags_of_0) {
  make_folder("folder");
  names found;
  muro::find_files(found, at("fol*"));
  EXPECT_EQ(found, names{at("folder")});  // no "/" behind it
}

TEST_F(files_of_a_user, find_files_takes_an_unreadable_folder_for_an_empty_one) {
  make_folder("dark");
  make_file("dark/x");
  fs::permissions(at("dark"), fs::perms::none);
  names found;
  muro::find_files(found, at("dark/*"));
  EXPECT_EQ(found, names{});
}

TEST_F(files, the_iterator_walks_all_entries_and_stays_at_the_end) {
  make_file("a");
  make_file("b");
  muro::find_files_os found(at("*"));
  EXPECT_EQ(found.path(), "");
  EXPECT_TRUE(found.next());
  EXPECT_EQ(found.path(), at("a"));
  EXPECT_TRUE(found.next());
  EXPECT_EQ(found.path(), at("b"));
  EXPECT_FALSE(found.next());
  EXPECT_FALSE(found.next());
}

TEST_F(files, the_iterator_without_results_has_no_entry) {
  muro::find_files_os found(at("none*"));
  EXPECT_FALSE(found.next());
  EXPECT_EQ(found.path(), "");
}

TEST(user_dir, is_home) {
  const variable home("HOME", "/home/of/someone");
  EXPECT_EQ(muro::user_dir(), "/home/of/someone");
}

TEST(user_dir, is_home_even_when_empty) {
  const variable home("HOME", "");
  const variable tmp("TMPDIR", "/tmp/of/someone");
  EXPECT_EQ(muro::user_dir(), "");
}

TEST(user_dir, falls_back_to_tmpdir) {
  const variable home("HOME", nullptr);
  const variable tmp("TMPDIR", "/tmp/of/someone");
  EXPECT_EQ(muro::user_dir(), "/tmp/of/someone");
}

TEST(user_dir, fails_when_the_environment_has_neither) {
  const variable home("HOME", nullptr);
  const variable tmp("TMPDIR", nullptr);
  EXPECT_EQ(thrown([] { muro::user_dir(); }).text, ":Error in '_get_home_dir'");
}

TEST(user_dir, prefers_the_home_of_the_override) {
  const passwd* const daemon = ::getpwuid(1);
  ASSERT_NE(daemon, nullptr);
  const std::string expected = daemon->pw_dir;
  const variable home("HOME", "/home/of/someone");
  const replaced<unsigned, unsigned> injected(muro::user_id_override, 1);
  EXPECT_EQ(muro::user_dir(), expected);
}

TEST(user_dir, ignores_an_override_that_is_no_user) {
  const variable home("HOME", "/home/of/someone");
  const replaced<unsigned, unsigned> injected(muro::user_id_override, 4000000000U);
  EXPECT_EQ(muro::user_dir(), "/home/of/someone");
}

TEST(get_exe_path, names_the_running_executable) {
  EXPECT_EQ(muro::get_exe_path(), fs::canonical("/proc/self/exe"));
}

TEST_F(files, get_exe_path_resolves_links) {
  make_file("exe");
  make_link(at("exe"), "link");
  EXPECT_EQ(muro::detail::exe_path_from(at("link")), at("exe"));
}

TEST(get_exe_path, fails_when_the_system_cannot_tell) {
  EXPECT_EQ(thrown([] { muro::detail::exe_path_from(std::nullopt); }).text,
            ":Error in 'get_exe_path'");
}

TEST(init_util_fs, makes_one_empty_set) {
  muro::init_util_fs();
  const auto* const set = muro::detail::g_util_fs_set;
  ASSERT_NE(set, nullptr);
  EXPECT_TRUE(set->empty());
  muro::init_util_fs();
  EXPECT_EQ(muro::detail::g_util_fs_set, set);
}
