// A filter above ours on every port, and on its control device: passes everything, and looks at
// what is promised between drivers. A promise that is broken is a line of the debug log.
#pragma once

#include "platform/kernel.h"
#include "windows/nt/vxcheck.h"

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

extern volatile LONG CheckJolts;  // how many there were

// From now on the driver's calls into the kernel yield at random, by the seed; 0 ends that.
void JoltsSet(PDRIVER_OBJECT Driver, ULONG Seed);
