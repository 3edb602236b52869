// The object name space: devices, symbolic links, device interfaces.
#pragma once

#include <string>

#include "platform/kernel.h"

// Under DeviceMutex.
bool NameTaken(const std::string &Name);
void NameAddDevice(const std::string &Name, PDEVICE_OBJECT Device);
void NameRemoveDevice(PDEVICE_OBJECT Device);
// Also forgets the device's interfaces.
void NameForgetDevice(PDEVICE_OBJECT Device);

// As NameLookup; the caller gets a reference.
PDEVICE_OBJECT NameReference(const std::string &Name);

// Parts of DeviceArea.
void NamesBoot();
void NamesCheck();
