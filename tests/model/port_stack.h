// A port's stack of two drivers, a function driver below a filter, for the tests of Plug and Play
// and of power. What the two do with a request is set by each test.
#pragma once

#include "tests/model/two_drivers.h"

struct PortExtension {
  PDEVICE_OBJECT Lower;  // none below a child
  PDEVICE_OBJECT Child;  // of the function device
};

// Of the current run.
inline PDRIVER_OBJECT Function;
inline PDRIVER_OBJECT Filter;

inline PortExtension *ExtensionOf(PDEVICE_OBJECT Device) {
  return static_cast<PortExtension *>(Device->DeviceExtension);
}

inline NTSTATUS SendDown(PDEVICE_OBJECT Device, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(ExtensionOf(Device)->Lower, Irp);
}

inline NTSTATUS PassPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  return ExtensionOf(Device)->Lower ? SendDown(Device, Irp) : CompleteWith(Irp, STATUS_SUCCESS);
}

// A filter's whole Plug and Play: passes down, and goes with the removal.
inline NTSTATUS FollowDown(PDEVICE_OBJECT Device, PIRP Irp) {
  bool removes = IoGetCurrentIrpStackLocation(Irp)->MinorFunction == IRP_MN_REMOVE_DEVICE;
  PDEVICE_OBJECT lower = ExtensionOf(Device)->Lower;
  NTSTATUS status = SendDown(Device, Irp);
  if (removes) {
    IoDetachDevice(lower);
    IoDeleteDevice(Device);
  }
  return status;
}

inline PDEVICE_OBJECT Attach(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo,
                             const char *Name = nullptr) {
  Wide name(Name ? Name : "");
  PDEVICE_OBJECT device;
  EXPECT_EQ(IoCreateDevice(Driver, sizeof(PortExtension), Name ? &name.String : nullptr,
                           FILE_DEVICE_SERIAL_PORT, 0, FALSE, &device),
            STATUS_SUCCESS);
  ExtensionOf(device)->Lower = Pdo ? IoAttachDeviceToDeviceStack(device, Pdo) : nullptr;
  device->Flags = (device->Flags | DO_BUFFERED_IO) & ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return device;
}

inline PortDescription LoadStack(PDRIVER_INITIALIZE Entry) {
  Function = DriverLoad("Function", Entry);
  Filter = DriverLoad("Filter", Entry);
  PortDescription port;
  port.Drivers = {Function, Filter};
  port.Values["PortName"] = RegistryText("COM3");
  return port;
}

inline void UnloadStack() {
  DriverUnload(Filter);
  DriverUnload(Function);
}
