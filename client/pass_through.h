// Requests that the filter does not interpret. Device controls obey the stream lock; everything
// else is tracked while it is down, so that the cleanup of its handle can cancel it.
#pragma once

#include "platform/kernel.h"

// Owns the request, whose reference is held. While the stream is held, buffered controls are parked
// and the others refused with STATUS_NOT_SUPPORTED. IRQL <= DISPATCH_LEVEL.
NTSTATUS ClientDeviceControl(PDEVICE_OBJECT Device, PIRP Irp);

// The dispatch routine of every major function without one of its own. On the control device it
// completes the request with the status it carries.
NTSTATUS DispatchDefault(PDEVICE_OBJECT Device, PIRP Irp);

// Asks for the cancellation of every tracked request of the device.
void CancelPassThrough(PDEVICE_OBJECT Device);
