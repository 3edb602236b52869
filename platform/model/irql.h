// The current thread's IRQL, for those parts of the model that call a driver at a raised level.
#pragma once

#include "platform/kernel.h"

// Returns the level before. Raising never lowers and lowering never raises.
KIRQL IrqlRaise(KIRQL NewIrql);
void IrqlLower(KIRQL OldIrql);
