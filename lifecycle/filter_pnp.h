// Plug and Play requests on the filter device: follows the real port through start, stop and
// removal, and tears down what was built for it.
#pragma once

#include "platform/kernel.h"

// Owns the request, whose reference is held. PASSIVE_LEVEL, one at a time a port.
NTSTATUS FilterPnp(PDEVICE_OBJECT Device, PIRP Irp);
