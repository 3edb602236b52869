#include "platform/model/cancel_lock.h"

#include "platform/model/locks.h"

CANCEL_SPIN_LOCK CancelSpinLock;
static KSPIN_LOCK cancelLock;

void CancelLockBoot() {
  LockForceFree(&cancelLock);
}

bool CancelLockHeldByMe() {
  return LockHeldByMe(&cancelLock);
}

PKSPIN_LOCK CancelLock() {
  return &cancelLock;
}

void IoAcquireCancelSpinLock(PKIRQL Irql) {
  *Irql = LockAcquireRaise(&cancelLock, __builtin_return_address(0));
}

void IoReleaseCancelSpinLock(KIRQL Irql) {
  KeReleaseSpinLock(&cancelLock, Irql);
}
