#pragma once

/// The loggers that are measured side by side, each behind the same three operations:
///
/// - the constructor opens what `destination` says;
/// - `log` logs one text, under the name "bench" where the peer knows names;
/// - `flush` returns once all that was logged is in the file.
///
/// The peers run as their makers set them up: spdlog async with its default queue and one thread,
/// a full queue blocking. Their lines have the form of ours, which takes a pattern, or the peer's
/// own form, which is faster for spdlog.

#include <semaphore.h>

#include <memory>
#include <string>
#include <vector>

#include "muro/core/errlog.h"

#ifdef KORVEL_BENCH_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#endif
#ifdef KORVEL_BENCH_GLOG
#include <glog/logging.h>
#endif

namespace bench {

constexpr std::size_t kRotateSize = 1 << 20;

struct destination {
  std::string path;
  bool echo = false;
  bool rotation = false;
};

class our_log {
 public:
  explicit our_log(const destination& to) {
    muro::errlog::set_log_file(to.path);
    muro::errlog::set_log_to_stderr(to.echo);
    muro::errlog::set_log_rotate(to.rotation ? kRotateSize : 0, 1);
  }
  void log(const std::string& text) { log_.log(0, text.data(), text.size()); }
  void flush() { muro::errlog::wait_for_flush(); }

 private:
  muro::errlog log_{"bench"};
};

#ifdef KORVEL_BENCH_SPDLOG
enum class form { ours, own };

inline std::vector<spdlog::sink_ptr> make_sinks(const destination& to) {
  std::vector<spdlog::sink_ptr> sinks;
  if (to.rotation) {
    sinks.push_back(
        std::make_shared<spdlog::sinks::rotating_file_sink_mt>(to.path, kRotateSize, 1));
  } else {
    sinks.push_back(std::make_shared<spdlog::sinks::basic_file_sink_mt>(to.path, true));
  }
  if (to.echo) sinks.push_back(std::make_shared<spdlog::sinks::stderr_sink_mt>());
  return sinks;
}

inline void set_form(spdlog::logger& logger, form lines) {
  if (lines == form::own) return;
  logger.set_pattern("%Y-%m-%dT%H:%M:%SZ %n: %v", spdlog::pattern_time_type::utc);
}

template <form Lines>
class spdlog_sync {
 public:
  explicit spdlog_sync(const destination& to) {
    const auto sinks = make_sinks(to);
    logger_ = std::make_unique<spdlog::logger>("bench", sinks.begin(), sinks.end());
    set_form(*logger_, Lines);
  }
  void log(const std::string& text) { logger_->info(text); }
  void flush() { logger_->flush(); }

 private:
  std::unique_ptr<spdlog::logger> logger_;
};

/// Takes no line; tells the caller of `flush`, which only queues a request, that it is done.
class flush_signal : public spdlog::sinks::sink {
 public:
  flush_signal() {
    set_level(spdlog::level::off);
    ::sem_init(&flushed_, 0, 0);
  }
  void log(const spdlog::details::log_msg&) override {}
  void flush() override { ::sem_post(&flushed_); }
  void set_pattern(const std::string&) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter>) override {}
  void wait() {
    while (::sem_wait(&flushed_) != 0) continue;
  }

 private:
  sem_t flushed_;
};

template <form Lines>
class spdlog_async {
 public:
  explicit spdlog_async(const destination& to) {
    auto sinks = make_sinks(to);
    sinks.push_back(flushed_);  // the last one: flushed after the others
    logger_ = std::make_shared<spdlog::async_logger>("bench", sinks.begin(), sinks.end(), pool_,
                                                     spdlog::async_overflow_policy::block);
    set_form(*logger_, Lines);
  }
  void log(const std::string& text) { logger_->info(text); }
  void flush() {
    logger_->flush();
    flushed_->wait();
  }

 private:
  std::shared_ptr<spdlog::details::thread_pool> pool_ =
      std::make_shared<spdlog::details::thread_pool>(spdlog::details::default_async_q_size, 1);
  std::shared_ptr<flush_signal> flushed_ = std::make_shared<flush_signal>();
  std::shared_ptr<spdlog::async_logger> logger_;
};
#endif

#ifdef KORVEL_BENCH_GLOG
/// Writes on the caller's thread, through a buffer. One file for the whole process.
class glog {
 public:
  explicit glog(const destination& to) {
    [[maybe_unused]] static const bool started = [&] {
      FLAGS_timestamp_in_logfile_name = false;
      google::InitGoogleLogging("log_bench");
      return true;
    }();
    google::SetLogDestination(google::GLOG_INFO, to.path.c_str());
  }
  void log(const std::string& text) { LOG(INFO) << text; }
  void flush() { google::FlushLogFiles(google::GLOG_INFO); }
};
#endif

}  // namespace bench
