"""The host's kernel headers and the driver kit agree. That the kit's side is complete is shown by
the image itself, which is built from the same sources."""

import pathlib
import re
import tempfile
import unittest

from support import CROSS_COMPILER, HOST_COMPILER, ROOT, run

HOST_HEADERS = sorted((ROOT / "platform/kernel").glob("*.h"))

DEFINITION = re.compile(
    r"^#define (\w+) \(?(?:static_cast<NTSTATUS>\()?(0x[0-9A-Fa-f]+|\d+)\)*$", re.MULTILINE)
ENUMERATION = re.compile(r"typedef enum \w+ \{([^}]*)\}")

# Fields that driver code reads or writes, by record.
LAYOUT = {
    "IRP": "MdlAddress Flags AssociatedIrp.SystemBuffer IoStatus RequestorMode PendingReturned "
           "StackCount CurrentLocation Cancel CancelIrql UserIosb UserEvent CancelRoutine "
           "UserBuffer Tail.Overlay.DriverContext Tail.Overlay.Thread Tail.Overlay.ListEntry "
           "Tail.Overlay.CurrentStackLocation Tail.Overlay.OriginalFileObject",
    "IO_STACK_LOCATION":
           "MajorFunction MinorFunction Flags Control Parameters.Create.Options "
           "Parameters.Create.FileAttributes Parameters.Create.ShareAccess "
           "Parameters.Create.EaLength Parameters.Read.Length Parameters.Read.Key "
           "Parameters.Read.ByteOffset Parameters.Write.Length Parameters.Write.Key "
           "Parameters.Write.ByteOffset Parameters.DeviceIoControl.OutputBufferLength "
           "Parameters.DeviceIoControl.InputBufferLength Parameters.DeviceIoControl.IoControlCode "
           "Parameters.DeviceIoControl.Type3InputBuffer Parameters.QueryDeviceRelations.Type "
           "Parameters.DeviceCapabilities.Capabilities Parameters.QueryId.IdType "
           "Parameters.Power.Type Parameters.Power.State Parameters.Power.ShutdownType "
           "Parameters.Others.Argument4 DeviceObject FileObject CompletionRoutine Context",
    "DEVICE_OBJECT": "DriverObject NextDevice AttachedDevice Flags Characteristics "
                     "DeviceExtension DeviceType StackSize AlignmentRequirement",
    "DRIVER_OBJECT": "DeviceObject DriverExtension DriverName DriverUnload MajorFunction",
    "DRIVER_EXTENSION": "AddDevice",
    "FILE_OBJECT": "DeviceObject FsContext FsContext2 FileName",
    "MDL": "Next MdlFlags MappedSystemVa StartVa ByteCount ByteOffset",
    "KEVENT": "Header.SignalState Header.WaitListHead",
    "IO_ERROR_LOG_PACKET": "MajorFunctionCode RetryCount DumpDataSize NumberOfStrings StringOffset "
                           "EventCategory ErrorCode UniqueErrorValue FinalStatus SequenceNumber "
                           "IoControlCode DeviceOffset DumpData",
    "RTL_QUERY_REGISTRY_TABLE": "QueryRoutine Flags Name EntryContext DefaultType DefaultData "
                                "DefaultLength",
    "KEY_VALUE_FULL_INFORMATION": "Type DataOffset DataLength NameLength Name",
    "DEVICE_CAPABILITIES": "Size Version Address UINumber DeviceState SystemWake DeviceWake "
                           "D1Latency D3Latency",
    "DEVICE_RELATIONS": "Count Objects",
    "PNP_BUS_INFORMATION": "BusTypeGuid LegacyBusType BusNumber",
    "IO_STATUS_BLOCK": "Status Information",
    "UNICODE_STRING": "Length MaximumLength Buffer",
}


def host_text():
    return "\n".join(re.sub(r"//.*", "", path.read_text(encoding="utf-8"))
                     for path in HOST_HEADERS)


def enumerators(text):
    for body in ENUMERATION.findall(text):
        value = -1
        for entry in filter(None, (part.strip() for part in body.split(","))):
            name, _, given = entry.partition("=")
            value = int(given, 0) if given else value + 1
            yield name.strip(), value


class BoundaryTest(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def assert_on_kit(self, conditions):
        source = self.directory / "kit.cpp"
        source.write_text('#include "platform/kernel.h"\n' + "".join(
            f"static_assert({condition});\n" for condition in conditions), encoding="ascii")
        run(*CROSS_COMPILER, "-fsyntax-only", source)

    def test_values_are_those_of_the_kit(self):
        text = host_text()
        values = [(name, int(value, 0)) for name, value in DEFINITION.findall(text)]
        self.assertGreater(len(values), 120)
        values += enumerators(text)
        self.assert_on_kit(f"static_cast<unsigned int>({name}) == {value & 0xFFFFFFFF:#x}u"
                           for name, value in values)

    def test_field_offsets_are_those_of_the_kit(self):
        pairs = [(record, field) for record, fields in LAYOUT.items() for field in fields.split()]
        source = self.directory / "host.cpp"
        program = self.directory / "host"
        source.write_text(
            '#include "platform/kernel.h"\n#include <cstdio>\nint main() {\n' + "".join(
                f'  std::printf("%zu %zu\\n", offsetof({record}, {field}), '
                f"sizeof(static_cast<{record} *>(nullptr)->{field}));\n"
                for record, field in pairs) + "}\n", encoding="ascii")
        run(*HOST_COMPILER, "-fshort-wchar", source, "-o", program)
        lines = run(program).splitlines()
        self.assert_on_kit(
            f"offsetof({record}, {field}) == {line.split()[0]} && "
            f"sizeof(static_cast<{record} *>(nullptr)->{field}) == {line.split()[1]}"
            for (record, field), line in zip(pairs, lines, strict=True))


if __name__ == "__main__":
    unittest.main()
