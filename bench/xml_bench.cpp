/// Property-list text and escaping, beside XML libraries. The peers' texts have to be the same but
/// for white space between the elements, which is left out here where a peer can.

#include <sstream>
#include <string>
#include <vector>

#include "bench/support.h"
#include "bench/xml_peers.h"
#include "osx/job_text.h"
#include "osx/property_list.h"
#include "osx/xml_writer.h"

namespace {

using bench::plist;

plist agent_job() {
  return {{"Label", "com.norvane.korvel.restart.0123456789"},
          {"LimitLoadToSessionType", std::vector<std::string>{"Aqua", "LoginWindow"}},
          {"ProgramArguments",
           std::vector<std::string>{
               "/Library/Application Support/Korvel/0123456789/app/Korvel & Co.app/Contents/MacOS/"
               "Korvel",
               "-installed", "1", "-exePath", "/Applications/Korvel & Co.app", "-restoreFile",
               "0123456789.dat"}},
          {"KeepAlive", true},
          {"RunAtLoad", true}};
}

plist long_array() {
  std::vector<std::string> items;
  for (int i = 0; i < 10000; ++i) {
    items.push_back("/Applications/Korvel.app/Contents/Resources/item " + std::to_string(i) +
                    (i % 10 == 0 ? " <a & b>" : ""));
  }
  return {{"ProgramArguments", items}};
}

struct ours {
  static std::string text(const plist& entries) {
    std::vector<muro::plist_elem> elements;
    elements.reserve(entries.size());
    for (const auto& [key, value] : entries) {
      std::visit([&elements, &k = key](const auto& v) { elements.emplace_back(k, v); }, value);
    }
    return muro::get_plist(elements);
  }
  static std::string escaped(const std::string& plain) {
    std::string out;
    muro::escape_xml_text(out, plain.data(), plain.size());
    return out;
  }
};

/// `text` without what lies between its elements, and with empty elements in one form.
std::string canonical(const std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool between = !result.empty() && result.back() == '>';
    if (between && (text[i] == '\n' || text[i] == '\t' || text[i] == ' ')) continue;
    if (text.compare(i, 3, " />") == 0) continue;
    result += text[i];
  }
  return result;
}

/// The product's own function for the agent's file, from what it is given.
struct ours_job {
  static std::string text(const plist& entries) {
    return osx::launchd_agent_text(std::get<std::string>(entries[0].second),
                                   std::get<std::vector<std::string>>(entries[2].second));
  }
};

template <class Contender>
void add_plist(const char* row, const char* name, const plist& entries) {
  bench::add(row, name, [entries](benchmark::State& state) {
    if (canonical(Contender::text(entries)) != canonical(ours::text(entries))) {
      return state.SkipWithError("wrong: another text");
    }
    for (auto _ : state) benchmark::DoNotOptimize(Contender::text(entries));
  });
}

template <class Contender>
void add_plists(const char* name) {
  add_plist<Contender>("xml/job_file", name, agent_job());
  add_plist<Contender>("xml/array", name, long_array());
}

std::string repeated(const std::string& piece) {
  std::string text;
  while (text.size() < 65536) text += piece;
  text.resize(65536);
  return text;
}

template <class Contender>
void add_escapes(const char* name) {
  for (const auto& [row, piece] :
       {std::pair("escape/clean", "/Library/Application Support/Korvel, as it is. "),
        std::pair("escape/entities", "a<b&c>")}) {
    const std::string plain = repeated(piece);
    bench::add_computed(
        row, name, [plain] { return Contender::escaped(plain); }, ours::escaped(plain));
  }
}

[[maybe_unused]] void add_missing(const char* name, bool plists, bool escapes) {
  if (plists) bench::add_missing("xml/job_file", name), bench::add_missing("xml/array", name);
  if (escapes)
    bench::add_missing("escape/clean", name), bench::add_missing("escape/entities", name);
}

}  // namespace

int main(int argc, char** argv) {
  add_plist<ours_job>("xml/job_file", "ours", agent_job());
  add_plist<ours>("xml/array", "ours", long_array());
  add_escapes<ours>("ours");
  add_plists<bench::string_stream>("string stream");
#ifdef KORVEL_BENCH_PUGIXML
  add_plists<bench::pugixml>("pugixml");
  add_escapes<bench::pugixml>("pugixml");
#else
  add_missing("pugixml", true, true);
#endif
#ifdef KORVEL_BENCH_LIBXML2
  add_plists<bench::libxml2>("libxml2");
  add_escapes<bench::libxml2>("libxml2");
#else
  add_missing("libxml2", true, true);
#endif
#ifdef KORVEL_BENCH_LIBPLIST
  add_plists<bench::libplist>("libplist");
#else
  add_missing("libplist", true, false);
#endif
#ifdef KORVEL_BENCH_TINYXML2
  add_plists<bench::tinyxml2_printer>("tinyxml2");
#else
  add_missing("tinyxml2", true, false);
#endif
#ifdef KORVEL_BENCH_GLIB
  add_escapes<bench::glib>("glib");
#else
  add_missing("glib", false, true);
#endif
  return bench::run(argc, argv);
}
