// Dispatcher objects inside the model: what a wait does and who is woken.
#pragma once

#include <cstddef>
#include <string>

#include "platform/kernel.h"

// DISPATCHER_HEADER.Type.
enum WaitType : UCHAR {
  WaitNotification = 0,
  WaitSynchronization = 1,
  WaitSemaphore = 5,
  WaitThread = 6
};

void WaitHeaderInitialize(DISPATCHER_HEADER *Header, WaitType Type, LONG State);

// Under DispatcherMutex: the object may have become signalled; the wait's time-out is over.
void WaitSignalled(DISPATCHER_HEADER *Header);
void WaitTimedOut(PKTHREAD Thread);

// Whether some thread waits for an object in the range; the threads are walked only when one may.
bool WaitsWithin(const void *Low, size_t Bytes);

std::string WaitText(const DISPATCHER_HEADER *Header);
