// A port's control device: ZK's door to the port, open to the operating system's own account only,
// and a raw child in the filter device's bus relations.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// Makes the device, its link and its identifiers, and enters them in the port. An identifier that
// gets no memory stays empty, and a question for it fails. PASSIVE_LEVEL.
NTSTATUS CreateControlDevice(PortExtension *Port);

// Deletes the link, if this port made it, and takes both names out of use. Their texts stay until
// FreeRetiredNames: requests under way may still print them. Done at most once; later calls find
// nothing to do.
NTSTATUS DeleteControlLink(PortExtension *Port);

// Disables the control interface, when it was registered, and deletes the device. Handles may keep
// the device object.
NTSTATUS DeleteControlDevice(PDEVICE_OBJECT ControlDevice);
