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

// To the top of the stack: the resource requirements may be filtered (before the first start), then
// the start; on success capabilities, state and bus relations are queried and children looked
// after, see PnpInvalidateRelations. A first start that fails leaves the node to PnpRemove, as does
// a start that fails after a stop: the stack and its children are then told of a surprise removal
// first.
NTSTATUS PnpStart(PnpNode *Node);

// The bus relations are asked for again. New children are asked for their IDs, capabilities and bus
// information, and started (a raw child needs no driver; one that fails is removed); stopped ones
// are started again; those that vanished get a surprise removal and, once no handle is open on
// them, a removal (looked at again at every query and at the port's removal). The status is the
// query's.
NTSTATUS PnpInvalidateRelations(PnpNode *Node);

// Stop for rebalancing: query, then stop or cancel; started children go before the port, and are
// cancelled after it. A refused query is followed by a cancel to all that were asked and returns
// its status. Restart with PnpStart.
NTSTATUS PnpQueryStop(PnpNode *Node);
NTSTATUS PnpCancelStop(PnpNode *Node);
NTSTATUS PnpStop(PnpNode *Node);

// Started children first. When nobody has refused, an open handle on the stack or a child does:
// with STATUS_DEVICE_BUSY, unless Force is set; without one nobody can open them any more until the
// cancel. A refused query is followed by a cancel to all that were asked. Forced, everything stays
// as it is between a query and the look at the handles.
NTSTATUS PnpQueryRemove(PnpNode *Node, bool Force = false);
NTSTATUS PnpCancelRemove(PnpNode *Node);

// The device is gone: nobody can open it or a child any more; surprise removal to children and
// stack, as far as they have been started. PnpRemove must follow.
void PnpSurpriseRemove(PnpNode *Node);

// Removal of children and stack; the physical device goes with it and Node is freed. Waits first
// until no handle is open on the stack and its children, as the real manager holds a removal back,
// unless Force is set. From the moment it has found none, or is forced, who opens one of their
// devices is refused before a driver hears of it.
void PnpRemove(PnpNode *Node, bool Force = false);

// Every other question of the manager, to the top of the stack and to the children, one after the
// other: IDs, texts, resources, bus information, interface, usage, relations of every type, state.
void PnpAskEverything(PnpNode *Node);

// A minor function of the caller's choice to the top of the stack; see SendPacket.
NTSTATUS PnpSend(PDEVICE_OBJECT Device, UCHAR Minor, ULONG_PTR *Information = nullptr);

// The children reported last (referenced by the manager as long as they are listed).
std::vector<PDEVICE_OBJECT> PnpChildren(const PnpNode *Node);
bool PnpChildStarted(const PnpNode *Node, PDEVICE_OBJECT Child);
