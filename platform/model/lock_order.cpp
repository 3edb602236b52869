#include "platform/model/lock_order.h"

#include <algorithm>
#include <vector>

#include "platform/model/guard.h"
#include "platform/model/locks.h"
#include "platform/model/verifier.h"

struct Edge {
  PKSPIN_LOCK First;
  PKSPIN_LOCK Second;
  const void *FirstPlace;  // where it was learned; null when declared
  const void *SecondPlace;
};

static ModelMutex orderMutex;
static std::vector<Edge> edges;

void LockOrderBoot() {
  edges.clear();
}

static const Edge *Find(PKSPIN_LOCK first, PKSPIN_LOCK second) {
  for (const Edge &edge : edges) {
    if (edge.First == first && edge.Second == second) {
      return &edge;
    }
  }
  return nullptr;
}

// The first edge of a way from one lock to the other, or null. The graph has no cycle, so the walk
// ends; it is small, so it need not be clever.
static const Edge *Way(PKSPIN_LOCK from, PKSPIN_LOCK to) {
  for (const Edge &edge : edges) {
    if (edge.First == from && (edge.Second == to || Way(edge.Second, to))) {
      return &edge;
    }
  }
  return nullptr;
}

[[noreturn]] static void StopOrder(const HeldLock &held, PKSPIN_LOCK lock, const void *place,
                                   const Edge &against) {
  if (!against.FirstPlace && against.Second == held.Lock) {
    VerifierStop("lock.order", lock,
                 "%s is declared to come before %s, but is taken after it at %s",
                 LockText(lock).c_str(), LockText(held.Lock).c_str(), PlaceText(place).c_str());
  }
  VerifierStop(
      "lock.order-cycle", lock,
      "%s (taken at %s) is held while %s is taken at %s;\nearlier %s (taken at %s) was held "
      "while %s was taken at %s",
      LockText(held.Lock).c_str(), PlaceText(held.Place).c_str(), LockText(lock).c_str(),
      PlaceText(place).c_str(), LockText(against.First).c_str(),
      PlaceText(against.FirstPlace).c_str(), LockText(against.Second).c_str(),
      PlaceText(against.SecondPlace).c_str());
}

void LockOrderCheck(PKTHREAD Self, PKSPIN_LOCK Lock, const void *Place) {
  Guard guard(orderMutex);
  for (unsigned i = 0; i < Self->HeldCount; ++i) {
    const HeldLock &held = Self->Held[i];
    if (Find(held.Lock, Lock)) {
      continue;
    }
    if (const Edge *against = Way(Lock, held.Lock)) {
      StopOrder(held, Lock, Place, *against);
    }
    edges.push_back({held.Lock, Lock, held.Place, Place});
  }
}

void LockOrderForget(const void *Low, size_t Bytes) {
  Guard guard(orderMutex);
  if (edges.empty()) {
    return;
  }
  const char *low = static_cast<const char *>(Low);
  auto within = [low, Bytes](const KSPIN_LOCK *lock) {
    const char *at = reinterpret_cast<const char *>(lock);
    return at >= low && at < low + Bytes;
  };
  std::erase_if(edges, [&](const Edge &e) { return within(e.First) || within(e.Second); });
}

void VerifierDeclareOrder(const PKSPIN_LOCK First, const PKSPIN_LOCK Second) {
  Guard guard(orderMutex);
  if (const Edge *against = Way(Second, First)) {
    VerifierStop("lock.order", First, "%s is declared to come before %s against the order %s",
                 LockText(First).c_str(), LockText(Second).c_str(),
                 against->FirstPlace ? "in which they were taken" : "declared before");
  }
  if (!Find(First, Second)) {
    edges.push_back({First, Second, nullptr, nullptr});
  }
}
