// What ZK writes to the control device: any bytes of any length, in every mode, level and state of
// the lock, with buffered and direct I/O, with and without a client. Each write, each frame that ZK
// reads, the port's bytes and the events are compared with the rules as they are written down here
// once more.
//
// One world with a port for each state that an input may begin in lives for thousands of inputs.
// An input that leaves its port in another state, or something for ZK to read, ends with ZK's
// close, and a new ZK brings the port back to its state. After each nothing else may be left.
#include <cstdarg>

#include "controller/frame_format.h"
#include "driver/event_log.h"
#include "fuzz/input.h"
#include "platform/model/thread_object.h"
#include "tests/support/world.h"

// Bit 0: direct I/O; 1: a client has it open; 2: NORMAL; 3: level 5; 4: locked.
constexpr size_t PortCount = 32;
constexpr unsigned InputsPerRun = 65536;
constexpr size_t RoomMost = 4096;

static World Worlds[PortCount];
static Fiber Fuzzer, Model;
static Input Next;
static bool Ending;
static unsigned Events[4];  // bad mode, frame, command, state flags

// ---- The rules ----

// What ZK has yet to read, end to end: nothing is allocated for a frame.
struct FrameQueue {
  std::string Bytes;
  std::vector<size_t> Sizes;
  size_t At, First;  // of the first that is left, in Bytes and in Sizes
};

struct Rules {
  const char *Port;
  ULONG Mode, Level;
  bool Locked;
  NTSTATUS PortResult;
  FrameQueue Frames;    // for ZK
  std::string Written;  // to the port
  unsigned Events[4];
};

struct Port {
  Rules Begin;  // as an input finds the port
  Rules Now;
  LONG Requests;
};

static Port Ports[PortCount];

struct Outcome {
  NTSTATUS Status;
  ULONG_PTR Information;
};
constexpr Outcome Invalid = {STATUS_INVALID_PARAMETER, 0};

enum { BadMode, BadFrame, BadCommand, BadFlags };

struct Bytes {
  const void *At;
  size_t Count;
};

static FrameHeader Header(ULONG Type, ULONG Tag, ULONG Code, size_t PayloadBytes) {
  FrameHeader header = {};
  header.Length = static_cast<uint32_t>(sizeof(header) + PayloadBytes);
  header.Type = Type;
  header.Tag = Tag;
  header.Code = Code;
  return header;
}

static void Queue(FrameQueue *Queue, ULONG Type, ULONG Tag, ULONG Code, Bytes Payload) {
  FrameHeader header = Header(Type, Tag, Code, Payload.Count);
  Queue->Bytes.append(reinterpret_cast<const char *>(&header), sizeof(header));
  Queue->Bytes.append(static_cast<const char *>(Payload.At), Payload.Count);
  Queue->Sizes.push_back(header.Length);
}

static bool IsEmpty(const FrameQueue &Queue) {
  return Queue.First == Queue.Sizes.size();
}

static Bytes First(const FrameQueue &Queue) {
  return {Queue.Bytes.data() + Queue.At, Queue.Sizes[Queue.First]};
}

static void RemoveFirst(FrameQueue *Queue) {
  Queue->At += Queue->Sizes[Queue->First++];
}

static void Clear(FrameQueue *Queue) {
  Queue->Bytes.clear();
  Queue->Sizes.clear();
  Queue->At = Queue->First = 0;
}

__attribute__((format(printf, 3, 4))) static void Say(Rules *Rules, ULONG Level, const char *Format,
                                                      ...) {
  if (Level > Rules->Level) {
    return;
  }
  char text[128];
  va_list args;
  va_start(args, Format);
  int length = vsnprintf(text, sizeof(text), Format, args);
  va_end(args);
  struct {
    ULONG Level;
    char16_t Text[sizeof(text)];
  } message;
  message.Level = Level;
  std::copy(text, text + length + 1, message.Text);
  size_t bytes = sizeof(Level) + (static_cast<size_t>(length) + 1) * sizeof(char16_t);
  Queue(&Rules->Frames, FRAME_REPORT, TAG_DRIVER, 0, {&message, bytes});
}

static void Reply(Rules *Rules, ULONG Tag, NTSTATUS Code, ULONG Value) {
  Queue(&Rules->Frames, FRAME_CONTROL_REPLY, Tag, static_cast<ULONG>(Code),
        {&Value, sizeof(Value)});
}

static Outcome ExpectData(Rules *Rules, const FrameHeader &Header, Bytes Payload) {
  if (Rules->Mode == MODE_IDLE) {
    Say(Rules, 1, "Cannot write to sinks in idle mode");
    return Invalid;
  }
  if (Header.Tag != TAG_LOWER) {
    return {STATUS_SUCCESS, 0};
  }
  if (Payload.Count == 0) {
    return {STATUS_SUCCESS, Header.Length};
  }
  Rules->Written.append(static_cast<const char *>(Payload.At), Payload.Count);
  if (Rules->PortResult == STATUS_SUCCESS) {
    return {STATUS_SUCCESS, Header.Length};
  }
  Say(Rules, 2, "Error writing buffer to lower sink status 0x%x", Rules->PortResult);
  return {Rules->PortResult, 0};
}

static NTSTATUS ExpectSetMode(Rules *Rules, ULONG Mode) {
  static const char *const names[] = {"INVALID", "IDLE", "NORMAL", "REDIRECT"};
  NTSTATUS status = STATUS_SUCCESS;
  Say(Rules, 5, "ZK setmode %s on \\DosDevices\\VORLIX_%s\n",
      Mode < 4 ? names[Mode] : "ILLEGAL MODE", Rules->Port);
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
    Say(Rules, 1, "Error setting mode of 0x%x status 0x%x", Mode, status);
  }
  return status;
}

static Outcome ExpectControl(Rules *Rules, const FrameHeader &Header, Bytes Payload) {
  ULONG argument = 0;
  bool given = Payload.Count >= sizeof(argument);
  memcpy(&argument, Payload.At, given ? sizeof(argument) : 0);
  Outcome done = {STATUS_SUCCESS, Header.Length};
  switch (Header.Code) {
  case COMMAND_GET_MODE:
    Reply(Rules, Header.Tag, 0, Rules->Mode);
    return done;
  case COMMAND_GET_LEVEL:
    Reply(Rules, Header.Tag, 0, Rules->Level);
    return done;
  case COMMAND_LOCK_STREAM:
    Say(Rules, 5, "ZK lockstream on \\DosDevices\\VORLIX_%s\n", Rules->Port);
    Reply(Rules, Header.Tag, 0, 0);
    Rules->Locked = true;
    Rules->Events[BadFlags] += Rules->Mode == MODE_IDLE;
    return done;
  case COMMAND_UNLOCK_STREAM:
    Say(Rules, 5, "ZK unlockstream on \\DosDevices\\VORLIX_%s\n", Rules->Port);
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

static Outcome ExpectWrite(Rules *Rules, const std::vector<uint8_t> &Frame) {
  FrameHeader header = {};
  if (Frame.size() >= sizeof(header)) {
    memcpy(&header, Frame.data(), sizeof(header));
  }
  if (header.Length >= sizeof(header) && header.Length == Frame.size()) {
    Bytes payload = {Frame.data() + sizeof(header), Frame.size() - sizeof(header)};
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

static Outcome ExpectClientWrite(Rules *Rules, const std::vector<uint8_t> &Data) {
  if (Rules->Mode == MODE_NORMAL) {
    Say(Rules, 5, "Client write to \\DosDevices\\VORLIX_%s\n", Rules->Port);
    if (!Data.empty() || IsEmpty(Rules->Frames)) {  // an empty report wakes nobody up twice
      Queue(&Rules->Frames, FRAME_REPORT, TAG_CLIENT, 0, {Data.data(), Data.size()});
    }
  }
  Rules->Written.append(Data.begin(), Data.end());
  return {Rules->PortResult, Rules->PortResult == STATUS_SUCCESS ? Data.size() : 0};
}

static Outcome ExpectRead(const Rules *Rules, size_t Room) {
  if (Rules->Mode == MODE_IDLE) {
    return {STATUS_INVALID_DEVICE_STATE, 0};
  }
  if (Room < sizeof(ULONG)) {
    return {Room == 0 ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL, 0};
  }
  size_t size = First(Rules->Frames).Count;
  return Room < size ? Outcome{STATUS_BUFFER_OVERFLOW, sizeof(ULONG)}
                     : Outcome{STATUS_SUCCESS, size};
}

// ---- An input ----

static void Compare(const Io &Io, const Outcome &Expected) {
  if (!FileDone(&Io) || Io.Returned != Io.Iosb.Status || Io.Iosb.Status != Expected.Status ||
      Io.Iosb.Information != Expected.Information) {
    char text[160];
    snprintf(text, sizeof(text),
             "major function 0x%x of %zu bytes: returned 0x%x, ended with 0x%x, %zu; expected "
             "0x%x, %zu",
             Io.Major, Io.Buffer.size(), Io.Returned, Io.Iosb.Status,
             static_cast<size_t>(Io.Iosb.Information), Expected.Status,
             static_cast<size_t>(Expected.Information));
    Fail(text);
  }
}

// The rules are asked first: whatever is done to the buffer does not change what they say.
static void Write(World *World, Rules *Rules, Io *Write) {
  Write->Major = IRP_MJ_WRITE;
  Outcome expected = ExpectWrite(Rules, Write->Buffer);
  FileSend(World->Zk, Write);
  Compare(*Write, expected);
}

static void WriteAsClient(World *World, Rules *Rules, Io *Write) {
  if (World->Client != nullptr && !Rules->Locked) {
    Write->Major = IRP_MJ_WRITE;
    Outcome expected = ExpectClientWrite(Rules, Write->Buffer);
    FileSend(World->Client, Write);
    Compare(*Write, expected);
  }
}

static void Read(World *World, Rules *Rules, size_t Room) {
  if (IsEmpty(Rules->Frames) && Rules->Mode != MODE_IDLE && Room != 0) {
    return;  // it would wait for the port
  }
  Io read;
  StartRead(World->Zk, &read, Room);
  Outcome expected = ExpectRead(Rules, Room);
  Compare(read, expected);
  if (expected.Information > sizeof(ULONG)) {
    memset(read.Buffer.data() + offsetof(FrameHeader, Timestamp), 0, sizeof(uint64_t));
    Require(memcmp(read.Buffer.data(), First(Rules->Frames).At, expected.Information) == 0,
            "ZK reads another frame than expected");
    RemoveFirst(&Rules->Frames);
  }
}

static void TakeBytes(Input *Input, size_t Bytes, Io *Write) {
  size_t there = std::min(Bytes, Input->Left);
  Write->Buffer.insert(Write->Buffer.end(), Input->At, Input->At + there);
  Input->At += there;
  Input->Left -= there;
}

// A header, and room for what follows it.
static void BeginFrame(const FrameHeader &Header, Io *Write) {
  auto *bytes = reinterpret_cast<const uint8_t *>(&Header);
  Write->Buffer.reserve(Header.Length);
  Write->Buffer.assign(bytes, bytes + sizeof(Header));
}

// A byte says what and how long: 31 is a length in the two bytes that follow.
static void PlayOne(World *World, Rules *Rules, Input *Input) {
  uint8_t what = TakeByte(Input);
  size_t length = what >> 3;
  length = length == 31 ? Take(Input, 2) : length * 2;
  Io write;
  switch (what & 7) {
  default: {
    write.Buffer.reserve(length);
    TakeBytes(Input, length, &write);
    write.Buffer.resize(length);
    uint32_t claimed = static_cast<uint32_t>(length);
    if ((what & 1) != 0 && length >= sizeof(claimed)) {
      memcpy(write.Buffer.data(), &claimed, sizeof(claimed));
    }
    Write(World, Rules, &write);
    break;
  }
  case 2: {
    ULONG type = TakeByte(Input), tag = TakeByte(Input), code = TakeByte(Input);
    BeginFrame(Header(type, tag, code, std::min(length, Input->Left)), &write);
    TakeBytes(Input, length, &write);
    Write(World, Rules, &write);
    break;
  }
  case 4:
    TakeBytes(Input, length, &write);
    WriteAsClient(World, Rules, &write);
    break;
  case 6:
    Read(World, Rules, std::min(length, RoomMost));
    break;
  }
}

static void Command(World *World, Rules *Rules, ULONG Command, ULONG Argument) {
  Io write;
  auto *bytes = reinterpret_cast<const uint8_t *>(&Argument);
  BeginFrame(Header(FRAME_CONTROL, 0, Command, sizeof(Argument)), &write);
  write.Buffer.insert(write.Buffer.end(), bytes, bytes + sizeof(Argument));
  Write(World, Rules, &write);
}

static void ReadAll(World *World, Rules *Rules) {
  while (Rules->Mode == MODE_NORMAL && !IsEmpty(Rules->Frames)) {
    Read(World, Rules, First(Rules->Frames).Count);
  }
  if (IsEmpty(Rules->Frames)) {
    Clear(&Rules->Frames);
  }
}

// A new ZK brings the port to the state that its inputs begin in.
static void Prepare(size_t Number) {
  World *world = &Worlds[Number];
  Port *port = &Ports[Number];
  Rules *rules = &port->Now;
  *rules = {world->Lower.Name.c_str(), MODE_IDLE, 0, false, STATUS_SUCCESS, {}, "", {}};
  Require(OpenZk(world) == STATUS_SUCCESS, "ZK cannot open the control device");
  if ((Number & 4) != 0) {
    Command(world, rules, COMMAND_SET_MODE, MODE_NORMAL);
  }
  if ((Number & 8) != 0) {
    Command(world, rules, COMMAND_SET_LEVEL, 5);
  }
  if ((Number & 16) != 0) {
    Command(world, rules, COMMAND_LOCK_STREAM, 0);
  }
  ReadAll(world, rules);
  port->Begin = *rules;
  port->Requests = WorldPort(world)->RequestCount;
}

// In IDLE nothing is read, so the frames that are left are the same when there are as many.
static bool IsAsItBegan(const Port &Port) {
  return Port.Now.Mode == Port.Begin.Mode && Port.Now.Level == Port.Begin.Level &&
         Port.Now.Locked == Port.Begin.Locked && Port.Now.Frames.First == Port.Begin.Frames.First &&
         Port.Now.Frames.Sizes.size() == Port.Begin.Frames.Sizes.size();
}

static bool PortGot(const LowerPort &Port, const std::string &Written) {
  size_t at = 0;
  for (const LowerSeen &seen : Port.Seen) {
    if (seen.Major == IRP_MJ_WRITE) {
      if (Written.compare(at, seen.Bytes.size(), seen.Bytes) != 0) {
        return false;
      }
      at += seen.Bytes.size();
    }
  }
  return at == Written.size();
}

static void Judge(const World &World, const Rules &Rules) {
  Require(PortGot(World.Lower, Rules.Written), "the port got other bytes than expected");
  Require(memcmp(Events, Rules.Events, sizeof(Events)) == 0, "other events than expected");
}

// The first byte says where: its bits 0, 1, 3, 4 and 5 are a port, bit 2 makes the port refuse.
static void PlayInput(Input Input) {
  uint8_t state = TakeByte(&Input);
  size_t number = (state & 3) | ((state >> 3 & 7) << 2);
  World *world = &Worlds[number];
  Port *port = &Ports[number];
  Rules *rules = &port->Now;
  const PortExtension *extension = WorldPort(world);
  uint64_t blocks = PoolCount(0).Blocks, packets = PacketCount(), mdls = MdlCount();
  rules->PortResult = (state & 4) != 0 ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS;
  rules->Written.clear();
  memset(rules->Events, 0, sizeof(rules->Events));
  memset(Events, 0, sizeof(Events));
  world->Lower.Result[IRP_MJ_WRITE] = rules->PortResult;
  while (Input.Left > 0) {
    PlayOne(world, rules, &Input);
  }
  ReadAll(world, rules);
  Require(PortMode(extension) == rules->Mode && PortMessageLevel(extension) == rules->Level &&
              PortHoldsClient(extension) == rules->Locked,
          "mode, level or lock are not what the replies say");
  if (IsAsItBegan(*port)) {
    Judge(*world, *rules);
  } else {
    CloseZk(world);
    Judge(*world, *rules);
    Prepare(number);
  }
  Require(extension->RequestCount == port->Requests && PoolCount(0).Blocks == blocks &&
              PacketCount() == packets && MdlCount() == mdls,
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
  EventLogWatch(CountEvent);
  for (size_t i = 0; i < PortCount; ++i) {
    AddPort(i);
    Prepare(i);
  }
  for (unsigned n = 0; n < InputsPerRun && !Ending; ++n) {
    PlayInput(Next);
    FiberSwitch(&CurrentThread->Context, &Fuzzer);
  }
  for (size_t i = PortCount; i-- > 1;) {
    CloseZk(&Worlds[i]);
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
