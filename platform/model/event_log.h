// The event log: what drivers wrote.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/kernel.h"

struct EventLogEntry {
  ULONG Code = 0;
  PDEVICE_OBJECT Device = nullptr;  // null when written for the driver object
  UCHAR MajorFunction = 0;
  ULONG UniqueValue = 0;
  NTSTATUS FinalStatus = 0;
  USHORT StringCount = 0;
  USHORT StringOffset = 0;
  size_t Size = 0;                   // of the whole entry
  std::vector<std::string> Strings;  // UTF-8
};

// A copy of the latest few thousand entries, oldest first; the count is of all of the run.
std::vector<EventLogEntry> EventLogEntries();
size_t EventLogCount(ULONG Code);

// Called for every entry as it is written, up to DISPATCH_LEVEL; null for none.
void EventLogWatch(void (*Watcher)(const EventLogEntry &Entry));
