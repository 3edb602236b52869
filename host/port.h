// One port's life: its device stack over a tty, the clients' pty and the controller's socket. The
// port outlives its tty: when that is unplugged the stack is removed, and when it is back a new one
// is built.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/model/model.h"

struct PortOptions {
  std::string Tty;   // "/dev/ttyUSB0", or a link to it
  std::string Name;  // "COM3"
  std::string Directory;
  std::map<std::string, RegistryValue> Registry;  // of the device key, besides the port's own
  std::string Line;                               // for LineParse; empty leaves the tty's own
};

bool PortOptionsEqual(const PortOptions &One, const PortOptions &Other);

struct Port;

// Claims the port's name in the directory, until the release. Null with what went wrong.
Port *PortClaim(const PortOptions &Options, std::string *Error);
const PortOptions &PortOptionsOf(const Port *Port);

// Whether the tty is there and can be had. Returns what is wrong, or nothing.
std::string PortCheckTty(Port *Port);

// From now until PortStop the port is ready whenever its tty is there, which standard output is
// told each time. OnRefused (may be null) runs when the port cannot be made ready the first time
// although its tty is there.
void PortStart(Port *Port, const std::vector<PDRIVER_OBJECT> &Drivers,
               std::function<void()> OnRefused);

// Disconnects everybody and removes the device stack, if there is one. Once; Then runs after that,
// never inside this call.
void PortStop(Port *Port, std::function<void()> Then);

// Gives the name back, and the record up: of a port that was never started, that has stopped, or
// whose run was stopped half way.
void PortRelease(Port *Port);
