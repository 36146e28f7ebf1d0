/// The byte buffer beside its peers. Every workload runs once for each of them, from an empty
/// buffer to its end.

#include <benchmark/benchmark.h>

#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/netbuf_peers.h"
#include "netbuf/netbuf_imp.h"
#include "osx/launch_data.h"

namespace {

const std::string& bytes_of(std::size_t n) {
  static std::map<std::size_t, std::string> made;
  std::string& text = made[n];
  if (text.empty()) text.assign(n, 'b');
  return text;
}

template <class Bytes>
void append_10000_of_24(benchmark::State& state) {
  const std::string& item = bytes_of(24);
  for (auto _ : state) {
    Bytes all;
    for (int i = 0; i < 10000; ++i) all.append(item.data(), item.size());
    benchmark::DoNotOptimize(all);
  }
}

template <class Bytes>
void prepend_1000_of_16(benchmark::State& state) {
  const std::string& item = bytes_of(16);
  for (auto _ : state) {
    Bytes all;
    for (int i = 0; i < 1000; ++i) all.prepend(item.data(), item.size());
    benchmark::DoNotOptimize(all);
  }
}

template <class Bytes>
void grow_at_both_ends(benchmark::State& state) {
  const std::string& item = bytes_of(16);
  for (auto _ : state) {
    Bytes all;
    for (int i = 0; i < 500; ++i) {
      all.append(item.data(), item.size());
      all.prepend(item.data(), item.size());
    }
    benchmark::DoNotOptimize(all);
  }
}

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
}

template <class Bytes>
void erase_at_both_ends(benchmark::State& state) {
  const std::string& item = bytes_of(8192);
  for (auto _ : state) {
    Bytes all;
    all.append(item.data(), item.size());
    for (int i = 0; i < 100; ++i) {
      all.drop_front(24);
      all.drop_back(24);
    }
    benchmark::DoNotOptimize(all);
  }
}

template <class Bytes>
void receive_160_into_8_kib(benchmark::State& state) {
  const std::string& arrived = bytes_of(1400);
  for (auto _ : state) {
    Bytes all;
    for (int i = 0; i < 160; ++i) {
      all.receive(8192, [&](char* room) {
        std::memcpy(room, arrived.data(), arrived.size());
        return arrived.size();
      });
    }
    benchmark::DoNotOptimize(all);
  }
}

template <class Bytes>
void copy_cut_append_100(benchmark::State& state) {
  Bytes original;
  original.append(bytes_of(8192).data(), 8192);
  for (auto _ : state) {
    Bytes all;
    for (int i = 0; i < 100; ++i) {
      Bytes copy(original);
      copy.drop_front(1000);
      copy.drop_back(1000);
      all.share(copy);
    }
    benchmark::DoNotOptimize(all);
  }
}

template <class Bytes>
void pull_up_100_of_8_kib(benchmark::State& state) {
  const std::string& item = bytes_of(8192);
  for (auto _ : state) {
    Bytes all;
    for (int i = 0; i < 100; ++i) {
      Bytes one;
      one.append(item.data(), item.size());
      all.share(one);
    }
    benchmark::DoNotOptimize(all.to_string());
  }
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
void submit_job_to_string(benchmark::State& state) {
  if (submit_job<Bytes>().to_string() != submit_job<bench::string_bytes>().to_string()) {
    state.SkipWithError("not the message");
  }
  for (auto _ : state) benchmark::DoNotOptimize(submit_job<Bytes>().to_string());
}

/// What no buffer can beat: the bytes of the appends in one block of known size.
void append_10000_of_24_into_one_block(benchmark::State& state) {
  const std::string& item = bytes_of(24);
  for (auto _ : state) {
    auto block = std::make_unique<char[]>(10000 * item.size());
    for (std::size_t i = 0; i < 10000; ++i) {
      std::memcpy(block.get() + i * item.size(), item.data(), item.size());
    }
    benchmark::DoNotOptimize(block);
  }
}

using workload = void (*)(benchmark::State&);

void add_row(const char* what, const char* peer, workload run) {
  benchmark::RegisterBenchmark((std::string(what) + "/" + peer).c_str(), run);
}

[[maybe_unused]] void add_missing(const char* what, const char* peer) {
  benchmark::RegisterBenchmark((std::string(what) + "/" + peer).c_str(), [](benchmark::State& s) {
    s.SkipWithError("not measured: the peer's development package is not installed");
  });
}

}  // namespace

#ifdef KORVEL_BENCH_EVBUFFER
#define ADD_EVBUFFER(run) add_row(#run, "evbuffer", run<bench::evbuffer_bytes>)
#else
#define ADD_EVBUFFER(run) add_missing(#run, "evbuffer")
#endif
#ifdef KORVEL_BENCH_CORD
#define ADD_CORD(run) add_row(#run, "absl::Cord", run<bench::cord_bytes>)
#else
#define ADD_CORD(run) add_missing(#run, "absl::Cord")
#endif
#define ADD_WORKLOAD(run)                                 \
  add_row(#run, "netbuf", run<bench::netbuf_bytes>);      \
  add_row(#run, "std::string", run<bench::string_bytes>); \
  ADD_EVBUFFER(run);                                      \
  ADD_CORD(run)

int main(int argc, char** argv) {
  netbuf_imp::install_builtin();
  ADD_WORKLOAD(append_10000_of_24);
  add_row("append_10000_of_24", "one block", append_10000_of_24_into_one_block);
  ADD_WORKLOAD(prepend_1000_of_16);
  ADD_WORKLOAD(grow_at_both_ends);
  ADD_WORKLOAD(erase_at_both_ends);
  ADD_WORKLOAD(queue_of_8192);
  ADD_WORKLOAD(receive_160_into_8_kib);
  ADD_WORKLOAD(copy_cut_append_100);
  ADD_WORKLOAD(pull_up_100_of_8_kib);
  ADD_WORKLOAD(submit_job_to_string);
  add_row("submit_job_to_string", "launch_data", submit_job_to_string<netbuf>);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
