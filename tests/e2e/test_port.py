"""The client's port as a serial port: opens and closes, line settings, the stream lock."""

import os
import termios
import unittest

import support


class Opens(support.PortTest):
    def open_and_close(self, rounds):
        expected = b""
        for number in range(rounds):
            client = self.client()
            # What the device says between two opens may belong to either, so it only answers.
            client.write(b"open %d\n" % number)
            expected += b"open %d\n" % number
            self.until(lambda: len(self.device.received) >= len(expected), f"write {number}")
            self.device.write(b"answer %d\n" % number)
            self.receives(client, b"answer %d\n" % number, f"answer {number}")
            client.close()
        self.receives(self.device, expected, "what all of them wrote")

    def test_client_opens_and_closes_in_idle(self):
        self.open_and_close(20)

    def test_client_opens_and_closes_under_a_controller(self):
        controller = self.controller()
        self.open_and_close(20)
        self.until(lambda: len(controller.seen("client")) >= len(self.device.received), "the view")
        self.assertEqual(controller.seen("client"), bytes(self.device.received))

    def test_last_bytes_before_a_close_are_delivered(self):
        expected = b""
        for number in range(10):
            fd = os.open(self.port_host.client_path(), os.O_RDWR | os.O_NOCTTY)
            data = b"goodbye %d\n" % number
            self.assertEqual(os.write(fd, data), len(data))
            os.close(fd)
            expected += data
            self.receives(self.device, expected, f"what was written before close {number}")


class Line(support.PortTest):
    # A pty keeps eight bits and no parity whatever it is told, on both ends, so that only the rest
    # of the settings can be seen here.
    def check_settings_reach_the_port(self):
        client = self.client()
        for number, (code, speed, flags) in enumerate([
                (termios.B9600, 9600, termios.CSTOPB), (termios.B115200, 115200, 0),
                (termios.B300, 300, 0)]):
            client.set_line(code, flags=flags)
            # Settings are carried over before what is written behind them.
            client.write(b"x")
            self.until(lambda: len(self.device.received) > number, "the byte behind the settings")
            line = self.device.line()
            self.assertEqual((line.speed, line.control & termios.CSTOPB), (speed, flags))

    def test_settings_reach_the_port_in_idle(self):
        self.check_settings_reach_the_port()

    def test_settings_reach_the_port_in_normal(self):
        self.controller()
        self.check_settings_reach_the_port()


class Lock(support.PortTest):
    def test_held_writes_go_out_in_order_at_the_unlock(self):
        controller = self.controller()
        client = self.client()
        self.greet(client)
        controller.command("lock")
        self.assertEqual(controller.wait_reply(2)["code"], 0)
        held = b"".join(b"held %d\n" % number for number in range(20))
        for line in held.splitlines(keepends=True):
            client.write(line)
        # The controller's own bytes pass, and these came behind the client's.
        for number in range(3):
            controller.command(f"send zk {number}\\n")
        self.receives(self.device, b"?zk 0\nzk 1\nzk 2\n", "only the controller's bytes")
        controller.command("unlock")
        self.receives(self.device, b"?zk 0\nzk 1\nzk 2\n" + held, "what was held back")
        self.until(lambda: controller.seen("client") == b"?" + held, "the copies")
        self.device.write(b"answer")
        self.receives(client, b"!answer", "the client to be served again")

    def test_controller_s_end_ends_the_lock(self):
        controller = self.controller()
        client = self.client()
        self.greet(client)
        controller.command("lock")
        controller.wait_reply(2)
        client.write(b"held")
        controller.close()  # killed
        self.receives(self.device, b"?held", "what was held back")
        self.device.write(b"answer")
        self.receives(client, b"!answer", "the client to be served by the port")


if __name__ == "__main__":
    unittest.main()
