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
