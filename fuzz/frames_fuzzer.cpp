// What ZK writes to the control device: any bytes of any length, in every mode, level and state of
// the lock, with buffered and direct I/O, with and without a client. Each write, each frame that ZK
// reads, the port's bytes and the events are compared with the rules as they are written down here
// once more.
//
// One world with four ports lives for thousands of inputs. An input finds its port as a new ZK
// does: the handle is opened for it and closed after it, and nothing may be left then.
#include <deque>

#include "controller/frame_format.h"
#include "driver/event_log.h"
#include "fuzz/input.h"
#include "platform/model/thread_object.h"
#include "tests/support/world.h"

constexpr size_t PortCount = 4;  // bit 0: direct I/O; bit 1: a client has it open
constexpr unsigned InputsPerRun = 8192;
constexpr size_t RoomMost = 4096;

static World Worlds[PortCount];
static Fiber Fuzzer, Model;
static Input Next;
static bool Ending;
static unsigned Events[4];  // bad mode, frame, command, state flags

// ---- The rules ----

struct Rules {
  std::string Link;
  ULONG Mode, Level;
  bool Locked;
  NTSTATUS PortResult;
  std::deque<std::string> Frames;  // for ZK
  std::string Written;             // to the port
  unsigned Events[4];
};

struct Outcome {
  NTSTATUS Status;
  ULONG_PTR Information;
};
constexpr Outcome Invalid = {STATUS_INVALID_PARAMETER, 0};

enum { BadMode, BadFrame, BadCommand, BadFlags };

static void Say(Rules *Rules, ULONG Level, const std::string &Text) {
  if (Level <= Rules->Level) {
    std::string payload = MakeArgument(Level);
    for (size_t i = 0; i <= Text.size(); ++i) {
      payload += Text.c_str()[i];
      payload += '\0';
    }
    Rules->Frames.push_back(MakeFrame(FRAME_REPORT, TAG_DRIVER, 0, payload));
  }
}

static std::string Hex(ULONG Value) {
  char text[16];
  snprintf(text, sizeof(text), "0x%x", Value);
  return text;
}

static void Reply(Rules *Rules, ULONG Tag, NTSTATUS Code, ULONG Value) {
  Rules->Frames.push_back(
      MakeFrame(FRAME_CONTROL_REPLY, Tag, static_cast<ULONG>(Code), MakeArgument(Value)));
}

static Outcome ExpectData(Rules *Rules, const FrameHeader &Header, const std::string &Payload) {
  if (Rules->Mode == MODE_IDLE) {
    Say(Rules, 1, "Cannot write to sinks in idle mode");
    return Invalid;
  }
  if (Header.Tag != TAG_LOWER) {
    return {STATUS_SUCCESS, 0};
  }
  if (Payload.empty()) {
    return {STATUS_SUCCESS, Header.Length};
  }
  Rules->Written += Payload;
  if (Rules->PortResult == STATUS_SUCCESS) {
    return {STATUS_SUCCESS, Header.Length};
  }
  Say(Rules, 2, "Error writing buffer to lower sink status " + Hex(Rules->PortResult));
  return {Rules->PortResult, 0};
}

static NTSTATUS ExpectSetMode(Rules *Rules, ULONG Mode) {
  static const char *const names[] = {"INVALID", "IDLE", "NORMAL", "REDIRECT"};
  NTSTATUS status = STATUS_SUCCESS;
  Say(Rules, 5,
      std::string("ZK setmode ") + (Mode < 4 ? names[Mode] : "ILLEGAL MODE") + " on " +
          Rules->Link);
  if (Mode == MODE_NORMAL || (Mode == MODE_IDLE && !Rules->Locked)) {
    Rules->Mode = Mode;
  } else if (Mode == MODE_IDLE) {
    status = STATUS_UNSUCCESSFUL;
    ++Rules->Events[BadFlags];
  } else if (Mode == MODE_REDIRECT) {
    status = STATUS_NOT_SUPPORTED;
  } else {
    status = STATUS_INVALID_PARAMETER;
    ++Rules->Events[BadMode];
  }
  if (status != STATUS_SUCCESS) {
    Say(Rules, 1, "Error setting mode of " + Hex(Mode) + " status " + Hex(status));
  }
  return status;
}

static Outcome ExpectControl(Rules *Rules, const FrameHeader &Header, const std::string &Payload) {
  ULONG argument = 0;
  bool given = Payload.size() >= sizeof(argument);
  memcpy(&argument, Payload.data(), given ? sizeof(argument) : 0);
  Outcome done = {STATUS_SUCCESS, Header.Length};
  switch (Header.Code) {
  case COMMAND_GET_MODE:
    Reply(Rules, Header.Tag, 0, Rules->Mode);
    return done;
  case COMMAND_GET_LEVEL:
    Reply(Rules, Header.Tag, 0, Rules->Level);
    return done;
  case COMMAND_LOCK_STREAM:
    Say(Rules, 5, "ZK lockstream on " + Rules->Link);
    Reply(Rules, Header.Tag, 0, 0);
    Rules->Locked = true;
    Rules->Events[BadFlags] += Rules->Mode == MODE_IDLE;
    return done;
  case COMMAND_UNLOCK_STREAM:
    Say(Rules, 5, "ZK unlockstream on " + Rules->Link);
    Reply(Rules, Header.Tag, 0, 0);
    Rules->Locked = false;
    return done;
  case COMMAND_SET_MODE:
    if (given) {
      Reply(Rules, Header.Tag, ExpectSetMode(Rules, argument), 0);
      return done;
    }
    break;
  case COMMAND_SET_LEVEL:
    if (given) {
      Rules->Level = argument;
      Reply(Rules, Header.Tag, 0, 0);
      return done;
    }
    break;
  default:
    break;
  }
  ++Rules->Events[BadCommand];
  return Invalid;
}

static Outcome ExpectWrite(Rules *Rules, const std::string &Bytes) {
  FrameHeader header = {};
  memcpy(&header, Bytes.data(), std::min(Bytes.size(), sizeof(header)));
  if (Bytes.size() >= sizeof(header) && header.Length == Bytes.size()) {
    std::string payload = Bytes.substr(sizeof(header));
    if (header.Type == FRAME_DATA) {
      return ExpectData(Rules, header, payload);
    }
    if (header.Type == FRAME_CONTROL) {
      return ExpectControl(Rules, header, payload);
    }
  }
  ++Rules->Events[BadFrame];
  return Invalid;
}

static Outcome ExpectClientWrite(Rules *Rules, const std::string &Bytes) {
  if (Rules->Mode == MODE_NORMAL) {
    Say(Rules, 5, "Client write to " + Rules->Link);
    if (!Bytes.empty() || Rules->Frames.empty()) {  // an empty report wakes nobody up twice
      Rules->Frames.push_back(MakeFrame(FRAME_REPORT, TAG_CLIENT, 0, Bytes));
    }
  }
  Rules->Written += Bytes;
  return {Rules->PortResult, Rules->PortResult == STATUS_SUCCESS ? Bytes.size() : 0};
}

static Outcome ExpectRead(Rules *Rules, size_t Room) {
  if (Rules->Mode == MODE_IDLE) {
    return {STATUS_INVALID_DEVICE_STATE, 0};
  }
  if (Room < sizeof(ULONG)) {
    return {Room == 0 ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL, 0};
  }
  size_t size = Rules->Frames.front().size();
  return Room < size ? Outcome{STATUS_BUFFER_OVERFLOW, sizeof(ULONG)}
                     : Outcome{STATUS_SUCCESS, size};
}

// ---- An input ----

static void Compare(const Io &Io, const Outcome &Expected) {
  if (!FileDone(&Io) || Io.Returned != Io.Iosb.Status || Io.Iosb.Status != Expected.Status ||
      Io.Iosb.Information != Expected.Information) {
    Fail("major function " + Hex(Io.Major) + " of " + std::to_string(Io.Buffer.size()) +
         " bytes: returned " + Hex(Io.Returned) + ", ended with " + Hex(Io.Iosb.Status) + ", " +
         std::to_string(Io.Iosb.Information) + "; expected " + Hex(Expected.Status) + ", " +
         std::to_string(Expected.Information));
  }
}

static void Write(World *World, Rules *Rules, const std::string &Bytes) {
  Io write;
  StartWrite(World->Zk, &write, Bytes);
  Compare(write, ExpectWrite(Rules, Bytes));
}

static void WriteAsClient(World *World, Rules *Rules, const std::string &Bytes) {
  if (World->Client != nullptr && !Rules->Locked) {
    Io write;
    StartWrite(World->Client, &write, Bytes);
    Compare(write, ExpectClientWrite(Rules, Bytes));
  }
}

static void Read(World *World, Rules *Rules, size_t Room) {
  if (Rules->Frames.empty() && Rules->Mode != MODE_IDLE && Room != 0) {
    return;  // it would wait for the port
  }
  Io read;
  StartRead(World->Zk, &read, Room);
  Outcome expected = ExpectRead(Rules, Room);
  Compare(read, expected);
  if (expected.Information > sizeof(ULONG)) {
    std::string frame = read.Text();
    memset(frame.data() + offsetof(FrameHeader, Timestamp), 0, sizeof(uint64_t));
    Require(frame == Rules->Frames.front(), "ZK reads another frame than expected");
    Rules->Frames.pop_front();
  }
}

// A byte says what and how long: 31 is a length in the two bytes that follow.
static void PlayOne(World *World, Rules *Rules, Input *Input) {
  uint8_t what = TakeByte(Input);
  size_t length = what >> 3;
  length = length == 31 ? Take(Input, 2) : length * 2;
  switch (what & 7) {
  default: {
    std::string bytes = TakeText(Input, length);
    bytes.resize(length);
    uint32_t claimed = static_cast<uint32_t>(length);
    if ((what & 1) != 0 && length >= sizeof(claimed)) {
      memcpy(bytes.data(), &claimed, sizeof(claimed));
    }
    Write(World, Rules, bytes);
    break;
  }
  case 2: {
    ULONG type = TakeByte(Input), tag = TakeByte(Input), code = TakeByte(Input);
    Write(World, Rules, MakeFrame(type, tag, code, TakeText(Input, length)));
    break;
  }
  case 4:
    WriteAsClient(World, Rules, TakeText(Input, length));
    break;
  case 6:
    Read(World, Rules, std::min(length, RoomMost));
    break;
  }
}

static Rules Begin(World *World, uint8_t State) {
  Rules rules = {"\\DosDevices\\VORLIX_" + World->Lower.Name + "\n",
                 MODE_IDLE,
                 0,
                 false,
                 (State & 4) != 0 ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS,
                 {},
                 "",
                 {}};
  World->Lower.Result[IRP_MJ_WRITE] = rules.PortResult;
  memset(Events, 0, sizeof(Events));
  Require(OpenZk(World) == STATUS_SUCCESS, "ZK cannot open the control device");
  if ((State & 8) != 0) {
    Write(World, &rules, MakeFrame(FRAME_CONTROL, 0, COMMAND_SET_MODE, MakeArgument(MODE_NORMAL)));
  }
  if ((State & 16) != 0) {
    Write(World, &rules, MakeFrame(FRAME_CONTROL, 0, COMMAND_SET_LEVEL, MakeArgument(5)));
  }
  if ((State & 32) != 0) {
    Write(World, &rules, MakeFrame(FRAME_CONTROL, 0, COMMAND_LOCK_STREAM));
  }
  return rules;
}

static void PlayInput(Input Input) {
  uint8_t state = TakeByte(&Input);
  World *world = &Worlds[state % PortCount];
  uint64_t blocks = PoolCount(0).Blocks, packets = PacketCount(), mdls = MdlCount();
  Rules rules = Begin(world, state);
  while (Input.Left > 0) {
    PlayOne(world, &rules, &Input);
  }
  while (rules.Mode == MODE_NORMAL && !rules.Frames.empty()) {
    Read(world, &rules, rules.Frames.front().size());
  }
  const PortExtension *port = WorldPort(world);
  Require(PortMode(port) == rules.Mode && PortMessageLevel(port) == rules.Level &&
              PortHoldsClient(port) == rules.Locked,
          "mode, level or lock are not what the replies say");
  CloseZk(world);
  Require(LowerWritten(&world->Lower) == rules.Written, "the port got other bytes than expected");
  Require(memcmp(Events, rules.Events, sizeof(Events)) == 0, "other events than expected");
  Require(port->RequestCount == 1 && PoolCount(0).Blocks == blocks && PacketCount() == packets &&
              MdlCount() == mdls,
          "something is left over");
  world->Lower.Seen.clear();
}

// ---- The world that the inputs share ----

static void CountEvent(const EventLogEntry &Entry) {
  static const ULONG codes[] = {EVENT_BAD_MODE, EVENT_BAD_FRAME, EVENT_BAD_COMMAND,
                                EVENT_BAD_STATE_FLAGS};
  for (size_t i = 0; i < 4; ++i) {
    Events[i] += Entry.Code == codes[i];
  }
}

static void AddPort(size_t Number) {
  World *world = &Worlds[Number];
  WorldOptions options;
  options.Buffering = (Number & 1) != 0 ? DO_DIRECT_IO : DO_BUFFERED_IO;
  world->Driver = Worlds[0].Driver;
  world->PortDriver = Worlds[0].PortDriver;
  world->Lower.BufferingFlags = options.Buffering;
  world->Lower.How[IRP_MJ_READ] = Behaviour::Queue;
  world->Lower.Name = "COM" + std::to_string(Number + 3);
  Require(WorldAdd(world, options) == STATUS_SUCCESS, "a port does not start");
  Require((Number & 2) == 0 || OpenClient(world) == STATUS_SUCCESS, "no client can open a port");
}

static void PlayInputs() {
  WorldLoad(&Worlds[0]);
  for (size_t i = 0; i < PortCount; ++i) {
    AddPort(i);
  }
  EventLogWatch(CountEvent);
  for (unsigned n = 0; n < InputsPerRun && !Ending; ++n) {
    PlayInput(Next);
    FiberSwitch(&CurrentThread->Context, &Fuzzer);
  }
  for (size_t i = PortCount; i-- > 1;) {
    CloseClient(&Worlds[i]);
    PnpRemove(Worlds[i].Node);
  }
  WorldEnd(&Worlds[0]);
}

// A fiber of its own, so that a run goes on from one call of the fuzzer to the next. What a run's
// end finds has been left by its last inputs, but PlayInput has looked already.
static void Runs() {
  while (!Ending) {
    RequireNotStopped(ModelRun({}, PlayInputs));
  }
  FiberLeave(&Model, &Fuzzer);
}

static void EndRuns() {
  Ending = true;
  FiberSwitch(&Fuzzer, &CurrentThread->Context);
}

// What the world holds stands on stacks that a leak check in between does not see.
extern "C" __attribute__((used)) int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() {
  return 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  Next = {Data, Size};
  if (CurrentThread != nullptr) {
    FiberSwitch(&Fuzzer, &CurrentThread->Context);
    return 0;
  }
  FiberAdopt(&Fuzzer);
  FiberPrepare(&Model, FiberMainBytes, Runs);
  atexit(EndRuns);
  FiberSwitch(&Fuzzer, &Model);
  return 0;
}
