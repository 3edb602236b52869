// Exploring: one scenario under many schedules, in the order of a policy, until one of them fails.
// What fails is made short, run again to be explained, and reported with the string that replays
// it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_set>

#include "platform/model/run.h"

struct ExploreOptions {
  // Fifo: one run. Exhaustive: every schedule with at most Preemptions. Random, Pct: Runs runs
  // after a first one that is first in, first out.
  SchedulePolicy::Kind How = SchedulePolicy::Kind::Exhaustive;
  unsigned Preemptions = 2;
  // Exhaustive: another choice is tried only where it may lead to another order of what depends on
  // each other. The orders that are run are the same without; see docs/kernel-model.md.
  bool Reduce = true;
  uint64_t MaxRuns = 20'000'000;  // Exhaustive gives up (Exhausted false) after about so many
  uint64_t Runs = 10'000;
  uint64_t Seed = 1;
  unsigned Depth = 3;          // Pct
  uint64_t Points = 0;         // Pct; 0: as many switch points as the first run passes
  bool Whole = false;          // Random, Pct: choices outside of the window, too
  unsigned Workers = 1;        // processes that share the runs; the result does not depend on it
  uint64_t ShrinkRuns = 3000;  // at most so many to make a failing run short
  uint64_t MostSteps = RunOptions().MostSteps;
  bool Verifier = true;
  ForcedOptions Forced = {};
};

struct ExploreOutcome {
  uint64_t Count = 0;
  std::string Replay;  // of the first run that ended so
};

struct ExploreResult {
  uint64_t Runs = 0;
  std::unordered_set<uint64_t> Orders;  // that the runs had inside their windows; see causality.h
  bool Exhausted = false;               // every schedule that was asked for was run
  RunReport Failure;  // of the first run in the order of the policy that stopped, made short
  uint64_t ShrinkRuns = 0;
  std::map<std::string, ExploreOutcome> Outcomes;
};

// Runs Scenario under the schedules. Switch points offer a choice only between ExploreWindow(true)
// and ExploreWindow(false); outside, and in a scenario that never opens the window, the schedule is
// first in, first out.
//
// With several workers the scenario's runs happen in other processes: what it leaves in memory is
// lost, and ExploreSaw is how it tells of a run.
ExploreResult ModelExplore(const ExploreOptions &Options, const std::function<void()> &Scenario);
void ExploreWindow(bool Open);

// In a scenario: this run ended so. Counted when the run is not stopped.
void ExploreSaw(const std::string &Outcome);

// Reads "pct depth=4 runs=100000 seed=7 workers=2" and the like: fifo, random, pct or exhaust, and
// numbers named as the options are (reduce=0 is no). False, with Options as far as they were read,
// when a word is not one of these.
bool ExploreRead(const std::string &Text, ExploreOptions *Options);
