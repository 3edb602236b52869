// Data frames: bytes from ZK for the real port, delivered with ZK's own write request, trimmed to
// the payload on its way down and restored on its way back. Nothing is copied.
#pragma once

#include "platform/kernel.h"

// Owns the write request of a data frame that passed the header check.
NTSTATUS WriteToSinks(PDEVICE_OBJECT Device, PIRP Irp);
