// ZK's reads of the control device: one frame a read.
#pragma once

#include "platform/kernel.h"

// Owns the read request, whose reference is held. STATUS_PENDING while it waits for a frame.
NTSTATUS ZkRead(PDEVICE_OBJECT Device, PIRP Irp);
