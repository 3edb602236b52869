// What the host tells people on standard error: one clear line for each thing.
#pragma once

#include <cstdarg>
#include <string>

// Prints "NAME: text" (or the text alone when Name is empty) as one line.
void HostLog(const std::string &Name, const char *Format, ...)
    __attribute__((format(printf, 2, 3)));

// From here on every entry that a driver writes to the event log is printed as it is written.
void EventLogPrint();
