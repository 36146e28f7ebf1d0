"""The operator's tool against the helper itself."""

import korvel
from system_case import PYTHON, SystemCase

FILL_QUEUE = f"""
import socket, time
waiting = []
try:
    while True:
        one = socket.socket(socket.AF_UNIX)
        one.setblocking(False)
        one.connect({korvel.endpoint_path()!r})
        waiting.append(one)
except BlockingIOError:
    print("full", flush=True)
time.sleep(60)
"""


class Rnrctl(SystemCase):
    def tool(self, *words, status, **options):
        done = self.mac.rnrctl(*words, **options)
        self.assertEqual(done.status, status, done.error_text)
        text = done.text if status == 0 else done.error_text
        self.assertRegex(text, r"\A[^\n]+\n\Z")
        return text

    def test_registers_a_relative_path_and_resigns(self):
        self.serve()
        self.restore_file()
        self.tool("register", "abc.dat", status=0, cwd="/Users/alice", user="alice")
        self.assert_exists(korvel.restore_path("abc"), korvel.agent_path("abc"))
        self.tool("resign", "abc.dat", status=0, cwd="/Users/alice", user="alice")
        self.assert_gone(korvel.agent_path("abc"))

    def test_ping_changes_nothing_and_leaves_no_line(self):
        self.serve()
        before = self.snapshot()
        self.assertRegex(self.tool("ping", status=0), "^korvel_helper answered in [0-9]+ ms$")
        self.assertEqual(self.snapshot(), before)
        self.assert_gone(korvel.LOG)

    def test_without_a_helper_ends_with_3(self):
        self.tool("ping", status=3)
        self.tool("register", self.restore_file(), status=3)
        self.assert_exists("/Users/alice/abc.dat")

    def test_a_socket_that_a_dead_helper_left_ends_with_3(self):
        self.serve().kill()
        self.served.wait()
        self.assert_exists(korvel.endpoint_path())
        self.tool("ping", status=3)

    def test_a_name_without_an_id_ends_with_2(self):
        self.serve()
        self.mac.write("/Users/alice/abc.txt", "")
        self.tool("register", "/Users/alice/abc.txt", status=2)
        self.tool("dance", status=2)

    def test_a_missing_file_ends_with_6(self):
        self.serve()
        self.tool("register", "/Users/alice/abc.dat", status=6)

    def test_a_file_of_someone_else_ends_with_6(self):
        self.serve()
        self.restore_file()
        self.tool("register", "/Users/alice/abc.dat", status=6, user="bob")

    def test_a_helper_that_stands_still_ends_with_5(self):
        self.mac.sh(f"kill -STOP {self.serve().pid}")
        self.tool("ping", "--timeout", "0.2", status=5)
        self.mac.sh(f"kill -CONT {self.served.pid}")
        self.tool("ping", status=0)

    def test_a_full_queue_ends_with_5(self):
        self.mac.sh(f"kill -STOP {self.serve().pid}")
        filler = self.mac.start([PYTHON, "-ISc", FILL_QUEUE])
        self.mac.wait_until(lambda: filler.output() == b"full\n")
        self.assertIn("turn", self.tool("ping", "--timeout", "0.2", status=5))

    def test_log_shows_what_the_helper_did(self):
        self.serve()
        self.restore_file()
        self.tool("register", "/Users/alice/abc.dat", status=0)
        self.mac.wait_until(lambda: self.mac.exists(korvel.agent_path("abc")))
        done = self.mac.rnrctl("log", "--id", "abc")
        self.assertEqual(done.status, 0, done.error_text)
        self.assertIn(f"launchd_agent_install_only: writing pinfo: {korvel.agent_path('abc')}\n",
                      done.text)

    def test_log_follows_a_log_through_a_rotation(self):
        line = "2026-01-02T03:04:0{}Z main: {}\n"
        self.mac.write("/tmp/x.out", line.format(1, "first"))
        reader = self.mac.start([self.mac.rnrctl_path, "log", "--follow", "--file", "/tmp/x.out"])
        shown = line.format(1, "first").encode()
        self.mac.wait_until(lambda: reader.output() == shown)
        self.mac.sh(f"printf '{line.format(2, 'second')[:-1]}\\n' >>/tmp/x.out; mv /tmp/x.out /tmp/x.out.0")
        self.mac.write("/tmp/x.out", line.format(3, "third"))
        shown += (line.format(2, "second") + line.format(3, "third")).encode()
        self.mac.wait_until(lambda: reader.output() == shown)
        reader.kill()
