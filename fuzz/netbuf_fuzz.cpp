// netbuf: four buffers that share memory go through the operations that the input tells, three
// bytes each (operation, buffers, length), and each is mirrored on a plain string.
//
// For every sequence:
//   - what an operation returns is what the same operation on the strings gives;
//   - after each one, every buffer holds its string's bytes, so that a write through shared memory
//     shows; no view is empty or leaves its chunk, and the lengths add up (tests/netbuf/model.h);
//   - growth writes into the end view's own chunk when that is writable and has the room, and
//     otherwise makes a chunk of the size that the rule gives, in a buffer of at most 129 views;
//   - read-only memory comes back as it was given, and all that was given comes back.
// Chunks come from the general allocator, so that the address sanitizer sees a byte outside one.

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz/target.h"
#include "netbuf/buffer.h"
#include "netbuf/netbuf_imp.h"
#include "tests/netbuf/model.h"

namespace {

using model::member;
using netbuf_imp::end;

constexpr std::size_t kLongest = 3000;

int given_pieces = 0;  // of callers' memory that are still out

struct given_memory {
  std::string bytes;
  std::string original;  // empty when it may be written
};

void take_back(void* context) {
  const std::unique_ptr<given_memory> piece(static_cast<given_memory*>(context));
  fuzz::require(piece->original.empty() || piece->bytes == piece->original,
                "read-only memory is not written");
  --given_pieces;
}

std::size_t as_size(std::int32_t n) {
  return static_cast<std::size_t>(std::max(n, 0));
}

std::int32_t length_of(const member& m) {
  return static_cast<std::int32_t>(m.text.size());
}

/// Mostly as the byte tells; its last values are lengths at the limits.
std::int32_t length_from(std::uint8_t byte) {
  if (byte < 160) return byte;
  if (byte < 240) return (byte - 160) * 16;
  if (byte == 240) return netbuf::everything;
  if (byte == 241) return -netbuf::everything - 1;
  return 242 - byte;
}

class sequence {
 public:
  void run(fuzz::input in) {
    for (int steps = 0; !in.empty() && steps < 64; ++steps) step(in);
  }

 private:
  void step(fuzz::input& in) {
    const unsigned operation = in.byte();
    const unsigned choice = in.byte();
    n_ = length_from(in.byte());
    where_ = choice & 1 ? end::back : end::front;
    member& one = members_[choice >> 1 & 3];
    member& other = members_[choice >> 3 & 3];
    extra_ = choice >> 5;
    carry_out(operation, one, other);
    if (one.text.size() > kLongest) shorten(one);
    for (member& each : members_) model::check(each);
  }

  void carry_out(unsigned operation, member& one, member& other) {
    switch (operation % 16) {
      case 0:
      case 1:
        return allocate(one);
      case 2:
        return allocate_some(one);
      case 3:
        return append_text(one);
      case 4:
        return add(one, other);
      case 5:
        return take(one, other);
      case 6:
        return erase(one);
      case 7:
        return share_range(one, other);
      case 8:
        return assign(one, other);
      case 9:
        return add_memory(one);
      case 10:
        return pull_up(one);
      case 11:
        return copy_out(one);
      case 12:
        return find(one);
      case 13:
        return compare(one, other);
      case 14:
        return many_views(one, other);
      default:
        fuzz::require_equal(one.bytes.to_string(), one.text, "to_string");
    }
  }

  std::string fresh(std::int32_t n) {
    std::string bytes(as_size(n), '\0');
    for (char& byte : bytes) byte = static_cast<char>(++counter_ * 37 >> 2);
    return bytes;
  }

  /// A length that may be put in: more is not to be had in small inputs.
  std::int32_t growth() const { return std::clamp(n_, -2, 1300); }

  void put(member& into, const std::string& bytes) const {
    into.text.insert(where_ == end::front ? 0 : into.text.size(), bytes);
  }

  static const netbuf_imp::buffer& object_of(member& m) {
    return *static_cast<const netbuf_imp::buffer*>(m.bytes.object());
  }

  /// What the rule says of a growth by `n`: the capacity of the new chunk, or 0 for none.
  std::int32_t new_chunk_for(member& m, std::int32_t n) const {
    const netbuf_imp::buffer& object = object_of(m);
    std::size_t count = object.view_count();
    if (count >= 129) count = 1;  // which fills its chunk, see `grew`
    const std::int32_t views = static_cast<std::int32_t>(count) * 128;
    const std::int32_t wanted = std::max(n, views + (length_of(m) + n) / 4 + 128);
    if (count == 0 || object.view_count() >= 129) return wanted;
    const netbuf_imp::view& last = object.view_at(where_ == end::front ? 0 : count - 1);
    const netbuf_imp::chunk* chunk = last.get_chunk();
    const std::int32_t behind = chunk->capacity() - last.offset() - last.length();
    const std::int32_t room = where_ == end::front ? last.offset() : behind;
    return chunk->writable() && room >= n ? 0 : wanted;
  }

  /// Checks the growth, whose new bytes are at `added`, and fills them.
  void grew(member& m, std::size_t views_before, std::int32_t new_chunk, char* added,
            std::int32_t n) {
    const netbuf_imp::buffer& object = object_of(m);
    fuzz::require(object.view_count() <= 129, "at most 129 views after a growth");
    const std::size_t kept = views_before >= 129 ? 1 : views_before;
    fuzz::require(object.view_count() == kept + (new_chunk != 0), "a view more for a new chunk");
    const std::size_t at = where_ == end::front ? 0 : object.view_count() - 1;
    const netbuf_imp::view& last = object.view_at(at);
    fuzz::require(new_chunk == 0 || last.get_chunk()->capacity() == new_chunk,
                  "the new chunk has the size of the rule");
    const std::int32_t offset = where_ == end::front ? 0 : last.length() - n;
    fuzz::require(last.data() + offset == added, "the new bytes are at their end");
    const std::string bytes = fresh(n);
    std::memcpy(added, bytes.data(), bytes.size());
    put(m, bytes);
  }

  void allocate(member& m) {
    const std::int32_t n = growth();
    const std::size_t views = object_of(m).view_count();
    const std::int32_t new_chunk = n < 1 ? 0 : new_chunk_for(m, n);
    char* added = where_ == end::front ? m.bytes.allocate_front(n) : m.bytes.allocate_back(n);
    fuzz::require((added != nullptr) == (n > 0), "nothing is allocated for nothing");
    if (added != nullptr) grew(m, views, new_chunk, added, n);
  }

  void allocate_some(member& m) {
    const std::int32_t minimum = growth();
    const std::int32_t maximum = minimum + 16 * (static_cast<std::int32_t>(extra_) - 1);
    const std::size_t views = object_of(m).view_count();
    const std::int32_t new_chunk = minimum < 1 ? 0 : new_chunk_for(m, minimum);
    std::int32_t n = -1;
    char* added = netbuf_impl.allocate_some(m.bytes.object(), minimum, maximum, where_, &n);
    fuzz::require((added != nullptr) == (minimum > 0), "nothing is allocated for nothing");
    if (added == nullptr) return fuzz::require(n == 0, "which is 0 bytes");
    fuzz::require(n >= minimum && n <= std::max(minimum, maximum), "within both limits");
    grew(m, views, new_chunk, added, n);
  }

  void append_text(member& m) {
    const std::string bytes = fresh(growth());
    m.bytes.append(bytes);
    m.text += bytes;
  }

  void add(member& one, member& other) {
    if (where_ == end::back)
      one.bytes.append(other.bytes);
    else
      netbuf_impl.add(one.bytes.object(), other.bytes.object(), end::front);
    put(one, std::string(other.text));
  }

  void take(member& one, member& other) {
    (where_ == end::front ? netbuf_impl.take_front : netbuf_impl.take_back)(one.bytes.object(),
                                                                            other.bytes.object());
    if (&one != &other) put(one, std::exchange(other.text, {}));
  }

  void erase(member& m) {
    const std::int32_t n = extra_ == 7 ? length_of(m) - n_ % 4 : n_;
    const std::size_t dropped = std::min(as_size(n), m.text.size());
    where_ == end::front ? m.bytes.erase_front(n) : m.bytes.erase_back(n);
    m.text.erase(where_ == end::front ? 0 : m.text.size() - dropped, dropped);
  }

  void share_range(member& one, member& other) {
    const std::int32_t offset = static_cast<std::int32_t>(extra_ * extra_ * extra_ * 3) - 1;
    const std::size_t start = std::min(as_size(offset), other.text.size());
    one.bytes = netbuf(other.bytes, offset, n_);
    one.text = other.text.substr(start, as_size(n_));
  }

  void assign(member& one, member& other) {
    if (where_ == end::front) {
      one.bytes = other.bytes;
      one.text = other.text;
    } else if (&one != &other) {
      one.bytes = std::move(other.bytes);
      one.text = std::exchange(other.text, {});
    }
  }

  void add_memory(member& m) {
    const bool read_only = extra_ % 2 != 0;
    const std::string bytes = fresh(growth());
    auto piece = std::make_unique<given_memory>(given_memory{bytes, read_only ? bytes : ""});
    ++given_pieces;
    netbuf_impl.add_memory(
        m.bytes.object(), piece->bytes.data(), static_cast<std::int32_t>(bytes.size()), where_,
        read_only ? netbuf_imp::memory_rights::read_only : netbuf_imp::memory_rights::writable,
        take_back, piece.get());
    static_cast<void>(piece.release());
    put(m, bytes);
  }

  void pull_up(member& m) {
    std::int32_t n = -1;
    const char* start = extra_ == 7 ? netbuf_impl.pull_up_all(m.bytes.object(), &n)
                                    : netbuf_impl.pull_up(m.bytes.object(), n_, &n);
    fuzz::require((start == nullptr) == m.text.empty(), "a pull-up gives an address or is empty");
    const bool wants_all = extra_ == 7 || length_of(m) <= n_;
    fuzz::require(wants_all ? n == length_of(m) : n <= length_of(m), "the length of a pull-up");
    fuzz::require_equal({start, as_size(n)}, std::string_view(m.text).substr(0, as_size(n)),
                        "the bytes of a pull-up");
  }

  void copy_out(member& m) {
    const bool remove = extra_ % 2 != 0;
    const std::size_t count = std::min(as_size(n_), m.text.size());
    const std::size_t start = where_ == end::front ? 0 : m.text.size() - count;
    std::vector<char> copied(count);  // not a byte more
    const bool plain = where_ == end::front && !remove;
    const std::int32_t got = plain
                                 ? m.bytes.copy_front(copied.data(), n_)
                                 : netbuf_impl.copy_out(m.bytes.object(), copied.data(), n_, where_,
                                                        remove ? netbuf_imp::after_copy::remove
                                                               : netbuf_imp::after_copy::keep);
    fuzz::require(as_size(got) == count && got >= 0, "the count of a copy");
    fuzz::require_equal({copied.data(), count}, m.text.substr(start, count), "the bytes of a copy");
    if (remove) m.text.erase(start, count);
  }

  void find(member& m) {
    const char byte = static_cast<char>(counter_ * 37 >> 2);
    const std::size_t at = m.text.substr(0, as_size(n_)).find(byte);
    const std::int32_t wanted = at == std::string::npos ? -1 : static_cast<std::int32_t>(at);
    fuzz::require(netbuf_impl.find(m.bytes.object(), byte, n_) == wanted, "the place of a byte");
  }

  void compare(member& one, member& other) {
    const std::int32_t n = std::min(n_, length_of(other));
    const int order = one.text.substr(0, as_size(n)).compare(other.text.substr(0, as_size(n)));
    const int wanted = order < 0 ? -1 : order > 0;
    fuzz::require(netbuf_impl.compare(one.bytes.object(), other.text.data(), n) == wanted,
                  "the order of two texts");
  }

  /// A view for each of some bytes of the other, which growth has to compact.
  void many_views(member& one, member& other) {
    const std::string text = other.text;
    const netbuf source = other.bytes;
    const std::int32_t count = std::min({n_, source.size(), 150});
    for (std::int32_t i = 0; i < count; ++i) {
      one.bytes.append(netbuf(source, i, 1));
      one.text += text[as_size(i)];
    }
  }

  static void shorten(member& m) {
    const std::size_t surplus = m.text.size() - kLongest / 2;
    m.bytes.erase_front(static_cast<std::int32_t>(surplus));
    m.text.erase(0, surplus);
  }

  member members_[4];
  std::int32_t n_ = 0;
  end where_ = end::front;
  unsigned extra_ = 0;
  unsigned counter_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool ready = netbuf::install(netbuf_impl);
  static_cast<void>(ready);
  try {
    sequence().run({data, size});
  } catch (const model::difference& found) {
    fuzz::require(false, found.what());
  }
  fuzz::require(given_pieces == 0, "all that was given comes back");
  return 0;
}
