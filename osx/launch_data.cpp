#include "osx/launch_data.h"

#include <cstring>

#include "muro/core/exception.h"
#include "netbuf/operations.h"

namespace {

constexpr std::size_t kHeadSize = 24;
constexpr std::size_t kFillerPerItem = 8;

static_assert(sizeof(launch_data::head) == kHeadSize && alignof(launch_data::head) == 1);

// The size of every item is known before it is built, so each is written into one piece of memory.
// The functions write at `to` and return where they ended.

char* put_head(char* to, unsigned long long type, unsigned long long first,
               unsigned long long second) {
  const launch_data::head words{type, first, second};
  std::memcpy(to, &words, kHeadSize);
  return to + kHeadSize;
}

// Nothing of the memory that `netbuf` hands out unset may reach another process.
char* put_zeros(char* to, std::size_t count) {
  std::memset(to, 0, count);
  return to + count;
}

char* put_item(char* to, const netbuf& item) {
  return to + item.copy_front(to, netbuf::everything);
}

// Text and terminator up to a multiple of 8: at least one zero byte, at most eight.
std::size_t zeros_after(const std::string& text) {
  return 8 - text.size() % 8;
}

std::size_t string_size(const std::string& text) {
  return kHeadSize + text.size() + zeros_after(text);
}

char* put_string(char* to, const std::string& text) {
  to = put_head(to, launch_data::kString, 0, text.size());
  text.copy(to, text.size());
  return put_zeros(to + text.size(), zeros_after(text));
}

char* put_container_head(char* to, unsigned long long type, std::size_t items) {
  return put_zeros(put_head(to, type, 0, items), items * kFillerPerItem);
}

std::size_t size_of(const netbuf& item) {
  return static_cast<std::size_t>(item.size());
}

char* room_for(netbuf& data, std::size_t size) {
  return data.allocate_back(netbuf_imp::checked_length(size));
}

}  // namespace

netbuf launch_data::add(unsigned long long type, unsigned long long first,
                        unsigned long long second) {
  netbuf data;
  put_head(room_for(data, kHeadSize), type, first, second);
  return data;
}

netbuf launch_data::add_string(const std::string& text) {
  netbuf data;
  put_string(room_for(data, string_size(text)), text);
  return data;
}

netbuf launch_data::add_vect(const std::vector<netbuf>& items, unsigned long long type) {
  std::size_t size = kHeadSize + items.size() * kFillerPerItem;
  for (const netbuf& item : items) size += size_of(item);
  netbuf data;
  char* to = put_container_head(room_for(data, size), type, items.size());
  for (const netbuf& item : items) to = put_item(to, item);
  return data;
}

netbuf launch_data::add_dict(const std::map<std::string, netbuf>& entries) {
  const std::size_t items = 2 * entries.size();
  std::size_t size = kHeadSize + items * kFillerPerItem;
  for (const auto& [key, value] : entries) size += string_size(key) + size_of(value);
  netbuf data;
  char* to = put_container_head(room_for(data, size), kDictionary, items);
  for (const auto& [key, value] : entries) to = put_item(put_string(to, key), value);
  return data;
}

launch_data::head launch_data::pop(netbuf& data) {
  constexpr auto size = static_cast<std::int32_t>(kHeadSize);
  if (data.size() < size) throw muro::exception::function("pop");
  head words;
  data.copy_front(reinterpret_cast<char*>(&words), size);
  data.erase_front(size);
  return words;
}
