// Request accounting: every request that enters through any of a port's devices is counted, so that
// a removal can wait for the last of them; and the admission gate, which refuses or parks new ones
// while the port is going.
//
// The count starts at 1, a bias that stands for the port. Plug and Play requests always pass.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// Counts the request and applies the gate. IRQL <= DISPATCH_LEVEL. Results:
//   STATUS_SUCCESS         go on; ReleaseRequest once when the request is done with
//   STATUS_PENDING         parked: the request is not the caller's any more
//   STATUS_DEVICE_REMOVED  a close or cleanup after the removal: complete with CompleteOnGonePort
//   another failure        stored in the request: complete with CompleteRefused
NTSTATUS AcquireRequest(PDEVICE_OBJECT Device, PIRP Irp);

// Drops one reference. Irp is not looked at; it may be gone.
void ReleaseRequest(PDEVICE_OBJECT Device, PIRP Irp);

// An extra reference, past the gate; only where another one is known to be held.
void HoldPort(PortExtension *Port);
void ReleasePort(PortExtension *Port);

// Complete a request that the gate did not let pass; they drop its reference and return the status
// for the dispatch routine.
NTSTATUS CompleteRefused(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS CompleteOnGonePort(PDEVICE_OBJECT Device, PIRP Irp);

// Completes an admitted request with no priority boost and drops its reference; the first with the
// status it holds, the second with the one given, which it returns.
void CompleteAdmitted(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS CompleteRequest(PDEVICE_OBJECT Device, PIRP Irp, NTSTATUS Status, ULONG_PTR Information);

// Waits until no reference is left but the bias. PASSIVE_LEVEL, one caller at a time, which holds
// no reference itself.
void WaitForIdle(PDEVICE_OBJECT Device);

// Sets and clears admission flags; always before the sweep that follows from them.
void ChangeAdmission(PortExtension *Port, ULONG Set, ULONG Clear);

// From here on closes and cleanups touch nothing of the port.
void MarkPortGone(PortExtension *Port);

// Requests parked by the gate, in the order of their arrival: completed, or dispatched again each
// on the device where it arrived. With ADMISSION_RESTARTING the restart goes on until none is left,
// and ends it. PASSIVE_LEVEL, one caller at a time.
void CompletePnpHeldRequests(PDEVICE_OBJECT Device, NTSTATUS Status);
void RestartPnpHeldRequests(PDEVICE_OBJECT Device);

// The cancel routine of a request parked by the gate.
void PnpHeldRequestCancel(PDEVICE_OBJECT Device, PIRP Irp) RELEASE(CancelSpinLock);

// A handle on the control or the auxiliary device itself keeps that device, and must keep the
// filter device object too: its close may come when the port has long been removed. (A handle on
// the device below the auxiliary one keeps neither; after the removal its close goes there.) Hold
// is for every open that leaves a handle, which is one whose status is not negative. Take gives the
// device to dereference, or null, to the close that ends the handle, however that close ends; null
// for any other request.
void HoldFilterDevice(PDEVICE_OBJECT Device, PIRP Irp);
PDEVICE_OBJECT TakeFilterHold(PDEVICE_OBJECT Device, PIRP Irp);
void DropFilterHold(PDEVICE_OBJECT Held);

// The system address of the request's buffer: its MDL mapped, or its system buffer (a null one
// included). Fails only with STATUS_INSUFFICIENT_RESOURCES. IRQL <= DISPATCH_LEVEL.
NTSTATUS GetRequestBuffer(PIRP Irp, PUCHAR *Address);
