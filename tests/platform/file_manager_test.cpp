#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/platform.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

mode_t mode_of(const std::string& path) {
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) throw std::runtime_error("lstat " + path);
  return status.st_mode & 07777;
}

/// The umask for the length of one test.
class umask_scope {
 public:
  explicit umask_scope(mode_t mask) : old_(::umask(mask)) {}
  ~umask_scope() { ::umask(old_); }
  umask_scope(const umask_scope&) = delete;
  umask_scope& operator=(const umask_scope&) = delete;

 private:
  mode_t old_;
};

class file_manager : public testing::Test {
 protected:
  std::string at(const std::string& name) const { return folder_ / name; }
  void file(const std::string& name, const std::string& content = "x") {
    test::write_file(at(name), content);
  }

  test::temp_dir folder_;
};

void expect_failure(const platform::file_outcome& outcome) {
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.description.value_or("").find('\n'), std::string::npos);
}

TEST_F(file_manager, creates_a_folder_with_its_mode_whatever_the_umask) {
  const umask_scope strict(077);
  EXPECT_TRUE(platform::create_folder(at("new"), 0777).ok);
  EXPECT_EQ(mode_of(at("new")), 0777U);
}

TEST_F(file_manager, creates_the_folders_above) {
  EXPECT_TRUE(platform::create_folder(at("a/b/c"), 0777).ok);
  EXPECT_TRUE(fs::is_directory(at("a/b/c")));
  EXPECT_EQ(mode_of(at("a/b/c")), 0777U);
}

TEST_F(file_manager, new_folders_above_are_closed_to_others_writing_and_old_ones_keep_their_mode) {
  for (const mode_t mask : {0000, 0077, 0777}) {
    const std::string old = at("old" + std::to_string(mask));
    fs::create_directory(old);
    fs::permissions(old, fs::perms(0700));
    {
      const umask_scope masked(mask);
      EXPECT_TRUE(platform::create_folder(old + "/a/b/c", 0777).ok);
    }
    EXPECT_EQ(mode_of(old), 0700U);
    EXPECT_EQ(mode_of(old + "/a"), 0755U);
    EXPECT_EQ(mode_of(old + "/a/b"), 0755U);
    EXPECT_EQ(mode_of(old + "/a/b/c"), 0777U);
  }
}

TEST_F(file_manager, new_folder_has_exactly_its_mode_in_a_folder_that_hands_its_group_down) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 02777), 0);
  EXPECT_TRUE(platform::create_folder(at("a"), 0750).ok);
  EXPECT_EQ(mode_of(at("a")), 0750U);
}

TEST_F(file_manager, folder_is_made_below_a_link_that_nobody_else_can_have_put_there) {
  fs::create_directory(at("real"));
  fs::create_directory_symlink("real", at("link"));
  EXPECT_TRUE(platform::create_folder(at("link/a/b"), 0777).ok);
  EXPECT_TRUE(fs::is_directory(at("real/a/b")));
}

TEST_F(file_manager, folder_is_not_made_below_a_link_where_everyone_may_write) {
  fs::create_directory(at("victim"));
  fs::create_directory(at("open"));
  ASSERT_EQ(::chmod(at("open").c_str(), 0777), 0);
  fs::create_directory_symlink(at("victim"), at("open/link"));
  expect_failure(platform::create_folder(at("open/link/a"), 0777));
  expect_failure(platform::create_folder(at("open/link"), 0777));
  EXPECT_TRUE(fs::is_empty(at("victim")));
}

TEST_F(file_manager, copies_nothing_through_a_link_where_everyone_may_write) {
  fs::create_directory(at("victim"));
  fs::create_directory(at("open"));
  ASSERT_EQ(::chmod(at("open").c_str(), 0777), 0);
  fs::create_directory_symlink(at("victim"), at("open/link"));
  file("from");
  expect_failure(platform::copy_item(at("from"), at("open/link/to")));
  EXPECT_TRUE(fs::is_empty(at("victim")));
}

TEST_F(file_manager, creates_a_folder_named_with_a_slash_at_the_end) {
  EXPECT_TRUE(platform::create_folder(at("a/b/"), 0777).ok);
  EXPECT_EQ(mode_of(at("a/b")), 0777U);
}

TEST_F(file_manager, existing_folder_is_a_success_and_keeps_its_mode) {
  fs::create_directory(at("old"));
  fs::permissions(at("old"), fs::perms(0750));
  EXPECT_TRUE(platform::create_folder(at("old"), 0777).ok);
  EXPECT_EQ(mode_of(at("old")), 0750U);
}

TEST_F(file_manager, link_to_a_folder_counts_as_that_folder) {
  fs::create_directory(at("old"));
  fs::create_directory_symlink(at("old"), at("link"));
  EXPECT_TRUE(platform::create_folder(at("link"), 0777).ok);
  EXPECT_TRUE(fs::is_symlink(at("link")));
}

TEST_F(file_manager, file_in_the_way_of_a_folder_is_a_failure) {
  file("taken");
  expect_failure(platform::create_folder(at("taken"), 0777));
  EXPECT_EQ(test::read_file(at("taken")), "x");
}

TEST_F(file_manager, file_above_a_folder_is_a_failure_with_a_description) {
  file("taken");
  const auto outcome = platform::create_folder(at("taken/below"), 0777);
  expect_failure(outcome);
  EXPECT_TRUE(outcome.description);
}

TEST_F(file_manager, nameless_folder_is_a_failure) {
  expect_failure(platform::create_folder("", 0777));
}

TEST_F(file_manager, path_with_a_zero_byte_or_without_a_name_is_a_failure_of_each_operation) {
  file("item");
  for (const std::string& path : {std::string(), at("item") + std::string("\0x", 2)}) {
    expect_failure(platform::create_folder(path, 0777));
    expect_failure(platform::copy_item(path, at("copy")));
    expect_failure(platform::copy_item(at("item"), path));
  }
  EXPECT_FALSE(fs::exists(at("copy")));
}

TEST_F(file_manager, copies_a_file_with_its_bytes_and_mode) {
  const umask_scope strict(077);
  file("from", std::string(200000, 'k'));
  fs::permissions(at("from"), fs::perms(0754));
  EXPECT_TRUE(platform::copy_item(at("from"), at("to")).ok);
  EXPECT_EQ(test::read_file(at("to")), std::string(200000, 'k'));
  EXPECT_EQ(mode_of(at("to")), 0754U);
}

TEST_F(file_manager, copies_a_tree_with_modes_and_links) {
  fs::create_directories(at("from/Contents/MacOS"));
  file("from/Contents/MacOS/korvel", "program");
  fs::permissions(at("from/Contents/MacOS/korvel"), fs::perms(0755));
  fs::permissions(at("from/Contents/MacOS"), fs::perms(0555));
  fs::create_symlink("Contents/nowhere", at("from/link"));
  EXPECT_TRUE(platform::copy_item(at("from"), at("to")).ok);
  EXPECT_EQ(test::read_file(at("to/Contents/MacOS/korvel")), "program");
  EXPECT_EQ(mode_of(at("to/Contents/MacOS/korvel")), 0755U);
  EXPECT_EQ(mode_of(at("to/Contents/MacOS")), 0555U);
  EXPECT_EQ(fs::read_symlink(at("to/link")), "Contents/nowhere");
  fs::permissions(at("from/Contents/MacOS"), fs::perms(0755));
  fs::permissions(at("to/Contents/MacOS"), fs::perms(0755));
}

TEST_F(file_manager, copies_a_link_as_a_link) {
  file("file");
  fs::create_symlink(at("file"), at("from"));
  EXPECT_TRUE(platform::copy_item(at("from"), at("to")).ok);
  EXPECT_EQ(fs::read_symlink(at("to")), at("file"));
}

TEST_F(file_manager, copies_nothing_onto_an_existing_item) {
  file("from", "new");
  file("to", "old");
  expect_failure(platform::copy_item(at("from"), at("to")));
  EXPECT_EQ(test::read_file(at("to")), "old");
}

TEST_F(file_manager, copies_no_folder_into_an_existing_folder) {
  fs::create_directory(at("from"));
  file("from/inside");
  fs::create_directory(at("to"));
  expect_failure(platform::copy_item(at("from"), at("to")));
  EXPECT_TRUE(fs::is_empty(at("to")));
}

TEST_F(file_manager, copies_nothing_into_a_missing_folder) {
  file("from");
  expect_failure(platform::copy_item(at("from"), at("missing/to")));
  EXPECT_FALSE(fs::exists(at("missing")));
}

TEST_F(file_manager, missing_source_is_a_failure_with_a_description) {
  const auto outcome = platform::copy_item(at("missing"), at("to"));
  expect_failure(outcome);
  EXPECT_TRUE(outcome.description);
  EXPECT_FALSE(fs::exists(at("to")));
}

// A side whose copies take no rights says so, and then the source's bits are there.
TEST_F(file_manager, copy_has_the_rights_asked_for_or_tells_that_it_has_not) {
  fs::create_directories(at("from/inner"));
  file("from/inner/file");
  fs::permissions(at("from"), fs::perms(0750));
  fs::permissions(at("from/inner"), fs::perms(0755));
  fs::permissions(at("from/inner/file"), fs::perms(04640));
  const platform::item_rights rights{::geteuid(), ::getegid(), 0777};
  const auto outcome = platform::copy_item(at("from"), at("to"), rights);
  EXPECT_TRUE(outcome.ok);
  EXPECT_EQ(mode_of(at("to")), outcome.has_rights ? 0777U : 0750U);
  EXPECT_EQ(mode_of(at("to/inner")), outcome.has_rights ? 0777U : 0755U);
  if (outcome.has_rights) {
    EXPECT_EQ(mode_of(at("to/inner/file")), 0777U);
  }
  EXPECT_EQ(mode_of(at("from/inner/file")), 04640U);
}

TEST_F(file_manager, copy_for_which_no_rights_were_asked_has_none) {
  file("from");
  EXPECT_FALSE(platform::copy_item(at("from"), at("to")).has_rights);
}

TEST_F(file_manager, copying_keeps_the_source) {
  file("from", "kept");
  platform::copy_item(at("from"), at("to"));
  EXPECT_EQ(test::read_file(at("from")), "kept");
}

}  // namespace
