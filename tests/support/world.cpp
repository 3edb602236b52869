#include "tests/support/world.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/trace.h"
#include "platform/model/cancel_lock.h"
#include "platform/model/causality.h"
#include "tests/support/failing.h"

// VORLIX_FORCE puts every run under harsher conditions: "paged" closes paged pool at
// DISPATCH_LEVEL, "dpc" has the port complete there.
[[maybe_unused]] static const bool forced = [] {
  const char *what = getenv("VORLIX_FORCE");
  ForceAlways({.PagedPool = what != nullptr && strstr(what, "paged") != nullptr});
  LowersByDpc = what != nullptr && strstr(what, "dpc") != nullptr;
  return true;
}();

void WorldLoad(World *World, const WorldOptions &Options) {
  CausalCommutes(&Trace.Lock);  // nobody reads the ring; the order of its records is no order
  for (LowerPort *port : {&World->Lower, &World->Outside}) {
    port->BufferingFlags = Options.Buffering;
    port->How[IRP_MJ_READ] = Behaviour::Queue;
  }
  World->PortDriver = DriverLoad("LowerPort", LowerEntry);
  World->Driver = DriverLoad("Vorlix", DriverEntry);
  EXPECT_EQ(EventLogEntries().back().Code, ULONG{EVENT_DRIVER_LOADED});
  if (Options.Name == DosName::OtherDriver) {
    World->OtherDriver = DriverLoad("OtherPort", LowerEntry);
  }
  if (Options.Relay != RelayPlace::None) {
    World->RelayDriver = DriverLoad("Relay", RelayEntry);
  }
}

PortExtension *WorldPort(World *World) {
  PDEVICE_OBJECT device = World->Lower.Device->AttachedDevice;
  while (device->DriverObject != World->Driver) {
    device = device->AttachedDevice;
  }
  return static_cast<PortExtension *>(device->DeviceExtension);
}

static void NameForReports(PortExtension *Port) {
  VerifierName(Port, sizeof(*Port), "the port");
  VerifierName(&Port->RequestCount, sizeof(LONG), "RequestCount");
  VerifierName(&Port->OpenCount, sizeof(LONG), "OpenCount");
  VerifierName(&Port->IdleEvent, sizeof(KEVENT), "IdleEvent");
  VerifierName(&Port->PortLock, sizeof(KSPIN_LOCK), "lock PortLock");
  VerifierName(&Port->ClientLock, sizeof(KSPIN_LOCK), "lock ClientLock");
  VerifierName(&Port->ClientPipe.Lock, sizeof(KSPIN_LOCK), "lock ClientPipe.Lock");
  VerifierName(&Port->ZkPipe.Lock, sizeof(KSPIN_LOCK), "lock ZkPipe.Lock");
  VerifierName(&Port->Engine.Lock, sizeof(KSPIN_LOCK), "lock Engine.Lock");
  VerifierName(&Port->AdmissionLock, sizeof(KSPIN_LOCK), "lock AdmissionLock");
  VerifierName(&Port->CallDown.Lock, sizeof(KSPIN_LOCK), "lock CallDown.Lock");
  VerifierName(&Port->Serializer.Lock, sizeof(KSPIN_LOCK), "lock Serializer.Lock");
}

static void DeclareLockOrder(PortExtension *Port) {
  VerifierDeclareOrder(&Port->ClientLock, CancelLock());
  VerifierDeclareOrder(&Port->AdmissionLock, CancelLock());
  VerifierDeclareOrder(&Port->ClientPipe.Lock, CancelLock());
  VerifierDeclareOrder(&Port->ZkPipe.Lock, CancelLock());
  VerifierDeclareOrder(&Port->Engine.Lock, &Port->PortLock);
}

NTSTATUS WorldAdd(World *World, const WorldOptions &Options) {
  PortDescription port;
  port.Values = Options.Values;
  port.Values.try_emplace("PortName", RegistryText(World->Lower.Name));
  port.Drivers = {World->PortDriver, World->Driver};
  if (Options.Relay != RelayPlace::None) {
    port.Drivers.insert(
        Options.Relay == RelayPlace::BelowTheFilter ? port.Drivers.end() - 1 : port.Drivers.end(),
        World->RelayDriver);
  }
  World->Lower.MakesName = World->Lower.MakesName && Options.Name == DosName::OwnStack;
  if (Options.Name == DosName::SameDriver || Options.Name == DosName::OtherDriver) {
    World->Lower.Outside = &World->Outside;
    World->Lower.OutsideDriver = World->OtherDriver;
  }
  LowerNext(&World->Lower);
  World->Node = PnpAdd(port, &World->AddStatus);
  if (World->Node == nullptr) {
    return World->AddStatus;
  }
  DeclareLockOrder(WorldPort(World));
  NameForReports(WorldPort(World));
  return Options.Start ? PnpStart(World->Node) : STATUS_SUCCESS;
}

// No event names a major function, informational ones tell of no failure, and only two have a
// unique value: an internal one, and the call-down thread's, which has its status there.
static void CheckEvents() {
  for (const EventLogEntry &entry : EventLogEntries()) {
    bool unique = entry.Code == EVENT_INTERNAL || entry.Code == EVENT_NO_THREAD;
    EXPECT_EQ(entry.MajorFunction, 0) << std::hex << entry.Code;
    EXPECT_EQ(entry.UniqueValue != 0, unique) << std::hex << entry.Code;
    EXPECT_TRUE(entry.Code >> 30 != 1 || entry.FinalStatus == STATUS_SUCCESS)
        << std::hex << entry.Code;
  }
}

void WorldEnd(World *World) {
  CloseClient(World);
  CloseZk(World);
  if (World->Node != nullptr) {
    RemovePort(World);
  }
  for (PDRIVER_OBJECT driver :
       {World->Driver, World->PortDriver, World->OtherDriver, World->RelayDriver}) {
    if (driver != nullptr) {
      DriverUnload(driver);
      if (driver == World->Driver) {
        EXPECT_EQ(EventLogEntries().back().Code, ULONG{EVENT_DRIVER_UNLOADED});
      }
    }
  }
  CheckEvents();
}

static void Play(const std::function<void(World *)> &Scenario, const WorldOptions &Options) {
  World world;
  WorldLoad(&world, Options);
  EXPECT_EQ(WorldAdd(&world, Options), STATUS_SUCCESS);
  Scenario(&world);
  ExploreWindow(false);
  ThreadSettle();  // what follows is not among what is explored
  WorldEnd(&world);
}

// VORLIX_REPLAY, the string that a failure printed, runs that one schedule again.
RunOptions ReplayOptions(const char *Replay) {
  RunOptions options;
  if (Replay != nullptr) {
    options.Schedule.How = SchedulePolicy::Kind::Replay;
    options.Schedule.Replay = Replay;
  }
  return options;
}

// VORLIX_FAIL, as a failure printed it, is one such turn alone, with VORLIX_REPLAY under that
// schedule. Asked for anything else there are none.
static void ExpectNoFailureInTurn(const std::function<void(World *)> &Scenario,
                                  unsigned Preemptions, const WorldOptions &Options) {
  bool other = getenv("VORLIX_REPLAY") != nullptr || getenv("VORLIX_EXPLORE") != nullptr ||
               getenv("VORLIX_FORCE") != nullptr || testing::Test::HasFailure() ||
               !Options.FailsInTurn;
  if (getenv("VORLIX_FAIL") != nullptr || !other) {
    std::string failed = FailInTurn(Scenario, Preemptions, Options);
    EXPECT_TRUE(failed.empty()) << failed;
  }
}

void RunWorld(const std::function<void(World *)> &Scenario, const WorldOptions &Options) {
  if (getenv("VORLIX_FAIL") == nullptr) {
    RunReport report =
        ModelRun(ReplayOptions(getenv("VORLIX_REPLAY")), [&] { Play(Scenario, Options); });
    EXPECT_FALSE(report.Stopped) << report.Text;
  }
  ExpectNoFailureInTurn(Scenario, 0, Options);
}

void StopAtFailure(const testing::TestPartResultArray &Failures, int From) {
  if (Failures.size() > From) {
    const testing::TestPartResult &first = Failures.GetTestPartResult(From);
    VerifierStop("expectation", nullptr, "%s:%d\n%s", first.file_name(), first.line_number(),
                 first.message());
  }
}

void Must(bool Holds, const char *What) {
  if (!Holds) {
    VerifierStop("expectation", nullptr, "%s", What);
  }
}

static ExploreOptions AskedFor(unsigned Preemptions) {
  ExploreOptions options;
  options.Preemptions = Preemptions;
  options.Workers = std::max(std::thread::hardware_concurrency(), 1u);
  // A slow build (sanitizers) may ask for fewer.
  if (const char *most = getenv("VORLIX_PREEMPTIONS")) {
    options.Preemptions = std::min(Preemptions, static_cast<unsigned>(atoi(most)));
  }
  const char *asked = getenv("VORLIX_EXPLORE");
  EXPECT_TRUE(asked == nullptr || ExploreRead(asked, &options)) << "VORLIX_EXPLORE=" << asked;
  return options;
}

// Plays the scenario as it is explored; Turns: with its calls failing, too.
static ExploreResult ExploreBy(const ExploreOptions &Explore, bool Turns,
                               const std::function<void(World *)> &Scenario,
                               const WorldOptions &Options) {
  const char *replay = getenv("VORLIX_REPLAY");
  ExploreResult result;
  if (getenv("VORLIX_FAIL") != nullptr) {
    ExpectNoFailureInTurn(Scenario, 0, Options);
    return result;
  }
  {
    testing::TestPartResultArray failures;
    testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    auto body = [&] {
      int before = failures.size();
      Play(Scenario, Options);
      StopAtFailure(failures, before);
    };
    if (replay == nullptr) {
      result = ModelExplore(Explore, body);
    } else {
      result.Failure = ModelRun(ReplayOptions(replay), body);
      result.Exhausted = true;
    }
  }
  if (result.Orders.size() > 1) {
    printf("  %llu runs, %zu orders\n", static_cast<unsigned long long>(result.Runs),
           result.Orders.size());
    fflush(stdout);
  }
  EXPECT_FALSE(result.Failure.Stopped) << result.Failure.Text;
  EXPECT_TRUE(result.Exhausted || result.Failure.Stopped) << "gave up after " << result.Runs;
  if (Turns) {
    ExpectNoFailureInTurn(Scenario, Explore.Preemptions > 1 ? 1 : 0, Options);
  }
  return result;
}

ExploreResult ExploreWorld(const std::function<void(World *)> &Scenario, unsigned Preemptions,
                           const WorldOptions &Options) {
  return ExploreBy(AskedFor(Preemptions), true, Scenario, Options);
}

ExploreResult ExploreWorldAs(const char *How, const std::function<void(World *)> &Scenario,
                             const WorldOptions &Options) {
  ExploreOptions explore = AskedFor(0);
  if (getenv("VORLIX_EXPLORE") == nullptr) {
    EXPECT_TRUE(ExploreRead(How, &explore)) << How;
  }
  return ExploreBy(explore, false, Scenario, Options);
}

std::set<std::string> OutcomesOf(const ExploreResult &Result) {
  std::set<std::string> outcomes;
  for (const auto &[outcome, seen] : Result.Outcomes) {
    outcomes.insert(outcome);
  }
  return outcomes;
}

std::string StatusName(NTSTATUS Status) {
  switch (Status) {
  case STATUS_SUCCESS:
    return "success";
  case STATUS_CANCELLED:
    return "cancelled";
  case STATUS_DELETE_PENDING:
    return "refused";
  case STATUS_DEVICE_NOT_CONNECTED:
    return "gone";
  default:
    return std::to_string(static_cast<ULONG>(Status));
  }
}

void ExploreSaw(NTSTATUS Status) {
  ExploreSaw(StatusName(Status));
}

void Against(const std::vector<std::function<void()>> &Parties) {
  static const char *const names[] = {"one", "other", "third", "fourth", "fifth"};
  std::vector<PKTHREAD> threads;
  for (const auto &party : Parties) {
    threads.push_back(ThreadStart(names[threads.size()], party));
  }
  ExploreWindow(true);
  for (PKTHREAD thread : threads) {
    ThreadJoin(thread);
  }
  ExploreWindow(false);
}

void Against(const std::function<void()> &One, const std::function<void()> &Other) {
  Against({One, Other});
}

void RemovePort(World *World, bool Force) {
  PnpRemove(World->Node, Force);
  World->Node = nullptr;
}

void RemoveAgainst(World *World, const std::function<void()> &Other, bool Surprise) {
  Against(
      [&] {
        if (Surprise) {
          PnpSurpriseRemove(World->Node);
        }
        RemovePort(World, true);
      },
      Other);
}

// Its requests are named after it in reports.
static NTSTATUS OpenNamed(const std::string &Path, Account Who, HANDLE *Handle, const char *Name) {
  NTSTATUS status = FileOpen(Path, Who, Handle);
  if (status == STATUS_SUCCESS) {
    VerifierName(FileObject(*Handle), sizeof(FILE_OBJECT), Name);
  }
  return status;
}

NTSTATUS OpenClient(World *World) {
  return OpenNamed("\\DosDevices\\" + World->Lower.Name, Account::User, &World->Client, "client");
}

NTSTATUS OpenZk(World *World) {
  return OpenNamed("\\DosDevices\\VORLIX_" + World->Lower.Name, Account::LocalSystem, &World->Zk,
                   "ZK");
}

void CloseClient(World *World) {
  if (World->Client != nullptr) {
    FileClose(World->Client);
    World->Client = nullptr;
  }
}

void CloseZk(World *World) {
  if (World->Zk != nullptr) {
    FileClose(World->Zk);
    World->Zk = nullptr;
  }
}

void GoNormal(World *World, bool WithClient) {
  EXPECT_EQ(OpenZk(World), STATUS_SUCCESS);
  if (WithClient) {
    EXPECT_EQ(OpenClient(World), STATUS_SUCCESS);
  }
  EXPECT_EQ(SendCommand(World, COMMAND_SET_MODE, 0, MODE_NORMAL), STATUS_SUCCESS);
  EXPECT_EQ(NextFrame(World, 64).Header.Code, 0u);
}

// When calls fail, somebody may leave a request behind, or use it again, that had not to wait.
// What was cancelled, refused or got no memory has brought nothing.
static void LetGo(Io *Io) {
  bool sent = std::exchange(Io->Sent, false);
  if (Failing() && sent) {
    FileCancel(Io);
    FileWait(Io);
  }
  if (sent && FileDone(Io) &&
      (Io->Iosb.Status == STATUS_CANCELLED || Io->Iosb.Status == STATUS_DELETE_PENDING ||
       Io->Iosb.Status == STATUS_INSUFFICIENT_RESOURCES)) {
    Must(Io->Iosb.Information == 0, "no bytes of a request that came to nothing");
  }
}

Io::~Io() {
  LetGo(this);
}

std::string Io::Text() const {
  return std::string(Buffer.begin(), Buffer.begin() + static_cast<long>(Iosb.Information));
}

NTSTATUS StartRead(HANDLE Handle, Io *Io, size_t Length) {
  LetGo(Io);
  Io->Sent = true;
  Io->Major = IRP_MJ_READ;
  Io->Buffer.assign(Length, 0xEE);
  return FileSend(Handle, Io);
}

NTSTATUS StartWrite(HANDLE Handle, Io *Io, const std::string &Bytes) {
  LetGo(Io);
  Io->Sent = true;
  Io->Major = IRP_MJ_WRITE;
  Io->Buffer.assign(Bytes.begin(), Bytes.end());
  return FileSend(Handle, Io);
}

NTSTATUS StartControl(HANDLE Handle, Io *Io, ULONG Code, const std::string &Input) {
  LetGo(Io);
  Io->Sent = true;
  Io->Major = IRP_MJ_DEVICE_CONTROL;
  Io->ControlCode = Code;
  Io->Buffer.assign(Input.begin(), Input.end());
  return FileSend(Handle, Io);
}

static NTSTATUS OwnDone(PDEVICE_OBJECT, PIRP Irp, PVOID Context) {
  auto *packet = static_cast<OwnPacket *>(Context);
  packet->Iosb = Irp->IoStatus;
  packet->Stack = __builtin_frame_address(0);
  if (packet->AtDone) {
    packet->AtDone();
  }
  KeSetEvent(&packet->Done, IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS OwnSend(PDEVICE_OBJECT Device, UCHAR Major, OwnPacket *Packet) {
  KeInitializeEvent(&Packet->Done, NotificationEvent, FALSE);
  Packet->Irp = IoAllocateIrp(Device->StackSize, FALSE);
  if (Packet->Irp == nullptr) {
    Packet->Iosb.Status = STATUS_INSUFFICIENT_RESOURCES;
    KeSetEvent(&Packet->Done, IO_NO_INCREMENT, FALSE);
    return Packet->Iosb.Status;
  }
  Packet->Irp->Cancel = Packet->Cancelled;
  Packet->Irp->IoStatus.Status = Packet->Carried;
  Packet->Irp->IoStatus.Information = 77;
  Packet->Irp->AssociatedIrp.SystemBuffer = Packet->Bytes.empty() ? nullptr : Packet->Bytes.data();
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(Packet->Irp);
  stack->MajorFunction = Major;
  stack->MinorFunction = Packet->Minor;
  stack->FileObject = Packet->File;
  if (Major == IRP_MJ_DEVICE_CONTROL) {
    stack->Parameters.DeviceIoControl.IoControlCode = Packet->ControlCode;
  } else {
    stack->Parameters.Write.Length = static_cast<ULONG>(Packet->Bytes.size());
  }
  IoSetCompletionRoutine(Packet->Irp, OwnDone, Packet, TRUE, TRUE, TRUE);
  return IofCallDriver(Device, Packet->Irp);
}

NTSTATUS OwnWait(OwnPacket *Packet) {
  KeWaitForSingleObject(&Packet->Done, Executive, KernelMode, FALSE, nullptr);
  if (Packet->Irp != nullptr) {
    IoFreeIrp(Packet->Irp);
  }
  return Packet->Iosb.Status;
}

ULONG Frame::Value() const {
  ULONG value = 0;
  if (Payload.size() >= sizeof(value)) {
    memcpy(&value, Payload.data(), sizeof(value));
  }
  return value;
}

std::string Frame::MessageText() const {
  std::string text;
  for (size_t i = sizeof(ULONG); i + 3 < Payload.size(); i += 2) {
    text += Payload[i];
  }
  return text;
}

Frame DecodeFrame(const Io &Read) {
  Frame frame;
  frame.Status = Read.Iosb.Status;
  std::string bytes = Read.Text();
  if (bytes.size() >= sizeof(frame.Header)) {
    memcpy(&frame.Header, bytes.data(), sizeof(frame.Header));
    frame.Payload = bytes.substr(sizeof(frame.Header));
    EXPECT_EQ(frame.Header.Length, bytes.size());
  }
  return frame;
}

Frame NextFrame(World *World, size_t Room) {
  Io read;
  NTSTATUS returned = StartRead(World->Zk, &read, Room);
  if (returned == STATUS_PENDING && !FileDone(&read)) {
    ADD_FAILURE() << "no frame is waiting";
    FileCancel(&read);
    FileWait(&read);
  }
  return DecodeFrame(read);
}

std::string MakeFrame(ULONG Type, ULONG Tag, ULONG Code, const std::string &Payload) {
  FrameHeader header = {};
  header.Length = static_cast<uint32_t>(sizeof(header) + Payload.size());
  header.Type = Type;
  header.Tag = Tag;
  header.Code = Code;
  return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + Payload;
}

std::string MakeArgument(ULONG Value) {
  return std::string(reinterpret_cast<const char *>(&Value), sizeof(Value));
}

NTSTATUS SendCommand(World *World, ULONG Command, ULONG Tag, ULONG Argument,
                     ULONG_PTR *Information) {
  bool takesArgument = Command == COMMAND_SET_MODE || Command == COMMAND_SET_LEVEL;
  Io write;
  StartWrite(World->Zk, &write,
             MakeFrame(FRAME_CONTROL, Tag, Command, takesArgument ? MakeArgument(Argument) : ""));
  NTSTATUS status = FileWait(&write);
  if (Information != nullptr) {
    *Information = write.Iosb.Information;
  }
  return status;
}
