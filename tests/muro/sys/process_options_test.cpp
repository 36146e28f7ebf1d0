#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <stdexcept>

#include "muro/sys/files.h"
#include "muro/sys/process.h"
#include "tests/support/broken_pipes.h"
#include "tests/support/descriptors.h"
#include "tests/support/processes.h"
#include "tests/support/temp_dir.h"

namespace {

using muro::process;
using test::child;
using test::failure_of;

/// What a handler was told; the handler itself belongs to the record.
struct report {
  pid_t pid = 0;
  int starts = 0;
  std::string text;
  std::vector<std::size_t> sizes;
  bool destroyed = false;
  bool throw_on_start = false;
  int throws_left = 0;
};

class handler : public process::output_handler {
 public:
  explicit handler(report& to) : to_(to) {}
  ~handler() override { to_.destroyed = true; }
  void data(const char* bytes, std::size_t length) override {
    if (to_.throws_left-- > 0) throw std::runtime_error("data");
    to_.text.append(bytes, length);
    to_.sizes.push_back(length);
  }
  void started(pid_t pid) override {
    ++to_.starts;
    to_.pid = pid;
    if (to_.throw_on_start) throw 42;
  }

 private:
  report& to_;
};

/// What a registrar was handed.
struct registration {
  int calls = 0;
  process::run_function run = nullptr;
  process::cleanup_function clean_up = nullptr;
  process::output_record* record = nullptr;
};

void keep_registration(void* context, process::run_function run, process::cleanup_function clean_up,
                       process::output_record* record) {
  auto& kept = *static_cast<registration*>(context);
  kept = {kept.calls + 1, run, clean_up, record};
}

void run_there_and_then(void*, process::run_function run, process::cleanup_function clean_up,
                        process::output_record* record) {
  run(record);
  clean_up(record);
}

void refuse(void*, process::run_function, process::cleanup_function, process::output_record*) {
  throw std::runtime_error("refused");
}

class process_options : public ::testing::Test {
 protected:
  ~process_options() override {
    process_.reset();
    EXPECT_TRUE(test::has_no_children());
  }

  void start(std::vector<std::string> args) { process_->init_(child, args, options_); }
  std::string output() {
    std::string text;
    while (process_->read(process::string_reader, &text, 20)) {
    }
    return text;
  }
  void hear_stdout(process::output_registrar registrar) {
    options_.stdout_handler = std::make_unique<handler>(out_);
    options_.stdout_registrar = registrar;
    options_.stdout_registrar_context = &out_registration_;
  }
  void hear_stderr(process::output_registrar registrar) {
    options_.stderr_handler = std::make_unique<handler>(err_);
    options_.stderr_registrar = registrar;
    options_.stderr_registrar_context = &err_registration_;
  }
  static void play(registration& r) {
    r.run(r.record);
    r.clean_up(r.record);
  }

  report out_;
  report err_;
  registration out_registration_;
  registration err_registration_;
  process::options options_;
  std::unique_ptr<process> process_ = std::make_unique<process>();
};

TEST_F(process_options, handler_gets_the_output_there_and_then) {
  hear_stdout(run_there_and_then);
  start({"print", "told"});
  EXPECT_EQ(out_.starts, 1);
  EXPECT_EQ(out_.pid, process_->pid());
  EXPECT_EQ(out_.text, "told");
  EXPECT_TRUE(out_.destroyed);
  EXPECT_EQ(options_.stdout_handler, nullptr);
}

TEST_F(process_options, handled_output_cannot_be_read) {
  hear_stdout(run_there_and_then);
  start({"print", "told"});
  EXPECT_EQ(process_->stdout_read_end(), -1);
  EXPECT_EQ(failure_of([&] { process_->read(nullptr, nullptr, 1); }), ":Error in 'read'");
}

TEST_F(process_options, registrar_gets_its_context_and_a_record_that_owns_the_pipe) {
  hear_stdout(keep_registration);
  start({"print", "told"});
  ASSERT_EQ(out_registration_.calls, 1);
  const int descriptor = out_registration_.record->descriptor;
  EXPECT_EQ(out_registration_.record->pid, process_->pid());
  EXPECT_TRUE(test::is_open(descriptor));
  EXPECT_FALSE(out_.destroyed);
  play(out_registration_);
  EXPECT_EQ(out_.text, "told");
  EXPECT_TRUE(out_.destroyed);
  EXPECT_FALSE(test::is_open(descriptor));
}

TEST_F(process_options, record_outlives_the_process_object) {
  hear_stdout(keep_registration);
  process::options options = std::move(options_);
  {
    process other;
    other.init_(child, {"print", "told"}, options);
    test::await_end(other.pid());
  }
  play(out_registration_);
  EXPECT_EQ(out_.text, "told");
}

TEST_F(process_options, handler_gets_chunks_of_at_most_8192_bytes) {
  hear_stdout(run_there_and_then);
  start({"flood", "30000"});
  EXPECT_EQ(out_.text.size(), 30000u);
  EXPECT_EQ(*std::max_element(out_.sizes.begin(), out_.sizes.end()), 8192u);
}

TEST_F(process_options, handler_of_standard_error_gets_it) {
  hear_stderr(run_there_and_then);
  start({"both", "out", "err"});
  EXPECT_EQ(err_.text, "err");
  EXPECT_EQ(err_.pid, process_->pid());
  EXPECT_TRUE(err_.destroyed);
  EXPECT_EQ(output(), "out");
}

TEST_F(process_options, both_outputs_may_be_handled) {
  hear_stdout(run_there_and_then);
  hear_stderr(run_there_and_then);
  start({"both", "out", "err"});
  EXPECT_EQ(out_.text, "out");
  EXPECT_EQ(err_.text, "err");
}

TEST_F(process_options, without_a_handler_standard_error_is_the_parents) {
  EXPECT_TRUE(test::holds_in_a_fork([] {
    int ends[2];
    if (::pipe(ends) != 0 || ::dup2(ends[1], 2) != 2) return false;
    process p(child, {"both", "out", "err"});
    char bytes[10];
    return ::read(ends[0], bytes, sizeof bytes) == 3 && std::string(bytes, 3) == "err";
  }));
}

TEST_F(process_options, handler_without_its_registrar_is_refused) {
  hear_stdout(nullptr);
  EXPECT_EQ(failure_of([&] { start({"silent"}); }), ":Error in 'init_'");
  EXPECT_EQ(process_->pid(), -1);
  options_.stdout_handler.reset();
  hear_stderr(nullptr);
  EXPECT_EQ(failure_of([&] { start({"silent"}); }), ":Error in 'init_'");
  EXPECT_EQ(process_->pid(), -1);
}

TEST_F(process_options, registrar_without_a_handler_is_not_called) {
  options_.stdout_registrar = refuse;
  options_.stderr_registrar = refuse;
  start({"print", "x"});
  EXPECT_EQ(output(), "x");
}

TEST_F(process_options, registrar_that_throws_has_taken_nothing) {
  const std::set<int> before = test::open_descriptors();
  hear_stdout(refuse);
  hear_stderr(keep_registration);
  {
    process p;
    EXPECT_THROW(p.init_(child, {"silent"}, options_), std::runtime_error);
    EXPECT_GT(p.pid(), 0);
  }
  EXPECT_TRUE(out_.destroyed);
  EXPECT_EQ(err_registration_.calls, 0);
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST_F(process_options, exceptions_of_the_handler_are_dropped_and_the_output_still_read) {
  out_.throw_on_start = true;
  out_.throws_left = 1;
  hear_stdout(keep_registration);
  start({"flood", "20000"});
  EXPECT_NO_THROW(play(out_registration_));
  EXPECT_EQ(out_.starts, 1);
  EXPECT_EQ(out_.text.size(), 20000u - 8192u);
}

TEST_F(process_options, reading_for_a_handler_ends_when_the_read_fails) {
  hear_stdout(keep_registration);
  start({"silent"});
  const int write_only = ::open("/dev/null", O_WRONLY);
  ASSERT_NE(::dup2(write_only, out_registration_.record->descriptor), -1);
  ::close(write_only);
  play(out_registration_);
  EXPECT_EQ(out_.starts, 1);
  EXPECT_EQ(out_.text, "");
}

TEST_F(process_options, third_pipe_failing_throws_and_leaves_no_descriptor) {
  const std::set<int> before = test::open_descriptors();
  hear_stderr(keep_registration);
  const test::broken_pipes third(2);
  EXPECT_EQ(failure_of([&] { start({"silent"}); }),
            ":Error from 'pipe' (called in 'init_'): 24, Too many open files");
  EXPECT_EQ(test::open_descriptors(), before);
  EXPECT_NE(options_.stderr_handler, nullptr);
}

/// The child under a name of its own in a folder of its own.
class process_folders : public process_options {
 protected:
  process_folders() { EXPECT_EQ(::link(child.c_str(), program_.c_str()), 0); }

  std::string run(const std::string& program) {
    process_->init_(program, {"arguments"}, options_);
    return output();
  }

  // Beside the child, as a link cannot leave its file system.
  const std::string folder_ = [] {
    std::string made = child + "-XXXXXX";
    return std::string(::mkdtemp(made.data()));
  }();
  const std::string program_ = folder_ + "/prog";
  const std::string here_ = muro::get_current_dir();

  ~process_folders() override {
    ::unlink(program_.c_str());
    ::rmdir(folder_.c_str());
  }
};

TEST_F(process_folders, child_stays_where_the_parent_is) {
  EXPECT_EQ(run(program_), here_ + "\n" + program_ + "\n");
}

TEST_F(process_folders, program_folder_is_changed_to_and_the_program_run_from_there) {
  options_.chdir_to_program_folder = true;
  EXPECT_EQ(run(program_), muro::expand_filename(folder_) + "\n./prog\n");
}

TEST_F(process_folders, working_folder_is_changed_to_and_the_program_run_by_its_absolute_path) {
  const std::string work = "/";
  options_.working_folder = &work;
  EXPECT_EQ(run(program_), "/\n" + muro::expand_filename(program_) + "\n");
}

TEST_F(process_folders, working_folder_wins_over_the_program_folder) {
  const std::string work = "/";
  options_.working_folder = &work;
  options_.chdir_to_program_folder = true;
  EXPECT_EQ(run(program_), "/\n" + muro::expand_filename(program_) + "\n");
}

TEST_F(process_folders, relative_program_is_meant_from_the_parents_folder) {
  const std::string work = "/";
  options_.working_folder = &work;
  ASSERT_EQ(::chdir(folder_.c_str()), 0);
  const std::string said = run("./prog");
  ASSERT_EQ(::chdir(here_.c_str()), 0);
  EXPECT_EQ(said, "/\n" + muro::expand_filename(program_) + "\n");
}

TEST_F(process_folders, folder_that_cannot_be_entered_ends_the_child_by_sigkill) {
  const std::string work = "/no/such/folder";
  options_.working_folder = &work;
  EXPECT_EQ(run(program_), "");
  EXPECT_TRUE(test::eventually([&] { return process_->done(); }));
  EXPECT_EQ(process_->exit_code(), -9);
}

TEST_F(process_folders, relative_program_from_a_folder_that_is_gone_is_not_run) {
  EXPECT_TRUE(test::holds_in_a_fork([&] {
    const std::string gone = folder_ + "/gone";
    const std::string work = folder_;  // the program would be found there
    if (::mkdir(gone.c_str(), 0700) != 0 || ::chdir(gone.c_str()) != 0 ||
        ::rmdir(gone.c_str()) != 0)
      return false;
    process p;
    process::options options;
    options.working_folder = &work;
    p.init_("./prog", {"arguments"}, options);
    return test::eventually([&] { return p.done(); }) && p.exit_code() == -9;
  }));
}

}  // namespace
