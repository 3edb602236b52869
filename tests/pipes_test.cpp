// The pipes: what waits in them, on either side, and the frames that fill ZK's.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "driver/pool_tags.h"
#include "tests/support/world.h"

// A framed element must leave room for its header; that is found out before any memory is asked
// for. Plain bytes know no such limit.
TEST(Pipes, ElementsOfExtremeLength) {
  struct SizeCase {
    bool Framed;
    ULONG Length;
    bool Asks;  // for memory
  };
  RunWorld([](World *world) {
    PortExtension *port = WorldPort(world);
    for (SizeCase c : {SizeCase{false, 0xFFFFFFFF, true},
                       {false, 0xFFFFFFE8, true},
                       {true, 0xFFFFFFE7, true},  // with its header exactly what 32 bits hold
                       {true, 0xFFFFFFE8, false},
                       {true, 0xFFFFFFFF, false}}) {
      SCOPED_TRACE(testing::Message() << c.Framed << " " << c.Length);
      Pipe *pipe = c.Framed ? &port->ZkPipe : &port->ClientPipe;
      PipeElement *element;
      uint64_t before = FaultCount(FaultPool);
      FaultArm({FaultPool, POOL_PORT_DATA, 1, true});  // never really had
      EXPECT_EQ(PipeAllocateElement(pipe, nullptr, 0, TRUE, c.Length, POOL_PORT_DATA, &element),
                STATUS_INSUFFICIENT_RESOURCES);
      EXPECT_EQ(FaultDisarm(), c.Asks);
      EXPECT_EQ(FaultCount(FaultPool) - before, c.Asks ? 1u : 0u);
      EXPECT_EQ(element, nullptr);
    }
  });
}

// A pipe carries plain bytes or frames. One of frames that does not say that its readers succeed
// completes them with what the writer brings.
TEST(Pipes, Kinds) {
  RunWorld([](World *world) {
    GoNormal(world, false);
    PortExtension *port = WorldPort(world);
    for (ULONG kind : {ULONG{0}, ULONG{PIPE_FRAMING}}) {
      Pipe pipe;
      PipeElement *element;
      PipeInitialize(&pipe, kind, port->Header.Device);
      EXPECT_EQ(PipeAllocateElement(&pipe, nullptr, 0, TRUE, 8, POOL_PORT_DATA, &element),
                STATUS_NOT_SUPPORTED);
    }
    port->ZkPipe.Kind = PIPE_FRAMED;
    Io read;
    EXPECT_EQ(StartRead(world->Zk, &read, 64), STATUS_PENDING);
    EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_IO_TIMEOUT, "x"));
    EXPECT_EQ(FileWait(&read), STATUS_IO_TIMEOUT);
  });
}

// Starts reads, cancels them, and feeds: the engine's reads bring blocks that nobody waits for.
static void LeaveBlocks(World *World, const std::vector<std::string> &Blocks) {
  std::vector<Io> reads(Blocks.size());
  for (Io &read : reads) {
    EXPECT_EQ(StartRead(World->Client, &read, 100), STATUS_PENDING);
  }
  for (Io &read : reads) {
    EXPECT_TRUE(FileCancel(&read));
    EXPECT_EQ(FileWait(&read), STATUS_CANCELLED);
  }
  for (const std::string &block : Blocks) {
    LowerFeed(&World->Lower, block);
    ThreadSettle();
  }
}

// A read takes from one block only, whatever room it has; what it leaves is for the next one.
TEST(Pipes, AReadTakesFromOneBlock) {
  for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    RunWorld(
        [](World *world) {
          GoNormal(world);
          LeaveBlocks(world, {"12345", "67890abc", "d"});
          EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 3u);
          Io read;
          for (const auto &[room, expected] : std::vector<std::pair<size_t, std::string>>{
                   {100, "12345"}, {5, "67890"}, {100, "abc"}, {1, "d"}}) {
            EXPECT_EQ(StartRead(world->Client, &read, room), STATUS_SUCCESS);
            EXPECT_EQ(read.Text(), expected);
          }
          EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 3u);
          EXPECT_EQ(StartRead(world->Client, &read, 1), STATUS_PENDING);
          CloseClient(world);
        },
        {.Buffering = buffering});
  }
}

// --- What stays in the client pipe ----------------------------------------------------------

// A port that ends a read itself, cancelled and empty: the next read is told, once.
TEST(Pipes, ACancelledBlockEndsTheNextRead) {
  RunWorld([](World *world) {
    LowerPort *lower = &world->Lower;
    lower->How[IRP_MJ_READ] = Behaviour::Pend;
    GoNormal(world);
    Io first, told, next;
    EXPECT_EQ(StartRead(world->Client, &first, 8), STATUS_PENDING);
    FileCancel(&first);
    EXPECT_EQ(FileWait(&first), STATUS_CANCELLED);
    EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ, STATUS_CANCELLED));
    EXPECT_EQ(StartRead(world->Client, &told, 8), STATUS_CANCELLED);
    EXPECT_EQ(told.Iosb.Information, 0u);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 1u);
    EXPECT_EQ(StartRead(world->Client, &next, 8), STATUS_PENDING);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 2u);
    CloseClient(world);
  });
}

// ZK leaves while a block waits: reads go to the port, and the block waits on, for the next NORMAL
// or for the client's close, which throws it away.
TEST(Pipes, BlocksOutliveZkButNotTheClient) {
  for (bool reopened : {false, true}) {
    RunWorld([=](World *world) {
      GoNormal(world);
      LeaveBlocks(world, {"old"});
      CloseZk(world);
      Io idle, read;
      EXPECT_EQ(StartRead(world->Client, &idle, 8), STATUS_PENDING);
      LowerFeed(&world->Lower, "new");
      EXPECT_EQ(FileWait(&idle), STATUS_SUCCESS);
      EXPECT_EQ(idle.Text(), "new");
      if (reopened) {
        CloseClient(world);
        EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
      }
      GoNormal(world, false);
      EXPECT_EQ(StartRead(world->Client, &read, 8), reopened ? STATUS_PENDING : STATUS_SUCCESS);
      LowerFeed(&world->Lower, "newer");
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
      EXPECT_EQ(read.Text(), reopened ? "newer" : "old");
    });
  }
}

// --- Cancelled reads ------------------------------------------------------------------------

// A read that comes cancelled ends at once and never waits; the bytes go to the next.
TEST(Pipes, AReadThatComesCancelled) {
  for (bool zk : {false, true}) {
    RunWorld([=](World *world) {
      GoNormal(world);
      PortExtension *port = WorldPort(world);
      Pipe *pipe = zk ? &port->ZkPipe : &port->ClientPipe;
      OwnPacket packet;
      packet.Cancelled = true;
      packet.Bytes = std::string(64, '.');
      EXPECT_EQ(OwnSend(zk ? port->ControlDevice : port->Header.Device, IRP_MJ_READ, &packet),
                STATUS_CANCELLED);
      EXPECT_EQ(pipe->CurrentReader, nullptr);
      EXPECT_EQ(OwnWait(&packet), STATUS_CANCELLED);
      EXPECT_EQ(packet.Iosb.Information, 0u);
      EXPECT_EQ(port->RequestCount, 1);
      Io client, controller;
      EXPECT_EQ(StartRead(world->Zk, &controller, 64), STATUS_PENDING);
      EXPECT_EQ(StartRead(world->Client, &client, 64), STATUS_PENDING);
      LowerFeed(&world->Lower, "bytes");
      EXPECT_EQ(FileWait(&client), STATUS_SUCCESS);
      EXPECT_EQ(client.Text(), "bytes");
      EXPECT_EQ(DecodeFrame(controller).Payload, "bytes");
    });
  }
}

// The flag is set before the routine is called, and only the flag is seen when readers move up:
// after a delivery, and after a cancellation of the reader in front.
TEST(Pipes, ACancelledReadIsNotPromoted) {
  for (bool delivered : {true, false}) {
    RunWorld([=](World *world) {
      GoNormal(world);
      Io reads[4], write;
      for (Io &read : reads) {
        ASSERT_EQ(StartRead(world->Zk, &read, 64), STATUS_PENDING);
      }
      reads[1].Irp->Cancel = TRUE;
      reads[2].Irp->Cancel = TRUE;
      if (delivered) {
        EXPECT_EQ(StartWrite(world->Client, &write, "first"), STATUS_SUCCESS);
        EXPECT_EQ(DecodeFrame(reads[0]).Payload, "first");
      } else {
        EXPECT_TRUE(FileCancel(&reads[0]));
      }
      for (Io *read : {&reads[1], &reads[2]}) {
        EXPECT_EQ(FileWait(read), STATUS_CANCELLED);
        EXPECT_EQ(read->Iosb.Information, 0u);
      }
      EXPECT_EQ(StartWrite(world->Client, &write, "second"), STATUS_SUCCESS);
      EXPECT_EQ(FileWait(&reads[3]), STATUS_SUCCESS);
      EXPECT_EQ(DecodeFrame(reads[3]).Payload, "second");
    });
  }
}

static NTSTATUS ReadAgainDone(PDEVICE_OBJECT, PIRP, PVOID Context) {
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// A driver above reads with one packet, as the engine does: as soon as it is back it goes down
// again, though a cancel that was meant for the read before may still be under way.
static NTSTATUS ReadAgain(PDEVICE_OBJECT Device, OwnPacket *Packet) {
  KeWaitForSingleObject(&Packet->Done, Executive, KernelMode, FALSE, nullptr);
  KeClearEvent(&Packet->Done);
  IoReuseIrp(Packet->Irp, STATUS_SUCCESS);
  Packet->Irp->AssociatedIrp.SystemBuffer = Packet->Bytes.data();
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(Packet->Irp);
  stack->MajorFunction = IRP_MJ_READ;
  stack->Parameters.Read.Length = static_cast<ULONG>(Packet->Bytes.size());
  IoSetCompletionRoutine(Packet->Irp, ReadAgainDone, &Packet->Done, TRUE, TRUE, TRUE);
  return IofCallDriver(Device, Packet->Irp);
}

// A read is served and freed while it is being cancelled, and the next one gets its address, or its
// packet as well: the cancel that comes late does not end it.
TEST(PipeRaces, ACancelAgainstReusedAddresses) {
  WorldOptions options;
  options.FailsInTurn = false;  // the packets are not the driver's
  for (bool samePacket : {false, true}) {
    ExploreResult result = ExploreWorld(
        [=](World *world) {
          GoNormal(world);
          PoolReuseAtOnce();
          PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
          OwnPacket first, other;
          first.Bytes = other.Bytes = std::string(64, '.');
          OwnPacket *second = samePacket ? &first : &other;
          EXPECT_EQ(OwnSend(control, IRP_MJ_READ, &first), STATUS_PENDING);
          Io write, last;
          Against([&] { IoCancelIrp(first.Irp); },
                  [&] {
                    StartWrite(world->Client, &write, "bytes");
                    if (samePacket) {
                      ReadAgain(control, &first);
                    } else {
                      OwnSend(control, IRP_MJ_READ, &other);
                    }
                  });
          // A cancel of the packet's second read is one, too; it leaves its flag.
          bool cancelled = samePacket && second->Irp->Cancel;
          StartWrite(world->Client, &last, "more");
          KeWaitForSingleObject(&second->Done, Executive, KernelMode, FALSE, nullptr);
          EXPECT_EQ(second->Irp->IoStatus.Status, cancelled ? STATUS_CANCELLED : STATUS_SUCCESS);
          ExploreSaw(cancelled ? "again" : StatusName(first.Irp->IoStatus.Status));
          for (OwnPacket *packet : {&first, &other}) {
            if (packet->Irp != nullptr) {
              OwnWait(packet);
            }
          }
        },
        2, options);
    EXPECT_EQ(OutcomesOf(result), samePacket ? std::set<std::string>({"again", "success"})
                                             : std::set<std::string>({"cancelled", "success"}));
  }
}

// --- Frames ---------------------------------------------------------------------------------

// With direct I/O ZK can write into a frame that the driver is reading. It is then one kind of
// frame or another, or refused, but ends once and does one thing.
TEST(Frames, ATypeThatChangesOnTheWay) {
  struct TypeCase {
    ULONG Before, After;
    std::set<NTSTATUS> Ends;
  };
  const std::set<NTSTATUS> either = {STATUS_SUCCESS, STATUS_INVALID_PARAMETER};
  for (const TypeCase &c : {TypeCase{FRAME_DATA, 0, either},
                            {FRAME_CONTROL, FRAME_REPORT, either},
                            {0, FRAME_DATA, either},
                            {FRAME_DATA, FRAME_CONTROL, {STATUS_SUCCESS}},
                            {FRAME_CONTROL, FRAME_DATA, {STATUS_SUCCESS}}}) {
    SCOPED_TRACE(testing::Message() << c.Before << " to " << c.After);
    ExploreResult result = ExploreWorld(
        [&](World *world) {
          GoNormal(world);
          std::string bytes =
              MakeFrame(c.Before, TAG_LOWER, COMMAND_GET_MODE, MakeArgument(0x64636261));
          Io write;
          write.Major = IRP_MJ_WRITE;
          write.Buffer.assign(bytes.begin(), bytes.end());
          PKTHREAD writer = ThreadStart("write", [&] { FileSend(world->Zk, &write); });
          PKTHREAD flipper = ThreadStart("flip", [&] {
            memcpy(write.Buffer.data() + offsetof(FrameHeader, Type), &c.After, sizeof(ULONG));
          });
          ExploreWindow(true);
          ThreadJoin(writer);
          ThreadJoin(flipper);
          ExploreWindow(false);
          NTSTATUS status = FileWait(&write);
          bool written = LowerWritten(&world->Lower) == "abcd";
          bool answered = WorldPort(world)->ZkPipe.CurrentWriter != nullptr;
          EXPECT_EQ(written + answered, status == STATUS_SUCCESS ? 1 : 0);
          EXPECT_EQ(WorldPort(world)->RequestCount, 1);
          ExploreSaw(std::to_string(status));
        },
        1, {.Buffering = DO_DIRECT_IO});
    std::set<NTSTATUS> ends;
    for (const auto &outcome : result.Outcomes) {
      ends.insert(static_cast<NTSTATUS>(std::stol(outcome.first)));
    }
    EXPECT_EQ(ends, c.Ends);
  }
}
