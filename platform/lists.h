// Doubly linked lists whose every change first checks that the neighbours point back, and stops the
// system when they do not: a broken list must not be followed further. The driver kit's own inline
// routines lack the check, so these stand in their place on every platform.
#pragma once

FORCEINLINE void InitializeListHead(PLIST_ENTRY ListHead) {
  ListHead->Flink = ListHead;
  ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY *ListHead) {
  return static_cast<BOOLEAN>(ListHead->Flink == ListHead);
}

// Returns TRUE when the list is empty afterwards.
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
  PLIST_ENTRY next = Entry->Flink;
  PLIST_ENTRY previous = Entry->Blink;
  if (next->Blink != Entry || previous->Flink != Entry) {
    __fastfail(FAST_FAIL_CORRUPT_LIST_ENTRY);
  }
  previous->Flink = next;
  next->Blink = previous;
  return static_cast<BOOLEAN>(next == previous);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
  PLIST_ENTRY entry = ListHead->Flink;
  RemoveEntryList(entry);
  return entry;
}

FORCEINLINE void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
  PLIST_ENTRY last = ListHead->Blink;
  if (last->Flink != ListHead) {
    __fastfail(FAST_FAIL_CORRUPT_LIST_ENTRY);
  }
  // The analyzer takes an entry that left another list for one that is still in it.
  Entry->Flink = ListHead;  // NOLINT(clang-analyzer-core.NullDereference)
  Entry->Blink = last;
  last->Flink = Entry;
  ListHead->Blink = Entry;
}
