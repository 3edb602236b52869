// The registry: keys by path, values with a type and bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kernel.h"

struct RegistryValue {
  ULONG Type = REG_BINARY;
  std::vector<uint8_t> Data;
};

RegistryValue RegistryDword(ULONG Value);
// UTF-16 with its terminator unless Terminated is false.
RegistryValue RegistryText(std::string_view Text, bool Terminated = true);

// By absolute path, e.g. a service key.
void RegistrySet(const std::string &Path, const std::string &Name, const RegistryValue &Value);

// Names that MmGetSystemRoutineAddress does not find in this run (none at first).
void SystemRoutineHide(const std::string &Name);
