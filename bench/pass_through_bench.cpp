// A client's request on its way through the filter in IDLE, to a port that completes it at once.
#include <benchmark/benchmark.h>

#include "bench/benchmarks.h"
#include "bench/rig.h"

constexpr int SENDS_AT_ONCE = 256;
constexpr ULONG REQUEST_BYTES = 16;

static const char *WayName(Way How) {
  switch (How) {
  case Way::Plain:
    return "no-filter";
  case Way::MinimalFilter:
    return "minimal-filter";
  case Way::Driver:
    return "filter";
  default:
    return "filter-verified";
  }
}

std::string PassThroughName(PassedRequest What, Way How) {
  return std::string("pass-through/") + (What == PassedRequest::Write ? "write/" : "control/") +
         WayName(How);
}

static Above FilterOf(Way How) {
  switch (How) {
  case Way::Plain:
    return Above::Nothing;
  case Way::MinimalFilter:
    return Above::MinimalFilter;
  default:
    return Above::Driver;
  }
}

static void SendRepeatedly(benchmark::State &State, Rig *Rig, UCHAR Major) {
  char buffer[REQUEST_BYTES] = {};
  RepeatedPacket packet = MakePacket(Rig, Rig->Client, Major, buffer, sizeof(buffer));
  uint64_t before = PoolCount(0).Allocations;
  while (State.KeepRunningBatch(SENDS_AT_ONCE)) {
    for (int i = 0; i < SENDS_AT_ONCE; ++i) {
      NTSTATUS status = SendPacketAgain(&packet);
      RigRequire(status == STATUS_SUCCESS && packet.Done, "a request was not passed through");
    }
  }
  uint64_t allocations = PoolCount(0).Allocations - before;
  State.counters[AllocationsCounter] =
      static_cast<double>(allocations) / static_cast<double>(State.iterations());
  FreePacket(&packet);
}

static void RegisterOne(PassedRequest What, Way How) {
  UCHAR major = What == PassedRequest::Write ? IRP_MJ_WRITE : IRP_MJ_DEVICE_CONTROL;
  benchmark::RegisterBenchmark(PassThroughName(What, How).c_str(), [=](benchmark::State &State) {
    RunRig(FilterOf(How), How == Way::DriverVerified,
           [&](Rig *Rig) { SendRepeatedly(State, Rig, major); });
  });
}

void RegisterPassThrough() {
  for (PassedRequest what : {PassedRequest::Write, PassedRequest::DeviceControl}) {
    for (Way how : {Way::Plain, Way::MinimalFilter, Way::Driver, Way::DriverVerified}) {
      RegisterOne(what, how);
    }
  }
}
