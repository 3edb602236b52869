"""The control device and zkctl: who may open it, what it refuses, how zkctl begins and ends."""

import os
import shutil
import signal
import struct
import unittest

import support
from support import ALL_BYTES, INVALID_PARAMETER, rig


class Access(support.PortTest):
    def test_second_controller_is_refused(self):
        first = self.controller()
        second = self.plain_zkctl("COM3")
        self.assertEqual(second.errors, ["COM3: access denied (0xc0000022)"])
        self.assertEqual((second.status, second.lines), (1, []))
        # The first one has lost nothing but frames that waited.
        first.command("getmode")
        self.assertEqual(first.wait_reply(2)["value"], 2)
        first.quit()
        self.controller()

    @unittest.skipUnless(os.geteuid() == 0, "only root can be somebody else")
    def test_other_account_is_refused(self):
        # The build directory may be out of its reach.
        program = shutil.copy(support.ZKCTL, self.directory)
        other = self.plain_zkctl("COM3", program=program, user="nobody",
                                 group="nogroup", extra_groups=[])
        self.assertEqual(other.errors, ["COM3: access denied (0xc0000022)"])
        self.assertEqual((other.status, other.lines), (1, []))
        self.controller()

class Frames(support.PortTest):
    def test_a_refused_packet_leaves_the_session_as_it_was(self):
        raw = self.raw_controller()
        self.assertEqual(raw.control(1, 1, 2), (0, 28))
        for packet in (b"\x01", rig.frame(rig.FRAME_DATA, 1, 0, b"", length=0xFFFFFFFF),
                       rig.frame(rig.FRAME_CONTROL, 9, 5)):  # no such command
            self.assertEqual(raw.write(packet), (INVALID_PARAMETER, 0), packet.hex())
        # Nothing of it was answered or reached the port, and the session goes on.
        self.assertEqual(raw.write(rig.frame(rig.FRAME_DATA, rig.TAG_LOWER, 0, ALL_BYTES)),
                         (0, 24 + 256))
        self.receives(self.device, ALL_BYTES, "a good frame")
        self.assertEqual(raw.control(0xFFFFFFFF, 2), (0, 24))
        self.until(lambda: len(raw.frames) >= 2, "two replies")
        self.assertEqual([(f.type, f.tag, f.code, f.payload) for f in raw.frames],
                         [(rig.FRAME_CONTROL_REPLY, 1, 0, bytes(4)),
                          (rig.FRAME_CONTROL_REPLY, 0xFFFFFFFF, 0, struct.pack("<I", 2))])
        self.assertEqual(raw.odd, [])


class Zkctl(support.PortTest):
    def test_commands_run_in_order_and_their_replies_are_shown(self):
        process = self.plain_zkctl("COM3", "-e", "getmode", "-e", "send a\\n", "-e", "level 3",
                                   "-e", "getlevel", "-e", "quit", "-e", "send never")
        self.assertEqual((process.status, process.errors), (0, []))
        shown = [line.split(" ", 1)[1] for line in process.lines if line[0] != " "]
        self.assertEqual([line for line in shown if "written" not in line and "port" not in line], [
            "setmode: success", "getmode: NORMAL (2)", "setlevel: success", "getlevel: 3"])
        self.assertEqual([line for line in shown if "written" in line], [
            "setmode: written, 28 bytes", "getmode: written, 24 bytes", "send: written, 26 bytes",
            "setlevel: written, 28 bytes", "getlevel: written, 24 bytes"])
        for line in process.lines:
            self.assertRegex(line, r"^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z |  [0-9a-f]{8}  )")
        self.assertNotIn("\033", "".join(process.lines))
        self.receives(self.device, b"a\n", "what was sent before quit")

    def test_bad_lines_are_reported_and_skipped(self):
        controller = self.controller()
        controller.command("frobnicate")
        controller.command("send \\q")
        controller.command("send ok")
        self.receives(self.device, b"ok", "the good line")
        self.assertEqual(controller.quit(), 0)
        self.assertEqual(controller.errors, ["zkctl: line 1: unknown command 'frobnicate'",
                                             "zkctl: line 2: send: unknown escape \\q"])

    def test_end_of_input_ends_it_unless_told_to_stay(self):
        controller = self.controller()
        controller.stdin.write(b"send last line without an end")
        self.until(lambda: not controller.stdin.queued, "zkctl to take its input")
        controller.stdin.close()
        self.assertEqual(controller.wait_exit("zkctl to end with its input"), 0)
        self.receives(self.device, b"last line without an end", "the last line")

        for options in (["--stay"], ["-e", "stay"]):
            staying = self.controller(options)
            staying.stdin.close()
            before = staying.seen("lower")
            self.device.write(b"still watched")
            self.until(lambda: staying.seen("lower") == before + b"still watched", "the view")
            staying.signal(signal.SIGINT)
            self.assertEqual(staying.wait_exit("zkctl to end after SIGINT"), 0)

    def test_wrong_use(self):
        for arguments in ([], ["COM3", "--frob"], ["COM3", "COM4"], ["COM3", "--level", "x"],
                          ["../COM3"], ["COM3", "-e", "frob"], ["COM3", "-e", "send \\q"]):
            process = self.plain_zkctl(*arguments)
            self.assertEqual((process.status, process.lines), (2, []), arguments)
            self.assertTrue(process.errors, arguments)
        self.assertEqual(self.device.received, b"")


if __name__ == "__main__":
    unittest.main()
