// Device objects: their stacks, their driver's list, their life; and the callbacks into drivers
// that carry no packet.
//
// The verifier's rules here:
//
//   device.not-live           what is passed is no live device
//   device.deleted-twice      deleted again
//   device.delete-attached    deleted while attached to a device below
//   device.not-attached       detached from a device that carries none
//   device.attached-twice     attached while attached
//   device.initializing       AddDevice left DO_DEVICE_INITIALIZING set
//   device.flags              an upper filter did not take over the buffering of the device below
//   device.not-detached       still attached to the physical device after the removal
//   device.not-deleted        detached, but not deleted by the removal
//   device.detached-early     a stack taken apart although its device is not being removed
//   device.requests-inside    deleted while a request stands at it
//   leak.device, leak.file    left over
//   link.deleted-twice        a symbolic link deleted again
//   leak.link                 left over
//
// Warnings: interface.enabled-twice, interface.disabled-twice, interface.left-enabled.
#pragma once

#include <cstdint>
#include <string>

#include "platform/kernel.h"
#include "platform/model/guard.h"
#include "platform/model/stack_depth.h"

struct PnpNode;
struct PowerRequest;
struct DeviceInterface;

// Who may be on the way with a power request of a kind, and who waits, first to last. Guarded by
// the power manager's lock.
struct PowerTurn {
  bool Busy;
  PowerRequest *First;
  PowerRequest *Last;
};

// What the model knows of a device, between the device object and its extension. Guarded by
// DeviceMutex, as are the device's own links, ReferenceCount and the drivers' lists of devices;
// what is said to be of power or of packets, by their locks.
struct alignas(16) DeviceShadow {
  PDEVICE_OBJECT AttachedTo;  // the device below
  bool DeletePending;         // IoDeleteDevice was called
  bool LocalSystemOnly;       // who may open it
  bool Shut;                  // nobody may open it any more: it is being removed
  unsigned Opens;             // file objects from handles (not from IoGetDeviceObjectPointer)
  PnpNode *Node;              // of a physical device of the model's bus
  bool MayChange;             // of such a device: drivers are being added or removed
  bool Guest;                 // attached over a stack by somebody whom its manager did not ask
  UCHAR Reached;              // the last minor function that arrived at the bus, plus 1
  PDEVICE_OBJECT *ListLink;   // what points to it in its driver's list; null when it has left
  const std::string *Name;    // its key among the names
  DeviceInterface *Interfaces;
  POWER_STATE Power[2];  // power: by POWER_STATE_TYPE, as reported last
  PowerTurn Turns[2];    // power: of the stack above, system and device
  unsigned Packets;      // packets: that stand at the device, Plug and Play ones apart
};

extern ModelMutex DeviceMutex;

inline DeviceShadow *DeviceShadowOf(PDEVICE_OBJECT Device) {
  return static_cast<DeviceShadow *>(Device->DeviceObjectExtension);
}

// Stops with rule "device.not-live" when the verifier is on and it is no device.
void DeviceRequireLive(PDEVICE_OBJECT Device, const char *Service);
bool DeviceIsDeleted(PDEVICE_OBJECT Device);
PDEVICE_OBJECT DeviceBottom(PDEVICE_OBJECT Device);

// What a device is to the stack that it belongs to; only that of a bus's device has roles.
enum class StackRole : uint8_t { None, Bottom, Function, Filter };
StackRole DeviceRole(PDEVICE_OBJECT Device);

// From BeginChange on drivers may attach and detach their devices; EndChange ends that.
void DeviceBeginChange(PDEVICE_OBJECT Pdo);
void DeviceEndChange(PDEVICE_OBJECT Pdo);

// A device without a name, made by the model's own driver: no fault is delivered here.
PDEVICE_OBJECT DeviceMake(PDRIVER_OBJECT Driver, DEVICE_TYPE Type);

// A file object comes and goes. Opening fails for a device that is initializing, shut, deleted or
// exclusively taken. The caller holds a reference until after DeviceCloseFile.
NTSTATUS DeviceOpenFile(PDEVICE_OBJECT Device, bool LocalSystem, bool FromHandle);
void DeviceCloseFile(PDEVICE_OBJECT Device, bool FromHandle);

// The doors of all devices of the stacks above the given ones: whoever opens a shut one is refused
// before a driver hears of it.
void DeviceSetDoors(const PDEVICE_OBJECT *Bottoms, size_t Count, bool Shut);
// Shuts them unless a file object from a handle is open on one of these devices; false when one is.
bool DeviceShutUnlessOpen(const PDEVICE_OBJECT *Bottoms, size_t Count);
// Waits for the last of these file objects to go, and shuts the doors in the same step.
void DeviceShutWhenUnused(const PDEVICE_OBJECT *Bottoms, size_t Count);

// Around a call of a driver's routine, which is made in the system's process: stops when the
// IRQL differs after it.
struct CallbackScope {
  KIRQL Irql;
  struct DispatchFrame *Frames;
  bool OfUser;
  StackUse Stack;
};
CallbackScope CallbackBegin();
void CallbackEnd(const CallbackScope &Scope, const char *What);

// A driver object with default dispatch routines; one reference.
PDRIVER_OBJECT DriverMake(const char *Name, PDRIVER_INITIALIZE Entry);
