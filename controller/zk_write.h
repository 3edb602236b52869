// ZK's writes: one frame a write, checked and handed to what executes its type.
#pragma once

#include "platform/kernel.h"

// Owns the write request, whose reference is held. Returns the status for the dispatch routine.
NTSTATUS ZkWrite(PDEVICE_OBJECT Device, PIRP Irp);
