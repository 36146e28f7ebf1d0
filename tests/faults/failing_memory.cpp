#include "tests/faults/failing_memory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace test {
namespace {

constinit thread_local int t_left = -1;  // allocations that still succeed; negative: all do
constinit thread_local bool t_failed = false;
constinit thread_local shortage t_kind = shortage::once;

constinit thread_local bool t_spared = false;  // from others_short_of_memory
constinit std::atomic<int> g_nth{0};
constinit std::atomic<int> g_seen{0};
constinit std::atomic<int> g_failed{0};

bool own_turn_fails() {
  if (t_left < 0) return false;
  if (t_left > 0) {
    --t_left;
    return false;
  }
  t_failed = true;
  if (t_kind == shortage::once) t_left = -1;
  return true;
}

bool others_turn_fails() {
  const int nth = g_nth;
  if (nth == 0 || t_spared || ++g_seen % nth != 0) return false;
  ++g_failed;
  return true;
}

void* allocate(std::size_t bytes) {
  if (own_turn_fails() || others_turn_fails()) throw std::bad_alloc();
  if (void* memory = std::malloc(bytes == 0 ? 1 : bytes)) return memory;
  throw std::bad_alloc();
}

}  // namespace

int fail_each_allocation(shortage kind, const trial& what) {
  for (int allowed = 0;; ++allowed) {
    if (what.prepare) what.prepare();
    t_failed = false;
    t_kind = kind;
    t_left = allowed;
    try {
      what.operation();
    } catch (...) {
    }
    t_left = -1;
    if (!t_failed) return allowed;
    if (what.intact) what.intact();
  }
}

void expect_survival(const trial& what) {
  for (const shortage kind : {shortage::once, shortage::lasting}) {
    SCOPED_TRACE(kind == shortage::once ? "once" : "lasting");
    EXPECT_GT(fail_each_allocation(kind, what), 0);
  }
}

no_memory::no_memory() {
  t_kind = shortage::lasting;
  t_left = 0;
}

no_memory::~no_memory() {
  t_left = -1;
}

others_short_of_memory::others_short_of_memory(int nth) {
  t_spared = true;
  g_seen = 0;
  g_failed = 0;
  g_nth = nth;
}

others_short_of_memory::~others_short_of_memory() {
  g_nth = 0;
}

int others_short_of_memory::failures() const {
  return g_failed;
}

}  // namespace test

void* operator new(std::size_t bytes) {
  return test::allocate(bytes);
}
void* operator new[](std::size_t bytes) {
  return test::allocate(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
