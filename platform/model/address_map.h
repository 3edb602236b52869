// A map from addresses to the records that carry its nodes; it allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>

struct AddressNode {
  AddressNode *Next;
  const void *Address;
};

// Enough for a thousand ports' objects and blocks.
constexpr unsigned AddressBits = 14;
constexpr size_t AddressBuckets = size_t{1} << AddressBits;

struct AddressMap {
  AddressNode *Heads[AddressBuckets];
};

inline AddressNode **AddressHead(AddressMap *Map, const void *Address) {
  uint64_t mixed = reinterpret_cast<uint64_t>(Address) * 0x9E3779B97F4A7C15;
  return &Map->Heads[mixed >> (64 - AddressBits)];
}

inline void AddressAdd(AddressMap *Map, AddressNode *Node, const void *Address) {
  AddressNode **head = AddressHead(Map, Address);
  Node->Address = Address;
  Node->Next = *head;
  *head = Node;
}

inline AddressNode *AddressFind(AddressMap *Map, const void *Address) {
  AddressNode *node = *AddressHead(Map, Address);
  while (node && node->Address != Address) {
    node = node->Next;
  }
  return node;
}

inline void AddressRemove(AddressMap *Map, AddressNode *Node) {
  AddressNode **at = AddressHead(Map, Node->Address);
  while (*at != Node) {
    at = &(*at)->Next;
  }
  *at = Node->Next;
}
