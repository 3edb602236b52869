"""Ports whose tty goes and comes back: unplugged adapters, links that move, ttys of others."""

import fcntl
import os
import pwd
import shutil
import unittest

import support
from support import complaints, rig, some_bytes


class Unplug(support.RigTest):
    def setUp(self):
        super().setUp()
        self.tty = self.plug()
        self.port_host = self.ready_host([(self.tty.path, "COM3")])

    def tearDown(self):
        super().tearDown()
        self.assertEqual([name for name in os.listdir(self.directory) if "COM" in name], [])

    def gone(self, node):
        return f"COM3: {self.tty.path}: the device is gone ({node})"

    def back(self):
        return f"COM3: {self.tty.path}: the device is back ({self.tty.device.path})"

    def test_everybody_is_sent_away_and_welcome_again(self):
        host = self.port_host
        said = []
        for turn in range(20):
            device = self.tty.device
            controller = self.zkctl()
            self.assertEqual(controller.wait_reply(1)["code"], 0)
            client = self.enter(rig.Client(self.loop, host.client_path()))
            self.greet(client, device)
            data = some_bytes(5000, turn)
            client.write(data)
            self.receives(device, b"?" + data, "the client's bytes")
            self.until(lambda: controller.seen("client") == b"?" + data, "the controller's view")
            if turn % 2:
                client.write(some_bytes(100000))  # on its way when the device goes
            node = device.path
            self.tty.unplug()
            self.assertEqual(controller.wait_exit("zkctl to end with the device"), 1)
            self.assertEqual(controller.errors, ["COM3: the device has gone away"])
            self.until(lambda: client.ended, "the client's hang-up")
            client.close()
            said.append(self.gone(node))
            self.assertEqual(complaints(host), said)
            if not turn:
                self.check_absence()
            self.tty.plug_in()
            host.wait_ready("COM3", turn + 2)
            said.append(self.back())
            self.assertEqual(complaints(host), said)
        self.talk(host, self.tty.device)

    def check_absence(self):
        """Nobody gets in, and nobody takes the name."""
        self.assertFalse(os.path.lexists(self.port_host.client_path()))
        process = self.plain_zkctl("COM3")
        self.assertEqual(process.errors, [
            f"COM3: no such device ({self.directory}/VORLIX_COM3: No such file or directory)"])
        device = self.enter(rig.Device(self.loop))
        second = self.host([(device.path, "COM3")])
        self.assertEqual(second.wait_exit("the second host to refuse"), 1)
        self.assertEqual(complaints(second),
                         [f"COM3: {self.directory}/COM3: in use by another vorlix-host"])

    def test_gone_and_back_between_two_looks(self):
        for turn in range(5):
            with self.frozen(self.port_host):
                for _ in range(turn + 1):
                    self.tty.unplug()
                    self.tty.plug_in()
            self.port_host.wait_ready("COM3", turn + 2)
            self.talk(self.port_host, self.tty.device)
        self.assertEqual(len(complaints(self.port_host)), 10)

    def test_link_that_moves_on_counts_when_the_old_device_goes(self):
        first = self.tty.device
        client = self.enter(rig.Client(self.loop, self.port_host.client_path()))
        self.greet(client, first)
        second = self.tty.plug_in()
        client.write(b"still the first one")
        self.receives(first, b"?still the first one", "the bytes of the device that is in use")
        client.close()
        self.talk(self.port_host, first)
        first.close()
        self.port_host.wait_ready("COM3", 2)
        self.talk(self.port_host, second)
        self.assertEqual(complaints(self.port_host), [self.gone(first.path), self.back()])


class Places(support.RigTest):
    """Paths as systems have them: links to links, directories that come and go, permissions."""

    def test_directories_that_come_and_go(self):
        dev = os.path.join(self.directory, "dev")
        by_id = os.path.join(dev, "serial/by-id/usb-adapter")
        host = None
        for turn, goes in enumerate((by_id, os.path.dirname(by_id), dev + "/serial", dev)):
            os.makedirs(os.path.dirname(by_id), exist_ok=True)
            tty = self.plug(f"dev/ttyUSB{turn}")
            os.symlink(f"../../ttyUSB{turn}", by_id)
            host = host or self.host([(by_id, "COM3")])
            host.wait_ready("COM3", turn + 1)
            self.talk(host, tty.device)
            os.rename(goes, self.directory + "/away")
            tty.close()
            self.until_said(host, f"COM3: {by_id}: the device is gone ({tty.device.path})")
            shutil.rmtree(self.directory + "/away") if turn else os.unlink(self.directory + "/away")

    def test_number_of_a_pty_says_nothing(self):
        device, other = self.enter(rig.Device(self.loop)), self.plug()
        host = self.ready_host([(device.path, "COM4"), (other.path, "COM5")])
        device.close()
        self.until_said(host, f"COM4: {device.path}: the device is gone")
        for _ in range(50):
            somebody = self.enter(rig.Device(self.loop))
            if somebody.path == device.path:
                break
        else:
            self.skipTest("somebody else was faster")
        # What the host hears of later is certainly not heard before.
        other.unplug()
        self.until_said(host, f"COM5: {other.path}: the device is gone ({other.device.path})")
        other.plug_in()
        host.wait_ready("COM5", 2)
        self.talk(host, other.device, "COM5")
        self.assertEqual(host.times_ready("COM4"), 1)

    def test_permission_that_is_given_late(self):
        """As by udev, a moment after the node is there."""
        root = os.geteuid() == 0
        account = {"user": "nobody", "group": "nogroup", "extra_groups": []} if root else {}
        forbid = lambda path: os.chmod(path, 0)
        allow = lambda path: (root and os.chown(path, pwd.getpwnam("nobody").pw_uid, -1),
                              os.chmod(path, 0o600))
        tty = self.plug()
        allow(tty.device.path)
        directory = os.path.join(self.directory, "ports")
        os.mkdir(directory)
        allow(directory)
        os.chmod(directory, 0o700)
        program = shutil.copy(support.HOST, self.directory)  # the build may be out of its reach
        host = self.enter(rig.Host(self.loop, program, directory, [(tty.path, "COM3")],
                                   ("--verify",), **account))
        host.wait_ready()
        tty.unplug()
        self.until_said(host, f"COM3: {tty.path}: the device is gone ({tty.device.path})")
        with self.frozen(host):
            tty.plug_in()
            forbid(tty.device.path)
        self.until_said(host, f"COM3: {tty.path}: permission denied; waiting for it")
        allow(tty.device.path)
        host.wait_ready("COM3", 2)
        self.assertEqual(host.stop(), 0)

    def test_tty_in_use_by_somebody_else_is_there(self):
        tty = self.plug()
        host = self.ready_host([(tty.path, "COM3")])
        tty.unplug()
        self.until_said(host, f"COM3: {tty.path}: the device is gone ({tty.device.path})")
        with self.frozen(host):
            fcntl.flock(tty.plug_in().slave, fcntl.LOCK_EX)
        host.wait_ready("COM3", 2)
        self.assertIn(f"COM3: {tty.path}: in use by another program", complaints(host))
        # No more than opened: the hang-up may come before anything that a client asks of it.
        client = self.enter(rig.Stream(
            self.loop, os.open(host.client_path(), os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)))
        self.until(lambda: client.ended, "the hang-up of a refused client")
        fcntl.flock(tty.device.slave, fcntl.LOCK_UN)
        self.talk(host, tty.device)


if __name__ == "__main__":
    unittest.main()
