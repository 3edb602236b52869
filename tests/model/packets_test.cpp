#include "platform/model/packets.h"
#include "platform/model/irql.h"
#include "tests/model/two_drivers.h"

static unsigned RoutineCalls;
static PDEVICE_OBJECT RoutineDevice;
static BOOLEAN RoutinePending;
static NTSTATUS RoutineResult;

static NTSTATUS Routine(PDEVICE_OBJECT Device, PIRP Irp, PVOID) {
  ++RoutineCalls;
  RoutineDevice = Device;
  RoutinePending = Irp->PendingReturned;
  if (RoutineResult != STATUS_MORE_PROCESSING_REQUIRED && Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  return RoutineResult;
}

static NTSTATUS SendRead() {
  return SendPacket(Two.Upper, IRP_MJ_READ, 0, nullptr, nullptr, STATUS_SUCCESS);
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
      RoutineResult = STATUS_SUCCESS;
      OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
        IoCopyCurrentIrpStackLocationToNext(Irp);
        IoGetNextIrpStackLocation(Irp)->CompletionRoutine = Routine;
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
      [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, Routine); },
  };
  for (PDRIVER_DISPATCH upper : uppers) {
    static PDRIVER_DISPATCH current;
    current = upper;
    ExpectCleanOnBoth([] {
      TwoLoad();
      RoutineResult = STATUS_SUCCESS;
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
      static KEVENT done;
      KeInitializeEvent(&done, NotificationEvent, FALSE);
      auto signal = [](PDEVICE_OBJECT, PIRP, PVOID Context) {
        KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
        return STATUS_MORE_PROCESSING_REQUIRED;
      };
      EXPECT_EQ(PassDownWith(Irp, signal, &done), STATUS_PENDING);
      KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
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

static PIRP OwnPacket(UCHAR Major = IRP_MJ_READ) {
  PIRP irp = IoAllocateIrp(Two.Upper->StackSize, FALSE);
  IoGetNextIrpStackLocation(irp)->MajorFunction = Major;
  IoSetCompletionRoutine(irp, Routine, nullptr, TRUE, TRUE, TRUE);
  RoutineResult = STATUS_MORE_PROCESSING_REQUIRED;
  return irp;
}

TEST(Packets, OwnPacketComesBackAndIsReused) {
  ExpectCleanOnBoth([] {
    TwoLoad();
    PIRP irp = OwnPacket();
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

    IoSetCompletionRoutine(irp, Routine, nullptr, TRUE, TRUE, TRUE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_WRITE;
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
    PIRP irp = IoAllocateIrp(2, FALSE);
    static PIO_COMPLETION_ROUTINE again;
    again = [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
      if (++rounds < 4) {
        OnLower = rounds % 2 ? HoldIt : Succeed;
        IoReuseIrp(Irp, STATUS_SUCCESS);
        IoSetCompletionRoutine(Irp, again, nullptr, TRUE, TRUE, TRUE);
        IoGetNextIrpStackLocation(Irp)->MajorFunction = IRP_MJ_READ;
        IofCallDriver(Two.Upper, Irp);
      }
      return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(irp, again, nullptr, TRUE, TRUE, TRUE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
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
    TwoLoad();
    OnLower = HoldCancellable;
    PIRP irp = OwnPacket();
    EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_PENDING);
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(irp->IoStatus.Status, STATUS_CANCELLED);
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_EQ(CancelCalls, 1u);
    IoReuseIrp(irp, STATUS_SUCCESS);

    // Cancelled on its way: the driver sees the flag and completes.
    EXPECT_FALSE(IoCancelIrp(irp));
    IoSetCompletionRoutine(irp, Routine, nullptr, TRUE, TRUE, TRUE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
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
      PassDownWith(Irp, [](PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_SUCCESS; });
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

static void Play(PDRIVER_DISPATCH Upper, PDRIVER_DISPATCH Lower) {
  TwoLoad();
  RoutineResult = STATUS_SUCCESS;
  OnUpper = Upper;
  OnLower = Lower;
  SendRead();
}

static NTSTATUS TakeBack(PDEVICE_OBJECT, PIRP, PVOID) {
  return STATUS_MORE_PROCESSING_REQUIRED;
}

static const BadRoutine BadDrivers[] = {
    {"completes twice", "packet.double-completion",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         CompleteWith(Irp, STATUS_SUCCESS);
         IofCompleteRequest(Irp, IO_NO_INCREMENT);
         return STATUS_SUCCESS;
       });
     }},
    {"completes what the driver above took back", "packet.double-completion",
     [] {
       Play([](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, TakeBack); },
            [](PDEVICE_OBJECT, PIRP Irp) {
              CompleteWith(Irp, STATUS_SUCCESS);
              IofCompleteRequest(Irp, IO_NO_INCREMENT);
              return STATUS_SUCCESS;
            });
     }},
    {"completes what the driver below holds", "packet.not-owner",
     [] {
       Play(
           [](PDEVICE_OBJECT, PIRP Irp) {
             IoCopyCurrentIrpStackLocationToNext(Irp);
             IofCallDriver(Two.Lower, Irp);
             return CompleteWith(Irp, STATUS_SUCCESS);
           },
           HoldIt);
     }},
    {"passes on what it completed", "packet.forward-completed",
     [] {
       Play([](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, TakeBack); },
            [](PDEVICE_OBJECT, PIRP Irp) {
              CompleteWith(Irp, STATUS_SUCCESS);
              return IofCallDriver(Two.Lower, Irp);
            });
     }},
    {"completes with STATUS_PENDING", "packet.bad-status",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) { return CompleteWith(Irp, STATUS_PENDING); });
     }},
    {"completes with a cancel routine", "packet.cancel-routine-set",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         IoSetCancelRoutine(Irp, [](PDEVICE_OBJECT, PIRP) {});
         return CompleteWith(Irp, STATUS_SUCCESS);
       });
     }},
    {"passes on with a cancel routine", "packet.cancel-routine-set",
     [] {
       Play(
           [](PDEVICE_OBJECT Device, PIRP Irp) {
             IoSetCancelRoutine(Irp, [](PDEVICE_OBJECT, PIRP) {});
             return PassDown(Device, Irp);
           },
           Succeed);
     }},
    {"pends without the mark", "packet.pending-not-marked",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         CompleteWith(Irp, STATUS_SUCCESS);
         return STATUS_PENDING;
       });
     }},
    {"pends without the mark, completed later", "packet.pending-not-marked",
     [] {
       ThreadStart("sender", [] {
         Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
           Held = Irp;
           return STATUS_PENDING;
         });
       });
       ThreadSettle();
       CompleteWith(Held, STATUS_SUCCESS);
     }},
    {"marks and returns something else", "packet.marked-not-pending",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         IoMarkIrpPending(Irp);
         return CompleteWith(Irp, STATUS_SUCCESS);
       });
     }},
    {"returns another status", "packet.status-differs",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         CompleteWith(Irp, STATUS_SUCCESS);
         return STATUS_UNSUCCESSFUL;
       });
     }},
    {"loses the packet", "packet.lost",
     [] { Play(PassDown, [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }); }},
    {"returns success for what pends below", "packet.returned-early",
     [] {
       Play(
           [](PDEVICE_OBJECT Device, PIRP Irp) {
             PassDown(Device, Irp);
             return STATUS_SUCCESS;
           },
           HoldIt);
     }},
    {"does not carry pending upward", "packet.pending-not-carried",
     [] {
       ThreadStart("sender", [] {
         Play(
             [](PDEVICE_OBJECT, PIRP Irp) {
               return PassDownWith(Irp, [](PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_SUCCESS; });
             },
             HoldIt);
       });
       ThreadSettle();
       CompleteWith(Held, STATUS_SUCCESS);
     }},
    {"copies the routine along", "packet.routine-inherited",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
         *IoGetNextIrpStackLocation(Irp) = *IoGetCurrentIrpStackLocation(Irp);
         return IofCallDriver(Two.Lower, Irp);
       };
       IofCallDriver(Two.Upper, OwnPacket());
     }},
    {"skips twice", "packet.bad-stack",
     [] {
       Play(
           [](PDEVICE_OBJECT Device, PIRP Irp) {
             IoSkipCurrentIrpStackLocation(Irp);
             return PassDown(Device, Irp);
           },
           Succeed);
     }},
    {"replaces the buffer", "packet.buffer-changed",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT Device, PIRP Irp) {
         Irp->AssociatedIrp.SystemBuffer = Device->DeviceExtension;
         return Succeed(Device, Irp);
       });
     }},
    {"no stack location", "packet.no-stack",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
         IoSetNextIrpStackLocation(Irp);
         return STATUS_SUCCESS;
       };
       PIRP irp = IoAllocateIrp(1, FALSE);
       IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
       IoSetCompletionRoutine(irp, Routine, nullptr, TRUE, TRUE, TRUE);
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) { return IofCallDriver(Two.Lower, Irp); };
       IofCallDriver(Two.Upper, irp);
     }},
    {"own packet not kept", "packet.not-reclaimed",
     [] {
       TwoLoad();
       PIRP irp = OwnPacket();
       RoutineResult = STATUS_SUCCESS;
       IofCallDriver(Two.Upper, irp);
     }},
    {"own packet freed and let go", "packet.routine-result",
     [] {
       TwoLoad();
       PIRP irp = OwnPacket();
       IoSetCompletionRoutine(
           irp,
           [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
             IoFreeIrp(Irp);
             return STATUS_SUCCESS;
           },
           nullptr, TRUE, TRUE, TRUE);
       IofCallDriver(Two.Upper, irp);
     }},
    {"own packet freed in flight", "packet.free-in-flight",
     [] {
       TwoLoad();
       OnLower = HoldIt;
       PIRP irp = OwnPacket();
       IofCallDriver(Two.Upper, irp);
       IoFreeIrp(irp);
     }},
    {"own packet reused in flight", "packet.reuse-in-flight",
     [] {
       TwoLoad();
       OnLower = HoldIt;
       PIRP irp = OwnPacket();
       IofCallDriver(Two.Upper, irp);
       IoReuseIrp(irp, STATUS_SUCCESS);
     }},
    {"another's packet freed", "packet.free-foreign",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT, PIRP Irp) {
         IoFreeIrp(Irp);
         return STATUS_SUCCESS;
       });
     }},
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
       TwoLoad();
       OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
         IoMarkIrpPending(Irp);
         IoSetCancelRoutine(Irp, [](PDEVICE_OBJECT, PIRP) {});
         return STATUS_PENDING;
       };
       PIRP irp = OwnPacket();
       IofCallDriver(Two.Upper, irp);
       IoCancelIrp(irp);
     }},
    {"calls down with a lock", "lock.held-across",
     [] {
       Play(
           [](PDEVICE_OBJECT Device, PIRP Irp) ANALYSIS_OFF {
             KIRQL irql;
             IoAcquireCancelSpinLock(&irql);
             return PassDown(Device, Irp);
           },
           Succeed);
     }},
    {"completes with a lock", "lock.held-across",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT Device, PIRP Irp) ANALYSIS_OFF {
         KIRQL irql;
         IoAcquireCancelSpinLock(&irql);
         return Succeed(Device, Irp);
       });
     }},
    {"returns at another level", "irql.not-restored",
     [] {
       Play(PassDown, [](PDEVICE_OBJECT Device, PIRP Irp) {
         IrqlRaise(DISPATCH_LEVEL);
         return Succeed(Device, Irp);
       });
     }},
    {"sends to a deleted device", "device.not-live",
     [] {
       Play(
           [](PDEVICE_OBJECT Device, PIRP Irp) {
             IoDetachDevice(Two.Lower);
             IoDeleteDevice(Two.Lower);
             return PassDown(Device, Irp);
           },
           Succeed);
     }},
    {"starts the next power request twice", "power.next",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
         PoStartNextPowerIrp(Irp);
         PoStartNextPowerIrp(Irp);
         return CompleteWith(Irp, STATUS_SUCCESS);
       };
       PnpSetDevicePower(Two.Upper, PowerDeviceD3);
     }},
};

TEST(Packets, BadDriversAreStopped) {
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
