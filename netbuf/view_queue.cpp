#include "netbuf/view_queue.h"

#include <cstring>

namespace netbuf_imp {

// The room that is not asked for is shared out between the ends. As it is at least half of memory
// that is not the object's own, many views are added before they move again.
void view_queue::rearrange(std::size_t more, end where) {
  const std::size_t count = size();
  const std::size_t wanted = count + more;
  auto capacity = static_cast<std::size_t>(limit_ - memory_);
  view* memory = memory_;
  if (wanted > own_capacity && wanted > capacity / 2) {
    while (wanted > capacity / 2) capacity *= 2;
    memory = static_cast<view*>(general_allocate(capacity * sizeof(view)));
  }

  // A view refers to nothing of itself, so it moves as bytes.
  view* const first = memory + (capacity - wanted) / 2 + (where == end::front ? more : 0);
  // NOLINTNEXTLINE(bugprone-undefined-memory-manipulation)
  std::memmove(static_cast<void*>(first), first_, count * sizeof(view));
  if (memory != memory_ && memory_ != own_room()) general_free(memory_);
  memory_ = memory;
  first_ = first;
  end_ = first + count;
  limit_ = memory + capacity;
}

}  // namespace netbuf_imp
