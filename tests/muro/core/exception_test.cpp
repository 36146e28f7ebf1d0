#include "muro/core/exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace {

/// While set, every allocation of this thread changes errno, as an allocator is free to.
thread_local bool allocation_changes_errno = false;

struct hostile_allocator {
  hostile_allocator() { allocation_changes_errno = true; }
  ~hostile_allocator() { allocation_changes_errno = false; }
};

}  // namespace

void* operator new(std::size_t size) {
  void* memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  if (allocation_changes_errno) errno = EDOM;
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
  if (allocation_changes_errno) errno = EILSEQ;
}

void operator delete(void* memory, std::size_t) noexcept {
  operator delete(memory);
}

namespace {

using muro::exception;

static_assert(std::is_base_of_v<std::exception, exception>);
static_assert(noexcept(std::declval<const exception&>().what()));

TEST(exception, default_one_is_a_colon) {
  EXPECT_EQ(exception().description(), ":");
  EXPECT_STREQ(exception().what(), ":");
}

TEST(exception, message_has_no_colon_of_its_own) {
  EXPECT_EQ(exception("muro").description(), "muro");
}

TEST(exception, message_may_hold_a_zero_byte) {
  const std::string message("a\0b", 3);
  EXPECT_EQ(exception(message).description(), message);
}

TEST(exception, stream_is_folded_in_behind_the_text) {
  exception e("text");
  e.stream() << " and " << 7;
  EXPECT_STREQ(e.what(), "text and 7");
}

TEST(exception, stream_is_the_same_until_it_is_read) {
  exception e;
  std::ostream& first = e.stream();
  EXPECT_EQ(&first, &e.stream());
}

TEST(exception, description_folds_once) {
  exception e;
  e.stream() << "x";
  EXPECT_EQ(e.description(), ":x");
  EXPECT_EQ(e.description(), ":x");
  EXPECT_STREQ(e.what(), ":x");
}

TEST(exception, stream_may_be_written_again_after_reading) {
  exception e;
  e.stream() << "a";
  EXPECT_EQ(e.description(), ":a");
  e.stream() << "b";
  EXPECT_EQ(e.description(), ":ab");
}

TEST(exception, copy_takes_the_folded_text_and_leaves_it_folded) {
  exception original;
  original.stream() << "x";
  exception copy(original);
  EXPECT_EQ(copy.description(), ":x");
  EXPECT_EQ(original.description(), ":x");
  copy.stream() << "y";
  EXPECT_EQ(original.description(), ":x");
}

TEST(exception, assignment_replaces_text_and_stream) {
  exception left("old");
  left.stream() << " detail";
  exception right("new");
  right.stream() << " text";
  left = right;
  EXPECT_EQ(left.description(), "new text");
  exception& same = left;
  left = same;
  EXPECT_EQ(left.description(), "new text");
}

TEST(exception, is_caught_as_the_standard_one) {
  try {
    throw exception::function("x");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), ":Error in 'x'");
    return;
  }
  FAIL();
}

TEST(exception, function_names_the_function) {
  exception e = exception::function("x");
  EXPECT_EQ(e.description(), ":Error in 'x'");
}

TEST(exception, function_leaves_the_stream_open_for_more) {
  exception e = exception::function("x");
  e.stream() << " more";
  EXPECT_EQ(e.description(), ":Error in 'x' more");
}

TEST(exception, system_error_names_call_and_caller) {
  errno = EINTR;
  EXPECT_EQ(exception::system_error("wait_for_event", "poll").description(),
            ":Error from 'poll' (called in 'wait_for_event'): 4, Interrupted system call");
}

TEST(exception, system_error_without_a_caller_leaves_it_out) {
  errno = ENOENT;
  EXPECT_EQ(exception::system_error("", "socket").description(),
            ":Error from 'socket': 2, No such file or directory");
  errno = ENOENT;
  EXPECT_EQ(exception::system_error(nullptr, "socket").description(),
            ":Error from 'socket': 2, No such file or directory");
}

TEST(exception, system_error_context_stands_before_the_number) {
  errno = ENOENT;
  EXPECT_EQ(exception::system_error_context("remove_directory", "rmdir", "/x").description(),
            ":Error from 'rmdir' (called in 'remove_directory'): [/x] 2, No such file or "
            "directory");
}

TEST(exception, empty_context_keeps_its_brackets) {
  errno = EPERM;
  EXPECT_EQ(exception::system_error_context("", "f", "").description(),
            ":Error from 'f': [] 1, Operation not permitted");
}

TEST(exception, system_error_leaves_the_stream_open_for_more) {
  errno = ENOENT;
  exception e = exception::system_error("f", "g");
  e.stream() << "!";
  EXPECT_EQ(e.description(), ":Error from 'g' (called in 'f'): 2, No such file or directory!");
}

TEST(exception, error_string_has_an_optional_context) {
  errno = ENOENT;
  EXPECT_EQ(exception::system_error_exception_string(nullptr), "2, No such file or directory");
  const std::string context = "c";
  EXPECT_EQ(exception::system_error_exception_string(&context), "[c] 2, No such file or directory");
}

TEST(exception, factories_read_errno_before_they_allocate) {
  const std::string context(100, 'c');
  const hostile_allocator hostile;
  errno = ENOENT;
  const exception plain = exception::system_error("caller", "call");
  errno = EACCES;
  const exception with_context = exception::system_error_context("caller", "call", context);
  allocation_changes_errno = false;
  EXPECT_EQ(plain.description(),
            ":Error from 'call' (called in 'caller'): 2, No such file or directory");
  EXPECT_EQ(with_context.description(),
            ":Error from 'call' (called in 'caller'): [" + context + "] 13, Permission denied");
}

TEST(exception, factories_and_destruction_leave_errno_alone) {
  const std::string context(100, 'c');
  const hostile_allocator hostile;
  errno = ENOENT;
  exception::system_error("caller", "call");
  EXPECT_EQ(errno, ENOENT);
  exception::system_error_context("caller", "call", context);
  EXPECT_EQ(errno, ENOENT);
  exception::function("a function with a rather long name");
  EXPECT_EQ(errno, ENOENT);
}

TEST(exception, text_of_an_error_read_in_the_handler_is_that_of_the_failed_call) {
  const hostile_allocator hostile;
  std::string text;
  try {
    errno = ENOTEMPTY;
    throw exception::system_error("f", "g");
  } catch (const exception&) {
    text = muro::system_error_string();
  }
  allocation_changes_errno = false;
  EXPECT_EQ(text, "Directory not empty");
}

TEST(safe_strerror, is_the_text_of_strerror) {
  for (const int number : {0, 1, ENOENT, EINTR, ECONNREFUSED, 9999, -1}) {
    const std::string expected = std::strerror(number);
    EXPECT_EQ(muro::safe_strerror(number), expected);
  }
}

TEST(safe_strerror, leaves_errno_alone) {
  errno = ENOENT;
  muro::safe_strerror(123456);
  EXPECT_EQ(errno, ENOENT);
}

TEST(system_error_string, is_the_text_of_errno) {
  errno = ENOENT;
  EXPECT_EQ(muro::system_error_string(), "No such file or directory");
}

}  // namespace
