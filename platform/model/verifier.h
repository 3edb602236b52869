// The verifier: what a driver must not do, and the evidence when it did.
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

// Appends to the ring of the last events. What is a literal; Object is what it happened to.
void HistoryNote(const char *What, const volatile void *Object, uint64_t A = 0, uint64_t B = 0);
// The last events concerning Object (all when null), oldest first, one a line, at most Most.
std::string HistoryText(const volatile void *Object, unsigned Most);

// A bug check: stops with rule "bugcheck".
[[noreturn]] void KeBugCheckModel(const char *Why);

// The debugger break is counted and returns.
uint64_t DebuggerBreaks();
