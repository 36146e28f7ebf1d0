// What the page of vectors tells those who write a client of their own is what the library sends and
// what the helper understands.

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "client/korvel_rnr.h"
#include "front/session_folder.h"
#include "ipc/endpoint.h"
#include "ipc/frame.h"
#include "ipc/packet.h"

namespace {

using nlohmann::json;

json vectors() {
  std::ifstream file(KORVEL_SOURCE_DIR "/docs/conformance.json");
  return json::parse(file);
}

std::string bytes_of(const json& hex) {
  const std::string digits = hex.get<std::string>();
  std::string bytes;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  return bytes;
}

struct from_string {
  std::string bytes;
  bool read(unsigned char* out, int length) {
    if (bytes.size() < static_cast<std::size_t>(length)) return false;
    bytes.copy(reinterpret_cast<char*>(out), static_cast<std::size_t>(length));
    bytes.erase(0, static_cast<std::size_t>(length));
    return true;
  }
};

TEST(conformance, the_library_writes_the_packets) {
  const json all = vectors();
  for (const json& vector : all.at("requests")) {
    const std::string argument = bytes_of(vector.at("argument_hex"));
    const std::string command = vector.at("command");
    std::string packet(400, '\0');
    packet.resize(korvel_rnr_write_request(packet.data(), packet.size(), argument.data(),
                                           argument.size(), command.c_str()));
    EXPECT_EQ(packet, bytes_of(vector.at("frame_hex")).substr(4)) << vector.at("name");
  }
}

TEST(conformance, the_helper_reads_the_frames) {
  const json all = vectors();
  for (const json& vector : all.at("requests")) {
    from_string connection{bytes_of(vector.at("frame_hex"))};
    std::string packet, command, argument;
    ASSERT_TRUE(ipc_priv::read_frame(connection, packet)) << vector.at("name");
    muro_packet<std::string>::pop(packet, command);
    muro_packet<std::string>::pop(packet, argument);
    EXPECT_EQ(command, vector.at("command"));
    EXPECT_EQ(argument, bytes_of(vector.at("argument_hex")));
    EXPECT_EQ(packet + connection.bytes, "");
  }
}

TEST(conformance, both_find_the_same_ids) {
  const json all = vectors();
  for (const json& vector : all.at("session_ids")) {
    const std::string file = vector.at("restore_file");
    const std::string expected = vector.at("id").is_null() ? "" : vector.at("id");
    std::string id(file.size() + 1, '\0');
    id.resize(korvel_rnr_session_id(id.data(), id.size(), file.c_str()));
    EXPECT_EQ(id, expected) << file;
    const nil_string helpers = restoreIDFromFile(file);
    EXPECT_EQ(namesSession(helpers) ? *helpers : "", expected) << file;
  }
}

TEST(conformance, both_find_the_same_sockets) {
  const json all = vectors();
  for (const json& vector : all.at("endpoints")) {
    const std::string name = vector.at("name");
    char path[KORVEL_RNR_PATH_ROOM];
    korvel_rnr_endpoint_path(path, name.c_str());
    EXPECT_EQ(path, vector.at("path"));
    EXPECT_EQ(ipc_priv::socket_file("/tmp/" + name + ".ipc"), vector.at("path"));
  }
}

TEST(conformance, limits_and_reply_are_the_helpers) {
  EXPECT_EQ(vectors().at("longest_packet"), ipc_priv::kLargestBody);
  EXPECT_EQ(vectors().at("longest_packet"), KORVEL_RNR_LONGEST_PACKET);
  EXPECT_EQ(bytes_of(vectors().at("reply_frame_hex")), std::string(4, '\0'));
}

}  // namespace
