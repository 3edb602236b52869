// The stream lock: while ZK holds a port's stream, the client's reads, writes and buffered device
// controls are parked (client/gate.h).
#pragma once

#include "driver/extension.h"
#include "platform/kernel.h"

// Holds new client requests from here on, unless the port is going: then nobody would release them.
void HoldClientRequests(PortExtension *Port);

// Ends the lock and dispatches every parked request again, oldest first, under the mode now in
// force. Runs as the port's serializer item.
void ReleaseHeldRequests(PDEVICE_OBJECT Device) REQUIRES(SerializerRole);

// Ends the hold of a port that is going and completes every parked request with STATUS_CANCELLED.
// The lock's state flag stays; ZK's close clears it. PASSIVE_LEVEL.
void CancelParkedRequests(PDEVICE_OBJECT Device);
