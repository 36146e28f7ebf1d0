#include "netbuf/view_queue.h"

namespace netbuf_imp {

// The views come to stand at the beginning of the new ring, in order.
void view_queue::enlarge(std::size_t wanted) {
  std::size_t capacity = capacity_;
  while (capacity < wanted) capacity *= 2;
  view* larger = static_cast<view*>(general_allocate(capacity * sizeof(view)));
  for (std::size_t i = 0; i < count_; ++i) {
    new (larger + i) view(std::move(*slot(i)));
    slot(i)->~view();
  }
  if (views_ != own_room()) general_free(views_);
  views_ = larger;
  capacity_ = capacity;
  head_ = 0;
}

}  // namespace netbuf_imp
