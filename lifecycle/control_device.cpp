#include "lifecycle/control_device.h"

#include "driver/entry.h"
#include "driver/extension.h"
#include "lifecycle/device_name.h"
#include "lifecycle/multi_string.h"
#include "lifecycle/port_interfaces.h"

static NTSTATUS MakeLink(PortExtension *Port, PUNICODE_STRING DeviceName) {
  UNICODE_STRING link;
  RtlInitUnicodeString(&link, Port->ControlLinkName);
  NTSTATUS status = IoCreateSymbolicLink(&link, DeviceName);
  Port->LinkMade = static_cast<BOOLEAN>(NT_SUCCESS(status));
  return status;
}

static void FillExtension(PortExtension *Port, PDEVICE_OBJECT Device) {
  static const char *const hardwareIds[] = {"VORLIX_RAWPDO", nullptr};
  static const char *const deviceId[] = {"VORLIX\\VXRawPDO", nullptr};
  auto *control = static_cast<ControlExtension *>(Device->DeviceExtension);
  RtlZeroMemory(control, sizeof(*control));
  InitializeHeader(&control->Header, Device, KIND_CONTROL, Port->Header.DebugLevel,
                   OPEN_STATE_CLOSED);
  BuildMultiString(&control->HardwareIds, hardwareIds);
  BuildMultiString(&control->DeviceId, deviceId);
  control->FilterDevice = Port->Header.Device;
}

static void EnterInPort(PortExtension *Port, PDEVICE_OBJECT Device) {
  PDEVICE_OBJECT filter = Port->Header.Device;
  Device->Flags |= filter->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO);
  Device->StackSize = static_cast<CCHAR>(Device->StackSize + filter->StackSize);
  Port->ControlDevice = Device;
  Port->Control = static_cast<ControlExtension *>(Device->DeviceExtension);
  Port->MessageDevice = Device;
  Port->ReportControlChild = 1;
  Device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  Device->Flags |= DO_POWER_PAGABLE;
}

static NTSTATUS CreateNamedDevice(PortExtension *Port, PUNICODE_STRING Name,
                                  PDEVICE_OBJECT *Device) {
  UNICODE_STRING security;
  RtlInitUnicodeString(&security, L"D:P(A;;GA;;;SY)");
  NTSTATUS status = IoCreateDeviceSecure(
      Port->Header.Device->DriverObject, sizeof(ControlExtension), Name, FILE_DEVICE_SERIAL_PORT,
      FILE_DEVICE_SECURE_OPEN, FALSE, &security, nullptr, Device);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = MakeLink(Port, Name);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(*Device);
    *Device = nullptr;
  }
  return status;
}

NTSTATUS CreateControlDevice(PortExtension *Port) {
  UNICODE_STRING name;
  NTSTATUS status = MakeDeviceName(L"\\Device\\VORLIX", &DriverWide.ControlDevices, &name);
  if (status != STATUS_SUCCESS) {
    return status;
  }
  PDEVICE_OBJECT device = nullptr;
  status = CreateNamedDevice(Port, &name, &device);
  if (device != nullptr) {
    FillExtension(Port, device);
    EnterInPort(Port, device);
  }
  FreeDeviceName(&name);
  return status;
}

static PWSTR TakeName(PWSTR *Name) {
  return static_cast<PWSTR>(
      InterlockedExchangePointer(reinterpret_cast<PVOID volatile *>(Name), nullptr));
}

NTSTATUS DeleteControlLink(PortExtension *Port) {
  NTSTATUS status = STATUS_SUCCESS;
  PWSTR linkName = TakeName(&Port->ControlLinkName);
  if (linkName != nullptr) {
    if (Port->LinkMade) {
      UNICODE_STRING link;
      RtlInitUnicodeString(&link, linkName);
      status = IoDeleteSymbolicLink(&link);
      Port->LinkMade = FALSE;
    }
    Port->RetiredControlLinkName = linkName;
  }
  PWSTR dosName = TakeName(&Port->DosDeviceName);
  if (dosName != nullptr) {
    Port->RetiredDosDeviceName = dosName;
  }
  return status;
}

static void FreeStrings(PUNICODE_STRING Strings) {
  if (Strings->Buffer != nullptr) {
    RtlFreeUnicodeString(Strings);
  }
}

NTSTATUS DeleteControlDevice(PDEVICE_OBJECT ControlDevice) {
  auto *control = static_cast<ControlExtension *>(ControlDevice->DeviceExtension);
  PortExtension *port = PortOf(ControlDevice);
  DisableControlInterface(port);
  FreeStrings(&control->HardwareIds);
  FreeStrings(&control->CompatibleIds);
  FreeStrings(&control->DeviceId);
  port->ControlDevice = nullptr;
  port->MessageDevice = nullptr;
  port->Control = nullptr;
  port->ReportControlChild = 0;
  IoDeleteDevice(ControlDevice);
  return STATUS_SUCCESS;
}
