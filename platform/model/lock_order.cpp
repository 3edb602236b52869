#include "platform/model/lock_order.h"

#include <map>
#include <set>
#include <vector>

#include "platform/model/guard.h"
#include "platform/model/locks.h"
#include "platform/model/verifier.h"

struct Edge {
  const KSPIN_LOCK *First;
  const KSPIN_LOCK *Second;
  const void *FirstPlace;  // where it was learned; null when declared
  const void *SecondPlace;
};

static ModelMutex orderMutex;
// By first lock, and who has an edge to a second one. Ordered by address, so that what lies in
// freed memory is found at once: there may be thousands.
static std::map<const KSPIN_LOCK *, std::vector<Edge>> edges;
static std::map<const KSPIN_LOCK *, std::set<const KSPIN_LOCK *>> firsts;

void LockOrderBoot() {
  edges.clear();
  firsts.clear();
}

static void Add(const Edge &edge) {
  edges[edge.First].push_back(edge);
  firsts[edge.Second].insert(edge.First);
}

static const std::vector<Edge> &EdgesFrom(const KSPIN_LOCK *first) {
  static const std::vector<Edge> none;
  auto found = edges.find(first);
  return found == edges.end() ? none : found->second;
}

static const Edge *Find(const KSPIN_LOCK *first, const KSPIN_LOCK *second) {
  for (const Edge &edge : EdgesFrom(first)) {
    if (edge.Second == second) {
      return &edge;
    }
  }
  return nullptr;
}

// The first edge of a way from one lock to the other, or null. The graph has no cycle, so the walk
// ends; few locks come after any one, so it need not be clever.
static const Edge *Way(const KSPIN_LOCK *from, const KSPIN_LOCK *to) {
  for (const Edge &edge : EdgesFrom(from)) {
    if (edge.Second == to || Way(edge.Second, to)) {
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
    Add({held.Lock, Lock, held.Place, Place});
  }
}

static void ForgetTo(const KSPIN_LOCK *second) {
  for (const KSPIN_LOCK *first : firsts[second]) {
    auto from = edges.find(first);
    std::erase_if(from->second, [second](const Edge &edge) { return edge.Second == second; });
    if (from->second.empty()) {
      edges.erase(from);
    }
  }
}

static void ForgetFrom(const std::vector<Edge> &gone) {
  for (const Edge &edge : gone) {
    auto to = firsts.find(edge.Second);
    to->second.erase(edge.First);
    if (to->second.empty()) {
      firsts.erase(to);
    }
  }
}

void LockOrderForget(const void *Low, size_t Bytes) {
  auto low = reinterpret_cast<uintptr_t>(Low);
  auto *begin = reinterpret_cast<const KSPIN_LOCK *>(low);
  auto *end = reinterpret_cast<const KSPIN_LOCK *>(low + Bytes);
  Guard guard(orderMutex);
  for (auto at = edges.lower_bound(begin); at != edges.end() && at->first < end;) {
    ForgetFrom(at->second);
    at = edges.erase(at);
  }
  for (auto at = firsts.lower_bound(begin); at != firsts.end() && at->first < end;) {
    ForgetTo(at->first);
    at = firsts.erase(at);
  }
}

void VerifierDeclareOrder(const PKSPIN_LOCK First, const PKSPIN_LOCK Second) {
  Guard guard(orderMutex);
  if (const Edge *against = Way(Second, First)) {
    VerifierStop("lock.order", First, "%s is declared to come before %s against the order %s",
                 LockText(First).c_str(), LockText(Second).c_str(),
                 against->FirstPlace ? "in which they were taken" : "declared before");
  }
  if (!Find(First, Second)) {
    Add({First, Second, nullptr, nullptr});
  }
}
