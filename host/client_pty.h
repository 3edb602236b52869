// The clients' side of a port: a pty that programs open by the port's name.
//
// The first open of the pty opens the port and the last close closes it, after everything that was
// written before is at the port. Several opens at once are one client. Bytes and line settings go
// to the port in the order in which the client makes them; what comes from the port is read only
// as fast as the client takes it.
#pragma once

#include <functional>
#include <string>

#include "host/serial_line.h"

struct ClientPtyOptions {
  std::string PortName;    // "COM3"
  std::string LinkPath;    // what clients open
  std::string DeviceName;  // "\DosDevices\COM3"
  LineSettings Line;       // of the port's line before anybody opened it
};

struct ClientPty;

// Makes the pty and its link, and serves it. Null with what went wrong.
ClientPty *ClientPtyMake(const ClientPtyOptions &Options, std::string *Error);

// The client sees a hang-up, what it has outstanding is cancelled, the port is closed and the link
// deleted. Then runs after all that; the record is gone by then.
void ClientPtyStop(ClientPty *Client, std::function<void()> Then);
