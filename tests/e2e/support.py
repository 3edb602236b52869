"""What every end-to-end test stands on: a directory, a device and a host with one port in front of
it, and at the end a host that leaves with nothing left over."""

import contextlib
import os
import pathlib
import random
import signal
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("VORLIX_BUILD", ROOT / "build/debug")).resolve()
HOST = BUILD / "host/vorlix-host"
ZKCTL = BUILD / "zkctl/zkctl"

sys.path.insert(0, str(ROOT / "host"))
import rig  # noqa: E402

INVALID_PARAMETER = 0xC000000D

ALL_BYTES = bytes(range(256))


def complaints(host):
    """What the host says of itself: no event log, and no request of a client that failed."""
    return [line for line in host.errors
            if not line.startswith("event: ") and "failed: status 0x" not in line]


def some_bytes(count, seed=1):
    return random.Random(seed).randbytes(count)


class RigTest(unittest.TestCase):
    """A loop and a directory, no parties yet. What is entered is closed in the end."""

    def setUp(self):
        self.loop = rig.Loop()
        self.addCleanup(self.loop.close)
        directory = tempfile.TemporaryDirectory(prefix="vorlix-")
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        os.chmod(self.directory, 0o755)
        self.hosts = []

    def tearDown(self):
        for host in self.hosts:
            if host.status is None:
                self.assertEqual(host.stop(), 0, host.errors)

    def enter(self, party):
        self.addCleanup(party.close)
        return party

    def host(self, ports, options=()):
        self.hosts.append(self.enter(
            rig.Host(self.loop, HOST, self.directory, ports, ("--verify", *options))))
        return self.hosts[-1]

    def ready_host(self, ports):
        host = self.host(ports)
        host.wait_ready()
        return host

    def plug(self, name="tty"):
        """A place for devices, with one in it."""
        return self.enter(rig.Plug(self.loop, os.path.join(self.directory, name)))

    def until_said(self, host, line, times=1):
        self.until(lambda: host.errors.count(line) >= times or host.status is not None,
                   f"the host to say {line!r}")
        self.assertGreaterEqual(host.errors.count(line), times, host.errors)

    @contextlib.contextmanager
    def frozen(self, host):
        """While the host stands still, and so sees everything at once afterwards."""
        host.signal(signal.SIGSTOP)
        os.waitid(os.P_PID, host.process.pid, os.WSTOPPED)
        yield
        host.signal(signal.SIGCONT)

    def talk(self, host, device, name="COM3"):
        """A client comes, a byte goes each way, and it leaves."""
        client = rig.Client(self.loop, host.client_path(name))
        try:
            self.greet(client, device)
        finally:
            client.close()

    def greet(self, client, device):
        """Lets a byte go each way, so that the client's open has certainly been carried out."""
        at_client, at_device = len(client.received), len(device.received)
        client.write(b"?")
        self.until(lambda: len(device.received) > at_device, "the client's first byte")
        device.write(b"!")
        self.until(lambda: len(client.received) > at_client, "the device's first byte")

    def zkctl(self, options=(), name="COM3", **more):
        return self.enter(
            rig.Controller(self.loop, ZKCTL, self.directory, name, options, **more))

    def plain_zkctl(self, *arguments, program=ZKCTL, **more):
        """zkctl run to its end with nothing on standard input."""
        process = self.enter(rig.Process(
            self.loop, [program, *arguments, "--dir", self.directory], **more))
        process.stdin.close()
        process.wait_exit("zkctl to end")
        return process

    def until(self, condition, what, seconds=10.0):
        self.loop.until(condition, what, seconds)

    def receives(self, stream, expected, what):
        """Exactly these bytes since the test began."""
        self.until(lambda: len(stream.received) >= len(expected) or stream.ended, what)
        self.assertEqual(bytes(stream.received), bytes(expected), what)


class PortTest(RigTest):
    def setUp(self):
        super().setUp()
        self.device = self.enter(rig.Device(self.loop))
        self.port_host = self.ready_host([(self.device.path, "COM3")])

    def client(self, name="COM3", **more):
        return self.enter(rig.Client(self.loop, self.port_host.client_path(name), **more))

    def controller(self, options=(), name="COM3"):
        """A controller that has the port in NORMAL."""
        controller = self.zkctl(options, name)
        self.assertEqual(controller.wait_reply(1)["code"], 0)
        return controller

    def raw_controller(self, reading=True):
        raw = self.enter(rig.RawController(self.loop, self.port_host.control_path(), reading))
        self.assertEqual(raw.opened.status, 0)
        return raw

    def greet(self, client, device=None):
        super().greet(client, device or self.device)
