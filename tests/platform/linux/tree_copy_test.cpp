// Copies as the Linux side makes them: rights on the way, closed until whole, a second thread.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>

#include "platform/linux/content_copier.h"
#include "platform/platform.h"
#include "tests/support/temp_dir.h"
#include "tests/support/thread_count.h"

namespace fs = std::filesystem;
using platform::copy_item;
using platform::copy_outcome;

namespace {

mode_t mode_of(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

std::ptrdiff_t entries_in(const std::string& folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

/// Files are not written beyond this size for the length of a test: EFBIG.
class size_limit {
 public:
  explicit size_limit(rlim_t bytes) : old_action_(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &old_limit_);
    const rlimit limit{bytes, old_limit_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~size_limit() {
    ::setrlimit(RLIMIT_FSIZE, &old_limit_);
    ::signal(SIGXFSZ, old_action_);
  }
  size_limit(const size_limit&) = delete;
  size_limit& operator=(const size_limit&) = delete;

 private:
  rlimit old_limit_{};
  sighandler_t old_action_;
};

/// No thread can be started for the length of a test: none gets a stack that large.
class no_threads {
 public:
  no_threads() {
    ::pthread_getattr_default_np(&old_);
    pthread_attr_t huge;
    ::pthread_attr_init(&huge);
    ::pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
    ::pthread_setattr_default_np(&huge);
    ::pthread_attr_destroy(&huge);
  }
  ~no_threads() { ::pthread_setattr_default_np(&old_); }
  no_threads(const no_threads&) = delete;
  no_threads& operator=(const no_threads&) = delete;

 private:
  pthread_attr_t old_;
};

class tree_copy : public testing::Test {
 protected:
  std::string at(const std::string& name) const { return folder_ / name; }

  static copy_outcome copy_open(const std::string& from, const std::string& to) {
    return copy_item(from, to, platform::item_rights{::geteuid(), ::getegid(), 0777});
  }

  static std::string content_of_file(int number) {
    return std::string(static_cast<std::size_t>(number) * 331,
                       static_cast<char>('a' + number % 26));
  }

  /// "large", in three folders, with enough in it for a second thread.
  void make_large_tree() const {
    off_t bytes = 0;
    for (const char* inner : {"", "/a", "/a/b"}) {
      fs::create_directory(at("large") + inner);
      for (int i = 0; i < kFiles; ++i) {
        test::write_file(at("large") + inner + "/" + std::to_string(i), content_of_file(i));
        bytes += i * 331;
      }
    }
    ASSERT_GT(bytes, 2 * platform::detail::content_copier::kWorthAThread);
  }

  void expect_large_tree_copied() const {
    for (const char* inner : {"", "/a", "/a/b"}) {
      EXPECT_EQ(mode_of(at("to") + inner), 0777U);
      for (int i = 0; i < kFiles; ++i) {
        const std::string path = at("to") + inner + "/" + std::to_string(i);
        ASSERT_EQ(test::read_file(path), content_of_file(i)) << path;
        ASSERT_EQ(mode_of(path), 0777U) << path;
      }
    }
  }

  static constexpr int kFiles = 200;
  test::temp_dir folder_;
};

TEST_F(tree_copy, gives_every_file_and_folder_its_rights_whatever_the_umask) {
  fs::create_directories(at("from/a/b"));
  test::write_file(at("from/a/b/file"), "x");
  fs::permissions(at("from/a/b/file"), fs::perms(06755));
  fs::create_symlink("a/b/file", at("from/link"));
  const mode_t old = ::umask(077);
  EXPECT_TRUE(copy_open(at("from"), at("to")).has_rights);
  ::umask(old);
  for (const char* item : {"to", "to/a", "to/a/b", "to/a/b/file"})
    EXPECT_EQ(mode_of(at(item)), 0777U) << item;
}

TEST_F(tree_copy, of_a_single_file_has_its_rights_too) {
  test::write_file(at("from"), "x");
  EXPECT_TRUE(copy_open(at("from"), at("to")).has_rights);
  EXPECT_EQ(mode_of(at("to")), 0777U);
}

TEST_F(tree_copy, has_its_rights_when_links_lead_to_what_is_copied_after_them) {
  fs::create_directories(at("from/a"));
  for (const char* name : {"1", "2", "3"}) {
    test::write_file(at("from/") + name, "x");
    fs::create_symlink(std::string("../") + name, at("from/a/to") + name);
  }
  EXPECT_TRUE(copy_open(at("from"), at("to")).has_rights);
}

TEST_F(tree_copy, lacks_rights_when_a_link_leads_nowhere) {
  fs::create_directories(at("from/a"));
  fs::create_symlink("nowhere", at("from/a/link"));
  const copy_outcome outcome = copy_open(at("from"), at("to"));
  EXPECT_TRUE(outcome.ok);
  EXPECT_FALSE(outcome.has_rights);
  EXPECT_EQ(mode_of(at("to/a")), 0777U);
}

TEST_F(tree_copy, as_a_user_who_may_not_give_them_lacks_rights_and_keeps_the_sources_bits) {
  fs::create_directory(at("from"));
  test::write_file(at("from/file"), "x");
  fs::permissions(at("from"), fs::perms(0755));
  fs::permissions(at("from/file"), fs::perms(0644));
  const bool was_root = ::geteuid() == 0;
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  if (was_root && ::seteuid(65534) != 0) std::abort();
  const copy_outcome outcome =
      copy_item(at("from"), at("to"), platform::item_rights{0, ::getegid(), 0777});
  if (was_root && ::seteuid(0) != 0) std::abort();
  EXPECT_TRUE(outcome.ok);
  EXPECT_FALSE(outcome.has_rights);
  EXPECT_EQ(mode_of(at("to")), 0755U);
  EXPECT_EQ(mode_of(at("to/file")), 0644U);
}

TEST_F(tree_copy, stays_closed_to_others_when_it_fails_half_way) {
  fs::create_directories(at("from/a"));
  test::write_file(at("from/a/file"), "x");
  ASSERT_EQ(::mkfifo(at("from/a/pipe").c_str(), 0666), 0);
  const copy_outcome outcome = copy_open(at("from"), at("to"));
  EXPECT_EQ(outcome.description, std::strerror(ENOTSUP));
  EXPECT_EQ(mode_of(at("to")), 0700U);
}

TEST_F(tree_copy, takes_the_content_of_a_file_that_tells_no_size) {
  ASSERT_EQ(fs::file_size("/proc/version"), 0U);
  EXPECT_TRUE(copy_item("/proc/version", at("to")).ok);
  EXPECT_EQ(test::read_file(at("to")), test::read_file("/proc/version"));
}

TEST_F(tree_copy, of_a_large_tree_is_whole_and_leaves_neither_thread_nor_descriptor) {
  make_large_tree();
  const auto descriptors = entries_in("/proc/self/fd");
  const auto threads = test::thread_count();
  EXPECT_TRUE(copy_open(at("large"), at("to")).has_rights);
  EXPECT_EQ(entries_in("/proc/self/fd"), descriptors);
  EXPECT_TRUE(test::threads_come_down_to(threads));
  expect_large_tree_copied();
}

TEST_F(tree_copy, of_a_large_tree_is_whole_without_a_second_thread) {
  make_large_tree();
  const no_threads none;
  EXPECT_TRUE(copy_open(at("large"), at("to")).has_rights);
  expect_large_tree_copied();
}

TEST_F(tree_copy, of_a_large_tree_tells_the_failure_of_either_thread_and_stays_closed) {
  make_large_tree();
  const auto descriptors = entries_in("/proc/self/fd");
  copy_outcome outcome;
  {
    const size_limit limit(60'000);  // below the largest files
    outcome = copy_open(at("large"), at("to"));
  }
  EXPECT_FALSE(outcome.ok);
  EXPECT_EQ(outcome.description, std::strerror(EFBIG));
  EXPECT_EQ(mode_of(at("to")), 0700U);
  EXPECT_EQ(entries_in("/proc/self/fd"), descriptors);
}

}  // namespace
