#include "platform/model/clock.h"

#include <time.h>

#include "platform/model/dispatcher.h"
#include "platform/model/executor.h"
#include "platform/model/scheduler.h"

// 1 January 2024, counted from 1601.
static constexpr int64_t VirtualStart = 133'485'408'000'000'000;
static constexpr int64_t UnixEpoch = 116'444'736'000'000'000;
static constexpr int64_t TicksPerSecond = 10'000'000;

bool ClockReal;
unsigned TimedWaiters;

static int64_t virtualNow;
static int64_t advanced;  // what ClockAdvance added to the real clock

void ClockBoot(bool Real) {
  ClockReal = Real;
  virtualNow = VirtualStart;
  advanced = 0;
  TimedWaiters = 0;
}

int64_t ClockNow() {
  if (!ClockReal) {
    return __atomic_load_n(&virtualNow, __ATOMIC_RELAXED);
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return UnixEpoch + now.tv_sec * TicksPerSecond + now.tv_nsec / 100 +
         __atomic_load_n(&advanced, __ATOMIC_RELAXED);
}

static PKTHREAD NextDue() {
  PKTHREAD next = nullptr;
  if (TimedWaiters == 0) {
    return nullptr;
  }
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    PKTHREAD thread = CONTAINING_RECORD(entry, _KTHREAD, AllLink);
    if (thread->Due != NoDeadline && (!next || thread->Due < next->Due)) {
      next = thread;
    }
  }
  return next;
}

int64_t ClockNextDeadline() {
  PKTHREAD next = NextDue();
  return next ? next->Due : NoDeadline;
}

void ClockExpire() {
  if (TimedWaiters == 0) {
    return;
  }
  int64_t now = ClockNow();
  for (PKTHREAD next = NextDue(); next && next->Due <= now; next = NextDue()) {
    WaitTimedOut(next);
  }
}

void ClockToNextDeadline() {
  int64_t due = ClockNextDeadline();
  if (!ClockReal) {
    if (due > virtualNow) {
      __atomic_store_n(&virtualNow, due, __ATOMIC_RELAXED);
    }
  } else if (int64_t left = due - ClockNow(); left > 0) {
    timespec pause = {left / TicksPerSecond, left % TicksPerSecond * 100};
    nanosleep(&pause, nullptr);
  }
  ClockExpire();
}

void ClockAdvance(int64_t Ticks) {
  Guard guard(DispatcherMutex);
  int64_t *clock = ClockReal ? &advanced : &virtualNow;
  __atomic_store_n(clock, *clock + Ticks, __ATOMIC_RELAXED);
  ClockExpire();
}

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
  CurrentTime->QuadPart = ClockNow();
}
