#include <dlfcn.h>
#include <glob.h>

#include <cstdlib>
#include <new>

#include "osx/sessions.h"
#include "tests/osx/mac.h"

namespace {

// Memory that is there up to the listing of the launchd folders and gone behind it.
thread_local bool memory_ends_at_listing = false;
thread_local bool memory_is_gone = false;
thread_local int refused = 0;

void* allocate(std::size_t size) {
  if (memory_is_gone) {
    memory_is_gone = false;
    ++refused;
    throw std::bad_alloc();
  }
  if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

extern "C" int glob(const char* pattern, int flags, int (*failed)(const char*, int),
                    glob_t* found) noexcept {
  static const auto real = reinterpret_cast<decltype(&::glob)>(::dlsym(RTLD_NEXT, "glob"));
  const int result = real(pattern, flags, failed, found);
  memory_is_gone = memory_ends_at_listing;
  return result;
}

namespace {

class sessions_before_10_10_without_memory : public test::mac {
 protected:
  ~sessions_before_10_10_without_memory() override { memory_ends_at_listing = false; }
};

TEST_F(sessions_before_10_10_without_memory, are_none_when_their_listing_throws) {
  set_release("10.9.5");
  make_launchd_folder("of-a-name-that-needs-memory", 0);
  ASSERT_EQ(get_sessions().size(), 1u);
  memory_ends_at_listing = true;
  const session_map found = get_sessions();
  memory_ends_at_listing = false;
  EXPECT_EQ(refused, 1);
  EXPECT_TRUE(found.empty());
}

}  // namespace
