#include "host/serial_driver.h"

#include <cerrno>

#include "host/serial_port.h"

NTSTATUS SerialFinish(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

static NTSTATUS OpenStatus(int Error) {
  switch (Error) {
  case EBUSY:
    return STATUS_SHARING_VIOLATION;
  case EACCES:
  case EPERM:
    return STATUS_ACCESS_DENIED;
  case ENOMEM:
  case EMFILE:
  case ENFILE:
    return STATUS_INSUFFICIENT_RESOURCES;
  default:
    return STATUS_NO_SUCH_DEVICE;
  }
}

static NTSTATUS OpenTty(SerialPort *Port) {
  if (Port->Gone || Port->Fd >= 0) {
    return Port->Gone ? Port->Gone : STATUS_SHARING_VIOLATION;
  }
  int fd = TtyOpen(Port->TtyPath);
  if (fd < 0) {
    return OpenStatus(-fd);
  }
  NTSTATUS status = SerialLinePrepare(Port, fd);
  if (!NT_SUCCESS(status)) {
    TtyClose(fd);
    return status;
  }
  SerialAttachTty(Port, fd);
  return STATUS_SUCCESS;
}

static NTSTATUS SerialCreate(PDEVICE_OBJECT Device, PIRP Irp) {
  SerialPort *port = SerialPortOf(Device);
  NTSTATUS status = OpenTty(port);
  if (NT_SUCCESS(status)) {
    IoGetCurrentIrpStackLocation(Irp)->FileObject->FsContext = port;
  }
  return SerialFinish(Irp, status, 0);
}

static NTSTATUS SerialCleanup(PDEVICE_OBJECT Device, PIRP Irp) {
  SerialPort *port = SerialPortOf(Device);
  SerialQueuesFlush(port, STATUS_CANCELLED);
  if (port->Fd >= 0) {
    // What came too late for this opener is not for the next one.
    LineFlush(port->Fd, true, false);
  }
  return SerialFinish(Irp, STATUS_SUCCESS, 0);
}

static NTSTATUS SerialClose(PDEVICE_OBJECT Device, PIRP Irp) {
  SerialPort *port = SerialPortOf(Device);
  int fd = SerialDetachTty(port);
  if (fd >= 0 && !port->Gone && LineOutputWaiting(fd) > 0) {
    // The kernel holds the close up until the line has sent what it still has.
    IoMarkIrpPending(Irp);
    LoopBlocking([fd]() { TtyClose(fd); }, [Irp]() { SerialFinish(Irp, STATUS_SUCCESS, 0); });
    return STATUS_PENDING;
  }
  if (fd >= 0) {
    TtyClose(fd);
  }
  return SerialFinish(Irp, STATUS_SUCCESS, 0);
}

// Every device is deleted when it is removed; there is nothing else.
static void SerialUnload(PDRIVER_OBJECT) {
}

NTSTATUS SerialDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
  DriverObject->DriverExtension->AddDevice = SerialAddDevice;
  DriverObject->DriverUnload = SerialUnload;
  DriverObject->MajorFunction[IRP_MJ_CREATE] = SerialCreate;
  DriverObject->MajorFunction[IRP_MJ_CLEANUP] = SerialCleanup;
  DriverObject->MajorFunction[IRP_MJ_CLOSE] = SerialClose;
  DriverObject->MajorFunction[IRP_MJ_READ] = SerialReadWrite;
  DriverObject->MajorFunction[IRP_MJ_WRITE] = SerialReadWrite;
  DriverObject->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = SerialReadWrite;
  DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = SerialDeviceControl;
  DriverObject->MajorFunction[IRP_MJ_PNP] = SerialPnp;
  DriverObject->MajorFunction[IRP_MJ_POWER] = SerialPower;
  DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = SerialSystemControl;
  return STATUS_SUCCESS;
}
