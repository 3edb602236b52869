#include "platform/model/model_bus.h"

#include <cstring>

#include "platform/model/devices.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/pool.h"

static constexpr ULONG AnswerTag = FourCharacters("MBus");

static PDRIVER_OBJECT BusDriver;
static unsigned BusDevices;

static void FillCapabilities(PDEVICE_CAPABILITIES Capabilities) {
  static const DEVICE_POWER_STATE states[PowerSystemMaximum] = {
      PowerDeviceUnspecified, PowerDeviceD0, PowerDeviceD2, PowerDeviceD2,
      PowerDeviceD3,          PowerDeviceD3, PowerDeviceD3};
  RtlCopyMemory(Capabilities->DeviceState, states, sizeof states);
  Capabilities->UniqueID = 1;
  Capabilities->SurpriseRemovalOK = 1;
  Capabilities->DeviceD2 = 1;
  Capabilities->WakeFromD2 = 1;
  Capabilities->SystemWake = PowerSystemSleeping3;
  Capabilities->DeviceWake = PowerDeviceD2;
}

// A request that only the driver of the physical device answers.
static void Answer(PIRP Irp, const void *Bytes, size_t Count) {
  PVOID block = ExAllocatePoolWithTag(PagedPool, Count, AnswerTag);
  Irp->IoStatus.Status = block ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
  if (block) {
    memcpy(block, Bytes, Count);
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(block);
  }
}

static void AnswerId(PIRP Irp, BUS_QUERY_ID_TYPE Type) {
  if (Type == BusQueryDeviceID) {
    static const WCHAR id[] = L"MODEL\\SerialPort";
    Answer(Irp, id, sizeof id);
  } else if (Type == BusQueryHardwareIDs) {
    static const WCHAR ids[] = L"MODEL\\SerialPort\0";
    Answer(Irp, ids, sizeof ids);
  } else if (Type == BusQueryInstanceID) {
    static const WCHAR id[] = L"0";
    Answer(Irp, id, sizeof id);
  }
}

static void AnswerRelations(PDEVICE_OBJECT Device, PIRP Irp, DEVICE_RELATION_TYPE Type) {
  if (Type == TargetDeviceRelation) {
    DEVICE_RELATIONS relations = {1, {Device}};
    Answer(Irp, &relations, sizeof relations);
    if (NT_SUCCESS(Irp->IoStatus.Status)) {
      ObReferenceObject(Device);  // the asker's
    }
  }
}

static NTSTATUS BusPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  {
    Guard guard(DeviceMutex);
    DeviceShadowOf(Device)->Reached = static_cast<UCHAR>(location->MinorFunction + 1);
  }
  switch (location->MinorFunction) {
  case IRP_MN_QUERY_CAPABILITIES:
    FillCapabilities(location->Parameters.DeviceCapabilities.Capabilities);
    Irp->IoStatus.Status = STATUS_SUCCESS;
    break;
  case IRP_MN_START_DEVICE:
  case IRP_MN_QUERY_STOP_DEVICE:
  case IRP_MN_CANCEL_STOP_DEVICE:
  case IRP_MN_STOP_DEVICE:
  case IRP_MN_QUERY_REMOVE_DEVICE:
  case IRP_MN_CANCEL_REMOVE_DEVICE:
  case IRP_MN_REMOVE_DEVICE:
  case IRP_MN_SURPRISE_REMOVAL:
    Irp->IoStatus.Status = STATUS_SUCCESS;
    break;
  case IRP_MN_QUERY_ID:
    AnswerId(Irp, location->Parameters.QueryId.IdType);
    break;
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    AnswerRelations(Device, Irp, location->Parameters.QueryDeviceRelations.Type);
    break;
  default:  // not the bus's business: as it came
    break;
  }
  NTSTATUS status = Irp->IoStatus.Status;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

static NTSTATUS BusPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  if (location->MinorFunction == IRP_MN_SET_POWER ||
      location->MinorFunction == IRP_MN_QUERY_POWER) {
    Irp->IoStatus.Status = STATUS_SUCCESS;
  }
  if (location->MinorFunction == IRP_MN_SET_POWER &&
      location->Parameters.Power.Type == DevicePowerState) {
    PoSetPowerState(Device, DevicePowerState, location->Parameters.Power.State);
  }
  NTSTATUS status = Irp->IoStatus.Status;
  PoStartNextPowerIrp(Irp);
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

static NTSTATUS BusAsItCame(PDEVICE_OBJECT Device, PIRP Irp) {
  UNREFERENCED_PARAMETER(Device);
  NTSTATUS status = Irp->IoStatus.Status;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

PDEVICE_OBJECT BusMakeDevice(PnpNode *Node) {
  if (!BusDriver) {
    BusDriver = DriverMake("ModelBus", nullptr);
    BusDriver->MajorFunction[IRP_MJ_PNP] = BusPnp;
    BusDriver->MajorFunction[IRP_MJ_POWER] = BusPower;
    BusDriver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = BusAsItCame;
  }
  ++BusDevices;
  PDEVICE_OBJECT device = DeviceMake(BusDriver, FILE_DEVICE_SERIAL_PORT);
  DeviceShadowOf(device)->Node = Node;
  device->Flags = (device->Flags & ~static_cast<ULONG>(DO_DEVICE_INITIALIZING)) |
                  DO_BUS_ENUMERATED_DEVICE | DO_POWER_PAGABLE;
  return device;
}

void BusDeleteDevice(PDEVICE_OBJECT Device) {
  IoDeleteDevice(Device);
  if (--BusDevices == 0) {
    ObjectLetGo(BusDriver);
    BusDriver = nullptr;
  }
}

bool BusSaw(PDEVICE_OBJECT Device, UCHAR Minor) {
  Guard guard(DeviceMutex);
  return DeviceShadowOf(Device)->Reached == Minor + 1;
}

void BusForget(PDEVICE_OBJECT Device) {
  Guard guard(DeviceMutex);
  DeviceShadowOf(Device)->Reached = 0;
}

void BusReset() {
  BusDriver = nullptr;
  BusDevices = 0;
}
