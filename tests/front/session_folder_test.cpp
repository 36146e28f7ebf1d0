#include "front/session_folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/front/mac.h"
#include "tests/support/root_users.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using session_folder = test::mac;

// Every ID that names no session, however it came about.
const std::vector<nil_string> kNoSessions = {
    std::nullopt, "", ".", "..", "/", "a/b", "../x", "/etc", std::string("a\0b", 3)};

TEST(namesSession, takes_an_ordinary_id) {
  for (const char* id : {"abc", "test1245", "a.b", "...", ".a", "-x", " ", "\xC3\xA4", "a\\b"})
    EXPECT_TRUE(namesSession(id)) << id;
}

TEST(namesSession, refuses_what_leads_elsewhere) {
  for (const nil_string& id : kNoSessions) EXPECT_FALSE(namesSession(id)) << id.value_or("nil");
}

TEST(restoreIDFromFile, is_the_base_name_without_dat) {
  EXPECT_EQ(restoreIDFromFile("/tmp/test1245.dat"), "test1245");
  EXPECT_EQ(restoreIDFromFile("abc.dat"), "abc");
  EXPECT_EQ(restoreIDFromFile("a\\b.dat"), "b");
}

TEST(restoreIDFromFile, is_nil_without_dat_at_the_end) {
  for (const char* path : {"", "/tmp/abc", "/tmp/abc.txt", "/tmp/abc.dat/", "/tmp/abc.dat.txt",
                           "/tmp/abc.DAT", "/tmp/abc.dat ", "dat"})
    EXPECT_EQ(restoreIDFromFile(path), std::nullopt) << path;
}

TEST(restoreIDFromFile, of_nil_is_nil) {
  EXPECT_EQ(restoreIDFromFile(std::nullopt), std::nullopt);
}

TEST(restoreIDFromFile, removes_every_dat_of_the_base_name) {
  EXPECT_EQ(restoreIDFromFile("/tmp/a.dat.dat"), "a");
  EXPECT_EQ(restoreIDFromFile("/tmp/x.datum.dat"), "xum");
  EXPECT_EQ(restoreIDFromFile("/tmp.dat/a.dat"), "a");
}

TEST(restoreIDFromFile, may_give_what_names_no_session) {
  EXPECT_EQ(restoreIDFromFile("/tmp/.dat"), "");
  EXPECT_EQ(restoreIDFromFile("/tmp/..dat"), ".");
  EXPECT_EQ(restoreIDFromFile("/tmp/...dat"), "..");
}

TEST_F(session_folder, createFolder_makes_it_with_its_mode_whatever_the_umask) {
  const mode_t old = ::umask(077);
  EXPECT_TRUE(createFolder("/opt/a/b", 0777));
  ::umask(old);
  EXPECT_EQ(test::mode_of("/opt/a/b"), 0777U);
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(session_folder, createFolder_twice_is_true_twice) {
  EXPECT_TRUE(createFolder("/opt/a", 0750));
  EXPECT_TRUE(createFolder("/opt/a", 0777));
  EXPECT_EQ(test::mode_of("/opt/a"), 0750U);
}

TEST_F(session_folder, createFolder_tells_why_it_failed) {
  test::make_file("/opt/file");
  EXPECT_FALSE(createFolder("/opt/file/a", 0777));
  EXPECT_THAT(test::log_lines(),
              ElementsAre("createFolder: Failed to create directory: File exists"));
}

TEST_F(session_folder, createFolder_of_nil_fails) {
  EXPECT_FALSE(createFolder(std::nullopt, 0777));
  EXPECT_THAT(test::log_lines(), ElementsAre("createFolder: Failed to create directory: (null)"));
}

TEST_F(session_folder, restore_file_moves_into_an_open_session_folder) {
  test::make_file("/tmp/abc.dat", "state");
  fs::permissions("/tmp/abc.dat", fs::perms(0640));
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"),
            "/Library/VeskRuntime/sessions/abc/abc.dat");
  EXPECT_FALSE(test::exists("/tmp/abc.dat"));
  EXPECT_EQ(test::content_of("/Library/VeskRuntime/sessions/abc/abc.dat"), "state");
  EXPECT_EQ(test::mode_of("/Library/VeskRuntime/sessions/abc/abc.dat"), 0640U);
  EXPECT_EQ(test::mode_of("/Library/VeskRuntime/sessions/abc"), 0777U);
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(session_folder, restore_file_takes_the_name_of_the_id) {
  test::make_file("/tmp/a.dat.dat");
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/a.dat.dat", "a"),
            "/Library/VeskRuntime/sessions/a/a.dat");
}

TEST_F(session_folder, missing_restore_file_is_nil_and_makes_no_folder) {
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveRestoreFileIfNeeded: Restore file does not exist: /tmp/abc.dat"));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
}

TEST_F(session_folder, nil_restore_file_is_nil) {
  EXPECT_EQ(moveRestoreFileIfNeeded(std::nullopt, "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveRestoreFileIfNeeded: Restore file does not exist: (null)"));
}

TEST_F(session_folder, restore_file_with_a_zero_byte_moves_nothing_else) {
  test::make_file("/tmp/shadow");
  const std::string odd = std::string("/tmp/shadow\0/abc.dat", 20);
  EXPECT_EQ(moveRestoreFileIfNeeded(odd, "abc"), std::nullopt);
  EXPECT_TRUE(test::exists("/tmp/shadow"));
}

TEST_F(session_folder, file_in_the_way_of_the_session_folder_is_nil) {
  test::make_file("/tmp/abc.dat");
  test::make_file("/Library/VeskRuntime/sessions");
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("createFolder: Failed to create directory: File exists",
                          "moveRestoreFileIfNeeded: Failed to create session folder"));
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
}

TEST_F(session_folder, restore_file_of_the_same_session_is_never_replaced) {
  test::make_file(test::session_file("abc"), "old");
  test::make_file("/tmp/abc.dat", "new");
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveRestoreFileIfNeeded: Failed to move file: File exists"));
  EXPECT_EQ(test::content_of(test::session_file("abc")), "old");
  EXPECT_EQ(test::content_of("/tmp/abc.dat"), "new");
}

TEST_F(session_folder, restore_file_that_is_in_place_does_not_move_again) {
  test::make_file(test::session_file("abc"), "kept");
  EXPECT_EQ(moveRestoreFileIfNeeded(test::session_file("abc"), "abc"), std::nullopt);
  EXPECT_EQ(test::content_of(test::session_file("abc")), "kept");
}

TEST_F(session_folder, restore_file_on_another_file_system_stays) {
  test::make_file("/dev/shm/abc.dat");
  EXPECT_EQ(moveRestoreFileIfNeeded("/proc/self/status", "abc"), std::nullopt);
  EXPECT_THAT(
      test::log_lines(),
      ElementsAre("moveRestoreFileIfNeeded: Failed to move file: Invalid cross-device link"));
  test::remove_tree("/dev/shm/abc.dat");
}

TEST_F(session_folder, restore_file_moves_nowhere_for_an_id_that_names_no_session) {
  test::make_file("/tmp/.dat");
  for (const nil_string& id : kNoSessions)
    EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/.dat", id), std::nullopt);
  EXPECT_EQ(test::log_of("moveRestoreFileIfNeeded"),
            test::lines(kNoSessions.size(), "Failed to create session folder"));
  EXPECT_TRUE(test::exists("/tmp/.dat"));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
}

TEST_F(session_folder, folders_above_a_session_are_roots_and_closed_to_others_writing) {
  test::make_file("/tmp/abc.dat");
  const mode_t old = ::umask(0);
  EXPECT_TRUE(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"));
  ::umask(old);
  for (const char* folder : {"/Library/VeskRuntime", "/Library/VeskRuntime/sessions"}) {
    EXPECT_EQ(test::mode_of(folder), 0755U) << folder;
    EXPECT_EQ(test::status_of(folder).st_uid, 0U) << folder;
  }
}

// What a path can name beside a file: each is moved as it is, none is opened.

TEST_F(session_folder, restore_file_that_is_a_folder_moves_as_a_folder) {
  test::make_file("/tmp/abc.dat/inside", "kept");
  EXPECT_TRUE(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"));
  EXPECT_EQ(test::content_of(test::session_file("abc") + "/inside"), "kept");
}

TEST_F(session_folder, restore_file_that_is_a_link_moves_as_a_link) {
  test::make_file("/opt/victim", "kept");
  fs::create_symlink("/opt/victim", "/tmp/abc.dat");
  EXPECT_TRUE(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"));
  EXPECT_EQ(fs::read_symlink(test::session_file("abc")), "/opt/victim");
  EXPECT_EQ(test::content_of("/opt/victim"), "kept");
}

TEST_F(session_folder, restore_file_that_is_a_link_to_nowhere_does_not_exist) {
  fs::create_symlink("nowhere", "/tmp/abc.dat");
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"), std::nullopt);
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
}

TEST_F(session_folder, restore_file_that_is_a_pipe_moves_without_blocking) {
  ASSERT_EQ(::mkfifo("/tmp/abc.dat", 0600), 0);
  EXPECT_TRUE(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"));
  EXPECT_TRUE(fs::is_fifo(test::session_file("abc")));
}

TEST_F(session_folder, restore_file_that_is_a_device_elsewhere_stays) {
  EXPECT_EQ(moveRestoreFileIfNeeded("/dev/null", "abc"), std::nullopt);
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

TEST_F(session_folder, link_to_nowhere_in_place_of_the_moved_file_is_never_replaced) {
  test::make_file("/tmp/abc.dat");
  fs::create_directories("/Library/VeskRuntime/sessions/abc");
  fs::create_symlink("nowhere", test::session_file("abc"));
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveRestoreFileIfNeeded: Failed to move file: File exists"));
  EXPECT_TRUE(test::exists("/tmp/abc.dat"));
}

TEST_F(session_folder, every_byte_value_in_an_id_gives_its_own_folder_or_none) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string id = "a" + std::string(1, static_cast<char>(byte)) + "b";
    const bool is_name = byte != 0 && byte != '/';
    const std::string file = is_name ? "/tmp/" + id + ".dat" : "/tmp/plain.dat";
    test::make_file(file);
    EXPECT_EQ(moveRestoreFileIfNeeded(file, id).has_value(), is_name) << byte;
    EXPECT_EQ(fs::exists(file), !is_name) << byte;
    EXPECT_EQ(is_name && fs::is_regular_file(test::session_file(id)), is_name) << byte;
  }
  test::remove_tree("/tmp/plain.dat");
  EXPECT_EQ(std::distance(fs::directory_iterator("/Library/VeskRuntime/sessions"), {}), 254);
}

// Everyone may write to a session's folder, so what lies in it may lead anywhere.

TEST_F(session_folder, restore_file_does_not_move_through_a_link_in_place_of_the_folder) {
  test::make_file("/tmp/abc.dat");
  fs::create_directories("/Library/VeskRuntime/sessions");
  fs::permissions("/Library/VeskRuntime/sessions", fs::perms::all);
  fs::create_directories("/opt/victim");
  fs::create_directory_symlink("/opt/victim", "/Library/VeskRuntime/sessions/abc");
  EXPECT_EQ(moveRestoreFileIfNeeded("/tmp/abc.dat", "abc"), std::nullopt);
  EXPECT_TRUE(fs::is_empty("/opt/victim"));
  EXPECT_THAT(test::log_of("moveRestoreFileIfNeeded"),
              ElementsAre("Failed to create session folder"));
}

TEST_F(session_folder, helper_and_bundle_do_not_go_through_links_in_the_session_folder) {
  test::install_client();
  test::make_file("/opt/helper", "program");
  test::make_file("/opt/victim/kept");
  fs::create_directories("/Library/VeskRuntime/sessions/abc");
  fs::permissions("/Library/VeskRuntime/sessions/abc", fs::perms::all);
  for (const char* below : {"helper", "app"})
    fs::create_directory_symlink("/opt/victim",
                                 std::string("/Library/VeskRuntime/sessions/abc/") + below);
  EXPECT_EQ(moveHelper("/opt/helper", "abc"), std::nullopt);
  EXPECT_EQ(moveAppBundle(test::kClientBundle, "abc"), std::nullopt);
  EXPECT_THAT(test::tree("/opt/victim"), ElementsAre("kept"));
  EXPECT_TRUE(test::exists("/opt/helper"));
  EXPECT_THAT(test::log_of("createFolder"),
              ElementsAre("Failed to create directory: Too many levels of symbolic links",
                          "Failed to create directory: Too many levels of symbolic links"));
}

TEST_F(session_folder, helper_moves_and_becomes_executable) {
  test::make_file("/opt/helper", "program");
  fs::permissions("/opt/helper", fs::perms(0644));
  EXPECT_EQ(moveHelper("/opt/helper", "abc"),
            "/Library/VeskRuntime/sessions/abc/helper/KorvelHelper");
  EXPECT_FALSE(test::exists("/opt/helper"));
  EXPECT_EQ(test::content_of("/Library/VeskRuntime/sessions/abc/helper/KorvelHelper"), "program");
  EXPECT_EQ(test::mode_of("/Library/VeskRuntime/sessions/abc/helper/KorvelHelper"), 0755U);
  EXPECT_EQ(test::mode_of("/Library/VeskRuntime/sessions/abc/helper"), 0777U);
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(session_folder, missing_helper_is_nil) {
  EXPECT_EQ(moveHelper("/opt/helper", "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(), ElementsAre("moveHelper: Helper file /opt/helper does not exist"));
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
}

TEST_F(session_folder, file_in_the_way_of_the_helper_folder_is_nil) {
  test::make_file("/opt/helper");
  test::make_file("/Library/VeskRuntime/sessions/abc/helper");
  EXPECT_EQ(moveHelper("/opt/helper", "abc"), std::nullopt);
  EXPECT_THAT(test::log_of("moveHelper"), ElementsAre("Failed to create helper folder"));
}

TEST_F(session_folder, helper_copy_in_place_is_never_replaced) {
  test::make_file("/opt/helper", "new");
  test::make_file("/Library/VeskRuntime/sessions/abc/helper/KorvelHelper", "old");
  EXPECT_EQ(moveHelper("/opt/helper", "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveHelper: Failed to move file to "
                          "/Library/VeskRuntime/sessions/abc/helper/KorvelHelper: File exists"));
  EXPECT_EQ(test::content_of("/opt/helper"), "new");
}

TEST_F(session_folder, helper_moves_nowhere_for_an_id_that_names_no_session) {
  test::make_file("/opt/helper");
  for (const nil_string& id : kNoSessions) EXPECT_EQ(moveHelper("/opt/helper", id), std::nullopt);
  EXPECT_EQ(test::log_of("moveHelper"),
            test::lines(kNoSessions.size(), "Failed to create helper folder"));
  EXPECT_TRUE(test::exists("/opt/helper"));
}

TEST_F(session_folder, bundle_is_copied_and_every_item_opened_to_all) {
  KORVEL_NEEDS_USERS();
  test::install_client();
  const std::string copy = "/Library/VeskRuntime/sessions/abc/app/Korvel.app";
  EXPECT_EQ(moveAppBundle(test::kClientBundle, "abc"), copy);
  EXPECT_EQ(test::tree(copy), test::tree(test::kClientBundle));
  EXPECT_EQ(test::content_of(copy + "/Contents/MacOS/korvel"), "client");
  test::lines items = test::tree(copy);
  items.push_back("");
  for (const std::string& item : items) {
    const struct stat status = test::status_of(copy + "/" + item);
    EXPECT_EQ(status.st_mode & 07777, 0777U) << item;
    EXPECT_EQ(status.st_uid, 0U) << item;
    EXPECT_EQ(status.st_gid, 80U) << item;
  }
  EXPECT_EQ(test::mode_of("/Library/VeskRuntime/sessions/abc/app"), 0777U);
  EXPECT_THAT(test::log_lines(), IsEmpty());
}

TEST_F(session_folder, bundle_named_with_a_slash_keeps_its_name) {
  test::install_client();
  EXPECT_EQ(moveAppBundle("/Applications/Korvel.app/", "abc"),
            "/Library/VeskRuntime/sessions/abc/app/Korvel.app");
}

TEST_F(session_folder, missing_bundle_is_nil) {
  EXPECT_EQ(moveAppBundle(test::kClientBundle, "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveAppBundle: Failed to move bundle: No such file or directory"));
}

TEST_F(session_folder, bundle_copy_in_place_is_never_replaced) {
  test::install_client();
  test::make_file("/Library/VeskRuntime/sessions/abc/app/Korvel.app/old");
  EXPECT_EQ(moveAppBundle(test::kClientBundle, "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(), ElementsAre("moveAppBundle: Failed to move bundle: File exists"));
  EXPECT_THAT(test::tree("/Library/VeskRuntime/sessions/abc/app/Korvel.app"), ElementsAre("old"));
}

TEST_F(session_folder, bundle_copy_is_tried_even_without_its_folder) {
  test::install_client();
  test::make_file("/Library/VeskRuntime/sessions/abc/app");
  EXPECT_EQ(moveAppBundle(test::kClientBundle, "abc"), std::nullopt);
  EXPECT_THAT(test::log_of("moveAppBundle"), ElementsAre("Failed to create bundle folder",
                                                         "Failed to move bundle: Not a directory"));
}

TEST_F(session_folder, nil_bundle_is_nil) {
  EXPECT_EQ(moveAppBundle(std::nullopt, "abc"), std::nullopt);
  EXPECT_THAT(test::log_lines(), ElementsAre("moveAppBundle: Failed to move bundle: (null)"));
}

TEST_F(session_folder, nameless_bundles_are_nil) {
  for (const char* bundle : {"", "/", ".", ".."})
    EXPECT_EQ(moveAppBundle(bundle, "abc"), std::nullopt) << bundle;
}

TEST_F(session_folder, bundle_is_copied_nowhere_for_an_id_that_names_no_session) {
  test::install_client();
  for (const nil_string& id : kNoSessions)
    EXPECT_EQ(moveAppBundle(test::kClientBundle, id), std::nullopt);
  EXPECT_EQ(test::log_of("moveAppBundle").size(), 2 * kNoSessions.size());
  EXPECT_EQ(test::log_of("moveAppBundle")[1], "Failed to move bundle: (null)");
  EXPECT_FALSE(test::exists("/Library/VeskRuntime"));
}

TEST_F(session_folder, one_item_without_attributes_does_not_stop_the_others) {
  KORVEL_NEEDS_USERS();
  test::install_client();
  fs::create_symlink("nowhere", std::string(test::kClientBundle) + "/Contents/MacOS/link");
  const nil_string copy = moveAppBundle(test::kClientBundle, "abc");
  ASSERT_TRUE(copy);
  EXPECT_THAT(test::log_lines(), ElementsAre("moveAppBundle: failed to set permissions for "
                                             "Contents/MacOS/link:::No such file or directory"));
  EXPECT_EQ(test::mode_of(*copy + "/Contents/MacOS/korvel"), 0777U);
  EXPECT_EQ(test::mode_of(*copy + "/Contents/Resources/en.lproj/texts"), 0777U);
}

TEST_F(session_folder, failure_that_the_system_does_not_explain_is_unknown) {
  test::make_file("/Applications/Korvel.app/item");
  const std::string groups = test::content_of("/etc/group");
  test::make_file("/etc/group", "wheel:*:0:root\n");
  EXPECT_TRUE(moveAppBundle(test::kClientBundle, "abc"));
  test::make_file("/etc/group", groups);
  EXPECT_THAT(test::log_lines(),
              ElementsAre("moveAppBundle: failed to set permission (null)",
                          "moveAppBundle: failed to set permissions for item:::Unknown error"));
}

}  // namespace
