// A child that behaves, or misbehaves, as its first argument says. No sub-command outlives a
// minute, so that a failing test leaves no strays.

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

using arguments = std::vector<std::string>;

int to_int(const std::string& text) {
  return std::atoi(text.c_str());
}

void write_all(int descriptor, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t part = ::write(descriptor, text.data() + done, text.size() - done);
    if (part <= 0) std::_Exit(99);
    done += static_cast<std::size_t>(part);
  }
}

/// Also where whoever started this held the signal back.
void end_after_a_minute() {
  sigset_t alarm;
  ::sigemptyset(&alarm);
  ::sigaddset(&alarm, SIGALRM);
  ::signal(SIGALRM, SIG_DFL);
  ::sigprocmask(SIG_UNBLOCK, &alarm, nullptr);
  ::alarm(60);
}

int hang() {
  for (;;) ::pause();
}

// exit CODE
int exit_with(const arguments& a) {
  return to_int(a.at(0));
}

// print TEXT [CODE]: to standard output
int print(const arguments& a) {
  write_all(1, a.at(0));
  return a.size() > 1 ? to_int(a[1]) : 0;
}

// both OUT ERR: to standard output and standard error
int both(const arguments& a) {
  write_all(1, a.at(0));
  write_all(2, a.at(1));
  return 0;
}

// flood BYTES: that many bytes to standard output
int flood(const arguments& a) {
  write_all(1, std::string(static_cast<std::size_t>(to_int(a.at(0))), 'f'));
  return 0;
}

// echo: standard input to standard output
int echo(const arguments&) {
  char bytes[4096];
  for (ssize_t got; (got = ::read(0, bytes, sizeof bytes)) > 0;)
    write_all(1, std::string(bytes, static_cast<std::size_t>(got)));
  return 0;
}

// silent: output stays open, nothing comes
int silent(const arguments&) {
  return hang();
}

// close-output CODE MS: closes its output, ends that much later
int close_output(const arguments& a) {
  ::close(1);
  ::usleep(static_cast<useconds_t>(to_int(a.at(1)) * 1000));
  return to_int(a.at(0));
}

// signal NUMBER: to itself, then hang
int signal_self(const arguments& a) {
  ::kill(::getpid(), to_int(a.at(0)));
  return hang();
}

// stop: says so, then stops itself
int stop_self(const arguments&) {
  write_all(1, "stopping");
  ::raise(SIGSTOP);
  return 0;
}

// arguments ...: working folder, then each argument with the program's first, one a line
int show_arguments(const arguments& a, const char* program) {
  char folder[4096];
  std::string text = std::string(::getcwd(folder, sizeof folder)) + "\n" + program + "\n";
  for (const std::string& argument : a) text += argument + "\n";
  write_all(1, text);
  return 0;
}

// descriptors FILE: the open ones, in order
int show_descriptors(const arguments& a) {
  DIR* folder = ::opendir("/dev/fd");
  std::set<int> found;
  while (const dirent* entry = ::readdir(folder))
    if (entry->d_name[0] != '.') found.insert(std::atoi(entry->d_name));
  found.erase(::dirfd(folder));
  ::closedir(folder);
  std::ofstream out(a.at(0) + ".part");
  for (const int descriptor : found) out << descriptor << ' ';
  out.close();
  return std::rename((a.at(0) + ".part").c_str(), a.at(0).c_str());
}

// signals: what is ignored, handled and blocked
int show_signals(const arguments&) {
  std::string text;
  sigset_t mask;
  ::sigprocmask(SIG_SETMASK, nullptr, &mask);
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) != 0) continue;
    if (action.sa_handler == SIG_IGN) text += "ignored " + std::to_string(number) + "\n";
    if (::sigismember(&mask, number) == 1) text += "blocked " + std::to_string(number) + "\n";
  }
  write_all(1, text + "end");
  return 0;
}

// session FILE [CODE | hang]: "PID SESSION PARENT" into FILE, which appears whole
int show_session(const arguments& a) {
  std::ofstream out(a.at(0) + ".part");
  out << ::getpid() << ' ' << ::getsid(0) << ' ' << ::getppid();
  out.close();
  std::rename((a.at(0) + ".part").c_str(), a.at(0).c_str());
  if (a.size() > 1 && a[1] == "hang") return hang();
  return a.size() > 1 ? to_int(a[1]) : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 98;
  const std::string what = argv[1];
  const arguments rest(argv + 2, argv + argc);
  if (what == "signals") return show_signals(rest);
  end_after_a_minute();
  if (what == "exit") return exit_with(rest);
  if (what == "print") return print(rest);
  if (what == "both") return both(rest);
  if (what == "flood") return flood(rest);
  if (what == "echo") return echo(rest);
  if (what == "silent") return silent(rest);
  if (what == "close-output") return close_output(rest);
  if (what == "signal") return signal_self(rest);
  if (what == "stop") return stop_self(rest);
  if (what == "arguments") return show_arguments(rest, argv[0]);
  if (what == "descriptors") return show_descriptors(rest);
  if (what == "session") return show_session(rest);
  return 98;
}
