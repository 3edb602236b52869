// Request packets and the hidden record ("shadow") in front of each: who holds the packet, where it
// stands, what its dispatch routines returned, and what its requester sent.
//
// The verifier's rules here:
//
//   packet.freed                a freed packet is passed to a service
//   packet.unknown              what is passed is no packet
//   packet.double-completion    completed again
//   packet.double-free          freed again
//   packet.free-in-flight       freed while a driver below has it
//   packet.free-foreign         freed or reused by who did not allocate it
//   packet.reuse-in-flight      reused while a driver below has it
//   packet.not-owner            completed or passed on by who gave it away, or never sent it
//   packet.forward-completed    passed on after its completion
//   packet.no-stack             no stack location is left for the driver below
//   packet.bad-stack            the current location is not the holder's
//   packet.bad-major            no such major function
//   packet.bad-status           completed with STATUS_PENDING or -1
//   packet.cancel-routine-set   passed on, completed or reused with a cancel routine
//   packet.routine-inherited    a completion routine copied along with the location above
//   packet.no-routine           invoke bits without a completion routine
//   packet.routine-result       a completion routine let go on what it had reused or given away
//   packet.pending-not-marked   STATUS_PENDING returned, completed without the mark
//   packet.marked-not-pending   marked pending, another status returned
//   packet.pending-not-carried  a completion routine did not carry PendingReturned upward
//   packet.status-differs       the returned status is not the one it was completed with
//   packet.lost                 neither completed, passed on nor pended
//   packet.returned-early       a status returned while a driver below still has it
//   packet.buffer-changed       came back with another buffer or MDL than it was sent with
//   packet.not-reclaimed        a driver's own packet went past the top
//   packet.information          more bytes reported than the requester has room for
//   packet.bad-copy             the location below was never filled, or got the pending mark too
//   packet.no-completion        an own packet sent without a routine for success and for error
//   packet.pend-not-owned       marked pending by who has not got it
//   packet.touched-completed    changed by the driver that had completed it (forced pending)
//   packet.touched-passed-on    changed by a driver that had passed it on or completed it
//   cancel.lock-held            a cancel routine returned with the cancel spin lock
//   cancel.not-owner            a cancel routine set by who has not got the packet
//   cancel.not-completed        cancelled, but not completed in time
//   power.down-call             a passive-only service or an allocation in a power-down
//   irql.not-restored           a driver's routine returned at another IRQL
//   lock.not-released           a driver's routine returned with a lock that it took
//   power.next                  PoStartNextPowerIrp twice for one packet (missing: a warning)
//   device.not-live             a packet for a device that is gone
//   leak.packet, leak.mdl       left over
//
// Warnings: forward-at-dispatch, copy-without-routine, power.next.
#pragma once

#include <cstdint>

#include "platform/kernel.h"
#include "platform/model/devices.h"
#include "platform/model/guard.h"
#include "platform/model/stack_depth.h"

// Fresh -> Held (sent) -> Held (passed on, or taken back by a completion routine) -> Completing ->
// Finished -> Freed. A packet taken back at the top, or reused, is Fresh again. While a completion
// routine runs, the packet is in the hands of its driver: Held, or Fresh above the top.
enum class PacketState : uint8_t { Fresh, Held, Completing, Finished, Freed };

struct PacketShadow;

// A packet as it was when it left a driver that still runs.
struct PacketLook {
  bool Taken;
  uint64_t Steps, Switches, Entered;  // while they are the same, only that driver's code has run
  IO_STATUS_BLOCK Iosb;
  PMDL Mdl;
  ULONG Flags;
  PVOID SystemBuffer, UserBuffer;
  int Location;  // the holder's
  IO_STACK_LOCATION Holders;
};

// A driver routine that is running: on the stack of its caller in the model.
struct DispatchFrame {
  enum class Kind : uint8_t { Dispatch, Routine, Cancel };

  DispatchFrame *Outer;  // of the same thread
  DispatchFrame *Next;   // of the same stack location, the older one
  PacketShadow *Packet;
  PDRIVER_OBJECT Driver;
  uint64_t Sending;  // the packet's Sendings when it was called
  int Location;
  unsigned Entry;  // the how manieth to enter there: who skips a location shares it
  Kind What;
  PDRIVER_OBJECT ActedBefore;  // the thread's Acting before the call
  StackUse StackBefore;        // likewise
  bool MarkedBefore;           // the location carried the pending mark when the routine was entered
  bool Completed;              // the location was completed; what follows is of that moment
  bool Marked;
  bool Deferred;  // the location's completion was put off: what is above gets STATUS_PENDING
  NTSTATUS Status;
  PacketLook Look;
};

struct LocationShadow {
  PDEVICE_OBJECT Device;
  PDRIVER_OBJECT Driver;
  int Number;
  DispatchFrame *Frames;  // dispatch routines that entered here, still run, and are not completed
  PMDL Mdl;               // what the packet carried when it came
  unsigned Entered;
  unsigned PowerNexts;
  bool ReturnedPending;
  StackRole Role;        // these four: of packets that StackRulesApply to
  bool PassedOn;         // it has been below
  IO_STATUS_BLOCK Came;  // what it carried when it came
  IO_STATUS_BLOCK Back;  // and when it came back from below
  bool Counted;          // at the device, among those that stand there
  bool IsLeft;           // the packet is at a location below; what it left here is in Left
  IO_STACK_LOCATION Left;
};

using PacketFinish = void (*)(PIRP Irp, void *Context);

// Fields are guarded by RequestMutex, except those that are set once.
struct alignas(16) PacketShadow {
  uint64_t Magic;
  PacketFinish Finish;  // the model's own packet: called when it comes out at the top
  void *Context;
  PDRIVER_OBJECT Maker;       // who called IoAllocateIrp, if that is known
  LocationShadow *Locations;  // by location number, from 1
  size_t Bytes;               // of the packet and its locations
  PacketState State;
  int Location;       // the holder's; StackCount + 1 is the requester
  unsigned Holds;     // cancellers for whom the packet must not go yet
  unsigned Readers;   // dispatch frames that will still look at this record
  bool FreeWhenLet;   // freed by the last canceller
  uint64_t Sendings;  // out of its requester's hands, ever
  uint64_t Steps;     // any change of hands
  int64_t Cancelled;  // when IoCancelIrp was called first, on the system clock; 0 when it was not
  uint64_t Sweep;     // the last CancelOutstanding that saw it
  PMDL SentMdl;
  PVOID SentSystemBuffer;
  PVOID SentUserBuffer;
};

// Guards shadows of packets and MDLs, and the stores that they come from.
extern ModelMutex RequestMutex;

inline PacketShadow *PacketShadowOf(PIRP Irp) {
  return reinterpret_cast<PacketShadow *>(Irp) - 1;
}
// A packet's stack locations, from 1; the guard in front of them and behind them is off limits.
inline PIO_STACK_LOCATION PacketLocation(PIRP Irp, int Number) {
  return reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + Number;
}
inline PIRP PacketOf(PacketShadow *Shadow) {
  return reinterpret_cast<PIRP>(Shadow + 1);
}

// The record of a packet that is not freed; stops the run otherwise.
PacketShadow *PacketRequireLive(PIRP Irp, const char *Service);

// Packets, Plug and Play ones apart, that stand at the device: they are there, or below it and have
// to come back. Zero without the verifier.
unsigned PacketsAt(PDEVICE_OBJECT Device);

// PoStartNextPowerIrp was called for the packet: stops unless the caller holds it.
void PacketCountNext(PIRP Irp);

// The model's own packets. Finish owns the packet when it is called and frees it.
PIRP PacketMake(CCHAR StackSize, PacketFinish Finish, void *Context);
void PacketFree(PIRP Irp);

// Between the two the packet's memory stays, whatever becomes of the packet. Hold is called under
// RequestMutex, Let outside of it.
void PacketHold(PIRP Irp);
void PacketLet(PIRP Irp);

// Drops what PacketCall's frame held of the record.
void PacketShadowLet(PacketShadow *Shadow);

// IofCallDriver without its switch point, for who must find the top of a stack and call it at one
// go.
NTSTATUS PacketCall(PDEVICE_OBJECT Device, PIRP Irp);

// What became of a packet that a dispatch routine has passed on or completed and that somebody else
// has got now is looked at when it is out of its hands, and again when that routine returns; its
// location when the packet comes back to it, too. Under RequestMutex, except the first.
void PacketLookAt(PacketShadow *Shadow, PIRP Irp);
void PacketRequireAsLeft(const DispatchFrame *Frame, PIRP Irp);
void PacketLeaveLocation(LocationShadow *Location, PIRP Irp);
void PacketRequireLocationAsLeft(LocationShadow *Location, PIRP Irp);
// Nothing of the packet that is the holder's own outlives a call down.
void PacketScrambleOwn(PIRP Irp);

// What IofCompleteRequest does with a packet that its holder has let go. Checked is the shadow, or
// null when the verifier is off.
void PacketGoUp(PacketShadow *Checked, PIRP Irp);

// Forced pending: has a thread of its own complete the packet later and returns true, when a driver
// above called the one that completes it and would have got the answer at once.
bool PacketDefer(PacketShadow *Shadow, PIRP Irp);

// What is to be done depends on which packets there are.
void PacketsListed();
// The live packet after After (the first one when null), or null. Under RequestMutex.
PacketShadow *PacketNext(PacketShadow *After);
// Stops the run when a cancelled packet of the model's own is still on its way.
void PacketsRequireCancelledEnded();

// A packet that is sent and waited for. Fill, when given, completes the first stack location;
// Iosb goes in and out. The top of the stack is looked up at the time of the call. Irp, when given,
// is where the packet stands while it is on its way, for PacketCancel; guarded by RequestMutex.
struct PacketRequest {
  UCHAR Major;
  UCHAR Minor;
  PFILE_OBJECT File;
  void (*Fill)(PIO_STACK_LOCATION Location, const void *Context);
  const void *Context;
  IO_STATUS_BLOCK Iosb;
  PIRP *Irp;
};
// Cancels what stands there; false when there is nothing, or no routine to be called.
bool PacketCancel(PIRP *Irp);
NTSTATUS PacketSendAndWait(PDEVICE_OBJECT Device, PacketRequest *Request);
