#include <unistd.h>
#include <cerrno>

#include "host/serial_driver.h"
#include "host/serial_port.h"

static void (*LossHandler)(PDEVICE_OBJECT PhysicalDevice);

void SerialOnLoss(void (*Handler)(PDEVICE_OBJECT PhysicalDevice)) {
  LossHandler = Handler;
}

// The address of a request's bytes. Both kinds of buffer are taken: what stands above decides.
static char *RequestBytes(PIRP Irp) {
  PMDL mdl = Irp->MdlAddress;
  if (!mdl) {
    return static_cast<char *>(Irp->AssociatedIrp.SystemBuffer);
  }
  if (mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
    return static_cast<char *>(mdl->MappedSystemVa);
  }
  return static_cast<char *>(MmMapLockedPagesSpecifyCache(
      mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority | MdlMappingNoExecute));
}

// What a failed or empty transfer means.
static NTSTATUS TransferStatus(ssize_t Moved) {
  bool later = Moved < 0 && (errno == EAGAIN || errno == EINTR);
  return later ? STATUS_PENDING : STATUS_DEVICE_NOT_CONNECTED;
}

static NTSTATUS AdvanceRead(SerialPort *Port, PIRP Irp) REQUIRES(Port->Lock) {
  char *bytes = RequestBytes(Irp);
  if (!bytes) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
  ssize_t moved = read(Port->Fd, bytes, length);
  if (moved <= 0) {
    return TransferStatus(moved);
  }
  Irp->IoStatus.Information = static_cast<ULONG_PTR>(moved);
  return STATUS_SUCCESS;
}

static NTSTATUS AdvanceWrite(SerialPort *Port, PIRP Irp) REQUIRES(Port->Lock) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  if (location->MajorFunction == IRP_MJ_FLUSH_BUFFERS) {
    return STATUS_SUCCESS;  // every write before it is done
  }
  char *bytes = RequestBytes(Irp);
  if (!bytes) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  ULONG length = location->Parameters.Write.Length;
  while (Irp->IoStatus.Information < length) {
    ssize_t moved =
        write(Port->Fd, bytes + Irp->IoStatus.Information, length - Irp->IoStatus.Information);
    if (moved <= 0) {
      return TransferStatus(moved);
    }
    Irp->IoStatus.Information += static_cast<ULONG_PTR>(moved);
  }
  return STATUS_SUCCESS;
}

// Nobody else knows the port yet.
void SerialQueuesInitialize(SerialPort *Port) ANALYSIS_OFF {
  KeInitializeSpinLock(&Port->Lock);
  InitializeListHead(&Port->Reads.Requests);
  Port->Reads.Wait = LoopWait::Readable;
  Port->Reads.Advance = AdvanceRead;
  InitializeListHead(&Port->Writes.Requests);
  Port->Writes.Wait = LoopWait::Writable;
  Port->Writes.Advance = AdvanceWrite;
}

static void CancelQueued(PDEVICE_OBJECT Device, PIRP Irp) RELEASE(CancelSpinLock) {
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  SerialPort *port = SerialPortOf(Device);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->Lock);
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
  KeReleaseSpinLock(&port->Lock, irql);
  SerialFinish(Irp, STATUS_CANCELLED, Irp->IoStatus.Information);
}

// Takes the first request out of the hands of its cancel routine; null when the queue is empty. It
// stays in the list. A request whose cancel routine is already on its way is linked to itself, so
// that the routine unlinks nothing.
static PIRP ClaimFirst(RequestQueue *Queue) {
  while (!IsListEmpty(&Queue->Requests)) {
    PLIST_ENTRY entry = Queue->Requests.Flink;
    PIRP irp = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
    if (IoSetCancelRoutine(irp, nullptr)) {
      return irp;
    }
    RemoveEntryList(entry);
    InitializeListHead(entry);
  }
  return nullptr;
}

// Gives the request back to its cancel routine. FALSE: it was cancelled in between, and is the
// caller's to complete.
static BOOLEAN Unclaim(PIRP Irp) {
  IoSetCancelRoutine(Irp, CancelQueued);
  return static_cast<BOOLEAN>(!Irp->Cancel || !IoSetCancelRoutine(Irp, nullptr));
}

// Takes out the first request when it can be completed; its status is in it. Null when the first
// request has to wait, or when there is none.
static PIRP TakeFinished(SerialPort *Port, RequestQueue *Queue, bool *Waits) REQUIRES(Port->Lock) {
  PIRP irp = Port->Fd < 0 || Port->Gone ? nullptr : ClaimFirst(Queue);
  if (!irp) {
    return nullptr;
  }
  NTSTATUS status = Queue->Advance(Port, irp);
  if (status == STATUS_PENDING) {
    if (Unclaim(irp)) {
      *Waits = true;
      return nullptr;
    }
    status = STATUS_CANCELLED;
  }
  if (status == STATUS_DEVICE_NOT_CONNECTED) {
    Port->Gone = status;
  }
  RemoveEntryList(&irp->Tail.Overlay.ListEntry);
  irp->IoStatus.Status = status;
  return irp;
}

// The descriptor stays open, so that its number is not given out again, until the close.
static void Lose(SerialPort *Port) {
  LoopFdRemove(Port->Watch);
  Port->Watch = nullptr;
  SerialQueuesFlush(Port, STATUS_DEVICE_NOT_CONNECTED);
  LossHandler(Port->PhysicalDevice);
}

static void Pump(SerialPort *Port, RequestQueue *Queue) {
  bool waits = false;
  bool lost = false;
  while (!waits && !lost) {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
    bool gone = Port->Gone != STATUS_SUCCESS;
    PIRP irp = TakeFinished(Port, Queue, &waits);
    lost = !gone && Port->Gone != STATUS_SUCCESS;
    KeReleaseSpinLock(&Port->Lock, irql);
    if (!irp) {
      break;
    }
    SerialFinish(irp, irp->IoStatus.Status, irp->IoStatus.Information);
  }
  if (lost) {
    Lose(Port);
  } else if (waits && Port->Watch) {
    LoopFdWait(Port->Watch, Queue->Wait, [Port, Queue]() { Pump(Port, Queue); });
  }
}

static void WatchLoss(SerialPort *Port) {
  LoopFdWait(Port->Watch, LoopWait::HangUp, [Port]() {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
    bool gone = Port->Gone != STATUS_SUCCESS;
    if (!gone) {
      Port->Gone = STATUS_DEVICE_NOT_CONNECTED;
    }
    KeReleaseSpinLock(&Port->Lock, irql);
    if (!gone) {
      Lose(Port);
    }
  });
}

void SerialAttachTty(SerialPort *Port, int Fd) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  Port->Fd = Fd;
  Port->Watch = LoopFdAdd(Fd);
  KeReleaseSpinLock(&Port->Lock, irql);
  WatchLoss(Port);
}

int SerialDetachTty(SerialPort *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  int fd = Port->Fd;
  Port->Fd = -1;
  LoopFdRemove(Port->Watch);
  Port->Watch = nullptr;
  KeReleaseSpinLock(&Port->Lock, irql);
  return fd;
}

// Puts the request at the end of the queue. The status says why not; STATUS_PENDING that it is in,
// or is being completed by its cancel routine.
static NTSTATUS Enqueue(SerialPort *Port, RequestQueue *Queue, PIRP Irp) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  NTSTATUS status = Port->Gone ? Port->Gone : STATUS_INVALID_DEVICE_STATE;
  BOOLEAN cancelled = FALSE;
  if (!Port->Gone && Port->Fd >= 0) {
    status = STATUS_PENDING;
    IoMarkIrpPending(Irp);
    Irp->IoStatus.Information = 0;
    InsertTailList(&Queue->Requests, &Irp->Tail.Overlay.ListEntry);
    if (!Unclaim(Irp)) {
      RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
      cancelled = TRUE;
    }
  }
  KeReleaseSpinLock(&Port->Lock, irql);
  if (cancelled) {
    SerialFinish(Irp, STATUS_CANCELLED, 0);
  }
  return status;
}

NTSTATUS SerialReadWrite(PDEVICE_OBJECT Device, PIRP Irp) {
  SerialPort *port = SerialPortOf(Device);
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  bool read = location->MajorFunction == IRP_MJ_READ;
  // Reads and writes have their length at the same place.
  if (location->MajorFunction != IRP_MJ_FLUSH_BUFFERS && location->Parameters.Read.Length == 0) {
    return SerialFinish(Irp, STATUS_SUCCESS, 0);
  }
  RequestQueue *queue = read ? &port->Reads : &port->Writes;
  NTSTATUS status = Enqueue(port, queue, Irp);
  if (status != STATUS_PENDING) {
    return SerialFinish(Irp, status, 0);
  }
  Pump(port, queue);
  return STATUS_PENDING;
}

void SerialQueueFlush(SerialPort *Port, RequestQueue *Queue, NTSTATUS Status) {
  for (;;) {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
    PIRP irp = ClaimFirst(Queue);
    if (irp) {
      RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    }
    KeReleaseSpinLock(&Port->Lock, irql);
    if (!irp) {
      return;
    }
    SerialFinish(irp, Status, irp->IoStatus.Information);
  }
}

void SerialQueuesFlush(SerialPort *Port, NTSTATUS Status) {
  SerialQueueFlush(Port, &Port->Reads, Status);
  SerialQueueFlush(Port, &Port->Writes, Status);
}
