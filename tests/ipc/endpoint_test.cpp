#include "ipc/endpoint.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <list>

#include "muro/core/exception.h"
#include "muro/sys/files.h"
#include "muro/sys/thread_internal.h"
#include "tests/ipc/recorder.h"
#include "tests/support/broken_pipes.h"
#include "tests/support/descriptors.h"
#include "tests/support/frame_client.h"

namespace {

using test::endpoint_name;
using test::endpoint_path;
using test::frame_client;

/// Serves from its base's constructor on: it overrides the one function and does nothing else.
class plain : public muro::ipc {
 public:
  explicit plain(const std::string& name, bool throw_on_failure = true, bool restricted = false)
      : ipc(name, throw_on_failure, restricted) {}
  std::string handle_request(const std::string& request) override {
    thread = ::pthread_self();
    return "<" + request + ">";
  }
  std::atomic<pthread_t> thread{};
};

/// Serves when it is told to.
class deferred : public muro::ipc {
 public:
  explicit deferred(const std::string& name) : ipc(name, true, false, defer_serving) {}
  ~deferred() override { stop_serving(); }
  std::string handle_request(const std::string& request) override {
    order.push_back(request);
    return request;
  }
  using ipc::serve;
  using ipc::stop_serving;
  std::vector<std::string> order;
};

mode_t mode_of(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

bool is_socket(const std::string& path) {
  return S_ISSOCK(mode_of(path));
}

template <class Make>
std::string failure_of(Make make) {
  try {
    make();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "no exception";
}

TEST(endpoint, answers_right_after_construction) {
  const std::string name = endpoint_name();
  plain endpoint(name);
  EXPECT_EQ(frame_client(endpoint_path(name)).ask("hello"), "<hello>");
}

TEST(endpoint, handles_requests_on_a_thread_of_its_own) {
  const std::string name = endpoint_name();
  plain endpoint(name);
  frame_client(endpoint_path(name)).ask("");
  EXPECT_NE(endpoint.thread.load(), pthread_t{});
  EXPECT_NE(endpoint.thread.load(), ::pthread_self());
}

TEST(endpoint, handler_of_connections_may_be_overridden_and_gets_the_descriptor) {
  struct by_connection : muro::ipc {
    explicit by_connection(const std::string& name) : ipc(name, true, false) {}
    std::string handle_connection(long descriptor, const std::string& request) override {
      struct stat status {};
      const bool socket =
          ::fstat(static_cast<int>(descriptor), &status) == 0 && S_ISSOCK(status.st_mode);
      return request + (socket ? " on a socket" : " on nothing");
    }
    std::string handle_request(const std::string&) override { return "not asked"; }
  };
  const std::string name = endpoint_name();
  by_connection endpoint(name);
  EXPECT_EQ(frame_client(endpoint_path(name)).ask("asked"), "asked on a socket");
}

TEST(endpoint, socket_file_goes_with_it) {
  const std::string name = endpoint_name();
  {
    plain endpoint(name);
    EXPECT_TRUE(is_socket(endpoint_path(name)));
  }
  EXPECT_EQ(mode_of(endpoint_path(name)), 0u);
}

TEST(endpoint, socket_file_that_is_gone_already_does_not_matter_at_the_end) {
  const std::string name = endpoint_name();
  plain endpoint(name);
  ::unlink(endpoint_path(name).c_str());
}

TEST(endpoint, restricted_one_is_for_owner_and_group) {
  const std::string name = endpoint_name();
  plain endpoint(name, true, true);
  EXPECT_EQ(mode_of(endpoint_path(name)) & 07777, 0660u);
}

TEST(endpoint, open_one_is_for_everybody_whatever_the_umask) {
  const mode_t before = ::umask(0077);
  const std::string name = endpoint_name();
  plain endpoint(name);
  ::umask(before);
  EXPECT_EQ(mode_of(endpoint_path(name)) & 07777, 0666u);
}

TEST(endpoint, second_of_the_same_name_takes_over) {
  const std::string name = endpoint_name();
  deferred first(name);
  plain second(name);
  EXPECT_EQ(frame_client(endpoint_path(name)).ask("who"), "<who>");
}

TEST(endpoint, leaves_no_descriptor_behind) {
  muro::init_make_socket();
  const std::set<int> before = test::open_descriptors();
  {
    const std::string name = endpoint_name();
    plain endpoint(name);
    frame_client(endpoint_path(name)).ask("x");
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(endpoint, destroying_keeps_errno) {
  {
    plain endpoint(endpoint_name());
    errno = ENOTTY;
  }
  EXPECT_EQ(errno, ENOTTY);
}

TEST(endpoint, counters_are_zero) {
  EXPECT_EQ(muro::ipc_base_count, 0);
  EXPECT_EQ(muro::ipc_base_server_count, 0);
  EXPECT_EQ(muro::ipc_base_client_count, 0);
}

TEST(endpoint, failure_throws_with_the_failed_calls_errno) {
  const std::string name = endpoint_name() + "/no-such-folder";
  EXPECT_EQ(failure_of([&] { plain endpoint(name); }),
            ":Error from 'socket' (called in 'ipc'): 2, No such file or directory");
}

TEST(endpoint, failure_leaves_no_descriptor) {
  const std::set<int> before = test::open_descriptors();
  failure_of([] { plain endpoint(endpoint_name() + "/no-such-folder"); });
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(endpoint, tolerated_failure_logs_one_line_and_serves_nobody) {
  const test::log_lines log;
  const std::string name = endpoint_name() + "/no-such-folder";
  const std::set<int> before = test::open_descriptors();
  plain endpoint(name, false);
  EXPECT_EQ(log.all(), std::vector<std::string>{"ipc: endpoint " + endpoint_path(name) +
                                                " cannot be opened: No such file or directory"});
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(endpoint, failed_one_deletes_nothing_at_its_path) {
  const test::log_lines log;
  const std::string name = endpoint_name();
  ASSERT_EQ(::mkdir(endpoint_path(name).c_str(), 0700), 0);
  { plain endpoint(name, false); }
  EXPECT_TRUE(S_ISDIR(mode_of(endpoint_path(name))));
  ::rmdir(endpoint_path(name).c_str());
}

TEST(endpoint, success_logs_nothing) {
  const test::log_lines log;
  { plain endpoint(endpoint_name(), false); }
  EXPECT_TRUE(log.all().empty());
}

TEST(endpoint, server_without_a_stop_pipe_throws_and_leaves_no_file) {
  const std::string name = endpoint_name();
  const std::set<int> before = test::open_descriptors();
  const test::broken_pipes none;
  EXPECT_EQ(failure_of([&] { plain endpoint(name, false); }),
            ":Error from 'pipe' (called in 'pipe_server'): 24, Too many open files");
  EXPECT_EQ(mode_of(endpoint_path(name)), 0u);
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(endpoint, server_without_a_thread_throws_and_leaves_nothing) {
  const test::log_lines log;
  const std::string name = endpoint_name();
  const std::set<int> before = test::open_descriptors();
  auto& create = muro::detail::g_thread_calls.create;
  const auto original = create.load();
  create = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; };
  EXPECT_EQ(failure_of([&] { plain endpoint(name, false); }), ":Error in 'detach'");
  create = original;
  EXPECT_EQ(mode_of(endpoint_path(name)), 0u);
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(endpoint, deferred_one_keeps_its_clients_until_it_serves) {
  const std::string name = endpoint_name();
  deferred endpoint(name);
  frame_client client(endpoint_path(name));
  client.send_frame("early");
  pollfd entry{client.descriptor(), POLLIN, 0};
  EXPECT_EQ(::poll(&entry, 1, 20), 0);
  endpoint.serve();
  EXPECT_EQ(client.receive_reply(), "early");
}

TEST(endpoint, serving_twice_is_serving) {
  const std::string name = endpoint_name();
  deferred endpoint(name);
  endpoint.serve();
  endpoint.serve();
  EXPECT_EQ(frame_client(endpoint_path(name)).ask("x"), "x");
}

TEST(endpoint, one_that_never_served_ends_as_well) {
  const std::string name = endpoint_name();
  { deferred endpoint(name); }
  EXPECT_EQ(mode_of(endpoint_path(name)), 0u);
}

TEST(endpoint, one_that_could_not_be_opened_has_nothing_to_start_or_stop) {
  struct tolerant : muro::ipc {
    explicit tolerant(const std::string& name) : ipc(name, false, false, defer_serving) {
      serve();
      stop_serving();
    }
    std::string handle_request(const std::string&) override { return ""; }
  };
  const test::log_lines log;
  tolerant endpoint(endpoint_name() + "/no-such-folder");
  EXPECT_EQ(log.all().size(), 1u);
}

TEST(endpoint, stopping_deletes_the_file_once) {
  const std::string name = endpoint_name();
  deferred endpoint(name);
  endpoint.serve();
  endpoint.stop_serving();
  EXPECT_EQ(mode_of(endpoint_path(name)), 0u);
  plain successor(name);
  endpoint.stop_serving();
  EXPECT_TRUE(is_socket(endpoint_path(name)));
}

TEST(endpoint, stopping_waits_for_the_request_being_handled) {
  struct slow : muro::ipc {
    slow(const std::string& name, std::promise<void>& entered, std::future<void> leave)
        : ipc(name, true, false, defer_serving), entered_(entered), leave_(std::move(leave)) {
      serve();
    }
    ~slow() override { stop_serving(); }
    std::string handle_request(const std::string& request) override {
      entered_.set_value();
      leave_.wait();
      return request;
    }
    std::promise<void>& entered_;
    std::future<void> leave_;
  };
  const std::string name = endpoint_name();
  std::promise<void> entered;
  std::promise<void> leave;
  auto endpoint = std::make_unique<slow>(name, entered, leave.get_future());
  frame_client client(endpoint_path(name));
  client.send_frame("finished");
  entered.get_future().wait();
  std::future<void> ended = std::async(std::launch::async, [&] { endpoint.reset(); });
  EXPECT_EQ(ended.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
  leave.set_value();
  ended.wait();
}

TEST(endpoint, twenty_queued_clients_are_served_in_their_order) {
  const std::string name = endpoint_name();
  deferred endpoint(name);
  std::list<frame_client> clients;
  std::vector<std::string> sent;
  for (int i = 0; i < 20; ++i) {
    sent.push_back("request " + std::to_string(i));
    clients.emplace_back(endpoint_path(name)).send_frame(sent.back());
  }
  endpoint.serve();
  std::vector<std::string> replies;
  for (frame_client& client : clients) replies.push_back(client.receive_reply().value_or("none"));
  EXPECT_EQ(replies, sent);
  endpoint.stop_serving();
  EXPECT_EQ(endpoint.order, sent);
}

// A handler that does not defer has a moment in which only its base exists. Reading its type then
// is a race by the letter, which the thread sanitizer reports.
#ifndef __SANITIZE_THREAD__
TEST(endpoint, request_during_construction_waits_for_the_handler) {
  struct early_client {
    explicit early_client(const std::string& name) : client(endpoint_path(name)) {
      client.send_frame("early");
      pollfd entry{client.descriptor(), POLLIN, 0};
      answered_early = ::poll(&entry, 1, 50) != 0;
    }
    frame_client client;
    bool answered_early;
  };
  struct handler : muro::ipc, early_client {
    explicit handler(const std::string& name) : ipc(name, true, false), early_client(name) {}
    std::string handle_request(const std::string& request) override { return request; }
  };
  handler endpoint(endpoint_name());
  EXPECT_FALSE(endpoint.answered_early);
  EXPECT_EQ(endpoint.client.receive_reply(), "early");
}

TEST(endpoint, request_during_a_construction_that_fails_is_dropped) {
  struct failing_part {
    failing_part(const std::string& name, std::unique_ptr<frame_client>& client) {
      client = std::make_unique<frame_client>(endpoint_path(name));
      client->send_frame("early");
      throw std::runtime_error("no handler");
    }
  };
  struct handler : muro::ipc, failing_part {
    handler(const std::string& name, std::unique_ptr<frame_client>& client)
        : ipc(name, true, false), failing_part(name, client) {}
    std::string handle_request(const std::string& request) override { return request; }
  };
  std::unique_ptr<frame_client> client;
  EXPECT_THROW(handler(endpoint_name(), client), std::runtime_error);
  EXPECT_EQ(client->receive_reply(), std::nullopt);
}
#endif

}  // namespace
