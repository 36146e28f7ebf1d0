#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>

#include "front/session_folder_rights.h"
#include "muro/core/errlog.h"
#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "platform/platform.h"
#include "tests/races/naive.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

namespace {

/// The naive operation runs until it loses, at most kPatience times: many more than it takes on a
/// machine with a single processor. The product's then runs as often, and kRounds times more.
constexpr int kRounds = 400;
constexpr int kPatience = 200'000;

constexpr const char* kTop = "/race";
constexpr const char* kVictim = "/race/victim";
constexpr const char* kSource = "/race/source";
constexpr const char* kPlace = "/race/place";

/// A process that does one thing without a pause until the object goes.
class adversary {
 public:
  explicit adversary(const std::function<void()>& act) : pid_(::fork()) {
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) act();
  }
  ~adversary() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  adversary(const adversary&) = delete;
  adversary& operator=(const adversary&) = delete;

 private:
  pid_t pid_;
};

/// Exchanges two entries in one step, so that there is no instant at which either is missing.
void exchange(const std::string& a, const std::string& b) {
  ::syscall(SYS_renameat2, AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
}

/// A place where everyone may write, and a victim outside it that a link in it leads to.
class race : public testing::Test {
 protected:
  void SetUp() override {
    muro::errlog::set_log_filter([](const char*, std::size_t) { return 0; });
    fs::remove_all(kTop);
    fs::create_directories(kPlace);
    fs::permissions(kPlace, fs::perms::all);
    make_victim();
  }
  void TearDown() override {
    fs::remove_all(kTop);
    muro::errlog::set_log_filter(nullptr);
  }

  static void make_victim() {
    fs::create_directories(kVictim);
    for (const char* name : {"a", "b", "c"}) {
      test::write_file(std::string(kVictim) + "/" + name, "kept");
      ::chmod((std::string(kVictim) + "/" + name).c_str(), 0600);
    }
    ::chmod(kVictim, 0700);
  }

  static bool is_untouched() {
    std::size_t entries = 0;
    for (const auto& entry : fs::directory_iterator(kVictim)) {
      struct stat status {};
      if (::lstat(entry.path().c_str(), &status) != 0 || (status.st_mode & 07777) != 0600)
        return false;
      ++entries;
    }
    struct stat status {};
    return entries == 3 && ::stat(kVictim, &status) == 0 && (status.st_mode & 07777) == 0700;
  }

  /// A tree with a folder "d" like the victim and a link "l" to the victim.
  static void make_tree(const std::string& tree) {
    fs::create_directories(tree + "/d");
    for (const char* name : {"a", "b", "c"}) test::write_file(tree + "/d/" + name, "x");
    std::error_code exists;
    fs::create_directory_symlink(kVictim, tree + "/l", exists);
  }

  using operation = std::function<void(const std::string& tree)>;

  /// Runs `act` on a fresh tree, `rounds` times or until the victim is touched. Gives how often it
  /// went well.
  static int rounds_won(int rounds, const operation& act) {
    const std::string tree = std::string(kPlace) + "/tree";
    const adversary swaps([&] { exchange(tree + "/d", tree + "/l"); });
    for (int round = 0; round < rounds; ++round) {
      std::error_code ignored;
      make_tree(tree);
      act(tree);
      if (!is_untouched()) return round;
    }
    return rounds;
  }

  /// Both must have run: a race that even the naive operation wins shows nothing.
  static void expect_won(const operation& act, const operation& naive) {
    const int lost_after = rounds_won(kPatience, naive);
    ASSERT_LT(lost_after, kPatience) << "the naive operation never lost";
    fs::remove_all(kVictim);
    make_victim();
    const int rounds = lost_after + kRounds;
    EXPECT_EQ(rounds_won(rounds, act), rounds);
  }
};

void try_delete(const std::string& tree) {
  try {
    muro::delete_recursive(tree);
  } catch (const muro::exception&) {
    // What is swapped at the wrong moment may stay; it goes with the next round.
  }
}

void open_bundle(const std::string& tree) {
  openBundleToAll(muro::fmt_dbg("race"), kPlace, fs::path(tree).filename());
}

TEST_F(race, deleting_touches_nothing_outside) {
  expect_won(try_delete, naive::delete_recursive);
}

TEST_F(race, opening_a_bundle_to_all_touches_nothing_outside) {
  expect_won(open_bundle, naive::open_to_all);
}

TEST_F(race, copying_a_bundle_open_to_all_touches_nothing_outside) {
  make_tree(kSource);
  expect_won(
      [](const std::string& tree) {
        try_delete(tree);
        platform::copy_item(kSource, tree, platform::item_rights{0, 80, 0777});
      },
      [](const std::string& tree) {
        try_delete(tree);
        naive::copy_open_to_all(kSource, tree);
      });
}

TEST_F(race, creating_a_folder_makes_none_outside) {
  expect_won(
      [](const std::string& tree) {
        ::chmod(tree.c_str(), 0777);
        platform::create_folder(tree + "/d/new", 0777);
        try_delete(tree);
      },
      [](const std::string& tree) {
        naive::create_folder(tree + "/d/new", 0777);
        try_delete(tree);
      });
}

/// A file that another process makes at the target again and again. Each that it made has to be
/// found at the end: none may have been replaced.
class late_target : public race {
 protected:
  void SetUp() override {
    race::SetUp();
    fs::create_directory(kKept);
    made_ = static_cast<std::atomic<int>*>(
        ::mmap(nullptr, sizeof *made_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(made_, MAP_FAILED);
  }
  void TearDown() override {
    ::munmap(made_, sizeof *made_);
    race::TearDown();
  }

  /// Moves a file to the target `rounds` times, or until one of the other process's files is gone.
  /// Gives how often it went well.
  int rounds_won(int rounds, const std::function<void()>& move) {
    int found = 0;
    *made_ = 0;
    const auto make_late = [this] {
      const int file = ::open(kTo, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (file < 0) return;
      ++*made_;
      ::close(file);
    };
    {
      const adversary makes(make_late);
      for (int round = 0; round < rounds; ++round) {
        if (*made_ - found > 1) return round;  // one may stand at the target
        test::write_file(kFrom, "new");
        move();
        // What stands at the target is put aside under a name of its own.
        const std::string aside = std::string(kKept) + "/" + std::to_string(round);
        if (::rename(kTo, aside.c_str()) == 0 && test::read_file(aside).empty()) ++found;
      }
    }
    if (fs::exists(kTo) && test::read_file(kTo).empty()) ++found;
    return *made_ > found ? rounds - 1 : rounds;
  }

  static constexpr const char* kFrom = "/race/from";
  static constexpr const char* kTo = "/race/place/to";
  static constexpr const char* kKept = "/race/kept";
  std::atomic<int>* made_ = nullptr;
};

TEST_F(late_target, is_not_replaced_by_a_move) {
  const int lost_after = rounds_won(kPatience, [] { naive::move_file(kFrom, kTo); });
  ASSERT_LT(lost_after, kPatience) << "the naive move never lost";
  fs::remove(kTo);
  const int rounds = lost_after + 10 * kRounds;
  EXPECT_EQ(rounds_won(rounds,
                       [] {
                         try {
                           muro::move_file(kFrom, kTo);
                         } catch (const muro::exception&) {
                           // The other process was first.
                         }
                       }),
            rounds);
}

}  // namespace
