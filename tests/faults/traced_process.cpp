#include "tests/faults/traced_process.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace faults {

bool read_memory(pid_t pid, std::uint64_t address, void* to, std::size_t size) {
  iovec here{to, size};
  iovec there{reinterpret_cast<void*>(address), size};
  return ::process_vm_readv(pid, &here, 1, &there, 1, 0) == static_cast<ssize_t>(size);
}

void write_memory(pid_t pid, std::uint64_t address, const void* from, std::size_t size) {
  iovec here{const_cast<void*>(from), size};
  iovec there{reinterpret_cast<void*>(address), size};
  ::process_vm_writev(pid, &here, 1, &there, 1, 0);
}

std::string read_text(pid_t pid, std::uint64_t address) {
  std::string text;
  for (char byte; text.size() < 300 && read_memory(pid, address + text.size(), &byte, 1) && byte;)
    text += byte > ' ' && byte < 127 ? byte : '?';
  return text;
}

std::string descriptor_target(pid_t pid, int descriptor) {
  char target[256];
  const std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(descriptor);
  const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
  std::string text(target, length > 0 ? static_cast<std::size_t>(length) : 0);
  for (char& byte : text) byte = byte == ' ' ? '_' : byte;
  return text;
}

namespace {

std::string status_field(pid_t pid, const std::string& name) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);)
    if (line.compare(0, name.size() + 1, name + ":") == 0) return line.substr(name.size() + 1);
  return "";
}

}  // namespace

pid_t process_of(pid_t thread) {
  return std::atoi(status_field(thread, "Tgid").c_str());
}

int effective_user(pid_t pid) {
  std::istringstream ids(status_field(pid, "Uid"));
  int real = 0;
  int effective = -1;
  ids >> real >> effective;
  return effective;
}

}  // namespace faults
