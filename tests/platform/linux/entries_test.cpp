// The exclusive rename on a kernel or a file system that has none.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>

#include "platform/platform.h"
#include "tests/support/forked.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

/// Makes this process's kernel one that refuses the call with `error`.
bool refuse(long call, int error) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{4, program};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

class rename_on_old_linux : public testing::TestWithParam<int> {
 protected:
  std::string at(const std::string& name) const { return dir_ / name; }

  int rename(const std::string& from, const std::string& to) const {
    return platform::rename_new(at(from).c_str(), AT_FDCWD, at(to).c_str()) == 0 ? 0 : errno;
  }
  bool is(const std::string& name, const std::string& content) const {
    return test::read_file(at(name)) == content;
  }
  bool there(const std::string& name) const { return fs::exists(fs::symlink_status(at(name))); }

  void SetUp() override {
    test::write_file(at("file"), "new");
    fs::create_directory(at("folder"));
    fs::create_symlink("nowhere", at("link"));
    test::write_file(at("old"), "old");
  }

  test::temp_dir dir_;
};

TEST_P(rename_on_old_linux, moves_every_kind) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, GetParam()) && rename("file", "1") == 0 && is("1", "new") &&
           !there("file") && rename("folder", "2") == 0 && fs::is_directory(at("2")) &&
           rename("link", "3") == 0 && fs::is_symlink(at("3"));
  }));
}

TEST_P(rename_on_old_linux, replaces_nothing) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, GetParam()) && rename("file", "old") == EEXIST &&
           rename("folder", "old") == EEXIST && rename("file", "link") == EEXIST &&
           rename("none", "x") == ENOENT && is("file", "new") && is("old", "old");
  }));
}

// The plain rename is not there at all, so that the file can only have moved by a second name.
TEST_P(rename_on_old_linux, moves_a_file_without_a_rename_that_could_replace) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, GetParam()) && refuse(SYS_renameat, EPERM) &&
           rename("file", "1") == 0 && is("1", "new") && !there("file") &&
           rename("file", "1") == ENOENT;
  }));
}

TEST_P(rename_on_old_linux, takes_the_second_name_back_when_the_first_stays) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, GetParam()) && refuse(SYS_unlink, EACCES) &&
           rename("file", "1") == EACCES && !there("1") && is("file", "new");
  }));
}

TEST_P(rename_on_old_linux, moves_a_file_that_may_have_no_second_name) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, GetParam()) && refuse(SYS_linkat, EPERM) &&
           rename("file", "old") == EEXIST && is("old", "old") && rename("file", "1") == 0 &&
           is("1", "new") && !there("file");
  }));
}

TEST_P(rename_on_old_linux, tells_any_other_failure_of_the_second_name) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, GetParam()) && refuse(SYS_linkat, EXDEV) &&
           rename("file", "1") == EXDEV && is("file", "new");
  }));
}

TEST_P(rename_on_old_linux, any_other_failure_of_the_new_call_is_told) {
  EXPECT_TRUE(test::holds_in_a_fork([this] {
    return refuse(SYS_renameat2, EACCES) && rename("file", "1") == EACCES && is("file", "new");
  }));
}

INSTANTIATE_TEST_SUITE_P(without_it, rename_on_old_linux, testing::Values(ENOSYS, EINVAL),
                         [](const auto& one) {
                           return one.param == ENOSYS ? "in_the_kernel" : "on_the_file_system";
                         });

}  // namespace
