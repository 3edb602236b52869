// Accessors, by the kernel's names, for fields that others read without the writer's lock: every
// store releases what was written before it, every load acquires it.
#pragma once

FORCEINLINE ULONG ReadULongAcquire(const volatile ULONG *Source) {
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE void WriteULongRelease(volatile ULONG *Target, ULONG Value) {
  __atomic_store_n(Target, Value, __ATOMIC_RELEASE);
}
FORCEINLINE LONG ReadAcquire(const volatile LONG *Source) {
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE UCHAR ReadUCharAcquire(const volatile UCHAR *Source) {
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE void WriteUCharRelease(volatile UCHAR *Target, UCHAR Value) {
  __atomic_store_n(Target, Value, __ATOMIC_RELEASE);
}
FORCEINLINE PVOID ReadPointerAcquire(PVOID const volatile *Source) {
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE void WritePointerRelease(PVOID volatile *Target, PVOID Value) {
  __atomic_store_n(Target, Value, __ATOMIC_RELEASE);
}
