#include <cstring>

#include "platform/model/irql.h"
#include "platform/model/sanitizers.h"
#include "tests/model/model_run.h"

static constexpr ULONG TagA = FourCharacters("TagA");
static constexpr ULONG TagB = FourCharacters("TagB");

static char *Allocate(SIZE_T bytes, ULONG tag = TagA, POOL_TYPE type = NonPagedPoolNx) {
  return static_cast<char *>(ExAllocatePoolWithTag(type, bytes, tag));
}

MODEL_TEST(Pool, CountsByTagAndPoisons) {
  char *a = Allocate(40);
  char *b = Allocate(8, TagB, PagedPool);
  for (int i = 0; i < 40; ++i) {
    ASSERT_NE(a[i], 0) << "fresh memory must not look cleared";
  }
  EXPECT_EQ(PoolCount(TagA).Blocks, 1u);
  EXPECT_EQ(PoolCount(TagA).Bytes, 40u);
  EXPECT_EQ(PoolCount(0).Bytes, 48u);
  EXPECT_TRUE(PoolIsPaged(b + 7));
  EXPECT_FALSE(PoolIsPaged(b + 8));
  EXPECT_FALSE(PoolIsPaged(a));
  EXPECT_NE(PoolLeaks().find("\"TagB\" 8 bytes allocated at"), std::string::npos);
  ExFreePoolWithTag(a, TagA);
  ExFreePoolWithTag(b, 0);
  EXPECT_EQ(PoolCount(0).Blocks, 0u);
  EXPECT_EQ(PoolCount(TagA).Allocations, 1u);
}

static const BadRoutine badRoutines[] = {
    {"zero bytes", "pool.zero-bytes", [] { Allocate(0); }},
    {"no tag", "pool.no-tag", [] { Allocate(1, 0); }},
    {"no such pool", "pool.bad-type", [] { Allocate(1, TagA, static_cast<POOL_TYPE>(7)); }},
    {"paged at dispatch level", "irql.too-high",
     [] {
       IrqlRaise(DISPATCH_LEVEL);
       Allocate(1, TagA, PagedPool);
     }},
    {"paged freed at dispatch level", "irql.too-high",
     [] {
       char *block = Allocate(1, TagA, PagedPool);
       IrqlRaise(DISPATCH_LEVEL);
       ExFreePoolWithTag(block, TagA);
     }},
    {"nonpaged above dispatch level", "irql.too-high",
     [] {
       IrqlRaise(DISPATCH_LEVEL + 1);
       Allocate(1);
     }},
    {"wrong tag", "pool.wrong-tag", [] { ExFreePoolWithTag(Allocate(1), TagB); }},
    {"double free", "pool.double-free",
     [] {
       char *block = Allocate(1);
       ExFreePoolWithTag(block, TagA);
       ExFreePoolWithTag(block, TagA);
     }},
    {"inner pointer", "pool.foreign-free", [] { ExFreePoolWithTag(Allocate(32) + 16, TagA); }},
    {"null", "pool.foreign-free", [] { ExFreePoolWithTag(nullptr, TagA); }},
    {"leak", "leak.pool", [] { Allocate(5); }},
};

TEST(Pool, MisuseIsStopped) {
  ExpectStopped(badRoutines);
}

static void WriteOutside(int at) {
  char *volatile block = Allocate(5);
  block[at] = 0;
  ExFreePoolWithTag(block, TagA);
}

// Writes that AddressSanitizer, where it is on, sees at once instead.
static const BadRoutine badWrites[] = {
    {"one byte too far", "pool.overrun", [] { WriteOutside(5); }},
    {"one byte too early", "pool.overrun", [] { WriteOutside(-1); }},
    {"after the free", "pool.use-after-free",
     [] {
       char *volatile block = Allocate(5);
       ExFreePoolWithTag(block, TagA);
       block[3] = 0;
     }},
};

TEST(Pool, StrayWritesAreStopped) {
  if (!AsanOn) {
    ExpectStopped(badWrites);
    return;
  }
  for (const BadRoutine &bad : badWrites) {
    EXPECT_DEATH(ModelRun({}, bad.Body), "AddressSanitizer") << bad.Name;
  }
}

MODEL_TEST(Pool, FreedBlocksAreReusedAtOnceOnDemand) {
  char *late = Allocate(64);
  ExFreePoolWithTag(late, TagA);
  PoolReuseAtOnce();
  char *other = Allocate(65);
  EXPECT_NE(other, late);
  char *again = Allocate(64, TagB);
  EXPECT_EQ(again, late);
  EXPECT_EQ(again[63], other[64]);  // as fresh as any
  ExFreePoolWithTag(again, TagB);
  ExFreePoolWithTag(other, TagA);
  EXPECT_EQ(Allocate(65), other);
  ExFreePoolWithTag(other, TagA);
}

MODEL_TEST(Faults, FailTheCallsThatThePlanNames) {
  std::string got;
  auto attempts = [&got](const FaultPlan &plan) {
    FaultArm(plan);
    got.clear();
    for (ULONG tag : {TagA, TagB, TagA, TagB}) {
      char *block = Allocate(1, tag);
      got += block ? '+' : '-';
      if (block) {
        ExFreePoolWithTag(block, tag);
      }
    }
    return got + (FaultDisarm() ? " delivered" : "");
  };
  EXPECT_EQ(attempts({.Nth = 2}), "+-++ delivered");
  EXPECT_EQ(attempts({.Nth = 2, .AndAllAfter = true}), "+--- delivered");
  EXPECT_EQ(attempts({.Tag = TagB, .Nth = 2}), "+++- delivered");
  EXPECT_EQ(attempts({.Kinds = FaultIrp | FaultThread}), "++++");
  EXPECT_EQ(attempts({.Nth = 9}), "++++");
  EXPECT_EQ(FaultCount(FaultPool), 20u);
  EXPECT_EQ(FaultCount(FaultPool, TagB), 10u);
  EXPECT_EQ(FaultCount(FaultIrp), 0u);

  FaultArm({.Kinds = FaultThread});
  HANDLE handle;
  EXPECT_EQ(PsCreateSystemThread(
                &handle, 0, nullptr, nullptr, nullptr, [](PVOID) {}, nullptr),
            STATUS_INSUFFICIENT_RESOURCES);
}
