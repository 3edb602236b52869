#include "host/port.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "host/client_pty.h"
#include "host/control_socket.h"
#include "host/event_loop.h"
#include "host/host_log.h"
#include "host/name_claim.h"
#include "host/serial_driver.h"
#include "host/serial_line.h"
#include "host/tty_watch.h"

// Away -> Starting: the tty is there. Starting -> Serving: the stack is built and the tty still
// there. Starting, Serving -> Leaving: the tty is gone, the port is being stopped, or it did not
// start. Leaving -> Away: the stack is removed. Away -> Stopped, from Leaving without a stay.
//
// Starting and Leaving are tasks, and whatever happens meanwhile waits for their end, which looks
// at how things are then: the tty may have gone, come back or both.
enum class PortState { Away, Starting, Serving, Leaving, Stopped };

struct Port {
  PortOptions Options;
  NameClaim Name;
  LineSettings Line;
  std::vector<PDRIVER_OBJECT> Drivers;

  PortState State = PortState::Away;
  TtyWatch *Watch = nullptr;  // from the start to the stop
  TtyNode Tty;                // what the stack is, or will be, built over
  TtyNode Before;             // the one before, that is gone
  std::string Complaint;      // what was last said of the tty while away

  PnpNode *Node = nullptr;
  bool Started = false;  // the stack
  ClientPty *Client = nullptr;
  ControlSocket *Control = nullptr;
  unsigned Connected = 0;  // of the two, those not yet stopped
  bool Refused = false;    // did not become ready: not tried again before something changes
  bool WasReady = false;   // at any time

  std::function<void()> OnRefused;
  std::function<void()> Stopped;  // set: the port is to end
};

static std::vector<Port *> Ports;

static void LookForTty(Port *Port);

bool PortOptionsEqual(const PortOptions &One, const PortOptions &Other) {
  auto same = [](const auto &a, const auto &b) {
    return a.first == b.first && a.second.Type == b.second.Type && a.second.Data == b.second.Data;
  };
  return One.Tty == Other.Tty && One.Name == Other.Name && One.Directory == Other.Directory &&
         One.Line == Other.Line &&
         std::equal(One.Registry.begin(), One.Registry.end(), Other.Registry.begin(),
                    Other.Registry.end(), same);
}

const PortOptions &PortOptionsOf(const Port *Port) {
  return Port->Options;
}

static const char *NameOf(const Port *Port) {
  return Port->Options.Name.c_str();
}

// ---- The name and the tty ----

Port *PortClaim(const PortOptions &Options, std::string *Error) {
  auto *port = new Port;
  port->Options = Options;
  Ports.push_back(port);
  *Error = NameClaimTake(&port->Name, Options.Directory, Options.Name);
  if (!Error->empty()) {
    PortRelease(port);
    return nullptr;
  }
  return port;
}

void PortRelease(Port *Port) {
  TtyNodeForget(&Port->Tty);
  TtyNodeForget(&Port->Before);
  NameClaimRelease(&Port->Name);
  std::erase(Ports, Port);
  delete Port;
}

// Finds the tty's node and takes over the line's settings. Returns an errno value. A tty that is in
// use is found: its opens are refused as long as it is.
static int FindTty(Port *Port) {
  TtyNodeForget(&Port->Tty);
  int error = TtyNodeFind(Port->Options.Tty, &Port->Tty);
  if (error) {
    return error;
  }
  if (TtyNodeIsOthers(Port->Tty, Port->Before)) {
    TtyNodeForget(&Port->Tty);
    return ENOENT;
  }
  int fd = TtyOpen(Port->Tty.Path);
  error = fd < 0 ? -fd : LineRead(fd, &Port->Line);
  LineParse(Port->Options.Line, &Port->Line);
  if (fd >= 0) {
    TtyClose(fd);
  }
  if (error && error != EBUSY) {
    TtyNodeForget(&Port->Tty);
  }
  return error;
}

std::string PortCheckTty(Port *Port) {
  int error = FindTty(Port);
  return error ? Port->Options.Tty + ": " + TtyErrorText(error) : "";
}

static void SayPresence(Port *Port, const char *What) {
  const std::string &node = Port->Tty.Path;
  const std::string &tty = Port->Options.Tty;
  HostLog(NameOf(Port), "%s: the device is %s%s", tty.c_str(), What,
          node.empty() || node == tty ? "" : (" (" + node + ")").c_str());
}

static void SayWatched(const Port *Port, int Error) {
  if (Error) {
    HostLog(NameOf(Port), "%s: its coming and going may not be noticed: %s",
            Port->Options.Tty.c_str(), TtyErrorText(Error).c_str());
  }
}

// ---- The end ----

static void End(Port *Port) {
  Port->State = PortState::Stopped;
  TtyWatchEnd(std::exchange(Port->Watch, nullptr));
  LoopPost(std::move(Port->Stopped));
}

// The stack is removed. What happened to the tty meanwhile is found by looking.
static void BeAway(Port *Port) {
  bool wait = std::exchange(Port->Refused, false) && TtyNodeThere(Port->Tty);
  Port->State = PortState::Away;
  TtyNodeForget(&Port->Before);
  Port->Before = std::exchange(Port->Tty, {});
  if (Port->Stopped) {
    End(Port);
    return;
  }
  SayWatched(Port, TtyWatchPath(Port->Watch, Port->Options.Tty));
  if (!wait) {
    LookForTty(Port);
  }
}

static void RemoveStack(Port *Port) {
  LoopTask(
      "remove",
      [Port]() {
        if (Port->Node) {
          PnpRemove(std::exchange(Port->Node, nullptr));
        }
      },
      [Port]() { BeAway(Port); });
}

static void Disconnect(Port *Port) {
  auto disconnected = [Port]() {
    if (--Port->Connected == 0) {
      RemoveStack(Port);
    }
  };
  // One for each, and one for this routine.
  Port->Connected = 1 + (Port->Client ? 1 : 0) + (Port->Control ? 1 : 0);
  if (Port->Client) {
    ClientPtyStop(std::exchange(Port->Client, nullptr), disconnected);
  }
  if (Port->Control) {
    ControlSocketStop(std::exchange(Port->Control, nullptr), disconnected);
  }
  disconnected();
}

static void Leave(Port *Port) {
  Port->State = PortState::Leaving;
  Disconnect(Port);
}

// The tty is gone: to the drivers, a surprise removal; to clients and controllers, a hang-up.
static void Lose(Port *Port) {
  Port->State = PortState::Leaving;
  SayPresence(Port, "gone");
  Port->Complaint = TtyErrorText(ENOENT);
  LoopTask(
      "surprise removal",
      [Port]() {
        if (Port->Started) {
          PnpSurpriseRemove(Port->Node);
        }
      },
      [Port]() { Disconnect(Port); });
}

static void LoseByDevice(PDEVICE_OBJECT PhysicalDevice) {
  LoopPost([PhysicalDevice]() {
    for (Port *port : Ports) {
      if (port->State == PortState::Serving && PnpPdo(port->Node) == PhysicalDevice) {
        Lose(port);
      }
    }
  });
}

void PortStop(Port *Port, std::function<void()> Then) {
  Port->Stopped = std::move(Then);
  if (Port->State == PortState::Away) {
    End(Port);
  } else if (Port->State == PortState::Serving) {
    Leave(Port);
  }
}

// ---- The beginning ----

// In a task. False after saying why not.
static bool StartStack(Port *Port) {
  const PortOptions &options = Port->Options;
  const std::string &tty = Port->Tty.Path;
  PortDescription description;
  NTSTATUS status = STATUS_SUCCESS;
  description.Values = options.Registry;
  description.Values["PortName"] = RegistryText(options.Name);
  description.Values["TtyPath"] = {REG_BINARY, {tty.begin(), tty.end()}};
  description.Drivers = Port->Drivers;
  Port->Node = PnpAdd(description, &status);
  if (!Port->Node) {
    HostLog(options.Name, "the drivers did not take the port: status 0x%08x",
            static_cast<unsigned>(status));
    return false;
  }
  status = PnpStart(Port->Node);
  if (!NT_SUCCESS(status)) {
    HostLog(options.Name, "the port did not start: status 0x%08x", static_cast<unsigned>(status));
    return false;
  }
  return true;
}

// Opens the port to clients and controllers. False after saying why not.
static bool Serve(Port *Port) {
  const std::string &name = Port->Options.Name;
  const std::string &client = Port->Name.ClientPath;
  const std::string &control = Port->Name.ControlPath;
  std::string error = NameClaimClear(Port->Name);
  if (error.empty()) {
    Port->Client = ClientPtyMake({name, client, "\\DosDevices\\" + name, Port->Line}, &error);
  }
  if (error.empty()) {
    Port->Control = ControlSocketMake({name, control, "\\DosDevices\\VORLIX_" + name}, &error);
  }
  if (!error.empty()) {
    HostLog(name, "%s", error.c_str());
    return false;
  }
  return true;
}

static void BeReady(Port *Port) {
  Port->State = PortState::Serving;
  if (!Port->Complaint.empty()) {
    SayPresence(Port, Port->WasReady ? "back" : "there");
    Port->Complaint.clear();
  }
  Port->WasReady = true;
  Port->OnRefused = nullptr;
  printf("ready %s %s %s\n", NameOf(Port), Port->Name.ClientPath.c_str(),
         Port->Name.ControlPath.c_str());
  fflush(stdout);
}

static void Refuse(Port *Port) {
  if (Port->OnRefused) {
    LoopPost(std::exchange(Port->OnRefused, nullptr));
  }
}

static void StackBuilt(Port *Port) {
  if (Port->Stopped) {
    Leave(Port);
  } else if (!TtyNodeThere(Port->Tty)) {
    Lose(Port);
  } else if (Port->Started && Serve(Port)) {
    BeReady(Port);
  } else {
    Port->Refused = true;
    Refuse(Port);
    Leave(Port);
  }
}

// Says once what keeps the port waiting.
static void Complain(Port *Port, int Error) {
  std::string complaint = TtyErrorText(Error);
  if (complaint != Port->Complaint) {
    HostLog(NameOf(Port), "%s: %s%s", Port->Options.Tty.c_str(), complaint.c_str(),
            Error == EBUSY ? "" : "; waiting for it");
    Port->Complaint = complaint;
  }
}

static void LookForTty(Port *Port) {
  int error = Port->Tty.Pin < 0 ? FindTty(Port) : 0;
  if (error) {
    Complain(Port, error);
  }
  if (Port->Tty.Pin < 0) {
    return;
  }
  Port->State = PortState::Starting;
  // From here on it is this node that counts, wherever a link leads to.
  SayWatched(Port, TtyWatchPath(Port->Watch, Port->Tty.Path));
  LoopTask(
      "start", [Port]() { Port->Started = StartStack(Port); }, [Port]() { StackBuilt(Port); });
}

static void TtyChanged(Port *Port, int Error) {
  SayWatched(Port, Error);
  if (Port->State == PortState::Away) {
    LookForTty(Port);
  } else if (Port->State == PortState::Serving && !TtyNodeThere(Port->Tty)) {
    Lose(Port);
  }
}

void PortStart(Port *Port, const std::vector<PDRIVER_OBJECT> &Drivers,
               std::function<void()> OnRefused) {
  Port->Drivers = Drivers;
  Port->OnRefused = std::move(OnRefused);
  SerialOnLoss(LoseByDevice);
  Port->Watch = TtyWatchMake([Port](int Error) { TtyChanged(Port, Error); });
  if (!Port->Watch) {
    SayWatched(Port, errno);
    Refuse(Port);
    return;
  }
  SayWatched(Port, TtyWatchPath(Port->Watch, Port->Options.Tty));
  LookForTty(Port);
}
