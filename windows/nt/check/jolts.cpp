// The driver's imports are replaced in memory by routines that do the same and then, where a thread
// may wait, let others run: orders that a lone processor hardly ever makes.
#include "windows/nt/check/check.h"

volatile LONG CheckJolts;
static volatile LONG State;  // of the random numbers; 0: none

static void Jolt() {
  LONG state = State;
  if (state == 0 || KeGetCurrentIrql() > APC_LEVEL) {
    return;
  }
  auto next = static_cast<ULONG>(state) * 1664525u + 1013904223u;
  State = static_cast<LONG>(next | 1);
  if (next >> 26 == 0) {
    LARGE_INTEGER soon;
    soon.QuadPart = (next >> 25 & 1) != 0 ? -10'000 : 0;  // a tick, or just whoever waits
    InterlockedIncrement(&CheckJolts);
    KeDelayExecutionThread(KernelMode, FALSE, &soon);
  }
}

static void JoltReleaseSpinLock(PKSPIN_LOCK Lock, KIRQL Irql) {
  KeReleaseSpinLock(Lock, Irql);
  Jolt();
}

static KIRQL JoltAcquireSpinLock(PKSPIN_LOCK Lock) {
  Jolt();
  return KeAcquireSpinLockRaiseToDpc(Lock);
}

static void JoltReleaseCancelSpinLock(KIRQL Irql) {
  IoReleaseCancelSpinLock(Irql);
  Jolt();
}

static NTSTATUS JoltCallDriver(PDEVICE_OBJECT Device, PIRP Irp) {
  Jolt();
  NTSTATUS status = IofCallDriver(Device, Irp);
  Jolt();
  return status;
}

static void JoltCompleteRequest(PIRP Irp, CCHAR Boost) {
  Jolt();
  IofCompleteRequest(Irp, Boost);
  Jolt();
}

static LONG JoltSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
  LONG was = KeSetEvent(Event, Increment, Wait);
  Jolt();
  return was;
}

static PVOID JoltAllocate(POOL_TYPE Type, SIZE_T Bytes, ULONG Tag) {
  Jolt();
  return ExAllocatePoolWithTag(Type, Bytes, Tag);
}

static void JoltFree(PVOID Pool, ULONG Tag) {
  ExFreePoolWithTag(Pool, Tag);
  Jolt();
}

struct Replacement {
  PCWSTR Name;
  PVOID Routine;
};

#define REPLACES(name, routine) \
  { L##name, reinterpret_cast<PVOID>(&(routine)) }
static const Replacement Replacements[] = {
    REPLACES("KeReleaseSpinLock", JoltReleaseSpinLock),
    REPLACES("KeAcquireSpinLockRaiseToDpc", JoltAcquireSpinLock),
    REPLACES("IoReleaseCancelSpinLock", JoltReleaseCancelSpinLock),
    REPLACES("IofCallDriver", JoltCallDriver),
    REPLACES("IofCompleteRequest", JoltCompleteRequest),
    REPLACES("KeSetEvent", JoltSetEvent),
    REPLACES("ExAllocatePoolWithTag", JoltAllocate),
    REPLACES("ExFreePoolWithTag", JoltFree),
};

static ULONG Field(PUCHAR Address) {
  return *reinterpret_cast<ULONG *>(Address);
}

// In an image in memory: wherever it would call the one, it calls the other. The table of addresses
// is told by its contents, since a loader may have written over the names.
static void Replace(PUCHAR Base, PVOID One, PVOID Other) {
  PUCHAR optional = Base + Field(Base + 0x3C) + 24;
  for (PUCHAR entry = Base + Field(optional + 120); Field(entry + 12) != 0; entry += 20) {
    for (auto *slot = reinterpret_cast<PVOID *>(Base + Field(entry + 16)); *slot != nullptr;
         ++slot) {
      if (*slot == One) {
        InterlockedExchangePointer(slot, Other);
      }
    }
  }
}

void JoltsSet(PDRIVER_OBJECT Driver, ULONG Seed) {
  for (const Replacement &replacement : Replacements) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, replacement.Name);
    PVOID routine = MmGetSystemRoutineAddress(&name);
    if (Seed != 0 && routine != nullptr) {
      Replace(static_cast<PUCHAR>(Driver->DriverStart), routine, replacement.Routine);
    }
  }
  State = static_cast<LONG>(Seed != 0 ? Seed | 1 : 0);
}
