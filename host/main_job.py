"""The main job: the whole life of a port that a controller watches, with a real tty, a real client
and the real programs. Shows the controller's view as it happens and ends with one line that says
what was written, delivered, seen and lost. Exit status 0 only if every byte is accounted for.

Usage: main_job.py BUILD-DIRECTORY"""

import hashlib
import os
import random
import re
import signal
import sys
import tempfile
import termios
import time

import rig

SECONDS = 14.0
BLOCK = 65536
DUMP_LINES = 4  # of a long hexadecimal dump that are shown
REPORTS = 3  # of a large block that are shown

COLOURS = {"host": "35", "zk": "33", "client": "36", "device": "32"}
DUMP = re.compile(r"  [0-9a-f]{8} ((?:  ?[0-9a-f]{2}){1,16}) ")
REPORT = re.compile(r"\S+Z (client wrote|port sent) (\d+) bytes")
SENT = re.compile(r"\S+Z send: written, (\d+) bytes$")


class Amiss(Exception):
    pass


class Screen:
    def __init__(self):
        self.colour = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
        self.start = time.monotonic()

    def say(self, role, text):
        name = f"{role:<6}"
        if self.colour:
            name = f"\033[{COLOURS[role]}m{name}\033[0m"
        print(f"{time.monotonic() - self.start:6.3f} {name} | {text}", flush=True)


class Meter(rig.Device):
    """A measuring device. It answers every line but those with a ! in front, takes a block of bytes
    after BLOCK n and gives one after FETCH n, and reports on its own when told to by the job."""

    def __init__(self, loop, screen):
        self.screen = screen
        self.random = random.Random(2)
        self.line_so_far = bytearray()
        self.block_left = 0
        self.block = hashlib.sha256()
        super().__init__(loop, self.take)

    def take(self, data):
        while data:
            if self.block_left:
                data = self.take_block(data)
                continue
            line, end, data = data.partition(b"\n")
            self.line_so_far += line
            if end:
                line = bytes(self.line_so_far)
                self.line_so_far.clear()
                self.take_line(line)

    def take_line(self, line):
        self.screen.say("device", f"received {shown(line)}")
        if line.startswith(b"BLOCK "):
            self.block_left = int(line[6:])
            self.block = hashlib.sha256()
        elif line.startswith(b"FETCH "):
            self.write(self.random.randbytes(int(line[6:])))
        elif not line.startswith(b"!"):
            self.write(b"meter: " + line + b"\n")

    def take_block(self, data):
        part, rest = data[:self.block_left], data[self.block_left:]
        self.block.update(part)
        self.block_left -= len(part)
        if not self.block_left:
            self.screen.say("device", "received the block")
            self.write(b"meter: block " + self.block.hexdigest().encode() + b"\n")
        return rest


class View:
    """zkctl as a person sees it: its lines are shown, and its dumps read back as bytes."""

    def __init__(self, loop, screen, program, directory):
        self.loop = loop
        self.screen = screen
        self.seen = {"client wrote": bytearray(), "port sent": bytearray()}
        self.announced = 0
        self.sent = 0
        self.into = None
        self.dumped = 0
        self.brief = False
        self.reports = 0  # while brief
        self.process = rig.Process(loop, [program, "COM3", "--dir", directory, "--level", "5"],
                                   on_line=self.take,
                                   on_error=lambda line: screen.say("zk", line))

    def take(self, line):
        dump = DUMP.match(line)
        if dump and self.into is not None:
            self.into += bytes.fromhex(dump[1])
            self.dumped += 1
            if self.dumped <= DUMP_LINES:
                self.show(line)
            elif self.dumped == DUMP_LINES + 1:
                self.show("  ...")
            return
        report, sent = REPORT.match(line), SENT.match(line)
        self.into = self.seen[report[1]] if report else None
        self.dumped = 0
        if report:
            self.announced += int(report[2])
            self.reports += self.brief
        if sent:
            self.sent += int(sent[1]) - rig.FRAME_HEADER.size
        self.show(line)

    def show(self, line):
        if not self.brief or self.reports <= REPORTS or self.into is None:
            self.screen.say("zk", line)

    def be_brief(self, brief):
        if self.brief and self.reports > REPORTS:
            self.screen.say("zk", f"... and {self.reports - REPORTS} more reports")
        self.brief = brief
        self.reports = 0

    def command(self, text):
        self.process.stdin.write(text.encode() + b"\n")

    def await_line(self, ending, what, since=0):
        self.loop.until(
            lambda: self.process.status is not None
            or any(line.endswith(ending) for line in self.process.lines[since:]), what)
        if self.process.status is not None:
            raise Amiss(f"zkctl ended with status {self.process.status} before {what}")

    def control(self, text, answer):
        since = len(self.process.lines)
        self.screen.say("zk", f"> {text}")
        self.command(text)
        self.await_line(answer, f"the answer '{answer}'", since)


def shown(data):
    return data.decode("latin-1") if data.isascii() else f"{len(data)} bytes"


class Job:
    def __init__(self, build, directory):
        self.build = build
        self.directory = directory
        self.screen = Screen()
        self.loop = rig.Loop()
        self.loop.deadline = time.monotonic() + SECONDS
        self.device = Meter(self.loop, self.screen)
        self.host = self.view = self.client = None
        self.to_port = bytearray()  # what the parties have written to the port, in order
        self.parties = [self.device]

    def close(self):
        for party in reversed(self.parties):
            party.close()
        self.loop.close()

    # The steps.

    def start(self):
        self.host = rig.Host(self.loop, os.path.join(self.build, "host/vorlix-host"),
                             self.directory, [(self.device.path, "COM3")],
                             on_line=lambda line: self.screen.say("host", line),
                             on_error=lambda line: self.screen.say("host", line))
        self.parties.append(self.host)
        self.host.wait_ready()
        self.view = View(self.loop, self.screen, os.path.join(self.build, "zkctl/zkctl"),
                         self.directory)
        self.parties.append(self.view.process)
        self.view.await_line("setlevel: success", "NORMAL and the message level")

    def open_client(self):
        self.screen.say("client", "opens the port at 38400 bits a second")
        self.client = rig.Client(self.loop, self.host.client_path(), termios.B38400)
        self.parties.append(self.client)
        self.client_writes(b"hello, port\n")
        self.settle("the answer to the first line")
        if self.device.line().speed != 38400:
            raise Amiss("the line speed that the client set has not reached the port")

    def talk(self):
        for number in range(3):
            self.device.write(b"meter: telemetry %d\n" % number)
        self.settle("the telemetry")
        self.client_writes(b"BLOCK 256\n" + bytes(range(256)))
        self.settle("all 256 byte values")
        self.zk_sends(b"reading?\\n", b"reading?\n")
        self.settle("the answer to ZK's question")

    def transfer(self):
        self.view.control("level 1", "setlevel: success")
        self.view.be_brief(True)
        self.client_writes(b"BLOCK %d\n" % BLOCK + random.Random(1).randbytes(BLOCK))
        self.settle("the large block to the port")
        self.view.be_brief(True)
        self.client_writes(b"FETCH %d\n" % BLOCK)
        self.loop.until(lambda: len(self.device.sent) > BLOCK, "the device to send its block")
        self.settle("the large block to the client")
        self.view.be_brief(False)

    # While the stream is locked the port's bytes are ZK's alone, so that nobody asks the device for
    # any: its lines with a ! want no answer. ZK's second line arrives behind the client's, which
    # are held back all the same.
    def lock(self):
        self.view.control("lock", "lockstream: success")
        held = b"".join(b"held back %d\n" % number for number in range(3))
        self.screen.say("client", "writes 3 lines while the stream is locked")
        self.client.write(held)
        for line in (b"!calibrate\\n", b"!zero\\n"):
            self.zk_sends(line, line.replace(b"\\n", b"\n"))
            self.loop.until(lambda: len(self.device.received) >= len(self.to_port),
                            "ZK's line at the device")
        if self.device.received != self.to_port:
            raise Amiss("the client's bytes have reached the port while the stream is locked")
        self.to_port += held
        self.view.control("unlock", "unlockstream: success")
        self.settle("what was held back")

    def finish(self):
        self.screen.say("client", "closes the port")
        self.client.close()
        self.screen.say("zk", "> quit")
        self.view.command("quit")
        status = self.view.process.wait_exit("zkctl to quit")
        if status != 0:
            raise Amiss(f"zkctl ended with status {status}")
        self.host.signal(signal.SIGTERM)
        status = self.host.wait_exit("the host to end after SIGTERM")
        if status != 0:
            raise Amiss(f"the host ended with status {status}")

    # What the steps are made of.

    def client_writes(self, data):
        line, _, block = data.partition(b"\n")
        self.screen.say("client", f"writes {shown(line)}" +
                        (f" and {len(block)} bytes" if block else ""))
        self.to_port += data
        self.client.write(data)

    def zk_sends(self, text, data):
        self.screen.say("zk", f"> send {text.decode()}")
        self.to_port += data
        self.view.command("send " + text.decode())

    def settle(self, what):
        """Until the device has everything, nothing more to answer, and both sides its answers."""
        seen = self.view.seen
        self.loop.until(
            lambda: len(self.device.received) >= len(self.to_port) and not self.device.queued
            and len(self.client.received) >= len(self.device.sent)
            and len(seen["client wrote"]) >= len(self.client.sent)
            and len(seen["port sent"]) >= len(self.device.sent), what)
        self.screen.say("client", f"has received {len(self.client.received)} bytes")

    def counts(self):
        wrote = len(self.client.sent) if self.client else 0
        sent = len(self.device.sent)
        seen = sum(len(each) for each in self.view.seen.values()) if self.view else 0
        got = len(self.client.received) if self.client else 0
        by_zk = self.view.sent if self.view else 0
        lost = (abs(wrote + by_zk - len(self.device.received)) + abs(sent - got)
                + abs(wrote + sent - seen))
        return (f"client wrote {wrote} bytes, port received {len(self.device.received)}; "
                f"port sent {sent}, client received {got}; ZK saw {seen} of {wrote + sent}, "
                f"ZK sent {by_zk}; lost {lost}")

    def compare(self):
        seen = self.view.seen
        pairs = [
            ("what the port received is not what was written to it",
             self.device.received, self.to_port),
            ("what the client received is not what the port sent",
             self.client.received, self.device.sent),
            ("what ZK saw of the client is not what the client wrote",
             seen["client wrote"], self.client.sent),
            ("what ZK saw of the port is not what the port sent",
             seen["port sent"], self.device.sent),
        ]
        for complaint, left, right in pairs:
            if left != right:
                raise Amiss(complaint)
        counted = len(self.client.sent) + self.view.sent
        if counted != len(self.device.received):
            raise Amiss("ZK's own account of what it sent does not add up")
        if self.view.announced != len(self.client.sent) + len(self.device.sent):
            raise Amiss("ZK's byte counts are not those of its dumps")

    def run(self):
        self.start()
        self.open_client()
        self.talk()
        self.transfer()
        self.lock()
        self.finish()
        self.compare()


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with tempfile.TemporaryDirectory(prefix="vorlix-") as directory:
        job = Job(sys.argv[1], directory)
        try:
            job.run()
        except (Amiss, rig.Overdue, OSError) as amiss:
            print(f"main job: FAILED: {amiss} ({job.counts()})", flush=True)
            return 1
        finally:
            job.close()
    print(f"main job: ok ({job.counts()})", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
