// Calls that fail: what is told of them, and what the driver has in store against them.
#include <gtest/gtest.h>

#include "tests/support/world.h"

// What holds whichever call fails (see FailInTurn): a status says what was done.

static void CommandAll(World *World) {
  if (OpenZk(World) != STATUS_SUCCESS) {
    return;
  }
  for (ULONG command : {COMMAND_SET_LEVEL, COMMAND_GET_LEVEL, COMMAND_SET_MODE, COMMAND_GET_MODE,
                        COMMAND_LOCK_STREAM, COMMAND_UNLOCK_STREAM}) {
    ULONG_PTR information = 0;
    NTSTATUS status =
        SendCommand(World, command, 0, command == COMMAND_SET_MODE ? 2u : 5u, &information);
    Must(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES, "a status");
    Must((information == 0) == (status != STATUS_SUCCESS), "the bytes of a command");
  }
}

static void WriteBothWays(World *World) {
  Io client, zk;
  GoNormal(World);
  StartWrite(World->Client, &client, "client");
  StartWrite(World->Zk, &zk, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "zk"));
  for (auto [io, text] : {std::pair(&client, "client"), std::pair(&zk, "zk")}) {
    bool done = FileWait(io) == STATUS_SUCCESS;
    Must(done == (LowerWritten(&World->Lower).find(text) != std::string::npos),
         "a write that succeeded was written, and no other");
    Must(io->Iosb.Information == (done ? io->Buffer.size() : 0), "all bytes, or none");
  }
}

static void LockAndUnlock(World *World) {
  Io write;
  GoNormal(World);
  if (World->Zk == nullptr || World->Client == nullptr) {
    return;
  }
  bool locked = SendCommand(World, COMMAND_LOCK_STREAM) == STATUS_SUCCESS;
  NTSTATUS written = StartWrite(World->Client, &write, "parked");
  Must((written == STATUS_PENDING) == locked, "parked while it is locked");
  bool unlocked = SendCommand(World, COMMAND_UNLOCK_STREAM) == STATUS_SUCCESS;
  Must(FileDone(&write) == (!locked || unlocked), "released when it is unlocked");
  if (!FileDone(&write)) {
    FileCancel(&write);
  }
  FileWait(&write);
}

TEST(Faults, StatusesSayWhatWasDone) {
  WorldOptions options;
  for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    options.Buffering = buffering;
    for (auto play : {CommandAll, WriteBothWays, LockAndUnlock}) {
      RunWorld(play, options);
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
