/// Texts and messages made while memory runs out: nothing is left half made where that is promised,
/// and the next one is right.

#include <gtest/gtest.h>

#include <cerrno>

#include "ipc/frame.h"
#include "ipc/packet.h"
#include "muro/core/exception.h"
#include "muro/core/fmt.h"
#include "netbuf/netbuf_imp.h"
#include "osx/job_text.h"
#include "osx/launch_data.h"
#include "osx/property_list.h"
#include "osx/xml_writer.h"
#include "tests/faults/failing_memory.h"
#include "tests/netbuf/support.h"

using muro::exception;
using test::expect_survival;
using test::fail_each_allocation;
using test::shortage;

namespace {

/// Longer than what a string holds without an allocation.
const std::string kLong(100, 'x');

/// A stream of bytes in memory, as the frame functions want it.
struct memory_transfer {
  std::string bytes;
  bool read(unsigned char* to, int length) {
    const auto wanted = static_cast<std::size_t>(length);
    if (bytes.size() < wanted) return false;
    bytes.copy(reinterpret_cast<char*>(to), wanted);
    bytes.erase(0, wanted);
    return true;
  }
  bool write(const unsigned char* from, int length) {
    bytes.append(reinterpret_cast<const char*>(from), static_cast<std::size_t>(length));
    return true;
  }
};

}  // namespace

TEST(exhausted_memory, of_a_template_leaves_the_next_one_right) {
  expect_survival({{}, [] { static_cast<void>(muro::stringify(kLong, 1, kLong, true)); }, {}});
  EXPECT_EQ(muro::stringify(kLong, 1), kLong + "1");
}

TEST(exhausted_memory, of_an_exception_keeps_errno) {
  const auto make = [] {
    errno = ENOSPC;
    exception made = exception::system_error_context("caller", "a call", kLong);
    made.stream() << kLong;
    static_cast<void>(exception(made).description());
  };
  expect_survival({{}, make, [] { EXPECT_EQ(errno, ENOSPC); }});
}

TEST(exhausted_memory, of_an_exceptions_detail_keeps_its_text) {
  std::string text;
  const auto add = [&] {
    exception made = exception::function("f");
    made.stream() << kLong;
    text = made.description();
  };
  expect_survival({[&] { text = ":Error in 'f'"; }, add,
                   [&] { EXPECT_EQ(text.substr(0, 13), ":Error in 'f'"); }});
  EXPECT_EQ(text, ":Error in 'f'" + kLong);
}

TEST(exhausted_memory, is_not_felt_by_a_packets_number) {
  std::string packet = kLong;
  muro_packet<unsigned long>::push(packet, 7);
  std::string work;
  unsigned long value = 0;
  EXPECT_EQ(
      fail_each_allocation(
          shortage::once,
          {[&] { work = packet; }, [&] { muro_packet<unsigned long>::pop(work, value); }, {}}),
      0);
  EXPECT_EQ(value, 7U);
}

TEST(exhausted_memory, of_a_packets_string_leaves_the_value) {
  std::string packet;
  muro_packet<std::string>::push(packet, kLong);
  std::string work;
  std::string value;
  const auto prepare = [&] {
    work = packet;
    value = "before";
    value.shrink_to_fit();
  };
  expect_survival({prepare, [&] { muro_packet<std::string>::pop(work, value); },
                   [&] { EXPECT_EQ(value, "before"); }});
  EXPECT_EQ(value, kLong);
}

TEST(exhausted_memory, of_a_frame_leaves_it_to_be_read_again) {
  memory_transfer wire;
  ASSERT_TRUE(ipc_priv::write_frame(wire, kLong));
  memory_transfer copy;
  std::string body;
  const auto prepare = [&] {
    copy = wire;
    std::string().swap(body);
  };
  expect_survival(
      {prepare, [&] { ipc_priv::read_frame(copy, body); }, [&] { EXPECT_EQ(body, ""); }});
  EXPECT_EQ(body, kLong);
}

TEST(exhausted_memory, of_a_frames_writing_leaves_the_body) {
  const std::string body = kLong;
  memory_transfer wire;
  expect_survival(
      {[&] { std::string().swap(wire.bytes); }, [&] { ipc_priv::write_frame(wire, body); }, {}});
  EXPECT_EQ(wire.bytes.substr(4), body);
}

TEST(exhausted_memory, of_a_property_list_gives_none) {
  const auto make = [] {
    return muro::get_plist({muro::plist_elem("Label", kLong + "<&>"), muro::plist_elem("On", true),
                            muro::plist_elem("Words", std::vector<std::string>{kLong, "b"})});
  };
  std::string made;
  expect_survival({[&] { made.clear(); }, [&] { made = make(); }, [&] { EXPECT_EQ(made, ""); }});
  EXPECT_EQ(made, make());
}

TEST(exhausted_memory, of_a_job_file_gives_none) {
  const auto make = [] { return osx::launchd_agent_text("l", {kLong, std::string(2000, '&')}); };
  std::string made;
  expect_survival({[&] { made.clear(); }, [&] { made = make(); }, [&] { EXPECT_EQ(made, ""); }});
  EXPECT_EQ(made, make());
}

TEST(exhausted_memory, of_xml_text_leaves_what_was_written) {
  std::string out;
  const auto write = [&] {
    muro::xml_write_string xml(&out);
    xml.xml_sax_text(kLong + "<");
  };
  expect_survival({[&] {
                     out = "<a>";
                     out.shrink_to_fit();
                   },
                   write, [&] { EXPECT_EQ(out.substr(0, 3), "<a>"); }});
  EXPECT_EQ(out, "<a>" + kLong + "&lt;");
}

class exhausted_memory_at_launchd : public test::with_builtin {};

TEST_F(exhausted_memory_at_launchd, gives_no_message) {
  const auto make = [] {
    const netbuf text = launch_data::add_string(kLong);
    return launch_data::add_dict(
        {{"Label", text}, {"Words", launch_data::add_vect({text, text}, launch_data::kArray)}});
  };
  netbuf made;
  expect_survival(
      {[&] { made = netbuf(); }, [&] { made = make(); }, [&] { EXPECT_EQ(made.size(), 0); }});
  EXPECT_EQ(test::content(made), test::content(make()));
}

TEST_F(exhausted_memory_at_launchd, leaves_the_reply) {
  const netbuf whole = launch_data::add(launch_data::kErrorNumber, 5, 0);
  netbuf reply;  // in more pieces than a buffer has room for in itself
  for (std::int32_t at = 0; at < whole.size(); at += 4) reply.append(netbuf(whole, at, 4));
  const std::string before = test::content(reply);
  netbuf work;
  const auto take = [&] {
    work = reply;
    launch_data::pop(work);
  };
  expect_survival(
      {[&] { work = netbuf(); }, take, [&] { EXPECT_EQ(test::content(reply), before); }});
  EXPECT_EQ(work.size(), 0);
}
