#include "driver/requests.h"

#include "driver/extension.h"

static NTSTATUS Refuse(PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = 0;
  return Status;
}

constexpr ULONG ADMISSION_PARKS = ADMISSION_REMOVE_QUERIED | ADMISSION_RESTARTING;

// The flags were read under the admission lock, which is dropped by now: a sweep of the hold list
// may have come in between, and what it missed would wait for ever. Flags are written before the
// sweep, so reading them again under the lock that the sweep takes settles it.
static NTSTATUS Park(PortExtension *Port, PIRP Irp) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  ULONG flags = ReadULongAcquire(&Port->AdmissionFlags);
  if ((flags & ADMISSION_GOING) != 0) {
    IoReleaseCancelSpinLock(irql);
    return Refuse(Irp, STATUS_DELETE_PENDING);
  }
  if ((flags & ADMISSION_PARKS) == 0) {
    IoReleaseCancelSpinLock(irql);
    return STATUS_SUCCESS;
  }
  if (Irp->Cancel) {
    IoReleaseCancelSpinLock(irql);
    return Refuse(Irp, STATUS_CANCELLED);
  }
  // A request that goes on after all may have to end with the status that it came with.
  Irp->Tail.Overlay.DriverContext[0] =
      reinterpret_cast<PVOID>(static_cast<LONG_PTR>(Irp->IoStatus.Status));
  Irp->IoStatus.Status = STATUS_PENDING;
  IoMarkIrpPending(Irp);
  InsertTailList(&Port->PnpHoldList, &Irp->Tail.Overlay.ListEntry);
  IoSetCancelRoutine(Irp, PnpHeldRequestCancel);
  IoReleaseCancelSpinLock(irql);
  return STATUS_PENDING;
}

// While parked requests go on, those that go on and what ends a handle pass; the rest waits behind.
static BOOLEAN PassesRestart(PortExtension *Port, PIRP Irp, BOOLEAN Closing)
    REQUIRES(Port->AdmissionLock) {
  if (Port->RestartedRequest == Irp) {
    // Only once: behind its completion another request may have the address.
    Port->RestartedRequest = nullptr;
    return TRUE;
  }
  return Closing;
}

NTSTATUS AcquireRequest(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  BOOLEAN closing = static_cast<BOOLEAN>(major == IRP_MJ_CLOSE || major == IRP_MJ_CLEANUP);
  InterlockedIncrement(&port->RequestCount);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->AdmissionLock);
  ULONG flags = ReadULongAcquire(&port->AdmissionFlags);
  if ((flags & ADMISSION_RESTARTING) != 0 && PassesRestart(port, Irp, closing)) {
    flags &= ~static_cast<ULONG>(ADMISSION_RESTARTING);
  }
  BOOLEAN gone = port->Gone;
  KeReleaseSpinLock(&port->AdmissionLock, irql);

  if (major == IRP_MJ_PNP || (flags & (ADMISSION_GOING | ADMISSION_PARKS)) == 0) {
    return STATUS_SUCCESS;
  }
  if (gone && closing) {
    return STATUS_DEVICE_REMOVED;
  }
  if ((flags & ADMISSION_GOING) != 0) {
    return Refuse(Irp, STATUS_DELETE_PENDING);
  }
  return Park(port, Irp);
}

void HoldPort(PortExtension *Port) {
  InterlockedIncrement(&Port->RequestCount);
}

// The count falls to 0 and the event is set as one step under the lock: else a removal that another
// one's signal woke could free the port in between. The unlock is the last touch, and the removal
// waits for it.
void ReleasePort(PortExtension *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->AdmissionLock);
  if (InterlockedDecrement(&Port->RequestCount) == 0) {
    KeSetEvent(&Port->IdleEvent, IO_NO_INCREMENT, FALSE);
  }
  KeReleaseSpinLock(&Port->AdmissionLock, irql);
}

void ReleaseRequest(PDEVICE_OBJECT Device, PIRP Irp) {
  UNREFERENCED_PARAMETER(Irp);
  ReleasePort(PortOf(Device));
}

// A removal waits for the completion, so the reference goes after it. By then the handle that kept
// the devices may be closed, on a port that was removed before: what is refused, and Plug and Play
// requests, come even then. The filter device is kept here, for the release to find its port.
void CompleteAdmitted(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  PDEVICE_OBJECT filter = port->Header.Device;
  ObReferenceObject(filter);
  PDEVICE_OBJECT held = TakeFilterHold(Device, Irp);
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  ReleasePort(port);
  DropFilterHold(held);
  ObDereferenceObject(filter);
}

NTSTATUS CompleteRefused(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status = Irp->IoStatus.Status;
  CompleteAdmitted(Device, Irp);
  return status;
}

NTSTATUS CompleteOnGonePort(PDEVICE_OBJECT Device, PIRP Irp) {
  return CompleteRequest(Device, Irp, STATUS_SUCCESS, 0);
}

NTSTATUS CompleteRequest(PDEVICE_OBJECT Device, PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  CompleteAdmitted(Device, Irp);
  return Status;
}

void WaitForIdle(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  // With the bias on nobody can signal; without the clear, a refused request that came and went
  // during an earlier wait would end this one early.
  KeClearEvent(&port->IdleEvent);
  if (InterlockedDecrement(&port->RequestCount) != 0) {
    KeWaitForSingleObject(&port->IdleEvent, Executive, KernelMode, FALSE, nullptr);
  }
  // Whoever brought the count to 0 may still have the lock.
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->AdmissionLock);
  InterlockedIncrement(&port->RequestCount);
  KeReleaseSpinLock(&port->AdmissionLock, irql);
}

void ChangeAdmission(PortExtension *Port, ULONG Set, ULONG Clear) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->AdmissionLock);
  WriteULongRelease(&Port->AdmissionFlags,
                    (ReadULongAcquire(&Port->AdmissionFlags) & ~Clear) | Set);
  KeReleaseSpinLock(&Port->AdmissionLock, irql);
}

void MarkPortGone(PortExtension *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->AdmissionLock);
  Port->Gone = TRUE;
  KeReleaseSpinLock(&Port->AdmissionLock, irql);
}

// Takes the oldest request off a list of parked ones, or null. While the cancel spin lock is held a
// listed request has its cancel routine: whoever cancels unlinks before letting go of that lock.
static PIRP TakeHeldRequest(PLIST_ENTRY List) {
  PIRP irp = nullptr;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  if (!IsListEmpty(List)) {
    irp = CONTAINING_RECORD(RemoveHeadList(List), IRP, Tail.Overlay.ListEntry);
    IoSetCancelRoutine(irp, nullptr);
  }
  IoReleaseCancelSpinLock(irql);
  return irp;
}

void CompletePnpHeldRequests(PDEVICE_OBJECT Device, NTSTATUS Status) {
  PortExtension *port = PortOf(Device);
  while (PIRP irp = TakeHeldRequest(&port->PnpHoldList)) {
    // On the device where it arrived: a close there gives back what its open took.
    CompleteRequest(IoGetCurrentIrpStackLocation(irp)->DeviceObject, irp, Status, 0);
  }
}

static void GoOn(PortExtension *Port, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  PDEVICE_OBJECT arrivedAt = stack->DeviceObject;
  Irp->IoStatus.Status =
      static_cast<NTSTATUS>(reinterpret_cast<LONG_PTR>(Irp->Tail.Overlay.DriverContext[0]));
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->AdmissionLock);
  Port->RestartedRequest = Irp;
  KeReleaseSpinLock(&Port->AdmissionLock, irql);
  // The dispatch routine counts the request itself; the reference it was parked with ends here.
  arrivedAt->DriverObject->MajorFunction[stack->MajorFunction](arrivedAt, Irp);
  ReleasePort(Port);
}

// Moves what is parked; when there is nothing, new requests pass again from here on.
static void MoveHeldRequests(PortExtension *Port, PLIST_ENTRY Held) {
  KIRQL cancelIrql;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->AdmissionLock);
  IoAcquireCancelSpinLock(&cancelIrql);
  if (IsListEmpty(&Port->PnpHoldList)) {
    WriteULongRelease(&Port->AdmissionFlags, ReadULongAcquire(&Port->AdmissionFlags) &
                                                 ~static_cast<ULONG>(ADMISSION_RESTARTING));
  }
  while (!IsListEmpty(&Port->PnpHoldList)) {
    InsertTailList(Held, RemoveHeadList(&Port->PnpHoldList));
  }
  IoReleaseCancelSpinLock(cancelIrql);
  KeReleaseSpinLock(&Port->AdmissionLock, irql);
}

void RestartPnpHeldRequests(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  LIST_ENTRY held;
  InitializeListHead(&held);
  do {
    // The list is moved: a request that is parked again on its way, by a query that stands, waits
    // for the next restart.
    MoveHeldRequests(port, &held);
    while (PIRP irp = TakeHeldRequest(&held)) {
      GoOn(port, irp);
    }
  } while ((ReadULongAcquire(&port->AdmissionFlags) & ADMISSION_RESTARTING) != 0);
}

void PnpHeldRequestCancel(PDEVICE_OBJECT Device, PIRP Irp) {
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  CompleteRequest(Device, Irp, STATUS_CANCELLED, 0);
}

static BOOLEAN IsOnHandleOf(PDEVICE_OBJECT Device, PIRP Irp) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(Irp)->FileObject;
  return static_cast<BOOLEAN>(file != nullptr && file->DeviceObject == Device);
}

void HoldFilterDevice(PDEVICE_OBJECT Device, PIRP Irp) {
  ExtensionHeader *header = HeaderOf(Device);
  if (header->Kind != KIND_FILTER && IsOnHandleOf(Device, Irp)) {
    ObReferenceObject(PortOf(Device)->Header.Device);
    InterlockedIncrement(&header->FilterHolds);
  }
}

PDEVICE_OBJECT TakeFilterHold(PDEVICE_OBJECT Device, PIRP Irp) {
  ExtensionHeader *header = HeaderOf(Device);
  if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_CLOSE ||
      header->Kind == KIND_FILTER || !IsOnHandleOf(Device, Irp)) {
    return nullptr;
  }
  // A count: the next handle may be granted before the close of the last one gives its hold back.
  if (InterlockedDecrement(&header->FilterHolds) < 0) {
    InterlockedIncrement(&header->FilterHolds);  // a close without an open
    return nullptr;
  }
  return PortOf(Device)->Header.Device;
}

void DropFilterHold(PDEVICE_OBJECT Held) {
  if (Held != nullptr) {
    ObDereferenceObject(Held);
  }
}

NTSTATUS GetRequestBuffer(PIRP Irp, PUCHAR *Address) {
  PMDL mdl = Irp->MdlAddress;
  if (mdl == nullptr) {
    *Address = static_cast<PUCHAR>(Irp->AssociatedIrp.SystemBuffer);
    return STATUS_SUCCESS;
  }
  if ((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
    *Address = static_cast<PUCHAR>(mdl->MappedSystemVa);
  } else {
    *Address = static_cast<PUCHAR>(MmMapLockedPagesSpecifyCache(
        mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority | MdlMappingNoExecute));
  }
  return *Address != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}
