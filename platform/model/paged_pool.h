// Paged pool that cannot be reached at DISPATCH_LEVEL, on request of a run: its pages are closed.
// Who touches one below that level opens its block; whoever raises the level, or goes on at a
// raised level, closes what is open. Fibers only: pages are closed for the whole process.
//
// The verifier's rule here:
//
//   irql.paged-memory  paged pool touched at DISPATCH_LEVEL
#pragma once

#include <cstddef>

#include "platform/model/sanitizers.h"

#if defined(MODEL_TSAN)
constexpr bool PagedForceable = false;  // no fault may be answered behind ThreadSanitizer's back
#else
constexpr bool PagedForceable = true;
#endif

extern bool PagedForced;   // in this run
extern bool PagedAnyOpen;  // some block can be reached

void PagedBoot(bool Forced);

// Room for a header that can always be reached and, right behind it, for a body in pages of its
// own. Give takes what Take returned.
void *PagedTake(size_t HeaderBytes, size_t BodyBytes);
void PagedGive(void *Header);
// Opens the block for the model itself, which may look at it at any level.
void PagedReach(void *Header);

void PagedCloseAll();
// The thread that runs is at DISPATCH_LEVEL from now on.
inline void PagedRaised() {
  if (__builtin_expect(PagedAnyOpen, false)) {
    PagedCloseAll();
  }
}
