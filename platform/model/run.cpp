#include "platform/model/run.h"

#include "platform/model/area.h"
#include "platform/model/cancel_lock.h"
#include "platform/model/clock.h"
#include "platform/model/forced.h"
#include "platform/model/lock_order.h"
#include "platform/model/report.h"
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
  ReportBoot(options.Explain || options.Schedule.How == SchedulePolicy::Kind::Replay);
  SchedulerBoot(options.Executor == ExecutorKind::Threads, options.MostSteps);
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
  ScheduleEnd();
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
  VerifierEnabled = ReportOn = false;
  SchedulerShutdown();
  for (size_t i = AreaCount; i-- > 0;) {
    areas[i]->Shutdown();
  }
  ThreadsInUse = false;
}

RunReport RunScheduled(const RunOptions &Options, const std::function<void()> &Body) {
  Boot(Options);
  SchedulerRun([&Body] { Play(Body); });
  const StopReport &stop = VerifierReport();
  RunReport report;
  report.Switches = SchedulerSwitches();
  report.Steps = SchedulerSteps();
  if (stop.Stopped) {
    report.Stopped = true;
    report.Rule = stop.Rule;
    report.Text = stop.Text;
    report.Replay = ScheduleText();
  }
  Shutdown();
  return report;
}

RunReport ModelRun(const RunOptions &Options, const std::function<void()> &Body) {
  ScheduleBegin(Options.Executor == ExecutorKind::Threads ? SchedulePolicy{} : Options.Schedule);
  RunReport report = RunScheduled(Options, Body);
  report.Replay = ScheduleText();
  return report;
}
