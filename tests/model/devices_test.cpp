#include "tests/model/two_drivers.h"

static PDEVICE_OBJECT Make(const char *Name, ULONG Extension = 8) {
  Wide name(Name);
  PDEVICE_OBJECT device = nullptr;
  EXPECT_EQ(IoCreateDevice(Two.LowerDriver, Extension, &name.String, 0x22, 0, FALSE, &device),
            STATUS_SUCCESS);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return device;
}

TWO_DRIVERS_TEST(Devices, NamesAndLinksCollideWithoutCase) {
  Wide device("\\device\\LOW");
  Wide link("\\DosDevices\\COM3");
  Wide same("\\??\\com3");
  Wide chain("\\??\\Other");
  PDEVICE_OBJECT refused;
  EXPECT_EQ(IoCreateDevice(Two.LowerDriver, 0, &device.String, 0x22, 0, FALSE, &refused),
            STATUS_OBJECT_NAME_COLLISION);
  EXPECT_EQ(DeviceCount(Two.LowerDriver), 1u);
  EXPECT_EQ(IoCreateSymbolicLink(&device.String, &device.String), STATUS_OBJECT_NAME_COLLISION);
  EXPECT_EQ(IoCreateSymbolicLink(&link.String, &device.String), STATUS_SUCCESS);
  EXPECT_EQ(IoCreateSymbolicLink(&same.String, &device.String), STATUS_OBJECT_NAME_COLLISION);
  EXPECT_EQ(IoCreateSymbolicLink(&chain.String, &same.String), STATUS_SUCCESS);
  EXPECT_EQ(NameLookup("\\??\\OTHER"), Two.Lower);
  EXPECT_EQ(NameLinks(), (std::vector<std::string>{"\\??\\Other -> \\??\\com3",
                                                   "\\DosDevices\\COM3 -> \\device\\LOW"}));
  EXPECT_EQ(IoDeleteSymbolicLink(&device.String), STATUS_OBJECT_TYPE_MISMATCH);
  EXPECT_EQ(IoDeleteSymbolicLink(&same.String), STATUS_SUCCESS);
  EXPECT_EQ(NameLookup("\\??\\Other"), nullptr);
  EXPECT_EQ(IoDeleteSymbolicLink(&chain.String), STATUS_SUCCESS);
}

// Handles and references keep a deleted device, its extension and its driver's list as they were.
TWO_DRIVERS_TEST(Devices, DeletionWaitsForHandlesAndReferences) {
  PDEVICE_OBJECT device = Make("\\Device\\Late");
  HANDLE handle;
  EXPECT_EQ(FileOpen("\\Device\\Late", Account::User, &handle), STATUS_SUCCESS);
  ObReferenceObject(device);
  IoDeleteDevice(device);
  EXPECT_EQ(NameLookup("\\Device\\Late"), nullptr);
  EXPECT_EQ(DeviceCount(Two.LowerDriver), 2u);
  IoDeleteDevice(Make("\\Device\\Late"));  // the name is free again
  memset(device->DeviceExtension, 1, 8);
  FileClose(handle);
  EXPECT_EQ(DeviceCount(Two.LowerDriver), 1u);
  memset(device->DeviceExtension, 2, 8);
  EXPECT_TRUE(ObjectIs(device, ObjectKind::Device));
  ObDereferenceObject(device);
  EXPECT_FALSE(ObjectIs(device, ObjectKind::Device));
}

TWO_DRIVERS_TEST(Devices, AttachGoesToTheTop) {
  EXPECT_EQ(Two.Upper->StackSize, 2);
  PDEVICE_OBJECT third = Make("\\Device\\Third");
  Two.Upper->AlignmentRequirement = 3;
  FaultArm({.Kinds = FaultAttach});
  EXPECT_EQ(IoAttachDeviceToDeviceStack(third, Two.Lower), nullptr);
  FaultDisarm();
  Two.Upper->Flags |= DO_DEVICE_INITIALIZING;
  EXPECT_EQ(IoAttachDeviceToDeviceStack(third, Two.Lower), nullptr);
  Two.Upper->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  EXPECT_EQ(IoAttachDeviceToDeviceStack(third, Two.Lower), Two.Upper);
  EXPECT_EQ(third->StackSize, 3);
  EXPECT_EQ(third->AlignmentRequirement, 3u);
  EXPECT_EQ(DeviceTop(Two.Lower), third);
  IoDetachDevice(Two.Upper);
  EXPECT_EQ(DeviceTop(Two.Lower), Two.Upper);
  IoDeleteDevice(third);
}

static const GUID SomeClass = {0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}};

TWO_DRIVERS_TEST(Devices, InterfaceStates) {
  UNICODE_STRING link;
  EXPECT_EQ(IoRegisterDeviceInterface(Two.Lower, &SomeClass, nullptr, &link),
            STATUS_INVALID_DEVICE_REQUEST);
  Two.Lower->Flags |= DO_BUS_ENUMERATED_DEVICE;
  EXPECT_EQ(IoRegisterDeviceInterface(Two.Lower, &SomeClass, nullptr, &link), STATUS_SUCCESS);
  UNICODE_STRING again;
  EXPECT_EQ(IoRegisterDeviceInterface(Two.Lower, &SomeClass, nullptr, &again),
            STATUS_OBJECT_NAME_EXISTS);
  EXPECT_EQ(RtlCompareUnicodeString(&link, &again, FALSE), 0);
  RtlFreeUnicodeString(&again);

  EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(IoSetDeviceInterfaceState(&link, TRUE), STATUS_OBJECT_NAME_EXISTS);
  std::vector<std::string> enabled = InterfacesEnabled(SomeClass);
  ASSERT_EQ(enabled.size(), 1u);
  EXPECT_EQ(NameLookup(enabled[0]), Two.Lower);
  EXPECT_EQ(IoSetDeviceInterfaceState(&link, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(NameLookup(enabled[0]), nullptr);
  EXPECT_EQ(InterfaceStateChanges(), 2u);
  EXPECT_EQ(VerifierWarnings("interface.enabled-twice"), 1u);
  EXPECT_EQ(VerifierWarnings("interface.disabled-twice"), 1u);
  RtlFreeUnicodeString(&link);
}

static PDEVICE_OBJECT MakeDeleted() {
  PDEVICE_OBJECT device = Make("\\Device\\X");
  IoDeleteDevice(device);
  return device;
}

static void WriteStringAt(USHORT Offset) {
  auto *entry = static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(Two.Lower, 48));
  entry->NumberOfStrings = 1;
  entry->StringOffset = Offset;
  memset(&entry->DumpData[1], 'x', 4);
  IoWriteErrorLogEntry(entry);
}

static const BadRoutine BadDrivers[] = {
    {"deleted twice", "device.not-live", [] { IoDeleteDevice(MakeDeleted()); }},
    {"deleted twice while referenced", "device.deleted-twice",
     [] {
       IoDetachDevice(Two.Lower);
       ObReferenceObject(Two.Upper);
       IoDeleteDevice(Two.Upper);
       IoDeleteDevice(Two.Upper);
     }},
    {"deleted while attached", "device.delete-attached", [] { IoDeleteDevice(Two.Upper); }},
    {"detached twice", "device.not-attached",
     [] {
       IoDetachDevice(Two.Lower);
       IoDetachDevice(Two.Lower);
     }},
    {"attached twice", "device.attached-twice",
     [] { IoAttachDeviceToDeviceStack(Two.Upper, Make("\\Device\\X")); }},
    {"device left at unload", "leak.device", [] { DriverUnload(Two.UpperDriver); }},
    {"link left", "leak.link",
     [] {
       Wide link("\\??\\Left");
       Wide target("\\Device\\Low");
       IoCreateSymbolicLink(&link.String, &target.String);
       TwoUnload();
     }},
    {"deleted while a request is inside", "device.requests-inside",
     [] {
       OnUpper = HoldIt;
       ThreadStart("sender", [] { SendPacket(Two.Lower, IRP_MJ_FLUSH_BUFFERS, 0, nullptr); });
       ThreadSettle();
       IoDetachDevice(Two.Lower);
       IoDeleteDevice(Two.Upper);
     }},
    {"link deleted twice", "link.deleted-twice",
     [] {
       Wide link("\\??\\Twice");
       IoCreateSymbolicLink(&link.String, &link.String);
       IoDeleteSymbolicLink(&link.String);
       IoDeleteSymbolicLink(&link.String);
     }},
    {"event entry left", "leak.event-log",
     [] {
       IoAllocateErrorLogEntry(Two.LowerDriver, 64);
       TwoUnload();
     }},
    {"event for a dead device", "event-log.object",
     [] { IoAllocateErrorLogEntry(MakeDeleted(), 64); }},
    {"event string without an end", "event-log.string", [] { WriteStringAt(44); }},
    {"event string within the dump data", "event-log.string", [] { WriteStringAt(0); }},
};

TEST(Devices, BadDriversAreStopped) {
  ExpectTwoStopped(BadDrivers);
}
