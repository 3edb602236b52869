// The verifier's rules here:
//
//   event-log.object   an entry for what is neither a live driver nor a live device
//   event-log.size     an entry too small for its fixed part
//   event-log.unknown  what is written is no allocated entry
//   event-log.string   the strings do not end within the entry, or overlap its data
//   leak.event-log     allocated, never written
#include "platform/model/event_log.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>

#include "platform/model/area.h"
#include "platform/model/causality.h"
#include "platform/model/faults.h"
#include "platform/model/guard.h"
#include "platform/model/objects.h"
#include "platform/model/text.h"
#include "platform/model/verifier.h"

static constexpr size_t MostEntries = 4096;
static constexpr size_t DumpOffset = offsetof(IO_ERROR_LOG_PACKET, DumpData);

// In front of an entry that a driver has.
struct alignas(16) EntryHeader {
  LIST_ENTRY Link;
  PDEVICE_OBJECT Device;
  size_t Size;
};

static ModelMutex LogMutex;
static LIST_ENTRY Allocated = {&Allocated, &Allocated};
static std::deque<EventLogEntry> Log;       // the latest ones
static std::map<ULONG, size_t> CodeCounts;  // of all
static void (*Watcher)(const EventLogEntry &);

PVOID IoAllocateErrorLogEntry(PVOID IoObject, UCHAR EntrySize) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoAllocateErrorLogEntry");
  bool device = ObjectIs(IoObject, ObjectKind::Device);
  if (VerifierOn() && !device && !ObjectIs(IoObject, ObjectKind::Driver)) {
    VerifierStop("event-log.object", IoObject, "%p is neither a driver nor a device", IoObject);
  }
  if (EntrySize == 0 || EntrySize > ERROR_LOG_MAXIMUM_SIZE || FaultHere(FaultEventLog)) {
    return nullptr;
  }
  if (VerifierOn() && EntrySize < DumpOffset) {
    VerifierStop("event-log.size", IoObject, "an entry of %u bytes", EntrySize);
  }
  EntryHeader *header = static_cast<EntryHeader *>(calloc(1, sizeof(EntryHeader) + EntrySize));
  if (!header) {
    return nullptr;
  }
  header->Device = device ? static_cast<PDEVICE_OBJECT>(IoObject) : nullptr;
  header->Size = EntrySize;
  Guard guard(LogMutex);
  InsertTailList(&Allocated, &header->Link);
  return header + 1;
}

static EntryHeader *TakeAllocated(PVOID Entry) {
  Guard guard(LogMutex);
  for (PLIST_ENTRY link = Allocated.Flink; link != &Allocated; link = link->Flink) {
    EntryHeader *header = CONTAINING_RECORD(link, EntryHeader, Link);
    if (header + 1 == Entry) {
      RemoveEntryList(link);
      return header;
    }
  }
  VerifierStop("event-log.unknown", Entry, "%p is no allocated entry", Entry);
}

static void DecodeStrings(const IO_ERROR_LOG_PACKET *Packet, EventLogEntry *Entry) {
  const char *bytes = reinterpret_cast<const char *>(Packet);
  size_t at = Packet->StringOffset;
  if (Packet->NumberOfStrings > 0 && (at < DumpOffset + Packet->DumpDataSize || at % 2 != 0)) {
    VerifierStop("event-log.string", Packet, "strings at offset %zu, data to %zu", at,
                 DumpOffset + Packet->DumpDataSize);
  }
  for (USHORT i = 0; i < Packet->NumberOfStrings; ++i) {
    std::vector<WCHAR> text;
    text.reserve(Entry->Size / sizeof(WCHAR));
    WCHAR character = 0;
    do {
      if (at + sizeof character > Entry->Size) {
        VerifierStop("event-log.string", Packet, "string %u does not end within %zu bytes", i,
                     Entry->Size);
      }
      memcpy(&character, bytes + at, sizeof character);
      at += sizeof character;
      text.push_back(character);
    } while (character);
    Entry->Strings.push_back(TextFromWide(text.data(), text.size() - 1));
  }
}

void IoWriteErrorLogEntry(PVOID ElEntry) {
  VerifierRequireIrql(DISPATCH_LEVEL, "IoWriteErrorLogEntry");
  EntryHeader *header = TakeAllocated(ElEntry);
  const IO_ERROR_LOG_PACKET *packet = static_cast<const IO_ERROR_LOG_PACKET *>(ElEntry);
  EventLogEntry entry;
  entry.Code = static_cast<ULONG>(packet->ErrorCode);
  entry.Device = header->Device;
  entry.MajorFunction = packet->MajorFunctionCode;
  entry.UniqueValue = packet->UniqueErrorValue;
  entry.FinalStatus = packet->FinalStatus;
  entry.StringCount = packet->NumberOfStrings;
  entry.StringOffset = packet->StringOffset;
  entry.Size = header->Size;
  DecodeStrings(packet, &entry);
  HistoryNote("event", header->Device, entry.Code, static_cast<ULONG>(entry.FinalStatus));
  free(header);
  void (*watcher)(const EventLogEntry &);
  {
    SharedGuard guard(LogMutex, Access::Write);
    ++CodeCounts[entry.Code];
    Log.push_back(entry);
    if (Log.size() > MostEntries) {
      Log.pop_front();
    }
    watcher = Watcher;
  }
  if (watcher) {
    watcher(entry);
  }
}

std::vector<EventLogEntry> EventLogEntries() {
  SharedGuard guard(LogMutex, Access::Read);
  return {Log.begin(), Log.end()};
}

size_t EventLogCount(ULONG Code) {
  SharedGuard guard(LogMutex, Access::Read);
  auto found = CodeCounts.find(Code);
  return found == CodeCounts.end() ? 0 : found->second;
}

void EventLogWatch(void (*NewWatcher)(const EventLogEntry &Entry)) {
  Guard guard(LogMutex);
  Watcher = NewWatcher;
}

// ---- the area ----

static void Clear() {
  while (!IsListEmpty(&Allocated)) {
    free(CONTAINING_RECORD(RemoveHeadList(&Allocated), EntryHeader, Link));
  }
  Log.clear();
  CodeCounts.clear();
  Watcher = nullptr;
}

static void Check() {
  if (!IsListEmpty(&Allocated)) {
    VerifierStop("leak.event-log", CONTAINING_RECORD(Allocated.Flink, EntryHeader, Link) + 1,
                 "an event log entry was allocated and never written");
  }
}

extern const ModelArea EventLogArea = {Clear, Check, Clear};
