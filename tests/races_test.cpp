// Races whose both orders must end well: a scenario is run under every schedule with a few
// preemptions, and counts how it ended, so that a race that was never really run fails the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "tests/support/world.h"

// Runs the scenario under every schedule and returns which outcomes were seen. The scenario opens
// the window itself and returns its outcome.
static ExploreResult Outcomes(const std::function<std::string(World *)> &Scenario,
                              unsigned Preemptions = 2, const WorldOptions &Options = {}) {
  return ExploreWorld([&](World *world) { ExploreSaw(Scenario(world)); }, Preemptions, Options);
}

// The preemptions of the small races that are exhausted more deeply than the others.
constexpr unsigned Deep = 3;

// What is expected may be missed by the schedules that a shallow or random exploration makes.
static void ExpectOutcomes(const ExploreResult &Result, const std::vector<std::string> &Expected) {
  bool every = getenv("VORLIX_EXPLORE") == nullptr && getenv("VORLIX_REPLAY") == nullptr &&
               getenv("VORLIX_FAIL") == nullptr;
  for (const std::string &outcome : Expected) {
    EXPECT_TRUE(!every || Result.Failure.Stopped || Result.Outcomes.count(outcome))
        << "never seen: " << outcome;
  }
  for (const auto &[outcome, seen] : Result.Outcomes) {
    EXPECT_TRUE(std::find(Expected.begin(), Expected.end(), outcome) != Expected.end())
        << "seen " << seen.Count << " times: " << outcome << "\nreplay: " << seen.Replay;
  }
}

// --- Cancel against completion --------------------------------------------------------------

// The current reader, and one queued behind it.
TEST(Races, CancelAgainstDelivery) {
  for (int victim : {0, 1}) {
    auto seen = Outcomes(
        [=](World *world) {
          GoNormal(world);
          Io reads[2], writes[2];
          for (Io &read : reads) {
            StartRead(world->Zk, &read, 64);
          }
          Against([&] { FileCancel(&reads[victim]); },
                  [&] {
                    StartWrite(world->Client, &writes[0], "a");
                    StartWrite(world->Client, &writes[1], "b");
                  });
          NTSTATUS status = FileWait(&reads[victim]);
          // Nothing is lost: what the cancelled read did not take the next one gets.
          std::string got;
          for (Io &read : reads) {
            if (FileWait(&read) == STATUS_SUCCESS) {
              got += DecodeFrame(read).Payload;
            }
          }
          if (status == STATUS_CANCELLED) {
            got += NextFrame(world).Payload;
          }
          EXPECT_EQ(got, "ab");
          return StatusName(status);
        },
        Deep);
    ExpectOutcomes(seen, {"cancelled", "success"});
  }
}

TEST(Races, CancelAgainstFlush) {
  for (int victim : {0, 1}) {
    auto seen = Outcomes([=](World *world) {
      GoNormal(world);
      Io reads[2];
      for (Io &read : reads) {
        StartRead(world->Client, &read, 8);
      }
      bool called = false;
      Against([&] { called = FileCancel(&reads[victim]); }, [&] { CloseClient(world); });
      EXPECT_EQ(FileWait(&reads[0]), STATUS_CANCELLED);
      EXPECT_EQ(FileWait(&reads[1]), STATUS_CANCELLED);
      return std::string(called ? "routine called" : "flushed first");
    });
    ExpectOutcomes(seen, {"routine called", "flushed first"});
  }
}

TEST(Races, CancelAgainstHandDown) {
  auto seen = Outcomes(
      [](World *world) {
        GoNormal(world);
        world->Lower.How[IRP_MJ_READ] = Behaviour::Pend;
        Io read;
        StartRead(world->Client, &read, 8);
        Against([&] { FileCancel(&read); }, [&] { CloseZk(world); });
        EXPECT_TRUE(FileDone(&read));  // at the port, too, a cancel finds its request
        LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_SUCCESS, "x");
        NTSTATUS status = FileWait(&read);
        // The engine's own read was the first.
        return StatusName(status) +
               (LowerCount(&world->Lower, IRP_MJ_READ) > 1 ? " below" : " here");
      },
      2, {.Buffering = DO_DIRECT_IO});
  ExpectOutcomes(seen, {"cancelled below", "cancelled here"});
}

// A write that is parked, by the stream lock or by a query, against its release.
TEST(Races, CancelAgainstRelease) {
  for (bool locked : {true, false}) {
    auto seen = Outcomes(
        [=](World *world) {
          GoNormal(world);
          PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
          auto hold = [=](ULONG command, UCHAR minor) {
            locked ? SendCommand(world, command) : PnpSend(filter, minor);
          };
          hold(COMMAND_LOCK_STREAM, IRP_MN_QUERY_REMOVE_DEVICE);
          Io write;
          StartWrite(world->Client, &write, "x");
          Against([&] { FileCancel(&write); },
                  [&] { hold(COMMAND_UNLOCK_STREAM, IRP_MN_CANCEL_REMOVE_DEVICE); });
          NTSTATUS status = FileWait(&write);
          EXPECT_EQ(LowerWritten(&world->Lower), status == STATUS_SUCCESS ? "x" : "");
          return StatusName(status);
        },
        locked ? Deep : 2);
    ExpectOutcomes(seen, {"cancelled", "success"});
  }
}

// A tracked request that completes while its device is being cleaned up.
TEST(Races, CleanupAgainstACompletionBelow) {
  auto seen = Outcomes([](World *world) {
    LowerPort *lower = &world->Lower;
    lower->How[IRP_MJ_FLUSH_BUFFERS] = Behaviour::Pend;
    OpenClient(world);
    NTSTATUS status = STATUS_PENDING;
    PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
    PKTHREAD flusher = ThreadStart(
        "flush", [&] { status = SendPacket(filter, IRP_MJ_FLUSH_BUFFERS, 0, nullptr); });
    ThreadSettle();
    Against([&] { CloseClient(world); }, [&] { LowerFinish(lower, IRP_MJ_FLUSH_BUFFERS); });
    ThreadJoin(flusher);
    return StatusName(status);
  });
  ExpectOutcomes(seen, {"cancelled", "success"});
}

// --- The engine -----------------------------------------------------------------------------

// A stop cancels the read in flight while the port completes it. The block goes to ZK in either
// order, and the client's read keeps waiting for the next one when it did not get this one.
TEST(Races, StopAgainstCompletionOfTheProxyRead) {
  auto seen = Outcomes(
      [](World *world) {
        LowerPort *lower = &world->Lower;
        lower->How[IRP_MJ_READ] = Behaviour::Pend;
        GoNormal(world);
        Io read;
        StartRead(world->Client, &read, 8);
        bool fed = false;
        Against([&] { SendCommand(world, COMMAND_LOCK_STREAM); },
                [&] { fed = LowerFinish(lower, IRP_MJ_READ, STATUS_SUCCESS, "data"); });
        bool answered = FileDone(&read);
        SendCommand(world, COMMAND_UNLOCK_STREAM);
        if (!answered) {
          EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ, STATUS_SUCCESS, "more"));
        }
        EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
        return std::string(fed ? "completed" : "stopped") + (answered ? ", answered" : ", kept");
      },
      Deep);
  ExpectOutcomes(seen, {"completed, answered", "completed, kept", "stopped, kept"});
}

// The lock comes and goes while a read is in flight: one decision a completion, no request lost.
TEST(Races, LockAndUnlockAgainstDelivery) {
  auto seen = Outcomes([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world);
    Io read;
    StartRead(world->Client, &read, 8);
    Against(
        [&] {
          SendCommand(world, COMMAND_LOCK_STREAM);
          SendCommand(world, COMMAND_UNLOCK_STREAM);
        },
        [&] { LowerFeed(lower, "1"); });
    ThreadSettle();
    if (!FileDone(&read)) {
      LowerFeed(lower, "2");
    }
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    return read.Text();
  });
  ExpectOutcomes(seen, {"1", "2"});
}

// The client closes while its read is being answered: the request in the engine is not left for
// the next client.
TEST(Races, ClientCloseAgainstDelivery) {
  auto seen = Outcomes([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world);
    Io read, next;
    StartRead(world->Client, &read, 8);
    Against([&] { CloseClient(world); }, [&] { LowerFeed(lower, "old"); });
    NTSTATUS status = FileWait(&read);
    ThreadSettle();  // the close goes out when the read is back
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
    // What the engine had read belongs to the one that left; what the port still has does not.
    std::string expected = lower->Input.empty() ? "new" : "old";
    StartRead(world->Client, &next, 8);
    LowerFeed(lower, "new");
    EXPECT_EQ(FileWait(&next), STATUS_SUCCESS);
    EXPECT_EQ(next.Text(), expected);
    return StatusName(status) + ", then " + expected;
  });
  ExpectOutcomes(seen, {"cancelled, then new", "cancelled, then old", "success, then new"});
}

// --- Removal --------------------------------------------------------------------------------

// A removal with handles open only comes with ZK's, which keeps the filter device. A client's would
// not: the manager holds a removal back for it.

// The port is pulled out while another party is at work. What the manager does then: a surprise
// removal at once, the removal itself when the last handle is closed.
static void PullOutAgainst(World *World, const std::function<void()> &Other) {
  Against([&] { PnpSurpriseRemove(World->Node); }, Other);
}

// A read that passes the gate just before the removal's flush has somebody to end it.
TEST(Races, RemovalAgainstASubmission) {
  for (bool zk : {false, true}) {
    auto seen = Outcomes(
        [=](World *world) {
          world->Lower.How[IRP_MJ_READ] = Behaviour::Pend;
          GoNormal(world);
          Io read;
          PullOutAgainst(world, [&] { StartRead(zk ? world->Zk : world->Client, &read, 64); });
          NTSTATUS status = FileWait(&read);
          LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_DEVICE_NOT_CONNECTED);
          return StatusName(status);
        },
        Deep);
    ExpectOutcomes(seen, {"cancelled", "refused"});
  }
  auto seen = Outcomes(
      [](World *world) {
        world->Lower.How[IRP_MJ_READ] = Behaviour::Pend;
        GoNormal(world, false);
        Io read;
        RemoveAgainst(world, [&] { StartRead(world->Zk, &read, 64); });
        NTSTATUS status = FileWait(&read);
        return status == STATUS_SUCCESS
                   ? "frame " + StatusName(static_cast<NTSTATUS>(DecodeFrame(read).Header.Code))
                   : StatusName(status);
      },
      Deep);
  // The port ends the engine's read when it goes, which ZK may still hear of.
  ExpectOutcomes(seen,
                 {"cancelled", "refused", "frame " + StatusName(STATUS_DEVICE_NOT_CONNECTED)});
}

// The same for a write that the stream lock parks; and for the lock itself, set while the sweep
// goes on: nobody would release what it holds.
TEST(Races, RemovalAgainstParking) {
  for (bool locked : {true, false}) {
    auto seen = Outcomes([=](World *world) {
      GoNormal(world);
      if (locked) {
        SendCommand(world, COMMAND_LOCK_STREAM);
      }
      Io write;
      PullOutAgainst(world, [&] {
        if (!locked) {
          SendCommand(world, COMMAND_LOCK_STREAM);
        }
        StartWrite(world->Client, &write, "x");
      });
      return StatusName(FileWait(&write));
    });
    // Past the gate and after the sweep it goes to the port, which is not told yet.
    ExpectOutcomes(seen, {"cancelled", "refused", "success"});
  }
}

// A request that the gate parks while the removal that follows sweeps.
TEST(Races, RemovalAgainstTheGate) {
  auto seen = Outcomes(
      [](World *world) {
        OpenClient(world);
        PnpSend(WorldPort(world)->Header.Device, IRP_MN_QUERY_REMOVE_DEVICE);
        Io write;
        PullOutAgainst(world, [&] { StartWrite(world->Client, &write, "x"); });
        return StatusName(FileWait(&write));
      },
      Deep);
  ExpectOutcomes(seen, {"refused"});
}

// Closes come at every moment of a removal, and long after it.
TEST(Races, RemovalAgainstCloses) {
  ExploreWorld([=](World *world) {
    GoNormal(world);
    PullOutAgainst(world, [&] {
      CloseZk(world);
      CloseClient(world);
    });
  });
  ExploreWorld([=](World *world) {
    GoNormal(world, false);
    RemoveAgainst(world, [&] { CloseZk(world); });
  });
}

TEST(Races, RemovalAgainstCommands) {
  auto seen = Outcomes([](World *world) {
    world->Lower.How[IRP_MJ_READ] = Behaviour::Pend;
    GoNormal(world, false);
    Io read;
    StartRead(world->Zk, &read, 64);
    std::string commands;
    RemoveAgainst(world, [&] {
      commands = StatusName(SendCommand(world, COMMAND_LOCK_STREAM));
      commands += "/" + StatusName(SendCommand(world, COMMAND_UNLOCK_STREAM));
    });
    FileWait(&read);
    return commands;
  });
  ExpectOutcomes(seen, {"success/success", "success/refused", "refused/refused"});
}

// What was admitted is completed before the removal has gone through.
TEST(Races, RemovalAgainstACompletion) {
  auto seen = Outcomes([](World *world) {
    EXPECT_EQ(OpenZk(world), STATUS_SUCCESS);
    Io control;
    control.Context = world;
    control.OnDone = [](FileRequest *request, void *context) {
      Must(request->Iosb.Status != STATUS_NOT_SUPPORTED ||
               static_cast<World *>(context)->Node != nullptr,
           "a removal that waits for its requests");
    };
    RemoveAgainst(world, [&] { StartControl(world->Zk, &control, 0); });
    return StatusName(FileWait(&control));
  });
  ExpectOutcomes(seen, {StatusName(STATUS_NOT_SUPPORTED), "refused"});
}

TEST(Races, CancelAgainstRemoval) {
  auto seen = Outcomes([](World *world) {
    GoNormal(world, false);
    Io read;
    StartRead(world->Zk, &read, 64);
    bool called = false;
    RemoveAgainst(world, [&] { called = FileCancel(&read); });
    return StatusName(FileWait(&read)) + (called ? ", called" : "");
  });
  // The port ends the engine's read when it goes, which ZK hears of, even when the cancel routine
  // was called meanwhile.
  ExpectOutcomes(seen, {"cancelled, called", "success", "success, called"});
}

// --- The serializer -------------------------------------------------------------------------

TEST(Races, BothSidesOpenAndCloseAtOnce) {
  ExploreWorld([](World *world) {
    Against(
        [&] {
          EXPECT_EQ(OpenZk(world), STATUS_SUCCESS);
          CloseZk(world);
        },
        [&] {
          EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
          CloseClient(world);
        });
    EXPECT_EQ(WorldPort(world)->OpenCount, 0);
    EXPECT_EQ(WorldPort(world)->StateFlags, 0u);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CREATE), LowerCount(&world->Lower, IRP_MJ_CLOSE));
  });
}

// An orderly removal waits for who has got in, and lets nobody else in: an open that it overtakes
// never reaches the driver.
TEST(Races, AnOpenAgainstAnOrderlyRemoval) {
  for (bool zk : {false, true}) {
    auto seen = Outcomes([=](World *world) {
      NTSTATUS opened = STATUS_PENDING;
      Against([&] { RemovePort(world); },
              [&] {
                opened = zk ? OpenZk(world) : OpenClient(world);
                zk ? CloseZk(world) : CloseClient(world);
              });
      return StatusName(opened);
    });
    ExpectOutcomes(seen, {"success", StatusName(STATUS_NO_SUCH_DEVICE),
                          StatusName(STATUS_OBJECT_NAME_NOT_FOUND)});
  }
}

// --- The hold on the filter device ----------------------------------------------------------

// A side's next handle may be granted while the last one's close is being finished. ZK's keep the
// filter device, each on its own account, until long after the removal.
TEST(Races, ACloseAgainstTheNextOpen) {
  for (bool zk : {false, true}) {
    auto seen = Outcomes(
        [=](World *world) {
          zk ? GoNormal(world) : (void)OpenClient(world);
          HANDLE old = std::exchange(zk ? world->Zk : world->Client, nullptr);
          NTSTATUS status = STATUS_PENDING;
          Against([&] { FileClose(old); },
                  [&] { status = zk ? OpenZk(world) : OpenClient(world); });
          CloseClient(world);
          RemovePort(world, true);
          return StatusName(status);
        },
        zk ? 2 : Deep);
    ExpectOutcomes(seen, {"success", StatusName(STATUS_ACCESS_DENIED)});
  }
}

// A close of ZK's that a query parked, or that comes too late for it, gives its hold back too.
TEST(Races, ZksCloseAgainstQueryAndRemoval) {
  ExploreWorld([](World *world) {
    GoNormal(world, false);
    Against([&] { CloseZk(world); },
            [&] {
              PnpSend(WorldPort(world)->Header.Device, IRP_MN_QUERY_REMOVE_DEVICE);
              ThreadSettle();
              RemovePort(world, true);
            });
  });
}

// The port has long been removed; ZK's handle is the last thing that keeps its record, and may be
// closed as soon as a late request is complete. One of Plug and Play is answered even then.
TEST(Races, ALateRequestAgainstTheLastClose) {
  for (UCHAR major : {IRP_MJ_WRITE, IRP_MJ_PNP}) {
    SCOPED_TRACE(int{major});
    ExploreWorld([=](World *world) {
      GoNormal(world, false);
      PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
      RemovePort(world, true);
      if (world->Zk == nullptr) {
        return;
      }
      OwnPacket late;
      late.Minor = major == IRP_MJ_PNP ? IRP_MN_QUERY_STOP_DEVICE : 0;
      KEVENT complete;
      KeInitializeEvent(&complete, NotificationEvent, FALSE);
      late.AtDone = [&] { KeSetEvent(&complete, IO_NO_INCREMENT, FALSE); };
      Against(
          [&] {
            KeWaitForSingleObject(&complete, Executive, KernelMode, FALSE, nullptr);
            CloseZk(world);
          },
          [&] {
            OwnSend(control, major, &late);
            KeSetEvent(&complete, IO_NO_INCREMENT, FALSE);  // when there was no packet to send
          });
      NTSTATUS refusal = major == IRP_MJ_PNP ? STATUS_DEVICE_BUSY : STATUS_DELETE_PENDING;
      EXPECT_EQ(OwnWait(&late), refusal);
      EXPECT_EQ(DeviceCount(world->Driver), 0u);
    });
  }
}
