// Runs jobs under faults::run_traced, one after the other. A job comes on standard input as lines,
// "NAME VALUE..." with tabs between the values, the last one "go"; what happened goes to standard
// output as the lines of `faults::report`, the last one the "end".
//
//     command WORD...        environment NAME=VALUE...     limit MILLISECONDS      record
//     fault WHO CALL NUMBER KIND REPEAT                    step WORD...            go
//
//     faults_trace OUTPUT STEP_OUTPUT
//
// The arguments are numbers of descriptors: of the file for what the process prints and that for
// what the steps print, each emptied when a job begins.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>

#include "tests/faults/tracer.h"

namespace {

std::vector<std::string> fields_of(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream text(line);
  for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
  return fields;
}

bool read_job(faults::job& job) {
  for (std::string line; std::getline(std::cin, line);) {
    std::vector<std::string> values = fields_of(line);
    if (values.empty()) continue;
    const std::string name = values.front();
    values.erase(values.begin());
    if (name == "go") return true;
    if (name == "command") job.command = values;
    if (name == "environment") job.environment = values;
    if (name == "limit") job.limit_ms = std::stoi(values.at(0));
    if (name == "record") job.record = true;
    if (name == "step") job.steps.push_back(values);
    if (name == "fault")
      job.what = {values.at(0), values.at(1), std::stoi(values.at(2)), values.at(3),
                  std::stoi(values.at(4))};
  }
  return false;
}

void run_job(const faults::job& job, int output, int step_output) {
  for (const int descriptor : {output, step_output}) {
    if (::ftruncate(descriptor, 0) != 0) throw std::runtime_error("ftruncate");
    ::lseek(descriptor, 0, SEEK_SET);
  }
  faults::run_traced(job, output, step_output,
                     [](const std::string& line) { std::cout << line << '\n'; });
  std::cout.flush();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ios::sync_with_stdio(false);
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  ::sigprocmask(SIG_BLOCK, &child, nullptr);
  try {
    for (;;) {
      faults::job job;
      if (!read_job(job)) return 0;
      run_job(job, std::atoi(argv[1]), std::atoi(argv[2]));
    }
  } catch (const std::exception& error) {
    std::cerr << "faults_trace: " << error.what() << "\n";
    return 2;
  }
}
