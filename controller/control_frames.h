// Control frames: ZK sets and queries the mode and the message level and locks and unlocks the
// stream. Each runs as a serializer item and is answered by a reply frame on the ZK pipe.
#pragma once

#include "platform/kernel.h"

// Owns the write request of a frame that passed the header check. Returns the status for the
// dispatch routine; the request and the port may be gone afterwards.
NTSTATUS SubmitControlFrame(PDEVICE_OBJECT Device, PIRP Irp);
