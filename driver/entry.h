// Load and unload, and the few variables that belong to the driver and to no port.
#pragma once

#include "platform/kernel.h"

struct DriverVariables {
  PDRIVER_OBJECT DriverObject;  // reports driver-wide events
  ULONG BreakOnLoad;            // only its low-order byte counts
  PCWSTR ModeNames[4];          // by port mode
  LONG ControlDevices;          // interlocked; numbers the devices' names, never reset
  LONG AuxiliaryDevices;
  PDEVICE_OBJECT RetiredAuxiliaryDevices;  // interlocked; the last one that was detached
};

extern DriverVariables DriverWide;

// Called by the I/O manager, once, at PASSIVE_LEVEL; installs the unload routine. Always succeeds.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
