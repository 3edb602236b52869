// How much stack drivers use in one chain of calls. A kernel thread has 24 KiB of it on 64-bit
// Windows, of which all drivers in a chain together should leave half to the system.
//
//   stack.too-deep   they do not
//
// Counted is what lies between the call of a driver's routine and that driver's own call of the
// model: of a dispatch routine that calls down, of the completion routine inside of that call, and
// so on, all together. What the model and users' code need in between is not counted, except for
// the frames of the service itself and, where it sends a request of its own accord, those to there.
// It is looked at in calls down, in completions and in all services that have a highest IRQL; what
// is deeper only between two of these is not seen. Frames are those of this build, so nothing is
// counted under sanitizers that make them larger.
#pragma once

#include <cstddef>

#include "platform/model/sanitizers.h"

#if defined(MODEL_ASAN) || defined(MODEL_TSAN)
constexpr bool StackMeasured = false;
#else
constexpr bool StackMeasured = true;
#endif

constexpr size_t MostDriverStack = 12 * 1024;

// Of a thread.
struct StackUse {
  const char *Top;  // where the driver's routine that runs was called; null: the model runs
  size_t Above;     // what drivers use above that
};

// The caller is about to call a driver's routine, or has been called by one and may call others.
// What they return is restored after it.
StackUse StackEnterDriver();
StackUse StackLeaveDriver();
void StackRestore(const StackUse &Before);

// Stops the run when drivers use too much at the place of the call.
void StackRequire();

struct InModel {
  InModel() : Before(StackLeaveDriver()) {
  }
  ~InModel() {
    StackRestore(Before);
  }
  InModel(const InModel &) = delete;
  InModel &operator=(const InModel &) = delete;

  StackUse Before;
};
