// Between fork and exec a child may neither allocate, nor take a lock, nor write: another thread may
// have held what it would wait for. Here the functions that would do so are traps; the sanitizers
// bring their own in their place, so that there is nothing to be seen under them.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "muro/core/errlog.h"
#include "muro/sys/process.h"
#include "tests/support/processes.h"
#include "tests/support/temp_dir.h"

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
}

namespace {

/// The calls of children, in memory that they share with this process; null counts nothing.
constinit std::atomic<int>* calls_in_children = nullptr;
constinit bool in_child = false;

void note() {
  if (in_child && calls_in_children != nullptr) ++*calls_in_children;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) noexcept {
  note();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  note();
  return __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) noexcept {
  note();
  return __libc_realloc(memory, size);
}
void free(void* memory) noexcept {
  note();
  __libc_free(memory);
}
int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  note();
  return real(mutex);
}
int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  static const auto real =
      reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_trylock"));
  note();
  return real(mutex);
}
ssize_t write(int descriptor, const void* bytes, std::size_t count) {
  note();
  return ::syscall(SYS_write, descriptor, bytes, count);
}
}

namespace {

using muro::process;

class child_calls : public ::testing::Test {
 protected:
  child_calls() {
    void* const shared = ::mmap(nullptr, sizeof *calls_in_children, PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    calls_in_children = new (shared) std::atomic<int>(0);
    process_priv::calls.fork = [] {
      const pid_t pid = ::fork();
      in_child |= pid == 0;
      return pid;
    };
  }
  ~child_calls() override {
    ::munmap(std::exchange(calls_in_children, nullptr), sizeof *calls_in_children);
  }

 private:
  test::system_calls_restored restored_;
  test::short_pauses quick_;
};

/// What a child must not do, done by one.
template <class Action>
int calls_noted(Action action) {
  const pid_t pid = process_priv::calls.fork();
  if (pid == 0) {
    action();
    ::_exit(0);
  }
  ::waitpid(pid, nullptr, 0);
  return calls_in_children->exchange(0);
}

TEST_F(child_calls, traps_see_memory_locks_and_writes) {
  EXPECT_GT(calls_noted([] { static_cast<void>(std::string(100, 'x')); }), 0);
  EXPECT_GT(calls_noted([] { muro::running_threads(); }), 0);
  EXPECT_GT(calls_noted([] { static_cast<void>(!::write(-1, "", 1)); }), 0);
  EXPECT_EQ(calls_noted([] { ::getpid(); }), 0);
}

TEST_F(child_calls, nothing_is_called_on_the_way_to_the_program) {
  EXPECT_EQ(process::system(test::child, {"exit", "7"}, 30), 7);
  EXPECT_EQ(process::system_immediate("echo", {"text"}, nullptr, 30), "text\n");
  EXPECT_EQ(*calls_in_children, 0);
}

TEST_F(child_calls, nothing_is_called_on_the_way_to_a_detached_program) {
  const test::temp_dir folder;
  const std::string told = folder / "told";
  EXPECT_EQ(process::system(test::child, {"session", told}, -1), 0);
  EXPECT_TRUE(test::eventually([&] { return ::access(told.c_str(), F_OK) == 0; }));
  EXPECT_EQ(*calls_in_children, 0);
}

TEST_F(child_calls, nothing_is_called_for_folders_and_kept_descriptors) {
  const std::string folder = "/tmp";
  const std::set<int> keep = {2};
  process::options options;
  options.working_folder = &folder;
  options.descriptors_to_keep = &keep;
  process p;
  p.init_(test::child, {"exit", "0"}, options);
  test::await_end(p.pid());
  EXPECT_EQ(*calls_in_children, 0);
}

TEST_F(child_calls, nothing_is_called_when_there_is_no_program_or_no_second_process) {
  EXPECT_EQ(process::system("no such program", {}, 30), -9);
  EXPECT_EQ(process::system("/", {}, 30), -9);
  process_priv::calls.fork = [] {
    const pid_t pid = in_child ? -1 : ::fork();
    in_child |= pid == 0;
    return pid;
  };
  EXPECT_EQ(process::system(test::child, {"exit", "0"}, -1), 0);
  EXPECT_EQ(*calls_in_children, 0);
}

}  // namespace

#endif
