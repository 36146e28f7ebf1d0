/// Filling message templates, beside the libraries that do the same. The template is parsed each
/// time, as it is for a log line.

#include <charconv>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "bench/support.h"
#include "muro/core/fmt.h"

#ifdef KORVEL_BENCH_ABSL
#include "absl/strings/substitute.h"
#endif
#ifdef KORVEL_BENCH_FMT
#include <fmt/format.h>
#endif
#ifdef KORVEL_BENCH_BOOST
#include <boost/format.hpp>
#endif

namespace {

/// What the messages tell: the kinds of values that the product's own lines have.
struct values {
  std::string path = "/Library/Application Support/Korvel/Session 0123456789";
  std::string label = "com.norvane.korvel.restart.0123456789";
  const char* error = "Operation not permitted";
  unsigned int session = 100007;
  unsigned int user = 501;
  unsigned long long type = 7;
  unsigned long long length = 4294967296;
  bool flag = true;
};

struct ours {
  /// What a log line goes through.
  template <class... Args>
  static std::string fill(std::string_view tmpl, const Args&... args) {
    return muro::fill_template(tmpl, args...);
  }
  static std::string one(const values& v) {
    return fill("Failed to create directory: %1%", v.path);
  }
  static std::string first(const values& v) {
    return fill("Failed to move file to %1%: %2%", v.path, v.error);
  }
  static std::string second(const values& v) {
    return fill("agent in %1% update (start=%2%) for %3% %4%", v.user, v.flag, v.label, v.flag);
  }
  static std::string third(const values& v) {
    return fill("session %1% - %2% %3%", v.session, v.user, v.flag);
  }
  static std::string fourth(const values& v) { return fill("received %1%-%2%", v.type, v.length); }
};

#ifdef KORVEL_BENCH_ABSL
// It writes a bool as a word; so does {fmt}.
struct substitute {
  static std::string one(const values& v) {
    return absl::Substitute("Failed to create directory: $0", v.path);
  }
  static std::string first(const values& v) {
    return absl::Substitute("Failed to move file to $0: $1", v.path, v.error);
  }
  static std::string second(const values& v) {
    return absl::Substitute("agent in $0 update (start=$1) for $2 $3", v.user, int{v.flag}, v.label,
                            int{v.flag});
  }
  static std::string third(const values& v) {
    return absl::Substitute("session $0 - $1 $2", v.session, v.user, int{v.flag});
  }
  static std::string fourth(const values& v) {
    return absl::Substitute("received $0-$1", v.type, v.length);
  }
};
#endif

#ifdef KORVEL_BENCH_FMT
struct format {
  template <class... Args>
  static std::string fill(fmt::format_string<Args...> tmpl, Args&&... args) {
    return fmt::format(tmpl, std::forward<Args>(args)...);
  }
};

struct format_to {
  template <class... Args>
  static std::string fill(fmt::format_string<Args...> tmpl, Args&&... args) {
    fmt::memory_buffer out;
    fmt::format_to(fmt::appender(out), tmpl, std::forward<Args>(args)...);
    return fmt::to_string(out);
  }
};

template <class How>
struct braces {
  static std::string one(const values& v) {
    return How::fill("Failed to create directory: {}", v.path);
  }
  static std::string first(const values& v) {
    return How::fill("Failed to move file to {}: {}", v.path, v.error);
  }
  static std::string second(const values& v) {
    return How::fill("agent in {} update (start={}) for {} {}", v.user, int{v.flag}, v.label,
                     int{v.flag});
  }
  static std::string third(const values& v) {
    return How::fill("session {} - {} {}", v.session, v.user, int{v.flag});
  }
  static std::string fourth(const values& v) {
    return How::fill("received {}-{}", v.type, v.length);
  }
};
#endif

struct printf_style {
  [[gnu::format(printf, 1, 2)]] static std::string fill(const char* tmpl, ...) {
    char text[512];
    va_list args;
    va_start(args, tmpl);
    const int length = std::vsnprintf(text, sizeof text, tmpl, args);
    va_end(args);
    return {text, static_cast<std::size_t>(length)};
  }
  static std::string one(const values& v) {
    return fill("Failed to create directory: %s", v.path.c_str());
  }
  static std::string first(const values& v) {
    return fill("Failed to move file to %s: %s", v.path.c_str(), v.error);
  }
  static std::string second(const values& v) {
    return fill("agent in %u update (start=%d) for %s %d", v.user, v.flag, v.label.c_str(), v.flag);
  }
  static std::string third(const values& v) {
    return fill("session %u - %u %d", v.session, v.user, v.flag);
  }
  static std::string fourth(const values& v) {
    return fill("received %llu-%llu", v.type, v.length);
  }
};

#ifdef KORVEL_BENCH_BOOST
struct boost_format {
  static std::string one(const values& v) {
    return (boost::format("Failed to create directory: %1%") % v.path).str();
  }
  static std::string first(const values& v) {
    return (boost::format("Failed to move file to %1%: %2%") % v.path % v.error).str();
  }
  static std::string second(const values& v) {
    return (boost::format("agent in %1% update (start=%2%) for %3% %4%") % v.user % v.flag %
            v.label % v.flag)
        .str();
  }
  static std::string third(const values& v) {
    return (boost::format("session %1% - %2% %3%") % v.session % v.user % v.flag).str();
  }
  static std::string fourth(const values& v) {
    return (boost::format("received %1%-%2%") % v.type % v.length).str();
  }
};
#endif

/// What nobody can beat: one allocation, the pieces copied and converted into it.
class block {
 public:
  block& operator<<(std::string_view text) {
    std::memcpy(end_, text.data(), text.size());
    end_ += text.size();
    return *this;
  }
  template <class Number>
  requires std::is_integral_v<Number> block& operator<<(Number number) {
    end_ = std::to_chars(end_, end_ + 20, number).ptr;
    return *this;
  }
  explicit block(std::size_t room) : bytes_(new char[room]), end_(bytes_.get()) {}
  bool operator==(const std::string& text) const {
    return text == std::string_view(bytes_.get(), static_cast<std::size_t>(end_ - bytes_.get()));
  }

 private:
  std::unique_ptr<char[]> bytes_;
  char* end_;
};

struct limit {
  static block one(const values& v) {
    return std::move(block(28 + v.path.size()) << "Failed to create directory: " << v.path);
  }
  static block first(const values& v) {
    const std::string_view error = v.error;
    return std::move(block(26 + v.path.size() + error.size())
                     << "Failed to move file to " << v.path << ": " << error);
  }
  static block second(const values& v) {
    return std::move(block(55 + v.label.size())
                     << "agent in " << v.user << " update (start=" << int{v.flag} << ") for "
                     << v.label << " " << int{v.flag});
  }
  static block third(const values& v) {
    return std::move(block(72) << "session " << v.session << " - " << v.user << " " << int{v.flag});
  }
  static block fourth(const values& v) {
    return std::move(block(50) << "received " << v.type << "-" << v.length);
  }
};

/// The five messages of the mix, twelve values in all.
template <class Contender>
void mix(benchmark::State& state) {
  const values v;
  const bool same = Contender::one(v) == ours::one(v) && Contender::first(v) == ours::first(v) &&
                    Contender::second(v) == ours::second(v) &&
                    Contender::third(v) == ours::third(v) &&
                    Contender::fourth(v) == ours::fourth(v);
  if (!same) return state.SkipWithError("wrong: another text than the others'");
  for (auto _ : state) {
    benchmark::DoNotOptimize(Contender::one(v));
    benchmark::DoNotOptimize(Contender::first(v));
    benchmark::DoNotOptimize(Contender::second(v));
    benchmark::DoNotOptimize(Contender::third(v));
    benchmark::DoNotOptimize(Contender::fourth(v));
  }
}

template <class Contender>
void add_contender(const char* name) {
  bench::add("template/mix", name, mix<Contender>);
  bench::add_computed(
      "template/one_string", name,
      [] {
        static const values v;
        return Contender::one(v);
      },
      ours::one(values()));
}

[[maybe_unused]] void add_missing(const char* name) {
  bench::add_missing("template/mix", name);
  bench::add_missing("template/one_string", name);
}

}  // namespace

int main(int argc, char** argv) {
  add_contender<ours>("ours");
  add_contender<limit>("limit");
  add_contender<printf_style>("snprintf");
#ifdef KORVEL_BENCH_ABSL
  add_contender<substitute>("absl::Substitute");
#else
  add_missing("absl::Substitute");
#endif
#ifdef KORVEL_BENCH_FMT
  add_contender<braces<format>>("fmt::format");
  add_contender<braces<format_to>>("fmt::format_to");
#else
  add_missing("fmt::format");
#endif
#ifdef KORVEL_BENCH_BOOST
  add_contender<boost_format>("boost::format");
#else
  add_missing("boost::format");
#endif
  return bench::run(argc, argv);
}
