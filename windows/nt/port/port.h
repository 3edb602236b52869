// The port: a function device that serves opens, reads, writes and controls as it is told.
#pragma once

#include "platform/kernel.h"
#include "windows/nt/vxport.h"

constexpr ULONG VX_TAG = 0x54507856;  // "VxPT"

struct VxBytes {
  ULONG Count;
  UCHAR Bytes[VX_BUFFER_BYTES];
};

// What outlives the port's devices. How it behaves is changed between requests.
struct VxPort {
  KSPIN_LOCK Lock;
  ULONG How[IRP_MJ_MAXIMUM_FUNCTION + 1];
  NTSTATUS Status[IRP_MJ_MAXIMUM_FUNCTION + 1];
  ULONG Seen[IRP_MJ_MAXIMUM_FUNCTION + 1];
  ULONG Flags;           // VX_DIRECT
  BOOLEAN Present;       // reported by the bus
  PDEVICE_OBJECT Child;  // the bus's device for it
  LIST_ENTRY Held;       // under the cancel spin lock
  LIST_ENTRY Ending;     // for the DPC; under Lock
  KDPC Dpc;
  VxBytes *Fed;  // under Lock, and Written
  VxBytes *Written;
};

extern VxPort VxPorts[VX_PORTS];

enum VxKind : ULONG { VX_KIND_CONTROL, VX_KIND_BUS, VX_KIND_CHILD, VX_KIND_PORT };

struct VxExtension {
  VxKind Kind;
  VxPort *Port;  // of a child and of a port
  ULONG Number;
  PDEVICE_OBJECT Lower;
  PDEVICE_OBJECT Physical;  // of the bus
  IO_REMOVE_LOCK RemoveLock;
  BOOLEAN Gone;  // of a port: surprised or removed, nothing is held any more
};

inline VxExtension *ExtensionOf(PDEVICE_OBJECT Device) {
  return static_cast<VxExtension *>(Device->DeviceExtension);
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// Of a new device; the system has cleared its extension.
VxExtension *VxFillExtension(PDEVICE_OBJECT Device, VxKind Kind, VxPort *Port, ULONG Number);

// Ends a request that came to a device of ours.
NTSTATUS VxComplete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information = 0);
// Passes down and waits.
NTSTATUS VxForward(PDEVICE_OBJECT Lower, PIRP Irp);

void VxPortInitialize(VxPort *Port);
NTSTATUS VxPortAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Child, VxPort *Port, ULONG Number);
NTSTATUS VxPortRequestDispatch(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS VxPortPnp(PDEVICE_OBJECT Device, PIRP Irp);

// Control codes of the test device.
NTSTATUS VxPortFeed(VxPort *Port, const UCHAR *Bytes, ULONG Count);
ULONG VxPortTake(VxPort *Port, UCHAR *Bytes, ULONG Room);
NTSTATUS VxPortFinish(VxPort *Port, UCHAR Major, NTSTATUS Status);
ULONG VxPortHeld(VxPort *Port, UCHAR Major);
