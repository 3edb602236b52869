// The auxiliary device: when a port gets one, what comes in through it, and how it goes. The
// client's handle is then on a device that the Plug and Play manager knows nothing of.
#include <gtest/gtest.h>

#include <set>
#include <utility>

#include "driver/event_log.h"
#include "tests/support/world.h"

constexpr ULONG Control = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 27, METHOD_BUFFERED, FILE_ANY_ACCESS);

static WorldOptions With(DosName Name, int UseEdo) {
  WorldOptions options;
  options.Name = Name;
  if (UseEdo >= 0) {
    options.Values["VORLIXUseEdo"] = RegistryDword(static_cast<ULONG>(UseEdo));
  }
  return options;
}

// The usual case, found without being told.
static const WorldOptions Detected = {.Name = DosName::SameDriver};
static const WorldOptions DetectedLater = {.Start = false, .Name = DosName::SameDriver};

static void RunDetected(const std::function<void(World *)> &Scenario,
                        ULONG Buffering = DO_BUFFERED_IO, RelayPlace Relay = RelayPlace::None) {
  RunWorld(Scenario, {.Buffering = Buffering, .Name = DosName::SameDriver, .Relay = Relay});
}

static PDEVICE_OBJECT Auxiliary(World *World) {
  return World->Outside.Device->AttachedDevice;
}

// What a device saw, without Plug and Play and power.
static std::string Trace(LowerPort *Port) {
  static const std::map<UCHAR, std::string> names = {
      {IRP_MJ_CREATE, "create"},      {IRP_MJ_CLEANUP, "cleanup"},        {IRP_MJ_CLOSE, "close"},
      {IRP_MJ_READ, "read"},          {IRP_MJ_DEVICE_CONTROL, "control"}, {IRP_MJ_WRITE, "write"},
      {IRP_MJ_FLUSH_BUFFERS, "flush"}};
  std::string text;
  std::lock_guard<std::mutex> guard(Port->Mutex);
  for (const LowerSeen &seen : Port->Seen) {
    if (names.count(seen.Major) != 0) {
      text += (text.empty() ? "" : " ") + names.at(seen.Major);
    }
  }
  return text;
}

static void Forget(LowerPort *Port) {
  std::lock_guard<std::mutex> guard(Port->Mutex);
  Port->Seen.clear();
}

static NTSTATUS StartFlush(HANDLE Handle, Io *Io) {
  Io->Major = IRP_MJ_FLUSH_BUFFERS;
  return FileSend(Handle, Io);
}

// --- Making ---------------------------------------------------------------------------------

struct Detection {
  const char *What;
  DosName Name;
  int UseEdo;  // -1: no such value
  RelayPlace Relay;
  bool Made;
};

TEST(Auxiliary, IsMadeWhenTheNameLeadsOut) {
  static const Detection cases[] = {
      {"own stack", DosName::OwnStack, -1, RelayPlace::None, false},
      {"own stack, opened above us", DosName::OwnStack, -1, RelayPlace::AboveTheFilter, false},
      {"same driver", DosName::SameDriver, -1, RelayPlace::None, true},
      {"other driver", DosName::OtherDriver, -1, RelayPlace::None, false},
      {"nothing", DosName::Nowhere, -1, RelayPlace::None, false},
      {"forced, same driver", DosName::SameDriver, 1, RelayPlace::None, true},
      {"forced, other driver", DosName::OtherDriver, 1, RelayPlace::None, true},
      {"forced by the low byte", DosName::OtherDriver, 0x0180, RelayPlace::None, true},
      {"forced, nothing", DosName::Nowhere, 1, RelayPlace::None, false},
      {"forced, own stack", DosName::OwnStack, 1, RelayPlace::None, false},
      {"forced, opened above us", DosName::OwnStack, 1, RelayPlace::AboveTheFilter, false},
      {"forbidden", DosName::SameDriver, 0, RelayPlace::None, false},
      {"forbidden by the low byte", DosName::SameDriver, 256, RelayPlace::None, false},
  };
  for (const Detection &c : cases) {
    SCOPED_TRACE(c.What);
    WorldOptions options = With(c.Name, c.UseEdo);
    options.Relay = c.Relay;
    RunWorld(
        [&](World *world) {
          PortExtension *port = WorldPort(world);
          EXPECT_EQ(EventLogCount(EVENT_AUXILIARY_DEVICE), c.Made ? 1u : 0u);
          EXPECT_EQ(NameLookup("\\Device\\VORLIXE1") != nullptr, c.Made);
          if (c.Name == DosName::SameDriver || c.Name == DosName::OtherDriver) {
            // The close of the lookup's own open goes past the device that is attached by then.
            EXPECT_EQ(Trace(&world->Outside), "create cleanup close");
            EXPECT_EQ(LowerLast(&world->Outside, IRP_MJ_CLOSE).Covered, c.Made);
            EXPECT_EQ(Auxiliary(world) != nullptr, c.Made);
          }
          EXPECT_EQ(Trace(&world->Lower), "");
          EXPECT_EQ(port->ClientSideDevice, c.Made ? Auxiliary(world) : port->Header.Device);
          EXPECT_EQ(port->RequestCount, 1);
        },
        options);
  }
}

TEST(Auxiliary, ItsDevice) {
  RunDetected(
      [](World *world) {
        PortExtension *port = WorldPort(world);
        PDEVICE_OBJECT device = Auxiliary(world);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->DeviceType, 27u);
        EXPECT_EQ(device->Characteristics, 0x100u);
        ULONG flags = device->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_POWER_PAGABLE |
                                       DO_EXCLUSIVE | DO_DEVICE_INITIALIZING);
        EXPECT_EQ(flags, static_cast<ULONG>(DO_DIRECT_IO | DO_POWER_PAGABLE | DO_EXCLUSIVE));
        EXPECT_EQ(device->StackSize, port->Header.Device->StackSize);  // deeper than the target
        EXPECT_EQ(port->UseAuxiliary, 1u);
        EventLogEntry entry = EventLogEntries().back();
        EXPECT_EQ(entry.Device, port->Header.Device);
        EXPECT_EQ(entry.FinalStatus, STATUS_SUCCESS);
        EXPECT_EQ(entry.Strings, std::vector<std::string>{"\\DosDevices\\VORLIX_COM3"});

        ASSERT_EQ(PnpQueryStop(world->Node), STATUS_SUCCESS);
        ASSERT_EQ(PnpStop(world->Node), STATUS_SUCCESS);
        EXPECT_EQ(OpenClient(world), STATUS_INSUFFICIENT_RESOURCES);
        ASSERT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
        EXPECT_EQ(Auxiliary(world), device);
        EXPECT_EQ(device->AttachedDevice, nullptr);
        EXPECT_EQ(EventLogCount(EVENT_AUXILIARY_DEVICE), 1u);
        EXPECT_EQ(Trace(&world->Outside), "create cleanup close");
        EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
      },
      DO_DIRECT_IO);
}

struct Failure {
  const char *What;
  FaultPlan Fault;  // of no kind: the name is taken
  NTSTATUS Status;
  size_t Reports;        // of a device that could not be had
  const char *NextName;  // a number that was tried is not tried again
};

static void FailToMake(World *World, const Failure &Case, bool Again) {
  PortExtension *port = WorldPort(World);
  PDEVICE_OBJECT taken = nullptr;
  if (Case.Fault.Kinds == 0) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Device\\VORLIXE1");
    ASSERT_EQ(IoCreateDevice(World->PortDriver, 0, &name, 27, 0, FALSE, &taken), STATUS_SUCCESS);
  } else {
    FaultArm(Case.Fault);
  }
  EXPECT_EQ(PnpStart(World->Node), Case.Status);
  EXPECT_EQ(FaultDisarm(), taken == nullptr);
  EXPECT_EQ(EventLogCount(EVENT_NO_AUXILIARY_DEVICE), Case.Reports);
  EXPECT_EQ(EventLogEntries().back().FinalStatus, Case.Reports != 0 ? Case.Status : 0);
  EXPECT_EQ(port->Header.PnpState, static_cast<ULONG>(PNP_NEVER_STARTED));
  EXPECT_FALSE(port->StartedOnce);
  EXPECT_EQ(Trace(&World->Outside), "create cleanup close");
  EXPECT_EQ(Auxiliary(World), nullptr);
  EXPECT_EQ(OpenZk(World), STATUS_INSUFFICIENT_RESOURCES);
  if (Again) {
    EXPECT_EQ(PnpSend(PnpPdo(World->Node), IRP_MN_START_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(NameLookup(Case.NextName), Auxiliary(World));
    EXPECT_EQ(DeviceCount(World->Driver), 3u);
    EXPECT_EQ(OpenClient(World), STATUS_SUCCESS);
  }
  if (taken != nullptr) {
    IoDeleteDevice(taken);
  }
}

TEST(Auxiliary, FailuresFailTheStart) {
  constexpr const char *First = "\\Device\\VORLIXE1";
  constexpr const char *Second = "\\Device\\VORLIXE2";
  constexpr ULONG NameTag = FourCharacters("ZK16");
  static const Failure cases[] = {
      {"no memory", {FaultPool, NameTag}, STATUS_INSUFFICIENT_RESOURCES, 1, First},
      {"no device", {FaultDevice}, STATUS_INSUFFICIENT_RESOURCES, 1, Second},
      {"name taken", {0}, STATUS_OBJECT_NAME_COLLISION, 1, Second},
      {"name there",
       {.Kinds = FaultDevice, .DeviceStatus = STATUS_OBJECT_NAME_EXISTS},
       STATUS_OBJECT_NAME_COLLISION,
       1,
       Second},
      {"not attached", {FaultAttach}, STATUS_UNSUCCESSFUL, 0, Second},
  };
  for (const Failure &c : cases) {
    for (bool again : {true, false}) {
      SCOPED_TRACE(testing::Message() << c.What << ", again " << again);
      RunWorld([&](World *world) { FailToMake(world, c, again); }, DetectedLater);
    }
  }
}

// --- Traffic --------------------------------------------------------------------------------

TEST(Auxiliary, InIdleEverythingGoesToTheTarget) {
  // So that a read goes down with a completion routine.
  const WorldOptions options = {.Values = {{"VORLIXPacketDump", RegistryDword(2)}},
                                .Name = DosName::SameDriver};
  RunWorld(
      [](World *world) {
        PortExtension *port = WorldPort(world);
        LowerPort *outside = &world->Outside;
        Forget(outside);
        ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
        EXPECT_EQ(HeaderOf(Auxiliary(world))->OpenState, static_cast<ULONG>(OPEN_STATE_OPEN));
        EXPECT_EQ(port->Header.OpenState, static_cast<ULONG>(OPEN_STATE_CLOSED));
        EXPECT_EQ(port->LowerOpenContext, &outside->OpenContext);
        Io write, read, control, flush;
        EXPECT_EQ(StartWrite(world->Client, &write, "out"), STATUS_SUCCESS);
        EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
        LowerFeed(outside, "in");
        EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
        EXPECT_EQ(read.Text(), "in");
        EXPECT_EQ(StartControl(world->Client, &control, Control), STATUS_SUCCESS);
        EXPECT_EQ(StartFlush(world->Client, &flush), STATUS_SUCCESS);
        EXPECT_EQ(PnpQueryStop(world->Node), STATUS_DEVICE_BUSY);
        EXPECT_EQ(PnpCancelStop(world->Node), STATUS_SUCCESS);
        CloseClient(world);
        EXPECT_EQ(Trace(outside), "create write read control flush cleanup close");
        EXPECT_EQ(Trace(&world->Lower), "");
        EXPECT_EQ(HeaderOf(Auxiliary(world))->OpenRefs, 1);
        EXPECT_EQ(port->RequestCount, 1);
      },
      options);
}

// What an open left in its file object is known to the driver that left it, and to no other.
static void TrafficInNormal(World *World, bool OneDriver, bool ZkFirst) {
  LowerPort *outside = &World->Outside;
  LowerPort *opened = ZkFirst ? &World->Lower : outside;
  Forget(outside);
  if (!ZkFirst) {
    ASSERT_EQ(OpenClient(World), STATUS_SUCCESS);
  }
  GoNormal(World, ZkFirst);
  // One open for both sides, wherever the first of them came in.
  EXPECT_EQ(Trace(outside), ZkFirst ? "" : "create");
  EXPECT_EQ(Trace(&World->Lower), ZkFirst ? "create" : "");
  Io write, zkRead, read;
  EXPECT_EQ(StartWrite(World->Client, &write, "out"), STATUS_SUCCESS);
  EXPECT_EQ(LowerWritten(outside), "out");
  EXPECT_EQ(LowerLast(outside, IRP_MJ_WRITE).FsContext,
            OneDriver || !ZkFirst ? &opened->OpenContext : nullptr);
  EXPECT_EQ(NextFrame(World).Payload, "out");
  // With the client's side open a read of ZK's starts none at the port.
  EXPECT_EQ(StartRead(World->Zk, &zkRead, 64), STATUS_PENDING);
  EXPECT_EQ(LowerCount(&World->Lower, IRP_MJ_READ), 0u);
  EXPECT_EQ(StartRead(World->Client, &read, 8), STATUS_PENDING);
  EXPECT_EQ(LowerLast(&World->Lower, IRP_MJ_READ).FsContext,
            OneDriver || ZkFirst ? &opened->OpenContext : nullptr);
  LowerFeed(&World->Lower, "in");
  EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
  EXPECT_EQ(read.Text(), "in");
  EXPECT_EQ(FileWait(&zkRead), STATUS_SUCCESS);
  EXPECT_EQ(DecodeFrame(zkRead).Payload, "in");
}

TEST(Auxiliary, InNormalReadsAreThePorts) {
  for (bool oneDriver : {true, false}) {
    for (bool zkFirst : {true, false}) {
      SCOPED_TRACE(testing::Message() << oneDriver << zkFirst);
      RunWorld([=](World *world) { TrafficInNormal(world, oneDriver, zkFirst); },
               oneDriver ? Detected : With(DosName::OtherDriver, 1));
    }
  }
}

// The last close goes where the first open went, whoever's it is, with what that open left.
TEST(Auxiliary, TheLastCloseGoesWhereTheOpenWent) {
  for (DosName name : {DosName::SameDriver, DosName::OtherDriver}) {
    for (bool zkFirst : {true, false}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(name) << zkFirst);
      RunWorld(
          [=](World *world) {
            LowerPort *opened = zkFirst ? &world->Lower : &world->Outside;
            LowerPort *other = zkFirst ? &world->Outside : &world->Lower;
            Forget(&world->Outside);
            ASSERT_EQ(zkFirst ? OpenZk(world) : OpenClient(world), STATUS_SUCCESS);
            ASSERT_EQ(zkFirst ? OpenClient(world) : OpenZk(world), STATUS_SUCCESS);
            zkFirst ? CloseZk(world) : CloseClient(world);
            zkFirst ? CloseClient(world) : CloseZk(world);
            EXPECT_EQ(Trace(opened), "create close");
            EXPECT_EQ(LowerLast(opened, IRP_MJ_CLOSE).FsContext, &opened->OpenContext);
            EXPECT_EQ(Trace(other), "cleanup");  // of what that side had there
            EXPECT_EQ(WorldPort(world)->OpenCount, 0);
            // The next open is one of its own.
            EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
            CloseClient(world);
            EXPECT_EQ(LowerLast(&world->Outside, IRP_MJ_CLOSE).FsContext,
                      &world->Outside.OpenContext);
          },
          With(name, 1));
    }
  }
}

// A stack that is deeper than the port's: the closes of the others have locations enough for it.
TEST(Auxiliary, AnyCloseFitsTheTarget) {
  RunWorld(
      [](World *world) {
        world->Outside.Device->StackSize = 9;
        EXPECT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
        PDEVICE_OBJECT device = Auxiliary(world);
        ASSERT_NE(device, nullptr);
        PortExtension *port = WorldPort(world);
        for (PDEVICE_OBJECT any : {device, port->ControlDevice, port->Header.Device}) {
          EXPECT_EQ(any->StackSize, 10);
        }
      },
      DetectedLater);
}

// A handle that was opened before the device was attached is the target's own affair, also while
// somebody has the device open.
TEST(Auxiliary, TheCloseOfAnOlderHandle) {
  for (bool inUse : {false, true}) {
    RunWorld(
        [=](World *world) {
          LowerPort *outside = &world->Outside;
          EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
          HANDLE older = std::exchange(world->Client, nullptr);
          EXPECT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
          EXPECT_EQ(inUse ? OpenClient(world) : STATUS_SUCCESS, STATUS_SUCCESS);
          size_t closes = LowerCount(outside, IRP_MJ_CLOSE);
          FileClose(older);
          EXPECT_EQ(LowerCount(outside, IRP_MJ_CLOSE), closes + 1);
          EXPECT_EQ(WorldPort(world)->OpenCount, inUse ? 1 : 0);
          ASSERT_NE(Auxiliary(world), nullptr);
          EXPECT_EQ(HeaderOf(Auxiliary(world))->OpenRefs, inUse ? 2 : 1);
          HANDLE another = nullptr;
          EXPECT_EQ(FileOpen("\\DosDevices\\COM3", Account::User, &another),
                    inUse ? STATUS_ACCESS_DENIED : STATUS_SUCCESS);
          FileClose(another);
        },
        DetectedLater);
  }
}

// The port's stack may be deeper than the target's: the reads have locations enough all the same.
TEST(Auxiliary, WaitingReadsAreHandedToThePort) {
  RunDetected(
      [](World *world) {
        GoNormal(world);
        Io first, second;
        EXPECT_EQ(StartRead(world->Client, &first, 3), STATUS_PENDING);
        EXPECT_EQ(StartRead(world->Client, &second, 3), STATUS_PENDING);
        CloseZk(world);
        EXPECT_EQ(LowerHeldCount(&world->Lower), 2u);
        EXPECT_TRUE(FileCancel(&first));
        EXPECT_EQ(FileWait(&first), STATUS_CANCELLED);
        LowerFeed(&world->Lower, "two");
        EXPECT_EQ(FileWait(&second), STATUS_SUCCESS);
        EXPECT_EQ(second.Text(), "two");
        EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_READ), 0u);
        EXPECT_EQ(WorldPort(world)->RequestCount, 1);
      },
      DO_DIRECT_IO, RelayPlace::BelowTheFilter);
}

// By the device's own name, and answered with an informational success: no open, but a handle,
// whose close is ours.
TEST(Auxiliary, ItsOwnHandleOfAnInformationalSuccess) {
  RunDetected([](World *world) {
    world->Outside.Result[IRP_MJ_CREATE] = STATUS_OBJECT_NAME_EXISTS;
    HANDLE own = nullptr;
    EXPECT_EQ(FileOpen("\\Device\\VORLIXE1", Account::User, &own), STATUS_SUCCESS);
    EXPECT_EQ(WorldPort(world)->OpenCount, 0);
    Forget(&world->Outside);
    FileClose(own);
    EXPECT_EQ(Trace(&world->Outside), "");
    ASSERT_NE(Auxiliary(world), nullptr);
    EXPECT_EQ(HeaderOf(Auxiliary(world))->FilterHolds, 0);
  });
}

// A client on the port's own stack, one on the auxiliary device, and ZK: three opens of one port,
// of which the first goes down. The engine asks the auxiliary device only.
TEST(Auxiliary, ThreeOpens) {
  RunDetected([](World *world) {
    PortExtension *port = WorldPort(world);
    Forget(&world->Outside);
    HANDLE own = nullptr;
    ASSERT_EQ(FileOpen("\\Device\\LowerCOM3", Account::User, &own), STATUS_SUCCESS);
    GoNormal(world, false);
    Io zkRead;
    EXPECT_EQ(StartRead(world->Zk, &zkRead, 64), STATUS_PENDING);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 1u);
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(port->OpenCount, 3);
    Io write;
    EXPECT_EQ(StartWrite(own, &write, "own"), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(&world->Lower), "own");
    FileClose(own);
    EXPECT_EQ(port->OpenCount, 2);
    CloseZk(world);
    EXPECT_EQ(port->OpenCount, 1);
    CloseClient(world);
    EXPECT_EQ(port->OpenCount, 0);
    EXPECT_EQ(port->RequestCount, 1);
    EXPECT_EQ(Trace(&world->Outside), "cleanup");
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CLOSE), 1u);  // where the first open went
  });
}

// --- Removal --------------------------------------------------------------------------------

enum class Busy { ReadBelow, Reads, Flush, Parked, Queried };

// What the client has under way when the port goes. Returns how that ends.
static NTSTATUS MakeBusy(World *World, Busy What, bool Surprise, Io (&Requests)[2]) {
  bool zk = What == Busy::Reads || What == Busy::Parked;
  zk ? GoNormal(World) : (void)OpenClient(World);
  switch (What) {
  case Busy::Flush:
    World->Outside.How[IRP_MJ_FLUSH_BUFFERS] = Behaviour::Pend;
    StartFlush(World->Client, &Requests[0]);
    StartFlush(World->Client, &Requests[1]);
    return Surprise ? STATUS_CANCELLED : STATUS_DEVICE_NOT_CONNECTED;
  case Busy::Parked:
    EXPECT_EQ(SendCommand(World, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
    StartWrite(World->Client, &Requests[0], "x");
    StartControl(World->Client, &Requests[1], Control);
    return STATUS_CANCELLED;
  case Busy::Queried:
    EXPECT_EQ(PnpQueryRemove(World->Node), STATUS_SUCCESS);
    StartWrite(World->Client, &Requests[0], "x");
    StartFlush(World->Client, &Requests[1]);
    return STATUS_DELETE_PENDING;
  default:
    StartRead(World->Client, &Requests[0], 8);
    StartRead(World->Client, &Requests[1], 8);
    return zk ? STATUS_CANCELLED : STATUS_DEVICE_NOT_CONNECTED;
  }
}

// A tracked request holds a surprise removal until its client gives it up.
static void SurpriseUnderAClient(World *World, Busy What, Io (&Requests)[2]) {
  PKTHREAD remover = ThreadStart("surprise", [&] { PnpSurpriseRemove(World->Node); });
  ThreadSettle();
  if (What == Busy::Flush) {
    EXPECT_EQ(LowerCount(&World->Lower, IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL), 0u);
    EXPECT_TRUE(FileCancel(&Requests[0]));
    EXPECT_TRUE(FileCancel(&Requests[1]));
  }
  ThreadJoin(remover);
  EXPECT_NE(Auxiliary(World), nullptr);
  Io late;
  EXPECT_EQ(StartWrite(World->Client, &late, "late"), STATUS_DELETE_PENDING);
}

static void RemoveUnderAClient(World *World, Busy What, bool Surprise, bool CloseBetween) {
  LowerPort *outside = &World->Outside;
  Io io[2];
  NTSTATUS second = MakeBusy(World, What, Surprise, io);
  // The port ends the engine's read when it goes, which answers the oldest of the client's.
  NTSTATUS first = What == Busy::Reads && !Surprise ? STATUS_DEVICE_NOT_CONNECTED : second;
  Forget(outside);
  if (Surprise) {
    SurpriseUnderAClient(World, What, io);
  }
  if (CloseBetween) {
    CloseClient(World);
  }
  // At once: the client's handle is not the manager's business. ZK's is.
  bool zk = World->Zk != nullptr;
  PnpRemove(World->Node, zk);
  World->Node = nullptr;
  CloseZk(World);
  EXPECT_EQ(DeviceCount(World->Driver), 0u);
  EXPECT_FALSE(World->Lower.OutsideWasCovered);
  EXPECT_EQ(FileWait(&io[0]), first);
  EXPECT_EQ(FileWait(&io[1]), second);
  if (!CloseBetween) {
    Io late;
    EXPECT_EQ(StartWrite(World->Client, &late, "to whom it belongs"), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(outside), "to whom it belongs");
    Forget(outside);
    CloseClient(World);
  }
  ThreadSettle();  // the close may have waited for the requests
  // With ZK's side open, too, the client's close was no affair of the target's.
  EXPECT_EQ(Trace(outside), CloseBetween && zk ? "" : "cleanup close");
  EXPECT_EQ(DeviceCount(World->PortDriver), 0u);
}

TEST(Auxiliary, RemovalUnderAnOpenHandle) {
  for (Busy what : {Busy::ReadBelow, Busy::Reads, Busy::Flush, Busy::Parked, Busy::Queried}) {
    for (int how : {0, 1, 2}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(what) << " " << how);
      RunDetected([=](World *world) { RemoveUnderAClient(world, what, how > 0, how > 1); });
    }
  }
}

struct PnpRow {
  UCHAR Minor;
  NTSTATUS Status;
  int State;  // of the device afterwards; -1: unchanged
};

TEST(Auxiliary, AnswersPlugAndPlayRequests) {
  constexpr NTSTATUS AsItCame = STATUS_IO_DEVICE_ERROR;
  static const PnpRow rows[] = {
      {IRP_MN_START_DEVICE, AsItCame, -1},
      {IRP_MN_QUERY_ID, AsItCame, -1},
      {IRP_MN_QUERY_DEVICE_RELATIONS, AsItCame, -1},  // of the bus
      {IRP_MN_CANCEL_STOP_DEVICE, STATUS_SUCCESS, PNP_NEVER_STARTED},
      {IRP_MN_QUERY_STOP_DEVICE, STATUS_SUCCESS, PNP_STOP_PENDING},
      {IRP_MN_CANCEL_STOP_DEVICE, STATUS_SUCCESS, PNP_STARTED},
      {IRP_MN_STOP_DEVICE, STATUS_SUCCESS, PNP_STOPPED},
      {IRP_MN_QUERY_REMOVE_DEVICE, STATUS_SUCCESS, -1},
      {IRP_MN_CANCEL_REMOVE_DEVICE, STATUS_SUCCESS, -1},
      {IRP_MN_SURPRISE_REMOVAL, STATUS_SUCCESS, -1},
      {IRP_MN_REMOVE_DEVICE, STATUS_SUCCESS, -1},
  };
  RunDetected([](World *world) {
    PDEVICE_OBJECT device = Auxiliary(world);
    size_t changes = InterfaceStateChanges();
    for (const PnpRow &row : rows) {
      SCOPED_TRACE(static_cast<int>(row.Minor));
      ULONG before = HeaderOf(device)->PnpState;
      ULONG_PTR information = 77;
      EXPECT_EQ(SendPacket(device, IRP_MJ_PNP, row.Minor, nullptr, &information, AsItCame),
                row.Status);
      EXPECT_EQ(information, 77u);
      EXPECT_EQ(HeaderOf(device)->PnpState, row.State < 0 ? before : static_cast<ULONG>(row.State));
    }
    EXPECT_EQ(InterfaceStateChanges(), changes);
    EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_PNP), 0u);
    EXPECT_EQ(WorldPort(world)->Header.PnpState, static_cast<ULONG>(PNP_STARTED));

    auto ofTheTarget = [](PIO_STACK_LOCATION stack) {
      stack->Parameters.QueryDeviceRelations.Type = TargetDeviceRelation;
    };
    ULONG_PTR information = 0;
    EXPECT_EQ(
        SendPacket(device, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS, ofTheTarget, &information),
        STATUS_SUCCESS);
    auto *relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
    ASSERT_NE(relations, nullptr);
    EXPECT_EQ(relations->Objects[0], device);
    ObDereferenceObject(device);
    ExFreePoolWithTag(relations, 0);

    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(PnpSend(device, IRP_MN_QUERY_STOP_DEVICE), STATUS_DEVICE_BUSY);
  });
}

// Nothing that a client has open refers to the device, so a request that was directed at it may
// enter the driver long after it has gone, and the port with it.
TEST(AuxiliaryRaces, RemovalAgainstWhatIsOnItsWay) {
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_WRITE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_PNP,
                      IRP_MJ_POWER}) {
    SCOPED_TRACE(int{major});
    auto scenario = [&](World *world) {
      if (major != IRP_MJ_CREATE) {
        ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
      }
      PDEVICE_OBJECT device = Auxiliary(world);
      RemoveAgainst(world, [&] {
        Io io;
        if (major == IRP_MJ_CREATE) {
          ExploreSaw(OpenClient(world));
        } else if (major == IRP_MJ_CLOSE) {
          CloseClient(world);
        } else if (major == IRP_MJ_PNP) {
          SendPacket(device, major, IRP_MN_QUERY_STOP_DEVICE, nullptr);
        } else if (major == IRP_MJ_POWER) {
          SendPacket(device, major, IRP_MN_QUERY_POWER, nullptr);
        } else {
          major == IRP_MJ_WRITE ? StartWrite(world->Client, &io, "x")
                                : StartFlush(world->Client, &io);
          ExploreSaw(FileWait(&io));
        }
      });
      EXPECT_EQ(DeviceCount(world->Driver), 0u);
    };
    std::set<std::string> seen = OutcomesOf(ExploreWorld(scenario, 2, Detected));
    if (major == IRP_MJ_WRITE || major == IRP_MJ_FLUSH_BUFFERS) {
      EXPECT_EQ(seen, (std::set<std::string>{"success", "refused"}));
    }
  }
}

// Requests in flight below, coming back. A removal that does not wait for them leaves them nothing
// to come back to.
TEST(AuxiliaryRaces, RemovalAgainstWhatComesBack) {
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_FLUSH_BUFFERS}) {
    auto scenario = [&](World *world) {
      LowerPort *outside = &world->Outside;
      if (major != IRP_MJ_CREATE) {
        ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
      }
      outside->How[major] = Behaviour::Deaf;
      Io flush;
      PKTHREAD party = ThreadStart("party", [&] {
        if (major == IRP_MJ_CREATE) {
          OpenClient(world);
        } else if (major == IRP_MJ_CLOSE) {
          CloseClient(world);
        } else {
          StartFlush(world->Client, &flush);
          ExploreSaw(FileWait(&flush));
        }
      });
      ThreadSettle();
      outside->How[major] = Behaviour::Inline;
      RemoveAgainst(world, [&] { LowerFinish(outside, major); });
      ThreadJoin(party);
    };
    std::set<std::string> seen = OutcomesOf(ExploreWorld(scenario, 2, Detected));
    if (major == IRP_MJ_FLUSH_BUFFERS) {
      EXPECT_EQ(seen, (std::set<std::string>{"success", "gone"}));
    }
  }
}

TEST(AuxiliaryRaces, RemovalAgainstTheUnlock) {
  auto scenario = [](World *world) {
    GoNormal(world);
    SendCommand(world, COMMAND_LOCK_STREAM);
    Io write;
    EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_PENDING);
    RemoveAgainst(world, [&] { SendCommand(world, COMMAND_UNLOCK_STREAM); });
    NTSTATUS status = FileWait(&write);
    EXPECT_EQ(LowerWritten(&world->Outside), status == STATUS_SUCCESS ? "x" : "");
    ExploreSaw(status);
  };
  EXPECT_EQ(OutcomesOf(ExploreWorld(scenario, 2, Detected)),
            (std::set<std::string>{"success", "cancelled"}));
}

// A handle on the device by its own name keeps it, and the filter device behind it, until long
// after the removal, so that new requests may come at any moment. The device below is kept by
// nobody else.
TEST(AuxiliaryRaces, RemovalAgainstItsOwnHandle) {
  enum Party { Write, WriteUnderSurprise, Close };
  for (Party party : {Write, WriteUnderSurprise, Close}) {
    auto scenario = [&](World *world) {
      HANDLE own = nullptr;
      ASSERT_EQ(FileOpen("\\Device\\VORLIXE1", Account::User, &own), STATUS_SUCCESS);
      EXPECT_EQ(OpenClient(world), STATUS_ACCESS_DENIED);
      Forget(&world->Outside);
      Io write, late;
      RemoveAgainst(
          world, [&] { party == Close ? FileClose(own) : (void)StartWrite(own, &write, "x"); },
          party == WriteUnderSurprise);
      EXPECT_EQ(NameLookup("\\Device\\VORLIXE1"), nullptr);
      if (party != Close) {
        ExploreSaw(FileWait(&write));
        EXPECT_EQ(StartWrite(own, &late, "late"), STATUS_DELETE_PENDING);
        FileClose(own);
        EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_CLOSE), 0u);
      }
      EXPECT_EQ(DeviceCount(world->Driver), 0u);
      EXPECT_EQ(DeviceCount(world->PortDriver), 0u);
    };
    ExploreResult result = ExploreWorld(scenario, 2, Detected);
    if (party != Close) {
      EXPECT_EQ(OutcomesOf(result), (std::set<std::string>{"success", "refused"}));
    }
  }
}

// Whether a client has the port open is asked of the device that the removal takes away.
TEST(AuxiliaryRaces, RemovalAgainstAReadOfZks) {
  auto scenario = [](World *world) {
    GoNormal(world);
    Io read;
    RemoveAgainst(world, [&] { StartRead(world->Zk, &read, 64); });
    FileWait(&read);
  };
  ExploreWorld(scenario, 2, Detected);
}

// Attaching may come at any moment in the life of a handle that is older than the device. The
// target gets the handle's close, and its cleanup when it came before the device takes part.
TEST(AuxiliaryRaces, StartAgainstAnOlderHandle) {
  for (bool close : {false, true}) {
    ExploreResult result = ExploreWorld(
        [&](World *world) {
          LowerPort *outside = &world->Outside;
          ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
          Against([&] { EXPECT_EQ(PnpStart(world->Node), STATUS_SUCCESS); },
                  [&] {
                    if (close) {
                      CloseClient(world);
                      return;
                    }
                    Io write;
                    StartWrite(world->Client, &write, "x");
                    EXPECT_EQ(FileWait(&write), STATUS_SUCCESS);
                  });
          std::string below = std::to_string(LowerCount(outside, IRP_MJ_CLEANUP) - 1) +
                              std::to_string(LowerCount(outside, IRP_MJ_CLOSE) - 1);
          ExploreSaw(close ? below : LowerLast(outside, IRP_MJ_WRITE).Covered ? "over" : "past");
          EXPECT_EQ(LowerWritten(outside), close ? "" : "x");
          CloseClient(world);
          EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
          EXPECT_EQ(WorldPort(world)->OpenCount, 1);
        },
        2, DetectedLater);
    EXPECT_EQ(OutcomesOf(result), close ? (std::set<std::string>{"01", "11"})
                                        : (std::set<std::string>{"over", "past"}));
  }
}
