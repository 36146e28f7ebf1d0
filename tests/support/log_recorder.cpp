#include "tests/support/log_recorder.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

#include "muro/core/errlog.h"

namespace test {

namespace {

struct recording {
  std::mutex mutex;
  std::vector<std::string> lines;
};

recording& current() {
  static auto* const made = new recording;
  return *made;
}

void record(const char* text, std::size_t length) {
  const std::lock_guard lock(current().mutex);
  current().lines.emplace_back(text, length);
}

}  // namespace

log_recorder::log_recorder() {
  if (muro::log_direct_sink == &record) throw std::logic_error("there is a log_recorder already");
  clear();
  muro::errlog::set_log_direct_sink(record);
}

log_recorder::~log_recorder() {
  muro::errlog::wait_for_flush();
  muro::errlog::set_log_direct_sink(nullptr);
}

std::vector<std::string> log_recorder::lines() const {
  muro::errlog::wait_for_flush();
  const std::lock_guard lock(current().mutex);
  return current().lines;
}

std::string log_recorder::text() const {
  std::string text;
  for (const std::string& line : lines()) text += line + "\n";
  return text;
}

int log_recorder::count(const std::string& line) const {
  const std::vector<std::string> all = lines();
  return static_cast<int>(std::count(all.begin(), all.end(), line));
}

void log_recorder::clear() {
  muro::errlog::wait_for_flush();
  const std::lock_guard lock(current().mutex);
  current().lines.clear();
}

}  // namespace test
