// The I/O manager: driver, device and file objects, request packets and their stack locations.
// Every record has the size and the field offsets of the real one (platform/layout.h checks).
#pragma once

#include "platform/kernel/memory.h"
#include "platform/kernel/pnp_types.h"
#include "platform/kernel/sync.h"
#include "platform/kernel/types.h"

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

#define SL_PENDING_RETURNED 0x01
#define SL_ERROR_RETURNED 0x02
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

#define IRP_BUFFERED_IO 0x00000010
#define IRP_DEALLOCATE_BUFFER 0x00000020
#define IRP_INPUT_OPERATION 0x00000040
#define IRP_READ_OPERATION 0x00000100
#define IRP_WRITE_OPERATION 0x00000200
#define IRP_DEFER_IO_COMPLETION 0x00000800

#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_DEVICE_INITIALIZING 0x00000080
#define DO_POWER_INRUSH 0x00004000
#define DO_POWER_PAGABLE 0x00002000
#define DO_BUS_ENUMERATED_DEVICE 0x00001000

#define FILE_DEVICE_SERIAL_PORT 0x0000001b
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_BUS_EXTENDER 0x0000002a
#define FILE_DEVICE_SECURE_OPEN 0x00000100
#define FILE_ALL_ACCESS 0x001F01FF

#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0
#define CTL_CODE(DeviceType, Function, Method, Access) \
  (static_cast<ULONG>(((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method)))

typedef NTSTATUS (*PDRIVER_INITIALIZE)(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef NTSTATUS (*PDRIVER_ADD_DEVICE)(PDRIVER_OBJECT DriverObject,
                                       PDEVICE_OBJECT PhysicalDeviceObject);
typedef NTSTATUS (*PDRIVER_DISPATCH)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef void (*PDRIVER_STARTIO)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef void (*PDRIVER_UNLOAD)(PDRIVER_OBJECT DriverObject);
typedef void (*PDRIVER_CANCEL)(PDEVICE_OBJECT DeviceObject, PIRP Irp);
typedef NTSTATUS (*PIO_COMPLETION_ROUTINE)(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

typedef struct _DRIVER_EXTENSION {
  PDRIVER_OBJECT DriverObject;
  PDRIVER_ADD_DEVICE AddDevice;
  ULONG Count;
  UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

typedef struct _DRIVER_OBJECT {
  CSHORT Type;
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;
  ULONG Flags;
  PVOID DriverStart;
  ULONG DriverSize;
  PVOID DriverSection;
  PDRIVER_EXTENSION DriverExtension;
  UNICODE_STRING DriverName;
  PUNICODE_STRING HardwareDatabase;
  PVOID FastIoDispatch;
  PDRIVER_INITIALIZE DriverInit;
  PDRIVER_STARTIO DriverStartIo;
  PDRIVER_UNLOAD DriverUnload;
  PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT;

typedef struct alignas(16) _DEVICE_OBJECT {
  CSHORT Type;
  USHORT Size;
  LONG ReferenceCount;
  PDRIVER_OBJECT DriverObject;
  PDEVICE_OBJECT NextDevice;
  PDEVICE_OBJECT AttachedDevice;
  PIRP CurrentIrp;
  PVOID Timer;
  ULONG Flags;
  ULONG Characteristics;
  PVOID Vpb;
  PVOID DeviceExtension;
  DEVICE_TYPE DeviceType;
  CCHAR StackSize;
  ULONG_PTR Queue[9];
  ULONG AlignmentRequirement;
  ULONG_PTR DeviceQueue[5];
  ULONG_PTR Dpc[8];
  ULONG ActiveThreadCount;
  PVOID SecurityDescriptor;
  KEVENT DeviceLock;
  USHORT SectorSize;
  USHORT Spare1;
  PVOID DeviceObjectExtension;
  PVOID Reserved;
} DEVICE_OBJECT;

typedef struct _FILE_OBJECT {
  CSHORT Type;
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;
  PVOID Vpb;
  PVOID FsContext;
  PVOID FsContext2;
  PVOID SectionObjectPointer;
  PVOID PrivateCacheMap;
  NTSTATUS FinalStatus;
  PFILE_OBJECT RelatedFileObject;
  BOOLEAN LockOperation;
  BOOLEAN DeletePending;
  BOOLEAN ReadAccess;
  BOOLEAN WriteAccess;
  BOOLEAN DeleteAccess;
  BOOLEAN SharedRead;
  BOOLEAN SharedWrite;
  BOOLEAN SharedDelete;
  ULONG Flags;
  UNICODE_STRING FileName;
  LARGE_INTEGER CurrentByteOffset;
  ULONG Waiters;
  ULONG Busy;
  PVOID LastLock;
  KEVENT Lock;
  KEVENT Event;
  PVOID CompletionContext;
  KSPIN_LOCK IrpListLock;
  LIST_ENTRY IrpList;
  PVOID FileObjectExtension;
} FILE_OBJECT;

typedef struct _IO_STACK_LOCATION {
  UCHAR MajorFunction;
  UCHAR MinorFunction;
  UCHAR Flags;
  UCHAR Control;
  union {
    struct {
      PVOID SecurityContext;
      ULONG Options;
      alignas(8) USHORT FileAttributes;
      USHORT ShareAccess;
      alignas(8) ULONG EaLength;
    } Create;
    struct {
      ULONG Length;
      alignas(8) ULONG Key;
      LARGE_INTEGER ByteOffset;
    } Read;
    struct {
      ULONG Length;
      alignas(8) ULONG Key;
      LARGE_INTEGER ByteOffset;
    } Write;
    struct {
      ULONG OutputBufferLength;
      alignas(8) ULONG InputBufferLength;
      alignas(8) ULONG IoControlCode;
      PVOID Type3InputBuffer;
    } DeviceIoControl;
    struct {
      ULONG Length;
      alignas(8) ULONG FileInformationClass;
    } QueryFile;
    struct {
      DEVICE_RELATION_TYPE Type;
    } QueryDeviceRelations;
    struct {
      PDEVICE_CAPABILITIES Capabilities;
    } DeviceCapabilities;
    struct {
      BUS_QUERY_ID_TYPE IdType;
    } QueryId;
    struct {
      DEVICE_TEXT_TYPE DeviceTextType;
      alignas(8) ULONG LocaleId;
    } QueryDeviceText;
    struct {
      BOOLEAN InPath;
      BOOLEAN Reserved[3];
      alignas(8) DEVICE_USAGE_NOTIFICATION_TYPE Type;
    } UsageNotification;
    struct {
      const GUID *InterfaceType;
      USHORT Size;
      USHORT Version;
      PVOID Interface;
      PVOID InterfaceSpecificData;
    } QueryInterface;
    struct {
      PVOID IoResourceRequirementList;
    } FilterResourceRequirements;
    struct {
      ULONG_PTR ProviderId;
      PVOID DataPath;
      ULONG BufferSize;
      PVOID Buffer;
    } WMI;
    struct {
      ULONG SystemContext;
      alignas(8) POWER_STATE_TYPE Type;
      alignas(8) POWER_STATE State;
      alignas(8) POWER_ACTION ShutdownType;
    } Power;
    struct {
      PVOID AllocatedResources;
      PVOID AllocatedResourcesTranslated;
    } StartDevice;
    struct {
      PVOID Argument1;
      PVOID Argument2;
      PVOID Argument3;
      PVOID Argument4;
    } Others;
  } Parameters;
  PDEVICE_OBJECT DeviceObject;
  PFILE_OBJECT FileObject;
  PIO_COMPLETION_ROUTINE CompletionRoutine;
  PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

typedef struct _IRP {
  CSHORT Type;
  USHORT Size;
  USHORT AllocationProcessorNumber;
  USHORT Reserved;
  PMDL MdlAddress;
  ULONG Flags;
  union {
    struct _IRP *MasterIrp;
    LONG IrpCount;
    PVOID SystemBuffer;
  } AssociatedIrp;
  LIST_ENTRY ThreadListEntry;
  IO_STATUS_BLOCK IoStatus;
  KPROCESSOR_MODE RequestorMode;
  BOOLEAN PendingReturned;
  CHAR StackCount;
  CHAR CurrentLocation;
  BOOLEAN Cancel;
  KIRQL CancelIrql;
  CCHAR ApcEnvironment;
  UCHAR AllocationFlags;
  PIO_STATUS_BLOCK UserIosb;
  PKEVENT UserEvent;
  union {
    struct {
      PVOID UserApcRoutine;
      PVOID UserApcContext;
    } AsynchronousParameters;
    LARGE_INTEGER AllocationSize;
  } Overlay;
  volatile PDRIVER_CANCEL CancelRoutine;
  PVOID UserBuffer;
  union {
    struct {
      PVOID DriverContext[4];
      PETHREAD Thread;
      PCHAR AuxiliaryBuffer;
      struct {
        LIST_ENTRY ListEntry;
        union {
          PIO_STACK_LOCATION CurrentStackLocation;
          ULONG PacketType;
        };
      };
      PFILE_OBJECT OriginalFileObject;
      PVOID IrpExtension;
    } Overlay;
    UCHAR Apc[88];
    PVOID CompletionKey;
  } Tail;
} IRP;

typedef struct _IO_ERROR_LOG_PACKET {
  UCHAR MajorFunctionCode;
  UCHAR RetryCount;
  USHORT DumpDataSize;
  USHORT NumberOfStrings;
  USHORT StringOffset;
  USHORT EventCategory;
  NTSTATUS ErrorCode;
  ULONG UniqueErrorValue;
  NTSTATUS FinalStatus;
  ULONG SequenceNumber;
  ULONG IoControlCode;
  LARGE_INTEGER DeviceOffset;
  ULONG DumpData[1];
} IO_ERROR_LOG_PACKET, *PIO_ERROR_LOG_PACKET;
#define ERROR_LOG_MAXIMUM_SIZE 240

// The one system-wide cancel spin lock, as a name for the analysis; it is never addressed.
struct CAPABILITY("cancel spin lock") CANCEL_SPIN_LOCK {
  char Unused;
};
extern CANCEL_SPIN_LOCK CancelSpinLock;

NTKERNELAPI void IoAcquireCancelSpinLock(PKIRQL Irql) ACQUIRE(CancelSpinLock);
NTKERNELAPI void IoReleaseCancelSpinLock(KIRQL Irql) RELEASE(CancelSpinLock);
NTKERNELAPI BOOLEAN IoCancelIrp(PIRP Irp) EXCLUDES(CancelSpinLock);

NTKERNELAPI NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) EXCLUDES(CancelSpinLock);
NTKERNELAPI void IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) EXCLUDES(CancelSpinLock);
NTKERNELAPI PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
NTKERNELAPI void IoFreeIrp(PIRP Irp);
NTKERNELAPI void IoReuseIrp(PIRP Irp, NTSTATUS Status);

NTKERNELAPI NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                    PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                    ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                    PDEVICE_OBJECT *DeviceObject);
NTKERNELAPI NTSTATUS IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                          PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                          ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                          PCUNICODE_STRING DefaultSDDLString,
                                          LPCGUID DeviceClassGuid, PDEVICE_OBJECT *DeviceObject);
NTKERNELAPI void IoDeleteDevice(PDEVICE_OBJECT DeviceObject);
NTKERNELAPI PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice,
                                                       PDEVICE_OBJECT TargetDevice);
NTKERNELAPI void IoDetachDevice(PDEVICE_OBJECT TargetDevice);
NTKERNELAPI NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                              PFILE_OBJECT *FileObject,
                                              PDEVICE_OBJECT *DeviceObject);
NTKERNELAPI NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName,
                                          PUNICODE_STRING DeviceName);
NTKERNELAPI NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName);
NTKERNELAPI NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject,
                                               const GUID *InterfaceClassGuid,
                                               PUNICODE_STRING ReferenceString,
                                               PUNICODE_STRING SymbolicLinkName);
NTKERNELAPI NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable);
NTKERNELAPI PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize);
NTKERNELAPI void IoWriteErrorLogEntry(PVOID ElEntry);

#define PLUGPLAY_REGKEY_DEVICE 1
NTKERNELAPI NTSTATUS IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                             ACCESS_MASK DesiredAccess, PHANDLE DeviceRegKey);

// A packet's owner moves it through its locations; a driver that traces a packet which is on its
// way may look at the pointer's value meanwhile, so it is read and written whole.
FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
  return __atomic_load_n(&Irp->Tail.Overlay.CurrentStackLocation, __ATOMIC_RELAXED);
}

FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
  return IoGetCurrentIrpStackLocation(Irp) - 1;
}

FORCEINLINE void IopMoveStackLocation(PIRP Irp, int Locations) {
  Irp->CurrentLocation = static_cast<CHAR>(Irp->CurrentLocation + Locations);
  __atomic_store_n(&Irp->Tail.Overlay.CurrentStackLocation,
                   IoGetCurrentIrpStackLocation(Irp) + Locations, __ATOMIC_RELAXED);
}

FORCEINLINE void IoSkipCurrentIrpStackLocation(PIRP Irp) {
  IopMoveStackLocation(Irp, 1);
}

FORCEINLINE void IoSetNextIrpStackLocation(PIRP Irp) {
  IopMoveStackLocation(Irp, -1);
}

// Everything up to the completion routine; the next location's Control is cleared.
FORCEINLINE void IoCopyCurrentIrpStackLocationToNext(PIRP Irp) {
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
  RtlCopyMemory(next, IoGetCurrentIrpStackLocation(Irp),
                offsetof(IO_STACK_LOCATION, CompletionRoutine));
  next->Control = 0;
}

FORCEINLINE void IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE CompletionRoutine,
                                        PVOID Context, BOOLEAN InvokeOnSuccess,
                                        BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel) {
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
  next->CompletionRoutine = CompletionRoutine;
  next->Context = Context;
  next->Control = static_cast<UCHAR>((InvokeOnSuccess ? SL_INVOKE_ON_SUCCESS : 0) |
                                     (InvokeOnError ? SL_INVOKE_ON_ERROR : 0) |
                                     (InvokeOnCancel ? SL_INVOKE_ON_CANCEL : 0));
}

// The model looks at who marks a packet and who makes it cancellable.
NTKERNELAPI void KiMarkPendingPoint(PIRP Irp);
NTKERNELAPI void KiCancelRoutinePoint(PIRP Irp, PDRIVER_CANCEL CancelRoutine);
NTKERNELAPI void KiCancelRoutineSetPoint(PIRP Irp);

FORCEINLINE void IoMarkIrpPending(PIRP Irp) {
  KiMarkPendingPoint(Irp);
  IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
}

FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL CancelRoutine) {
  KiCancelRoutinePoint(Irp, CancelRoutine);
  PDRIVER_CANCEL before = __atomic_exchange_n(&Irp->CancelRoutine, CancelRoutine, __ATOMIC_SEQ_CST);
  KiCancelRoutineSetPoint(Irp);
  return before;
}
