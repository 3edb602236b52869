// Forced pending: what a driver completes within its dispatch routine is held back and comes out
// later on another thread, while the driver above sees STATUS_PENDING. The driver that completed
// the packet has nothing to do with it any more; that is checked when it goes on.
#include <cstring>

#include "platform/model/forced.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

struct Deferred {
  PacketShadow *Shadow;
  IRP Packet;  // as it was left; what a canceller changes is not compared
  IO_STACK_LOCATION Location;
};

// A removal's device is gone when its dispatch routine returns; nobody waits for it to pend.
static bool MayPend(const IO_STACK_LOCATION *Location) {
  return !(Location->Control & SL_PENDING_RETURNED) &&
         (Location->MajorFunction != IRP_MJ_PNP || Location->MinorFunction != IRP_MN_REMOVE_DEVICE);
}

// The frame of the dispatch routine that completes the packet now, if a driver stands above it.
static DispatchFrame *CompletingFrame(const PacketShadow *Shadow, PIRP Irp) {
  DispatchFrame *frame = ThreadSelf()->Dispatching;
  if (!frame || frame->What != DispatchFrame::Kind::Dispatch || frame->Packet != Shadow ||
      frame->Sending != Shadow->Sendings || frame->Location != Shadow->Location ||
      frame->Entry != Shadow->Locations[frame->Location].Entered) {
    return nullptr;
  }
  bool above = frame->Location < Irp->StackCount || frame->Entry > 1 || !Shadow->Finish;
  return above ? frame : nullptr;
}

static void RequireUntouched(const Deferred &Left, PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  BytesAllow(location, sizeof *location);
  const IRP &was = Left.Packet;
  if (memcmp(&was.IoStatus, &Irp->IoStatus, sizeof was.IoStatus) != 0 ||
      was.MdlAddress != Irp->MdlAddress || was.Flags != Irp->Flags ||
      was.AssociatedIrp.SystemBuffer != Irp->AssociatedIrp.SystemBuffer ||
      was.UserBuffer != Irp->UserBuffer ||
      memcmp(&Left.Location, location, sizeof *location) != 0) {
    VerifierStop("packet.touched-completed", Irp,
                 "the packet was changed after its driver had completed it (location %d)",
                 Irp->CurrentLocation);
  }
}

static void GoOn(const Deferred &Left, PIRP Irp) {
  HistoryNote("deferred completion", Irp);
  RequireUntouched(Left, Irp);
  IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
  PacketGoUp(Left.Shadow, Irp);
}

bool PacketDefer(PacketShadow *Shadow, PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  DispatchFrame *frame = CompletingFrame(Shadow, Irp);
  if (!frame || !MayPend(location)) {
    return false;
  }
  {
    // The dispatch routine that completes is judged by what it did; those that skipped the location
    // have to pend.
    Guard guard(RequestMutex);
    DispatchFrame **link = &Shadow->Locations[frame->Location].Frames;
    while (*link != frame) {
      link = &(*link)->Next;
    }
    *link = frame->Next;
    frame->Completed = frame->Deferred = true;
    frame->Marked = false;
    frame->Status = Irp->IoStatus.Status;
  }
  Deferred left = {Shadow, *Irp, *location};
  BytesForbid(location, sizeof *location);
  PKTHREAD thread = ThreadCreate(
      "deferred", [left, Irp] { GoOn(left, Irp); }, FiberBytes);
  ThreadLaunch(thread);
  ObjectRelease(thread);
  return true;
}
