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
//   leak.device, leak.file    left over
//   link.deleted-twice        a symbolic link deleted again
//   leak.link                 left over
//
// Warnings: interface.enabled-twice, interface.disabled-twice, interface.left-enabled.
#pragma once

#include "platform/kernel.h"
#include "platform/model/guard.h"

struct PnpNode;

// What the model knows of a device, between the device object and its extension. Guarded by
// DeviceMutex, as are the device's own links, ReferenceCount and the drivers' lists of devices.
struct alignas(16) DeviceShadow {
  PDEVICE_OBJECT AttachedTo;  // the device below
  bool DeletePending;         // IoDeleteDevice was called
  bool LocalSystemOnly;       // who may open it
  unsigned Opens;             // file objects from handles (not from IoGetDeviceObjectPointer)
  POWER_STATE Power[2];       // by POWER_STATE_TYPE, as reported last
  PnpNode *Node;              // of a physical device of the model's bus
  UCHAR Reached;              // the last minor function that arrived at the bus, plus 1
};

extern ModelMutex DeviceMutex;

inline DeviceShadow *DeviceShadowOf(PDEVICE_OBJECT Device) {
  return static_cast<DeviceShadow *>(Device->DeviceObjectExtension);
}

// A device without a name, made by the model's own driver: no fault is delivered here.
PDEVICE_OBJECT DeviceMake(PDRIVER_OBJECT Driver, DEVICE_TYPE Type);

// A file object comes and goes. Opening fails for a device that is initializing, deleted or
// exclusively taken. The caller holds a reference until after DeviceCloseFile.
NTSTATUS DeviceOpenFile(PDEVICE_OBJECT Device, bool LocalSystem, bool FromHandle);
void DeviceCloseFile(PDEVICE_OBJECT Device, bool FromHandle);

// Waits until no file object from a handle is open on any of the devices of the stacks above the
// given ones.
void DeviceAwaitNoOpens(const PDEVICE_OBJECT *Bottoms, size_t Count);

// Around a call of a driver's routine: stops when IRQL or locks differ after it.
struct CallbackScope {
  KIRQL Irql;
  unsigned Locks;
  struct DispatchFrame *Frames;
};
CallbackScope CallbackBegin();
void CallbackEnd(const CallbackScope &Scope, const char *What);

// A driver object with default dispatch routines; one reference.
PDRIVER_OBJECT DriverMake(const char *Name, PDRIVER_INITIALIZE Entry);
