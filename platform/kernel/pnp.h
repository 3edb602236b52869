// Services of the power manager. Those of the Plug and Play manager that a driver calls are
// declared with the I/O manager's.
#pragma once

#include "platform/kernel/io.h"
#include "platform/kernel/pnp_types.h"

NTKERNELAPI void PoStartNextPowerIrp(PIRP Irp);
NTKERNELAPI NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
NTKERNELAPI POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type,
                                        POWER_STATE State);
