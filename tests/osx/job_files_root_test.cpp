#include "osx/job_files.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "muro/core/exception.h"
#include "netbuf/netbuf_imp.h"
#include "tests/osx/mac.h"
#include "tests/osx/run_tool.h"
#include "tests/osx/system_calls.h"

namespace {

using test::lines;

[[maybe_unused]] const bool table_installed = netbuf_imp::install_builtin();

constexpr char kLabel[] = "com.example.job";
constexpr char kAgentPath[] = "/Library/LaunchAgents/com.example.job.plist";
constexpr char kDaemonPath[] = "/Library/LaunchDaemons/com.example.job.plist";

constexpr char kHead[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "<key>Label</key>\n"
    "<string>com.example.job</string>\n";
constexpr char kSessions[] =
    "<key>LimitLoadToSessionType</key>\n"
    "<array>\n"
    "\t<string>Aqua</string>\n"
    "\t<string>LoginWindow</string>\n"
    "</array>\n";
constexpr char kArguments[] =
    "<key>ProgramArguments</key>\n"
    "<array>\n"
    "\t<string>a</string>\n"
    "\t<string>b</string>\n"
    "</array>\n";
constexpr char kAgentEnd[] =
    "<key>KeepAlive</key>\n"
    "<true/>\n"
    "<key>RunAtLoad</key>\n"
    "<true/>\n"
    "</dict>\n"
    "</plist>";
constexpr char kDaemonEnd[] =
    "<key>RunAtLoad</key>\n"
    "<true/>\n"
    "<key>OnDemand</key>\n"
    "<false/>\n"
    "</dict>\n"
    "</plist>";

struct rights {
  mode_t mode;
  uid_t owner;
  gid_t group;
  bool operator==(const rights&) const = default;
};

rights rights_of(const std::string& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return {info.st_mode & 07777, info.st_uid, info.st_gid};
}

void PrintTo(const rights& r, std::ostream* out) {
  *out << std::oct << r.mode << std::dec << " " << r.owner << ":" << r.group;
}

// Lets no file grow, so that whatever is written fails half way.
class full_disk {
 public:
  full_disk() {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit none{0, before_.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &none);
  }
  ~full_disk() { ::setrlimit(RLIMIT_FSIZE, &before_); }
  full_disk(const full_disk&) = delete;
  full_disk& operator=(const full_disk&) = delete;

 private:
  rlimit before_{};
};

/// A disk of a few pages at `folder`.
class small_disk {
 public:
  explicit small_disk(const char* folder) : folder_(folder) {
    EXPECT_EQ(::mount("tmpfs", folder, "tmpfs", 0, "size=16k"), 0);
  }
  ~small_disk() { ::umount2(folder_, MNT_DETACH); }
  small_disk(const small_disk&) = delete;
  small_disk& operator=(const small_disk&) = delete;

 private:
  const char* folder_;
};

lines entries(const std::string& folder) {
  lines names;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    names.push_back(entry.path().filename());
  return names;
}

std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const muro::exception& e) {
    return e.description();
  }
  return "nothing was thrown";
}

class with_umask {
 public:
  explicit with_umask(mode_t mask) : before_(::umask(mask)) {}
  ~with_umask() { ::umask(before_); }
  with_umask(const with_umask&) = delete;
  with_umask& operator=(const with_umask&) = delete;

 private:
  mode_t before_;
};

class job_files : public test::mac {
 protected:
  void SetUp() override {
    mac::SetUp();
    record("/bin/launchctl");
    record("/bin/rm", "exec /usr/bin/rm \"$@\"");
  }

  void use_old_release() {
    set_release("10.9.5");
    ASSERT_EQ(::chown("/dev/console", 0, 0), 0);
  }

  // What `read` finds, in a form that does not depend on the writer.
  static std::string read_with(const std::string& read, const std::string& path) {
    return test::run_tool(read, test::read_file(path)).output;
  }
};

const rights kJobFile{0644, 0, 0};
const lines kArgs{"a", "b"};

}  // namespace

TEST_F(job_files, are_named_after_their_label) {
  EXPECT_EQ(osx::launchd_agent_path(kLabel), kAgentPath);
  EXPECT_EQ(osx::launchd_daemon_path(kLabel), kDaemonPath);
  EXPECT_EQ(osx::launchd_agent_path("../a b"), "/Library/LaunchAgents/../a b.plist");
}

TEST_F(job_files, an_agents_file_is_written_byte_for_byte) {
  EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_EQ(test::read_file(kAgentPath), std::string(kHead) + kSessions + kArguments + kAgentEnd);
  EXPECT_EQ(rights_of(kAgentPath), kJobFile);
}

TEST_F(job_files, writing_an_agents_file_starts_nothing) {
  add_login(321, "alice");
  osx::launchd_agent_install_only(kLabel, kArgs);
  EXPECT_EQ(done(),
            (lines{"log launchd_agent_install_only: writing pinfo: " + std::string(kAgentPath)}));
}

TEST_F(job_files, a_daemons_file_is_written_byte_for_byte) {
  osx::launchd_daemon_install(kLabel, kArgs);
  EXPECT_EQ(test::read_file(kDaemonPath), std::string(kHead) + kArguments + kDaemonEnd);
  EXPECT_EQ(rights_of(kDaemonPath), kJobFile);
}

TEST_F(job_files, readers_of_property_lists_agree_on_a_job) {
  osx::launchd_agent_install_only("a&b", {"/x y/<z>", "\xC3\xA9"});
  const std::string path = "/Library/LaunchAgents/a&b.plist";
  const std::string dump =
      "/usr/bin/python3 -c 'import plistlib, sys; "
      "print(ascii(plistlib.load(open(sys.argv[1], \"rb\"))))' ";
  const std::string expected =
      "{'Label': 'a&b', 'LimitLoadToSessionType': ['Aqua', 'LoginWindow'], "
      "'ProgramArguments': ['/x y/<z>', '\\xe9'], 'KeepAlive': True, 'RunAtLoad': True}\n";
  EXPECT_EQ(read_with(dump + "@", path), expected);
  EXPECT_EQ(read_with("plistutil -i @ -f bin -o @.bin && " + dump + "@.bin", path), expected);
  EXPECT_EQ(read_with("xmllint --nonet --noout @", path), "");
}

TEST_F(job_files, an_existing_file_is_replaced_with_its_rights) {
  test::write_file(kAgentPath, std::string(5000, 'x'));
  ASSERT_EQ(::chmod(kAgentPath, 0666), 0);
  EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_EQ(test::read_file(kAgentPath), std::string(kHead) + kSessions + kArguments + kAgentEnd);
  EXPECT_EQ(rights_of(kAgentPath), kJobFile);
}

TEST_F(job_files, a_file_of_another_owner_becomes_roots) {
  REQUIRE_USERS();
  test::write_file(kDaemonPath, "");
  ASSERT_EQ(::chown(kDaemonPath, 501, 20), 0);
  osx::launchd_daemon_install(kLabel, kArgs);
  EXPECT_EQ(rights_of(kDaemonPath), kJobFile);
}

TEST_F(job_files, the_mode_does_not_depend_on_the_umask) {
  for (const mode_t mask : {0000, 0077, 0777}) {
    const with_umask masked(mask);
    EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
    EXPECT_EQ(rights_of(kAgentPath), kJobFile) << mask;
    std::filesystem::remove(kAgentPath);
  }
}

TEST_F(job_files, a_full_disk_leaves_no_file) {
  const full_disk full;
  EXPECT_FALSE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_TRUE(std::filesystem::is_empty("/Library/LaunchAgents"));
}

TEST_F(job_files, a_full_disk_leaves_an_old_file_as_it_was) {
  test::write_file(kAgentPath, "old");
  const full_disk full;
  EXPECT_FALSE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_EQ(test::read_file(kAgentPath), "old");
  EXPECT_EQ(entries("/Library/LaunchAgents"), lines{"com.example.job.plist"});
}

TEST_F(job_files, a_daemons_file_on_a_full_disk_throws_and_loads_nothing) {
  const full_disk full;
  EXPECT_EQ(failure_of([] { osx::launchd_daemon_install(kLabel, kArgs); }),
            "27 (File too large) function=fwrite file=" + std::string(kDaemonPath));
  EXPECT_TRUE(std::filesystem::is_empty("/Library/LaunchDaemons"));
  EXPECT_EQ(done("run"), lines{});
}

// A disk on which a part of the file has room: what is written first goes again.
TEST_F(job_files, a_disk_that_fills_half_way_leaves_no_file) {
  const small_disk disk("/Library/LaunchAgents");
  const lines many(2000, "an argument");
  EXPECT_FALSE(osx::launchd_agent_install_only(kLabel, many));
  EXPECT_TRUE(std::filesystem::is_empty("/Library/LaunchAgents"));
  EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
}

TEST_F(job_files, a_folder_that_takes_no_file_is_told_by_the_job_files_name) {
  std::filesystem::remove("/Library/LaunchDaemons");
  EXPECT_EQ(failure_of([] { osx::launchd_daemon_install(kLabel, kArgs); }),
            "2 (No such file or directory) function=fopen file=" + std::string(kDaemonPath));
  std::filesystem::create_directory("/Library/LaunchDaemons");
}

TEST_F(job_files, a_failed_close_leaves_no_file) {
  test::system_calls calls;
  test::watched = &calls;
  calls.close_error = EIO;
  const std::string failure = failure_of([] { osx::launchd_daemon_install(kLabel, kArgs); });
  test::watched = nullptr;
  EXPECT_EQ(failure, "5 (Input/output error) function=fclose file=" + std::string(kDaemonPath));
  EXPECT_TRUE(std::filesystem::is_empty("/Library/LaunchDaemons"));
}

// What the file looks like when it becomes visible, and what is there until then.
TEST_F(job_files, a_file_becomes_visible_whole_and_with_its_rights) {
  const with_umask none(0);
  test::write_file(kAgentPath, "old");
  test::system_calls calls;
  rights written{};
  std::string before;
  std::string after;
  calls.at_rename = [&](const char* from, const char*) {
    written = rights_of(from);
    before = test::read_file(kAgentPath);
    after = test::read_file(from);
  };
  test::watched = &calls;
  EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
  test::watched = nullptr;
  EXPECT_EQ(written, kJobFile);
  EXPECT_EQ(before, "old");
  EXPECT_EQ(after, std::string(kHead) + kSessions + kArguments + kAgentEnd);
}

TEST_F(job_files, a_file_is_closed_to_everyone_else_until_it_is_launchds) {
  const with_umask none(0);
  test::system_calls calls;
  mode_t first = 0;
  calls.at_chmod = [&](const char* path) { first = rights_of(path).mode; };
  test::watched = &calls;
  osx::launchd_agent_install_only(kLabel, kArgs);
  test::watched = nullptr;
  EXPECT_EQ(first, 0600U);
}

TEST_F(job_files, what_a_killed_writer_left_is_no_job_and_goes) {
  test::write_file("/Library/LaunchAgents/com.example.job.new", "<plist");
  EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_EQ(entries("/Library/LaunchAgents"), lines{"com.example.job.plist"});
  test::write_file("/Library/LaunchDaemons/com.example.job.new", "<plist");
  osx::launchd_daemon_uninstall(kLabel);
  EXPECT_EQ(entries("/Library/LaunchDaemons"), lines{});
}

TEST_F(job_files, neither_of_the_two_names_is_followed_when_it_is_a_link) {
  test::write_file("/private/var/victim", "kept");
  for (const char* name : {kAgentPath, "/Library/LaunchAgents/com.example.job.new"})
    std::filesystem::create_symlink("/private/var/victim", name);
  EXPECT_TRUE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_EQ(test::read_file("/private/var/victim"), "kept");
  EXPECT_FALSE(std::filesystem::is_symlink(kAgentPath));
  EXPECT_EQ(rights_of(kAgentPath), kJobFile);
  std::filesystem::remove("/private/var/victim");
}

TEST_F(job_files, get_their_mode_and_then_their_owner_once_they_are_written) {
  test::system_calls calls;
  test::watched = &calls;
  osx::launchd_agent_install_only(kLabel, kArgs);
  osx::launchd_daemon_install(kLabel, kArgs);
  test::watched = nullptr;
  EXPECT_EQ(calls.named, (lines{"chmod 644", "chown 0 0", "chmod 644", "chown 0 0"}));
}

TEST_F(job_files, an_agents_file_that_cannot_be_written_is_told) {
  std::filesystem::create_directory(kAgentPath);
  EXPECT_FALSE(osx::launchd_agent_install_only(kLabel, kArgs));
  EXPECT_EQ(done(),
            (lines{"log launchd_agent_install_only: writing pinfo: " + std::string(kAgentPath),
                   "log launchd_agent_install_only: unable to write pinfo"}));
}

TEST_F(job_files, an_agent_without_its_file_touches_no_session) {
  add_login(321, "alice");
  std::filesystem::create_directory(kAgentPath);
  osx::launchd_agent_install(kLabel, kArgs);
  EXPECT_EQ(done().size(), 2u);
}

TEST_F(job_files, a_daemons_file_that_cannot_be_written_throws_and_loads_nothing) {
  std::filesystem::create_directory(kDaemonPath);
  try {
    osx::launchd_daemon_install(kLabel, kArgs);
    FAIL() << "nothing was thrown";
  } catch (const muro::exception& e) {
    EXPECT_EQ(e.description(),
              "21 (Is a directory) function=fopen file=" + std::string(kDaemonPath));
  }
  EXPECT_EQ(done(),
            (lines{"log launchd_daemon_install: writing pinfo: " + std::string(kDaemonPath)}));
}

TEST_F(job_files, a_daemon_is_loaded_once_its_file_is_there) {
  osx::launchd_daemon_install(kLabel, kArgs);
  EXPECT_EQ(done(),
            (lines{"log launchd_daemon_install: writing pinfo: " + std::string(kDaemonPath),
                   "log launchd_daemon_start: launching 1",
                   "run /bin/launchctl|load|-w|" + std::string(kDaemonPath), "pause 100000"}));
}

TEST_F(job_files, a_daemon_is_unloaded_by_its_file) {
  osx::launchd_daemon_start(kLabel, false);
  EXPECT_EQ(done(),
            (lines{"log launchd_daemon_start: launching 0",
                   "run /bin/launchctl|unload|-w|" + std::string(kDaemonPath), "pause 100000"}));
}

TEST_F(job_files, launchctl_is_not_waited_for_and_its_status_not_examined) {
  record("/bin/launchctl", "exit 5");
  osx::launchd_daemon_install(kLabel, kArgs);
  EXPECT_TRUE(std::filesystem::exists(kDaemonPath));
}

TEST_F(job_files, a_daemon_is_unloaded_and_its_file_removed) {
  test::write_file(kDaemonPath, "");
  osx::launchd_daemon_uninstall(kLabel);
  EXPECT_FALSE(std::filesystem::exists(kDaemonPath));
  EXPECT_EQ(done(),
            (lines{"log launchd_daemon_start: launching 0",
                   "run /bin/launchctl|unload|-w|" + std::string(kDaemonPath), "pause 100000",
                   "run /bin/rm|-fr|" + std::string(kDaemonPath), "pause 100000"}));
}

TEST_F(job_files, a_removal_that_is_killed_or_refused_is_taken_as_it_is) {
  record("/bin/rm", "kill -9 $$");
  osx::launchd_daemon_uninstall(kLabel);
  EXPECT_EQ(done("pause").size(), 2u);
}

TEST_F(job_files, a_removal_has_a_thousand_seconds_and_its_failure_is_ignored_without_a_pause) {
  record("/bin/rm", kHang);
  step_clock_while_hanging(1000 * 1000);
  osx::launchd_daemon_uninstall(kLabel);
  EXPECT_EQ(clock_ms, 2 * 1000 * 1000);
  step_clock_while_hanging(1001 * 1000);
  osx::launchd_daemon_uninstall(kLabel);
  EXPECT_EQ(clock_ms, 1001 * 1000);
  EXPECT_EQ(done("pause").size(), 2u);
}

TEST_F(job_files, an_agent_is_started_in_every_session_by_process_id) {
  add_login(900, "bob");
  add_login(321, "alice");
  osx::launchd_agent_install(kLabel, kArgs);
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl|bootstrap|gui/501\n|" + std::string(kAgentPath),
                                "/bin/launchctl|bootstrap|gui/502\n|" + std::string(kAgentPath)}));
  EXPECT_EQ(done().front(),
            "log launchd_agent_install_only: writing pinfo: " + std::string(kAgentPath));
}

TEST_F(job_files, a_user_without_an_id_does_not_keep_the_next_from_being_served) {
  add_login(321, "nemo");
  add_login(900, "bob");
  osx::launchd_agent_install(kLabel, kArgs);
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl|bootstrap|gui/502\n|" + std::string(kAgentPath)}));
}

TEST_F(job_files, on_10_10_sessions_are_entered_by_process_id_too) {
  set_release("10.10");
  add_login(321, "alice");
  osx::launchd_agent_install(kLabel, kArgs);
  EXPECT_EQ(done("run"), (lines{"/bin/launchctl|bsexec|321|/usr/bin/sudo|-u|alice|/bin/launchctl|"
                                "load|" +
                                std::string(kAgentPath)}));
}

TEST_F(job_files, without_sessions_an_agent_is_only_written) {
  osx::launchd_agent_install(kLabel, kArgs);
  EXPECT_TRUE(std::filesystem::exists(kAgentPath));
  EXPECT_EQ(done().size(), 1u);
}

TEST_F(job_files, without_sessions_an_agent_is_only_waited_for_and_removed) {
  osx::launchd_agent_install_only(kLabel, kArgs);
  osx::launchd_agent_uninstall(kLabel);
  EXPECT_FALSE(std::filesystem::exists(kAgentPath));
  lines told = done();
  told.erase(told.begin());
  EXPECT_EQ(told,
            (lines{"log launchd_agent_uninstall: stopping " + std::string(kAgentPath) + "...",
                   "pause 3000000", "run /bin/rm|-fr|" + std::string(kAgentPath), "pause 100000"}));
}

TEST_F(job_files, an_agent_is_stopped_in_every_session_before_its_file_goes) {
  add_login(321, "alice");
  osx::launchd_agent_uninstall(kLabel);
  EXPECT_EQ(
      done(),
      (lines{"log launchd_agent_uninstall: stopping " + std::string(kAgentPath) + "...",
             "log launchd_agent_start_v2: agent in 321 update (start=0) for com.example.job",
             "run /bin/launchctl|bootout|gui/501\n|" + std::string(kAgentPath), "pause 100000",
             "pause 3000000", "run /bin/rm|-fr|" + std::string(kAgentPath), "pause 100000"}));
}

TEST_F(job_files, before_10_10_the_console_user_of_an_attached_session_is_served_apart) {
  REQUIRE_USERS();
  use_old_release();
  ASSERT_EQ(::chown("/dev/console", 502, 20), 0);
  ::setenv("XDG_SESSION_TYPE", "x11", 1);
  make_launchd_folder("alice", 501);
  make_launchd_folder("bob", 502);
  record("/usr/bin/sudo");
  osx::launchd_agent_install(kLabel, kArgs);
  ::unsetenv("XDG_SESSION_TYPE");
  const lines told = done("log");
  EXPECT_EQ(told[1].find("attached_to_console: "), 0u);
  EXPECT_EQ(told[2], "get_console: console is 502");
  EXPECT_EQ(told[3], "launchd_agent_start: agent in 501 update (start=1) for com.example.job 0");
  EXPECT_EQ(std::count(told.begin(), told.end(),
                       "launchd_agent_start: agent in 502 update (start=1) for com.example.job 1"),
            1);
  EXPECT_EQ(done("run"), (lines{"/usr/bin/sudo|-u|#502|/bin/launchctl|load|-S|Aqua|" +
                                std::string(kAgentPath)}));
}

TEST_F(job_files, before_10_10_a_console_user_without_the_display_is_as_others) {
  use_old_release();
  make_launchd_folder("root", 0);
  osx::launchd_agent_uninstall(kLabel);
  const lines told = done("log");
  EXPECT_EQ(std::count(told.begin(), told.end(),
                       "launchd_agent_start: agent in 0 update (start=0) for com.example.job 0"),
            1);
}

TEST_F(job_files, before_10_10_the_console_is_asked_for_once_and_without_sessions_too) {
  use_old_release();
  osx::launchd_agent_install(kLabel, kArgs);
  EXPECT_EQ(done("log"),
            (lines{"launchd_agent_install_only: writing pinfo: " + std::string(kAgentPath),
                   "attached_to_console: session 0 - 0 0", "get_console: console is 0"}));
}
