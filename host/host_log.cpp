#include "host/host_log.h"

#include <cstdio>

#include "host/event_texts.h"
#include "platform/model/model.h"

void HostLog(const std::string &Name, const char *Format, ...) {
  va_list args;
  va_start(args, Format);
  char text[1024];
  vsnprintf(text, sizeof(text), Format, args);
  va_end(args);
  fprintf(stderr, "%s%s%s\n", Name.c_str(), Name.empty() ? "" : ": ", text);
}

static std::string Insert(const char *Text, const std::vector<std::string> &Strings) {
  std::string line;
  for (const char *at = Text; *at; ++at) {
    size_t number =
        at[0] == '%' && at[1] >= '1' && at[1] <= '9' ? static_cast<size_t>(at[1] - '0') : 0;
    if (number == 0) {
      line += *at == '\r' || *at == '\n' ? ' ' : *at;
      continue;
    }
    line += number <= Strings.size() ? Strings[number - 1] : "(unnamed)";
    ++at;
  }
  while (!line.empty() && line.back() == ' ') {
    line.pop_back();
  }
  return line;
}

static void PrintEntry(const EventLogEntry &Entry) {
  const char *text = EventText(Entry.Code);
  std::string line = text ? Insert(text, Entry.Strings) : "no text for this event";
  if (Entry.FinalStatus != STATUS_SUCCESS) {
    HostLog("event", "0x%08x %s (status 0x%08x)", Entry.Code, line.c_str(),
            static_cast<unsigned>(Entry.FinalStatus));
  } else {
    HostLog("event", "0x%08x %s", Entry.Code, line.c_str());
  }
}

void EventLogPrint() {
  EventLogWatch(PrintEntry);
}
