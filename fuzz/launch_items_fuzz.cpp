// launchd's data items. An input that begins with "r" is raw: how it is cut into chunks, then bytes
// from which heads are taken. All else tells a tree of items, each a byte for its kind and what the
// kind needs.
//
// For every tree the packed item is byte for byte that of a second packer (model_launchd.h), also
// where an item stands in two places and so shares its memory, and a copy gives the packed words to
// `pop`, which leaves the item itself as it is.
// For every raw input `pop` gives the words that are there, however they lie in chunks, until fewer
// than a head is left: then it throws its exception and leaves the bytes as they are.

#include "fuzz/model_launchd.h"

#include "fuzz/target.h"
#include "muro/core/exception.h"
#include "netbuf/netbuf_imp.h"
#include "osx/launch_data.h"

namespace {

constexpr int kDeepest = 5;
constexpr int kMostItems = 12;

/// An item by the product and by the second packer.
struct item {
  netbuf product;
  std::string model;
};

class builder {
 public:
  explicit builder(fuzz::input in) : in_(in) {}

  item next(int depth = 0) {
    const unsigned kind = in_.byte();
    const bool may_hold = depth < kDeepest && count_++ < kMostItems;
    switch (kind % 6) {
      case 1:
        return boolean();
      case 2:
        return may_hold ? array(depth, launch_data::kArray) : boolean();
      case 3:
        return may_hold ? dictionary(depth) : boolean();
      case 4:
        return may_hold ? array(depth, in_.byte()) : boolean();
      case 5:
        return words();
      default:
        return text();
    }
  }

 private:
  std::string short_text() { return std::string(in_.bytes(in_.byte() % 32u)); }

  item text() {
    const std::string value = short_text();
    return {launch_data::add_string(value), fuzz::packed_string(value)};
  }

  item boolean() {
    const unsigned value = in_.byte() % 2u;
    return {launch_data::add(6, 0, value), fuzz::packed_head(6, 0, value)};
  }

  /// A head with any words, for the kinds that the helper only receives.
  item words() {
    std::string bytes(in_.bytes(24));
    bytes.resize(24);
    const std::string_view view = bytes;
    const auto word = [&](std::size_t i) { return fuzz::word_at(view.substr(8 * i)); };
    return {launch_data::add(word(0), word(1), word(2)), bytes};
  }

  /// Some items, one of them in a second place too.
  item array(int depth, unsigned long long type) {
    std::vector<netbuf> products;
    std::vector<std::string> models;
    for (unsigned count = in_.byte() % 5u; count > 0; --count) {
      const item each = next(depth + 1);
      products.push_back(each.product);
      models.push_back(each.model);
    }
    if (products.size() > 1 && models[0].size() < 200) {
      products.push_back(products.front());
      models.push_back(models.front());
    }
    return {launch_data::add_vect(products, type), fuzz::packed_container(type, models)};
  }

  item dictionary(int depth) {
    std::map<std::string, netbuf> products;
    std::map<std::string, std::string> models;
    for (unsigned count = in_.byte() % 5u; count > 0; --count) {
      const std::string key = short_text();
      const item value = next(depth + 1);
      products[key] = value.product;
      models[key] = value.model;
    }
    std::vector<std::string> entries;
    for (const auto& [key, value] : models) {
      entries.push_back(fuzz::packed_string(key));
      entries.push_back(value);
    }
    return {launch_data::add_dict(products), fuzz::packed_container(1, entries)};
  }

  fuzz::input in_;
  int count_ = 0;
};

void check_heads(netbuf data, std::string_view model) {
  for (; model.size() >= 24; model.remove_prefix(24)) {
    const launch_data::head head = launch_data::pop(data);
    const std::string bytes = fuzz::packed_head(head.type, head.first, head.second);
    fuzz::require_equal(bytes, model.substr(0, 24), "the head that was taken");
  }
  bool thrown = false;
  try {
    launch_data::pop(data);
  } catch (const muro::exception& error) {
    thrown = true;
    fuzz::require_equal(error.description(), ":Error in 'pop'", "the exception");
  }
  fuzz::require(thrown, "no head is taken from fewer than 24 bytes");
  fuzz::require_equal(data.to_string(), model, "they stay");
}

void check_raw(fuzz::input in) {
  const std::size_t piece = 1 + in.byte() % 32u;
  const std::string_view bytes = fuzz::input(in).rest();
  netbuf data;
  while (!in.empty()) {
    netbuf next;
    next.append(std::string(in.bytes(piece)));
    data.append(next);
  }
  check_heads(data, bytes);
}

void check_tree(fuzz::input in) {
  item whole = builder(in).next();
  fuzz::require(whole.product.size() == static_cast<std::int32_t>(whole.model.size()), "the size");
  check_heads(whole.product, whole.model);
  fuzz::require_equal(whole.product.to_string(), whole.model, "the packed item");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = netbuf::install(netbuf_impl);
  static_cast<void>(ready);
  if (size > 0 && data[0] == 'r')
    check_raw({data + 1, size - 1});
  else
    check_tree({data, size});
  return 0;
}
