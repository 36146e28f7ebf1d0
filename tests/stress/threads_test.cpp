// Threads and semaphores that come and go from several sides.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "muro/sys/thread.h"
#include "tests/stress/duration.h"

namespace {

constexpr int kMakers = 4;

std::atomic<long> bodies_run{0};

class counting : public muro::thread {
 public:
  explicit counting(bool self_delete) : thread(self_delete, "counting", 1) {}
  ~counting() override { synchronize(); }

 private:
  void run() override {
    ++number_;
    ++bodies_run;
  }
  long number_ = 0;  // the body's own, which the destructor must not race with
};

/// A thread that deletes itself has no owner to wait for it, so its destructor must not either.
class self_deleting : public muro::thread {
 public:
  self_deleting() : thread(true, "", 0) {}

 private:
  void run() override { ++bodies_run; }
};

/// Runs `work` on several threads until the time is over; it gives the rounds of all.
template <class Work>
long on_all_sides(Work work) {
  const test::stress_time time;
  std::atomic<long> rounds{0};
  std::vector<std::thread> makers;
  for (int i = 0; i < kMakers; ++i)
    makers.emplace_back([&] {
      for (; time.is_left(); ++rounds) work();
    });
  for (std::thread& maker : makers) maker.join();
  return rounds;
}

/// Threads count themselves out after their owners know of their end.
void await_no_threads() {
  while (muro::running_threads() > 0) std::this_thread::yield();
}

TEST(stress_threads, started_and_destroyed_each_body_runs_once) {
  muro::init_thread();
  bodies_run = 0;
  const long rounds = on_all_sides([] {
    counting one(false);
    counting never_started(false);
    one.detach();
    one.synchronize();
  });
  await_no_threads();
  EXPECT_EQ(bodies_run, rounds);
}

TEST(stress_threads, destroyed_at_once_each_body_runs_once) {
  bodies_run = 0;
  const long rounds = on_all_sides([] { counting(false).detach(); });
  await_no_threads();
  EXPECT_EQ(bodies_run, rounds);
}

TEST(stress_threads, deleting_themselves_each_body_runs_once) {
  bodies_run = 0;
  const long rounds = on_all_sides([] {
    (new self_deleting)->detach();
    while (muro::running_threads() > 64) std::this_thread::yield();
  });
  await_no_threads();
  EXPECT_EQ(bodies_run, rounds);
}

// One thread posts what it is handed; the waiter destroys it the moment that it has the count.
TEST(stress_semaphores, on_the_stack_of_the_waiter_are_destroyed_as_the_post_returns) {
  std::atomic<muro::semaphore*> handed{nullptr};
  std::atomic<bool> stop{false};
  std::thread posting([&] {
    while (!stop) {
      if (muro::semaphore* const one = handed.exchange(nullptr)) one->post();
    }
  });
  const test::stress_time time;
  for (long round = 0; time.is_left(); ++round) {
    muro::semaphore mine(0, 0);
    handed = &mine;
    if (round % 3 == 0) {
      mine.wait();
    } else {
      while (!mine.wait_ms(round % 3 == 1 ? 0 : 1)) std::this_thread::yield();
    }
  }
  stop = true;
  posting.join();
}

TEST(stress_semaphores, lose_no_count_between_waits_with_and_without_a_limit) {
  muro::semaphore shared(0, 0);
  std::atomic<long> given{0};
  std::atomic<long> taken{0};
  on_all_sides([&] {
    shared.post();
    ++given;
    if (shared.wait_ms(taken % 2)) ++taken;
  });
  while (shared.wait_ms(0)) ++taken;
  EXPECT_EQ(taken, given);
}

}  // namespace
