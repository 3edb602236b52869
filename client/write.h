// What the port's client writes: to the real port, and in NORMAL a copy to ZK.
#pragma once

#include "platform/kernel.h"

// Owns the request. Mode is what the gate read. A copy that cannot be made fails the write, and
// nothing reaches the port. IRQL <= DISPATCH_LEVEL.
NTSTATUS ClientWrite(PDEVICE_OBJECT Device, PIRP Irp, ULONG Mode);
