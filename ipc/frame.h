#pragma once

/// The frame around a packet, over any way of moving bytes; for both ends of a connection.

#include <cstdint>
#include <cstring>
#include <string>

namespace ipc_priv {

/// The largest body in either direction; a longer one is refused.
inline constexpr std::uint32_t kLargestBody = 0x100000;

/// Reads one frame into `out`. `from.read(bytes, length)` moves exactly `length` bytes or fails.
/// On failure `out` holds anything.
template <class Transfer>
bool read_frame(Transfer& from, std::string& out) {
  unsigned char head[4];
  if (!from.read(head, sizeof head)) return false;
  std::uint32_t length;
  std::memcpy(&length, head, sizeof length);
  if (length > kLargestBody) return false;
  out.resize(length);
  return from.read(reinterpret_cast<unsigned char*>(out.data()), static_cast<int>(length));
}

/// Writes one frame; a body that is too long is refused before anything is written.
/// `to.write(bytes, length)` moves exactly `length` bytes or fails.
template <class Transfer>
bool write_frame(Transfer& to, const std::string& body) {
  if (body.size() > kLargestBody) return false;
  const auto length = static_cast<std::uint32_t>(body.size());
  unsigned char head[4];
  std::memcpy(head, &length, sizeof length);
  return to.write(head, sizeof head) &&
         to.write(reinterpret_cast<const unsigned char*>(body.data()), static_cast<int>(length));
}

}  // namespace ipc_priv
