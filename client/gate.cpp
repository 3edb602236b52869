#include "client/gate.h"

#include "client/read.h"
#include "client/write.h"
#include "driver/extension.h"
#include "driver/requests.h"

BOOLEAN ParkWhileHeld(PDEVICE_OBJECT Device, PIRP Irp, NTSTATUS RefuseHeld, NTSTATUS *Status) {
  PortExtension *port = PortOf(Device);
  KIRQL cancelIrql;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->ClientLock);
  IoAcquireCancelSpinLock(&cancelIrql);
  BOOLEAN held = PortHoldsClient(port);
  NTSTATUS refusal = Irp->Cancel ? STATUS_CANCELLED : RefuseHeld;
  if (held && refusal == STATUS_SUCCESS) {
    IoMarkIrpPending(Irp);
    IoSetCancelRoutine(Irp, StreamHoldCancel);
    InsertTailList(&port->ParkedRequests, &Irp->Tail.Overlay.ListEntry);
  }
  IoReleaseCancelSpinLock(cancelIrql);
  KeReleaseSpinLock(&port->ClientLock, irql);
  if (!held) {
    return FALSE;
  }
  *Status = refusal == STATUS_SUCCESS ? STATUS_PENDING : CompleteRequest(Device, Irp, refusal, 0);
  return TRUE;
}

NTSTATUS GateClientReadWrite(PDEVICE_OBJECT Device, PIRP Irp) {
  // Read before the locks: a mode change that lands in between is seen by the next request.
  ULONG mode = PortMode(PortOf(Device));
  NTSTATUS status;
  if (ParkWhileHeld(Device, Irp, STATUS_SUCCESS, &status)) {
    return status;
  }
  return IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_READ
             ? ClientRead(Device, Irp, mode)
             : ClientWrite(Device, Irp, mode);
}

void StreamHoldCancel(PDEVICE_OBJECT Device, PIRP Irp) {
  // A release that found the routine already taken left the entry pointing at itself.
  RemoveEntryList(&Irp->Tail.Overlay.ListEntry);
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  CompleteRequest(Device, Irp, STATUS_CANCELLED, 0);
}
