#include "lifecycle/attach.h"

#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "lifecycle/control_device.h"
#include "lifecycle/port_config.h"
#include "lifecycle/port_interfaces.h"
#include "lifecycle/power.h"

static const WCHAR DriverPrefix[] = L"\\Driver\\";
static const WCHAR ReflectorName[] = L"WUDFRd";

static PDEVICE_OBJECT TopOfStack(PDEVICE_OBJECT Device) {
  while (Device->AttachedDevice != nullptr) {
    Device = Device->AttachedDevice;
  }
  return Device;
}

// A port behind the user-mode driver reflector cannot be filtered. A name that cannot be built for
// the comparison counts as one.
static BOOLEAN BelongsToReflector(PDEVICE_OBJECT Device) {
  constexpr SIZE_T bytes = sizeof(DriverPrefix) + sizeof(ReflectorName) - sizeof(WCHAR);
  auto *name = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, POOL_STRINGS));
  if (name == nullptr) {
    return TRUE;
  }
  BOOLEAN equal = TRUE;
  if (NT_SUCCESS(RtlStringCbCopyW(name, bytes, DriverPrefix)) &&
      NT_SUCCESS(RtlStringCbCatW(name, bytes, ReflectorName))) {
    UNICODE_STRING reflector;
    RtlInitUnicodeString(&reflector, name);
    equal = static_cast<BOOLEAN>(
        RtlCompareUnicodeString(&reflector, &Device->DriverObject->DriverName, TRUE) == 0);
  }
  ExFreePoolWithTag(name, POOL_STRINGS);
  return equal;
}

static NTSTATUS RefusePort(PDRIVER_OBJECT DriverObject, ULONG EventCode) {
  ReportEvent(DriverObject, nullptr, 0, 0, EventCode, STATUS_INVALID_DEVICE_REQUEST, nullptr, 0);
  return STATUS_INVALID_DEVICE_REQUEST;
}

static void StandOn(PortExtension *Port, PDEVICE_OBJECT Lower) {
  WritePointerRelease(reinterpret_cast<PVOID volatile *>(&Port->Header.LowerDevice), Lower);
  PowerKeepsBelow(Port, Lower);
}

// Requests come in as soon as the device is attached, so it has the device below it before.
static BOOLEAN Attach(PortExtension *Port, PDEVICE_OBJECT Top) {
  StandOn(Port, Top);
  PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(Port->Header.Device, Port->PhysicalDevice);
  if (lower != Top) {
    StandOn(Port, lower);
  }
  return static_cast<BOOLEAN>(lower != nullptr);
}

static void InheritFlags(PDEVICE_OBJECT Device, PDEVICE_OBJECT Lower) {
  Device->Flags |= Lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO);
  Device->Flags =
      (Device->Flags & ~static_cast<ULONG>(DO_EXCLUSIVE)) | (Lower->Flags & DO_EXCLUSIVE);
}

// Everything of the port above the attachment, in order; a failure undoes what was made.
static NTSTATUS SetUpPort(PDRIVER_OBJECT DriverObject, PortExtension *Port) {
  NTSTATUS status = ReadPortConfiguration(DriverObject, Port->PhysicalDevice, Port);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = CreateControlDevice(Port);
  if (!NT_SUCCESS(status)) {
    ReportPortEvent(DriverObject, Port->Header.Device, 0, 0, EVENT_NO_CONTROL_DEVICE, status, Port);
    goto freeNames;
  }
  status = ProxyReadInitialize(&Port->Engine, Port->Header.Device,
                               static_cast<CCHAR>(Port->Header.LowerDevice->StackSize + 1));
  if (!NT_SUCCESS(status)) {
    goto deleteControlDevice;
  }
  status = RegisterPortInterfaces(Port);
  if (!NT_SUCCESS(status)) {
    goto stopEngine;
  }
  return STATUS_SUCCESS;

stopEngine:
  ProxyReadTeardown(&Port->Engine);
  CallDownShutdown(&Port->CallDown);
deleteControlDevice:
  DeleteControlDevice(Port->ControlDevice);
freeNames:
  DeleteControlLink(Port);
  FreeRetiredNames(Port);
  FreePortInterfaces(Port);
  return status;
}

// Requests of handles that are older than the filter device, and power requests, may be inside.
// They use nothing of what the set-up made and has undone by now; but those that are counted come
// back to the device.
static void TakeBack(PortExtension *Port) {
  PDEVICE_OBJECT filter = Port->Header.Device;
  ChangeAdmission(Port, ADMISSION_REMOVED, 0);
  MarkPortGone(Port);
  IoDetachDevice(Port->Header.LowerDevice);
  WaitForIdle(filter);
  PowerDetached(Port);
  IoDeleteDevice(filter);
}

NTSTATUS AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDevice) {
  ReportEvent(DriverObject, nullptr, 0, 0, EVENT_ATTACHING, STATUS_SUCCESS, nullptr, 0);
  PDEVICE_OBJECT top = TopOfStack(PhysicalDevice);
  if ((top->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO)) == 0) {
    return RefusePort(DriverObject, EVENT_NEITHER_IO);
  }
  if (BelongsToReflector(top)) {
    return RefusePort(DriverObject, EVENT_REFLECTED_PORT);
  }
  PDEVICE_OBJECT filter;
  NTSTATUS status = IoCreateDevice(DriverObject, sizeof(PortExtension), nullptr,
                                   FILE_DEVICE_BUS_EXTENDER, 0, TRUE, &filter);
  if (!NT_SUCCESS(status)) {
    ReportEvent(DriverObject, nullptr, 0, 0, EVENT_NO_FILTER_DEVICE, status, nullptr, 0);
    return status;
  }
  auto *port = static_cast<PortExtension *>(filter->DeviceExtension);
  InitializePort(port, filter, PhysicalDevice);
  if (!Attach(port, top)) {
    IoDeleteDevice(filter);
    return STATUS_UNSUCCESSFUL;
  }
  InheritFlags(filter, port->Header.LowerDevice);
  status = SetUpPort(DriverObject, port);
  if (!NT_SUCCESS(status)) {
    TakeBack(port);
    return status;
  }
  filter->Flags |= DO_POWER_PAGABLE;
  filter->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}
