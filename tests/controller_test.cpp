// What crosses the control device: frames and their checks, commands and replies, data frames,
// messages, and ZK's reads.
#include <gtest/gtest.h>

#include "controller/messages.h"
#include "controller/port_mode.h"
#include "driver/event_log.h"
#include "platform/model/irql.h"
#include "tests/support/world.h"

struct Controller : testing::TestWithParam<ULONG> {
  void Run(const std::function<void(World *)> &Scenario) {
    RunWorld(Scenario, {.Buffering = GetParam()});
  }
};

// Refused, reported each for itself, and nothing of it written.
static void ExpectRefused(World *World, const std::vector<std::string> &Frames, ULONG Event) {
  for (size_t i = 0; i < Frames.size(); ++i) {
    Io write;
    EXPECT_EQ(StartWrite(World->Zk, &write, Frames[i]), STATUS_INVALID_PARAMETER) << i;
    EXPECT_EQ(write.Iosb.Information, 0u);
    EXPECT_EQ(EventLogCount(Event), i + 1);
    EXPECT_EQ(EventLogEntries().back().FinalStatus, STATUS_INVALID_PARAMETER);
  }
}

INSTANTIATE_TEST_SUITE_P(Buffering, Controller, testing::Values(DO_BUFFERED_IO, DO_DIRECT_IO));

static std::string Damaged(size_t Length, uint32_t LengthField, uint32_t Type) {
  FrameHeader header = {};
  header.Length = LengthField;
  header.Type = Type;
  std::string bytes(reinterpret_cast<const char *>(&header), sizeof(header));
  bytes.resize(Length);
  return bytes;
}

TEST_P(Controller, BadFramesAreRefusedAndReported) {
  const std::vector<std::string> frames = {
      "",
      "x",
      Damaged(23, 23, FRAME_DATA),
      Damaged(100, 60, FRAME_DATA),
      Damaged(100, 101, FRAME_CONTROL),
      Damaged(24, 24, FRAME_REPORT),
      Damaged(24, 24, FRAME_CONTROL_REPLY),
      Damaged(24, 24, 0xFFFFFFFF),
  };
  Run([&](World *world) {
    GoNormal(world);
    ExpectRefused(world, frames, EVENT_BAD_FRAME);
    EXPECT_EQ(EventLogEntries().back().Device, WorldPort(world)->ControlDevice);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_WRITE), 0u);
    EXPECT_EQ(WorldPort(world)->RequestCount, 1);
  });
}

TEST_P(Controller, CommandsAreAnsweredWithTheirTag) {
  Run([](World *world) {
    GoNormal(world);
    ULONG_PTR information = 0;
    LARGE_INTEGER before, after;
    KeQuerySystemTime(&before);
    for (ULONG tag : {0u, 7u, 0xFFFFFFFFu}) {
      EXPECT_EQ(SendCommand(world, COMMAND_GET_MODE, tag, 0, &information), STATUS_SUCCESS);
      EXPECT_EQ(information, 24u);
      Frame reply = NextFrame(world);
      EXPECT_EQ(reply.Header.Type, static_cast<ULONG>(FRAME_CONTROL_REPLY));
      EXPECT_EQ(reply.Header.Length, 28u);
      EXPECT_EQ(reply.Header.Tag, tag);
      EXPECT_EQ(reply.Header.Code, 0u);
      KeQuerySystemTime(&after);
      EXPECT_GE(reply.Header.Timestamp, static_cast<ULONGLONG>(before.QuadPart));
      EXPECT_LE(reply.Header.Timestamp, static_cast<ULONGLONG>(after.QuadPart));
      EXPECT_EQ(reply.Value(), static_cast<ULONG>(MODE_NORMAL));
    }
    EXPECT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 1, 3, &information), STATUS_SUCCESS);
    EXPECT_EQ(information, 28u);
    EXPECT_EQ(NextFrame(world).Value(), 0u);
    EXPECT_EQ(SendCommand(world, COMMAND_GET_LEVEL, 2), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).Value(), 3u);
  });
}

TEST_P(Controller, UnknownAndShortCommandsGetNoReply) {
  Run([](World *world) {
    GoNormal(world);
    std::vector<std::string> frames;
    for (ULONG code : {0u, 5u, 8u, 11u, 0xFFFFFFFFu}) {
      frames.push_back(MakeFrame(FRAME_CONTROL, 0, code, MakeArgument(0)));
    }
    for (size_t payload = 0; payload < 4; ++payload) {
      frames.push_back(MakeFrame(FRAME_CONTROL, 0, COMMAND_SET_MODE, std::string(payload, 1)));
      frames.push_back(MakeFrame(FRAME_CONTROL, 0, COMMAND_SET_LEVEL, std::string(payload, 1)));
    }
    ExpectRefused(world, frames, EVENT_BAD_COMMAND);
    Io read;
    EXPECT_EQ(StartRead(world->Zk, &read, 100), STATUS_PENDING);
    FileCancel(&read);
    EXPECT_EQ(FileWait(&read), STATUS_CANCELLED);
    EXPECT_EQ(WorldPort(world)->MessageLevel, 0u);
  });
}

// Refusals travel in the reply; the write itself succeeds.
TEST_P(Controller, RefusedModes) {
  Run([](World *world) {
    GoNormal(world);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 5), STATUS_SUCCESS);
    NextFrame(world);
    struct {
      ULONG Mode;
      std::string Name, Status;
      NTSTATUS Code;
      size_t Events;
    } const cases[] = {
        {MODE_REDIRECT, "REDIRECT", "0x3 status 0xc00000bb", STATUS_NOT_SUPPORTED, 0},
        {7, "ILLEGAL MODE", "0x7 status 0xc000000d", STATUS_INVALID_PARAMETER, 1},
    };
    for (const auto &c : cases) {
      ULONG_PTR information = 0;
      EXPECT_EQ(SendCommand(world, COMMAND_SET_MODE, 1, c.Mode, &information), STATUS_SUCCESS);
      EXPECT_EQ(information, 28u);
      EXPECT_EQ(NextFrame(world).MessageText(),
                "ZK setmode " + c.Name + " on \\DosDevices\\VORLIX_COM3\n");
      EXPECT_EQ(NextFrame(world).MessageText(), "Error setting mode of " + c.Status);
      EXPECT_EQ(NextFrame(world).Header.Code, static_cast<ULONG>(c.Code));
      EXPECT_EQ(EventLogCount(EVENT_BAD_MODE), c.Events);
    }
    EXPECT_EQ(WorldPort(world)->Mode, static_cast<ULONG>(MODE_NORMAL));
  });
}

// In IDLE ZK's reads fail; what it is owed waits for NORMAL.
TEST_P(Controller, RepliesWaitForNormal) {
  Run([](World *world) {
    ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
    ASSERT_EQ(SendCommand(world, COMMAND_GET_MODE, 11), STATUS_SUCCESS);
    Io read;
    EXPECT_EQ(StartRead(world->Zk, &read, 100), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(StartRead(world->Zk, &read, 0), STATUS_INVALID_DEVICE_STATE);
    EXPECT_EQ(read.Iosb.Information, 0u);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_MODE, 12, MODE_NORMAL), STATUS_SUCCESS);
    Frame reply = NextFrame(world);
    EXPECT_EQ(reply.Header.Tag, 11u);
    EXPECT_EQ(reply.Value(), static_cast<ULONG>(MODE_IDLE));
    EXPECT_EQ(NextFrame(world).Header.Tag, 12u);
  });
}

TEST_P(Controller, ReadsOfEverySize) {
  Run([](World *world) {
    GoNormal(world);
    Io write, read;
    EXPECT_EQ(StartWrite(world->Client, &write, std::string(16, 'x')), STATUS_SUCCESS);
    EXPECT_EQ(StartRead(world->Zk, &read, 3), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(read.Iosb.Information, 0u);
    for (size_t room : {4u, 39u}) {
      EXPECT_EQ(StartRead(world->Zk, &read, room), STATUS_BUFFER_OVERFLOW);
      EXPECT_EQ(read.Text(), MakeArgument(40));
    }
    EXPECT_EQ(NextFrame(world, 40).Payload, std::string(16, 'x'));
    // A read too small that was there first is used up; the frame stays for the next.
    EXPECT_EQ(StartRead(world->Zk, &read, 2), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &write, "y"), STATUS_SUCCESS);
    EXPECT_EQ(FileWait(&read), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(NextFrame(world).Payload, "y");
  });
}

TEST_P(Controller, DataFramesReachThePort) {
  Run([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world);
    Io write;
    EXPECT_EQ(
        StartWrite(world->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 99, std::string(1000, 'd'))),
        STATUS_SUCCESS);
    EXPECT_EQ(write.Iosb.Information, 1024u);
    EXPECT_EQ(LowerWritten(lower), std::string(1000, 'd'));
    // An empty one ends here; another sink takes nothing.
    EXPECT_EQ(StartWrite(world->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 0)), STATUS_SUCCESS);
    EXPECT_EQ(write.Iosb.Information, 24u);
    for (ULONG tag : {0u, 2u, 4u}) {
      EXPECT_EQ(StartWrite(world->Zk, &write, MakeFrame(FRAME_DATA, tag, 0, "x")), STATUS_SUCCESS);
      EXPECT_EQ(write.Iosb.Information, 0u);
    }
    EXPECT_EQ(LowerCount(lower, IRP_MJ_WRITE), 1u);
    // Pended and failed below: the request comes back as ZK sent it (the model compares).
    lower->How[IRP_MJ_WRITE] = Behaviour::Pend;
    ASSERT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 2), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).Header.Code, 0u);
    EXPECT_EQ(StartWrite(world->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "x")),
              STATUS_PENDING);
    EXPECT_TRUE(LowerFinish(lower, IRP_MJ_WRITE, STATUS_IO_DEVICE_ERROR));
    EXPECT_EQ(FileWait(&write), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(NextFrame(world).MessageText(),
              "Error writing buffer to lower sink status 0xc0000185");
    EXPECT_EQ(StartWrite(world->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "y")),
              STATUS_PENDING);
    EXPECT_TRUE(FileCancel(&write));
    EXPECT_EQ(FileWait(&write), STATUS_CANCELLED);
    EXPECT_EQ(NextFrame(world).MessageText(),
              "Error writing buffer to lower sink status 0xc0000120");
    EXPECT_EQ(WorldPort(world)->RequestCount, 1);
  });
}

TEST_P(Controller, DataFramesAreRefusedInIdle) {
  Run([](World *world) {
    ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 1), STATUS_SUCCESS);
    Io write;
    EXPECT_EQ(StartWrite(world->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "x")),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_WRITE), 0u);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL), STATUS_SUCCESS);
    NextFrame(world);
    Frame message = NextFrame(world);
    EXPECT_EQ(message.Header.Tag, static_cast<ULONG>(TAG_DRIVER));
    EXPECT_EQ(message.Value(), 1u);
    EXPECT_EQ(message.MessageText(), "Cannot write to sinks in idle mode");
  });
}

TEST_P(Controller, MessagesByLevel) {
  Run([](World *world) {
    GoNormal(world);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 5), STATUS_SUCCESS);
    NextFrame(world);
    ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM, 3), STATUS_SUCCESS);
    Frame message = NextFrame(world);
    EXPECT_EQ(message.Value(), 5u);
    EXPECT_EQ(message.MessageText(), "ZK lockstream on \\DosDevices\\VORLIX_COM3\n");
    EXPECT_EQ(NextFrame(world).Header.Tag, 3u);
    ASSERT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).MessageText(), "ZK unlockstream on \\DosDevices\\VORLIX_COM3\n");
    NextFrame(world);
    for (KIRQL level : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
      OwnPacket write;
      write.Bytes = "w";
      KIRQL irql = IrqlRaise(level);
      OwnSend(WorldPort(world)->Header.Device, IRP_MJ_WRITE, &write);
      IrqlLower(irql);
      EXPECT_EQ(OwnWait(&write), STATUS_SUCCESS);
      EXPECT_EQ(NextFrame(world).MessageText(), "Client write to \\DosDevices\\VORLIX_COM3\n");
      EXPECT_EQ(NextFrame(world).Payload, "w");
    }
    ASSERT_EQ(SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).MessageText(), "ZK setmode NORMAL on \\DosDevices\\VORLIX_COM3\n");
    NextFrame(world);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 4), STATUS_SUCCESS);
    NextFrame(world);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_MODE, 0, 9), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).MessageText(), "Error setting mode of 0x9 status 0xc000000d");
  });
}

TEST(PortMode, TheSameModeAgainDisturbsNoRead) {
  RunWorld([](World *world) {
    GoNormal(world);
    Io read;
    StartRead(world->Client, &read, 4);
    size_t seen = world->Lower.Seen.size();
    ASSERT_EQ(SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL), STATUS_SUCCESS);
    NextFrame(world);
    EXPECT_EQ(world->Lower.Seen.size(), seen);
    LowerFeed(&world->Lower, "read");
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    EXPECT_EQ(read.Text(), "read");
  });
}

// The longest text is 1,023 characters; a longer one is not sent at all.
TEST(Messages, LengthBound) {
  RunWorld([](World *world) {
    GoNormal(world);
    ASSERT_EQ(SendCommand(world, COMMAND_SET_LEVEL, 0, 1), STATUS_SUCCESS);
    NextFrame(world);
    PDEVICE_OBJECT device = WorldPort(world)->ControlDevice;
    std::u16string longest(1023, u'm');
    auto text = [](const std::u16string &Text) { return reinterpret_cast<PCWSTR>(Text.c_str()); };
    EXPECT_EQ(SendZkMessage(device, MESSAGE_ERROR, L"%ws", text(longest)), STATUS_SUCCESS);
    Frame frame = NextFrame(world);
    EXPECT_EQ(frame.Header.Type, static_cast<ULONG>(FRAME_REPORT));
    EXPECT_EQ(frame.Header.Length, 2076u);
    EXPECT_EQ(frame.MessageText(), std::string(1023, 'm'));
    EXPECT_EQ(SendZkMessage(device, MESSAGE_ERROR, L"%ws", text(longest + u"m")),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(SendZkMessage(device, MESSAGE_ERROR, L"%ws", nullptr), STATUS_SUCCESS);
    EXPECT_EQ(NextFrame(world).MessageText(), "(null)");
    Io waiting;
    StartRead(world->Zk, &waiting, 64);
    EXPECT_EQ(SendZkMessage(device, MESSAGE_ERROR, L"soon"), STATUS_SUCCESS);
    EXPECT_EQ(DecodeFrame(waiting).MessageText(), "soon");
    for (ULONG tag : {FourCharacters("ZK0F"), FourCharacters("ZK10")}) {
      FaultArm({FaultPool, tag, 1, false});
      EXPECT_EQ(SendZkMessage(device, MESSAGE_ERROR, L"lost"), STATUS_INSUFFICIENT_RESOURCES);
      EXPECT_TRUE(FaultDisarm());
    }
  });
}

// With only ZK open its reads drive the port; a client takes over and gives back.
TEST_P(Controller, ZkReadsThePortWhileNoClientIsThere) {
  Run([](World *world) {
    LowerPort *lower = &world->Lower;
    GoNormal(world, false);
    Io read, second;
    EXPECT_EQ(StartRead(world->Zk, &read, 200), STATUS_PENDING);
    EXPECT_EQ(LowerLast(lower, IRP_MJ_READ).Length, 200u);
    LowerFeed(lower, "0123456789");
    EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
    Frame frame = DecodeFrame(read);
    EXPECT_EQ(frame.Header.Length, 34u);
    EXPECT_EQ(frame.Header.Tag, static_cast<ULONG>(TAG_LOWER));
    // With a client there, ZK's read sends nothing by itself.
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    size_t reads = LowerCount(lower, IRP_MJ_READ);
    EXPECT_EQ(StartRead(world->Zk, &second, 200), STATUS_PENDING);
    ThreadSettle();
    EXPECT_EQ(LowerCount(lower, IRP_MJ_READ), reads);
    // Under the lock it does again.
    ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
    EXPECT_EQ(DecodeFrame(second).Header.Type, static_cast<ULONG>(FRAME_CONTROL_REPLY));
    EXPECT_EQ(StartRead(world->Zk, &second, 200), STATUS_PENDING);
    LowerFeed(lower, "locked");
    EXPECT_EQ(FileWait(&second), STATUS_SUCCESS);
    EXPECT_EQ(DecodeFrame(second).Payload, "locked");
  });
}

// Who has the port open, the mode and the lock decide for whom the engine reads.
TEST(PortMode, ProxyStateFollowsTheFlags) {
  RunWorld([](World *world) {
    PortExtension *port = WorldPort(world);
    struct Step {
      void (*Do)(World *World);
      ULONG Flags, Proxy;
    };
    const Step steps[] = {
        {[](World *) {}, 0, PROXY_OFF},
        {[](World *w) { OpenClient(w); }, 8, PROXY_OFF},
        {[](World *w) { OpenZk(w); }, 12, PROXY_OFF},
        {[](World *w) { SendCommand(w, COMMAND_SET_MODE, 0, MODE_NORMAL); }, 13, PROXY_FOR_CLIENT},
        {[](World *w) { SendCommand(w, COMMAND_LOCK_STREAM); }, 29, PROXY_FOR_ZK},
        {[](World *w) { CloseClient(w); }, 21, PROXY_FOR_ZK},
        {[](World *w) { OpenClient(w); }, 29, PROXY_FOR_ZK},
        {[](World *w) { SendCommand(w, COMMAND_UNLOCK_STREAM); }, 13, PROXY_FOR_CLIENT},
        {[](World *w) { CloseClient(w); }, 5, PROXY_FOR_ZK},
        {[](World *w) { OpenClient(w); }, 13, PROXY_FOR_CLIENT},
        {[](World *w) { CloseClient(w); }, 5, PROXY_FOR_ZK},
        {[](World *w) { SendCommand(w, COMMAND_SET_MODE, 0, MODE_IDLE); }, 4, PROXY_OFF},
        {[](World *w) { CloseZk(w); }, 0, PROXY_OFF},
        {[](World *w) { GoNormal(w, false); }, 5, PROXY_FOR_ZK},
        {[](World *w) { SendCommand(w, COMMAND_LOCK_STREAM); }, 21, PROXY_FOR_ZK},
        {[](World *w) { CloseZk(w); }, 0, PROXY_OFF},
    };
    for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
      steps[i].Do(world);
      EXPECT_EQ(port->StateFlags, steps[i].Flags) << i;
      EXPECT_EQ(port->ProxyState, steps[i].Proxy) << i;
    }
    EXPECT_EQ(EventLogCount(EVENT_BAD_STATE_FLAGS), 0u);
    // No operation sets REDIRECT, which reads for nobody; whatever else is left is refused.
    RunningAsSerializerItem();
    for (ULONG flags = 0, refused = 0; flags < 32; ++flags) {
      if (SetPortFlags(port->ControlDevice, flags) != STATUS_SUCCESS) {
        EXPECT_EQ(EventLogCount(EVENT_BAD_STATE_FLAGS), ++refused);
      } else if ((flags & PSF_REDIRECT) != 0) {
        EXPECT_TRUE(flags == 6 || flags == 14) << flags;
        EXPECT_EQ(port->ProxyState, static_cast<ULONG>(PROXY_OFF));
      }
    }
    EXPECT_EQ(EventLogCount(EVENT_BAD_STATE_FLAGS), 22u);
    // From a state that there is not, nothing leads anywhere.
    StoreProxyState(port, 9);
    EXPECT_EQ(SetPortFlags(port->ControlDevice, 0), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(port->ProxyState, 9u);
    StoreProxyState(port, PROXY_FOR_ZK);
    EXPECT_EQ(SetPortFlags(port->ControlDevice, 0), STATUS_SUCCESS);
  });
}

// A lock is reported for the control device, a mode for the filter device. A mode change that the
// lock refuses changes nothing.
TEST(PortMode, ReportsNameTheirDevice) {
  RunWorld([](World *world) {
    PortExtension *port = WorldPort(world);
    ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
    auto expectLast = [](ULONG code, PDEVICE_OBJECT device, NTSTATUS status) {
      ASSERT_FALSE(EventLogEntries().empty());
      EventLogEntry entry = EventLogEntries().back();
      EXPECT_EQ(entry.Code, code);
      EXPECT_EQ(entry.Device, device);
      EXPECT_EQ(entry.FinalStatus, status);
      EXPECT_EQ(entry.Strings, (std::vector<std::string>{"\\DosDevices\\VORLIX_COM3"}));
    };
    SendCommand(world, COMMAND_LOCK_STREAM);  // in IDLE
    expectLast(EVENT_BAD_STATE_FLAGS, port->ControlDevice, STATUS_UNSUCCESSFUL);
    SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL);
    ULONG flags = port->StateFlags;
    SendCommand(world, COMMAND_SET_MODE, 7, MODE_IDLE);  // while locked
    EXPECT_EQ(port->StateFlags, flags);
    EXPECT_EQ(port->Mode, static_cast<ULONG>(MODE_NORMAL));
    NextFrame(world);
    EXPECT_EQ(NextFrame(world).Header.Code, 0u);
    EXPECT_EQ(NextFrame(world).Header.Code, static_cast<ULONG>(STATUS_UNSUCCESSFUL));
    expectLast(EVENT_BAD_STATE_FLAGS, port->Header.Device, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(EventLogCount(EVENT_BAD_STATE_FLAGS), 2u);
    SendCommand(world, COMMAND_SET_MODE, 0, 4);
    expectLast(EVENT_BAD_MODE, port->Header.Device, STATUS_INVALID_PARAMETER);
  });
}
