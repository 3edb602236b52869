#include "pipes/proxy_read.h"

#include "controller/frame_format.h"
#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "driver/trace.h"

enum IssueWay { ISSUE_DIRECTLY, ISSUE_BY_CALL_DOWN };

static NTSTATUS ProxyReadIssue(ProxyReadEngine *Engine, IssueWay Way, KIRQL Irql)
    RELEASE(Engine->Lock);
static NTSTATUS ProxyReadComplete(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context);

static void TraceEngine(ULONG Code, ProxyReadEngine *Engine, const volatile void *Argument2,
                        ULONG64 Argument3) {
  TraceEvent(TRACE_CLASS, Code, TracePointer(Engine), TracePointer(Argument2), Argument3);
}

void ProxyReadPrepare(ProxyReadEngine *Engine, PDEVICE_OBJECT FilterDevice) {
  KeInitializeSpinLock(&Engine->Lock);
  KeInitializeEvent(&Engine->StopEvent, SynchronizationEvent, FALSE);
  Engine->Device = FilterDevice;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  InitializeListHead(&Engine->ClientRequests);
  InitializeListHead(&Engine->ZkRequests);
  Engine->CurrentRequest = nullptr;
  Engine->ReadBuffer = nullptr;
  Engine->ReadIrp = nullptr;
  Engine->EngineState = ENGINE_IDLE;
  KeReleaseSpinLock(&Engine->Lock, irql);
}

NTSTATUS ProxyReadInitialize(ProxyReadEngine *Engine, PDEVICE_OBJECT FilterDevice,
                             CCHAR StackSize) {
  PIRP irp = IoAllocateIrp(StackSize, FALSE);
  if (irp == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  // Before the thread starts, which reports to the engine when it cannot go on.
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  Engine->ReadIrp = irp;
  KeReleaseSpinLock(&Engine->Lock, irql);

  NTSTATUS status = CallDownInitialize(FilterDevice, &PortOf(FilterDevice)->CallDown);
  if (!NT_SUCCESS(status)) {
    irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
    Engine->ReadIrp = nullptr;
    KeReleaseSpinLock(&Engine->Lock, irql);
    IoFreeIrp(irp);
  }
  return status;
}

// --- Requests -------------------------------------------------------------------------------

NTSTATUS ProxyReadCreateRequest(ProxyReadEngine *Engine, PDEVICE_OBJECT Device, PIRP Read,
                                ProxyReadClass Class, ULONG PoolTag, ProxyReadRequest **Request) {
  *Request = nullptr;
  auto *request = static_cast<ProxyReadRequest *>(
      ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(ProxyReadRequest), PoolTag));
  if (request == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  InitializeListHead(&request->Links);
  request->Flags = Class == PROXY_CLIENT_CLASS ? static_cast<ULONG>(REQUEST_CLIENT) : 0;
  request->StackCopy = *IoGetCurrentIrpStackLocation(Read);
  request->Device = Device;
  request->Engine = Engine;
  ULONG limit = PortOf(Engine->Device)->ProxyReadLimit;
  if (limit != 0 && request->StackCopy.Parameters.Read.Length > limit) {
    request->StackCopy.Parameters.Read.Length = limit;
  }
  *Request = request;
  return STATUS_SUCCESS;
}

static void ProxyReadFreeRequest(ProxyReadRequest *Request) {
  if (Request != nullptr) {
    ExFreePoolWithTag(Request, 0);  // its tag is its maker's
  }
}

static ProxyReadRequest *TakeFirst(PLIST_ENTRY List) {
  if (IsListEmpty(List)) {
    return nullptr;
  }
  auto *request = CONTAINING_RECORD(RemoveHeadList(List), ProxyReadRequest, Links);
  InitializeListHead(&request->Links);
  return request;
}

static BOOLEAN ReadInFlight(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  return static_cast<BOOLEAN>(Engine->EngineState == ENGINE_BUSY ||
                              Engine->EngineState == ENGINE_STOPPING);
}

// --- Choosing -------------------------------------------------------------------------------

// Whether the client side has a handle open; no client-side device is no client. The port lock
// keeps the device from being deleted meanwhile.
static BOOLEAN ClientHasPortOpen(PortExtension *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  PDEVICE_OBJECT device = Port->ClientSideDevice;
  BOOLEAN open = static_cast<BOOLEAN>(
      device != nullptr && ReadULongAcquire(&HeaderOf(device)->OpenState) == OPEN_STATE_OPEN);
  KeReleaseSpinLock(&Port->PortLock, irql);
  return open;
}

static BOOLEAN ProxyReadSelectNext(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  switch (PortProxyState(PortOf(Engine->Device))) {
  case PROXY_FOR_CLIENT:
    if (Engine->ClientSlot == nullptr) {
      Engine->ClientSlot = TakeFirst(&Engine->ClientRequests);
    }
    Engine->CurrentRequest = Engine->ClientSlot;
    // ZK's oldest is used up by the same read: its copy is what that read of ZK's waits for.
    if (Engine->ZkSlot == nullptr) {
      Engine->ZkSlot = TakeFirst(&Engine->ZkRequests);
    }
    return static_cast<BOOLEAN>(Engine->ClientSlot != nullptr);
  case PROXY_FOR_ZK:
    if (Engine->ZkSlot == nullptr) {
      Engine->ZkSlot = TakeFirst(&Engine->ZkRequests);
    }
    Engine->CurrentRequest = Engine->ZkSlot;
    return static_cast<BOOLEAN>(Engine->ZkSlot != nullptr);
  default:
    return FALSE;
  }
}

static void ProxyReadPickCurrent(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  ULONG state = PortProxyState(PortOf(Engine->Device));
  if (Engine->CurrentRequest != nullptr) {
    return;
  }
  if (Engine->ClientSlot != nullptr && state != PROXY_FOR_ZK) {
    Engine->CurrentRequest = Engine->ClientSlot;
  } else if (Engine->ZkSlot != nullptr && state != PROXY_FOR_CLIENT) {
    Engine->CurrentRequest = Engine->ZkSlot;
  }
}

// What a restart does once the engine may run again.
static void RestartLocked(ProxyReadEngine *Engine, IssueWay Way, KIRQL Irql) RELEASE(Engine->Lock) {
  Engine->EngineState = ENGINE_IDLE;
  ProxyReadSelectNext(Engine);
  ProxyReadPickCurrent(Engine);
  if (Engine->CurrentRequest != nullptr) {
    TraceEngine(TraceCode("PRI0"), Engine, nullptr, 0);
  }
  ProxyReadIssue(Engine, Way, Irql);
}

// --- Issuing --------------------------------------------------------------------------------

static BOOLEAN IsBuffered(ProxyReadEngine *Engine) {
  return static_cast<BOOLEAN>((Engine->Device->Flags & DO_BUFFERED_IO) != 0);
}

static void FreeMdlChain(PIRP Irp) {
  PMDL mdl = Irp->MdlAddress;
  while (mdl != nullptr) {
    PMDL next = mdl->Next;
    IoFreeMdl(mdl);
    mdl = next;
  }
  Irp->MdlAddress = nullptr;
}

// Leaves the packet as a new one. IoReuseIrp also clears the Cancel flag that a stop may have set
// after the read it meant had come back.
static void CleanPacket(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  PIRP irp = Engine->ReadIrp;
  if (IsBuffered(Engine)) {
    irp->AssociatedIrp.SystemBuffer = nullptr;
  } else {
    FreeMdlChain(irp);
  }
  if (Engine->ReadBuffer != nullptr) {
    ExFreePoolWithTag(Engine->ReadBuffer, POOL_PROXY_BUFFER);
    Engine->ReadBuffer = nullptr;
  }
  IoReuseIrp(irp, STATUS_SUCCESS);
}

static void FillLocation(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  PortExtension *port = PortOf(Engine->Device);
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Engine->ReadIrp);
  *next = Engine->CurrentRequest->StackCopy;
  next->MajorFunction = IRP_MJ_READ;
  next->MinorFunction = 0;
  next->Flags = 0;
  next->Control = 0;
  next->DeviceObject = port->Header.LowerDevice;
  next->FileObject = nullptr;
  PVOID context = LowerOpenContextFor(port, port->Header.LowerDevice);
  if (context != nullptr) {
    RtlZeroMemory(&port->ProxyFileObject, sizeof(port->ProxyFileObject));
    port->ProxyFileObject.FsContext = context;
    next->FileObject = &port->ProxyFileObject;
  }
}

static NTSTATUS AttachBuffer(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  PIRP irp = Engine->ReadIrp;
  ULONG length = IoGetNextIrpStackLocation(irp)->Parameters.Read.Length;
  PVOID buffer = ExAllocatePoolWithTag(NonPagedPoolNx, length, POOL_PROXY_BUFFER);
  if (buffer == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  if (IsBuffered(Engine)) {
    irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    irp->AssociatedIrp.SystemBuffer = buffer;
    irp->MdlAddress = nullptr;
  } else {
    irp->MdlAddress = IoAllocateMdl(buffer, length, FALSE, FALSE, nullptr);
    if (irp->MdlAddress == nullptr) {
      ExFreePoolWithTag(buffer, POOL_PROXY_BUFFER);
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    MmBuildMdlForNonPagedPool(irp->MdlAddress);
  }
  Engine->ReadBuffer = buffer;
  return STATUS_SUCCESS;
}

static NTSTATUS PreparePacket(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  CleanPacket(Engine);
  FillLocation(Engine);
  NTSTATUS status = AttachBuffer(Engine);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  PIRP irp = Engine->ReadIrp;
  irp->Flags |= IRP_DEFER_IO_COMPLETION | IRP_READ_OPERATION | IRP_INPUT_OPERATION;
  irp->RequestorMode = KernelMode;
  IoSetCompletionRoutine(irp, ProxyReadComplete, Engine->CurrentRequest, TRUE, TRUE, TRUE);
  return STATUS_SUCCESS;
}

static NTSTATUS Send(PortExtension *Port, PIRP Irp, IssueWay Way) {
  if (Way == ISSUE_DIRECTLY) {
    NTSTATUS status = IofCallDriver(Port->Header.LowerDevice, Irp);
    return status == STATUS_SUCCESS ? STATUS_PENDING : status;
  }
  CallDownQueue *queue = &Port->CallDown;
  NTSTATUS status = CallDownPost(queue, CallDownMakeEntry(queue, Port->Header.LowerDevice, Irp));
  if (!NT_SUCCESS(status)) {
    ProxyReadNotSent(&Port->Engine);
    return status;
  }
  return STATUS_PENDING;
}

static NTSTATUS ProxyReadIssue(ProxyReadEngine *Engine, IssueWay Way, KIRQL Irql) {
  PortExtension *port = PortOf(Engine->Device);
  if (Engine->CurrentRequest == nullptr) {
    Engine->EngineState = ENGINE_IDLE;
    KeReleaseSpinLock(&Engine->Lock, Irql);
    return STATUS_SUCCESS;
  }
  if (Engine->EngineState == ENGINE_STOPPING || Engine->EngineState == ENGINE_STOPPED) {
    KeReleaseSpinLock(&Engine->Lock, Irql);
    ReportPortEvent(DriverWide.DriverObject, Engine->Device, 0, EVENT_INTERNAL_READ_STOPPED,
                    EVENT_INTERNAL, STATUS_PENDING, port);
    return STATUS_PENDING;
  }
  Engine->EngineState = ENGINE_IDLE;  // stays so unless the read is sent
  NTSTATUS status = PreparePacket(Engine);
  if (!NT_SUCCESS(status)) {
    // The request stays current; the next restart tries again.
    KeReleaseSpinLock(&Engine->Lock, Irql);
    return status;
  }
  Engine->EngineState = ENGINE_BUSY;
  PIRP irp = Engine->ReadIrp;
  KeReleaseSpinLock(&Engine->Lock, Irql);
  return Send(port, irp, Way);
}

static BOOLEAN IsDriving(ProxyReadEngine *Engine, ProxyReadRequest *Request)
    REQUIRES(Engine->Lock) {
  if (Engine->CurrentRequest != nullptr) {
    return FALSE;
  }
  Engine->CurrentRequest = Request;
  return TRUE;
}

NTSTATUS ProxyReadSubmit(ProxyReadEngine *Engine, ProxyReadRequest *Request) {
  PortExtension *port = PortOf(Engine->Device);
  TraceEngine(TraceCode("PRI1"), Engine, nullptr, 0);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  if (PortProxyState(port) == PROXY_OFF) {
    // A read that passed the gate in NORMAL, and comes after NORMAL's requests were discarded: the
    // state was stored before that, under this lock or before it was taken. Kept, it would be the
    // first to be served when NORMAL returns, and the block would go to nobody.
    KeReleaseSpinLock(&Engine->Lock, irql);
    ProxyReadFreeRequest(Request);
    return STATUS_PENDING;
  }
  BOOLEAN idle = static_cast<BOOLEAN>(Engine->EngineState == ENGINE_IDLE);
  if ((Request->Flags & REQUEST_CLIENT) != 0) {
    if (Engine->ClientSlot == nullptr && idle) {
      Engine->ClientSlot = Request;
      if (IsDriving(Engine, Request)) {
        return ProxyReadIssue(Engine, ISSUE_DIRECTLY, irql);
      }
      TraceEngine(TraceCode("PRD1"), Engine, nullptr, 0);
    } else {
      InsertTailList(&Engine->ClientRequests, &Request->Links);
      TraceEngine(TraceCode("PRD0"), Engine, nullptr, 0);
    }
  } else {
    if (Engine->ZkSlot == nullptr && idle) {
      Engine->ZkSlot = Request;
      if (ClientHasPortOpen(port) && !PortHoldsClient(port)) {
        TraceEngine(TraceCode("PRD4"), Engine, nullptr, 0);
      } else if (IsDriving(Engine, Request)) {
        return ProxyReadIssue(Engine, ISSUE_DIRECTLY, irql);
      } else {
        TraceEngine(TraceCode("PRD3"), Engine, nullptr, 0);
      }
    } else {
      InsertTailList(&Engine->ZkRequests, &Request->Links);
      TraceEngine(TraceCode("PRD2"), Engine, nullptr, 0);
    }
  }
  KeReleaseSpinLock(&Engine->Lock, irql);
  return STATUS_PENDING;
}

// --- Completing -----------------------------------------------------------------------------

// What a completion took from the slots.
struct TakenRequests {
  ProxyReadRequest *Client;  // the block goes to the client
  ProxyReadRequest *Zk;
  ProxyReadRequest *Dropped;  // its reader is gone
  ULONG Length;               // as issued
};

// Takes a request out of its slot when its reader is gone. Nothing is read for it any more.
static ProxyReadRequest *TakeDiscarded(ProxyReadEngine *Engine, ProxyReadRequest **Slot)
    REQUIRES(Engine->Lock) {
  ProxyReadRequest *request = *Slot;
  if (request == nullptr || (request->Flags & REQUEST_DISCARDED) == 0) {
    return nullptr;
  }
  *Slot = nullptr;
  Engine->CurrentRequest = nullptr;  // only the current request is marked, and stays it until here
  return request;
}

// The slots give up what this read answers. The client's request is kept for the next read when
// this one was cancelled by a stop or the client is held back; that is decided here, once, because
// the hold may change at any time.
static TakenRequests TakeAnswered(ProxyReadEngine *Engine, NTSTATUS Status) {
  TakenRequests taken = {};
  PortExtension *port = PortOf(Engine->Device);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  BOOLEAN stopped =
      static_cast<BOOLEAN>(Status == STATUS_CANCELLED && Engine->EngineState == ENGINE_STOPPING);
  taken.Length = Engine->CurrentRequest->StackCopy.Parameters.Read.Length;
  taken.Dropped = TakeDiscarded(Engine, &Engine->ClientSlot);
  if (!stopped && !PortHoldsClient(port)) {
    taken.Client = Engine->ClientSlot;
    Engine->ClientSlot = nullptr;
  }
  taken.Zk = Engine->ZkSlot;
  Engine->ZkSlot = nullptr;
  // From here on no request is with the read: a discard that comes while the block is delivered
  // frees what the slot keeps.
  Engine->CurrentRequest = nullptr;
  KeReleaseSpinLock(&Engine->Lock, irql);
  return taken;
}

// A block whose element gets no memory is lost for that side only.
static void DeliverTo(Pipe *Pipe, const void *Bytes, ULONG Length, NTSTATUS Status) {
  PipeElement *element;
  if (NT_SUCCESS(PipeMakePortDataElement(Pipe, Bytes, Length, Status, &element))) {
    PipePut(element);
  }
}

static void Deliver(PortExtension *Port, PIRP Irp, const TakenRequests *Taken) {
  PUCHAR bytes;
  NTSTATUS status = GetRequestBuffer(Irp, &bytes);
  if (!NT_SUCCESS(status)) {
    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = 0;
    return;
  }
  if (PortMode(Port) != MODE_NORMAL) {
    return;
  }
  // A port may fail a read and leave an old count behind.
  ULONG length = Irp->IoStatus.Information < Taken->Length
                     ? static_cast<ULONG>(Irp->IoStatus.Information)
                     : Taken->Length;
  DeliverTo(&Port->ZkPipe, bytes, length, Irp->IoStatus.Status);
  if (Taken->Client != nullptr) {
    DeliverTo(&Port->ClientPipe, bytes, length, Irp->IoStatus.Status);
  }
}

// The read in flight is over while a stop is under way. Once StopEvent is set the engine may be
// torn down.
static void EndStopping(ProxyReadEngine *Engine, KIRQL Irql) RELEASE(Engine->Lock) {
  if (Engine->StopWaited) {
    KeReleaseSpinLock(&Engine->Lock, Irql);
    KeSetEvent(&Engine->StopEvent, IO_NO_INCREMENT, FALSE);
    return;
  }
  // Nobody waits, and the event must stay clear: it would let the next stop through too early.
  if (Engine->RestartWhenStopped) {
    Engine->RestartWhenStopped = FALSE;
    RestartLocked(Engine, ISSUE_BY_CALL_DOWN, Irql);
    return;
  }
  Engine->EngineState = ENGINE_STOPPED;
  KeReleaseSpinLock(&Engine->Lock, Irql);
}

// The completion routine of the engine's packet, in the lower driver's context, up to
// DISPATCH_LEVEL. Device is null: the packet has no location above the lower driver's.
static NTSTATUS ProxyReadComplete(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  TraceEvent(TRACE_CLASS, TraceCode("PC00"), TracePointer(Device), TracePointer(Irp),
             TracePointer(Context));
  ProxyReadEngine *engine = static_cast<ProxyReadRequest *>(Context)->Engine;
  TakenRequests taken = TakeAnswered(engine, Irp->IoStatus.Status);
  Deliver(PortOf(engine->Device), Irp, &taken);
  ProxyReadFreeRequest(taken.Client);
  ProxyReadFreeRequest(taken.Zk);
  ProxyReadFreeRequest(taken.Dropped);

  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&engine->Lock);
  if (engine->EngineState == ENGINE_STOPPING) {
    EndStopping(engine, irql);
  } else if (ProxyReadSelectNext(engine)) {
    engine->EngineState = ENGINE_IDLE;
    ProxyReadIssue(engine, ISSUE_BY_CALL_DOWN, irql);
  } else {
    engine->EngineState = ENGINE_IDLE;
    KeReleaseSpinLock(&engine->Lock, irql);
  }
  return STATUS_MORE_PROCESSING_REQUIRED;
}

void ProxyReadNotSent(ProxyReadEngine *Engine) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  ProxyReadRequest *client = TakeDiscarded(Engine, &Engine->ClientSlot);
  ProxyReadRequest *zk = TakeDiscarded(Engine, &Engine->ZkSlot);
  if (Engine->EngineState == ENGINE_STOPPING) {
    // As the completion of a cancelled read would end it.
    if (zk == nullptr) {
      zk = Engine->ZkSlot;
      Engine->ZkSlot = nullptr;
    }
    Engine->CurrentRequest = nullptr;
    EndStopping(Engine, irql);
  } else {
    Engine->EngineState = ENGINE_IDLE;  // the request stays current
    KeReleaseSpinLock(&Engine->Lock, irql);
  }
  ProxyReadFreeRequest(client);
  ProxyReadFreeRequest(zk);
}

// --- Stopping -------------------------------------------------------------------------------

// Waiting at DISPATCH_LEVEL is illegal, and the call-down thread would wait for a read that only it
// can send.
static BOOLEAN MayWait(ProxyReadEngine *Engine) {
  return static_cast<BOOLEAN>(KeGetCurrentIrql() < DISPATCH_LEVEL &&
                              KeGetCurrentThread() != PortOf(Engine->Device)->CallDown.Thread);
}

static PIO_STACK_LOCATION PacketLocation(ProxyReadEngine *Engine) REQUIRES(Engine->Lock) {
  return Engine->ReadIrp != nullptr ? IoGetCurrentIrpStackLocation(Engine->ReadIrp) : nullptr;
}

// Returns where the packet stands when it is back.
static PIO_STACK_LOCATION WaitForStop(ProxyReadEngine *Engine, PIO_STACK_LOCATION Location) {
  TraceEngine(TraceCode("PRDR"), Engine, Location, 0);
  KeWaitForSingleObject(&Engine->StopEvent, Executive, KernelMode, FALSE, nullptr);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  Engine->StopWaited = FALSE;
  Engine->EngineState = ENGINE_STOPPED;
  Location = PacketLocation(Engine);
  KeReleaseSpinLock(&Engine->Lock, irql);
  return Location;
}

void ProxyReadStop(ProxyReadEngine *Engine) {
  TraceEngine(TraceCode("PS00"), Engine, nullptr, 0);
  BOOLEAN mayWait = MayWait(Engine);
  BOOLEAN waits = FALSE;
  PIRP cancel = nullptr;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  PIO_STACK_LOCATION location = PacketLocation(Engine);
  if (Engine->EngineState == ENGINE_BUSY) {
    Engine->EngineState = ENGINE_STOPPING;
    Engine->StopWaited = mayWait;
    cancel = Engine->ReadIrp;
    waits = mayWait;
  } else if (Engine->EngineState == ENGINE_STOPPING) {
    // An earlier stop cancelled the read and did not wait. There is never a second one that waits:
    // stops come from serializer items, and from the teardown of an idle port.
    NT_ASSERT(!Engine->StopWaited);
    Engine->RestartWhenStopped = FALSE;
    Engine->StopWaited = mayWait;
    waits = mayWait;
  } else {
    Engine->EngineState = ENGINE_STOPPED;
  }
  KeReleaseSpinLock(&Engine->Lock, irql);
  if (cancel != nullptr) {
    // The packet stays the engine's whatever comes back first, so it can be cancelled unlocked.
    BOOLEAN called = IoCancelIrp(cancel);
    TraceEngine(TraceCode("PS01"), Engine, cancel, called);
  }
  if (waits) {
    location = WaitForStop(Engine, location);
  }
  TraceEngine(TraceCode("PRD2"), Engine, location, 0);
}

void ProxyReadRestart(ProxyReadEngine *Engine) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  if (Engine->EngineState == ENGINE_STOPPING) {
    Engine->RestartWhenStopped = TRUE;
    KeReleaseSpinLock(&Engine->Lock, irql);
    return;
  }
  RestartLocked(Engine, ISSUE_DIRECTLY, irql);
}

// The slot's request, taken out, unless its read is in flight: then it is marked, and the
// completion frees it wherever it would have kept it.
static ProxyReadRequest *TakeSlot(ProxyReadEngine *Engine, ProxyReadRequest **Slot)
    REQUIRES(Engine->Lock) {
  ProxyReadRequest *request = *Slot;
  if (request == nullptr) {
    return nullptr;
  }
  if (request == Engine->CurrentRequest) {
    if (ReadInFlight(Engine)) {
      request->Flags |= REQUEST_DISCARDED;
      return nullptr;
    }
    Engine->CurrentRequest = nullptr;
  }
  *Slot = nullptr;
  return request;
}

static ProxyReadRequest *TakeFirstLocked(ProxyReadEngine *Engine, ProxyReadClass Class) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  BOOLEAN client = static_cast<BOOLEAN>(Class == PROXY_CLIENT_CLASS);
  ProxyReadRequest *request = TakeFirst(client ? &Engine->ClientRequests : &Engine->ZkRequests);
  if (request == nullptr) {
    request = TakeSlot(Engine, client ? &Engine->ClientSlot : &Engine->ZkSlot);
  }
  KeReleaseSpinLock(&Engine->Lock, irql);
  return request;
}

void ProxyReadDiscard(ProxyReadEngine *Engine, ProxyReadClass Class) {
  while (ProxyReadRequest *request = TakeFirstLocked(Engine, Class)) {
    ProxyReadFreeRequest(request);
  }
}

void ProxyReadTeardown(ProxyReadEngine *Engine) {
  ProxyReadStop(Engine);
  ProxyReadDiscard(Engine, PROXY_CLIENT_CLASS);
  ProxyReadDiscard(Engine, PROXY_ZK_CLASS);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Engine->Lock);
  PIRP irp = Engine->ReadIrp;
  if (irp != nullptr) {
    FreeMdlChain(irp);
    irp->AssociatedIrp.SystemBuffer = nullptr;
    IoFreeIrp(irp);
    Engine->ReadIrp = nullptr;
  }
  if (Engine->ReadBuffer != nullptr) {
    ExFreePoolWithTag(Engine->ReadBuffer, POOL_PROXY_BUFFER);
    Engine->ReadBuffer = nullptr;
  }
  KeReleaseSpinLock(&Engine->Lock, irql);
}
