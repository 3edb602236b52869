// How packets travel: down by IofCallDriver, back up by IofCompleteRequest, called back by
// IoCancelIrp. Each has a plain way and a checked one; the checked one keeps the shadow.
#include <utility>

#include "platform/model/cancel_lock.h"
#include "platform/model/cancel_sweep.h"
#include "platform/model/causality.h"
#include "platform/model/executor.h"
#include "platform/model/forced.h"
#include "platform/model/mdl.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/power.h"
#include "platform/model/stack_depth.h"
#include "platform/model/stack_rules.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

static constexpr UCHAR InvokeBits = SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL;

void PacketCountNext(PIRP Irp) {
  PacketShadow *shadow = PacketRequireLive(Irp, "PoStartNextPowerIrp");
  Guard guard(RequestMutex);
  if (shadow->State != PacketState::Held || Irp->CurrentLocation != shadow->Location ||
      IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_POWER) {
    VerifierStop("power.next", Irp,
                 "PoStartNextPowerIrp: the current location is not the caller's power request");
  }
  ++shadow->Locations[shadow->Location].PowerNexts;
}

static bool IsPowerTurn(const IO_STACK_LOCATION *Location) {
  return Location->MajorFunction == IRP_MJ_POWER && PowerTakesTurn(Location->MinorFunction);
}

static void FramePush(DispatchFrame *Frame) {
  PKTHREAD self = ThreadSelf();
  Frame->Outer = self->Dispatching;
  self->Dispatching = Frame;
  ++self->RoutinesEntered;
  Frame->ActedBefore = self->Acting;
  self->Acting = Frame->Driver;
  Frame->StackBefore = StackEnterDriver();
}

static void FramePop(DispatchFrame *Frame) {
  PKTHREAD self = ThreadSelf();
  StackRestore(Frame->StackBefore);
  self->Dispatching = Frame->Outer;
  self->Acting = Frame->ActedBefore;
}

struct Before {
  KIRQL Irql;
  unsigned Locks;
};

static Before LookBefore() {
  return {KeGetCurrentIrql(), VerifierLocksHeld()};
}

static void RequireRestored(const Before &Was, const char *What, PIRP Irp) {
  if (KeGetCurrentIrql() != Was.Irql) {
    VerifierStop("irql.not-restored", Irp, "%s was called at IRQL %d and returned at %d", What,
                 Was.Irql, KeGetCurrentIrql());
  }
  if (VerifierLocksHeld() != Was.Locks) {
    VerifierStop("lock.not-released", Irp, "%s was called with %u locks and returned with %u", What,
                 Was.Locks, VerifierLocksHeld());
  }
}

static bool CancelSet(const IRP *Irp) {
  return __atomic_load_n(&Irp->Cancel, __ATOMIC_RELAXED) != FALSE;
}

// The code that calls is the dispatch routine of the innermost frame. It has given the packet away
// when its location is completed, or when another driver holds the packet below. A driver may act
// for its own other devices, and cancelling by hand runs another driver's routine unseen.
static void RequireCallerOwns(PacketShadow *Shadow, PIRP Irp, const char *Service,
                              const char *CompletedRule) {
  const DispatchFrame *caller = ThreadSelf()->Dispatching;
  if (!caller || caller->What != DispatchFrame::Kind::Dispatch || caller->Packet != Shadow ||
      caller->Sending != Shadow->Sendings) {
    return;
  }
  if (Shadow->Location <= Irp->StackCount &&
      Shadow->Locations[Shadow->Location].Driver == caller->Driver) {
    return;
  }
  if (caller->Completed) {
    VerifierStop(CompletedRule, Irp, "%s: the caller's dispatch routine has completed the packet",
                 Service);
  }
  if (Shadow->Location < caller->Location && !CancelSet(Irp)) {
    VerifierStop("packet.not-owner", Irp, "%s: the caller has passed the packet to location %d",
                 Service, Shadow->Location);
  }
}

// ---- down ----

static NTSTATUS Dispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  IoSetNextIrpStackLocation(Irp);
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  location->DeviceObject = Device;
  return Device->DriverObject->MajorFunction[location->MajorFunction](Device, Irp);
}

static void RequireGoodStack(const PacketShadow *Shadow, PIRP Irp, const char *Service,
                             bool GoingDown) {
  int current = Irp->CurrentLocation;
  bool skipped = GoingDown && current == Shadow->Location + 1 && current <= Irp->StackCount + 1;
  bool ownLocation = Shadow->State == PacketState::Fresh && current < Shadow->Location;
  bool pointer = IoGetCurrentIrpStackLocation(Irp) == PacketLocation(Irp, current);
  if ((current != Shadow->Location && !skipped && !ownLocation) || !pointer) {
    VerifierStop("packet.bad-stack", Irp, "%s: the current location is %d, the holder's %d",
                 Service, current, Shadow->Location);
  }
}

static constexpr UCHAR SuccessAndError = SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR;
static constexpr UCHAR AnyRoutine = SuccessAndError | SL_INVOKE_ON_CANCEL;

// Whoever allocated a packet must get it back, whatever becomes of it.
static void RequireRoutines(const PacketShadow *Shadow, PIRP Irp, const IO_STACK_LOCATION *Next) {
  bool own = Shadow->State == PacketState::Fresh && !Shadow->Finish;
  if (own && (Next->Control & SuccessAndError) != SuccessAndError) {
    VerifierStop(
        "packet.no-completion", Irp,
        "a packet from IoAllocateIrp is sent without a completion routine for both success "
        "and error");
  }
}

// The holder has filled the location below instead of skipping its own.
static void RequireGoodCopy(PIRP Irp, const IO_STACK_LOCATION *Next) {
  const IO_STACK_LOCATION *current = IoGetCurrentIrpStackLocation(Irp);
  if (Next->Control & SL_PENDING_RETURNED) {
    VerifierStop("packet.bad-copy", Irp, "the pending mark was copied to the location below");
  }
  if (Next->MajorFunction == IRP_MJ_CREATE && current->MajorFunction != IRP_MJ_CREATE) {
    VerifierStop("packet.bad-copy", Irp, "the location below was never filled");
  }
  // Who marked its location pending cannot skip it any more.
  if (!(Next->Control & AnyRoutine) && !(current->Control & SL_PENDING_RETURNED)) {
    VerifierWarn("copy-without-routine");
  }
}

static void RequireForwardable(const PacketShadow *Shadow, PIRP Irp) {
  if (Shadow->State != PacketState::Fresh && Shadow->State != PacketState::Held) {
    VerifierStop("packet.forward-completed", Irp, "IofCallDriver: the packet is completed");
  }
  if (__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_RELAXED)) {
    VerifierStop("packet.cancel-routine-set", Irp, "IofCallDriver with a cancel routine");
  }
  if (Irp->CurrentLocation <= 1) {
    VerifierStop("packet.no-stack", Irp, "IofCallDriver: no stack location is left");
  }
  RequireGoodStack(Shadow, Irp, "IofCallDriver", true);
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
  if (next->MajorFunction > IRP_MJ_MAXIMUM_FUNCTION) {
    VerifierStop("packet.bad-major", Irp, "major function %d", next->MajorFunction);
  }
  RequireRoutines(Shadow, Irp, next);
  bool ownNext = Shadow->State == PacketState::Held && Irp->CurrentLocation == Shadow->Location;
  if (ownNext) {
    RequireGoodCopy(Irp, next);
  }
  if (ownNext && next->CompletionRoutine) {
    PIO_STACK_LOCATION current = IoGetCurrentIrpStackLocation(Irp);
    if (next->CompletionRoutine == current->CompletionRoutine &&
        next->Context == current->Context && next->Control != 0) {
      VerifierStop("packet.routine-inherited", Irp,
                   "the completion routine of the driver above was copied");
    }
  }
  if (KeGetCurrentIrql() >= DISPATCH_LEVEL && next->MajorFunction != IRP_MJ_READ &&
      next->MajorFunction != IRP_MJ_WRITE && next->MajorFunction != IRP_MJ_POWER &&
      next->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL) {
    VerifierWarn("forward-at-dispatch");
  }
}

unsigned PacketsAt(PDEVICE_OBJECT Device) {
  CausalTouch(&DeviceShadowOf(Device)->Packets, Access::Write);
  Guard guard(RequestMutex);
  return DeviceShadowOf(Device)->Packets;
}

// A removal deletes the device that it stands at, so Plug and Play packets do not count.
static void CountIn(LocationShadow *Location, UCHAR Major) {
  Location->Counted = Major != IRP_MJ_PNP;
  DeviceShadowOf(Location->Device)->Packets += Location->Counted;
  CausalTouch(&DeviceShadowOf(Location->Device)->Packets, Access::Add);
}

// The device need not be there any more when its packet counts no longer.
static void Uncount(LocationShadow *Location) {
  if (Location->Counted) {
    Location->Counted = false;
    --DeviceShadowOf(Location->Device)->Packets;
    CausalTouch(&DeviceShadowOf(Location->Device)->Packets, Access::Add);
  }
}

// The packet leaves the driver that holds it; without a completion routine it does not come back.
static void LeaveDownward(PacketShadow *Shadow, PIRP Irp) {
  const IO_STACK_LOCATION *next = IoGetNextIrpStackLocation(Irp);
  LocationShadow *from = &Shadow->Locations[Shadow->Location];
  if (StackRulesApply(next->MajorFunction)) {
    StackRulesPassDown(from, Irp);
    from->PassedOn = true;
  }
  bool skipped = from->Number == Irp->CurrentLocation - 1;
  if (skipped || (next->Control & InvokeBits) == 0) {
    Uncount(from);
  }
  if (!skipped) {
    PacketLeaveLocation(from, Irp);
  }
}

// The location's device is another one, or has the packet again.
static void ComeTo(PacketShadow *Shadow, LocationShadow *Location, PDEVICE_OBJECT Device, PIRP Irp,
                   StackRole Role) {
  if (Shadow->State == PacketState::Held) {
    LeaveDownward(Shadow, Irp);
  }
  if (Location->Entered > 0 && Shadow->Location == Irp->CurrentLocation - 1) {
    MdlLetGo(Location->Mdl);  // the location is shared by a driver that skipped it
  } else {
    *Location = {};
  }
  Location->Device = Device;
  Location->Driver = Device->DriverObject;
  Location->Number = Irp->CurrentLocation - 1;
  Location->Role = Role;
  Location->PassedOn = false;
  Location->Came = Irp->IoStatus;
  CountIn(Location, IoGetNextIrpStackLocation(Irp)->MajorFunction);
}

static void EnterLocation(PacketShadow *Shadow, PDEVICE_OBJECT Device, PIRP Irp,
                          DispatchFrame *Frame, StackRole Role) {
  int at = Irp->CurrentLocation - 1;
  LocationShadow *location = &Shadow->Locations[at];
  if (Shadow->State == PacketState::Fresh) {
    ++Shadow->Sendings;
    Shadow->SentMdl = Irp->MdlAddress;
    Shadow->SentSystemBuffer = Irp->AssociatedIrp.SystemBuffer;
    Shadow->SentUserBuffer = Irp->UserBuffer;
  }
  ComeTo(Shadow, location, Device, Irp, Role);
  location->Mdl = Irp->MdlAddress;
  ++location->Entered;
  MdlTake(location->Mdl);

  Frame->What = DispatchFrame::Kind::Dispatch;
  Frame->Packet = Shadow;
  Frame->Driver = location->Driver;
  Frame->Sending = Shadow->Sendings;
  Frame->Location = at;
  Frame->Entry = location->Entered;
  Frame->Completed = Frame->Deferred = Frame->Look.Taken = false;
  // A driver that held the packet marked it and may skip the marked location when it goes on: that
  // mark answers for the driver's own return, not for that of the one below.
  Frame->MarkedBefore = (PacketLocation(Irp, at)->Control & SL_PENDING_RETURNED) != 0;
  Frame->Next = location->Frames;
  location->Frames = Frame;
  Shadow->State = PacketState::Held;
  Shadow->Location = at;
  ++Shadow->Readers;
  ++Shadow->Steps;
}

static void UnlinkFrame(LocationShadow *Location, const DispatchFrame *Frame) {
  DispatchFrame **link = &Location->Frames;
  while (*link != Frame) {
    link = &(*link)->Next;
  }
  *link = Frame->Next;
}

// A location that was completed while its dispatch routine ran is judged at the return, any other
// one at its completion: whichever comes later.
static void JudgeReturn(DispatchFrame *Frame, PIRP Irp, NTSTATUS Returned) {
  PacketShadow *shadow = Frame->Packet;
  Guard guard(RequestMutex);
  PacketRequireAsLeft(Frame, Irp);
  if (!Frame->Completed) {
    LocationShadow *location = &shadow->Locations[Frame->Location];
    UnlinkFrame(location, Frame);
    if (Returned == STATUS_PENDING) {
      location->ReturnedPending = true;
      return;
    }
    if (shadow->State == PacketState::Held && shadow->Location == Frame->Location &&
        location->Entered == Frame->Entry) {
      VerifierStop("packet.lost", Irp,
                   "a dispatch routine returned 0x%08x but neither completed the packet nor passed "
                   "it on",
                   static_cast<unsigned>(Returned));
    }
    VerifierStop("packet.returned-early", Irp,
                 "a dispatch routine returned 0x%08x while the packet is at location %d",
                 static_cast<unsigned>(Returned), shadow->Location);
  }
  if (Returned == STATUS_PENDING && !Frame->Marked) {
    VerifierStop("packet.pending-not-marked", Irp,
                 "STATUS_PENDING returned, but the packet was completed without the pending mark");
  }
  if (Returned != STATUS_PENDING && Frame->Marked && !Frame->MarkedBefore) {
    VerifierStop("packet.marked-not-pending", Irp, "marked pending, but 0x%08x returned",
                 static_cast<unsigned>(Returned));
  }
  if (Returned != STATUS_PENDING && Returned != Frame->Status) {
    VerifierStop("packet.status-differs", Irp, "0x%08x returned, but completed with 0x%08x",
                 static_cast<unsigned>(Returned), static_cast<unsigned>(Frame->Status));
  }
}

static bool LowersPower(const IO_STACK_LOCATION *Location) {
  return Location->MajorFunction == IRP_MJ_POWER && Location->MinorFunction == IRP_MN_SET_POWER &&
         (Location->Parameters.Power.Type == DevicePowerState
              ? Location->Parameters.Power.State.DeviceState > PowerDeviceD0
              : Location->Parameters.Power.State.SystemState > PowerSystemWorking);
}

// What pages or allocates in a power-down may need the very device that goes to sleep.
static NTSTATUS DispatchInScope(PDEVICE_OBJECT Device, PIRP Irp) {
  if (!LowersPower(IoGetNextIrpStackLocation(Irp))) {
    return Dispatch(Device, Irp);
  }
  PKTHREAD self = ThreadSelf();
  ++self->PowerDown;
  NTSTATUS returned = Dispatch(Device, Irp);
  --self->PowerDown;
  return returned;
}

static NTSTATUS CheckedCall(PDEVICE_OBJECT Device, PIRP Irp) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IofCallDriver");
  VerifierRequireNoLocks("IofCallDriver", Irp);
  PacketShadow *shadow = PacketRequireLive(Irp, "IofCallDriver");
  CausalTouch(Device, Access::Read);
  if (!ObjectIs(Device, ObjectKind::Device)) {
    VerifierStop("device.not-live", Irp, "IofCallDriver: %p is no live device",
                 static_cast<void *>(Device));
  }
  DispatchFrame frame;
  const IO_STACK_LOCATION *next = IoGetNextIrpStackLocation(Irp);
  StackRole role = StackRole::None;
  {
    Guard guard(RequestMutex);
    RequireCallerOwns(shadow, Irp, "IofCallDriver", "packet.forward-completed");
    RequireForwardable(shadow, Irp);
    if (StackRulesApply(next->MajorFunction)) {
      role = DeviceRole(Device);
    }
    EnterLocation(shadow, Device, Irp, &frame, role);
  }
  if (next->MajorFunction == IRP_MJ_POWER) {
    PowerArrived(Device, next);
  }
  HistoryNote("call", Irp, next->MajorFunction, static_cast<uint64_t>(frame.Location));
  PacketScrambleOwn(Irp);
  Before before = LookBefore();
  FramePush(&frame);
  NTSTATUS returned = DispatchInScope(Device, Irp);
  FramePop(&frame);
  HistoryNote("returned", Irp, static_cast<uint32_t>(returned),
              static_cast<uint64_t>(frame.Location));
  RequireRestored(before, "a dispatch routine", Irp);
  JudgeReturn(&frame, Irp, returned);
  PacketLookAt(shadow, Irp);
  PacketShadowLet(shadow);
  return frame.Deferred ? STATUS_PENDING : returned;
}

NTSTATUS PacketCall(PDEVICE_OBJECT Device, PIRP Irp) {
  InModel scope;
  if (VerifierOn()) {
    return CheckedCall(Device, Irp);
  }
  if (Irp->CurrentLocation <= 1) {
    KeBugCheckModel("a packet has no stack location left");
  }
  return Dispatch(Device, Irp);
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  SwitchPoint(SwitchReason::Call, Irp);
  return PacketCall(DeviceObject, Irp);
}

// ---- up ----

static PacketShadow *BeginCompletion(PIRP Irp) {
  PacketShadow *shadow = PacketShadowOf(Irp);
  VerifierRequireIrql(DISPATCH_LEVEL, "IofCompleteRequest");
  Guard guard(RequestMutex);
  if (shadow->State != PacketState::Held && shadow->State != PacketState::Fresh) {
    VerifierStop("packet.double-completion", Irp, "IofCompleteRequest: packet %p is completed",
                 static_cast<void *>(Irp));
  }
  RequireCallerOwns(shadow, Irp, "IofCompleteRequest", "packet.double-completion");
  if (shadow->State == PacketState::Fresh) {
    VerifierStop("packet.not-owner", Irp, "IofCompleteRequest: the packet is not on its way");
  }
  RequireGoodStack(shadow, Irp, "IofCompleteRequest", false);
  if (Irp->IoStatus.Status == STATUS_PENDING || Irp->IoStatus.Status == -1) {
    VerifierStop("packet.bad-status", Irp, "IofCompleteRequest with status 0x%08x",
                 static_cast<unsigned>(Irp->IoStatus.Status));
  }
  if (__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_RELAXED)) {
    VerifierStop("packet.cancel-routine-set", Irp, "IofCompleteRequest with a cancel routine");
  }
  VerifierRequireNoLocks("IofCompleteRequest", Irp);
  shadow->State = PacketState::Completing;
  ++shadow->Readers;
  ++shadow->Steps;
  HistoryNote("complete", Irp, static_cast<uint32_t>(Irp->IoStatus.Status),
              static_cast<uint64_t>(shadow->Location));
  return shadow;
}

static void CheckPowerTurn(const LocationShadow *Location, PIRP Irp) {
  if (!IsPowerTurn(IoGetCurrentIrpStackLocation(Irp))) {
    return;
  }
  if (Location->PowerNexts > Location->Entered) {
    VerifierStop("power.next", Irp, "PoStartNextPowerIrp twice for one packet");
  }
  for (unsigned missing = Location->Entered - Location->PowerNexts; missing > 0; --missing) {
    VerifierWarn("power.next");
  }
}

static void CheckStackRules(LocationShadow *Location, PIRP Irp) {
  UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  if (Location->Entered == 0) {
    return;
  }
  Uncount(Location);
  if (StackRulesApply(major)) {
    StackRulesLeave(Location, Irp);
    if (Irp->CurrentLocation < Irp->StackCount) {
      Location[1].Back = Irp->IoStatus;
    }
  }
}

// The current location is completed: tells the dispatch routines that entered there.
static void LeaveLocation(PacketShadow *Shadow, PIRP Irp) {
  Guard guard(RequestMutex);
  int at = Irp->CurrentLocation;
  LocationShadow *location = &Shadow->Locations[at];
  bool entered = location->Entered != 0;
  CheckPowerTurn(location, Irp);
  CheckStackRules(location, Irp);
  MdlLetGo(location->Mdl);
  for (DispatchFrame *frame = location->Frames; frame; frame = frame->Next) {
    frame->Completed = true;
    frame->Marked = Irp->PendingReturned != FALSE;
    frame->Status = Irp->IoStatus.Status;
  }
  if (at < Irp->StackCount) {
    PacketRequireLocationAsLeft(&Shadow->Locations[at + 1], Irp);
  }
  bool unmarked = entered && location->ReturnedPending && !Irp->PendingReturned;
  *location = {};
  Shadow->Location = at + 1;
  if (unmarked) {
    VerifierStop("packet.pending-not-marked", Irp,
                 "STATUS_PENDING was returned, but the packet is completed without the pending "
                 "mark (location %d)",
                 at);
  }
  if (at == Irp->StackCount && (Irp->MdlAddress != Shadow->SentMdl ||
                                Irp->AssociatedIrp.SystemBuffer != Shadow->SentSystemBuffer ||
                                Irp->UserBuffer != Shadow->SentUserBuffer)) {
    VerifierStop("packet.buffer-changed", Irp,
                 "the packet comes back with another buffer or MDL than it was sent with");
  }
}

static NTSTATUS CheckedRoutine(PacketShadow *Shadow, PIRP Irp, PDEVICE_OBJECT Device,
                               PIO_COMPLETION_ROUTINE Routine, PVOID Context) {
  if (!Routine) {
    VerifierStop("packet.no-routine", Irp, "invoke bits without a completion routine");
  }
  DispatchFrame frame = {};
  frame.What = DispatchFrame::Kind::Routine;
  uint64_t steps;
  {
    Guard guard(RequestMutex);
    Shadow->State = Shadow->Location > Irp->StackCount ? PacketState::Fresh : PacketState::Held;
    if (Shadow->State == PacketState::Held) {
      // It has come back. The routine may give up what keeps the device, as its last act.
      Uncount(&Shadow->Locations[Shadow->Location]);
    }
    steps = ++Shadow->Steps;
    frame.Driver = Shadow->Location > Irp->StackCount ? Shadow->Maker
                                                      : Shadow->Locations[Shadow->Location].Driver;
  }
  Before before = LookBefore();
  FramePush(&frame);
  NTSTATUS status = Routine(Device, Irp, Context);
  FramePop(&frame);
  RequireRestored(before, "a completion routine", nullptr);
  if (status == STATUS_MORE_PROCESSING_REQUIRED) {
    return status;
  }
  {
    Guard guard(RequestMutex);
    if (Shadow->Steps != steps) {
      VerifierStop("packet.routine-result", Irp,
                   "a completion routine returned 0x%08x for a packet that it had sent, reused, "
                   "completed or freed",
                   static_cast<unsigned>(status));
    }
    Shadow->State = PacketState::Completing;
  }
  if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount &&
      !(IoGetCurrentIrpStackLocation(Irp)->Control & SL_PENDING_RETURNED)) {
    VerifierStop("packet.pending-not-carried", Irp,
                 "a completion routine did not carry PendingReturned upward (location %d)",
                 Irp->CurrentLocation);
  }
  return status;
}

static void ClearLocation(PIO_STACK_LOCATION Location) {
  Location->MinorFunction = 0;
  Location->Flags = 0;
  Location->Control = 0;
  Location->Parameters.Others = {};
  Location->FileObject = nullptr;
}

static bool RoutineWanted(const IRP *Irp, UCHAR Control) {
  UCHAR bit = NT_SUCCESS(Irp->IoStatus.Status) ? SL_INVOKE_ON_SUCCESS : SL_INVOKE_ON_ERROR;
  return (Control & bit) || ((Control & SL_INVOKE_ON_CANCEL) && CancelSet(Irp));
}

static void FinishPacket(PacketShadow *Shadow, PIRP Irp) {
  PacketCheckCancelTime(Shadow);
  if (!Shadow->Finish) {
    if (VerifierOn()) {
      VerifierStop("packet.not-reclaimed", Irp,
                   "a packet from IoAllocateIrp came out at the top; its owner's completion "
                   "routine must keep it");
    }
    KeBugCheckModel("a driver's own packet was not reclaimed");
  }
  {
    Guard guard(RequestMutex);
    Shadow->State = PacketState::Finished;
    ++Shadow->Steps;
  }
  Shadow->Finish(Irp, Shadow->Context);
}

void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
  UNREFERENCED_PARAMETER(PriorityBoost);
  InModel scope;
  SwitchPoint(SwitchReason::Complete, Irp);
  CausalCease(Irp, 0);
  PacketShadow *checked = VerifierOn() ? BeginCompletion(Irp) : nullptr;
  if (checked && PendingForced && PacketDefer(checked, Irp)) {
    return;
  }
  PacketGoUp(checked, Irp);
  if (checked) {
    PacketLookAt(checked, Irp);
  }
}

void PacketGoUp(PacketShadow *Checked, PIRP Irp) {
  while (Irp->CurrentLocation <= Irp->StackCount) {
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    PIO_COMPLETION_ROUTINE routine = location->CompletionRoutine;
    UCHAR control = location->Control;
    Irp->PendingReturned = (control & SL_PENDING_RETURNED) != 0;
    if (Checked) {
      LeaveLocation(Checked, Irp);
    }
    IoSkipCurrentIrpStackLocation(Irp);
    ClearLocation(location);
    bool above = Irp->CurrentLocation <= Irp->StackCount;
    if (RoutineWanted(Irp, control)) {
      PDEVICE_OBJECT device = above ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
      NTSTATUS status = Checked ? CheckedRoutine(Checked, Irp, device, routine, location->Context)
                                : routine(device, Irp, location->Context);
      if (status == STATUS_MORE_PROCESSING_REQUIRED) {
        if (Checked) {
          PacketShadowLet(Checked);
        }
        return;  // the packet is its driver's again, and may be gone
      }
    } else if (Irp->PendingReturned && above) {
      IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
    }
  }
  FinishPacket(PacketShadowOf(Irp), Irp);
  if (Checked) {
    PacketShadowLet(Checked);
  }
}

// ---- cancel ----

static void CallCancelRoutine(PDRIVER_CANCEL Routine, PIRP Irp, const Before &Was) {
  PDEVICE_OBJECT device = IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
  HistoryNote("cancel routine", Irp);
  if (!VerifierOn()) {
    Routine(device, Irp);
    return;
  }
  DispatchFrame frame = {};
  frame.What = DispatchFrame::Kind::Cancel;
  frame.Driver = device ? device->DriverObject : nullptr;
  FramePush(&frame);
  Routine(device, Irp);
  FramePop(&frame);
  if (CancelLockHeldByMe()) {
    VerifierStop("cancel.lock-held", Irp, "a cancel routine returned with the cancel spin lock");
  }
  RequireRestored(Was, "a cancel routine", Irp);
}

BOOLEAN IoCancelIrp(PIRP Irp) {
  InModel scope;
  VerifierRequireIrql(DISPATCH_LEVEL, "IoCancelIrp");
  HistoryNote("cancel", Irp);
  if (VerifierOn()) {
    PacketNoteCancel(PacketRequireLive(Irp, "IoCancelIrp"));
  }
  Before before = LookBefore();
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  // Drivers look at the flag right after they have exchanged the cancel routine, without the lock:
  // that is how it is meant, and no race to report.
  TsanIgnoreBegin();
  __atomic_store_n(&Irp->Cancel, static_cast<BOOLEAN>(TRUE), __ATOMIC_SEQ_CST);
  TsanIgnoreEnd();
  PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
  if (!routine) {
    IoReleaseCancelSpinLock(irql);
    return FALSE;
  }
  if (VerifierOn() && Irp->CurrentLocation > Irp->StackCount) {
    VerifierStop("packet.bad-stack", Irp, "a cancel routine on a packet that no driver has");
  }
  Irp->CancelIrql = irql;
  CallCancelRoutine(routine, Irp, before);
  return TRUE;
}
