// Fibers: contexts on pooled, guarded stacks, switched in nanoseconds.
#pragma once

#include <cstddef>

struct FiberStack;

struct Fiber {
  void *Context = nullptr;  // where it stands; null while it runs
  FiberStack *Stack = nullptr;
  void (*Entry)() = nullptr;  // does not return
  const void *Low = nullptr;  // stack bounds, and what the sanitizers keep for each fiber
  size_t Bytes = 0;
  void *AsanFake = nullptr;
  void *Tsan = nullptr;
};

constexpr size_t FiberBytes = 256 * 1024;
constexpr size_t FiberMainBytes = 1024 * 1024;

// Makes the caller's own stack a fiber, to be come back to.
void FiberAdopt(Fiber *Host);
// Gives a fiber a stack of FiberBytes or FiberMainBytes; it will start in Entry.
void FiberPrepare(Fiber *New, size_t Bytes, void (*Entry)());

// Goes on with To; returns when somebody switches back to From.
void FiberSwitch(Fiber *From, Fiber *To);
// Goes on with To and never comes back. From's record may be gone by then; its stack is reused.
[[noreturn]] void FiberLeave(Fiber *From, Fiber *To);
// As FiberLeave, but From's stack is left as it is until FiberAbandon.
[[noreturn]] void FiberEscape(Fiber *To);

// Takes back the stack of a fiber that will not run again but has not ended. What its frames point
// to does not count as leaked.
void FiberAbandon(Fiber *Dead);
