// What the ports are: the checks that the command line and the configuration file have in common,
// and the file itself.
//
//   {"ports": [{"port": "/dev/ttyUSB0", "name": "COM3",
//               "registry": {"VORLIXProxyReadLimit": 256}, "line": "9600,7E1"}]}
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host/port.h"

// A registry value as a person writes it: a number is a DWORD, everything else text. False when the
// number does not fit.
bool RegistryParse(const std::string &Text, RegistryValue *Value);

// What is wrong with a list of ports.
struct PortsFault {
  size_t Index = 0;  // of the port
  std::string Key;   // "port", "name" or "line"; empty when nothing is wrong
  std::string Reason;
};

PortsFault PortsCheck(const std::vector<PortOptions> &Ports);

// Whether two ports cannot be there at the same time: one name, or one tty.
bool PortsClash(const PortOptions &One, const PortOptions &Other);

// Appends the file's ports; what one of them leaves out is as in Defaults. False when the file
// cannot be read, or the list is not fit to be used, with file, place and reason.
bool ConfigRead(const std::string &File, const PortOptions &Defaults,
                std::vector<PortOptions> *Ports, std::string *Error);
