// System time in 100 ns units: the machine's, or a virtual clock that moves when nothing else does.
#pragma once

#include <cstdint>

#include "platform/kernel.h"

extern bool ClockReal;

void ClockBoot(bool Real);
int64_t ClockNow();

// Under DispatcherMutex.
extern unsigned TimedWaiters;
// The earliest due time of a wait, or NoDeadline.
int64_t ClockNextDeadline();
// Times out, in order, every wait that is due.
void ClockExpire();
// Lets the time come at which the next wait is due: jumps there, or sleeps.
void ClockToNextDeadline();
