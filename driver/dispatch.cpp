#include "driver/dispatch.h"

#include "client/gate.h"
#include "client/open_close.h"
#include "client/pass_through.h"
#include "controller/zk_read.h"
#include "controller/zk_write.h"
#include "driver/extension.h"
#include "driver/requests.h"
#include "lifecycle/filter_pnp.h"
#include "lifecycle/power.h"
#include "lifecycle/raw_child_pnp.h"

static NTSTATUS DispatchReadWrite(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status = AcquireRequest(Device, Irp);
  if (status == STATUS_PENDING) {
    return status;
  }
  if (status != STATUS_SUCCESS) {
    return CompleteRefused(Device, Irp);
  }
  if (HeaderOf(Device)->Kind != KIND_CONTROL) {
    return GateClientReadWrite(Device, Irp);
  }
  return IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_READ ? ZkRead(Device, Irp)
                                                                         : ZkWrite(Device, Irp);
}

static NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status = AcquireRequest(Device, Irp);
  if (status == STATUS_PENDING) {
    return status;
  }
  if (status != STATUS_SUCCESS) {
    return CompleteRefused(Device, Irp);
  }
  if (HeaderOf(Device)->Kind == KIND_CONTROL) {
    return CompleteRequest(Device, Irp, STATUS_NOT_SUPPORTED, 0);
  }
  return ClientDeviceControl(Device, Irp);
}

static NTSTATUS DispatchPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  AcquireRequest(Device, Irp);  // never refuses or parks a Plug and Play request
  return HeaderOf(Device)->Kind == KIND_FILTER ? FilterPnp(Device, Irp) : RawChildPnp(Device, Irp);
}

INIT_CODE void InstallDispatchTable(PDRIVER_OBJECT DriverObject) {
  PDRIVER_DISPATCH *table = DriverObject->MajorFunction;
  for (ULONG major = 0; major < IRP_MJ_PNP; ++major) {
    table[major] = DispatchDefault;
  }
  table[IRP_MJ_CREATE] = DispatchCreate;
  table[IRP_MJ_CLOSE] = DispatchClose;
  table[IRP_MJ_CLEANUP] = DispatchCleanup;
  table[IRP_MJ_PNP] = DispatchPnp;
  table[IRP_MJ_POWER] = DispatchPower;
  table[IRP_MJ_READ] = DispatchReadWrite;
  table[IRP_MJ_WRITE] = DispatchReadWrite;
  table[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceControl;
}
