// The verifier: what a driver must not do, and the evidence when it did.
//
// Rules of the model's core (those of packets, MDLs, devices, files, Plug and Play and power stand
// with their areas):
//
//   irql.too-high             a service called above the IRQL that it allows
//   irql.too-low              a DPC-level lock routine below DISPATCH_LEVEL
//   irql.wrong-raise          the model was asked to raise to a lower level
//   irql.wrong-restore        a lock given back with another IRQL than its acquisition returned
//   irql.dropped-under-lock   the IRQL would fall below DISPATCH_LEVEL with a lock still held
//   irql.not-restored         a run ended above PASSIVE_LEVEL
//   lock.uninitialized        not a lock: never initialised, freed, or a copy of one
//   lock.reinitialized        initialised while it is held
//   lock.recursion            taken by the thread that holds it
//   lock.release-unheld       given back while it is free
//   lock.release-by-other     given back by a thread that does not hold it
//   lock.wrong-release        taken one way (raising, at DPC level), given back the other
//   lock.order                taken against the declared order
//   lock.order-cycle          taken against an order that the run has shown
//   lock.held-across          a call down, a completion, a wait, a thread's end with a lock held
//   lock.freed-held           memory freed with a held lock in it
//   lock.held-at-end          a run ended with a lock held
//   lock.too-many             more locks held than the model records
//   deadlock                  nobody can run and no time-out is pending
//   livelock                  a run under a schedule passes switch points without an end
//   dispatcher.uninitialized  not an event, semaphore or thread
//   dispatcher.wrong-type     an event where a semaphore belongs, or the like
//   dispatcher.freed-waited   memory freed in which a thread waits
//   wait.bad-arguments        no objects, too many, no room for their wait blocks, or alertable
//   wait.no-thread            a blocking wait outside of a model thread
//   semaphore.limit           released above its limit
//   semaphore.bad-arguments   a count or limit that no semaphore can have
//   thread.not-system         PsTerminateSystemThread on a thread of another's making
//   pool.zero-bytes           nothing allocated
//   pool.no-tag               allocated with tag 0
//   pool.bad-type             a pool that does not exist
//   pool.wrong-tag            freed with another tag than allocated with (0 is accepted)
//   pool.double-free          freed twice
//   pool.foreign-free         what was freed is no block
//   pool.overrun              written before or after a block
//   pool.use-after-free       written after the free
//   object.dead               a deleted object used or released again
//   handle.of-user            a thread's handle made for whichever user's process runs
//   object.over-dereferenced  a reference of the system's dropped
//   object.foreign            not an object
//   handle.bad                not an open handle
//   leak.pool leak.object leak.handle leak.thread   left over at the end of a run
//   fastfail bugcheck         the driver stopped the system itself
//   break                     the debugger break in a run that does not expect it
//   memory.overlap            a copy between overlapping bytes
//   assertion                 an assertion of the driver failed
//   schedule.diverged         a replayed run offered other choices: it depends on something else
//   model.no-thread           the machine ran out of threads
#pragma once

#include <cstdint>
#include <string>

#include "platform/kernel.h"

// Ends the run with a rule's name and a text; see RunReport. Object, when given, selects the
// history shown with it (usually a packet).
[[noreturn]] void VerifierStop(const char *Rule, const void *Object, const char *Format, ...)
    __attribute__((format(printf, 3, 4)));

// Counts something that is legal but frowned upon, e.g. "forward-at-dispatch".
void VerifierWarn(const char *Rule);
uint64_t VerifierWarnings(const char *Rule);

// Whether rule checks are made at all. Bookkeeping that services need goes on without it.
bool VerifierOn();

// Stops with rule "irql.too-high" when the current IRQL is above Highest.
void VerifierRequireIrql(KIRQL Highest, const char *Service);

// Stops with rule "lock.held-across" when the current thread holds a spin lock (the cancel spin
// lock included). Made by calls down, completions and waits.
void VerifierRequireNoLocks(const char *Service, const void *Object);

// Spin locks held by the current thread right now.
unsigned VerifierLocksHeld();

// Declares that of the two locks First is taken before Second; the other order stops the run. The
// order of locks that nothing declares is learned, and a cycle stops the run.
void VerifierDeclareOrder(const PKSPIN_LOCK First, const PKSPIN_LOCK Second);

// Gives an object a name for reports: a literal. What lies inside of a named range and has no name
// of its own is shown by its offset. The name goes when the memory is freed, and with the run.
void VerifierName(const volatile void *Object, size_t Bytes, const char *Name);

// Appends to the ring of the last events. What is a literal; Object is what it happened to.
void HistoryNote(const char *What, const volatile void *Object, uint64_t A = 0, uint64_t B = 0);
// The last events concerning Object (all when null), oldest first, one a line, at most Most.
std::string HistoryText(const volatile void *Object, unsigned Most);

// A bug check: stops with rule "bugcheck".
[[noreturn]] void KeBugCheckModel(const char *Why);

// The debugger break is counted and returns, in a run that allows it.
uint64_t DebuggerBreaks();
