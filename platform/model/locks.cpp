#include "platform/model/locks.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>

#include "platform/model/cancel_lock.h"
#include "platform/model/causality.h"
#include "platform/model/executor.h"
#include "platform/model/lock_order.h"
#include "platform/model/paged_pool.h"
#include "platform/model/report.h"
#include "platform/model/scheduler.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static constexpr ULONG_PTR FreeMark = 0xF6EE'0000'0000'0000;
static constexpr ULONG_PTR HeldMark = 0xACED'0000'0000'0000;
static constexpr ULONG_PTR MarkMask = 0xFFFF'0000'0000'0000;

static ULONG_PTR FreeWord(const KSPIN_LOCK *lock) {
  return FreeMark | (reinterpret_cast<ULONG_PTR>(lock) & ~MarkMask);
}

static ULONG_PTR HeldWord(PKTHREAD owner) {
  return HeldMark | (reinterpret_cast<ULONG_PTR>(owner) & ~MarkMask);
}

static bool IsHeld(ULONG_PTR word) {
  return (word & MarkMask) == HeldMark;
}

static ULONG_PTR ReadWord(const KSPIN_LOCK *lock) {
  return __atomic_load_n(&lock->Word, __ATOMIC_RELAXED);
}

static PKTHREAD Owner(ULONG_PTR word) {
  return reinterpret_cast<PKTHREAD>(word & ~MarkMask);
}

// Whether a word that looks held names a thread of this run; memory that was never initialised can
// carry an older run's word.
static bool OwnerLives(ULONG_PTR word) {
  if (Owner(word) == &HostThread) {
    return true;
  }
  Guard guard(DispatcherMutex);
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    if (CONTAINING_RECORD(entry, _KTHREAD, AllLink) == Owner(word)) {
      return true;
    }
  }
  return false;
}

void LockForceFree(PKSPIN_LOCK Lock) {
  __atomic_store_n(&Lock->Word, FreeWord(Lock), __ATOMIC_RELEASE);
}

bool LockHeldByMe(const KSPIN_LOCK *Lock) {
  return ReadWord(Lock) == HeldWord(ThreadSelf());
}

// --- taking ------------------------------------------------------------------------------------

static void CheckTake(PKTHREAD self, PKSPIN_LOCK lock, const void *place) {
  ULONG_PTR word = ReadWord(lock);
  if (word == HeldWord(self)) {
    VerifierStop("lock.recursion", lock, "%s is taken at %s by the thread that holds it",
                 LockText(lock).c_str(), PlaceText(place).c_str());
  }
  // Its owner may have let go and ended since the word was read: then the word is another by now.
  if (word != FreeWord(lock) && !(IsHeld(word) && OwnerLives(word)) && ReadWord(lock) == word) {
    VerifierStop("lock.uninitialized", lock, "%s is taken at %s; its word is %#llx",
                 LockText(lock).c_str(), PlaceText(place).c_str(),
                 static_cast<unsigned long long>(word));
  }
  if (self->HeldCount == MostLocksHeld) {
    VerifierStop("lock.too-many", lock, "%u locks held", self->HeldCount);
  }
}

static bool TryTake(PKSPIN_LOCK lock, ULONG_PTR word, ULONG_PTR held) {
  if (!ThreadsInUse) {
    lock->Word = held;
    return true;
  }
  return __atomic_compare_exchange_n(&lock->Word, &word, held, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED);
}

static void Take(PKTHREAD self, PKSPIN_LOCK lock, bool atDpc, KIRQL saved, const void *place) {
  SwitchPoint(SwitchReason::Lock, lock);
  if (VerifierEnabled && self->HeldCount > 0 && ReadWord(lock) != HeldWord(self)) {
    LockOrderCheck(self, lock, place);
  }
  if (VerifierEnabled) {
    CheckTake(self, lock, place);
  }
  for (;;) {
    ULONG_PTR word = ReadWord(lock);
    if (!IsHeld(word)) {
      if (TryTake(lock, word, HeldWord(self))) {
        break;
      }
    } else if (ThreadsInUse) {
      sched_yield();
    } else {
      SchedulerAwaitLock(self, lock);
      if (VerifierEnabled) {
        CheckTake(self, lock, place);  // it may have been freed meanwhile
      }
    }
  }
  if (self->HeldCount < MostLocksHeld) {
    self->Held[self->HeldCount++] = {lock, place, saved, atDpc};
  }
  CausalAcquire(lock);
  HistoryNote("lock", lock);
}

KIRQL LockAcquireRaise(PKSPIN_LOCK Lock, const void *Place) {
  PKTHREAD self = ThreadSelf();
  KIRQL saved = self->Irql;
  self->Irql = DISPATCH_LEVEL;
  PagedRaised();
  Take(self, Lock, false, saved, Place);
  return saved;
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
  return LockAcquireRaise(SpinLock, __builtin_return_address(0));
}

void KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
  PKTHREAD self = ThreadSelf();
  if (VerifierEnabled && self->Irql != DISPATCH_LEVEL) {
    VerifierStop("irql.too-low", SpinLock, "KeAcquireSpinLockAtDpcLevel at IRQL %u", self->Irql);
  }
  Take(self, SpinLock, true, self->Irql, __builtin_return_address(0));
}

// --- giving back -------------------------------------------------------------------------------

static HeldLock *FindHeld(PKTHREAD self, PKSPIN_LOCK lock) {
  for (unsigned i = self->HeldCount; i-- > 0;) {
    if (self->Held[i].Lock == lock) {
      return &self->Held[i];
    }
  }
  return nullptr;
}

[[noreturn]] static void StopNotHeld(PKSPIN_LOCK lock) {
  ULONG_PTR word = ReadWord(lock);
  if (word == FreeWord(lock)) {
    VerifierStop("lock.release-unheld", lock, "%s is free", LockText(lock).c_str());
  }
  if (IsHeld(word) && OwnerLives(word)) {
    VerifierStop("lock.release-by-other", lock, "%s belongs to thread \"%s\"",
                 LockText(lock).c_str(), Owner(word)->Name);
  }
  VerifierStop("lock.uninitialized", lock, "%s is given back; its word is %#llx",
               LockText(lock).c_str(), static_cast<unsigned long long>(word));
}

static void CheckGive(PKTHREAD self, PKSPIN_LOCK lock, bool atDpc, KIRQL newIrql) {
  const HeldLock *held = FindHeld(self, lock);
  if (!held || ReadWord(lock) != HeldWord(self)) {
    StopNotHeld(lock);
  }
  if (held->AtDpc != atDpc) {
    VerifierStop("lock.wrong-release", lock, "%s was taken %s and is given back the other way",
                 LockText(lock).c_str(), atDpc ? "with the IRQL raised" : "at DISPATCH_LEVEL");
  }
  if (newIrql != held->Saved) {
    VerifierStop("irql.wrong-restore", lock, "%s was taken at IRQL %u and is given back with %u",
                 LockText(lock).c_str(), held->Saved, newIrql);
  }
  if (newIrql < DISPATCH_LEVEL && self->HeldCount > 1) {
    VerifierStop("irql.dropped-under-lock", lock,
                 "%s is given back with IRQL %u while %u other locks are held",
                 LockText(lock).c_str(), newIrql, self->HeldCount - 1);
  }
}

static void Give(PKTHREAD self, PKSPIN_LOCK lock, bool atDpc, KIRQL newIrql) {
  if (VerifierEnabled) {
    CheckGive(self, lock, atDpc, newIrql);
  }
  CausalRelease(lock);
  HistoryNote("unlock", lock);
  if (HeldLock *held = FindHeld(self, lock)) {
    HeldLock *last = &self->Held[--self->HeldCount];
    for (; held < last; ++held) {
      held[0] = held[1];
    }
  }
  LockForceFree(lock);
  if (LockWaiters > 0) {
    SchedulerLockFree(lock);
  }
  self->Irql = newIrql;
  // The lock may be gone by now; only its address is used.
  SwitchPoint(SwitchReason::Unlocked, lock);
}

void KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
  Give(ThreadSelf(), SpinLock, false, NewIrql);
}

void KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
  PKTHREAD self = ThreadSelf();
  Give(self, SpinLock, true, self->Irql);
}

// --- the life of a lock ------------------------------------------------------------------------

void KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
  if (VerifierEnabled) {
    ULONG_PTR word = ReadWord(SpinLock);
    if (IsHeld(word) && OwnerLives(word) &&
        (Owner(word) != ThreadSelf() || FindHeld(ThreadSelf(), SpinLock))) {
      VerifierStop("lock.reinitialized", SpinLock, "%s is held by thread \"%s\"",
                   LockText(SpinLock).c_str(), Owner(word)->Name);
    }
    LockOrderForget(SpinLock, sizeof *SpinLock);
  }
  CausalForget(SpinLock);
  LockForceFree(SpinLock);
}

[[noreturn]] static void StopFreedHeld(const KSPIN_LOCK *lock, const void *low, PKTHREAD owner) {
  VerifierStop("lock.freed-held", low, "%s, held by thread \"%s\", lies in memory that is freed",
               LockText(lock).c_str(), owner->Name);
}

// Every lock held in the memory, found by its word: its owner's list may change meanwhile.
static void CheckWords(const void *low, size_t bytes) {
  // A lock is aligned as its word is.
  const KSPIN_LOCK *lock = static_cast<const KSPIN_LOCK *>(low);
  for (size_t i = 0; i < bytes / sizeof *lock; ++i) {
    ULONG_PTR word = ReadWord(&lock[i]);
    if (IsHeld(word) && OwnerLives(word)) {
      StopFreedHeld(&lock[i], low, Owner(word));
    }
  }
}

// The same found by its owner, which is quicker.
static void CheckOwner(const void *low, size_t bytes, PKTHREAD owner) {
  const char *from = static_cast<const char *>(low);
  for (unsigned i = 0; i < owner->HeldCount; ++i) {
    const char *lock = reinterpret_cast<const char *>(owner->Held[i].Lock);
    if (lock >= from && lock < from + bytes) {
      StopFreedHeld(owner->Held[i].Lock, low, owner);
    }
  }
}

void LockLeaveMemory(const void *Low, size_t Bytes) {
  if (ThreadsInUse) {
    CheckWords(Low, Bytes);
  } else {
    CheckOwner(Low, Bytes, &HostThread);
    for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
      CheckOwner(Low, Bytes, CONTAINING_RECORD(entry, _KTHREAD, AllLink));
    }
  }
  LockOrderForget(Low, Bytes);
  ReportForget(Low, Bytes);
}

std::string LockText(const KSPIN_LOCK *Lock) {
  if (Lock == CancelLock()) {
    return "the cancel spin lock";
  }
  if (std::string name = ReportNameOf(Lock, "lock"); !name.empty()) {
    return name;
  }
  char text[40];
  snprintf(text, sizeof text, "lock %p", static_cast<const void *>(Lock));
  return text;
}

std::string PlaceText(const void *Place) {
  if (std::string place = ReportPlaceOf(Place); !place.empty()) {
    return place;
  }
  char text[256];
  Dl_info info;
  if (!Place || !dladdr(Place, &info)) {
    snprintf(text, sizeof text, "%p", Place);
    return text;
  }
  if (!info.dli_sname) {
    snprintf(text, sizeof text, "%s+%#tx", info.dli_fname,
             static_cast<const char *>(Place) - static_cast<const char *>(info.dli_fbase));
    return text;
  }
  int status;
  char *plain = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
  snprintf(text, sizeof text, "%s+%#tx", plain ? plain : info.dli_sname,
           static_cast<const char *>(Place) - static_cast<const char *>(info.dli_saddr));
  free(plain);
  return text;
}
