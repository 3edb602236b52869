// The verifier's rules here:
//
//   pnp.not-forwarded  answered with success, but never seen by the bus below
//   pnp.must-succeed   a request that a driver may not fail came back failed
//   pnp.bad-relations  the bus relations name what is no live device
//   leak.node          a port was not removed
//
// Warnings: pnp.child-must-succeed, power.set-failed.
#include "platform/model/pnp_manager.h"

#include <algorithm>

#include "platform/model/area.h"
#include "platform/model/devices.h"
#include "platform/model/faults.h"
#include "platform/model/io_manager.h"
#include "platform/model/model_bus.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/power.h"
#include "platform/model/registry_keys.h"
#include "platform/model/verifier.h"

static constexpr ULONG Unknown = 0xFFFFFFFF;
static const char EnumPath[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Enum\\";

struct PnpChild {
  PDEVICE_OBJECT Device;  // referenced
  bool Started;
  bool Listed;  // in the relations reported last
};

struct PnpNode {
  PnpNode *Next;
  PDEVICE_OBJECT Pdo;
  std::string KeyPath;
  bool HasKey;
  std::vector<PnpChild> Children;
  std::vector<PDEVICE_OBJECT> Bottoms;  // of the stacks, while a removal waits
};

static ModelMutex PnpMutex;
static PnpNode *Nodes;  // guarded by PnpMutex
static uint64_t NodeNumber;

// ---- requests ----

static NTSTATUS Send(PDEVICE_OBJECT Device, UCHAR Minor, PacketRequest *Request) {
  Request->Major = IRP_MJ_PNP;
  Request->Minor = Minor;
  Request->Iosb.Status = STATUS_NOT_SUPPORTED;
  return PacketSendAndWait(Device, Request);
}

static NTSTATUS SendPlain(PDEVICE_OBJECT Device, UCHAR Minor) {
  PacketRequest request = {};
  return Send(Device, Minor, &request);
}

NTSTATUS PnpSend(PDEVICE_OBJECT Device, UCHAR Minor, ULONG_PTR *Information) {
  PacketRequest request = {};
  request.Iosb.Information = Information ? *Information : 0;
  NTSTATUS status = Send(Device, Minor, &request);
  if (Information) {
    *Information = request.Iosb.Information;
  }
  return status;
}

static bool MayNotFail(UCHAR Minor) {
  return Minor == IRP_MN_REMOVE_DEVICE || Minor == IRP_MN_SURPRISE_REMOVAL ||
         Minor == IRP_MN_STOP_DEVICE || Minor == IRP_MN_CANCEL_STOP_DEVICE ||
         Minor == IRP_MN_CANCEL_REMOVE_DEVICE;
}

// To the top of a port's stack, with a look at what became of it below.
static NTSTATUS SendDown(PnpNode *Node, UCHAR Minor, PacketRequest *Request) {
  BusForget(Node->Pdo);
  NTSTATUS status = Send(Node->Pdo, Minor, Request);
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

static NTSTATUS SendToPort(PnpNode *Node, UCHAR Minor) {
  PacketRequest request = {};
  return SendDown(Node, Minor, &request);
}

static NTSTATUS SendToChild(PDEVICE_OBJECT Child, UCHAR Minor) {
  NTSTATUS status = SendPlain(Child, Minor);
  if (!NT_SUCCESS(status) && MayNotFail(Minor)) {
    VerifierWarn("pnp.child-must-succeed");
  }
  return status;
}

static void FillCapabilities(PIO_STACK_LOCATION Location, const void *Context) {
  Location->Parameters.DeviceCapabilities.Capabilities =
      static_cast<PDEVICE_CAPABILITIES>(const_cast<void *>(Context));
}

static PacketRequest CapabilitiesRequest(PDEVICE_CAPABILITIES Capabilities) {
  *Capabilities = {};
  Capabilities->Size = sizeof(DEVICE_CAPABILITIES);
  Capabilities->Version = 1;
  Capabilities->Address = Unknown;
  Capabilities->UINumber = Unknown;
  PacketRequest request = {};
  request.Fill = FillCapabilities;
  request.Context = Capabilities;
  return request;
}

// ---- children ----

static void FillQueryId(PIO_STACK_LOCATION Location, const void *Context) {
  Location->Parameters.QueryId.IdType = *static_cast<const BUS_QUERY_ID_TYPE *>(Context);
}

static void FreeAnswer(NTSTATUS Status, ULONG_PTR Information) {
  if (NT_SUCCESS(Status) && Information) {
    ExFreePoolWithTag(reinterpret_cast<PVOID>(Information), 0);
  }
}

// Whether the device has an answer. What it says is not used.
static bool QueryId(PDEVICE_OBJECT Child, BUS_QUERY_ID_TYPE Type) {
  PacketRequest request = {};
  request.Fill = FillQueryId;
  request.Context = &Type;
  NTSTATUS status = Send(Child, IRP_MN_QUERY_ID, &request);
  FreeAnswer(status, request.Iosb.Information);
  return NT_SUCCESS(status) && request.Iosb.Information != 0;
}

// A child without a device ID is listed but has no place in the system.
static void StartChild(PnpChild *Child) {
  static const BUS_QUERY_ID_TYPE others[] = {BusQueryHardwareIDs, BusQueryCompatibleIDs,
                                             BusQueryInstanceID};
  bool known = QueryId(Child->Device, BusQueryDeviceID);
  for (BUS_QUERY_ID_TYPE type : others) {
    QueryId(Child->Device, type);
  }
  DEVICE_CAPABILITIES capabilities;
  PacketRequest request = CapabilitiesRequest(&capabilities);
  NTSTATUS status = Send(Child->Device, IRP_MN_QUERY_CAPABILITIES, &request);
  bool raw = NT_SUCCESS(status) && capabilities.RawDeviceOK;

  PacketRequest bus = {};
  status = Send(Child->Device, IRP_MN_QUERY_BUS_INFORMATION, &bus);
  FreeAnswer(status, bus.Iosb.Information);
  if (known && raw) {
    Child->Started = NT_SUCCESS(SendPlain(Child->Device, IRP_MN_START_DEVICE));
  }
}

static void RequireRelated(const DEVICE_RELATIONS *Relations) {
  for (ULONG i = 0; VerifierOn() && i < Relations->Count; ++i) {
    if (!ObjectIs(Relations->Objects[i], ObjectKind::Device)) {
      VerifierStop("pnp.bad-relations", Relations, "the bus relations name %p",
                   static_cast<void *>(Relations->Objects[i]));
    }
  }
}

// Takes over the references of the relations: new children are kept with theirs, for known ones
// the second reference is dropped.
static void MergeChildren(PnpNode *Node, const DEVICE_RELATIONS *Relations) {
  for (PnpChild &child : Node->Children) {
    child.Listed = false;
  }
  for (ULONG i = 0; i < Relations->Count; ++i) {
    PDEVICE_OBJECT device = Relations->Objects[i];
    auto known = std::find_if(Node->Children.begin(), Node->Children.end(),
                              [device](const PnpChild &c) { return c.Device == device; });
    if (known == Node->Children.end()) {
      device->Flags |= DO_BUS_ENUMERATED_DEVICE;
      Node->Children.push_back({device, false, true});
      StartChild(&Node->Children.back());
    } else {
      known->Listed = true;
      ObfDereferenceObject(device);
    }
  }
}

static void DropVanished(PnpNode *Node) {
  for (size_t i = 0; i < Node->Children.size();) {
    PDEVICE_OBJECT device = Node->Children[i].Device;
    if (Node->Children[i].Listed) {
      ++i;
      continue;
    }
    SendToChild(device, IRP_MN_REMOVE_DEVICE);
    Node->Children.erase(Node->Children.begin() + static_cast<ptrdiff_t>(i));
    ObfDereferenceObject(device);
  }
}

static void FillBusRelations(PIO_STACK_LOCATION Location, const void *Context) {
  UNREFERENCED_PARAMETER(Context);
  Location->Parameters.QueryDeviceRelations.Type = BusRelations;
}

static void QueryChildren(PnpNode *Node) {
  PacketRequest request = {};
  request.Fill = FillBusRelations;
  NTSTATUS status = Send(Node->Pdo, IRP_MN_QUERY_DEVICE_RELATIONS, &request);
  if (!NT_SUCCESS(status) || !request.Iosb.Information) {
    return;
  }
  auto *relations = reinterpret_cast<DEVICE_RELATIONS *>(request.Iosb.Information);
  RequireRelated(relations);
  MergeChildren(Node, relations);
  DropVanished(Node);
  ExFreePoolWithTag(relations, 0);
}

std::vector<PDEVICE_OBJECT> PnpChildren(const PnpNode *Node) {
  std::vector<PDEVICE_OBJECT> devices;
  for (const PnpChild &child : Node->Children) {
    devices.push_back(child.Device);
  }
  return devices;
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
      if (UpperFilter && differs) {
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
  NTSTATUS status = addDevice(Driver, Node->Pdo);
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
    Nodes = node;
  }
  if (Port.HasKey) {
    RegistryAddKey(node->KeyPath, Port.Values);
  }
  node->Pdo = BusMakeDevice(node);
  return node;
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
    PnpNode **link = &Nodes;
    while (*link != Node) {
      link = &(*link)->Next;
    }
    *link = Node->Next;
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
    return node;
  }
  if (DeviceTop(node->Pdo) != node->Pdo) {
    SendToPort(node, IRP_MN_REMOVE_DEVICE);
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

// ---- life ----

NTSTATUS PnpStart(PnpNode *Node) {
  NTSTATUS status = SendToPort(Node, IRP_MN_START_DEVICE);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  DEVICE_CAPABILITIES capabilities;
  PacketRequest request = CapabilitiesRequest(&capabilities);
  SendDown(Node, IRP_MN_QUERY_CAPABILITIES, &request);
  QueryChildren(Node);
  return status;
}

NTSTATUS PnpQueryStop(PnpNode *Node) {
  return SendToPort(Node, IRP_MN_QUERY_STOP_DEVICE);
}

NTSTATUS PnpCancelStop(PnpNode *Node) {
  return SendToPort(Node, IRP_MN_CANCEL_STOP_DEVICE);
}

NTSTATUS PnpStop(PnpNode *Node) {
  return SendToPort(Node, IRP_MN_STOP_DEVICE);
}

NTSTATUS PnpQueryRemove(PnpNode *Node) {
  for (size_t i = 0; i < Node->Children.size(); ++i) {
    NTSTATUS status = SendToChild(Node->Children[i].Device, IRP_MN_QUERY_REMOVE_DEVICE);
    if (!NT_SUCCESS(status)) {
      for (size_t asked = 0; asked <= i; ++asked) {
        SendToChild(Node->Children[asked].Device, IRP_MN_CANCEL_REMOVE_DEVICE);
      }
      return status;
    }
  }
  NTSTATUS status = SendToPort(Node, IRP_MN_QUERY_REMOVE_DEVICE);
  if (!NT_SUCCESS(status)) {
    PnpCancelRemove(Node);
  }
  return status;
}

NTSTATUS PnpCancelRemove(PnpNode *Node) {
  NTSTATUS status = SendToPort(Node, IRP_MN_CANCEL_REMOVE_DEVICE);
  for (const PnpChild &child : Node->Children) {
    SendToChild(child.Device, IRP_MN_CANCEL_REMOVE_DEVICE);
  }
  return status;
}

void PnpSurpriseRemove(PnpNode *Node) {
  for (const PnpChild &child : Node->Children) {
    SendToChild(child.Device, IRP_MN_SURPRISE_REMOVAL);
  }
  SendToPort(Node, IRP_MN_SURPRISE_REMOVAL);
}

void PnpRemove(PnpNode *Node, bool Force) {
  if (!Force) {
    Node->Bottoms = PnpChildren(Node);
    Node->Bottoms.push_back(Node->Pdo);
    DeviceAwaitNoOpens(Node->Bottoms.data(), Node->Bottoms.size());
  }
  for (const PnpChild &child : Node->Children) {
    SendToChild(child.Device, IRP_MN_REMOVE_DEVICE);
  }
  SendToPort(Node, IRP_MN_REMOVE_DEVICE);
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
