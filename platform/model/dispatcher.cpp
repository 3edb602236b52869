#include "platform/model/dispatcher.h"

#include <cstdio>

#include "platform/model/causality.h"
#include "platform/model/clock.h"
#include "platform/model/executor.h"
#include "platform/model/faults.h"
#include "platform/model/report.h"
#include "platform/model/scheduler.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static constexpr ULONG MostWaitObjects = 64;
// DISPATCHER_HEADER.Reserved of an initialised object.
static constexpr UCHAR HeaderMark[3] = {0xD1, 0x5B, 0xA7};

void WaitHeaderInitialize(DISPATCHER_HEADER *Header, WaitType Type, LONG State) {
  Header->Type = Type;
  __builtin_memcpy(Header->Reserved, HeaderMark, sizeof HeaderMark);
  Header->SignalState = State;
  InitializeListHead(&Header->WaitListHead);
  CausalForget(Header);
}

static void CheckHeader(const DISPATCHER_HEADER *header, bool event, bool semaphore,
                        const char *service) {
  if (!VerifierEnabled) {
    return;
  }
  if (__builtin_memcmp(header->Reserved, HeaderMark, sizeof HeaderMark) != 0) {
    VerifierStop("dispatcher.uninitialized", header, "%s: no dispatcher object at %p", service,
                 static_cast<const void *>(header));
  }
  bool isEvent = header->Type == WaitNotification || header->Type == WaitSynchronization;
  if ((event && !isEvent) || (semaphore && header->Type != WaitSemaphore)) {
    VerifierStop("dispatcher.wrong-type", header, "%s: %s", service, WaitText(header).c_str());
  }
}

std::string WaitText(const DISPATCHER_HEADER *Header) {
  const char *kind = "object";
  switch (Header->Type) {
  case WaitNotification:
    kind = "notification event";
    break;
  case WaitSynchronization:
    kind = "synchronization event";
    break;
  case WaitSemaphore:
    kind = "semaphore";
    break;
  case WaitThread:
    kind = "thread";
    break;
  }
  if (Header->Type == WaitThread) {
    return std::string("thread \"") + reinterpret_cast<const _KTHREAD *>(Header)->Name + '"';
  }
  std::string name = ReportNameOf(Header, "object");
  char text[64];
  snprintf(text, sizeof text, "%s %p", kind, static_cast<const void *>(Header));
  return name.empty() ? text : std::string(kind) + ' ' + name;
}

// --- where is waited -----------------------------------------------------------------------------

static constexpr unsigned LineShift = 6;
static constexpr size_t Lines = 32768;

// Waits by the memory line of their object, several lines to a count. An abandoned run leaves its
// own behind: a count says where to look, no more.
static uint32_t waitsAt[Lines];  // guarded by DispatcherMutex

static uint32_t *WaitsAt(uintptr_t line) {
  return &waitsAt[line % Lines];
}

static void CountWait(const WaitBlock &block, uint32_t difference) {
  *WaitsAt(reinterpret_cast<uintptr_t>(block.Object) >> LineShift) += difference;
}

static bool MayBeWithin(const void *low, size_t bytes) {
  uintptr_t first = reinterpret_cast<uintptr_t>(low) >> LineShift;
  uintptr_t last = (reinterpret_cast<uintptr_t>(low) + bytes) >> LineShift;
  Guard guard(DispatcherMutex);
  for (uintptr_t line = first; line <= last; ++line) {
    if (*WaitsAt(line) > 0) {
      return true;
    }
  }
  return false;
}

bool WaitsWithin(const void *Low, size_t Bytes) {
  return MayBeWithin(Low, Bytes) && ThreadsWaitWithin(Low, Bytes);
}

// --- waiting -----------------------------------------------------------------------------------

static void Consume(DISPATCHER_HEADER *header) {
  if (header->Type == WaitSynchronization) {
    header->SignalState = 0;
  } else if (header->Type == WaitSemaphore) {
    --header->SignalState;
  }
}

static bool AllSignalled(const WaitBlock *blocks, ULONG count) {
  for (ULONG i = 0; i < count; ++i) {
    if (blocks[i].Object->SignalState <= 0) {
      return false;
    }
  }
  return true;
}

// Satisfies a wait at once when its objects allow it.
static bool TrySatisfy(const WaitBlock *blocks, ULONG count, bool all, NTSTATUS *status) {
  if (all) {
    if (!AllSignalled(blocks, count)) {
      return false;
    }
    for (ULONG i = 0; i < count; ++i) {
      Consume(blocks[i].Object);
    }
    *status = STATUS_WAIT_0;
    return true;
  }
  for (ULONG i = 0; i < count; ++i) {
    if (blocks[i].Object->SignalState > 0) {
      Consume(blocks[i].Object);
      *status = static_cast<NTSTATUS>(i);
      return true;
    }
  }
  return false;
}

// Takes a blocked thread off every object it waits for: from here on the objects may go.
static void Release(PKTHREAD thread, NTSTATUS status) {
  for (ULONG i = 0; i < thread->BlockCount; ++i) {
    RemoveEntryList(&thread->Blocks[i].Link);
    CountWait(thread->Blocks[i], ~0u);
  }
  thread->WaitStatus = status;
  if (thread->Due != NoDeadline) {
    thread->Due = NoDeadline;
    --TimedWaiters;
  }
  SchedulerWake(thread);
}

void WaitSignalled(DISPATCHER_HEADER *Header) {
  PLIST_ENTRY entry = Header->WaitListHead.Flink;
  while (entry != &Header->WaitListHead && Header->SignalState > 0) {
    PKTHREAD thread = CONTAINING_RECORD(entry, WaitBlock, Link)->Thread;
    NTSTATUS status = STATUS_WAIT_0;
    if (thread->WaitForAll) {
      if (!TrySatisfy(thread->Blocks, thread->BlockCount, true, &status)) {
        entry = entry->Flink;
        continue;
      }
    } else {
      status = static_cast<NTSTATUS>(CONTAINING_RECORD(entry, WaitBlock, Link) - thread->Blocks);
      Consume(Header);
    }
    Release(thread, status);
    // The thread may have stood in this list more than once.
    entry = Header->WaitListHead.Flink;
  }
}

void WaitTimedOut(PKTHREAD Thread) {
  Release(Thread, STATUS_TIMEOUT);
}

static int64_t DueTime(const LARGE_INTEGER *timeout) {
  if (!timeout) {
    return NoDeadline;
  }
  return timeout->QuadPart <= 0 ? ClockNow() - timeout->QuadPart : timeout->QuadPart;
}

static NTSTATUS WaitHere(PKTHREAD self, WaitBlock *blocks, ULONG count, bool all,
                         const LARGE_INTEGER *timeout) {
  NTSTATUS status;
  if (TrySatisfy(blocks, count, all, &status)) {
    return status;
  }
  int64_t due = DueTime(timeout);
  if (due <= ClockNow()) {
    return STATUS_TIMEOUT;
  }
  for (ULONG i = 0; i < count; ++i) {
    blocks[i].Thread = self;
    InsertTailList(&blocks[i].Object->WaitListHead, &blocks[i].Link);
    CountWait(blocks[i], 1);
  }
  self->Blocks = blocks;
  self->BlockCount = count;
  self->WaitForAll = all;
  self->Due = due;
  if (due != NoDeadline) {
    ++TimedWaiters;
  }
  self->State = ThreadState::Waiting;
  SchedulerBlock(self);
  self->BlockCount = 0;
  return self->WaitStatus;
}

static void CheckWait(ULONG count, PVOID objects[], const LARGE_INTEGER *timeout,
                      const char *service) {
  if (!VerifierEnabled) {
    return;
  }
  if (!timeout || timeout->QuadPart != 0) {
    VerifierRequireNoLocks(service, objects[0]);
    VerifierRequireIrql(APC_LEVEL, service);
  } else {
    VerifierRequireIrql(DISPATCH_LEVEL, service);
  }
  for (ULONG i = 0; i < count; ++i) {
    CheckHeader(static_cast<DISPATCHER_HEADER *>(objects[i]), false, false, service);
  }
}

static NTSTATUS Wait(ULONG count, PVOID objects[], bool all, const LARGE_INTEGER *timeout,
                     const char *service) {
  SwitchPoint(SwitchReason::Wait, objects[0]);
  CheckWait(count, objects, timeout, service);
  WaitBlock blocks[MostWaitObjects];
  for (ULONG i = 0; i < count; ++i) {
    blocks[i].Object = static_cast<DISPATCHER_HEADER *>(objects[i]);
    if (i > 0) {
      CausalTouch(objects[i], Access::Write);  // the first one at the switch point
    }
  }
  HistoryNote("wait", objects[0], count);
  SyncRelease(&SettleOrder);
  NTSTATUS status;
  {
    Guard guard(DispatcherMutex);
    status = WaitHere(ThreadSelf(), blocks, count, all, timeout);
  }
  HistoryNote("wait over", objects[0], static_cast<ULONG>(status));
  if (status == STATUS_TIMEOUT) {
    CausalJoinAll();
    return status;
  }
  for (ULONG i = 0; i < count; ++i) {
    if (all || static_cast<ULONG>(status) == i) {
      CausalTouch(objects[i], Access::Write);
      SyncAcquire(objects[i]);
    }
  }
  return status;
}

// An alert would end the wait before its object is signalled, and no driver here is ready for that.
static void RequireNotAlertable(BOOLEAN alertable, const char *service) {
  if (alertable && VerifierOn()) {
    VerifierStop("wait.bad-arguments", nullptr, "%s: an alertable wait may end too early", service);
  }
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout) {
  RequireNotAlertable(Alertable, "KeWaitForSingleObject");
  return Wait(1, &Object, false, Timeout, "KeWaitForSingleObject");
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON,
                                  KPROCESSOR_MODE, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray) {
  RequireNotAlertable(Alertable, "KeWaitForMultipleObjects");
  if (Count == 0 || Count > MostWaitObjects || (Count > THREAD_WAIT_OBJECTS && !WaitBlockArray)) {
    VerifierStop("wait.bad-arguments", nullptr,
                 "KeWaitForMultipleObjects: %u objects %s wait blocks", Count,
                 WaitBlockArray ? "with" : "without");
  }
  if (FaultHere(FaultWait)) {
    return STATUS_UNSUCCESSFUL;
  }
  return Wait(Count, Object, WaitType == WaitAll, Timeout, "KeWaitForMultipleObjects");
}

// --- events and semaphores ---------------------------------------------------------------------

void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
  WaitHeaderInitialize(&Event->Header,
                       Type == NotificationEvent ? WaitNotification : WaitSynchronization,
                       State ? 1 : 0);
}

// Who sets Wait comes back raised, with the dispatcher's lock, and has to wait at once.
static void RequireNoPromise(const void *object, BOOLEAN wait, const char *service) {
  if (wait && VerifierOn()) {
    VerifierStop("wait.bad-arguments", object, "%s with Wait set", service);
  }
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN Wait) {
  RequireNoPromise(Event, Wait, "KeSetEvent");
  SwitchPoint(SwitchReason::Signal, Event);
  CheckHeader(&Event->Header, true, false, "KeSetEvent");
  HistoryNote("set event", Event);
  SyncRelease(Event);
  LONG before;
  {
    Guard guard(DispatcherMutex);
    before = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    WaitSignalled(&Event->Header);
  }
  // A waiter may have freed the event by now.
  SwitchPoint(SwitchReason::Signalled, Event);
  return before;
}

void KeClearEvent(PRKEVENT Event) {
  SwitchPoint(SwitchReason::Signal, Event);
  CheckHeader(&Event->Header, true, false, "KeClearEvent");
  {
    Guard guard(DispatcherMutex);
    Event->Header.SignalState = 0;
  }
  SwitchPoint(SwitchReason::Signalled, Event);
}

LONG KeReadStateEvent(PRKEVENT Event) {
  SwitchPoint(SwitchReason::Read, Event);
  CheckHeader(&Event->Header, true, false, "KeReadStateEvent");
  LONG state;
  {
    Guard guard(DispatcherMutex);
    state = Event->Header.SignalState;
  }
  SyncAcquire(Event);
  return state;
}

void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
  if (Count < 0 || Limit <= 0 || Count > Limit) {
    VerifierStop("semaphore.bad-arguments", Semaphore, "count %d, limit %d", Count, Limit);
  }
  WaitHeaderInitialize(&Semaphore->Header, WaitSemaphore, Count);
  Semaphore->Limit = Limit;
}

LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY, LONG Adjustment, BOOLEAN Wait) {
  RequireNoPromise(Semaphore, Wait, "KeReleaseSemaphore");
  SwitchPoint(SwitchReason::Signal, Semaphore);
  CheckHeader(&Semaphore->Header, false, true, "KeReleaseSemaphore");
  if (Adjustment <= 0) {
    VerifierStop("semaphore.bad-arguments", Semaphore, "released %d times", Adjustment);
  }
  HistoryNote("release semaphore", Semaphore, static_cast<ULONG>(Adjustment));
  SyncRelease(Semaphore);
  LONG before;
  {
    Guard guard(DispatcherMutex);
    before = Semaphore->Header.SignalState;
    if (Adjustment > Semaphore->Limit - before) {
      VerifierStop("semaphore.limit", Semaphore, "%d released above a count of %d, limit %d",
                   Adjustment, before, Semaphore->Limit);
    }
    Semaphore->Header.SignalState = before + Adjustment;
    WaitSignalled(&Semaphore->Header);
  }
  // A waiter may have freed the semaphore by now.
  SwitchPoint(SwitchReason::Signalled, Semaphore);
  return before;
}
