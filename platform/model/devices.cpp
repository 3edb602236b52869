#include "platform/model/devices.h"

#include <cstring>
#include <new>

#include "platform/model/area.h"
#include "platform/model/causality.h"
#include "platform/model/executor.h"
#include "platform/model/faults.h"
#include "platform/model/io_manager.h"
#include "platform/model/names.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/text.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

static constexpr CSHORT DeviceObjectType = 3;
static constexpr ULONG HasName = 0x00000040;  // DO_DEVICE_HAS_NAME
static const char LocalSystemSddl[] = "D:P(A;;GA;;;SY)";

ModelMutex DeviceMutex;

struct OpensWaiter {
  OpensWaiter *Next;
  KEVENT Event;
};
static OpensWaiter *Waiters;  // each is unlinked by who sets its event

void DeviceRequireLive(PDEVICE_OBJECT Device, const char *Service) {
  if (VerifierOn() && !ObjectIs(Device, ObjectKind::Device)) {
    VerifierStop("device.not-live", Device, "%s: %p is no live device", Service,
                 static_cast<void *>(Device));
  }
}

bool DeviceIsDeleted(PDEVICE_OBJECT Device) {
  SharedGuard guard(DeviceMutex, Access::Read);
  return DeviceShadowOf(Device)->DeletePending;
}

// ---- creation ----

struct DeviceBody {
  DEVICE_OBJECT Object;
  DeviceShadow Shadow;
};
static_assert(sizeof(DeviceBody) % 16 == 0);

// The memory goes: nobody may come back to it. A removal may delete the device that it stands at,
// and a driver may keep a deleted device with a reference until its requests are back.
static void RequireNoPackets(PDEVICE_OBJECT Device) {
  unsigned packets = VerifierOn() ? PacketsAt(Device) : 0;
  if (packets > 0) {
    VerifierStop("device.requests-inside", Device,
                 "%u requests stand at the device and have to come back to it when it goes",
                 packets);
  }
}

static void DeviceGone(void *Body) {
  PDEVICE_OBJECT device = static_cast<PDEVICE_OBJECT>(Body);
  RequireNoPackets(device);
  {
    SharedGuard guard(DeviceMutex, Access::Write);
    NameForgetDevice(device);
  }
  ObfDereferenceObject(device->DriverObject);
}

// Under DeviceMutex.
static void JoinDriver(PDEVICE_OBJECT Device) {
  PDEVICE_OBJECT *head = &Device->DriverObject->DeviceObject;
  Device->NextDevice = *head;
  if (*head) {
    DeviceShadowOf(*head)->ListLink = &Device->NextDevice;
  }
  *head = Device;
  DeviceShadowOf(Device)->ListLink = head;
}

// Under DeviceMutex.
static void LeaveDriver(PDEVICE_OBJECT Device) {
  DeviceShadow *shadow = DeviceShadowOf(Device);
  *shadow->ListLink = Device->NextDevice;
  if (Device->NextDevice) {
    DeviceShadowOf(Device->NextDevice)->ListLink = shadow->ListLink;
  }
  Device->NextDevice = nullptr;
  shadow->ListLink = nullptr;
}

static PDEVICE_OBJECT MakeDevice(PDRIVER_OBJECT Driver, ULONG ExtensionSize, DEVICE_TYPE Type,
                                 ULONG Characteristics, BOOLEAN Exclusive) {
  DeviceBody *body = static_cast<DeviceBody *>(
      ObjectCreate(ObjectKind::Device, sizeof(DeviceBody) + ExtensionSize, DeviceGone));
  ObjectKeep(body);
  PDEVICE_OBJECT device = &body->Object;
  device->Type = DeviceObjectType;
  device->Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT) + ExtensionSize);
  device->DriverObject = Driver;
  device->Flags = DO_DEVICE_INITIALIZING | (Exclusive ? DO_EXCLUSIVE : 0);
  device->Characteristics = Characteristics;
  device->DeviceType = Type;
  device->StackSize = 1;
  device->DeviceExtension = ExtensionSize ? body + 1 : nullptr;
  device->DeviceObjectExtension = &body->Shadow;
  ObfReferenceObject(Driver);
  return device;
}

static NTSTATUS CreateDevice(PDRIVER_OBJECT Driver, ULONG ExtensionSize, PUNICODE_STRING Name,
                             DEVICE_TYPE Type, ULONG Characteristics, BOOLEAN Exclusive,
                             bool LocalSystemOnly, PDEVICE_OBJECT *Device) {
  *Device = nullptr;
  if (!ObjectIs(Driver, ObjectKind::Driver)) {
    VerifierStop("device.not-live", Driver, "IoCreateDevice: no driver object");
  }
  if (FaultHere(FaultDevice)) {
    return FaultDeviceStatus();
  }
  std::string name = Name && Name->Length ? TextFromString(Name) : std::string();
  if (!name.empty() && name[0] != '\\') {
    return STATUS_OBJECT_NAME_INVALID;
  }
  PDEVICE_OBJECT device = MakeDevice(Driver, ExtensionSize, Type, Characteristics, Exclusive);
  DeviceShadowOf(device)->LocalSystemOnly = LocalSystemOnly;
  bool collides;
  {
    SharedGuard guard(DeviceMutex, Access::Write);
    collides = !name.empty() && NameTaken(name);
    if (!collides) {
      if (!name.empty()) {
        device->Flags |= HasName;
        NameAddDevice(name, device);
      }
      JoinDriver(device);
    }
  }
  if (collides) {
    ObjectLetGo(device);
    return STATUS_OBJECT_NAME_COLLISION;
  }
  HistoryNote("device created", device);
  *Device = device;
  return STATUS_SUCCESS;
}

PDEVICE_OBJECT DeviceMake(PDRIVER_OBJECT Driver, DEVICE_TYPE Type) {
  PDEVICE_OBJECT device = MakeDevice(Driver, 0, Type, 0, FALSE);
  SharedGuard guard(DeviceMutex, Access::Write);
  JoinDriver(device);
  return device;
}

NTSTATUS IoCreateDevice(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                        PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                        ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                        PDEVICE_OBJECT *DeviceObject) {
  VerifierRequireIrql(APC_LEVEL, "IoCreateDevice");
  return CreateDevice(DriverObject, DeviceExtensionSize, DeviceName, DeviceType,
                      DeviceCharacteristics, Exclusive, false, DeviceObject);
}

NTSTATUS IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                              PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                              ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                              PCUNICODE_STRING DefaultSDDLString, LPCGUID DeviceClassGuid,
                              PDEVICE_OBJECT *DeviceObject) {
  UNREFERENCED_PARAMETER(DeviceClassGuid);
  VerifierRequireIrql(PASSIVE_LEVEL, "IoCreateDeviceSecure");
  *DeviceObject = nullptr;
  if (!DeviceName || !DeviceName->Length || !DefaultSDDLString ||
      TextFromString(DefaultSDDLString) != LocalSystemSddl) {
    return STATUS_INVALID_PARAMETER;
  }
  return CreateDevice(DriverObject, DeviceExtensionSize, DeviceName, DeviceType,
                      DeviceCharacteristics, Exclusive, true, DeviceObject);
}

// ---- deletion ----

// Under DeviceMutex. A deleted device leaves its driver once nobody has it open and nothing is
// attached to it: in a removal the driver below deletes its device before the one above detaches.
static bool LeaveDriverIfUnused(PDEVICE_OBJECT Device) {
  if (!DeviceShadowOf(Device)->DeletePending || Device->ReferenceCount > 0 ||
      Device->AttachedDevice) {
    return false;
  }
  LeaveDriver(Device);
  return true;
}

void IoDeleteDevice(PDEVICE_OBJECT DeviceObject) {
  VerifierRequireIrql(APC_LEVEL, "IoDeleteDevice");
  DeviceRequireLive(DeviceObject, "IoDeleteDevice");
  HistoryNote("IoDeleteDevice", DeviceObject);
  bool unused;
  {
    SharedGuard guard(DeviceMutex, Access::Write);
    DeviceShadow *shadow = DeviceShadowOf(DeviceObject);
    if (shadow->DeletePending) {
      VerifierStop("device.deleted-twice", DeviceObject, "IoDeleteDevice: deleted before");
    }
    if (shadow->AttachedTo) {
      VerifierStop("device.delete-attached", DeviceObject,
                   "IoDeleteDevice: the device is attached to a device below");
    }
    shadow->DeletePending = true;
    NameRemoveDevice(DeviceObject);
    unused = LeaveDriverIfUnused(DeviceObject);
  }
  if (unused) {
    ObjectLetGo(DeviceObject);
  }
}

// ---- stacks ----

static PDEVICE_OBJECT TopOf(PDEVICE_OBJECT Device) {
  while (Device->AttachedDevice) {
    Device = Device->AttachedDevice;
  }
  return Device;
}

PDEVICE_OBJECT DeviceTop(PDEVICE_OBJECT Device) {
  SharedGuard guard(DeviceMutex, Access::Read);
  return TopOf(Device);
}

static PDEVICE_OBJECT BottomOf(PDEVICE_OBJECT Device) {
  while (PDEVICE_OBJECT below = DeviceShadowOf(Device)->AttachedTo) {
    Device = below;
  }
  return Device;
}

PDEVICE_OBJECT DeviceBottom(PDEVICE_OBJECT Device) {
  SharedGuard guard(DeviceMutex, Access::Read);
  return BottomOf(Device);
}

StackRole DeviceRole(PDEVICE_OBJECT Device) {
  SharedGuard guard(DeviceMutex, Access::Read);
  PDEVICE_OBJECT bottom = BottomOf(Device);
  if (!(bottom->Flags & DO_BUS_ENUMERATED_DEVICE)) {
    return StackRole::None;
  }
  if (Device == bottom) {
    return StackRole::Bottom;
  }
  return DeviceShadowOf(Device)->AttachedTo == bottom ? StackRole::Function : StackRole::Filter;
}

void DeviceBeginChange(PDEVICE_OBJECT Pdo) {
  SharedGuard guard(DeviceMutex, Access::Read);
  DeviceShadowOf(Pdo)->MayChange = true;
}

void DeviceEndChange(PDEVICE_OBJECT Pdo) {
  SharedGuard guard(DeviceMutex, Access::Read);
  DeviceShadowOf(Pdo)->MayChange = false;
}

// Under DeviceMutex. The stack of a bus's device stands until its removal: until then the manager
// counts on finding the same drivers.
static void RequireChanging(PDEVICE_OBJECT Target) {
  const DeviceShadow *bottom = DeviceShadowOf(BottomOf(Target));
  bool guest = Target->AttachedDevice && DeviceShadowOf(Target->AttachedDevice)->Guest;
  if (VerifierOn() && bottom->Node && !bottom->MayChange && !guest) {
    VerifierStop("device.detached-early", Target,
                 "IoDetachDevice: the stack's device is not being removed");
  }
}

static PDEVICE_OBJECT Attach(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
  SharedGuard guard(DeviceMutex, Access::Write);
  DeviceShadow *source = DeviceShadowOf(SourceDevice);
  if (source->AttachedTo) {
    VerifierStop("device.attached-twice", SourceDevice, "the device is attached already");
  }
  PDEVICE_OBJECT top = TopOf(TargetDevice);
  if ((top->Flags & DO_DEVICE_INITIALIZING) || DeviceShadowOf(top)->DeletePending) {
    return nullptr;
  }
  top->AttachedDevice = SourceDevice;
  source->AttachedTo = top;
  const DeviceShadow *bottom = DeviceShadowOf(BottomOf(top));
  source->Guest = bottom->Node && !bottom->MayChange;
  SourceDevice->StackSize = static_cast<CCHAR>(top->StackSize + 1);
  SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
  SourceDevice->SectorSize = top->SectorSize;
  return top;
}

PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice,
                                           PDEVICE_OBJECT TargetDevice) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoAttachDeviceToDeviceStack");
  DeviceRequireLive(SourceDevice, "IoAttachDeviceToDeviceStack");
  DeviceRequireLive(TargetDevice, "IoAttachDeviceToDeviceStack");
  if (FaultHere(FaultAttach)) {
    return nullptr;
  }
  PDEVICE_OBJECT below = Attach(SourceDevice, TargetDevice);
  // Requests come in before the caller knows what it stands on.
  SwitchPoint(SwitchReason::Call, SourceDevice);
  return below;
}

void IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoDetachDevice");
  DeviceRequireLive(TargetDevice, "IoDetachDevice");
  bool unused;
  {
    SharedGuard guard(DeviceMutex, Access::Write);
    PDEVICE_OBJECT upper = TargetDevice->AttachedDevice;
    if (!upper) {
      VerifierStop("device.not-attached", TargetDevice, "IoDetachDevice: nothing is attached");
    }
    RequireChanging(TargetDevice);
    DeviceShadowOf(upper)->AttachedTo = nullptr;
    TargetDevice->AttachedDevice = nullptr;
    unused = LeaveDriverIfUnused(TargetDevice);
  }
  if (unused) {
    ObjectLetGo(TargetDevice);
  }
}

uint64_t DeviceCount(PDRIVER_OBJECT Driver) {
  SharedGuard guard(DeviceMutex, Access::Read);
  uint64_t count = 0;
  for (PDEVICE_OBJECT device = Driver->DeviceObject; device; device = device->NextDevice) {
    ++count;
  }
  return count;
}

// ---- opens ----

NTSTATUS DeviceOpenFile(PDEVICE_OBJECT Device, bool LocalSystem, bool FromHandle) {
  SharedGuard guard(DeviceMutex, Access::Write);
  DeviceShadow *shadow = DeviceShadowOf(Device);
  if ((Device->Flags & DO_DEVICE_INITIALIZING) || shadow->DeletePending || shadow->Shut) {
    return STATUS_NO_SUCH_DEVICE;
  }
  if (((Device->Flags & DO_EXCLUSIVE) && Device->ReferenceCount > 0) ||
      (shadow->LocalSystemOnly && !LocalSystem)) {
    return STATUS_ACCESS_DENIED;
  }
  ++Device->ReferenceCount;
  shadow->Opens += FromHandle;
  return STATUS_SUCCESS;
}

void DeviceCloseFile(PDEVICE_OBJECT Device, bool FromHandle) {
  bool unused;
  OpensWaiter *waiters = nullptr;
  {
    SharedGuard guard(DeviceMutex, Access::Write);
    --Device->ReferenceCount;
    DeviceShadowOf(Device)->Opens -= FromHandle;
    unused = LeaveDriverIfUnused(Device);
    if (FromHandle) {
      waiters = Waiters;
      Waiters = nullptr;
    }
  }
  if (unused) {
    ObjectLetGo(Device);
  }
  while (waiters) {
    OpensWaiter *waiter = waiters;
    waiters = waiter->Next;
    KeSetEvent(&waiter->Event, IO_NO_INCREMENT, FALSE);
  }
}

// Under DeviceMutex.
static bool AnyOpen(const PDEVICE_OBJECT *Bottoms, size_t Count) {
  for (size_t i = 0; i < Count; ++i) {
    for (PDEVICE_OBJECT device = Bottoms[i]; device; device = device->AttachedDevice) {
      if (DeviceShadowOf(device)->Opens > 0) {
        return true;
      }
    }
  }
  return false;
}

// Under DeviceMutex.
static void SetDoors(const PDEVICE_OBJECT *Bottoms, size_t Count, bool Shut) {
  for (size_t i = 0; i < Count; ++i) {
    for (PDEVICE_OBJECT device = Bottoms[i]; device; device = device->AttachedDevice) {
      DeviceShadowOf(device)->Shut = Shut;
    }
  }
}

void DeviceSetDoors(const PDEVICE_OBJECT *Bottoms, size_t Count, bool Shut) {
  SharedGuard guard(DeviceMutex, Access::Write);
  SetDoors(Bottoms, Count, Shut);
}

bool DeviceShutUnlessOpen(const PDEVICE_OBJECT *Bottoms, size_t Count) {
  SharedGuard guard(DeviceMutex, Access::Write);
  bool open = AnyOpen(Bottoms, Count);
  if (!open) {
    SetDoors(Bottoms, Count, true);
  }
  return !open;
}

void DeviceShutWhenUnused(const PDEVICE_OBJECT *Bottoms, size_t Count) {
  for (;;) {
    OpensWaiter waiter = {};
    KeInitializeEvent(&waiter.Event, NotificationEvent, FALSE);
    {
      SharedGuard guard(DeviceMutex, Access::Write);
      if (!AnyOpen(Bottoms, Count)) {
        SetDoors(Bottoms, Count, true);
        return;
      }
      waiter.Next = Waiters;
      Waiters = &waiter;
    }
    KeWaitForSingleObject(&waiter.Event, Executive, KernelMode, FALSE, nullptr);
  }
}

// ---- callbacks ----

CallbackScope CallbackBegin() {
  PKTHREAD self = ThreadSelf();
  CallbackScope scope = {KeGetCurrentIrql(), self->Dispatching, self->OfUser, StackEnterDriver()};
  self->Dispatching = nullptr;
  self->OfUser = false;
  return scope;
}

void CallbackEnd(const CallbackScope &Scope, const char *What) {
  ThreadSelf()->Dispatching = Scope.Frames;
  ThreadSelf()->OfUser = Scope.OfUser;
  StackRestore(Scope.Stack);
  // Called at PASSIVE_LEVEL: a lock that is kept keeps the IRQL, too.
  if (VerifierOn() && KeGetCurrentIrql() != Scope.Irql) {
    VerifierStop("irql.not-restored", nullptr, "%s was called at IRQL %d and came back at %d", What,
                 Scope.Irql, KeGetCurrentIrql());
  }
}

// ---- the area ----

static void DeviceBoot() {
  Waiters = nullptr;
  NamesBoot();
}

static void DeviceCheck() {
  NamesCheck();
  uint64_t files = ObjectCount(ObjectKind::File);
  if (files > 0) {
    VerifierStop("leak.file", nullptr, "%llu file objects are left",
                 static_cast<unsigned long long>(files));
  }
  uint64_t devices = ObjectCount(ObjectKind::Device);
  if (devices > 0) {
    VerifierStop("leak.device", nullptr, "%llu devices are left",
                 static_cast<unsigned long long>(devices));
  }
}

static void DeviceShutdown() {
  NamesBoot();
}

extern const ModelArea DeviceArea = {DeviceBoot, DeviceCheck, DeviceShutdown};
