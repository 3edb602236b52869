#include "tests/model/two_drivers.h"

// A function driver, which owns the stack's power policy, below a filter. What they do with a power
// packet is set by each test.
struct PowerExtension {
  PDEVICE_OBJECT Lower;
};

static PDRIVER_OBJECT Drivers[2];
static PDRIVER_DISPATCH OnPower[2];
static PnpNode *Node;
static LONG Inside;  // between the filter and its completion routine

static PDEVICE_OBJECT LowerOf(PDEVICE_OBJECT Device) {
  return static_cast<PowerExtension *>(Device->DeviceExtension)->Lower;
}

static PDEVICE_OBJECT FunctionDevice() {
  return PnpPdo(Node)->AttachedDevice;
}

static PDEVICE_OBJECT FilterDevice() {
  return FunctionDevice()->AttachedDevice;
}

static NTSTATUS PassPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  IoSkipCurrentIrpStackLocation(Irp);
  return PoCallDriver(LowerOf(Device), Irp);
}

static NTSTATUS FailPower(PDEVICE_OBJECT, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  return CompleteWith(Irp, STATUS_DEVICE_BUSY);
}

static NTSTATUS HoldPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  return HoldCancellable(Device, Irp);
}

static NTSTATUS GoOn(PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  return PoCallDriver(PnpPdo(Node), Irp);
}

static NTSTATUS StartNextAfter(PDEVICE_OBJECT, PIRP Irp, PVOID) {
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  InterlockedDecrement(&Inside);
  POWER_STATE state = IoGetCurrentIrpStackLocation(Irp)->Parameters.Power.State;
  PoSetPowerState(FilterDevice(), DevicePowerState, state);
  PoStartNextPowerIrp(Irp);
  return STATUS_SUCCESS;
}

// Reports the state and lets the next one go when the devices below are done.
static NTSTATUS PassAndFollow(PDEVICE_OBJECT Device, PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, StartNextAfter, nullptr, TRUE, TRUE, TRUE);
  return PoCallDriver(LowerOf(Device), Irp);
}

static NTSTATUS PassPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  return FollowDown(Device, LowerOf(Device), Irp);
}

static NTSTATUS Add(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  PDEVICE_OBJECT device;
  EXPECT_EQ(IoCreateDevice(Driver, sizeof(PowerExtension), nullptr, FILE_DEVICE_SERIAL_PORT, 0,
                           FALSE, &device),
            STATUS_SUCCESS);
  static_cast<PowerExtension *>(device->DeviceExtension)->Lower =
      IoAttachDeviceToDeviceStack(device, Pdo);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

static NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp) {
  return OnPower[Device->DriverObject == Drivers[1]](Device, Irp);
}

static NTSTATUS Entry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  Driver->DriverExtension->AddDevice = Add;
  Driver->MajorFunction[IRP_MJ_PNP] = PassPnp;
  Driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  return STATUS_SUCCESS;
}

static void Boot() {
  OnPower[0] = OnPower[1] = PassPower;
  Held = nullptr;
  Drivers[0] = DriverLoad("Function", Entry);
  Drivers[1] = DriverLoad("Filter", Entry);
  PortDescription port;
  port.Drivers = {Drivers[0], Drivers[1]};
  Node = PnpAdd(port);
  PnpStart(Node);
  PowerForget();
}

static void Halt() {
  PnpRemove(Node);
  DriverUnload(Drivers[1]);
  DriverUnload(Drivers[0]);
}

// Who is what, in a few letters: "filter.arrived function.next …".
static std::string Happened() {
  static const char *const steps[] = {"arrived", "report", "next", "completed"};
  std::string text;
  for (const PowerEvent &event : PowerEvents()) {
    const char *who = event.Device == FilterDevice()     ? "filter."
                      : event.Device == FunctionDevice() ? "function."
                                                         : "bus.";
    text += (text.empty() ? "" : " ") + std::string(who) + steps[static_cast<int>(event.Step)];
  }
  return text;
}

TEST(Power, EventsAreToldInTheirOrder) {
  ExpectCleanOnBoth([] {
    Boot();
    EXPECT_EQ(PnpSetDevicePower(PnpPdo(Node), PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(Happened(),
              "filter.arrived filter.next function.arrived function.next bus.arrived bus.report "
              "bus.next filter.completed");
    EXPECT_EQ(PowerStateReported(PnpPdo(Node)), PowerDeviceD3);

    PowerForget();
    OnPower[0] = HoldPower;
    OnPower[1] = PassAndFollow;
    PowerRequest up;
    EXPECT_TRUE(PowerBegin(FunctionDevice(), &up));  // to the top, whoever is named
    EXPECT_FALSE(PowerDone(&up));
    EXPECT_EQ(Happened(), "filter.arrived function.arrived function.next");
    GoOn(TakeHeld());
    EXPECT_EQ(PowerWait(&up), STATUS_SUCCESS);
    EXPECT_EQ(up.Returned, STATUS_PENDING);
    EXPECT_EQ(Happened(),
              "filter.arrived function.arrived function.next bus.arrived bus.report bus.next "
              "filter.report filter.next filter.completed");
    EXPECT_EQ(PowerStateReported(FilterDevice()), PowerDeviceD0);
    EXPECT_EQ(PowerReports(), 3u);
    EXPECT_EQ(PowerNextCalls(), 6u);
    EXPECT_EQ(VerifierWarnings("power.next"), 0u);
    Halt();
  });
}

TEST(Power, OneOfAKindAtATime) {
  ExpectCleanOnBoth([] {
    Boot();
    OnPower[0] = HoldPower;
    OnPower[1] = PassAndFollow;  // lets the next one go as late as it can
    PowerRequest first, second, system;
    EXPECT_TRUE(PowerBegin(PnpPdo(Node), &first));
    PIRP held = TakeHeld();
    second.Minor = IRP_MN_QUERY_POWER;
    EXPECT_FALSE(PowerBegin(PnpPdo(Node), &second));
    OnPower[0] = PassPower;
    // The other kind does not wait for this one.
    OnPower[1] = PassPower;
    system.Type = SystemPowerState;
    EXPECT_TRUE(PowerBegin(PnpPdo(Node), &system));
    EXPECT_EQ(PowerWait(&system), STATUS_SUCCESS);
    GoOn(held);
    EXPECT_EQ(PowerWait(&first), STATUS_SUCCESS);
    EXPECT_EQ(PowerWait(&second), STATUS_SUCCESS);

    // Let go before it is passed on: the next one overtakes it.
    OnPower[0] = HoldPower;
    EXPECT_TRUE(PowerBegin(PnpPdo(Node), &first));
    held = TakeHeld();
    OnPower[0] = PassPower;
    EXPECT_TRUE(PowerBegin(PnpPdo(Node), &second));
    EXPECT_EQ(PowerWait(&second), STATUS_SUCCESS);
    EXPECT_FALSE(PowerDone(&first));
    GoOn(held);
    EXPECT_EQ(PowerWait(&first), STATUS_SUCCESS);
    Halt();
  });
}

// The filter that lets the next one go last of all sees one at a time, whoever sends.
TEST(Power, ManySendersTakeTurns) {
  auto play = [] {
    Boot();
    Inside = 0;
    OnPower[1] = [](PDEVICE_OBJECT Device, PIRP Irp) {
      EXPECT_EQ(InterlockedIncrement(&Inside), 1);
      return PassAndFollow(Device, Irp);
    };
    PKTHREAD senders[4];
    for (PKTHREAD &sender : senders) {
      sender = ThreadStart("sender", [] {
        PowerRequest requests[5];
        for (PowerRequest &request : requests) {
          PowerBegin(PnpPdo(Node), &request);
        }
        for (PowerRequest &request : requests) {
          EXPECT_EQ(PowerWait(&request), STATUS_SUCCESS);
        }
      });
    }
    for (PKTHREAD sender : senders) {
      ThreadJoin(sender);
    }
    Halt();
  };
  ExpectCleanOnBoth(play);
  for (uint64_t seed = 1; seed <= 50; ++seed) {
    RunOptions options;
    options.Schedule.How = SchedulePolicy::Kind::Random;
    options.Schedule.Seed = seed;
    ExpectClean(play, options);
  }
}

TEST(Power, OddRequestsAndAnswers) {
  ExpectCleanOnBoth([] {
    Boot();
    PowerRequest request;
    for (UCHAR minor : {IRP_MN_WAIT_WAKE, IRP_MN_POWER_SEQUENCE, 0x42}) {
      request.Minor = minor;
      PowerBegin(PnpPdo(Node), &request);
      EXPECT_EQ(PowerWait(&request), STATUS_NOT_SUPPORTED);
    }
    request.Minor = IRP_MN_SET_POWER;
    request.Type = static_cast<POWER_STATE_TYPE>(7);
    request.State = 99;
    request.Irql = DISPATCH_LEVEL;
    PowerBegin(PnpPdo(Node), &request);
    EXPECT_EQ(PowerWait(&request), STATUS_SUCCESS);
    EXPECT_EQ(PowerReports(), 0u);
    request = PowerRequest();

    OnPower[0] = HoldPower;
    request.Minor = IRP_MN_WAIT_WAKE;
    PowerBegin(PnpPdo(Node), &request);
    EXPECT_FALSE(PowerDone(&request));
    EXPECT_TRUE(PowerCancel(&request));
    EXPECT_EQ(PowerWait(&request), STATUS_CANCELLED);
    EXPECT_FALSE(PowerCancel(&request));

    // The policy's owner refuses a query; a device that goes says so; what is gone gets none.
    OnPower[0] = FailPower;
    EXPECT_EQ(PnpQueryDevicePower(PnpPdo(Node), PowerDeviceD3), STATUS_DEVICE_BUSY);
    OnPower[1] = [](PDEVICE_OBJECT, PIRP Irp) {
      PoStartNextPowerIrp(Irp);
      return CompleteWith(Irp, STATUS_DELETE_PENDING);
    };
    EXPECT_EQ(PnpSetDevicePower(PnpPdo(Node), PowerDeviceD3), STATUS_DELETE_PENDING);
    EXPECT_EQ(VerifierWarnings("power.set-failed"), 0u);
    EXPECT_EQ(VerifierWarnings("power.next"), 0u);
    OnPower[1] = [](PDEVICE_OBJECT Device, PIRP Irp) {
      IoSkipCurrentIrpStackLocation(Irp);  // forgets the next one
      return PoCallDriver(LowerOf(Device), Irp);
    };
    PnpQueryDevicePower(PnpPdo(Node), PowerDeviceD0);
    EXPECT_EQ(VerifierWarnings("power.next"), 1u);
    PDEVICE_OBJECT pdo = PnpPdo(Node);
    ObReferenceObject(pdo);
    Halt();
    EXPECT_EQ(PnpSetDevicePower(pdo, PowerDeviceD3), STATUS_NO_SUCH_DEVICE);
    ObDereferenceObject(pdo);
  });
}

// ---- what the verifier stops ----

struct BadFilter {
  const char *Name;
  const char *Rule;
  PDRIVER_DISPATCH Bad;
  UCHAR Minor;
  PDRIVER_DISPATCH Function;  // below it
};

static NTSTATUS ForgiveBelow(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  auto forgive = [](PDEVICE_OBJECT, PIRP Done, PVOID) -> NTSTATUS {
    Done->IoStatus.Status = STATUS_SUCCESS;
    return STATUS_SUCCESS;
  };
  IoSetCompletionRoutine(Irp, forgive, nullptr, TRUE, TRUE, TRUE);
  return PoCallDriver(LowerOf(Device), Irp);
}

static NTSTATUS PassFailure(PDEVICE_OBJECT Device, PIRP Irp) {
  Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
  return PassPower(Device, Irp);
}

static NTSTATUS PassSuccess(PDEVICE_OBJECT Device, PIRP Irp) {
  Irp->IoStatus.Status = STATUS_SUCCESS;
  return PassPower(Device, Irp);
}

static NTSTATUS Swallow(PDEVICE_OBJECT, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  return CompleteWith(Irp, STATUS_SUCCESS);
}

static NTSTATUS LeaveUndone(PDEVICE_OBJECT, PIRP Irp) {
  return CompleteWith(Irp, STATUS_NOT_SUPPORTED);
}

static NTSTATUS StartTwice(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  return PassPower(Device, Irp);
}

static const BadFilter BadFilters[] = {
    {"swallows a request", "power.not-forwarded", Swallow, IRP_MN_SET_POWER, PassPower},
    {"leaves a request undone", "power.not-forwarded", LeaveUndone, IRP_MN_WAIT_WAKE, PassPower},
    {"refuses for the owner", "power.failed", FailPower, IRP_MN_QUERY_POWER, PassPower},
    {"passes a failure down", "power.status-changed", PassFailure, IRP_MN_SET_POWER, PassPower},
    {"supports what it does not know", "power.status-changed", PassSuccess, IRP_MN_POWER_SEQUENCE,
     PassPower},
    {"makes a success of a failure below", "power.status-changed", ForgiveBelow, IRP_MN_QUERY_POWER,
     FailPower},
    {"lets the next one go twice", "power.next", StartTwice, IRP_MN_SET_POWER, PassPower},
    // and goes while it has to come back
    {"leaves a request behind", "device.requests-inside", PassAndFollow, IRP_MN_SET_POWER,
     HoldPower},
};

TEST(Power, BadDriversAreStopped) {
  for (const BadFilter &bad : BadFilters) {
    RunReport report = ModelRun({}, [&] {
      Boot();
      OnPower[0] = bad.Function;
      OnPower[1] = bad.Bad;
      PowerRequest request;
      request.Minor = bad.Minor;
      PowerBegin(PnpPdo(Node), &request);
      Halt();
    });
    EXPECT_EQ(report.Rule, bad.Rule) << bad.Name << "\n" << report.Text;
  }
}
