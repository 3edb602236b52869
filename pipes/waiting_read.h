// The way of every NORMAL-mode read, the client's and ZK's, into its pipe.
#pragma once

#include "pipes/pipe.h"
#include "pipes/proxy_read.h"
#include "platform/kernel.h"

// Serves the read from what waits in the element's pipe; or has the engine read the port for it,
// on behalf of Class, and lets it wait. The element and its request are given away whatever the
// result, which is the status for the dispatch routine. The port may be gone afterwards, unless the
// caller holds it. IRQL <= DISPATCH_LEVEL.
NTSTATUS SubmitWaitingRead(PDEVICE_OBJECT Device, PipeElement *Reader, ProxyReadClass Class,
                           ULONG PoolTag);
