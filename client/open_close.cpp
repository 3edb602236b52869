#include "client/open_close.h"

#include "client/forward.h"
#include "client/pass_through.h"
#include "controller/messages.h"
#include "controller/port_mode.h"
#include "controller/stream_lock.h"
#include "driver/extension.h"
#include "driver/requests.h"
#include "pipes/pending_reads.h"

static void GiveBackOpenRef(ExtensionHeader *Header) {
  if (InterlockedDecrement(&Header->OpenRefs) == 0) {
    KeSetEvent(&Header->OpenDrainEvent, IO_NO_INCREMENT, FALSE);
  }
}

static ULONG FlagOfSide(PDEVICE_OBJECT Device) {
  return IsZkSide(Device) ? PSF_ZK_OPEN : PSF_CLIENT_OPEN;
}

static void MarkSide(PDEVICE_OBJECT Device, BOOLEAN Open) REQUIRES(SerializerRole) {
  PortExtension *port = PortOf(Device);
  ULONG flags = PortStateFlags(port);
  ULONG side = FlagOfSide(Device);
  // A refusal of the combination is in the event log; the open or close stands.
  ApplyStateFlags(port, Device, Open ? flags | side : flags & ~side);
}

static void StoreOpenFile(PDEVICE_OBJECT Device, PFILE_OBJECT File) {
  WritePointerRelease(reinterpret_cast<PVOID volatile *>(&HeaderOf(Device)->OpenFile), File);
}

static void MarkOpen(PDEVICE_OBJECT Device, PIRP Irp) {
  StoreOpenFile(Device, IoGetCurrentIrpStackLocation(Irp)->FileObject);
  WriteUCharRelease(&HeaderOf(Device)->CleanedUp, FALSE);
  WriteULongRelease(&HeaderOf(Device)->OpenState, OPEN_STATE_OPEN);
}

static void MarkClosed(PDEVICE_OBJECT Device) {
  StoreOpenFile(Device, nullptr);
  WriteULongRelease(&HeaderOf(Device)->OpenState, OPEN_STATE_CLOSED);
}

static NTSTATUS Decide(PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = 0;
  return Status;
}

static BOOLEAN DecideOpen(PDEVICE_OBJECT Device, PIRP Irp) REQUIRES(SerializerRole) {
  if (ReadULongAcquire(&HeaderOf(Device)->OpenState) == OPEN_STATE_OPEN) {
    Decide(Irp, STATUS_ACCESS_DENIED);
    return TRUE;
  }
  if (AddToOpenCount(PortOf(Device), 1) <= 1) {
    return FALSE;
  }
  HoldFilterDevice(Device, Irp);
  // In this order: a read of ZK's between the two would find a client that has the port open, and
  // not, the other way round, read a block that the client never gets.
  MarkOpen(Device, Irp);
  MarkSide(Device, TRUE);
  Decide(Irp, STATUS_SUCCESS);
  return TRUE;
}

// What ZK's close ends, whether or not the close goes down.
static void EndZkSession(PDEVICE_OBJECT Device) REQUIRES(SerializerRole) {
  PortExtension *port = PortOf(Device);
  ReleaseHeldRequests(Device);
  SetPortMode(port, MODE_IDLE);
  StoreMessageLevel(port, 0);
}

static BOOLEAN DecideClose(PDEVICE_OBJECT Device, PIRP Irp) REQUIRES(SerializerRole) {
  PortExtension *port = PortOf(Device);
  if (ReadULongAcquire(&HeaderOf(Device)->OpenState) == OPEN_STATE_CLOSED) {
    Decide(Irp, STATUS_ACCESS_DENIED);
    return TRUE;
  }
  BOOLEAN last = static_cast<BOOLEAN>(AddToOpenCount(port, -1) <= 0);
  if (!last) {
    MarkClosed(Device);
  }
  if (IsZkSide(Device)) {
    EndZkSession(Device);
  }
  if (last) {
    return FALSE;
  }
  MarkSide(Device, FALSE);
  if (IsZkSide(Device)) {
    PipeHandDownReads(&port->ClientPipe);
  }
  Decide(Irp, STATUS_SUCCESS);
  return TRUE;
}

// Decides the request here, leaving its final status in it, or leaves it to the real port.
static BOOLEAN OpenCloseGate(PIRP Irp) REQUIRES(SerializerRole) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  return stack->MajorFunction == IRP_MJ_CREATE ? DecideOpen(stack->DeviceObject, Irp)
                                               : DecideClose(stack->DeviceObject, Irp);
}

static void Opened(PDEVICE_OBJECT Device, PIRP Irp) REQUIRES(SerializerRole) {
  PortExtension *port = PortOf(Device);
  StoreLowerOpen(port, LowerDeviceOf(Device),
                 IoGetCurrentIrpStackLocation(Irp)->FileObject->FsContext);
  SendZkMessage(Device, MESSAGE_SESSION,
                IsZkSide(Device) ? L"ZK opened on %ws\n" : L"COM port opened on %ws\n",
                PortLinkName(port));
  MarkOpen(Device, Irp);
  MarkSide(Device, TRUE);
}

static void Closed(PDEVICE_OBJECT Device) REQUIRES(SerializerRole) {
  PortExtension *port = PortOf(Device);
  ExtensionHeader *header = HeaderOf(Device);
  MarkClosed(Device);
  StoreLowerOpen(port, nullptr, nullptr);
  SendZkMessage(Device, MESSAGE_SESSION,
                IsZkSide(Device) ? L"ZK closed on %ws\n" : L"COM port closed on %ws\n",
                PortLinkName(port));
  GiveBackOpenRef(header);
  // The base reference goes and comes back without a wait: an open that still counts here is queued
  // behind this very close and cannot go on before it is finished.
  InterlockedDecrement(&header->OpenRefs);
  InterlockedIncrement(&header->OpenRefs);
  MarkSide(Device, FALSE);
  PipeFlush(PipeOfSide(Device), STATUS_CANCELLED);
}

static void Failed(PDEVICE_OBJECT Device, BOOLEAN Open) REQUIRES(SerializerRole) {
  if (Open) {
    AddToOpenCount(PortOf(Device), -1);
    GiveBackOpenRef(HeaderOf(Device));
  } else {
    AddToOpenCount(PortOf(Device), 1);
  }
}

// The completion routine of an open or close that went down; in the lower driver's context, up to
// DISPATCH_LEVEL. The next item starts from here.
static NTSTATUS OpenCloseDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  RunningAsSerializerItem();
  auto *serializer = static_cast<RequestSerializer *>(Context);
  BOOLEAN open =
      static_cast<BOOLEAN>(IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_CREATE);
  PDEVICE_OBJECT held = TakeFilterHold(Device, Irp);
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  // An informational success leaves a handle, too, though it counts as a failure below.
  if (open && NT_SUCCESS(Irp->IoStatus.Status)) {
    HoldFilterDevice(Device, Irp);
  }
  // Success is exactly 0: a port that answers an open with anything else has not opened it.
  if (Irp->IoStatus.Status != STATUS_SUCCESS) {
    Failed(Device, open);
  } else if (open) {
    Opened(Device, Irp);
  } else {
    Closed(Device);
  }
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&serializer->Lock);
  FinishSerializerItem(serializer, irql);
  ReleaseRequest(Device, Irp);
  DropFilterHold(held);
  return STATUS_SUCCESS;
}

static NTSTATUS FinishDecided(RequestSerializer *Serializer, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  NTSTATUS status = Irp->IoStatus.Status;
  if (stack->MajorFunction == IRP_MJ_CLOSE || !NT_SUCCESS(status)) {
    GiveBackOpenRef(HeaderOf(stack->DeviceObject));
  }
  PipeFlush(PipeOfSide(stack->DeviceObject), STATUS_CANCELLED);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
  FinishSerializerItem(Serializer, irql);
  return status;
}

// Where an open or close goes to. The last close ends the open that went down, whichever side's
// that was, and its driver finds in the file object what it left in the other one.
static PDEVICE_OBJECT TargetOf(PDEVICE_OBJECT Device, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (stack->MajorFunction == IRP_MJ_CREATE) {
    return LowerDeviceOf(Device);
  }
  PVOID context;
  PDEVICE_OBJECT opened = LoadLowerOpen(PortOf(Device), &context);
  if (context != nullptr) {
    WritePointerRelease(&stack->FileObject->FsContext, context);
  }
  return opened;
}

// The start routine of every open and close.
static NTSTATUS RunOpenClose(RequestSerializer *Serializer, SerializerItem *Item) {
  RunningAsSerializerItem();
  PIRP irp = Item->Request;
  PDEVICE_OBJECT device = IoGetCurrentIrpStackLocation(irp)->DeviceObject;
  RecordSerializerFinish(Serializer, Item, device, irp);
  if (OpenCloseGate(irp)) {
    return FinishDecided(Serializer, irp);
  }
  Item->Finish = nullptr;
  PDEVICE_OBJECT target = TargetOf(device, irp);
  IoCopyCurrentIrpStackLocationToNext(irp);
  IoSetCompletionRoutine(irp, OpenCloseDone, Serializer, TRUE, TRUE, TRUE);
  return IofCallDriver(target, irp);
}

NTSTATUS DispatchCreate(PDEVICE_OBJECT Device, PIRP Irp) {
  if (ReadULongAcquire(&PortOf(Device)->Header.PnpState) != PNP_STARTED) {
    Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  NTSTATUS status = AcquireRequest(Device, Irp);
  if (status == STATUS_PENDING) {
    return status;
  }
  if (status != STATUS_SUCCESS) {
    return CompleteRefused(Device, Irp);
  }
  ExtensionHeader *header = HeaderOf(Device);
  InterlockedIncrement(&header->OpenRefs);
  SerializerItem *item;
  status = CreateSerializerItem(RunOpenClose, MarkSerializedPending, CompleteSerializedRequest, Irp,
                                &item);
  if (!NT_SUCCESS(status)) {
    GiveBackOpenRef(header);
    return CompleteRequest(Device, Irp, status, 0);
  }
  return SubmitSerializerItem(&PortOf(Device)->Serializer, item);
}

// Closes and cleanups go on while the port is being removed, so that handles can still be closed.
// Returns whether the request is still the caller's; else *Status is for the dispatch routine.
static BOOLEAN AdmitClosing(PDEVICE_OBJECT Device, PIRP Irp, NTSTATUS *Status) {
  NTSTATUS status = AcquireRequest(Device, Irp);
  if (status == STATUS_SUCCESS || status == STATUS_DELETE_PENDING) {
    return TRUE;
  }
  if (status == STATUS_DEVICE_REMOVED) {
    status = CompleteOnGonePort(Device, Irp);
  } else if (status != STATUS_PENDING) {
    status = CompleteRefused(Device, Irp);
  }
  *Status = status;
  return FALSE;
}

// Whether the handle was opened below the auxiliary device, before that was attached. One that was
// opened through it is known from before the open was complete until its close is decided.
static BOOLEAN WasOpenedBelow(PDEVICE_OBJECT Device, PIRP Irp) {
  ExtensionHeader *header = HeaderOf(Device);
  if (header->Kind != KIND_AUXILIARY) {
    return FALSE;
  }
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(Irp)->FileObject;
  PVOID open = ReadPointerAcquire(reinterpret_cast<PVOID const volatile *>(&header->OpenFile));
  return static_cast<BOOLEAN>(ReadULongAcquire(&header->OpenState) == OPEN_STATE_BYPASS ||
                              (file != open && file->DeviceObject != Device));
}

NTSTATUS DispatchClose(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status;
  if (!AdmitClosing(Device, Irp, &status)) {
    return status;
  }
  if (WasOpenedBelow(Device, Irp)) {
    return SkipToLower(Device, Irp);
  }
  return SubmitSerialized(Device, Irp, RunOpenClose);
}

NTSTATUS DispatchCleanup(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status;
  if (!AdmitClosing(Device, Irp, &status)) {
    return status;
  }
  PortExtension *port = PortOf(Device);
  // Before the flush: a read that comes behind it looks at this once it waits.
  WriteUCharRelease(&HeaderOf(Device)->CleanedUp, TRUE);
  CancelPassThrough(Device);
  ProxyReadDiscard(&port->Engine, IsZkSide(Device) ? PROXY_ZK_CLASS : PROXY_CLIENT_CLASS);
  PipeFlush(PipeOfSide(Device), STATUS_CANCELLED);
  if (ReadAcquire(&port->OpenCount) == 1) {
    return SkipToLower(Device, Irp);
  }
  return CompleteRequest(Device, Irp, STATUS_SUCCESS, 0);
}
