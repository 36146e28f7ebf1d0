#include "muro/sys/thread.h"

#include <pthread.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "tests/muro/sys/thread_support.h"

namespace {

using muro::detail::g_thread_calls;
using test::fresh_process;
using test::replaced;
using test::thrown;

}  // namespace

TEST(rec_mutex, may_be_locked_again_by_its_holder_and_needs_as_many_unlocks) {
  muro::rec_mutex mutex;
  muro::semaphore got(0, 0);
  mutex.lock();
  mutex.lock();
  mutex.unlock();
  std::thread other([&] {
    const muro::rec_lock lock(mutex);
    got.post();
  });
  EXPECT_FALSE(got.wait_ms(50));
  mutex.unlock();
  got.wait();
  other.join();
}

TEST(rec_mutex, keeps_other_threads_out) {
  muro::rec_mutex mutex;
  int count = 0;
  std::vector<std::thread> counting;
  for (int i = 0; i < 4; ++i) {
    counting.emplace_back([&] {
      for (int n = 0; n < 5000; ++n) {
        const muro::rec_lock lock(&mutex);
        ++count;
      }
    });
  }
  for (auto& one : counting) one.join();
  EXPECT_EQ(count, 20000);
}

TEST(rec_mutex, that_cannot_be_made_fails_by_its_own_name) {
  const replaced call(
      g_thread_calls.mutex_init,
      +[](pthread_mutex_t*, const pthread_mutexattr_t*) { return ENOMEM; });
  EXPECT_EQ(thrown([] { muro::rec_mutex(); }), ":Error in 'rec_mutex'");
}

namespace {

/// A mutex that is free from the look number `free_at` on, and counts the sleeps for it.
class taken_mutex {
 public:
  explicit taken_mutex(int free_at) {
    left_ = free_at;
    sleeps_ = 0;
  }
  static int sleeps() { return sleeps_; }

 private:
  static int look(pthread_mutex_t* mutex) {
    return --left_ > 0 ? EBUSY : ::pthread_mutex_trylock(mutex);
  }
  static int sleep(pthread_mutex_t* mutex) {
    ++sleeps_;
    return ::pthread_mutex_lock(mutex);
  }

  inline static int left_ = 0;
  inline static int sleeps_ = 0;
  replaced<std::atomic<int (*)(pthread_mutex_t*)>, int (*)(pthread_mutex_t*)> look_{
      g_thread_calls.mutex_trylock, look};
  replaced<std::atomic<int (*)(pthread_mutex_t*)>, int (*)(pthread_mutex_t*)> sleep_{
      g_thread_calls.mutex_lock, sleep};
};

}  // namespace

TEST(rec_mutex, nobody_sleeps_for_one_that_is_free_soon) {
  muro::rec_mutex mutex;
  const taken_mutex soon_free(muro::detail::kLooks);
  mutex.lock();
  EXPECT_EQ(soon_free.sleeps(), 0);
  mutex.unlock();
}

TEST(rec_mutex, one_that_stays_taken_is_waited_for_asleep) {
  muro::rec_mutex mutex;
  const taken_mutex taken(muro::detail::kLooks + 1);
  mutex.lock();
  EXPECT_EQ(taken.sleeps(), 1);
  mutex.unlock();
}

TEST(rec_mutex, failures_of_lock_and_unlock_carry_their_names) {
  muro::rec_mutex mutex;
  {
    const replaced look(
        g_thread_calls.mutex_trylock, +[](pthread_mutex_t*) { return EAGAIN; });
    const replaced call(
        g_thread_calls.mutex_lock, +[](pthread_mutex_t*) { return EAGAIN; });
    EXPECT_EQ(thrown([&] { mutex.lock(); }), ":Error in 'lock'");
    EXPECT_EQ(thrown([&] { const muro::rec_lock lock(mutex); }), ":Error in 'lock'");
  }
  const replaced call(
      g_thread_calls.mutex_unlock, +[](pthread_mutex_t*) { return EPERM; });
  EXPECT_EQ(thrown([&] { mutex.unlock(); }), ":Error in 'unlock'");
}

TEST(rec_lock, swallows_a_failing_unlock) {
  muro::rec_mutex mutex;
  {
    const replaced call(
        g_thread_calls.mutex_unlock, +[](pthread_mutex_t*) { return EPERM; });
    EXPECT_NO_THROW(muro::rec_lock{mutex});
  }
  mutex.unlock();
}

TEST(rec_lock, of_no_mutex_holds_nothing) {
  muro::rec_mutex* const none = nullptr;
  EXPECT_NO_THROW(muro::rec_lock{none});
}

TEST(slock, holds_a_plain_mutex_for_its_lifetime) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const auto try_elsewhere = [&] {
    int result = 0;
    std::thread([&] {
      result = ::pthread_mutex_trylock(&mutex);
      if (result == 0) ::pthread_mutex_unlock(&mutex);
    }).join();
    return result;
  };
  {
    const slock lock(mutex);
    EXPECT_EQ(try_elsewhere(), EBUSY);
  }
  EXPECT_EQ(try_elsewhere(), 0);
}

TEST(slock, that_cannot_lock_fails_by_its_own_name) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  const replaced call(
      g_thread_calls.mutex_lock, +[](pthread_mutex_t*) { return EINVAL; });
  EXPECT_EQ(thrown([&] { const slock lock(mutex); }), ":Error in 'slock'");
}

namespace {

/// The library lock as it is before init_murolock.
class library_lock : public ::testing::Test {
 protected:
  void TearDown() override {
    if (muro::g_global_mutex != &hosts) delete muro::g_global_mutex;
  }

  muro::rec_mutex hosts;

 private:
  replaced<muro::rec_mutex*, muro::rec_mutex*> mutex_{muro::g_global_mutex, nullptr};
  replaced<void (*)(), void (*)()> lock_{muro::muro_lock, nullptr};
  replaced<void (*)(), void (*)()> unlock_{muro::muro_unlock, nullptr};
};

void hosts_lock() {}

}  // namespace

TEST_F(library_lock, init_murolock_makes_one_and_sets_the_hooks) {
  muro::init_murolock();
  ASSERT_NE(muro::g_global_mutex, nullptr);
  ASSERT_NE(muro::muro_lock, nullptr);
  ASSERT_NE(muro::muro_unlock, nullptr);
  EXPECT_EQ(muro::x_muro_lock_forbidden, nullptr);
}

TEST_F(library_lock, the_hooks_lock_and_unlock_it_recursively) {
  muro::init_murolock();
  muro::semaphore got(0, 0);
  muro::muro_lock();
  muro::muro_lock();
  muro::muro_unlock();
  std::thread other([&] {
    const muro::rec_lock lock(muro::g_global_mutex);
    got.post();
  });
  EXPECT_FALSE(got.wait_ms(50));
  muro::muro_unlock();
  got.wait();
  other.join();
}

TEST_F(library_lock, a_second_init_murolock_keeps_the_first_lock) {
  muro::init_murolock();
  muro::rec_mutex* const first = muro::g_global_mutex;
  muro::init_murolock();
  EXPECT_EQ(muro::g_global_mutex, first);
}

TEST_F(library_lock, one_hook_of_a_host_is_enough_to_keep_out_the_built_in_lock) {
  muro::muro_lock = hosts_lock;
  muro::init_murolock();
  EXPECT_EQ(muro::muro_lock, hosts_lock);
  EXPECT_EQ(muro::muro_unlock, nullptr);
  EXPECT_EQ(muro::g_global_mutex, nullptr);
  muro::muro_lock = nullptr;
  muro::muro_unlock = hosts_lock;
  muro::init_murolock();
  EXPECT_EQ(muro::muro_lock, nullptr);
  EXPECT_EQ(muro::g_global_mutex, nullptr);
}

TEST_F(library_lock, a_mutex_of_a_host_is_enough_to_keep_out_the_hooks) {
  muro::g_global_mutex = &hosts;
  muro::init_murolock();
  EXPECT_EQ(muro::g_global_mutex, &hosts);
  EXPECT_EQ(muro::muro_lock, nullptr);
  EXPECT_EQ(muro::muro_unlock, nullptr);
}

TEST_F(fresh_process, init_murolock_aborts_without_a_recursive_attribute) {
  const auto init_with = [](auto& call, auto failing) {
    call = failing;
    muro::init_murolock();
  };
  EXPECT_EXIT(init_with(
                  g_thread_calls.mutexattr_init, +[](pthread_mutexattr_t*) { return ENOMEM; }),
              ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(
      init_with(
          g_thread_calls.mutexattr_settype, +[](pthread_mutexattr_t*, int) { return EINVAL; }),
      ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(fresh_process, init_murolock_aborts_even_when_a_host_brought_its_lock) {
  const auto init = [] {
    muro::muro_lock = hosts_lock;
    g_thread_calls.mutexattr_init = [](pthread_mutexattr_t*) { return ENOMEM; };
    muro::init_murolock();
  };
  EXPECT_EXIT(init(), ::testing::KilledBySignal(SIGABRT), "");
}
