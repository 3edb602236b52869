// The children of a port: reported by its bus relations, raw, without a stack of their own.
#include <algorithm>

#include "platform/model/devices.h"
#include "platform/model/pnp_manager.h"
#include "platform/model/pnp_node.h"
#include "platform/model/pnp_requests.h"

std::vector<PDEVICE_OBJECT> PnpChildren(const PnpNode *Node) {
  std::vector<PDEVICE_OBJECT> devices;
  for (const PnpChild &child : Node->Children) {
    devices.push_back(child.Device);
  }
  return devices;
}

static auto Find(PnpNode *Node, PDEVICE_OBJECT Device) {
  return std::find_if(Node->Children.begin(), Node->Children.end(),
                      [Device](const PnpChild &child) { return child.Device == Device; });
}

bool PnpChildStarted(const PnpNode *Node, PDEVICE_OBJECT Child) {
  return std::any_of(Node->Children.begin(), Node->Children.end(), [Child](const PnpChild &child) {
    return child.Device == Child && child.State == PnpState::Started;
  });
}

NTSTATUS PnpTellChildren(PnpNode *Node, PnpState State, UCHAR Minor, size_t *Asked) {
  bool query = Minor == IRP_MN_QUERY_STOP_DEVICE || Minor == IRP_MN_QUERY_REMOVE_DEVICE;
  for (size_t i = 0; i < Node->Children.size(); ++i) {
    if (Asked) {
      *Asked = i + 1;
    }
    if (Node->Children[i].State != State) {
      continue;
    }
    NTSTATUS status = PnpSendToChild(Node->Children[i].Device, Minor);
    if (query && !NT_SUCCESS(status)) {
      return status;
    }
  }
  return STATUS_SUCCESS;
}

// ---- start ----

// What the manager does with every device that has started.
static void LookInto(PDEVICE_OBJECT Child) {
  DEVICE_CAPABILITIES capabilities;
  PnpAskCapabilities(Child, &capabilities);
  PnpAskState(Child);
  std::vector<PDEVICE_OBJECT> related;
  PnpAskRelations(Child, BusRelations, {}, &related);
  for (PDEVICE_OBJECT device : related) {  // a child's children find no place here
    ObfDereferenceObject(device);
  }
}

// A child that fails is removed from its drivers, but stays listed.
static void Start(PnpChild *Child) {
  if (NT_SUCCESS(PnpSendToChild(Child->Device, IRP_MN_START_DEVICE))) {
    Child->State = PnpState::Started;
    LookInto(Child->Device);
  } else {
    if (Child->State == PnpState::Stopped) {
      PnpSendToChild(Child->Device, IRP_MN_SURPRISE_REMOVAL);
    }
    DeviceSetDoors(&Child->Device, 1, true);
    Child->State = PnpState::Failed;
    PnpSendToChild(Child->Device, IRP_MN_REMOVE_DEVICE);
  }
}

// A child without a device ID is listed but has no place in the system.
static void Introduce(PnpChild *Child) {
  DeviceSetDoors(&Child->Device, 1, false);  // it may have been there before
  bool known = PnpAskId(Child->Device, BusQueryDeviceID);
  for (BUS_QUERY_ID_TYPE type : {BusQueryHardwareIDs, BusQueryCompatibleIDs, BusQueryInstanceID}) {
    PnpAskId(Child->Device, type);
  }
  DEVICE_CAPABILITIES capabilities;
  NTSTATUS status = PnpAskCapabilities(Child->Device, &capabilities);
  bool raw = NT_SUCCESS(status) && capabilities.RawDeviceOK;
  PnpAskBusInformation(Child->Device);
  if (known && raw) {
    Start(Child);
  }
}

// ---- what the relations say ----

static void Vanish(PnpChild *Child) {
  DeviceSetDoors(&Child->Device, 1, true);
  if (Child->State == PnpState::Started || Child->State == PnpState::Stopped) {
    PnpSendToChild(Child->Device, IRP_MN_SURPRISE_REMOVAL);
  }
  Child->State = PnpState::Gone;
}

static void DropVanished(PnpNode *Node) {
  for (size_t i = 0; i < Node->Children.size();) {
    PnpChild *child = &Node->Children[i];
    PDEVICE_OBJECT device = child->Device;
    if (!child->Listed && child->State != PnpState::Gone) {
      Vanish(child);
    }
    if (child->State != PnpState::Gone || !DeviceShutUnlessOpen(&device, 1)) {
      ++i;
      continue;
    }
    PnpSendToChild(device, IRP_MN_REMOVE_DEVICE);
    Node->Children.erase(Node->Children.begin() + static_cast<ptrdiff_t>(i));
    ObfDereferenceObject(device);
  }
}

void PnpMergeChildren(PnpNode *Node, const std::vector<PDEVICE_OBJECT> &Related) {
  for (PnpChild &child : Node->Children) {
    child.Listed = false;
  }
  for (PDEVICE_OBJECT device : Related) {
    auto known = Find(Node, device);
    if (known != Node->Children.end()) {
      known->Listed = true;
      ObfDereferenceObject(device);
    } else {
      device->Flags |= DO_BUS_ENUMERATED_DEVICE;
      Node->Children.push_back({device, PnpState::New, true});
      Introduce(&Node->Children.back());
    }
  }
  for (PnpChild &child : Node->Children) {
    if (child.Listed && child.State == PnpState::Stopped) {
      Start(&child);
    }
  }
  DropVanished(Node);
}
