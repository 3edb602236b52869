// Power requests: passed on to the port; answered with what they carry on the control device.
#pragma once

#include "platform/kernel.h"

NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp);
