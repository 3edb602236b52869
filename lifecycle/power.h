// Power requests. The filter device passes them to the port and follows the port's device state;
// the control and auxiliary devices have no power of their own and answer at once. Requests are
// counted apart from all others, and nothing waits for them.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// From before the filter device is attached, the device below it stays for the power requests that
// are inside; null lets go of it. IRQL <= DISPATCH_LEVEL.
void PowerKeepsBelow(PortExtension *Port, PDEVICE_OBJECT Lower);

// The filter device is detached, by a removal or a failed attach: new requests are refused, and the
// device below is let go of now or by the last request inside. Waits for none.
void PowerDetached(PortExtension *Port);

// Refused with STATUS_DELETE_PENDING on a filter device that was removed. IRQL <= DISPATCH_LEVEL.
NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp);
