#include "osx/launch_data.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "muro/core/exception.h"
#include "netbuf/netbuf_imp.h"

namespace {

[[maybe_unused]] const bool table_installed = netbuf_imp::install_builtin();

// The 64-bit words of an item as the wire has them, least significant byte first.
std::string words(const std::vector<unsigned long long>& values) {
  std::string bytes;
  for (const unsigned long long value : values) {
    for (int shift = 0; shift < 64; shift += 8) bytes += static_cast<char>(value >> shift & 0xFF);
  }
  return bytes;
}

std::string zeros(std::size_t count) {
  return std::string(count, '\0');
}

netbuf buffer_of(const std::string& bytes) {
  netbuf data;
  data.append(bytes);
  return data;
}

// Chunk memory is recycled in turn. Filling more pieces than the caches of the sizes in question
// hold leaves none that is zero by itself.
void soil_chunk_memory() {
  for (const std::size_t size : {300, 1500}) {
    std::vector<netbuf> soiled(1200);
    for (netbuf& data : soiled) data.append(std::string(size, '\xEE'));
  }
}

}  // namespace

TEST(launch_data, a_head_is_three_little_endian_words) {
  EXPECT_EQ(launch_data::add(0x0102030405060708, 2, 0xFFFFFFFFFFFFFFFF).to_string(),
            "\x08\x07\x06\x05\x04\x03\x02\x01" + words({2}) + std::string(8, '\xFF'));
}

TEST(launch_data, a_boolean_carries_its_value_in_the_second_word) {
  EXPECT_EQ(launch_data::add(6, 0, 1).to_string(), words({6, 0, 1}));
  EXPECT_EQ(launch_data::add(6, 0, 0).to_string(), words({6, 0, 0}));
}

TEST(launch_data, remove_job_is_a_string_of_forty_bytes) {
  EXPECT_EQ(launch_data::add_string("RemoveJob").to_string(),
            words({7, 0, 9}) + "RemoveJob" + zeros(1) + zeros(6));
}

TEST(launch_data, a_string_is_padded_to_eight_with_at_least_one_zero) {
  soil_chunk_memory();
  for (std::size_t length = 0; length < 40; ++length) {
    const std::string text(length, 'x');
    const std::size_t padded = (length + 8) / 8 * 8;
    EXPECT_EQ(launch_data::add_string(text).to_string(),
              words({7, 0, length}) + text + zeros(padded - length));
  }
}

TEST(launch_data, strings_at_the_edges_of_the_padding_have_their_sizes) {
  EXPECT_EQ(launch_data::add_string("").size(), 32);
  EXPECT_EQ(launch_data::add_string("1234567").size(), 32);
  EXPECT_EQ(launch_data::add_string("12345678").size(), 40);
}

TEST(launch_data, a_string_keeps_zero_bytes_of_its_own) {
  const std::string text("a\0b", 3);
  EXPECT_EQ(launch_data::add_string(text).to_string(), words({7, 0, 3}) + text + zeros(5));
}

TEST(launch_data, a_container_has_a_zero_filler_word_for_each_item) {
  soil_chunk_memory();
  const netbuf item = launch_data::add_string("abc");
  EXPECT_EQ(launch_data::add_vect({item, item}, 2).to_string(),
            words({2, 0, 2, 0, 0}) + item.to_string() + item.to_string());
}

TEST(launch_data, two_items_of_32_bytes_make_an_array_of_104) {
  const netbuf item = launch_data::add_string("");
  EXPECT_EQ(launch_data::add_vect({item, item}, 2).size(), 104);
}

TEST(launch_data, a_container_keeps_order_and_type) {
  const netbuf array =
      launch_data::add_vect({launch_data::add(6, 0, 1), launch_data::add(6, 0, 0)}, 77);
  EXPECT_EQ(array.to_string(), words({77, 0, 2, 0, 0, 6, 0, 1, 6, 0, 0}));
}

TEST(launch_data, empty_containers_are_a_head_alone) {
  EXPECT_EQ(launch_data::add_dict({}).to_string(), words({1, 0, 0}));
  EXPECT_EQ(launch_data::add_vect({}, 2).to_string(), words({2, 0, 0}));
}

TEST(launch_data, a_dictionary_counts_keys_and_values_and_sorts_by_bytes) {
  const netbuf yes = launch_data::add(6, 0, 1);
  const netbuf no = launch_data::add(6, 0, 0);
  EXPECT_EQ(launch_data::add_dict({{"b", yes}, {"B", no}, {"\xC3", no}}).to_string(),
            words({1, 0, 6, 0, 0, 0, 0, 0, 0}) + words({7, 0, 1}) + "B" + zeros(7) +
                words({6, 0, 0}) + words({7, 0, 1}) + "b" + zeros(7) + words({6, 0, 1}) +
                words({7, 0, 1}) + "\xC3" + zeros(7) + words({6, 0, 0}));
}

TEST(launch_data, containers_nest_depth_first) {
  const netbuf inner = launch_data::add_dict({{"k", launch_data::add(6, 0, 1)}});
  const std::string key_and_yes = words({7, 0, 1}) + "k" + zeros(7) + words({6, 0, 1});
  EXPECT_EQ(inner.to_string(), words({1, 0, 2, 0, 0}) + key_and_yes);
  EXPECT_EQ(inner.size(), 96);
  EXPECT_EQ(launch_data::add_vect({inner, inner}, 2).to_string(),
            words({2, 0, 2, 0, 0}) + inner.to_string() + inner.to_string());
}

TEST(launch_data, an_item_lies_in_one_piece) {
  const netbuf yes = launch_data::add(6, 0, 1);
  netbuf item = launch_data::add_dict({{"a", launch_data::add_vect({yes, yes}, 2)}, {"b", yes}});
  std::int32_t length = 0;
  netbuf_imp::installed_operations().pull_up(item.object(), 0, &length);
  EXPECT_EQ(length, item.size());
}

TEST(launch_data, values_stay_as_they_were_built) {
  netbuf item = launch_data::add_string("abc");
  const netbuf array = launch_data::add_vect({item}, 2);
  item.erase_front(8);
  EXPECT_EQ(array.to_string(), words({2, 0, 1, 0}) + launch_data::add_string("abc").to_string());
}

TEST(launch_data, pop_takes_the_head_and_leaves_the_rest) {
  netbuf data = buffer_of(words({9, 3, 0xFFFFFFFFFFFFFFFF}) + "rest");
  const launch_data::head head = launch_data::pop(data);
  EXPECT_EQ(head.type, 9u);
  EXPECT_EQ(head.first, 3u);
  EXPECT_EQ(head.second, 0xFFFFFFFFFFFFFFFFu);
  EXPECT_EQ(data.to_string(), "rest");
}

TEST(launch_data, pop_reads_a_head_that_lies_in_two_pieces) {
  netbuf data = buffer_of(words({9, 1, 2}).substr(0, 11));
  data.append(buffer_of(words({9, 1, 2}).substr(11)));
  const launch_data::head head = launch_data::pop(data);
  EXPECT_EQ(head.type + head.first + head.second, 12u);
  EXPECT_EQ(data.size(), 0);
}

TEST(launch_data, pop_throws_on_23_bytes_and_leaves_them) {
  const std::string bytes = words({9, 1, 2}).substr(0, 23);
  netbuf data = buffer_of(bytes);
  try {
    launch_data::pop(data);
    FAIL() << "nothing was thrown";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(), ":Error in 'pop'");
  }
  EXPECT_EQ(data.to_string(), bytes);
}
