// The bus of the model: the driver below every port that the Plug and Play manager adds.
#pragma once

#include "platform/kernel.h"

struct PnpNode;

// The driver exists as long as it has devices.
PDEVICE_OBJECT BusMakeDevice(PnpNode *Node);
void BusDeleteDevice(PDEVICE_OBJECT Device);

// Whether a Plug and Play request with this minor function came through to the bus since the last
// BusForget.
bool BusSaw(PDEVICE_OBJECT Device, UCHAR Minor);
void BusForget(PDEVICE_OBJECT Device);

// Part of PnpArea.
void BusReset();
