// The proxy read engine and its call-down thread: stops, restarts and discards around the one read
// that is in flight.
#include <gtest/gtest.h>

#include <optional>

#include "controller/port_mode.h"
#include "driver/pool_tags.h"
#include "platform/model/irql.h"
#include "tests/support/world.h"

// In NORMAL with a client, whose read the engine has sent to the port.
static PortExtension *ReadInFlight(World *World, Behaviour Below, Io *Read) {
  GoNormal(World);
  World->Lower.How[IRP_MJ_READ] = Below;
  EXPECT_EQ(StartRead(World->Client, Read, 8), STATUS_PENDING);
  EXPECT_EQ(LowerHeldCount(&World->Lower), 1u);
  return WorldPort(World);
}

static std::vector<Io> StartReads(HANDLE Handle, size_t Count, size_t Length) {
  std::vector<Io> reads(Count);
  for (Io &read : reads) {
    EXPECT_EQ(StartRead(Handle, &read, Length), STATUS_PENDING);
  }
  return reads;
}

// As a queued control frame would run in a completion: where it may not wait.
static void AtDispatch(const std::function<void()> &Body) {
  KIRQL irql = IrqlRaise(DISPATCH_LEVEL);
  Body();
  IrqlLower(irql);
}

// A stop that may wait, as far as it comes.
struct Stopper {
  explicit Stopper(ProxyReadEngine *Engine) {
    Thread = ThreadStart("stop", [this, Engine] {
      ProxyReadStop(Engine);
      Over = true;
    });
    ThreadSettle();
  }
  PKTHREAD Thread;
  bool Over = false;
};

static void LockAndUnlock(World *World) {
  EXPECT_EQ(SendCommand(World, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
  EXPECT_EQ(SendCommand(World, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
}

static uint64_t Blocks(ULONG Tag) {
  return PoolCount(Tag).Blocks;
}

// --- Stops ----------------------------------------------------------------------------------

// A stop that did not wait left a read in flight. The next one waits for that read, without
// cancelling it again; and when the read is back nothing of that is left for the one after.
TEST(ProxyRead, AStopAfterOneThatDidNotWait) {
  for (bool back : {false, true}) {
    RunWorld([=](World *world) {
      Io read;
      ProxyReadEngine *engine = &ReadInFlight(world, Behaviour::Deaf, &read)->Engine;
      AtDispatch([&] { ProxyReadStop(engine); });
      if (back) {
        EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_CANCELLED));
        EXPECT_EQ(engine->EngineState, ENGINE_STOPPED);
        ProxyReadRestart(engine);
      } else {
        engine->ReadIrp->Cancel = FALSE;
      }
      Stopper stopper(engine);
      EXPECT_FALSE(stopper.Over);
      EXPECT_EQ(engine->ReadIrp->Cancel, back);
      EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_CANCELLED));
      ThreadJoin(stopper.Thread);
      EXPECT_EQ(engine->EngineState, ENGINE_STOPPED);
      ProxyReadStop(engine);
      ProxyReadRestart(engine);
      EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_SUCCESS, "x"));
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    });
  }
}

// A restart that comes while the read is on its way back waits for it, unless a further stop takes
// it back, whether or not that one may wait; and it is meant once.
TEST(ProxyRead, ARestartWhileStopping) {
  enum class Then { Nothing, Stop, StopAndWait };
  for (Then then : {Then::Nothing, Then::Stop, Then::StopAndWait}) {
    RunWorld([=](World *world) {
      LowerPort *lower = &world->Lower;
      Io read;
      ProxyReadEngine *engine = &ReadInFlight(world, Behaviour::Deaf, &read)->Engine;
      AtDispatch([=] {
        ProxyReadStop(engine);
        ProxyReadRestart(engine);
        if (then == Then::Stop) {
          ProxyReadStop(engine);
        }
      });
      std::optional<Stopper> stopper;
      if (then == Then::StopAndWait) {
        stopper.emplace(engine);
      }
      EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ, STATUS_CANCELLED));
      ThreadSettle();
      EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), then == Then::Nothing ? 2u : 1u);
      if (then != Then::Nothing) {
        EXPECT_EQ(engine->EngineState, ENGINE_STOPPED);
        ProxyReadRestart(engine);
      }
      AtDispatch([=] { ProxyReadStop(engine); });
      EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ, STATUS_CANCELLED));
      ThreadSettle();
      EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 2u);
      EXPECT_EQ(engine->EngineState, ENGINE_STOPPED);
      if (stopper) {
        ThreadJoin(stopper->Thread);
      }
      CloseClient(world);
    });
  }
}

// ZK changes the mode from the completion of its read, which a port that completes inline runs on
// the call-down thread: the stop cannot wait there for the read that it is called from.
TEST(ProxyRead, AStopOnTheCallDownThread) {
  struct Answer {
    World *Port;
    Io Write;
    static void Send(FileRequest *, void *Context) {
      auto *answer = static_cast<Answer *>(Context);
      EXPECT_EQ(KeGetCurrentThread(), WorldPort(answer->Port)->CallDown.Thread);
      StartWrite(answer->Port->Zk, &answer->Write,
                 MakeFrame(FRAME_CONTROL, 5, COMMAND_SET_MODE, MakeArgument(MODE_IDLE)));
    }
  };
  WorldOptions options;
  options.Values["VORLIXProxyReadLimit"] = RegistryDword(1);
  options.FailsInTurn = false;  // a read may then end on a thread that would wait for itself
  RunWorld(
      [](World *world) {
        world->Lower.ByDpc = false;  // nobody writes at DISPATCH_LEVEL
        GoNormal(world, false);
        Answer answer{world, {}};
        std::vector<Io> reads = StartReads(world->Zk, 4, 64);
        reads[1].OnDone = Answer::Send;
        reads[1].Context = &answer;
        LowerFeed(&world->Lower, "abc");  // a byte a read; the second goes through the thread
        ASSERT_EQ(FileWait(&reads[1]), STATUS_SUCCESS);
        EXPECT_EQ(FileWait(&answer.Write), STATUS_SUCCESS);
        EXPECT_EQ(DecodeFrame(reads[1]).Payload, "b");
        EXPECT_EQ(DecodeFrame(reads[2]).Header.Tag, 5u);  // the command's reply
        ThreadSettle();
        EXPECT_FALSE(FileDone(&reads[3]));
        EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 2u);
        EXPECT_EQ(Blocks(POOL_PROXY_ZK_REQUEST), 0u);
        EXPECT_EQ(WorldPort(world)->Engine.EngineState, ENGINE_STOPPED);
        CloseZk(world);
      },
      options);
}

// A lock stops the read while its client closes: whoever comes first, nothing is read for the dead
// client, neither after the unlock nor when the next one opens.
TEST(ProxyRead, AStopAgainstTheClientsClose) {
  ExploreWorld(
      [](World *world) {
        LowerPort *lower = &world->Lower;
        Io read;
        ReadInFlight(world, Behaviour::Pend, &read);
        Against([=] { SendCommand(world, COMMAND_LOCK_STREAM); }, [=] { CloseClient(world); });
        EXPECT_EQ(FileWait(&read), STATUS_CANCELLED);
        EXPECT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
        EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
        ThreadSettle();
        EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 1u);
        EXPECT_EQ(Blocks(POOL_PROXY_CLIENT_REQUEST), 0u);
      },
      2);
}

TEST(ProxyRead, ADiscardedRequestGoesWithItsRead) {
  for (NTSTATUS status : {STATUS_CANCELLED, STATUS_SUCCESS}) {
    RunWorld([=](World *world) {
      Io read;
      PortExtension *port = ReadInFlight(world, Behaviour::Deaf, &read);
      ProxyReadDiscard(&port->Engine, PROXY_CLIENT_CLASS);
      EXPECT_EQ(Blocks(POOL_PROXY_CLIENT_REQUEST), 1u);  // the port works on it
      Stopper stopper(&port->Engine);
      EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, status));
      ThreadJoin(stopper.Thread);
      EXPECT_EQ(Blocks(POOL_PROXY_CLIENT_REQUEST), 0u);
      CloseClient(world);
    });
  }
}

// A stop that comes too late: what the port answers all the same is the client's.
TEST(ProxyRead, AStoppedReadMayStillBringBytes) {
  RunWorld([](World *world) {
    Io read;
    PortExtension *port = ReadInFlight(world, Behaviour::Deaf, &read);
    Stopper stopper(&port->Engine);
    EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_SUCCESS, "late"));
    ThreadJoin(stopper.Thread);
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    EXPECT_EQ(read.Text(), "late");
    EXPECT_EQ(Blocks(POOL_PROXY_CLIENT_REQUEST), 0u);
    ProxyReadRestart(&port->Engine);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 1u);
  });
}

// --- Completions ----------------------------------------------------------------------------

// A mode change that could not wait for the read: what it still brings is for nobody.
TEST(ProxyRead, BytesThatComeInIdleAreDropped) {
  RunWorld([](World *world) {
    Io client, zk;
    PortExtension *port = ReadInFlight(world, Behaviour::Deaf, &client);
    EXPECT_EQ(StartRead(world->Zk, &zk, 64), STATUS_PENDING);
    AtDispatch([&] { EXPECT_EQ(SetPortMode(port, MODE_IDLE), STATUS_SUCCESS); });
    EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_SUCCESS, "late"));
    ThreadSettle();
    EXPECT_FALSE(FileDone(&client));
    EXPECT_FALSE(FileDone(&zk));
    EXPECT_EQ(port->ClientPipe.CurrentWriter, nullptr);
    EXPECT_EQ(port->ZkPipe.CurrentWriter, nullptr);
    EXPECT_EQ(Blocks(POOL_PROXY_CLIENT_REQUEST) + Blocks(POOL_PROXY_ZK_REQUEST), 0u);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 1u);
    CloseClient(world);
    CloseZk(world);
  });
}

// The client drives the reads, and each uses up one of ZK's requests, since ZK gets its copy.
TEST(ProxyRead, ZksRequestsAreUsedUpOneARead) {
  RunWorld([](World *world) {
    GoNormal(world);
    Io client;
    std::vector<Io> zk = StartReads(world->Zk, 4, 64);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 0u);
    for (uint64_t left = 4; left > 0; --left) {
      EXPECT_EQ(Blocks(POOL_PROXY_ZK_REQUEST), left);
      EXPECT_EQ(StartRead(world->Client, &client, 8), STATUS_PENDING);
      LowerFeed(&world->Lower, std::string(1, static_cast<char>('0' + left)));
      EXPECT_EQ(FileWait(&client), STATUS_SUCCESS);
      EXPECT_EQ(DecodeFrame(zk[4 - left]).Payload, client.Text());
    }
    EXPECT_EQ(Blocks(POOL_PROXY_ZK_REQUEST), 0u);
  });
}

// A restart while nobody drives the reads sends what stands in a slot, the client's before ZK's.
TEST(ProxyRead, ARestartWhenReadsAreNobodys) {
  for (bool client : {true, false}) {
    RunWorld([=](World *world) {
      GoNormal(world);
      PortExtension *port = WorldPort(world);
      Io zk, read;
      EXPECT_EQ(StartRead(world->Zk, &zk, 64), STATUS_PENDING);
      if (client) {
        EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
      }
      ProxyReadStop(&port->Engine);
      RunningAsSerializerItem();
      StoreProxyState(port, PROXY_OFF);
      ProxyReadRestart(&port->Engine);
      ASSERT_EQ(LowerHeldCount(&world->Lower), 1u);
      EXPECT_EQ(LowerLast(&world->Lower, IRP_MJ_READ).Length, client ? 8u : 64u);
      StoreProxyState(port, PROXY_FOR_CLIENT);
      LowerFeed(&world->Lower, "bytes");
      EXPECT_EQ(client ? read.Text() : DecodeFrame(zk).Payload, "bytes");
    });
  }
}

// --- The call-down thread -------------------------------------------------------------------

// What is posted when the thread is told to end still goes down, and what comes later is refused; a
// thread whose wait fails takes its entry back. Either way the engine is idle with the request
// current, and the next restart sends the read itself.
TEST(ProxyRead, WithoutACallDownThread) {
  for (bool failed : {false, true}) {
    RunWorld([=](World *world) {
      LowerPort *lower = &world->Lower;
      PortExtension *port = WorldPort(world);
      lower->ByDpc = false;  // while that ran, the thread would send what is posted
      GoNormal(world);
      std::vector<Io> reads = StartReads(world->Client, 3, 1);
      ThreadSettle();  // the thread waits
      if (failed) {
        FaultArm({FaultWait, 0, 1, false});
        LowerFeed(lower, "ab");  // the second is answered on the thread, which posts the third
        ThreadSettle();
        EXPECT_TRUE(FaultDisarm());
      } else {
        LowerFeed(lower, "a");
        EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 1u);  // the second is posted
        EXPECT_EQ(CallDownShutdown(&port->CallDown), STATUS_SUCCESS);
        EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 2u);
        LowerFeed(lower, "b");
      }
      EXPECT_EQ(FileWait(&reads[1]), STATUS_SUCCESS);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 2u);
      EXPECT_EQ(port->Engine.EngineState, ENGINE_IDLE);
      EXPECT_NE(port->Engine.CurrentRequest, nullptr);
      EXPECT_EQ(Blocks(POOL_CALL_DOWN), 0u);
      LockAndUnlock(world);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 3u);
      LowerFeed(lower, "c");
      EXPECT_EQ(FileWait(&reads[2]), STATUS_SUCCESS);
      EXPECT_EQ(reads[2].Text(), "c");
    });
  }
}

// A stop meets a read whose post is refused, or taken back by the thread as it dies: it ends.
TEST(ProxyRead, AStopAgainstAReadThatIsNotSent) {
  for (bool dead : {true, false}) {
    ExploreWorld(
        [=](World *world) {
          LowerPort *lower = &world->Lower;
          GoNormal(world);
          std::vector<Io> reads = StartReads(world->Client, 4, 1);
          ThreadSettle();
          FaultArm({FaultWait, 0, 1, false});
          if (dead) {
            LowerFeed(lower, "a");
            ThreadSettle();
          }
          Against([=] { LowerFeed(lower, dead ? "b" : "abc"); },
                  [=] { SendCommand(world, COMMAND_LOCK_STREAM); });
          ThreadSettle();
          FaultDisarm();
          EXPECT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
          // Without the thread each round answers one read.
          for (int i = 0; i < 6 && !FileDone(&reads[3]); ++i) {
            LockAndUnlock(world);
            LowerFeed(lower, "z");
            ThreadSettle();
          }
          EXPECT_EQ(FileWait(&reads[3]), STATUS_SUCCESS);
          EXPECT_EQ(Blocks(POOL_PROXY_CLIENT_REQUEST) + Blocks(POOL_CALL_DOWN), 0u);
        },
        2);
  }
}

// ZK's cleanup leaves its request to a read that is then not sent, while ZK's close waits for it.
TEST(ProxyRead, ZksCloseAgainstAReadThatIsNotSent) {
  ExploreWorld(
      [](World *world) {
        LowerPort *lower = &world->Lower;
        GoNormal(world, false);
        std::vector<Io> reads = StartReads(world->Zk, 3, 64);
        ThreadSettle();
        FaultArm({FaultWait, 0, 1, false});
        LowerFeed(lower, "a");  // the thread sends the second and dies
        ThreadSettle();
        EXPECT_TRUE(FaultDisarm());
        Against([=] { LowerFeed(lower, "b"); }, [=] { CloseZk(world); });
        FileWait(&reads[1]);
        EXPECT_EQ(FileWait(&reads[2]), STATUS_CANCELLED);
        EXPECT_EQ(Blocks(POOL_PROXY_ZK_REQUEST) + Blocks(POOL_CALL_DOWN), 0u);
      },
      2, {.Values = {{"VORLIXProxyReadLimit", RegistryDword(1)}}});
}
