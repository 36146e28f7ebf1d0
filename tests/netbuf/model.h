#pragma once

/// The buffer held against a string: a family of buffers that share memory with each other goes
/// through random operations, and each is mirrored on a plain string.

#include <array>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "muro/sys/thread.h"
#include "netbuf/netbuf.h"

namespace model {

/// A buffer and the string that it must equal.
struct member {
  netbuf bytes;
  std::string text;
};

/// Thrown by the first difference that is seen.
struct difference : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Where families on different threads leave members for each other. What one takes shares memory
/// with what others still hold.
class exchange {
 public:
  /// Leaves `given` in a slot and returns what lay there.
  member swap(std::uint32_t slot, member given);

 private:
  muro::rec_mutex mutex_;
  std::array<member, 16> slots_;
};

/// One thread's family.
class family {
 public:
  /// `meeting` is null for a family that is alone.
  family(std::uint32_t seed, exchange* meeting);

  /// Carries out `count` random operations. After each one it compares the members that took part,
  /// after every eighth all of them, so that a write through shared memory shows soon. Throws
  /// `difference` with the number and name of the operation.
  void run(std::uint64_t count);

 private:
  struct operation {
    const char* name;
    std::uint32_t weight;
    void (family::*carry_out)();
  };
  static const operation operations[];
  const operation& random_operation();

  void append_string();
  void append_member();
  void allocate_back();
  void allocate_front();
  void allocate_some();
  void add_memory();
  void erase();
  void copy_whole();
  void copy_range();
  void move_whole();
  void add_member_in_front();
  void take_member();
  void pull_up();
  void to_string();
  void copy_front();
  void copy_out();
  void find();
  void compare();
  void meet();

  void trim();
  void check_members(bool all);
  void expect(bool holds, const char* what) const;

  std::uint32_t random(std::uint32_t below);
  std::int32_t random_length();
  std::string random_bytes(std::int32_t n);
  member& any();

  std::mt19937 generator_;
  exchange* meeting_;
  std::vector<member> members_;
  // For each member, whether it took part in the current operation.
  std::vector<bool> touched_;
  // Blocks whose fresh bytes tell where they belong.
  std::uint64_t counter_ = 0;
};

/// Throws `difference` when the views of `of` break a rule that holds between operations, or its
/// bytes are not those of the text. Leaves the buffer's memory as it is arranged.
void check(member& of);

}  // namespace model
