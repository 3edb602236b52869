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
    Pct,         // seeded priorities, the highest runs; at Depth - 1 points the running one's falls
    Exhaustive,  // every choice, at most so many preemptions; for ModelExplore
    Replay,      // replays the string of an earlier run
  };
  Kind How = Kind::Fifo;
  uint64_t Seed = 0;
  unsigned Depth = 3;       // Pct: how many orderings a fault needs
  uint64_t Points = 1000;   // Pct: among how many switch points those of change are drawn
  bool WindowOnly = false;  // Random, Pct: only inside ExploreWindow
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
  // Keeps a record of every step, so that the report of a stop shows who did what; slow. A replay
  // always does.
  bool Explain = false;
  // A run that passes so many switch points does not end: it is stopped as a livelock. From half of
  // them on everybody gets his turn, so that nobody spins only because the schedule keeps away who
  // would end it. Not for Fifo, whose switch points are not counted.
  uint64_t MostSteps = 1'000'000;
};

struct RunReport {
  bool Stopped = false;  // the verifier, a bug check or a deadlock ended the run early
  std::string Rule;      // which rule, e.g. "packet.double-completion"; empty when not stopped
  std::string Text;      // what, where, and the history of the packet concerned
  std::string Replay;    // with SchedulePolicy::Kind::Replay reproduces the run
  uint64_t Switches = 0;
  uint64_t Steps = 0;  // switch points passed; not counted with Fifo
};

// Boots an empty model, runs Body as its first thread at PASSIVE_LEVEL, lets the remaining threads
// finish, checks that nothing is left over (pool, packets, MDLs, devices, links, references,
// handles, threads), and shuts the model down. Not reentrant; one run at a time in a process.
//
// Fibers: a stop abandons every fiber where it stands (destructors of what lives on their stacks do
// not run) and comes back here. Threads: a stop prints the report and aborts the process.
RunReport ModelRun(const RunOptions &Options, const std::function<void()> &Body);

// ModelRun whose schedule has been begun by another; Replay is told of a stopped run only.
RunReport RunScheduled(const RunOptions &Options, const std::function<void()> &Body);
