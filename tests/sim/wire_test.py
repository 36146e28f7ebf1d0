#!/usr/bin/python3
"""The socket protocol of a user's launchd before 10.10: its bytes, its rules, its misbehaviour."""

import errno
import struct
import unittest

import root_case
from launchd import wire
from root_case import CLIENT, MacCase


def word(*numbers):
    return struct.pack(f"<{len(numbers)}Q", *numbers)


def text(value):
    data = value.encode()
    return word(7, 0, len(data)) + data + bytes(8 - len(data) % 8)


def box(kind, *items):
    return word(kind, 0, len(items)) + word(*[0] * len(items)) + b"".join(items)


def boolean(value):
    """As the helper sends it: the value in the second word."""
    return word(6, 0, value)


def request(verb, argument):
    return wire.frame(box(1, text(verb), argument))


def one_shot(*argv, label="norvane.jobsubmit"):
    return request("SubmitJob", box(
        1, text("KeepAlive"), boolean(0), text("Label"), text(label), text("OnDemand"), boolean(1),
        text("ProgramArguments"), box(2, *map(text, argv)), text("RunAtLoad"), boolean(1)))


class Items(unittest.TestCase):
    def test_dictionary_of_a_string(self):
        self.assertEqual(wire.unpack(box(1, text("RemoveJob"), text("x"))), {"RemoveJob": "x"})

    def test_sizes_of_strings(self):
        for length, size in ((0, 32), (7, 32), (8, 40), (9, 40)):
            self.assertEqual(len(text("x" * length)), size)
            self.assertEqual(wire.unpack(text("x" * length)), "x" * length)

    def test_boolean_is_its_first_word(self):
        self.assertIs(wire.unpack(word(6, 0, 1)), False)
        self.assertIs(wire.unpack(word(6, 1, 0)), True)

    def test_nested_containers(self):
        self.assertEqual(wire.unpack(box(2, box(2), box(1), text("a"))), [[], {}, "a"])

    def test_what_is_refused(self):
        good = text("abc")
        for reason, data in {
                "head": bytes(23),
                "type 3": word(3, 0, 0),
                "behind the item": good + b"\0",
                "padding": good[:-1] + b"x",
                "a zero within": word(7, 0, 3) + b"a\0c" + bytes(5),
                "string at": word(7, 0, 8) + b"12345678",
                "container of": word(2, 0, 3) + word(0),
                "fillers are not": word(2, 0, 1) + word(1) + good,
                "first word of a container": word(2, 1, 0),
                "first word of a string": word(7, 1, 0) + bytes(8),
                "boolean of": word(6, 0, 2),
                "without a value": box(1, text("a")),
                "no string": box(1, word(6, 0, 0), word(6, 0, 0)),
                "is not behind": box(1, text("b"), good, text("a"), good),
                "'a' is not behind": box(1, text("a"), good, text("a"), good)}.items():
            with self.subTest(reason):
                with self.assertRaisesRegex(wire.Malformed, reason):
                    wire.unpack(data)

    def test_depth_is_limited(self):
        data = b""
        for _ in range(5000):
            data = box(2, data) if data else box(2)
            if len(data) > 900:
                break
        with self.assertRaisesRegex(wire.Malformed, "deep"):
            wire.unpack(data)

    def test_huge_count_is_refused_at_once(self):
        with self.assertRaisesRegex(wire.Malformed, "container of"):
            wire.unpack(word(2, 0, 1 << 62))

    def test_frames(self):
        self.assertEqual(wire.frame_length(word(0xD2FEA02366B39A41, 40)), 40)
        for header in (word(0xD2FEA02366B39A42, 40), word(wire.MAGIC, 16), word(wire.MAGIC, 0),
                       word(wire.MAGIC, 1 << 40)):
            with self.assertRaises(wire.Malformed):
                wire.frame_length(header)

    def test_error_reply(self):
        self.assertEqual(wire.error_reply(3), word(wire.MAGIC, 40, 9, 3, 0))


# Sends a frame from inside as a user would; prints what comes back until the end, as hex.
SEND = """
import socket, sys
s = socket.socket(socket.AF_UNIX); s.connect(sys.argv[1]); s.settimeout(float(sys.argv[3]))
data = b""
try:
    for piece in sys.argv[2].split(","): s.sendall(bytes.fromhex(piece))
    while len(data) < 40:
        more = s.recv(8192)
        if not more: break
        data += more
except (TimeoutError, ConnectionResetError, BrokenPipeError): pass
print(data.hex())
"""


class PerUser(MacCase):
    release = "10.9.5"

    def setUp(self):
        super().setUp()
        self.mac.boot("alice")
        self.path = f"/tmp/{self.folders()[0]}/sock"

    def folders(self):
        return [name for name in self.mac.file("listdir", "/tmp") if name.startswith("launchd-")]

    def send(self, *frames, user="alice", wait_s=5):
        """What launchd answers to these bytes."""
        hexes = ",".join(frame.hex() for frame in frames)
        done = self.mac.run(["/usr/bin/python3", "-c", SEND, self.path, hexes, str(wait_s)],
                            user=user, check=True)
        return bytes.fromhex(done.text)

    def error(self, *frames):
        return struct.unpack("<5Q", self.send(*frames))[3]

    def test_each_user_has_a_folder_and_a_socket(self):
        self.mac.login("bob")
        owners = []
        for name in self.folders():
            info = self.mac.stat(f"/tmp/{name}")
            self.assertEqual(info["st_mode"] & 0o777, 0o700)
            self.assertEqual(self.mac.stat(f"/tmp/{name}/sock")["st_uid"], info["st_uid"])
            owners.append(info["st_uid"])
        self.assertEqual(sorted(owners), [501, 502])

    def test_folder_goes_with_the_log_out_and_the_restart(self):
        self.mac.logout("alice")
        self.assertEqual(self.folders(), [])
        self.mac.login("alice")
        old = self.folders()
        self.mac.restart("alice")
        self.assertEqual(len(self.folders()), 1)
        self.assertNotEqual(self.folders(), old)

    def test_removing_what_is_not_there(self):
        self.assertEqual(self.error(request("RemoveJob", text("none"))), errno.ESRCH)

    def test_submitted_job_runs_at_once_as_the_user_outside_of_the_display(self):
        script = "id -un > /Users/Shared/who; env | grep -c XDG >> /Users/Shared/who"
        self.assertEqual(self.error(one_shot("/bin/sh", "-c", script)), 0)
        self.assertEqual(self.mac.read_text("/Users/Shared/who"), "alice\n0\n")

    def test_its_booleans_are_read_as_false_and_so_it_is_kept_alive(self):
        self.error(one_shot("/bin/sh", "-c", "exit 0"))
        self.mac.wait_until(lambda: len(self.mac.find("process-started",
                                                      label="norvane.jobsubmit")) >= 3)
        self.assertEqual(self.error(request("RemoveJob", text("norvane.jobsubmit"))), 0)
        self.assertIsNone(self.mac.job("norvane.jobsubmit", "user/501"))
        asked = self.mac.find("launchd-message")[0]["request"]["SubmitJob"]
        self.assertEqual((asked["KeepAlive"], asked["OnDemand"], asked["RunAtLoad"]),
                         (False, False, False))

    def test_second_submission_is_refused_until_the_first_is_removed(self):
        sleep = one_shot("/bin/true")
        self.assertEqual([self.error(sleep), self.error(sleep)], [0, errno.EEXIST])

    def test_job_without_arguments_is_invalid(self):
        self.assertEqual(self.error(one_shot()), errno.EINVAL)

    def test_unknown_requests_are_invalid(self):
        for argument in (text("x"), box(1), box(2)):
            self.assertEqual(self.error(request("GetJobs", argument)), errno.EINVAL)

    def test_job_loads_an_agent_into_the_graphical_session(self):
        path = self.agent("a", CLIENT, RunAtLoad=True, KeepAlive=True,
                          LimitLoadToSessionType=["Aqua", "LoginWindow"])
        self.error(one_shot("/bin/launchctl", "load", "-S", "Aqua", path))
        self.error(request("RemoveJob", text("norvane.jobsubmit")))
        record = self.mac.wait_for("client")["record"]
        self.assertEqual((record["uid"], record["session_type"]), (501, "x11"))
        self.error(one_shot("/bin/launchctl", "unload", "-S", "Aqua", path))
        self.mac.wait_for("job-unloaded", label="a")

    def test_load_without_the_session_type_stays_outside(self):
        path = self.agent("a", RunAtLoad=True, LimitLoadToSessionType=["Aqua"])
        self.error(one_shot("/bin/launchctl", "load", path))
        self.assertIn("not for Background", self.mac.find("launchctl")[0]["err"])

    def test_sudo_in_the_session_reaches_it_and_outside_is_refused(self):
        path = self.agent("a", RunAtLoad=True)
        words = ["/usr/bin/sudo", "-u", "#501", "/bin/launchctl", "load", "-S", "Aqua", path]
        self.assertEqual(self.mac.run(words).status, 1)
        self.assertIsNone(self.mac.job("a", "gui/501"))
        self.assertEqual(self.mac.run(words, session="alice").status, 0)
        self.assertIsNotNone(self.mac.job("a", "gui/501"))

    def test_removal_by_label_in_the_session(self):
        self.agent("a", RunAtLoad=True)
        self.mac.logout("alice")
        self.mac.login("alice")
        done = self.mac.run(["/usr/bin/sudo", "-u", "#501", "/bin/launchctl", "remove", "a"],
                            session="alice")
        self.assertEqual(done.status, 0)
        self.mac.wait_for("job-unloaded", label="a", domain="gui/501")

    def test_only_the_user_may_connect(self):
        self.assertEqual(self.send(request("RemoveJob", text("x")), user="root", wait_s=1), b"")
        self.assertEqual(self.mac.find("launchd-message-refused")[0]["reason"], "peer is user 0")
        with self.assertRaisesRegex(Exception, "Permission denied"):
            self.send(request("RemoveJob", text("x")), user="bob")

    def test_frame_in_pieces_is_one_frame(self):
        frame = request("RemoveJob", text("none"))
        self.assertEqual(self.error(frame[:3], frame[3:17], frame[17:]), errno.ESRCH)

    def test_malformed_frames_are_refused_and_closed(self):
        good = request("RemoveJob", text("none"))
        for frame in (b"x" * 16, word(wire.MAGIC, 16), good[:-1] + b"x",
                      wire.frame(good[16:] + bytes(8))):
            with self.subTest(frame.hex()):
                self.assertEqual(self.send(frame), b"")
        self.assertEqual(len(self.mac.find("launchd-message-refused")), 4)
        self.assertEqual(self.error(good), errno.ESRCH)

    def test_frame_that_ends_early_is_noted(self):
        self.send(request("RemoveJob", text("none"))[:-8], wait_s=0.1)
        self.assertIn("ended within", self.mac.wait_for("launchd-message-refused")["reason"])

    def test_bytes_are_recorded(self):
        frame = request("RemoveJob", text("none"))
        self.error(frame)
        self.assertEqual(self.mac.find("launchd-message")[0]["hex"], frame.hex())

    def test_ordered_answers(self):
        frame, right = request("RemoveJob", text("none")), wire.error_reply(errno.ESRCH)
        for steps, answer in (([["genuine", 0, 10], ["pause", 0.02], ["genuine", 10]], right),
                              ([["genuine", 0, 20], ["close"]], right[:20]),
                              ([["send", "00" * 40]], bytes(40)),
                              ([["close"]], b""),
                              ([["genuine", 16], ["genuine", 0, 16]], right[16:] + right[:16])):
            with self.subTest(steps):
                self.mac.script_socket("alice", {"steps": steps})
                self.assertEqual(self.send(frame), answer)
        self.assertEqual(self.send(frame), right)

    def test_endless_answer_ends_with_the_listener(self):
        self.mac.script_socket("alice", {"steps": [["genuine"], ["endless"]]})
        self.assertEqual(self.send(request("RemoveJob", text("none")))[:40],
                         wire.error_reply(errno.ESRCH))
        self.assertEqual(self.error(request("RemoveJob", text("none"))), errno.ESRCH)

    def test_request_can_be_left_undone(self):
        self.mac.script_socket("alice", {"steps": [["genuine"]], "perform": False})
        self.error(one_shot("/bin/true"))
        self.assertEqual(self.mac.find("job-loaded", label="norvane.jobsubmit"), [])


class NewerRelease(MacCase):
    release = "10.10"

    def test_there_is_no_socket(self):
        self.mac.boot("alice")
        self.assertEqual(self.mac.file("listdir", "/tmp"), [
            name for name in self.mac.file("listdir", "/tmp") if not name.startswith("launchd")])


if __name__ == "__main__":
    root_case.main()
