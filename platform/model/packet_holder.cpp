// What drivers do to a packet without a service: the boundary's inline routines ask here first.
#include "platform/model/executor.h"
#include "platform/model/packets.h"
#include "platform/model/thread_object.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"

// Stops unless the packet is in a driver's hands, and in those of the driver whose code runs, where
// that is known.
static void RequireHolder(PIRP Irp, const char *Service, const char *Rule) {
  PacketShadow *shadow = PacketRequireLive(Irp, Service);
  PDRIVER_OBJECT acting = ThreadSelf()->Acting;
  Guard guard(RequestMutex);
  if (shadow->State != PacketState::Held && shadow->State != PacketState::Fresh) {
    VerifierStop(Rule, Irp, "%s: the packet is completed", Service);
  }
  if (shadow->State == PacketState::Fresh || shadow->Location > Irp->StackCount) {
    return;
  }
  PDRIVER_OBJECT holder = shadow->Locations[shadow->Location].Driver;
  if (acting && holder && acting != holder) {
    VerifierStop(Rule, Irp, "%s by %s: the packet is with %s", Service, DriverText(acting).c_str(),
                 DriverText(holder).c_str());
  }
}

void KiMarkPendingPoint(PIRP Irp) {
  if (VerifierOn()) {
    RequireHolder(Irp, "IoMarkIrpPending", "packet.pend-not-owned");
  }
}

void KiCancelRoutinePoint(PIRP Irp, PDRIVER_CANCEL CancelRoutine) {
  SwitchPoint(SwitchReason::Exchange, Irp);
  if (CancelRoutine && VerifierOn()) {
    RequireHolder(Irp, "IoSetCancelRoutine", "cancel.not-owner");
  }
}

void KiCancelRoutineSetPoint(PIRP Irp) {
  // The packet may be gone by now; only its address is used.
  SwitchPoint(SwitchReason::Exchanged, Irp);
}
