// The power manager: power packets, one of a kind at a time for each stack, and what drivers told
// it.
//
// The verifier's rules here:
//
//   power.next             PoStartNextPowerIrp twice or on another's request (missing: a warning)
//   power.not-forwarded    a device of a Plug and Play stack kept a request from those below
//   power.failed           a filter failed a request of which it is not the policy owner
//   power.status-changed   passed down failed, or changed where the driver does not know it; came
//                          back as not supported although a driver had supported it
//
// Warnings: power.next, power.set-failed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/kernel.h"

// One power packet. It belongs to its maker, stays where it is until it was waited for, and may be
// used again after that.
struct PowerRequest {
  UCHAR Minor = IRP_MN_SET_POWER;            // any number
  POWER_STATE_TYPE Type = DevicePowerState;  // any number
  int State = PowerDeviceD0;                 // of that type
  KIRQL Irql = PASSIVE_LEVEL;                // at which it is sent

  IO_STATUS_BLOCK Iosb = {};
  NTSTATUS Returned = 0;  // what the top driver's dispatch routine returned, once it is done

  // The manager's.
  KEVENT Event = {};
  KEVENT Turn = {};
  PDEVICE_OBJECT Bottom = nullptr;
  PIRP Irp = nullptr;
  PowerRequest *Next = nullptr;
  bool HasTurn = false;
  bool Done = false;
};

// Sends the packet to the top of Device's stack. A query or set request of a kind (system, device)
// waits until the one before it on the same stack was let go, by the PoStartNextPowerIrp of the top
// device or at the latest by its completion: then a thread sends it (see ThreadSettle). Returns
// whether it was sent at once.
bool PowerBegin(PDEVICE_OBJECT Device, PowerRequest *Request);
bool PowerDone(const PowerRequest *Request);
// Waits for the completion and returns the packet's status.
NTSTATUS PowerWait(PowerRequest *Request);
// Cancels a packet that was sent (the real manager does so with IRP_MN_WAIT_WAKE only); false when
// it was not on its way or no cancel routine was there to be called.
bool PowerCancel(PowerRequest *Request);

// Send and wait, to the top of the stack; the status is the packet's.
NTSTATUS PnpSetDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State);
NTSTATUS PnpSetSystemPower(PDEVICE_OBJECT Device, SYSTEM_POWER_STATE State);
NTSTATUS PnpQueryDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State);

// What PoSetPowerState was told last of a device; how often it and PoStartNextPowerIrp were called.
DEVICE_POWER_STATE PowerStateReported(PDEVICE_OBJECT Device);
uint64_t PowerReports();
uint64_t PowerNextCalls();

// What happened, in order: the latest few hundred events since PowerForget.
enum class PowerStep {
  Arrived,    // at a device of the stack, from the top downward
  Report,     // PoSetPowerState of a device
  Next,       // PoStartNextPowerIrp by a device's driver
  Completed,  // came out at the top; the device is the top one
};
struct PowerEvent {
  PowerStep Step;
  PDEVICE_OBJECT Device;
  UCHAR Minor;  // none with a report
  POWER_STATE_TYPE Type;
  int State;
};
std::vector<PowerEvent> PowerEvents();
void PowerForget();

// Of a kind, only one of these goes through a stack at a time.
inline bool PowerTakesTurn(UCHAR Minor) {
  return Minor == IRP_MN_SET_POWER || Minor == IRP_MN_QUERY_POWER;
}

// Parts of other areas: a power packet arrives at a device; the area's boot.
void PowerArrived(PDEVICE_OBJECT Device, const IO_STACK_LOCATION *Location);
void PowerBoot();
