#include "platform/model/power.h"

#include "platform/model/devices.h"
#include "platform/model/io_manager.h"
#include "platform/model/packets.h"
#include "platform/model/pnp_manager.h"
#include "platform/model/verifier.h"

// Guarded by DeviceMutex.
static uint64_t Reports;
static uint64_t NextCalls;

void PoStartNextPowerIrp(PIRP Irp) {
  VerifierRequireIrql(DISPATCH_LEVEL, "PoStartNextPowerIrp");
  if (VerifierOn()) {
    PacketShadow *shadow = PacketRequireLive(Irp, "PoStartNextPowerIrp");
    Guard guard(RequestMutex);
    if (shadow->State != PacketState::Held || Irp->CurrentLocation != shadow->Location ||
        IoGetCurrentIrpStackLocation(Irp)->MajorFunction != IRP_MJ_POWER) {
      VerifierStop("power.next", Irp,
                   "PoStartNextPowerIrp: the current location is not the caller's power request");
    }
    ++shadow->Locations[shadow->Location].PowerNexts;
  }
  Guard guard(DeviceMutex);
  ++NextCalls;
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return IofCallDriver(DeviceObject, Irp);
}

POWER_STATE PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State) {
  VerifierRequireIrql(DISPATCH_LEVEL, "PoSetPowerState");
  Guard guard(DeviceMutex);
  POWER_STATE *reported = &DeviceShadowOf(DeviceObject)->Power[Type];
  POWER_STATE before = *reported;
  *reported = State;
  ++Reports;
  return before;
}

DEVICE_POWER_STATE PowerStateReported(PDEVICE_OBJECT Device) {
  Guard guard(DeviceMutex);
  return DeviceShadowOf(Device)->Power[DevicePowerState].DeviceState;
}

uint64_t PowerReports() {
  Guard guard(DeviceMutex);
  return Reports;
}

uint64_t PowerNextCalls() {
  Guard guard(DeviceMutex);
  return NextCalls;
}

void PowerBoot() {
  Reports = 0;
  NextCalls = 0;
}

struct PowerStep {
  POWER_STATE_TYPE Type;
  POWER_STATE State;
};

static void FillPower(PIO_STACK_LOCATION Location, const void *Context) {
  const PowerStep *step = static_cast<const PowerStep *>(Context);
  Location->Parameters.Power.Type = step->Type;
  Location->Parameters.Power.State = step->State;
  Location->Parameters.Power.ShutdownType = PowerActionNone;
}

static NTSTATUS SendPower(PDEVICE_OBJECT Device, UCHAR Minor, const PowerStep &Step) {
  PacketRequest request = {};
  request.Major = IRP_MJ_POWER;
  request.Minor = Minor;
  request.Fill = FillPower;
  request.Context = &Step;
  request.Iosb.Status = STATUS_NOT_SUPPORTED;
  NTSTATUS status = PacketSendAndWait(Device, &request);
  if (Minor == IRP_MN_SET_POWER && !NT_SUCCESS(status)) {
    VerifierWarn("power.set-failed");
  }
  return status;
}

NTSTATUS PnpSetDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State) {
  PowerStep step = {DevicePowerState, {}};
  step.State.DeviceState = State;
  return SendPower(Device, IRP_MN_SET_POWER, step);
}

NTSTATUS PnpSetSystemPower(PDEVICE_OBJECT Device, SYSTEM_POWER_STATE State) {
  PowerStep step = {SystemPowerState, {}};
  step.State.SystemState = State;
  return SendPower(Device, IRP_MN_SET_POWER, step);
}

NTSTATUS PnpQueryDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State) {
  PowerStep step = {DevicePowerState, {}};
  step.State.DeviceState = State;
  return SendPower(Device, IRP_MN_QUERY_POWER, step);
}
