// Small bad drivers, each with the rule that must stop it. Together with the tables of the other
// tests here every rule of the verifier has one.
#include <algorithm>

#include "platform/model/irql.h"
#include "platform/model/mdl.h"
#include "platform/model/packets.h"
#include "platform/model/paged_pool.h"
#include "tests/model/two_drivers.h"

static constexpr ULONG Tag = FourCharacters("Test");

static void Play(PDRIVER_DISPATCH Upper, PDRIVER_DISPATCH Lower) {
  TwoLoad();
  OnUpper = Upper;
  OnLower = Lower;
  SendPacket(Two.Upper, IRP_MJ_READ, 0, nullptr, nullptr, STATUS_SUCCESS);
}

static NTSTATUS LetGo(PDEVICE_OBJECT, PIRP Irp, PVOID) {
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  return STATUS_SUCCESS;
}

static NTSTATUS Keep(PDEVICE_OBJECT, PIRP, PVOID) {
  return STATUS_MORE_PROCESSING_REQUIRED;
}

static PIRP OwnRead(CCHAR StackSize = 2) {
  PIRP irp = IoAllocateIrp(StackSize, FALSE);
  IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_READ;
  IoSetCompletionRoutine(irp, Keep, nullptr, TRUE, TRUE, TRUE);
  return irp;
}

static void NoRoutine(PDEVICE_OBJECT, PIRP) {
}

static KSPIN_LOCK Locks[17];

static FileRequest Request;

static void SendCancelled() {
  TwoLoad();
  OnLower = HoldIt;
  HANDLE handle;
  FileOpen("\\Device\\Low", Account::User, &handle);
  Request.Buffer.resize(1);
  FileSend(handle, &Request);
  FileCancel(&Request);
}

static PMDL NonpagedMdl(SIZE_T Bytes, PVOID *Pool) {
  *Pool = ExAllocatePoolWithTag(NonPagedPoolNx, Bytes, Tag);
  PMDL mdl = IoAllocateMdl(*Pool, static_cast<ULONG>(Bytes), FALSE, FALSE, nullptr);
  MmBuildMdlForNonPagedPool(mdl);
  return mdl;
}

// ---- packets ----

struct BadPair {
  const char *Name;
  const char *Rule;
  PDRIVER_DISPATCH Upper;
  PDRIVER_DISPATCH Lower;
};

// What they do with a read.
static const BadPair Pairs[] = {
    {"copies the pending mark along", "packet.bad-copy",
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoMarkIrpPending(Irp);
       *IoGetNextIrpStackLocation(Irp) = *IoGetCurrentIrpStackLocation(Irp);
       return IofCallDriver(Two.Lower, Irp);
     },
     Succeed},
    {"forgets to fill the location below", "packet.bad-copy",
     [](PDEVICE_OBJECT, PIRP Irp) { return IofCallDriver(Two.Lower, Irp); }, Succeed},
    {"passes on an unknown function", "packet.bad-major",
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoCopyCurrentIrpStackLocationToNext(Irp);
       IoGetNextIrpStackLocation(Irp)->MajorFunction = IRP_MJ_MAXIMUM_FUNCTION + 1;
       return IofCallDriver(Two.Lower, Irp);
     },
     Succeed},
    {"sets invoke bits without a routine", "packet.no-routine",
     [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, nullptr); }, Succeed},
    {"reuses the packet of another", "packet.free-foreign", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoReuseIrp(Irp, STATUS_SUCCESS);
       return STATUS_SUCCESS;
     }},
    {"marks what it has completed", "packet.pend-not-owned",
     [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, Keep); },
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       IoMarkIrpPending(Irp);
       return STATUS_PENDING;
     }},
    {"marks what it has passed on", "packet.pend-not-owned",
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoCopyCurrentIrpStackLocationToNext(Irp);
       IofCallDriver(Two.Lower, Irp);
       IoMarkIrpPending(Irp);
       return STATUS_PENDING;
     },
     HoldIt},
    {"marks a freed packet", "packet.freed", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       IoMarkIrpPending(Irp);
       return STATUS_PENDING;
     }},
    {"makes cancellable what the driver below has", "cancel.not-owner",
     [](PDEVICE_OBJECT, PIRP Irp) {
       IoMarkIrpPending(Irp);
       IoCopyCurrentIrpStackLocationToNext(Irp);
       IofCallDriver(Two.Lower, Irp);
       IoSetCancelRoutine(Irp, NoRoutine);
       return STATUS_PENDING;
     },
     HoldIt},
    {"makes cancellable what it completed", "cancel.not-owner",
     [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, Keep); },
     [](PDEVICE_OBJECT, PIRP Irp) {
       CompleteWith(Irp, STATUS_SUCCESS);
       IoSetCancelRoutine(Irp, NoRoutine);
       return STATUS_SUCCESS;
     }},
    {"completes with a status of -1", "packet.bad-status", PassDown,
     [](PDEVICE_OBJECT, PIRP Irp) { return CompleteWith(Irp, -1); }},
    {"replaces the MDL", "packet.buffer-changed", PassDown,
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       Irp->MdlAddress = IoAllocateMdl(Device, 1, FALSE, FALSE, nullptr);
       return Succeed(Device, Irp);
     }},
};
static const BadPair *Pair;

static const BadRoutine PacketDrivers[] = {
    {"takes a location of a packet that it was given", "packet.bad-stack",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
         IoSetNextIrpStackLocation(Irp);
         return IofCallDriver(Two.Lower, Irp);
       };
       IofCallDriver(Two.Upper, OwnRead(4));
     }},
    {"sends an own packet that it takes back on success only", "packet.no-completion",
     [] {
       TwoLoad();
       PIRP irp = OwnRead();
       IoSetCompletionRoutine(irp, Keep, nullptr, TRUE, FALSE, TRUE);  // not on an error
       IofCallDriver(Two.Upper, irp);
     }},
    {"frees an own packet with a cancel routine", "packet.cancel-routine-set",
     [] {
       PIRP irp = IoAllocateIrp(1, FALSE);
       IoSetCancelRoutine(irp, NoRoutine);
       IoFreeIrp(irp);
     }},
    {"passes on what is no packet", "packet.unknown",
     [] {
       TwoLoad();
       static struct {
         char Room[4096];
         IRP Packet;
       } nothing;
       IofCallDriver(Two.Upper, &nothing.Packet);
     }},
    {"returns with a lock", "lock.not-released",
     [] {
       TwoLoad();
       OnLower = [](PDEVICE_OBJECT Device, PIRP Irp) {
         Succeed(Device, Irp);
         KeInitializeSpinLock(&Locks[0]);
         KeAcquireSpinLockAtDpcLevel(&Locks[0]);
         return STATUS_SUCCESS;
       };
       PIRP irp = OwnRead();
       IrqlRaise(DISPATCH_LEVEL);
       IofCallDriver(Two.Upper, irp);
     }},
    {"a cancel routine gives the lock back twice", "lock.release-unheld",
     [] {
       TwoLoad();
       OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
         IoMarkIrpPending(Irp);
         IoSetCancelRoutine(Irp, [](PDEVICE_OBJECT, PIRP Packet) ANALYSIS_OFF {
           IoReleaseCancelSpinLock(Packet->CancelIrql);
           IoReleaseCancelSpinLock(Packet->CancelIrql);
         });
         return STATUS_PENDING;
       };
       PIRP irp = OwnRead();
       IofCallDriver(Two.Upper, irp);
       IoCancelIrp(irp);
     }},
    {"forgets a cancelled packet", "cancel.not-completed",
     [] {
       SendCancelled();
       FileWait(&Request);
     }},
    {"completes a cancelled packet after six minutes", "cancel.not-completed",
     [] {
       SendCancelled();
       ClockAdvance((CancelSeconds + 60) * 10'000'000);
       CompleteWith(Held, STATUS_CANCELLED);
     }},
    {"allocates in a power-down", "power.down-call",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
         ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag);
         return CompleteWith(Irp, STATUS_SUCCESS);
       };
       PnpSetDevicePower(Two.Upper, PowerDeviceD3);
     }},
    {"asks the registry in a power-down", "power.down-call",
     [] {
       TwoLoad();
       OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
         ZwClose(nullptr);
         return CompleteWith(Irp, STATUS_SUCCESS);
       };
       PnpSetSystemPower(Two.Upper, PowerSystemSleeping3);
     }},
};

TEST(BadDrivers, Packets) {
  for (const BadPair &pair : Pairs) {
    Pair = &pair;
    ExpectStopped({pair.Name, pair.Rule, [] { Play(Pair->Upper, Pair->Lower); }});
  }
  for (const BadRoutine &bad : PacketDrivers) {
    ExpectStopped(bad);
  }
}

TEST(BadDrivers, CopyWithoutARoutineIsAWarning) {
  ExpectClean([] {
    TwoLoad();
    OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
      IoCopyCurrentIrpStackLocationToNext(Irp);
      return IofCallDriver(Two.Lower, Irp);
    };
    SendPacket(Two.Upper, IRP_MJ_READ, 0, nullptr, nullptr, STATUS_SUCCESS);
    EXPECT_EQ(VerifierWarnings("copy-without-routine"), 1u);
    // Who has marked its location cannot skip it.
    OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
      IoMarkIrpPending(Irp);
      IoCopyCurrentIrpStackLocationToNext(Irp);
      IofCallDriver(Two.Lower, Irp);
      return STATUS_PENDING;
    };
    SendPacket(Two.Upper, IRP_MJ_READ, 0, nullptr, nullptr, STATUS_SUCCESS);
    EXPECT_EQ(VerifierWarnings("copy-without-routine"), 1u);
    TwoUnload();
  });
}

// A completion routine may free its packet: nobody looks at it after MORE_PROCESSING.
TEST(BadDrivers, NobodyTouchesWhatARoutineHasTaken) {
  ExpectCleanOnBoth([] {
    TwoLoad();
    PIRP irp = OwnRead();
    auto free = [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
      IoFreeIrp(Irp);
      return STATUS_MORE_PROCESSING_REQUIRED;
    };
    IoSetCompletionRoutine(irp, free, nullptr, TRUE, TRUE, TRUE);
    EXPECT_EQ(IofCallDriver(Two.Upper, irp), STATUS_SUCCESS);
    EXPECT_EQ(PacketCount(), 0u);
    TwoUnload();
  });
}

// ---- left at the unload ----

static PVOID Left;

struct Leaver {
  const char *Rule;
  PDRIVER_DISPATCH Dispatch;
  void (*TakeBack)();
};

static const Leaver Leavers[] = {
    {"leak.pool",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       Left = ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag);
       return Succeed(Device, Irp);
     },
     [] { ExFreePoolWithTag(Left, Tag); }},
    {"leak.packet",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       Left = IoAllocateIrp(1, FALSE);
       return Succeed(Device, Irp);
     },
     [] { IoFreeIrp(static_cast<PIRP>(Left)); }},
    {"leak.mdl",
     [](PDEVICE_OBJECT Device, PIRP Irp) {
       Left = IoAllocateMdl(Device, 1, FALSE, FALSE, nullptr);
       return Succeed(Device, Irp);
     },
     [] { IoFreeMdl(static_cast<PMDL>(Left)); }},
};

static const Leaver *Leaving;

// By the name of the driver that made it, though others are still loaded; not by that of a driver
// that only ran meanwhile.
TEST(BadDrivers, WhatIsLeftAtAnUnloadHasAMaker) {
  for (const Leaver &leaver : Leavers) {
    Leaving = &leaver;
    RunReport report = ModelRun({}, [] {
      Play(Leaving->Dispatch, Succeed);
      TwoUnload();
    });
    EXPECT_EQ(report.Rule, leaver.Rule);
    EXPECT_NE(report.Text.find("\\Driver\\Upper is unloaded"), std::string::npos) << report.Text;
    ExpectClean([] {
      Play(PassDown, Leaving->Dispatch);
      IoDetachDevice(Two.Lower);
      IoDeleteDevice(Two.Upper);
      DriverUnload(Two.UpperDriver);  // below
      Leaving->TakeBack();
      IoDeleteDevice(Two.Lower);
      DriverUnload(Two.LowerDriver);
    });
  }
}

static const BadRoutine UnloadDrivers[] = {
    {"allocates while it is unloaded", "pool.unloading",
     [] {
       TwoLoad();
       Two.LowerDriver->DriverUnload = [](PDRIVER_OBJECT) {
         ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag), Tag);
       };
       TwoUnload();
     }},
    {"an entry that fails and leaves pool", "leak.pool",
     [] {
       DriverLoad("Refuser", [](PDRIVER_OBJECT, PUNICODE_STRING) {
         ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag);
         return STATUS_UNSUCCESSFUL;
       });
     }},
    {"a system thread's pool is its driver's", "leak.pool",
     [] {
       DriverUnload(DriverLoad("Threaded", [](PDRIVER_OBJECT, PUNICODE_STRING) {
         HANDLE thread;
         auto body = [](PVOID) { ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag); };
         PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, body, nullptr);
         ZwWaitForSingleObject(thread, FALSE, nullptr);
         ZwClose(thread);
         return STATUS_SUCCESS;
       }));
     }},
};

TEST(BadDrivers, Unload) {
  for (const BadRoutine &bad : UnloadDrivers) {
    ExpectStopped(bad);
  }
}

// ---- memory and the rest ----

static const BadRoutine OtherDrivers[] = {
    {"copies bytes onto themselves", "memory.overlap",
     [] {
       char bytes[8] = "1234567";
       volatile size_t offset = 1;
       RtlCopyMemory(bytes + offset, bytes, 4);
     }},
    {"a string without an end", "string.unterminated",
     [] {
       auto *text = static_cast<PWSTR>(ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag));
       RtlFillMemory(text, 8, 'a');
       UNICODE_STRING string;
       RtlInitUnicodeString(&string, text);
     }},
    {"copies a string without an end", "string.unterminated",
     [] {
       auto *text = static_cast<PWSTR>(ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag));
       RtlFillMemory(text, 8, 'a');
       WCHAR four[4], eight[8];
       EXPECT_EQ(RtlStringCbCopyW(four, sizeof four, text), STATUS_BUFFER_OVERFLOW);
       RtlStringCbCopyW(eight, sizeof eight, text);
     }},
    {"frees pool under an MDL", "mdl.pool-freed",
     [] {
       TwoLoad();
       OnLower = HoldIt;
       PVOID pool;
       PIRP irp = OwnRead();
       irp->MdlAddress = NonpagedMdl(8, &pool);
       IofCallDriver(Two.Upper, irp);
       ExFreePoolWithTag(pool, Tag);
     }},
    {"uses a freed MDL", "mdl.unknown",
     [] {
       PVOID pool;
       PMDL mdl = NonpagedMdl(8, &pool);
       IoFreeMdl(mdl);
       MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, 0);
     }},
    {"frees the MDL of a user's locked pages", "mdl.freed-locked",
     [] {
       static char bytes[8];
       IoFreeMdl(MdlMakeLocked(bytes, sizeof bytes));
     }},
    {"a partial MDL for more pages than it has", "mdl.target-too-small",
     [] {
       PVOID pool;
       PMDL whole = NonpagedMdl(3 * PAGE_SIZE, &pool);
       IoBuildPartialMdl(whole, IoAllocateMdl(pool, 1, FALSE, FALSE, nullptr), pool, 0);
     }},
    {"waits on a closed handle", "handle.bad",
     [] { ZwWaitForSingleObject(reinterpret_cast<HANDLE>(4), FALSE, nullptr); }},
    {"asks a key that is none", "handle.bad",
     [] {
       UNICODE_STRING name = {};
       ULONG length;
       ZwQueryValueKey(nullptr, &name, KeyValueFullInformation, nullptr, 0, &length);
     }},
    {"raises downward", "irql.wrong-raise",
     [] {
       IrqlRaise(DISPATCH_LEVEL);
       IrqlRaise(APC_LEVEL);
     }},
    {"holds seventeen locks", "lock.too-many",
     [] {
       for (KSPIN_LOCK &lock : Locks) {
         KeInitializeSpinLock(&lock);
         KeAcquireSpinLockRaiseToDpc(&lock);
       }
     }},
    {"a semaphore above its limit", "semaphore.bad-arguments",
     [] {
       KSEMAPHORE semaphore;
       KeInitializeSemaphore(&semaphore, 2, 1);
     }},
    {"an event of no size", "event-log.size",
     [] {
       TwoLoad();
       IoAllocateErrorLogEntry(Two.Lower, 1);
     }},
    {"writes an event that is none", "event-log.unknown",
     [] {
       IO_ERROR_LOG_PACKET packet = {};
       IoWriteErrorLogEntry(&packet);
     }},
    {"asserts what does not hold", "assertion", [] { NT_ASSERT(Tag == 0); }},
    {"breaks into a debugger", "break", [] { DbgBreakPoint(); }},
};

TEST(BadDrivers, Others) {
  for (const BadRoutine &bad : OtherDrivers) {
    ExpectStopped(bad);
  }
}

TEST(BadDrivers, WaitOutsideOfAThread) {
  EXPECT_DEATH(
      {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
      },
      "wait.no-thread");
}

// Each of these fails above PASSIVE_LEVEL, whatever its arguments.
static void (*const PassiveServices[])() = {
    [] { ZwClose(nullptr); },
    [] { ZwWaitForSingleObject(nullptr, FALSE, nullptr); },
    [] { PsCreateSystemThread(nullptr, 0, nullptr, nullptr, nullptr, nullptr, nullptr); },
    [] { ObReferenceObjectByHandle(nullptr, 0, nullptr, KernelMode, nullptr, nullptr); },
    [] { ZwQueryValueKey(nullptr, nullptr, KeyValueFullInformation, nullptr, 0, nullptr); },
    [] { RtlQueryRegistryValues(0, nullptr, nullptr, nullptr, nullptr); },
    [] { MmGetSystemRoutineAddress(nullptr); },
    [] { IoCreateSymbolicLink(nullptr, nullptr); },
    [] { IoDeleteSymbolicLink(nullptr); },
    [] { IoRegisterDeviceInterface(nullptr, nullptr, nullptr, nullptr); },
    [] { IoSetDeviceInterfaceState(nullptr, TRUE); },
    [] { IoGetDeviceObjectPointer(nullptr, 0, nullptr, nullptr); },
    [] { IoOpenDeviceRegistryKey(nullptr, 0, 0, nullptr); },
    [] { RtlAnsiStringToUnicodeString(nullptr, nullptr, FALSE); },
    [] { RtlCompareUnicodeString(nullptr, nullptr, FALSE); },
};
static void (*Service)();

TEST(BadDrivers, PassiveServicesAtApcLevel) {
  for (size_t i = 0; i < sizeof PassiveServices / sizeof *PassiveServices; ++i) {
    Service = PassiveServices[i];
    EXPECT_EQ(RuleOf([] {
                IrqlRaise(APC_LEVEL);
                Service();
              }),
              "irql.too-high")
        << i;
  }
}

// ---- warnings ----

TEST(BadDrivers, FrownedUpon) {
  ExpectClean([] {
    TwoLoad();
    OnUpper = [](PDEVICE_OBJECT, PIRP Irp) {
      PoStartNextPowerIrp(Irp);
      return CompleteWith(Irp, STATUS_UNSUCCESSFUL);
    };
    PnpSetDevicePower(Two.Upper, PowerDeviceD3);
    EXPECT_EQ(VerifierWarnings("power.set-failed"), 1u);

    static const GUID someClass = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    Two.Lower->Flags |= DO_BUS_ENUMERATED_DEVICE;
    UNICODE_STRING link;
    IoRegisterDeviceInterface(Two.Lower, &someClass, nullptr, &link);
    IoSetDeviceInterfaceState(&link, TRUE);
    RtlFreeUnicodeString(&link);
    Two.Lower->Flags &= ~static_cast<ULONG>(DO_BUS_ENUMERATED_DEVICE);
    TwoUnload();
    EXPECT_EQ(VerifierWarnings("interface.left-enabled"), 1u);
  });
}

// A port driver with one child, which refuses to be told that it is gone.
static PDEVICE_OBJECT Below, Parent, Child;

static NTSTATUS AnswerRelations(PIRP Irp) {
  auto *relations = static_cast<PDEVICE_RELATIONS>(
      ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), Tag));
  relations->Count = 1;
  relations->Objects[0] = Child;
  ObReferenceObject(Child);
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(Below, Irp);
}

static NTSTATUS ParentPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  if (Device == Child) {
    return CompleteWith(Irp,
                        minor == IRP_MN_REMOVE_DEVICE ? STATUS_UNSUCCESSFUL : STATUS_NOT_SUPPORTED);
  }
  if (minor == IRP_MN_QUERY_DEVICE_RELATIONS) {
    return AnswerRelations(Irp);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = IofCallDriver(Below, Irp);
  if (minor == IRP_MN_REMOVE_DEVICE) {
    IoDetachDevice(Below);
    IoDeleteDevice(Child);
    IoDeleteDevice(Parent);
  }
  return status;
}

static NTSTATUS ParentAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  IoCreateDevice(Driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &Parent);
  IoCreateDevice(Driver, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &Child);
  Below = IoAttachDeviceToDeviceStack(Parent, Pdo);
  Parent->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  Child->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

TEST(BadDrivers, AChildThatRefusesToGo) {
  ExpectClean([] {
    PDRIVER_OBJECT driver = DriverLoad("Parent", [](PDRIVER_OBJECT Driver, PUNICODE_STRING) {
      Driver->MajorFunction[IRP_MJ_PNP] = ParentPnp;
      Driver->DriverExtension->AddDevice = ParentAdd;
      return STATUS_SUCCESS;
    });
    PortDescription port;
    port.Drivers = {driver};
    PnpNode *node = PnpAdd(port);
    PnpStart(node);
    EXPECT_EQ(PnpChildren(node).size(), 1u);
    PnpSurpriseRemove(node);
    PnpRemove(node);
    EXPECT_EQ(VerifierWarnings("pnp.child-must-succeed"), 1u);
    DriverUnload(driver);
  });
}

// ---- harsher conditions ----

static PWSTR PagedText() {
  auto *text = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, 3 * PAGE_SIZE, Tag));
  text[0] = 'a';
  text[PAGE_SIZE] = 'b';
  return text;
}

static const BadRoutine PagedDrivers[] = {
    {"reads paged pool with a lock", "irql.paged-memory",
     [] {
       volatile WCHAR *text = PagedText();
       KeInitializeSpinLock(&Locks[0]);
       KeAcquireSpinLockRaiseToDpc(&Locks[0]);
       KIRQL irql = text[PAGE_SIZE] == 'b' ? PASSIVE_LEVEL : APC_LEVEL;
       KeReleaseSpinLock(&Locks[0], irql);
     }},
    {"writes paged pool where another thread has just been", "irql.paged-memory",
     [] {
       static volatile WCHAR *text;
       text = PagedText();
       ThreadStart("raised", [] {
         KIRQL irql = IrqlRaise(DISPATCH_LEVEL);
         LONG counter = 0;
         InterlockedIncrement(&counter);
         text[0] = 'c';
         IrqlLower(irql);
       });
       for (LONG counter = 0; counter < 3; InterlockedIncrement(&counter)) {
         text[0] = 'd';
       }
     }},
};

TEST(BadDrivers, PagedPoolIsClosedAtDispatchLevel) {
  if (!PagedForceable) {
    GTEST_SKIP() << "no pages are closed in this build";
  }
  RunOptions options;
  options.Forced.PagedPool = true;
  for (const BadRoutine &bad : PagedDrivers) {
    // Preempted at some interlocked operation, both threads meet each other in every way.
    std::string rule;
    for (uint64_t seed = 0; seed < 20 && rule.empty(); ++seed) {
      options.Schedule.How = SchedulePolicy::Kind::Random;
      options.Schedule.Seed = seed;
      RunReport report = ModelRun(options, bad.Body);
      rule = report.Rule;
      if (rule == "leak.pool") {
        rule = "";
      }
    }
    EXPECT_EQ(rule, bad.Rule) << bad.Name;
  }
  ExpectClean(
      [] {
        PWSTR text = PagedText();
        KIRQL irql = IrqlRaise(DISPATCH_LEVEL);
        for (int i = 0; i < 600;
             ++i) {  // through the quarantine, which looks at freed paged blocks
          IrqlLower(irql);
          ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 8, Tag), Tag);
          irql = IrqlRaise(DISPATCH_LEVEL);
          ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag), Tag);
        }
        IrqlLower(irql);
        EXPECT_EQ(text[PAGE_SIZE], 'b');
        ExFreePoolWithTag(text, Tag);
      },
      options);
}

static RunOptions PendingOptions() {
  RunOptions options;
  options.Forced.Pending = true;
  return options;
}

TEST(BadDrivers, ForcedPendingFindsWhoTrustsTheAnswer) {
  // Passes the answer on although what it asked for has only begun.
  auto hasty = [](PDEVICE_OBJECT, PIRP Irp) {
    PassDownWith(Irp, Keep);
    return CompleteWith(Irp, STATUS_SUCCESS);
  };
  // Writes into what it has completed.
  auto late = [](PDEVICE_OBJECT, PIRP Irp) {
    CompleteWith(Irp, STATUS_SUCCESS);
    Irp->IoStatus.Information = 1;
    return STATUS_SUCCESS;
  };
  static PDRIVER_DISPATCH upper, lower;
  upper = hasty;
  lower = Succeed;
  auto play = [] {
    Play(upper, lower);
    TwoUnload();
  };
  EXPECT_EQ(RuleOf(play), "");
  EXPECT_EQ(RuleOf(play, PendingOptions()), "packet.double-completion");
  upper = [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, LetGo); };
  lower = late;
  EXPECT_EQ(RuleOf(play, PendingOptions()), "packet.touched-completed");
}

TEST(BadDrivers, ForcedPendingLeavesGoodDriversAlone) {
  static const PDRIVER_DISPATCH uppers[] = {
      PassDown,
      [](PDEVICE_OBJECT, PIRP Irp) { return PassDownWith(Irp, LetGo); },
      [](PDEVICE_OBJECT, PIRP Irp) {
        static KEVENT done;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        auto signal = [](PDEVICE_OBJECT, PIRP, PVOID Context) {
          KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
          return STATUS_MORE_PROCESSING_REQUIRED;
        };
        EXPECT_EQ(PassDownWith(Irp, signal, &done), STATUS_PENDING);
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        return CompleteWith(Irp, Irp->IoStatus.Status);
      },
  };
  for (PDRIVER_DISPATCH upper : uppers) {
    static PDRIVER_DISPATCH current;
    current = upper;
    for (ExecutorKind executor : {ExecutorKind::Fibers, ExecutorKind::Threads}) {
      RunOptions options = PendingOptions();
      options.Executor = executor;
      ExpectClean(
          [] {
            Play(current, Succeed);
            PIRP irp = OwnRead();
            static KEVENT done;
            KeInitializeEvent(&done, NotificationEvent, FALSE);
            auto signal = [](PDEVICE_OBJECT, PIRP, PVOID) {
              KeSetEvent(&done, IO_NO_INCREMENT, FALSE);
              return STATUS_MORE_PROCESSING_REQUIRED;
            };
            IoSetCompletionRoutine(irp, signal, nullptr, TRUE, TRUE, TRUE);
            OnLower = Succeed;
            IofCallDriver(Two.Lower, irp);
            KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
            EXPECT_EQ(irp->IoStatus.Status, STATUS_SUCCESS);
            IoFreeIrp(irp);
            TwoUnload();
          },
          options);
    }
  }
}

// ---- cancel at every switch point ----

// Makes the packet cancellable without a look at whether it has been cancelled before.
static NTSTATUS HoldBlindly(PDEVICE_OBJECT, PIRP Irp) {
  KIRQL irql;
  IoMarkIrpPending(Irp);
  IoAcquireCancelSpinLock(&irql);
  Held = Irp;
  IoSetCancelRoutine(Irp, CancelHeld);
  IoReleaseCancelSpinLock(irql);
  return STATUS_PENDING;
}

static ExploreResult CancelEverywhere(PDRIVER_DISPATCH Lower) {
  static PDRIVER_DISPATCH lower;
  lower = Lower;
  ExploreOptions options;
  options.Preemptions = 1;
  return ModelExplore(options, [] {
    TwoLoad();
    OnLower = lower;
    HANDLE handle;
    FileOpen("\\Device\\Low", Account::User, &handle);
    FileRequest request;
    request.Buffer.resize(1);
    size_t cancelled = 0;
    PKTHREAD canceller = ThreadStart("canceller", [&] { cancelled = CancelOutstanding(); });
    ExploreWindow(true);
    FileSend(handle, &request);
    ThreadJoin(canceller);
    ExploreWindow(false);
    if (cancelled > 0) {
      CancelledMustHaveEnded();
    } else {
      FileCancel(&request);  // it came too early
    }
    FileWait(&request);
    FileClose(handle);
    TwoUnload();
  });
}

TEST(BadDrivers, CancelledAtEverySwitchPoint) {
  ExploreResult good = CancelEverywhere(HoldCancellable);
  EXPECT_TRUE(good.Exhausted) << good.Failure.Text;
  EXPECT_GT(good.Runs, 3u);
  EXPECT_EQ(CancelEverywhere(HoldBlindly).Failure.Rule, "cancel.not-completed");
  EXPECT_EQ(CancelEverywhere(HoldIt).Failure.Rule, "cancel.not-completed");
}

// ---- low resources at random ----

TEST(Faults, ACoinOfSixInAHundred) {
  ExpectClean([] {
    auto play = [](uint64_t seed) {
      std::string got;
      FaultArm({.Kinds = FaultIrp, .Percent = 6, .Seed = seed});
      for (int i = 0; i < 2000; ++i) {
        PIRP irp = IoAllocateIrp(1, FALSE);
        got += irp ? '+' : '-';
        if (irp) {
          IoFreeIrp(irp);
        }
      }
      EXPECT_TRUE(FaultDisarm());
      return got;
    };
    std::string first = play(1);
    auto failed = std::count(first.begin(), first.end(), '-');
    EXPECT_GT(failed, 80);
    EXPECT_LT(failed, 160);
    EXPECT_EQ(play(1), first);
    EXPECT_NE(play(2), first);
  });
}
