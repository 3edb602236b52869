// The one way in which most requests go down.
#pragma once

#include "platform/kernel.h"

// Sends a request whose next stack location the caller prepared (by skipping its own or copying
// it), then drops the request's reference. A file object that the driver below never saw opened
// gets the FsContext of the open that it has. Returns the lower driver's status; the request is not
// the caller's any more.
NTSTATUS ForwardToLower(PDEVICE_OBJECT LowerDevice, PIRP Irp, PDEVICE_OBJECT Device);

// Skips the current stack location and forwards to the device below Device.
NTSTATUS SkipToLower(PDEVICE_OBJECT Device, PIRP Irp);
