#include "netbuf/netbuf.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include "netbuf/buffer.h"
#include "netbuf/operations.h"

namespace {

using netbuf_imp::buffer;
using netbuf_imp::end;

template <class Result, class... Arguments>
Result missing(Arguments...) {
  throw std::logic_error("netbuf: no operation table is installed");
}

// What stands in the table's place until there is one, so that the operations need not ask. Only
// entries that need no object can be reached then.
constexpr netbuf_imp::operations no_table() {
  netbuf_imp::operations table{};
  table.init_default = missing;
  table.create = missing;
  table.create_range = missing;
  table.block_free = missing;
  table.block_allocate = missing;
  table.block_try_allocate = missing;
  table.init_checking = missing;
  table.init = missing;
  return table;
}

constinit netbuf_imp::operations g_operations = no_table();
constinit bool g_installed = false;
// Whether the installed table is the built-in one in every entry. What is done most then goes
// straight to the object, with the same outcome.
constinit bool g_built_in = false;

buffer& built_in(void* object) {
  return *static_cast<buffer*>(object);
}

// Built in, an empty buffer gets its object when something is put into it.
void* object_of_empty() {
  return g_built_in ? nullptr : g_operations.create();
}

constexpr std::size_t skipped_entry = 22;
constexpr std::size_t first_after_skipped = skipped_entry + 1;

}  // namespace

const netbuf_imp::operations& netbuf_imp::installed_operations() {
  return g_operations;
}

std::int32_t netbuf_imp::checked_length(std::size_t bytes) {
  if (bytes > static_cast<std::size_t>(netbuf::everything)) {
    throw std::length_error("netbuf: too long");
  }
  return static_cast<std::int32_t>(bytes);
}

bool netbuf::install(void** table) {
  if (g_installed || table == nullptr) return false;
  // Deliberate: entry 22 is not copied.
  void** installed = g_operations;
  std::memcpy(installed, table, skipped_entry * sizeof(void*));
  std::memcpy(installed + first_after_skipped, table + first_after_skipped,
              (netbuf_imp::operation_count - first_after_skipped) * sizeof(void*));
  g_installed = true;
  g_built_in = std::memcmp(&g_operations, &netbuf_impl, sizeof g_operations) == 0;
  return true;
}

void netbuf::init(const init_args& args) {
  g_operations.init(args.memory_checking, args.caching);
}

netbuf::netbuf() : object_(object_of_empty()) {}

netbuf::netbuf(const netbuf& other) : netbuf(other, 0, everything) {}

netbuf::netbuf(netbuf&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

netbuf::netbuf(const netbuf& other, std::int32_t offset, std::int32_t length)
    : object_(other.object_ == nullptr ? object_of_empty()
                                       : g_operations.create_range(other.object_, offset, length)) {
}

// The new content is there before the old one goes, so that a failure leaves the old one, and a
// buffer may be assigned to itself.
netbuf& netbuf::operator=(const netbuf& other) {
  return *this = netbuf(other);
}

// Taken by way of a third, so that moving a buffer onto itself keeps it.
netbuf& netbuf::operator=(netbuf&& other) noexcept {
  netbuf taken(std::move(other));
  std::swap(object_, taken.object_);
  return *this;
}

netbuf::~netbuf() {
  if (object_ == nullptr) return;
  g_built_in ? delete &built_in(object_) : g_operations.destroy(object_);
}

// A move must not fail, so the buffer that it leaves gets its object only when it needs one.
void* netbuf::object() {
  if (object_ == nullptr) object_ = g_operations.create();
  return object_;
}

std::int32_t netbuf::size() const {
  if (object_ == nullptr) return 0;
  return g_built_in ? built_in(object_).size() : g_operations.size(object_);
}

void netbuf::append(const netbuf& other) {
  if (other.object_ != nullptr) g_operations.add(object(), other.object_, end::back);
}

void netbuf::append(const std::string& s) {
  char* added = allocate_back(netbuf_imp::checked_length(s.size()));
  if (added != nullptr) std::memcpy(added, s.data(), s.size());
}

char* netbuf::allocate_back(std::int32_t n) {
  if (g_built_in && object_ != nullptr) return built_in(object_).allocate(n, end::back);
  return g_operations.allocate(object(), n, end::back);
}

char* netbuf::allocate_front(std::int32_t n) {
  if (g_built_in && object_ != nullptr) return built_in(object_).allocate(n, end::front);
  return g_operations.allocate(object(), n, end::front);
}

void netbuf::erase_front(std::int32_t n) {
  if (object_ == nullptr) return;
  if (g_built_in) return built_in(object_).erase(n, end::front);
  g_operations.erase(object_, n, end::front);
}

void netbuf::erase_back(std::int32_t n) {
  if (object_ == nullptr) return;
  if (g_built_in) return built_in(object_).erase(n, end::back);
  g_operations.erase(object_, n, end::back);
}

std::int32_t netbuf::copy_front(char* dest, std::int32_t n) const {
  if (object_ == nullptr) return 0;
  if (g_built_in) return built_in(object_).copy_front(dest, n);
  return g_operations.copy_out(object_, dest, n, end::front, netbuf_imp::after_copy::keep);
}

std::string netbuf::to_string() const {
  if (object_ == nullptr) return {};
  if (g_built_in) return built_in(object_).to_string();
  std::int32_t length = 0;
  const char* data = g_operations.pull_up(object_, everything, &length);
  return data == nullptr ? std::string() : std::string(data, static_cast<std::size_t>(length));
}
