// Which lock is taken before which: declared, or learned from what the run does.
#pragma once

#include "platform/kernel.h"
#include "platform/model/thread_object.h"

void LockOrderBoot();
// Self, holding at least one lock, is about to take Lock at Place.
void LockOrderCheck(PKTHREAD Self, PKSPIN_LOCK Lock, const void *Place);
void LockOrderForget(const void *Low, size_t Bytes);
