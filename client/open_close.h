// Opens, closes and cleanups of a port's devices. The control device is ZK's side, the filter and
// auxiliary devices the client's. The real port is opened once for both: the first open goes down,
// the other side's is granted here, and only the last close goes down again.
//
// Opens and closes run as serializer items; cleanups do not.
#pragma once

#include "platform/kernel.h"

NTSTATUS DispatchCreate(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS DispatchClose(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS DispatchCleanup(PDEVICE_OBJECT Device, PIRP Irp);
