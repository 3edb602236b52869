#include "controller/stream_lock.h"

#include "client/gate.h"
#include "client/pass_through.h"
#include "driver/requests.h"
#include "driver/trace.h"

static void StoreHold(PortExtension *Port, BOOLEAN Hold) REQUIRES(Port->ClientLock) {
  WriteUCharRelease(&Port->HoldClientRequests, Hold);
}

void HoldClientRequests(PortExtension *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->ClientLock);
  if (!PortIsGoing(Port)) {
    StoreHold(Port, TRUE);
  }
  KeReleaseSpinLock(&Port->ClientLock, irql);
}

// Takes the oldest parked request that is still ours, or null. One whose cancel routine the I/O
// manager has already taken is linked to itself and left to that routine.
static PIRP TakeParked(PortExtension *Port, BOOLEAN Traced, PDEVICE_OBJECT Device)
    REQUIRES(Port->ClientLock, CancelSpinLock) {
  while (!IsListEmpty(&Port->ParkedRequests)) {
    PLIST_ENTRY link = RemoveHeadList(&Port->ParkedRequests);
    InitializeListHead(link);
    PIRP irp = CONTAINING_RECORD(link, IRP, Tail.Overlay.ListEntry);
    if (Traced) {
      TraceEvent(TRACE_CLASS, TraceCode("US01"), TracePointer(Device), TracePointer(irp),
                 irp->Cancel);
    }
    if (IoSetCancelRoutine(irp, nullptr) != nullptr) {
      return irp;
    }
  }
  return nullptr;
}

static void DispatchAgain(PDEVICE_OBJECT Device, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  UCHAR major = stack->MajorFunction;
  TraceEvent(TRACE_CLASS, TraceCode("US02"), TracePointer(Device), TracePointer(Irp), major);
  if (major == IRP_MJ_DEVICE_CONTROL) {
    ClientDeviceControl(stack->DeviceObject, Irp);
  } else {
    GateClientReadWrite(stack->DeviceObject, Irp);
  }
}

static void TraceRelease(ULONG Code, PDEVICE_OBJECT Device) {
  TraceEvent(TRACE_CLASS, Code, TracePointer(Device), 0, 0);
}

void ReleaseHeldRequests(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  HoldPort(port);  // as every loop over requests that may each be the port's last
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->ClientLock);
  StoreStateFlags(port, PortStateFlags(port) & ~static_cast<ULONG>(PSF_LOCKED));
  StoreHold(port, FALSE);
  TraceRelease(TraceCode("US00"), Device);
  for (;;) {
    KIRQL cancelIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    PIRP irp = TakeParked(port, TRUE, Device);
    if (irp == nullptr) {
      TraceRelease(TraceCode("US03"), Device);
      StoreHold(port, FALSE);
      IoReleaseCancelSpinLock(cancelIrql);
      break;
    }
    IoReleaseCancelSpinLock(cancelIrql);
    KeReleaseSpinLock(&port->ClientLock, irql);
    DispatchAgain(Device, irp);
    irql = KeAcquireSpinLockRaiseToDpc(&port->ClientLock);
  }
  KeReleaseSpinLock(&port->ClientLock, irql);
  TraceRelease(TraceCode("US04"), Device);
  ReleasePort(port);
}

void CancelParkedRequests(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  for (;;) {
    KIRQL cancelIrql;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->ClientLock);
    IoAcquireCancelSpinLock(&cancelIrql);
    StoreHold(port, FALSE);
    PIRP irp = TakeParked(port, FALSE, Device);
    IoReleaseCancelSpinLock(cancelIrql);
    KeReleaseSpinLock(&port->ClientLock, irql);
    if (irp == nullptr) {
      return;
    }
    CompleteRequest(Device, irp, STATUS_CANCELLED, 0);
  }
}
