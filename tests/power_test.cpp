// Power: what the filter passes on, what it reports and in which order, and what the devices that
// have no power of their own answer.
#include <gtest/gtest.h>

#include <set>

#include "tests/support/world.h"

// What happened since the last call, in order: a device's letter and '>' where the request arrived,
// '!' and the state that it reported, '+' where it let the next request come; '.' when the request
// was done. F is the filter, L the port's driver, B its bus; C and A are the devices of our own.
static std::string Steps(World *World) {
  PortExtension *port = WorldPort(World);
  std::map<PDEVICE_OBJECT, char> letters = {{port->Header.Device, 'F'},
                                            {World->Lower.Device, 'L'},
                                            {World->Lower.Lower, 'B'},
                                            {port->ControlDevice, 'C'}};
  if (World->Outside.Device != nullptr) {
    letters[World->Outside.Device->AttachedDevice] = 'A';
  }
  std::string text;
  for (const PowerEvent &event : PowerEvents()) {
    if (event.Step == PowerStep::Completed) {
      text += '.';
      continue;
    }
    auto letter = letters.find(event.Device);
    text += letter != letters.end() ? letter->second : '?';
    text += event.Step == PowerStep::Arrived ? ">"
            : event.Step == PowerStep::Next  ? "+"
                                             : "!" + std::to_string(event.State);
    text += ' ';
  }
  PowerForget();
  return text;
}

static PowerRequest Request(UCHAR Minor, int Type, int State, KIRQL Irql = PASSIVE_LEVEL) {
  PowerRequest request;
  request.Minor = Minor;
  request.Type = static_cast<POWER_STATE_TYPE>(Type);
  request.State = State;
  request.Irql = Irql;
  return request;
}

static NTSTATUS SendFill(PDEVICE_OBJECT Device, UCHAR Minor, int Type, int State,
                         ULONG_PTR *Information, NTSTATUS Carried) {
  return SendPacket(
      Device, IRP_MJ_POWER, Minor,
      [=](PIO_STACK_LOCATION stack) {
        stack->Parameters.Power.Type = static_cast<POWER_STATE_TYPE>(Type);
        stack->Parameters.Power.State.DeviceState = static_cast<DEVICE_POWER_STATE>(State);
      },
      Information, Carried);
}

static PDEVICE_OBJECT Filter(World *World) {
  return WorldPort(World)->Header.Device;
}

static ULONG Stored(World *World) {
  return WorldPort(World)->Header.DevicePowerState;
}

// --- Passing --------------------------------------------------------------------------------

enum class Life { NotStarted, Started, Stopped, Surprised };

struct PassRow {
  UCHAR Minor;
  int Type, State;
  NTSTATUS Below;     // that the request carries when it comes to the port's driver
  const char *Steps;  // of a port in D0 that was started
};

static const PassRow PassRows[] = {
    {IRP_MN_QUERY_POWER, DevicePowerState, 4, STATUS_SUCCESS, "F> F+ L> L+ B> B+ ."},
    {IRP_MN_QUERY_POWER, SystemPowerState, 4, STATUS_SUCCESS, "F> F+ L> L+ B> B+ ."},
    {IRP_MN_SET_POWER, DevicePowerState, 2, STATUS_SUCCESS, "F> F!2 F+ L> L+ B> B!2 B+ ."},
    {IRP_MN_SET_POWER, DevicePowerState, 1, STATUS_SUCCESS, "F> F+ L> L+ B> B!1 B+ ."},
    {IRP_MN_SET_POWER, SystemPowerState, 4, STATUS_NOT_SUPPORTED, "F> F+ L> L+ B> B+ ."},
    {IRP_MN_SET_POWER, 7, 4, STATUS_NOT_SUPPORTED, "F> F+ L> L+ B> B+ ."},
    {IRP_MN_WAIT_WAKE, DevicePowerState, 4, STATUS_NOT_SUPPORTED, "F> F+ L> L+ B> B+ ."},
    {IRP_MN_POWER_SEQUENCE, DevicePowerState, 4, STATUS_NOT_SUPPORTED, "F> F+ L> L+ B> B+ ."},
    {0x55, DevicePowerState, 4, STATUS_NOT_SUPPORTED, "F> F+ L> L+ B> B+ ."},
};

static void PassAll(World *World, Life When) {
  for (const PassRow &row : PassRows) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(row.Minor) << " " << row.Type << " "
                                    << row.State << " life " << static_cast<int>(When));
    Steps(World);
    bool tracked = When != Life::NotStarted;
    PowerRequest request = Request(row.Minor, row.Type, row.State, DISPATCH_LEVEL);
    PowerBegin(Filter(World), &request);
    PowerWait(&request);
    // Before the first start nothing is followed, and any set request is a success.
    std::string steps = row.Steps;
    size_t report = steps.find("F!");
    if (!tracked && report != std::string::npos) {
      steps.erase(report, 4);
    }
    EXPECT_EQ(Steps(World), steps);
    EXPECT_EQ(LowerLast(&World->Lower, IRP_MJ_POWER).Status,
              !tracked && row.Minor == IRP_MN_SET_POWER ? STATUS_SUCCESS : row.Below);
    bool follows = tracked && row.Minor == IRP_MN_SET_POWER && row.Type == DevicePowerState;
    EXPECT_EQ(Stored(World), follows ? static_cast<ULONG>(row.State) : 1u);
    EXPECT_EQ(WorldPort(World)->PowerRequestCount, 1);
    PnpSetDevicePower(Filter(World), PowerDeviceD0);
    EXPECT_EQ(Stored(World), 1u);
  }
}

TEST(Power, TheFilterPasses) {
  for (Life when : {Life::NotStarted, Life::Started, Life::Stopped, Life::Surprised}) {
    RunWorld(
        [=](World *world) {
          if (when == Life::Stopped) {
            ASSERT_EQ(PnpQueryStop(world->Node), STATUS_SUCCESS);
            ASSERT_EQ(PnpStop(world->Node), STATUS_SUCCESS);
          } else if (when == Life::Surprised) {
            PnpSurpriseRemove(world->Node);
          }
          PassAll(world, when);
        },
        {.Start = when != Life::NotStarted});
  }
}

// The manager hears of a fall before the port's driver does, of a rise after it.
TEST(Power, EveryChangeOfDeviceState) {
  RunWorld([](World *world) {
    for (int from = PowerDeviceD0; from <= PowerDeviceD3; ++from) {
      for (int to = PowerDeviceD0; to <= PowerDeviceD3; ++to) {
        PnpSetDevicePower(Filter(world), static_cast<DEVICE_POWER_STATE>(from));
        Steps(world);
        EXPECT_EQ(PnpSetDevicePower(Filter(world), static_cast<DEVICE_POWER_STATE>(to)),
                  STATUS_SUCCESS);
        std::string state = std::to_string(to), report = "F!" + state + " F+ ";
        std::string below = "L> L+ B> B!" + state + " B+ ";
        EXPECT_EQ(Steps(world), to > from    ? "F> " + report + below + "."
                                : to == from ? "F> F+ " + below + "."
                                             : "F> " + below + report + ".");
        EXPECT_EQ(Stored(world), static_cast<ULONG>(to));
      }
    }
  });
}

// --- A port that takes its time, or fails ---------------------------------------------------

// Until the port's driver is done nothing is reported or stored, and the next one waits.
static void RiseAboveAPendingPort(World *World, NTSTATUS Result) {
  LowerPort *lower = &World->Lower;
  ASSERT_EQ(PnpSetDevicePower(Filter(World), PowerDeviceD3), STATUS_SUCCESS);
  lower->How[IRP_MJ_POWER] = Behaviour::Pend;
  lower->AtDispatchLevel = Result == STATUS_SUCCESS;
  lower->ByDpc = false;  // while that ran, the next one would go on
  Steps(World);
  PowerRequest rise = Request(IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0);
  PowerRequest next = Request(IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD2);
  EXPECT_TRUE(PowerBegin(Filter(World), &rise));
  EXPECT_FALSE(PowerBegin(Filter(World), &next));
  ThreadSettle();
  EXPECT_EQ(Steps(World), "F> L> ");
  EXPECT_EQ(Stored(World), static_cast<ULONG>(PowerDeviceD3));
  EXPECT_EQ(WorldPort(World)->PowerRequestCount, 2);
  EXPECT_TRUE(LowerFinish(lower, IRP_MJ_POWER, Result));
  // Whatever came of it, the state is the one that was asked for.
  EXPECT_EQ(Steps(World), Result == STATUS_SUCCESS ? "L+ B> B!1 B+ F!1 F+ ." : "L+ F!1 F+ .");
  EXPECT_EQ(PowerWait(&rise), Result);
  EXPECT_EQ(rise.Returned, STATUS_PENDING);
  EXPECT_EQ(Stored(World), static_cast<ULONG>(PowerDeviceD0));
  ThreadSettle();
  EXPECT_EQ(Steps(World), "F> F!3 F+ L> ");
  EXPECT_EQ(WorldPort(World)->PowerRequestCount, 1);
  EXPECT_TRUE(LowerFinish(lower, IRP_MJ_POWER));
  EXPECT_EQ(PowerWait(&next), STATUS_SUCCESS);
}

TEST(Power, ARiseThatPendsBelow) {
  for (NTSTATUS result : {STATUS_SUCCESS, STATUS_IO_DEVICE_ERROR}) {
    RunWorld([=](World *world) { RiseAboveAPendingPort(world, result); });
  }
}

// What is not followed to its end lets the next one come at once, and is counted no longer.
TEST(Power, OthersThatPendBelow) {
  RunWorld([](World *world) {
    LowerPort *lower = &world->Lower;
    lower->How[IRP_MJ_POWER] = Behaviour::Pend;
    PowerRequest requests[] = {Request(IRP_MN_WAIT_WAKE, DevicePowerState, PowerDeviceD2),
                               Request(IRP_MN_QUERY_POWER, DevicePowerState, PowerDeviceD3),
                               Request(IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD3),
                               Request(IRP_MN_SET_POWER, SystemPowerState, PowerSystemSleeping3)};
    for (PowerRequest &request : requests) {
      EXPECT_TRUE(PowerBegin(Filter(world), &request));
    }
    EXPECT_EQ(Steps(world), "F> F+ L> F> F+ L> F> F!4 F+ L> F> F+ L> ");
    EXPECT_EQ(WorldPort(world)->PowerRequestCount, 1);
    EXPECT_TRUE(PowerCancel(&requests[0]));
    EXPECT_EQ(PowerWait(&requests[0]), STATUS_CANCELLED);
    while (LowerFinish(lower, IRP_MJ_POWER)) {
    }
    for (PowerRequest &request : requests) {
      PowerWait(&request);
    }
  });
}

// The last request of a port that has taken its own count off says so.
TEST(Power, TheLastRequestIsSignalled) {
  RunWorld([](World *world) {
    PortExtension *port = WorldPort(world);
    InterlockedDecrement(&port->PowerRequestCount);
    EXPECT_EQ(SendFill(Filter(world), IRP_MN_QUERY_POWER, SystemPowerState, PowerSystemSleeping1,
                       nullptr, STATUS_SUCCESS),
              STATUS_SUCCESS);
    LARGE_INTEGER now = {};
    EXPECT_EQ(KeWaitForSingleObject(&port->PowerEvent, Executive, KernelMode, FALSE, &now),
              STATUS_SUCCESS);
    InterlockedIncrement(&port->PowerRequestCount);
  });
}

// --- Removal --------------------------------------------------------------------------------

// The removal has come, but the port is not idle yet: an open is still at the port.
TEST(Power, RefusedOnceTheRemovalHasCome) {
  RunWorld([](World *world) {
    world->Lower.How[IRP_MJ_CREATE] = Behaviour::Deaf;
    PKTHREAD opener = ThreadStart("open", [&] { OpenClient(world); });
    ThreadSettle();
    PKTHREAD remover = ThreadStart("remove", [&] { RemovePort(world, true); });
    ThreadSettle();
    bool waits = LowerHeldCount(&world->Lower) == 1;  // for the open
    EXPECT_TRUE(waits);
    if (waits) {
      PDEVICE_OBJECT filter = Filter(world);
      size_t below = LowerCount(&world->Lower, IRP_MJ_POWER);
      uint64_t reports = PowerReports();
      for (const PassRow &row : PassRows) {
        uint64_t nexts = PowerNextCalls();
        ULONG_PTR information = 77;
        EXPECT_EQ(SendFill(filter, row.Minor, row.Type, row.State, &information, STATUS_SUCCESS),
                  STATUS_DELETE_PENDING);
        EXPECT_EQ(information, 0u);
        EXPECT_EQ(PowerNextCalls(), nexts + 1);
      }
      EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_POWER), below);
      EXPECT_EQ(PowerReports(), reports);
      EXPECT_EQ(WorldPort(world)->PowerRequestCount, 1);
    }
    EXPECT_TRUE(LowerFinish(&world->Lower, IRP_MJ_CREATE));
    ThreadJoin(opener);
    ThreadJoin(remover);
  });
}

// The port's driver keeps the removal until the window is closed, so that it is the filter alone
// that goes in it.
static void RemoveFilterAgainst(World *World, const std::function<void()> &Other) {
  World->Lower.How[IRP_MJ_PNP] = Behaviour::Deaf;
  PKTHREAD remover = ThreadStart("remove", [&] { RemovePort(World, true); });
  PKTHREAD other = ThreadStart("other", Other);
  ExploreWindow(true);
  ThreadJoin(other);
  ThreadSettle();
  ExploreWindow(false);
  EXPECT_TRUE(LowerFinish(&World->Lower, IRP_MJ_PNP));
  ThreadJoin(remover);
}

// A removal waits for no power request: a rise may end when everything of the port is gone, and
// comes back to a device that is there.
TEST(PowerRaces, RemovalAgainstTheEndOfARise) {
  auto scenario = [](World *world) {
    LowerPort *lower = &world->Lower;
    PnpSetDevicePower(Filter(world), PowerDeviceD3);
    lower->How[IRP_MJ_POWER] = Behaviour::Deaf;
    lower->AtDispatchLevel = true;
    PowerRequest rise = Request(IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0);
    PowerBegin(Filter(world), &rise);
    uint64_t reports = PowerReports();
    RemoveFilterAgainst(world, [&] {
      ExploreSaw(DeviceCount(world->Driver) == 0 ? "gone" : "there");
      LowerFinish(lower, IRP_MJ_POWER);
    });
    EXPECT_EQ(PowerWait(&rise), STATUS_SUCCESS);
    EXPECT_EQ(PowerReports(), reports + 2);  // the bus's and the filter's
  };
  EXPECT_EQ(OutcomesOf(ExploreWorld(scenario, 2)), (std::set<std::string>{"gone", "there"}));
}

// ZK's handle keeps the filter device. Without one, a request that was directed at the device but
// has not entered the driver when the device goes is beyond any driver.
TEST(PowerRaces, RemovalAgainstARise) {
  auto scenario = [](World *world) {
    ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
    PnpSetDevicePower(Filter(world), PowerDeviceD3);
    PortExtension *port = WorldPort(world);
    PowerRequest rise = Request(IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0);
    RemoveFilterAgainst(world, [&] { PowerBegin(world->Lower.Lower, &rise); });
    ExploreSaw(PowerWait(&rise));
    EXPECT_EQ(port->PowerRequestCount, 0);  // not even the port's own
  };
  EXPECT_EQ(OutcomesOf(ExploreWorld(scenario, 2)), (std::set<std::string>{"success", "refused"}));
}

// Nothing waits for a request that is inside, so it finds the port below at any moment, though the
// removal may be over there too. (The port answers at once: what is below it goes with it.)
TEST(PowerRaces, RemovalAgainstARequestOnItsWayDown) {
  for (DEVICE_POWER_STATE to : {PowerDeviceD3, PowerDeviceD0}) {
    auto scenario = [=](World *world) {
      ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
      PnpSetDevicePower(Filter(world), to == PowerDeviceD0 ? PowerDeviceD3 : PowerDeviceD0);
      world->Lower.Result[IRP_MJ_POWER] = STATUS_DEVICE_NOT_CONNECTED;
      PDEVICE_OBJECT filter = Filter(world);
      RemoveAgainst(world, [&] {
        ExploreSaw(SendFill(filter, IRP_MN_SET_POWER, DevicePowerState, to, nullptr,
                            STATUS_NOT_SUPPORTED));
      });
      EXPECT_EQ(DeviceCount(world->PortDriver), 0u);
    };
    EXPECT_EQ(OutcomesOf(ExploreWorld(scenario, 2)), (std::set<std::string>{"gone", "refused"}));
  }
}

struct OwnRow {
  UCHAR Minor;
  int Type, State;
  NTSTATUS Status;
  const char *Steps;  // after the device's letter
};

// In this order: a state is reported when it differs from the one before.
static const OwnRow OwnRows[] = {
    {IRP_MN_SET_POWER, DevicePowerState, 1, STATUS_SUCCESS, nullptr},
    {IRP_MN_SET_POWER, DevicePowerState, 4, STATUS_SUCCESS, "!4"},
    {IRP_MN_SET_POWER, DevicePowerState, 4, STATUS_SUCCESS, nullptr},
    {IRP_MN_SET_POWER, DevicePowerState, 2, STATUS_SUCCESS, "!2"},
    {IRP_MN_SET_POWER, DevicePowerState, 1, STATUS_SUCCESS, "!1"},
    {IRP_MN_SET_POWER, SystemPowerState, 4, STATUS_SUCCESS, nullptr},
    {IRP_MN_SET_POWER, 7, 4, STATUS_NOT_IMPLEMENTED, nullptr},
    {IRP_MN_QUERY_POWER, DevicePowerState, 4, STATUS_SUCCESS, nullptr},
    {IRP_MN_QUERY_POWER, SystemPowerState, 4, STATUS_SUCCESS, nullptr},
    {IRP_MN_WAIT_WAKE, DevicePowerState, 4, STATUS_NOT_IMPLEMENTED, nullptr},
    {IRP_MN_POWER_SEQUENCE, DevicePowerState, 4, STATUS_NOT_IMPLEMENTED, nullptr},
    {0x55, DevicePowerState, 4, STATUS_IO_DEVICE_ERROR, nullptr},  // as it came
};

TEST(Power, ControlAndAuxiliaryDeviceAnswer) {
  RunWorld(
      [](World *world) {
        std::map<char, PDEVICE_OBJECT> devices = {{'C', WorldPort(world)->ControlDevice},
                                                  {'A', world->Outside.Device->AttachedDevice}};
        for (const auto &[letter, device] : devices) {
          for (const OwnRow &row : OwnRows) {
            SCOPED_TRACE(testing::Message()
                         << letter << static_cast<int>(row.Minor) << row.Type << row.State);
            Steps(world);
            ULONG_PTR information = 77;
            EXPECT_EQ(SendFill(device, row.Minor, row.Type, row.State, &information,
                               STATUS_IO_DEVICE_ERROR),
                      row.Status);
            EXPECT_EQ(information, 77u);
            std::string own(1, letter);
            EXPECT_EQ(
                Steps(world),
                own + "> " + (row.Steps != nullptr ? own + row.Steps + " " : "") + own + "+ ");
          }
          PowerRequest high = Request(IRP_MN_SET_POWER, DevicePowerState, 3, DISPATCH_LEVEL);
          PowerBegin(device, &high);
          EXPECT_EQ(PowerWait(&high), STATUS_SUCCESS);
          EXPECT_EQ(PowerStateReported(device), PowerDeviceD2);
        }
        EXPECT_EQ(LowerCount(&world->Outside, IRP_MJ_POWER), 0u);
        EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_POWER), 0u);
        EXPECT_EQ(Stored(world), 1u);
      },
      {.Name = DosName::SameDriver});
}
