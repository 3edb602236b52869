#include "tests/model/port_stack.h"

// The function driver owns the stack's power policy.
static PDRIVER_DISPATCH OnFunction;
static PDRIVER_DISPATCH OnFilter;
static PnpNode *Node;

static PDEVICE_OBJECT FunctionDevice() {
  return PnpPdo(Node)->AttachedDevice;
}

static PDEVICE_OBJECT FilterDevice() {
  return FunctionDevice()->AttachedDevice;
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
  POWER_STATE state = IoGetCurrentIrpStackLocation(Irp)->Parameters.Power.State;
  PoSetPowerState(FilterDevice(), DevicePowerState, state);
  PoStartNextPowerIrp(Irp);
  return STATUS_SUCCESS;
}

// Reports the state and lets the next one go when the devices below are done.
static NTSTATUS PassAndFollow(PDEVICE_OBJECT Device, PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, StartNextAfter, nullptr, TRUE, TRUE, TRUE);
  return PoCallDriver(ExtensionOf(Device)->Lower, Irp);
}

static NTSTATUS Add(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  Attach(Driver, Pdo);
  return STATUS_SUCCESS;
}

static NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp) {
  return (Device->DriverObject == Filter ? OnFilter : OnFunction)(Device, Irp);
}

static NTSTATUS Entry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  Driver->DriverExtension->AddDevice = Add;
  Driver->MajorFunction[IRP_MJ_PNP] = FollowDown;
  Driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  return STATUS_SUCCESS;
}

static void Boot() {
  OnFunction = OnFilter = PassPower;
  Held = nullptr;
  Node = PnpAdd(LoadStack(Entry));
  PnpStart(Node);
  PowerForget();
}

static void Halt() {
  PnpRemove(Node);
  UnloadStack();
}

MODEL_TEST(Power, OneOfAKindAtATime) {
  Boot();
  OnFunction = HoldPower;
  OnFilter = PassAndFollow;  // lets the next one go as late as it can
  PowerRequest first, second, system;
  EXPECT_TRUE(PowerBegin(PnpPdo(Node), &first));
  PIRP held = TakeHeld();
  second.Minor = IRP_MN_QUERY_POWER;
  EXPECT_FALSE(PowerBegin(PnpPdo(Node), &second));
  OnFunction = PassPower;
  // The other kind does not wait for this one.
  OnFilter = PassPower;
  system.Type = SystemPowerState;
  EXPECT_TRUE(PowerBegin(PnpPdo(Node), &system));
  EXPECT_EQ(PowerWait(&system), STATUS_SUCCESS);
  GoOn(held);
  EXPECT_EQ(PowerWait(&first), STATUS_SUCCESS);
  EXPECT_EQ(PowerWait(&second), STATUS_SUCCESS);

  Halt();
}

MODEL_TEST(Power, OddRequestsAndAnswers) {
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
  // The policy's owner refuses a query; a device that goes says so; what is gone gets none.
  OnFunction = FailPower;
  EXPECT_EQ(PnpQueryDevicePower(PnpPdo(Node), PowerDeviceD3), STATUS_DEVICE_BUSY);
  OnFilter = [](PDEVICE_OBJECT, PIRP Irp) {
    PoStartNextPowerIrp(Irp);
    return CompleteWith(Irp, STATUS_DELETE_PENDING);
  };
  EXPECT_EQ(PnpSetDevicePower(PnpPdo(Node), PowerDeviceD3), STATUS_DELETE_PENDING);
  EXPECT_EQ(VerifierWarnings("power.set-failed"), 0u);
  EXPECT_EQ(VerifierWarnings("power.next"), 0u);
  OnFilter = [](PDEVICE_OBJECT Device, PIRP Irp) {
    IoSkipCurrentIrpStackLocation(Irp);  // forgets the next one
    return PoCallDriver(ExtensionOf(Device)->Lower, Irp);
  };
  PnpQueryDevicePower(PnpPdo(Node), PowerDeviceD0);
  EXPECT_EQ(VerifierWarnings("power.next"), 1u);
  PDEVICE_OBJECT pdo = PnpPdo(Node);
  ObReferenceObject(pdo);
  Halt();
  EXPECT_EQ(PnpSetDevicePower(pdo, PowerDeviceD3), STATUS_NO_SUCH_DEVICE);
  ObDereferenceObject(pdo);
}

struct BadFilter {
  const char *Name;
  const char *Rule;
  const char *Words;
  UCHAR Minor;
  const char *Function = "next-power skip down";  // below it
};

static const BadFilter BadFilters[] = {
    {"swallows a request", "power.not-forwarded", "next-power complete", IRP_MN_SET_POWER},
    {"leaves a request undone", "power.not-forwarded", "unsupported complete", IRP_MN_WAIT_WAKE},
    {"refuses for the owner", "power.failed", "next-power failure complete", IRP_MN_QUERY_POWER},
    {"passes a failure down", "power.status-changed", "failure say next-power skip down",
     IRP_MN_SET_POWER},
    {"supports what it does not know", "power.status-changed", "success say next-power skip down",
     IRP_MN_POWER_SEQUENCE},
    {"makes a success of a failure below", "power.status-changed", "next-power copy forgive down",
     IRP_MN_QUERY_POWER, "next-power failure complete"},
    {"lets the next one go twice", "power.next", "next-power next-power skip down",
     IRP_MN_SET_POWER},
    // and goes while it has to come back
    {"leaves a request behind", "device.requests-inside", "next-power copy let-go down",
     IRP_MN_SET_POWER, "next-power hold"},
};

static const BadFilter *Bad;

TEST(Power, BadDriversAreStopped) {
  for (const BadFilter &bad : BadFilters) {
    Bad = &bad;
    RunReport report = ModelRun({}, [] {
      Boot();
      OnFunction = [](PDEVICE_OBJECT, PIRP Irp) {
        return Perform(Bad->Function, PnpPdo(Node), Irp);
      };
      OnFilter = [](PDEVICE_OBJECT, PIRP Irp) {
        return Perform(Bad->Words, FunctionDevice(), Irp);
      };
      PowerRequest request;
      request.Minor = Bad->Minor;
      PowerBegin(PnpPdo(Node), &request);
      Halt();
    });
    EXPECT_EQ(report.Rule, bad.Rule) << bad.Name << "\n" << report.Text;
  }
}
