#include "windows/nt/check/check.h"

constexpr ULONG TAG = 0x6B435856;  // "VXCk"
constexpr LONG MOST_LINES = 20;    // of a check

struct Extension {
  BOOLEAN Filters;  // else the control device
  PDEVICE_OBJECT Lower;
};

static PDRIVER_OBJECT Filtered;  // whose calls are jolted
static volatile LONG Requests;
static volatile LONG Breaches;
static volatile LONG Pending;

static Extension *ExtensionOf(PDEVICE_OBJECT Device) {
  return static_cast<Extension *>(Device->DeviceExtension);
}

// ---- The checks ----------------------------------------------------------------------------

// What is known of a request. Whoever calls down and whoever is called back have it both.
struct Seen {
  volatile LONG Holders;
  PDEVICE_OBJECT Device;
  IO_STACK_LOCATION Location;
  PMDL Mdl;
  PVOID SystemBuffer;
  PVOID UserBuffer;
  KIRQL Irql;
  BOOLEAN ApcsOff;
  // When the call came back:
  NTSTATUS Returned;
  KIRQL IrqlAfter;
  BOOLEAN ApcsOffAfter;
  BOOLEAN WasCompleted;
  // When it was completed:
  volatile LONG Completions;
  NTSTATUS Status;
  ULONG_PTR Information;
  BOOLEAN PendingMarked;
  BOOLEAN CancelRoutine;
  BOOLEAN LocationKept;
  BOOLEAN BuffersKept;
  KIRQL IrqlAtCompletion;
};

static ULONG_PTR RoomOf(const Seen *Seen) {
  switch (Seen->Location.MajorFunction) {
  case IRP_MJ_READ:
    return Seen->Location.Parameters.Read.Length;
  case IRP_MJ_WRITE:
    return Seen->Location.Parameters.Write.Length;
  case IRP_MJ_DEVICE_CONTROL:
    return Seen->Location.Parameters.DeviceIoControl.OutputBufferLength;
  default:
    return static_cast<ULONG_PTR>(-1);
  }
}

struct Check {
  const char *Name;
  bool (*Holds)(const Seen *Seen);
  volatile LONG Broken;
};

// Asked when the call has come back and the request was completed, whichever is later.
static Check Checks[] = {
    {"irql", [](const Seen *s) { return s->IrqlAfter == s->Irql; }, 0},
    {"apcs", [](const Seen *s) { return s->ApcsOffAfter == s->ApcsOff; }, 0},
    {"irql at completion", [](const Seen *s) { return s->IrqlAtCompletion <= DISPATCH_LEVEL; }, 0},
    {"completed once", [](const Seen *s) { return s->Completions == 1; }, 0},
    {"returned before it was completed",
     [](const Seen *s) { return s->Returned == STATUS_PENDING || s->WasCompleted; }, 0},
    {"returned status",
     [](const Seen *s) { return s->Returned == STATUS_PENDING || s->Returned == s->Status; }, 0},
    {"pending mark",
     [](const Seen *s) { return (s->Returned == STATUS_PENDING) == (s->PendingMarked != 0); }, 0},
    {"final status", [](const Seen *s) { return s->Status != STATUS_PENDING; }, 0},
    {"cancel routine", [](const Seen *s) { return s->CancelRoutine == 0; }, 0},
    {"stack location", [](const Seen *s) { return s->LocationKept != 0; }, 0},
    {"buffers", [](const Seen *s) { return s->BuffersKept != 0; }, 0},
    {"information",
     [](const Seen *s) { return NT_ERROR(s->Status) || s->Information <= RoomOf(s); }, 0},
};

static void Break(Check *Check, const char *Text, ULONG Major, NTSTATUS Returned, NTSTATUS Status) {
  InterlockedIncrement(&Breaches);
  if (InterlockedIncrement(&Check->Broken) <= MOST_LINES) {
    DbgPrint("VX: breach %s: %s, major %lx, returned %08lx, status %08lx\n", Check->Name, Text,
             Major, static_cast<ULONG>(Returned), static_cast<ULONG>(Status));
  }
}

// The second of the two holders asks.
static void Let(Seen *Seen) {
  if (InterlockedDecrement(&Seen->Holders) != 0) {
    return;
  }
  for (Check &check : Checks) {
    if (!check.Holds(Seen)) {
      Break(&check, ExtensionOf(Seen->Device)->Filters ? "the port" : "its control device",
            Seen->Location.MajorFunction, Seen->Returned, Seen->Status);
    }
  }
  ObDereferenceObject(Seen->Device);
  ExFreePoolWithTag(Seen, TAG);
}

// ---- Requests ------------------------------------------------------------------------------

static BOOLEAN SameLocation(const IO_STACK_LOCATION *One, const IO_STACK_LOCATION *Other) {
  return static_cast<BOOLEAN>(
      One->MajorFunction == Other->MajorFunction && One->MinorFunction == Other->MinorFunction &&
      One->FileObject == Other->FileObject && One->DeviceObject == Other->DeviceObject &&
      RtlCompareMemory(&One->Parameters, &Other->Parameters, sizeof(One->Parameters)) ==
          sizeof(One->Parameters));
}

static NTSTATUS Completed(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Device);
  auto *seen = static_cast<Seen *>(Context);
  seen->Status = Irp->IoStatus.Status;
  seen->Information = Irp->IoStatus.Information;
  seen->PendingMarked = Irp->PendingReturned;
  seen->CancelRoutine = static_cast<BOOLEAN>(Irp->CancelRoutine != nullptr);
  seen->LocationKept = SameLocation(IoGetCurrentIrpStackLocation(Irp), &seen->Location);
  seen->BuffersKept = static_cast<BOOLEAN>(Irp->MdlAddress == seen->Mdl &&
                                           Irp->AssociatedIrp.SystemBuffer == seen->SystemBuffer &&
                                           Irp->UserBuffer == seen->UserBuffer);
  seen->IrqlAtCompletion = KeGetCurrentIrql();
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  if (InterlockedIncrement(&seen->Completions) == 1) {
    InterlockedDecrement(&Pending);
    Let(seen);
  }
  return STATUS_SUCCESS;
}

static NTSTATUS PassOn(PDEVICE_OBJECT Device, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(ExtensionOf(Device)->Lower, Irp);
}

static NTSTATUS Watch(PDEVICE_OBJECT Device, PIRP Irp) {
  Extension *extension = ExtensionOf(Device);
  auto *seen = static_cast<Seen *>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Seen), TAG));
  if (seen == nullptr) {
    return PassOn(Device, Irp);
  }
  RtlZeroMemory(seen, sizeof(*seen));
  seen->Holders = 2;
  ObReferenceObject(Device);
  seen->Device = Device;
  seen->Location = *IoGetCurrentIrpStackLocation(Irp);
  seen->Mdl = Irp->MdlAddress;
  seen->SystemBuffer = Irp->AssociatedIrp.SystemBuffer;
  seen->UserBuffer = Irp->UserBuffer;
  seen->Irql = KeGetCurrentIrql();
  seen->ApcsOff = KeAreApcsDisabled();
  InterlockedIncrement(&Requests);
  InterlockedIncrement(&Pending);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, Completed, seen, TRUE, TRUE, TRUE);
  NTSTATUS status = IofCallDriver(extension->Lower, Irp);
  seen->Returned = status;
  seen->WasCompleted = static_cast<BOOLEAN>(seen->Completions != 0);
  seen->IrqlAfter = KeGetCurrentIrql();
  seen->ApcsOffAfter = KeAreApcsDisabled();
  Let(seen);
  return status;
}

// ---- Devices -------------------------------------------------------------------------------

// Above the device, with its ways.
static void AttachAbove(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Target, BOOLEAN Filters) {
  PDEVICE_OBJECT device;
  if (!NT_SUCCESS(IoCreateDevice(Driver, sizeof(Extension), nullptr, Target->DeviceType, 0, FALSE,
                                 &device))) {
    return;
  }
  Extension *extension = ExtensionOf(device);
  RtlZeroMemory(extension, sizeof(*extension));
  extension->Filters = Filters;
  extension->Lower = IoAttachDeviceToDeviceStack(device, Target);
  if (extension->Lower == nullptr) {
    IoDeleteDevice(device);
    return;
  }
  device->Flags |= extension->Lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
}

// The filter stands on top by now, and its control device is the last that its driver has made.
static NTSTATUS AddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Physical) {
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(Physical);
  Filtered = top->DriverObject;
  PDEVICE_OBJECT control = Filtered->DeviceObject;
  AttachAbove(Driver, Physical, TRUE);
  if (control != top) {
    AttachAbove(Driver, control, FALSE);
  }
  ObDereferenceObject(top);
  return STATUS_SUCCESS;
}

static NTSTATUS Remove(PDEVICE_OBJECT Device, PIRP Irp) {
  PDEVICE_OBJECT lower = ExtensionOf(Device)->Lower;
  NTSTATUS status = PassOn(Device, Irp);
  IoDetachDevice(lower);
  IoDeleteDevice(Device);
  return status;
}

// ---- The driver ----------------------------------------------------------------------------

static NTSTATUS Complete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

static NTSTATUS ControlRequest(PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (stack->MajorFunction != IRP_MJ_DEVICE_CONTROL) {
    return Complete(Irp, STATUS_SUCCESS, 0);
  }
  PVOID buffer = Irp->AssociatedIrp.SystemBuffer;
  ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
  if (code == IOCTL_VXCHECK_COUNTS &&
      stack->Parameters.DeviceIoControl.OutputBufferLength >= sizeof(VxCheckCounts)) {
    VxCheckCounts counts = {static_cast<uint32_t>(Requests), static_cast<uint32_t>(Pending),
                            static_cast<uint32_t>(Breaches), static_cast<uint32_t>(CheckJolts)};
    RtlCopyMemory(buffer, &counts, sizeof(counts));
    return Complete(Irp, STATUS_SUCCESS, sizeof(counts));
  }
  if (code == IOCTL_VXCHECK_JOLTS && Filtered != nullptr &&
      stack->Parameters.DeviceIoControl.InputBufferLength >= sizeof(uint32_t)) {
    JoltsSet(Filtered, *static_cast<uint32_t *>(buffer));
    return Complete(Irp, STATUS_SUCCESS, 0);
  }
  return Complete(Irp, STATUS_INVALID_PARAMETER, 0);
}

static NTSTATUS Dispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  if (ExtensionOf(Device)->Lower == nullptr) {
    return ControlRequest(Irp);
  }
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (stack->MajorFunction == IRP_MJ_PNP && stack->MinorFunction == IRP_MN_REMOVE_DEVICE) {
    return Remove(Device, Irp);
  }
  return Watch(Device, Irp);
}

static NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  return PoCallDriver(ExtensionOf(Device)->Lower, Irp);
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  UNREFERENCED_PARAMETER(RegistryPath);
  for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
    DriverObject->MajorFunction[major] = Dispatch;
  }
  DriverObject->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  DriverObject->DriverExtension->AddDevice = AddDevice;
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, VXCHECK_DEVICE);
  PDEVICE_OBJECT control;
  NTSTATUS status = IoCreateDevice(DriverObject, sizeof(Extension), &name, FILE_DEVICE_UNKNOWN,
                                   FILE_DEVICE_SECURE_OPEN, FALSE, &control);
  if (NT_SUCCESS(status)) {
    RtlZeroMemory(ExtensionOf(control), sizeof(Extension));
    control->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  }
  return status;
}
