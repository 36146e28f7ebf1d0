#include "netbuf/netbuf.h"

#include <cstring>
#include <stdexcept>
#include <utility>

#include "netbuf/buffer.h"
#include "netbuf/operations.h"

namespace {

using netbuf_imp::after_copy;
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

constexpr std::size_t skipped_entry = 22;
constexpr std::size_t first_after_skipped = skipped_entry + 1;

}  // namespace

constinit bool netbuf::built_in_installed_ = false;

const netbuf_imp::operations& netbuf_imp::installed_operations() {
  return g_operations;
}

bool netbuf::install(void** table) {
  if (g_installed || table == nullptr) return false;
  // Deliberate: entry 22 is not copied.
  void** installed = g_operations;
  std::memcpy(installed, table, skipped_entry * sizeof(void*));
  std::memcpy(installed + first_after_skipped, table + first_after_skipped,
              (netbuf_imp::operation_count - first_after_skipped) * sizeof(void*));
  g_installed = true;
  built_in_installed_ = std::memcmp(&g_operations, &netbuf_impl, sizeof g_operations) == 0;
  return true;
}

void netbuf::init(const init_args& args) {
  g_operations.init(args.memory_checking, args.caching);
}

netbuf::netbuf() : object_(empty_object()) {}

netbuf::netbuf(const netbuf& other) : object_(other.share()) {}

netbuf::netbuf(netbuf&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

netbuf::netbuf(const netbuf& other, std::int32_t offset, std::int32_t length)
    : object_(other.share(offset, length)) {}

// Built in, an empty buffer gets its object when something is put into it.
void* netbuf::empty_object() {
  return built_in_installed_ ? nullptr : g_operations.create();
}

void* netbuf::share() const {
  if (const buffer* const self = built_in()) return new buffer(*self);
  return share(0, everything);
}

void* netbuf::share(std::int32_t offset, std::int32_t length) const {
  if (const buffer* const self = built_in()) return new buffer(*self, offset, length);
  if (object_ == nullptr) return empty_object();
  return g_operations.create_range(object_, offset, length);
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
  if (buffer* const self = built_in()) {
    delete self;
  } else if (object_ != nullptr) {
    g_operations.destroy(object_);
  }
}

// A move must not fail, so the buffer that it leaves gets its object only when it needs one.
void* netbuf::object() {
  if (object_ == nullptr) object_ = g_operations.create();
  return object_;
}

std::int32_t netbuf::size() const {
  if (const buffer* const self = built_in()) return self->size();
  return object_ == nullptr ? 0 : g_operations.size(object_);
}

void netbuf::append(const netbuf& other) {
  if (other.object_ != nullptr) g_operations.add(object(), other.object_, end::back);
}

// A host's table is asked for sharing alone: its entries that move content may be missing.
void netbuf::append(netbuf&& other) {
  if (&other == this) return;
  if (buffer* const given = other.built_in()) {
    return static_cast<buffer*>(object())->take(*given, end::back);
  }
  append(other);
  const netbuf released(std::move(other));
}

void netbuf::append(const std::string& s) {
  char* added = allocate_back(netbuf_imp::checked_length(s.size()));
  if (added != nullptr) s.copy(added, s.size());
}

char* netbuf::allocate_by_table(std::int32_t n, end where) {
  return g_operations.allocate(object(), n, where);
}

void netbuf::erase_by_table(std::int32_t n, end where) {
  if (object_ != nullptr) g_operations.erase(object_, n, where);
}

std::int32_t netbuf::copy_front_by_table(char* dest, std::int32_t n) const {
  if (object_ == nullptr) return 0;
  return g_operations.copy_out(object_, dest, n, end::front, after_copy::keep);
}

std::string netbuf::to_string() const {
  if (buffer* const self = built_in()) return self->to_string();
  std::int32_t length = 0;
  const char* data =
      object_ == nullptr ? nullptr : g_operations.pull_up(object_, everything, &length);
  return data == nullptr ? std::string() : std::string(data, static_cast<std::size_t>(length));
}
