// Cancelling what is outstanding, from outside and at any moment, and what must come of it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kernel.h"

struct PacketShadow;

// A cancelled packet must be completed within so many seconds of the clock.
constexpr int64_t CancelSeconds = 300;

// Cancels every request that a user of the system has outstanding, one after the other; opens,
// cleanups, closes, Plug and Play and power requests are none. Returns how many there were.
// Started as a thread and explored with one preemption it cancels at every switch point:
//
//   PKTHREAD canceller = ThreadStart("canceller", [] { CancelOutstanding(); });
//   ExploreWindow(true); ... ExploreWindow(false);
//   ThreadJoin(canceller);
size_t CancelOutstanding();

// Stops with rule "cancel.not-completed" unless every cancelled request has come to its end; after
// ThreadSettle nobody is about to end it.
void CancelledMustHaveEnded();

// Parts of the packets' flow.
void PacketNoteCancel(PacketShadow *Shadow);
void PacketCheckCancelTime(PacketShadow *Shadow);
