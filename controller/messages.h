// Text messages from the driver to ZK, as report frames tagged TAG_DRIVER.
#pragma once

#include "platform/kernel.h"

// A message goes out when its level is at most the port's message level; 0 sends nothing.
enum : ULONG {
  MESSAGE_ERROR = 1,
  MESSAGE_PORT_ERROR = 2,
  MESSAGE_SESSION = 4,  // opens and closes
  MESSAGE_TRAFFIC = 5,  // commands, and every client read and write
};

// Formats (%ws a wide string, %x a 32-bit number) and queues a message on the ZK pipe of the
// device's port. A text of more than 1,023 characters is not sent at all. Callers go on whatever
// the result: STATUS_SUCCESS when queued or not wanted. Any IRQL up to DISPATCH_LEVEL.
NTSTATUS SendZkMessage(PDEVICE_OBJECT Device, ULONG Level, PCWSTR Format, ...);
