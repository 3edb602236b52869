// The serial port driver: an ordinary driver of the model whose hardware is a Linux tty. It is the
// "real port" below the filter.
//
// The port's hardware key names the port ("PortName", text) and the tty ("TtyPath", the path's
// bytes as REG_BINARY). The tty is open from a create to its close; the line's settings outlast
// that.
#pragma once

#include "platform/kernel.h"

NTSTATUS SerialDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// Called once for a port whose tty is gone while it was open: the port has completed what waited
// and refuses everything new. May come inside of any request, and only notes what is to be done.
void SerialOnLoss(void (*Handler)(PDEVICE_OBJECT PhysicalDevice));
