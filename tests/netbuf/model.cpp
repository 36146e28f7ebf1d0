#include "tests/netbuf/model.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "netbuf/buffer.h"
#include "netbuf/netbuf_imp.h"

namespace model {
namespace {

using netbuf_imp::end;

constexpr std::uint32_t family_size = 8;
constexpr std::int32_t longest_member = 8000;

/// Memory for `add_memory`. Read-only memory must come back as it was given.
struct supplied {
  std::string bytes;
  std::string original;
};

void release_supplied(void* context) {
  const std::unique_ptr<supplied> given(static_cast<supplied*>(context));
  // Nobody can catch what a release function throws.
  if (!given->original.empty() && given->bytes != given->original) std::abort();
}

std::size_t as_size(std::int32_t n) {
  return static_cast<std::size_t>(n);
}

std::int32_t length_of(const member& m) {
  return static_cast<std::int32_t>(m.text.size());
}

}  // namespace

member exchange::swap(std::uint32_t slot, member given) {
  muro::rec_lock lock(mutex_);
  std::swap(slots_[slot % slots_.size()], given);
  return given;
}

family::family(std::uint32_t seed, exchange* meeting)
    : generator_(seed), meeting_(meeting), members_(family_size), touched_(family_size) {}

// How often an operation comes is weighed so that buffers of many views arise and get compacted.
const family::operation family::operations[] = {
    {"append_string", 12, &family::append_string},
    {"append_member", 8, &family::append_member},
    {"allocate_back", 16, &family::allocate_back},
    {"allocate_front", 16, &family::allocate_front},
    {"allocate_some", 4, &family::allocate_some},
    {"add_memory", 8, &family::add_memory},
    {"erase", 10, &family::erase},
    {"copy_whole", 3, &family::copy_whole},
    {"copy_range", 1, &family::copy_range},
    {"move_whole", 1, &family::move_whole},
    {"add_member_in_front", 6, &family::add_member_in_front},
    {"take_member", 3, &family::take_member},
    {"pull_up", 2, &family::pull_up},
    {"to_string", 1, &family::to_string},
    {"copy_front", 4, &family::copy_front},
    {"copy_out", 4, &family::copy_out},
    {"find", 4, &family::find},
    {"compare", 4, &family::compare},
    {"meet", 4, &family::meet},
};

const family::operation& family::random_operation() {
  std::uint32_t weights = 0;
  for (const operation& each : operations) weights += each.weight;
  std::uint32_t drawn = random(weights);
  const operation* found = operations;
  while (drawn >= found->weight) drawn -= found++->weight;
  return *found;
}

void family::run(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) {
    const operation& next = random_operation();
    try {
      (this->*next.carry_out)();
      trim();
      check_members(i % 8 == 7);
    } catch (const difference& found) {
      throw difference(std::string(found.what()) + " after operation " + std::to_string(i) + ", " +
                       next.name);
    }
  }
}

std::uint32_t family::random(std::uint32_t below) {
  return static_cast<std::uint32_t>(std::uint64_t{generator_()} * below >> 32);
}

member& family::any() {
  const std::size_t i = random(family_size);
  touched_[i] = true;
  return members_[i];
}

// Mostly a few bytes, at times none or fewer, seldom enough for a larger chunk.
std::int32_t family::random_length() {
  const std::uint32_t kind = random(64);
  if (kind == 0) return static_cast<std::int32_t>(random(3)) - 2;
  if (kind == 1) return static_cast<std::int32_t>(random(3000));
  if (kind < 6) return static_cast<std::int32_t>(random(300));
  return static_cast<std::int32_t>(random(40));
}

std::string family::random_bytes(std::int32_t n) {
  std::string bytes(as_size(std::max(n, 0)), '\0');
  for (std::size_t i = 0; i < bytes.size(); i += sizeof counter_) {
    const std::uint64_t block = ++counter_ * 0x9e3779b97f4a7c15u;
    std::memcpy(bytes.data() + i, &block, std::min(sizeof block, bytes.size() - i));
  }
  return bytes;
}

void family::expect(bool holds, const char* what) const {
  if (!holds) throw difference(what);
}

void family::append_string() {
  member& m = any();
  const std::string bytes = random_bytes(random_length());
  m.bytes.append(bytes);
  m.text += bytes;
}

void family::append_member() {
  member& m = any();
  const member& other = any();
  m.bytes.append(other.bytes);
  m.text += std::string(other.text);
}

void family::allocate_back() {
  member& m = any();
  const std::int32_t n = random_length();
  char* added = m.bytes.allocate_back(n);
  expect((added != nullptr) == (n > 0), "allocate_back's pointer");
  if (added == nullptr) return;
  const std::string bytes = random_bytes(n);
  std::memcpy(added, bytes.data(), bytes.size());
  m.text += bytes;
}

void family::allocate_front() {
  member& m = any();
  const std::int32_t n = random_length();
  char* added = m.bytes.allocate_front(n);
  expect((added != nullptr) == (n > 0), "allocate_front's pointer");
  if (added == nullptr) return;
  const std::string bytes = random_bytes(n);
  std::memcpy(added, bytes.data(), bytes.size());
  m.text.insert(0, bytes);
}

void family::allocate_some() {
  member& m = any();
  const end where = random(2) == 0 ? end::front : end::back;
  const std::int32_t minimum = random_length();
  std::int32_t n = 0;
  char* added = netbuf_impl.allocate_some(m.bytes.object(), minimum, minimum + 200, where, &n);
  expect((added != nullptr) == (minimum > 0), "allocate_some's pointer");
  if (added == nullptr) return;
  expect(n >= minimum && n <= minimum + 200, "allocate_some's length");
  const std::string bytes = random_bytes(n);
  std::memcpy(added, bytes.data(), bytes.size());
  m.text.insert(where == end::front ? 0 : m.text.size(), bytes);
}

void family::add_memory() {
  member& m = any();
  const end where = random(2) == 0 ? end::front : end::back;
  const bool read_only = random(2) == 0;
  const std::string bytes = random_bytes(random_length());
  auto given = std::make_unique<supplied>(supplied{bytes, read_only ? bytes : std::string()});
  netbuf_impl.add_memory(
      m.bytes.object(), given->bytes.data(), static_cast<std::int32_t>(bytes.size()), where,
      read_only ? netbuf_imp::memory_rights::read_only : netbuf_imp::memory_rights::writable,
      release_supplied, given.get());
  static_cast<void>(given.release());
  m.text.insert(where == end::front ? 0 : m.text.size(), bytes);
}

void family::erase() {
  member& m = any();
  const std::int32_t n = random(8) == 0 ? length_of(m) - random_length() : random_length();
  const std::size_t dropped = std::min(as_size(std::max(n, 0)), m.text.size());
  if (random(2) == 0) {
    m.bytes.erase_front(n);
    m.text.erase(0, dropped);
  } else {
    m.bytes.erase_back(n);
    m.text.erase(m.text.size() - dropped);
  }
}

void family::copy_whole() {
  member& m = any();
  const member& other = any();
  m.bytes = other.bytes;
  m.text = other.text;
}

void family::copy_range() {
  member& m = any();
  const member& other = any();
  const std::int32_t offset =
      static_cast<std::int32_t>(random(static_cast<std::uint32_t>(length_of(other)) + 4)) - 2;
  const std::int32_t n = random(8) == 0 ? netbuf::everything : random_length();
  m.bytes = netbuf(other.bytes, offset, n);
  const std::size_t start = std::min(as_size(std::max(offset, 0)), other.text.size());
  m.text = other.text.substr(start, as_size(std::max(n, 0)));
}

void family::move_whole() {
  member& m = any();
  member& other = any();
  if (&m == &other) return;
  m.bytes = std::move(other.bytes);
  m.text = std::exchange(other.text, {});
}

void family::add_member_in_front() {
  member& m = any();
  member& other = any();
  netbuf_impl.add(m.bytes.object(), other.bytes.object(), end::front);
  m.text.insert(0, std::string(other.text));
}

void family::take_member() {
  member& m = any();
  member& other = any();
  const bool front = random(2) == 0;
  (front ? netbuf_impl.take_front : netbuf_impl.take_back)(m.bytes.object(), other.bytes.object());
  if (&m != &other) m.text.insert(front ? 0 : m.text.size(), std::exchange(other.text, {}));
}

void family::pull_up() {
  member& m = any();
  const std::int32_t limit = random_length() * 2;
  std::int32_t n = 0;
  const char* start = netbuf_impl.pull_up(m.bytes.object(), limit, &n);
  expect((start == nullptr) == m.text.empty(), "pull_up's pointer");
  expect(length_of(m) > limit || n == length_of(m), "pull_up's length within the limit");
  expect(m.text.compare(0, as_size(n), start == nullptr ? "" : start, as_size(n)) == 0,
         "pull_up's bytes");
}

void family::to_string() {
  member& m = any();
  expect(m.bytes.to_string() == m.text, "to_string");
}

void family::copy_front() {
  const member& m = any();
  const std::int32_t n = random_length();
  std::string copied(as_size(std::max(n, 0)), '.');
  const std::int32_t count = m.bytes.copy_front(copied.data(), n);
  expect(count == std::min(std::max(n, 0), length_of(m)), "copy_front's count");
  expect(m.text.compare(0, as_size(count), copied, 0, as_size(count)) == 0, "copy_front's bytes");
}

void family::copy_out() {
  member& m = any();
  const std::int32_t n = random_length();
  const end where = random(2) == 0 ? end::front : end::back;
  const auto then = random(2) == 0 ? netbuf_imp::after_copy::keep : netbuf_imp::after_copy::remove;
  std::string copied(as_size(std::max(n, 0)), '.');
  const std::int32_t count = netbuf_impl.copy_out(m.bytes.object(), copied.data(), n, where, then);
  expect(count == std::min(std::max(n, 0), length_of(m)), "copy_out's count");
  const std::size_t start = where == end::front ? 0 : m.text.size() - as_size(count);
  expect(m.text.compare(start, as_size(count), copied, 0, as_size(count)) == 0, "copy_out's bytes");
  if (then == netbuf_imp::after_copy::remove) m.text.erase(start, as_size(count));
}

void family::find() {
  member& m = any();
  const char byte = static_cast<char>(random(256));
  const std::int32_t n = random_length();
  const std::size_t index = m.text.substr(0, as_size(std::max(n, 0))).find(byte);
  const std::int32_t expected = index == std::string::npos ? -1 : static_cast<std::int32_t>(index);
  expect(netbuf_impl.find(m.bytes.object(), byte, n) == expected, "find");
}

void family::compare() {
  member& m = any();
  const member& other = any();
  const std::int32_t n = std::min(random_length(), length_of(other));
  const std::size_t count = as_size(std::max(n, 0));
  const int order = m.text.substr(0, count).compare(other.text.substr(0, count));
  const int expected = order < 0 ? -1 : order > 0 ? 1 : 0;
  expect(netbuf_impl.compare(m.bytes.object(), other.text.data(), n) == expected, "compare");
}

void family::meet() {
  if (meeting_ == nullptr) return;
  any() = meeting_->swap(random(16), any());
}

// Keeps the members short, so that many operations can be held against the strings.
void family::trim() {
  for (member& m : members_) {
    const std::int32_t surplus = length_of(m) - longest_member;
    if (surplus <= 0) continue;
    const std::int32_t dropped = surplus + static_cast<std::int32_t>(random(longest_member));
    m.bytes.erase_front(dropped);
    m.text.erase(0, as_size(dropped));
  }
}

void family::check_members(bool all) {
  for (std::size_t i = 0; i < members_.size(); ++i) {
    if (all || touched_[i]) check(members_[i]);
    touched_[i] = false;
  }
}

void check(member& of) {
  const auto& object = *static_cast<netbuf_imp::buffer*>(of.bytes.object());
  if (object.size() != length_of(of)) throw difference("size");
  std::size_t passed = 0;
  for (std::size_t i = 0; i < object.view_count(); ++i) {
    const netbuf_imp::view& v = object.view_at(i);
    const std::size_t length = as_size(v.length());
    if (v.length() < 1 || v.offset() < 0) throw difference("an empty view");
    if (v.offset() + v.length() > v.get_chunk()->capacity()) throw difference("a view too long");
    if (v.get_chunk()->references() < 1) throw difference("a chunk without references");
    if (of.text.compare(passed, length, v.data(), length) != 0) throw difference("bytes");
    passed += length;
  }
  if (passed != of.text.size()) throw difference("sum of the views");
}

}  // namespace model
