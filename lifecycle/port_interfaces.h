// The two device interfaces of a port: the port's own, and the control device's, which comes and
// goes with that device.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// Registers both on the port's physical device and enables the port's. What a failure leaves
// registered FreePortInterfaces frees. PASSIVE_LEVEL, as all of these.
NTSTATUS RegisterPortInterfaces(PortExtension *Port);
void DisablePortInterface(PortExtension *Port);
NTSTATUS EnableControlInterface(PortExtension *Port);
void DisableControlInterface(PortExtension *Port);
void FreePortInterfaces(PortExtension *Port);
