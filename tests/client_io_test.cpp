// What the client writes, reads and asks for: in IDLE, in NORMAL, and under the stream lock.
#include <gtest/gtest.h>

#include "driver/event_log.h"
#include "tests/support/world.h"

constexpr ULONG Buffered = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_BUFFERED, 0);
constexpr ULONG Direct = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_OUT_DIRECT, 0);

// Both ways in which a port takes its buffers.
struct ClientIo : testing::TestWithParam<ULONG> {
  void Run(const std::function<void(World *)> &Scenario, WorldOptions Options = {}) {
    Options.Buffering = GetParam();
    RunWorld(Scenario, Options);
  }
};
INSTANTIATE_TEST_SUITE_P(Buffering, ClientIo, testing::Values(DO_BUFFERED_IO, DO_DIRECT_IO));

TEST_P(ClientIo, IdleIsTransparent) {
  for (ULONG dump : {0u, 2u}) {
    Run(
        [](World *world) {
          LowerPort *lower = &world->Lower;
          lower->How[IRP_MJ_READ] = Behaviour::Pend;
          ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
          Io write, read, cancelled;
          EXPECT_EQ(StartWrite(world->Client, &write, "hello"), STATUS_SUCCESS);
          EXPECT_EQ(write.Iosb.Information, 5u);
          EXPECT_EQ(LowerWritten(lower), "hello");
          EXPECT_EQ(StartRead(world->Client, &read, 4096), STATUS_PENDING);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).Length, 4096u);
          // The dump keeps a read counted while it is down.
          bool dumped = WorldPort(world)->Header.PacketDump != 0;
          EXPECT_EQ(WorldPort(world)->RequestCount, dumped ? 2 : 1);
          EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ, STATUS_SUCCESS, "world"));
          EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
          EXPECT_EQ(read.Text(), "world");
          EXPECT_EQ(StartRead(world->Client, &cancelled, 1), STATUS_PENDING);
          EXPECT_TRUE(FileCancel(&cancelled));
          EXPECT_EQ(FileWait(&cancelled), STATUS_CANCELLED);
          lower->How[IRP_MJ_READ] = Behaviour::Queue;
          LowerFeed(lower, "at once");
          EXPECT_EQ(StartRead(world->Client, &read, 4096), STATUS_SUCCESS);
          EXPECT_EQ(read.Text(), "at once");
          EXPECT_EQ(WorldPort(world)->RequestCount, 1);
        },
        {.Values = {{"VORLIXPacketDump", RegistryDword(dump)}}});
  }
}

// The port's own context reaches it with requests that only pass, but not with dumped reads, nor
// with those that are tracked for a cleanup.
TEST_P(ClientIo, ThePortsContextReachesOrdinaryRequests) {
  for (ULONG dump : {0u, 2u}) {
    Run(
        [=](World *world) {
          LowerPort *lower = &world->Lower;
          lower->How[IRP_MJ_READ] = Behaviour::Pend;
          FILE_OBJECT older = {};  // its open came past the filter, to a port without context
          EXPECT_EQ(SendPacket(WorldPort(world)->Header.Device, IRP_MJ_WRITE, 0,
                               [&](PIO_STACK_LOCATION stack) { stack->FileObject = &older; }),
                    STATUS_SUCCESS);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_WRITE).FsContext, nullptr);
          ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
          ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);  // granted: the port never saw this file
          auto withFile = [=](PIO_STACK_LOCATION stack) {
            stack->FileObject = FileObject(world->Client);
          };
          EXPECT_EQ(SendPacket(WorldPort(world)->Header.Device, IRP_MJ_FLUSH_BUFFERS, 0, withFile),
                    STATUS_SUCCESS);
          EXPECT_TRUE(LowerLast(lower, IRP_MJ_FLUSH_BUFFERS).HasFile);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_FLUSH_BUFFERS).FsContext, nullptr);
          Io read, write;
          EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
          EXPECT_TRUE(LowerLast(lower, IRP_MJ_READ).HasFile);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).FsContext,
                    dump != 0 ? nullptr : &lower->OpenContext);
          EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_SUCCESS);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_WRITE).FsContext, &lower->OpenContext);
          EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ));
          FileWait(&read);
        },
        {.Values = {{"VORLIXPacketDump", RegistryDword(dump)}}});
  }
}

TEST_P(ClientIo, NormalWritesGoToThePortAndToZk) {
  Run([](World *world) {
    GoNormal(world);
    Io write;
    EXPECT_EQ(StartWrite(world->Client, &write, "AT\r"), STATUS_SUCCESS);
    EXPECT_EQ(write.Iosb.Information, 3u);
    EXPECT_EQ(LowerWritten(&world->Lower), "AT\r");
    Frame frame = NextFrame(world);
    EXPECT_EQ(frame.Header.Type, static_cast<ULONG>(FRAME_REPORT));
    EXPECT_EQ(frame.Header.Tag, static_cast<ULONG>(TAG_CLIENT));
    EXPECT_EQ(frame.Header.Code, 0u);
    EXPECT_EQ(frame.Payload, "AT\r");
    // ZK sees the bytes even when the port then fails the write.
    world->Lower.Result[IRP_MJ_WRITE] = STATUS_IO_DEVICE_ERROR;
    EXPECT_EQ(StartWrite(world->Client, &write, "lost"), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(NextFrame(world).Payload, "lost");
  });
}

// An empty report is delivered only when nothing else waits for ZK; the write goes down anyway.
TEST_P(ClientIo, EmptyWrites) {
  Run([](World *world) {
    GoNormal(world);
    Io write;
    EXPECT_EQ(StartWrite(world->Client, &write, ""), STATUS_SUCCESS);
    EXPECT_EQ(StartWrite(world->Client, &write, ""), STATUS_SUCCESS);
    EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_SUCCESS);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_WRITE), 3u);
    EXPECT_EQ(NextFrame(world).Header.Length, 24u);
    EXPECT_EQ(NextFrame(world).Payload, "x");
  });
}

// A copy that cannot be made fails the write, and nothing reaches the port.
TEST_P(ClientIo, AFailedCopyFailsTheWrite) {
  Run([](World *world) {
    GoNormal(world);
    Io write;
    for (FaultPlan plan : {FaultPlan{FaultPool, FourCharacters("ZK09"), 1, false},
                           FaultPlan{FaultMapping, 0, 1, false}}) {
      FaultArm(plan);
      NTSTATUS status = StartWrite(world->Client, &write, "x");
      if (FaultDisarm()) {
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(write.Iosb.Information, 0u);
      } else {
        EXPECT_EQ(NextFrame(world).Payload, "x");
      }
    }
    EXPECT_EQ(LowerWritten(&world->Lower).size(), GetParam() == DO_DIRECT_IO ? 0u : 1u);
  });
}

TEST_P(ClientIo, NormalReadsAreServedFromProxyReads) {
  struct LimitCase {
    bool Given;
    ULONG Limit;
    size_t Asked;
    ULONG Issued;
  };
  for (LimitCase c : {LimitCase{false, 0, 4096, 1024}, {true, 0, 4096, 4096}, {true, 16, 5, 5}}) {
    WorldOptions options;
    if (c.Given) {
      options.Values["VORLIXProxyReadLimit"] = RegistryDword(c.Limit);
    }
    Run(
        [=](World *world) {
          LowerPort *lower = &world->Lower;
          GoNormal(world);
          Io read;
          EXPECT_EQ(StartRead(world->Client, &read, c.Asked), STATUS_PENDING);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).Length, c.Issued);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).Minor, 0);
          EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).FsContext, &lower->OpenContext);
          ULONG buffered =
              GetParam() == DO_BUFFERED_IO ? IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER : 0;
          EXPECT_EQ(WorldPort(world)->Engine.ReadIrp->Flags,
                    IRP_DEFER_IO_COMPLETION | IRP_READ_OPERATION | IRP_INPUT_OPERATION | buffered);
          LowerFeed(lower, "12345");
          EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
          EXPECT_EQ(read.Text(), "12345");
          Frame frame = NextFrame(world);
          EXPECT_EQ(frame.Header.Tag, static_cast<ULONG>(TAG_LOWER));
          EXPECT_EQ(frame.Payload, "12345");
          EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), 1u);
          // As of a port that gives no context to an open.
          StoreLowerOpen(WorldPort(world), lower->Device, nullptr);
          EXPECT_EQ(StartRead(world->Client, &read, c.Asked), STATUS_PENDING);
          EXPECT_FALSE(LowerLast(lower, IRP_MJ_READ).HasFile);
          LowerFeed(lower, "x");
          EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
        },
        options);
  }
}

TEST_P(ClientIo, AZeroLengthReadEndsAtOnce) {
  Run([](World *world) {
    GoNormal(world);
    Io read;
    EXPECT_EQ(StartRead(world->Client, &read, 0), STATUS_SUCCESS);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 0u);
    EXPECT_EQ(StartRead(world->Zk, &read, 0), STATUS_SUCCESS);
  });
}

// The port's failure reaches the client in its read and ZK in the frame's code; a stale count of a
// failed read is not believed.
TEST_P(ClientIo, AFailedPortReadReachesBothSides) {
  Run([](World *world) {
    world->Lower.How[IRP_MJ_READ] = Behaviour::Pend;
    GoNormal(world);
    Io read;
    for (const std::string bytes : {"ab", "12345678"}) {
      EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
      EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_READ, STATUS_IO_TIMEOUT, bytes));
      EXPECT_EQ(FileWait(&read), STATUS_IO_TIMEOUT);
      EXPECT_EQ(read.Iosb.Information, bytes.size());
      Frame frame = NextFrame(world);
      EXPECT_EQ(frame.Header.Code, static_cast<ULONG>(STATUS_IO_TIMEOUT));
      EXPECT_EQ(frame.Payload, bytes);
      world->Lower.ClaimedRead = 100'000;
    }
    EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);  // nothing is left over
    CloseClient(world);
  });
}

// A proxy read that fails inside the call fails the read that asked for it, and its element the
// next read, which does not reach the port.
TEST_P(ClientIo, AnInlineFailureIsReportedTwice) {
  Run([](World *world) {
    world->Lower.How[IRP_MJ_READ] = Behaviour::Inline;
    world->Lower.Result[IRP_MJ_READ] = STATUS_IO_DEVICE_ERROR;
    GoNormal(world);
    Io read;
    EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 1u);
  });
}

// Inline ports: each block is answered on the stack of its read, and the next read goes out through
// the call-down thread.
TEST_P(ClientIo, ManyReadsOfAnInlinePortStayFlat) {
  Run([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world);
    constexpr int Count = 500;
    std::vector<Io> reads(Count);
    for (Io &read : reads) {
      StartRead(world->Client, &read, 2);
    }
    std::string expected;
    for (int i = 0; i < Count; ++i) {
      expected += static_cast<char>('a' + i % 26);
      expected += static_cast<char>('A' + i % 26);
    }
    LowerFeed(lower, expected);
    std::string got;
    for (Io &read : reads) {
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
      got += read.Text();
    }
    EXPECT_EQ(got, expected);
    std::string seen;
    for (int i = 0; i < Count; ++i) {
      seen += NextFrame(world).Payload;
    }
    EXPECT_EQ(seen, expected);
  });
}

TEST_P(ClientIo, TheLockParksAndUnlockReleasesInOrder) {
  Run([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world);
    ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM, 1), STATUS_SUCCESS);
    Io writes[3], control, cancelled, read;
    EXPECT_EQ(StartWrite(world->Client, &writes[0], "1"), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &writes[1], "2"), STATUS_PENDING);
    control.OutputBytes = 4;
    EXPECT_EQ(StartControl(world->Client, &control, Buffered, "in"), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &cancelled, "no"), STATUS_PENDING);
    EXPECT_EQ(StartRead(world->Client, &read, 10), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &writes[2], "3"), STATUS_PENDING);
    for (ULONG method : {METHOD_IN_DIRECT, METHOD_OUT_DIRECT, METHOD_NEITHER}) {
      Io other;
      EXPECT_EQ(
          StartControl(world->Client, &other, CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, method, 0)),
          STATUS_NOT_SUPPORTED);
    }
    EXPECT_TRUE(FileCancel(&cancelled));
    EXPECT_EQ(FileWait(&cancelled), STATUS_CANCELLED);
    EXPECT_EQ(cancelled.Iosb.Information, 0u);
    EXPECT_EQ(LowerWritten(lower), "");
    // ZK's own bytes still reach the port.
    Io data;
    EXPECT_EQ(StartWrite(world->Zk, &data, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "zk")),
              STATUS_SUCCESS);
    EXPECT_EQ(data.Iosb.Information, 26u);
    EXPECT_EQ(LowerWritten(lower), "zk");
    // So do requests that the lock does not cover.
    EXPECT_EQ(SendPacket(WorldPort(world)->Header.Device, IRP_MJ_FLUSH_BUFFERS, 0, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(
        SendPacket(WorldPort(world)->Header.Device, IRP_MJ_INTERNAL_DEVICE_CONTROL, 0, nullptr),
        STATUS_SUCCESS);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_INTERNAL_DEVICE_CONTROL), 1u);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_DEVICE_CONTROL), 0u);
    size_t before = lower->Seen.size();
    ASSERT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM, 2), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(lower), "zk123");
    EXPECT_EQ(FileWait(&control), STATUS_SUCCESS);
    std::vector<UCHAR> majors;
    for (size_t i = before; i < lower->Seen.size(); ++i) {
      majors.push_back(lower->Seen[i].Major);
    }
    // The read's proxy read comes in its turn, and once more when the lock's proxy state ends.
    EXPECT_EQ(majors, (std::vector<UCHAR>{IRP_MJ_WRITE, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL,
                                          IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_READ}));
    LowerFeed(lower, "read");
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    EXPECT_EQ(read.Text(), "read");
    EXPECT_EQ(NextFrame(world).Header.Tag, 1u);
    EXPECT_EQ(NextFrame(world).Header.Tag, 2u);    // the reply comes before what it releases
    for (const char *written : {"1", "2", "3"}) {  // and no copy of the control
      EXPECT_EQ(NextFrame(world).Payload, written);
    }
  });
}

// Who cancels may take the cancel routine first and the cancel spin lock then. In between the
// request is that one's, though the lock ends and releases what is parked behind it.
TEST_P(ClientIo, ACancelThatHasTakenItsRoutine) {
  Run([](World *world) {
    GoNormal(world);
    ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
    Io taken, behind;
    ASSERT_EQ(StartWrite(world->Client, &taken, "no"), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &behind, "yes"), STATUS_PENDING);
    PDRIVER_CANCEL routine = IoSetCancelRoutine(taken.Irp, nullptr);
    ASSERT_NE(routine, nullptr);
    EXPECT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
    ThreadSettle();
    EXPECT_TRUE(FileDone(&behind));
    EXPECT_FALSE(FileDone(&taken));
    IoAcquireCancelSpinLock(&taken.Irp->CancelIrql);
    taken.Irp->Cancel = TRUE;
    routine(WorldPort(world)->Header.Device, taken.Irp);
    EXPECT_EQ(FileWait(&taken), STATUS_CANCELLED);
    EXPECT_EQ(LowerWritten(&world->Lower), "yes");
    EXPECT_EQ(WorldPort(world)->RequestCount, 1);
  });
}

// REDIRECT is defined though nothing sets it: writes as in IDLE, reads and ZK's frames as in
// NORMAL. A mode that there is not serves nobody.
TEST_P(ClientIo, ModesThatNothingSets) {
  Run([](World *world) {
    GoNormal(world);
    RunningAsSerializerItem();
    for (bool known : {true, false}) {
      StoreMode(WorldPort(world), known ? ULONG{MODE_REDIRECT} : 4u);
      Io write, read, data;
      EXPECT_EQ(StartWrite(world->Client, &write, "w"),
                known ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
      EXPECT_EQ(StartRead(world->Client, &read, 8), known ? STATUS_PENDING : STATUS_UNSUCCESSFUL);
      EXPECT_EQ(StartWrite(world->Zk, &data, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "d")),
                known ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER);
      EXPECT_EQ(write.Iosb.Information, known ? 1u : 0u);
      EXPECT_EQ(read.Iosb.Information, 0u);
      EXPECT_EQ(LowerWritten(&world->Lower), "wd");
      EXPECT_EQ(WorldPort(world)->ClientPipe.CurrentReader != nullptr, known);
      EXPECT_EQ(WorldPort(world)->ZkPipe.CurrentWriter, nullptr);
      EXPECT_EQ(FileCancel(&read), known);
    }
    StoreMode(WorldPort(world), MODE_NORMAL);
  });
}

// A request that comes cancelled is not parked, and a control that would be refused says so too.
TEST_P(ClientIo, TheLockRefusesWhatIsCancelled) {
  Run([](World *world) {
    GoNormal(world);
    ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
    PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
    const std::pair<UCHAR, ULONG> cases[] = {{IRP_MJ_READ, 0},
                                             {IRP_MJ_WRITE, 0},
                                             {IRP_MJ_DEVICE_CONTROL, Buffered},
                                             {IRP_MJ_DEVICE_CONTROL, Direct}};
    for (const auto &[major, code] : cases) {
      OwnPacket packet;
      packet.Cancelled = true;
      packet.ControlCode = code;
      EXPECT_EQ(OwnSend(filter, major, &packet), STATUS_CANCELLED);
      EXPECT_EQ(OwnWait(&packet), STATUS_CANCELLED);
      EXPECT_EQ(packet.Iosb.Information, 0u);
      EXPECT_EQ(LowerCount(&world->Lower, major), 0u);
      EXPECT_EQ(WorldPort(world)->RequestCount, 1);
    }
  });
}

// In IDLE the lock is reported as an invalid combination, and parks all the same. What it parked
// goes on in the mode in which the lock ends.
TEST_P(ClientIo, ParkedRequestsFollowTheModeAtTheirRelease) {
  Run([](World *world) {
    LowerPort *lower = &world->Lower;
    ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    Io write, read;
    for (bool again : {false, true}) {
      ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM, 1), STATUS_SUCCESS);
      EXPECT_EQ(EventLogCount(EVENT_BAD_STATE_FLAGS), again ? 2u : 1u);
      EXPECT_EQ(StartWrite(world->Client, &write, "w"), STATUS_PENDING);
      if (!again) {
        ASSERT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM, 0), STATUS_SUCCESS);
        EXPECT_EQ(FileWait(&write), STATUS_SUCCESS);
      }
    }
    EXPECT_EQ(StartRead(world->Client, &read, 5000), STATUS_PENDING);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_MODE, 2, MODE_NORMAL), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(lower), "w");
    ASSERT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM, 3), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(lower), "ww");
    EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).Length, 1024u);  // the engine's, not the client's own
    for (ULONG tag : {1u, 0u, 1u, 2u, 3u}) {
      EXPECT_EQ(NextFrame(world).Header.Tag, tag);
    }
    EXPECT_EQ(NextFrame(world).Payload, "w");
    // The release sent the read under the lock's proxy state, whose end cancelled it once.
    EXPECT_EQ(NextFrame(world).Header.Code, static_cast<ULONG>(STATUS_CANCELLED));
    LowerFeed(lower, "in");
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).Payload, "in");
  });
}

// ZK closing under the lock: parked requests go on while the mode is still NORMAL, and the reads
// among them end up at the port.
TEST_P(ClientIo, ZksCloseReleasesAndHandsDown) {
  Run([](World *world) {
    LowerPort *lower = &world->Lower;
    lower->How[IRP_MJ_READ] = Behaviour::Pend;
    GoNormal(world);
    Io waiting[2], parked, write;
    EXPECT_EQ(StartRead(world->Client, &waiting[0], 10), STATUS_PENDING);
    EXPECT_EQ(StartRead(world->Client, &waiting[1], 20), STATUS_PENDING);
    ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
    EXPECT_EQ(StartRead(world->Client, &parked, 30), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &write, "w"), STATUS_PENDING);
    EXPECT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 3), STATUS_SUCCESS);
    CloseZk(world);
    EXPECT_EQ(WorldPort(world)->MessageLevel, 0u);
    EXPECT_EQ(WorldPort(world)->Mode, static_cast<ULONG>(MODE_IDLE));
    EXPECT_EQ(WorldPort(world)->StateFlags, static_cast<ULONG>(PSF_CLIENT_OPEN));
    EXPECT_EQ(FileWait(&write), STATUS_SUCCESS);
    ThreadSettle();
    EXPECT_EQ(LowerHeldCount(lower), 3u);  // nothing of the engine's is left among them
    for (Io *read : {&waiting[0], &waiting[1], &parked}) {
      EXPECT_TRUE(LowerFinish(lower, IRP_MJ_READ, STATUS_SUCCESS, "port"));
      EXPECT_EQ(FileWait(read), STATUS_SUCCESS);
      EXPECT_EQ(read->Text(), "port");
    }
  });
}

// Requests that the filter only passes on are cancelled by the cleanup of their handle, also those
// that the port has no cancel routine for yet: it sees the flag.
TEST_P(ClientIo, CleanupCancelsTrackedRequests) {
  for (Behaviour how : {Behaviour::Pend, Behaviour::Deaf}) {
    Run([=](World *world) {
      LowerPort *lower = &world->Lower;
      lower->How[IRP_MJ_FLUSH_BUFFERS] = how;
      ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
      OwnPacket flushes[2];
      for (OwnPacket &flush : flushes) {
        OwnSend(WorldPort(world)->Header.Device, IRP_MJ_FLUSH_BUFFERS, &flush);
        if (flush.Irp != nullptr) {
          flush.Irp->CancelIrql = DISPATCH_LEVEL;  // as an earlier cancel left it
        }
      }
      EXPECT_EQ(LowerHeldCount(lower), 2u);
      CloseClient(world);
      bool held = how == Behaviour::Deaf;
      EXPECT_EQ(LowerHeldCount(lower), held ? 2u : 0u);
      for (OwnPacket &flush : flushes) {
        EXPECT_TRUE(flush.Irp == nullptr || flush.Irp->Cancel);
        EXPECT_EQ(LowerFinish(lower, IRP_MJ_FLUSH_BUFFERS), held);
        EXPECT_EQ(OwnWait(&flush), held ? STATUS_SUCCESS : STATUS_CANCELLED);
      }
    });
  }
}

// Before the first start they go down uncounted; after it they are tracked, for which they need
// memory.
TEST_P(ClientIo, TrackingBeginsWithTheFirstStart) {
  Run(
      [](World *world) {
        PortExtension *port = WorldPort(world);
        world->Lower.How[IRP_MJ_FLUSH_BUFFERS] = Behaviour::Pend;
        for (bool started : {false, true}) {
          if (started) {
            ASSERT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
          }
          OwnPacket flush;
          EXPECT_EQ(OwnSend(port->Header.Device, IRP_MJ_FLUSH_BUFFERS, &flush), STATUS_PENDING);
          EXPECT_EQ(port->RequestCount, started ? 2 : 1);
          EXPECT_EQ(IsListEmpty(&port->Header.PassThroughList), !started);
          EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_FLUSH_BUFFERS));
          EXPECT_EQ(OwnWait(&flush), STATUS_SUCCESS);
          EXPECT_TRUE(IsListEmpty(&port->Header.PassThroughList));
        }
        OwnPacket flush;
        FaultArm({FaultPool, FourCharacters("ZK0A"), 1, false});
        EXPECT_EQ(OwnSend(port->Header.Device, IRP_MJ_FLUSH_BUFFERS, &flush),
                  STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(FaultDisarm());
        EXPECT_EQ(OwnWait(&flush), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(flush.Iosb.Information, 0u);
        EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_FLUSH_BUFFERS), 2u);
        EXPECT_EQ(port->RequestCount, 1);
      },
      {.Start = false});
}
