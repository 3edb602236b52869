// The one cancel spin lock.
#pragma once

#include "platform/kernel.h"

void CancelLockBoot();
bool CancelLockHeldByMe();
// For VerifierDeclareOrder and reports.
PKSPIN_LOCK CancelLock();
