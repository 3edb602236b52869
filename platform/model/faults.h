// Faults on demand: every call that can fail asks here first.
#pragma once

#include <cstdint>

#include "platform/kernel.h"

enum FaultKind : uint32_t {
  FaultPool = 0x0001,       // ExAllocatePoolWithTag
  FaultIrp = 0x0002,        // IoAllocateIrp
  FaultMdl = 0x0004,        // IoAllocateMdl
  FaultMapping = 0x0008,    // MmMapLockedPagesSpecifyCache
  FaultThread = 0x0010,     // PsCreateSystemThread
  FaultReference = 0x0020,  // ObReferenceObjectByHandle
  FaultDevice = 0x0040,     // IoCreateDevice, IoCreateDeviceSecure
  FaultAttach = 0x0080,     // IoAttachDeviceToDeviceStack
  FaultLink = 0x0100,       // IoCreateSymbolicLink
  FaultInterface = 0x0200,  // IoRegisterDeviceInterface, IoSetDeviceInterfaceState
  FaultRegistry = 0x0400,   // IoOpenDeviceRegistryKey, ZwQueryValueKey, RtlQueryRegistryValues
  FaultEventLog = 0x0800,   // IoAllocateErrorLogEntry
  FaultWait = 0x1000,       // KeWaitForMultipleObjects returns an unexpected status
  FaultLower = 0x2000,      // a scripted driver asks for each request that it may fail
  FaultEverything = 0xFFFFFFFF
};

struct FaultPlan {
  uint32_t Kinds = FaultEverything;
  ULONG Tag = 0;             // with FaultPool: only allocations of this tag; 0 is any
  uint64_t Nth = 1;          // the n-th matching call from now fails, counted from 1
  bool AndAllAfter = false;  // and every matching call after it
  unsigned Percent = 0;      // not 0: instead, so many in a hundred fail, drawn from the seed
  uint64_t Seed = 0;
  NTSTATUS DeviceStatus = STATUS_INSUFFICIENT_RESOURCES;  // what FaultDevice returns
};

// One plan at a time. Arming starts the count anew; Disarm returns whether the fault of
// the plan that was still armed was delivered.
void FaultArm(const FaultPlan &Plan);
bool FaultDisarm();
// Whether the first fault of the last plan was delivered inside an exploration's window.
bool FaultInWindow();

// What a device that is not made is refused with; asked after FaultHere.
NTSTATUS FaultDeviceStatus();

// Calls so far in this run that a plan of these kinds and this tag would have counted.
uint64_t FaultCount(uint32_t Kinds, ULONG Tag = 0);

// Asked by the services: counts the call and says whether it is to fail.
bool FaultHere(FaultKind Kind, ULONG Tag = 0);
