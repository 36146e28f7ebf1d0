"""Installing a session: what moves where, and every failure that a machine can provoke."""

import stat

import korvel
from system_case import SystemCase, PYTHON

ABC = "/Users/alice/abc.dat"
FOLDER = korvel.session_folder("abc")
NO_RESUME = "main: Failed to install service, will not be able to resume properly"


class Install(SystemCase):
    def setUp(self):
        super().setUp()
        self.mac.boot()
        self.restore_file()

    def install(self, status=0, bundle=korvel.CLIENT_BUNDLE):
        return self.run_helper("-restoreFile", ABC, "-exePath", bundle, status=status)

    def test_everything_that_the_resume_needs_is_in_the_session_folder(self):
        bundle = self.mac.listing(korvel.CLIENT_BUNDLE)
        self.install()
        # The daemon runs already, and its log lies beside it.
        found = [name for name in self.mac.listing(FOLDER) if name != "helper/korvel_helper.out"]
        self.assertEqual(found, sorted(
            ["abc.dat", "helper", "helper/KorvelHelper", "app", "app/Korvel.app"]
            + [f"app/Korvel.app/{name}" for name in bundle]))
        self.assert_gone(ABC, korvel.HELPER)
        self.assert_exists(korvel.CLIENT)

    def test_folders_are_open_to_all_and_the_restore_file_keeps_its_mode(self):
        self.install()
        for folder in (FOLDER, FOLDER + "/helper", FOLDER + "/app"):
            self.assertEqual(self.mac.mode_owner(folder), "0777 0:0")
        self.assertEqual(self.mac.mode_owner(korvel.restore_path("abc")), "0600 501:20")
        self.assertEqual(self.mac.mode_owner(korvel.session_helper("abc")), "0755 0:0")

    def test_the_bundle_belongs_to_root_and_admin_throughout(self):
        self.mac.sh(f"ln -s Info.plist {korvel.CLIENT_BUNDLE}/Contents/link;"
                    f"mkdir -m 700 -p {korvel.CLIENT_BUNDLE}/Contents/a/b;"
                    f"echo x > {korvel.CLIENT_BUNDLE}/Contents/a/b/c")
        self.install()
        copy = korvel.session_bundle("abc")
        for name in [""] + self.mac.listing(copy):
            if not stat.S_ISLNK(self.mac.stat(f"{copy}/{name}")["st_mode"]):
                self.assertEqual(self.mac.mode_owner(f"{copy}/{name}"), "0777 0:80", name)
        self.assertEqual(self.mac.sh(f"readlink {copy}/Contents/link"), "Info.plist")

    def test_one_item_that_fails_does_not_stop_the_others(self):
        self.mac.sh(f"ln -s nowhere {korvel.CLIENT_BUNDLE}/Contents/dangling")
        self.install()
        self.assertRegex("\n".join(self.mac.messages()),
                         "(?m)^failed to set permissions for Contents/dangling:::.+$")
        client = korvel.session_bundle("abc") + "/Contents/MacOS/korvel"
        self.assertEqual(self.mac.mode_owner(client), "0777 0:80")

    def test_an_unknown_group_is_told_for_every_item(self):
        self.mac.sh("grep -v ^admin: /etc/group > /etc/group.new; mv /etc/group.new /etc/group")
        self.install()
        items = self.mac.listing(korvel.session_bundle("abc"))
        messages = self.mac.messages()
        self.assertEqual(sum(m.startswith("failed to set permission ") for m in messages), 1)
        told = [m.split(" for ")[1].partition(":::")[0] for m in messages
                if m.startswith("failed to set permissions for ")]
        self.assertEqual(sorted(told), items)

    # Failures

    def test_a_plain_file_where_the_sessions_stand(self):
        self.block("/Library/VeskRuntime")
        self.install(status=1)
        self.assert_log("createFolder: Failed to create directory: " + self.reason(),
                        "moveRestoreFileIfNeeded: Failed to create session folder",
                        "installService: Failed to move restore file", NO_RESUME)
        self.assert_exists(ABC, korvel.HELPER)

    def reason(self):
        """The system's own words for the folder that could not be made."""
        start = "Failed to create directory: "
        words = next(m for m in self.mac.messages() if m.startswith(start))[len(start):]
        self.assertRegex(words, "(?i)not a directory|exists")
        return words

    def test_a_restore_file_in_the_target_place_is_not_replaced(self):
        self.mac.sh(f"mkdir -p {FOLDER}; echo older > {FOLDER}/abc.dat")
        self.install(status=1)
        log = self.mac.log()
        self.assertEqual(log[0][0], "moveRestoreFileIfNeeded")
        self.assertRegex(log[0][1], "^Failed to move file: ")
        self.assert_log(..., "installService: Failed to move restore file", NO_RESUME)
        self.assert_exists(ABC, korvel.HELPER)
        self.assertEqual(self.mac.read_text(f"{FOLDER}/abc.dat"), "older\n")

    def test_a_plain_file_where_the_helper_folder_goes(self):
        self.block(FOLDER + "/helper")
        self.install(status=1)
        self.assert_log("createFolder: Failed to create directory: " + self.reason(),
                        "moveHelper: Failed to create helper folder", NO_RESUME)
        self.assert_exists(korvel.HELPER, korvel.restore_path("abc"))

    def test_a_helper_copy_in_the_target_place_is_not_replaced(self):
        self.mac.sh(f"mkdir -p {FOLDER}/helper; echo older > {korvel.session_helper('abc')}")
        self.install(status=1)
        name, text = self.mac.log()[0]
        self.assertEqual(name, "moveHelper")
        self.assertRegex(text, f"^Failed to move file to {korvel.session_helper('abc')}: ")
        self.assert_log(..., NO_RESUME)

    def test_a_helper_that_was_deleted_while_it_runs(self):
        self.mac.put_helper()
        script = (f"import os; path = {korvel.HELPER!r}; f = os.open(path, os.O_RDONLY);"
                  f"os.unlink(path);"
                  f"words = [path, '-restoreFile', {ABC!r}, '-exePath', '/x.app'];"
                  f"os.execve(f, words, os.environ)")
        done = self.mac.run([PYTHON, "-ISc", script])
        self.assertEqual(done.status, 1, done.error_text)
        self.assertRegex(done.error_text, "moveHelper: Helper file .* does not exist\n")
        self.assert_gone(korvel.daemon_path("abc"))

    def test_a_plain_file_where_the_bundle_folder_goes(self):
        self.block(FOLDER + "/app")
        self.install(status=1)
        log = [f"{name}: {text}" for name, text in self.mac.log()]
        self.assertEqual(log[0], "createFolder: Failed to create directory: " + self.reason())
        self.assertEqual(log[1], "moveAppBundle: Failed to create bundle folder")
        self.assertRegex(log[2], "^moveAppBundle: Failed to move bundle: .")
        self.assertEqual(log[3:], [NO_RESUME])

    def test_a_missing_bundle_leaves_the_helper_moved(self):
        self.install(status=1, bundle="/Applications/Missing.app")
        log = [f"{name}: {text}" for name, text in self.mac.log()]
        self.assertRegex(log[0], "^moveAppBundle: Failed to move bundle: .")
        self.assertEqual(log[1:], [NO_RESUME])
        self.assert_exists(korvel.session_helper("abc"), korvel.restore_path("abc"))
        self.assert_gone(korvel.HELPER, korvel.daemon_path("abc"))

    def test_a_job_file_that_cannot_be_written(self):
        self.block(korvel.DAEMONS)
        self.install(status=1)
        path = korvel.daemon_path("abc")
        self.assert_log(f"launchd_daemon_install: writing pinfo: {path}",
                        "installService: Failed to install daemon: 20 (Not a directory)"
                        f" function=fopen file={path}", NO_RESUME)

    def test_a_bundle_path_that_ends_in_a_slash(self):
        self.install(bundle=korvel.CLIENT_BUNDLE + "/")
        self.assert_exists(korvel.session_bundle("abc") + "/Contents/MacOS/korvel")
        self.assert_job_file(korvel.daemon_path("abc"),
                             korvel.daemon_file(korvel.daemon_label("abc"),
                                                korvel.session_daemon_arguments("abc")))
