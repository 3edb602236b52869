#include "lifecycle/raw_child_pnp.h"

#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "lifecycle/port_interfaces.h"

static const GUID BusType = {
    0x5AEF25A0, 0xABAF, 0x419C, {0xBC, 0x99, 0x8A, 0x24, 0x16, 0x46, 0xB2, 0xC7}};
static const WCHAR InstanceId[] = L"0000";

static PVOID AllocateAnswer(SIZE_T Bytes) {
  PVOID answer = ExAllocatePoolWithTag(PagedPool, Bytes, POOL_PNP_ANSWER);
  if (answer != nullptr) {
    RtlZeroMemory(answer, Bytes);
  }
  return answer;
}

static NTSTATUS Answer(PIRP Irp, PVOID Value) {
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(Value);
  return Value != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

static NTSTATUS QueryStop(PDEVICE_OBJECT Device) {
  if (ReadAcquire(&PortOf(Device)->OpenCount) > 0) {
    return STATUS_DEVICE_BUSY;
  }
  WriteULongRelease(&HeaderOf(Device)->PnpState, PNP_STOP_PENDING);
  return STATUS_SUCCESS;
}

static NTSTATUS CancelStop(PDEVICE_OBJECT Device) {
  ExtensionHeader *header = HeaderOf(Device);
  if (ReadULongAcquire(&header->PnpState) == PNP_STOP_PENDING) {
    WriteULongRelease(&header->PnpState, PNP_STARTED);
  }
  return STATUS_SUCCESS;
}

static NTSTATUS QueryRelations(PDEVICE_OBJECT Device, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (stack->Parameters.QueryDeviceRelations.Type != TargetDeviceRelation ||
      Irp->IoStatus.Information != 0) {
    return Irp->IoStatus.Status;
  }
  auto *relations = static_cast<PDEVICE_RELATIONS>(AllocateAnswer(sizeof(DEVICE_RELATIONS)));
  if (relations == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  relations->Count = 1;
  relations->Objects[0] = Device;
  ObReferenceObject(Device);  // the asker's
  return Answer(Irp, relations);
}

static NTSTATUS QueryCapabilities(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  PDEVICE_CAPABILITIES capabilities =
      IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities;
  capabilities->Size = sizeof(*capabilities);
  capabilities->Version = 1;
  capabilities->SystemWake = static_cast<SYSTEM_POWER_STATE>(port->SystemWake);
  capabilities->DeviceWake = static_cast<DEVICE_POWER_STATE>(port->DeviceWake);
  capabilities->UniqueID = FALSE;
  capabilities->SilentInstall = TRUE;
  capabilities->RawDeviceOK = TRUE;
  capabilities->SurpriseRemovalOK = TRUE;
  capabilities->D1Latency = 0;
  capabilities->D2Latency = 0;
  capabilities->D3Latency = 0;
  return STATUS_SUCCESS;
}

// One that got no memory when the device was made has no answer.
static NTSTATUS AnswerStrings(PIRP Irp, PCUNICODE_STRING Strings) {
  PVOID copy =
      Strings->Buffer != nullptr ? AllocateAnswer(Strings->Length + sizeof(WCHAR)) : nullptr;
  if (copy != nullptr) {
    RtlCopyMemory(copy, Strings->Buffer, Strings->Length);
  }
  return Answer(Irp, copy);
}

static NTSTATUS QueryId(PDEVICE_OBJECT Device, PIRP Irp) {
  auto *control = static_cast<ControlExtension *>(Device->DeviceExtension);
  switch (IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryId.IdType) {
  case BusQueryDeviceID:
    return AnswerStrings(Irp, &control->DeviceId);
  case BusQueryHardwareIDs:
    return AnswerStrings(Irp, &control->HardwareIds);
  case BusQueryCompatibleIDs:
    Irp->IoStatus.Information = 0;  // there are none, which success with no string says
    return STATUS_SUCCESS;
  case BusQueryInstanceID: {
    PVOID copy = AllocateAnswer(sizeof(InstanceId));
    if (copy != nullptr) {
      RtlCopyMemory(copy, InstanceId, sizeof(InstanceId));
    }
    return Answer(Irp, copy);
  }
  default:
    return Irp->IoStatus.Status;
  }
}

static NTSTATUS QueryBusInformation(PIRP Irp) {
  auto *bus = static_cast<PPNP_BUS_INFORMATION>(AllocateAnswer(sizeof(PNP_BUS_INFORMATION)));
  if (bus != nullptr) {
    bus->BusTypeGuid = BusType;
    bus->LegacyBusType = PNPBus;
    bus->BusNumber = 0;
  }
  return Answer(Irp, bus);
}

// What only the control device answers.
static NTSTATUS AnswerForChild(PDEVICE_OBJECT Device, PIRP Irp) {
  if (HeaderOf(Device)->Kind != KIND_CONTROL) {
    return Irp->IoStatus.Status;
  }
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
  case IRP_MN_START_DEVICE:
    return EnableControlInterface(PortOf(Device));
  case IRP_MN_QUERY_ID:
    return QueryId(Device, Irp);
  case IRP_MN_QUERY_BUS_INFORMATION:
    return QueryBusInformation(Irp);
  default:
    return Irp->IoStatus.Status;
  }
}

static NTSTATUS AnswerMinor(PDEVICE_OBJECT Device, PIRP Irp) {
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
  case IRP_MN_QUERY_REMOVE_DEVICE:
  case IRP_MN_CANCEL_REMOVE_DEVICE:
  case IRP_MN_REMOVE_DEVICE:  // the device stays until its filter device is removed
  case IRP_MN_SURPRISE_REMOVAL:
    return STATUS_SUCCESS;
  case IRP_MN_STOP_DEVICE:
    WriteULongRelease(&HeaderOf(Device)->PnpState, PNP_STOPPED);
    return STATUS_SUCCESS;
  case IRP_MN_QUERY_STOP_DEVICE:
    return QueryStop(Device);
  case IRP_MN_CANCEL_STOP_DEVICE:
    return CancelStop(Device);
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    return QueryRelations(Device, Irp);
  case IRP_MN_QUERY_CAPABILITIES:
    return QueryCapabilities(Device, Irp);
  default:
    return AnswerForChild(Device, Irp);
  }
}

NTSTATUS RawChildPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status = AnswerMinor(Device, Irp);
  Irp->IoStatus.Status = status;
  CompleteAdmitted(Device, Irp);
  return status;
}
