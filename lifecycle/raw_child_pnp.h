// Plug and Play requests on the control device, which the Plug and Play manager knows as a raw
// child of the filter device: it answers for itself and needs no driver above it. The auxiliary
// device, which stands in no Plug and Play stack, answers in the same way but has no identity.
#pragma once

#include "platform/kernel.h"

// Owns the request, whose reference is held, and completes it. PASSIVE_LEVEL.
NTSTATUS RawChildPnp(PDEVICE_OBJECT Device, PIRP Irp);
