#include "platform/model/scheduler.h"

#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/model/causality.h"
#include "platform/model/clock.h"
#include "platform/model/dispatcher.h"
#include "platform/model/executor.h"
#include "platform/model/locks.h"
#include "platform/model/objects.h"
#include "platform/model/objects_internal.h"
#include "platform/model/paged_pool.h"
#include "platform/model/report.h"
#include "platform/model/schedule.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

constinit thread_local PKTHREAD CurrentThread;
_KTHREAD HostThread;
bool ThreadsInUse;
ModelMutex DispatcherMutex;
LIST_ENTRY ThreadList = {&ThreadList, &ThreadList};
unsigned LockWaiters;
const char SettleOrder = 0;

static LIST_ENTRY readyQueue;
static unsigned readyCount;
static LIST_ENTRY settlers;
static LIST_ENTRY rescuers;  // see ThreadAwaitDeadlock
static unsigned live;
static unsigned running;  // thread executor: threads that are not blocked
static unsigned threadsMade;
static uint64_t switches;
static uint64_t steps;  // switch points passed
static uint64_t mostSteps;
static Fiber host;
static const std::function<void()> *firstBody;
static bool finished;
static std::vector<pthread_t> osThreads;  // thread executor, to be joined at the end

void SchedulerBoot(bool Threads, uint64_t MostSteps) {
  ThreadsInUse = Threads;
  InitializeListHead(&ThreadList);
  InitializeListHead(&readyQueue);
  InitializeListHead(&settlers);
  InitializeListHead(&rescuers);
  readyCount = live = running = LockWaiters = 0;
  switches = steps = threadsMade = 0;
  mostSteps = MostSteps;
  HostThread.Irql = PASSIVE_LEVEL;
  HostThread.HeldCount = 0;
  strcpy(HostThread.Name, "host");
}

// --- the ready queue ---------------------------------------------------------------------------

static void MakeReady(PKTHREAD thread) {
  thread->State = ThreadState::Ready;
  InsertTailList(&readyQueue, &thread->QueueLink);
  ++readyCount;
}

static PKTHREAD TakeReady(unsigned place) {
  PLIST_ENTRY entry = readyQueue.Flink;
  while (place-- > 0) {
    entry = entry->Flink;
  }
  RemoveEntryList(entry);
  --readyCount;
  return CONTAINING_RECORD(entry, _KTHREAD, QueueLink);
}

static std::string CircleText();

[[noreturn]] static void StopDeadlock() {
  VerifierStop("deadlock", nullptr, "nobody can run\n%s%s", ThreadsText().c_str(),
               CircleText().c_str());
}

unsigned SchedulerHighest(bool OrSelf) {
  unsigned place = 0;
  unsigned best = 0;
  uint64_t highest = OrSelf ? CurrentThread->Priority : 0;
  for (PLIST_ENTRY entry = readyQueue.Flink; entry != &readyQueue; entry = entry->Flink) {
    ++place;
    PKTHREAD thread = CONTAINING_RECORD(entry, _KTHREAD, QueueLink);
    if (thread->Priority > highest || best + OrSelf == 0) {
      highest = thread->Priority;
      best = place;
    }
  }
  return OrSelf ? best : best - 1;
}

static PKTHREAD FirstOf(LIST_ENTRY *list) {
  return IsListEmpty(list) ? nullptr : CONTAINING_RECORD(RemoveHeadList(list), _KTHREAD, QueueLink);
}

// Nothing can ever go on, unless somebody waits for just that.
static PKTHREAD RescuerOrStop() {
  PKTHREAD rescuer = FirstOf(&rescuers);
  if (!rescuer) {
    PacketsRequireCancelledEnded();
    StopDeadlock();
  }
  return rescuer;
}

// Who goes on when the current fiber cannot; may be that fiber itself.
static PKTHREAD ChooseNext() {
  for (;;) {
    if (ClockReal) {
      ClockExpire();
    }
    if (readyCount > 0) {
      return TakeReady(ScheduleAtBlock(readyCount));
    }
    if (PKTHREAD settler = FirstOf(&settlers)) {
      return settler;
    }
    if (TimedWaiters == 0) {
      return RescuerOrStop();
    }
    ClockToNextDeadline();
  }
}

static void SwitchTo(PKTHREAD self, PKTHREAD next) {
  next->State = ThreadState::Running;
  CausalPoint(next, ScheduleTakeLast(), true);
  if (next != self) {
    if (ReportOn) {
      ReportBlocked(self, next);
    }
    ++switches;
    CurrentThread = next;
    if (next->Irql >= DISPATCH_LEVEL) {
      PagedRaised();
    }
    FiberSwitch(&self->Context, &next->Context);
  }
}

// --- blocking and waking -----------------------------------------------------------------------

// Thread executor: the last thread that ran has blocked or ended.
static void Idle() {
  if (PKTHREAD settler = FirstOf(&settlers)) {
    SchedulerWake(settler);
  } else if (TimedWaiters == 0) {
    SchedulerWake(RescuerOrStop());
  } else if (!ClockReal) {
    ClockToNextDeadline();
  }
}

static void OsBlock(PKTHREAD self) {
  if (--running == 0) {
    Idle();
  }
  std::unique_lock<std::mutex> lock(DispatcherMutex.Mutex, std::adopt_lock);
  while (self->State != ThreadState::Running) {
    if (!ClockReal || self->Due == NoDeadline) {
      self->Runner->Wake.wait(lock);
      continue;
    }
    int64_t left = self->Due - ClockNow();
    if (left > 0) {
      self->Runner->Wake.wait_until(
          lock, std::chrono::system_clock::now() + std::chrono::nanoseconds(left * 100));
    }
    ClockExpire();
  }
  lock.release();
}

void SchedulerBlock(PKTHREAD Self) {
  if (!CurrentThread) {
    VerifierStop("wait.no-thread", nullptr, "only a model thread can wait");
  }
  if (ThreadsInUse) {
    OsBlock(Self);
  } else {
    CausalBlock(Self, Self->WantedLock != nullptr);
    SwitchTo(Self, ChooseNext());
  }
}

void SchedulerWake(PKTHREAD Thread) {
  if (ThreadsInUse) {
    Thread->State = ThreadState::Running;
    ++running;
    Thread->Runner->Wake.notify_one();
  } else {
    MakeReady(Thread);
  }
}

void SchedulerAwaitLock(PKTHREAD Self, PKSPIN_LOCK Lock) {
  CausalFoundTaken(Lock);
  Self->WantedLock = Lock;
  Self->State = ThreadState::Waiting;
  ++LockWaiters;
  SchedulerBlock(Self);
}

void SchedulerLockFree(PKSPIN_LOCK Lock) {
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    PKTHREAD thread = CONTAINING_RECORD(entry, _KTHREAD, AllLink);
    if (thread->WantedLock == Lock) {
      thread->WantedLock = nullptr;
      --LockWaiters;
      MakeReady(thread);
    }
  }
}

// --- switch points -----------------------------------------------------------------------------

// The last steps of a run that does not end: who passed which point, and how often.
static constexpr unsigned SpinsKept = 1024;
static constexpr uint64_t StepsOfATurn = 64;

[[noreturn]] static void StopLivelock() {
  VerifierStop("livelock", nullptr,
               "the run does not end: of its last %u switch points (after %llu)\n%s%s", SpinsKept,
               static_cast<unsigned long long>(steps - SpinsKept), ReportSpins().c_str(),
               ThreadsText().c_str());
}

// In the second half of a run's steps everybody who can run gets his turn.
static void FairStep(PKTHREAD self, SwitchReason reason, const volatile void *object) {
  PreemptionOn = false;
  if (steps + SpinsKept > mostSteps) {
    ReportSpin(self, reason, object);
  }
  if (steps == mostSteps) {
    StopLivelock();
  }
  if (steps % StepsOfATurn == 0 && readyCount > 0) {
    PKTHREAD next = TakeReady(0);
    MakeReady(self);
    SwitchTo(self, next);
  }
}

// What is done to the object behind a point of this kind. Locks tell when they are had, and
// references when it is known whether others are left.
static void CausalReason(SwitchReason reason, const volatile void *object) {
  switch (reason) {
  case SwitchReason::Read:
    CausalTouch(object, Access::Read);
    break;
  case SwitchReason::Interlock:
  case SwitchReason::Write:
  case SwitchReason::Exchange:
  case SwitchReason::Wait:
  case SwitchReason::Signal:
  case SwitchReason::Call:
  case SwitchReason::Complete:
    CausalTouch(object, Access::Write);
    break;
  default:
    break;
  }
}

static void SwitchPointTaken(SwitchReason reason, const volatile void *object) {
  PKTHREAD self = CurrentThread;
  if (!self || (PointsLeftOut >> static_cast<unsigned>(reason) & 1)) {
    return;
  }
  if (++steps > mostSteps / 2) {
    FairStep(self, reason, object);
    return;
  }
  unsigned place = PreemptionOn ? ScheduleAtPoint(readyCount, reason) : 0;
  if (place > 0) {
    PKTHREAD next = TakeReady(place - 1);
    MakeReady(self);
    if (ReportOn) {
      ReportPreempted(self, next, reason, object);
    }
    CausalPreempt(self);
    SwitchTo(self, next);
  } else {
    CausalPoint(self, ScheduleTakeLast(), false);
  }
  if (ReportOn) {
    ReportPoint(reason, object);
  }
  CausalReason(reason, object);
}

void SwitchPoint(SwitchReason Reason, const volatile void *Object) {
  if (__builtin_expect(PointsOn, false)) {
    SwitchPointTaken(Reason, Object);
  }
}

// --- beginning and end of threads --------------------------------------------------------------

static void FiberBody() {
  CurrentThread->Runner->Body();
  ThreadEnd();
}

static void FirstFiberBody() {
  (*firstBody)();
  finished = true;
  FiberLeave(&CurrentThread->Context, &host);
}

static void *OsThreadBody(void *thread) {
  CurrentThread = static_cast<PKTHREAD>(thread);
  if (_setjmp(CurrentThread->Runner->Exit) == 0) {
    CurrentThread->Runner->Body();
    ThreadEnd();
  }
  return nullptr;
}

static void ThreadDelete(void *body) {
  delete static_cast<PKTHREAD>(body)->Runner;
}

static PKTHREAD ThreadMake(const char *name, std::function<void()> body) {
  PKTHREAD thread =
      static_cast<PKTHREAD>(ObjectCreate(ObjectKind::Thread, sizeof(_KTHREAD), ThreadDelete));
  WaitHeaderInitialize(&thread->Header, WaitThread, 0);
  snprintf(thread->Name, sizeof thread->Name, "%s", name);
  thread->Due = NoDeadline;
  thread->Number = __atomic_add_fetch(&threadsMade, 1, __ATOMIC_RELAXED);
  thread->Priority = SchedulePriority(thread->Number);
  thread->Runner = new ThreadRunner{std::move(body), {}, {}};
  return thread;
}

PKTHREAD ThreadCreate(const char *Name, std::function<void()> Body, size_t StackBytes) {
  PKTHREAD thread = ThreadMake(Name, std::move(Body));
  ObfReferenceObject(thread);
  ObjectKeep(thread);
  CausalFork(thread);
  Guard guard(DispatcherMutex);
  InsertTailList(&ThreadList, &thread->AllLink);
  ++live;
  if (!ThreadsInUse) {
    FiberPrepare(&thread->Context, StackBytes, FiberBody);
    MakeReady(thread);
    return thread;
  }
  thread->State = ThreadState::Running;
  ++running;
  return thread;
}

void ThreadLaunch(PKTHREAD Thread) {
  if (!ThreadsInUse) {
    return;
  }
  pthread_t os;
  if (pthread_create(&os, nullptr, OsThreadBody, Thread) != 0) {
    VerifierStop("model.no-thread", Thread, "the machine has no thread for \"%s\"", Thread->Name);
  }
  Guard guard(DispatcherMutex);
  osThreads.push_back(os);
}

void ThreadEnd() {
  PKTHREAD self = CurrentThread;
  HistoryNote("end of the thread", nullptr);
  CausalTouch(&self->Header, Access::Write);
  SyncRelease(&self->Header);
  SyncRelease(&SettleOrder);
  {
    Guard guard(DispatcherMutex);
    self->State = ThreadState::Ended;
    self->Header.SignalState = 1;
    RemoveEntryList(&self->AllLink);
    --live;
    WaitSignalled(&self->Header);
  }
  Fiber context = self->Context;
  jmp_buf exit;
  memcpy(&exit, &self->Runner->Exit, sizeof exit);
  // The object may go with its last reference; nothing below belongs to it.
  CurrentThread = nullptr;
  ObjectLetGo(self);
  if (!ThreadsInUse) {
    PKTHREAD next = ChooseNext();
    next->State = ThreadState::Running;
    if (ReportOn) {
      ReportGoesOn(next);
    }
    ++switches;
    CurrentThread = next;
    if (next->Irql >= DISPATCH_LEVEL) {
      PagedRaised();
    }
    CausalPoint(next, ScheduleTakeLast(), true);
    FiberLeave(&context, &next->Context);
  }
  {
    Guard guard(DispatcherMutex);
    if (--running == 0) {
      Idle();
    }
  }
  longjmp(exit, 1);
}

// --- the run -----------------------------------------------------------------------------------

static void FirstThread() {
  PKTHREAD first = ThreadMake("main", nullptr);
  ObjectHide(first);
  first->State = ThreadState::Running;
  InsertTailList(&ThreadList, &first->AllLink);
  live = running = 1;
  if (!ThreadsInUse) {
    FiberPrepare(&first->Context, FiberMainBytes, FirstFiberBody);
  }
  CurrentThread = first;
}

bool SchedulerRun(const std::function<void()> &Body) {
  firstBody = &Body;
  finished = false;
  FirstThread();
  if (ThreadsInUse) {
    Body();
    finished = true;
    for (pthread_t thread : osThreads) {
      pthread_join(thread, nullptr);
    }
    osThreads.clear();
  } else {
    FiberAdopt(&host);
    FiberSwitch(&host, &CurrentThread->Context);
  }
  CurrentThread = nullptr;
  PreemptionOn = PointsOn = false;
  return finished;
}

void SchedulerAbandon() {
  FiberEscape(&host);
}

void SchedulerShutdown() {
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    FiberAbandon(&CONTAINING_RECORD(entry, _KTHREAD, AllLink)->Context);
  }
  InitializeListHead(&ThreadList);
  LockWaiters = 0;
}

unsigned ThreadsLive() {
  Guard guard(DispatcherMutex);
  return live;
}

uint64_t SchedulerSwitches() {
  return switches;
}

uint64_t SchedulerSteps() {
  return steps;
}

// A thread that waits with a time-out again and again would keep the run alive for ever.
static constexpr unsigned MostLastWaits = 1000;

void ThreadsFinish() {
  for (unsigned n = 0; n < MostLastWaits; ++n) {
    ThreadSettle();
    Guard guard(DispatcherMutex);
    if (live == 1 || TimedWaiters == 0) {
      return;
    }
    ClockToNextDeadline();
  }
}

// --- the public face ---------------------------------------------------------------------------

PKTHREAD ThreadStart(const char *Name, std::function<void()> Body) {
  PKTHREAD thread = ThreadCreate(Name, std::move(Body), FiberBytes);
  ThreadLaunch(thread);
  return thread;
}

void ThreadJoin(PKTHREAD Thread) {
  KeWaitForSingleObject(Thread, Executive, KernelMode, FALSE, nullptr);
  ObjectRelease(Thread);
}

const char *ThreadName(PKTHREAD Thread) {
  return Thread->Name;
}

static void Settle(LIST_ENTRY *among) {
  PKTHREAD self = CurrentThread;
  SyncRelease(&SettleOrder);
  {
    Guard guard(DispatcherMutex);
    self->State = ThreadState::Settling;
    InsertTailList(among, &self->QueueLink);
    SchedulerBlock(self);
  }
  CausalJoinAll();
  SyncAcquire(&SettleOrder);
}

void ThreadSettle() {
  Settle(&settlers);
}

void ThreadAwaitDeadlock() {
  Settle(&rescuers);
}

bool ThreadYieldToReady() {
  ClockExpire();
  if (readyCount > 0) {
    PKTHREAD self = CurrentThread;
    MakeReady(self);
    SwitchTo(self, TakeReady(0));
  }
  return readyCount > 0;
}

bool ThreadAnyReady() {
  ClockExpire();
  return readyCount > 0;
}

int64_t ThreadNextDeadline() {
  Guard guard(DispatcherMutex);
  int64_t due = ClockNextDeadline();
  return due == NoDeadline ? 0 : due;
}

ExecutorKind ExecutorInUse() {
  return ThreadsInUse ? ExecutorKind::Threads : ExecutorKind::Fibers;
}

// --- what a deadlock looks like ----------------------------------------------------------------

static std::string ThreadLine(PKTHREAD thread) {
  std::string line = "  \"";
  line += thread->Name;
  line += '"';
  if (thread->WantedLock) {
    line += " wants " + LockText(thread->WantedLock);
  } else if (thread->State == ThreadState::Waiting) {
    line += thread->WaitForAll ? " waits for all of" : " waits for";
    for (ULONG i = 0; i < thread->BlockCount; ++i) {
      line += (i ? ", " : " ") + WaitText(thread->Blocks[i].Object);
    }
  } else {
    line += thread->State == ThreadState::Settling ? " waits for the others to settle" : " can run";
  }
  for (unsigned i = 0; i < thread->HeldCount; ++i) {
    line += (i ? ", " : "; holds ") + LockText(thread->Held[i].Lock) + " taken at " +
            PlaceText(thread->Held[i].Place);
  }
  return line + '\n';
}

std::string ThreadsText() {
  std::string text;
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    text += ThreadLine(CONTAINING_RECORD(entry, _KTHREAD, AllLink));
  }
  return text;
}

// The thread without which another cannot go on, when there is one such.
static PKTHREAD AwaitedBy(PKTHREAD thread) {
  const void *lock = thread->WantedLock;
  bool wholeWait = thread->State == ThreadState::Waiting && !lock && thread->BlockCount == 1;
  const void *object = wholeWait ? thread->Blocks[0].Object : nullptr;
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    PKTHREAD other = CONTAINING_RECORD(entry, _KTHREAD, AllLink);
    if (object == &other->Header) {
      return other;
    }
    for (unsigned i = 0; lock && i < other->HeldCount; ++i) {
      if (other->Held[i].Lock == lock) {
        return other;
      }
    }
  }
  return nullptr;
}

// Whether threads from First on wait for each other in a circle, and how.
static bool CircleFrom(PKTHREAD first, std::string *text) {
  PKTHREAD from = first;
  for (unsigned hops = 0; hops < live; ++hops) {
    PKTHREAD next = AwaitedBy(from);
    if (!next) {
      return false;
    }
    *text += std::string("  \"") + from->Name + '"';
    *text += from->WantedLock ? " wants " + LockText(from->WantedLock) + ", held by \""
                              : " waits for the end of \"";
    *text += std::string(next->Name) + "\"\n";
    if (next == first) {
      return true;
    }
    from = next;
  }
  return false;
}

static std::string CircleText() {
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    std::string text = "in a circle:\n";
    if (CircleFrom(CONTAINING_RECORD(entry, _KTHREAD, AllLink), &text)) {
      return text;
    }
  }
  return "";
}

bool ThreadsWaitWithin(const void *Low, size_t Bytes) {
  const char *low = static_cast<const char *>(Low);
  Guard guard(DispatcherMutex);
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    PKTHREAD thread = CONTAINING_RECORD(entry, _KTHREAD, AllLink);
    ULONG blocks = thread->State == ThreadState::Waiting ? thread->BlockCount : 0;
    for (ULONG i = 0; i < blocks; ++i) {
      const char *object = reinterpret_cast<const char *>(thread->Blocks[i].Object);
      if (object >= low && object < low + Bytes) {
        return true;
      }
    }
  }
  return false;
}
