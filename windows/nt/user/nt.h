// What a native program uses of the system: the calls of ntdll that the kit's headers lack. A
// program's Zw… and Nt… calls are the same.
#pragma once

#include "platform/kernel.h"

extern "C" {
DECLSPEC_IMPORT NTSTATUS NTAPI NtCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                                             POBJECT_ATTRIBUTES ObjectAttributes,
                                             EVENT_TYPE EventType, BOOLEAN InitialState);
DECLSPEC_IMPORT NTSTATUS NTAPI NtCancelIoFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock);
DECLSPEC_IMPORT NTSTATUS NTAPI NtDeviceIoControlFile(HANDLE FileHandle, HANDLE Event, PVOID Routine,
                                                     PVOID Context, PIO_STATUS_BLOCK IoStatusBlock,
                                                     ULONG Code, PVOID Input, ULONG InputLength,
                                                     PVOID Output, ULONG OutputLength);
DECLSPEC_IMPORT NTSTATUS NTAPI NtDelayExecution(BOOLEAN Alertable, PLARGE_INTEGER Interval);
DECLSPEC_IMPORT NTSTATUS NTAPI NtQuerySystemTime(PLARGE_INTEGER Time);
DECLSPEC_IMPORT NTSTATUS NTAPI NtShutdownSystem(ULONG Action);
DECLSPEC_IMPORT NTSTATUS NTAPI RtlAdjustPrivilege(ULONG Privilege, BOOLEAN Enable,
                                                  BOOLEAN OfThisThread, PBOOLEAN Was);
}

constexpr ULONG SHUTDOWN_PRIVILEGE = 19;
constexpr ULONG SHUTDOWN_POWER_OFF = 2;
