// A block in NORMAL: ZK and the client read, the driver reads the port for them, the port brings
// the block, both get it. Beside it the copies that this needs: into an element for each of the
// two, and out of them to the two readers.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "bench/benchmarks.h"
#include "bench/rig.h"
#include "controller/frame_format.h"

constexpr int BLOCKS_AT_ONCE = 16;
constexpr size_t FRAME_HEADER_BYTES = sizeof(FrameHeader);

std::string BlockName(size_t Bytes, Way How) {
  const char *way = How == Way::Plain    ? "/copies"
                    : How == Way::Driver ? "/filter"
                                         : "/filter-verified";
  return "block/" + std::to_string(Bytes) + way;
}

static void CopyBlock(char *To, const char *From, size_t Bytes) {
  memcpy(To, From, Bytes);
  benchmark::ClobberMemory();
}

static void CopiesAlone(benchmark::State &State, size_t Bytes) {
  std::vector<char> port(Bytes);
  std::vector<char> clientElement(Bytes);
  std::vector<char> zkElement(FRAME_HEADER_BYTES + Bytes);
  std::vector<char> client(Bytes);
  std::vector<char> zk(FRAME_HEADER_BYTES + Bytes);
  for (auto *bytes : {&port, &clientElement, &zkElement, &client, &zk}) {
    benchmark::DoNotOptimize(bytes->data());
  }
  while (State.KeepRunningBatch(BLOCKS_AT_ONCE)) {
    for (int i = 0; i < BLOCKS_AT_ONCE; ++i) {
      CopyBlock(zkElement.data() + FRAME_HEADER_BYTES, port.data(), Bytes);
      CopyBlock(zk.data(), zkElement.data(), FRAME_HEADER_BYTES + Bytes);
      CopyBlock(clientElement.data(), port.data(), Bytes);
      CopyBlock(client.data(), clientElement.data(), Bytes);
    }
  }
}

static bool Delivered(const RepeatedPacket &Read) {
  return Read.Done && Read.Irp->IoStatus.Status == STATUS_SUCCESS &&
         Read.Irp->IoStatus.Information == Read.Length;
}

static void BringBlocks(benchmark::State &State, Rig *Rig, size_t Bytes) {
  RigGoNormal(Rig);
  std::vector<char> client(Bytes);
  std::vector<char> zk(FRAME_HEADER_BYTES + Bytes);
  RepeatedPacket clientRead =
      MakePacket(Rig, Rig->Client, IRP_MJ_READ, client.data(), static_cast<ULONG>(client.size()));
  RepeatedPacket zkRead =
      MakePacket(Rig, Rig->Zk, IRP_MJ_READ, zk.data(), static_cast<ULONG>(zk.size()));
  uint64_t before = PoolCount(0).Allocations;
  while (State.KeepRunningBatch(BLOCKS_AT_ONCE)) {
    for (int i = 0; i < BLOCKS_AT_ONCE; ++i) {
      SendPacketAgain(&zkRead);
      SendPacketAgain(&clientRead);
      FinishPortRead();
      RigRequire(Delivered(zkRead) && Delivered(clientRead), "a block was not delivered");
    }
  }
  uint64_t allocations = PoolCount(0).Allocations - before;
  State.counters[AllocationsCounter] =
      static_cast<double>(allocations) / static_cast<double>(State.iterations());
  FreePacket(&clientRead);
  FreePacket(&zkRead);
}

static void RegisterOne(size_t Bytes, Way How) {
  benchmark::RegisterBenchmark(BlockName(Bytes, How).c_str(), [=](benchmark::State &State) {
    if (How == Way::Plain) {
      CopiesAlone(State, Bytes);
      return;
    }
    RunRig(Above::Driver, How == Way::DriverVerified,
           [&](Rig *Rig) { BringBlocks(State, Rig, Bytes); });
  });
}

void RegisterBlocks() {
  for (size_t bytes : BlockSizes) {
    for (Way how : {Way::Plain, Way::Driver, Way::DriverVerified}) {
      RegisterOne(bytes, how);
    }
  }
}
