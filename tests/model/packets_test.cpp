#include "platform/model/packets.h"
#include "tests/model/two_drivers.h"

static unsigned RoutineCalls;
static PDEVICE_OBJECT RoutineDevice;
static BOOLEAN RoutinePending;

static NTSTATUS NoteAndKeep(PDEVICE_OBJECT Device, PIRP Irp, PVOID) {
  ++RoutineCalls;
  RoutineDevice = Device;
  RoutinePending = Irp->PendingReturned;
  return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST(Packets, RoutinesAreCalledByTheirBits) {
  struct BitsCase {
    NTSTATUS Status;
    bool Cancel;
    UCHAR Control;
    bool Called;
  };
  static const BitsCase *bits;
  static const BitsCase cases[] = {
      {STATUS_SUCCESS, false, SL_INVOKE_ON_SUCCESS, true},
      {STATUS_SUCCESS, false, SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL, false},
      {STATUS_UNSUCCESSFUL, false, SL_INVOKE_ON_SUCCESS, false},
      {STATUS_UNSUCCESSFUL, false, SL_INVOKE_ON_ERROR, true},
      {STATUS_DEVICE_BUSY, false, SL_INVOKE_ON_ERROR, true},  // a warning is no success
      {STATUS_OBJECT_NAME_EXISTS, false, SL_INVOKE_ON_SUCCESS, true},
      {STATUS_SUCCESS, true, SL_INVOKE_ON_CANCEL, true},
      {STATUS_UNSUCCESSFUL, false, SL_INVOKE_ON_CANCEL, false},
  };
  for (const BitsCase &one : cases) {
    bits = &one;
    ExpectTwoClean([] {
      RoutineCalls = 0;
      OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoGetNextIrpStackLocation(Irp)->CompletionRoutine = [](PDEVICE_OBJECT Device, PIRP Packet,
                                                               PVOID) {
          NoteAndKeep(Device, Packet, nullptr);
          return STATUS_SUCCESS;
        };
        IoGetNextIrpStackLocation(Irp)->Control = bits->Control;
        return IofCallDriver(Two.Lower, Irp);
      };
      OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
        Irp->Cancel = bits->Cancel;
        return CompleteWith(Irp, bits->Status);
      };
      RoutineDevice = Two.Upper;
      EXPECT_EQ(SendRead(), bits->Status);
      EXPECT_EQ(RoutineCalls, bits->Called ? 1u : 0u) << std::hex << bits->Status;
      EXPECT_EQ(RoutineDevice, Two.Upper);
    });
  }
}

// Returned is what the verifier found consistent with the pending mark that reached the top.
TEST(Packets, PendingTravelsUpward) {
  for (const char *upper : {"skip down", "copy down", "copy let-go down"}) {
    ExpectTwoClean([upper] {
      Tell(upper, "hold");
      HANDLE handle = OpenLow();
      FileRequest request;
      EXPECT_EQ(BeginRead(handle, &request), STATUS_PENDING);
      EXPECT_FALSE(FileDone(&request));
      CompleteWith(Held, STATUS_SUCCESS, 1);
      EXPECT_EQ(FileWait(&request), STATUS_SUCCESS);
      EXPECT_EQ(request.Returned, STATUS_PENDING);
      FileClose(handle);
    });
  }
}

TWO_DRIVERS_TEST(Packets, MarkMayComeAfterTheReturn) {
  Tell("skip down", "note pending");
  PKTHREAD sender = ThreadStart("sender", [] { EXPECT_EQ(SendRead(), STATUS_SUCCESS); });
  ThreadSettle();
  IoMarkIrpPending(Held);
  CompleteWith(Held, STATUS_SUCCESS);
  ThreadJoin(sender);
}

TWO_DRIVERS_TEST(Packets, OwnPacketComesBackAndIsReused) {
  PIRP irp = OwnRead(NoteAndKeep);
  irp->UserBuffer = &Two;
  USHORT size = irp->Size;
  RoutineDevice = Two.Upper;
  EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_SUCCESS);
  EXPECT_EQ(RoutineDevice, nullptr);
  EXPECT_EQ(irp->CurrentLocation, irp->StackCount + 1);
  EXPECT_EQ(PacketCount(), 1u);
  EXPECT_FALSE(IoCancelIrp(irp));
  EXPECT_TRUE(irp->Cancel);

  irp->Flags = IRP_READ_OPERATION;
  IoReuseIrp(irp, STATUS_UNSUCCESSFUL);
  EXPECT_FALSE(irp->Cancel);
  EXPECT_EQ(irp->Flags, 0u);
  EXPECT_EQ(irp->UserBuffer, nullptr);
  EXPECT_EQ(irp->IoStatus.Status, STATUS_UNSUCCESSFUL);
  EXPECT_EQ(irp->Size, size);
  EXPECT_EQ(IoGetNextIrpStackLocation(irp)->CompletionRoutine, nullptr);

  AimRead(irp, NoteAndKeep);
  OnLower = HoldIt;
  EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_PENDING);
  CompleteWith(Held, STATUS_SUCCESS);
  EXPECT_TRUE(RoutinePending);
  IoFreeIrp(irp);
  EXPECT_EQ(PacketCount(), 0u);
}

TWO_DRIVERS_TEST(Packets, CancelTakesTheRoutineOnce) {
  OnLower = HoldCancellable;
  PIRP irp = OwnRead();
  EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_PENDING);
  EXPECT_TRUE(IoCancelIrp(irp));
  EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
  EXPECT_FALSE(IoCancelIrp(irp));
  EXPECT_EQ(CancelCalls, 1u);
  IoReuseIrp(irp, STATUS_SUCCESS);

  // Cancelled on its way: the driver sees the flag and completes.
  EXPECT_FALSE(IoCancelIrp(irp));
  AimRead(irp);
  EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_CANCELLED);
  IoFreeIrp(irp);
}

TWO_DRIVERS_TEST(Packets, CancelByHandFromAnotherDriver) {
  OnLower = HoldCancellable;
  OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
    Perform("mark copy let-go down", Two.Lower, Irp);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    Irp->Cancel = TRUE;
    Irp->CancelIrql = irql;
    IoSetCancelRoutine(Irp, nullptr)(Two.Lower, Irp);
    return STATUS_PENDING;
  };
  EXPECT_EQ(SendRead(), STATUS_CANCELLED);
  EXPECT_EQ(CancelCalls, 1u);
}

static const BadPair BadPairs[] = {
    {"completes twice", "packet.double-completion", "skip down", "complete end-again"},
    {"completes what the driver above took back", "packet.double-completion", "copy keep down",
     "complete end-again"},
    {"completes what the driver below holds", "packet.not-owner", "copy down success complete",
     "hold"},
    {"passes on what it completed", "packet.forward-completed", "copy keep down", "complete down"},
    {"completes with STATUS_PENDING", "packet.bad-status", "skip down", "pending complete"},
    {"completes with a status of -1", "packet.bad-status", "skip down", "minus-one complete"},
    {"completes with a cancel routine", "packet.cancel-routine-set", "skip down",
     "cancellable complete"},
    {"passes on with a cancel routine", "packet.cancel-routine-set", "cancellable skip down",
     "complete"},
    {"pends without the mark", "packet.pending-not-marked", "skip down", "complete pending"},
    {"marks and returns something else", "packet.marked-not-pending", "skip down", "mark complete"},
    {"marks what it has completed", "packet.pend-not-owned", "copy keep down",
     "complete mark pending"},
    {"marks what it has passed on", "packet.pend-not-owned", "copy down mark pending", "hold"},
    {"marks what it has skipped for the driver below", "packet.pend-not-owned",
     "skip mark down pending", "hold"},
    {"answers what it has passed on", "packet.touched-passed-on", "mark copy down answer", "hold"},
    {"answers what it has skipped", "packet.touched-passed-on", "skip down answer", "hold"},
    {"sets flags of what it has passed on", "packet.touched-passed-on", "skip down flags", "hold"},
    {"changes the location of the driver below", "packet.touched-passed-on",
     "skip down note-own change-noted", "hold"},
    {"answers what the driver above has taken", "packet.touched-passed-on", "copy keep down",
     "complete answer"},
    {"trusts in its context after a call down", "assertion", "context copy keep down trust-context",
     "complete"},
    {"makes cancellable what the driver below has", "cancel.not-owner",
     "mark copy down cancellable pending", "hold"},
    {"returns another status", "packet.status-differs", "skip down", "complete failure"},
    {"loses the packet", "packet.lost", "skip down", ""},
    {"returns success for what pends below", "packet.returned-early", "skip down success", "hold"},
    {"skips twice", "packet.bad-stack", "skip skip down", "complete"},
    {"copies the pending mark along", "packet.bad-copy", "mark copy-all down", "complete"},
    {"forgets to fill the location below", "packet.bad-copy", "down", "complete"},
    {"passes on an unknown function", "packet.bad-major", "copy bad-major down", "complete"},
    {"sets invoke bits without a routine", "packet.no-routine", "copy no-routine down", "complete"},
    {"replaces the buffer", "packet.buffer-changed", "skip down", "other-buffer complete"},
    {"replaces the MDL", "packet.buffer-changed", "skip down", "other-mdl complete"},
    {"another's packet freed", "packet.free-foreign", "skip down", "free"},
    {"calls down with a lock", "lock.held-across", "lock skip down", "complete"},
    {"completes with a lock", "lock.held-across", "skip down", "lock complete"},
    {"returns at another level", "irql.not-restored", "skip down", "raise complete"},
    {"sends to a deleted device", "device.not-live", "detach delete-below skip down", "complete"},
};

static void PlayAndCompleteLater(const char *Upper, const char *Lower) {
  ThreadStart("sender", [=] { Play(Upper, Lower); });
  ThreadSettle();
  CompleteWith(Held, STATUS_SUCCESS);
}

static PIRP Cancellable() {
  PIRP irp = IoAllocateIrp(1, FALSE);
  IoSetCancelRoutine(irp, NoRoutine);
  return irp;
}

static PIRP Freed() {
  PIRP irp = IoAllocateIrp(1, FALSE);
  IoFreeIrp(irp);
  return irp;
}

static const BadRoutine BadDrivers[] = {
    {"pends without the mark, completed later", "packet.pending-not-marked",
     [] { PlayAndCompleteLater("skip down", "note pending"); }},
    {"does not carry pending upward", "packet.pending-not-carried",
     [] { PlayAndCompleteLater("copy forget down", "hold"); }},
    {"changes its location while the packet is below", "packet.touched-passed-on",
     [] { PlayAndCompleteLater("mark note-own copy let-go down change-noted", "hold"); }},
    {"marks what nobody has sent", "packet.pend-not-owned",
     [] { IoMarkIrpPending(IoAllocateIrp(1, FALSE)); }},
    {"marks what has come back to its sender", "packet.pend-not-owned",
     [] { PlayOwn("skip down pending", "complete mark"); }},
    {"copies the routine along", "packet.routine-inherited",
     [] { PlayOwn("copy-all down", "complete"); }},
    {"takes a location of a packet that it was given", "packet.bad-stack",
     [] { PlayOwn("advance down", "complete"); }},
    {"no stack location", "packet.no-stack", SendWithoutALocation},
    {"passes on what is no packet", "packet.unknown",
     [] {
       static struct {
         char Room[4096];
         IRP Packet;
       } nothing;
       IofCallDriver(Two.Upper, &nothing.Packet);
     }},
    {"own packet not kept", "packet.not-reclaimed",
     [] { PlayOwn("skip down", "complete", LetGo); }},
    {"own packet taken back on success only", "packet.no-completion",
     [] {
       PIRP irp = OwnRead();
       IoSetCompletionRoutine(irp, Keep, nullptr, TRUE, FALSE, TRUE);  // not on an error
       IofCallDriver(Two.Upper, irp);
     }},
    {"own packet freed and let go", "packet.routine-result",
     [] {
       PlayOwn("skip down", "complete", [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
         IoFreeIrp(Irp);
         return STATUS_SUCCESS;
       });
     }},
    {"own packet freed in flight", "packet.free-in-flight",
     [] { IoFreeIrp(PlayOwn("skip down", "hold")); }},
    {"own packet reused in flight", "packet.reuse-in-flight",
     [] { IoReuseIrp(PlayOwn("skip down", "hold"), STATUS_SUCCESS); }},
    {"own packet freed with a cancel routine", "packet.cancel-routine-set",
     [] { IoFreeIrp(Cancellable()); }},
    {"own packet reused with a cancel routine", "packet.cancel-routine-set",
     [] { IoReuseIrp(Cancellable(), STATUS_SUCCESS); }},
    {"own packet cancellable before it is sent", "packet.bad-stack",
     [] { IoCancelIrp(Cancellable()); }},
    {"own packet completed before it is sent", "packet.not-owner",
     [] { IofCompleteRequest(IoAllocateIrp(1, FALSE), IO_NO_INCREMENT); }},
    {"starts the next power request for a read", "power.next",
     [] { Play("next-power skip down", "complete"); }},
    {"marks what it has passed on to itself", "packet.pend-not-owned",
     [] {
       OnLower = [](PDEVICE_OBJECT Device, PIRP Irp) {
         OnLower = HoldIt;
         PassDown(Device, Irp);
         IoMarkIrpPending(Irp);
         return STATUS_PENDING;
       };
       SendRead();
     }},
    {"own packet freed twice", "packet.double-free", [] { IoFreeIrp(Freed()); }},
    {"freed packet cancelled", "packet.freed", [] { IoCancelIrp(Freed()); }},
    {"own packet left", "leak.packet",
     [] {
       IoAllocateIrp(1, FALSE);
       TwoUnload();
     }},
    {"cancel routine keeps the lock", "cancel.lock-held",
     [] { IoCancelIrp(PlayOwn("skip down", "cancellable hold")); }},
    {"returns with a lock", "lock.not-released",
     [] {
       Tell("skip down", "complete lock");
       PIRP irp = OwnRead();
       IrqlRaise(DISPATCH_LEVEL);
       IofCallDriver(Two.Upper, irp);
     }},
};

TEST(Packets, BadDriversAreStopped) {
  ExpectTwoStopped(BadPairs);
  ExpectTwoStopped(BadDrivers);
}

TWO_DRIVERS_TEST(Packets, ForwardingAtDispatchIsAWarning) {
  OnUpper = [](PDEVICE_OBJECT Device, PIRP Irp) {
    KIRQL before = IrqlRaise(DISPATCH_LEVEL);
    NTSTATUS status = PassDown(Device, Irp);
    IrqlLower(before);
    return status;
  };
  for (UCHAR major : {IRP_MJ_READ, IRP_MJ_INTERNAL_DEVICE_CONTROL, IRP_MJ_FLUSH_BUFFERS}) {
    SendPacket(Two.Upper, major, 0, nullptr);
  }
  EXPECT_EQ(VerifierWarnings("forward-at-dispatch"), 1u);
}
