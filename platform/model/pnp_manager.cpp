// The verifier's rules here, besides those of pnp_requests.h and stack_rules.h:
//
//   pnp.not-forwarded  answered with success, but never seen by the bus below
//   pnp.must-succeed   a request that a driver may not fail came back failed
//   leak.node          a port was not removed
#include "platform/model/pnp_manager.h"

#include "platform/model/area.h"
#include "platform/model/devices.h"
#include "platform/model/faults.h"
#include "platform/model/io_manager.h"
#include "platform/model/model_bus.h"
#include "platform/model/objects.h"
#include "platform/model/pnp_node.h"
#include "platform/model/pnp_requests.h"
#include "platform/model/power.h"
#include "platform/model/registry_keys.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"

static const char EnumPath[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\";

static ModelMutex PnpMutex;
static PnpNode *Nodes;  // guarded by PnpMutex
static uint64_t NodeNumber;

static bool MayNotFail(UCHAR Minor) {
  return Minor == IRP_MN_REMOVE_DEVICE || Minor == IRP_MN_SURPRISE_REMOVAL ||
         Minor == IRP_MN_STOP_DEVICE || Minor == IRP_MN_CANCEL_STOP_DEVICE ||
         Minor == IRP_MN_CANCEL_REMOVE_DEVICE;
}

// To the top of a port's stack, with a look at what became of it below.
static NTSTATUS SendToPort(PnpNode *Node, UCHAR Minor) {
  BusForget(Node->Pdo);
  NTSTATUS status = PnpSendPlain(Node->Pdo, Minor);
  if (!VerifierOn()) {
    return status;
  }
  if (NT_SUCCESS(status) && !BusSaw(Node->Pdo, Minor)) {
    VerifierStop("pnp.not-forwarded", Node->Pdo,
                 "minor function 0x%02x came back with 0x%08x but did not reach the bus", Minor,
                 static_cast<unsigned>(status));
  }
  if (!NT_SUCCESS(status) && MayNotFail(Minor)) {
    VerifierStop("pnp.must-succeed", Node->Pdo, "minor function 0x%02x came back with 0x%08x",
                 Minor, static_cast<unsigned>(status));
  }
  return status;
}

// ---- building ----

// Buffering is a property of a whole stack: whoever is on top decides it, so an upper filter says
// what the device below it says.
static void CheckAdded(PnpNode *Node, PDRIVER_OBJECT Driver, bool UpperFilter) {
  Guard guard(DeviceMutex);
  PDEVICE_OBJECT below = Node->Pdo;
  for (PDEVICE_OBJECT device = below->AttachedDevice; device; device = device->AttachedDevice) {
    if (device->DriverObject == Driver) {
      if (device->Flags & DO_DEVICE_INITIALIZING) {
        VerifierStop("device.initializing", device,
                     "AddDevice left DO_DEVICE_INITIALIZING set on its device");
      }
      ULONG differs = (device->Flags ^ below->Flags) & (DO_BUFFERED_IO | DO_DIRECT_IO);
      ULONG lacks = ~device->Flags & below->Flags & DO_POWER_PAGABLE;
      if (UpperFilter && (differs | lacks)) {
        VerifierStop("device.flags", device, "flags 0x%x, the device below has 0x%x", device->Flags,
                     below->Flags);
      }
    }
    below = device;
  }
}

static NTSTATUS AddDriver(PnpNode *Node, PDRIVER_OBJECT Driver, bool UpperFilter) {
  PDRIVER_ADD_DEVICE addDevice = Driver->DriverExtension->AddDevice;
  if (!addDevice) {
    return STATUS_INVALID_DEVICE_REQUEST;
  }
  CallbackScope scope = CallbackBegin();
  NTSTATUS status;
  {
    ActingAs acting(Driver);
    status = addDevice(Driver, Node->Pdo);
  }
  CallbackEnd(scope, "AddDevice");
  if (NT_SUCCESS(status) && VerifierOn()) {
    CheckAdded(Node, Driver, UpperFilter);
  }
  return status;
}

static PnpNode *MakeNode(const PortDescription &Port) {
  PnpNode *node = new PnpNode();
  node->HasKey = Port.HasKey;
  {
    Guard guard(PnpMutex);
    node->KeyPath = EnumPath + Port.Id + "\\" + std::to_string(NodeNumber++);
    node->Next = Nodes;
    node->Link = &Nodes;
    if (Nodes) {
      Nodes->Link = &node->Next;
    }
    Nodes = node;
  }
  if (Port.HasKey) {
    RegistryAddKey(node->KeyPath, Port.Values);
  }
  node->Pdo = BusMakeDevice(node);
  DeviceBeginChange(node->Pdo);
  return node;
}

// The devices above the physical one, from below, while they stand.
static std::vector<PDEVICE_OBJECT> StackOf(const PnpNode *Node) {
  std::vector<PDEVICE_OBJECT> devices;
  Guard guard(DeviceMutex);
  for (PDEVICE_OBJECT at = Node->Pdo->AttachedDevice; at; at = at->AttachedDevice) {
    devices.push_back(at);
  }
  return devices;
}

static void RemoveDrivers(PnpNode *Node) {
  std::vector<PDEVICE_OBJECT> devices = StackOf(Node);
  DeviceBeginChange(Node->Pdo);
  SendToPort(Node, IRP_MN_REMOVE_DEVICE);
  for (PDEVICE_OBJECT device : devices) {
    if (VerifierOn() && ObjectIs(device, ObjectKind::Device) && !DeviceIsDeleted(device) &&
        DeviceBottom(device) == device) {
      VerifierStop("device.not-deleted", device,
                   "the removal detached the device, but did not delete it");
    }
  }
}

static void FreeNode(PnpNode *Node) {
  if (VerifierOn() && DeviceTop(Node->Pdo) != Node->Pdo) {
    VerifierStop("device.not-detached", Node->Pdo,
                 "a device is still attached to the physical device after its removal");
  }
  if (Node->HasKey) {
    RegistryRemoveKey(Node->KeyPath);
  }
  {
    Guard guard(DeviceMutex);
    DeviceShadowOf(Node->Pdo)->Node = nullptr;
  }
  BusDeleteDevice(Node->Pdo);
  {
    Guard guard(PnpMutex);
    *Node->Link = Node->Next;
    if (Node->Next) {
      Node->Next->Link = Node->Link;
    }
  }
  delete Node;
}

PnpNode *PnpAdd(const PortDescription &Port, NTSTATUS *Status) {
  PnpNode *node = MakeNode(Port);
  NTSTATUS status = STATUS_SUCCESS;
  for (size_t i = 0; i < Port.Drivers.size() && NT_SUCCESS(status); ++i) {
    status = AddDriver(node, Port.Drivers[i], i > 0);
  }
  if (Status) {
    *Status = status;
  }
  if (NT_SUCCESS(status)) {
    DeviceEndChange(node->Pdo);
    return node;
  }
  if (DeviceTop(node->Pdo) != node->Pdo) {
    RemoveDrivers(node);
  }
  FreeNode(node);
  return nullptr;
}

PDEVICE_OBJECT PnpPdo(const PnpNode *Node) {
  return Node->Pdo;
}

NTSTATUS IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                 ACCESS_MASK DesiredAccess, PHANDLE DeviceRegKey) {
  UNREFERENCED_PARAMETER(DesiredAccess);
  VerifierRequireIrql(PASSIVE_LEVEL, "IoOpenDeviceRegistryKey");
  *DeviceRegKey = nullptr;
  if (FaultHere(FaultRegistry)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  PnpNode *node;
  {
    Guard guard(DeviceMutex);
    node = DeviceShadowOf(DeviceObject)->Node;
  }
  if (!node || DevInstKeyType != PLUGPLAY_REGKEY_DEVICE) {
    return STATUS_INVALID_DEVICE_REQUEST;
  }
  return node->HasKey ? RegistryOpenKey(node->KeyPath, DeviceRegKey) : STATUS_OBJECT_NAME_NOT_FOUND;
}

// ---- start and relations ----

NTSTATUS PnpInvalidateRelations(PnpNode *Node) {
  std::vector<PDEVICE_OBJECT> related;
  NTSTATUS status = PnpAskRelations(Node->Pdo, BusRelations, PnpChildren(Node), &related);
  if (NT_SUCCESS(status)) {
    PnpMergeChildren(Node, related);
  }
  return status;
}

// Drivers that could not go on after a stop may still have handles open: they are told first.
static void StartFailed(PnpNode *Node) {
  if (Node->State == PnpState::Stopped) {
    PnpSurpriseRemove(Node);
  } else if (Node->State != PnpState::Started) {
    Node->State = PnpState::Failed;
  }
}

NTSTATUS PnpStart(PnpNode *Node) {
  if (Node->State == PnpState::New) {
    PnpFilterResources(Node->Pdo);
  }
  NTSTATUS status = SendToPort(Node, IRP_MN_START_DEVICE);
  if (!NT_SUCCESS(status)) {
    StartFailed(Node);
    return status;
  }
  Node->State = PnpState::Started;
  DEVICE_CAPABILITIES capabilities;
  PnpAskCapabilities(Node->Pdo, &capabilities);
  PnpAskState(Node->Pdo);
  PnpInvalidateRelations(Node);
  return status;
}

static void AskEverything(PDEVICE_OBJECT Device) {
  for (BUS_QUERY_ID_TYPE type : {BusQueryDeviceID, BusQueryHardwareIDs, BusQueryCompatibleIDs,
                                 BusQueryInstanceID, BusQueryDeviceSerialNumber}) {
    PnpAskId(Device, type);
  }
  PnpAskText(Device, DeviceTextDescription);
  PnpAskText(Device, DeviceTextLocationInformation);
  PnpAskResources(Device);
  PnpAskBusInformation(Device);
  PnpAskInterface(Device);
  PnpNotifyUsage(Device);
  PnpAskState(Device);
  std::vector<PDEVICE_OBJECT> related;
  for (DEVICE_RELATION_TYPE type :
       {EjectionRelations, PowerRelations, RemovalRelations, TargetDeviceRelation}) {
    PnpAskRelations(Device, type, {}, &related);
    for (PDEVICE_OBJECT device : related) {
      ObfDereferenceObject(device);
    }
  }
  PnpSendPlain(Device, IRP_MN_DEVICE_ENUMERATED);
}

void PnpAskEverything(PnpNode *Node) {
  AskEverything(Node->Pdo);
  for (PDEVICE_OBJECT child : PnpChildren(Node)) {
    AskEverything(child);
  }
}

// ---- stop ----

// The first so many children that were asked, and the one that refused with them, hear that nothing
// comes of it.
static NTSTATUS QueryChildren(PnpNode *Node, UCHAR Query, UCHAR Cancel) {
  size_t asked = 0;
  NTSTATUS status = PnpTellChildren(Node, PnpState::Started, Query, &asked);
  for (size_t i = 0; !NT_SUCCESS(status) && i < asked; ++i) {
    if (Node->Children[i].State == PnpState::Started) {
      PnpSendToChild(Node->Children[i].Device, Cancel);
    }
  }
  return status;
}

NTSTATUS PnpQueryStop(PnpNode *Node) {
  NTSTATUS status = QueryChildren(Node, IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = SendToPort(Node, IRP_MN_QUERY_STOP_DEVICE);
  if (!NT_SUCCESS(status)) {
    PnpCancelStop(Node);
  }
  return status;
}

NTSTATUS PnpCancelStop(PnpNode *Node) {
  NTSTATUS status = SendToPort(Node, IRP_MN_CANCEL_STOP_DEVICE);
  PnpTellChildren(Node, PnpState::Started, IRP_MN_CANCEL_STOP_DEVICE);
  return status;
}

NTSTATUS PnpStop(PnpNode *Node) {
  PnpTellChildren(Node, PnpState::Started, IRP_MN_STOP_DEVICE);
  for (PnpChild &child : Node->Children) {
    if (child.State == PnpState::Started) {
      child.State = PnpState::Stopped;
    }
  }
  NTSTATUS status = SendToPort(Node, IRP_MN_STOP_DEVICE);
  Node->State = PnpState::Stopped;
  return status;
}

// ---- removal ----

// The stacks of the port and of its children: all of them, or those that may be opened.
static std::vector<PDEVICE_OBJECT> Bottoms(const PnpNode *Node, bool Openable = false) {
  std::vector<PDEVICE_OBJECT> bottoms = {Node->Pdo};
  for (const PnpChild &child : Node->Children) {
    if (!Openable || (child.State != PnpState::Failed && child.State != PnpState::Gone)) {
      bottoms.push_back(child.Device);
    }
  }
  return bottoms;
}

static void ShutDoors(const PnpNode *Node) {
  std::vector<PDEVICE_OBJECT> bottoms = Bottoms(Node);
  DeviceSetDoors(bottoms.data(), bottoms.size(), true);
}

NTSTATUS PnpQueryRemove(PnpNode *Node, bool Force) {
  NTSTATUS status = QueryChildren(Node, IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = SendToPort(Node, IRP_MN_QUERY_REMOVE_DEVICE);
  if (NT_SUCCESS(status) && !Force) {
    std::vector<PDEVICE_OBJECT> bottoms = Bottoms(Node);
    bool shut = DeviceShutUnlessOpen(bottoms.data(), bottoms.size());
    status = shut ? status : STATUS_DEVICE_BUSY;
  }
  if (!NT_SUCCESS(status)) {
    PnpCancelRemove(Node);
  }
  return status;
}

NTSTATUS PnpCancelRemove(PnpNode *Node) {
  NTSTATUS status = SendToPort(Node, IRP_MN_CANCEL_REMOVE_DEVICE);
  PnpTellChildren(Node, PnpState::Started, IRP_MN_CANCEL_REMOVE_DEVICE);
  std::vector<PDEVICE_OBJECT> bottoms = Bottoms(Node, true);
  DeviceSetDoors(bottoms.data(), bottoms.size(), false);
  return status;
}

// What never started has nothing to be surprised in: its removal is enough.
void PnpSurpriseRemove(PnpNode *Node) {
  ShutDoors(Node);
  for (PnpState state : {PnpState::Started, PnpState::Stopped}) {
    PnpTellChildren(Node, state, IRP_MN_SURPRISE_REMOVAL);
  }
  for (PnpChild &child : Node->Children) {
    child.State = PnpState::Gone;
  }
  if (Node->State == PnpState::Started || Node->State == PnpState::Stopped) {
    SendToPort(Node, IRP_MN_SURPRISE_REMOVAL);
  }
  Node->State = PnpState::Gone;
}

void PnpRemove(PnpNode *Node, bool Force) {
  if (Force) {
    ShutDoors(Node);
  } else {
    Node->Bottoms = Bottoms(Node);
    DeviceShutWhenUnused(Node->Bottoms.data(), Node->Bottoms.size());
  }
  for (const PnpChild &child : Node->Children) {
    PnpSendToChild(child.Device, IRP_MN_REMOVE_DEVICE);
  }
  RemoveDrivers(Node);
  while (!Node->Children.empty()) {
    PDEVICE_OBJECT device = Node->Children.back().Device;
    Node->Children.pop_back();
    ObfDereferenceObject(device);
  }
  FreeNode(Node);
}

// ---- the area ----

static void Boot() {
  Nodes = nullptr;
  NodeNumber = 0;
  BusReset();
  PowerBoot();
}

static void Check() {
  if (Nodes) {
    VerifierStop("leak.node", Nodes->Pdo, "a port was not removed");
  }
}

static void Shutdown() {
  while (Nodes) {
    PnpNode *node = Nodes;
    Nodes = node->Next;
    delete node;
  }
  BusReset();
}

extern const ModelArea PnpArea = {Boot, Check, Shutdown};
