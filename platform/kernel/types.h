// Basic kernel types and status values, as the driver kit gives them on 64-bit systems.
#pragma once

#include <cstddef>
#include <cstdint>

#define NTAPI
#define FASTCALL
#define NTKERNELAPI extern "C"
#define FORCEINLINE inline
#define INIT_CODE  // nothing is dropped here
#define VOID void
#define CONST const
#define DECLSPEC_NORETURN [[noreturn]]
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define ANYSIZE_ARRAY 1
#define TRUE 1
#define FALSE 0

typedef char CHAR, *PCHAR, CCHAR;
typedef const char *PCSTR, *PCSZ;
typedef unsigned char UCHAR, *PUCHAR, BOOLEAN, *PBOOLEAN, KIRQL, *PKIRQL;
typedef int16_t SHORT, CSHORT;
typedef uint16_t USHORT, *PUSHORT;
typedef int32_t LONG, *PLONG, NTSTATUS, KPRIORITY;
typedef uint32_t ULONG, *PULONG, ACCESS_MASK, DEVICE_TYPE;
typedef int64_t LONGLONG, LONG64, LONG_PTR;
typedef uint64_t ULONGLONG, ULONG64, ULONG_PTR, SIZE_T, *PULONG_PTR;
typedef void *PVOID, *HANDLE, **PHANDLE;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR;
typedef const wchar_t *PCWSTR, *PCWCH;
typedef CCHAR KPROCESSOR_MODE;

static_assert(sizeof(WCHAR) == 2, "compile with -fshort-wchar");

enum MODE { KernelMode, UserMode, MaximumMode };

typedef union _LARGE_INTEGER {
  struct {
    ULONG LowPart;
    LONG HighPart;
  };
  struct {
    ULONG LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _LIST_ENTRY {
  struct _LIST_ENTRY *Flink;
  struct _LIST_ENTRY *Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _UNICODE_STRING {
  USHORT Length;         // bytes, without a terminator
  USHORT MaximumLength;  // bytes
  PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING *PCUNICODE_STRING;

typedef struct _STRING {
  USHORT Length;
  USHORT MaximumLength;
  PCHAR Buffer;
} ANSI_STRING, *PANSI_STRING;
typedef const ANSI_STRING *PCANSI_STRING;

typedef struct _GUID {
  ULONG Data1;
  USHORT Data2;
  USHORT Data3;
  UCHAR Data4[8];
} GUID;
typedef const GUID *LPCGUID;

typedef struct _IO_STATUS_BLOCK {
  union {
    NTSTATUS Status;
    PVOID Pointer;
  };
  ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef struct _OBJECT_ATTRIBUTES {
  ULONG Length;
  HANDLE RootDirectory;
  PUNICODE_STRING ObjectName;
  ULONG Attributes;
  PVOID SecurityDescriptor;
  PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
#define OBJ_KERNEL_HANDLE 0x00000200L
typedef struct _CLIENT_ID CLIENT_ID, *PCLIENT_ID;
typedef struct _OBJECT_TYPE *POBJECT_TYPE;
typedef struct _KTHREAD *PKTHREAD, *PETHREAD;
typedef struct _DEVICE_OBJECT *PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT *PDRIVER_OBJECT;
typedef struct _FILE_OBJECT *PFILE_OBJECT;
typedef struct _IRP *PIRP;
typedef struct _MDL *PMDL;

#define CONTAINING_RECORD(address, type, field) \
  (reinterpret_cast<type *>(reinterpret_cast<PCHAR>(address) - offsetof(type, field)))
#define FIELD_OFFSET(type, field) (static_cast<LONG>(offsetof(type, field)))
#define RtlZeroMemory(d, n) __builtin_memset((d), 0, (n))
#define RtlFillMemory(d, n, v) __builtin_memset((d), (v), (n))
#define RtlCopyMemory(d, s, n) KiCopyMemory((d), (s), (n))

extern "C" [[noreturn]] void KiCopyOverlaps(const void *Destination);
FORCEINLINE void KiCopyMemory(void *Destination, const void *Source, SIZE_T Bytes) {
  auto to = reinterpret_cast<ULONG_PTR>(Destination);
  auto from = reinterpret_cast<ULONG_PTR>(Source);
  if (to - from < Bytes || from - to < Bytes) {
    KiCopyOverlaps(Destination);
  }
  __builtin_memcpy(Destination, Source, Bytes);
}

// Checked wherever the model runs; compiled out of a release image.
extern "C" [[noreturn]] void KiAssertionFailed(const char *Expression);
#define NT_ASSERT(e) ((e) ? static_cast<void>(0) : KiAssertionFailed(#e))

#define NT_SUCCESS(s) (static_cast<NTSTATUS>(s) >= 0)

#define STATUS_SUCCESS (static_cast<NTSTATUS>(0x00000000))
#define STATUS_WAIT_0 (static_cast<NTSTATUS>(0x00000000))
#define STATUS_WAIT_1 (static_cast<NTSTATUS>(0x00000001))
#define STATUS_TIMEOUT (static_cast<NTSTATUS>(0x00000102))
#define STATUS_PENDING (static_cast<NTSTATUS>(0x00000103))
#define STATUS_OBJECT_NAME_EXISTS (static_cast<NTSTATUS>(0x40000000))
#define STATUS_BUFFER_OVERFLOW (static_cast<NTSTATUS>(0x80000005))
#define STATUS_NO_MORE_ENTRIES (static_cast<NTSTATUS>(0x8000001A))
#define STATUS_DEVICE_BUSY (static_cast<NTSTATUS>(0x80000011))
#define STATUS_UNSUCCESSFUL (static_cast<NTSTATUS>(0xC0000001))
#define STATUS_NOT_IMPLEMENTED (static_cast<NTSTATUS>(0xC0000002))
#define STATUS_INVALID_HANDLE (static_cast<NTSTATUS>(0xC0000008))
#define STATUS_INVALID_PARAMETER (static_cast<NTSTATUS>(0xC000000D))
#define STATUS_NO_SUCH_DEVICE (static_cast<NTSTATUS>(0xC000000E))
#define STATUS_INVALID_DEVICE_REQUEST (static_cast<NTSTATUS>(0xC0000010))
#define STATUS_MORE_PROCESSING_REQUIRED (static_cast<NTSTATUS>(0xC0000016))
#define STATUS_ACCESS_DENIED (static_cast<NTSTATUS>(0xC0000022))
#define STATUS_BUFFER_TOO_SMALL (static_cast<NTSTATUS>(0xC0000023))
#define STATUS_OBJECT_TYPE_MISMATCH (static_cast<NTSTATUS>(0xC0000024))
#define STATUS_OBJECT_NAME_INVALID (static_cast<NTSTATUS>(0xC0000033))
#define STATUS_OBJECT_NAME_NOT_FOUND (static_cast<NTSTATUS>(0xC0000034))
#define STATUS_OBJECT_NAME_COLLISION (static_cast<NTSTATUS>(0xC0000035))
#define STATUS_SHARING_VIOLATION (static_cast<NTSTATUS>(0xC0000043))
#define STATUS_DELETE_PENDING (static_cast<NTSTATUS>(0xC0000056))
#define STATUS_INSUFFICIENT_RESOURCES (static_cast<NTSTATUS>(0xC000009A))
#define STATUS_DEVICE_NOT_CONNECTED (static_cast<NTSTATUS>(0xC000009D))
#define STATUS_IO_TIMEOUT (static_cast<NTSTATUS>(0xC00000B5))
#define STATUS_NOT_SUPPORTED (static_cast<NTSTATUS>(0xC00000BB))
#define STATUS_CANCELLED (static_cast<NTSTATUS>(0xC0000120))
#define STATUS_IO_DEVICE_ERROR (static_cast<NTSTATUS>(0xC0000185))
#define STATUS_INVALID_DEVICE_STATE (static_cast<NTSTATUS>(0xC0000184))
#define STATUS_NO_SUCH_FILE (static_cast<NTSTATUS>(0xC000000F))
#define STATUS_DEVICE_REMOVED (static_cast<NTSTATUS>(0xC00002B6))
