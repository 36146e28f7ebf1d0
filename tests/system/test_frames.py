"""Requests that are no requests: each is answered or dropped as told, and the next is served."""

import struct

import korvel
from system_case import EMPTY_REPLY, REFUSED, SystemCase

MALFORMED = {
    "nothing": b"",
    "one number": b"\x00",
    "one string": korvel.string_field("rnr_register"),
    "a string longer than the packet": b"ab\x05\x01",
    "a count of 9": b"\x01" * 9 + b"\x09",
    "a count of 255": b"\xff" * 400,
    "a length of 8 bytes": b"\xff" * 8 + b"\x08",
    "a count longer than the packet": b"\x08",
    "text": b"GET / HTTP/1.0\r\n\r\n",
}


class Frames(SystemCase):
    def setUp(self):
        super().setUp()
        self.serve()

    def test_malformed_packets_get_the_empty_reply_and_a_line(self):
        for number, (name, packet) in enumerate(MALFORMED.items(), 1):
            with self.subTest(name):
                self.assertEqual(self.send(korvel.frame(packet)), EMPTY_REPLY)
                self.assert_log(*["commandReceived: exception"] * number)

    def test_unknown_commands_get_the_empty_reply_and_no_line(self):
        for command in ("", "rnr_ping", "RNR_REGISTER", "rnr_register ", "rnr_register\0"):
            self.ask_well(command, self.restore_file())
        self.assertEqual(self.send(korvel.frame(b"\0")), EMPTY_REPLY)  # the first line of all
        self.assert_log("commandReceived: exception")
        self.assert_exists("/Users/alice/abc.dat")

    def test_fields_below_the_two_are_not_looked_at(self):
        below = b"\xff\xff anything"
        self.assertEqual(self.send(korvel.frame(below + korvel.packet("rnr_ping", ""))),
                         EMPTY_REPLY)
        self.assert_gone(korvel.LOG)

    def test_lengths_with_more_bytes_than_needed_are_read(self):
        argument = b"/Users/alice/abc.dat"
        long_form = argument + struct.pack("<Q", len(argument)) + b"\x08"
        self.restore_file()
        self.assertEqual(self.send(korvel.frame(long_form + korvel.string_field("rnr_register"))),
                         EMPTY_REPLY)
        self.assert_exists(korvel.restore_path("abc"))

    def test_a_frame_of_the_largest_length_is_taken(self):
        self.assertEqual(self.send(korvel.frame(b"\0" * korvel.LARGEST_BODY)), EMPTY_REPLY)

    def test_a_longer_frame_is_dropped_without_a_reply(self):
        for length in (korvel.LARGEST_BODY + 1, 0x7fffffff, 0xffffffff):
            self.assertEqual(self.send(struct.pack("<I", length) + b"body"), REFUSED)
        self.assert_serves()
        self.assert_gone(korvel.LOG)

    def test_a_broken_frame_is_dropped_without_a_reply(self):
        whole = korvel.frame(korvel.packet("rnr_register", self.restore_file()))
        for length in (0, 1, 3, 4, 5, len(whole) - 1):
            self.assertEqual(self.send(whole[:length], "--half"), REFUSED)
        self.assert_serves()
        self.assert_gone(korvel.LOG)
        self.assert_exists("/Users/alice/abc.dat")

    def test_one_connection_carries_one_request(self):
        frame = korvel.frame(korvel.packet("rnr_ping", ""))
        self.assertEqual(self.send(frame + frame), EMPTY_REPLY)

    def test_a_client_that_does_not_wait_for_its_answer_harms_nobody(self):
        for _ in range(3):
            self.send(korvel.frame(korvel.packet("rnr_ping", "")), "--leave")
        self.assert_serves()

    def test_many_clients_at_once_are_served_one_after_the_other(self):
        frame = korvel.frame(korvel.packet("rnr_ping", ""))
        ping = f"{self.mac.rnrctl_path} ping > /dev/null || echo bad"
        script = f"for i in $(seq 40); do {ping} & done; wait"
        self.assertEqual(self.mac.sh(script, limit_s=60), "")
        self.assertEqual(self.send(frame), EMPTY_REPLY)

    def test_anyone_may_ask(self):
        for user in ("alice", "bob", "nobody"):
            self.assertEqual(self.mac.rnrctl("ping", user=user).status, 0, user)


class TheLog(SystemCase):
    """The log file seen from outside: folding and rotation."""

    def test_every_line_is_told_on_standard_error_too(self):
        done = self.run_helper("-restoreFile", "/nowhere/abc.dat")
        self.assertEqual(korvel.log_messages(done.err), self.mac.log())
        self.assertGreater(len(self.mac.log()), 3)

    def test_a_log_that_cannot_be_written_stops_nothing(self):
        self.mac.put_helper()
        self.mac.file("mkdir", korvel.LOG)
        done = self.run_helper("-restoreFile", "/nowhere/abc.dat")
        self.assertGreater(len(korvel.log_messages(done.err)), 3)

    def test_equal_lines_are_folded_into_a_count(self):
        self.serve()
        for number in range(1, 5):
            self.assertEqual(self.send(korvel.frame(b"")), EMPTY_REPLY)
            self.assert_log(*["commandReceived: exception"] * number)
        self.assertRegex(
            self.mac.read(korvel.LOG),
            rb"\A[-0-9]+T[0-9:]+Z commandReceived: exception\n[-0-9]+T[0-9:]+Z -          3 - \n\Z")

    def test_a_file_of_a_mebibyte_becomes_the_old_one(self):
        self.mac.put_helper()
        line = b"2020-01-02T03:04:05Z main: filler\n"
        filler = line * (0x100000 // len(line) + 1)
        self.mac.write(korvel.LOG, filler)
        self.mac.write(korvel.LOG + ".0", "older")
        self.serve()
        self.send(korvel.frame(b""))
        self.mac.wait_until(lambda: not self.mac.exists(korvel.LOG), what="the rotation")
        old = self.mac.read(korvel.LOG + ".0")
        self.assertTrue(old.startswith(filler) and old.endswith(b"commandReceived: exception\n"))
        self.assert_gone(korvel.LOG + ".1")
        self.ask_well("rnr_register", "/Users/alice/missing.dat")
        self.assert_log("moveRestoreFileIfNeeded: Restore file does not exist:"
                        " /Users/alice/missing.dat", "commandReceived: Failed to move restore file")
        self.assertEqual(self.mac.read(korvel.LOG + ".0"), old)
