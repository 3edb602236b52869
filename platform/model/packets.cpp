#include "platform/model/packets.h"

#include <cstring>

#include "platform/model/area.h"
#include "platform/model/blocks.h"
#include "platform/model/causality.h"
#include "platform/model/devices.h"
#include "platform/model/executor.h"
#include "platform/model/faults.h"
#include "platform/model/file_objects.h"
#include "platform/model/io_manager.h"
#include "platform/model/mdl.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"

static constexpr uint64_t PacketMagic = 0x50'41'43'4b'45'54'21'21;
static constexpr int PacketPoison = 0xF1;
static constexpr CSHORT PacketType = 6;

// One location's room on both sides of the stack locations is off limits: a driver that looks at
// a location which the packet does not have is caught where it does so.
static constexpr size_t GuardBytes = sizeof(IO_STACK_LOCATION);

ModelMutex RequestMutex;
static BlockStore Packets;

static size_t PacketBytes(size_t Locations) {
  return sizeof(IRP) + GuardBytes + Locations * sizeof(IO_STACK_LOCATION) + GuardBytes;
}

static void PacketInitialize(PIRP Irp, size_t Locations) {
  memset(Irp, 0, sizeof(IRP));
  memset(PacketLocation(Irp, 1), 0, Locations * sizeof(IO_STACK_LOCATION));
  Irp->Type = PacketType;
  Irp->Size = static_cast<USHORT>(sizeof(IRP) + Locations * sizeof(IO_STACK_LOCATION));
  Irp->StackCount = static_cast<CHAR>(Locations);
  Irp->CurrentLocation = static_cast<CHAR>(Locations + 1);
  InitializeListHead(&Irp->ThreadListEntry);
  Irp->Tail.Overlay.CurrentStackLocation = PacketLocation(Irp, static_cast<int>(Locations) + 1);
}

PIRP PacketMake(CCHAR StackSize, PacketFinish Finish, void *Context) {
  size_t count = static_cast<size_t>(StackSize);
  size_t bytes = PacketBytes(count);
  PacketShadow *shadow;
  {
    Guard guard(RequestMutex);
    shadow = static_cast<PacketShadow *>(
        BlockTake(&Packets, static_cast<unsigned>(count),
                  sizeof(PacketShadow) + bytes + (count + 1) * sizeof(LocationShadow)));
  }
  SyncAcquire(shadow);
  PIRP irp = PacketOf(shadow);
  char *stack = reinterpret_cast<char *>(PacketLocation(irp, 1));
  size_t stackBytes = count * sizeof(IO_STACK_LOCATION);
  BytesAllow(irp, bytes);
  {
    Guard guard(RequestMutex);
    *shadow = {};
    shadow->Magic = PacketMagic;
    shadow->Finish = Finish;
    shadow->Context = Context;
    shadow->Locations =
        reinterpret_cast<LocationShadow *>(reinterpret_cast<char *>(irp) + bytes) - 1;
    shadow->Bytes = bytes;
    shadow->Location = StackSize + 1;
  }
  PacketInitialize(irp, count);
  CausalTouch(&Packets, Access::Add);
  BytesForbid(irp + 1, GuardBytes);
  BytesForbid(stack + stackBytes, GuardBytes);
  return irp;
}

PacketShadow *PacketRequireLive(PIRP Irp, const char *Service) {
  PacketShadow *shadow = PacketShadowOf(Irp);
  Guard guard(RequestMutex);
  if (shadow->Magic != PacketMagic) {
    VerifierStop("packet.unknown", Irp, "%s: %p is no packet", Service, static_cast<void *>(Irp));
  }
  if (shadow->State == PacketState::Freed) {
    VerifierStop("packet.freed", Irp, "%s: packet %p was freed", Service, static_cast<void *>(Irp));
  }
  return shadow;
}

void PacketShadowLet(PacketShadow *Shadow) {
  Guard guard(RequestMutex);
  if (--Shadow->Readers == 0 && Shadow->State == PacketState::Freed) {
    BlockGive(&Packets, Shadow, true);
  }
}

void PacketFree(PIRP Irp) {
  PacketShadow *shadow = PacketShadowOf(Irp);
  SyncRelease(&shadow->Holds);  // to who lets go last, when that is another
  {
    Guard guard(RequestMutex);
    if (shadow->Holds > 0) {
      shadow->FreeWhenLet = true;
      return;
    }
    ++shadow->Readers;
    shadow->State = PacketState::Freed;
    BlockRetire(&Packets, shadow);
  }
  CausalTouch(&Packets, Access::Add);
  CausalCease(Irp, sizeof *Irp);
  SyncAcquire(&shadow->Holds);
  if (VerifierOn()) {
    BytesAllow(Irp, shadow->Bytes);
    memset(Irp, PacketPoison, shadow->Bytes);
    BytesForbid(Irp, shadow->Bytes);
    HistoryNote("packet freed", Irp);
  }
  SyncRelease(shadow);
  PacketShadowLet(shadow);
}

void PacketHold(PIRP Irp) {
  ++PacketShadowOf(Irp)->Holds;
}

void PacketLet(PIRP Irp) {
  PacketShadow *shadow = PacketShadowOf(Irp);
  SyncRelease(&shadow->Holds);
  bool last;
  {
    Guard guard(RequestMutex);
    last = --shadow->Holds == 0 && shadow->FreeWhenLet;
  }
  if (last) {
    PacketFree(Irp);
  }
}

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
  UNREFERENCED_PARAMETER(ChargeQuota);
  VerifierRequireIrql(DISPATCH_LEVEL, "IoAllocateIrp");
  if (StackSize < 1 || FaultHere(FaultIrp)) {
    return nullptr;
  }
  PIRP irp = PacketMake(StackSize, nullptr, nullptr);
  PacketShadowOf(irp)->Maker = ThreadSelf()->Acting;
  HistoryNote("IoAllocateIrp", irp, static_cast<uint64_t>(StackSize));
  return irp;
}

// An own packet in its owner's hands.
static PacketShadow *RequireOwn(PIRP Irp, const char *Service, const char *InFlightRule) {
  PacketShadow *shadow = PacketRequireLive(Irp, Service);
  Guard guard(RequestMutex);
  if (shadow->Finish) {
    VerifierStop("packet.free-foreign", Irp, "%s: the packet came out of no IoAllocateIrp",
                 Service);
  }
  if (shadow->State != PacketState::Fresh) {
    VerifierStop(InFlightRule, Irp, "%s: a driver below still has the packet (location %d)",
                 Service, shadow->Location);
  }
  ++shadow->Steps;
  return shadow;
}

void IoFreeIrp(PIRP Irp) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoFreeIrp");
  if (VerifierOn()) {
    PacketShadow *shadow = PacketShadowOf(Irp);
    if (shadow->Magic == PacketMagic && shadow->State == PacketState::Freed) {
      VerifierStop("packet.double-free", Irp, "IoFreeIrp: packet %p was freed",
                   static_cast<void *>(Irp));
    }
    RequireOwn(Irp, "IoFreeIrp", "packet.free-in-flight");
    if (Irp->CancelRoutine) {
      VerifierStop("packet.cancel-routine-set", Irp, "IoFreeIrp with a cancel routine");
    }
  }
  PacketFree(Irp);
}

void IoReuseIrp(PIRP Irp, NTSTATUS Status) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoReuseIrp");
  PacketShadow *shadow = PacketShadowOf(Irp);
  if (VerifierOn()) {
    RequireOwn(Irp, "IoReuseIrp", "packet.reuse-in-flight");
    if (Irp->CancelRoutine) {
      VerifierStop("packet.cancel-routine-set", Irp, "IoReuseIrp with a cancel routine");
    }
    HistoryNote("IoReuseIrp", Irp);
  }
  CHAR count = Irp->StackCount;
  UCHAR allocation = Irp->AllocationFlags;
  PacketInitialize(Irp, static_cast<size_t>(count));
  Irp->AllocationFlags = allocation;
  Irp->IoStatus.Status = Status;
  Guard guard(RequestMutex);
  shadow->Location = count + 1;
}

uint64_t PacketCount() {
  Guard guard(RequestMutex);
  return Packets.LiveCount;
}

struct SentPacket {
  KEVENT Done;
  IO_STATUS_BLOCK Iosb;
  PIRP *Visible;
};

static void Show(const SentPacket *Sent, PIRP Irp) {
  if (Sent->Visible) {
    Guard guard(RequestMutex);
    *Sent->Visible = Irp;
  }
}

static void FinishSent(PIRP Irp, void *Context) {
  SentPacket *sent = static_cast<SentPacket *>(Context);
  Show(sent, nullptr);
  sent->Iosb = Irp->IoStatus;
  PacketFree(Irp);
  KeSetEvent(&sent->Done, IO_NO_INCREMENT, FALSE);
}

NTSTATUS PacketSendAndWait(PDEVICE_OBJECT Device, PacketRequest *Request) {
  SentPacket sent = {};
  sent.Visible = Request->Irp;
  KeInitializeEvent(&sent.Done, NotificationEvent, FALSE);
  SwitchPoint(SwitchReason::Call, Device);

  PDEVICE_OBJECT top = DeviceTop(Device);
  PIRP irp = PacketMake(top->StackSize, FinishSent, &sent);
  irp->IoStatus = Request->Iosb;
  irp->RequestorMode = KernelMode;
  irp->Tail.Overlay.Thread = KeGetCurrentThread();
  irp->Tail.Overlay.OriginalFileObject = Request->File;
  PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
  location->MajorFunction = Request->Major;
  location->MinorFunction = Request->Minor;
  location->FileObject = Request->File;
  if (Request->Fill) {
    Request->Fill(location, Request->Context);
  }
  Show(&sent, irp);
  PacketCall(top, irp);
  KeWaitForSingleObject(&sent.Done, Executive, KernelMode, FALSE, nullptr);
  Request->Iosb = sent.Iosb;
  return sent.Iosb.Status;
}

bool PacketCancel(PIRP *Irp) {
  PIRP irp;
  {
    Guard guard(RequestMutex);
    irp = *Irp;
    if (!irp) {
      return false;
    }
    PacketHold(irp);
  }
  bool called = IoCancelIrp(irp) != FALSE;
  PacketLet(irp);
  return called;
}

static void RequestBoot() {
  BlocksReset(&Packets);
  MdlBoot();
}

void PacketsListed() {
  CausalTouch(&Packets, Access::Write);
}

PacketShadow *PacketNext(PacketShadow *After) {
  return static_cast<PacketShadow *>(After ? BlockNextLive(&Packets, After)
                                           : BlockAnyLive(&Packets));
}

void PacketsCheckUnloaded(PDRIVER_OBJECT Driver) {
  Guard guard(RequestMutex);
  for (PacketShadow *shadow = PacketNext(nullptr); shadow; shadow = PacketNext(shadow)) {
    if (shadow->Maker == Driver) {
      VerifierStop("leak.packet", PacketOf(shadow), "%s is unloaded and leaves packet %p",
                   DriverText(Driver).c_str(), static_cast<void *>(PacketOf(shadow)));
    }
  }
}

static void RequestCheck() {
  PacketsRequireCancelledEnded();
  void *left = BlockAnyLive(&Packets);
  if (left) {
    PIRP irp = PacketOf(static_cast<PacketShadow *>(left));
    VerifierStop("leak.packet", irp, "%llu packets are left, one of them %p",
                 static_cast<unsigned long long>(Packets.LiveCount), static_cast<void *>(irp));
  }
  MdlCheck();
}

static void RequestShutdown() {
  FilesShutdown();
  BlocksReset(&Packets);
  MdlShutdown();
}

extern const ModelArea RequestArea = {RequestBoot, RequestCheck, RequestShutdown};
