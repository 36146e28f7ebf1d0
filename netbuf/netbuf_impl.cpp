#include <limits>
#include <new>

#include "netbuf/buffer.h"
#include "netbuf/netbuf.h"
#include "netbuf/netbuf_imp.h"

namespace netbuf_imp {
namespace {

// The entries: each turns the table's untyped objects into buffers and calls the operation.

buffer& of(void* self) {
  return *static_cast<buffer*>(self);
}
const buffer& of(const void* self) {
  return *static_cast<const buffer*>(self);
}

void init_default() {
  initialise(false, true);
}
void init_checking(bool memory_checking) {
  initialise(memory_checking, true);
}
void no_operation() {}

void destroy(void* self) {
  delete static_cast<buffer*>(self);
}
void* create() {
  return new buffer;
}
void* create_range(const void* other, std::int32_t offset, std::int32_t length) {
  return new buffer(of(other), offset, length);
}

std::int32_t size(const void* self) {
  return of(self).size();
}
void add(void* self, const void* other, end where) {
  of(self).add(of(other), where);
}
void add_memory(void* self, char* memory, std::int32_t length, end where, memory_rights rights,
                release_function release, void* context) {
  of(self).add_memory(memory, length, where, rights, release, context);
}
void take_back(void* self, void* other) {
  of(self).take(of(other), end::back);
}
void take_front(void* self, void* other) {
  of(self).take(of(other), end::front);
}

char* allocate(void* self, std::int32_t n, end where) {
  return of(self).allocate(n, where);
}
char* allocate_some(void* self, std::int32_t minimum, std::int32_t maximum, end where,
                    std::int32_t* length) {
  return of(self).allocate_some(minimum, maximum, where, length);
}

const char* pull_up(void* self, std::int32_t limit, std::int32_t* length) {
  return of(self).pull_up(limit, length);
}
const char* pull_up_all(void* self, std::int32_t* length) {
  return pull_up(self, std::numeric_limits<std::int32_t>::max(), length);
}

void erase(void* self, std::int32_t n, end where) {
  of(self).erase(n, where);
}
std::int32_t copy_out(void* self, char* dest, std::int32_t n, end where, after_copy then) {
  return of(self).copy_out(dest, n, where, then);
}
std::int32_t find(const void* self, char byte, std::int32_t n) {
  return of(self).find(byte, n);
}
std::int32_t compare(const void* self, const char* data, std::int32_t n) {
  return of(self).compare(data, n);
}

void block_free(void* block) {
  general_free(block);
}
void* block_allocate(std::int32_t size) {
  return size < 1 ? nullptr : general_allocate(static_cast<std::size_t>(size));
}
void* block_try_allocate(std::int32_t size) {
  try {
    return block_allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

// A position is the number of a view.
const buffer& buffer_of(const iterator& at) {
  return of(at.buffer);
}

void iterator_begin(const void* self, iterator* at) {
  *at = {self, 0, {}};
}
void iterator_copy(const iterator* from, iterator* to) {
  *to = *from;
}
bool iterator_valid(const iterator* at) {
  return at->position < buffer_of(*at).view_count();
}
void iterator_next(iterator* at) {
  if (iterator_valid(at)) ++at->position;
}
const char* iterator_current(const iterator* at, std::int32_t* length) {
  *length = 0;
  if (!iterator_valid(at)) return nullptr;
  const view& current = buffer_of(*at).view_at(at->position);
  *length = current.length();
  return current.data();
}

// Field by field, so that an entry cannot slip into its neighbour's place unseen.
constexpr operations built_in() {
  operations table{};
  table.init_default = init_default;
  table.destroy = destroy;
  table.create = create;
  table.create_range = create_range;
  table.size = size;
  table.add = add;
  table.add_memory = add_memory;
  table.allocate = allocate;
  table.allocate_some = allocate_some;
  table.pull_up = pull_up;
  table.erase = erase;
  table.copy_out = copy_out;
  table.no_operation = no_operation;
  table.block_free = block_free;
  table.block_allocate = block_allocate;
  table.iterator_begin = iterator_begin;
  table.iterator_copy = iterator_copy;
  table.iterator_valid = iterator_valid;
  table.iterator_current = iterator_current;
  table.iterator_next = iterator_next;
  table.block_try_allocate = block_try_allocate;
  table.pull_up_all = pull_up_all;
  table.find = find;
  table.compare = compare;
  table.take_back = take_back;
  table.take_front = take_front;
  table.init_checking = init_checking;
  table.init = initialise;
  return table;
}

}  // namespace

bool install_builtin() {
  if (!netbuf::install(netbuf_impl)) return false;
  netbuf::init({.memory_checking = false, .caching = true});
  return true;
}

}  // namespace netbuf_imp

constinit const netbuf_imp::operations netbuf_impl = netbuf_imp::built_in();
