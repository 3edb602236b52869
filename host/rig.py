"""The parties around a port, for programs that drive one for real: the device behind the port's tty,
a client, the host program, a controller. All of them live on one loop and in one thread, and every
wait on the loop has a bound and says what it waited for."""

import collections
import errno
import fcntl
import json
import os
import selectors
import signal
import socket
import struct
import subprocess
import termios
import time
import tty

CHUNK = 65536

FRAME_HEADER = struct.Struct("<IIQII")  # length, type, timestamp, tag, code
FRAME_REPORT, FRAME_DATA, FRAME_CONTROL, FRAME_CONTROL_REPLY = 1, 2, 3, 4
TAG_CLIENT, TAG_LOWER, TAG_DRIVER = 0, 1, 4
RECORD = struct.Struct("<IIII")  # length, type, status, information
RECORD_COMPLETION, RECORD_OPEN_RESULT = 0x80000000, 0x80000001

# The kernel's own settings of a tty; the C library's know only a few speeds.
TERMIOS2 = struct.Struct("=IIIIB19sII")  # input, output, control, local, line, chars, two speeds
TCGETS2 = 0x802C542A

LineSettings = collections.namedtuple("LineSettings", "speed control")
Frame = collections.namedtuple("Frame", "type tag code payload")
Record = collections.namedtuple("Record", "status information")


class Overdue(Exception):
    """Something awaited did not come in its time."""


class Loop:
    def __init__(self):
        self.selector = selectors.DefaultSelector()
        self.deadline = None  # of everything together

    def close(self):
        self.selector.close()

    def watch(self, fd, ready, events=selectors.EVENT_READ):
        """Has ready(events) called from `until`; events 0 ends it."""
        known = fd in self.selector.get_map()
        if not events:
            if known:
                self.selector.unregister(fd)
        elif known:
            self.selector.modify(fd, events, ready)
        else:
            self.selector.register(fd, events, ready)

    def until(self, condition, what, seconds=10.0):
        deadline = time.monotonic() + seconds
        if self.deadline is not None:
            deadline = min(deadline, self.deadline)
        while not condition():
            left = deadline - time.monotonic()
            if left <= 0:
                raise Overdue(f"gave up waiting for {what}")
            for key, events in self.selector.select(left):
                # A handler before it in this round may have ended the watch.
                if self.selector.get_map().get(key.fd) is key:
                    key.data(events)


class Stream:
    """A descriptor on the loop: what comes is collected, what is written goes as it can."""

    def __init__(self, loop, fd, on_data=None):
        self.loop = loop
        self.fd = fd
        self.on_data = on_data
        self.received = bytearray()
        self.sent = bytearray()  # what the descriptor has taken
        self.queued = bytearray()
        self.reading = True
        self.ended = False
        os.set_blocking(fd, False)
        self._watch()

    def write(self, data):
        self.queued += data
        self._flush()

    def pause(self):
        self.reading = False
        self._watch()

    def resume(self):
        self.reading = True
        self._watch()

    def close(self):
        if self.fd >= 0:
            self.loop.watch(self.fd, None, 0)
            os.close(self.fd)
            self.fd = -1
        self.ended = True

    def _watch(self):
        if self.fd < 0:
            return
        events = selectors.EVENT_READ if self.reading and not self.ended else 0
        if self.queued and not self.ended:
            events |= selectors.EVENT_WRITE
        self.loop.watch(self.fd, self._ready, events)

    def _ready(self, events):
        if events & selectors.EVENT_WRITE:
            self._flush()
        if events & selectors.EVENT_READ and not self.ended:
            self._fill()

    def _flush(self):
        while self.queued and not self.ended:
            try:
                count = os.write(self.fd, self.queued[:CHUNK])
            except BlockingIOError:
                break
            except OSError:
                self.ended = True
                break
            self.sent += self.queued[:count]
            del self.queued[:count]
        self._watch()

    def _fill(self):
        try:
            data = os.read(self.fd, CHUNK)
        except BlockingIOError:
            return
        except OSError as error:
            if error.errno != errno.EIO:  # how a tty says that its other end is gone
                raise
            data = b""
        if not data:
            self.ended = True
            self._watch()
            return
        self.received += data
        if self.on_data:
            self.on_data(data)


class Device(Stream):
    """What is plugged into the port: the far end of the tty that the host is given."""

    def __init__(self, loop, on_data=None):
        master, self.slave = os.openpty()
        tty.setraw(self.slave)  # before the host sets the line nothing may be echoed
        self.path = os.ttyname(self.slave)
        super().__init__(loop, master, on_data)

    def line(self):
        """The settings that the port has now, any speed included."""
        _, _, control, _, _, _, _, speed = TERMIOS2.unpack(
            fcntl.ioctl(self.slave, TCGETS2, bytes(TERMIOS2.size)))
        return LineSettings(speed, control)

    def close(self):
        super().close()
        if self.slave >= 0:
            os.close(self.slave)
            self.slave = -1


class Plug:
    """A place for one device after the other: a link that leads to the tty of the present one."""

    def __init__(self, loop, path):
        self.loop = loop
        self.path = str(path)
        self.device = None
        self.plug_in()

    def plug_in(self):
        """Another device, at once in place of one that is still there, and left as it is."""
        self.device = Device(self.loop)
        fresh = self.path + ".new"
        os.symlink(self.device.path, fresh)
        os.rename(fresh, self.path)
        return self.device

    def unplug(self):
        os.unlink(self.path)
        self.device.close()

    def close(self):
        self.device.close()


class Client(Stream):
    """A program that has the port open."""

    def __init__(self, loop, path, speed=termios.B115200, on_data=None):
        fd = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        super().__init__(loop, fd, on_data)
        self.set_line(speed)

    def set_line(self, speed, size=termios.CS8, flags=0):
        line = termios.tcgetattr(self.fd)
        line[0] &= ~(termios.IXON | termios.IXOFF | termios.ICRNL)
        line[2] &= ~(termios.CSIZE | termios.PARENB | termios.PARODD | termios.CSTOPB)
        line[2] |= size | flags
        line[4] = line[5] = speed
        termios.tcsetattr(self.fd, termios.TCSANOW, line)


class Process:
    """A program whose lines are collected, or handed to on_line and on_error as they come."""

    def __init__(self, loop, arguments, on_line=None, on_error=None, **options):
        self.loop = loop
        self.lines, self.errors = [], []
        self.status = None
        self.process = subprocess.Popen(
            [str(argument) for argument in arguments],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        self.stdin = Stream(loop, os.dup(self.process.stdin.fileno()))
        self.stdin.pause()
        self.process.stdin.close()
        self.stdout = self._collect(self.process.stdout, self.lines, on_line)
        self.stderr = self._collect(self.process.stderr, self.errors, on_error)
        self.exit_fd = os.pidfd_open(self.process.pid)
        loop.watch(self.exit_fd, self._exited)

    def _collect(self, pipe, lines, on_line):
        partial = bytearray()

        def take(data):
            partial.extend(data)
            *whole, rest = partial.split(b"\n")
            partial[:] = rest
            for line in whole:
                text = line.decode("utf-8", "replace")
                lines.append(text)
                if on_line:
                    on_line(text)

        stream = Stream(self.loop, os.dup(pipe.fileno()), take)
        pipe.close()
        return stream

    def _exited(self, _events):
        self.status = self.process.wait()
        self.loop.watch(self.exit_fd, None, 0)

    def signal(self, number):
        if self.status is None:
            self.process.send_signal(number)

    def wait_exit(self, what, seconds=10.0):
        """The exit status, once everything that it printed is here."""
        self.loop.until(lambda: self.status is not None and self.stdout.ended and self.stderr.ended,
                        what, seconds)
        return self.status

    def close(self):
        """Ends it whatever it does. For the way out; a process that should end is waited for."""
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.exit_fd >= 0:
            self.loop.watch(self.exit_fd, None, 0)
            os.close(self.exit_fd)
            self.exit_fd = -1
        for stream in (self.stdin, self.stdout, self.stderr):
            stream.close()


class Host(Process):
    """vorlix-host with its ports: pairs of tty path and name."""

    def __init__(self, loop, program, directory, ports, options=(), **more):
        self.directory = str(directory)
        self.names = [name for _, name in ports]
        arguments = [program, "--dir", directory]
        for path, name in ports:
            arguments += ["--port", path, "--name", name]
        super().__init__(loop, arguments + list(options), **more)

    def client_path(self, name="COM3"):
        return os.path.join(self.directory, name)

    def control_path(self, name="COM3"):
        return os.path.join(self.directory, "VORLIX_" + name)

    def times_ready(self, name):
        return sum(line.split()[:2] == ["ready", name] for line in self.lines)

    def wait_ready(self, name=None, times=1, seconds=10.0):
        """Until the port, or every port of the options, was ready so many times."""
        names = [name] if name else self.names
        self.loop.until(
            lambda: self.status is not None
            or all(self.times_ready(each) >= times for each in names),
            f"the host to have {', '.join(names)} ready", seconds)
        if self.status is not None:
            raise Overdue(f"the host ended with status {self.status}: {' '.join(self.errors)}")

    def stop(self, seconds=10.0):
        self.signal(signal.SIGTERM)
        return self.wait_exit("the host to end after SIGTERM", seconds)


class Controller(Process):
    """zkctl --json, its lines as objects."""

    def __init__(self, loop, program, directory, name="COM3", options=(), **more):
        self.events = []
        super().__init__(loop, [program, name, "--dir", directory, "--json", *options],
                         on_line=lambda line: self.events.append(json.loads(line)), **more)

    def command(self, text):
        self.stdin.write(text.encode() + b"\n")

    def of_kind(self, kind):
        return [event for event in self.events if event["event"] == kind]

    def seen(self, tag):
        """Every byte seen of "client" or of "lower"."""
        return b"".join(bytes.fromhex(event["data"]) for event in self.of_kind("report")
                        if event["tag"] == tag)

    def texts(self):
        return [event["text"] for event in self.of_kind("message")]

    def wait_reply(self, tag, seconds=10.0):
        """The reply to the session's tag-th control command. The first one sets NORMAL."""
        found = lambda: [event for event in self.of_kind("reply") if event["tag"] == tag]
        self.loop.until(lambda: found() or self.status is not None,
                        f"the reply to control command {tag}", seconds)
        if not found():
            raise Overdue(f"zkctl ended with status {self.status}: {' '.join(self.errors)}")
        return found()[0]

    def wait_written(self, count, seconds=10.0):
        """The completion of the session's count-th write."""
        self.loop.until(lambda: len(self.of_kind("written")) >= count,
                        f"the completion of write {count}", seconds)
        return self.of_kind("written")[count - 1]

    def quit(self, seconds=10.0):
        self.command("quit")
        return self.wait_exit("zkctl to quit", seconds)


class RawController:
    """A controller below zkctl: any packet can be sent, and nothing is read unless wanted."""

    def __init__(self, loop, path, reading=True):
        self.loop = loop
        self.frames, self.records, self.odd = [], [], []
        self.opened = None
        self.ended = False
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.connect(path)
        self.socket.setblocking(False)
        self.read(True)
        loop.until(lambda: self.opened or self.ended, "the result of the open")
        self.read(reading)

    def read(self, wanted):
        events = selectors.EVENT_READ if wanted else 0
        self.loop.watch(self.socket.fileno(), self._ready, events)

    def _ready(self, _events):
        try:
            packet = self.socket.recv(1 << 20)
        except ConnectionResetError:
            packet = b""
        if not packet:
            self.ended = True
            self.read(False)
            return
        length, kind = struct.unpack_from("<II", packet) if len(packet) >= 8 else (0, 0)
        if length == len(packet) == RECORD.size and kind == RECORD_OPEN_RESULT:
            self.opened = Record(*RECORD.unpack(packet)[2:])
        elif length == len(packet) == RECORD.size and kind == RECORD_COMPLETION:
            self.records.append(Record(*RECORD.unpack(packet)[2:]))
        elif length == len(packet) >= FRAME_HEADER.size:
            _, kind, _, tag, code = FRAME_HEADER.unpack_from(packet)
            self.frames.append(Frame(kind, tag, code, packet[FRAME_HEADER.size:]))
        else:
            self.odd.append(packet)

    def write(self, packet):
        """Sends a packet and gives the record of its completion."""
        count = len(self.records)
        self.socket.send(packet)
        self.loop.until(lambda: len(self.records) > count or self.ended, "the completion record")
        return self.records[count] if len(self.records) > count else None

    def control(self, tag, code, argument=None):
        payload = b"" if argument is None else struct.pack("<I", argument)
        return self.write(frame(FRAME_CONTROL, tag, code, payload))

    def close(self):
        self.read(False)
        self.socket.close()


def frame(kind, tag, code, payload=b"", length=None):
    """A frame; its length field tells the truth unless another is given."""
    whole = FRAME_HEADER.size + len(payload)
    return FRAME_HEADER.pack(whole if length is None else length, kind, 0, tag, code) + payload
