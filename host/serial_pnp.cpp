#include "host/serial_port.h"

static NTSTATUS PassDown(SerialPort *Port, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(Port->LowerDevice, Irp);
}

// Reads a value of the key, at most Bytes of it; the rest of Value is zero.
static NTSTATUS ReadValue(HANDLE Key, PCWSTR Name, PVOID Value, ULONG Bytes) {
  constexpr ULONG Room = 2048;
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, Name);
  auto *information = static_cast<KEY_VALUE_FULL_INFORMATION *>(
      ExAllocatePoolWithTag(PagedPool, Room, SERIAL_POOL_TAG));
  if (!information) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  ULONG length = 0;
  NTSTATUS status =
      ZwQueryValueKey(Key, &name, KeyValueFullInformation, information, Room, &length);
  if (NT_SUCCESS(status) && information->DataLength > Bytes) {
    status = STATUS_INVALID_PARAMETER;
  }
  RtlZeroMemory(Value, Bytes);
  if (NT_SUCCESS(status)) {
    RtlCopyMemory(Value, reinterpret_cast<char *>(information) + information->DataOffset,
                  information->DataLength);
  }
  ExFreePoolWithTag(information, SERIAL_POOL_TAG);
  return status;
}

static NTSTATUS ReadConfiguration(SerialPort *Port) {
  HANDLE key = nullptr;
  NTSTATUS status =
      IoOpenDeviceRegistryKey(Port->PhysicalDevice, PLUGPLAY_REGKEY_DEVICE, READ_CONTROL, &key);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  WCHAR name[256] = {};
  status = ReadValue(key, L"PortName", name, sizeof(name) - sizeof(WCHAR));
  if (NT_SUCCESS(status)) {
    status = ReadValue(key, L"TtyPath", Port->TtyPath, TTY_PATH_BYTES - 1);
  }
  if (NT_SUCCESS(status)) {
    status = RtlStringCbPrintfW(Port->LinkName, LINK_NAME_BYTES, L"\\DosDevices\\%ws", name);
  }
  ZwClose(key);
  return status;
}

static NTSTATUS MakeLink(SerialPort *Port, PUNICODE_STRING DeviceName) {
  UNICODE_STRING link;
  RtlInitUnicodeString(&link, Port->LinkName);
  NTSTATUS status = IoCreateSymbolicLink(&link, DeviceName);
  Port->LinkMade = static_cast<BOOLEAN>(NT_SUCCESS(status));
  return status;
}

static void DeleteLink(SerialPort *Port) {
  if (Port->LinkMade) {
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, Port->LinkName);
    IoDeleteSymbolicLink(&link);
    Port->LinkMade = FALSE;
  }
}

NTSTATUS SerialAddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT PhysicalDevice) {
  static LONG numbers;
  WCHAR text[32];
  UNICODE_STRING name;
  PDEVICE_OBJECT device = nullptr;
  SerialPort *port = nullptr;
  RtlStringCbPrintfW(text, sizeof(text), L"\\Device\\Serial%d", InterlockedIncrement(&numbers));
  RtlInitUnicodeString(&name, text);
  NTSTATUS status = IoCreateDevice(Driver, sizeof(SerialPort), &name, FILE_DEVICE_SERIAL_PORT,
                                   FILE_DEVICE_SECURE_OPEN, TRUE, &device);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  port = SerialPortOf(device);
  port->Device = device;
  port->PhysicalDevice = PhysicalDevice;
  port->Fd = -1;
  SerialQueuesInitialize(port);
  status = ReadConfiguration(port);
  if (!NT_SUCCESS(status)) {
    goto deleteDevice;
  }
  status = MakeLink(port, &name);
  if (!NT_SUCCESS(status)) {
    goto deleteDevice;
  }
  port->LowerDevice = IoAttachDeviceToDeviceStack(device, PhysicalDevice);
  if (!port->LowerDevice) {
    status = STATUS_NO_SUCH_DEVICE;
    goto deleteLink;
  }
  device->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;

deleteLink:
  DeleteLink(port);
deleteDevice:
  IoDeleteDevice(device);
  return status;
}

static NTSTATUS ForwardDone(PDEVICE_OBJECT, PIRP, PVOID Context) {
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// The drivers below go first; afterwards the request is ours again.
static NTSTATUS ForwardAndWait(SerialPort *Port, PIRP Irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, ForwardDone, &done, TRUE, TRUE, TRUE);
  IofCallDriver(Port->LowerDevice, Irp);
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  return Irp->IoStatus.Status;
}

// From here on nothing is taken, and what waits ends. A tty that is still open is closed with the
// close, or at the latest with the removal.
static void Withdraw(SerialPort *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  Port->Gone = STATUS_DEVICE_REMOVED;
  KeReleaseSpinLock(&Port->Lock, irql);
  LoopFdRemove(Port->Watch);
  Port->Watch = nullptr;
  SerialQueuesFlush(Port, STATUS_DEVICE_REMOVED);
}

static NTSTATUS Remove(SerialPort *Port, PIRP Irp) {
  Withdraw(Port);
  DeleteLink(Port);
  int fd = SerialDetachTty(Port);
  if (fd >= 0) {
    TtyClose(fd);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  NTSTATUS status = PassDown(Port, Irp);
  IoDetachDevice(Port->LowerDevice);
  IoDeleteDevice(Port->Device);
  return status;
}

NTSTATUS SerialPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  SerialPort *port = SerialPortOf(Device);
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
  case IRP_MN_START_DEVICE: {
    NTSTATUS status = ForwardAndWait(port, Irp);
    return SerialFinish(Irp, status, Irp->IoStatus.Information);
  }
  case IRP_MN_SURPRISE_REMOVAL:
    Withdraw(port);
    DeleteLink(port);
    break;
  case IRP_MN_REMOVE_DEVICE:
    return Remove(port, Irp);
  case IRP_MN_STOP_DEVICE:
  case IRP_MN_QUERY_STOP_DEVICE:
  case IRP_MN_CANCEL_STOP_DEVICE:
  case IRP_MN_QUERY_REMOVE_DEVICE:
  case IRP_MN_CANCEL_REMOVE_DEVICE:
    break;
  default:
    return PassDown(port, Irp);  // with the status that it carries
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  return PassDown(port, Irp);
}

NTSTATUS SerialPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  return PoCallDriver(SerialPortOf(Device)->LowerDevice, Irp);
}

NTSTATUS SerialSystemControl(PDEVICE_OBJECT Device, PIRP Irp) {
  return PassDown(SerialPortOf(Device), Irp);
}
