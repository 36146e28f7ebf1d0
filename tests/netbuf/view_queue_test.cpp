#include "netbuf/view_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "tests/netbuf/support.h"

using netbuf_imp::end;
using netbuf_imp::view;
using netbuf_imp::view_queue;

namespace {

class view_queues : public test::with_builtin {
 protected:
  /// A view that is told by its offset.
  view numbered(std::int32_t number) {
    view made = shared_;
    made.shrink(number, end::front);
    return made;
  }
  void push(view_queue& on, std::int32_t number, end where) {
    on.make_room(1, where);
    on.push(numbered(number), where);
  }

  view shared_{new netbuf_imp::nchunk(1000000), 0, 1000000};
};

}  // namespace

TEST_F(view_queues, add_and_remove_at_both_ends) {
  view_queue queue;
  push(queue, 2, end::back);
  push(queue, 1, end::front);
  push(queue, 3, end::back);
  EXPECT_EQ(queue.at(end::front).offset(), 1);
  EXPECT_EQ(queue[1].offset(), 2);
  EXPECT_EQ(queue.at(end::back).offset(), 3);
  queue.pop(end::front);
  queue.pop(end::back);
  EXPECT_EQ(queue.size(), 1u);
  EXPECT_EQ(queue[0].offset(), 2);
}

TEST_F(view_queues, keep_few_views_in_the_object) {
  view_queue queue;
  for (std::int32_t i = 0; i < 4; ++i) push(queue, i, end::front);
  const char* object = reinterpret_cast<const char*>(&queue);
  const char* first = reinterpret_cast<const char*>(&queue[0]);
  EXPECT_TRUE(first >= object && first < object + sizeof queue);
}

TEST_F(view_queues, let_every_reference_go_at_their_end) {
  {
    view_queue queue;
    for (std::int32_t i = 0; i < 300; ++i) push(queue, i, end::back);
    EXPECT_EQ(shared_.get_chunk()->references(), 301);
    queue.pop(end::back);
    EXPECT_EQ(shared_.get_chunk()->references(), 300);
  }
  EXPECT_EQ(shared_.get_chunk()->references(), 1);
}

TEST_F(view_queues, let_references_of_neighbours_go_with_their_chunk_only) {
  view other(new netbuf_imp::nchunk(10), 0, 10);
  view_queue queue;
  queue.make_room(5, end::back);
  for (int i = 0; i < 2; ++i) queue.push(numbered(i), end::back);
  queue.push(view(other), end::back);
  queue.push(numbered(2), end::back);
  queue.push(view(new netbuf_imp::nchunk(10), 0, 10), end::back);
  queue.clear();
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(other.get_chunk()->references(), 1);
  EXPECT_EQ(shared_.get_chunk()->references(), 1);
}

TEST_F(view_queues, act_like_a_deque) {
  view_queue queue;
  std::deque<std::int32_t> model;
  std::mt19937 random(1);
  for (std::int32_t i = 0; i < 20000; ++i) {
    const end where = random() % 2 == 0 ? end::front : end::back;
    const bool growing = i / 1000 % 2 == 0;
    if (model.empty() || random() % 4 < (growing ? 3u : 1u)) {
      push(queue, i, where);
      where == end::front ? model.push_front(i) : model.push_back(i);
    } else {
      queue.pop(where);
      where == end::front ? model.pop_front() : model.pop_back();
    }
    ASSERT_EQ(queue.size(), model.size());
    for (std::size_t k = 0; k < model.size(); k += 1 + model.size() / 8) {
      ASSERT_EQ(queue[k].offset(), model[k]);
    }
  }
}
