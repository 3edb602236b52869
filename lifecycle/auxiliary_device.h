// The auxiliary device of a port whose clients come in by a second device of the port's driver, one
// that the port's name leads to and that stands outside of the port's stack. It is attached over
// that device, so that these requests pass through the driver too.
#pragma once

#include "platform/kernel.h"

struct PortExtension;

// At a port's first start: looks where the port's name leads to and decides. "VORLIXUseEdo" forces
// an auxiliary device or forbids it; without the value there is one when the name leads out of the
// port's stack to a device of one of the stack's drivers. Names the client-side device; fails only
// when an auxiliary device was wanted and could not be had, which a later start tries again.
// PASSIVE_LEVEL.
NTSTATUS SetUpAuxiliaryDevice(PDEVICE_OBJECT FilterDevice);

// Makes the device and enters it as the port's client-side device; null there on failure.
NTSTATUS CreateAuxiliaryDevice(PortExtension *Port, PDEVICE_OBJECT *Device);

// Detaches and deletes the auxiliary device; returns null if there is none. The requests inside go
// on with it and the device below it: both objects stay. When the port is idle, the device below is
// let go of; the auxiliary device itself stays until the driver is unloaded, and refuses what still
// arrives.
PDEVICE_OBJECT DeleteAuxiliaryDevice(PortExtension *Port);
void RetireAuxiliaryDevice(PDEVICE_OBJECT Device);
void FreeRetiredAuxiliaryDevices();
