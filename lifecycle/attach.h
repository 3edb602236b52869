// Attaching to a port: the filter device over the port's stack, and everything that the port needs.
#pragma once

#include "platform/kernel.h"

// Called by the Plug and Play manager for each COM port, with its physical device. On failure
// nothing remains attached or allocated. PASSIVE_LEVEL.
NTSTATUS AddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDevice);
