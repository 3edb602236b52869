#include "platform/model/faults.h"

#include <utility>
#include <vector>

#include "platform/model/causality.h"
#include "platform/model/guard.h"
#include "platform/model/schedule.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static constexpr unsigned KindCount = 32;

struct TagCalls {
  ULONG Tag;
  uint64_t Calls;
};

static ModelMutex faultMutex;
static FaultPlan plan;
static bool armed;
static bool delivered;
static bool inWindow;     // the first was delivered there
static uint64_t matched;  // since the plan was armed
static uint64_t drawn;    // the coin's state
static uint64_t calls[KindCount];
static std::vector<TagCalls> poolCalls;

void FaultsBoot() {
  armed = delivered = inWindow = false;
  matched = 0;
  for (uint64_t &count : calls) {
    count = 0;
  }
  poolCalls.clear();
}

void FaultArm(const FaultPlan &Plan) {
  Guard guard(faultMutex);
  plan = Plan;
  armed = true;
  delivered = inWindow = false;
  matched = 0;
  drawn = Plan.Seed;
}

bool FaultDisarm() {
  Guard guard(faultMutex);
  return std::exchange(armed, false) && delivered;
}

bool FaultInWindow() {
  Guard guard(faultMutex);
  return inWindow;
}

static TagCalls *FindTag(ULONG tag) {
  for (TagCalls &entry : poolCalls) {
    if (entry.Tag == tag) {
      return &entry;
    }
  }
  return nullptr;
}

NTSTATUS FaultDeviceStatus() {
  Guard guard(faultMutex);
  return plan.DeviceStatus;
}

uint64_t FaultCount(uint32_t Kinds, ULONG Tag) {
  Guard guard(faultMutex);
  uint64_t count = 0;
  for (unsigned i = 0; i < KindCount; ++i) {
    uint32_t kind = 1u << i;
    if (!(Kinds & kind)) {
      continue;
    }
    if (kind == FaultPool && Tag != 0) {
      const TagCalls *entry = FindTag(Tag);
      count += entry ? entry->Calls : 0;
    } else {
      count += calls[i];
    }
  }
  return count;
}

static void CountCall(FaultKind kind, ULONG tag) {
  ++calls[__builtin_ctz(kind)];
  if (kind == FaultPool) {
    if (TagCalls *entry = FindTag(tag)) {
      ++entry->Calls;
    } else {
      poolCalls.push_back({tag, 1});
    }
  }
}

// Under faultMutex, for a matching call. The mixing is that of SplitMix64.
static bool Fails() {
  ++matched;
  if (plan.Percent == 0) {
    return matched == plan.Nth || (plan.AndAllAfter && matched > plan.Nth);
  }
  uint64_t z = drawn += 0x9E3779B97F4A7C15;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return (z ^ (z >> 31)) % 100 < plan.Percent;
}

bool FaultHere(FaultKind Kind, ULONG Tag) {
  bool fails = false;
  {
    Guard guard(faultMutex);
    CountCall(Kind, Tag);
    bool matches =
        armed && (plan.Kinds & Kind) && (Kind != FaultPool || plan.Tag == 0 || plan.Tag == Tag);
    if (matches) {
      CausalTouch(&plan, Access::Write);
      fails = Fails();
      inWindow |= fails && !delivered && ScheduleInWindow();
      delivered |= fails;
    }
  }
  if (fails) {
    HistoryNote("fault delivered", nullptr, Kind, Tag);
  }
  return fails;
}
