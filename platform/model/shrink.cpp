#include "platform/model/shrink.h"

#include <algorithm>
#include <tuple>

struct Shrinking {
  Choices *Best;
  uint64_t Left;
  const ShrinkTry *Try;
};

// What is shorter is compared in this order: preemptions, other choices, the way from the first of
// them to the last, the way to the last, the numbers of the threads chosen.
using Size = std::tuple<size_t, size_t, size_t, size_t, size_t>;

static Size SizeOf(const Choices &choices) {
  size_t preemptions = 0;
  size_t differing = 0;
  size_t first = 0;
  size_t last = 0;
  size_t taken = 0;
  for (size_t i = 0; i < choices.size(); ++i) {
    if (choices[i].Taken == 0) {
      continue;
    }
    preemptions += choices[i].Preempts;
    taken += choices[i].Taken;
    first = differing == 0 ? i : first;
    ++differing;
    last = i;
  }
  return {preemptions, differing, last - first, last, taken};
}

static std::vector<size_t> Differing(const Choices &choices) {
  std::vector<size_t> at;
  for (size_t i = 0; i < choices.size(); ++i) {
    if (choices[i].Taken != 0) {
      at.push_back(i);
    }
  }
  return at;
}

// The choices after a change belong to another run; what that run makes of them is judged.
static bool Accept(Shrinking *shrinking, Choices candidate) {
  if (shrinking->Left == 0) {
    return false;
  }
  --shrinking->Left;
  if (!(*shrinking->Try)(&candidate) || SizeOf(candidate) >= SizeOf(*shrinking->Best)) {
    return false;
  }
  *shrinking->Best = std::move(candidate);
  return true;
}

// Takes away stretches of differing choices: half of them, then quarters, down to single ones.
static bool Remove(Shrinking *shrinking) {
  bool any = false;
  size_t stretch = Differing(*shrinking->Best).size();
  for (; stretch > 0 && shrinking->Left > 0; stretch /= 2) {
    // From the end, where nothing that follows is disturbed.
    for (size_t end = Differing(*shrinking->Best).size(); end > 0;) {
      std::vector<size_t> at = Differing(*shrinking->Best);
      end = std::min(end, at.size());
      size_t begin = end > stretch ? end - stretch : 0;
      Choices candidate = *shrinking->Best;
      for (size_t i = begin; i < end; ++i) {
        candidate[at[i]].Taken = 0;
      }
      any |= Accept(shrinking, std::move(candidate));
      end = begin;
    }
  }
  return any;
}

// Makes each differing choice elsewhere: earlier ones later, the last one earlier.
static bool Move(Shrinking *shrinking) {
  bool any = false;
  size_t count = Differing(*shrinking->Best).size();
  for (size_t i = 0; i < count; ++i) {
    std::vector<size_t> at = Differing(*shrinking->Best);
    if (i >= at.size()) {
      break;
    }
    bool last = i + 1 == at.size();
    size_t from = last ? (i > 0 ? at[i - 1] + 1 : 0) : at[i] + 1;
    size_t to = last ? at[i] : at[i + 1];
    for (size_t n = from; n < to && shrinking->Left > 0; ++n) {
      size_t place = last ? n : to - 1 - (n - from);  // the shortest first
      Choices candidate = *shrinking->Best;
      std::swap(candidate[place], candidate[at[i]]);
      if (Accept(shrinking, std::move(candidate))) {
        any = true;
        break;
      }
    }
  }
  return any;
}

// One choice anywhere in place of the last two, or another one in place of the only one: removing
// one of two alone misses what stands where it does only because of the other, and a thread may go
// first without a preemption.
static bool Replace(Shrinking *shrinking) {
  std::vector<size_t> at = Differing(*shrinking->Best);
  Choices start = *shrinking->Best;
  size_t kept = at.size() - std::min<size_t>(at.size(), 2);
  for (size_t i = kept; i < at.size(); ++i) {
    start[at[i]].Taken = 0;
  }
  // Without them the run goes on to places that the failing one did not reach.
  if (at.empty() || shrinking->Left == 0) {
    return false;
  }
  --shrinking->Left;
  (*shrinking->Try)(&start);
  size_t from = kept > 0 ? at[kept - 1] + 1 : 0;
  for (size_t place = from; place < start.size() && shrinking->Left > 0; ++place) {
    for (uint16_t taken = 1; taken < start[place].Offered; ++taken) {
      Choices candidate = start;
      candidate[place].Taken = taken;
      if (Accept(shrinking, std::move(candidate))) {
        return true;
      }
    }
  }
  return false;
}

uint64_t ShrinkChoices(Choices *Failing, uint64_t MostRuns, const ShrinkTry &Try) {
  Shrinking shrinking = {Failing, MostRuns, &Try};
  while (Remove(&shrinking) || Replace(&shrinking) || Move(&shrinking)) {
  }
  return MostRuns - shrinking.Left;
}
