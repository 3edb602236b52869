// The Plug and Play manager: builds device stacks, starts and removes them as the real one does.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/kernel.h"
#include "platform/model/registry.h"

// What a bus reports: a port with its hardware key's values and the drivers of its stack.
struct PortDescription {
  std::map<std::string, RegistryValue> Values;  // of the device's hardware key
  bool HasKey = true;                           // false: IoOpenDeviceRegistryKey fails
  std::vector<PDRIVER_OBJECT> Drivers;          // bottom to top, above the bus's own device
  std::string Id = "MODEL\\SerialPort";
};

struct PnpNode;

// The bus makes the port's physical device; each driver's AddDevice is called in order. A failure
// removes what was built, and returns null with the status.
PnpNode *PnpAdd(const PortDescription &Port, NTSTATUS *Status = nullptr);
PDEVICE_OBJECT PnpPdo(const PnpNode *Node);

// Start to the top of the stack; on success the capabilities and the bus relations are queried and
// new children asked for their IDs, capabilities and bus information, and started (a raw child
// needs no driver). A failed start leaves the node to PnpRemove.
NTSTATUS PnpStart(PnpNode *Node);

// Stop for rebalancing: query, then stop or (when refused) cancel. A refused query returns its
// status. Restart with PnpStart.
NTSTATUS PnpQueryStop(PnpNode *Node);
NTSTATUS PnpCancelStop(PnpNode *Node);
NTSTATUS PnpStop(PnpNode *Node);

// Children first. A refused query is followed by a cancel to all that were asked.
NTSTATUS PnpQueryRemove(PnpNode *Node);
NTSTATUS PnpCancelRemove(PnpNode *Node);

// The device is gone: surprise removal to children and stack. PnpRemove must follow.
void PnpSurpriseRemove(PnpNode *Node);

// Removal of children and stack; the physical device goes with it and Node is freed. Waits first
// until no handle is open on the stack and its children, as the real manager holds a removal back,
// unless Force is set.
void PnpRemove(PnpNode *Node, bool Force = false);

// A minor function of the caller's choice to the top of the stack; see SendPacket.
NTSTATUS PnpSend(PDEVICE_OBJECT Device, UCHAR Minor, ULONG_PTR *Information = nullptr);

// The children reported last (referenced by the manager as long as they are listed).
std::vector<PDEVICE_OBJECT> PnpChildren(const PnpNode *Node);

// Power packets to the top of the stack, one of a kind at a time; the status is the packet's.
NTSTATUS PnpSetDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State);
NTSTATUS PnpSetSystemPower(PDEVICE_OBJECT Device, SYSTEM_POWER_STATE State);
NTSTATUS PnpQueryDevicePower(PDEVICE_OBJECT Device, DEVICE_POWER_STATE State);
