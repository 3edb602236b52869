#include "platform/model/stack_depth.h"

#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

static size_t UsedAt(const StackUse &Use, const char *Here) {
  return Use.Above + (Use.Top ? static_cast<size_t>(Use.Top - Here) : 0);
}

static StackUse Change(const char *Top, const char *Here) {
  if (!StackMeasured) {
    return {};
  }
  PKTHREAD self = ThreadSelf();
  StackUse before = self->Stack;
  self->Stack = {Top, UsedAt(before, Here)};
  return before;
}

StackUse StackEnterDriver() {
  auto *here = static_cast<const char *>(__builtin_frame_address(0));
  return Change(here, here);
}

StackUse StackLeaveDriver() {
  StackRequire();
  return Change(nullptr, static_cast<const char *>(__builtin_frame_address(0)));
}

void StackRestore(const StackUse &Before) {
  ThreadSelf()->Stack = Before;
}

void StackRequire() {
  const StackUse &use = ThreadSelf()->Stack;
  size_t used = UsedAt(use, static_cast<const char *>(__builtin_frame_address(0)));
  if (used > MostDriverStack && VerifierOn()) {
    VerifierStop("stack.too-deep", nullptr,
                 "drivers use %zu bytes of stack in one chain of calls; %zu are for them", used,
                 MostDriverStack);
  }
}
