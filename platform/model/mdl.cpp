#include "platform/model/mdl.h"

#include <cstring>

#include "platform/model/blocks.h"
#include "platform/model/faults.h"
#include "platform/model/io_manager.h"
#include "platform/model/packets.h"
#include "platform/model/pool.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"

static constexpr uint64_t MdlMagic = 0x4d'44'4c'4d'44'4c'21'21;
static constexpr int MdlPoison = 0xF2;

struct alignas(16) MdlShadow {
  uint64_t Magic;
  bool Live;
  unsigned Users;  // packets that are with a driver
  PDRIVER_OBJECT Maker;
};

static BlockStore Mdls;
static size_t MdlsInUse;  // that have users

static MdlShadow *ShadowOf(PMDL Mdl) {
  return reinterpret_cast<MdlShadow *>(Mdl) - 1;
}

static size_t PagesSpanned(const void *Address, size_t Bytes) {
  size_t offset = reinterpret_cast<uintptr_t>(Address) & (PAGE_SIZE - 1);
  return (offset + Bytes + PAGE_SIZE - 1) / PAGE_SIZE;
}

static PVOID PageOf(const void *Address) {
  return reinterpret_cast<PVOID>(reinterpret_cast<uintptr_t>(Address) &
                                 ~static_cast<uintptr_t>(PAGE_SIZE - 1));
}

static void Describe(PMDL Mdl, const void *Address, ULONG Bytes) {
  Mdl->StartVa = PageOf(Address);
  Mdl->ByteOffset = static_cast<ULONG>(reinterpret_cast<uintptr_t>(Address) & (PAGE_SIZE - 1));
  Mdl->ByteCount = Bytes;
}

static PMDL MdlMake(const void *Address, ULONG Bytes) {
  MdlShadow *shadow;
  {
    Guard guard(RequestMutex);
    shadow = static_cast<MdlShadow *>(BlockTake(&Mdls, 0, sizeof(MdlShadow) + sizeof(MDL)));
    *shadow = {};
    shadow->Magic = MdlMagic;
    shadow->Live = true;
    shadow->Maker = ThreadSelf()->Acting;
  }
  SyncAcquire(shadow);
  PMDL mdl = reinterpret_cast<PMDL>(shadow + 1);
  BytesAllow(mdl, sizeof(MDL));
  memset(mdl, 0, sizeof(MDL));
  // The size counts the page numbers that follow a real MDL; here nobody needs them.
  mdl->Size = static_cast<CSHORT>(sizeof(MDL) + 8 * PagesSpanned(Address, Bytes));
  Describe(mdl, Address, Bytes);
  return mdl;
}

static void MdlRelease(PMDL Mdl) {
  MdlShadow *shadow = ShadowOf(Mdl);
  if (VerifierOn()) {
    memset(Mdl, MdlPoison, sizeof(MDL));
    BytesForbid(Mdl, sizeof(MDL));
  }
  SyncRelease(shadow);
  Guard guard(RequestMutex);
  shadow->Live = false;
  BlockRetire(&Mdls, shadow);
  BlockGive(&Mdls, shadow, true);
}

static void RequireLive(PMDL Mdl, const char *Service) {
  if (!VerifierOn()) {
    return;
  }
  Guard guard(RequestMutex);
  MdlShadow *shadow = ShadowOf(Mdl);
  if (shadow->Magic != MdlMagic || !shadow->Live) {
    VerifierStop("mdl.unknown", Mdl, "%s: %p is no live MDL", Service, static_cast<void *>(Mdl));
  }
}

PMDL MdlMakeLocked(void *Bytes, size_t Count) {
  PMDL mdl = MdlMake(Bytes, static_cast<ULONG>(Count));
  mdl->MdlFlags = MDL_PAGES_LOCKED;
  return mdl;
}

void MdlUnlockAndFree(PMDL Mdl) {
  Mdl->MdlFlags =
      static_cast<CSHORT>(Mdl->MdlFlags & ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA));
  MdlRelease(Mdl);
}

void MdlTake(PMDL Mdl) {
  if (Mdl && ShadowOf(Mdl)->Magic == MdlMagic) {
    MdlsInUse += ++ShadowOf(Mdl)->Users == 1;
  }
}

void MdlLetGo(PMDL Mdl) {
  if (Mdl && ShadowOf(Mdl)->Magic == MdlMagic) {
    MdlsInUse -= --ShadowOf(Mdl)->Users == 0;
  }
}

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                   PIRP Irp) {
  UNREFERENCED_PARAMETER(ChargeQuota);
  VerifierRequireIrql(DISPATCH_LEVEL, "IoAllocateMdl");
  if (Length > 0x7FFFFFFF || FaultHere(FaultMdl)) {
    return nullptr;
  }
  PMDL mdl = MdlMake(VirtualAddress, Length);
  if (!Irp) {
    return mdl;
  }
  PMDL *link = &Irp->MdlAddress;
  while (SecondaryBuffer && *link) {
    link = &(*link)->Next;
  }
  *link = mdl;
  return mdl;
}

static void RequireFreeable(PMDL Mdl) {
  Guard guard(RequestMutex);
  MdlShadow *shadow = ShadowOf(Mdl);
  if (shadow->Magic == MdlMagic && !shadow->Live) {
    VerifierStop("mdl.double-free", Mdl, "IoFreeMdl: %p was freed", static_cast<void *>(Mdl));
  }
  if (shadow->Magic != MdlMagic) {
    VerifierStop("mdl.unknown", Mdl, "IoFreeMdl: %p is no MDL", static_cast<void *>(Mdl));
  }
  if (shadow->Users > 0) {
    VerifierStop("mdl.in-use", Mdl, "IoFreeMdl: a driver has a packet that carries it");
  }
  if (Mdl->MdlFlags & MDL_PAGES_LOCKED) {
    VerifierStop("mdl.freed-locked", Mdl, "IoFreeMdl: its pages are locked");
  }
}

// Unmaps a mapped partial MDL: nothing is left of a mapping once the MDL is gone.
void IoFreeMdl(PMDL Mdl) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoFreeMdl");
  if (VerifierOn()) {
    RequireFreeable(Mdl);
  }
  MdlRelease(Mdl);
}

void MmBuildMdlForNonPagedPool(PMDL Mdl) {
  VerifierRequireIrql(DISPATCH_LEVEL, "MmBuildMdlForNonPagedPool");
  RequireLive(Mdl, "MmBuildMdlForNonPagedPool");
  PVOID address = MmGetMdlVirtualAddress(Mdl);
  if (VerifierOn() && PoolIsPaged(address)) {
    VerifierStop("mdl.paged", Mdl, "MmBuildMdlForNonPagedPool: %p is paged pool", address);
  }
  if (VerifierOn() && (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_PAGES_LOCKED |
                                        MDL_SOURCE_IS_NONPAGED_POOL))) {
    VerifierStop("mdl.already-mapped", Mdl, "MmBuildMdlForNonPagedPool of a built MDL");
  }
  Mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
  Mdl->MappedSystemVa = address;
}

void IoBuildPartialMdl(PMDL SourceMdl, PMDL TargetMdl, PVOID VirtualAddress, ULONG Length) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoBuildPartialMdl");
  RequireLive(SourceMdl, "IoBuildPartialMdl");
  RequireLive(TargetMdl, "IoBuildPartialMdl");
  uintptr_t first = reinterpret_cast<uintptr_t>(MmGetMdlVirtualAddress(SourceMdl));
  uintptr_t wanted = reinterpret_cast<uintptr_t>(VirtualAddress);
  uintptr_t skipped = wanted - first;
  if (wanted < first || skipped > SourceMdl->ByteCount || Length > SourceMdl->ByteCount - skipped) {
    VerifierStop("mdl.outside", SourceMdl, "IoBuildPartialMdl: bytes outside of the source");
  }
  if (!(SourceMdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL))) {
    VerifierStop("mdl.not-locked", SourceMdl, "IoBuildPartialMdl: the source is not locked");
  }
  ULONG bytes = Length ? Length : static_cast<ULONG>(SourceMdl->ByteCount - skipped);
  size_t room = (static_cast<size_t>(TargetMdl->Size) - sizeof(MDL)) / 8;
  if (PagesSpanned(VirtualAddress, bytes) > room) {
    VerifierStop("mdl.target-too-small", TargetMdl, "IoBuildPartialMdl: %zu pages do not suffice",
                 room);
  }
  Describe(TargetMdl, VirtualAddress, bytes);
  CSHORT inherited = SourceMdl->MdlFlags & (MDL_SOURCE_IS_NONPAGED_POOL | MDL_MAPPED_TO_SYSTEM_VA);
  TargetMdl->MdlFlags = static_cast<CSHORT>(inherited | MDL_PARTIAL);
  TargetMdl->Process = SourceMdl->Process;
  TargetMdl->MappedSystemVa =
      inherited ? static_cast<char *>(SourceMdl->MappedSystemVa) + skipped : nullptr;
}

PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress,
                                   ULONG BugCheckOnFailure, ULONG Priority) {
  UNREFERENCED_PARAMETER(AccessMode);
  UNREFERENCED_PARAMETER(CacheType);
  UNREFERENCED_PARAMETER(RequestedAddress);
  VerifierRequireIrql(DISPATCH_LEVEL, "MmMapLockedPagesSpecifyCache");
  RequireLive(Mdl, "MmMapLockedPagesSpecifyCache");
  if (VerifierOn() && (Mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))) {
    VerifierStop("mdl.already-mapped", Mdl, "MmMapLockedPagesSpecifyCache of a mapped MDL");
  }
  if (VerifierOn() && !(Mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_PARTIAL))) {
    VerifierStop("mdl.not-locked", Mdl, "MmMapLockedPagesSpecifyCache of pages not locked");
  }
  if (VerifierOn() && !(Priority & MdlMappingNoExecute)) {
    VerifierStop("mdl.executable", Mdl, "mapped so that it could be executed");
  }
  if (FaultHere(FaultMapping)) {
    if (BugCheckOnFailure) {
      KeBugCheckModel("no mapping for an MDL whose mapping may not fail");
    }
    return nullptr;
  }
  Mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
  if (Mdl->MdlFlags & MDL_PARTIAL) {
    Mdl->MdlFlags |= MDL_PARTIAL_HAS_BEEN_MAPPED;
  }
  Mdl->MappedSystemVa = MmGetMdlVirtualAddress(Mdl);
  return Mdl->MappedSystemVa;
}

uint64_t MdlCount() {
  Guard guard(RequestMutex);
  return Mdls.LiveCount;
}

void MdlPoolFreed(const void *Block, size_t Bytes) {
  if (__atomic_load_n(&MdlsInUse, __ATOMIC_RELAXED) == 0) {
    return;
  }
  const char *low = static_cast<const char *>(Block);
  Guard guard(RequestMutex);
  for (void *body = BlockAnyLive(&Mdls); body; body = BlockNextLive(&Mdls, body)) {
    MdlShadow *shadow = static_cast<MdlShadow *>(body);
    PMDL mdl = reinterpret_cast<PMDL>(shadow + 1);
    char *at = shadow->Users > 0 ? static_cast<char *>(MmGetMdlVirtualAddress(mdl)) : nullptr;
    if (at && at < low + Bytes && at + mdl->ByteCount > low) {
      VerifierStop("mdl.pool-freed", mdl,
                   "pool at %p is freed, which the MDL of a packet with a driver describes", Block);
    }
  }
}

void MdlsCheckUnloaded(PDRIVER_OBJECT Driver) {
  Guard guard(RequestMutex);
  for (void *body = BlockAnyLive(&Mdls); body; body = BlockNextLive(&Mdls, body)) {
    if (static_cast<MdlShadow *>(body)->Maker == Driver) {
      VerifierStop("leak.mdl", body, "%s is unloaded and leaves an MDL",
                   DriverText(Driver).c_str());
    }
  }
}

void MdlBoot() {
  MdlsInUse = 0;
  BlocksReset(&Mdls);
}

void MdlCheck() {
  void *left = BlockAnyLive(&Mdls);
  if (left) {
    VerifierStop("leak.mdl", static_cast<MdlShadow *>(left) + 1, "%llu MDLs are left",
                 static_cast<unsigned long long>(Mdls.LiveCount));
  }
}

void MdlShutdown() {
  BlocksReset(&Mdls);
}
