#include "tests/support/lower_port.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include "platform/model/causality.h"
#include "platform/model/irql.h"

bool LowersByDpc;
static LowerPort *Next;

// The order in which things reach a port matters, so the schedules are told of it.
struct PortGuard {
  PortGuard(LowerPort *Port, Access How) : Held(Port->Mutex) {
    CausalTouch(&Port->Mutex, How);
  }
  std::lock_guard<std::mutex> Held;
};

struct LowerExtension {
  LowerPort *Port;
};

static LowerPort *PortOfDevice(PDEVICE_OBJECT Device) {
  return static_cast<LowerExtension *>(Device->DeviceExtension)->Port;
}

void LowerNext(LowerPort *Port) {
  Next = Port;
}

static char *BufferOf(PIRP Irp) {
  PMDL mdl = Irp->MdlAddress;
  if (mdl == nullptr) {
    return static_cast<char *>(Irp->AssociatedIrp.SystemBuffer);
  }
  if ((mdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) != 0) {
    return static_cast<char *>(mdl->MappedSystemVa);
  }
  return static_cast<char *>(MmMapLockedPagesSpecifyCache(
      mdl, KernelMode, MmCached, nullptr, FALSE, NormalPagePriority | MdlMappingNoExecute));
}

// A removal waits for every request but those of Plug and Play, until it has been completed or, of
// power, passed on. False: it has begun, and the request is to be refused; not by a device outside
// of the stack, whose handles outlive it.
static bool Enter(LowerPort *Port) {
  std::lock_guard<std::mutex> guard(Port->Mutex);
  ++Port->Requests;
  return !Port->Waited || Port->Lower == nullptr;
}

static void Leave(LowerPort *Port) {
  bool last;
  {
    std::lock_guard<std::mutex> guard(Port->Mutex);
    last = --Port->Requests == 0 && Port->Waited;
  }
  if (last) {
    KeSetEvent(&Port->Idle, IO_NO_INCREMENT, FALSE);
  }
}

static void AwaitNoRequests(LowerPort *Port) {
  bool idle;
  {
    std::lock_guard<std::mutex> guard(Port->Mutex);
    Port->Waited = true;
    idle = Port->Requests == 0;
  }
  if (!idle) {
    KeWaitForSingleObject(&Port->Idle, Executive, KernelMode, FALSE, nullptr);
  }
}

// False when the bytes of a write cannot be had.
static bool Record(LowerPort *Port, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  LowerSeen seen = {};
  seen.Major = stack->MajorFunction;
  seen.Minor = stack->MinorFunction;
  seen.Status = Irp->IoStatus.Status;
  seen.Covered = stack->DeviceObject->AttachedDevice != nullptr;
  seen.Cancel = Irp->Cancel;
  if (stack->FileObject != nullptr) {
    seen.HasFile = true;
    seen.FsContext = ReadPointerAcquire(&stack->FileObject->FsContext);
  }
  if (seen.Major == IRP_MJ_READ || seen.Major == IRP_MJ_WRITE) {
    seen.Length = stack->Parameters.Read.Length;
    if (seen.Major == IRP_MJ_WRITE && seen.Length != 0) {
      const char *bytes = BufferOf(Irp);
      if (bytes == nullptr) {
        return false;
      }
      seen.Bytes.assign(bytes, seen.Length);
    }
  }
  if (seen.Major == IRP_MJ_DEVICE_CONTROL) {
    seen.ControlCode = stack->Parameters.DeviceIoControl.IoControlCode;
  }
  PortGuard guard(Port, Access::Write);
  Port->Seen.push_back(std::move(seen));
  return true;
}

// Returns the status: a read whose buffer cannot be had fails.
static NTSTATUS Complete(LowerPort *Port, PIRP Irp, NTSTATUS Status, const std::string &Bytes) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  bool counted = stack->MajorFunction != IRP_MJ_PNP;
  ULONG_PTR information = 0;
  if (stack->MajorFunction == IRP_MJ_READ) {
    information = std::min<size_t>(Bytes.size(), stack->Parameters.Read.Length);
    char *room = information != 0 ? BufferOf(Irp) : nullptr;
    if (room != nullptr) {
      memcpy(room, Bytes.data(), information);
    } else if (information != 0) {
      Status = STATUS_INSUFFICIENT_RESOURCES;
      information = 0;
    }
    if (Port->ClaimedRead != 0 && Status != STATUS_CANCELLED &&
        Status != STATUS_INSUFFICIENT_RESOURCES) {
      information = Port->ClaimedRead;
    }
  } else if (stack->MajorFunction == IRP_MJ_WRITE && NT_SUCCESS(Status)) {
    information = stack->Parameters.Write.Length;
  } else if (stack->MajorFunction == IRP_MJ_CREATE && Status == STATUS_SUCCESS) {
    WritePointerRelease(&stack->FileObject->FsContext, &Port->OpenContext);
  }
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = information;
  if (stack->MajorFunction == IRP_MJ_POWER) {
    PoStartNextPowerIrp(Irp);
  }
  KIRQL irql = IrqlRaise(Port->ByDpc && counted ? DISPATCH_LEVEL : KeGetCurrentIrql());
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  IrqlLower(irql);
  if (counted) {
    Leave(Port);
  }
  return Status;
}

static void CancelHeld(PDEVICE_OBJECT Device, PIRP Irp) {
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  Complete(PortOfDevice(Device), Irp, STATUS_CANCELLED, "");
}

// Ends a held request. A DPC runs in whichever thread it meets: another than the caller, unless he
// may not wait for it.
static void EndHeld(const LowerPort *Port, const std::function<void()> &End) {
  auto raised = [&] {
    bool raises = Port->AtDispatchLevel || Port->ByDpc;
    KIRQL irql = IrqlRaise(raises ? DISPATCH_LEVEL : KeGetCurrentIrql());
    End();
    IrqlLower(irql);
  };
  if (Port->ByDpc && KeGetCurrentIrql() == PASSIVE_LEVEL) {
    ThreadJoin(ThreadStart("dpc", raised));
  } else {
    raised();
  }
}

static NTSTATUS Hold(LowerPort *Port, PIRP Irp, bool Cancellable) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  NTSTATUS refusal = Port->Removed                ? STATUS_DELETE_PENDING
                     : Cancellable && Irp->Cancel ? STATUS_CANCELLED
                                                  : STATUS_SUCCESS;
  if (refusal != STATUS_SUCCESS) {
    IoReleaseCancelSpinLock(irql);
    Complete(Port, Irp, refusal, "");
    return refusal;
  }
  IoMarkIrpPending(Irp);
  InsertTailList(&Port->Held, &Irp->Tail.Overlay.ListEntry);
  if (Cancellable) {
    IoSetCancelRoutine(Irp, CancelHeld);
  }
  IoReleaseCancelSpinLock(irql);
  return STATUS_PENDING;
}

static std::string TakeInput(LowerPort *Port, ULONG Length) {
  PortGuard guard(Port, Access::Write);
  std::string bytes = Port->Input.substr(0, Length);
  Port->Input.erase(0, bytes.size());
  return bytes;
}

static PIRP TakeHeld(LowerPort *Port, UCHAR Major) {
  PIRP found = nullptr;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  for (PLIST_ENTRY link = Port->Held.Flink; link != &Port->Held; link = link->Flink) {
    PIRP irp = CONTAINING_RECORD(link, IRP, Tail.Overlay.ListEntry);
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == Major) {
      RemoveEntryList(link);
      IoSetCancelRoutine(irp, nullptr);
      found = irp;
      break;
    }
  }
  IoReleaseCancelSpinLock(irql);
  return found;
}

static NTSTATUS ServeQueuedRead(LowerPort *Port, PIRP Irp) {
  std::string bytes = TakeInput(Port, IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length);
  if (bytes.empty()) {
    NTSTATUS status = Hold(Port, Irp, true);
    LowerFeed(Port, "");  // what came in before the read was held
    return status;
  }
  return Complete(Port, Irp, STATUS_SUCCESS, bytes);
}

// A cleanup or close does not fail.
static bool FailsHere(UCHAR Major) {
  return Major != IRP_MJ_CLEANUP && Major != IRP_MJ_CLOSE && FaultHere(FaultLower);
}

static NTSTATUS LowerDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  LowerPort *port = PortOfDevice(Device);
  UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  if (!Enter(port)) {
    return Complete(port, Irp, STATUS_DELETE_PENDING, "");
  }
  if (FailsHere(major) || !Record(port, Irp)) {
    return Complete(port, Irp, STATUS_INSUFFICIENT_RESOURCES, "");
  }
  switch (port->How[major]) {
  case Behaviour::Pend:
    return Hold(port, Irp, true);
  case Behaviour::Deaf:
    return Hold(port, Irp, false);
  case Behaviour::Queue:
    return ServeQueuedRead(port, Irp);
  default: {
    NTSTATUS status = port->Result[major];
    Complete(port, Irp, status, "");
    return status;
  }
  }
}

static NTSTATUS PassPowerDown(LowerPort *Port, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  NTSTATUS status = PoCallDriver(Port->Lower, Irp);
  Leave(Port);
  return status;
}

static NTSTATUS LowerPower(PDEVICE_OBJECT Device, PIRP Irp) {
  LowerPort *port = PortOfDevice(Device);
  if (!Enter(port)) {
    return Complete(port, Irp, STATUS_DELETE_PENDING, "");
  }
  Record(port, Irp);
  if (port->How[IRP_MJ_POWER] != Behaviour::Inline) {
    return Hold(port, Irp, port->How[IRP_MJ_POWER] == Behaviour::Pend);
  }
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  bool known = minor == IRP_MN_SET_POWER || minor == IRP_MN_QUERY_POWER;
  NTSTATUS failure =
      known && FaultHere(FaultLower) ? STATUS_INSUFFICIENT_RESOURCES : port->Result[IRP_MJ_POWER];
  if (failure != STATUS_SUCCESS) {
    Complete(port, Irp, failure, "");
    return failure;
  }
  return PassPowerDown(port, Irp);
}

static void DeleteName(LowerPort *Port) {
  if (Port->MakesName || Port->Outside != nullptr) {
    std::u16string link = u"\\DosDevices\\";
    link.append(Port->Name.begin(), Port->Name.end());
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(link.c_str()));
    IoDeleteSymbolicLink(&name);
  }
}

static NTSTATUS PassDown(LowerPort *Port, PIRP Irp) {
  // Copied, not skipped: a location that was marked pending stays this driver's.
  IoCopyCurrentIrpStackLocationToNext(Irp);
  return IofCallDriver(Port->Lower, Irp);
}

// What is still held ends here; opens and closes that are held, and what is being completed on
// another thread, are waited for: a driver that goes keeps nothing. No DPC runs for what it ends.
static void EndRequests(LowerPort *Port) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  Port->Removed = true;
  IoReleaseCancelSpinLock(irql);
  irql = IrqlRaise(Port->ByDpc ? DISPATCH_LEVEL : KeGetCurrentIrql());
  for (UCHAR major :
       {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_POWER}) {
    while (LowerFinish(Port, major, STATUS_DEVICE_NOT_CONNECTED)) {
    }
  }
  IrqlLower(irql);
  AwaitNoRequests(Port);
}

static void DeleteOutside(LowerPort *Port) {
  if (Port->Outside != nullptr) {
    Port->OutsideWasCovered = Port->Outside->Device->AttachedDevice != nullptr;
    IoDeleteDevice(Port->Outside->Device);
  }
}

static NTSTATUS Remove(LowerPort *Port, PIRP Irp) {
  EndRequests(Port);
  if (Port->Outside != nullptr) {
    EndRequests(Port->Outside);
  }
  DeleteName(Port);
  DeleteOutside(Port);
  Irp->IoStatus.Status = STATUS_SUCCESS;
  PDEVICE_OBJECT device = Port->Device;
  PDEVICE_OBJECT lower = Port->Lower;
  NTSTATUS status = PassDown(Port, Irp);
  IoDetachDevice(lower);
  IoDeleteDevice(device);
  return status;
}

static NTSTATUS HandlePnp(LowerPort *Port, PIRP Irp) {
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  if (minor == IRP_MN_REMOVE_DEVICE) {
    return Remove(Port, Irp);
  }
  if (minor == IRP_MN_START_DEVICE && Port->StartResult != STATUS_SUCCESS) {
    Complete(Port, Irp, Port->StartResult, "");
    return Port->StartResult;
  }
  if (minor != IRP_MN_QUERY_CAPABILITIES && minor != IRP_MN_QUERY_DEVICE_RELATIONS) {
    Irp->IoStatus.Status = STATUS_SUCCESS;
  }
  return PassDown(Port, Irp);
}

static NTSTATUS LowerPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  LowerPort *port = PortOfDevice(Device);
  Record(port, Irp);
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  bool slow = minor == IRP_MN_START_DEVICE || minor == IRP_MN_QUERY_CAPABILITIES ||
              minor == IRP_MN_REMOVE_DEVICE;
  return slow && port->How[IRP_MJ_PNP] == Behaviour::Deaf ? Hold(port, Irp, false)
                                                          : HandlePnp(port, Irp);
}

static NTSTATUS MakeName(LowerPort *Port, PUNICODE_STRING DeviceName) {
  std::u16string link = u"\\DosDevices\\";
  link.append(Port->Name.begin(), Port->Name.end());
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(link.c_str()));
  return IoCreateSymbolicLink(&name, DeviceName);
}

static void NameDevice(LowerPort *Port, const char16_t *Prefix, std::u16string *Text,
                       PUNICODE_STRING Name) {
  *Text = Prefix;
  Text->append(Port->Name.begin(), Port->Name.end());
  RtlInitUnicodeString(Name, reinterpret_cast<PCWSTR>(Text->c_str()));
}

static NTSTATUS MakeDevice(PDRIVER_OBJECT Driver, LowerPort *Port, PUNICODE_STRING Name) {
  NTSTATUS status = IoCreateDevice(Driver, sizeof(LowerExtension), Name, FILE_DEVICE_SERIAL_PORT, 0,
                                   FALSE, &Port->Device);
  if (NT_SUCCESS(status)) {
    static_cast<LowerExtension *>(Port->Device->DeviceExtension)->Port = Port;
    Port->Removed = Port->Waited = false;
    Port->Requests = 0;
    KeInitializeEvent(&Port->Idle, NotificationEvent, FALSE);
    InitializeListHead(&Port->Held);
    Port->Device->Flags |= Port->BufferingFlags;
  }
  return status;
}

// The device that the DOS name leads to, and the name.
static NTSTATUS MakeOutsideAndName(PDRIVER_OBJECT Driver, LowerPort *Port, PUNICODE_STRING Own) {
  if (Port->Outside == nullptr) {
    return Port->MakesName ? MakeName(Port, Own) : STATUS_SUCCESS;
  }
  std::u16string text;
  UNICODE_STRING name;
  NameDevice(Port, u"\\Device\\Outside", &text, &name);
  PDRIVER_OBJECT driver = Port->OutsideDriver != nullptr ? Port->OutsideDriver : Driver;
  NTSTATUS status = MakeDevice(driver, Port->Outside, &name);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  Port->Outside->Device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  status = MakeName(Port, &name);
  if (!NT_SUCCESS(status)) {
    DeleteOutside(Port);
  }
  return status;
}

static NTSTATUS LowerAddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  LowerPort *port = Next;
  std::u16string text;
  UNICODE_STRING name;
  NameDevice(port, u"\\Device\\Lower", &text, &name);
  NTSTATUS status = MakeDevice(Driver, port, &name);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  PDEVICE_OBJECT device = port->Device;
  status = MakeOutsideAndName(Driver, port, &name);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(device);
    return status;
  }
  port->Lower = IoAttachDeviceToDeviceStack(device, Pdo);
  if (port->Lower == nullptr) {
    DeleteName(port);
    DeleteOutside(port);
    IoDeleteDevice(device);
    return STATUS_UNSUCCESSFUL;
  }
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

static void LowerUnload(PDRIVER_OBJECT) {
}

NTSTATUS LowerEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH &routine : Driver->MajorFunction) {
    routine = LowerDispatch;
  }
  Driver->MajorFunction[IRP_MJ_PNP] = LowerPnp;
  Driver->MajorFunction[IRP_MJ_POWER] = LowerPower;
  Driver->DriverExtension->AddDevice = LowerAddDevice;
  Driver->DriverUnload = LowerUnload;
  return STATUS_SUCCESS;
}

size_t LowerCount(LowerPort *Port, UCHAR Major, int Minor) {
  PortGuard guard(Port, Access::Read);
  return static_cast<size_t>(
      std::count_if(Port->Seen.begin(), Port->Seen.end(), [=](const LowerSeen &Seen) {
        return Seen.Major == Major && (Minor < 0 || Seen.Minor == Minor);
      }));
}

LowerSeen LowerLast(LowerPort *Port, UCHAR Major) {
  PortGuard guard(Port, Access::Read);
  for (size_t i = Port->Seen.size(); i-- > 0;) {
    if (Port->Seen[i].Major == Major) {
      return Port->Seen[i];
    }
  }
  return {};
}

std::string LowerWritten(LowerPort *Port) {
  PortGuard guard(Port, Access::Read);
  std::string bytes;
  for (const LowerSeen &seen : Port->Seen) {
    if (seen.Major == IRP_MJ_WRITE) {
      bytes += seen.Bytes;
    }
  }
  return bytes;
}

size_t LowerHeldCount(LowerPort *Port) {
  size_t count = 0;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  for (PLIST_ENTRY link = Port->Held.Flink; link != &Port->Held; link = link->Flink) {
    ++count;
  }
  IoReleaseCancelSpinLock(irql);
  return count;
}

bool LowerFinish(LowerPort *Port, UCHAR Major, NTSTATUS Status, const std::string &Bytes) {
  PIRP irp = TakeHeld(Port, Major);
  if (irp == nullptr) {
    return false;
  }
  if (Major == IRP_MJ_PNP) {
    HandlePnp(Port, irp);
  } else if (Major == IRP_MJ_POWER && NT_SUCCESS(Status)) {
    EndHeld(Port, [=] { PassPowerDown(Port, irp); });
  } else {
    EndHeld(Port, [&] { Complete(Port, irp, Status, Bytes); });
  }
  return true;
}

static bool HasInput(LowerPort *Port) {
  PortGuard guard(Port, Access::Read);
  return !Port->Input.empty();
}

void LowerFeed(LowerPort *Port, const std::string &Bytes) {
  {
    PortGuard guard(Port, Access::Write);
    Port->Input += Bytes;
  }
  while (HasInput(Port)) {
    PIRP irp = TakeHeld(Port, IRP_MJ_READ);
    if (irp == nullptr) {
      return;
    }
    ULONG length = IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length;
    std::string bytes = TakeInput(Port, length);
    if (bytes.empty() && length != 0) {
      Hold(Port, irp, true);
    } else {
      EndHeld(Port, [&] { Complete(Port, irp, STATUS_SUCCESS, bytes); });
    }
  }
}

// --- The relay ------------------------------------------------------------------------------

struct RelayExtension {
  PDEVICE_OBJECT Lower;
  bool Started;
};

static RelayExtension *RelayOf(PDEVICE_OBJECT Device) {
  return static_cast<RelayExtension *>(Device->DeviceExtension);
}

static NTSTATUS RelayDown(PDEVICE_OBJECT Device, PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  return IofCallDriver(RelayOf(Device)->Lower, Irp);
}

static NTSTATUS RelayOpenClose(PDEVICE_OBJECT Device, PIRP Irp) {
  if (RelayOf(Device)->Started) {
    return RelayDown(Device, Irp);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Irp->IoStatus.Information = 0;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return STATUS_SUCCESS;
}

static NTSTATUS RelayPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  PDEVICE_OBJECT lower = RelayOf(Device)->Lower;
  NTSTATUS status = RelayDown(Device, Irp);
  if (minor == IRP_MN_START_DEVICE) {
    RelayOf(Device)->Started = NT_SUCCESS(status);
  } else if (minor == IRP_MN_REMOVE_DEVICE) {
    IoDetachDevice(lower);
    IoDeleteDevice(Device);
  }
  return status;
}

static NTSTATUS RelayPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  return RelayDown(Device, Irp);
}

static NTSTATUS RelayAddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  PDEVICE_OBJECT device;
  NTSTATUS status = IoCreateDevice(Driver, sizeof(RelayExtension), nullptr, FILE_DEVICE_SERIAL_PORT,
                                   0, FALSE, &device);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  *RelayOf(device) = {IoAttachDeviceToDeviceStack(device, Pdo), false};
  device->Flags |=
      RelayOf(device)->Lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

NTSTATUS RelayEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH &routine : Driver->MajorFunction) {
    routine = RelayDown;
  }
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
    Driver->MajorFunction[major] = RelayOpenClose;
  }
  Driver->MajorFunction[IRP_MJ_PNP] = RelayPnp;
  Driver->MajorFunction[IRP_MJ_POWER] = RelayPower;
  Driver->DriverExtension->AddDevice = RelayAddDevice;
  Driver->DriverUnload = LowerUnload;
  return STATUS_SUCCESS;
}
