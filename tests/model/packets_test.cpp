#include "platform/model/packets.h"
#include "platform/model/irql.h"
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

// ---- completion ----

struct BitsCase {
  NTSTATUS Status;
  bool Cancel;
  UCHAR Control;
  bool Called;
};

static const BitsCase *Bits;

TEST(Packets, RoutinesAreCalledByTheirBits) {
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
    Bits = &one;
    ExpectClean([] {
      TwoLoad();
      RoutineCalls = 0;
      OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoGetNextIrpStackLocation(Irp)->CompletionRoutine = [](PDEVICE_OBJECT Device, PIRP Packet,
                                                               PVOID) {
          NoteAndKeep(Device, Packet, nullptr);
          return STATUS_SUCCESS;
        };
        IoGetNextIrpStackLocation(Irp)->Control = Bits->Control;
        return IofCallDriver(Two.Lower, Irp);
      };
      OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
        Irp->Cancel = Bits->Cancel;
        return CompleteWith(Irp, Bits->Status);
      };
      EXPECT_EQ(SendRead(), Bits->Status);
      EXPECT_EQ(RoutineCalls, Bits->Called ? 1u : 0u) << std::hex << Bits->Status;
      if (Bits->Called) {
        EXPECT_EQ(RoutineDevice, Two.Upper);
      }
      TwoUnload();
    });
  }
}

// Returned is what the verifier found consistent with the pending mark that reached the top.
TEST(Packets, PendingTravelsUpward) {
  static const PDRIVER_DISPATCH uppers[] = {
      PassDown,
      [](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        return IofCallDriver(Two.Lower, Irp);
      },
      [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, LetGo); },
  };
  for (PDRIVER_DISPATCH upper : uppers) {
    static PDRIVER_DISPATCH current;
    current = upper;
    ExpectCleanOnBoth([] {
      TwoLoad();
      OnUpper = current;
      OnLower = HoldIt;
      HANDLE handle;
      ASSERT_EQ(FileOpen("\\Device\\Low", Account::User, &handle), STATUS_SUCCESS);
      FileRequest request;
      request.Buffer.resize(4);
      EXPECT_EQ(FileSend(handle, &request), STATUS_PENDING);
      EXPECT_FALSE(FileDone(&request));
      memcpy(Held->AssociatedIrp.SystemBuffer, "abcd", 4);
      CompleteWith(Held, STATUS_SUCCESS, 3);
      EXPECT_EQ(FileWait(&request), STATUS_SUCCESS);
      EXPECT_EQ(request.Returned, STATUS_PENDING);
      EXPECT_EQ(memcmp(request.Buffer.data(), "abc", 4), 0);
      FileClose(handle);
      TwoUnload();
    });
  }
}

TEST(Packets, MarkMayComeAfterTheReturn) {
  ExpectClean([] {
    TwoLoad();
    OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
      Held = Irp;
      return STATUS_PENDING;
    };
    PKTHREAD sender = ThreadStart("sender", [] { EXPECT_EQ(SendRead(), STATUS_SUCCESS); });
    ThreadSettle();
    IoMarkIrpPending(Held);
    CompleteWith(Held, STATUS_SUCCESS);
    ThreadJoin(sender);
    TwoUnload();
  });
}

TEST(Packets, MoreProcessingGivesThePacketBack) {
  ExpectClean([] {
    TwoLoad();
    OnLower = HoldIt;
    OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
      PassDownAndWait(Irp);
      return CompleteWith(Irp, STATUS_DEVICE_BUSY);
    };
    PKTHREAD sender = ThreadStart("sender", [] { EXPECT_EQ(SendRead(), STATUS_DEVICE_BUSY); });
    ThreadSettle();
    CompleteWith(Held, STATUS_SUCCESS);
    ThreadJoin(sender);
    TwoUnload();
  });
}

// ---- own packets ----

TEST(Packets, OwnPacketComesBackAndIsReused) {
  ExpectCleanOnBoth([] {
    TwoLoad();
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
    TwoUnload();
  });
}

// While one dispatch routine is on its way back, the packet may travel again.
TEST(Packets, ResentFromItsRoutine) {
  static unsigned rounds;
  ExpectClean([] {
    TwoLoad();
    rounds = 0;
    static PIO_COMPLETION_ROUTINE again;
    again = [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
      if (++rounds < 4) {
        OnLower = rounds % 2 ? HoldIt : Succeed;
        IoReuseIrp(Irp, STATUS_SUCCESS);
        AimRead(Irp, again);
        IofCallDriver(Two.Upper, Irp);
      }
      return STATUS_MORE_PROCESSING_REQUIRED;
    };
    PIRP irp = OwnRead(again);
    EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_SUCCESS);
    CompleteWith(Held, STATUS_SUCCESS);
    CompleteWith(Held, STATUS_SUCCESS);
    EXPECT_EQ(rounds, 4u);
    IoFreeIrp(irp);
    TwoUnload();
  });
}

// ---- cancel ----

TEST(Packets, CancelTakesTheRoutineOnce) {
  ExpectCleanOnBoth([] {
    PIRP irp = PlayOwn(PassDown, HoldCancellable);
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
    TwoUnload();
  });
}

TEST(Packets, CancelByHandFromAnotherDriver) {
  ExpectClean([] {
    TwoLoad();
    OnLower = HoldCancellable;
    OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
      IoMarkIrpPending(Irp);
      PassDownWith(Irp, LetGo);
      KIRQL irql;
      IoAcquireCancelSpinLock(&irql);
      Irp->Cancel = TRUE;
      Irp->CancelIrql = irql;
      IoSetCancelRoutine(Irp, nullptr)(Two.Lower, Irp);
      return STATUS_PENDING;
    };
    EXPECT_EQ(SendRead(), STATUS_CANCELLED);
    EXPECT_EQ(CancelCalls, 1u);
    TwoUnload();
  });
}

// A cancel and a completion race for every schedule; exactly one of them ends the request.
TEST(Packets, CancelRacesCompletion) {
  ExploreOptions options;
  options.Preemptions = 2;
  ExploreResult result = ModelExplore(options, [] {
    TwoLoad();
    OnLower = HoldCancellable;
    HANDLE handle;
    FileOpen("\\Device\\Low", Account::User, &handle);
    static FileRequest request;
    request.Buffer.resize(1);
    FileSend(handle, &request);
    ExploreWindow(true);
    PKTHREAD canceller = ThreadStart("canceller", [] { FileCancel(&request); });
    if (PIRP taken = TakeHeld()) {
      CompleteWith(taken, STATUS_SUCCESS, 1);
    }
    FileWait(&request);
    ThreadJoin(canceller);
    ExploreWindow(false);
    EXPECT_EQ(request.Iosb.Status, CancelCalls ? STATUS_CANCELLED : STATUS_SUCCESS);
    FileClose(handle);
    TwoUnload();
  });
  EXPECT_FALSE(result.Failure.Stopped) << result.Failure.Text;
  EXPECT_TRUE(result.Exhausted);
  EXPECT_GT(result.Runs, 10u);
}

// ---- what the verifier stops ----

// What they do with a read.
static const BadPair BadPairs[] = {
    {"completes twice", "packet.double-completion", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       IofCompleteRequest(Irp, IO_NO_INCREMENT);
       return STATUS_SUCCESS;
     }},
    {"completes what the driver above took back", "packet.double-completion",
     [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, Keep); },
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       IofCompleteRequest(Irp, IO_NO_INCREMENT);
       return STATUS_SUCCESS;
     }},
    {"completes what the driver below holds", "packet.not-owner",
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoCopyCurrentIrpStackLocationToNext(Irp);
       IofCallDriver(Two.Lower, Irp);
       return CompleteWith(Irp, STATUS_SUCCESS);
     },
     HoldIt},
    {"passes on what it completed", "packet.forward-completed",
     [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, Keep); },
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       return IofCallDriver(Two.Lower, Irp);
     }},
    {"completes with STATUS_PENDING", "packet.bad-status", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) { return CompleteWith(Irp, STATUS_PENDING); }},
    {"completes with a cancel routine", "packet.cancel-routine-set", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoSetCancelRoutine(Irp, NoRoutine);
       return CompleteWith(Irp, STATUS_SUCCESS);
     }},
    {"passes on with a cancel routine", "packet.cancel-routine-set",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       IoSetCancelRoutine(Irp, NoRoutine);
       return PassDown(Device, Irp);
     },
     Succeed},
    {"pends without the mark", "packet.pending-not-marked", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       return STATUS_PENDING;
     }},
    {"marks and returns something else", "packet.marked-not-pending", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoMarkIrpPending(Irp);
       return CompleteWith(Irp, STATUS_SUCCESS);
     }},
    {"returns another status", "packet.status-differs", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       return STATUS_UNSUCCESSFUL;
     }},
    {"loses the packet", "packet.lost", PassDown,
     [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }},
    {"returns success for what pends below", "packet.returned-early",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       PassDown(Device, Irp);
       return STATUS_SUCCESS;
     },
     HoldIt},
    {"skips twice", "packet.bad-stack",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       IoSkipCurrentIrpStackLocation(Irp);
       return PassDown(Device, Irp);
     },
     Succeed},
    {"replaces the buffer", "packet.buffer-changed", PassDown,
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       Irp->AssociatedIrp.SystemBuffer = Device->DeviceExtension;
       return Succeed(Device, Irp);
     }},
    {"another's packet freed", "packet.free-foreign", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoFreeIrp(Irp);
       return STATUS_SUCCESS;
     }},
    {"calls down with a lock", "lock.held-across",
     [](PDEVICE_OBJECT Device, PIRP Irp) ANALYSIS_OFF {
       KIRQL irql;
       IoAcquireCancelSpinLock(&irql);
       return PassDown(Device, Irp);
     },
     Succeed},
    {"completes with a lock", "lock.held-across", PassDown,
     [](PDEVICE_OBJECT Device, PIRP Irp) ANALYSIS_OFF {
       KIRQL irql;
       IoAcquireCancelSpinLock(&irql);
       return Succeed(Device, Irp);
     }},
    {"returns at another level", "irql.not-restored", PassDown,
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       IrqlRaise(DISPATCH_LEVEL);
       return Succeed(Device, Irp);
     }},
    {"sends to a deleted device", "device.not-live",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       IoDetachDevice(Two.Lower);
       IoDeleteDevice(Two.Lower);
       return PassDown(Device, Irp);
     },
     Succeed},
};

static void PlayAndCompleteLater(PDRIVER_DISPATCH Upper, PDRIVER_DISPATCH Lower) {
  ThreadStart("sender", [=] { Play(Upper, Lower); });
  ThreadSettle();
  CompleteWith(Held, STATUS_SUCCESS);
}

static NTSTATUS ForgetPending(PDEVICE_OBJECT, PIRP, PVOID) {
  return STATUS_SUCCESS;
}

static const BadRoutine BadDrivers[] = {
    {"pends without the mark, completed later", "packet.pending-not-marked",
     [] {
       PlayAndCompleteLater(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         Held = Irp;
         return STATUS_PENDING;
       });
     }},
    {"does not carry pending upward", "packet.pending-not-carried",
     [] {
       PlayAndCompleteLater(
           [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, ForgetPending); }, HoldIt);
     }},
    {"copies the routine along", "packet.routine-inherited",
     [] {
       PlayOwn(
           [](PDEVICE_OBJECT, PIRP Irp) {
             *IoGetNextIrpStackLocation(Irp) = *IoGetCurrentIrpStackLocation(Irp);
             return IofCallDriver(Two.Lower, Irp);
           },
           Succeed);
     }},
    {"no stack location", "packet.no-stack",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) { return IofCallDriver(Two.Lower, Irp); };
       PIRP irp = IoAllocateIrp(1, FALSE);
       AimRead(irp);
       IofCallDriver(Two.Upper, irp);
     }},
    {"own packet not kept", "packet.not-reclaimed", [] { PlayOwn(PassDown, Succeed, LetGo); }},
    {"own packet freed and let go", "packet.routine-result",
     [] {
       PlayOwn(PassDown, Succeed, [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
         IoFreeIrp(Irp);
         return STATUS_SUCCESS;
       });
     }},
    {"own packet freed in flight", "packet.free-in-flight",
     [] { IoFreeIrp(PlayOwn(PassDown, HoldIt)); }},
    {"own packet reused in flight", "packet.reuse-in-flight",
     [] { IoReuseIrp(PlayOwn(PassDown, HoldIt), STATUS_SUCCESS); }},
    {"own packet freed twice", "packet.double-free",
     [] {
       PIRP irp = IoAllocateIrp(1, FALSE);
       IoFreeIrp(irp);
       IoFreeIrp(irp);
     }},
    {"freed packet cancelled", "packet.freed",
     [] {
       PIRP irp = IoAllocateIrp(1, FALSE);
       IoFreeIrp(irp);
       IoCancelIrp(irp);
     }},
    {"own packet left", "leak.packet", [] { IoAllocateIrp(1, FALSE); }},
    {"cancel routine keeps the lock", "cancel.lock-held",
     [] {
       PIRP irp = PlayOwn(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         IoMarkIrpPending(Irp);
         IoSetCancelRoutine(Irp, NoRoutine);
         return STATUS_PENDING;
       });
       IoCancelIrp(irp);
     }},
};

TEST(Packets, BadDriversAreStopped) {
  for (const BadPair &pair : BadPairs) {
    ExpectPairStopped(pair);
  }
  for (const BadRoutine &bad : BadDrivers) {
    ExpectStopped(bad);
  }
}

TEST(Packets, ForwardingAtDispatchIsAWarning) {
  ExpectClean([] {
    TwoLoad();
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
    TwoUnload();
  });
}
