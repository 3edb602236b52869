#include "platform/model/run.h"

#include <vector>

#include "platform/model/area.h"
#include "platform/model/cancel_lock.h"
#include "platform/model/clock.h"
#include "platform/model/forced.h"
#include "platform/model/lock_order.h"
#include "platform/model/schedule.h"
#include "platform/model/scheduler.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static const ModelArea *const areas[] = {
    &PoolArea, &ObjectArea, &RegistryArea, &EventLogArea, &RequestArea, &DeviceArea, &PnpArea,
};
static constexpr size_t AreaCount = sizeof areas / sizeof areas[0];

static void Boot(const RunOptions &options) {
  VerifierBoot(options.Verifier, options.BreaksAllowed);
  FaultsBoot();
  SchedulerBoot(options.Executor == ExecutorKind::Threads);
  ClockBoot(options.RealClock);
  LockOrderBoot();
  ForcedBoot(options.Forced);
  UnloadBoot();
  CancelLockBoot();
  for (const ModelArea *area : areas) {
    area->Boot();
  }
  RunActive = true;
}

static void CheckFirstThread() {
  if (VerifierLocksHeld() > 0) {
    VerifierStop("lock.held-at-end", nullptr, "the run ends with %u locks held",
                 VerifierLocksHeld());
  }
  if (KeGetCurrentIrql() != PASSIVE_LEVEL) {
    VerifierStop("irql.not-restored", nullptr, "the run ends at IRQL %u", KeGetCurrentIrql());
  }
}

static void Play(const std::function<void()> &body) {
  body();
  ScheduleWindow(false);
  CheckFirstThread();
  ThreadsFinish();
  if (unsigned others = ThreadsLive() - 1) {
    VerifierStop("leak.thread", nullptr, "%u threads have not ended\n%s", others,
                 ThreadsText().c_str());
  }
  for (size_t i = AreaCount; i-- > 0;) {
    areas[i]->Check();
  }
}

static void Shutdown() {
  RunActive = false;
  VerifierEnabled = false;
  SchedulerShutdown();
  for (size_t i = AreaCount; i-- > 0;) {
    areas[i]->Shutdown();
  }
  ThreadsInUse = false;
}

// The schedule has been begun.
static RunReport Run(const RunOptions &options, const std::function<void()> &body) {
  Boot(options);
  SchedulerRun([&body] { Play(body); });
  const StopReport &stop = VerifierReport();
  RunReport report = {stop.Stopped, stop.Rule, stop.Text, ScheduleText(), SchedulerSwitches()};
  Shutdown();
  return report;
}

RunReport ModelRun(const RunOptions &Options, const std::function<void()> &Body) {
  ScheduleBegin(Options.Executor == ExecutorKind::Threads ? SchedulePolicy{} : Options.Schedule);
  return Run(Options, Body);
}

// Makes Choices the next schedule, depth first; false when there is none.
static bool NextSchedule(std::vector<Choice> *choices) {
  while (!choices->empty()) {
    Choice &last = choices->back();
    if (last.Taken + 1 < last.Offered) {
      ++last.Taken;
      return true;
    }
    choices->pop_back();
  }
  return false;
}

ExploreResult ModelExplore(const ExploreOptions &Options, const std::function<void()> &Scenario) {
  RunOptions options;
  options.Verifier = Options.Verifier;
  options.Forced = Options.Forced;
  ExploreResult result;
  std::vector<Choice> choices;
  while (result.Runs < Options.MaxRuns) {
    ScheduleBeginBounded(Options.Preemptions, choices);
    RunReport report = Run(options, Scenario);
    ++result.Runs;
    if (report.Stopped) {
      result.Failure = report;
      return result;
    }
    choices = ScheduleChoices();
    if (!NextSchedule(&choices)) {
      result.Exhausted = true;
      return result;
    }
  }
  return result;
}

void ExploreWindow(bool Open) {
  ScheduleWindow(Open);
}
