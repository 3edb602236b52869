// What the port's client reads: in IDLE from the real port, in NORMAL from the client pipe, which
// the proxy read engine fills.
#pragma once

#include "platform/kernel.h"

// Owns the request. Mode is what the gate read. IRQL <= DISPATCH_LEVEL.
NTSTATUS ClientRead(PDEVICE_OBJECT Device, PIRP Irp, ULONG Mode);
