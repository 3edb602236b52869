"""The configuration file: what it sets, what is wrong with it, and what SIGHUP changes."""

import json
import os
import signal
import termios
import unittest

import support
from support import complaints, rig, some_bytes


class Config(support.RigTest):
    def setUp(self):
        super().setUp()
        self.file = os.path.join(self.directory, "ports.json")
        self.reads = 0

    def write(self, *ports):
        """The file as editors leave it: whole, or as it was before."""
        self.write_text(json.dumps({"ports": ports}))

    def write_text(self, text):
        with open(self.file + ".new", "w") as file:
            file.write(text)
        os.rename(self.file + ".new", self.file)

    def configured(self, *ports, options=()):
        self.write(*ports)
        host = self.host([], ("--config", self.file, *options))
        for port in ports:
            host.wait_ready(port["name"])
        return host

    def reload(self, host, *ports):
        self.write(*ports)
        self.hang_up(host)

    def hang_up(self, host):
        host.signal(signal.SIGHUP)
        self.reads += 1
        self.until_said(host, f"{self.file}: read again", self.reads)

    def test_every_port_has_its_own_settings(self):
        first, second = self.plug("tty1"), self.plug("tty2")
        host = self.configured(
            {"port": first.path, "name": "COM3", "line": "19200,7O2",
             "registry": {"VORLIXProxyReadLimit": 16}},
            {"port": second.path, "name": "COM4"},
            options=("--line", "4800", "--registry", "VORLIXProxyReadLimit=0x20"))
        for name, device, limit, speed in (("COM3", first.device, 16, 19200),
                                           ("COM4", second.device, 32, 4800)):
            controller = self.zkctl(name=name)
            controller.wait_reply(1)
            fd = os.open(host.client_path(name), os.O_RDWR | os.O_NOCTTY)
            self.addCleanup(os.close, fd)
            os.write(fd, b"x")
            self.receives(device, b"x", "the byte behind the settings")
            line = device.line()
            self.assertEqual(line.speed, speed)
            # Of the parity a pty keeps this bit.
            self.assertEqual([bool(line.control & flag)
                              for flag in (termios.CSTOPB, termios.PARODD)], [name == "COM3"] * 2)
            device.write(some_bytes(200))
            self.until(lambda: controller.seen("lower") == some_bytes(200), "the whole view")
            self.assertEqual(max(len(event["data"]) // 2 for event in controller.of_kind("report")
                                 if event["tag"] == "lower"), limit)

    def test_ports_come_go_and_change_beside_one_that_stays(self):
        ttys = {name: self.plug(name) for name in ("a", "b", "c", "d")}
        port = lambda tty, name, **more: {"port": ttys[tty].path, "name": name, **more}
        stays = port("b", "COM4", registry={"VORLIXProxyReadLimit": 16})
        self.write(port("a", "COM3"), stays)
        host = self.host([(ttys["d"].path, "COM9")], ("--config", self.file))
        host.wait_ready("COM4")
        host.wait_ready("COM9")
        lasting = [(name, ttys[tty].device, self.zkctl(name=name),
                    self.enter(rig.Client(self.loop, host.client_path(name))))
                   for tty, name in (("b", "COM4"), ("d", "COM9"))]
        for name, device, controller, client in lasting:
            controller.wait_reply(1)
            self.greet(client, device)

        # One is added.
        self.reload(host, port("a", "COM3"), stays, port("c", "COM5"))
        host.wait_ready("COM5")
        self.talk(host, ttys["c"].device, "COM5")
        # One is changed and one goes, with a client and a controller in the middle of something.
        leaving = self.zkctl(name="COM3")
        leaving.wait_reply(1)
        leaver = self.enter(rig.Client(self.loop, host.client_path("COM3")))
        self.greet(leaver, ttys["a"].device)
        ttys["a"].device.pause()
        leaver.write(some_bytes(1 << 20))
        self.reload(host, stays, port("c", "COM5", line="9600"))
        self.assertEqual(leaving.wait_exit("the controller of the port that goes"), 1)
        self.until(lambda: leaver.ended, "the hang-up of its client")
        self.until_said(host, "COM3: removed")
        host.wait_ready("COM5", 2)
        self.assertFalse(os.path.lexists(host.client_path("COM3")))
        # Two swap their ttys.
        swapped = port("b", "COM4", registry={"VORLIXProxyReadLimit": "0x10"})  # the same
        self.reload(host, port("a", "COM5"), port("c", "COM3"), swapped)
        host.wait_ready("COM5", 3)
        host.wait_ready("COM3", 2)
        self.talk(host, ttys["c"].device, "COM3")

        for name, device, controller, client in lasting:
            self.greet(client, device)
            self.assertEqual(host.times_ready(name), 1)
            self.assertEqual(controller.quit(), 0)

    def test_tty_or_name_that_cannot_be_had_yet(self):
        tty, other = self.plug(), self.plug("other")
        host = self.configured({"port": tty.path, "name": "COM3"})
        there = {"port": tty.path, "name": "COM3"}
        other.unplug()
        later = {"port": other.path, "name": "COM4"}
        self.reload(host, there, later)
        self.until_said(host, f"COM4: {other.path}: no such device; waiting for it")
        other.plug_in()
        host.wait_ready("COM4")
        self.assertEqual(complaints(host)[-1],
                         f"COM4: {other.path}: the device is there ({other.device.path})")
        # One that cannot be claimed is asked for again the next time.
        third = {"port": self.plug("third").path, "name": "COM5"}
        taken = os.path.join(self.directory, "COM5")
        os.mkdir(taken)
        self.reload(host, there, later, third)
        self.until_said(host, f"COM5: {taken}: exists and is no link of an earlier run")
        os.rmdir(taken)
        self.hang_up(host)
        host.wait_ready("COM5")
        # One that is away goes as well.
        other.unplug()
        self.until_said(host, f"COM4: {other.path}: the device is gone ({other.device.path})")
        self.reload(host, there)
        self.until_said(host, "COM4: removed")
        self.assertEqual(host.times_ready("COM3"), 1)

    def test_last_content_wins(self):
        tty = self.plug()
        ways = [({"port": tty.path, "name": name, "line": line},)
                for name in ("COM3", "COM4") for line in ("9600", "19200")] + [()]
        host = self.configured(*ways[0])
        for turn in range(60):
            self.write(*ways[turn * 7 % len(ways)])
            host.signal(signal.SIGHUP)
            for _ in range(turn % 4):
                self.loop.selector.select(0)
        last = {"port": tty.path, "name": "COM5"}
        self.write(last)
        host.signal(signal.SIGHUP)
        host.wait_ready("COM5")
        self.talk(host, tty.device, "COM5")
        self.assertEqual([name for name in sorted(os.listdir(self.directory)) if "COM" in name],
                         [".COM5.lock", "COM5", "VORLIX_COM5"])

    def test_end_in_the_middle_of_a_change(self):
        tty, other = self.plug(), self.plug("other")
        ways = [({"port": tty.path, "name": "COM3"},), ({"port": other.path, "name": "COM3"},)]
        for first, second in ((signal.SIGHUP, signal.SIGTERM), (signal.SIGTERM, signal.SIGHUP)):
            host = self.configured(*ways[0])
            client = self.enter(rig.Client(self.loop, host.client_path()))
            self.greet(client, tty.device)
            self.write(*ways[1])
            host.signal(first)
            host.signal(second)
            self.assertEqual(host.wait_exit("the host to end"), 0)
            self.assertEqual([name for name in os.listdir(self.directory) if "COM" in name], [])
            client.close()

    def test_hang_up_without_a_file(self):
        tty = self.plug()
        host = self.ready_host([(tty.path, "COM3")])
        host.signal(signal.SIGHUP)
        self.until_said(host, "SIGHUP is ignored: there is no --config to read again")
        self.talk(host, tty.device)

    def wrong_files(self, tty, other):
        """What is wrong, and what is said of it. The command line has COM3 on tty."""
        good = {"port": self.directory + "/third", "name": "COM5"}
        entries = [
            ("COM5", ": expected an object"),
            ({"port": "/dev/ttyS9"}, ': "name" is missing'),
            (good | {"prot": "x"}, ".prot: unknown"),
            (good | {"port": 7}, ".port: expected text"),
            (good | {"port": ""}, ".port: expected the path of a serial device"),
            (good | {"port": tty}, f".port: {tty} is given twice"),
            (good | {"name": "../x"}, '.name: "../x" is no name for a port'),
            (good | {"name": "com4"}, ".name: com4 is given twice"),
            (good | {"name": "COM3"}, ".name: COM3 is given twice"),
            (good | {"registry": []}, ".registry: expected an object"),
            (good | {"registry": {"X": -1}}, ".registry.X: expected a number of 32 bits or text"),
            (good | {"registry": {"X": 1 << 32}}, ".registry.X: 4294967296 does not fit 32 bits"),
            (good | {"line": "9600,9N1"}, '.line: "9600,9N1" is no line as 9600,7E1'),
        ]
        return [
            ([], 'expected an object with the array "ports"'),
            ({"ports": [], "port": 1}, "port: unknown"),
            *(({"ports": [{"port": other, "name": "COM4"}, entry]}, "ports[1]" + reason)
              for entry, reason in entries),
            ('{"ports": [{"name": "COM4", "name": "COM5"}]}', 'an object has "name" twice'),
            ('{"ports": [\n  {"name" "COM4"}]}', "parse error at line 2, column 16: syntax error"),
            ("", "parse error at line 1, column 1: syntax error"),
            (None, "No such file or directory"),
        ]

    def test_wrong_file_changes_nothing(self):
        tty, other = self.plug(), self.plug("other")
        self.write({"port": other.path, "name": "COM4"})
        host = self.host([(tty.path, "COM3")], ("--config", self.file))
        host.wait_ready("COM4")
        client = self.enter(rig.Client(self.loop, host.client_path("COM4")))
        self.greet(client, other.device)
        for number, (content, reason) in enumerate(self.wrong_files(tty.path, other.path)):
            if content is None:
                os.unlink(self.file)
            else:
                self.write_text(content if isinstance(content, str) else json.dumps(content))
            host.signal(signal.SIGHUP)
            self.until(lambda: len(complaints(host)) > number, reason)
            self.assertEqual(len(complaints(host)), number + 1)
            said = complaints(host)[number]
            self.assertTrue(said.startswith(f"{self.file}: {reason}"), said)
            self.assertTrue(said.endswith("; nothing is changed"), said)
        self.greet(client, other.device)
        self.assertEqual(host.lines, [
            f"ready {name} {host.client_path(name)} {host.control_path(name)}"
            for name in ("COM3", "COM4")])

    def test_wrong_file_at_the_start_is_wrong_use(self):
        self.write({"port": "/dev/x", "name": ""})
        host = self.host([], ("--config", self.file))
        self.assertEqual(host.wait_exit("the host to refuse"), 2)
        self.assertEqual(host.errors[0],
                         f'--config: {self.file}: ports[0].name: "" is no name for a port')


if __name__ == "__main__":
    unittest.main()
