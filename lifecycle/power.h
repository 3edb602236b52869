// Power requests. The filter device passes them to the port and follows the port's device state;
// the control and auxiliary devices have no power of their own and answer at once. Requests are
// counted apart from all others, and nothing waits for them.
#pragma once

#include "platform/kernel.h"

// Refused with STATUS_DELETE_PENDING on a filter device that was removed. IRQL <= DISPATCH_LEVEL.
NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp);
