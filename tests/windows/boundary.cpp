// Uses every service, record field, macro and value that the boundary gives to driver code, the way
// driver code does. It is compiled on both platforms and linked on Windows, never run.
#include "platform/kernel.h"

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace {

struct Extension {
  LIST_ENTRY Entry;
  KSPIN_LOCK Lock;
  KSPIN_LOCK Inner ACQUIRED_AFTER(Lock);
  KEVENT Event;
  KSEMAPHORE Semaphore;
  ULONG Mode GUARDED_BY(Lock);
  volatile ULONG Flags;
  volatile LONG Count;
  volatile UCHAR Hold;
  PVOID volatile Pointer;
  PVOID Thread;
  LARGE_INTEGER Time;
};

Extension *Get(PDEVICE_OBJECT DeviceObject) {
  return static_cast<Extension *>(DeviceObject->DeviceExtension);
}

void Locks(Extension *Port) {
  KIRQL irql = KeGetCurrentIrql();
  KeInitializeSpinLock(&Port->Lock);
  KeInitializeSpinLock(&Port->Inner);
  irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  Port->Mode = irql < DISPATCH_LEVEL ? APC_LEVEL : PASSIVE_LEVEL;
  KeAcquireSpinLockAtDpcLevel(&Port->Inner);
  KeReleaseSpinLockFromDpcLevel(&Port->Inner);
  KeReleaseSpinLock(&Port->Lock, irql);
}

void Shared(Extension *Port) {
  ULONG flags = ReadULongNoFence(&Port->Flags) | ReadULongAcquire(&Port->Flags);
  WriteULongNoFence(&Port->Flags, flags | 1);
  WriteULongRelease(&Port->Flags, flags & ~1u);
  LONG count = ReadNoFence(&Port->Count) + ReadAcquire(&Port->Count);
  count += InterlockedIncrement(&Port->Count) - InterlockedDecrement(&Port->Count);
  count += InterlockedExchange(&Port->Count, count);
  WriteUCharRelease(&Port->Hold, static_cast<UCHAR>(ReadUCharAcquire(&Port->Hold) + 1));
  PVOID pointer = InterlockedExchangePointer(&Port->Pointer, nullptr);
  if (ReadPointerNoFence(&Port->Pointer) != ReadPointerAcquire(&Port->Pointer)) {
    WritePointerRelease(&Port->Pointer, pointer);
  }
}

void Worker(PVOID Context) {
  Extension *port = static_cast<Extension *>(Context);
  PVOID objects[THREAD_WAIT_OBJECTS] = {&port->Event, &port->Semaphore, port->Thread};
  NTSTATUS status =
      KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
  if (status == STATUS_WAIT_0 || status == STATUS_WAIT_1) {
    PsTerminateSystemThread(STATUS_SUCCESS);
  }
  PsTerminateSystemThread(status);
}

NTSTATUS Dispatcher(Extension *Port) {
  KeInitializeEvent(&Port->Event, NotificationEvent, FALSE);
  KeInitializeEvent(&Port->Event, SynchronizationEvent, TRUE);
  KeInitializeSemaphore(&Port->Semaphore, 0, 0x7FFFFFFF);
  if (KeSetEvent(&Port->Event, IO_NO_INCREMENT, FALSE) == 0 && KeReadStateEvent(&Port->Event)) {
    KeClearEvent(&Port->Event);
  }
  KeReleaseSemaphore(&Port->Semaphore, 0, 1, FALSE);
  KeQuerySystemTime(&Port->Time);
  Port->Time.QuadPart += static_cast<LONGLONG>(Port->Time.LowPart) + Port->Time.u.HighPart;
  HANDLE handle;
  NTSTATUS status =
      PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Worker, Port);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, nullptr, KernelMode, &Port->Thread,
                                     nullptr);
  ZwWaitForSingleObject(handle, FALSE, nullptr);
  ZwClose(handle);
  ObReferenceObject(Port->Thread);
  ObDereferenceObject(Port->Thread);
  ObfReferenceObject(Port->Thread);
  ObfDereferenceObject(Port->Thread);
  PVOID self = KeGetCurrentThread();
  if (self == Port->Thread) {
    return STATUS_INVALID_DEVICE_STATE;
  }
  LARGE_INTEGER timeout;
  timeout.QuadPart = -10000;
  return KeWaitForSingleObject(Port->Thread, Executive, KernelMode, FALSE, &timeout);
}

void Lists(Extension *Port) {
  LIST_ENTRY head;
  InitializeListHead(&head);
  InsertTailList(&head, &Port->Entry);
  while (!IsListEmpty(&head)) {
    PLIST_ENTRY entry = RemoveHeadList(&head);
    Extension *found = CONTAINING_RECORD(entry, Extension, Entry);
    InsertTailList(&head, &found->Entry);
    if (RemoveEntryList(&found->Entry)) {
      DbgBreakPoint();
    }
  }
  if (FIELD_OFFSET(Extension, Entry) != 0) {
    __fastfail(FAST_FAIL_CORRUPT_LIST_ENTRY);
  }
}

PVOID Memory(PIRP Irp, ULONG Length) {
  PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, Length, 0x30304B5A);
  PVOID paged = ExAllocatePoolWithTag(PagedPool, Length, 0x30304B5A);
  if (block == nullptr || paged == nullptr) {
    return nullptr;
  }
  RtlZeroMemory(block, Length);
  RtlFillMemory(block, Length, 0xFF);
  RtlCopyMemory(block, paged, Length);
  ExFreePoolWithTag(paged, 0x30304B5A);
  PMDL mdl = IoAllocateMdl(block, Length, FALSE, FALSE, nullptr);
  PMDL part = IoAllocateMdl(block, PAGE_SIZE, FALSE, FALSE, Irp);
  MmBuildMdlForNonPagedPool(mdl);
  IoBuildPartialMdl(mdl, part, MmGetMdlVirtualAddress(mdl), MmGetMdlByteCount(mdl));
  mdl->Next = part;
  if ((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
    block = mdl->MappedSystemVa;
  } else if ((mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_PARTIAL | MDL_PARTIAL_HAS_BEEN_MAPPED)) !=
             0) {
    block = MmMapLockedPagesSpecifyCache(mdl, KernelMode, MmCached, nullptr, FALSE,
                                         NormalPagePriority | MdlMappingNoExecute);
  } else {
    constexpr ULONG priority =
        static_cast<ULONG>(NormalPagePriority) | static_cast<ULONG>(MdlMappingNoExecute);
    block = MmMapLockedPagesSpecifyCache(part, KernelMode, MmCached, nullptr, FALSE, priority);
  }
  IoFreeMdl(part);
  IoFreeMdl(mdl);
  return block;
}

NTSTATUS Strings(PWSTR Text, SIZE_T Bytes, va_list Arguments) {
  UNICODE_STRING name, other;
  RtlInitUnicodeString(&name, L"\\Device\\VORLIX");
  ANSI_STRING ansi;
  RtlInitAnsiString(&ansi, "VORLIX_RAWPDO");
  ULONG size = RtlxAnsiStringToUnicodeSize(&ansi);
  NTSTATUS status = RtlAnsiStringToUnicodeString(&other, &ansi, TRUE);
  if (NT_SUCCESS(status) && RtlCompareUnicodeString(&name, &other, TRUE) == 0) {
    RtlFreeUnicodeString(&other);
  }
  status = RtlStringCbCopyW(Text, Bytes, L"\\DosDevices\\");
  status = status == STATUS_BUFFER_OVERFLOW ? status : RtlStringCbCatW(Text, Bytes, name.Buffer);
  status = RtlStringCbPrintfW(Text, Bytes, L"%s%d %ws", L"VORLIX", static_cast<int>(size), Text);
  int written = _vsnwprintf(Text, Bytes / sizeof(WCHAR), L"%ws", Arguments);
  return written < 0 ? STATUS_BUFFER_TOO_SMALL : status;
}

NTSTATUS Format(PWSTR Text, SIZE_T Bytes, ...) {
  va_list arguments;
  va_start(arguments, Bytes);
  NTSTATUS status = Strings(Text, Bytes, arguments);
  va_end(arguments);
  return status;
}

typedef NTSTATUS (*QueryValues)(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE Table,
                                PVOID Context, PVOID Environment);

NTSTATUS Registry(PDEVICE_OBJECT Pdo, PWSTR Path, PULONG Value) {
  ULONG fallback = 0;
  RTL_QUERY_REGISTRY_TABLE table[2];
  RtlZeroMemory(table, sizeof(table));
  table[0].QueryRoutine = nullptr;
  table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
  table[0].Name = const_cast<PWSTR>(L"VORLIXBreakOnLoad");
  table[0].EntryContext = Value;
  table[0].DefaultType = REG_DWORD;
  table[0].DefaultData = &fallback;
  table[0].DefaultLength = sizeof(fallback);
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"RtlQueryRegistryValuesEx");
  QueryValues query = reinterpret_cast<QueryValues>(MmGetSystemRoutineAddress(&name));
  ULONG relativeTo = RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL;
  if (query == nullptr) {
    query = RtlQueryRegistryValues;
  }
  NTSTATUS status = query(relativeTo, Path, table, nullptr, nullptr);
  status = RtlQueryRegistryValues(relativeTo, Path, table, nullptr, nullptr);
  HANDLE key;
  status = IoOpenDeviceRegistryKey(Pdo, PLUGPLAY_REGKEY_DEVICE, READ_CONTROL, &key);
  ULONG length;
  alignas(8) UCHAR buffer[64];
  status = ZwQueryValueKey(key, &name, KeyValueFullInformation, buffer, sizeof(buffer), &length);
  PKEY_VALUE_FULL_INFORMATION full = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
  if (full->Type == REG_SZ || full->Type == REG_BINARY || full->Type == REG_QWORD) {
    *Value =
        full->DataOffset + full->DataLength + full->NameLength + full->TitleIndex + full->Name[0];
  }
  ZwClose(key);
  return status;
}

NTSTATUS Completed(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(DeviceObject);
  UNREFERENCED_PARAMETER(Context);
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  return STATUS_MORE_PROCESSING_REQUIRED;
}

void Cancelled(PDEVICE_OBJECT DeviceObject, PIRP Irp) RELEASE(CancelSpinLock) {
  UNREFERENCED_PARAMETER(DeviceObject);
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  Irp->IoStatus.Status = STATUS_CANCELLED;
  Irp->IoStatus.Information = 0;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
}

NTSTATUS Park(PIRP Irp, PLIST_ENTRY Held) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  PDRIVER_CANCEL previous = IoSetCancelRoutine(Irp, Cancelled);
  if (Irp->Cancel && IoSetCancelRoutine(Irp, nullptr) != nullptr && previous == nullptr) {
    IoReleaseCancelSpinLock(irql);
    return STATUS_CANCELLED;
  }
  InsertTailList(Held, &Irp->Tail.Overlay.ListEntry);
  Irp->Tail.Overlay.DriverContext[3] = Held;
  IoMarkIrpPending(Irp);
  IoReleaseCancelSpinLock(irql);
  return STATUS_PENDING;
}

NTSTATUS Forward(PDEVICE_OBJECT Lower, PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  if (location->MajorFunction == IRP_MJ_CLEANUP ||
      location->MajorFunction == IRP_MJ_FLUSH_BUFFERS) {
    IoSkipCurrentIrpStackLocation(Irp);
    return IofCallDriver(Lower, Irp);
  }
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, Completed, nullptr, TRUE, TRUE, TRUE);
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
  next->Control = SL_INVOKE_ON_CANCEL | SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR;
  next->Flags = SL_PENDING_RETURNED;
  return IofCallDriver(Lower, Irp);
}

NTSTATUS OwnRequest(PDEVICE_OBJECT Lower, PFILE_OBJECT File, PVOID Buffer, ULONG Length) {
  PIRP irp = IoAllocateIrp(Lower->StackSize, FALSE);
  if (irp == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  irp->Flags = IRP_BUFFERED_IO | IRP_INPUT_OPERATION | IRP_READ_OPERATION;
  irp->AssociatedIrp.SystemBuffer = Buffer;
  irp->UserBuffer = Buffer;
  irp->MdlAddress = nullptr;
  irp->RequestorMode = KernelMode;
  irp->UserIosb = nullptr;
  irp->UserEvent = nullptr;
  irp->Overlay.AsynchronousParameters.UserApcContext = nullptr;
  irp->Tail.Overlay.OriginalFileObject = File;
  irp->Tail.Overlay.Thread = nullptr;
  IoSetNextIrpStackLocation(irp);
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
  location->DeviceObject = Lower;
  location->FileObject = File;
  location->MajorFunction = IRP_MJ_READ;
  location->MinorFunction = 0;
  location->Parameters.Read.Length = Length;
  location->Parameters.Read.Key = 0;
  location->Parameters.Read.ByteOffset.QuadPart = 0;
  location->CompletionRoutine = Completed;
  location->Context = Lower;
  NTSTATUS status = IofCallDriver(Lower, irp);
  IoCancelIrp(irp);
  IoReuseIrp(irp, STATUS_SUCCESS);
  IoFreeIrp(irp);
  return status;
}

ULONG_PTR Parameters(PIRP Irp) {
  PIO_STACK_LOCATION location = Irp->Tail.Overlay.CurrentStackLocation;
  switch (location->MajorFunction) {
  case IRP_MJ_CREATE:
    return location->Parameters.Create.Options + location->Parameters.Create.ShareAccess +
           location->Parameters.Create.FileAttributes + location->Parameters.Create.EaLength;
  case IRP_MJ_WRITE:
    return location->Parameters.Write.Length + location->Parameters.Write.Key;
  case IRP_MJ_DEVICE_CONTROL:
    if (location->Parameters.DeviceIoControl.IoControlCode ==
        CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_BUFFERED, FILE_ANY_ACCESS)) {
      return reinterpret_cast<ULONG_PTR>(location->Parameters.DeviceIoControl.Type3InputBuffer);
    }
    return location->Parameters.DeviceIoControl.InputBufferLength +
           location->Parameters.DeviceIoControl.OutputBufferLength;
  case IRP_MJ_QUERY_INFORMATION:
    return location->Parameters.QueryFile.Length;
  default:
    return reinterpret_cast<ULONG_PTR>(location->Parameters.Others.Argument1);
  }
}

NTSTATUS PlugAndPlay(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  static const GUID bus = {
      0x5AEF25A0, 0xABAF, 0x419C, {0xBC, 0x99, 8, 0xA, 0x24, 0x16, 0x46, 0xB2}};
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  PVOID answer = ExAllocatePoolWithTag(PagedPool, sizeof(PNP_BUS_INFORMATION), 0x31324B5A);
  switch (location->MinorFunction) {
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    if (location->Parameters.QueryDeviceRelations.Type == BusRelations ||
        location->Parameters.QueryDeviceRelations.Type == TargetDeviceRelation) {
      PDEVICE_RELATIONS relations = static_cast<PDEVICE_RELATIONS>(answer);
      relations->Count = 1;
      relations->Objects[0] = DeviceObject;
    }
    break;
  case IRP_MN_QUERY_CAPABILITIES: {
    PDEVICE_CAPABILITIES capabilities = location->Parameters.DeviceCapabilities.Capabilities;
    capabilities->Size = sizeof(DEVICE_CAPABILITIES);
    capabilities->Version = 1;
    capabilities->RawDeviceOK = 1;
    capabilities->Removable = capabilities->SurpriseRemovalOK = capabilities->UniqueID = 1;
    capabilities->SilentInstall = capabilities->EjectSupported = capabilities->LockSupported = 0;
    capabilities->NoDisplayInUI = capabilities->HardwareDisabled = capabilities->NonDynamic = 0;
    capabilities->Address = capabilities->UINumber = 0xFFFFFFFF;
    capabilities->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    for (int state = PowerSystemSleeping1; state < PowerSystemMaximum; ++state) {
      capabilities->DeviceState[state] = PowerDeviceD3;
    }
    capabilities->SystemWake = PowerSystemUnspecified;
    capabilities->DeviceWake = PowerDeviceUnspecified;
    capabilities->D1Latency = capabilities->D2Latency = capabilities->D3Latency = 0;
    break;
  }
  case IRP_MN_QUERY_ID:
    switch (location->Parameters.QueryId.IdType) {
    case BusQueryDeviceID:
    case BusQueryHardwareIDs:
    case BusQueryCompatibleIDs:
    case BusQueryInstanceID:
      break;
    default:
      return STATUS_NOT_SUPPORTED;
    }
    break;
  case IRP_MN_QUERY_BUS_INFORMATION: {
    PPNP_BUS_INFORMATION information = static_cast<PPNP_BUS_INFORMATION>(answer);
    information->BusTypeGuid = bus;
    information->LegacyBusType = PNPBus;
    information->BusNumber = 0;
    break;
  }
  default:
    break;
  }
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(answer);
  return Irp->IoStatus.Status;
}

constexpr UCHAR kPnpMinors[] = {
    IRP_MN_START_DEVICE,
    IRP_MN_QUERY_REMOVE_DEVICE,
    IRP_MN_REMOVE_DEVICE,
    IRP_MN_CANCEL_REMOVE_DEVICE,
    IRP_MN_STOP_DEVICE,
    IRP_MN_QUERY_STOP_DEVICE,
    IRP_MN_CANCEL_STOP_DEVICE,
    IRP_MN_QUERY_INTERFACE,
    IRP_MN_QUERY_RESOURCES,
    IRP_MN_QUERY_DEVICE_TEXT,
    IRP_MN_SURPRISE_REMOVAL,
    IRP_MN_FILTER_RESOURCE_REQUIREMENTS,
    IRP_MN_QUERY_PNP_DEVICE_STATE,
    IRP_MN_DEVICE_USAGE_NOTIFICATION,
};

NTSTATUS Power(PDEVICE_OBJECT DeviceObject, PDEVICE_OBJECT Lower, PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  POWER_STATE state = location->Parameters.Power.State;
  switch (location->MinorFunction) {
  case IRP_MN_SET_POWER:
    if (location->Parameters.Power.Type == DevicePowerState && state.DeviceState == PowerDeviceD0) {
      state = PoSetPowerState(DeviceObject, DevicePowerState, state);
    } else if (state.SystemState == PowerSystemHibernate) {
      Irp->IoStatus.Status = STATUS_NOT_IMPLEMENTED;
    }
    break;
  case IRP_MN_QUERY_POWER:
  case IRP_MN_WAIT_WAKE:
  case IRP_MN_POWER_SEQUENCE:
    break;
  }
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  return PoCallDriver(Lower, Irp);
}

void Report(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT DeviceObject, PCWSTR Text, ULONG Bytes) {
  if (sizeof(IO_ERROR_LOG_PACKET) + Bytes > ERROR_LOG_MAXIMUM_SIZE) {
    return;
  }
  PVOID object = DeviceObject != nullptr ? static_cast<PVOID>(DeviceObject) : DriverObject;
  PIO_ERROR_LOG_PACKET packet = static_cast<PIO_ERROR_LOG_PACKET>(
      IoAllocateErrorLogEntry(object, static_cast<UCHAR>(sizeof(IO_ERROR_LOG_PACKET) + Bytes)));
  packet->MajorFunctionCode = 0;
  packet->RetryCount = 0;
  packet->DumpDataSize = 0;
  packet->NumberOfStrings = 1;
  packet->StringOffset = offsetof(IO_ERROR_LOG_PACKET, DumpData);
  packet->EventCategory = 0;
  packet->ErrorCode = static_cast<NTSTATUS>(0x40060002);
  packet->UniqueErrorValue = 0;
  packet->FinalStatus = STATUS_SUCCESS;
  packet->SequenceNumber = 0;
  packet->IoControlCode = 0;
  packet->DeviceOffset.QuadPart = 0;
  packet->DumpData[0] = 0;
  RtlCopyMemory(&packet->DumpData, Text, Bytes);
  IoWriteErrorLogEntry(packet);
}

NTSTATUS AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Pdo) {
  PDEVICE_OBJECT device, control, other;
  PFILE_OBJECT file;
  UNICODE_STRING name, link, sddl;
  static const GUID port = {
      0x2046FBBA, 0x7912, 0x40B2, {0xAD, 0xCB, 0x73, 0x16, 0x13, 0x4A, 0xEB, 1}};
  RtlInitUnicodeString(&sddl, L"D:P(A;;GA;;;SY)");
  RtlInitUnicodeString(&name, L"\\Device\\VORLIX1");
  NTSTATUS status =
      IoCreateDevice(DriverObject, sizeof(Extension), nullptr, FILE_DEVICE_SERIAL_PORT,
                     FILE_DEVICE_SECURE_OPEN, FALSE, &device);
  status = IoCreateDeviceSecure(DriverObject, sizeof(Extension), &name, FILE_DEVICE_BUS_EXTENDER,
                                FILE_DEVICE_SECURE_OPEN, FALSE, &sddl, nullptr, &control);
  PDEVICE_OBJECT lower = IoAttachDeviceToDeviceStack(device, Pdo);
  status = IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &file, &other);
  status = IoCreateSymbolicLink(&name, &name);
  status = IoDeleteSymbolicLink(&name);
  status = IoRegisterDeviceInterface(Pdo, &port, nullptr, &link);
  status = IoSetDeviceInterfaceState(&link, TRUE);
  device->Flags |= lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_INRUSH |
                                   DO_POWER_PAGABLE | DO_BUS_ENUMERATED_DEVICE | DO_EXCLUSIVE);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  device->DeviceType = lower->DeviceType != 0 ? lower->DeviceType : FILE_DEVICE_UNKNOWN;
  device->Characteristics = lower->Characteristics;
  device->AlignmentRequirement = lower->AlignmentRequirement;
  control->StackSize = static_cast<CCHAR>(control->StackSize + device->StackSize);
  Get(device)->Pointer = file->FsContext != nullptr ? file->FsContext : file->FsContext2;
  file->FsContext = nullptr;
  if (file->DeviceObject != other || other->DriverObject->DriverName.Length == 0 ||
      device->AttachedDevice != nullptr || device->NextDevice == device) {
    IoDetachDevice(lower);
    IoDeleteDevice(device);
    ObDereferenceObject(file);
  }
  return status;
}

NTSTATUS Dispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  Extension *port = Get(DeviceObject);
  LIST_ENTRY held;
  InitializeListHead(&held);
  PDEVICE_OBJECT lower = static_cast<PDEVICE_OBJECT>(port->Pointer);
  ULONG value = static_cast<ULONG>(Parameters(Irp)) + kPnpMinors[Irp->StackCount & 7];
  WCHAR text[32];
  Locks(port);
  Shared(port);
  Lists(port);
  NTSTATUS statuses[] = {
      Dispatcher(port),
      Format(text, sizeof(text), text),
      Registry(DeviceObject, text, &value),
      Park(Irp, &held),
      Forward(lower, Irp),
      OwnRequest(lower, nullptr, Memory(Irp, value), value),
      PlugAndPlay(DeviceObject, Irp),
      Power(DeviceObject, lower, Irp),
  };
  return statuses[value % 8];
}

void Unload(PDRIVER_OBJECT DriverObject) {
  Report(DriverObject, DriverObject->DeviceObject, L"", sizeof(WCHAR));
}

}  // namespace

extern const NTSTATUS statusValues[];
const NTSTATUS statusValues[] = {
    STATUS_SUCCESS,
    STATUS_WAIT_0,
    STATUS_WAIT_1,
    STATUS_TIMEOUT,
    STATUS_PENDING,
    STATUS_OBJECT_NAME_EXISTS,
    STATUS_BUFFER_OVERFLOW,
    STATUS_NO_MORE_ENTRIES,
    STATUS_DEVICE_BUSY,
    STATUS_UNSUCCESSFUL,
    STATUS_NOT_IMPLEMENTED,
    STATUS_INVALID_HANDLE,
    STATUS_INVALID_PARAMETER,
    STATUS_NO_SUCH_DEVICE,
    STATUS_INVALID_DEVICE_REQUEST,
    STATUS_MORE_PROCESSING_REQUIRED,
    STATUS_ACCESS_DENIED,
    STATUS_BUFFER_TOO_SMALL,
    STATUS_OBJECT_TYPE_MISMATCH,
    STATUS_OBJECT_NAME_INVALID,
    STATUS_OBJECT_NAME_NOT_FOUND,
    STATUS_OBJECT_NAME_COLLISION,
    STATUS_SHARING_VIOLATION,
    STATUS_DELETE_PENDING,
    STATUS_INSUFFICIENT_RESOURCES,
    STATUS_DEVICE_NOT_CONNECTED,
    STATUS_IO_TIMEOUT,
    STATUS_NOT_SUPPORTED,
    STATUS_CANCELLED,
    STATUS_IO_DEVICE_ERROR,
    STATUS_INVALID_DEVICE_STATE,
    STATUS_NO_SUCH_FILE,
    STATUS_DEVICE_REMOVED,
};

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  if (RegistryPath->MaximumLength < RegistryPath->Length) {
    return statusValues[RegistryPath->Length % 4];
  }
  for (int major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
    DriverObject->MajorFunction[major] = Dispatch;
  }
  DriverObject->MajorFunction[IRP_MJ_PNP] = Dispatch;
  DriverObject->MajorFunction[IRP_MJ_POWER] = Dispatch;
  DriverObject->DriverUnload = Unload;
  DriverObject->DriverExtension->AddDevice = AddDevice;
  return STATUS_SUCCESS;
}
