"""Bytes between client, port and controller: all of them, once each, in order."""

import unittest

import support
from support import ALL_BYTES, rig, some_bytes


class Bytes(support.PortTest):
    def both_ways(self, client):
        self.greet(client)
        for size in (1, 255, 4096, 65536):
            to_port = ALL_BYTES + some_bytes(size, size)
            to_client = some_bytes(size, size + 1) + ALL_BYTES
            client.write(to_port)
            self.device.write(to_client)
            self.until(lambda: not client.queued and not self.device.queued
                       and len(self.device.received) >= len(client.sent)
                       and len(client.received) >= len(self.device.sent),
                       f"{size} bytes both ways at once")
        self.assertEqual(self.device.received, client.sent)
        self.assertEqual(client.received, self.device.sent)

    def test_idle_is_transparent(self):
        self.both_ways(self.client())

    def test_idle_with_a_controller_is_transparent_and_unseen(self):
        controller = self.controller(["-e", "mode idle"])
        controller.wait_reply(2)
        self.both_ways(self.client())
        self.assertEqual(controller.seen("client") + controller.seen("lower"), b"")

    def test_normal_delivers_everything_and_shows_everything(self):
        controller = self.controller()
        client = self.client()
        self.both_ways(client)
        self.until(lambda: len(controller.seen("client")) >= len(client.sent)
                   and len(controller.seen("lower")) >= len(self.device.sent), "the whole view")
        self.assertEqual(controller.seen("client"), bytes(client.sent))
        self.assertEqual(controller.seen("lower"), bytes(self.device.sent))

    def test_controller_writes_between_the_client_s_bytes(self):
        controller = self.controller()
        client = self.client()
        client.write(b"client 1 ")
        self.receives(self.device, b"client 1 ", "the client's bytes")
        controller.command(r"send zk \x00\xff ")
        self.receives(self.device, b"client 1 zk \x00\xff ", "the controller's bytes")
        self.assertEqual(controller.wait_written(2), {
            "event": "written", "status": 0, "information": rig.FRAME_HEADER.size + 6})
        controller.command("sendhex " + some_bytes(20000).hex())
        self.until(lambda: len(self.device.received) >= 20015, "a large frame")
        client.write(b"client 2")
        self.receives(self.device, b"client 1 zk \x00\xff " + some_bytes(20000) + b"client 2",
                      "everything in order")
        self.until(lambda: controller.seen("client") == b"client 1 client 2", "the copies")

    def test_messages_come_at_their_level(self):
        controller = self.controller(["--level", "5"])
        self.greet(self.client())
        self.until(lambda: "Client write to \\DosDevices\\VORLIX_COM3\n" in controller.texts(),
                   "the message of the write")

    def test_controller_that_never_reads_stops_nobody(self):
        raw = self.raw_controller(reading=False)
        raw.read(True)
        self.assertEqual(raw.control(1, 1, 2).status, 0)  # NORMAL
        raw.read(False)
        client = self.client()
        data = some_bytes(1 << 20)
        client.write(data)
        self.until(lambda: len(self.device.received) >= len(data), "a megabyte", 30)
        self.assertEqual(self.device.received, data)
        self.device.write(b"still here")
        self.until(lambda: client.received.endswith(b"still here"), "the other direction")
        # Whatever was held for the controller is still whole when it reads at last.
        raw.read(True)
        self.until(lambda: sum(len(frame.payload) for frame in raw.frames
                               if frame.type == rig.FRAME_REPORT) >= len(data) + 10,
                   "the controller's copy", 30)
        copy = b"".join(frame.payload for frame in raw.frames
                        if frame.type == rig.FRAME_REPORT and frame.tag == rig.TAG_CLIENT)
        self.assertEqual(copy, data)
        self.assertEqual(raw.odd, [])


if __name__ == "__main__":
    unittest.main()
