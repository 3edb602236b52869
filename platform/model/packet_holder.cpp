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

// The mark goes to the location that is current, which has to be the holder's.
static void RequireOwnLocation(PIRP Irp) {
  const PacketShadow *shadow = PacketShadowOf(Irp);
  const DispatchFrame *caller = ThreadSelf()->Dispatching;
  Guard guard(RequestMutex);
  int at = Irp->CurrentLocation;
  if (at > Irp->StackCount || at != shadow->Location) {
    VerifierStop("packet.pend-not-owned", Irp,
                 "IoMarkIrpPending: the current location is %d of %d, the holder's %d", at,
                 Irp->StackCount, shadow->Location);
  }
  bool passedOn = caller && caller->What == DispatchFrame::Kind::Dispatch &&
                  caller->Packet == shadow && caller->Sending == shadow->Sendings &&
                  (at < caller->Location ||
                   (at == caller->Location && shadow->Locations[at].Entered != caller->Entry));
  if (passedOn) {
    VerifierStop("packet.pend-not-owned", Irp,
                 "IoMarkIrpPending: the caller has passed the packet on to location %d", at);
  }
}

void KiMarkPendingPoint(PIRP Irp) {
  if (VerifierOn()) {
    RequireHolder(Irp, "IoMarkIrpPending", "packet.pend-not-owned");
    RequireOwnLocation(Irp);
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
