// Accessors, by the kernel's names, for fields that others read without the writer's lock: every
// store releases what was written before it, every load acquires it.
#pragma once

FORCEINLINE ULONG ReadULongAcquire(const volatile ULONG *Source) {
  KiReadPoint(Source);
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE void WriteULongRelease(volatile ULONG *Target, ULONG Value) {
  KiWritePoint(Target);
  __atomic_store_n(Target, Value, __ATOMIC_RELEASE);
  KiWrittenPoint(Target);
}
FORCEINLINE LONG ReadAcquire(const volatile LONG *Source) {
  KiReadPoint(Source);
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE UCHAR ReadUCharAcquire(const volatile UCHAR *Source) {
  KiReadPoint(Source);
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE void WriteUCharRelease(volatile UCHAR *Target, UCHAR Value) {
  KiWritePoint(Target);
  __atomic_store_n(Target, Value, __ATOMIC_RELEASE);
  KiWrittenPoint(Target);
}
FORCEINLINE PVOID ReadPointerAcquire(PVOID const volatile *Source) {
  KiReadPoint(Source);
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE void WritePointerRelease(PVOID volatile *Target, PVOID Value) {
  KiWritePoint(Target);
  __atomic_store_n(Target, Value, __ATOMIC_RELEASE);
  KiWrittenPoint(Target);
}
