#include "platform/model/cancel_sweep.h"

#include "platform/model/clock.h"
#include "platform/model/packets.h"
#include "platform/model/verifier.h"

static constexpr int64_t Second = 10'000'000;

static uint64_t sweeps;

static bool Cancellable(PacketShadow *Shadow) {
  PIRP irp = PacketOf(Shadow);
  if (!Shadow->Finish || Shadow->FreeWhenLet ||
      (Shadow->State != PacketState::Held && Shadow->State != PacketState::Completing)) {
    return false;
  }
  switch (PacketLocation(irp, irp->StackCount)->MajorFunction) {
  case IRP_MJ_CREATE:
  case IRP_MJ_CLEANUP:
  case IRP_MJ_CLOSE:
  case IRP_MJ_PNP:
  case IRP_MJ_POWER:
    return false;
  default:
    return true;
  }
}

static PIRP NextToCancel(uint64_t Round) {
  PacketsListed();
  Guard guard(RequestMutex);
  for (PacketShadow *shadow = PacketNext(nullptr); shadow; shadow = PacketNext(shadow)) {
    if (shadow->Sweep < Round && Cancellable(shadow)) {
      shadow->Sweep = Round;
      PacketHold(PacketOf(shadow));
      return PacketOf(shadow);
    }
  }
  return nullptr;
}

size_t CancelOutstanding() {
  size_t count = 0;
  uint64_t round = __atomic_add_fetch(&sweeps, 1, __ATOMIC_RELAXED);
  while (PIRP irp = NextToCancel(round)) {
    IoCancelIrp(irp);
    PacketLet(irp);
    ++count;
  }
  return count;
}

void PacketNoteCancel(PacketShadow *Shadow) {
  Guard guard(RequestMutex);
  if (Shadow->Cancelled == 0) {
    Shadow->Cancelled = ClockNow();
  }
}

void PacketCheckCancelTime(PacketShadow *Shadow) {
  int64_t cancelled = Shadow->Cancelled;
  if (cancelled != 0 && Shadow->Finish && VerifierOn() &&
      ClockNow() - cancelled > CancelSeconds * Second) {
    VerifierStop("cancel.not-completed", PacketOf(Shadow),
                 "cancelled, but completed only %lld seconds later",
                 static_cast<long long>((ClockNow() - cancelled) / Second));
  }
}

void PacketsRequireCancelledEnded() {
  for (PacketShadow *shadow = VerifierOn() ? PacketNext(nullptr) : nullptr; shadow;
       shadow = PacketNext(shadow)) {
    if (shadow->Cancelled != 0 && shadow->Finish && shadow->State != PacketState::Finished &&
        shadow->State != PacketState::Freed && !shadow->FreeWhenLet) {
      VerifierStop("cancel.not-completed", PacketOf(shadow),
                   "cancelled, but still at location %d and nobody is about to complete it",
                   shadow->Location);
    }
  }
}

void CancelledMustHaveEnded() {
  Guard guard(RequestMutex);
  PacketsRequireCancelledEnded();
}
