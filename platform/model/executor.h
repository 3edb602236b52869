// Model threads and what lets them run: fibers on one OS thread, or OS threads.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/kernel.h"
#include "platform/model/run.h"

// A point at which another thread may go on. Object is what the point is about (a lock, a packet,
// a counter), for the report. Costs one predictable branch when no schedule is being explored.
//
// Before what a service does, or, by the second name of a pair, right after it: there the code
// stands that uses once too often what it has just given up.
enum class SwitchReason : uint8_t {
  Lock,
  Unlocked,
  Interlock,
  Interlocked,
  Read,
  Write,
  Written,
  Exchange,  // of a packet's cancel routine
  Exchanged,
  Wait,
  Signal,
  Signalled,
  Dereference,
  Dereferenced,
  Call,
  Complete,
  Allocate
};
constexpr unsigned SwitchReasons = static_cast<unsigned>(SwitchReason::Allocate) + 1;
void SwitchPoint(SwitchReason Reason, const volatile void *Object);

// Starts a thread of the test's or the host's own (a client, ZK, the Plug and Play manager), at
// PASSIVE_LEVEL. Join waits for its end and releases it; every started thread is joined once.
PKTHREAD ThreadStart(const char *Name, std::function<void()> Body);
void ThreadJoin(PKTHREAD Thread);
const char *ThreadName(PKTHREAD Thread);

// Lets every other thread run until none of them can go on without the caller or the clock.
void ThreadSettle();

// Blocks until nothing else can ever go on, neither a thread that settles nor one that waits with a
// time-out: where the run would be stopped for a deadlock, the caller goes on instead and may
// resolve it.
void ThreadAwaitDeadlock();

// Fibers only, for an event loop that runs as a model thread: lets each thread that can run now run
// once. Returns whether any is ready to run again (or still).
bool ThreadYieldToReady();
bool ThreadAnyReady();

// Waiting threads whose time-out lies ahead: the earliest due time in 100 ns units of system time,
// or 0 when there is none. For an event loop under the real clock.
int64_t ThreadNextDeadline();

ExecutorKind ExecutorInUse();

// Moves the virtual clock on by Ticks (100 ns units) and wakes what came due.
void ClockAdvance(int64_t Ticks);
