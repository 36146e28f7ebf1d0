#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>

#include "muro/sys/files.h"
#include "muro/sys/files_internal.h"
#include "muro/sys/unique_fd.h"
#include "platform/platform.h"
#include "tests/muro/sys/files_support.h"
#include "tests/muro/sys/replaced.h"
#include "tests/support/descriptors.h"
#include "tests/support/thread_count.h"

namespace {

namespace fs = std::filesystem;
using test::error_from;
using test::error_in;
using test::failure;
using test::files;
using test::files_of_a_user;
using test::kNone;
using test::open_descriptors;
using test::replaced;
using test::thrown;

failure thrown_with_few_descriptors(const std::function<void()>& action) {
  constexpr int kFew = 8;
  const test::descriptor_limit limit(*test::open_descriptors().rbegin() + 1 + kFew);
  return thrown(action);
}

}  // namespace

TEST_F(files, delete_recursive_removes_a_file) {
  make_file("file");
  muro::delete_recursive(at("file"));
  EXPECT_FALSE(there("file"));
}

TEST_F(files, delete_recursive_removes_a_tree_with_hidden_entries) {
  make_folder("tree/a/b");
  make_folder("tree/empty");
  make_file("tree/.hidden");
  make_file("tree/..odd");
  make_file("tree/a/b/file");
  muro::delete_recursive(at("tree"));
  EXPECT_FALSE(there("tree"));
  EXPECT_TRUE(fs::exists(root));
}

TEST_F(files, delete_recursive_of_a_link_to_a_folder_removes_only_the_link) {
  make_folder("real");
  make_file("real/file");
  make_link(at("real"), "link");
  muro::delete_recursive(at("link"));
  EXPECT_FALSE(there("link"));
  EXPECT_TRUE(there("real/file"));
}

TEST_F(files, delete_recursive_follows_no_link_inside_a_tree) {
  make_folder("real");
  make_file("real/file");
  make_folder("tree");
  make_link(at("real"), "tree/link");
  make_link("..", "tree/up");
  make_link(at("nowhere"), "tree/dangling");
  muro::delete_recursive(at("tree"));
  EXPECT_FALSE(there("tree"));
  EXPECT_TRUE(there("real/file"));
}

TEST_F(files, delete_recursive_of_nothing_fails_by_its_own_name) {
  EXPECT_EQ(thrown([&] { muro::delete_recursive(at("x")); }), error_in("delete_recursive", ENOENT));
  EXPECT_EQ(thrown([] { muro::delete_recursive(""); }), error_in("delete_recursive", ENOENT));
}

TEST_F(files, delete_recursive_needs_one_descriptor_whatever_the_depth) {
  std::string path = at("tree");
  fs::create_directory(path);
  for (int level = 0; level < 300; ++level) fs::create_directory(path += "/d");
  EXPECT_EQ(thrown_with_few_descriptors([&] { muro::delete_recursive(at("tree")); }), kNone);
  EXPECT_FALSE(there("tree"));
}

namespace {

/// Makes `levels` folders, each in the one before, and a file in the last; the path of that is far
/// longer than the system takes.
void make_deep_tree(const std::string& top, int levels) {
  const std::string name(100, 'd');
  ASSERT_EQ(::mkdir(top.c_str(), 0700), 0);
  muro::unique_fd at(platform::open_folder(top));
  for (int level = 0; level < levels; ++level) {
    ASSERT_EQ(platform::make_folder_at(at.get(), name.c_str(), 0700), 0);
    at = muro::unique_fd(platform::open_at(at.get(), name.c_str(), O_RDONLY | O_DIRECTORY));
  }
  const muro::unique_fd file(platform::open_at(at.get(), "file", O_WRONLY | O_CREAT, 0600));
  ASSERT_TRUE(file.is_open());
}

/// Runs `action` on a thread with the smallest stack that there is.
void on_a_small_stack(const std::function<void()>& action) {
  pthread_attr_t attributes;
  pthread_t thread;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, 128 * 1024);
  const auto run = [](void* what) -> void* {
    (*static_cast<const std::function<void()>*>(what))();
    return nullptr;
  };
  const int error =
      ::pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&action));
  ::pthread_attr_destroy(&attributes);
  ASSERT_EQ(error, 0);
  ::pthread_join(thread, nullptr);
}

}  // namespace

TEST_F(files, delete_recursive_needs_neither_stack_nor_path_by_the_depth) {
  make_deep_tree(at("tree"), 4000);
  failure outcome{"not run", 0};
  on_a_small_stack([&] { outcome = thrown([&] { muro::delete_recursive(at("tree")); }); });
  EXPECT_EQ(outcome, kNone);
  EXPECT_FALSE(there("tree"));
}

TEST_F(files, delete_recursive_empties_a_wide_folder_and_leaves_neither_thread_nor_descriptor) {
  make_folder("tree");
  for (int i = 0; i < 5000; ++i) make_file("tree/" + std::to_string(i));
  const auto threads = test::thread_count();
  const auto descriptors = open_descriptors();
  muro::delete_recursive(at("tree"));
  EXPECT_TRUE(test::threads_come_down_to(threads));
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_FALSE(there("tree"));
}

TEST_F(files, delete_recursive_of_many_files_and_folders_does_with_few_descriptors) {
  for (int i = 0; i < 100; ++i) {
    const std::string folder = "tree/" + std::to_string(i) + "/";
    make_folder(folder + "inner");
    for (int file = 0; file < 10; ++file) make_file(folder + std::to_string(file));
  }
  EXPECT_EQ(thrown_with_few_descriptors([&] { muro::delete_recursive(at("tree")); }), kNone);
  EXPECT_FALSE(there("tree"));
}

TEST_F(files, delete_recursive_removes_what_is_neither_file_nor_folder_without_opening_it) {
  make_folder("tree");
  ASSERT_EQ(::mkfifo(at("tree/pipe").c_str(), 0600), 0);
  muro::delete_recursive(at("tree"));
  EXPECT_FALSE(there("tree"));
}

TEST_F(files, a_closed_stream_is_not_closed_again) {
  DIR* const stream = ::opendir(root.c_str());
  ASSERT_NE(stream, nullptr);
  ASSERT_EQ(::close(::dirfd(stream)), 0);  // so that closing it fails
  EXPECT_EQ(muro::detail::close_stream_once(stream), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(files, delete_recursive_leaks_no_descriptor) {
  make_folder("tree/a/b");
  const std::set<int> before = open_descriptors();
  muro::delete_recursive(at("tree"));
  EXPECT_EQ(open_descriptors(), before);
}

namespace {

int g_closedir_interrupts = 0;
int g_closedir_calls = 0;

int interrupted_closedir(DIR* stream) {
  ++g_closedir_calls;
  if (g_closedir_interrupts-- > 0) {
    errno = EINTR;
    return -1;
  }
  return ::closedir(stream);
}

int failing_closedir(DIR* stream) {
  ++g_closedir_calls;
  ::closedir(stream);
  errno = EIO;
  return -1;
}

using closedir_for_a_scope = replaced<decltype(muro::detail::g_closedir), int (*)(DIR*)>;

}  // namespace

TEST_F(files, delete_recursive_closes_again_as_long_as_it_is_interrupted) {
  make_folder("tree");
  g_closedir_interrupts = 3;
  g_closedir_calls = 0;
  const closedir_for_a_scope injected(muro::detail::g_closedir, interrupted_closedir);
  muro::delete_recursive(at("tree"));
  EXPECT_EQ(g_closedir_calls, 4);
}

TEST_F(files, delete_recursive_does_not_repeat_another_failure_of_the_close) {
  make_folder("tree");
  g_closedir_calls = 0;
  const closedir_for_a_scope injected(muro::detail::g_closedir, failing_closedir);
  errno = 0;
  muro::delete_recursive(at("tree"));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(g_closedir_calls, 1);
}

TEST_F(files_of_a_user, delete_recursive_goes_on_after_an_entry_that_fails) {
  make_folder("tree/locked/sub");
  make_file("tree/a");
  make_file("tree/z");
  fs::permissions(at("tree/locked"), fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(thrown([&] { muro::delete_recursive(at("tree")); }),
            error_from("rmdir", "remove_directory", at("tree"), ENOTEMPTY));
  EXPECT_FALSE(there("tree/a"));
  EXPECT_FALSE(there("tree/z"));
  EXPECT_TRUE(there("tree/locked/sub"));
}

TEST_F(files_of_a_user, delete_recursive_removes_an_empty_folder_that_it_may_not_read) {
  make_folder("tree/dark");
  fs::permissions(at("tree/dark"), fs::perms::none);
  EXPECT_EQ(thrown([&] { muro::delete_recursive(at("tree")); }), kNone);
  EXPECT_FALSE(there("tree"));
}

TEST_F(files_of_a_user, delete_recursive_of_a_full_folder_that_it_may_not_read_reports_rmdir) {
  make_folder("dark/sub");
  fs::permissions(at("dark"), fs::perms::none);
  EXPECT_EQ(thrown([&] { muro::delete_recursive(at("dark")); }),
            error_from("rmdir", "remove_directory", at("dark"), ENOTEMPTY));
}

namespace {

std::string g_removed_behind_the_back;

int close_and_remove(DIR* stream) {
  const int result = ::closedir(stream);
  std::error_code ignored;
  fs::remove(g_removed_behind_the_back, ignored);
  return result;
}

}  // namespace

TEST_F(files, delete_recursive_tells_that_an_entry_failed_though_the_folder_went) {
  // Someone else takes the entry away after its name was read.
  make_folder("tree");
  make_file("tree/a");
  g_removed_behind_the_back = at("tree/a");
  const closedir_for_a_scope injected(muro::detail::g_closedir, close_and_remove);
  EXPECT_EQ(thrown([&] { muro::delete_recursive(at("tree")); }),
            error_in("delete_recursive", ENOENT));
  EXPECT_FALSE(there("tree"));
}
