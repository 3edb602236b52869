// Who runs: the ready queue, blocking and waking, and the end of everything when nobody can run.
#pragma once

#include <cstdint>
#include <string>

#include "platform/kernel.h"
#include "platform/model/guard.h"
#include "platform/model/thread_object.h"

// Guards wait lists, signal states, thread states and the virtual clock.
extern ModelMutex DispatcherMutex;

// What a thread did before it blocked or ended happened before ThreadSettle returned elsewhere: a
// name for SyncRelease and SyncAcquire.
extern const char SettleOrder;

void SchedulerBoot(bool Threads, uint64_t MostSteps);
void SchedulerShutdown();

// Runs Body as the run's first thread; false when a stop ended it.
bool SchedulerRun(const std::function<void()> &Body);
// Leaves the run from wherever it is (fiber executor).
[[noreturn]] void SchedulerAbandon();

// Under DispatcherMutex. Block returns once Wake was called for the thread, whose State the caller
// has set to Waiting or Settling; Wake makes a blocked thread able to run.
void SchedulerBlock(PKTHREAD Self);
void SchedulerWake(PKTHREAD Thread);

// Fibers: waits until the lock is given back; tells those who wait that it was.
void SchedulerAwaitLock(PKTHREAD Self, PKSPIN_LOCK Lock);
extern unsigned LockWaiters;
void SchedulerLockFree(PKSPIN_LOCK Lock);

// Every thread that has not ended, linked by AllLink; guarded by DispatcherMutex.
extern LIST_ENTRY ThreadList;

// Threads that have not ended, the caller and the run's first thread included.
unsigned ThreadsLive();
// One line a live thread: what it waits for and which locks it holds.
std::string ThreadsText();
// Whether some thread waits for an object or lock in the range.
bool ThreadsWaitWithin(const void *Low, size_t Bytes);
uint64_t SchedulerSwitches();
uint64_t SchedulerSteps();

// The choice of who goes on by priority, as ScheduleAtPoint (OrSelf) and ScheduleAtBlock count.
unsigned SchedulerHighest(bool OrSelf);

// Lets all other threads come to their end, moving the clock for those that only wait for it.
void ThreadsFinish();
