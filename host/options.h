// The command line of vorlix-host.
#pragma once

#include <string>
#include <vector>

#include "host/port.h"

struct HostOptions {
  std::vector<PortOptions> Fixed;  // the ports of the command line
  std::vector<PortOptions> Ports;  // these, and those of the file behind them
  std::string Config;              // the file; may be empty
  PortOptions Defaults;            // what every port has unless the file says otherwise
  bool DirectoryGiven = false;     // else it is this account's own in a place for all
  bool Verify = false;
};

// Whether the run goes on. If not, everything is said, and Status is what the program ends with.
bool OptionsParse(int Count, char **Arguments, HostOptions *Options, int *Status);
