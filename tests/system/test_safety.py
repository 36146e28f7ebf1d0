"""The restore file is at its old place or at its new one at every instant."""

import korvel
from system_case import PYTHON, SystemCase, UNTRACED

ABC = "/Users/alice/abc.dat"

# Every form of a call that the helper may make.
MKDIR = "mkdir,mkdirat"
RENAME = "rename,renameat,renameat2"
CHMOD = "chmod,fchmod,fchmodat"
CHOWN = "chown,fchown,lchown,fchownat"

# Looks without a pause until it is told to stop: the old place first, then the new one, as the
# file only moves that way; and the other way about for a file that would be at both.
WATCH = f"""
import os, sys
old, new, looks = {ABC!r}, {korvel.restore_path("abc")!r}, 0
print("ready", flush=True)
while not os.path.exists("/tmp/stop"):
    looks += 1
    if not os.path.exists(old) and not os.path.exists(new):
        sys.exit("at neither place")
    if os.path.exists(new) and os.path.exists(old):
        sys.exit("at both places")
print(looks)
"""


class RestoreFile(SystemCase):
    def watched(self, act):
        watcher = self.mac.start([PYTHON, "-ISc", WATCH])
        self.mac.wait_until(lambda: watcher.output().startswith(b"ready"))
        act()
        self.mac.write("/tmp/stop", "")
        done = watcher.wait()
        self.assertEqual(done.status, 0, done.error_text)
        self.assertGreater(int(done.text.split()[1]), 100)
        self.assert_exists(korvel.restore_path("abc"))

    def test_is_always_somewhere_while_a_session_is_registered(self):
        self.serve()
        self.restore_file()
        self.watched(lambda: self.ask_well("rnr_register", ABC))

    def test_is_always_somewhere_while_a_daemon_is_installed(self):
        self.restore_file()
        self.mac.put_helper()
        self.watched(lambda: self.run_helper("-restoreFile", ABC,
                                             "-exePath", korvel.CLIENT_BUNDLE))


class Killed(SystemCase):
    """SIGKILL at a system call of the installation: the file is there, whole, and once."""

    def kill_at(self, call, number):
        """Gives whether the helper got that far."""
        self.mac.sh("rm -rf /Library/VeskRuntime /Library/LaunchDaemons/*")
        self.mac.put_helper()
        self.restore_file()
        done = self.mac.run(
            ["/usr/bin/strace", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={call}",
             "-e", f"inject={call}:signal=KILL:when={number}", korvel.HELPER,
             "-restoreFile", ABC, "-exePath", korvel.CLIENT_BUNDLE],
            env=UNTRACED)
        return done.status != 0

    def assert_one_whole_file(self, where):
        places = [p for p in (ABC, korvel.restore_path("abc")) if self.mac.exists(p)]
        self.assertEqual(len(places), 1, (where, places))
        self.assertEqual(self.mac.read_text(places[0]), "resume me", where)
        return places[0]

    def sweep(self, points):
        reached = set()
        for call, number in points:
            self.assertTrue(self.kill_at(call, number), f"{call} {number} was not reached")
            reached.add(self.assert_one_whole_file((call, number)))
        return reached

    def test_before_and_after_the_file_moves(self):
        self.assertEqual(self.sweep([(MKDIR, 1), (MKDIR, 2), (RENAME, 1)]), {ABC})
        self.assertEqual(self.sweep([(RENAME, 2), (MKDIR, 5)]), {korvel.restore_path("abc")})

    def test_while_the_bundle_is_copied(self):
        moved = {korvel.restore_path("abc")}
        self.assertEqual(self.sweep([(CHMOD, 6), (CHOWN, 3)]), moved)

    def test_a_run_after_a_kill_before_the_move_installs(self):
        self.assertTrue(self.kill_at(RENAME, 1))
        self.run_helper("-restoreFile", ABC, "-exePath", korvel.CLIENT_BUNDLE)
        self.assert_exists(korvel.restore_path("abc"), korvel.daemon_path("abc"))

    def test_a_helper_that_is_killed_while_it_registers(self):
        self.mac.put_helper()
        for number, place in ((1, ABC), (2, korvel.restore_path("abc"))):
            self.mac.sh("rm -rf /Library/VeskRuntime /tmp/*.ipc")
            self.restore_file()
            # The second form is that of the job file alone, once it is written.
            call = RENAME if number == 1 else "chmod,fchmodat"
            when = 1 if number == 1 else "2+"
            self.mac.start(["/usr/bin/strace", "-f", "-qq", "-o", "/dev/null",
                            "-e", f"trace={call}",
                            "-e", f"inject={call}:signal=KILL:when={when}", korvel.HELPER],
                           env=UNTRACED)
            self.mac.wait_until(lambda: self.mac.exists(korvel.endpoint_path()))
            self.send(korvel.frame(korvel.packet("rnr_register", ABC)))
            self.assertEqual(self.assert_one_whole_file(number), place)
