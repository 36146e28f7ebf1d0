#pragma once

/// The stand-in programs' side of the simulated launchd's socket: messages of JSON, one a packet.
/// Bytes of arguments and file contents become the code points of the same number, so that any
/// byte survives.

#include <string>

namespace mac {

/// A JSON string of these bytes.
std::string quoted(const std::string& bytes);

/// The JSON array of the words of an argument list.
std::string quoted_list(int count, char** words);

/// Connects to the launchd of this root and sends the message. Gives the descriptor, or -1 when
/// there is no launchd.
int send_to_launchd(const std::string& message);

/// The next packet of at most 1 MiB; empty at the end and on failure.
std::string receive(int socket);

}  // namespace mac
