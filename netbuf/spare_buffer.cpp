/// The memory of one buffer that each thread keeps: most buffers are passed on and gone at once, and
/// the next one follows.

#include <pthread.h>

#include <new>
#include <utility>

#include "netbuf/buffer.h"

namespace netbuf_imp {
namespace {

constinit thread_local void* t_spare = nullptr;
// Whether the thread's end is going to free it.
constinit thread_local bool t_freed_at_end = false;

// Where another key's function deletes a buffer after this, it is called again.
void free_spare(void*) {
  t_freed_at_end = false;
  ::operator delete(std::exchange(t_spare, nullptr));
}

// An object with a destructor would end the process where there is no memory to register it.
bool free_at_end() {
  static pthread_key_t key;
  static const bool has_key = ::pthread_key_create(&key, free_spare) == 0;
  return has_key && ::pthread_setspecific(key, &t_spare) == 0;
}

}  // namespace

void* buffer::operator new(std::size_t bytes) {
  if (t_spare != nullptr) return std::exchange(t_spare, nullptr);
  return ::operator new(bytes);
}

void buffer::operator delete(void* memory) noexcept {
  if (!t_freed_at_end) t_freed_at_end = free_at_end();
  if (t_spare != nullptr || !t_freed_at_end) return ::operator delete(memory);
  t_spare = memory;
}

}  // namespace netbuf_imp
