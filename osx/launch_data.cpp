#include "osx/launch_data.h"

#include <cstring>

#include "muro/core/exception.h"

namespace {

constexpr std::int32_t kHeadSize = 24;
constexpr std::int32_t kFillerPerItem = 8;

static_assert(sizeof(launch_data::head) == kHeadSize && alignof(launch_data::head) == 1);

// `allocate_back` hands out unset memory; nothing of it may reach another process.
void append_zeros(netbuf& data, std::int32_t count) {
  if (char* const room = data.allocate_back(count)) {
    std::memset(room, 0, static_cast<std::size_t>(count));
  }
}

// Text and terminator up to a multiple of 8: at least one zero byte, at most eight.
std::int32_t zeros_after(const std::string& text) {
  return 8 - static_cast<std::int32_t>(text.size() % 8);
}

}  // namespace

netbuf launch_data::add(unsigned long long type, unsigned long long first,
                        unsigned long long second) {
  const head words{type, first, second};
  netbuf data;
  std::memcpy(data.allocate_back(kHeadSize), &words, kHeadSize);
  return data;
}

netbuf launch_data::add_string(const std::string& text) {
  netbuf data = add(kString, 0, text.size());
  data.append(text);
  append_zeros(data, zeros_after(text));
  return data;
}

netbuf launch_data::add_vect(const std::vector<netbuf>& items, unsigned long long type) {
  netbuf data = add(type, 0, items.size());
  for (std::size_t i = 0; i < items.size(); ++i) append_zeros(data, kFillerPerItem);
  for (const netbuf& item : items) data.append(item);
  return data;
}

netbuf launch_data::add_dict(const std::map<std::string, netbuf>& entries) {
  std::vector<netbuf> items;
  for (const auto& [key, value] : entries) {
    items.push_back(add_string(key));
    items.push_back(value);
  }
  return add_vect(items, kDictionary);
}

launch_data::head launch_data::pop(netbuf& data) {
  if (data.size() < kHeadSize) throw muro::exception::function("pop");
  head words;
  data.copy_front(reinterpret_cast<char*>(&words), kHeadSize);
  data.erase_front(kHeadSize);
  return words;
}
