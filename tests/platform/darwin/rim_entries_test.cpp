#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "platform/darwin/newer_calls.h"
#include "platform/platform.h"
#include "platform/posix/descriptor.h"
#include "tests/platform/darwin/fake/mac.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using platform::descriptor;
using platform::detail::calls;
using platform::detail::look_up_calls;

namespace {

class newer_calls : public testing::Test {
 protected:
  void SetUp() override { fake::reset(); }
  void TearDown() override {
    fake::reset();
    calls() = look_up_calls();
  }

  /// Makes the system one that lacks the calls of those names.
  static void lack(const std::set<std::string>& names) {
    fake::world().failing = names;
    calls() = look_up_calls();
  }

  int make(const char* name) const {
    const descriptor folder(platform::open_folder(dir_.path()));
    return platform::make_folder_at(folder.get(), name, 0700);
  }
  bool there(const std::string& name) const { return fs::exists(dir_ / name); }

  test::temp_dir dir_;
};

TEST_F(newer_calls, are_all_found_where_the_system_has_them) {
  EXPECT_TRUE(look_up_calls().has_folder_calls());
  EXPECT_NE(look_up_calls().renameatx_np, nullptr);
  EXPECT_NE(look_up_calls().thread_fchdir, nullptr);
}

TEST_F(newer_calls, of_the_folder_kind_are_used_all_or_none) {
  for (const char* name : {"openat", "mkdirat", "unlinkat", "linkat", "renameat"}) {
    lack({name});
    EXPECT_FALSE(look_up_calls().has_folder_calls()) << name;
    EXPECT_EQ(make(name), 0);
    EXPECT_TRUE(there(name));
  }
}

TEST_F(newer_calls, have_their_plain_names_on_processors_that_never_had_older_ones) {
  lack({"fstatat$INODE64", "fdopendir$INODE64"});
  EXPECT_TRUE(look_up_calls().has_folder_calls());
}

TEST_F(newer_calls, without_any_of_them_an_entry_is_out_of_reach_and_nothing_else_is_touched) {
  const descriptor folder(platform::open_folder(dir_.path()));
  calls() = {};
  EXPECT_EQ(platform::make_folder_at(folder.get(), "a", 0700), -1);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_FALSE(fs::exists("a"));
}

TEST_F(newer_calls, rename_is_the_systems_exclusive_one_where_there_is_one) {
  test::write_file(dir_ / "from", "x");
  const descriptor folder(platform::open_folder(dir_.path()));
  EXPECT_EQ(platform::rename_new((dir_ / "from").c_str(), folder.get(), "to"), 0);
  EXPECT_EQ(fake::world().calls, std::vector<std::string>{"renameatx_np 4"});
}

TEST_F(newer_calls, rename_without_it_still_replaces_nothing) {
  lack({"renameatx_np"});
  test::write_file(dir_ / "from", "new");
  test::write_file(dir_ / "to", "old");
  const descriptor folder(platform::open_folder(dir_.path()));
  EXPECT_EQ(platform::rename_new((dir_ / "from").c_str(), folder.get(), "to"), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(platform::rename_new((dir_ / "from").c_str(), folder.get(), "free"), 0);
  EXPECT_EQ(test::read_file(dir_ / "free"), "new");
}

// The older way changes the working folder of the thread that calls and of no other.
TEST_F(newer_calls, without_them_other_threads_keep_their_working_folder) {
  lack({"openat"});
  const fs::path before = fs::current_path();
  fs::path seen_by_other;
  int made = -1;
  std::thread([&] { made = make("a"); }).join();
  std::thread([&] { seen_by_other = fs::current_path(); }).join();
  EXPECT_EQ(made, 0);
  EXPECT_EQ(seen_by_other, before);
  EXPECT_EQ(fs::current_path(), before);
}

TEST_F(newer_calls, path_of_a_folder_is_the_given_one_where_the_system_shows_no_other) {
  const descriptor folder(platform::open_folder(dir_.path()));
  EXPECT_EQ(platform::detail::path_of_folder(folder.get(), "/the/path"), "/the/path");
}

}  // namespace
