// The driver kit's headers, made usable for C++ on x86-64 and completed to what the boundary
// promises. Differences between the kit and the host's headers are settled here and nowhere else.
#pragma once

#include <ntdef.h>
// Only after ntdef.h: the kit's headers rely on its types.
#include <intrin.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// The first two are intrinsics already, and the kit defines them a second time. The kit's list
// routines lack the neighbour check, so they step aside for platform/lists.h.
#define InterlockedBitTestAndSet KitInterlockedBitTestAndSet
#define InterlockedBitTestAndReset KitInterlockedBitTestAndReset
#define InitializeListHead KitInitializeListHead
#define IsListEmpty KitIsListEmpty
#define RemoveEntryList KitRemoveEntryList
#define RemoveHeadList KitRemoveHeadList
#define InsertTailList KitInsertTailList
#include <ntddk.h>
#undef InterlockedBitTestAndSet
#undef InterlockedBitTestAndReset
#undef InitializeListHead
#undef IsListEmpty
#undef RemoveEntryList
#undef RemoveHeadList
#undef InsertTailList

#include <ntstrsafe.h>

// The kit declares it as returning, so that code would have to follow it that nobody reaches.
extern "C" DECLSPEC_IMPORT DECLSPEC_NORETURN NTSTATUS NTAPI
PsTerminateSystemThread(NTSTATUS ExitStatus);

// Declared only in ntifs.h, which C++ cannot include.
extern "C" DECLSPEC_IMPORT NTSTATUS NTAPI ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable,
                                                                PLARGE_INTEGER Timeout);

// Flags newer than the kit.
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24

// The kit declares the priority as an enumeration, which leaves no room for the flag.
#define MdlMappingNoExecute 0x40000000
FORCEINLINE PVOID MmMapLockedPagesSpecifyCache(PMDL Mdl, KPROCESSOR_MODE AccessMode,
                                               MEMORY_CACHING_TYPE CacheType,
                                               PVOID RequestedAddress, ULONG BugCheckOnFailure,
                                               ULONG Priority) {
  return MmMapLockedPagesSpecifyCache(Mdl, AccessMode, CacheType, RequestedAddress,
                                      BugCheckOnFailure, static_cast<MM_PAGE_PRIORITY>(Priority));
}

// Comes from the kit's device-security library, which the cross toolchain does not have:
// device_security.cpp.
extern "C" NTSTATUS IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                         PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                         ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                         PCUNICODE_STRING DefaultSDDLString,
                                         LPCGUID DeviceClassGuid, PDEVICE_OBJECT *DeviceObject);

// Where the host's scheduler may let another thread run.
FORCEINLINE void KiReadPoint(const volatile void *) {
}
FORCEINLINE void KiWritePoint(const volatile void *) {
}
FORCEINLINE void KiWrittenPoint(const volatile void *) {
}

// Code that is needed only until the driver's entry has returned; the system drops it then.
#define INIT_CODE __attribute__((section("INIT")))

// A breakpoint in the driver itself, not in a service that it calls.
#define DbgBreakPoint() __debugbreak()

#ifndef FAST_FAIL_CORRUPT_LIST_ENTRY
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
#endif

[[noreturn]] FORCEINLINE void __fastfail(unsigned int Code) {
  __asm__ volatile("int $0x29" : : "c"(Code) : "memory");
  __builtin_unreachable();
}
