// Every call that can fail fails in turn, in every stage of a life: nothing is lost, nothing leaks,
// and the port works again once the fault is gone.
#include <gtest/gtest.h>

#include "tests/support/world.h"

// Plays Stage with its n-th failable call failing, for n = 1, 2, 3 … until none is left to fail.
// Recover then proves that the port works.
static void FailEachCall(ULONG Buffering, bool AndAllAfter,
                         const std::function<void(World *)> &Prepare,
                         const std::function<void(World *)> &Stage) {
  bool delivered = true;
  WorldOptions options;
  options.Buffering = Buffering;
  for (uint64_t nth = 1; delivered; ++nth) {
    RunReport report = ModelRun({}, [&] {
      World world;
      WorldLoad(&world, options);
      ASSERT_EQ(WorldAdd(&world, options), STATUS_SUCCESS);
      Prepare(&world);
      FaultArm({FaultEverything, 0, nth, AndAllAfter});
      Stage(&world);
      delivered = FaultDisarm();
      ThreadSettle();
      CloseClient(&world);
      CloseZk(&world);
      EXPECT_EQ(WorldPort(&world)->RequestCount, 1);
      GoNormal(&world);
      Io write, read;
      EXPECT_EQ(StartWrite(world.Client, &write, "again"), STATUS_SUCCESS);
      EXPECT_EQ(NextFrame(&world).Payload, "again");
      StartRead(world.Client, &read, 10);
      LowerFeed(&world.Lower, "port");
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
      WorldEnd(&world);
    });
    ASSERT_FALSE(report.Stopped) << "call " << nth << "\n" << report.Text;
    ASSERT_LT(nth, 300u);
  }
}

static void OpenBoth(World *World) {
  OpenZk(World);
  OpenClient(World);
}

static void CommandAll(World *World) {
  for (ULONG command : {COMMAND_SET_LEVEL, COMMAND_GET_LEVEL, COMMAND_SET_MODE, COMMAND_GET_MODE,
                        COMMAND_LOCK_STREAM, COMMAND_UNLOCK_STREAM}) {
    ULONG_PTR information = 0;
    NTSTATUS status =
        SendCommand(World, command, 0, command == COMMAND_SET_MODE ? 2u : 5u, &information);
    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(information == 0, status != STATUS_SUCCESS);
  }
}

// Starts a read and, when the fault did not end it, gives it its bytes.
static void ReadBothWays(World *World) {
  Io client, zk;
  NTSTATUS status = StartRead(World->Client, &client, 10);
  NTSTATUS zkStatus = StartRead(World->Zk, &zk, 100);
  LowerFeed(&World->Lower, "bytes");
  ThreadSettle();
  if (status == STATUS_PENDING && !FileDone(&client)) {
    FileCancel(&client);  // the block was lost to the client: its element got no memory
  }
  if (zkStatus == STATUS_PENDING && !FileDone(&zk)) {
    FileCancel(&zk);
  }
  FileWait(&client);
  FileWait(&zk);
}

static void WriteBothWays(World *World) {
  Io client, zk;
  StartWrite(World->Client, &client, "client");
  StartWrite(World->Zk, &zk, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "zk"));
  EXPECT_EQ(FileWait(&client) == STATUS_SUCCESS,
            LowerWritten(&World->Lower).find("client") != std::string::npos);
  EXPECT_EQ(FileWait(&zk) == STATUS_SUCCESS,
            LowerWritten(&World->Lower).find("zk") != std::string::npos);
}

static void LockAndUnlock(World *World) {
  Io read, write;
  NTSTATUS locked = SendCommand(World, COMMAND_LOCK_STREAM);
  StartRead(World->Client, &read, 10);
  NTSTATUS written = StartWrite(World->Client, &write, "parked");
  EXPECT_TRUE(locked == STATUS_SUCCESS || locked == STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(written == STATUS_PENDING, locked == STATUS_SUCCESS);
  NTSTATUS unlocked = SendCommand(World, COMMAND_UNLOCK_STREAM);
  EXPECT_EQ(FileDone(&write), locked != STATUS_SUCCESS || unlocked == STATUS_SUCCESS);
  for (Io *io : {&read, &write}) {
    if (!FileDone(io)) {
      FileCancel(io);
    }
    FileWait(io);
  }
}

struct Stage {
  const char *Name;
  void (*Prepare)(World *World);
  void (*Play)(World *World);
};

static void Nothing(World *) {
}
static void BothNormal(World *World) {
  GoNormal(World);
}
static void ZkIdle(World *World) {
  EXPECT_EQ(OpenZk(World), STATUS_SUCCESS);
}
static void Flush(World *World) {
  SendPacket(WorldPort(World)->Header.Device, IRP_MJ_FLUSH_BUFFERS, 0, nullptr);
}

TEST(Faults, EachCallInEachStage) {
  const Stage stages[] = {
      {"open", Nothing, OpenBoth},         {"commands", ZkIdle, CommandAll},
      {"read", BothNormal, ReadBothWays},  {"write", BothNormal, WriteBothWays},
      {"lock", BothNormal, LockAndUnlock}, {"pass", BothNormal, Flush},
  };
  for (const Stage &stage : stages) {
    for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
      for (bool after : {false, true}) {
        SCOPED_TRACE(testing::Message() << stage.Name << " " << buffering << " " << after);
        FailEachCall(buffering, after, stage.Prepare, stage.Play);
      }
    }
  }
}

// The removal allocates nothing that it needs.
TEST(Faults, RemovalWithoutAnyMemory) {
  for (bool surprise : {false, true}) {
    RunReport report = ModelRun({}, [=] {
      World world;
      WorldLoad(&world);
      ASSERT_EQ(WorldAdd(&world), STATUS_SUCCESS);
      GoNormal(&world);
      FaultArm({FaultPool | FaultIrp | FaultMdl, 0, 1, true});
      if (surprise) {
        PnpSurpriseRemove(world.Node);
      }
      PnpRemove(world.Node, true);
      FaultDisarm();
      world.Node = nullptr;
      WorldEnd(&world);
    });
    EXPECT_FALSE(report.Stopped) << report.Text;
  }
}

// A read buffer that cannot be had loses no read: the request stays current, and the next change of
// the proxy state sends it.
TEST(Faults, AReadWithoutABufferIsSentLater) {
  for (const char *tag : {"ZK00", "mdl"}) {
    WorldOptions options;
    options.Buffering = DO_DIRECT_IO;
    RunWorld(
        [=](World *world) {
          GoNormal(world);
          Io failed, read;
          FaultArm(std::string(tag) == "mdl"
                       ? FaultPlan{FaultMdl, 0, 1, false}
                       : FaultPlan{FaultPool, FourCharacters("ZK00"), 1, false});
          EXPECT_EQ(StartRead(world->Client, &failed, 10), STATUS_INSUFFICIENT_RESOURCES);
          EXPECT_TRUE(FaultDisarm());
          EXPECT_EQ(StartRead(world->Client, &read, 10), STATUS_PENDING);
          EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 0u);
          ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
          ASSERT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
          EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 1u);
          LowerFeed(&world->Lower, "late");
          EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
          EXPECT_EQ(read.Text(), "late");
        },
        options);
  }
}

// Also that of a driver above, without a handle: ZK's read queues behind it until a client opens.
TEST(Faults, ZksReadBehindOneWithoutABuffer) {
  RunWorld([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world, false);
    OwnPacket packet;
    packet.Bytes = "12345678";
    FaultArm({FaultPool, FourCharacters("ZK00"), 1, false});
    EXPECT_EQ(OwnSend(WorldPort(world)->Header.Device, IRP_MJ_READ, &packet),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(FaultDisarm());
    EXPECT_EQ(OwnWait(&packet), STATUS_INSUFFICIENT_RESOURCES);
    Io zk;
    EXPECT_EQ(StartRead(world->Zk, &zk, 64), STATUS_PENDING);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 0u);
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).Length, 8u);
    LowerFeed(lower, "late");
    EXPECT_EQ(FileWait(&zk), STATUS_SUCCESS);
    EXPECT_EQ(DecodeFrame(zk).Payload, "late");
  });
}

// Without memory for a call-down entry the reserve serves.
TEST(Faults, TheCallDownNeedsNoMemory) {
  RunWorld([](World *world) {
    GoNormal(world);
    Io reads[3];
    for (Io &read : reads) {
      EXPECT_EQ(StartRead(world->Client, &read, 1), STATUS_PENDING);
    }
    FaultArm({FaultPool, FourCharacters("ZK17"), 1, true});
    LowerFeed(&world->Lower, "abc");
    for (Io &read : reads) {
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    }
    EXPECT_TRUE(FaultDisarm());
  });
}

// A call-down thread whose wait fails ends; the engine is told, and the port still closes and goes.
TEST(Faults, TheCallDownThreadDies) {
  RunWorld([](World *world) {
    GoNormal(world);
    Io reads[3];
    for (Io &read : reads) {
      EXPECT_EQ(StartRead(world->Client, &read, 1), STATUS_PENDING);
    }
    ThreadSettle();  // the thread waits by now
    FaultArm({FaultWait, 0, 1, false});
    LowerFeed(&world->Lower, "a");  // the next read is posted; after it the thread's wait fails
    ThreadSettle();
    LowerFeed(&world->Lower, "b");
    ThreadSettle();
    EXPECT_TRUE(FaultDisarm());
    EXPECT_EQ(FileWait(&reads[0]), STATUS_SUCCESS);
    EXPECT_EQ(EventLogCount(0xC0060001), 1u);
    EXPECT_EQ(EventLogEntries().back().UniqueValue, 1u);
    CloseClient(world);
    FileWait(&reads[1]);
    FileWait(&reads[2]);
  });
}
