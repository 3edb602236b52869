// What somebody gives up (a reference, a lock, an event, a request passed on) while others may
// still look at it: each race ends well in every order of a few preemptions.
#include <gtest/gtest.h>

#include "tests/support/world.h"

static bool IsIdleAndEmpty(World *World) {
  const ProxyReadEngine &engine = WorldPort(World)->Engine;
  return engine.ClientSlot == nullptr && engine.ZkSlot == nullptr &&
         IsListEmpty(&engine.ClientRequests) && IsListEmpty(&engine.ZkRequests);
}

// NORMAL comes back with another ZK: nobody has asked for anything yet, so nothing is read; and the
// first block goes to the client that asks first, and to ZK.
static void ExpectFirstBlockForWhoAsks(World *World) {
  LowerPort *lower = &World->Lower;
  EXPECT_TRUE(IsIdleAndEmpty(World)) << "a proxy read request is left in IDLE";
  EXPECT_EQ(OpenZk(World), STATUS_SUCCESS);
  EXPECT_EQ(SendCommand(World, COMMAND_SET_MODE, 0, MODE_NORMAL), STATUS_SUCCESS);
  EXPECT_EQ(NextFrame(World).Header.Code, 0u);
  EXPECT_EQ(LowerHeldCount(lower), 0u) << "the port is read for nobody";
  Io read;
  StartRead(World->Client, &read, 8);
  LowerFeed(lower, "first");
  EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
  EXPECT_EQ(read.Text(), "first");
  EXPECT_EQ(NextFrame(World).Payload, "first");
}

// Three: the last one inside drops its reference and has not told yet; another comes, is refused
// and goes; and the removal, told by that one, frees the port.
TEST(GivingUpRaces, TheLastReferenceAgainstARefusedRequestAndTheRemoval) {
  ExploreWorld(
      [](World *world) {
        LowerPort *lower = &world->Lower;
        lower->How[IRP_MJ_FLUSH_BUFFERS] = Behaviour::Pend;
        OpenZk(world);
        PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
        PKTHREAD flusher =
            ThreadStart("flush", [&] { SendPacket(filter, IRP_MJ_FLUSH_BUFFERS, 0, nullptr); });
        ThreadSettle();
        Against({[&] { RemovePort(world, true); },
                 [&] { LowerFinish(lower, IRP_MJ_FLUSH_BUFFERS); }, [&] { CloseZk(world); }});
        ThreadJoin(flusher);
      },
      1);
}

// A request of the same file that comes while the parked ones go on does not overtake them, and
// none of them is lost on its way.
TEST(GivingUpRaces, AWithdrawnQueryAgainstTheNextRequest) {
  for (unsigned parked : {1, 2}) {
    ExploreWorld([=](World *world) {
      OpenClient(world);
      PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
      PnpSend(filter, IRP_MN_QUERY_REMOVE_DEVICE);
      Io writes[3];
      std::string expected = parked == 1 ? "ac" : "abc";
      for (unsigned i = 0; i < parked; ++i) {
        StartWrite(world->Client, &writes[i], expected.substr(i, 1));
      }
      Against([&] { PnpSend(filter, IRP_MN_CANCEL_REMOVE_DEVICE); },
              [&] { StartWrite(world->Client, &writes[2], "c"); });
      for (unsigned i = 0; i < 3; ++i) {
        EXPECT_TRUE(i >= parked && i < 2 ? true : FileWait(&writes[i]) == STATUS_SUCCESS);
      }
      EXPECT_EQ(LowerWritten(&world->Lower), expected);
      // The port hears that it stays before it has to serve anybody.
      for (const LowerSeen &seen : world->Lower.Seen) {
        if (seen.Major == IRP_MJ_WRITE || seen.Minor == IRP_MN_CANCEL_REMOVE_DEVICE) {
          EXPECT_NE(seen.Major, IRP_MJ_WRITE);
          break;
        }
      }
    });
  }
}

// ZK goes, or goes to IDLE, while a read is on its way into the pipe and the engine.
TEST(GivingUpRaces, TheEndOfNormalAgainstARead) {
  struct {
    bool Closes, OfZk;
  } const cases[] = {{false, false}, {true, false}, {false, true}};
  for (const auto &c : cases) {
    ExploreResult result = ExploreWorld([=](World *world) {
      LowerPort *lower = &world->Lower;
      GoNormal(world);
      Io read;
      auto idle = [&] { SendCommand(world, COMMAND_SET_MODE, 0, MODE_IDLE); };
      Against([&] { c.Closes ? CloseZk(world) : idle(); },
              [&] { StartRead(c.OfZk ? world->Zk : world->Client, &read, 64); });
      CloseZk(world);
      ThreadSettle();
      LowerFeed(lower, "before");
      NTSTATUS status = FileWait(&read);
      EXPECT_TRUE(status != STATUS_SUCCESS || c.OfZk || read.Text() == "before");
      lower->Input.clear();
      ExpectFirstBlockForWhoAsks(world);
      ExploreSaw(status);
    });
    // Cancelled, when the engine's read for it was stopped before it was sent.
    EXPECT_TRUE(c.OfZk || OutcomesOf(result) == (std::set<std::string>{"cancelled", "success"}));
  }
}

// Whose side is cleaned up while one of its reads is past the gate: the read ends, the close comes,
// and the next open is granted.
TEST(GivingUpRaces, ACleanupAgainstAReadOfItsSide) {
  for (bool zk : {false, true}) {
    auto scenario = [=](World *world) {
      GoNormal(world);
      Io read;
      HANDLE handle = zk ? world->Zk : world->Client;
      Against([&] { zk ? CloseZk(world) : CloseClient(world); },
              [&] { StartRead(handle, &read, 64); });
      FileWait(&read);
      ThreadSettle();
      EXPECT_EQ(zk ? OpenZk(world) : OpenClient(world), STATUS_SUCCESS);
    };
    ExploreWorld(scenario, 1);
  }
}

// A ZK read that comes while a client opens does not take the client's first block.
TEST(GivingUpRaces, AClientsOpenAgainstZksRead) {
  ExploreWorld([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world);
    Io zkRead, read;
    Against(
        [&] {
          CloseClient(world);
          OpenClient(world);
          StartRead(world->Client, &read, 8);
        },
        [&] { StartRead(world->Zk, &zkRead, 64); });
    LowerFeed(lower, "first");
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    EXPECT_EQ(read.Text(), "first");
    // Behind what tells of a read that the changes of who has the port open have stopped.
    FileWait(&zkRead);
    Frame frame = DecodeFrame(zkRead);
    for (int told = 0; told < 2 && frame.Payload.empty(); ++told) {
      frame = NextFrame(world);
    }
    EXPECT_EQ(frame.Payload, "first");
  });
}

// Control frames are completed in the order in which they were executed, whoever's stack they run
// on.
TEST(GivingUpRaces, ControlFramesAgainstEachOther) {
  // Three changes of who goes on are needed, too many to be exhausted among three.
  ExploreWorldAs("pct depth=4 runs=20000", [](World *world) {
    GoNormal(world, false);
    std::string finished;
    Io frames[3];
    std::vector<std::function<void()>> parties;
    for (ULONG i = 0; i < 3; ++i) {
      frames[i].Context = &finished;
      frames[i].OnDone = [](FileRequest *Request, void *Context) {
        *static_cast<std::string *>(Context) += static_cast<char>(Request->Buffer[16]);
      };
      parties.push_back([&frames, world, i] {
        StartWrite(world->Zk, &frames[i], MakeFrame(FRAME_CONTROL, 'a' + i, COMMAND_GET_MODE));
      });
    }
    Against(parties);
    std::string executed;
    for (Io &frame : frames) {
      EXPECT_EQ(FileWait(&frame), STATUS_SUCCESS);
      executed += static_cast<char>(NextFrame(world).Header.Tag);
    }
    EXPECT_EQ(finished, executed);
  });
}
