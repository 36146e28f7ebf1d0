// Endpoints that come and go while clients of every kind are at them.

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "front/command_handler.h"
#include "ipc/endpoint.h"
#include "ipc/packet.h"
#include "muro/core/exception.h"
#include "tests/ipc/recorder.h"
#include "tests/stress/duration.h"
#include "tests/support/descriptors.h"
#include "tests/support/frame_client.h"

namespace {

using test::endpoint_name;
using test::endpoint_path;
using test::frame_client;

// "Within a second", on a machine that has other work to do and under the sanitizers.
constexpr long long kPrompt_ms = 5000;
constexpr char kWhole[] = "a text too long to lie within its string object";

/// A handler whose answer tells whether it is whole.
class whole_handler : public muro::ipc {
 public:
  explicit whole_handler(const std::string& name)
      : ipc(name, true, false, defer_serving), text_(kWhole), copies_(8, text_) {
    serve();
  }
  ~whole_handler() override { stop_serving(); }
  std::string handle_request(const std::string& request) override {
    ++handled;
    bool whole = text_ == kWhole && copies_.size() == 8;
    for (const std::string& copy : copies_) whole &= copy == text_;
    return whole ? request : "not whole";
  }

  static inline std::atomic<long> handled{0};

 private:
  std::string text_;
  std::vector<std::string> copies_;
};

/// Clients that connect to one endpoint after the other as long as they live, one kind a thread.
class clients {
 public:
  explicit clients(const std::string& path, std::string request) : request_(std::move(request)) {
    for (int kind = 0; kind < kKinds; ++kind)
      threads_.emplace_back([this, path, kind] {
        while (!stop_) meet(path, kind);
      });
  }
  ~clients() {
    stop_ = true;
    for (std::thread& one : threads_) one.join();
    EXPECT_EQ(wrong_, 0);
  }
  clients(const clients&) = delete;
  clients& operator=(const clients&) = delete;

  int answered() const { return answered_; }

 private:
  static constexpr int kKinds = 5;

  void meet(const std::string& path, int kind) {
    try {
      frame_client client(path);
      if (kind == 0) ask(client);
      if (kind == 1) client.send_bytes(test::frame(request_).substr(0, 3));
      if (kind == 2) client.send_bytes("\xff\xff\xff\xff and more");
      if (kind == 3) client.send_frame(request_);
      if (kind == 4) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    } catch (const std::runtime_error&) {
      std::this_thread::yield();  // nobody is there just now
    }
  }
  void ask(frame_client& client) {
    const std::optional<std::string> reply = client.ask(request_);
    if (!reply) return;  // the endpoint has gone
    ++answered_;
    if (*reply != request_ && !reply->empty()) ++wrong_;
  }

  std::string request_;
  std::atomic<bool> stop_{false};
  std::atomic<int> answered_{0};
  std::atomic<int> wrong_{0};
  std::vector<std::thread> threads_;
};

/// Makes and destroys endpoints on one path until the time is over.
template <class Make>
void come_and_go(const test::stress_time& time, Make make) {
  for (int round = 0; time.is_left(); ++round) {
    auto endpoint = make();
    if (round % 2 == 0) std::this_thread::sleep_for(std::chrono::microseconds(500));
    const test::stopwatch watch;
    endpoint.reset();
    ASSERT_LT(watch.ms(), kPrompt_ms);
  }
}

TEST(stress_endpoints, no_client_meets_half_a_handler) {
  const std::set<int> before = test::open_descriptors();
  const std::string name = endpoint_name();
  whole_handler::handled = 0;
  {
    const clients crowd(endpoint_path(name), "whole?");
    come_and_go(test::stress_time(), [&] { return std::make_unique<whole_handler>(name); });
  }
  EXPECT_GT(whole_handler::handled, 0);
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(stress_endpoints, several_come_and_go_at_once) {
  const test::stress_time time;
  std::vector<std::thread> owners;
  std::vector<std::string> names;
  for (int i = 0; i < 3; ++i) names.push_back(endpoint_name());
  for (const std::string& name : names)
    owners.emplace_back([&time, name] {
      const clients crowd(endpoint_path(name), name);
      come_and_go(time, [&] { return std::make_unique<whole_handler>(name); });
    });
  for (std::thread& owner : owners) owner.join();
}

// Two owners of one path take it from each other; each still ends when it is told to.
TEST(stress_endpoints, two_of_one_path_end_each) {
  const test::stress_time time;
  const std::string name = endpoint_name();
  const clients crowd(endpoint_path(name), "whose?");
  std::thread other([&] {
    come_and_go(time, [&]() -> std::unique_ptr<whole_handler> {
      try {
        return std::make_unique<whole_handler>(name);
      } catch (const muro::exception&) {
        return nullptr;  // the other has taken the path away between its making and its mode
      }
    });
  });
  come_and_go(time, [&]() -> std::unique_ptr<whole_handler> {
    try {
      return std::make_unique<whole_handler>(name);
    } catch (const muro::exception&) {
      return nullptr;
    }
  });
  other.join();
}

// The handler of the helper itself. What is sent changes nothing on this machine.
TEST(stress_endpoints, command_handler_is_whole_for_every_request) {
  const test::log_lines unwanted;
  const std::string name = endpoint_name();
  std::string request;
  muro_packet<std::string>::push(request, "argument");
  muro_packet<std::string>::push(request, "no such command");
  int answered = 0;
  {
    const clients crowd(endpoint_path(name), request);
    come_and_go(test::stress_time(),
                [&] { return std::make_unique<ipc_communicator>(name, kWhole); });
    answered = crowd.answered();
  }
  EXPECT_GT(answered, 0);
}

}  // namespace
