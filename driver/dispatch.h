// The dispatch table: every request enters here, is counted, and is routed by the kind of the
// device that received it. Opens, closes, cleanups and the client's rest have dispatch routines of
// their own in client/.
#pragma once

#include "platform/kernel.h"

// Called by the driver's entry, with which it is dropped.
void InstallDispatchTable(PDRIVER_OBJECT DriverObject);
