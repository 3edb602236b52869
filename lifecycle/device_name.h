// A numbered name for a device of the driver.
#pragma once

#include "platform/kernel.h"

// Makes "<Prefix><n>", n being the counter after its increment. A number that was taken is spent,
// also when a later step fails, so that no name is used twice. On success the name is the caller's
// to free. PASSIVE_LEVEL.
NTSTATUS MakeDeviceName(PCWSTR Prefix, LONG *Counter, PUNICODE_STRING Name);
void FreeDeviceName(PUNICODE_STRING Name);
