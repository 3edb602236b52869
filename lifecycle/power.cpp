#include "lifecycle/power.h"

#include "driver/extension.h"

// A removal does not wait for power requests. Each one keeps the device object by a reference, and
// their count, biased by 1 for the port, the device below: its reference, taken at the attach, goes
// with the last one to go, be that the port or a request.

void PowerKeepsBelow(PortExtension *Port, PDEVICE_OBJECT Lower) {
  if (Lower != nullptr) {
    ObReferenceObject(Lower);
  }
  PVOID before = InterlockedExchangePointer(&Port->PowerLowerDevice, Lower);
  if (before != nullptr) {
    ObDereferenceObject(before);
  }
}

static void LeavePower(PortExtension *Port) {
  if (InterlockedDecrement(&Port->PowerRequestCount) == 0) {
    KeSetEvent(&Port->PowerEvent, IO_NO_INCREMENT, FALSE);
    // More than once: requests that are refused from now on take the count up and down again.
    PowerKeepsBelow(Port, nullptr);
  }
}

void PowerDetached(PortExtension *Port) {
  WriteUCharRelease(&Port->Header.Removed, TRUE);
  LeavePower(Port);
}

// The second reference of a power-up cannot be refused; its completion routine gives it back
// whatever happened meanwhile.
static void HoldPower(PortExtension *Port) {
  InterlockedIncrement(&Port->PowerRequestCount);
  ObReferenceObject(Port->Header.Device);
}

static void ReleasePowerRef(PortExtension *Port) {
  PDEVICE_OBJECT device = Port->Header.Device;
  LeavePower(Port);
  ObDereferenceObject(device);
}

// Counted also when refused, until the caller releases it.
static NTSTATUS AcquirePowerRef(PortExtension *Port) {
  HoldPower(Port);
  return ReadUCharAcquire(&Port->Header.Removed) == 0 ? STATUS_SUCCESS : STATUS_DELETE_PENDING;
}

static void ReportPowerState(ExtensionHeader *Header, POWER_STATE State) {
  PoSetPowerState(Header->Device, DevicePowerState, State);
  WriteULongRelease(&Header->DevicePowerState, static_cast<ULONG>(State.DeviceState));
}

static NTSTATUS PassOn(PortExtension *Port, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = PoCallDriver(Port->Header.LowerDevice, Irp);
  ReleasePowerRef(Port);
  return status;
}

// Of a request that raises the device's power. The power manager learns of the rise only here, when
// the port's driver has powered up, whatever that driver answered. Up to DISPATCH_LEVEL.
static NTSTATUS PowerUpDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Context);
  PortExtension *port = PortOf(Device);
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  ReportPowerState(&port->Header, stack->Parameters.Power.State);
  PoStartNextPowerIrp(Irp);
  ReleasePowerRef(port);
  return STATUS_SUCCESS;
}

static NTSTATUS PowerUp(PortExtension *Port, PIRP Irp) {
  HoldPower(Port);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, PowerUpDone, nullptr, TRUE, TRUE, TRUE);
  NTSTATUS status = PoCallDriver(Port->Header.LowerDevice, Irp);
  ReleasePowerRef(Port);
  return status;
}

// A larger number is less power. The power manager learns of a fall before the port's driver powers
// down.
static NTSTATUS SetDevicePower(PortExtension *Port, PIRP Irp, POWER_STATE State) {
  Irp->IoStatus.Status = STATUS_SUCCESS;
  auto wanted = static_cast<ULONG>(State.DeviceState);
  ULONG current = ReadULongAcquire(&Port->Header.DevicePowerState);
  if (wanted < current) {
    return PowerUp(Port, Irp);
  }
  if (wanted > current) {
    ReportPowerState(&Port->Header, State);
  }
  return PassOn(Port, Irp);
}

static NTSTATUS FilterPower(PortExtension *Port, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  NTSTATUS status = AcquirePowerRef(Port);
  if (!NT_SUCCESS(status)) {
    Irp->IoStatus.Information = 0;
    Irp->IoStatus.Status = status;
    PoStartNextPowerIrp(Irp);
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    ReleasePowerRef(Port);
    return status;
  }
  BOOLEAN set = static_cast<BOOLEAN>(stack->MinorFunction == IRP_MN_SET_POWER);
  if (stack->MinorFunction == IRP_MN_QUERY_POWER ||
      (set && ReadUCharAcquire(&Port->StartedOnce) == 0)) {
    Irp->IoStatus.Status = STATUS_SUCCESS;
    return PassOn(Port, Irp);
  }
  return set && stack->Parameters.Power.Type == DevicePowerState
             ? SetDevicePower(Port, Irp, stack->Parameters.Power.State)
             : PassOn(Port, Irp);
}

static NTSTATUS AnswerSetPower(ExtensionHeader *Header, PIO_STACK_LOCATION Stack) {
  POWER_STATE state = Stack->Parameters.Power.State;
  switch (Stack->Parameters.Power.Type) {
  case SystemPowerState:
    return STATUS_SUCCESS;
  case DevicePowerState:
    if (ReadULongAcquire(&Header->DevicePowerState) != static_cast<ULONG>(state.DeviceState)) {
      ReportPowerState(Header, state);
    }
    return STATUS_SUCCESS;
  default:
    return STATUS_NOT_IMPLEMENTED;
  }
}

static NTSTATUS OwnPower(ExtensionHeader *Header, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  NTSTATUS status = Irp->IoStatus.Status;
  switch (stack->MinorFunction) {
  case IRP_MN_WAIT_WAKE:
  case IRP_MN_POWER_SEQUENCE:
    status = STATUS_NOT_IMPLEMENTED;
    break;
  case IRP_MN_SET_POWER:
    status = AnswerSetPower(Header, stack);
    break;
  case IRP_MN_QUERY_POWER:
    status = STATUS_SUCCESS;
    break;
  default:
    break;
  }
  Irp->IoStatus.Status = status;
  PoStartNextPowerIrp(Irp);
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp) {
  ExtensionHeader *header = HeaderOf(Device);
  return header->Kind == KIND_FILTER ? FilterPower(PortOf(Device), Irp) : OwnPower(header, Irp);
}
