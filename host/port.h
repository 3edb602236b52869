// One port's life: its device stack over a tty, the clients' pty and the controller's socket.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/model/model.h"

struct PortOptions {
  std::string Tty;   // "/dev/ttyUSB0"
  std::string Name;  // "COM3"
  std::string Directory;
  std::map<std::string, RegistryValue> Registry;  // of the device key, besides the port's own
  std::string Line;                               // for LineParse; empty leaves the tty's own
};

struct Port;

// Checks that the tty can be had and claims the port's name in the directory, before any driver is
// loaded. Null with what went wrong.
Port *PortClaim(const PortOptions &Options, std::string *Error);
const std::string &PortName(const Port *Port);

// In a task: builds and starts the device stack. False after saying why not.
bool PortStart(Port *Port, const std::vector<PDRIVER_OBJECT> &Drivers);

// Opens the port to clients and controllers, and says so on standard output. OnGone runs when the
// port is gone because its tty is. False after saying why not.
bool PortServe(Port *Port, std::function<void()> OnGone);

// Disconnects everybody and removes the device stack. Then runs after that, also when the port is
// gone already or never started.
void PortStop(Port *Port, std::function<void()> Then);

// Gives the name back, and the record up. Also after a run that was stopped half way.
void PortRelease(Port *Port);
