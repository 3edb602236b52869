// A port in the Plug and Play manager's tree, and the children that it has reported.
#pragma once

#include <string>
#include <vector>

#include "platform/kernel.h"

// New -> Started -> Stopped -> Started; New -> Failed; Started or Stopped -> Gone (surprise
// removal). A node that failed its first start may be started again.
enum class PnpState { New, Started, Stopped, Failed, Gone };

struct PnpChild {
  PDEVICE_OBJECT Device;  // referenced
  PnpState State;
  bool Listed;  // in the relations reported last
};

struct PnpNode {
  PnpNode *Next;
  PnpNode **Link;  // what points to it
  PDEVICE_OBJECT Pdo;
  PnpState State;
  std::string KeyPath;
  bool HasKey;
  std::vector<PnpChild> Children;
  std::vector<PDEVICE_OBJECT> Bottoms;  // of the stacks, while a removal waits
};

// A request to the children in State, in their order; a child that fails a query ends it. Asked,
// when given, is how many were sent it.
NTSTATUS PnpTellChildren(PnpNode *Node, PnpState State, UCHAR Minor, size_t *Asked = nullptr);
// Takes over what the relations named, each with its reference, and deals with who is new, waits to
// be started again, or has vanished.
void PnpMergeChildren(PnpNode *Node, const std::vector<PDEVICE_OBJECT> &Related);
