#include <iterator>

#include "netbuf/netbuf_imp.h"

namespace netbuf_imp {
namespace {

// Written by the initialisation, before threads start. The caches are never destroyed: a buffer
// may outlive every other object of the process.
constinit bool g_initialised = false;
constinit bool g_caching = false;
constinit memory_cache* g_caches[std::size(size_classes)] = {};

// The first class that holds n bytes; null when none does or none is cached.
memory_cache* cache_for(std::int32_t n, std::int32_t& chunk_size) {
  if (!g_caching) return nullptr;
  for (std::size_t i = 0; i < std::size(size_classes); ++i) {
    if (size_classes[i].chunk_size < n) continue;
    chunk_size = size_classes[i].chunk_size;
    return g_caches[i];
  }
  return nullptr;
}

}  // namespace

constinit bool netbuf_memchecker = false;

void initialise(bool memory_checking, bool caching) {
  if (g_initialised) return;
  g_initialised = true;
  netbuf_memchecker = memory_checking;
  if (!caching) return;
  for (std::size_t i = 0; i < std::size(size_classes); ++i) {
    const size_class& c = size_classes[i];
    const auto chunk_size = static_cast<std::size_t>(c.chunk_size);
    g_caches[i] = new memory_cache(chunk_size + cache_mem::overhead, c.items_per_batch, c.batches);
  }
  g_caching = true;
}

memory_cache* cache_of_class(std::size_t index) {
  return g_caches[index];
}

void* general_allocate(std::size_t bytes) {
  void* memory = ::operator new(bytes);
  if (netbuf_memchecker) std::memset(memory, 0, bytes);
  return memory;
}

void general_free(void* memory) noexcept {
  ::operator delete(memory);
}

cache_mem* cache_mem::allocate(std::size_t bytes) {
  return static_cast<cache_mem*>(general_allocate(bytes));
}

void cache_mem::deallocate(cache_mem* batch) {
  general_free(batch);
}

nchunk::piece nchunk::acquire(std::int32_t n) {
  std::int32_t chunk_size = 0;
  // A cache whose batches are used up yields nothing.
  if (memory_cache* cache = cache_for(n, chunk_size)) {
    if (cache_mem* item = cache->take()) return {item->memory(), chunk_size, cache};
  }
  return {static_cast<char*>(general_allocate(static_cast<std::size_t>(n))), n, nullptr};
}

// The object has its own memory before the chunk's is acquired, so nothing is lost when the second
// of the two fails.
nchunk::nchunk(std::int32_t n) : nchunk(acquire(n)) {}

nchunk::nchunk(const piece& from) noexcept
    : chunk(from.memory, from.capacity, memory_rights::writable), cache_(from.cache) {}

nchunk::~nchunk() {
  if (cache_ != nullptr) {
    cache_->give(cache_mem::of(memory()));
  } else {
    general_free(memory());
  }
}

cchunk::~cchunk() {
  if (release_ != nullptr) release_(context_);
}

}  // namespace netbuf_imp
