/// The byte buffer beside its peers.

#include <malloc.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "bench/netbuf_peers.h"
#include "bench/support.h"
#include "muro/core/init.h"
#include "osx/launch_data.h"

namespace {

const std::string& bytes_of(std::size_t n) {
  static std::map<std::size_t, std::string> made;
  std::string& text = made[n];
  if (text.empty()) text.assign(n, 'b');
  return text;
}

/// The workloads: each from an empty buffer to its end.

template <class Bytes>
Bytes append_10000_of_24() {
  const std::string& item = bytes_of(24);
  Bytes all;
  for (int i = 0; i < 10000; ++i) all.append(item.data(), item.size());
  return all;
}

/// What comes in front is a head, whose size is known when the program is compiled.
template <class Bytes>
Bytes prepend_1000_of_16() {
  std::array<char, 16> head;
  bytes_of(head.size()).copy(head.data(), head.size());
  Bytes all;
  for (int i = 0; i < 1000; ++i) all.prepend(head.data(), head.size());
  return all;
}

template <class Bytes>
Bytes receive_160_into_8_kib() {
  const std::string& arrived = bytes_of(1400);
  Bytes all;
  for (int i = 0; i < 160; ++i) {
    all.receive(8192, [&](char* room) {
      std::memcpy(room, arrived.data(), arrived.size());
      return arrived.size();
    });
  }
  return all;
}

template <class Bytes>
Bytes copy_cut_append_100() {
  static const Bytes original = [] {
    Bytes made;
    made.append(bytes_of(8192).data(), 8192);
    return made;
  }();
  Bytes all;
  for (int i = 0; i < 100; ++i) {
    Bytes copy(original);
    copy.drop_front(1000);
    copy.drop_back(1000);
    all.take(std::move(copy));
  }
  return all;
}

template <class Bytes>
std::string pull_up_100_of_8_kib() {
  const std::string& item = bytes_of(8192);
  Bytes all;
  for (int i = 0; i < 100; ++i) {
    Bytes one;
    one.append(item.data(), item.size());
    all.share(one);
  }
  return all.to_string();
}

/// The launchd items of which the message consists, in any buffer: a head of three words, then a
/// padded text, or a filler word for each item and the items.
template <class Bytes>
Bytes item_head(std::uint64_t type, std::uint64_t second) {
  const std::array<std::uint64_t, 3> words{type, 0, second};
  Bytes made;
  made.prepend(reinterpret_cast<const char*>(words.data()), sizeof words);
  return made;
}

template <class Bytes>
Bytes string_item(const std::string& text) {
  Bytes made = item_head<Bytes>(7, text.size());
  made.append(text.data(), text.size());
  constexpr std::array<char, 8> zeros{};
  made.append(zeros.data(), 8 - text.size() % 8);
  return made;
}

template <class Bytes>
Bytes container_item(std::uint64_t type, const std::vector<Bytes>& items) {
  Bytes made = item_head<Bytes>(type, items.size());
  const std::string filler(8 * items.size(), '\0');
  if (!items.empty()) made.append(filler.data(), filler.size());
  for (const Bytes& item : items) made.share(item);
  return made;
}

const std::vector<std::string>& job_command() {
  static const std::vector<std::string> words = {
      "/bin/launchctl", "load", "-S", "Aqua",
      "/Library/LaunchAgents/com.norvane.korvel.restart.0123456789.plist"};
  return words;
}

template <class Bytes>
Bytes submit_job() {
  std::vector<Bytes> arguments;
  for (const std::string& word : job_command()) arguments.push_back(string_item<Bytes>(word));
  std::map<std::string, Bytes> job;
  job["KeepAlive"] = item_head<Bytes>(6, 0);
  job["Label"] = string_item<Bytes>("norvane.jobsubmit");
  job["OnDemand"] = item_head<Bytes>(6, 1);
  job["ProgramArguments"] = container_item(2, arguments);
  job["RunAtLoad"] = item_head<Bytes>(6, 1);
  std::vector<Bytes> entries;
  for (const auto& [key, value] : job) {
    entries.push_back(string_item<Bytes>(key));
    entries.push_back(value);
  }
  return container_item(
      1, std::vector<Bytes>{string_item<Bytes>("SubmitJob"), container_item(1, entries)});
}

/// The same by the product's own encoder.
template <>
netbuf submit_job<netbuf>() {
  std::vector<netbuf> arguments;
  for (const std::string& word : job_command()) {
    arguments.push_back(launch_data::add_string(word));
  }
  std::map<std::string, netbuf> job;
  job["KeepAlive"] = launch_data::add(6, 0, 0);
  job["Label"] = launch_data::add_string("norvane.jobsubmit");
  job["OnDemand"] = launch_data::add(6, 0, 1);
  job["ProgramArguments"] = launch_data::add_vect(arguments, 2);
  job["RunAtLoad"] = launch_data::add(6, 0, 1);
  return launch_data::add_dict({{"SubmitJob", launch_data::add_dict(job)}});
}

template <class Bytes>
std::string submit_job_to_string() {
  return submit_job<Bytes>().to_string();
}

/// A queue that stays as long as it is: the only workload that begins with a full buffer.
template <class Bytes>
void queue_of_8192(benchmark::State& state) {
  const std::string& item = bytes_of(128);
  Bytes queue;
  queue.append(bytes_of(8192).data(), 8192);
  std::array<char, 24> head;
  for (auto _ : state) {
    queue.peek(head.data(), head.size());
    benchmark::DoNotOptimize(head);
    queue.drop_front(item.size());
    queue.append(item.data(), item.size());
  }
  if (queue.to_string() != bytes_of(8192)) state.SkipWithError("wrong: another content");
}

std::string content(const std::string& text) {
  return text;
}
template <class Bytes>
std::string content(const Bytes& bytes) {
  return bytes.to_string();
}

/// `run()` has to give the same bytes as a string does before it is timed.
template <class Run, class StringRun>
void add_row(const char* what, const char* name, Run run, StringRun wanted) {
  bench::add(std::string("netbuf/") + what, name, [run, wanted](benchmark::State& state) {
    if (content(run()) != content(wanted())) return state.SkipWithError("wrong: another content");
    for (auto _ : state) benchmark::DoNotOptimize(run());
  });
}

template <class Bytes>
void add_contender(const char* name) {
  using bench::string_bytes;
  add_row("append", name, append_10000_of_24<Bytes>, append_10000_of_24<string_bytes>);
  add_row("prepend", name, prepend_1000_of_16<Bytes>, prepend_1000_of_16<string_bytes>);
  add_row("receive", name, receive_160_into_8_kib<Bytes>, receive_160_into_8_kib<string_bytes>);
  add_row("copy_cut_append", name, copy_cut_append_100<Bytes>, copy_cut_append_100<string_bytes>);
  add_row("pull_up", name, pull_up_100_of_8_kib<Bytes>, pull_up_100_of_8_kib<string_bytes>);
  bench::add("netbuf/queue", name, queue_of_8192<Bytes>);
}

template <class Bytes>
void add_submit_job(const char* name) {
  add_row("submit_job", name, submit_job_to_string<Bytes>,
          submit_job_to_string<bench::string_bytes>);
}

/// One block of the size that is known to be needed.
void add_limit() {
  using bench::flat_bytes;
  using bench::string_bytes;
  add_row("append", "limit", append_10000_of_24<flat_bytes<0, 240000>>,
          append_10000_of_24<string_bytes>);
  add_row("prepend", "limit", prepend_1000_of_16<flat_bytes<16000, 0>>,
          prepend_1000_of_16<string_bytes>);
  add_row("receive", "limit", receive_160_into_8_kib<flat_bytes<0, 159 * 1400 + 8192>>,
          receive_160_into_8_kib<string_bytes>);
}

[[maybe_unused]] void add_missing(const char* name) {
  for (const char* what :
       {"append", "prepend", "receive", "copy_cut_append", "pull_up", "queue", "submit_job"}) {
    bench::add_missing(std::string("netbuf/") + what, name);
  }
}

/// Lets the allocator keep what is freed. It would give large blocks back to the system between two
/// runs or not by what other rows had asked for before, and getting them again costs a peer more
/// than its work.
void keep_freed_memory() {
  constexpr int most = 32 << 20;
  ::mallopt(M_MMAP_THRESHOLD, most);
  ::mallopt(M_TRIM_THRESHOLD, most);
}

}  // namespace

int main(int argc, char** argv) {
  keep_freed_memory();
  const muro::init runtime;  // with the caches, as in the product
  add_contender<bench::netbuf_bytes>("ours");
  add_submit_job<netbuf>("ours");
  add_limit();
  add_contender<bench::string_bytes>("std::string");
  add_submit_job<bench::string_bytes>("std::string");
#ifdef KORVEL_BENCH_EVBUFFER
  add_contender<bench::evbuffer_bytes>("evbuffer");
  add_submit_job<bench::evbuffer_bytes>("evbuffer");
#else
  add_missing("evbuffer");
#endif
#ifdef KORVEL_BENCH_CORD
  add_contender<bench::cord_bytes>("absl::Cord");
  add_submit_job<bench::cord_bytes>("absl::Cord");
#else
  add_missing("absl::Cord");
#endif
  return bench::run(argc, argv);
}
