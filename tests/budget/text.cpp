/// Templates and the error log.

#include <string>

#include "muro/core/errlog.h"
#include "muro/core/fmt.h"
#include "muro/core/log_output.h"
#include "tests/budget/budget.h"

namespace {

const std::string kPath = "/Library/Application Support/Korvel/Session 0123456789";
const std::string kLabel = "com.norvane.korvel.restart.0123456789";
constexpr unsigned kSession = 100007, kUser = 501;
constexpr unsigned long long kType = 7, kLength = 4294967296;

template <class... Args>
void fill(const char* tmpl, const Args&... args) {
  budget::keep(muro::fill_template(tmpl, args...));
}

/// Five messages with the kinds of values that the product's lines have, twelve in all.
void fmt_five() {
  fill("Failed to create directory: %1%", kPath);
  fill("Failed to move file to %1%: %2%", kPath, "Operation not permitted");
  fill("agent in %1% update (start=%2%) for %3% %4%", kUser, true, kLabel, true);
  fill("session %1% - %2% %3%", kSession, kUser, true);
  fill("received %1%-%2%", kType, kLength);
}

void fmt_one() {
  fill("Failed to create directory: %1%", kPath);
}

/// The caller's part; the lines go nowhere.
void log_call() {
  static const muro::errlog log("bench");
  [[maybe_unused]] static const bool quiet = [] {
    muro::errlog::set_log_to_stderr(false);
    return true;
  }();
  log.log(0, kPath.data(), kPath.size());
}

/// The writer's part: different lines to a file, echo off.
template <int Lines>
void log_batch() {
  static muro::log_output output;
  [[maybe_unused]] static const bool to_file = [] {
    muro::errlog::set_log_to_stderr(false);
    muro::errlog::set_log_file("budget_log_batch.log");
    return true;
  }();
  static muro::log_queue batch;
  static int number = 0;
  for (int i = 0; i < Lines; ++i) batch.push(muro::text_parts{kPath, "", std::to_string(++number)});
  output.write(batch);
}

}  // namespace

int main(int argc, char** argv) {
  return budget::run(argc, argv,
                     {{"fmt_five", fmt_five},
                      {"fmt_one", fmt_one},
                      {"log_call", log_call},
                      {"log_batch", log_batch<100>},
                      {"log_batch_of_1", log_batch<1>},
                      {"log_batch_of_700", log_batch<700>}});
}
