#!/usr/bin/env python3
"""Checks that a built driver image is what the system's loader and the event log expect.

Prints a line for each check and stops at the first that fails.
"""

import argparse
import pathlib
import re
import struct
import subprocess
import sys

import event_texts

HERE = pathlib.Path(__file__).resolve().parent
NM = "x86_64-w64-mingw32-nm"
OBJDUMP = "x86_64-w64-mingw32-objdump"
KERNEL = "ntoskrnl.exe"

MACHINE_X64 = 0x8664
RELOCATIONS_STRIPPED = 0x0001
EXECUTABLE_IMAGE = 0x0002
LIBRARY = 0x2000
PE32_PLUS = 0x20B
SUBSYSTEM_NATIVE = 1
DYNAMIC_BASE = 0x0040
NX_COMPATIBLE = 0x0100
SECTION_DISCARDABLE = 0x02000000
SECTION_EXECUTABLE = 0x20000000
SECTION_WRITABLE = 0x80000000

EXPORTS, IMPORTS, RESOURCES, EXCEPTIONS, RELOCATIONS, THREAD_LOCALS = 0, 1, 2, 3, 5, 9
RESOURCE_MESSAGES = 11
RESOURCE_VERSION = 16
VERSION_SIGNATURE = 0xFEEF04BD
TEXT_UTF16 = 1


class CheckFailed(Exception):
    pass


def require(condition, why):
    if not condition:
        raise CheckFailed(why)


class Section:
    def __init__(self, data, offset):
        self.header = offset
        name, self.virtual_size, self.address, self.raw_size, self.raw = struct.unpack_from(
            "<8sIIII", data, offset
        )
        self.name = name.rstrip(b"\0").decode("ascii", "replace")
        (self.flags,) = struct.unpack_from("<I", data, offset + 36)

    def holds(self, address):
        return self.address <= address < self.address + self.virtual_size


class Image:
    """The headers of a PE32+ file, and reading by image address."""

    def __init__(self, data):
        self.data = data
        require(data[:2] == b"MZ", "no DOS header")
        (pe,) = struct.unpack_from("<I", data, 0x3C)
        require(data[pe : pe + 4] == b"PE\0\0", "no PE header")
        self.machine, count = struct.unpack_from("<HH", data, pe + 4)
        optional_size, self.characteristics = struct.unpack_from("<HH", data, pe + 20)
        optional = pe + 24
        self.magic, self.entry = struct.unpack_from("<H14xI", data, optional)
        (self.base,) = struct.unpack_from("<Q", data, optional + 24)
        require(self.magic == PE32_PLUS, f"optional header {self.magic:#x}, not 64-bit")
        versions = struct.unpack_from("<6H", data, optional + 40)
        self.versions = dict(zip(("system", "image", "subsystem"),
                                 zip(versions[::2], versions[1::2])))
        (self.size,) = struct.unpack_from("<I", data, optional + 56)
        self.checksum_offset = optional + 64
        self.checksum, self.subsystem, self.flags = struct.unpack_from("<IHH", data, optional + 64)
        self.directory_offset = optional + 112
        (directories,) = struct.unpack_from("<I", data, optional + 108)
        self.directories = [
            struct.unpack_from("<II", data, self.directory_offset + 8 * i)
            for i in range(directories)
        ]
        self.sections = [
            Section(data, optional + optional_size + 40 * i) for i in range(count)
        ]

    def directory(self, index):
        return self.directories[index] if index < len(self.directories) else (0, 0)

    def section_at(self, address):
        return next((s for s in self.sections if s.holds(address)), None)

    def offset(self, address):
        section = self.section_at(address)
        require(section, f"address {address:#x} lies in no section")
        return section.raw + address - section.address

    def unpack(self, form, address):
        return struct.unpack_from(form, self.data, self.offset(address))

    def bytes(self, address, length):
        offset = self.offset(address)
        return self.data[offset : offset + length]

    def string(self, address):
        offset = self.offset(address)
        return self.data[offset : self.data.index(b"\0", offset)].decode("ascii")


def check_machine(image, _):
    require(image.machine == MACHINE_X64, f"machine {image.machine:#x}, not x64")
    require(image.characteristics & EXECUTABLE_IMAGE, "not marked as executable image")
    require(not image.characteristics & LIBRARY, "marked as a library")
    return "x64 executable"


def check_subsystem(image, _):
    require(image.subsystem == SUBSYSTEM_NATIVE, f"subsystem {image.subsystem}, not native")
    return "native"


def check_versions(image, _):
    for what, version in image.versions.items():
        require(version == (10, 0), f"{what} version {version[0]}.{version[1]}, not 10.0")
    return "10.0 of system, image and subsystem"


def check_exports(image, _):
    require(image.directory(EXPORTS) == (0, 0), "the image has an export table")
    require(image.directory(THREAD_LOCALS) == (0, 0), "the image has thread-local storage")
    return "none"


def imported_names(image):
    address, size = image.directory(IMPORTS)
    require(size, "no import table")
    libraries = {}
    while True:
        lookup, _, _, name, table = image.unpack("<IIIII", address)
        if not name:
            return libraries
        names = libraries.setdefault(image.string(name).lower(), [])
        entry = lookup or table
        while True:
            (value,) = image.unpack("<Q", entry)
            if not value:
                break
            require(not value >> 63, f"import by number {value & 0xFFFF}")
            names.append(image.string(value + 2))
            entry += 8
        address += 20


def check_imports(image, options):
    allowed = options.imports.read_text(encoding="ascii").split()
    require(allowed == sorted(set(allowed)), f"{options.imports.name} is not sorted")
    libraries = imported_names(image)
    require(list(libraries) == [KERNEL], f"imports from {', '.join(libraries)}")
    names = set(libraries[KERNEL])
    unknown = sorted(names - set(allowed))
    require(not unknown, f"imported but not in {options.imports.name}: {' '.join(unknown)}")
    stale = sorted(set(allowed) - names)
    require(not stale, f"in {options.imports.name} but not imported: {' '.join(stale)}")
    return f"{len(names)} names, all of {KERNEL}"


def relocated(image):
    """The addresses of all words that hold an address."""
    address, size = image.directory(RELOCATIONS)
    require(size, "no relocations")
    end = address + size
    while address < end:
        page, length = image.unpack("<II", address)
        require(length >= 8 and address + length <= end, f"bad block at {address:#x}")
        for entry in struct.unpack(f"<{(length - 8) // 2}H", image.bytes(address + 8, length - 8)):
            kind = entry >> 12
            require(kind in (0, 10), f"relocation of kind {kind}")
            require(kind == 0 or image.section_at(page + (entry & 0xFFF)), "outside the image")
            if kind == 10:
                yield page + (entry & 0xFFF)
        address += length


def check_relocations(image, _):
    require(not image.characteristics & RELOCATIONS_STRIPPED, "relocations are stripped")
    count = len(list(relocated(image)))
    require(image.flags & DYNAMIC_BASE, "dynamic base is not set")
    require(image.flags & NX_COMPATIBLE, "no-execute compatibility is not set")
    return f"{count}, dynamic base, no-execute"


def check_unwind(image, _):
    address, size = image.directory(EXCEPTIONS)
    require(size and size % 12 == 0, "no function table")
    section = image.section_at(address)
    require(section and section.name == ".pdata", "the function table is not in .pdata")
    previous = 0
    for at in range(address, address + size, 12):
        begin, end, unwind = image.unpack("<III", at)
        require(previous <= begin < end, f"function table out of order at {begin:#x}")
        code = image.section_at(begin)
        require(code and code.flags & SECTION_EXECUTABLE, f"{begin:#x} is not code")
        require(image.section_at(unwind), f"no unwind data for {begin:#x}")
        previous = end
    return f"{size // 12} functions"


def check_sections(image, _):
    for section in image.sections:
        code = section.flags & SECTION_EXECUTABLE
        dropped = section.flags & SECTION_DISCARDABLE
        require(not code or not section.flags & SECTION_WRITABLE,
                f"{section.name} is writable and executable")
        wanted = section.name in ("INIT", ".reloc")
        require(bool(dropped) == wanted,
                f"{section.name} is {'' if dropped else 'not '}discardable")
    return ", ".join(section.name for section in image.sections)


def check_entry(image, options):
    """The entry is dropped once it has run, so what stays may not lead there."""
    section = image.section_at(image.entry)
    require(section and section.name == "INIT", f"entry {image.entry:#x} is not in INIT")
    listing = subprocess.run([OBJDUMP, "-d", "-j", ".text", options.image], check=True,
                             capture_output=True, text=True).stdout
    for line in listing.splitlines():
        for found in re.findall(r"\b0?x?([0-9a-f]{9,16})\b", line.partition(":")[2]):
            require(not section.holds(int(found, 16) - image.base), f"leads to INIT: {line}")
    for address in relocated(image):
        (found,) = image.unpack("<Q", address)
        require(section.holds(address) or not section.holds(found - image.base),
                f"leads to INIT: the word at {address:#x}")
    return f"{image.entry:#x} in INIT, to which nothing else leads"


def checksum(data, field):
    """The loader's sum: 16-bit words with the carry added back, without the field, plus length."""
    data = data[:field] + b"\0\0\0\0" + data[field + 4 :]
    length = len(data)
    if length % 2:
        data += b"\0"
    total = sum(struct.unpack(f"<{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total + length


def check_checksum(image, _):
    expected = checksum(image.data, image.checksum_offset)
    require(image.checksum == expected, f"checksum {image.checksum:#x}, not {expected:#x}")
    return f"{image.checksum:#x}"


def resource(image, kind):
    """The data of the only resource of a kind."""
    root, size = image.directory(RESOURCES)
    require(size, "no resources")
    at = root
    for level in range(3):
        named, numbered = image.unpack("<12xHH", at)
        entries = [image.unpack("<II", at + 16 + 8 * i) for i in range(named + numbered)]
        if level == 0:
            entries = [entry for entry in entries if entry[0] == kind]
        require(len(entries) == 1, f"{len(entries)} resources of kind {kind}")
        at = root + (entries[0][1] & 0x7FFFFFFF)
    address, length = image.unpack("<II", at)
    return image.bytes(address, length)


def messages_of(table):
    (blocks,) = struct.unpack_from("<I", table)
    messages = {}
    for block in range(blocks):
        low, high, at = struct.unpack_from("<III", table, 4 + 12 * block)
        for code in range(low, high + 1):
            length, flags = struct.unpack_from("<HH", table, at)
            require(flags == TEXT_UTF16, f"the text of {code:#010x} is not UTF-16")
            text = table[at + 4 : at + length].decode("utf-16-le").rstrip("\0")
            messages[code] = " ".join(text.split())
            at += length
    return messages


def check_messages(image, options):
    expected = {message.code: message.text for message in event_texts.parse_file(options.events)}
    found = messages_of(resource(image, RESOURCE_MESSAGES))
    for code in sorted(expected.keys() | found.keys()):
        require(code in found, f"no text for {code:#010x}")
        require(code in expected, f"{code:#010x} is not in {options.events.name}")
        require(found[code] == expected[code], f"the text of {code:#010x} differs")
    return f"{len(found)} texts"


def check_version(image, _):
    version = resource(image, RESOURCE_VERSION)
    # A length, a value length and a type, then the key and its padding to 32 bits.
    require(version[6:38].decode("utf-16-le", "replace") == "VS_VERSION_INFO\0", "no version block")
    signature, _, minor, major = struct.unpack_from("<IIHH", version, 40)
    require(signature == VERSION_SIGNATURE, "no fixed version information")
    return f"{major}.{minor}"


def check_constructors(_, options):
    """Nothing calls the constructors of global objects in a driver."""
    objects = sorted(options.objects.glob("*.o"))
    require(objects, f"no objects in {options.objects}")
    listing = subprocess.run(
        [NM, "-A", *objects], check=True, capture_output=True, text=True
    ).stdout
    found = re.search(r".*(?:_GLOBAL__sub_I|\.ctors|\.init_array|\.CRT\$|__tls_).*", listing)
    require(not found, found and f"runs before the entry: {found.group(0)}")
    return f"none in {len(objects)} objects"


CHECKS = {
    "machine": check_machine,
    "subsystem": check_subsystem,
    "versions": check_versions,
    "exports": check_exports,
    "imports": check_imports,
    "relocations": check_relocations,
    "unwind data": check_unwind,
    "sections": check_sections,
    "entry point": check_entry,
    "checksum": check_checksum,
    "message texts": check_messages,
    "version": check_version,
    "constructors": check_constructors,
}


def check_image(options):
    """The first failure as text, or None."""
    name = "file"
    try:
        image = Image(options.image.read_bytes())
        for name, check in CHECKS.items():
            print(f"{name}: {check(image, options)}")
    except CheckFailed as failure:
        return f"{name}: {failure}"
    except (struct.error, ValueError) as error:
        return f"{name}: the image is damaged ({error})"
    return None


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("image", type=pathlib.Path)
    parser.add_argument("--objects", type=pathlib.Path, required=True, help="object directory")
    parser.add_argument("--imports", type=pathlib.Path, default=HERE / "imports.txt")
    parser.add_argument("--events", type=pathlib.Path, default=HERE / "events.mc")
    failure = check_image(parser.parse_args(arguments))
    if failure:
        print(f"FAILED {failure}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
