#include "platform/model/io_manager.h"

#include <cstring>

#include "platform/model/area.h"
#include "platform/model/devices.h"
#include "platform/model/names.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/text.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"

static constexpr CSHORT DriverType = 4;
static constexpr size_t MostNameCharacters = 64;
static const char ServicesPath[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";

struct DriverBody {
  DRIVER_OBJECT Object;
  DRIVER_EXTENSION Extension;
  WCHAR Name[MostNameCharacters];
};

static NTSTATUS InvalidRequest(PDEVICE_OBJECT Device, PIRP Irp) {
  UNREFERENCED_PARAMETER(Device);
  Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
  Irp->IoStatus.Information = 0;
  if (IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_POWER) {
    PoStartNextPowerIrp(Irp);
  }
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return STATUS_INVALID_DEVICE_REQUEST;
}

PDRIVER_OBJECT DriverMake(const char *Name, PDRIVER_INITIALIZE Entry) {
  std::vector<WCHAR> name = TextToWide(std::string("\\Driver\\") + Name);
  if (name.size() > MostNameCharacters) {
    name.resize(MostNameCharacters);
  }
  DriverBody *body =
      static_cast<DriverBody *>(ObjectCreate(ObjectKind::Driver, sizeof(DriverBody), nullptr));
  ObjectKeep(body);
  memcpy(body->Name, name.data(), name.size() * sizeof(WCHAR));
  PDRIVER_OBJECT driver = &body->Object;
  driver->Type = DriverType;
  driver->Size = sizeof(DRIVER_OBJECT);
  driver->DriverExtension = &body->Extension;
  driver->DriverExtension->DriverObject = driver;
  driver->DriverName.Buffer = body->Name;
  driver->DriverName.Length = driver->DriverName.MaximumLength =
      static_cast<USHORT>(name.size() * sizeof(WCHAR));
  driver->DriverInit = Entry;
  for (PDRIVER_DISPATCH &dispatch : driver->MajorFunction) {
    dispatch = InvalidRequest;
  }
  return driver;
}

static void RequireNoDevices(PDRIVER_OBJECT Driver, const char *When) {
  uint64_t left = DeviceCount(Driver);
  if (left > 0 && VerifierOn()) {
    VerifierStop("leak.device", Driver, "%llu devices are left %s",
                 static_cast<unsigned long long>(left), When);
  }
}

PDRIVER_OBJECT DriverLoad(const std::string &Name, PDRIVER_INITIALIZE Entry, NTSTATUS *Status) {
  PDRIVER_OBJECT driver = DriverMake(Name.c_str(), Entry);
  std::vector<WCHAR> path = TextToWide(ServicesPath + Name);
  UNICODE_STRING registryPath = {};
  registryPath.Buffer = path.data();
  registryPath.Length = registryPath.MaximumLength =
      static_cast<USHORT>(path.size() * sizeof(WCHAR));

  CallbackScope scope = CallbackBegin();
  NTSTATUS status;
  {
    ActingAs acting(driver);
    status = Entry(driver, &registryPath);
  }
  CallbackEnd(scope, "the entry routine");

  if (Status) {
    *Status = status;
  }
  if (!NT_SUCCESS(status)) {
    RequireNoDevices(driver, "by an entry routine that failed");
    UnloadCheck(driver);
    ObjectLetGo(driver);
    return nullptr;
  }
  Guard guard(DeviceMutex);
  for (PDEVICE_OBJECT device = driver->DeviceObject; device; device = device->NextDevice) {
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  }
  return driver;
}

void DriverUnload(PDRIVER_OBJECT Driver) {
  UnloadRun(Driver);
  RequireNoDevices(Driver, "after the unload routine");
  ObjectLetGo(Driver);
  // What is left of the last driver can belong to nobody else.
  if (VerifierOn() && ObjectCount(ObjectKind::Driver) == 0) {
    RequestArea.Check();
    NamesCheck();
  }
}

static void CallFill(PIO_STACK_LOCATION Location, const void *Context) {
  const auto &fill = *static_cast<const std::function<void(PIO_STACK_LOCATION)> *>(Context);
  if (fill) {
    fill(Location);
  }
}

NTSTATUS SendPacket(PDEVICE_OBJECT Device, UCHAR Major, UCHAR Minor,
                    const std::function<void(PIO_STACK_LOCATION)> &Fill, ULONG_PTR *Information,
                    NTSTATUS InitialStatus) {
  PacketRequest request = {};
  request.Major = Major;
  request.Minor = Minor;
  request.Fill = CallFill;
  request.Context = &Fill;
  request.Iosb.Status = InitialStatus;
  request.Iosb.Information = Information ? *Information : 0;
  NTSTATUS status = PacketSendAndWait(Device, &request);
  if (Information) {
    *Information = request.Iosb.Information;
  }
  return status;
}
