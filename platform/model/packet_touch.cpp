// Who has passed a packet on, or completed it, has nothing to do with it any more. What its holder
// changes and what the one before it changes cannot be told apart in general; but while no other
// code has run than that of the one before, it was that one.
#include <cstring>

#include "platform/model/packets.h"
#include "platform/model/run.h"
#include "platform/model/scheduler.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

static constexpr ULONG_PTR Junk = 0xD21E'C027'E272'0000;

static bool IsOwn(const DispatchFrame *Frame, const PacketShadow *Shadow) {
  const LocationShadow &location = Shadow->Locations[Shadow->Location];
  return location.Driver == Frame->Driver &&
         (Shadow->Location != Frame->Location || location.Entered == Frame->Entry);
}

void PacketLookAt(PacketShadow *Shadow, PIRP Irp) {
  PKTHREAD self = ThreadSelf();
  DispatchFrame *frame = self->Dispatching;
  if (ThreadsInUse || !frame || frame->What != DispatchFrame::Kind::Dispatch ||
      frame->Packet != Shadow) {
    return;
  }
  Guard guard(RequestMutex);
  PacketLook *look = &frame->Look;
  look->Taken = frame->Sending == Shadow->Sendings && Shadow->State == PacketState::Held &&
                !IsOwn(frame, Shadow);
  if (!look->Taken) {
    return;
  }
  look->Steps = Shadow->Steps;
  look->Switches = SchedulerSwitches();
  look->Entered = self->RoutinesEntered;
  look->Iosb = Irp->IoStatus;
  look->Mdl = Irp->MdlAddress;
  look->Flags = Irp->Flags;
  look->SystemBuffer = Irp->AssociatedIrp.SystemBuffer;
  look->UserBuffer = Irp->UserBuffer;
  look->Location = Shadow->Location;
  memcpy(&look->Holders, PacketLocation(Irp, Shadow->Location), sizeof look->Holders);
}

[[noreturn]] static void Touched(PIRP Irp, const char *What, int Location) {
  VerifierStop("packet.touched-passed-on", Irp,
               "%s was changed by a driver that had passed the packet on or completed it; it is at "
               "location %d",
               What, Location);
}

void PacketRequireAsLeft(const DispatchFrame *Frame, PIRP Irp) {
  const PacketLook &look = Frame->Look;
  const PacketShadow *shadow = Frame->Packet;
  if (!look.Taken || look.Steps != shadow->Steps || look.Switches != SchedulerSwitches() ||
      look.Entered != ThreadSelf()->RoutinesEntered) {
    return;
  }
  if (memcmp(&look.Iosb, &Irp->IoStatus, sizeof look.Iosb) != 0 || look.Mdl != Irp->MdlAddress ||
      look.Flags != Irp->Flags || look.SystemBuffer != Irp->AssociatedIrp.SystemBuffer ||
      look.UserBuffer != Irp->UserBuffer) {
    Touched(Irp, "the packet", look.Location);
  }
  if (memcmp(&look.Holders, PacketLocation(Irp, look.Location), sizeof look.Holders) != 0) {
    Touched(Irp, "its holder's location", look.Location);
  }
}

void PacketLeaveLocation(LocationShadow *Location, PIRP Irp) {
  Location->IsLeft = true;
  memcpy(&Location->Left, PacketLocation(Irp, Location->Number), sizeof Location->Left);
}

void PacketRequireLocationAsLeft(LocationShadow *Location, PIRP Irp) {
  if (Location->IsLeft &&
      memcmp(&Location->Left, PacketLocation(Irp, Location->Number), sizeof Location->Left) != 0) {
    Touched(Irp, "the location above", Irp->CurrentLocation);
  }
  Location->IsLeft = false;
}

void PacketScrambleOwn(PIRP Irp) {
  auto &own = Irp->Tail.Overlay;
  ULONG_PTR junk = Junk;
  for (PVOID &context : own.DriverContext) {
    context = reinterpret_cast<PVOID>(++junk);
  }
  own.ListEntry.Flink = own.ListEntry.Blink = reinterpret_cast<PLIST_ENTRY>(Junk);
}
