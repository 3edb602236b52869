#include "platform/model/cancel_lock.h"
#include "platform/model/irql.h"
#include "tests/model/model_run.h"

static KSPIN_LOCK one;
static KSPIN_LOCK two;
static KSPIN_LOCK three;

static void InitializeLocks() {
  KeInitializeSpinLock(&one);
  KeInitializeSpinLock(&two);
  KeInitializeSpinLock(&three);
}

MODEL_TEST(Locks, RaiseAndRestoreExactly) {
  InitializeLocks();
  KIRQL irql;
  KIRQL outer = KeAcquireSpinLockRaiseToDpc(&one);
  EXPECT_EQ(outer, PASSIVE_LEVEL);
  IoAcquireCancelSpinLock(&irql);
  EXPECT_EQ(irql, DISPATCH_LEVEL);
  EXPECT_TRUE(CancelLockHeldByMe());
  KeAcquireSpinLockAtDpcLevel(&two);
  EXPECT_EQ(VerifierLocksHeld(), 3u);
  IoReleaseCancelSpinLock(irql);  // not the last one taken
  EXPECT_FALSE(CancelLockHeldByMe());
  KeReleaseSpinLockFromDpcLevel(&two);
  EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
  KeReleaseSpinLock(&one, outer);
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

static void TakeBothRelease(PKSPIN_LOCK lock) {
  KIRQL outer = KeAcquireSpinLockRaiseToDpc(&one);
  KeAcquireSpinLockRaiseToDpc(&two);
  KeReleaseSpinLock(lock, outer);
}

static const BadRoutine badRoutines[] = {
    {"recursion", "lock.recursion", [] { TakeBoth(&one, &one); }},
    {"never initialised", "lock.uninitialized",
     [] {
       KSPIN_LOCK fresh = {0};
       KeAcquireSpinLockRaiseToDpc(&fresh);
     }},
    {"a copy of a lock", "lock.uninitialized",
     [] {
       KSPIN_LOCK copy = one;
       KeAcquireSpinLockRaiseToDpc(&copy);
     }},
    {"initialised while held", "lock.reinitialized",
     [] {
       KeAcquireSpinLockRaiseToDpc(&one);
       KeInitializeSpinLock(&one);
     }},
    {"released without having it", "lock.release-unheld",
     [] { KeReleaseSpinLock(&one, PASSIVE_LEVEL); }},
    {"released by another thread", "lock.release-by-other",
     [] {
       KeAcquireSpinLockRaiseToDpc(&one);
       ThreadStart("other", [] { KeReleaseSpinLock(&one, PASSIVE_LEVEL); });
       ThreadSettle();
     }},
    {"taken raising, released at DPC level", "lock.wrong-release",
     [] {
       KeAcquireSpinLockRaiseToDpc(&one);
       KeReleaseSpinLockFromDpcLevel(&one);
     }},
    {"DPC-level acquisition at passive level", "irql.too-low",
     [] { KeAcquireSpinLockAtDpcLevel(&one); }},
    {"inner lock released with the outer's level", "irql.wrong-restore",
     [] { TakeBothRelease(&two); }},
    {"outer lock released first", "irql.dropped-under-lock", [] { TakeBothRelease(&one); }},
    {"learned order turned round", "lock.order-cycle",
     [] {
       TakeBoth(&one, &two);
       TakeBoth(&two, &three);
       TakeBoth(&three, &one);
     }},
    {"declared order turned round", "lock.order",
     [] {
       VerifierDeclareOrder(&one, CancelLock());
       KIRQL irql;
       IoAcquireCancelSpinLock(&irql);
       KeAcquireSpinLockRaiseToDpc(&one);
     }},
    {"declaration against itself", "lock.order",
     [] {
       VerifierDeclareOrder(&one, &two);
       VerifierDeclareOrder(&two, &one);
     }},
    {"held lock in freed pool", "lock.freed-held",
     [] {
       auto *lock = static_cast<PKSPIN_LOCK>(
           ExAllocatePoolWithTag(NonPagedPoolNx, 64, FourCharacters("Lock")));
       KeInitializeSpinLock(lock + 1);
       KeAcquireSpinLockRaiseToDpc(lock + 1);
       ExFreePoolWithTag(lock, 0);
     }},
    {"wait with a lock held", "lock.held-across",
     [] {
       KeAcquireSpinLockRaiseToDpc(&one);
       SleepForEver();
     }},
    {"wait at raised level", "irql.too-high",
     [] {
       IrqlRaise(DISPATCH_LEVEL);
       SleepForEver();
     }},
    {"run ends with a lock", "lock.held-at-end", [] { KeAcquireSpinLockRaiseToDpc(&one); }},
    {"run ends raised", "irql.not-restored", [] { IrqlRaise(APC_LEVEL); }},
    {"lowered under a lock", "irql.wrong-restore",
     [] {
       KeAcquireSpinLockRaiseToDpc(&one);
       IrqlLower(PASSIVE_LEVEL);
     }},
    {"the test's thread ends as a system thread", "thread.not-system",
     [] { PsTerminateSystemThread(STATUS_SUCCESS); }},
    {"thread ends with a lock", "lock.held-across",
     [] {
       SystemThread([](PVOID) { KeAcquireSpinLockRaiseToDpc(&one); });
       ThreadSettle();
     }},
};

TEST(Locks, MisuseIsStopped) {
  for (const BadRoutine &bad : badRoutines) {
    // Fresh words for each: an abandoned run leaves its locks as they were.
    one = two = three = {0};
    std::string rule = RuleOf([&bad] {
      InitializeLocks();
      bad.Body();
    });
    EXPECT_EQ(rule, bad.Rule) << bad.Name;
  }
}

MODEL_TEST(Locks, OrderIsForgottenWithTheLock) {
  InitializeLocks();
  TakeBoth(&one, &two);
  KeInitializeSpinLock(&two);
  TakeBoth(&two, &one);
}

TEST(Locks, ExcludeEachOtherInEverySchedule) {
  ExploreOptions options;
  options.Preemptions = 3;
  ExploreResult result = ModelExplore(options, [] {
    InitializeLocks();
    int inside = 0;
    int total = 0;
    auto body = [&] {
      KIRQL irql = KeAcquireSpinLockRaiseToDpc(&one);
      EXPECT_EQ(++inside, 1);
      KiInterlockedPoint(&total);
      ++total;
      --inside;
      KeReleaseSpinLock(&one, irql);
    };
    Together({body, body, body});
    EXPECT_EQ(total, 3);
  });
  EXPECT_TRUE(result.Exhausted) << result.Failure.Text;
}
