// Runs a fuzz target as a test: over its seeds, then over mutations of them, which are the same at
// every run. Where the target ends the process, or takes longer than any input may, the input is
// shown in hexadecimal and kept.
//
//     NAME_fuzz [--mutations COUNT] [--words DICTIONARY] FOLDER-OR-FILE...

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include "fuzz/target.h"

namespace {

constexpr std::size_t kLargestInput = 4096;
constexpr unsigned kLimit_s = 60;

struct settings {
  unsigned long mutations = 0;
  std::vector<std::string> words;
  std::vector<std::string> seeds;
};

[[noreturn]] void fail(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  std::exit(2);
}

// The input under test, for the signal handler.
const std::uint8_t* current = nullptr;
std::size_t current_size = 0;
char kept_input[4096];  // the file that it is kept in

void put(int to, const void* bytes, std::size_t count) {
  static_cast<void>(!::write(to, bytes, count));
}

// Async-signal-safe.
void tell_input(int signal) {
  static constexpr char kDigits[] = "0123456789abcdef";
  put(2, kept_input, std::strlen(kept_input));
  put(2, " keeps the input: ", 18);
  for (std::size_t i = 0; i < current_size; ++i) {
    const char pair[2] = {kDigits[current[i] >> 4], kDigits[current[i] & 0xf]};
    put(2, pair, 2);
  }
  put(2, "\n", 1);
  const int kept = ::open(kept_input, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  put(kept, current, current_size);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

void run(const std::string& seed) {
  // In memory of exactly its size, so that a read past its end is seen under a sanitizer.
  const std::vector<std::uint8_t> bytes(seed.begin(), seed.end());
  current = bytes.data();
  current_size = bytes.size();
  ::alarm(kLimit_s);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  ::alarm(0);
  current_size = 0;
}

std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) fail("cannot read " + path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> files_of(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) fail("no seeds: " + path);
  if (!S_ISDIR(status.st_mode)) return {path};
  std::vector<std::string> files;
  DIR* folder = ::opendir(path.c_str());
  while (const dirent* entry = ::readdir(folder))
    if (entry->d_name[0] != '.') files.push_back(path + "/" + entry->d_name);
  ::closedir(folder);
  std::sort(files.begin(), files.end());  // the same mutations on every machine
  if (files.empty()) fail("no seeds in " + path);
  return files;
}

// The text in quotes, with \\, \" and \xNN.
std::string unescaped(const std::string& quoted) {
  std::string word;
  for (std::size_t i = 0; i < quoted.size(); ++i) {
    if (quoted[i] != '\\' || i + 1 == quoted.size()) {
      word += quoted[i];
    } else if (quoted[++i] == 'x' && i + 2 < quoted.size()) {
      word += static_cast<char>(std::stoi(quoted.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      word += quoted[i];
    }
  }
  return word;
}

// A dictionary in libFuzzer's form: [name=]"word" in a line.
std::vector<std::string> words_of(const std::string& path) {
  std::vector<std::string> words;
  std::istringstream lines(content(path));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find('"');
    const std::size_t last = line.rfind('"');
    if (line.empty() || line[0] == '#' || first == last) continue;
    words.push_back(unescaped(line.substr(first + 1, last - first - 1)));
  }
  return words;
}

class mutator {
 public:
  explicit mutator(const settings& from) : from_(from) {}

  std::string next() {
    std::string text = any(from_.seeds);
    for (std::size_t steps = 1 + below(6); steps > 0; --steps) step(text);
    if (text.size() > kLargestInput) text.resize(kLargestInput);
    return text;
  }

 private:
  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }
  const std::string& any(const std::vector<std::string>& list) { return list[below(list.size())]; }

  std::string part_of(const std::string& text) {
    const std::size_t start = below(text.size() + 1);
    return text.substr(start, below(text.size() - start + 1));
  }

  char odd_byte() {
    static constexpr unsigned char kOdd[] = {0x00, 0x01, 0x0a, 0x20, 0x2f, 0x7f, 0x80, 0xff};
    return static_cast<char>(kOdd[below(sizeof kOdd)]);
  }

  void step(std::string& text) {
    const std::size_t at = below(text.size() + 1);
    switch (below(8)) {
      case 0:
        if (at < text.size()) text[at] = static_cast<char>(text[at] ^ (1 << below(8)));
        break;
      case 1:
        if (at < text.size()) text[at] = odd_byte();
        break;
      case 2:
        text.insert(at, 1, static_cast<char>(below(256)));
        break;
      case 3:
        text.erase(at, 1 + below(8));
        break;
      case 4:
        text.insert(at, part_of(text));
        break;
      case 5:
        text.insert(at, part_of(any(from_.seeds)));
        break;
      case 6:
        text.resize(at);
        break;
      default:
        text.insert(at, from_.words.empty() ? std::string(1, odd_byte()) : any(from_.words));
    }
  }

  const settings& from_;
  std::mt19937 random_{20};
};

settings read_arguments(int argc, char** argv) {
  settings given;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--mutations" && i + 1 < argc) {
      given.mutations = std::stoul(argv[++i]);
    } else if (word == "--words" && i + 1 < argc) {
      given.words = words_of(argv[++i]);
    } else {
      for (const std::string& file : files_of(word)) given.seeds.push_back(content(file));
    }
  }
  if (given.seeds.empty()) fail("no seeds given");
  return given;
}

}  // namespace

int main(int argc, char** argv) {
  const settings given = read_arguments(argc, argv);
  std::snprintf(kept_input, sizeof kept_input, "%s.finding", argv[0]);
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGALRM})
    ::signal(signal, tell_input);
  run("");
  for (const std::string& seed : given.seeds) run(seed);
  mutator mutations(given);
  for (unsigned long i = 0; i < given.mutations; ++i) run(mutations.next());
  std::printf("%zu seeds and %lu mutations of them hold\n", given.seeds.size(), given.mutations);
}
