// Counted and bounded strings, and the registry.
#pragma once

#include <cstdarg>

#include "platform/kernel/types.h"

NTKERNELAPI void RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTKERNELAPI void RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
NTKERNELAPI ULONG RtlxAnsiStringToUnicodeSize(PCANSI_STRING AnsiString);
NTKERNELAPI NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                                  PCANSI_STRING SourceString,
                                                  BOOLEAN AllocateDestinationString);
NTKERNELAPI void RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
NTKERNELAPI LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                         BOOLEAN CaseInSensitive);

// The bounded string routines. Sizes are in bytes and include the terminator; a result that does
// not fit is cut, terminated, and reported with STATUS_BUFFER_OVERFLOW.
NTKERNELAPI NTSTATUS RtlStringCbCopyW(PWSTR Destination, SIZE_T DestinationBytes, PCWSTR Source);
NTKERNELAPI NTSTATUS RtlStringCbCatW(PWSTR Destination, SIZE_T DestinationBytes, PCWSTR Source);
NTKERNELAPI NTSTATUS RtlStringCbPrintfW(PWSTR Destination, SIZE_T DestinationBytes, PCWSTR Format,
                                        ...);

// Writes at most Count characters. Returns the number written, or -1 when the text is longer; no
// terminator is written when the text fills the buffer. A null %ws prints as "(null)".
NTKERNELAPI int _vsnwprintf(wchar_t *Buffer, size_t Count, const wchar_t *Format, va_list Args);

NTKERNELAPI PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);

#define REG_SZ 1
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_QWORD 11
#define READ_CONTROL 0x00020000

typedef NTSTATUS (*PRTL_QUERY_REGISTRY_ROUTINE)(PWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                                ULONG ValueLength, PVOID Context,
                                                PVOID EntryContext);
typedef struct _RTL_QUERY_REGISTRY_TABLE {
  PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
  ULONG Flags;
  PWSTR Name;
  PVOID EntryContext;
  ULONG DefaultType;
  PVOID DefaultData;
  ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

#define RTL_REGISTRY_ABSOLUTE 0
#define RTL_REGISTRY_OPTIONAL 0x80000000
#define RTL_QUERY_REGISTRY_DIRECT 0x00000020
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24

NTKERNELAPI NTSTATUS RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path,
                                            PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                                            PVOID Environment);

typedef enum _KEY_VALUE_INFORMATION_CLASS {
  KeyValueBasicInformation,
  KeyValueFullInformation,
  KeyValuePartialInformation
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_FULL_INFORMATION {
  ULONG TitleIndex;
  ULONG Type;
  ULONG DataOffset;
  ULONG DataLength;
  ULONG NameLength;
  WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;

NTKERNELAPI NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                     KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                     PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
