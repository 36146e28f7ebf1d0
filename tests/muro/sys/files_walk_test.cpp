#include "muro/sys/files_walk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/platform.h"
#include "tests/muro/sys/files_support.h"

namespace {

namespace fs = std::filesystem;
using muro::folder_walk;
using muro::unique_fd;
using step = muro::folder_walk::step;
using test::files;
using test::files_of_a_user;
using lines = std::vector<std::string>;

std::string told(const folder_walk& walk, step at) {
  switch (at) {
    case step::entry:
      return (walk.is_folder() ? "closed " : "entry ") + walk.path();
    case step::folder:
      return "folder " + walk.path();
    case step::left:
      return "left " + walk.path();
    case step::lost:
      return "lost";
    default:
      return "end";
  }
}

folder_walk walk_of(const std::string& folder) {
  return folder_walk(unique_fd(platform::open_folder(folder)));
}

lines all_steps(folder_walk& walk) {
  lines steps;
  for (step at = walk.next(); at != step::end; at = walk.next()) steps.push_back(told(walk, at));
  return steps;
}

bool is_same(int folder, const std::string& path) {
  struct stat a {};
  struct stat b {};
  return ::fstat(folder, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_ino == b.st_ino;
}

}  // namespace

TEST_F(files, walk_tells_a_folder_what_it_holds_and_that_it_is_left) {
  make_folder("a/b");
  make_file("a/b/file");
  folder_walk walk = walk_of(root);
  EXPECT_EQ(all_steps(walk),
            (lines{"folder a", "folder a/b", "entry a/b/file", "left a/b", "left a"}));
  EXPECT_EQ(walk.next(), step::end);
}

TEST_F(files, walk_tells_links_as_entries) {
  make_folder("outside/x");
  make_folder("tree");
  make_link(at("outside"), "tree/link");
  folder_walk walk = walk_of(at("tree"));
  EXPECT_EQ(all_steps(walk), lines{"entry link"});
}

TEST_F(files, walk_without_a_root_ends_at_once) {
  folder_walk walk{unique_fd()};
  EXPECT_EQ(walk.next(), step::end);
}

TEST_F(files, walk_gives_the_folder_that_holds_an_entry_and_the_one_entered) {
  make_folder("a/b");
  folder_walk walk = walk_of(root);
  ASSERT_EQ(walk.next(), step::folder);
  EXPECT_TRUE(is_same(walk.holder(), root));
  EXPECT_TRUE(is_same(walk.entered(), at("a")));
  ASSERT_EQ(walk.next(), step::folder);
  EXPECT_TRUE(is_same(walk.holder(), at("a")));
  EXPECT_EQ(walk.name(), "b");
}

TEST_F(files, walk_comes_back_to_every_folder_of_a_deep_tree) {
  std::string path = "1";
  for (int level = 2; level <= 12; ++level) path += "/" + std::to_string(level);
  make_folder(path);
  for (const char* folder : {"1", "1/2/3", "1/2/3/4/5/6/7"}) make_file(std::string(folder) + "/z");
  folder_walk walk = walk_of(root);
  const lines steps = all_steps(walk);
  EXPECT_EQ(std::count(steps.begin(), steps.end(), "lost"), 0);
  EXPECT_EQ(steps.size(), 12U + 12U + 3U);
  for (const char* entry : {"entry 1/z", "entry 1/2/3/z", "entry 1/2/3/4/5/6/7/z", "left 1/2/3/4"})
    EXPECT_EQ(std::count(steps.begin(), steps.end(), entry), 1) << entry;
}

// Whoever moves a folder away while the walk is deep in it does not lead the walk to what lies
// above its new place.
TEST_F(files, walk_does_not_follow_a_folder_that_is_moved_out_of_the_tree) {
  make_folder("tree/1/2/3/4/5/6/7/8");
  make_folder("outside/private");
  folder_walk walk = walk_of(at("tree"));
  while (walk.name() != "8") walk.next();
  fs::rename(at("tree/1/2/3"), at("outside/3"));
  const lines rest = all_steps(walk);
  EXPECT_EQ(rest.back(), "lost");
  EXPECT_EQ(walk.error(), ENOENT);
  for (const std::string& at : rest) EXPECT_EQ(at.find("private"), std::string::npos) << at;
}

TEST_F(files, walk_goes_on_beside_the_folder_that_it_was_lost_in) {
  make_folder("tree/1/2/3/4/5/6/7/8");
  folder_walk walk = walk_of(at("tree"));
  while (walk.name() != "8") walk.next();
  fs::rename(at("tree/1/2/3"), at("3"));
  step at = walk.next();
  while (at != step::lost && at != step::end) at = walk.next();
  EXPECT_EQ(at, step::lost);
  EXPECT_EQ(walk.path(), "1");
  EXPECT_TRUE(is_same(walk.holder(), root + "/tree"));
  EXPECT_EQ(walk.next(), step::end);
}

TEST_F(files_of_a_user, walk_tells_a_folder_that_it_may_not_read_and_why) {
  make_folder("dark/x");
  fs::permissions(at("dark"), fs::perms::none);
  folder_walk walk = walk_of(root);
  ASSERT_EQ(walk.next(), step::entry);
  EXPECT_TRUE(walk.is_folder());
  EXPECT_EQ(walk.error(), EACCES);
  EXPECT_EQ(walk.next(), step::end);
}
