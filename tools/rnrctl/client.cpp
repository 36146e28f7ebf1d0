#include "tools/rnrctl/client.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "client/korvel_rnr.h"
#include "muro/core/exception.h"

namespace rnrctl {
namespace {

std::string path_of(const std::string& name) {
  char path[KORVEL_RNR_PATH_ROOM];
  return {path, korvel_rnr_endpoint_path(path, name.c_str())};
}

std::string line_for(korvel_rnr_status status, int error, const std::string& name) {
  switch (status) {
    case KORVEL_RNR_NO_ENDPOINT:
      return "no helper serves " + path_of(name) + ": " + muro::safe_strerror(error);
    case KORVEL_RNR_REFUSED:
      return "the helper refused the request: it closed the connection unanswered";
    case KORVEL_RNR_TIMED_OUT:
      return error == EAGAIN ? "time-out while waiting for the helper's turn at " + path_of(name)
                             : std::string("time-out: the helper has not answered");
    default:
      return "cannot ask the helper at " + path_of(name) + ": " + muro::safe_strerror(error);
  }
}

}  // namespace

std::string make_request(const std::string& command, const std::string& argument) {
  const auto write = [&](void* packet, std::size_t room) {
    return korvel_rnr_write_request(packet, room, argument.data(), argument.size(),
                                    command.c_str());
  };
  std::string packet(write(nullptr, 0), '\0');
  write(packet.data(), packet.size());
  return packet;
}

std::string exchange(const std::string& name, const std::string& packet, long long limit_ms) {
  if (packet.size() > KORVEL_RNR_LONGEST_PACKET)
    throw failure(exit_status::failed, "the request is too long");
  std::string reply(KORVEL_RNR_LONGEST_PACKET, '\0');
  std::size_t length = 0;
  const korvel_rnr_status status =
      korvel_rnr_exchange(name.c_str(), packet.data(), packet.size(), reply.data(), reply.size(),
                          &length, static_cast<int>(std::clamp(limit_ms, 1LL, 1LL * INT_MAX)));
  const int error = errno;
  if (status != KORVEL_RNR_DONE)
    throw failure(static_cast<exit_status>(status), line_for(status, error, name));
  reply.resize(length);
  return reply;
}

}  // namespace rnrctl
