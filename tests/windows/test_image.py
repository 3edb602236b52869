"""The built driver image passes its checks, and every check can fail."""

import contextlib
import io
import pathlib
import struct
import tempfile
import unittest

from support import CROSS_COMPILER, IMAGE_BUILD, build_image, run

import check_image

IMAGE = IMAGE_BUILD / "vorlix.sys"
OBJECTS = IMAGE_BUILD / "objects"


def setUpModule():
    build_image(IMAGE_BUILD)


class Damage:
    """A copy of the image with ways to spoil it; the checksum is mended afterwards."""

    def __init__(self, image):
        self.image = image
        self.data = bytearray(image.data)
        (self.pe,) = struct.unpack_from("<I", image.data, 0x3C)
        self.optional = self.pe + 24

    def put(self, form, offset, *values):
        struct.pack_into(form, self.data, offset, *values)

    def put_directory(self, index, address, size):
        self.put("<II", self.image.directory_offset + 8 * index, address, size)

    def at_directory(self, index):
        return self.image.offset(self.image.directory(index)[0])

    def replace(self, old, new):
        assert len(old) == len(new) and self.data.count(old) == 1, (old, self.data.count(old))
        self.data[:] = self.data.replace(old, new)

    def mend_checksum(self):
        field = self.image.checksum_offset
        self.put("<I", field, check_image.checksum(bytes(self.data), field))

    def section_header(self, name):
        return self.data.index(name.ljust(8, b"\0"), self.optional)


def import_by_number(damage):
    lookup, table = (damage.image.unpack("<I", damage.image.directory(check_image.IMPORTS)[0] + at)
                     for at in (0, 16))
    damage.put("<Q", damage.image.offset(lookup[0] or table[0]), 1 << 63 | 7)


def swap_functions(damage):
    at = damage.at_directory(check_image.EXCEPTIONS)
    first, second = damage.data[at : at + 12], damage.data[at + 12 : at + 24]
    damage.data[at : at + 24] = second + first


def point_at_entry(damage):
    image = damage.image
    damage.put("<Q", image.offset(next(check_image.relocated(image))), image.base + image.entry)


def drop_last_message_block(damage):
    """The last run of codes, from 0xC006000B on; the resource is otherwise whole."""
    table = check_image.resource(damage.image, check_image.RESOURCE_MESSAGES)
    at = damage.data.index(table)
    (blocks,) = struct.unpack_from("<I", table)
    damage.put("<I", at, blocks - 1)


# What is damaged, what the check says, and how.
DAMAGES = [
    ("machine: machine 0x14c", lambda d: d.put("<H", d.pe + 4, 0x14C)),
    ("machine: marked as a library", lambda d: d.put("<H", d.pe + 22, 0x2022)),
    ("machine: not marked as exec", lambda d: d.put("<H", d.pe + 22, 0x0020)),
    ("subsystem: subsystem 2", lambda d: d.put("<H", d.optional + 68, 2)),
    ("exports: the image has an export",
     lambda d: d.put_directory(check_image.EXPORTS, d.image.entry, 40)),
    ("exports: the image has thread-local",
     lambda d: d.put_directory(check_image.THREAD_LOCALS, d.image.entry, 40)),
    ("imports: no import table", lambda d: d.put_directory(check_image.IMPORTS, 0, 0)),
    ("imports: imported but not in imports.txt: IoDeleteDevicf\n",
     lambda d: d.replace(b"IoDeleteDevice\0", b"IoDeleteDevicf\0")),
    ("imports: imports from ntoskrnl.exf",
     lambda d: d.replace(b"ntoskrnl.exe\0", b"ntoskrnl.exf\0")),
    ("imports: import by number 7", import_by_number),
    ("relocations: relocations are stripped", lambda d: d.put("<H", d.pe + 22, 0x0023)),
    ("relocations: no relocations", lambda d: d.put_directory(check_image.RELOCATIONS, 0, 0)),
    ("relocations: bad block",
     lambda d: d.put("<I", d.at_directory(check_image.RELOCATIONS) + 4, 0x7FFFFFF0)),
    ("relocations: relocation of kind 3",
     lambda d: d.put("<H", d.at_directory(check_image.RELOCATIONS) + 8, 0x3000)),
    ("relocations: dynamic base", lambda d: d.put("<H", d.optional + 70, 0x0100)),
    ("relocations: no-execute", lambda d: d.put("<H", d.optional + 70, 0x0040)),
    ("unwind data: no function table", lambda d: d.put_directory(check_image.EXCEPTIONS, 0, 0)),
    ("unwind data: the function table is not in .pdata",
     lambda d: d.put_directory(check_image.EXCEPTIONS, d.image.entry, 24)),
    ("unwind data: function table out of order", swap_functions),
    ("versions: system version 4.0", lambda d: d.put("<HH", d.optional + 40, 4, 0)),
    ("versions: image version 0.0", lambda d: d.put("<HH", d.optional + 44, 0, 0)),
    ("versions: subsystem version 10.1", lambda d: d.put("<HH", d.optional + 48, 10, 1)),
    ("sections: .text is writable and executable",
     lambda d: d.put("<I", d.section_header(b".text") + 36, 0xE0000020)),
    ("sections: .text is discardable",
     lambda d: d.put("<I", d.section_header(b".text") + 36, 0x62000020)),
    ("sections: INIT is not discardable",
     lambda d: d.put("<I", d.section_header(b"INIT") + 36, 0x60000020)),
    ("entry point: entry 0x1000 is not in INIT", lambda d: d.put("<I", d.optional + 16, 0x1000)),
    ("entry point: leads to INIT",
     lambda d: d.put("<I", d.section_header(b"INIT") + 8, 0x2800)),  # over .rdata
    ("entry point: leads to INIT: the word", point_at_entry),
    ("message texts: no resources", lambda d: d.put_directory(check_image.RESOURCES, 0, 0)),
    ("message texts: the text of 0x40060002 differs",
     lambda d: d.replace("driver was loaded".encode("utf-16-le"),
                         "driver was l0aded".encode("utf-16-le"))),
    ("message texts: no text for 0xc006000b", drop_last_message_block),
    ("version: no fixed version", lambda d: d.replace(b"\xbd\x04\xef\xfe", b"\xbd\x04\xef\xff")),
    ("file: no PE header", lambda d: d.put("<I", 0x3C, 0x40)),
    ("file: no DOS header", lambda d: d.put("<H", 0, 0)),
]


class ImageTest(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def check(self, image, *options):
        """The exit code and what was printed."""
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            code = check_image.main([str(image), "--objects", str(OBJECTS), *map(str, options)])
        return code, output.getvalue()

    def assert_fails(self, expected, image, *options):
        code, output = self.check(image, *options)
        self.assertEqual(code, 1, output)
        self.assertIn(f"FAILED {expected}", output)

    def test_built_images_pass_every_check(self):
        for folder in (IMAGE_BUILD, IMAGE_BUILD / "clang"):
            code, output = self.check(folder / "vorlix.sys", "--objects", folder / "objects")
            self.assertEqual(code, 0, output)
        names = [line.split(":")[0] for line in output.splitlines()]
        self.assertEqual(names, list(check_image.CHECKS))

    def test_each_damage_is_found(self):
        image = check_image.Image(IMAGE.read_bytes())
        path = self.directory / "vorlix.sys"
        for expected, spoil in DAMAGES:
            with self.subTest(expected):
                damage = Damage(image)
                spoil(damage)
                damage.mend_checksum()
                path.write_bytes(damage.data)
                self.assert_fails(expected, path)

    def test_wrong_checksum_and_truncation_are_found(self):
        path = self.directory / "vorlix.sys"
        data = IMAGE.read_bytes()
        path.write_bytes(data[:-1] + bytes([data[-1] ^ 1]))
        self.assert_fails("checksum: ", path)
        for length in (1, 0x60, 0x120, 0x600):
            path.write_bytes(data[:length])
            self.assert_fails("", path)

    def test_control_device_descriptor_admits_only_the_system(self):
        account = struct.pack("<BB6sI", 1, 1, bytes([0, 0, 0, 0, 0, 5]), 18)  # S-1-5-18
        entry = struct.pack("<BBHI", 0, 0, 8 + len(account), 0x10000000) + account
        entries = struct.pack("<BBHHH", 2, 0, 8 + len(entry), 1, 0) + entry
        descriptor = struct.pack("<BBHIIII", 1, 0, 0x9004, 0, 0, 0, 20) + entries
        self.assertEqual(IMAGE.read_bytes().count(descriptor), 1)

    def test_import_list_must_be_sorted_and_current(self):
        imports = self.directory / "imports.txt"
        names = (check_image.HERE / "imports.txt").read_text(encoding="ascii").split()
        for text, expected in [
            (names + ["zz"], "imports: in imports.txt but not imported: zz\n"),
            (names[1:], f"imports: imported but not in imports.txt: {names[0]}\n"),
            (names[::-1], "imports: imports.txt is not sorted"),
        ]:
            imports.write_text("\n".join(text), encoding="ascii")
            self.assert_fails(expected, IMAGE, "--imports", imports)

    def test_text_without_a_message_is_found(self):
        events = self.directory / "events.mc"
        text = (check_image.HERE / "events.mc").read_text(encoding="ascii")
        events.write_text(text[: text.rindex("MessageId=")], encoding="ascii")
        expected = "message texts: 0xc0060011 is not in events.mc"
        self.assert_fails(expected, IMAGE, "--events", events)

    def test_constructor_of_a_global_is_found(self):
        source = self.directory / "global.cpp"
        source.write_text("int Compute();\nint Value = Compute();\n", encoding="ascii")
        run(*CROSS_COMPILER, "-c", source, "-o", self.directory / "global.o")
        self.assert_fails("constructors: runs before the entry", IMAGE, "--objects", self.directory)


if __name__ == "__main__":
    unittest.main()
