// The stream-lock gate: every client read and write passes here first. While ZK holds the stream
// locked it is parked; otherwise it goes where the port's mode says.
#pragma once

#include "platform/kernel.h"

// The request's reference is held on entry and passes on. Called for reads and writes of the filter
// and auxiliary devices, new ones and those that a release dispatches again. IRQL <=
// DISPATCH_LEVEL.
NTSTATUS GateClientReadWrite(PDEVICE_OBJECT Device, PIRP Irp);

// Whether the gate decided: the stream is held, and the request was parked (*Status STATUS_PENDING)
// or completed with a refusal. Requests that may not wait are refused with RefuseHeld, unless that
// is STATUS_SUCCESS.
BOOLEAN ParkWhileHeld(PDEVICE_OBJECT Device, PIRP Irp, NTSTATUS RefuseHeld, NTSTATUS *Status);

// The cancel routine of a parked request.
void StreamHoldCancel(PDEVICE_OBJECT Device, PIRP Irp) RELEASE(CancelSpinLock);
