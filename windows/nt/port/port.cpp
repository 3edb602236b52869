#include "windows/nt/port/port.h"

VxPort VxPorts[VX_PORTS];

// What an open leaves in its file object; reads and writes have to bring it.
static ULONG OpenContext;

VxExtension *VxFillExtension(PDEVICE_OBJECT Device, VxKind Kind, VxPort *Port, ULONG Number) {
  VxExtension *extension = ExtensionOf(Device);
  extension->Kind = Kind;
  extension->Port = Port;
  extension->Number = Number;
  return extension;
}

NTSTATUS VxComplete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

static NTSTATUS ForwardDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Device);
  UNREFERENCED_PARAMETER(Irp);
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS VxForward(PDEVICE_OBJECT Lower, PIRP Irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, ForwardDone, &done, TRUE, TRUE, TRUE);
  if (IofCallDriver(Lower, Irp) == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  }
  return Irp->IoStatus.Status;
}

// ---- Ending requests -----------------------------------------------------------------------

static VxExtension *PortOfRequest(PIRP Irp) {
  return ExtensionOf(IoGetCurrentIrpStackLocation(Irp)->DeviceObject);
}

// The request was acquired when it came.
static void End(PIRP Irp) {
  VxExtension *extension = PortOfRequest(Irp);
  IofCompleteRequest(Irp, IO_SERIAL_INCREMENT);
  IoReleaseRemoveLock(&extension->RemoveLock, Irp);
}

static void EndInDpc(PKDPC Dpc, PVOID Context, PVOID Argument1, PVOID Argument2) {
  UNREFERENCED_PARAMETER(Dpc);
  UNREFERENCED_PARAMETER(Argument1);
  UNREFERENCED_PARAMETER(Argument2);
  auto *port = static_cast<VxPort *>(Context);
  for (;;) {
    PIRP irp = nullptr;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->Lock);
    if (!IsListEmpty(&port->Ending)) {
      irp = CONTAINING_RECORD(RemoveHeadList(&port->Ending), IRP, Tail.Overlay.ListEntry);
    }
    KeReleaseSpinLock(&port->Lock, irql);
    if (irp == nullptr) {
      return;
    }
    End(irp);
  }
}

// Ends a request as the port ends those of its kind; its status is in it. Pending: the dispatch
// routine has returned, or will return, STATUS_PENDING.
static NTSTATUS EndAsTold(VxPort *Port, PIRP Irp, BOOLEAN Pending) {
  NTSTATUS status = Irp->IoStatus.Status;
  ULONG how = Port->How[IoGetCurrentIrpStackLocation(Irp)->MajorFunction];
  if (how == VX_IN_DPC) {
    if (!Pending) {
      IoMarkIrpPending(Irp);
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
    InsertTailList(&Port->Ending, &Irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&Port->Lock, irql);
    KeInsertQueueDpc(&Port->Dpc, nullptr, nullptr);
    return STATUS_PENDING;
  }
  KIRQL irql = KeGetCurrentIrql();
  if (how == VX_RAISED) {
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
  }
  End(Irp);
  if (how == VX_RAISED) {
    KeLowerIrql(irql);
  }
  return status;
}

// ---- Holding requests ----------------------------------------------------------------------

static void CancelHeld(PDEVICE_OBJECT Device, PIRP Irp) {
  UNREFERENCED_PARAMETER(Device);
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  Irp->IoStatus.Status = STATUS_CANCELLED;
  Irp->IoStatus.Information = 0;
  End(Irp);
}

static NTSTATUS Hold(VxPort *Port, PIRP Irp, BOOLEAN Cancellable) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  NTSTATUS refusal = PortOfRequest(Irp)->Gone          ? STATUS_DELETE_PENDING
                     : Cancellable && Irp->Cancel != 0 ? STATUS_CANCELLED
                                                       : STATUS_SUCCESS;
  if (refusal != STATUS_SUCCESS) {
    IoReleaseCancelSpinLock(irql);
    Irp->IoStatus.Status = refusal;
    Irp->IoStatus.Information = 0;
    End(Irp);
    return refusal;
  }
  IoMarkIrpPending(Irp);
  InsertTailList(&Port->Held, &Irp->Tail.Overlay.ListEntry);
  if (Cancellable) {
    IoSetCancelRoutine(Irp, CancelHeld);
  }
  IoReleaseCancelSpinLock(irql);
  return STATUS_PENDING;
}

constexpr UCHAR ANY = 0xFF;

// Takes the oldest held request of a major function, and of a file when one is given, or null.
static PIRP TakeHeld(VxPort *Port, UCHAR Major, PFILE_OBJECT File = nullptr) {
  PIRP taken = nullptr;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  for (PLIST_ENTRY link = Port->Held.Flink; link != &Port->Held && taken == nullptr;
       link = link->Flink) {
    PIRP irp = CONTAINING_RECORD(link, IRP, Tail.Overlay.ListEntry);
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if ((Major == ANY || stack->MajorFunction == Major) &&
        (File == nullptr || stack->FileObject == File)) {
      RemoveEntryList(link);
      IoSetCancelRoutine(irp, nullptr);
      taken = irp;
    }
  }
  IoReleaseCancelSpinLock(irql);
  return taken;
}

static void EndHeld(VxPort *Port, PFILE_OBJECT File, NTSTATUS Status) {
  while (PIRP irp = TakeHeld(Port, ANY, File)) {
    irp->IoStatus.Status = Status;
    irp->IoStatus.Information = 0;
    End(irp);
  }
}

ULONG VxPortHeld(VxPort *Port, UCHAR Major) {
  ULONG held = 0;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  for (PLIST_ENTRY link = Port->Held.Flink; link != &Port->Held; link = link->Flink) {
    PIRP irp = CONTAINING_RECORD(link, IRP, Tail.Overlay.ListEntry);
    held += IoGetCurrentIrpStackLocation(irp)->MajorFunction == Major ? 1 : 0;
  }
  IoReleaseCancelSpinLock(irql);
  return held;
}

// ---- Bytes ---------------------------------------------------------------------------------

static PUCHAR BufferOf(PIRP Irp) {
  return static_cast<PUCHAR>(Irp->MdlAddress != nullptr
                                 ? MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority)
                                 : Irp->AssociatedIrp.SystemBuffer);
}

static void Drop(VxBytes *Bytes, ULONG Count) {
  RtlMoveMemory(Bytes->Bytes, Bytes->Bytes + Count, Bytes->Count - Count);
  Bytes->Count -= Count;
}

static bool Append(VxPort *Port, VxBytes *Bytes, const UCHAR *From, ULONG Count) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  bool room = Count <= VX_BUFFER_BYTES - Bytes->Count;
  if (room) {
    RtlCopyMemory(Bytes->Bytes + Bytes->Count, From, Count);
    Bytes->Count += Count;
  }
  KeReleaseSpinLock(&Port->Lock, irql);
  return room;
}

static ULONG Take(VxPort *Port, VxBytes *Bytes, UCHAR *To, ULONG Room) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  ULONG count = Bytes->Count < Room ? Bytes->Count : Room;
  RtlCopyMemory(To, Bytes->Bytes, count);
  Drop(Bytes, count);
  KeReleaseSpinLock(&Port->Lock, irql);
  return count;
}

// Gives a read what was fed; FALSE when there is nothing.
static BOOLEAN Serve(VxPort *Port, PIRP Irp) {
  ULONG room = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
  PUCHAR buffer = room != 0 ? BufferOf(Irp) : nullptr;
  ULONG count = buffer != nullptr ? Take(Port, Port->Fed, buffer, room) : 0;
  Irp->IoStatus.Status =
      room != 0 && buffer == nullptr ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS;
  Irp->IoStatus.Information = count;
  return static_cast<BOOLEAN>(count != 0 || room == 0 || buffer == nullptr);
}

static NTSTATUS HoldRead(VxPort *Port, PIRP Irp) {
  return Hold(Port, Irp, static_cast<BOOLEAN>(Port->How[IRP_MJ_READ] != VX_DEAF));
}

static bool HasBytes(VxPort *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  bool has = Port->Fed->Count != 0;
  KeReleaseSpinLock(&Port->Lock, irql);
  return has;
}

// As long as there are bytes and reads for them: whoever brings the one looks for the other
// afterwards. A read that another one was faster than is held again.
static void ServeHeld(VxPort *Port) {
  while (HasBytes(Port)) {
    PIRP irp = TakeHeld(Port, IRP_MJ_READ);
    if (irp == nullptr) {
      return;
    }
    if (Serve(Port, irp)) {
      EndAsTold(Port, irp, TRUE);
    } else {
      HoldRead(Port, irp);
    }
  }
}

NTSTATUS VxPortFeed(VxPort *Port, const UCHAR *Bytes, ULONG Count) {
  if (!Append(Port, Port->Fed, Bytes, Count)) {
    return STATUS_BUFFER_OVERFLOW;
  }
  ServeHeld(Port);
  return STATUS_SUCCESS;
}

ULONG VxPortTake(VxPort *Port, UCHAR *Bytes, ULONG Room) {
  return Take(Port, Port->Written, Bytes, Room);
}

NTSTATUS VxPortFinish(VxPort *Port, UCHAR Major, NTSTATUS Status) {
  PIRP irp = TakeHeld(Port, Major);
  if (irp == nullptr) {
    return STATUS_NOT_FOUND;
  }
  irp->IoStatus.Status = Status;
  irp->IoStatus.Information = Major == IRP_MJ_WRITE && NT_SUCCESS(Status)
                                  ? IoGetCurrentIrpStackLocation(irp)->Parameters.Write.Length
                                  : 0;
  End(irp);
  return STATUS_SUCCESS;
}

// ---- Requests ------------------------------------------------------------------------------

static NTSTATUS ReadPort(VxPort *Port, PIRP Irp) {
  if (Port->Status[IRP_MJ_READ] != STATUS_SUCCESS || Serve(Port, Irp)) {
    return EndAsTold(Port, Irp, FALSE);
  }
  NTSTATUS status = HoldRead(Port, Irp);
  ServeHeld(Port);
  return status;
}

static void TakeWrite(VxPort *Port, PIRP Irp) {
  ULONG count = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length;
  PUCHAR buffer = count != 0 ? BufferOf(Irp) : nullptr;
  if (buffer != nullptr && !Append(Port, Port->Written, buffer, count)) {
    Irp->IoStatus.Status = STATUS_DEVICE_BUSY;
  } else if (Irp->IoStatus.Status == STATUS_SUCCESS) {
    Irp->IoStatus.Information = count;
  }
}

// A request of a driver's own may have no file; one that has one brings our open's context.
static void CheckContext(PFILE_OBJECT File) {
  if (File != nullptr && File->FsContext != &OpenContext) {
    DbgPrint("VX: breach context: a request without the port's own context\n");
  }
}

NTSTATUS VxPortRequestDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  VxExtension *extension = ExtensionOf(Device);
  VxPort *port = extension->Port;
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  NTSTATUS status = IoAcquireRemoveLock(&extension->RemoveLock, Irp);
  if (!NT_SUCCESS(status)) {
    return VxComplete(Irp, status);
  }
  InterlockedIncrement(reinterpret_cast<volatile LONG *>(&port->Seen[stack->MajorFunction]));
  Irp->IoStatus.Status = port->Status[stack->MajorFunction];
  Irp->IoStatus.Information = 0;
  switch (stack->MajorFunction) {
  case IRP_MJ_CREATE:
    stack->FileObject->FsContext = &OpenContext;
    break;
  case IRP_MJ_CLEANUP:
    EndHeld(port, stack->FileObject, STATUS_CANCELLED);
    break;
  case IRP_MJ_READ:
    CheckContext(stack->FileObject);
    return ReadPort(port, Irp);
  case IRP_MJ_WRITE:
    CheckContext(stack->FileObject);
    TakeWrite(port, Irp);
    break;
  default:
    break;
  }
  ULONG how = port->How[stack->MajorFunction];
  return how >= VX_HOLD ? Hold(port, Irp, static_cast<BOOLEAN>(how == VX_HOLD))
                        : EndAsTold(port, Irp, FALSE);
}

// ---- Plug and Play -------------------------------------------------------------------------

void VxPortInitialize(VxPort *Port) {
  KeInitializeSpinLock(&Port->Lock);
  InitializeListHead(&Port->Held);
  InitializeListHead(&Port->Ending);
  KeInitializeDpc(&Port->Dpc, EndInDpc, Port);
  Port->Fed =
      static_cast<VxBytes *>(ExAllocatePoolWithTag(NonPagedPool, 2 * sizeof(VxBytes), VX_TAG));
  Port->Written = Port->Fed != nullptr ? Port->Fed + 1 : nullptr;
}

// "\Device\VxSerialN" or "\DosDevices\COMN".
static void MakeName(PWCHAR Buffer, ULONG Bytes, PCWSTR Prefix, ULONG Number,
                     PUNICODE_STRING Name) {
  RtlStringCbPrintfW(Buffer, Bytes, L"%s%u", Prefix, Number);
  RtlInitUnicodeString(Name, Buffer);
}

NTSTATUS VxPortAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Child, VxPort *Port, ULONG Number) {
  WCHAR buffer[32];
  UNICODE_STRING name;
  MakeName(buffer, sizeof(buffer), L"\\Device\\VxSerial", Number, &name);
  PDEVICE_OBJECT device;
  NTSTATUS status = IoCreateDevice(Driver, sizeof(VxExtension), &name, FILE_DEVICE_SERIAL_PORT,
                                   FILE_DEVICE_SECURE_OPEN, TRUE, &device);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  VxExtension *extension = VxFillExtension(device, VX_KIND_PORT, Port, Number);
  IoInitializeRemoveLock(&extension->RemoveLock, VX_TAG, 0, 0);
  device->Flags |= (Port->Flags & VX_DIRECT) != 0 ? DO_DIRECT_IO : DO_BUFFERED_IO;
  device->Flags |= DO_POWER_PAGABLE;
  RtlZeroMemory(Port->Seen, sizeof(Port->Seen));
  Port->Fed->Count = 0;
  Port->Written->Count = 0;
  extension->Lower = IoAttachDeviceToDeviceStack(device, Child);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

static void Link(VxExtension *Extension, BOOLEAN Make) {
  WCHAR linkBuffer[32], deviceBuffer[32];
  UNICODE_STRING link, device;
  MakeName(linkBuffer, sizeof(linkBuffer), L"\\DosDevices\\COM", Extension->Number, &link);
  MakeName(deviceBuffer, sizeof(deviceBuffer), L"\\Device\\VxSerial", Extension->Number, &device);
  if (Make) {
    IoCreateSymbolicLink(&link, &device);
  } else {
    IoDeleteSymbolicLink(&link);
  }
}

// Whatever is held ends.
static void GiveUp(VxExtension *Extension) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  Extension->Gone = TRUE;
  IoReleaseCancelSpinLock(irql);
  EndHeld(Extension->Port, nullptr, STATUS_DELETE_PENDING);
}

static NTSTATUS RemovePort(PDEVICE_OBJECT Device, PIRP Irp) {
  VxExtension *extension = ExtensionOf(Device);
  Link(extension, FALSE);
  GiveUp(extension);
  IoReleaseRemoveLockAndWait(&extension->RemoveLock, Irp);
  Irp->IoStatus.Status = STATUS_SUCCESS;
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = IofCallDriver(extension->Lower, Irp);
  IoDetachDevice(extension->Lower);
  IoDeleteDevice(Device);
  return status;
}

NTSTATUS VxPortPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  VxExtension *extension = ExtensionOf(Device);
  NTSTATUS status = IoAcquireRemoveLock(&extension->RemoveLock, Irp);
  if (!NT_SUCCESS(status)) {
    return VxComplete(Irp, status);
  }
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
  case IRP_MN_REMOVE_DEVICE:
    return RemovePort(Device, Irp);
  case IRP_MN_START_DEVICE:
    status = VxForward(extension->Lower, Irp);
    if (NT_SUCCESS(status)) {
      Link(extension, TRUE);
    }
    VxComplete(Irp, status);
    break;
  case IRP_MN_SURPRISE_REMOVAL:
    GiveUp(extension);
    [[fallthrough]];
  case IRP_MN_QUERY_STOP_DEVICE:
  case IRP_MN_CANCEL_STOP_DEVICE:
  case IRP_MN_STOP_DEVICE:
  case IRP_MN_QUERY_REMOVE_DEVICE:
  case IRP_MN_CANCEL_REMOVE_DEVICE:
    Irp->IoStatus.Status = STATUS_SUCCESS;
    [[fallthrough]];
  default:
    IoSkipCurrentIrpStackLocation(Irp);
    status = IofCallDriver(extension->Lower, Irp);
    break;
  }
  IoReleaseRemoveLock(&extension->RemoveLock, Irp);
  return status;
}
