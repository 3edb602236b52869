// What exploring is worth: small programs whose faults it must find, each kind of switch point with
// the fault that is missed without it, and the same orders with fewer runs.
#include <algorithm>
#include <array>

#include "platform/model/schedule.h"
#include "tests/model/two_drivers.h"

// --- faults that must be found ------------------------------------------------------------------

constexpr ULONG Tag = 0x796F54;

// One party drops its reference and then uses the object; the other drops the last one.
static void TouchedAfterItsReference() {
  struct Counted {
    LONG References = 2;
  };
  bool freed = false;
  auto *counted =
      static_cast<Counted *>(ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(Counted), Tag));
  *counted = {};
  auto drop = [&] {
    if (InterlockedDecrement(&counted->References) == 0) {
      freed = true;
      ExFreePoolWithTag(counted, Tag);
    } else if (freed) {
      KeBugCheckModel("used after its reference was dropped");
    }
  };
  Together({drop, drop});
}

// Each of the two accesses is atomic; what they decide together is not.
static void DecidedInTwoSteps() {
  ULONG taken = 0;
  unsigned takers = 0;
  auto take = [&] {
    if (ReadULongAcquire(&taken) == 0) {
      WriteULongRelease(&taken, 1);
      ++takers;
    }
  };
  Together({take, take});
  if (takers != 1) {
    KeBugCheckModel("taken twice");
  }
}

static NTSTATUS PendTooLate(PDEVICE_OBJECT, PIRP Irp) {
  Held = Irp;
  IoSetCancelRoutine(Irp, CancelHeld);
  IoMarkIrpPending(Irp);
  return STATUS_PENDING;
}

static void CancellableBeforePending() {
  TwoLoad();
  OnLower = PendTooLate;
  HANDLE handle = OpenLow();
  FileRequest read;
  read.Buffer.resize(1);
  Together({[&] { FileSend(handle, &read); }, [&] { FileCancel(&read); }});
  FileCancel(&read);
  FileWait(&read);
  FileClose(handle);
  TwoUnload();
}

TEST(Exploring, FindsWhatIsUsedOnceTooOftenOrDecidedInTwoSteps) {
  struct {
    void (*Scenario)();
    const char *Rule;
  } const toys[] = {{TouchedAfterItsReference, "bugcheck"},
                    {DecidedInTwoSteps, "bugcheck"},
                    {CancellableBeforePending, "packet.freed"}};
  for (const auto &toy : toys) {
    for (const char *how : {"exhaust preemptions=1", "exhaust preemptions=1 reduce=0"}) {
      EXPECT_EQ(ExploreAs(how, toy.Scenario).Failure.Rule, toy.Rule) << how;
    }
    EXPECT_FALSE(ExploreAs("exhaust preemptions=0", toy.Scenario).Failure.Stopped);
  }
}

// --- faults that take three ---------------------------------------------------------------------

// The last reference is dropped, but before its holder has told so another came and went, and told
// in its place: who waited for that takes everything away under the first.
static void ToldByAnother() {
  LONG references = 2;
  PVOID port = ExAllocatePoolWithTag(NonPagedPoolNx, 1, Tag);
  KEVENT idle;
  KeInitializeEvent(&idle, SynchronizationEvent, FALSE);
  auto drop = [&](bool first) {
    if (InterlockedDecrement(&references) == 0) {
      if (first && !port) {
        KeBugCheckModel("told when nobody is there any more");
      }
      KeSetEvent(&idle, IO_NO_INCREMENT, FALSE);
    }
  };
  Together({[&] { drop(true); },
            [&] {
              InterlockedIncrement(&references);
              drop(false);
            },
            [&] {
              if (InterlockedDecrement(&references) != 0) {
                WaitForEver(&idle);
              }
              ExFreePoolWithTag(std::exchange(port, nullptr), Tag);
            }});
}

// Who was told that there is something takes it without a second look; somebody else has it, who
// would have brought it back.
static void TakenWithoutASecondLook() {
  KSPIN_LOCK lock;
  KEVENT some;
  int count = 0;
  bool waiting = false;
  KeInitializeSpinLock(&lock);
  KeInitializeEvent(&some, SynchronizationEvent, FALSE);
  auto locked = [&](auto step) {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock);
    bool result = step();
    KeReleaseSpinLock(&lock, irql);
    return result;
  };
  auto put = [&] {
    bool tell = locked([&] {
      ++count;
      return waiting;
    });
    if (tell) {
      KeSetEvent(&some, IO_NO_INCREMENT, FALSE);
    }
  };
  Together({[&] {
              if (locked([&] { return waiting = count == 0; })) {
                WaitForEver(&some);
              }
              if (locked([&] { return --count < 0; })) {
                KeBugCheckModel("taken twice");
              }
            },
            [&] {
              if (locked([&] { return count > 0 && count-- > 0; })) {
                put();
              }
            },
            put});
}

// Each has one of three and wants the next.
static void ThreeInACircle() {
  KSEMAPHORE forks[3];
  for (KSEMAPHORE &fork : forks) {
    KeInitializeSemaphore(&fork, 1, 1);
  }
  auto dine = [&](unsigned seat) {
    WaitForEver(&forks[seat]);
    WaitForEver(&forks[(seat + 1) % 3]);
    KeReleaseSemaphore(&forks[(seat + 1) % 3], IO_NO_INCREMENT, 1, FALSE);
    KeReleaseSemaphore(&forks[seat], IO_NO_INCREMENT, 1, FALSE);
  };
  Together({[&] { dine(0); }, [&] { dine(1); }, [&] { dine(2); }});
}

TEST(Exploring, PrioritiesByChanceFindWhatTakesThree) {
  struct {
    const char *Name;
    void (*Scenario)();
    const char *Rule;
  } const toys[] = {{"told by another", ToldByAnother, "bugcheck"},
                    {"taken without a second look", TakenWithoutASecondLook, "bugcheck"},
                    {"three in a circle", ThreeInACircle, "deadlock"}};
  for (const auto &toy : toys) {
    uint64_t runs = 0;
    for (int seed = 1; seed <= 30; ++seed) {
      ExploreResult result =
          ExploreAs(("pct depth=3 runs=1000 seed=" + std::to_string(seed)).c_str(), toy.Scenario);
      EXPECT_EQ(result.Failure.Rule, toy.Rule) << toy.Name << ", seed " << seed;
      runs += result.Runs;
    }
    printf("  %s: found by 30 seeds in %llu runs\n", toy.Name,
           static_cast<unsigned long long>(runs));
    for (const char *how : {"exhaust preemptions=2", "exhaust preemptions=2 reduce=0"}) {
      EXPECT_EQ(ExploreAs(how, toy.Scenario).Failure.Rule, toy.Rule) << toy.Name << ", " << how;
    }
  }
}

// --- what each kind of point is for -------------------------------------------------------------

// One party's state around what it does at a point.
static struct {
  bool About;  // to do it
  bool Told;   // that it was done
  bool Done;
  LONG Word;
  ULONG Value;
  KEVENT Event;
  KSPIN_LOCK Lock;
  ULONG_PTR FreeLock;
  PIRP Irp;
  int64_t References;
} now;

static NTSTATUS NoteDone(PDEVICE_OBJECT, PIRP, PVOID) {
  now.Done = true;
  return STATUS_MORE_PROCESSING_REQUIRED;
}

static NTSTATUS SucceedSoon(PDEVICE_OBJECT, PIRP Irp) {
  now.About = true;
  return CompleteWith(Irp, STATUS_SUCCESS);
}

static NTSTATUS NoteReached(PDEVICE_OBJECT Device, PIRP Irp) {
  now.Done = true;
  return Succeed(Device, Irp);
}

static void TakeAndGive() {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&now.Lock);
  now.About = false;
  now.Done = true;
  KeReleaseSpinLock(&now.Lock, irql);
}

static int64_t ReferencesLeft() {
  return ObjectReferences(Two.LowerDriver) - now.References;
}

// What another thread may see only if it can run right before, or right after, what is done.
struct PointToy {
  SwitchReason Kind;
  const char *Name;
  void (*Do)();
  bool (*Seen)();
};

static const PointToy PointToys[] = {
    {SwitchReason::Lock, "before a lock", TakeAndGive, [] { return now.About; }},
    {SwitchReason::Unlocked, "after a lock", TakeAndGive,
     [] { return now.Done && now.Lock.Word == now.FreeLock; }},
    {SwitchReason::Interlock, "before an interlocked operation",
     [] { InterlockedIncrement(&now.Word); }, [] { return now.About && now.Word == 0; }},
    {SwitchReason::Interlocked, "after an interlocked operation",
     [] { InterlockedIncrement(&now.Word); }, [] { return now.Word == 1; }},
    {SwitchReason::Read, "before a read", [] { ReadULongAcquire(&now.Value); },
     [] { return now.About; }},
    {SwitchReason::Write, "before a write", [] { WriteULongRelease(&now.Value, 1); },
     [] { return now.About && now.Value == 0; }},
    {SwitchReason::Written, "after a write", [] { WriteULongRelease(&now.Value, 1); },
     [] { return now.Value == 1; }},
    {SwitchReason::Exchange, "before an exchange", [] { IoSetCancelRoutine(now.Irp, NoRoutine); },
     [] { return now.About && !now.Irp->CancelRoutine; }},
    {SwitchReason::Exchanged, "after an exchange", [] { IoSetCancelRoutine(now.Irp, NoRoutine); },
     [] { return now.Irp->CancelRoutine != nullptr; }},
    {SwitchReason::Wait, "before a wait", [] { WaitForEver(&now.Event); },
     [] { return now.About && now.Event.Header.SignalState == 1; }},
    {SwitchReason::Signal, "before a signal", [] { KeClearEvent(&now.Event); },
     [] { return now.About && now.Event.Header.SignalState == 1; }},
    {SwitchReason::Signalled, "after a signal", [] { KeClearEvent(&now.Event); },
     [] { return now.Event.Header.SignalState == 0; }},
    {SwitchReason::Dereference, "before a dereference",
     [] { ObDereferenceObject(Two.LowerDriver); },
     [] { return now.About && ReferencesLeft() == 1; }},
    {SwitchReason::Dereferenced, "after a dereference",
     [] { ObDereferenceObject(Two.LowerDriver); }, [] { return ReferencesLeft() == 0; }},
    {SwitchReason::Call, "before a call", [] { IofCallDriver(Two.Lower, now.Irp); },
     [] { return now.About && !now.Done; }},
    {SwitchReason::Complete, "before a completion",
     [] {
       now.About = false;
       OnLower = SucceedSoon;
       IofCallDriver(Two.Lower, now.Irp);
     },
     [] { return now.About && !now.Done; }},
    {SwitchReason::Allocate, "before an allocation",
     [] { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPoolNx, 1, Tag), Tag); },
     [] { return now.About; }},
};
static_assert(std::size(PointToys) == SwitchReasons);

static void PlayPointToy(const PointToy &toy) {
  TwoLoad();
  now = {};
  KeInitializeSpinLock(&now.Lock);
  now.FreeLock = now.Lock.Word;
  KeInitializeEvent(&now.Event, SynchronizationEvent, TRUE);
  OnLower = NoteReached;
  now.Irp = OwnRead(NoteDone);
  now.References = ObjectReferences(Two.LowerDriver);
  ObReferenceObject(Two.LowerDriver);
  bool seen = false;
  bool dropped = toy.Kind == SwitchReason::Dereference || toy.Kind == SwitchReason::Dereferenced;
  Together({[&] {
              now.About = true;
              toy.Do();
              now.About = false;
              now.Told = true;
            },
            [&] { seen = !now.Told && toy.Seen(); }});
  if (!dropped) {
    ObDereferenceObject(Two.LowerDriver);
  }
  IoSetCancelRoutine(now.Irp, nullptr);
  IoFreeIrp(now.Irp);
  TwoUnload();
  if (seen) {
    KeBugCheckModel("seen");
  }
}

TEST(Exploring, MissesAFaultWithoutTheKindOfPointItStandsAt) {
  for (size_t i = 0; i < SwitchReasons; ++i) {
    const PointToy &toy = PointToys[i];
    EXPECT_EQ(static_cast<size_t>(toy.Kind), i) << toy.Name;
    for (bool without : {false, true}) {
      PointsLeftOut = without ? 1u << i : 0;
      ExploreResult result =
          ExploreAs("exhaust preemptions=1 reduce=0", [&] { PlayPointToy(toy); });
      PointsLeftOut = 0;
      EXPECT_EQ(result.Failure.Rule, without ? "" : "bugcheck") << toy.Name << '\n'
                                                                << result.Failure.Text;
    }
  }
}

// --- the same orders with fewer runs ------------------------------------------------------------

// A program of two-letter steps, one a party: what is done, and to which of four objects.
struct Small {
  std::array<const char *, 4> Parties;
  unsigned Preemptions;
};

struct SmallState {
  LONG Counts[4] = {};
  ULONG Words[4] = {};
  KSPIN_LOCK Locks[4];
  KEVENT Events[4];
  KSEMAPHORE Semaphores[4];
  ULONG Guarded[4] = {};  // plain, under the lock of the same number
};

static void Perform(const char *steps, ULONG party, SmallState *state, std::string *seen) {
  KIRQL irql[4];
  for (const char *at = steps; *at; at += at[2] ? 3 : 2) {
    unsigned which = static_cast<unsigned>(at[1] - '1');
    ULONG value = 0;
    switch (at[0]) {
    case 'i':
      value = static_cast<ULONG>(InterlockedIncrement(&state->Counts[which]));
      break;
    case 'r':
      value = ReadULongAcquire(&state->Words[which]);
      break;
    case 'w':
      WriteULongRelease(&state->Words[which], party + 1);
      break;
    case 'l':
      irql[which] = KeAcquireSpinLockRaiseToDpc(&state->Locks[which]);
      value = ++state->Guarded[which];
      break;
    case 'u':
      KeReleaseSpinLock(&state->Locks[which], irql[which]);
      break;
    case 's':
      value = static_cast<ULONG>(KeSetEvent(&state->Events[which], 0, FALSE));
      break;
    case 'c':
      KeClearEvent(&state->Events[which]);
      break;
    case 'q':
      value = static_cast<ULONG>(KeReadStateEvent(&state->Events[which]));
      break;
    case 'p':
      WaitForEver(&state->Events[which]);
      break;
    case 'v':
      KeReleaseSemaphore(&state->Semaphores[which], 0, 1, FALSE);
      break;
    case 't':
      WaitForEver(&state->Semaphores[which]);
      break;
    }
    *seen += std::to_string(value) + ' ';
  }
}

static void PlaySmall(const Small &small) {
  SmallState state;
  for (unsigned i = 0; i < 4; ++i) {
    KeInitializeSpinLock(&state.Locks[i]);
    KeInitializeEvent(&state.Events[i], SynchronizationEvent, FALSE);
    KeInitializeSemaphore(&state.Semaphores[i], 0, 4);
  }
  std::string seen[4];
  std::vector<PKTHREAD> threads;
  for (ULONG i = 0; i < 4 && small.Parties[i]; ++i) {
    threads.push_back(
        ThreadStart("party", [&, i] { Perform(small.Parties[i], i, &state, &seen[i]); }));
  }
  ExploreWindow(true);
  for (PKTHREAD thread : threads) {
    ThreadJoin(thread);
  }
  ExploreWindow(false);
  ExploreSaw(seen[0] + "/ " + seen[1] + "/ " + seen[2] + "/ " + seen[3]);
}

// Both what the orders are by their prints, and what the parties saw, which knows nothing of
// prints.
TEST(Reduction, RunsTheSameOrdersInFewerRuns) {
  static const Small smalls[] = {
      {{"i1 i1 i1", "i2 i2 i2"}, 3},
      {{"i1 i2 i3 i4", "i4 i3 i2 i1"}, 3},
      {{"r1 w1", "r1 w1", "r1 w1"}, 3},
      {{"w1 r2", "w2 r1"}, 3},
      {{"w1 w2 w3 w4", "r4 r3 r2 r1"}, 3},
      {{"r1 r2 r3", "r1 r2 r3", "w2"}, 3},
      {{"l1 u1 l1 u1", "l1 u1", "l1 u1"}, 2},
      {{"l1 l2 u2 u1", "l1 u1 l2 u2"}, 3},
      {{"l1 i1 u1", "i1 l1 u1 i1"}, 3},
      {{"l1 u1 l2 u2 l3 u3", "l3 u3 l2 u2 l1 u1"}, 2},
      {{"i1 s1 i2", "p1 i2 i1"}, 3},
      {{"s1 p2 i1", "p1 s2 i1"}, 3},
      {{"s1 c1 s1", "q1 p1 q1"}, 3},
      {{"s1", "s1", "p1 i1 r1"}, 2},
      {{"v1 v1 i1", "t1 i1 t1 i1"}, 3},
      {{"v1", "t1 i1 v1", "t1 i1 v1"}, 2},
      {{"i1 w1", "i2 w1", "i3 w1", "r1 r1"}, 2},
      {{"i1 i2 i3 i4 i1 i2 i3 i4", "i1 r1"}, 2},
      {{"l1 w1 u1 l2 w2 u2", "l2 r2 u2 l1 r1 u1", "r1 r2"}, 2},
      {{"i1 i1 i1 i1 i1 i1", "i2 i2 i2 i2 i2 i2", "i3 i3 i3 i3 i3 i3"}, 2},
      {{"r1 i2 l1 u1 s1", "w1 i3 l1 u1 p1", "r1 i4 l2 u2"}, 2},
  };
  uint64_t runs[2] = {};
  for (const Small &small : smalls) {
    for (unsigned preemptions = 0; preemptions <= small.Preemptions; ++preemptions) {
      ExploreOptions options;
      options.Preemptions = preemptions;
      ExploreResult reduced = ModelExplore(options, [&] { PlaySmall(small); });
      options.Reduce = false;
      ExploreResult all = ModelExplore(options, [&] { PlaySmall(small); });
      EXPECT_TRUE(reduced.Exhausted && all.Exhausted) << all.Failure.Text;
      EXPECT_EQ(reduced.Orders, all.Orders) << small.Parties[0] << " " << preemptions;
      EXPECT_TRUE(std::equal(reduced.Outcomes.begin(), reduced.Outcomes.end(), all.Outcomes.begin(),
                             all.Outcomes.end(),
                             [](auto &one, auto &other) { return one.first == other.first; }));
      EXPECT_GE(reduced.Runs, reduced.Orders.size());
      runs[0] += reduced.Runs;
      runs[1] += all.Runs;
    }
  }
  // Most steps here meet another party's; where few do, as in a driver, it is a tenth and less.
  EXPECT_LE(runs[0] * 3, runs[1]);
}
