"""The host program: what it refuses, how it ends, what a killed one leaves."""

import fcntl
import os
import signal
import unittest

import support
from support import complaints, rig, some_bytes


class Refusals(support.RigTest):
    def refused(self, ports, expected, options=()):
        host = self.host(ports, options)
        self.assertEqual(host.wait_exit("the host to refuse"), 1)
        self.assertEqual((complaints(host), host.lines), ([expected], []))
        self.assertEqual([name for name in os.listdir(self.directory) if "COM" in name], [])

    def test_ttys_that_cannot_be_had(self):
        device = self.enter(rig.Device(self.loop))
        self.refused([("/nonexistent/tty", "COM3")], "COM3: /nonexistent/tty: no such device")
        self.refused([(self.directory, "COM3")], f"COM3: {self.directory}: Is a directory")
        self.refused([(device.path, "COM3"), ("/dev/null", "COM4")],
                     "COM4: /dev/null: not a serial device")
        fcntl.flock(device.slave, fcntl.LOCK_EX)
        self.refused([(device.path, "COM3")], f"COM3: {device.path}: in use by another program")

    def test_files_of_others_are_left_alone(self):
        device = self.enter(rig.Device(self.loop))
        for name, complaint in (("COM3", "exists and is no link of an earlier run"),
                                ("VORLIX_COM3", "exists and is no socket of an earlier run")):
            path = os.path.join(self.directory, name)
            with open(path, "w") as file:
                file.write("precious")
            host = self.host([(device.path, "COM3")])
            self.assertEqual(host.wait_exit("the host to refuse"), 1)
            self.assertEqual(complaints(host), [f"COM3: {path}: {complaint}"])
            with open(path) as file:
                self.assertEqual(file.read(), "precious")
            os.unlink(path)

    def test_wrong_options(self):
        device = self.enter(rig.Device(self.loop))
        port = ["--port", device.path]
        for arguments in ([], port, port + ["--name", "COM3", "--frob"],
                          port + ["--name", "../COM3"], port + ["--name", ""],
                          port + ["--name", "COM3"] + port + ["--name", "COM4"],
                          port + ["--name", "COM3", "--registry", "frob"],
                          port + ["--name", "COM3", "--line", "9600,9N1"],
                          port + ["--name", "COM3", "--line", "0"],
                          port + ["--name", "COM3", "--registry", "VORLIXUseEdo=4294967296"]):
            host = self.enter(rig.Process(
                self.loop, [support.HOST, "--dir", self.directory, *arguments]))
            self.assertEqual(host.wait_exit("the host to refuse"), 2, arguments)
            self.assertTrue(host.errors, arguments)
            self.assertEqual(host.lines, [], arguments)


class Life(support.RigTest):
    def test_a_host_that_was_killed_leaves_nothing_in_the_way(self):
        device = self.enter(rig.Device(self.loop))
        first = self.ready_host([(device.path, "COM3")])
        first.signal(signal.SIGKILL)
        first.wait_exit("the killed host")
        second = self.ready_host([(device.path, "COM3")])
        client = self.enter(rig.Client(self.loop, second.client_path()))
        client.write(b"again")
        self.receives(device, b"again", "the client's bytes")
        self.assertEqual(second.stop(), 0)
        self.assertEqual([name for name in os.listdir(self.directory) if "COM" in name], [])

    def test_sigterm_in_the_middle_of_everything(self):
        def locked(controller, client, _device):
            controller.command("lock")
            controller.wait_reply(2)
            client.write(some_bytes(100000))

        def flooding(_controller, client, device):
            device.pause()  # the port takes no more
            client.write(some_bytes(1 << 20))
            device.write(some_bytes(1 << 20))
            self.until(lambda: len(client.received) > 1000, "the flood")

        def controller_writes(controller, _client, device):
            device.pause()
            for _ in range(20):
                controller.command("sendhex " + some_bytes(8000).hex())
            controller.wait_written(2)

        for turmoil in (locked, flooding, controller_writes):
            with self.subTest(turmoil.__name__):
                device = self.enter(rig.Device(self.loop))
                host = self.ready_host([(device.path, "COM3")])
                controller = self.zkctl()
                controller.wait_reply(1)
                client = self.enter(rig.Client(self.loop, host.client_path()))
                client.write(b"begin")
                self.until(lambda: device.received == b"begin", "the port to be open")
                turmoil(controller, client, device)
                self.assertEqual(host.stop(), 0)
                self.assertEqual(controller.wait_exit("zkctl to see the end"), 1)
                self.until(lambda: client.ended, "the client's hang-up")
                client.close()
                device.close()


if __name__ == "__main__":
    unittest.main()
