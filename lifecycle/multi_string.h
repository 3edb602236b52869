// Lists of identifiers, as Plug and Play takes them.
#pragma once

#include "platform/kernel.h"

// Each text of the list (ended by a null) with its terminator, and one terminator more; commas and
// form feeds end a text, too. On success the buffer is the caller's to free, or null when the list
// is empty; on failure it is null. PASSIVE_LEVEL.
NTSTATUS BuildMultiString(PUNICODE_STRING Strings, const char *const *Texts);
