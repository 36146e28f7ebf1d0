// The transfers that clients use: whole frames and exact lengths over any descriptor.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "ipc/pipe_server.h"
#include "tests/support/frame_client.h"
#include "tests/support/signal_storm.h"

namespace {

using test::frame;

constexpr std::size_t kMiB = 0x100000;

/// Two connected ends on which frames travel.
class transfer : public ::testing::Test {
 protected:
  transfer() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("socketpair");
    near_.reset(ends[0]);
    far_.reset(ends[1]);
  }
  void far_sends(const std::string& bytes) {
    EXPECT_EQ(::write(far_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  std::string far_receives(std::size_t length) {
    std::string bytes(length, '\0');
    const ssize_t got = ::recv(far_.get(), bytes.data(), length, MSG_DONTWAIT);
    return bytes.substr(0, got < 0 ? 0 : static_cast<std::size_t>(got));
  }
  bool read_exactly(int length) {
    bytes_.assign(static_cast<std::size_t>(length), '\0');
    return pipe_server::read_(near_.get(), reinterpret_cast<unsigned char*>(bytes_.data()), length);
  }

  muro::unique_fd near_;
  muro::unique_fd far_;
  std::string bytes_;
};

TEST_F(transfer, nothing_succeeds_on_any_descriptor) {
  unsigned char byte = 0;
  EXPECT_TRUE(pipe_server::read_(-1, &byte, 0));
  EXPECT_TRUE(pipe_server::write_(-1, &byte, 0));
}

TEST_F(transfer, negative_length_is_refused) {
  unsigned char byte = 0;
  EXPECT_FALSE(pipe_server::read_(near_.get(), &byte, -1));
  EXPECT_FALSE(pipe_server::write_(near_.get(), &byte, -1));
}

TEST_F(transfer, reads_exactly_what_is_asked_for) {
  far_sends("abcdef");
  EXPECT_TRUE(read_exactly(4));
  EXPECT_EQ(bytes_, "abcd");
  EXPECT_TRUE(read_exactly(2));
  EXPECT_EQ(bytes_, "ef");
}

TEST_F(transfer, reads_on_after_a_short_part) {
  far_sends("ab");
  std::thread later([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    far_sends("cd");
  });
  EXPECT_TRUE(read_exactly(4));
  EXPECT_EQ(bytes_, "abcd");
  later.join();
}

TEST_F(transfer, reading_fails_when_the_peer_closes_midway) {
  far_sends("ab");
  far_.reset();
  EXPECT_FALSE(read_exactly(4));
}

TEST_F(transfer, reading_is_not_retried_after_a_signal) {
  const test::signal_storm storm;
  EXPECT_FALSE(read_exactly(1));
  EXPECT_EQ(errno, EINTR);
}

TEST_F(transfer, reading_fails_on_a_closed_descriptor) {
  unsigned char byte = 0;
  EXPECT_FALSE(pipe_server::read_(98765, &byte, 1));
}

TEST_F(transfer, writes_exactly_what_it_is_given) {
  const unsigned char bytes[] = {'a', 'b', 'c'};
  EXPECT_TRUE(pipe_server::write_(near_.get(), bytes, 2));
  EXPECT_EQ(far_receives(10), "ab");
}

TEST_F(transfer, writing_fails_on_a_closed_descriptor) {
  const unsigned char byte = 'a';
  EXPECT_FALSE(pipe_server::write_(98765, &byte, 1));
}

TEST_F(transfer, large_frame_is_moved_in_as_many_parts_as_it_takes) {
  const std::string body(kMiB, 'f');
  std::thread writer([&] { EXPECT_TRUE(pipe_server::write_(far_.get(), body)); });
  std::string read;
  EXPECT_TRUE(pipe_server::read_(near_.get(), read));
  writer.join();
  EXPECT_EQ(read, body);
}

TEST_F(transfer, frame_is_its_length_and_its_body) {
  EXPECT_TRUE(pipe_server::write_(near_.get(), std::string("ab")));
  EXPECT_EQ(far_receives(100), std::string("\x02\0\0\0ab", 6));
}

TEST_F(transfer, frame_replaces_what_the_string_held) {
  far_sends(frame("new"));
  std::string out = "something longer that was here before";
  EXPECT_TRUE(pipe_server::read_(near_.get(), out));
  EXPECT_EQ(out, "new");
}

TEST_F(transfer, frame_that_is_too_long_is_not_even_begun) {
  EXPECT_FALSE(pipe_server::write_(near_.get(), std::string(kMiB + 1, 'x')));
  EXPECT_EQ(far_receives(1), "");
}

TEST_F(transfer, frame_announcing_too_much_is_refused) {
  far_sends(std::string("\x01\0\x10\0", 4));
  std::string out;
  EXPECT_FALSE(pipe_server::read_(near_.get(), out));
}

TEST_F(transfer, frame_without_its_whole_length_or_body_is_refused) {
  for (const std::string& bytes : {std::string("\x02\0\0", 3), std::string("\x02\0\0\0a", 5)}) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    near_.reset(ends[0]);
    far_.reset(ends[1]);
    far_sends(bytes);
    far_.reset();
    std::string out;
    EXPECT_FALSE(pipe_server::read_(near_.get(), out));
  }
}

}  // namespace
