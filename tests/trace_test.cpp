// What the driver traces on its real paths: the records of an operation, in order.
#include <gtest/gtest.h>

#include <map>

#include "driver/trace.h"
#include "tests/support/world.h"

// Reads the ring as a debugger would, from the newest record back to the one that was the newest
// when the tracer was made or last asked.
struct Tracer {
  explicit Tracer(World *World) : World_(World), Mark(Trace.Cursor) {
  }
  std::string Take();

  World *World_;
  const TraceRecord *Mark;
};

// "CODE argument argument argument", oldest first: the port's devices and engine by name, other
// addresses by letters in the order in which they appear, statuses and small numbers in hex.
std::string Tracer::Take() {
  std::vector<const TraceRecord *> records;
  for (const TraceRecord *r = Trace.Cursor; r != Mark; r = r == Trace.Last ? Trace.Base : r + 1) {
    records.insert(records.begin(), r);
  }
  Mark = Trace.Cursor;
  PortExtension *port = WorldPort(World_);
  std::map<ULONG64, std::string> names = {{TracePointer(port->Header.Device), "filter"},
                                          {TracePointer(port->ControlDevice), "control"},
                                          {TracePointer(&port->Engine), "engine"}};
  char letter = 'a';
  std::string text;
  for (const TraceRecord *record : records) {
    text += "\n" + std::string(reinterpret_cast<const char *>(record->Code), 4);
    for (ULONG64 argument : record->Arguments) {
      char hex[20];
      snprintf(hex, sizeof(hex), "%x", static_cast<ULONG>(argument));
      bool number = argument < 0x10000 || argument >> 32 == 0xFFFFFFFF;
      if (!number && names.count(argument) == 0) {
        names[argument] = std::string(1, letter++);
      }
      text += " " + (number ? hex : names[argument]);
    }
  }
  return text;
}

// A write of ZK's, and one that turned out to be a command; a is the request.
static const std::string ZkFrame = "\n0WKZ control a 0\n1WKZ control a b";
static const std::string Command = ZkFrame + "\nPCF0 control a 0";

struct Traces : testing::TestWithParam<ULONG> {
  void Run(const std::function<void(World *)> &Scenario) {
    RunWorld(Scenario, {.Buffering = GetParam()});
  }
};
INSTANTIATE_TEST_SUITE_P(Buffering, Traces, testing::Values(DO_BUFFERED_IO, DO_DIRECT_IO));

TEST_P(Traces, SetMode) {
  Run([](World *world) {
    OpenZk(world);
    OpenClient(world);
    Tracer tracer(world);
    SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL);
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nPU00 filter d 0\nPU01 filter d 0\nPS00 engine 0 0\nPRD2 engine c 0"
                  "\nPCFE control a 0");
    SendCommand(world, COMMAND_SET_MODE, 0, MODE_IDLE);
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nPU00 filter c 0\nPU02 filter c 0\nPS00 engine 0 0\nPRD2 engine c 0"
                  "\nPU04 filter c 0\nPCFE control a 0");
    SendCommand(world, COMMAND_LOCK_STREAM);  // no valid combination
    EXPECT_EQ(
        tracer.Take(),
        Command + "\nLS00 control a 0\nPU00 control 1c 0\nLS02 control a 103\nPCFE control a 0");
  });
}

TEST_P(Traces, LockAndUnlock) {
  Run([](World *world) {
    GoNormal(world);
    Tracer tracer(world);
    SendCommand(world, COMMAND_LOCK_STREAM);
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nLS00 control a 0\nPU00 control 1d 0\nPU02 control 1d 0\nPS00 engine 0 0"
                  "\nPRD2 engine c 0\nPU03 control 1d 2\nLS02 control a 103\nPCFE control a 0");
    Io write;
    EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_PENDING);
    EXPECT_EQ(tracer.Take(), "");
    SendCommand(world, COMMAND_UNLOCK_STREAM);
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nUS00 control 0 0\nUS01 control c 0\nUS02 control c 4\nUS03 control 0 0"
                  "\nUS04 control 0 0\nPU00 control d 0\nPU02 control d 0\nPS00 engine 0 0"
                  "\nPRD2 engine d 0\nPU03 control d 3\nPCFE control a 0");
    FaultArm({FaultPool, FourCharacters("ZK06"), 1, false});
    SendCommand(world, COMMAND_LOCK_STREAM);
    EXPECT_TRUE(FaultDisarm());
    EXPECT_EQ(tracer.Take(), Command + "\nPCFE control a c000009a");
  });
}

TEST_P(Traces, DataFrame) {
  bool direct = GetParam() == DO_DIRECT_IO;
  Run([=](World *world) {
    GoNormal(world);
    Tracer tracer(world);
    Io data;
    StartWrite(world->Zk, &data, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "x"));
    const char *trimmed = "\n0XKZ control a c\n1XKZ a d e";
    EXPECT_EQ(tracer.Take(), ZkFrame + (direct ? trimmed : "") +
                                 "\nCWKZ control a 0\n2XKZ control a 0\n3XKZ control a 0");
    StartWrite(world->Zk, &data, MakeFrame(FRAME_DATA, 0, 0, "x"));
    EXPECT_EQ(tracer.Take(), ZkFrame + "\n3XKZ control a 0");
    world->Lower.How[IRP_MJ_WRITE] = Behaviour::Pend;
    StartWrite(world->Zk, &data, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "x"));
    EXPECT_EQ(tracer.Take(),
              ZkFrame + (direct ? trimmed : "") + "\n2XKZ control a 103\n3XKZ control a 103");
    EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_WRITE, STATUS_IO_DEVICE_ERROR));
    EXPECT_EQ(tracer.Take(), "\nCWKZ control a c0000185");
    FileWait(&data);
  });
}

TEST_P(Traces, Reads) {
  Run([](World *world) {
    GoNormal(world);
    Tracer tracer(world);
    Io zk[2], client[2], parked;
    for (Io *read : {&zk[0], &zk[1]}) {
      StartRead(world->Zk, read, 100);
    }
    EXPECT_EQ(tracer.Take(),
              "\nPRI1 engine 0 0\nPRD4 engine 0 0\nPRI1 engine 0 0\nPRD2 engine 0 0");
    for (Io *read : {&client[0], &client[1]}) {
      StartRead(world->Client, read, 100);
    }
    EXPECT_EQ(tracer.Take(), "\nPRI1 engine 0 0\nPRI1 engine 0 0\nPRD0 engine 0 0");
    LowerFeed(&world->Lower, "x");
    ThreadSettle();
    EXPECT_EQ(tracer.Take(), "\nPC00 0 a b");
    SendCommand(world, COMMAND_LOCK_STREAM);  // stops the read for the client
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nLS00 control a 0\nPU00 control 1d 0\nPU02 control 1d 0\nPS00 engine 0 0"
                  "\nPC00 0 c d\nPS01 engine c 1\nPRDR engine e 0\nPRD2 engine f 0"
                  "\nPU03 control 1d 2\nLS02 control a 0\nPCFE control a 0");
    SendCommand(world, COMMAND_UNLOCK_STREAM);  // and sends it again
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nUS00 control 0 0\nUS03 control 0 0\nUS04 control 0 0\nPU00 control d 0"
                  "\nPU02 control d 0\nPS00 engine 0 0\nPRD2 engine c 0\nPU03 control d 3"
                  "\nPRI0 engine 0 0\nPCFE control a 0");
    FileCancel(&client[1]);
    for (Io *read : {&zk[0], &zk[1], &client[0], &client[1]}) {
      FileWait(read);
    }
  });
}

// A read of the client's finds one of ZK's current, which got no buffer.
TEST_P(Traces, BehindAFailedRead) {
  Run([](World *world) {
    GoNormal(world);
    SendCommand(world, COMMAND_LOCK_STREAM);
    NextFrame(world);
    Io client, zk;
    EXPECT_EQ(StartRead(world->Client, &client, 8), STATUS_PENDING);
    FaultArm({FaultPool, FourCharacters("ZK00"), 1, false});
    EXPECT_EQ(StartRead(world->Zk, &zk, 100), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(FaultDisarm());
    Tracer tracer(world);
    SendCommand(world, COMMAND_UNLOCK_STREAM);
    EXPECT_EQ(tracer.Take(),
              Command +
                  "\nUS00 control 0 0\nUS01 control c 0\nUS02 control c 3\nPRI1 engine 0 0"
                  "\nPRD1 engine 0 0\nUS03 control 0 0\nUS04 control 0 0\nPU00 control d 0"
                  "\nPU02 control d 0\nPS00 engine 0 0\nPRD2 engine d 0\nPU03 control d 3"
                  "\nPRI0 engine 0 0\nPCFE control a 0");
    LowerFeed(&world->Lower, "x");
    EXPECT_EQ(FileWait(&client), STATUS_SUCCESS);
  });
}
