#pragma once

/// What the tests of the file functions share.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "muro/core/exception.h"
#include "tests/support/temp_dir.h"

namespace test {

namespace fs = std::filesystem;

/// The text of what `action` throws and errno in the handler; {"", 0} when it throws nothing.
struct failure {
  std::string text;
  int error;
  bool operator==(const failure&) const = default;
};

template <class Action>
failure thrown(Action action) {
  errno = 0;
  try {
    action();
  } catch (const muro::exception& e) {
    const int error = errno;
    return {e.description(), error};
  }
  return {"", 0};
}

inline failure error_in(const std::string& function, int error) {
  return {":Error in '" + function + "'", error};
}

inline failure error_from(const std::string& call, const std::string& function,
                          const std::string& path, int error) {
  return {":Error from '" + call + "' (called in '" + function + "'): [" + path + "] " +
              std::to_string(error) + ", " + muro::safe_strerror(error),
          error};
}

inline const failure kNone{"", 0};

class files : public ::testing::Test {
 protected:
  void SetUp() override { root = fs::canonical(dir.path()); }

  std::string at(const std::string& name) const { return root + "/" + name; }
  void make_file(const std::string& name, const std::string& content = "x") const {
    test::write_file(at(name), content);
  }
  void make_folder(const std::string& name) const { fs::create_directories(at(name)); }
  void make_link(const std::string& target, const std::string& name) const {
    ASSERT_EQ(::symlink(target.c_str(), at(name).c_str()), 0);
  }
  bool there(const std::string& name) const { return fs::exists(fs::symlink_status(at(name))); }

  test::temp_dir dir;
  std::string root;  // the folder's path without links
};

/// As an ordinary user: root's rights would let every deletion succeed.
class files_of_a_user : public files {
 protected:
  void SetUp() override {
    files::SetUp();
    if (::geteuid() != 0) return;
    ASSERT_EQ(::chmod(root.c_str(), 0777), 0);
    ASSERT_EQ(::seteuid(65534), 0);
    was_root_ = true;
  }
  void TearDown() override {
    if (was_root_ && ::seteuid(0) != 0) std::abort();
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      if (entry.is_directory()) fs::permissions(entry, fs::perms::owner_all);
    }
  }

 private:
  bool was_root_ = false;
};

}  // namespace test
