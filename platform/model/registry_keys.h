// Keys as the model's other parts open them.
#pragma once

#include <map>
#include <string>

#include "platform/model/registry.h"

// Makes the key, with these values, if it is not there.
void RegistryAddKey(const std::string &Path, const std::map<std::string, RegistryValue> &Values);
void RegistryRemoveKey(const std::string &Path);
NTSTATUS RegistryOpenKey(const std::string &Path, HANDLE *Key);
