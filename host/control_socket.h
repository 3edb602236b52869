// The controller's side of a port: a Unix SOCK_SEQPACKET socket that stands for the port's control
// device. Connecting opens the device, one packet is one frame in either direction, disconnecting
// closes. What the host itself has to say is in control_record.h.
//
// The account that runs the host, and root, count as the system's own account; the driver refuses
// everybody else.
#pragma once

#include <functional>
#include <string>

struct ControlSocketOptions {
  std::string PortName;    // "COM3"
  std::string SocketPath;  // what controllers connect to
  std::string DeviceName;  // "\DosDevices\VORLIX_COM3"
};

struct ControlSocket;

// Makes the socket, which must not exist, and serves it. Null with what went wrong.
ControlSocket *ControlSocketMake(const ControlSocketOptions &Options, std::string *Error);

// Controllers are disconnected, what they have outstanding is cancelled, the device is closed and
// the socket deleted. Then runs after all that; the record is gone by then.
void ControlSocketStop(ControlSocket *Socket, std::function<void()> Then);
