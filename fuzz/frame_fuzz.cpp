// Frames. The input is a stream of bytes as a client sends it, after two bytes that tell how the
// stream is cut into deliveries.
//
// For every stream and every cut:
//   - the frames read are those which a plain parser of the whole stream finds, and the reader
//     stops where that does: at a length above the limit, of whose body nothing is taken, or a
//     stream that ends too early;
//   - nothing beyond a frame's own bytes is taken from the stream;
//   - what write_frame writes of a body is the frame's bytes again.

#include <algorithm>
#include <cstring>

#include "fuzz/target.h"
#include "ipc/frame.h"

namespace {

/// The receiving end: gives the stream in deliveries of at most `delivery` bytes, as read(2) does.
class cut_stream {
 public:
  cut_stream(std::string_view bytes, std::size_t delivery) : bytes_(bytes), delivery_(delivery) {}

  bool read(unsigned char* out, int length) {
    auto wanted = static_cast<std::size_t>(length);
    while (wanted > 0) {
      const std::size_t got = std::min({wanted, delivery_, bytes_.size() - at_});
      if (got == 0) return false;
      std::memcpy(out, bytes_.data() + at_, got);
      out += got;
      at_ += got;
      wanted -= got;
    }
    return true;
  }

  std::size_t at() const { return at_; }

 private:
  std::string_view bytes_;
  std::size_t delivery_;
  std::size_t at_ = 0;
};

/// The sending end.
struct gathered {
  std::string bytes;
  bool write(const unsigned char* from, int length) {
    bytes.append(reinterpret_cast<const char*>(from), static_cast<std::size_t>(length));
    return true;
  }
};

/// The frame at the front of `stream` as the format tells it; false without a whole one.
bool frame_at_front(std::string_view stream, std::string_view& body) {
  if (stream.size() < 4) return false;
  std::uint32_t length;
  std::memcpy(&length, stream.data(), 4);
  if (length > 0x100000 || stream.size() - 4 < length) return false;
  body = stream.substr(4, length);
  return true;
}

/// Where the reader stops for want of a whole frame at `start`.
std::size_t end_of_reading(std::string_view stream, std::size_t start) {
  std::uint32_t length = 0;
  if (stream.size() - start < 4) return stream.size();
  std::memcpy(&length, stream.data() + start, 4);
  return length > 0x100000 ? start + 4 : stream.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::input in(data, size);
  const std::size_t delivery = 1 + in.number16();
  const std::string_view stream = in.rest();
  cut_stream from(stream, delivery);
  static std::string body;  // keeps its room: a length alone can ask for a megabyte
  for (std::size_t start = 0;;) {
    std::string_view expected;
    const bool whole = frame_at_front(stream.substr(start), expected);
    fuzz::require(ipc_priv::read_frame(from, body) == whole, "a frame is read when it is whole");
    if (!whole) {
      fuzz::require(from.at() == end_of_reading(stream, start),
                    "nothing of a body that is too long is taken");
      return 0;
    }
    fuzz::require_equal(body, expected, "the body is what the frame holds");
    start += 4 + body.size();
    fuzz::require(from.at() == start, "no byte of the next frame is taken");
    gathered to;
    fuzz::require(ipc_priv::write_frame(to, body), "a body that was read can be written");
    fuzz::require_equal(to.bytes, stream.substr(start - to.bytes.size(), to.bytes.size()),
                        "a frame is written as it was read");
  }
}
