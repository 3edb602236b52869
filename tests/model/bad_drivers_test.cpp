// Small bad drivers, each with the rule that must stop it. Together with the tables of the other
// tests here every rule of the verifier has one.
#include <algorithm>

#include "platform/model/irql.h"
#include "platform/model/mdl.h"
#include "platform/model/packets.h"
#include "platform/model/paged_pool.h"
#include "platform/model/registry_keys.h"
#include "platform/model/stack_depth.h"
#include "tests/model/two_drivers.h"

static constexpr ULONG Tag = FourCharacters("Test");

static KSPIN_LOCK Locks[17];

static FileRequest Request;

static void AnswerPower(void (*Meanwhile)()) {
  static void (*meanwhile)();
  meanwhile = Meanwhile;
  OnUpper = [](PDEVICE_OBJECT Device, PIRP Irp) {
    meanwhile();
    return Succeed(Device, Irp);
  };
}

static const BadRoutine PacketDrivers[] = {
    {"completes a cancelled packet after six minutes", "cancel.not-completed",
     [] {
       OnLower = HoldIt;
       BeginRead(OpenLow(), &Request);
       FileCancel(&Request);
       ClockAdvance((CancelSeconds + 60) * 10'000'000);
       CompleteWith(Held, STATUS_CANCELLED);
     }},
    {"allocates in a power-down", "power.down-call",
     [] {
       AnswerPower([] { ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag); });
       PnpSetDevicePower(Two.Upper, PowerDeviceD3);
     }},
    {"asks the registry in a power-down", "power.down-call",
     [] {
       AnswerPower([] { ZwClose(nullptr); });
       PnpSetSystemPower(Two.Upper, PowerSystemSleeping3);
     }},
};

TEST(BadDrivers, Packets) {
  ExpectTwoStopped(PacketDrivers);
}

TWO_DRIVERS_TEST(BadDrivers, CopyWithoutARoutineIsAWarning) {
  Play("copy down", "complete");
  EXPECT_EQ(VerifierWarnings("copy-without-routine"), 1u);
  // Who has marked its location cannot skip it.
  Play("mark copy down pending", "complete");
  EXPECT_EQ(VerifierWarnings("copy-without-routine"), 1u);
}

// A completion routine may free its packet: nobody looks at it after MORE_PROCESSING.
TWO_DRIVERS_TEST(BadDrivers, NobodyTouchesWhatARoutineHasTaken) {
  auto free = [](PDEVICE_OBJECT, PIRP Irp, PVOID) {
    IoFreeIrp(Irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
  };
  EXPECT_EQ(IofCallDriver(Two.Upper, OwnRead(free)), STATUS_SUCCESS);
  EXPECT_EQ(PacketCount(), 0u);
}

static PVOID Left;

struct Leaver {
  const char *Rule;
  PVOID (*Take)();
  void (*TakeBack)();
};

static const Leaver Leavers[] = {
    {"leak.pool", [] { return ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag); },
     [] { ExFreePoolWithTag(Left, Tag); }},
    {"leak.packet", []() -> PVOID { return IoAllocateIrp(1, FALSE); },
     [] { IoFreeIrp(static_cast<PIRP>(Left)); }},
    {"leak.mdl", []() -> PVOID { return IoAllocateMdl(&Left, 1, FALSE, FALSE, nullptr); },
     [] { IoFreeMdl(static_cast<PMDL>(Left)); }},
};

static const Leaver *Leaving;

static NTSTATUS Leave(PDEVICE_OBJECT Device, PIRP Irp) {
  Left = Leaving->Take();
  return Succeed(Device, Irp);
}

// By the name of the driver that made it, though others are still loaded; not by that of a driver
// that only ran meanwhile.
TEST(BadDrivers, WhatIsLeftAtAnUnloadHasAMaker) {
  for (const Leaver &leaver : Leavers) {
    Leaving = &leaver;
    RunReport report = ModelRun({}, [] {
      TwoLoad();
      OnUpper = Leave;
      SendRead();
      TwoUnload();
    });
    EXPECT_EQ(report.Rule, leaver.Rule);
    EXPECT_NE(report.Text.find("\\Driver\\Upper is unloaded"), std::string::npos) << report.Text;
    ExpectClean([] {
      TwoLoad();
      OnLower = Leave;
      SendRead();
      IoDetachDevice(Two.Lower);
      IoDeleteDevice(Two.Upper);
      DriverUnload(Two.UpperDriver);  // below
      Leaving->TakeBack();
      IoDeleteDevice(Two.Lower);
      DriverUnload(Two.LowerDriver);
    });
  }
}

// Unloads the two while a read sleeps somewhere in them.
static void UnloadMeanwhile(PDRIVER_DISPATCH Upper, PDRIVER_DISPATCH Lower) {
  OnUpper = Upper;
  OnLower = Lower;
  ThreadStart("sender", [] { SendRead(); });
  ThreadSettle();
  TwoUnload();
}

static const BadRoutine RunningDrivers[] = {
    {"its thread", "unload.running",
     [] {
       DriverUnload(DriverLoad("Threaded", [](PDRIVER_OBJECT, PUNICODE_STRING) {
         ZwClose(SystemThread([](PVOID) { SleepForEver(); }));
         return STATUS_SUCCESS;
       }));
     }},
    {"a completion routine", "unload.running",
     [] {
       auto upper = [](PDEVICE_OBJECT, PIRP Irp) {
         IoCopyCurrentIrpStackLocationToNext(Irp);
         SetRoutine(Irp, [](PDEVICE_OBJECT, PIRP, PVOID) {
           SleepForEver();
           return STATUS_SUCCESS;
         });
         return IofCallDriver(Two.Lower, Irp);
       };
       UnloadMeanwhile(upper, Succeed);
     }},
    {"a dispatch routine that has completed its packet", "unload.running",
     [] {
       auto upper = [](PDEVICE_OBJECT Device, PIRP Irp) {
         NTSTATUS status = Succeed(Device, Irp);
         SleepForEver();
         return status;
       };
       UnloadMeanwhile(upper, Succeed);
     }},
};

TEST(BadDrivers, TheirCodeRunsOnAfterTheUnload) {
  ExpectTwoStopped(RunningDrivers);
}

static HANDLE MakeThread(ULONG Attributes) {
  OBJECT_ATTRIBUTES attributes = {};
  attributes.Length = sizeof attributes;
  attributes.Attributes = Attributes;
  HANDLE thread;
  PsCreateSystemThread(
      &thread, THREAD_ALL_ACCESS, &attributes, nullptr, nullptr, [](PVOID) {}, nullptr);
  return thread;
}

static void ReadBy(PDRIVER_DISPATCH Dispatch) {
  std::vector<uint8_t> bytes;
  OnLower = Dispatch;
  HANDLE handle = OpenLow();
  FileRead(handle, 1, &bytes);
  FileClose(handle);
}

static HANDLE SystemsThread;

static const BadRoutine HandleDrivers[] = {
    {"makes a thread in a user's process", "handle.of-user",
     [] {
       ReadBy([](PDEVICE_OBJECT Device, PIRP Irp) {
         MakeThread(0);
         return Succeed(Device, Irp);
       });
     }},
    {"closes there what it made in the system's", "handle.bad",
     [] {
       SystemsThread = MakeThread(0);
       ReadBy([](PDEVICE_OBJECT Device, PIRP Irp) {
         ZwClose(SystemsThread);
         return Succeed(Device, Irp);
       });
     }},
};

TEST(BadDrivers, HandlesInTheWrongProcess) {
  ExpectTwoStopped(HandleDrivers);
  ExpectTwoClean([] {
    ReadBy([](PDEVICE_OBJECT Device, PIRP Irp) {
      ZwClose(MakeThread(OBJ_KERNEL_HANDLE));
      return Succeed(Device, Irp);
    });
    ZwClose(MakeThread(0));
    ThreadSettle();
  });
}

static const BadRoutine OverDereferencers[] = {
    {"a driver's", "object.over-dereferenced",
     [] {
       ObDereferenceObject(Two.UpperDriver);
       TwoUnload();
     }},
    {"a device's", "object.over-dereferenced", [] { ObDereferenceObject(Two.Lower); }},
    {"a file's", "object.over-dereferenced", [] { ObDereferenceObject(FileObject(OpenLow())); }},
    {"a running thread's", "object.over-dereferenced",
     [] {
       PKTHREAD thread = ThreadStart("sleeper", SleepForEver);
       ObDereferenceObject(thread);
       ObDereferenceObject(thread);
     }},
    {"that of a key's handle", "object.over-dereferenced",
     [] {
       HANDLE key;
       PVOID body;
       RegistryAddKey("\\Key", {});
       RegistryOpenKey("\\Key", &key);
       ObReferenceObjectByHandle(key, 0, nullptr, KernelMode, &body, nullptr);
       ObDereferenceObject(body);
       ObDereferenceObject(body);
     }},
};

TEST(BadDrivers, OverDereference) {
  ExpectTwoStopped(OverDereferencers);
}

static PWSTR EndlessText() {
  auto *text = static_cast<PWSTR>(ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag));
  RtlFillMemory(text, 8, 'a');
  return text;
}

static const BadRoutine OtherDrivers[] = {
    {"allocates while it is unloaded", "pool.unloading",
     [] {
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
         HANDLE thread = SystemThread([](PVOID) { ExAllocatePoolWithTag(NonPagedPoolNx, 8, Tag); });
         ZwWaitForSingleObject(thread, FALSE, nullptr);
         ZwClose(thread);
         return STATUS_SUCCESS;
       }));
     }},
    {"copies bytes onto themselves", "memory.overlap",
     [] {
       char bytes[8] = "1234567";
       volatile size_t offset = 1;
       RtlCopyMemory(bytes + offset, bytes, 4);
     }},
    {"a string without an end", "string.unterminated",
     [] {
       UNICODE_STRING string;
       RtlInitUnicodeString(&string, EndlessText());
     }},
    {"copies a string without an end", "string.unterminated",
     [] {
       WCHAR four[4], eight[8];
       EXPECT_EQ(RtlStringCbCopyW(four, sizeof four, EndlessText()), STATUS_BUFFER_OVERFLOW);
       RtlStringCbCopyW(eight, sizeof eight, EndlessText());
     }},
    {"maps what could be executed", "mdl.executable",
     [] {
       static char bytes[8];
       PMDL mdl = MdlMakeLocked(bytes, sizeof bytes);
       MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority);
     }},
    {"promises to wait", "wait.bad-arguments",
     [] {
       KEVENT event;
       KeInitializeEvent(&event, NotificationEvent, FALSE);
       KeSetEvent(&event, IO_NO_INCREMENT, TRUE);
     }},
    {"waits until an alert", "wait.bad-arguments",
     [] {
       KEVENT event;
       KeInitializeEvent(&event, NotificationEvent, TRUE);
       KeWaitForSingleObject(&event, Executive, KernelMode, TRUE, nullptr);
     }},
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
    {"an event of no size", "event-log.size", [] { IoAllocateErrorLogEntry(Two.Lower, 1); }},
    {"writes an event that is none", "event-log.unknown",
     [] {
       IO_ERROR_LOG_PACKET packet = {};
       IoWriteErrorLogEntry(&packet);
     }},
    {"a device for no driver", "device.not-live",
     [] {
       PDEVICE_OBJECT device;
       IoCreateDevice(reinterpret_cast<PDRIVER_OBJECT>(Two.Lower), 0, nullptr, 0, 0, FALSE,
                      &device);
     }},
    {"gives back what is no lock", "lock.uninitialized",
     [] {
       KSPIN_LOCK lock = {0x1234};
       IrqlRaise(DISPATCH_LEVEL);
       KeReleaseSpinLockFromDpcLevel(&lock);
     }},
    {"deletes a device that somebody waits in", "dispatcher.freed-waited",
     [] {
       auto *event = static_cast<PKEVENT>(Two.Upper->DeviceExtension);
       KeInitializeEvent(event, NotificationEvent, FALSE);
       ThreadStart("waiter", [event] { WaitForEver(event); });
       ThreadSettle();
       IoDetachDevice(Two.Lower);
       IoDeleteDevice(Two.Upper);
     }},
    {"comes back from its entry at another IRQL", "irql.not-restored",
     [] {
       DriverLoad("raised", [](PDRIVER_OBJECT, PUNICODE_STRING) {
         IrqlRaise(DISPATCH_LEVEL);
         return STATUS_SUCCESS;
       });
     }},
    {"references by no handle", "handle.bad",
     [] {
       PVOID object;
       ObReferenceObjectByHandle(nullptr, 0, nullptr, KernelMode, &object, nullptr);
     }},
    {"waits for no handle", "handle.bad", [] { ZwWaitForSingleObject(nullptr, FALSE, nullptr); }},
    {"reports no power state", "bugcheck",
     [] { PoSetPowerState(Two.Lower, static_cast<POWER_STATE_TYPE>(2), {}); }},
    {"asserts what does not hold", "assertion", [] { NT_ASSERT(Tag == 0); }},
    {"breaks into a debugger", "break", [] { DbgBreakPoint(); }},
};

TEST(BadDrivers, Others) {
  ExpectTwoStopped(OtherDrivers);
}

// The model itself cannot go on, whether it looks for faults or not.
TEST(BadDrivers, StoppedWithoutTheVerifier) {
  ExpectTwoStopped("no stack location", "bugcheck", SendWithoutALocation, {.Verifier = false});
  ExpectTwoStopped("own packet not kept", "bugcheck",
                   [] { PlayOwn("skip down", "complete", LetGo); }, {.Verifier = false});
}

TEST(BadDrivers, WaitOutsideOfAThread) {
  EXPECT_DEATH(SleepForEver(), "wait.no-thread");
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

TEST(BadDrivers, PassiveServicesAtApcLevel) {
  int number = 0;
  for (auto service : PassiveServices) {
    std::string rule = RuleOf([service] {
      IrqlRaise(APC_LEVEL);
      service();
    });
    EXPECT_EQ(rule, "irql.too-high") << number;
    ++number;
  }
}

MODEL_TEST(BadDrivers, FrownedUpon) {
  TwoLoad();
  Tell("next-power failure complete", "complete");
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
}

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
  RunOptions options = {.Forced = {.PagedPool = true}};
  for (const BadRoutine &bad : PagedDrivers) {
    // Preempted at some interlocked operation, both threads meet each other in every way.
    std::string rule;
    for (uint64_t seed = 0; seed < 20 && rule.empty(); ++seed) {
      options.Schedule.How = SchedulePolicy::Kind::Random;
      options.Schedule.Seed = seed;
      rule = RuleOf(bad.Body, options);
      rule = rule == "leak.pool" ? "" : rule;
    }
    EXPECT_EQ(rule, bad.Rule) << bad.Name;
  }
  ExpectClean(
      [] {
        PWSTR text = PagedText();
        KIRQL irql = IrqlRaise(DISPATCH_LEVEL);
        // Through the quarantine, which looks at freed paged blocks.
        for (int i = 0; i < 600; ++i) {
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

TEST(BadDrivers, ForcedPendingFindsWhoTrustsTheAnswer) {
  static const BadPair pairs[] = {
      {"passes the answer on although what it asked for has only begun", "packet.double-completion",
       "copy keep down success complete", "complete"},
      {"writes into what it has completed", "packet.touched-completed", "copy let-go down",
       "complete answer"},
      {"marks what it has completed", "packet.pend-not-owned", "copy let-go down", "complete mark"},
      {"passes on what is being completed", "packet.forward-completed", "copy let-go down",
       "complete down"},
  };
  ExpectTwoStopped(pairs, {.Forced = {.Pending = true}});
  ExpectTwoClean([] { Play(pairs[0].Upper, pairs[0].Lower); });
}

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
  ExploreOptions options;
  options.Preemptions = 1;
  return ModelExplore(options, [Lower] {
    TwoLoad();
    OnLower = Lower;
    HANDLE handle = OpenLow();
    FileRequest request;
    size_t cancelled = 0;
    PKTHREAD canceller = ThreadStart("canceller", [&] { cancelled = CancelOutstanding(); });
    ExploreWindow(true);
    BeginRead(handle, &request);
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

// Calls with so much on the stack.
template <size_t Bytes>
static void Above(void (*Service)()) {
  char room[Bytes];
  volatile char *used = room;
  *used = 1;
  Service();
  *used = 2;
}

static unsigned Deeper;

static void CallDown() {
  PIRP irp = OwnRead();
  if (Deeper > 0) {
    --Deeper;
    IofCallDriver(Two.Upper, irp);
  }
  IoFreeIrp(irp);
}

template <size_t Bytes>
static void SendDeep(unsigned Times) {
  Deeper = Times - 1;
  OnUpper = [](PDEVICE_OBJECT Device, PIRP Irp) {
    Above<Bytes>(CallDown);
    return Succeed(Device, Irp);
  };
  SendRead();
}

static const BadRoutine DeepDrivers[] = {
    {"13 KiB in a call", "stack.too-deep", [] { SendDeep<13 * 1024>(1); }},
    {"13 KiB in a thread", "stack.too-deep",
     [] {
       SystemThread([](PVOID) { Above<13 * 1024>(CallDown); });
       ThreadSettle();
     }},
    {"13 KiB in an unload routine", "stack.too-deep",
     [] {
       Two.UpperDriver->DriverUnload = [](PDRIVER_OBJECT) { Above<13 * 1024>(CallDown); };
       TwoUnload();
     }},
    {"2 KiB in each of seven calls", "stack.too-deep", [] { SendDeep<2048>(7); }},
};

TEST(BadDrivers, StackOfAChainOfCalls) {
  if (!StackMeasured) {
    GTEST_SKIP() << "frames are larger in this build";
  }
  ExpectTwoStopped(DeepDrivers);
  ExpectTwoClean([] {
    SendDeep<10 * 1024>(1);
    SendDeep<2048>(5);
    // A user's own stack is no driver's.
    OnUpper = PassDown;
    HANDLE handle = OpenLow();
    Request.OnDone = [](FileRequest *, void *) { Above<16 * 1024>(CallDown); };
    BeginRead(handle, &Request);
    Request.OnDone = nullptr;
    FileClose(handle);
  });
}

static std::string CoinsOf(uint64_t Seed) {
  std::string coins;
  FaultArm({.Kinds = FaultIrp, .Percent = 6, .Seed = Seed});
  for (int i = 0; i < 2000; ++i) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    coins += irp ? '+' : '-';
    if (irp) {
      IoFreeIrp(irp);
    }
  }
  EXPECT_TRUE(FaultDisarm());
  return coins;
}

MODEL_TEST(Faults, ACoinOfSixInAHundred) {
  std::string first = CoinsOf(1);
  EXPECT_NEAR(static_cast<double>(std::count(first.begin(), first.end(), '-')), 120, 40);
  EXPECT_EQ(CoinsOf(1), first);
  EXPECT_NE(CoinsOf(2), first);
}
