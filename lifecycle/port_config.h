// A port's settings, read once from its device key at attach, and the two names built from its
// port name.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// Fails when there is no device key, no usable "PortName" (reported) or no memory; a switch that is
// missing or unreadable takes its fallback. On failure neither name exists. PASSIVE_LEVEL.
NTSTATUS ReadPortConfiguration(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDevice,
                               PortExtension *Port);

// Frees the names that DeleteControlLink retired; when no request can hold one any more.
void FreeRetiredNames(PortExtension *Port);
