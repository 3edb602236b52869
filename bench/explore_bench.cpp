// What exploring costs: a whole life of a port (load, start, open, NORMAL, a race, removal, unload)
// under one schedule after the other, beside the bare switch between two fibers.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench/benchmarks.h"
#include "bench/rig.h"
#include "controller/frame_format.h"

constexpr uint64_t RUNS_AT_ONCE = 256;
constexpr int SWITCHES_AT_ONCE = 1024;

static void Command(Rig *Rig, ULONG Code) {
  FrameHeader frame = {sizeof(FrameHeader), FRAME_CONTROL, 0, 0, Code};
  std::vector<uint8_t> bytes(sizeof(frame));
  memcpy(bytes.data(), &frame, sizeof(frame));
  RigRequire(FileWrite(Rig->Zk, bytes) == STATUS_SUCCESS, "a command was refused");
}

// A parked write is cancelled while the stream is unlocked.
static void CancelAgainstUnlock() {
  Rig rig;
  RigBegin(&rig, Above::Driver);
  RigGoNormal(&rig);
  Command(&rig, COMMAND_LOCK_STREAM);
  FileRequest write;
  write.Major = IRP_MJ_WRITE;
  write.Buffer = {'x'};
  FileSend(rig.Client, &write);
  PKTHREAD cancel = ThreadStart("cancel", [&] { FileCancel(&write); });
  PKTHREAD unlock = ThreadStart("unlock", [&] { Command(&rig, COMMAND_UNLOCK_STREAM); });
  ExploreWindow(true);
  ThreadJoin(cancel);
  ThreadJoin(unlock);
  ExploreWindow(false);
  FileWait(&write);
  RigEnd(&rig);
}

static void ExploredRuns(benchmark::State &State) {
  RunOptions one;
  one.Schedule.How = SchedulePolicy::Kind::Random;
  one.Schedule.WindowOnly = true;
  State.counters[StepsCounter] = static_cast<double>(ModelRun(one, CancelAgainstUnlock).Steps);
  ExploreOptions options;
  options.How = SchedulePolicy::Kind::Pct;
  options.Runs = RUNS_AT_ONCE - 1;  // and the first
  while (State.KeepRunningBatch(RUNS_AT_ONCE)) {
    ++options.Seed;
    ExploreResult result = ModelExplore(options, CancelAgainstUnlock);
    RigRequire(result.Runs == RUNS_AT_ONCE, result.Failure.Text.c_str());
  }
}

static void FiberSwitches(benchmark::State &State) {
  RunOptions options;
  options.Verifier = false;
  ModelRun(options, [&] {
    bool over = false;
    PKTHREAD other = ThreadStart("other", [&] {
      while (!over) {
        ThreadYieldToReady();
      }
    });
    while (State.KeepRunningBatch(SWITCHES_AT_ONCE)) {
      for (int i = 0; i < SWITCHES_AT_ONCE; i += 2) {
        ThreadYieldToReady();  // there and back
      }
    }
    over = true;
    ThreadJoin(other);
  });
}

void RegisterExploring() {
  benchmark::RegisterBenchmark(ExploredRunName, ExploredRuns);
  benchmark::RegisterBenchmark(FiberSwitchName, FiberSwitches);
}
