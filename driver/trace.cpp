#include "driver/trace.h"

#include "driver/pool_tags.h"

TraceRing Trace;

INIT_CODE void TraceInit() {
  KeInitializeSpinLock(&Trace.Lock);
  Trace.ClassMask = 0xFFFFFFFF;
  auto *base = static_cast<TraceRecord *>(
      ExAllocatePoolWithTag(NonPagedPoolNx, TRACE_RECORDS * sizeof(TraceRecord), POOL_TRACE));
  Trace.Base = base;
  if (base == nullptr) {
    return;
  }
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Trace.Lock);
  Trace.Cursor = base;
  Trace.Last = base + TRACE_RECORDS - 1;
  KeReleaseSpinLock(&Trace.Lock, irql);
}

void TraceFree() {
  if (Trace.Base != nullptr) {
    ExFreePoolWithTag(Trace.Base, POOL_TRACE);
    Trace.Base = nullptr;
  }
}

static void WriteRecord(ULONG Code, ULONG64 Argument1, ULONG64 Argument2, ULONG64 Argument3)
    REQUIRES(Trace.Lock) {
  // The ring is filled downward: from the cursor upward records run from newest to oldest.
  Trace.Cursor = Trace.Cursor > Trace.Base ? Trace.Cursor - 1 : Trace.Last;
  TraceRecord *record = Trace.Cursor;
  record->Code[0] = static_cast<UCHAR>(Code >> 24);
  record->Code[1] = static_cast<UCHAR>(Code >> 16);
  record->Code[2] = static_cast<UCHAR>(Code >> 8);
  record->Code[3] = static_cast<UCHAR>(Code);
  record->Arguments[0] = Argument1;
  record->Arguments[1] = Argument2;
  record->Arguments[2] = Argument3;
}

void TraceEvent(ULONG Class, ULONG Code, ULONG64 Argument1, ULONG64 Argument2, ULONG64 Argument3) {
  if (Trace.Base == nullptr || (Class & Trace.ClassMask) == 0) {
    return;
  }
  if (KeGetCurrentIrql() < DISPATCH_LEVEL) {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Trace.Lock);
    WriteRecord(Code, Argument1, Argument2, Argument3);
    KeReleaseSpinLock(&Trace.Lock, irql);
  } else {
    KeAcquireSpinLockAtDpcLevel(&Trace.Lock);
    WriteRecord(Code, Argument1, Argument2, Argument3);
    KeReleaseSpinLockFromDpcLevel(&Trace.Lock);
  }
}
