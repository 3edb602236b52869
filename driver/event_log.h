// Entries in the system event log. Reporting never fails towards its caller: an entry that is too
// large or gets no memory is dropped.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// Severity in the top bits (0x4 informational, 0x8 warning, 0xC error), facility 6. The texts are
// in windows/events.mc; %1 there is the control link name, carried by port events.
enum : ULONG {
  EVENT_DRIVER_LOADED = 0x40060002,
  EVENT_ATTACHING = 0x40060003,
  EVENT_AUXILIARY_DEVICE = 0x40060009,
  EVENT_DRIVER_UNLOADED = 0x4006000A,
  EVENT_NO_PORT_NAME = 0x80060006,
  EVENT_INTERNAL = 0xC0060001,  // the unique value is one of EVENT_INTERNAL_...
  EVENT_NO_FILTER_DEVICE = 0xC0060004,
  EVENT_NO_THREAD = 0xC0060005,
  EVENT_NO_AUXILIARY_DEVICE = 0xC0060007,
  EVENT_BAD_MODE = 0xC006000B,
  EVENT_BAD_FRAME = 0xC006000C,
  EVENT_BAD_COMMAND = 0xC006000D,
  EVENT_NO_CONTROL_DEVICE = 0xC006000E,
  EVENT_BAD_STATE_FLAGS = 0xC006000F,
  EVENT_REFLECTED_PORT = 0xC0060010,
  EVENT_NEITHER_IO = 0xC0060011,
};

enum : ULONG {
  EVENT_INTERNAL_THREAD_WAIT = 1,   // the call-down thread's wait ended unexpectedly
  EVENT_INTERNAL_READ_STOPPED = 3,  // a proxy read was to be issued while stopping or stopped
};

// Writes an entry for the device, or for the driver object when Device is null. String may be null;
// StringBytes counts its terminator. IRQL <= DISPATCH_LEVEL.
void ReportEvent(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Device, UCHAR MajorFunction,
                 ULONG UniqueValue, ULONG EventCode, NTSTATUS FinalStatus, PCWSTR String,
                 ULONG StringBytes);

// The same with the port's control link name as the string, when it has one.
void ReportPortEvent(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Device, UCHAR MajorFunction,
                     ULONG UniqueValue, ULONG EventCode, NTSTATUS FinalStatus,
                     const PortExtension *Port);
