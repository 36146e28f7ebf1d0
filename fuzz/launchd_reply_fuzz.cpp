// An exchange with a user's launchd, on a launchd in memory (fake_launchd.h). The input tells, in
// this order: how it is made and for whom, what fails and when (a byte each but for the waits that
// signals end, which are two), 64 bits that cut the reply behind its first bytes, how much is added
// to it; the socket's path and the request, a line each; the reply. In a replay the first byte 'e'
// instead cuts the reply in two at every place, one exchange each; a fuzzer finds the cuts by itself,
// and would make a hundredth of its executions with them.
//
// For every reply in every split, and every failure:
//   - what comes of it, the reply's body or the exception's text, and every log line is what a
//     second reader of the protocol says, which sees the deliveries one by one;
//   - the request goes out whole behind its header, to the path that was given, over a connection
//     made as the user, while all else is done as root; afterwards the process is root's again and
//     the socket closed, whatever happened;
//   - the waits of an exchange have ten seconds together, however often signals end them.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "fuzz/fake_launchd.h"
#include "fuzz/model_launchd.h"
#include "fuzz/target.h"
#include "muro/core/exception.h"
#include "muro/core/hooks.h"
#include "muro/core/log_settings.h"
#include "netbuf/netbuf_imp.h"
#include "osx/launchd_exec.h"

namespace {

constexpr unsigned long long kMagic = 0xD2FEA02366B39A41;
constexpr std::size_t kRoom = 8192;
constexpr long long kLimit_ms = 10000;
#ifdef KORVEL_FUZZ
constexpr bool kIsReplay = false;
#else
constexpr bool kIsReplay = true;
#endif

/// What an exchange comes to.
struct outcome {
  std::string error;  // empty: none
  std::string body;
  std::string log;  // its lines
  long long paused_us = 0;
};

struct request {
  bool is_call = false;  // by launchd_call, which looks into the reply
  unsigned long long user = 501;
  std::string path;
  std::string body;
};

outcome* observed = nullptr;

int observe_line(const char* line, std::size_t length) {
  observed->log.append(line, length).append("\n");
  return 0;  // and none is queued
}

void observe_pause(unsigned long long microseconds) {
  observed->paused_us += static_cast<long long>(microseconds);
}

outcome by_product(const request& given) {
  outcome got;
  observed = &got;
  netbuf body;
  body.append(given.body.substr(0, given.body.size() / 2));
  netbuf rest;
  rest.append(given.body.substr(given.body.size() / 2));
  body.append(rest);
  try {
    if (given.is_call)
      launchd_call(given.user, given.path, body);
    else
      got.body = send_to_sock(given.user, given.path, body).to_string();
  } catch (const muro::exception& error) {
    got.error = error.description();
  }
  return got;
}

std::string system_text(const char* call, const std::string& context, int error) {
  return std::string(":Error from '") + call + "' (called in 'send_to_sock'): " + context +
         std::to_string(error) + ", " + std::strerror(error);
}

/// The protocol read a second time, one delivery after the other.
class reader {
 public:
  explicit reader(const fake::launchd& from) : from_(from) {
    for (std::string_view part : from.deliveries)
      for (; !part.empty(); part.remove_prefix(std::min(part.size(), kRoom)))
        parts_.push_back(part.substr(0, kRoom));
  }

  outcome exchange(const request& given) {
    outcome wanted;
    wanted.log = "send_to_sock: rpc to " + given.path + "\n";
    wanted.error = refusal(given);
    if (wanted.error.empty()) receive(wanted);
    if (given.is_call && wanted.error.empty()) look_into(wanted);
    return wanted;
  }

 private:
  std::string refusal(const request& given) const {
    const std::string in_function = ":Error in 'send_to_sock'";
    if (given.path.size() > 103) return in_function + ": socket path too long";
    if (given.path.find('\0') != std::string::npos) return in_function;
    const int no_user = given.user >= 0xFFFFFFFF ? EINVAL : given.user == 0 ? 0 : from_.user_error;
    if (no_user != 0) return system_text("seteuid", "", no_user);
    if (from_.socket_error != 0) return in_function;
    if (from_.connect_error != 0)
      return system_text("connect", "[cannot connect] ", from_.connect_error);
    if (from_.send_error != 0)
      return system_text("sendmsg", "[while sending to launchd] ", from_.send_error);
    return "";
  }

  void receive(outcome& wanted) {
    for (unsigned number = 0;; ++number) {
      int error = 0;
      if (!is_there(number, error)) {
        wanted.error = system_text("recvmsg", "[while receiving from launchd] ", error);
        return;
      }
      held_ += parts_[number];
      if (held_.size() >= 16 && (fuzz::word_at(held_) != kMagic || declared() <= 16)) {
        wanted.error = ":Error in 'send_to_sock'";
        return;
      }
      if (held_.size() >= 16 && declared() >= held_.size()) break;
      wanted.log += "send_to_sock: got " + std::to_string(parts_[number].size()) + " - retrying\n";
    }
    wanted.body = held_.substr(16);
  }

  unsigned long long declared() const { return fuzz::word_at(held_.substr(8, 8)); }

  /// Whether the receive with that number gives bytes.
  bool is_there(unsigned number, int& error) {
    while (from_.interrupts(waits_++)) left_ms_ -= fake::kPerInterruption_ms;
    error = ETIMEDOUT;
    if (left_ms_ <= 0) return false;
    const bool is_over = number >= parts_.size();
    if (is_over && from_.end == fake::kStaysSilent) return false;
    error = is_over ? from_.end : 0;
    return !is_over && number != from_.receive_with_cut_control;
  }

  static void look_into(outcome& wanted) {
    const std::string body = std::exchange(wanted.body, "");
    if (body.size() < 24) {
      wanted.error = ":Error in 'pop'";
      return;
    }
    wanted.log += "launchd_call: received " + std::to_string(fuzz::word_at(body)) + "-" +
                  std::to_string(fuzz::word_at(body.substr(8))) + "-" +
                  std::to_string(fuzz::word_at(body.substr(16))) + "\n";
    if (fuzz::word_at(body) != 9)
      wanted.error = ":Error in 'launchd_call'";
    else
      wanted.paused_us = 100000;
  }

  const fake::launchd& from_;
  std::vector<std::string_view> parts_;
  std::string held_;
  unsigned waits_ = 0;
  long long left_ms_ = kLimit_ms;
};

void check_exchange(fake::launchd peer, const request& given) {
  const outcome wanted = reader(peer).exchange(given);
  fake::peer = &peer;
  const outcome got = by_product(given);
  fake::peer = nullptr;
  fuzz::require_equal(got.error, wanted.error, "the exception");
  fuzz::require_equal(got.body, wanted.body, "the reply's body");
  fuzz::require_equal(got.log, wanted.log, "the log lines");
  fuzz::require(got.paused_us == wanted.paused_us, "the pause after an answer");
  fuzz::require(!peer.is_open, "the socket is closed");
  fuzz::require(peer.user == 0, "the process is root's again");
  fuzz::require(peer.now_ms <= kLimit_ms, "the limit of all waits together");
  if (peer.waits == 0) return;
  std::string sent;
  fuzz::put_word(sent, kMagic);
  fuzz::put_word(sent, given.body.size() + 16);
  fuzz::require_equal(peer.sent, sent + given.body, "the message sent");
  fuzz::require_equal(peer.path, given.path, "the path connected to");
  fuzz::require(peer.user_at_connect == given.user, "connected as the user");
}

void choose_failure(unsigned choice, fake::launchd& peer) {
  int* const errors[] = {&peer.user_error, &peer.socket_error, &peer.connect_error,
                         &peer.send_error};
  static constexpr int kErrors[] = {EPERM, EMFILE, ECONNREFUSED, EPIPE};
  if (choice % 16 < 4) *errors[choice % 4] = kErrors[choice / 16 % 4];
}

void cut(std::string_view reply, const std::string_view mask, fake::launchd& peer) {
  std::size_t begin = 0;
  for (std::size_t i = 0; i + 1 < reply.size() && i / 8 < mask.size(); ++i) {
    if ((static_cast<unsigned char>(mask[i / 8]) >> i % 8 & 1) == 0) continue;
    peer.deliveries.push_back(reply.substr(begin, i + 1 - begin));
    begin = i + 1;
  }
  if (begin < reply.size()) peer.deliveries.push_back(reply.substr(begin));
}

void start() {
  netbuf_imp::install_builtin();
  muro::log_filter = observe_line;
  muro::x_relative_time = fake::now_ms;
  muro::x_pause_us = observe_pause;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = (start(), true);
  static_cast<void>(ready);
  static constexpr unsigned long long kUsers[] = {501, 502, 0, 4294967294, 4294967295, 1ULL << 32};
  static constexpr int kEnds[] = {fake::kCloses, fake::kStaysSilent, ECONNRESET, EINTR, EAGAIN};
  fuzz::input in(data, size);
  fake::launchd peer;
  request given;
  const unsigned mode = in.byte();
  given.is_call = mode % 2 != 0;
  given.user = kUsers[mode / 2 % 8 % 6];
  choose_failure(in.byte(), peer);
  peer.end = kEnds[in.byte() % 5];
  peer.receive_with_cut_control = in.byte();
  peer.interruptions = in.number16();
  const std::string_view mask = in.bytes(8);
  const unsigned more = in.byte();
  given.path = in.until('\n');
  given.body = in.until('\n');
  std::string reply(in.rest());
  if (more >= 224) reply.append((more - 223) * 1000, '\x7f');

  if (mode != 'e' || !kIsReplay) {
    cut(reply, mask, peer);
    check_exchange(peer, given);
    return 0;
  }
  for (std::size_t at = 1; at < std::min<std::size_t>(reply.size(), 100); ++at) {
    const std::string_view whole = reply;
    peer.deliveries = {whole.substr(0, at), whole.substr(at)};
    check_exchange(peer, given);
  }
  return 0;
}
