// The life of a port under the Plug and Play manager: start, stop, the raw child, removal.
#include <gtest/gtest.h>

#include <cstring>

#include "driver/event_log.h"
#include "tests/support/world.h"

static const GUID PortInterface = {
    0x2046FBBA, 0x7912, 0x40B2, {0xAD, 0xCB, 0x73, 0x16, 0x13, 0x4A, 0xEB, 0x5E}};
static const GUID BusGuid = {
    0x5AEF25A0, 0xABAF, 0x419C, {0xBC, 0x99, 0x8A, 0x24, 0x16, 0x46, 0xB2, 0xC7}};
static const GUID ControlInterface = {
    0x57089BA1, 0x471C, 0x4885, {0x9A, 0xCC, 0x8E, 0x40, 0x7B, 0x33, 0xBD, 0xE5}};

static NTSTATUS AskId(PDEVICE_OBJECT Device, BUS_QUERY_ID_TYPE Type, ULONG_PTR *Answer) {
  return SendPacket(
      Device, IRP_MJ_PNP, IRP_MN_QUERY_ID,
      [=](PIO_STACK_LOCATION stack) { stack->Parameters.QueryId.IdType = Type; }, Answer);
}

static NTSTATUS AskRelations(PDEVICE_OBJECT Device, DEVICE_RELATION_TYPE Type, ULONG_PTR *Answer) {
  return SendPacket(
      Device, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS,
      [=](PIO_STACK_LOCATION stack) { stack->Parameters.QueryDeviceRelations.Type = Type; },
      Answer);
}

TEST(Pnp, TheControlDeviceIsARawChild) {
  RunWorld([](World *world) {
    std::vector<PDEVICE_OBJECT> children = PnpChildren(world->Node);
    ASSERT_EQ(children.size(), 1u);
    PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
    EXPECT_EQ(children[0], control);
    EXPECT_EQ(InterfacesEnabled(PortInterface).size(), 1u);
    EXPECT_EQ(InterfacesEnabled(ControlInterface).size(), 1u);

    auto id = [&](BUS_QUERY_ID_TYPE type, size_t bytes) {
      ULONG_PTR information = 0;
      EXPECT_EQ(AskId(control, type, &information), STATUS_SUCCESS);
      std::u16string text;
      if (information != 0) {
        text.assign(reinterpret_cast<const char16_t *>(information), bytes / 2);
        ExFreePoolWithTag(reinterpret_cast<PVOID>(information), 0);
      }
      return text;
    };
    EXPECT_EQ(id(BusQueryDeviceID, 36), std::u16string(u"VORLIX\\VXRawPDO\0\0\0", 18));
    EXPECT_EQ(id(BusQueryHardwareIDs, 32), std::u16string(u"VORLIX_RAWPDO\0\0\0", 16));
    EXPECT_EQ(id(BusQueryCompatibleIDs, 0), u"");
    EXPECT_EQ(id(BusQueryInstanceID, 10), std::u16string(u"0000\0", 5));

    DEVICE_CAPABILITIES capabilities = {};
    capabilities.UniqueID = 1;
    capabilities.D1Latency = capabilities.D2Latency = capabilities.D3Latency = 5;
    capabilities.Address = 77;
    EXPECT_EQ(SendPacket(control, IRP_MJ_PNP, IRP_MN_QUERY_CAPABILITIES,
                         [&](PIO_STACK_LOCATION stack) {
                           stack->Parameters.DeviceCapabilities.Capabilities = &capabilities;
                         }),
              STATUS_SUCCESS);
    EXPECT_EQ(capabilities.Size, 64u);
    EXPECT_TRUE(capabilities.RawDeviceOK && capabilities.SilentInstall &&
                capabilities.SurpriseRemovalOK && !capabilities.UniqueID);
    EXPECT_EQ(capabilities.Address, 77u);
    EXPECT_EQ(capabilities.D1Latency + capabilities.D2Latency + capabilities.D3Latency, 0u);
    EXPECT_EQ(capabilities.SystemWake, PowerSystemSleeping3);  // what the bus says of the port
    EXPECT_EQ(capabilities.DeviceWake, PowerDeviceD2);
  });
}

// The child keeps a state of its own, which opens nothing and closes nothing.
TEST(Pnp, TheRawChildStops) {
  RunWorld([](World *world) {
    PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
    ULONG *state = &WorldPort(world)->Control->Header.PnpState;
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(PnpSend(control, IRP_MN_QUERY_STOP_DEVICE), STATUS_DEVICE_BUSY);
    EXPECT_EQ(PnpSend(control, IRP_MN_CANCEL_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(*state, static_cast<ULONG>(PNP_NEVER_STARTED));
    CloseClient(world);
    EXPECT_EQ(PnpSend(control, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(*state, static_cast<ULONG>(PNP_STOP_PENDING));
    EXPECT_EQ(PnpSend(control, IRP_MN_CANCEL_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(*state, static_cast<ULONG>(PNP_STARTED));
    EXPECT_EQ(PnpSend(control, IRP_MN_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(*state, static_cast<ULONG>(PNP_STOPPED));
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
  });
}

// An identifier that got no memory when the device was made has no answer: a manager that is given
// success expects one. The compatible identifiers, of which there are none, succeed without.
TEST(Pnp, AnIdentifierWithoutMemory) {
  for (uint64_t nth : {2u, 3u}) {  // after the name of the driver below: hardware IDs, device ID
    RunReport report = ModelRun({}, [&] {
      World world;
      WorldLoad(&world);
      FaultArm({FaultPool, FourCharacters("ZK19"), nth, false});
      EXPECT_EQ(WorldAdd(&world), STATUS_SUCCESS);
      EXPECT_TRUE(FaultDisarm());
      BUS_QUERY_ID_TYPE missing = nth == 2 ? BusQueryHardwareIDs : BusQueryDeviceID;
      for (BUS_QUERY_ID_TYPE type :
           {BusQueryDeviceID, BusQueryHardwareIDs, BusQueryCompatibleIDs}) {
        ULONG_PTR information = 0;
        EXPECT_EQ(AskId(WorldPort(&world)->ControlDevice, type, &information),
                  type == missing ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS);
        EXPECT_EQ(information != 0, type != missing && type != BusQueryCompatibleIDs);
        if (information != 0) {
          ExFreePoolWithTag(reinterpret_cast<PVOID>(information), 0);
        }
      }
      EXPECT_EQ(OpenZk(&world), STATUS_SUCCESS);
      WorldEnd(&world);
    });
    EXPECT_FALSE(report.Stopped) << report.Text;
  }
}

// Children that the request brings stay in front, and their block is freed (the pool is checked).
TEST(Pnp, RelationsKeepWhatTheyCarry) {
  RunWorld([](World *world) {
    const std::vector<PDEVICE_OBJECT> children = {PnpPdo(world->Node), world->Lower.Device,
                                                  WorldPort(world)->Header.Device};  // any will do
    auto *carried = static_cast<PDEVICE_RELATIONS>(ExAllocatePoolWithTag(
        PagedPool, sizeof(DEVICE_RELATIONS) + 2 * sizeof(PDEVICE_OBJECT), FourCharacters("Test")));
    ASSERT_NE(carried, nullptr);
    carried->Count = 3;
    std::copy(children.begin(), children.end(), carried->Objects);
    ULONG_PTR information = reinterpret_cast<ULONG_PTR>(carried);
    EXPECT_EQ(PnpSend(WorldPort(world)->Header.Device, IRP_MN_QUERY_DEVICE_RELATIONS, &information),
              STATUS_SUCCESS);
    auto *relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
    EXPECT_NE(relations, carried);
    EXPECT_EQ(relations->Count, 4u);
    EXPECT_TRUE(std::equal(children.begin(), children.end(), relations->Objects));
    if (relations->Count == 4) {
      EXPECT_EQ(relations->Objects[3], WorldPort(world)->ControlDevice);
      ObDereferenceObject(relations->Objects[3]);
    }
    ExFreePoolWithTag(relations, 0);
  });
}

// Start, capabilities and removal that the port takes its time for.
TEST(Pnp, PendingBelow) {
  RunWorld(
      [](World *world) {
        PortExtension *port = WorldPort(world);
        world->Lower.How[IRP_MJ_PNP] = Behaviour::Deaf;
        bool started = false;
        PKTHREAD starter = ThreadStart("start", [&] {
          EXPECT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
          started = true;
        });
        ThreadSettle();
        EXPECT_EQ(OpenClient(world), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_PNP));  // the start
        ThreadSettle();
        EXPECT_EQ(port->SystemWake, 0u);
        EXPECT_FALSE(started);
        EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_PNP));  // the capabilities
        ThreadJoin(starter);
        EXPECT_EQ(port->SystemWake, static_cast<ULONG>(PowerSystemSleeping3));
        EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
        CloseClient(world);

        // The filter does not wait for the removal: it goes, and the request is still pending.
        PKTHREAD remover = ThreadStart("remove", [=] { RemovePort(world); });
        ThreadSettle();
        EXPECT_EQ(DeviceCount(world->Driver), 0u);
        EXPECT_NE(world->Node, nullptr);
        EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_PNP));
        ThreadJoin(remover);
      },
      {.Start = false});
}

// Requests of the child that get no memory, or that it does not know, answer as the manager
// expects.
TEST(Pnp, RawChildAnswersUnderPressure) {
  RunWorld([](World *world) {
    PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
    for (UCHAR minor : {IRP_MN_QUERY_ID, IRP_MN_QUERY_BUS_INFORMATION}) {
      FaultArm({FaultPool, FourCharacters("ZK21"), 1, false});
      ULONG_PTR information = 0;
      EXPECT_EQ(SendPacket(control, IRP_MJ_PNP, minor, nullptr, &information),
                STATUS_INSUFFICIENT_RESOURCES);
      EXPECT_EQ(information, 0u);
      EXPECT_TRUE(FaultDisarm());
    }
    EXPECT_EQ(PnpSend(control, IRP_MN_QUERY_DEVICE_TEXT), STATUS_NOT_SUPPORTED);
    ULONG_PTR information = 0;
    EXPECT_EQ(PnpSend(control, IRP_MN_QUERY_BUS_INFORMATION, &information), STATUS_SUCCESS);
    auto *bus = reinterpret_cast<PPNP_BUS_INFORMATION>(information);
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(memcmp(&bus->BusTypeGuid, &BusGuid, sizeof(GUID)), 0);
    EXPECT_EQ(bus->LegacyBusType, PNPBus);
    EXPECT_EQ(bus->BusNumber, 0u);
    ExFreePoolWithTag(bus, 0);
    ULONG_PTR relations = 0;
    EXPECT_EQ(AskRelations(control, TargetDeviceRelation, &relations), STATUS_SUCCESS);
    auto *target = reinterpret_cast<PDEVICE_RELATIONS>(relations);
    ASSERT_NE(target, nullptr);
    EXPECT_EQ(target->Count, 1u);
    EXPECT_EQ(target->Objects[0], control);
    ObDereferenceObject(target->Objects[0]);
    ExFreePoolWithTag(target, 0);
  });
}

// Questions that the filter and its child have no answer to, or that are answered already.
TEST(Pnp, OtherQuestionsAreLeftAlone) {
  RunWorld([](World *world) {
    PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
    ULONG_PTR answer = 0;
    size_t below = LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS);
    EXPECT_EQ(AskRelations(WorldPort(world)->Header.Device, EjectionRelations, &answer),
              STATUS_NOT_SUPPORTED);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS), below + 1);
    EXPECT_EQ(AskRelations(control, BusRelations, &answer), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(answer, 0u);
    answer = 77;
    EXPECT_EQ(AskRelations(control, TargetDeviceRelation, &answer), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(answer, 77u);
    answer = 0;
    FaultArm({FaultPool, 0, 1, false});
    EXPECT_EQ(AskRelations(control, TargetDeviceRelation, &answer), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(FaultDisarm());
    FaultArm({FaultPool, FourCharacters("ZK21"), 1, false});
    EXPECT_EQ(AskRelations(WorldPort(world)->Header.Device, BusRelations, &answer),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(FaultDisarm());
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_QUERY_DEVICE_RELATIONS), below + 1);
    EXPECT_EQ(AskId(control, BusQueryDeviceSerialNumber, &answer), STATUS_NOT_SUPPORTED);
  });
}

enum class Refusal { Surprised, Queried, Gone };

struct RefusalRow {
  Refusal Why;
  UCHAR Major;
  bool OnControl;
  NTSTATUS Status;
};

static const RefusalRow RefusalRows[] = {
    {Refusal::Surprised, IRP_MJ_CREATE, false, STATUS_DELETE_PENDING},
    {Refusal::Surprised, IRP_MJ_READ, false, STATUS_DELETE_PENDING},
    {Refusal::Surprised, IRP_MJ_WRITE, true, STATUS_DELETE_PENDING},
    {Refusal::Surprised, IRP_MJ_DEVICE_CONTROL, false, STATUS_DELETE_PENDING},
    {Refusal::Surprised, IRP_MJ_FLUSH_BUFFERS, false, STATUS_DELETE_PENDING},
    {Refusal::Queried, IRP_MJ_WRITE, false, STATUS_CANCELLED},
    {Refusal::Queried, IRP_MJ_CLEANUP, true, STATUS_CANCELLED},
    {Refusal::Queried, IRP_MJ_CLOSE, false, STATUS_CANCELLED},
    {Refusal::Gone, IRP_MJ_CLEANUP, true, STATUS_SUCCESS},
    {Refusal::Gone, IRP_MJ_CLOSE, true, STATUS_SUCCESS},
    {Refusal::Gone, IRP_MJ_READ, true, STATUS_DELETE_PENDING},
};

// What a removal waits for includes a refused request until it is complete.
TEST(Pnp, RefusedRequestsCountUntilTheyAreComplete) {
  for (const RefusalRow &row : RefusalRows) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(row.Why) << " " << int{row.Major});
    RunWorld([&](World *world) {
      OpenZk(world);  // which keeps the port's record when the port has gone
      PortExtension *port = WorldPort(world);
      PDEVICE_OBJECT device = row.OnControl ? port->ControlDevice : port->Header.Device;
      if (row.Why == Refusal::Surprised) {
        PnpSurpriseRemove(world->Node);
      } else if (row.Why == Refusal::Queried) {
        PnpSend(port->Header.Device, IRP_MN_QUERY_REMOVE_DEVICE);
      } else if (world->Zk != nullptr) {
        RemovePort(world, true);
      }
      if (row.Why == Refusal::Gone && world->Zk == nullptr) {
        return;
      }
      OwnPacket packet;
      packet.Cancelled = row.Why == Refusal::Queried;
      LONG counted = 0;
      packet.AtDone = [&] { counted = port->RequestCount; };
      EXPECT_EQ(OwnSend(device, row.Major, &packet), row.Status);
      EXPECT_EQ(OwnWait(&packet), row.Status);
      EXPECT_EQ(packet.Iosb.Information, 0u);
      EXPECT_EQ(counted, 2);
      EXPECT_EQ(port->RequestCount, 1);
      if (row.Why == Refusal::Queried) {
        PnpSend(port->Header.Device, IRP_MN_CANCEL_REMOVE_DEVICE);
      }
    });
  }
}

// --- Handles that outlive the port ----------------------------------------------------------

// How the close of ZK's handle ends. None may keep the filter device for good.
enum class CloseEnd {
  Granted,
  GoesDown,
  FailsBelow,
  NoItem,
  RefusedCancelled,
  HeldCancelled,
  HeldRemoved,
  Gone
};

static void CloseInThisWay(World *World, CloseEnd End, FILE_OBJECT *File) {
  PortExtension *port = WorldPort(World);
  PDEVICE_OBJECT filter = port->Header.Device;
  PDEVICE_OBJECT control = port->ControlDevice;
  OwnPacket close;
  close.File = File;
  close.Cancelled = End == CloseEnd::RefusedCancelled;
  if (close.Cancelled || End == CloseEnd::HeldCancelled || End == CloseEnd::HeldRemoved) {
    PnpSend(filter, IRP_MN_QUERY_REMOVE_DEVICE);
  }
  if (End == CloseEnd::FailsBelow) {
    World->Lower.Result[IRP_MJ_CLOSE] = STATUS_IO_DEVICE_ERROR;
  } else if (End == CloseEnd::NoItem) {
    FaultArm({FaultPool, FourCharacters("ZK0E"), 1, false});
  } else if (End == CloseEnd::Gone) {
    RemovePort(World, true);
  }
  OwnSend(control, IRP_MJ_CLOSE, &close);
  if (End == CloseEnd::NoItem) {
    EXPECT_TRUE(FaultDisarm());
  } else if (End == CloseEnd::HeldCancelled) {
    EXPECT_TRUE(IoCancelIrp(close.Irp));
  } else if (End == CloseEnd::HeldRemoved) {
    RemovePort(World, true);
  }
  OwnWait(&close);
  if (World->Node != nullptr) {
    EXPECT_EQ(port->Control->Header.FilterHolds, 0);
    PnpSend(filter, IRP_MN_CANCEL_REMOVE_DEVICE);
  }
}

// A device that is kept is found when the run ends.
TEST(Pnp, EveryEndOfACloseGivesUpTheFilterDevice) {
  for (CloseEnd end : {CloseEnd::Granted, CloseEnd::GoesDown, CloseEnd::FailsBelow,
                       CloseEnd::NoItem, CloseEnd::RefusedCancelled, CloseEnd::HeldCancelled,
                       CloseEnd::HeldRemoved, CloseEnd::Gone}) {
    SCOPED_TRACE(static_cast<int>(end));
    RunWorld(
        [=](World *world) {
          if (end == CloseEnd::Granted) {
            ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
          }
          FILE_OBJECT file = {};
          file.DeviceObject = WorldPort(world)->ControlDevice;
          ObReferenceObject(file.DeviceObject);  // as a handle does
          OwnPacket open;
          open.File = &file;
          ASSERT_EQ(OwnSend(file.DeviceObject, IRP_MJ_CREATE, &open), STATUS_SUCCESS);
          ASSERT_EQ(OwnWait(&open), STATUS_SUCCESS);
          EXPECT_EQ(WorldPort(world)->Control->Header.FilterHolds, 1);
          CloseInThisWay(world, end, &file);
          ObDereferenceObject(file.DeviceObject);
        },
        {.FailsInTurn = false});
  }
}

// An open that the port answers with an informational success counts as failed, but whoever asked
// for it has a handle, which may be closed after the port has gone.
TEST(Pnp, AHandleOfAnInformationalSuccess) {
  RunWorld([](World *world) {
    world->Lower.Result[IRP_MJ_CREATE] = STATUS_OBJECT_NAME_EXISTS;
    EXPECT_EQ(OpenZk(world), STATUS_SUCCESS);
    EXPECT_EQ(WorldPort(world)->OpenCount, 0);
    RemovePort(world, true);
    Io write;
    EXPECT_EQ(StartWrite(world->Zk, &write, "late"), STATUS_DELETE_PENDING);
  });
}

// While a removal is queried, requests wait; they go on when it is cancelled, each on the device
// where it arrived, and a later stop does not wait for them.
TEST(Pnp, ParkedRequestsGoOnAfterACancelledQuery) {
  RunWorld([](World *world) {
    PortExtension *port = WorldPort(world);
    GoNormal(world);
    ASSERT_EQ(PnpSend(port->Header.Device, IRP_MN_QUERY_REMOVE_DEVICE), STATUS_SUCCESS);
    Io write, second, cancelled, zkRead, command;
    OwnPacket nobodys;
    nobodys.Carried = STATUS_BUFFER_OVERFLOW;
    nobodys.Bytes = MakeFrame(FRAME_DATA, 5, 0, "x");
    EXPECT_EQ(StartWrite(world->Client, &write, "later"), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &cancelled, "never"), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Client, &second, ", last"), STATUS_PENDING);
    EXPECT_EQ(StartRead(world->Zk, &zkRead, 100), STATUS_PENDING);
    EXPECT_EQ(StartWrite(world->Zk, &command, MakeFrame(FRAME_CONTROL, 9, COMMAND_GET_MODE)),
              STATUS_PENDING);
    EXPECT_EQ(OwnSend(port->ControlDevice, IRP_MJ_WRITE, &nobodys), STATUS_PENDING);
    EXPECT_EQ(port->RequestCount, 7);
    for (UCHAR major : {IRP_MJ_WRITE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
      OwnPacket late;
      late.Cancelled = true;
      EXPECT_EQ(OwnSend(port->Header.Device, major, &late), STATUS_CANCELLED);
      EXPECT_EQ(OwnWait(&late), STATUS_CANCELLED);
      EXPECT_EQ(late.Iosb.Information, 0u);
      EXPECT_EQ(port->RequestCount, 7);
    }
    EXPECT_TRUE(FileCancel(&cancelled));
    EXPECT_EQ(FileWait(&cancelled), STATUS_CANCELLED);
    EXPECT_EQ(LowerWritten(&world->Lower), "");
    ASSERT_EQ(PnpSend(port->Header.Device, IRP_MN_CANCEL_REMOVE_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(FileWait(&write), STATUS_SUCCESS);
    EXPECT_EQ(FileWait(&second), STATUS_SUCCESS);
    EXPECT_EQ(LowerWritten(&world->Lower), "later, last");
    EXPECT_EQ(FileWait(&command), STATUS_SUCCESS);
    EXPECT_EQ(OwnWait(&nobodys), nobodys.Carried);
    EXPECT_EQ(FileWait(&zkRead), STATUS_SUCCESS);
    EXPECT_EQ(DecodeFrame(zkRead).Payload, "later");  // ZK's read stayed ZK's
    EXPECT_EQ(NextFrame(world).Payload, ", last");
    EXPECT_EQ(NextFrame(world).Header.Tag, 9u);
    EXPECT_EQ(port->RequestCount, 1);
    CloseClient(world);
    CloseZk(world);
    // The port hears of the stop when nothing is on its way there any more.
    world->Lower.How[IRP_MJ_FLUSH_BUFFERS] = Behaviour::Pend;
    OwnPacket flush;
    EXPECT_EQ(OwnSend(port->Header.Device, IRP_MJ_FLUSH_BUFFERS, &flush), STATUS_PENDING);
    EXPECT_EQ(PnpQueryStop(world->Node), STATUS_SUCCESS);
    PKTHREAD stopper =
        ThreadStart("stop", [=] { EXPECT_EQ(PnpStop(world->Node), STATUS_SUCCESS); });
    ThreadSettle();
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_STOP_DEVICE), 0u);
    EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_FLUSH_BUFFERS));
    EXPECT_EQ(OwnWait(&flush), STATUS_SUCCESS);
    ThreadJoin(stopper);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_STOP_DEVICE), 1u);
    EXPECT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
  });
}

// A query parks closes and cleanups too; the removal completes them unrun.
TEST(Pnp, ARemovalEndsWhatTheQueryParked) {
  RunWorld([](World *world) {
    GoNormal(world);
    PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
    ASSERT_EQ(PnpSend(filter, IRP_MN_QUERY_REMOVE_DEVICE), STATUS_SUCCESS);
    Io write;
    EXPECT_EQ(StartWrite(world->Client, &write, "x"), STATUS_PENDING);
    PKTHREAD closer = ThreadStart("closer", [&] {
      CloseClient(world);
      CloseZk(world);
    });
    ThreadSettle();
    RemovePort(world, true);
    EXPECT_EQ(FileWait(&write), STATUS_DELETE_PENDING);
    ThreadJoin(closer);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CLEANUP), 0u);
    EXPECT_EQ(LowerWritten(&world->Lower), "");
  });
}

// An open, and a close whose cleanup was through before the query came.
TEST(Pnp, ARemovalEndsParkedOpensAndCloses) {
  RunWorld([](World *world) {
    LowerPort *lower = &world->Lower;
    lower->How[IRP_MJ_READ] = Behaviour::Deaf;
    ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
    Io read;
    EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
    CloseClient(world);  // the read keeps the file object, and with it the close
    EXPECT_EQ(LowerCount(lower, IRP_MJ_CLEANUP), 1u);
    PortExtension *port = WorldPort(world);
    ASSERT_EQ(PnpSend(port->Header.Device, IRP_MN_QUERY_REMOVE_DEVICE), STATUS_SUCCESS);
    NTSTATUS opened = STATUS_SUCCESS;
    PKTHREAD opener = ThreadStart("open", [&] { opened = OpenZk(world); });
    PKTHREAD closer = ThreadStart("finish", [&] {
      LowerFinish(lower, IRP_MJ_READ);
      FileWait(&read);
    });
    ThreadSettle();
    EXPECT_EQ(port->RequestCount, 3);  // both parked
    RemovePort(world, true);
    ThreadJoin(opener);
    ThreadJoin(closer);
    EXPECT_EQ(opened, STATUS_DELETE_PENDING);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_CREATE), 1u);
    EXPECT_EQ(LowerCount(lower, IRP_MJ_CLOSE), 0u);
  });
}

// What waits or is parked ends only when the drivers below have seen the removal; at a surprise
// removal before.
TEST(Pnp, TheLowerDriversHearOfARemovalFirst) {
  for (UCHAR minor : {IRP_MN_REMOVE_DEVICE, IRP_MN_SURPRISE_REMOVAL}) {
    RunWorld([=](World *world) {
      GoNormal(world);
      struct Witness {
        LowerPort *Lower;
        UCHAR Minor;
        int Seen, Missed;
      } witness = {&world->Lower, minor, 0, 0};
      Io clientReads[2], zkRead, held;
      for (Io *io : {&clientReads[0], &clientReads[1], &zkRead, &held}) {
        io->Context = &witness;
        io->OnDone = [](FileRequest *, void *Context) {
          auto *w = static_cast<Witness *>(Context);
          ++(LowerCount(w->Lower, IRP_MJ_PNP, w->Minor) != 0 ? w->Seen : w->Missed);
        };
      }
      for (Io &read : clientReads) {
        EXPECT_EQ(StartRead(world->Client, &read, 8), STATUS_PENDING);
      }
      EXPECT_EQ(StartRead(world->Zk, &zkRead, 100), STATUS_PENDING);
      ASSERT_EQ(PnpSend(WorldPort(world)->Header.Device, IRP_MN_QUERY_REMOVE_DEVICE),
                STATUS_SUCCESS);
      EXPECT_EQ(StartWrite(world->Client, &held, "x"), STATUS_PENDING);
      if (minor == IRP_MN_SURPRISE_REMOVAL) {
        PnpSurpriseRemove(world->Node);
        EXPECT_EQ(witness.Missed, 4);
      } else {
        RemovePort(world, true);
        EXPECT_EQ(witness.Seen, 4);
      }
      EXPECT_EQ(FileWait(&held), STATUS_DELETE_PENDING);
      CloseClient(world);
      CloseZk(world);
    });
  }
}

enum class Ending { Removal, Surprise };

// Everything that can wait in a port, waiting, when the port goes; then handles closed long after.
static void RemoveBusyPort(Ending How, ULONG Buffering, bool Locked) {
  RunWorld(
      [&](World *world) {
        LowerPort *lower = &world->Lower;
        lower->How[IRP_MJ_READ] = Behaviour::Pend;
        GoNormal(world);
        Io clientReads[2], zkReads[2], parked[2], late, lateZk;
        for (Io &read : clientReads) {
          EXPECT_EQ(StartRead(world->Client, &read, 10), STATUS_PENDING);
        }
        for (Io &read : zkReads) {
          EXPECT_EQ(StartRead(world->Zk, &read, 100), STATUS_PENDING);
        }
        if (Locked) {
          ASSERT_EQ(SendCommand(world, COMMAND_LOCK_STREAM), STATUS_SUCCESS);
          for (Io &write : parked) {
            EXPECT_EQ(StartWrite(world->Client, &write, "p"), STATUS_PENDING);
          }
        }
        PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
        if (How == Ending::Surprise) {
          PnpSurpriseRemove(world->Node);
          EXPECT_EQ(NameLookup("\\DosDevices\\VORLIX_COM3"), nullptr);
          EXPECT_NE(NameLookup("\\Device\\VORLIX1"), nullptr);
          EXPECT_EQ(StartWrite(world->Client, &late, "late"), STATUS_DELETE_PENDING);
          EXPECT_EQ(PnpSend(filter, IRP_MN_QUERY_DEVICE_TEXT), STATUS_SUCCESS);
        }
        uint64_t changes = InterfaceStateChanges();
        RemovePort(world, true);
        EXPECT_EQ(InterfaceStateChanges() - changes, How == Ending::Surprise ? 1u : 2u);
        // The port ends the read that is with it, which answers the oldest of the client's.
        for (Io &read : clientReads) {
          NTSTATUS status = FileWait(&read);
          EXPECT_TRUE(status == STATUS_CANCELLED || status == STATUS_DEVICE_NOT_CONNECTED ||
                      status == STATUS_DELETE_PENDING)
              << std::hex << status;
        }
        std::string zkSaw;
        for (Io &read : zkReads) {
          NTSTATUS status = FileWait(&read);
          FrameHeader header = DecodeFrame(read).Header;
          zkSaw += status != STATUS_SUCCESS ? StatusName(status)
                   : header.Type == FRAME_CONTROL_REPLY
                       ? "reply"
                       : "frame " + StatusName(static_cast<NTSTATUS>(header.Code));
          zkSaw += ";";
        }
        // Locked, the first had the reply and the second the engine's read that the lock stopped. A
        // surprise sweeps before the port goes; a removal after it, when the port has ended the
        // read.
        EXPECT_EQ(zkSaw, Locked                    ? "reply;frame cancelled;"
                         : How == Ending::Surprise ? "cancelled;cancelled;"
                                                   : "frame gone;cancelled;");
        if (Locked) {
          EXPECT_EQ(FileWait(&parked[0]), STATUS_CANCELLED);
          EXPECT_EQ(FileWait(&parked[1]), STATUS_CANCELLED);
        }
        EXPECT_FALSE(NT_SUCCESS(StartRead(world->Zk, &lateZk, 10)));
        CloseClient(world);
        CloseZk(world);
        EXPECT_EQ(DeviceCount(world->Driver), 0u);
        EXPECT_EQ(LowerWritten(lower), "");
      },
      {.Buffering = Buffering});
}

TEST(Pnp, RemovalOfABusyPort) {
  for (Ending how : {Ending::Removal, Ending::Surprise}) {
    for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
      for (bool locked : {false, true}) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(how) << buffering << locked);
        RemoveBusyPort(how, buffering, locked);
      }
    }
  }
}

// The port does not go while it has a request, whoever sent it.
TEST(Pnp, ThePortWaitsForItsRequests) {
  RunWorld([](World *world) {
    world->Lower.How[IRP_MJ_CLOSE] = Behaviour::Deaf;
    OwnPacket packet;
    OwnSend(world->Lower.Device, IRP_MJ_CLOSE, &packet);
    PKTHREAD remover = ThreadStart("remove", [=] { RemovePort(world); });
    ThreadSettle();
    EXPECT_NE(world->Node, nullptr);
    LowerFinish(&world->Lower, IRP_MJ_CLOSE);
    ThreadJoin(remover);
    OwnWait(&packet);
  });
}
