// The trace ring: what the driver did last, for a memory dump or a kernel debugger. One ring for
// the whole driver, written on the controller channel and the proxy read engine, never read here.
#pragma once

#include "platform/kernel.h"

// A code is four characters, the first in the most significant byte; it is stored most significant
// byte first, so that the four bytes read in memory as they are written here.
constexpr ULONG TraceCode(const char (&Text)[5]) {
  return static_cast<ULONG>(Text[0]) << 24 | static_cast<ULONG>(Text[1]) << 16 |
         static_cast<ULONG>(Text[2]) << 8 | static_cast<ULONG>(Text[3]);
}

struct TraceRecord {
  UCHAR Code[4];
  ULONG Unused;  // never written: keeps what the memory held
  ULONG64 Arguments[3];
};
static_assert(sizeof(TraceRecord) == 32 && offsetof(TraceRecord, Arguments) == 8);

constexpr ULONG TRACE_RECORDS = 384;
constexpr ULONG TRACE_CLASS = 1;  // of every call in the driver

struct TraceRing {
  KSPIN_LOCK Lock;                       // a leaf: nothing is taken while it is held
  TraceRecord *Base;                     // null: tracing is off
  TraceRecord *Cursor GUARDED_BY(Lock);  // the newest record
  TraceRecord *Last;                     // the highest record
  ULONG ClassMask;
};

extern TraceRing Trace;

// Called once, by the driver's entry, with which it is dropped, and before any other trace call.
// Without memory tracing stays off, silently.
void TraceInit();

// Called last in the driver's life.
void TraceFree();

// At any IRQL up to DISPATCH_LEVEL, which it does not change.
void TraceEvent(ULONG Class, ULONG Code, ULONG64 Argument1, ULONG64 Argument2, ULONG64 Argument3);

inline ULONG64 TracePointer(const volatile void *Pointer) {
  return reinterpret_cast<ULONG64>(Pointer);
}

// Sign-extended, as a debugger shows a status.
inline ULONG64 TraceStatus(NTSTATUS Status) {
  return static_cast<ULONG64>(static_cast<LONG64>(Status));
}
