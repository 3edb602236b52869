// Requests, cancels, Plug and Play, power and faults in any sequence and under any schedule. An
// input is a program: its first bytes choose the ports and the schedule, each further byte is a
// step for one of five actors, which run as threads of one boot of the model. Whatever they leave
// under way is brought to its end afterwards as a system would do it, and then nothing may be left.
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz/input.h"
#include "platform/model/devices.h"
#include "tests/support/world.h"

constexpr size_t ActorCount = 5;
constexpr size_t StepsMost = 96;

// What the real manager keeps apart; a removal of a port that somebody has open comes only after a
// surprise removal, and once the handles are closed.
enum class Phase { Absent, Started, StopQueried, Stopped, RemoveQueried, Gone };

struct Port {
  ::World World;
  WorldOptions Options;
  Phase Phase = Phase::Absent;
  unsigned Opens = 0;  // open, or being opened or closed
  unsigned Powers = 0;
  std::deque<Io> Ios;  // all that were ever sent
};

struct Step {
  uint8_t Do;
  ::Port *Port;
  uint8_t How;
};

struct Program {
  std::unique_ptr<Port> Ports[2];
  size_t PortCount = 1;
  std::vector<Step> Steps[ActorCount];
  KEVENT Changed;         // Opens or Powers went down
  unsigned Settling = 0;  // actors
  bool Ending = false;    // no more steps
};
static Program *Now;

static void AwaitNone(const unsigned *Count) {
  while (*Count != 0) {
    KeWaitForSingleObject(&Now->Changed, Executive, KernelMode, FALSE, nullptr);
  }
}
static void CountDown(unsigned *Count) {
  --*Count;
  KeSetEvent(&Now->Changed, IO_NO_INCREMENT, FALSE);
}

// ---- The client and ZK ----

static void Close(Port *Port, HANDLE *Handle) {
  if (HANDLE handle = std::exchange(*Handle, nullptr)) {
    FileClose(handle);
    CountDown(&Port->Opens);
  }
}

// A second open is refused; when it is granted all the same, it is closed.
static void Open(Port *Port, HANDLE *Handle, bool Zk) {
  if (Port->Phase == Phase::Absent) {
    return;  // the manager lets nobody in any more
  }
  ++Port->Opens;
  HANDLE handle;
  std::string name = (Zk ? "\\DosDevices\\VORLIX_" : "\\DosDevices\\") + Port->World.Lower.Name;
  NTSTATUS status = FileOpen(name, Zk ? Account::LocalSystem : Account::User, &handle);
  if (status == STATUS_SUCCESS && *Handle == nullptr) {
    *Handle = handle;
    return;
  }
  if (status == STATUS_SUCCESS) {
    FileClose(handle);
  }
  CountDown(&Port->Opens);
}

static Io *NewIo(Port *Port) {
  return &Port->Ios.emplace_back();
}

static void SendOther(HANDLE Handle, Io *Io, uint8_t How) {
  static const UCHAR majors[] = {IRP_MJ_FLUSH_BUFFERS, IRP_MJ_INTERNAL_DEVICE_CONTROL,
                                 IRP_MJ_QUERY_INFORMATION, IRP_MJ_SET_INFORMATION};
  Io->Major = majors[How % 4];
  Io->Buffer.assign(8, How);
  Io->OutputBytes = How >> 2;
  FileSend(Handle, Io);
}

static void ClientStep(const Step &Step) {
  Port *port = Step.Port;
  HANDLE *handle = &port->World.Client;
  if (Step.Do == 0) {
    Open(port, handle, false);
  } else if (Step.Do == 1) {
    Close(port, handle);
  } else if (*handle != nullptr && Step.Do < 4) {
    StartRead(*handle, NewIo(port), Step.How % 20);
  } else if (*handle != nullptr && Step.Do == 4) {
    StartWrite(*handle, NewIo(port), std::string(Step.How % 20, 'c'));
  } else if (*handle != nullptr && Step.Do == 5) {
    StartControl(*handle, NewIo(port), CTL_CODE(FILE_DEVICE_SERIAL_PORT, 7, Step.How % 4, 0), "in");
  } else if (*handle != nullptr && Step.Do == 6) {
    SendOther(*handle, NewIo(port), Step.How);
  } else if (*handle != nullptr) {
    FileCancelAll(*handle);
  }
}

static void ZkStep(const Step &Step) {
  static const uint8_t commands[] = {COMMAND_SET_MODE,      COMMAND_SET_MODE,  COMMAND_LOCK_STREAM,
                                     COMMAND_UNLOCK_STREAM, COMMAND_SET_LEVEL, COMMAND_GET_MODE};
  Port *port = Step.Port;
  HANDLE *handle = &port->World.Zk;
  if (Step.Do == 0) {
    Open(port, handle, true);
  } else if (Step.Do == 1) {
    Close(port, handle);
  } else if (*handle != nullptr && Step.Do < 4) {
    StartRead(*handle, NewIo(port), Step.How < 16 ? Step.How * 2 : 2200);
  } else if (*handle != nullptr && Step.Do == 4) {
    StartWrite(*handle, NewIo(port),
               MakeFrame(FRAME_DATA, Step.How % 4, 0, std::string(Step.How % 16, 'z')));
  } else if (*handle != nullptr && Step.Do == 5) {
    StartWrite(*handle, NewIo(port),
               MakeFrame(FRAME_CONTROL, 0, commands[Step.How % sizeof(commands)],
                         MakeArgument((Step.How / sizeof(commands)) % 8)));
  } else if (*handle != nullptr && Step.Do == 6) {
    SendOther(*handle, NewIo(port), Step.How);
  } else if (*handle != nullptr) {
    // NORMAL is where most happens.
    StartWrite(*handle, NewIo(port),
               MakeFrame(FRAME_CONTROL, 0, COMMAND_SET_MODE, MakeArgument(MODE_NORMAL)));
  }
}

// ---- The port, and cancels ----

constexpr UCHAR Held[] = {
    IRP_MJ_READ,          IRP_MJ_WRITE, IRP_MJ_CREATE,  IRP_MJ_DEVICE_CONTROL,
    IRP_MJ_FLUSH_BUFFERS, IRP_MJ_CLOSE, IRP_MJ_CLEANUP, IRP_MJ_INTERNAL_DEVICE_CONTROL};

// What the drivers above may not be failed with stays a success.
static bool MayFail(UCHAR Major) {
  return Major != IRP_MJ_CLOSE && Major != IRP_MJ_CLEANUP;
}

static void PortStep(const Step &Step) {
  Port *port = Step.Port;
  LowerPort *lower = &port->World.Lower;
  UCHAR major = Held[Step.How % 8];
  uint8_t how = Step.How / 8;
  if (Step.Do < 2 && lower->Held.Flink != nullptr) {
    LowerFeed(lower, std::string(Step.How % 24, 'p'));
  } else if (Step.Do < 4 && lower->Held.Flink != nullptr) {
    LowerFinish(lower, major,
                how % 4 == 0 && MayFail(major) ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS,
                std::string(how % 8, 'f'));
  } else if (Step.Do == 4) {
    lower->How[major] = static_cast<Behaviour>(how % (major == IRP_MJ_READ ? 4 : 3));
  } else if (Step.Do == 5) {
    lower->Result[major] =
        MayFail(major) && how % 2 != 0 ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS;
    lower->AtDispatchLevel = (how & 2) != 0;
  } else if (!port->Ios.empty()) {
    FileCancel(&port->Ios[Step.How % port->Ios.size()]);
  }
}

// ---- The Plug and Play manager ----

static void StartPort(Port *Port) {
  bool again = Port->Phase == Phase::Stopped;
  if (PnpStart(Port->World.Node) == STATUS_SUCCESS) {
    Port->Phase = Phase::Started;
  } else if (again) {
    PnpSurpriseRemove(Port->World.Node);
    Port->Phase = Phase::Gone;
  } else {
    Port->Phase = Phase::Gone;
  }
}

static void AddPort(Port *Port) {
  Port->Options.Start = false;
  if (WorldAdd(&Port->World, Port->Options) == STATUS_SUCCESS) {
    Port->Phase = Phase::Started;  // opens may be tried
    StartPort(Port);
  }
}

// A close may still be on its way after its handle is gone.
static bool IsOpen(Port *Port) {
  unsigned opens = Port->Opens;
  for (PDEVICE_OBJECT bottom : {PnpPdo(Port->World.Node), WorldPort(&Port->World)->ControlDevice}) {
    for (PDEVICE_OBJECT at = bottom; at != nullptr; at = at->AttachedDevice) {
      opens += DeviceShadowOf(at)->Opens;
    }
  }
  return opens != 0;
}

static void CancelQuery(Port *Port) {
  if (Port->Phase == Phase::StopQueried) {
    PnpCancelStop(Port->World.Node);
    Port->Phase = Phase::Started;
  } else if (Port->Phase == Phase::RemoveQueried) {
    PnpCancelRemove(Port->World.Node);
    Port->Phase = Phase::Started;
  }
}

// Only once nobody has it open; from then on nobody is let in. Nothing stays queried meanwhile.
static void RemovePort(Port *Port) {
  for (size_t i = 0; i < Now->PortCount && IsOpen(Port); ++i) {
    CancelQuery(Now->Ports[i].get());
  }
  AwaitNone(&Port->Opens);
  Port->Phase = Phase::Absent;
  AwaitNone(&Port->Powers);
  PnpRemove(Port->World.Node);
  Port->World.Node = nullptr;
}

static void QueryStop(Port *Port) {
  if (PnpQueryStop(Port->World.Node) == STATUS_SUCCESS) {
    Port->Phase = Phase::StopQueried;
  } else {
    PnpCancelStop(Port->World.Node);
  }
}

static void Pull(Port *Port) {
  PnpSurpriseRemove(Port->World.Node);
  Port->Phase = Phase::Gone;
}

// What a query allows; otherwise it is taken back.
static void DoQueried(Port *Port) {
  if (Port->Phase == Phase::StopQueried) {
    PnpStop(Port->World.Node);
    Port->Phase = Phase::Stopped;
  } else if (!IsOpen(Port)) {
    RemovePort(Port);
  } else {
    CancelQuery(Port);
  }
}

static void QueryRelations(Port *Port) {
  ULONG_PTR answer = 0;
  NTSTATUS status = PnpSend(PnpPdo(Port->World.Node), IRP_MN_QUERY_DEVICE_RELATIONS, &answer);
  if (NT_SUCCESS(status) && answer != 0) {
    auto *relations = reinterpret_cast<DEVICE_RELATIONS *>(answer);
    for (ULONG i = 0; i < relations->Count; ++i) {
      ObDereferenceObject(relations->Objects[i]);
    }
    ExFreePoolWithTag(relations, 0);
  }
}

static void PnpStep(const Step &Step) {
  Port *port = Step.Port;
  bool queried = port->Phase == Phase::StopQueried || port->Phase == Phase::RemoveQueried;
  port->World.Lower.StartResult = Step.Do == 7 ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
  if (port->Phase == Phase::Absent) {
    AddPort(port);
  } else if (port->Phase == Phase::Gone) {
    RemovePort(port);
  } else if (port->Phase == Phase::Stopped && Step.Do != 0) {
    StartPort(port);
  } else if (Step.Do == 0) {
    Pull(port);
  } else if (queried && Step.Do < 4) {
    CancelQuery(port);
  } else if (queried) {
    DoQueried(port);
  } else if (Step.Do < 4) {
    QueryStop(port);
  } else if (Step.Do < 7) {
    if (PnpQueryRemove(port->World.Node, true) == STATUS_SUCCESS) {
      port->Phase = Phase::RemoveQueried;
    }
  } else {
    QueryRelations(port);
  }
}

// ---- Power, and faults ----

static void PowerStep(const Step &Step) {
  // A mapping that fails is not for the scripted port, which needs one.
  static const uint32_t kinds[] = {FaultPool, FaultIrp | FaultMdl, FaultEverything & ~FaultMapping,
                                   FaultEventLog | FaultWait};
  Port *port = Step.Port;
  if (Step.Do >= 4) {
    FaultArm({kinds[Step.How % 4], 0, 1u + Step.How / 8, (Step.How & 4) != 0});
    return;
  }
  if (port->Phase == Phase::Absent) {
    return;
  }
  ++port->Powers;
  PDEVICE_OBJECT device = PnpPdo(port->World.Node);
  if (Step.Do == 0) {
    PnpSetSystemPower(device, static_cast<SYSTEM_POWER_STATE>(1 + Step.How % 5));
  } else if (Step.Do == 1) {
    PnpQueryDevicePower(device, static_cast<DEVICE_POWER_STATE>(1 + Step.How % 4));
  } else {
    PnpSetDevicePower(device, static_cast<DEVICE_POWER_STATE>(1 + Step.How % 4));
  }
  CountDown(&port->Powers);
}

// ---- A run ----

static void Act(size_t Actor) {
  using Routine = void (*)(const Step &);
  static const Routine routines[ActorCount] = {ClientStep, ZkStep, PortStep, PnpStep, PowerStep};
  for (const Step &step : Now->Steps[Actor]) {
    if ((step.Do & 8) != 0) {
      ++Now->Settling;
      ThreadSettle();  // after the others
      --Now->Settling;
    }
    if (Now->Ending) {
      return;
    }
    Step plain = step;
    plain.Do &= 7;
    routines[Actor](plain);
  }
}

// The port gives back what it holds, from here on at once, and the faults are over.
static void Unblock(Port *Port) {
  LowerPort *lower = &Port->World.Lower;
  for (Behaviour &how : lower->How) {
    how = Behaviour::Inline;
  }
  memset(lower->Result, 0, sizeof(lower->Result));
  for (UCHAR major : Held) {
    while (lower->Held.Flink != nullptr && LowerFinish(lower, major)) {
    }
  }
}

// Actors wait for each other in ways that end: for the port, for the manager to take back what it
// asked, for handles to be closed, for cancels.
static void BringToEnd(PKTHREAD *Threads) {
  do {
    ThreadSettle();
  } while (Now->Settling != 0);
  Now->Ending = true;
  FaultDisarm();
  auto each = [](void (*Do)(Port *)) {
    for (size_t i = 0; i < Now->PortCount; ++i) {
      Do(Now->Ports[i].get());
    }
  };
  each(Unblock);
  ThreadSettle();
  // The manager waits for nothing but handles by now: these are closed behind it.
  PKTHREAD closer = ThreadStart("closer", [&] {
    ThreadJoin(Threads[0]);
    ThreadJoin(Threads[1]);
    each([](Port *p) { Close(p, &p->World.Client), Close(p, &p->World.Zk); });
  });
  ThreadSettle();
  ThreadJoin(Threads[3]);
  each(CancelQuery);
  ThreadJoin(closer);
  ThreadJoin(Threads[2]);
  ThreadJoin(Threads[4]);
  each([](Port *p) {
    for (Io &io : p->Ios) {
      FileCancel(&io);
      FileWait(&io);
    }
  });
}

static void Finish(Port *Port) {
  bool started = Port->Phase == Phase::Started;
  Require(!started || WorldPort(&Port->World)->RequestCount == 1, "the port is not idle");
  if (Port->Phase != Phase::Absent) {
    RemovePort(Port);
  }
}

static void Play() {
  World *first = &Now->Ports[0]->World;
  KeInitializeEvent(&Now->Changed, SynchronizationEvent, FALSE);
  WorldLoad(first, Now->Ports[0]->Options);
  for (size_t i = 0; i < Now->PortCount; ++i) {
    Now->Ports[i]->World.Driver = first->Driver;
    Now->Ports[i]->World.PortDriver = first->PortDriver;
    AddPort(Now->Ports[i].get());
  }
  static const char *const names[] = {"client", "zk", "port", "pnp", "power"};
  PKTHREAD threads[ActorCount];
  for (size_t i = 0; i < ActorCount; ++i) {
    threads[i] = ThreadStart(names[i], [i] { Act(i); });
  }
  BringToEnd(threads);
  ThreadSettle();
  for (size_t i = 0; i < Now->PortCount; ++i) {
    Finish(Now->Ports[i].get());
  }
  WorldEnd(first);
}

static void MakePort(std::unique_ptr<Port> *Port, size_t Number, bool Direct) {
  *Port = std::make_unique<::Port>();
  (*Port)->Options.Buffering = Direct ? DO_DIRECT_IO : DO_BUFFERED_IO;
  (*Port)->World.Lower.BufferingFlags = (*Port)->Options.Buffering;
  (*Port)->World.Lower.How[IRP_MJ_READ] = Behaviour::Queue;
  (*Port)->World.Lower.Name = "COM" + std::to_string(Number + 3);
}

// A step is a byte for the actor, the port and what to do, and one for how.
static void Compile(Input *Input, Program *Program) {
  for (size_t n = 0; n < StepsMost && Input->Left > 0; ++n) {
    unsigned what = TakeByte(Input);
    uint8_t how = TakeByte(Input);
    size_t actor = what % ActorCount;
    unsigned rest = what / ActorCount;  // 0 to 51
    size_t port = rest / 16 == 3 ? Program->PortCount - 1 : 0;
    Program->Steps[actor].push_back(
        {static_cast<uint8_t>(rest % 16), Program->Ports[port].get(), how});
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  Input input = {Data, Size};
  Program program;
  RunOptions options;
  uint8_t setup = TakeByte(&input);
  program.PortCount = 1 + (setup & 1);
  for (size_t i = 0; i < program.PortCount; ++i) {
    MakePort(&program.Ports[i], i, (setup & 2) != 0);
  }
  options.Schedule.How =
      (setup & 4) != 0 ? SchedulePolicy::Kind::Random : SchedulePolicy::Kind::Fifo;
  options.Schedule.Seed = Take(&input, 2);
  if ((setup & 8) != 0) {  // most happens with both open in NORMAL
    program.Steps[0] = {{0, program.Ports[0].get(), 0}};
    program.Steps[1] = {{0, program.Ports[0].get(), 0}, {7, program.Ports[0].get(), 0}};
  }
  Compile(&input, &program);
  Now = &program;
  RequireNotStopped(ModelRun(options, Play));
  return 0;
}
