/// The process-wide state: each test has a process in which nothing is installed yet.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/netbuf/support.h"

using netbuf_imp::end;
using netbuf_imp::operations;
using test::from_text;

namespace {

int g_created = 0;
int g_destroyed = 0;
std::string g_initialised_with;

void* counted_create() {
  ++g_created;
  return netbuf_impl.create();
}

void counted_destroy(void* self) {
  ++g_destroyed;
  netbuf_impl.destroy(self);
}

void noted_init(bool memory_checking, bool caching) {
  g_initialised_with = std::to_string(memory_checking) + std::to_string(caching);
  netbuf_impl.init(memory_checking, caching);
}

operations host_table() {
  operations table = netbuf_impl;
  table.create = counted_create;
  table.destroy = counted_destroy;
  table.init = noted_init;
  table.not_installed = &g_created;
  return table;
}

bool all_zero(const char* bytes, std::size_t n) {
  return std::all_of(bytes, bytes + n, [](char byte) { return byte == 0; });
}

/// A block that was written to and freed may come back as it is: the next of its size shows
/// whether it is cleared.
void dirty_the_general_allocator(std::size_t bytes) {
  auto block = std::make_unique<char[]>(bytes);
  std::memset(block.get(), 'd', bytes);
}

template <class Use>
std::string failure_of(Use use) {
  try {
    use();
  } catch (const std::logic_error& error) {
    return error.what();
  }
  return "none";
}

}  // namespace

TEST(netbuf_install, a_buffer_before_a_table_is_installed_is_refused) {
  EXPECT_IN_FRESH_PROCESS({
    const char* text = "netbuf: no operation table is installed";
    EXPECT_EQ(failure_of([] { netbuf made; }), text);
    EXPECT_EQ(failure_of([] { netbuf::init({}); }), text);
    EXPECT_EQ(failure_of([] { netbuf_imp::installed_operations().block_allocate(1); }), text);
    netbuf_imp::install_builtin();
    EXPECT_EQ(failure_of([] { netbuf made; }), "none");
  });
}

TEST(netbuf_install, first_table_counts) {
  EXPECT_IN_FRESH_PROCESS({
    operations host = host_table();
    EXPECT_TRUE(netbuf::install(host));
    EXPECT_FALSE(netbuf::install(netbuf_impl));
    EXPECT_FALSE(netbuf::install(host));
    { netbuf made; }
    EXPECT_EQ(g_created, 1);
    EXPECT_EQ(g_destroyed, 1);
  });
}

TEST(netbuf_install, copies_the_table) {
  EXPECT_IN_FRESH_PROCESS({
    operations host = host_table();
    netbuf::install(host);
    std::memset(static_cast<void*>(&host), 0, sizeof host);
    netbuf made;
    EXPECT_EQ(g_created, 1);
  });
}

TEST(netbuf_install, copies_every_entry_but_22) {
  EXPECT_IN_FRESH_PROCESS({
    operations host = host_table();
    netbuf::install(host);
    void** given = host;
    void** installed = netbuf_imp::installed_operations();
    for (int i = 0; i < netbuf_imp::operation_count; ++i) {
      EXPECT_EQ(installed[i], i == 22 ? nullptr : given[i]) << i;
    }
    EXPECT_NE(given[22], nullptr);
  });
}

TEST(netbuf_install, a_null_table_is_no_table) {
  EXPECT_IN_FRESH_PROCESS({
    EXPECT_FALSE(netbuf::install(nullptr));
    EXPECT_TRUE(netbuf::install(netbuf_impl));
  });
}

TEST(netbuf_install, init_calls_entry_28_with_both_flags) {
  EXPECT_IN_FRESH_PROCESS({
    operations host = host_table();
    netbuf::install(host);
    EXPECT_EQ(g_initialised_with, "");
    netbuf::init({.memory_checking = true, .caching = false});
    EXPECT_EQ(g_initialised_with, "10");
    netbuf::init({.memory_checking = false, .caching = true});
    EXPECT_EQ(g_initialised_with, "01");
  });
}

// The flags are two bytes, memory checking first: as one record they read 256 for "caching only".
TEST(netbuf_install, init_args_are_two_flags_in_order) {
  const netbuf::init_args args{.memory_checking = false, .caching = true};
  unsigned char bytes[2];
  static_assert(sizeof args == sizeof bytes);
  std::memcpy(bytes, &args, sizeof bytes);
  EXPECT_EQ(bytes[0] + 256 * bytes[1], 256);
}

TEST(netbuf_install, install_builtin_installs_and_initialises_with_caching) {
  EXPECT_IN_FRESH_PROCESS({
    EXPECT_TRUE(netbuf_imp::install_builtin());
    EXPECT_NE(netbuf_imp::cache_of_class(0), nullptr);
    EXPECT_FALSE(netbuf_imp::netbuf_memchecker);
    EXPECT_FALSE(netbuf_imp::install_builtin());
  });
}

TEST(netbuf_install, install_builtin_leaves_a_hosts_table_uninitialised) {
  EXPECT_IN_FRESH_PROCESS({
    operations host = host_table();
    netbuf::install(host);
    EXPECT_FALSE(netbuf_imp::install_builtin());
    EXPECT_EQ(g_initialised_with, "");
  });
}

TEST(netbuf_init, second_call_does_nothing) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf::install(netbuf_impl);
    netbuf::init({.memory_checking = false, .caching = false});
    netbuf::init({.memory_checking = true, .caching = true});
    EXPECT_EQ(netbuf_imp::cache_of_class(0), nullptr);
    EXPECT_FALSE(netbuf_imp::netbuf_memchecker);
  });
}

TEST(netbuf_init, default_entry_caches_without_checking) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf_impl.init_default();
    EXPECT_NE(netbuf_imp::cache_of_class(4), nullptr);
    EXPECT_FALSE(netbuf_imp::netbuf_memchecker);
  });
}

TEST(netbuf_init, checking_entry_caches_with_the_flag_given) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf_impl.init_checking(true);
    EXPECT_NE(netbuf_imp::cache_of_class(4), nullptr);
    EXPECT_TRUE(netbuf_imp::netbuf_memchecker);
  });
  EXPECT_IN_FRESH_PROCESS({
    netbuf_impl.init_checking(false);
    EXPECT_FALSE(netbuf_imp::netbuf_memchecker);
  });
}

TEST(netbuf_init, without_caching_chunks_have_their_exact_size) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf::install(netbuf_impl);
    netbuf::init({.memory_checking = false, .caching = false});
    for (std::int32_t n : {1, 100, 129, 65536}) {
      netbuf_imp::nchunk made(n);
      EXPECT_EQ(made.capacity(), n);
      EXPECT_EQ(made.cache(), nullptr);
    }
    netbuf a = from_text(std::string(200, 'x'));
    netbuf sharer = a;
    *a.allocate_back(1) = 'y';
    EXPECT_EQ(test::view_at(a, 1).get_chunk()->capacity(), 128 + 201 / 4 + 128);
  });
}

TEST(netbuf_init, buffers_made_before_it_work_without_caches) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf::install(netbuf_impl);
    {
      netbuf early = from_text("early");
      EXPECT_EQ(test::view_at(early, 0).get_chunk()->capacity(), 129);
      netbuf::init({.memory_checking = false, .caching = true});
      early.append(std::string(200, 'l'));
      EXPECT_EQ(early.to_string(), "early" + std::string(200, 'l'));
    }
    EXPECT_EQ(from_text("later").to_string(), "later");
  });
}

TEST(netbuf_memchecker, clears_chunk_memory_of_the_general_allocator) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf::install(netbuf_impl);
    netbuf::init({.memory_checking = true, .caching = false});
    for (std::int32_t n : {300, 100000}) {
      dirty_the_general_allocator(static_cast<std::size_t>(n));
      netbuf made;
      EXPECT_TRUE(all_zero(made.allocate_back(n), static_cast<std::size_t>(n)));
    }
  });
}

TEST(netbuf_memchecker, clears_blocks_and_batches) {
  EXPECT_IN_FRESH_PROCESS({
    netbuf::install(netbuf_impl);
    netbuf::init({.memory_checking = true, .caching = true});
    dirty_the_general_allocator(300);
    void* block = netbuf_impl.block_allocate(300);
    EXPECT_TRUE(all_zero(static_cast<char*>(block), 300));
    netbuf_impl.block_free(block);
    dirty_the_general_allocator(1000 * 140);
    netbuf made;
    EXPECT_TRUE(all_zero(made.allocate_back(100), 100));
  });
}

namespace {

std::string g_called;

/// The built-in entry, noted by its number.
template <auto Entry, int Number>
struct noted;
template <class Result, class... Arguments, Result (*operations::*Entry)(Arguments...), int Number>
struct noted<Entry, Number> {
  static Result call(Arguments... arguments) {
    g_called += std::to_string(Number) + " ";
    return (netbuf_impl.*Entry)(arguments...);
  }
};

/// The entries that `netbuf` calls when only entry `Number` is the host's.
template <auto Entry, int Number>
std::string called_when_replaced() {
  operations host = netbuf_impl;
  host.*Entry = noted<Entry, Number>::call;
  netbuf::install(host);
  netbuf a;
  a.append(std::string("bc"));
  *a.allocate_front(1) = 'a';
  netbuf b = a;
  b.append(a);
  b.append(netbuf(a, 1, 1));
  b.erase_front(1);
  b.erase_back(1);
  char first = 0;
  b.copy_front(&first, 1);
  EXPECT_EQ(first, 'b');
  EXPECT_EQ(b.size(), 5);
  EXPECT_EQ(b.to_string(), "bcabc");
  return std::exchange(g_called, "");
}

}  // namespace

// A host may replace any entry and leave the others as they are.
TEST(netbuf_install, a_host_with_one_entry_of_its_own_is_asked) {
  using o = operations;
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::create, 2>()), "2 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::create_range, 3>()), "3 3 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::size, 4>()), "4 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::add, 5>()), "5 5 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::allocate, 7>()), "7 7 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::pull_up, 9>()), "9 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::erase, 10>()), "10 10 "));
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::copy_out, 11>()), "11 "));
  // The temporary one's; the other two end later.
  EXPECT_IN_FRESH_PROCESS(EXPECT_EQ((called_when_replaced<&o::destroy, 1>()), "1 "));
}
