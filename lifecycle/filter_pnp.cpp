#include "lifecycle/filter_pnp.h"

#include "client/forward.h"
#include "controller/stream_lock.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "lifecycle/auxiliary_device.h"
#include "lifecycle/control_device.h"
#include "lifecycle/port_config.h"
#include "lifecycle/port_interfaces.h"
#include "lifecycle/power.h"
#include "pipes/pending_reads.h"

static void StorePnpState(PortExtension *Port, ULONG State) {
  WriteULongRelease(&Port->Header.PnpState, State);
}

static NTSTATUS SucceedDown(PDEVICE_OBJECT Device, PIRP Irp) {
  Irp->IoStatus.Status = STATUS_SUCCESS;
  return SkipToLower(Device, Irp);
}

// For requests whose reference was already dropped, before a wait for idle.
static NTSTATUS SucceedDownUncounted(PortExtension *Port, PIRP Irp) {
  Irp->IoStatus.Status = STATUS_SUCCESS;
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(Port->Header.LowerDevice, Irp);
}

static NTSTATUS SignalDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Device);
  UNREFERENCED_PARAMETER(Irp);
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// The request is the caller's again when this returns.
static NTSTATUS ForwardSynchronously(PortExtension *Port, PIRP Irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, SignalDone, &done, TRUE, TRUE, TRUE);
  NTSTATUS status = IofCallDriver(Port->Header.LowerDevice, Irp);
  // Also when it did not pend: the routine has the address of the event on this stack.
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  return status == STATUS_PENDING ? Irp->IoStatus.Status : status;
}

static NTSTATUS Complete(PDEVICE_OBJECT Device, PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  CompleteAdmitted(Device, Irp);
  return Status;
}

static NTSTATUS Start(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  ForwardSynchronously(port, Irp);
  NTSTATUS status = Irp->IoStatus.Status;
  if (NT_SUCCESS(status)) {
    if (port->StartedOnce) {
      RestartPnpHeldRequests(Device);
    } else {
      NTSTATUS setUp = SetUpAuxiliaryDevice(Device);
      if (setUp != STATUS_SUCCESS) {
        return Complete(Device, Irp, setUp);
      }
    }
    WriteUCharRelease(&port->StartedOnce, TRUE);
    // Before the completion, so that an open sent from there finds a started port.
    StorePnpState(port, PNP_STARTED);
  }
  return Complete(Device, Irp, status);
}

static NTSTATUS QueryRemove(PDEVICE_OBJECT Device, PIRP Irp) {
  ChangeAdmission(PortOf(Device), ADMISSION_REMOVE_QUERIED, 0);
  return SucceedDown(Device, Irp);
}

// The requests that the query parked go on, or they would hold up a later stop for ever.
static NTSTATUS CancelRemove(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  // Requests that come while the parked ones go on do not overtake them.
  ChangeAdmission(port, ADMISSION_RESTARTING, ADMISSION_REMOVE_QUERIED);
  NTSTATUS status = SucceedDownUncounted(port, Irp);
  RestartPnpHeldRequests(Device);
  ReleaseRequest(Device, Irp);
  return status;
}

static NTSTATUS QueryStop(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  if (ReadAcquire(&port->OpenCount) > 0) {
    return Complete(Device, Irp, STATUS_DEVICE_BUSY);
  }
  StorePnpState(port, PNP_STOP_PENDING);
  return SucceedDown(Device, Irp);
}

static NTSTATUS CancelStop(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  if (ReadULongAcquire(&port->Header.PnpState) == PNP_STOP_PENDING) {
    StorePnpState(port, PNP_STARTED);
  }
  return SucceedDown(Device, Irp);
}

static NTSTATUS Stop(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  StorePnpState(port, PNP_STOPPED);
  ReleaseRequest(Device, Irp);
  WaitForIdle(Device);
  return SucceedDownUncounted(port, Irp);
}

// The lower drivers' children, in their order, and the control device behind them.
static PDEVICE_RELATIONS MakeRelations(PortExtension *Port, PDEVICE_RELATIONS Lower) {
  ULONG count = Lower != nullptr ? Lower->Count : 0;
  SIZE_T bytes = sizeof(DEVICE_RELATIONS) +
                 (static_cast<SIZE_T>(count) + Port->ReportControlChild) * sizeof(PDEVICE_OBJECT);
  auto *relations =
      static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, POOL_PNP_ANSWER));
  if (relations == nullptr) {
    return nullptr;
  }
  for (ULONG i = 0; i < count; ++i) {
    relations->Objects[i] = Lower->Objects[i];
  }
  if (Port->ReportControlChild != 0 && Port->ControlDevice != nullptr) {
    relations->Objects[count] = Port->ControlDevice;
    ObReferenceObject(Port->ControlDevice);  // the manager's
    ++count;
  }
  relations->Count = count;
  return relations;
}

static NTSTATUS QueryRelations(PDEVICE_OBJECT Device, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (stack->Parameters.QueryDeviceRelations.Type != BusRelations) {
    return SkipToLower(Device, Irp);
  }
  auto *lower = reinterpret_cast<PDEVICE_RELATIONS>(Irp->IoStatus.Information);
  PDEVICE_RELATIONS relations = MakeRelations(PortOf(Device), lower);
  if (relations == nullptr) {
    return Complete(Device, Irp, STATUS_INSUFFICIENT_RESOURCES);
  }
  if (lower != nullptr) {
    ExFreePoolWithTag(lower, 0);  // its tag is its maker's
  }
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
  return SucceedDown(Device, Irp);
}

static NTSTATUS QueryCapabilities(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  PDEVICE_CAPABILITIES capabilities =
      IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities;
  NTSTATUS status = ForwardSynchronously(port, Irp);
  if (NT_SUCCESS(status)) {
    port->SystemWake = static_cast<ULONG>(capabilities->SystemWake);
    port->DeviceWake = static_cast<ULONG>(capabilities->DeviceWake);
  }
  return Complete(Device, Irp, status);
}

// Interfaces and links go first, so that nobody new finds the port.
static void Withdraw(PortExtension *Port) {
  DisablePortInterface(Port);
  DeleteControlLink(Port);
}

// Ends every request that waits in the port. The admission flag is set by now, so what arrives
// later is refused, and what was past the gate looks at the flag once more after it began to wait.
static void EndWaitingRequests(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  PipeFlush(&port->ZkPipe, STATUS_CANCELLED);
  PipeFlush(&port->ClientPipe, STATUS_CANCELLED);
  CompletePnpHeldRequests(Device, STATUS_DELETE_PENDING);
  CancelParkedRequests(Device);
}

static NTSTATUS SurpriseRemoval(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  ChangeAdmission(port, ADMISSION_SURPRISE_REMOVED, 0);
  Withdraw(port);
  EndWaitingRequests(Device);
  ReleaseRequest(Device, Irp);
  WaitForIdle(Device);
  return SucceedDownUncounted(port, Irp);
}

// The port is idle: engine, thread, names, devices.
static void TearDown(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  ProxyReadTeardown(&port->Engine);
  // Copies, replies and messages that arrived after the first flush, and the read that the teardown
  // cancelled.
  PipeFlush(&port->ZkPipe, STATUS_CANCELLED);
  PipeFlush(&port->ClientPipe, STATUS_CANCELLED);
  CallDownShutdown(&port->CallDown);
  FreeRetiredNames(port);
  IoDetachDevice(port->Header.LowerDevice);
  PowerDetached(port);
  if (port->ControlDevice != nullptr) {
    DeleteControlDevice(port->ControlDevice);
  }
  FreePortInterfaces(port);
  IoDeleteDevice(Device);
}

static NTSTATUS Removal(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  BOOLEAN surprised = static_cast<BOOLEAN>(
      (ReadULongAcquire(&port->AdmissionFlags) & ADMISSION_SURPRISE_REMOVED) != 0);
  ChangeAdmission(port, ADMISSION_REMOVED, 0);
  WriteUCharRelease(&port->Header.Removed, TRUE);
  if (!surprised) {
    Withdraw(port);
  }
  // Before the drivers below hear of it: they delete the device that it is attached over.
  PDEVICE_OBJECT auxiliary = DeleteAuxiliaryDevice(port);
  // A removal that pends below goes on here all the same; its result is this request's.
  NTSTATUS status = SucceedDownUncounted(port, Irp);
  EndWaitingRequests(Device);
  ProxyReadDiscard(&port->Engine, PROXY_CLIENT_CLASS);
  ProxyReadDiscard(&port->Engine, PROXY_ZK_CLASS);
  MarkPortGone(port);
  ReleaseRequest(Device, Irp);
  WaitForIdle(Device);
  RetireAuxiliaryDevice(auxiliary);
  TearDown(Device);
  return status;
}

NTSTATUS FilterPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
  case IRP_MN_START_DEVICE:
    return Start(Device, Irp);
  case IRP_MN_QUERY_REMOVE_DEVICE:
    return QueryRemove(Device, Irp);
  case IRP_MN_CANCEL_REMOVE_DEVICE:
    return CancelRemove(Device, Irp);
  case IRP_MN_REMOVE_DEVICE:
    return Removal(Device, Irp);
  case IRP_MN_SURPRISE_REMOVAL:
    return SurpriseRemoval(Device, Irp);
  case IRP_MN_QUERY_STOP_DEVICE:
    return QueryStop(Device, Irp);
  case IRP_MN_CANCEL_STOP_DEVICE:
    return CancelStop(Device, Irp);
  case IRP_MN_STOP_DEVICE:
    return Stop(Device, Irp);
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    return QueryRelations(Device, Irp);
  case IRP_MN_QUERY_CAPABILITIES:
    return QueryCapabilities(Device, Irp);
  default:
    return SkipToLower(Device, Irp);
  }
}
