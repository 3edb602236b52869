#include "lifecycle/auxiliary_device.h"

#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/extension.h"
#include "lifecycle/device_name.h"

// Written under the port lock: proxy reads look at the device's state without holding it otherwise.
static PDEVICE_OBJECT ExchangeClientSide(PortExtension *Port, PDEVICE_OBJECT Device) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  PDEVICE_OBJECT before = Port->ClientSideDevice;
  Port->ClientSideDevice = Device;
  KeReleaseSpinLock(&Port->PortLock, irql);
  return before;
}

static NTSTATUS UseFilterDevice(PortExtension *Port) {
  ExchangeClientSide(Port, Port->Header.Device);
  return STATUS_SUCCESS;
}

static void StoreLowerDevice(ExtensionHeader *Header, PDEVICE_OBJECT Lower) {
  WritePointerRelease(reinterpret_cast<PVOID volatile *>(&Header->LowerDevice), Lower);
}

// --- Making ---------------------------------------------------------------------------------

static void FillDevice(PortExtension *Port, PDEVICE_OBJECT Device) {
  PDEVICE_OBJECT filter = Port->Header.Device;
  auto *auxiliary = static_cast<AuxiliaryExtension *>(Device->DeviceExtension);
  Device->Flags |= filter->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO);
  RtlZeroMemory(auxiliary, sizeof(*auxiliary));
  InitializeHeader(&auxiliary->Header, Device, KIND_AUXILIARY, Port->Header.DebugLevel,
                   OPEN_STATE_BYPASS);
  Device->StackSize = static_cast<CCHAR>(Device->StackSize + filter->StackSize);
  auxiliary->FilterDevice = filter;
  Device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  Device->Flags |= DO_POWER_PAGABLE;
}

static NTSTATUS CreateNamedDevice(PortExtension *Port, PDEVICE_OBJECT *Device) {
  UNICODE_STRING name;
  NTSTATUS status = MakeDeviceName(L"\\Device\\VORLIXE", &DriverWide.AuxiliaryDevices, &name);
  if (status != STATUS_SUCCESS) {
    return status;
  }
  status = IoCreateDevice(Port->Header.Device->DriverObject, sizeof(AuxiliaryExtension), &name,
                          FILE_DEVICE_SERIAL_PORT, FILE_DEVICE_SECURE_OPEN, TRUE, Device);
  if (status == STATUS_SUCCESS) {
    FillDevice(Port, *Device);
  } else {
    *Device = nullptr;
    status = status == STATUS_OBJECT_NAME_EXISTS ? STATUS_OBJECT_NAME_COLLISION : status;
  }
  ExchangeClientSide(Port, *Device);
  FreeDeviceName(&name);
  return status;
}

NTSTATUS CreateAuxiliaryDevice(PortExtension *Port, PDEVICE_OBJECT *Device) {
  *Device = nullptr;
  NTSTATUS status = CreateNamedDevice(Port, Device);
  if (status != STATUS_SUCCESS) {
    ReportPortEvent(DriverWide.DriverObject, Port->Header.Device, 0, 0, EVENT_NO_AUXILIARY_DEVICE,
                    status, Port);
  }
  return status;
}

static void RaiseStackSize(PDEVICE_OBJECT Device, CCHAR Size) {
  Device->StackSize = Device->StackSize > Size ? Device->StackSize : Size;
}

// Attaching counts the target's stack only, but reads that wait here when ZK closes go to the
// port's. The last close of any side may go to either.
static void MakeRoom(PortExtension *Port, PDEVICE_OBJECT Device) {
  RaiseStackSize(Device, Port->Header.Device->StackSize);
  RaiseStackSize(Port->Header.Device, Device->StackSize);
  RaiseStackSize(Port->ControlDevice, Device->StackSize);
}

// Requests of handles that are open on the target come in as soon as the device is attached, so it
// has the device below it before.
static NTSTATUS Attach(PortExtension *Port, PDEVICE_OBJECT Device, PDEVICE_OBJECT Target) {
  ExtensionHeader *header = HeaderOf(Device);
  StoreLowerDevice(header, Target);
  PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(Device, Target);
  if (lower != Target) {
    StoreLowerDevice(header, lower);
  }
  Port->UseAuxiliary = 1;
  if (lower == nullptr) {
    return STATUS_UNSUCCESSFUL;
  }
  MakeRoom(Port, Device);
  return STATUS_SUCCESS;
}

static NTSTATUS AttachOver(PortExtension *Port, PDEVICE_OBJECT Target, PFILE_OBJECT File,
                           NTSTATUS LookupStatus) {
  ReportPortEvent(DriverWide.DriverObject, Port->Header.Device, 0, 0, EVENT_AUXILIARY_DEVICE,
                  LookupStatus, Port);
  PDEVICE_OBJECT device;
  NTSTATUS status = CreateAuxiliaryDevice(Port, &device);
  if (status != STATUS_SUCCESS) {
    ObDereferenceObject(File);
    return status;
  }
  status = Attach(Port, device, Target);
  // The close of the lookup's own open comes through here, to a device that lets it by. Only then
  // does the device take part.
  ObDereferenceObject(File);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  WriteULongRelease(&HeaderOf(device)->OpenState, OPEN_STATE_CLOSED);
  KeReleaseSpinLock(&Port->PortLock, irql);
  return status;
}

// --- Deciding -------------------------------------------------------------------------------

static BOOLEAN WantsAuxiliary(PortExtension *Port, PDEVICE_OBJECT Target) {
  BOOLEAN sameDriver = FALSE;
  for (PDEVICE_OBJECT device = Port->PhysicalDevice; device != nullptr;
       device = device->AttachedDevice) {
    if (device == Target) {
      return FALSE;  // clients come through the port's stack; forcing does not change that
    }
    if (device->DriverObject == Target->DriverObject) {
      sameDriver = TRUE;
    }
  }
  BOOLEAN forced = static_cast<BOOLEAN>((Port->UseAuxiliary & 0xFF) != 0);
  return static_cast<BOOLEAN>((Port->AuxiliaryAutoDetect && sameDriver) || forced);
}

// What a start that failed to attach has left. It is never the filter device: a start that chose
// that one has succeeded, and later ones set nothing up.
static void DeleteUnattached(PortExtension *Port) {
  PDEVICE_OBJECT device = ExchangeClientSide(Port, nullptr);
  if (device != nullptr) {
    NT_ASSERT(device != Port->Header.Device);
    IoDeleteDevice(device);
  }
}

NTSTATUS SetUpAuxiliaryDevice(PDEVICE_OBJECT FilterDevice) {
  PortExtension *port = PortOf(FilterDevice);
  DeleteUnattached(port);
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, port->DosDeviceName);
  // A name that leads into the port's own stack ends here: the port is not started, so the filter
  // device refuses the open.
  PFILE_OBJECT file;
  PDEVICE_OBJECT target;
  NTSTATUS status = IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &target);
  if (!NT_SUCCESS(status)) {
    return UseFilterDevice(port);
  }
  if (!WantsAuxiliary(port, target)) {
    ObDereferenceObject(file);
    return UseFilterDevice(port);
  }
  return AttachOver(port, target, file, status);
}

// --- Deleting -------------------------------------------------------------------------------

// The client's handles are on the device below, which the Plug and Play manager does not count, and
// keep nothing of this one; so the driver keeps it.
PDEVICE_OBJECT DeleteAuxiliaryDevice(PortExtension *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  PDEVICE_OBJECT device = Port->ClientSideDevice;
  if (device == Port->Header.Device) {
    device = nullptr;
  }
  if (device != nullptr) {
    Port->ClientSideDevice = nullptr;
  }
  KeReleaseSpinLock(&Port->PortLock, irql);
  if (device == nullptr) {
    return nullptr;
  }
  ObReferenceObject(device);
  PDEVICE_OBJECT lower = HeaderOf(device)->LowerDevice;
  if (lower != nullptr) {
    ObReferenceObject(lower);
    IoDetachDevice(lower);
  }
  IoDeleteDevice(device);
  return device;
}

// Nobody tells whether a request is still on its way to the device: it may enter long after the
// port has gone, and is refused by the port's gate. So the device stays, and the filter device
// behind it.
void RetireAuxiliaryDevice(PDEVICE_OBJECT Device) {
  if (Device == nullptr) {
    return;
  }
  auto *auxiliary = static_cast<AuxiliaryExtension *>(Device->DeviceExtension);
  PDEVICE_OBJECT lower = auxiliary->Header.LowerDevice;
  if (lower != nullptr) {
    // An open that was never closed; the engine's last read may still ask for its context.
    StoreLowerOpen(PortOf(Device), nullptr, nullptr);
    StoreLowerDevice(&auxiliary->Header, nullptr);
    ObDereferenceObject(lower);
  }
  ObReferenceObject(auxiliary->FilterDevice);
  // Other ports may go at the same time; the list is read by the unload only.
  auxiliary->NextRetired = static_cast<PDEVICE_OBJECT>(InterlockedExchangePointer(
      reinterpret_cast<PVOID volatile *>(&DriverWide.RetiredAuxiliaryDevices), Device));
}

void FreeRetiredAuxiliaryDevices() {
  PDEVICE_OBJECT device = DriverWide.RetiredAuxiliaryDevices;
  DriverWide.RetiredAuxiliaryDevices = nullptr;
  while (device != nullptr) {
    auto *auxiliary = static_cast<AuxiliaryExtension *>(device->DeviceExtension);
    PDEVICE_OBJECT next = auxiliary->NextRetired;
    ObDereferenceObject(auxiliary->FilterDevice);
    ObDereferenceObject(device);
    device = next;
  }
}
