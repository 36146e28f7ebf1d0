#include "osx/os_version.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string numbers(const muro::os_release& release) {
  return std::to_string(release.major) + "." + std::to_string(release.minor) + "." +
         std::to_string(release.bugfix);
}

bool answers_all(std::uint32_t selector, int& value) {
  switch (selector) {
    case 0x73797331:  // 'sys1'
      value = 11;
      return true;
    case 0x73797332:  // 'sys2'
      value = 22;
      return true;
    case 0x73797333:  // 'sys3'
      value = 33;
      return true;
    default:
      return false;
  }
}

bool answers_minor(std::uint32_t selector, int& value) {
  if (selector != 0x73797332) return false;
  value = 6;
  return true;
}

bool answers_none(std::uint32_t, int&) {
  return false;
}

}  // namespace

TEST(os_release, a_text_comes_before_the_selectors) {
  EXPECT_EQ(numbers(muro::os_release_of("10.9.5", answers_all)), "10.9.5");
}

TEST(os_release, a_text_without_numbers_is_a_text_all_the_same) {
  EXPECT_EQ(numbers(muro::os_release_of("x", answers_all)), "0.0.0");
}

TEST(os_release, without_a_text_each_selector_tells_one_number) {
  EXPECT_EQ(numbers(muro::os_release_of(std::nullopt, answers_all)), "11.22.33");
  EXPECT_EQ(numbers(muro::os_release_of("", answers_all)), "11.22.33");
}

TEST(os_release, a_selector_without_an_answer_leaves_the_oldest_release) {
  EXPECT_EQ(numbers(muro::os_release_of(std::nullopt, answers_minor)), "10.6.0");
  EXPECT_EQ(numbers(muro::os_release_of(std::nullopt, answers_none)), "10.4.0");
}
