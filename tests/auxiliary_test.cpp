// The auxiliary device: when a port gets one, what comes in through it, and how it goes. The
// client's handle is then on a device that the Plug and Play manager knows nothing of.
#include <gtest/gtest.h>

#include <set>

#include "driver/event_log.h"
#include "tests/support/world.h"

constexpr ULONG Control = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 27, METHOD_BUFFERED, FILE_ANY_ACCESS);

static WorldOptions With(DosName Name, int UseEdo = -1) {
  WorldOptions options;
  options.Name = Name;
  if (UseEdo >= 0) {
    options.Values["VORLIXUseEdo"] = RegistryDword(static_cast<ULONG>(UseEdo));
  }
  return options;
}

// The usual case, found without being told.
static const WorldOptions Detected = With(DosName::SameDriver);

static void RunDetected(const std::function<void(World *)> &Scenario,
                        ULONG Buffering = DO_BUFFERED_IO, RelayPlace Relay = RelayPlace::None) {
  WorldOptions options = Detected;
  options.Buffering = Buffering;
  options.Relay = Relay;
  RunWorld(Scenario, options);
}

static PDEVICE_OBJECT Auxiliary(World *World) {
  return World->Outside.Device->AttachedDevice;
}

static PDEVICE_OBJECT ClientSide(PortExtension *Port) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  PDEVICE_OBJECT device = Port->ClientSideDevice;
  KeReleaseSpinLock(&Port->PortLock, irql);
  return device;
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

// Forgets the lookup too.
static NTSTATUS OpenAfterLookup(World *World) {
  Forget(&World->Outside);
  return OpenClient(World);
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
      {"forced, own stack opened above us", DosName::OwnStack, 1, RelayPlace::AboveTheFilter,
       false},
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
          bool outside = c.Name == DosName::SameDriver || c.Name == DosName::OtherDriver;
          if (outside) {
            // The close of the lookup's own open goes past the device that is attached by then.
            EXPECT_EQ(Trace(&world->Outside), "create cleanup close");
            EXPECT_EQ(LowerLast(&world->Outside, IRP_MJ_CLOSE).Covered, c.Made);
            EXPECT_EQ(Auxiliary(world) != nullptr, c.Made);
          }
          EXPECT_EQ(Trace(&world->Lower), "");
          EXPECT_EQ(ClientSide(port), c.Made ? Auxiliary(world) : port->Header.Device);
          EXPECT_EQ(port->OpenCount, 0);
          EXPECT_EQ(port->RequestCount, 1);
          if (c.Name != DosName::Nowhere) {
            ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
            Io write;
            EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_SUCCESS);
            EXPECT_EQ(LowerWritten(outside ? &world->Outside : &world->Lower), "x");
            EXPECT_EQ(port->OpenCount, c.Made || !outside ? 1 : 0);
          }
        },
        options);
  }
}

TEST(Auxiliary, ItsDevice) {
  for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    RunDetected(
        [=](World *world) {
          PortExtension *port = WorldPort(world);
          PDEVICE_OBJECT device = Auxiliary(world);
          ASSERT_NE(device, nullptr);
          EXPECT_EQ(NameLookup("\\Device\\VORLIXE1"), device);
          EXPECT_EQ(device->DeviceType, 27u);
          EXPECT_EQ(device->Characteristics, 0x100u);
          EXPECT_EQ(device->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO), buffering);
          EXPECT_EQ(device->Flags & (DO_POWER_PAGABLE | DO_EXCLUSIVE | DO_DEVICE_INITIALIZING),
                    static_cast<ULONG>(DO_POWER_PAGABLE | DO_EXCLUSIVE));
          EXPECT_EQ(device->StackSize, port->Header.Device->StackSize);  // deeper than the target
          EXPECT_EQ(HeaderOf(device)->OpenState, static_cast<ULONG>(OPEN_STATE_CLOSED));
          EXPECT_EQ(port->UseAuxiliary, 1u);
          EventLogEntry entry = EventLogEntries().back();
          EXPECT_EQ(entry.Code, static_cast<ULONG>(EVENT_AUXILIARY_DEVICE));
          EXPECT_EQ(entry.Device, port->Header.Device);
          EXPECT_EQ(entry.FinalStatus, STATUS_SUCCESS);
          EXPECT_EQ(entry.Strings, std::vector<std::string>{"\\DosDevices\\VORLIX_COM3"});

          World other;
          other.Driver = world->Driver;
          other.PortDriver = world->PortDriver;
          other.Lower.Name = "COM4";
          ASSERT_EQ(WorldAdd(&other, Detected), STATUS_SUCCESS);
          EXPECT_EQ(NameLookup("\\Device\\VORLIXE2"), Auxiliary(&other));
          PnpRemove(other.Node);
          EXPECT_EQ(NameLookup("\\Device\\VORLIXE2"), nullptr);
        },
        buffering);
  }
}

// --- Failing --------------------------------------------------------------------------------

struct Failure {
  const char *What;
  FaultPlan Fault;  // of no kind: the name is taken
  NTSTATUS Status;
  size_t Reports;        // of a device that could not be had
  const char *NextName;  // a number that was tried is not tried again
};

static void FailToMake(const Failure &Case, bool Again) {
  WorldOptions options = Detected;
  options.Start = false;
  RunReport report = ModelRun({}, [&] {
    World world;
    WorldLoad(&world, options);
    ASSERT_EQ(WorldAdd(&world, options), STATUS_SUCCESS);
    PortExtension *port = WorldPort(&world);
    PDEVICE_OBJECT taken = nullptr;
    if (Case.Fault.Kinds == 0) {
      UNICODE_STRING name;
      RtlInitUnicodeString(&name, L"\\Device\\VORLIXE1");
      ASSERT_EQ(
          IoCreateDevice(world.PortDriver, 0, &name, FILE_DEVICE_SERIAL_PORT, 0, FALSE, &taken),
          STATUS_SUCCESS);
    } else {
      FaultArm(Case.Fault);
    }
    EXPECT_EQ(PnpStart(world.Node), Case.Status);
    EXPECT_EQ(FaultDisarm(), taken == nullptr);
    EXPECT_EQ(EventLogCount(EVENT_AUXILIARY_DEVICE), 1u);
    EXPECT_EQ(EventLogCount(EVENT_NO_AUXILIARY_DEVICE), Case.Reports);
    if (Case.Reports != 0) {
      EventLogEntry entry = EventLogEntries().back();
      EXPECT_EQ(entry.Device, port->Header.Device);
      EXPECT_EQ(entry.FinalStatus, Case.Status);
      EXPECT_EQ(entry.Strings, std::vector<std::string>{"\\DosDevices\\VORLIX_COM3"});
    }
    EXPECT_EQ(port->Header.PnpState, static_cast<ULONG>(PNP_NEVER_STARTED));
    EXPECT_FALSE(port->StartedOnce);
    EXPECT_EQ(Trace(&world.Outside), "create cleanup close");
    EXPECT_EQ(Auxiliary(&world), nullptr);
    EXPECT_EQ(OpenZk(&world), STATUS_INSUFFICIENT_RESOURCES);
    if (Again) {
      EXPECT_EQ(PnpSend(PnpPdo(world.Node), IRP_MN_START_DEVICE), STATUS_SUCCESS);
      EXPECT_NE(Auxiliary(&world), nullptr);
      EXPECT_EQ(NameLookup(Case.NextName), Auxiliary(&world));
      EXPECT_EQ(DeviceCount(world.Driver), 3u);
      EXPECT_EQ(OpenClient(&world), STATUS_SUCCESS);
      EXPECT_EQ(port->OpenCount, 1);
    }
    if (taken != nullptr) {
      IoDeleteDevice(taken);
    }
    WorldEnd(&world);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

TEST(Auxiliary, FailuresFailTheStart) {
  static const Failure cases[] = {
      {"no memory",
       {FaultPool, FourCharacters("ZK16"), 1, false},
       STATUS_INSUFFICIENT_RESOURCES,
       1,
       "\\Device\\VORLIXE1"},
      {"no device",
       {FaultDevice, 0, 1, false},
       STATUS_INSUFFICIENT_RESOURCES,
       1,
       "\\Device\\VORLIXE2"},
      {"name taken", {0, 0, 1, false}, STATUS_OBJECT_NAME_COLLISION, 1, "\\Device\\VORLIXE2"},
      {"not attached", {FaultAttach, 0, 1, false}, STATUS_UNSUCCESSFUL, 0, "\\Device\\VORLIXE2"},
  };
  for (const Failure &c : cases) {
    for (bool again : {true, false}) {
      SCOPED_TRACE(testing::Message() << c.What << ", again " << again);
      FailToMake(c, again);
    }
  }
}

// --- Traffic --------------------------------------------------------------------------------

TEST(Auxiliary, InIdleEverythingGoesToTheTarget) {
  for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    for (ULONG dump : {0u, 2u}) {  // a dumped read goes down with a completion routine
      WorldOptions options = Detected;
      options.Buffering = buffering;
      options.Values["VORLIXPacketDump"] = RegistryDword(dump);
      RunWorld(
          [](World *world) {
            PortExtension *port = WorldPort(world);
            LowerPort *outside = &world->Outside;
            ASSERT_EQ(OpenAfterLookup(world), STATUS_SUCCESS);
            EXPECT_EQ(HeaderOf(Auxiliary(world))->OpenState, static_cast<ULONG>(OPEN_STATE_OPEN));
            EXPECT_EQ(port->Header.OpenState, static_cast<ULONG>(OPEN_STATE_CLOSED));
            EXPECT_EQ(port->StateFlags, static_cast<ULONG>(PSF_CLIENT_OPEN));
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
  }
}

TEST(Auxiliary, InNormalReadsAreThePorts) {
  for (bool zkFirst : {true, false}) {
    RunDetected([=](World *world) {
      LowerPort *outside = &world->Outside;
      Forget(outside);
      if (!zkFirst) {
        ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
      }
      GoNormal(world, zkFirst);
      // One open for both sides, wherever the first of them came in.
      EXPECT_EQ(Trace(outside), zkFirst ? "" : "create");
      EXPECT_EQ(Trace(&world->Lower), zkFirst ? "create" : "");
      Io write, zkRead, read, data;
      EXPECT_EQ(StartWrite(world->Client, &write, "out"), STATUS_SUCCESS);
      EXPECT_EQ(LowerWritten(outside), "out");
      EXPECT_EQ(LowerLast(outside, IRP_MJ_WRITE).FsContext,
                zkFirst ? &world->Lower.OpenContext : &outside->OpenContext);
      EXPECT_EQ(NextFrame(world).Payload, "out");
      // With the client's side open a read of ZK's starts none at the port.
      EXPECT_EQ(StartRead(world->Zk, &zkRead, 64), STATUS_PENDING);
      EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), 0u);
      EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
      LowerFeed(outside, "nobody's");
      EXPECT_FALSE(FileDone(&read));
      LowerFeed(&world->Lower, "in");
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
      EXPECT_EQ(read.Text(), "in");
      EXPECT_EQ(FileWait(&zkRead), STATUS_SUCCESS);
      EXPECT_EQ(DecodeFrame(zkRead).Payload, "in");
      EXPECT_EQ(StartWrite(world->Zk, &data, MakeFrame(FRAME_DATA, TAG_CLIENT, 0, "zk")),
                STATUS_SUCCESS);
      // Without it ZK's read drives.
      CloseClient(world);
      EXPECT_EQ(HeaderOf(Auxiliary(world))->OpenState, static_cast<ULONG>(OPEN_STATE_CLOSED));
      size_t before = LowerCount(&world->Lower, IRP_MJ_READ);
      EXPECT_EQ(StartRead(world->Zk, &zkRead, 64), STATUS_PENDING);
      EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_READ), before + 1);
      LowerFeed(&world->Lower, "zk's");
      EXPECT_EQ(FileWait(&zkRead), STATUS_SUCCESS);
      EXPECT_EQ(DecodeFrame(zkRead).Payload, "zk's");
    });
  }
}

// The port's stack may be deeper than the target's: the reads have locations enough all the same.
TEST(Auxiliary, WaitingReadsAreHandedToThePort) {
  for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    RunDetected(
        [](World *world) {
          GoNormal(world);
          Io reads[3];
          for (Io &read : reads) {
            EXPECT_EQ(StartRead(world->Client, &read, 3), STATUS_PENDING);
          }
          CloseZk(world);
          EXPECT_EQ(LowerHeldCount(&world->Lower), 3u);
          EXPECT_TRUE(FileCancel(&reads[1]));
          EXPECT_EQ(FileWait(&reads[1]), STATUS_CANCELLED);
          LowerFeed(&world->Lower, "onetwo");
          EXPECT_EQ(FileWait(&reads[0]), STATUS_SUCCESS);
          EXPECT_EQ(reads[0].Text(), "one");
          EXPECT_EQ(FileWait(&reads[2]), STATUS_SUCCESS);
          EXPECT_EQ(reads[2].Text(), "two");
          EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_READ), 0u);
          EXPECT_EQ(WorldPort(world)->RequestCount, 1);
        },
        buffering, RelayPlace::BelowTheFilter);
  }
}

TEST(Auxiliary, TheStreamLockParks) {
  for (bool unlock : {true, false}) {
    RunDetected([=](World *world) {
      GoNormal(world);
      ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
      Io write, control, cancelled;
      EXPECT_EQ(StartWrite(world->Client, &write, "later"), STATUS_PENDING);
      EXPECT_EQ(StartControl(world->Client, &control, Control), STATUS_PENDING);
      EXPECT_EQ(StartWrite(world->Client, &cancelled, "never"), STATUS_PENDING);
      EXPECT_TRUE(FileCancel(&cancelled));
      EXPECT_EQ(FileWait(&cancelled), STATUS_CANCELLED);
      Forget(&world->Outside);
      if (unlock) {
        EXPECT_EQ(SendCommand(world, COMMAND_UNLOCK_STREAM), STATUS_SUCCESS);
      } else {
        CloseZk(world);
      }
      EXPECT_EQ(FileWait(&write), STATUS_SUCCESS);
      EXPECT_EQ(FileWait(&control), STATUS_SUCCESS);
      EXPECT_EQ(Trace(&world->Outside), "write control");
      EXPECT_EQ(LowerWritten(&world->Outside), "later");
    });
  }
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
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(port->OpenCount, 3);
    EXPECT_EQ(PnpQueryStop(world->Node), STATUS_DEVICE_BUSY);
    EXPECT_EQ(PnpCancelStop(world->Node), STATUS_SUCCESS);
    Io write;
    EXPECT_EQ(StartWrite(own, &write, "own"), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(&world->Lower), "own");
    FileClose(own);
    EXPECT_EQ(port->OpenCount, 2);
    CloseZk(world);
    EXPECT_EQ(FileDone(&zkRead), true);
    EXPECT_EQ(port->OpenCount, 1);
    CloseClient(world);
    EXPECT_EQ(port->OpenCount, 0);
    EXPECT_EQ(port->StateFlags, 0u);
    EXPECT_EQ(port->RequestCount, 1);
    EXPECT_EQ(Trace(&world->Outside), "cleanup close");  // the last one's, where it came in
  });
}

TEST(Auxiliary, StaysOverStopAndRestart) {
  RunDetected([](World *world) {
    PDEVICE_OBJECT device = Auxiliary(world);
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(PnpQueryStop(world->Node), STATUS_SUCCESS);
      ASSERT_EQ(PnpStop(world->Node), STATUS_SUCCESS);
      EXPECT_EQ(OpenClient(world), STATUS_INSUFFICIENT_RESOURCES);
      ASSERT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
    }
    EXPECT_EQ(Auxiliary(world), device);
    EXPECT_EQ(device->AttachedDevice, nullptr);
    EXPECT_EQ(ClientSide(WorldPort(world)), device);
    EXPECT_EQ(EventLogCount(EVENT_AUXILIARY_DEVICE), 1u);
    EXPECT_EQ(Trace(&world->Outside), "create cleanup close");
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
  });
}

// A handle that is older than the device: what it sends passes through from then on, its close ends
// here, and the next open is none the worse.
TEST(Auxiliary, AHandleOpenedBefore) {
  WorldOptions options = Detected;
  options.Start = false;
  RunWorld(
      [](World *world) {
        PortExtension *port = WorldPort(world);
        ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
        Io early, write;
        EXPECT_EQ(StartRead(world->Client, &early, 8), STATUS_PENDING);  // already at the target
        ASSERT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
        ASSERT_NE(Auxiliary(world), nullptr);
        LowerFeed(&world->Outside, "early");
        EXPECT_EQ(FileWait(&early), STATUS_SUCCESS);
        EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_SUCCESS);
        EXPECT_TRUE(LowerLast(&world->Outside, IRP_MJ_WRITE).Covered);
        Forget(&world->Outside);
        CloseClient(world);
        EXPECT_EQ(Trace(&world->Outside), "");
        for (int i = 0; i < 2; ++i) {
          EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
          EXPECT_EQ(port->OpenCount, 1);
          CloseClient(world);
          EXPECT_EQ(port->OpenCount, 0);
        }
        EXPECT_EQ(Trace(&world->Outside), "create cleanup close create cleanup close");
      },
      options);
}

// A handle on the device by its own name keeps it, and the filter device behind it, until long
// after the removal, for which the manager does not wait.
TEST(Auxiliary, AHandleOnItsOwnName) {
  for (bool surprise : {false, true}) {
    RunDetected([=](World *world) {
      Forget(&world->Outside);
      HANDLE own = nullptr;
      ASSERT_EQ(FileOpen("\\Device\\VORLIXE1", Account::User, &own), STATUS_SUCCESS);
      EXPECT_EQ(OpenClient(world), STATUS_ACCESS_DENIED);
      Io write, late;
      EXPECT_EQ(StartWrite(own, &write, "x"), STATUS_SUCCESS);
      FileClose(own);
      EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
      CloseClient(world);
      ASSERT_EQ(FileOpen("\\Device\\VORLIXE1", Account::User, &own), STATUS_SUCCESS);
      EXPECT_EQ(Trace(&world->Outside), "create write cleanup close create cleanup close create");
      if (surprise) {
        PnpSurpriseRemove(world->Node);
      }
      PnpRemove(world->Node);
      world->Node = nullptr;
      EXPECT_EQ(NameLookup("\\Device\\VORLIXE1"), nullptr);
      EXPECT_EQ(StartWrite(own, &late, "late"), STATUS_DELETE_PENDING);
      FileClose(own);
      EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_CLOSE), 2u);
      EXPECT_EQ(DeviceCount(world->Driver), 0u);
      EXPECT_EQ(DeviceCount(world->PortDriver), 0u);
    });
  }
}

// --- Removal --------------------------------------------------------------------------------

enum class Busy { Idle, ReadBelow, Reads, Flush, Parked, Queried };

// What the client has under way when the port goes. Returns how that ends.
static NTSTATUS MakeBusy(World *World, Busy What, bool Surprise, Io (&Requests)[2]) {
  if (What == Busy::Reads || What == Busy::Parked) {
    GoNormal(World);
  } else {
    EXPECT_EQ(OpenClient(World), STATUS_SUCCESS);
  }
  switch (What) {
  case Busy::Idle:
    return STATUS_SUCCESS;
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
    return What == Busy::Reads ? STATUS_CANCELLED : STATUS_DEVICE_NOT_CONNECTED;
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

static void RemoveUnderAClient(Busy What, bool Surprise, bool CloseBetween) {
  RunDetected([=](World *world) {
    LowerPort *outside = &world->Outside;
    Io io[2];
    NTSTATUS expected = MakeBusy(world, What, Surprise, io);
    Forget(outside);
    if (Surprise) {
      SurpriseUnderAClient(world, What, io);
    }
    if (CloseBetween) {
      CloseClient(world);
    }
    // At once: the client's handle is not the manager's business. ZK's is.
    PnpRemove(world->Node, world->Zk != nullptr);
    world->Node = nullptr;
    CloseZk(world);
    EXPECT_EQ(DeviceCount(world->Driver), 0u);
    EXPECT_FALSE(world->Lower.OutsideWasCovered);
    if (What != Busy::Idle) {
      // The port ends the engine's read when it goes, which answers the oldest of the client's.
      EXPECT_EQ(FileWait(&io[0]),
                What == Busy::Reads && !Surprise ? STATUS_DEVICE_NOT_CONNECTED : expected);
      EXPECT_EQ(FileWait(&io[1]), expected);
    }
    if (!CloseBetween) {
      Io late;
      EXPECT_EQ(StartWrite(world->Client, &late, "to whom it belongs"), STATUS_SUCCESS);
      EXPECT_EQ(LowerWritten(outside), "to whom it belongs");
      Forget(outside);
      CloseClient(world);
    }
    ThreadSettle();  // the close may have waited for the requests
    // With ZK's side open, too, the client's close was no affair of the target's.
    bool zk = What == Busy::Reads || What == Busy::Parked;
    EXPECT_EQ(Trace(outside), CloseBetween && zk ? "" : "cleanup close");
    EXPECT_EQ(DeviceCount(world->PortDriver), 0u);
  });
}

TEST(Auxiliary, RemovalUnderAnOpenHandle) {
  for (Busy what :
       {Busy::Idle, Busy::ReadBelow, Busy::Reads, Busy::Flush, Busy::Parked, Busy::Queried}) {
    for (int how : {0, 1, 2}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(what) << " " << how);
      RemoveUnderAClient(what, how > 0, how > 1);
    }
  }
}

// --- Plug and Play --------------------------------------------------------------------------

struct PnpRow {
  UCHAR Minor;
  NTSTATUS Status;  // 1: as the request came
  int State;        // of the device afterwards; -1: unchanged
};

TEST(Auxiliary, AnswersPlugAndPlayRequests) {
  static const PnpRow rows[] = {
      {IRP_MN_START_DEVICE, 1, -1},
      {IRP_MN_QUERY_ID, 1, -1},
      {IRP_MN_QUERY_BUS_INFORMATION, 1, -1},
      {IRP_MN_QUERY_DEVICE_TEXT, 1, -1},
      {IRP_MN_QUERY_RESOURCES, 1, -1},
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
    PortExtension *port = WorldPort(world);
    PDEVICE_OBJECT device = Auxiliary(world);
    size_t changes = InterfaceStateChanges();
    for (const PnpRow &row : rows) {
      SCOPED_TRACE(static_cast<int>(row.Minor));
      ULONG before = HeaderOf(device)->PnpState;
      ULONG_PTR information = 77;
      EXPECT_EQ(
          SendPacket(device, IRP_MJ_PNP, row.Minor, nullptr, &information, STATUS_IO_DEVICE_ERROR),
          row.Status == 1 ? STATUS_IO_DEVICE_ERROR : row.Status);
      EXPECT_EQ(information, 77u);
      EXPECT_EQ(HeaderOf(device)->PnpState, row.State < 0 ? before : static_cast<ULONG>(row.State));
    }
    EXPECT_EQ(InterfaceStateChanges(), changes);
    EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_PNP), 0u);
    EXPECT_EQ(port->Header.PnpState, static_cast<ULONG>(PNP_STARTED));
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(PnpSend(device, IRP_MN_QUERY_STOP_DEVICE), STATUS_DEVICE_BUSY);

    for (DEVICE_RELATION_TYPE type : {BusRelations, TargetDeviceRelation}) {
      ULONG_PTR information = 0;
      EXPECT_EQ(
          SendPacket(
              device, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS,
              [=](PIO_STACK_LOCATION stack) { stack->Parameters.QueryDeviceRelations.Type = type; },
              &information),
          type == BusRelations ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS);
      auto *relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
      ASSERT_EQ(relations != nullptr, type == TargetDeviceRelation);
      if (relations != nullptr) {
        EXPECT_EQ(relations->Objects[0], device);
        ObDereferenceObject(relations->Objects[0]);
        ExFreePoolWithTag(relations, 0);
      }
    }
  });
}

// --- Races ----------------------------------------------------------------------------------

// A request that the I/O manager has directed at the device but that has not entered the driver
// when the device goes is beyond any driver: nothing that a client has open refers to the device.
// So what races with a removal here is past the gate already, or comes in through ZK.

static void Against(const std::function<void()> &One, const std::function<void()> &Other) {
  PKTHREAD one = ThreadStart("one", One);
  PKTHREAD other = ThreadStart("other", Other);
  ExploreWindow(true);
  ThreadJoin(one);
  ThreadJoin(other);
  ExploreWindow(false);
}

static void RemoveAgainst(World *World, const std::function<void()> &Other) {
  Against(
      [&] {
        PnpRemove(World->Node, true);
        World->Node = nullptr;
      },
      Other);
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
          ExploreSaw(OpenClient(world));
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
    std::set<std::string> seen = OutcomesOf(ExploreWorld(scenario, 1, Detected));
    if (major == IRP_MJ_FLUSH_BUFFERS) {
      EXPECT_EQ(seen, (std::set<std::string>{"success", "gone"}));
    }
  }
}

TEST(AuxiliaryRaces, RemovalAgainstTheUnlock) {
  ExploreResult result = ExploreWorld(
      [&](World *world) {
        GoNormal(world);
        SendCommand(world, COMMAND_LOCK_STREAM);
        Io write;
        StartWrite(world->Client, &write, "x");
        RemoveAgainst(world, [&] { SendCommand(world, COMMAND_UNLOCK_STREAM); });
        ExploreSaw(FileWait(&write));
      },
      1, Detected);
  EXPECT_EQ(OutcomesOf(result), (std::set<std::string>{"success", "cancelled"}));
}

// After a surprise the device is still there: new requests may come at any moment.
TEST(AuxiliaryRaces, SurpriseAgainstNewRequests) {
  for (bool close : {false, true}) {
    ExploreWorld(
        [&](World *world) {
          GoNormal(world);
          Io read, write;
          Against([&] { PnpSurpriseRemove(world->Node); },
                  [&] {
                    if (close) {
                      CloseClient(world);
                      return;
                    }
                    StartRead(world->Client, &read, 8);
                    StartWrite(world->Client, &write, "x");
                  });
          if (!close) {
            FileWait(&read);
            FileWait(&write);
          }
        },
        1, Detected);
  }
}

// A handle on the device by its own name keeps it, so that new requests may come at any moment. The
// device below is kept by nobody else.
TEST(AuxiliaryRaces, RemovalAgainstItsOwnHandle) {
  for (bool close : {false, true}) {
    auto scenario = [&](World *world) {
      HANDLE own = nullptr;
      ASSERT_EQ(FileOpen("\\Device\\VORLIXE1", Account::User, &own), STATUS_SUCCESS);
      Io write;
      RemoveAgainst(world, [&] { close ? FileClose(own) : (void)StartWrite(own, &write, "x"); });
      if (!close) {
        ExploreSaw(FileWait(&write));
        FileClose(own);
      }
    };
    ExploreResult result = ExploreWorld(scenario, 1, Detected);
    if (!close) {
      EXPECT_EQ(OutcomesOf(result), (std::set<std::string>{"success", "refused"}));
    }
  }
}

// Whether a client has the port open is asked of the device that the removal takes away.
TEST(AuxiliaryRaces, RemovalAgainstAReadOfZks) {
  ExploreWorld(
      [](World *world) {
        GoNormal(world);
        Io read;
        RemoveAgainst(world, [&] { StartRead(world->Zk, &read, 64); });
        FileWait(&read);
      },
      1, Detected);
}

// Attaching may come at any moment in the life of a handle that is older than the device. The
// target gets the handle's cleanup and close when they came before the device takes part.
TEST(AuxiliaryRaces, StartAgainstAnOlderHandle) {
  WorldOptions options = Detected;
  options.Start = false;
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
        1, options);
    EXPECT_EQ(OutcomesOf(result), close ? (std::set<std::string>{"00", "01", "10", "11"})
                                        : (std::set<std::string>{"over", "past"}));
  }
}
