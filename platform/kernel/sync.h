// IRQL, spin locks, dispatcher objects, threads and interlocked operations.
#pragma once

#include "platform/annotations.h"
#include "platform/kernel/types.h"

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2

// The kernel's spin lock is one pointer-sized word; here it is also a capability for the analysis.
typedef struct CAPABILITY("spin lock") _KSPIN_LOCK {
  ULONG_PTR Word;
} KSPIN_LOCK, *PKSPIN_LOCK;

NTKERNELAPI KIRQL KeGetCurrentIrql(void);
NTKERNELAPI void KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) ACQUIRE(SpinLock);
NTKERNELAPI void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) RELEASE(SpinLock);
NTKERNELAPI void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) ACQUIRE(SpinLock);
NTKERNELAPI void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) RELEASE(SpinLock);

typedef struct _DISPATCHER_HEADER {
  UCHAR Type;
  UCHAR Reserved[3];
  LONG SignalState;
  LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER;

typedef struct _KEVENT {
  DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
  DISPATCHER_HEADER Header;
  LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;
typedef enum _KWAIT_REASON { Executive, FreePage, UserRequest = 6 } KWAIT_REASON;
typedef struct _KWAIT_BLOCK *PKWAIT_BLOCK;

#define IO_NO_INCREMENT 0
#define THREAD_ALL_ACCESS 0x1FFFFF
#define THREAD_WAIT_OBJECTS 3

NTKERNELAPI void KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI void KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG KeReadStateEvent(PRKEVENT Event);
NTKERNELAPI void KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
NTKERNELAPI LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment,
                                    BOOLEAN Wait);
NTKERNELAPI NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                           KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                           PLARGE_INTEGER Timeout);
NTKERNELAPI NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                              KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                              BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                              PKWAIT_BLOCK WaitBlockArray);
NTKERNELAPI void KeQuerySystemTime(PLARGE_INTEGER CurrentTime);

typedef void (*PKSTART_ROUTINE)(PVOID StartContext);
NTKERNELAPI NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                          POBJECT_ATTRIBUTES ObjectAttributes, HANDLE ProcessHandle,
                                          PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                                          PVOID StartContext);
extern "C" [[noreturn]] NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);
NTKERNELAPI PKTHREAD KeGetCurrentThread(void);
NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                               POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                               PVOID *Object, PVOID HandleInformation);
NTKERNELAPI LONG_PTR ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
NTKERNELAPI NTSTATUS ZwClose(HANDLE Handle);
NTKERNELAPI NTSTATUS ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable,
                                           PLARGE_INTEGER Timeout);

// Points at which the scheduler may let another thread run: before and after every interlocked
// operation and atomic write, before every atomic read. What follows an operation may already be
// another thread's to free, so the points behind one only name the target.
NTKERNELAPI void KiInterlockPoint(const volatile void *Target);
NTKERNELAPI void KiInterlockedPoint(const volatile void *Target);
NTKERNELAPI void KiReadPoint(const volatile void *Source);
NTKERNELAPI void KiWritePoint(const volatile void *Target);
NTKERNELAPI void KiWrittenPoint(const volatile void *Target);

FORCEINLINE LONG InterlockedIncrement(volatile LONG *Target) {
  KiInterlockPoint(Target);
  LONG value = __atomic_add_fetch(Target, 1, __ATOMIC_SEQ_CST);
  KiInterlockedPoint(Target);
  return value;
}
FORCEINLINE LONG InterlockedDecrement(volatile LONG *Target) {
  KiInterlockPoint(Target);
  LONG value = __atomic_sub_fetch(Target, 1, __ATOMIC_SEQ_CST);
  KiInterlockedPoint(Target);
  return value;
}
FORCEINLINE LONG InterlockedExchange(volatile LONG *Target, LONG Value) {
  KiInterlockPoint(Target);
  LONG before = __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
  KiInterlockedPoint(Target);
  return before;
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile *Target, PVOID Value) {
  KiInterlockPoint(Target);
  PVOID before = __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
  KiInterlockedPoint(Target);
  return before;
}

// The debugger break and the fail-fast exit are instructions on the target, hooks here.
NTKERNELAPI void DbgBreakPoint(void);
extern "C" [[noreturn]] void __fastfail(unsigned int Code);
#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
