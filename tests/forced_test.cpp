// The driver under harsher conditions: whatever the port completes at once comes back later, paged
// pool is closed at DISPATCH_LEVEL, one call in sixteen fails, and what is outstanding is cancelled
// at every switch point. And what it means for a port to complete by DPC.
#include <gtest/gtest.h>

#include "tests/support/world.h"

// --- A life whose outcome nothing here decides ----------------------------------------------

static void Await(Io *Io) {
  FileCancel(Io);
  FileWait(Io);
}

static void Command(World *World, ULONG Command, ULONG Argument = 0) {
  Io write, reply;
  StartWrite(World->Zk, &write, MakeFrame(FRAME_CONTROL, 0, Command, MakeArgument(Argument)));
  StartRead(World->Zk, &reply, 4096);
  Await(&write);
  Await(&reply);
}

static void Exchange(World *World) {
  Io reads[3], zkRead, write, zkWrite, control;
  for (Io &read : reads) {
    StartRead(World->Client, &read, 3);
  }
  StartRead(World->Zk, &zkRead, 4096);
  LowerFeed(&World->Lower, "abcdef");
  StartWrite(World->Client, &write, "out");
  StartWrite(World->Zk, &zkWrite, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "zk"));
  StartControl(World->Client, &control, CTL_CODE(FILE_DEVICE_SERIAL_PORT, 7, 0, 0));
  ThreadSettle();
  for (Io *io : {&reads[0], &reads[1], &reads[2], &zkRead, &write, &zkWrite, &control}) {
    Await(io);
  }
}

static void Locked(World *World) {
  Io write, read;
  Command(World, COMMAND_LOCK_STREAM);
  StartWrite(World->Client, &write, "parked");
  StartRead(World->Client, &read, 4);
  LowerFeed(&World->Lower, "more");
  Command(World, COMMAND_UNLOCK_STREAM);
  ThreadSettle();
  Await(&write);
  Await(&read);
}

static void Rebalance(World *World) {
  if (PnpQueryStop(World->Node) == STATUS_SUCCESS) {
    EXPECT_EQ(PnpStop(World->Node), STATUS_SUCCESS);
    PnpStart(World->Node);
  } else {
    PnpCancelStop(World->Node);
  }
}

static void LiveThrough(World *World) {
  bool zk = OpenZk(World) == STATUS_SUCCESS;
  bool client = OpenClient(World) == STATUS_SUCCESS;
  if (zk && client) {
    Command(World, COMMAND_SET_MODE, MODE_NORMAL);
    Exchange(World);
    Locked(World);
    Io waiting;
    StartRead(World->Client, &waiting, 4);
    CloseZk(World);  // the waiting read goes down to the port
    Await(&waiting);
  }
  CloseClient(World);
  CloseZk(World);
  PnpSetDevicePower(WorldPort(World)->Header.Device, PowerDeviceD3);
  PnpSetDevicePower(WorldPort(World)->Header.Device, PowerDeviceD0);
  Rebalance(World);
}

static size_t PassedOnBelow(LowerPort *Port) {
  return LowerCount(Port, IRP_MJ_PNP) + LowerCount(Port, IRP_MJ_POWER);
}

static void PlayForced(const RunOptions &Options, ULONG Buffering, bool AtDispatchLevel,
                       unsigned FailPercent) {
  WorldOptions options;
  options.Buffering = Buffering;
  RunReport report = ModelRun(Options, [&] {
    World world;
    WorldLoad(&world, options);
    world.Lower.AtDispatchLevel = AtDispatchLevel;
    ASSERT_EQ(WorldAdd(&world, options), STATUS_SUCCESS);
    if (FailPercent > 0) {
      FaultArm({.Percent = FailPercent, .Seed = Options.Schedule.Seed});
    }
    uint64_t copies = VerifierWarnings("copy-without-routine");
    size_t before = PassedOnBelow(&world.Lower);
    LiveThrough(&world);
    FaultDisarm();
    if (Options.Schedule.Seed % 2 != 0) {
      PnpSurpriseRemove(world.Node);
    }
    ThreadSettle();
    EXPECT_EQ(WorldPort(&world)->RequestCount, 1);
    // Only the port driver copies for nothing.
    EXPECT_LE(VerifierWarnings("copy-without-routine") - copies,
              PassedOnBelow(&world.Lower) - before);
    WorldEnd(&world);
  });
  ASSERT_FALSE(report.Stopped) << "seed " << Options.Schedule.Seed << "\n" << report.Text;
  ASSERT_FALSE(testing::Test::HasFailure()) << "seed " << Options.Schedule.Seed;
}

static RunOptions Randomly(uint64_t Seed) {
  RunOptions options;
  options.Schedule.How = SchedulePolicy::Kind::Random;
  options.Schedule.Seed = Seed;
  return options;
}

TEST(Forced, EverythingPends) {
  for (uint64_t seed = 0; seed < 200; ++seed) {
    RunOptions options = Randomly(seed);
    options.Forced.Pending = true;
    options.Forced.PagedPool = true;
    PlayForced(options, seed % 4 < 2 ? DO_BUFFERED_IO : DO_DIRECT_IO, seed % 3 == 0, 0);
  }
  RunOptions threads;
  threads.Executor = ExecutorKind::Threads;
  threads.Forced.Pending = true;
  PlayForced(threads, DO_BUFFERED_IO, true, 0);
}

TEST(Forced, OneCallInSixteenFails) {
  for (uint64_t seed = 0; seed < 200; ++seed) {
    RunOptions options = Randomly(seed);
    options.Forced.Pending = seed % 5 == 0;
    PlayForced(options, seed % 4 < 2 ? DO_BUFFERED_IO : DO_DIRECT_IO, seed % 3 == 0, 6);
  }
}

// A completion routine calls what only PASSIVE_LEVEL may. It is stopped when it has to be ready for
// a DPC.
static void CompleteIntoAPassiveCall(Behaviour Below, bool ByDpc) {
  World world;
  WorldLoad(&world);
  world.Lower.ByDpc = ByDpc;
  world.Lower.How[IRP_MJ_WRITE] = Below;
  ASSERT_EQ(WorldAdd(&world), STATUS_SUCCESS);
  OwnPacket packet;
  packet.AtDone = [=, sender = KeGetCurrentThread()] {
    EXPECT_EQ(KeGetCurrentThread() != sender, ByDpc && Below == Behaviour::Pend);
    ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 1, 'T'), 'T');
  };
  OwnSend(world.Lower.Device, IRP_MJ_WRITE, &packet);
  LowerFinish(&world.Lower, IRP_MJ_WRITE);
  OwnWait(&packet);
  WorldEnd(&world);
}

TEST(Forced, CompletedByDpc) {
  for (Behaviour below : {Behaviour::Inline, Behaviour::Pend}) {
    for (bool byDpc : {false, true}) {
      RunReport report = ModelRun({}, [=] { CompleteIntoAPassiveCall(below, byDpc); });
      EXPECT_EQ(report.Rule, byDpc ? "irql.too-high" : "") << report.Text;
    }
  }
}

// --- Cancelled at every switch point --------------------------------------------------------

struct Scene {
  void (*Act)(World *World, Io *Io);
  // What holds the request meanwhile, so that only the cancel ends it.
  void (*Before)(World *World) = nullptr;
  void (*After)(World *World) = nullptr;
};

static void Lock(World *World) {
  SendCommand(World, COMMAND_LOCK_STREAM);
}
static void Unlock(World *World) {
  SendCommand(World, COMMAND_UNLOCK_STREAM);
}
static void QueryRemoval(World *World) {
  PnpQueryRemove(World->Node, true);
}
static void CancelRemoval(World *World) {
  PnpCancelRemove(World->Node);
}
static void ReadOfClient(World *World, Io *Io) {
  StartRead(World->Client, Io, 4);
}
static void WriteOfClient(World *World, Io *Io) {
  StartWrite(World->Client, Io, "out");
}
static void ReadOfZk(World *World, Io *Io) {
  StartRead(World->Zk, Io, 64);
}
static void ControlOfClient(World *World, Io *Io) {
  StartControl(World->Client, Io, CTL_CODE(FILE_DEVICE_SERIAL_PORT, 7, 0, 0));
}

static const Scene Scenes[] = {
    {ReadOfClient},
    {WriteOfClient},
    {ReadOfZk},
    {ControlOfClient},
    {[](World *w, Io *io) { StartWrite(w->Zk, io, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "zk")); }},
    {ReadOfClient, Lock, Unlock},
    {WriteOfClient, Lock, Unlock},
    {ReadOfClient, QueryRemoval, CancelRemoval},
    {WriteOfClient, QueryRemoval, CancelRemoval},
    {ReadOfZk, QueryRemoval, CancelRemoval},
    {ControlOfClient, QueryRemoval, CancelRemoval},
    // Against what ends or moves it.
    {[](World *w, Io *io) {
      ReadOfClient(w, io);
      LowerFeed(&w->Lower, "abcd");
    }},
    {[](World *w, Io *io) {
      Lock(w);
      WriteOfClient(w, io);
      Unlock(w);
    }},
    {[](World *w, Io *io) {
      Lock(w);
      ReadOfClient(w, io);
      LowerFeed(&w->Lower, "abcd");
      Unlock(w);
    }},
    {[](World *w, Io *io) {
      ReadOfClient(w, io);
      CloseZk(w);
    }},
    {[](World *w, Io *io) {
      ReadOfClient(w, io);
      SendCommand(w, COMMAND_SET_MODE, 0, MODE_IDLE);
    }},
    {[](World *w, Io *io) {
      QueryRemoval(w);
      WriteOfClient(w, io);
      CancelRemoval(w);
    }},
};

static void PlayScene(World *World, const Scene &Scene) {
  GoNormal(World);
  if (Scene.Before != nullptr) {
    Scene.Before(World);
  }
  Io io;
  PKTHREAD canceller = ThreadStart("canceller", [] {
    if (CancelOutstanding() > 0) {
      ExploreSaw(std::string("hit"));
    }
  });
  ExploreWindow(true);
  Scene.Act(World, &io);
  ThreadJoin(canceller);
  ExploreWindow(false);
  ThreadSettle();
  CancelledMustHaveEnded();
  if (Scene.After != nullptr) {
    Scene.After(World);
  }
  Await(&io);
}

TEST(Forced, CancelledAtEverySwitchPoint) {
  for (size_t i = 0; i < sizeof Scenes / sizeof *Scenes; ++i) {
    for (Behaviour below : {Behaviour::Inline, Behaviour::Pend}) {
      SCOPED_TRACE(testing::Message() << "scene " << i << ", port " << static_cast<int>(below));
      ExploreResult result = ExploreWorld(
          [&](World *world) {
            world->Lower.How[IRP_MJ_WRITE] = world->Lower.How[IRP_MJ_DEVICE_CONTROL] = below;
            PlayScene(world, Scenes[i]);
          },
          2);
      EXPECT_GT(result.Runs, 5u);
      EXPECT_EQ(OutcomesOf(result), (std::set<std::string>{"hit"}));
    }
  }
}
