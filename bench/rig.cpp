#include "bench/rig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "controller/frame_format.h"
#include "driver/entry.h"

constexpr CCHAR PACKET_LOCATIONS = 4;  // the same for every stack: a reused packet is zeroed

void RigFail(const char *What) {
  fflush(stdout);
  fprintf(stderr, "vorlix_bench: %s\n", What);
  _Exit(EXIT_FAILURE);
}

// --- The port -------------------------------------------------------------------------------

static PIRP HeldRead;

static NTSTATUS PortRead(PDEVICE_OBJECT, PIRP Irp) {
  RigRequire(HeldRead == nullptr, "the port got a second read");
  IoMarkIrpPending(Irp);
  HeldRead = Irp;
  return STATUS_PENDING;
}

static NTSTATUS PortComplete(PDEVICE_OBJECT, PIRP Irp) {
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Irp->IoStatus.Information = 0;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return STATUS_SUCCESS;
}

void FinishPortRead() {
  PIRP irp = HeldRead;
  RigRequire(irp != nullptr, "the port has no read");
  HeldRead = nullptr;
  irp->IoStatus.Status = STATUS_SUCCESS;
  irp->IoStatus.Information = IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length;
  IofCompleteRequest(irp, IO_NO_INCREMENT);
}

// The scripted port, but for the requests that are measured.
static NTSTATUS PortEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING Path) {
  NTSTATUS status = LowerEntry(Driver, Path);
  Driver->MajorFunction[IRP_MJ_READ] = PortRead;
  Driver->MajorFunction[IRP_MJ_WRITE] = PortComplete;
  Driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = PortComplete;
  return status;
}

// --- The minimal filter ---------------------------------------------------------------------

// The least that a filter does which can be removed, hold requests back and cancel them.
struct MinimalExtension {
  PDEVICE_OBJECT Lower;
  LONG Requests;
  KSPIN_LOCK Removal;
  KSPIN_LOCK Hold;
  KSPIN_LOCK Cancel;
};

static MinimalExtension *MinimalOf(PDEVICE_OBJECT Device) {
  return static_cast<MinimalExtension *>(Device->DeviceExtension);
}

static void PassThroughLock(PKSPIN_LOCK Lock) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(Lock);
  KeReleaseSpinLock(Lock, irql);
}

static NTSTATUS MinimalDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  MinimalExtension *extension = MinimalOf(Device);
  InterlockedIncrement(&extension->Requests);
  PassThroughLock(&extension->Removal);
  PassThroughLock(&extension->Hold);
  PassThroughLock(&extension->Cancel);
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = IofCallDriver(extension->Lower, Irp);
  InterlockedDecrement(&extension->Requests);
  return status;
}

static NTSTATUS MinimalPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  PDEVICE_OBJECT lower = MinimalOf(Device)->Lower;
  bool remove = IoGetCurrentIrpStackLocation(Irp)->MinorFunction == IRP_MN_REMOVE_DEVICE;
  if (remove) {
    Irp->IoStatus.Status = STATUS_SUCCESS;
  }
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = IofCallDriver(lower, Irp);
  if (remove) {
    IoDetachDevice(lower);
    IoDeleteDevice(Device);
  }
  return status;
}

static NTSTATUS MinimalAddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  PDEVICE_OBJECT device;
  NTSTATUS status = IoCreateDevice(Driver, sizeof(MinimalExtension), nullptr,
                                   FILE_DEVICE_SERIAL_PORT, 0, FALSE, &device);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  MinimalExtension *extension = MinimalOf(device);
  KeInitializeSpinLock(&extension->Removal);
  KeInitializeSpinLock(&extension->Hold);
  KeInitializeSpinLock(&extension->Cancel);
  extension->Lower = IoAttachDeviceToDeviceStack(device, Pdo);
  device->Flags |= extension->Lower->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

static void MinimalUnload(PDRIVER_OBJECT) {
}

static NTSTATUS MinimalEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH &routine : Driver->MajorFunction) {
    routine = MinimalDispatch;
  }
  Driver->MajorFunction[IRP_MJ_PNP] = MinimalPnp;
  Driver->DriverExtension->AddDevice = MinimalAddDevice;
  Driver->DriverUnload = MinimalUnload;
  return STATUS_SUCCESS;
}

// --- The stack ------------------------------------------------------------------------------

void RigBegin(Rig *Rig, Above What) {
  Rig->PortDriver = DriverLoad("BenchPort", PortEntry);
  PortDescription port;
  port.Values["PortName"] = RegistryText(Rig->Port.Name);
  port.Values["VORLIXProxyReadLimit"] = RegistryDword(0);
  port.Drivers = {Rig->PortDriver};
  if (What != Above::Nothing) {
    bool minimal = What == Above::MinimalFilter;
    Rig->Filter = DriverLoad(minimal ? "Minimal" : "Vorlix", minimal ? MinimalEntry : DriverEntry);
    port.Drivers.push_back(Rig->Filter);
  }
  LowerNext(&Rig->Port);
  Rig->Node = PnpAdd(port);
  RigRequire(Rig->Node != nullptr, "no stack");
  RigRequire(PnpStart(Rig->Node) == STATUS_SUCCESS, "the port does not start");
  RigRequire(
      FileOpen("\\DosDevices\\" + Rig->Port.Name, Account::User, &Rig->Client) == STATUS_SUCCESS,
      "the port cannot be opened");
}

void RigEnd(Rig *Rig) {
  if (Rig->Zk != nullptr) {
    FileClose(Rig->Zk);
  }
  FileClose(Rig->Client);
  PnpRemove(Rig->Node);
  if (Rig->Filter != nullptr) {
    DriverUnload(Rig->Filter);
  }
  DriverUnload(Rig->PortDriver);
}

void RunRig(Above What, bool Verifier, const std::function<void(Rig *)> &Body) {
  RunOptions options;
  options.Verifier = Verifier;
  RunReport report = ModelRun(options, [&] {
    Rig rig;
    RigBegin(&rig, What);
    Body(&rig);
    RigEnd(&rig);
  });
  RigRequire(!report.Stopped, report.Text.c_str());
}

void RigGoNormal(Rig *Rig) {
  RigRequire(FileOpen("\\DosDevices\\VORLIX_" + Rig->Port.Name, Account::LocalSystem, &Rig->Zk) ==
                 STATUS_SUCCESS,
             "the control device cannot be opened");
  struct {
    FrameHeader Header;
    uint32_t Mode;
  } command = {{FRAME_WITH_ARGUMENT, FRAME_CONTROL, 0, 0, COMMAND_SET_MODE}, MODE_NORMAL};
  std::vector<uint8_t> bytes(FRAME_WITH_ARGUMENT);
  memcpy(bytes.data(), &command, bytes.size());
  RigRequire(FileWrite(Rig->Zk, bytes) == STATUS_SUCCESS, "the mode cannot be set");
  RigRequire(FileRead(Rig->Zk, FRAME_WITH_ARGUMENT, &bytes) == STATUS_SUCCESS, "no reply");
}

// --- Packets --------------------------------------------------------------------------------

RepeatedPacket MakePacket(Rig *Rig, HANDLE File, UCHAR Major, void *Buffer, ULONG Length) {
  RepeatedPacket packet = {};
  packet.Irp = IoAllocateIrp(PACKET_LOCATIONS, FALSE);
  packet.File = FileObject(File);
  packet.Top = DeviceTop(packet.File->DeviceObject);
  packet.Major = Major;
  packet.Buffer = Buffer;
  packet.Length = Length;
  packet.Done = true;
  RigRequire(packet.Top->DriverObject == (Rig->Filter ? Rig->Filter : Rig->PortDriver),
             "the packet would not reach what is measured");
  RigRequire(packet.Top->StackSize <= PACKET_LOCATIONS, "the stack is too deep");
  return packet;
}

static NTSTATUS TakeBack(PDEVICE_OBJECT, PIRP, PVOID Context) {
  static_cast<RepeatedPacket *>(Context)->Done = true;
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SendPacketAgain(RepeatedPacket *Packet) {
  PIRP irp = Packet->Irp;
  IoReuseIrp(irp, STATUS_SUCCESS);
  irp->AssociatedIrp.SystemBuffer = Packet->Buffer;
  PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
  location->MajorFunction = Packet->Major;
  location->FileObject = Packet->File;
  if (Packet->Major == IRP_MJ_DEVICE_CONTROL) {
    location->Parameters.DeviceIoControl.IoControlCode =
        CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_BUFFERED, FILE_ANY_ACCESS);
    location->Parameters.DeviceIoControl.InputBufferLength = Packet->Length;
  } else {
    location->Parameters.Read.Length = Packet->Length;  // a write's stands in the same place
  }
  IoSetCompletionRoutine(irp, TakeBack, Packet, TRUE, TRUE, TRUE);
  Packet->Done = false;
  return IofCallDriver(Packet->Top, irp);
}

void FreePacket(RepeatedPacket *Packet) {
  RigRequire(Packet->Done, "a packet did not come back");
  IoFreeIrp(Packet->Irp);
}
