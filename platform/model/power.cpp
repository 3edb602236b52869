#include "platform/model/power.h"

#include <deque>

#include "platform/model/causality.h"
#include "platform/model/devices.h"
#include "platform/model/executor.h"
#include "platform/model/io_manager.h"
#include "platform/model/irql.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

static constexpr size_t MostEvents = 512;

// Guarded by PowerMutex, as are the turns in the devices' shadows.
static ModelMutex PowerMutex;
static uint64_t Reports;
static uint64_t NextCalls;
static std::deque<PowerEvent> Events;

// ---- what happened ----

// Under PowerMutex.
static void Note(PowerStep Step, PDEVICE_OBJECT Device, UCHAR Minor, POWER_STATE_TYPE Type,
                 int State) {
  if (Events.size() == MostEvents) {
    Events.pop_front();
  }
  Events.push_back({Step, Device, Minor, Type, State});
}

static void NoteLocation(PowerStep Step, PDEVICE_OBJECT Device, const IO_STACK_LOCATION *Location) {
  Note(Step, Device, Location->MinorFunction, Location->Parameters.Power.Type,
       Location->Parameters.Power.State.DeviceState);
}

void PowerArrived(PDEVICE_OBJECT Device, const IO_STACK_LOCATION *Location) {
  SharedGuard guard(PowerMutex, Access::Write);
  NoteLocation(PowerStep::Arrived, Device, Location);
}

std::vector<PowerEvent> PowerEvents() {
  SharedGuard guard(PowerMutex, Access::Write);
  return {Events.begin(), Events.end()};
}

void PowerForget() {
  SharedGuard guard(PowerMutex, Access::Write);
  Events.clear();
}

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
  VerifierRequireIrql(DISPATCH_LEVEL, "PoSetPowerState");
  DeviceRequireLive(DeviceObject, "PoSetPowerState");
  if (Type != SystemPowerState && Type != DevicePowerState) {
    KeBugCheckModel("PoSetPowerState: no such type of power state");
  }
  SharedGuard guard(PowerMutex, Access::Write);
  POWER_STATE *reported = &DeviceShadowOf(DeviceObject)->Power[Type];
  POWER_STATE before = *reported;
  *reported = State;
  ++Reports;
  Note(PowerStep::Report, DeviceObject, 0, Type, State.DeviceState);
  return before;
}

DEVICE_POWER_STATE PowerStateReported(PDEVICE_OBJECT Device) {
  SharedGuard guard(PowerMutex, Access::Write);
  return DeviceShadowOf(Device)->Power[DevicePowerState].DeviceState;
}

uint64_t PowerReports() {
  SharedGuard guard(PowerMutex, Access::Write);
  return Reports;
}

uint64_t PowerNextCalls() {
  SharedGuard guard(PowerMutex, Access::Write);
  return NextCalls;
}

void PowerBoot() {
  Reports = 0;
  NextCalls = 0;
  Events.clear();
}

// ---- turns ----

static PowerTurn *TurnOf(const PowerRequest *Request) {
  return PowerTakesTurn(Request->Minor)
             ? &DeviceShadowOf(Request->Bottom)->Turns[Request->Type == DevicePowerState]
             : nullptr;
}

// Whether the request may go now; otherwise it is the last in the line.
static bool TakeTurn(PowerRequest *Request) {
  PowerTurn *turn = TurnOf(Request);
  if (!turn) {
    return true;
  }
  SyncRelease(Request);  // to who gives it the turn
  SharedGuard guard(PowerMutex, Access::Write);
  if (!turn->Busy) {
    turn->Busy = Request->HasTurn = true;
    return true;
  }
  (turn->Last ? turn->Last->Next : turn->First) = Request;
  turn->Last = Request;
  return false;
}

// The one whose turn is next has a thread that waits for it.
static void GiveTurn(PowerRequest *Request) {
  PowerRequest *next;
  {
    SharedGuard guard(PowerMutex, Access::Write);
    if (!Request->HasTurn) {
      return;
    }
    Request->HasTurn = false;
    PowerTurn *turn = TurnOf(Request);
    next = turn->First;
    turn->Busy = next != nullptr;
    if (next) {
      turn->First = next->Next;
      turn->Last = turn->First ? turn->Last : nullptr;
      next->HasTurn = true;
    }
  }
  if (next) {
    SyncAcquire(next);
    KeSetEvent(&next->Turn, IO_NO_INCREMENT, FALSE);
  }
}

// ---- packets ----

static void CompleteRequest(PowerRequest *Request, const IO_STATUS_BLOCK &Iosb, bool Pended) {
  Request->Iosb = Iosb;
  Request->Returned = Pended ? STATUS_PENDING : Iosb.Status;
  GiveTurn(Request);
  ObfDereferenceObject(Request->Bottom);
  CausalTouch(Request, Access::Write);
  __atomic_store_n(&Request->Done, true, __ATOMIC_RELEASE);
  KeSetEvent(&Request->Event, IO_NO_INCREMENT, FALSE);  // the request may be gone after this
}

static void FinishPower(PIRP Irp, void *Context) {
  PowerRequest *request = static_cast<PowerRequest *>(Context);
  PDEVICE_OBJECT top = DeviceTop(request->Bottom);
  IO_STATUS_BLOCK iosb = Irp->IoStatus;
  bool pended = Irp->PendingReturned != FALSE;
  {
    SharedGuard guard(PowerMutex, Access::Write);
    request->Irp = nullptr;
    Note(PowerStep::Completed, top, request->Minor, request->Type, request->State);
  }
  PacketFree(Irp);
  if (request->Minor == IRP_MN_SET_POWER && !NT_SUCCESS(iosb.Status) &&
      iosb.Status != STATUS_DELETE_PENDING) {
    VerifierWarn("power.set-failed");
  }
  CompleteRequest(request, iosb, pended);
}

void PoStartNextPowerIrp(PIRP Irp) {
  VerifierRequireIrql(DISPATCH_LEVEL, "PoStartNextPowerIrp");
  if (VerifierOn()) {
    PacketCountNext(Irp);
  }
  const IO_STACK_LOCATION *location = IoGetCurrentIrpStackLocation(Irp);
  {
    SharedGuard guard(PowerMutex, Access::Write);
    ++NextCalls;
    NoteLocation(PowerStep::Next, location->DeviceObject, location);
  }
  PacketShadow *shadow = PacketShadowOf(Irp);
  if (shadow->Finish == FinishPower && Irp->CurrentLocation == Irp->StackCount) {
    GiveTurn(static_cast<PowerRequest *>(shadow->Context));
  }
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return IofCallDriver(DeviceObject, Irp);
}

static void FillPower(PIRP Irp, const PowerRequest *Request) {
  Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  Irp->RequestorMode = KernelMode;
  PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(Irp);
  location->MajorFunction = IRP_MJ_POWER;
  location->MinorFunction = Request->Minor;
  location->Parameters.Power.Type = Request->Type;
  location->Parameters.Power.State.DeviceState = static_cast<DEVICE_POWER_STATE>(Request->State);
  location->Parameters.Power.ShutdownType = PowerActionNone;
}

// The request may be gone as soon as the packet is on its way.
static void SendPacketOf(PowerRequest *Request) {
  if (DeviceIsDeleted(Request->Bottom)) {
    IO_STATUS_BLOCK gone = {};
    gone.Status = STATUS_NO_SUCH_DEVICE;
    CompleteRequest(Request, gone, false);
    return;
  }
  PDEVICE_OBJECT top = DeviceTop(Request->Bottom);
  PIRP irp = PacketMake(top->StackSize, FinishPower, Request);
  FillPower(irp, Request);
  {
    SharedGuard guard(PowerMutex, Access::Write);
    Request->Irp = irp;
  }
  KIRQL before = IrqlRaise(Request->Irql);
  PacketCall(top, irp);
  IrqlLower(before);
}

static void SendInTurn(PowerRequest *Request) {
  auto wait = [Request] {
    KeWaitForSingleObject(&Request->Turn, Executive, KernelMode, FALSE, nullptr);
    SendPacketOf(Request);
  };
  PKTHREAD thread = ThreadCreate("power", wait, FiberBytes);
  ThreadLaunch(thread);
  ObjectRelease(thread);
}

bool PowerBegin(PDEVICE_OBJECT Device, PowerRequest *Request) {
  VerifierRequireIrql(PASSIVE_LEVEL, "PowerBegin");
  KeInitializeEvent(&Request->Event, NotificationEvent, FALSE);
  KeInitializeEvent(&Request->Turn, NotificationEvent, FALSE);
  Request->Iosb = {};
  Request->Irp = nullptr;
  Request->Next = nullptr;
  Request->HasTurn = false;
  __atomic_store_n(&Request->Done, false, __ATOMIC_RELAXED);
  Request->Bottom = DeviceBottom(Device);
  ObfReferenceObject(Request->Bottom);
  SwitchPoint(SwitchReason::Call, Device);
  bool sent = TakeTurn(Request);
  if (sent) {
    SendPacketOf(Request);
  } else {
    SendInTurn(Request);
  }
  return sent;
}

bool PowerDone(const PowerRequest *Request) {
  CausalTouch(Request, Access::Read);
  return __atomic_load_n(&Request->Done, __ATOMIC_ACQUIRE) &&
         KeReadStateEvent(const_cast<PKEVENT>(&Request->Event)) != 0;
}

NTSTATUS PowerWait(PowerRequest *Request) {
  KeWaitForSingleObject(&Request->Event, Executive, KernelMode, FALSE, nullptr);
  return Request->Iosb.Status;
}

bool PowerCancel(PowerRequest *Request) {
  PIRP irp;
  {
    SharedGuard guard(PowerMutex, Access::Write);
    irp = Request->Irp;
    if (!irp) {
      return false;
    }
    Guard inner(RequestMutex);
    PacketHold(irp);
  }
  bool called = IoCancelIrp(irp) != FALSE;
  PacketLet(irp);
  return called;
}

// ---- and waited for ----

static NTSTATUS SendAndWait(PDEVICE_OBJECT Device, UCHAR Minor, POWER_STATE_TYPE Type, int State) {
  PowerRequest request;
  request.Minor = Minor;
  request.Type = Type;
  request.State = State;
  PowerBegin(Device, &request);
  return PowerWait(&request);
}

NTSTATUS PnpSetDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State) {
  return SendAndWait(Device, IRP_MN_SET_POWER, DevicePowerState, State);
}

NTSTATUS PnpSetSystemPower(PDEVICE_OBJECT Device, SYSTEM_POWER_STATE State) {
  return SendAndWait(Device, IRP_MN_SET_POWER, SystemPowerState, State);
}

NTSTATUS PnpQueryDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State) {
  return SendAndWait(Device, IRP_MN_QUERY_POWER, DevicePowerState, State);
}
