// Spin locks inside the model.
//
// A lock's word is "free", marked with the lock's own address, or "held", marked with the owner;
// any other value was never initialised (or is a copy of a lock).
#pragma once

#include <string>

#include "platform/kernel.h"

KIRQL LockAcquireRaise(PKSPIN_LOCK Lock, const void *Place);
bool LockHeldByMe(const KSPIN_LOCK *Lock);
// Makes the lock free whatever it was.
void LockForceFree(PKSPIN_LOCK Lock);

// Before memory is given back: stops when a held lock lies in it, and forgets its locks' order.
void LockLeaveMemory(const void *Low, size_t Bytes);

std::string LockText(const KSPIN_LOCK *Lock);
// A code address as module or symbol and offset.
std::string PlaceText(const void *Place);
