#include "osx/plist_document.h"

#include <gtest/gtest.h>

#include "osx/job_text.h"
#include "osx/property_list.h"

namespace {

using muro::plist_document;
using muro::plist_elem;
using strings = std::vector<std::string>;

}  // namespace

TEST(plist_document, of_nothing_is_the_head_and_the_end) {
  EXPECT_EQ(plist_document().finish(), muro::get_plist({}));
}

TEST(plist_document, has_the_text_of_the_same_elements) {
  const strings items{"one", "", "<&>\x01"};
  plist_document document;
  document.add_string("Quoted <key>", "a<b&c>\"d'");
  document.add_bool("Yes", true);
  document.add_bool("No", false);
  document.add_strings("Items", items);
  document.add_strings("None", strings{});
  EXPECT_EQ(document.finish(),
            muro::get_plist({plist_elem("Quoted <key>", "a<b&c>\"d'"), plist_elem("Yes", true),
                             plist_elem("No", false), plist_elem("Items", items),
                             plist_elem("None", strings{})}));
}

TEST(plist_document, takes_the_items_of_an_array_from_a_braced_list_too) {
  plist_document document;
  document.add_strings("Items", {"a", "<"});
  EXPECT_EQ(document.finish(), muro::get_plist({plist_elem("Items", strings{"a", "<"})}));
}

TEST(plist_document, of_any_length_is_written_whole) {
  for (std::size_t length = 0; length < 1200; ++length) {
    const std::string value(length, 'x');
    plist_document document;
    document.add_string("k", value);
    document.add_bool("b", true);
    ASSERT_EQ(document.finish(), muro::get_plist({plist_elem("k", value), plist_elem("b", true)}));
  }
}

TEST(job_text, of_an_agent_names_both_kinds_of_session_and_keeps_it_alive) {
  EXPECT_EQ(osx::launchd_agent_text("l&l", {"/a", "b"}),
            muro::get_plist({plist_elem("Label", "l&l"),
                             plist_elem("LimitLoadToSessionType", strings{"Aqua", "LoginWindow"}),
                             plist_elem("ProgramArguments", strings{"/a", "b"}),
                             plist_elem("KeepAlive", true), plist_elem("RunAtLoad", true)}));
}

TEST(job_text, of_a_daemon_keeps_it_running_by_the_older_key) {
  EXPECT_EQ(osx::launchd_daemon_text("l&l", {"/a", "b"}),
            muro::get_plist({plist_elem("Label", "l&l"),
                             plist_elem("ProgramArguments", strings{"/a", "b"}),
                             plist_elem("RunAtLoad", true), plist_elem("OnDemand", false)}));
}
