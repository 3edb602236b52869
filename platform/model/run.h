// A run: one boot of the kernel model, a body that plays in it, and the judgement at its end.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "platform/kernel.h"

enum class ExecutorKind { Fibers, Threads };

// How the fiber executor chooses who goes on at a switch point. The thread executor ignores it.
struct SchedulePolicy {
  enum class Kind {
    Fifo,        // nobody is preempted; who is made ready first runs first
    Random,      // at every switch point a seeded coin chooses among all that can run
    Exhaustive,  // replays Choices, then takes first choices; used by Explore
    Replay,      // replays the string of an earlier run
  };
  Kind How = Kind::Fifo;
  uint64_t Seed = 0;
  std::string Replay;
};

// Harsher conditions, each at the cost of some time. They are found in drivers that work under the
// usual ones by luck.
struct ForcedOptions {
  // Paged pool cannot be reached at DISPATCH_LEVEL; with the fiber executor, and not under
  // ThreadSanitizer.
  bool PagedPool = false;
  // What a driver completes at once for the driver above comes back later, after STATUS_PENDING.
  bool Pending = false;
};

// Forces more than their options ask for on all runs of this process.
void ForceAlways(const ForcedOptions &Options);

struct RunOptions {
  ExecutorKind Executor = ExecutorKind::Fibers;
  SchedulePolicy Schedule = {};
  bool Verifier = true;
  ForcedOptions Forced = {};
  bool BreaksAllowed = false;  // a debugger break is expected, not a fault
  // False: a virtual clock that starts at a fixed instant and moves only when every thread waits
  // and one of them waits with a time-out. True: the machine's clock.
  bool RealClock = false;
};

struct RunReport {
  bool Stopped = false;  // the verifier, a bug check or a deadlock ended the run early
  std::string Rule;      // which rule, e.g. "packet.double-completion"; empty when not stopped
  std::string Text;      // what, where, and the history of the packet concerned
  std::string Replay;    // with SchedulePolicy::Kind::Replay reproduces the run
  uint64_t Switches = 0;
};

// Boots an empty model, runs Body as its first thread at PASSIVE_LEVEL, lets the remaining threads
// finish, checks that nothing is left over (pool, packets, MDLs, devices, links, references,
// handles, threads), and shuts the model down. Not reentrant; one run at a time in a process.
//
// Fibers: a stop abandons every fiber where it stands (destructors of what lives on their stacks do
// not run) and comes back here. Threads: a stop prints the report and aborts the process.
RunReport ModelRun(const RunOptions &Options, const std::function<void()> &Body);

struct ExploreOptions {
  unsigned Preemptions = 2;      // at most this many per run
  uint64_t MaxRuns = 1'000'000;  // gives up (Exhausted false) after this many
  bool Verifier = true;
  ForcedOptions Forced = {};
};

struct ExploreResult {
  uint64_t Runs = 0;
  bool Exhausted = false;  // every schedule within the bound was run
  RunReport Failure;       // of the first run that stopped, if any (exploration ends with it)
};

// Runs Scenario under every schedule that preempts at most Preemptions times, choice by choice.
// Switch points count only between ExploreWindow(true) and ExploreWindow(false); outside, and in a
// scenario that never opens the window, the schedule is first in, first out.
ExploreResult ModelExplore(const ExploreOptions &Options, const std::function<void()> &Scenario);
void ExploreWindow(bool Open);
