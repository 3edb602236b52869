// Registry values of any type, length and content, in the port's device key and in the service key,
// through loading, attaching, starting, a short use and removal. A second port without the filter
// is there for names that lead elsewhere.
#include "fuzz/input.h"
#include "tests/support/world.h"

static const char ServiceKey[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Vorlix";
static const char *const Names[] = {"PortName",     "VORLIXDebugLevel",     "VORLIXPacketDump",
                                    "VORLIXUseEdo", "VORLIXProxyReadLimit", "VORLIXBreakOnLoad"};
constexpr size_t PortNameMost = 512;

// How an input gives a value.
enum : uint8_t { Absent, Dword, Name, NameElsewhere, Bytes, LongName, Kinds };

static bool TakeValue(Input *Input, RegistryValue *Value) {
  switch (TakeByte(Input) % Kinds) {
  case Absent:
    return false;
  case Dword:
    *Value = RegistryDword(Take(Input, 4));
    return true;
  case Name:
    *Value = RegistryText("COM3");
    return true;
  case NameElsewhere:
    *Value = RegistryText("COM9");
    return true;
  case Bytes: {
    Value->Type = TakeByte(Input) % 16;
    std::string bytes = TakeText(Input, TakeByte(Input));
    Value->Data.assign(bytes.begin(), bytes.end());
    return true;
  }
  default:
    Value->Type = REG_SZ;
    Value->Data.assign(PortNameMost - 8 + TakeByte(Input) % 32, 'x');
    for (size_t i = 0; i < 4 && i < Value->Data.size(); ++i) {
      Value->Data[Value->Data.size() - 1 - i] = TakeByte(Input);
    }
    return true;
  }
}

static bool HasTerminator(const RegistryValue &Value) {
  for (size_t i = 0; i + 1 < Value.Data.size(); i += 2) {
    if (Value.Data[i] == 0 && Value.Data[i + 1] == 0) {
      return true;
    }
  }
  return false;
}

// A name that fits and is terminated is enough; one that is not there or has no end is refused.
static void Judge(const PortDescription &Port, NTSTATUS Status) {
  auto name = Port.Values.find("PortName");
  bool fits = name != Port.Values.end() && name->second.Data.size() <= PortNameMost;
  bool named = fits && HasTerminator(name->second);
  Require(NT_SUCCESS(Status) == named, "the port's name and the result of attaching disagree");
}

static void WriteCommand(HANDLE Zk, ULONG Command, ULONG Argument) {
  Io write;
  StartWrite(Zk, &write, MakeFrame(FRAME_CONTROL, 0, Command, MakeArgument(Argument)));
  Require(FileWait(&write) == STATUS_SUCCESS, "a command fails");
}

static void UsePort(World *World, uint8_t How) {
  for (const std::string &link : NameLinks()) {
    if (link.rfind("\\DosDevices\\VORLIX_", 0) == 0) {
      FileOpen(link.substr(0, link.find(" -> ")), Account::LocalSystem, &World->Zk);
    }
  }
  World->Lower.Name = (How & 1) != 0 ? "COM9" : "COM3";
  OpenClient(World);
  World->Lower.Name = "COM3";
  Io io[5];
  if (World->Zk != nullptr) {
    WriteCommand(World->Zk, COMMAND_SET_LEVEL, 5);
    WriteCommand(World->Zk, COMMAND_SET_MODE, (How & 2) != 0 ? MODE_NORMAL : MODE_IDLE);
    StartRead(World->Zk, &io[0], 4096);
    StartRead(World->Zk, &io[1], 4096);
  }
  if (World->Client != nullptr) {
    StartRead(World->Client, &io[2], 2000);
    StartWrite(World->Client, &io[3], "out");
    StartControl(World->Client, &io[4], CTL_CODE(FILE_DEVICE_SERIAL_PORT, 7, How % 4, 0));
  }
  LowerFeed(&World->Lower, std::string(1500, 'p'));
  ThreadSettle();
  CloseClient(World);
  CloseZk(World);
  for (Io &one : io) {
    if (one.Returned == STATUS_PENDING) {
      FileCancel(&one);
      FileWait(&one);
    }
  }
}

static void Play(Input Input) {
  World world, elsewhere;
  PortDescription port;
  uint8_t how = TakeByte(&Input);
  RegistryValue value;
  for (const char *name : Names) {
    if (TakeValue(&Input, &value)) {
      port.Values[name] = value;
      RegistrySet(ServiceKey, name, value);
    }
  }
  port.HasKey = (how & 4) == 0;
  if ((how & 8) != 0) {
    SystemRoutineHide("RtlQueryRegistryValuesEx");
  }
  WorldOptions options;
  options.Buffering = (how & 16) != 0 ? DO_DIRECT_IO : DO_BUFFERED_IO;
  WorldLoad(&world, options);
  elsewhere.Lower.Name = "COM9";
  elsewhere.Lower.How[IRP_MJ_READ] = Behaviour::Queue;
  elsewhere.Lower.BufferingFlags = options.Buffering;
  LowerNext(&elsewhere.Lower);
  PortDescription other;
  other.Drivers = {world.PortDriver};
  elsewhere.Node = PnpAdd(other);
  Require(PnpStart(elsewhere.Node) == STATUS_SUCCESS, "the other port does not start");

  port.Drivers = {world.PortDriver, world.Driver};
  LowerNext(&world.Lower);
  world.Node = PnpAdd(port, &world.AddStatus);
  Require(port.HasKey || world.Node == nullptr, "a port without its key");
  if (port.HasKey) {
    Judge(port, world.AddStatus);
  }
  if (world.Node != nullptr && NT_SUCCESS(PnpStart(world.Node))) {
    UsePort(&world, how);
  }
  if (world.Node != nullptr && (how & 32) != 0) {
    PnpSurpriseRemove(world.Node);
  }
  if (world.Node != nullptr) {
    PnpRemove(std::exchange(world.Node, nullptr));
  }
  PnpRemove(elsewhere.Node);
  WorldEnd(&world);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  RequireNotStopped(ModelRun({.BreaksAllowed = true}, [=] { Play({Data, Size}); }));
  return 0;
}
