// The message texts of the driver's event log entries. Generated at build time from the same table
// that the Windows message resource is built from; %1 stands for the first insertion string.
#pragma once

#include <cstdint>

// Null for a code that the table does not hold.
const char *EventText(uint32_t Code);
