// Adds up what the processes of a test run save (counters.cpp): `sum_counters PROFILE BUILD COMMAND...`
// runs the command and, beside it, adds each process's counters and takes them away: together they
// would fill the disk. It puts the sum of each object's counters beside the object, prints the number of
// processes, and ends with 1 where one of the files was not to be read, else as the command does.
//
// Counters as GCC writes them, as its gcov-io.h tells: four words, "gcda", version, stamp and checksum, which tell the
// object that it belongs to; then records of a tag, a length in bytes and that many bytes. One holds
// the number of runs and the largest sum. Each function has one with its three checksums, or an empty
// one where the program left it out, and one with its counters, eight bytes each; a negative length
// stands for that many bytes of zero, which are not there. A zero tag ends the file.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kSummary = 0xa1000000;
constexpr std::uint32_t kFunction = 0x01000000;
constexpr std::uint32_t kArcs = 0x01a10000;

struct function {
  std::array<std::uint32_t, 3> checksums{};
  std::vector<std::uint64_t> counts;  // of all zeros where the program left the function out
};

struct object {
  std::array<std::uint32_t, 4> head{};
  std::uint32_t runs = 0;
  std::uint32_t largest = 0;
  std::vector<function> functions;
};

[[noreturn]] void refuse(const char* what) {
  throw std::runtime_error(what);
}

class reader {
 public:
  explicit reader(std::string_view bytes) : bytes_(bytes) {}

  template <class Value>
  Value take() {
    Value value{};
    if (bytes_.size() - at_ < sizeof value) refuse("ends too early");
    std::memcpy(&value, bytes_.data() + at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  bool at_end() const { return at_ == bytes_.size(); }

 private:
  std::string_view bytes_;
  std::size_t at_ = 0;
};

void read_summary(reader& from, object& to) {
  if (from.take<std::int32_t>() != 8) refuse("has a summary of another length");
  to.runs = from.take<std::uint32_t>();
  to.largest = from.take<std::uint32_t>();
}

void read_function(reader& from, object& to) {
  function& made = to.functions.emplace_back();
  const auto length = from.take<std::int32_t>();
  if (length == 0) return;
  if (length != 12) refuse("has a function of another length");
  made.checksums = from.take<std::array<std::uint32_t, 3>>();
}

void read_counts(reader& from, object& to) {
  const auto length = from.take<std::int32_t>();
  if (length % 8 != 0 || to.functions.empty()) refuse("has counters out of place");
  std::vector<std::uint64_t>& counts = to.functions.back().counts;
  counts.resize(static_cast<std::size_t>(length < 0 ? -length : length) / 8);
  if (length < 0) return;
  for (std::uint64_t& count : counts) count = from.take<std::uint64_t>();
}

object read(std::string_view bytes) {
  reader from(bytes);
  object made;
  made.head = from.take<std::array<std::uint32_t, 4>>();
  while (const auto tag = from.take<std::uint32_t>()) {
    if (tag == kSummary) {
      read_summary(from, made);
    } else if (tag == kFunction) {
      read_function(from, made);
    } else if (tag == kArcs) {
      read_counts(from, made);
    } else {
      refuse("has a record that is not known here");
    }
  }
  if (!from.at_end()) refuse("goes on after its end");
  return made;
}

void add(function& to, const function& one) {
  if (one.counts.empty()) return;
  if (to.counts.empty())
    to = function{one.checksums, std::vector<std::uint64_t>(one.counts.size())};
  if (to.checksums != one.checksums || to.counts.size() != one.counts.size())
    refuse("counts another function");
  for (std::size_t i = 0; i < one.counts.size(); ++i) to.counts[i] += one.counts[i];
}

void add(object& to, const object& one) {
  if (to.functions.empty())
    to = object{one.head, 0, 0, std::vector<function>(one.functions.size())};
  if (to.head != one.head || to.functions.size() != one.functions.size())
    refuse("belongs to another object");
  to.runs += one.runs;
  to.largest += one.largest;
  for (std::size_t i = 0; i < one.functions.size(); ++i) add(to.functions[i], one.functions[i]);
}

template <class Value>
void put(std::ostream& out, const Value& value) {
  out.write(reinterpret_cast<const char*>(&value), sizeof value);
}

void write(const object& from, const fs::path& path) {
  std::ofstream out(path, std::ios::binary);
  put(out, from.head);
  put(out, std::array<std::uint32_t, 4>{kSummary, 8, from.runs, from.largest});
  for (const function& each : from.functions) {
    put(out, std::array<std::uint32_t, 2>{kFunction, each.counts.empty() ? 0U : 12U});
    if (each.counts.empty()) continue;
    put(out, each.checksums);
    put(out,
        std::array<std::uint32_t, 2>{kArcs, static_cast<std::uint32_t>(each.counts.size() * 8)});
    for (const std::uint64_t count : each.counts) put(out, count);
  }
  put(out, std::uint32_t{0});
  if (!out.flush()) refuse("cannot be written");
}

using objects = std::map<std::string, object>;

std::string content_of(std::istream& file, std::size_t size) {
  std::string bytes(size, '\0');
  if (!file.read(bytes.data(), static_cast<std::streamsize>(size))) refuse("ends too early");
  return bytes;
}

void add_process(const fs::path& pack, objects& sums) {
  std::ifstream file(pack, std::ios::binary);
  if (!file) refuse("cannot be opened");
  for (std::string path, size; std::getline(file, path) && std::getline(file, size);)
    add(sums[path], read(content_of(file, std::stoul(size))));
}

struct tally {
  objects sums;
  int processes = 0;
  int unreadable = 0;
};

/// Adds one process's counters and takes them away; what is not to be read stays, to be looked at.
void add_saved(const fs::path& pack, tally& to) {
  try {
    add_process(pack, to.sums);
    fs::remove(pack);
    ++to.processes;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "sum_counters: %s: %s\n", pack.c_str(), e.what());
    fs::rename(pack, pack.parent_path() / ("unreadable-" + pack.filename().string()));
    ++to.unreadable;
  }
}

void add_all_saved(const fs::path& profile, tally& to) {
  std::vector<fs::path> saved;
  for (const fs::directory_entry& entry : fs::directory_iterator(profile))
    if (entry.path().filename().string().starts_with("done-")) saved.push_back(entry.path());
  for (const fs::path& pack : saved) add_saved(pack, to);
}

pid_t start(char** command) {
  pid_t pid = 0;
  if (::posix_spawnp(&pid, command[0], nullptr, nullptr, command, environ) != 0)
    refuse("cannot start the command");
  return pid;
}

int sum_beside(const fs::path& profile, const fs::path& build, char** command) {
  tally all;
  int status = 0;
  const pid_t pid = start(command);
  for (pid_t ended = 0; ended == 0; ::usleep(100000)) {
    ended = ::waitpid(pid, &status, WNOHANG);
    add_all_saved(profile, all);
  }
  for (const auto& [path, object] : all.sums) write(object, build / path);
  std::printf("counters of %d processes, those of %d unreadable\n", all.processes, all.unreadable);
  if (all.unreadable != 0) return 1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int count, char** words) try {
  if (count < 4) refuse("PROFILE BUILD COMMAND...");
  return sum_beside(words[1], words[2], words + 3);
} catch (const std::exception& e) {
  std::fprintf(stderr, "sum_counters: %s\n", e.what());
  return 1;
}
