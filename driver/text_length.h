// How long a text is that may not end.
#pragma once

#include "platform/kernel.h"

// On success *Bytes are those before the terminator. STATUS_INVALID_PARAMETER when there is no
// text, when it does not end within MaximumBytes, or when these are more than 0x7FFFFFFF
// characters. IRQL as the text's memory allows.
NTSTATUS TextLength(PCWSTR Text, SIZE_T MaximumBytes, SIZE_T *Bytes);
