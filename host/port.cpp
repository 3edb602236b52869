#include "host/port.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/client_pty.h"
#include "host/control_socket.h"
#include "host/event_loop.h"
#include "host/host_log.h"
#include "host/serial_driver.h"
#include "host/serial_line.h"

// Claimed -> Serving: started. Serving -> Leaving: stopped, or the tty is gone. Leaving -> Gone:
// the device stack is removed. Claimed -> Gone: never started.
enum class PortState { Claimed, Serving, Leaving, Gone };

struct Port {
  PortOptions Options;
  std::string ClientPath;
  std::string ControlPath;
  std::string LockPath;
  int Lock = -1;           // held as long as the name is ours
  bool PathsOurs = false;  // nothing of somebody else's stands there
  LineSettings Line;

  PortState State = PortState::Claimed;
  PnpNode *Node = nullptr;
  ClientPty *Client = nullptr;
  ControlSocket *Control = nullptr;
  unsigned Serving = 0;  // of the two, those not yet stopped

  std::string DeviceNode;  // what Options.Tty leads to
  int Notify = -1;
  LoopFd *NotifyWatch = nullptr;

  std::function<void()> OnGone;
  std::function<void()> Stopped;
};

static std::vector<Port *> Ports;

// ---- The name ----

// Locks the port's name in the directory. A lock file may have been deleted by its last owner
// between our open and our lock; then it is not the one that others find.
static int LockName(Port *Port) {
  for (;;) {
    struct stat ours;
    struct stat found;
    int fd = open(Port->LockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
      return errno;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      int error = errno == EWOULDBLOCK ? EBUSY : errno;
      close(fd);
      return error;
    }
    if (fstat(fd, &ours) == 0 && stat(Port->LockPath.c_str(), &found) == 0 &&
        ours.st_ino == found.st_ino && ours.st_dev == found.st_dev) {
      Port->Lock = fd;
      return 0;
    }
    close(fd);
  }
}

// Deletes what an earlier run left at a path; false when it is something else.
static bool DeleteStale(const std::string &Path, mode_t Kind) {
  struct stat found;
  if (lstat(Path.c_str(), &found) != 0) {
    return errno == ENOENT;
  }
  return (found.st_mode & S_IFMT) == Kind && unlink(Path.c_str()) == 0;
}

static std::string ClaimName(Port *Port) {
  int error = LockName(Port);
  if (error) {
    return Port->ClientPath + (error == EBUSY ? ": in use by another vorlix-host"
                                              : std::string(": ") + strerror(error));
  }
  if (!DeleteStale(Port->ClientPath, S_IFLNK)) {
    return Port->ClientPath + ": exists and is no link of an earlier run";
  }
  if (!DeleteStale(Port->ControlPath, S_IFSOCK)) {
    return Port->ControlPath + ": exists and is no socket of an earlier run";
  }
  Port->PathsOurs = true;
  return "";
}

static std::string CheckTty(Port *Port) {
  int fd = TtyOpen(Port->Options.Tty);
  int error = fd < 0 ? -fd : LineRead(fd, &Port->Line);
  LineParse(Port->Options.Line, &Port->Line);
  if (fd >= 0) {
    TtyClose(fd);
  }
  return error ? Port->Options.Tty + ": " + TtyErrorText(error) : "";
}

Port *PortClaim(const PortOptions &Options, std::string *Error) {
  auto *port = new Port;
  port->Options = Options;
  port->ClientPath = Options.Directory + "/" + Options.Name;
  port->ControlPath = Options.Directory + "/VORLIX_" + Options.Name;
  port->LockPath = Options.Directory + "/." + Options.Name + ".lock";
  *Error = CheckTty(port);
  if (Error->empty()) {
    *Error = ClaimName(port);
  }
  if (!Error->empty()) {
    PortRelease(port);
    return nullptr;
  }
  Ports.push_back(port);
  return port;
}

void PortRelease(Port *Port) {
  if (Port->PathsOurs) {
    unlink(Port->ClientPath.c_str());
    unlink(Port->ControlPath.c_str());
  }
  if (Port->Lock >= 0) {
    unlink(Port->LockPath.c_str());
    close(Port->Lock);
  }
  std::erase(Ports, Port);
  delete Port;
}

const std::string &PortName(const Port *Port) {
  return Port->Options.Name;
}

// ---- The end ----

static void Gone(Port *Port) {
  Port->State = PortState::Gone;
  if (Port->Stopped) {
    std::exchange(Port->Stopped, nullptr)();
  } else {
    std::exchange(Port->OnGone, nullptr)();
  }
}

static void RemoveNode(Port *Port) {
  if (!Port->Node) {
    LoopPost([Port]() { Gone(Port); });
    return;
  }
  LoopTask(
      "remove", [Port]() { PnpRemove(std::exchange(Port->Node, nullptr)); },
      [Port]() { Gone(Port); });
}

static void Disconnect(Port *Port) {
  auto disconnected = [Port]() {
    if (--Port->Serving == 0) {
      RemoveNode(Port);
    }
  };
  // One for each, and one for this routine.
  Port->Serving = 1 + (Port->Client ? 1 : 0) + (Port->Control ? 1 : 0);
  if (Port->Client) {
    ClientPtyStop(std::exchange(Port->Client, nullptr), disconnected);
  }
  if (Port->Control) {
    ControlSocketStop(std::exchange(Port->Control, nullptr), disconnected);
  }
  disconnected();
}

static void StopWatching(Port *Port) {
  LoopFdRemove(Port->NotifyWatch);
  Port->NotifyWatch = nullptr;
  if (Port->Notify >= 0) {
    close(Port->Notify);
    Port->Notify = -1;
  }
}

void PortStop(Port *Port, std::function<void()> Then) {
  if (Port->State == PortState::Gone) {
    LoopPost(std::move(Then));
    return;
  }
  Port->Stopped = std::move(Then);
  if (Port->State != PortState::Leaving) {
    Port->State = PortState::Leaving;
    StopWatching(Port);
    Disconnect(Port);
  }
}

// The tty is gone: to the drivers, a surprise removal; to clients and controllers, a hang-up.
static void Lose(Port *Port) {
  if (Port->State != PortState::Serving) {
    return;
  }
  Port->State = PortState::Leaving;
  HostLog(PortName(Port), "%s: the device is gone", Port->Options.Tty.c_str());
  StopWatching(Port);
  LoopTask(
      "surprise removal", [Port]() { PnpSurpriseRemove(Port->Node); },
      [Port]() { Disconnect(Port); });
}

static void LoseByDevice(PDEVICE_OBJECT PhysicalDevice) {
  LoopPost([PhysicalDevice]() {
    for (Port *port : Ports) {
      if (port->Node && PnpPdo(port->Node) == PhysicalDevice) {
        Lose(port);
      }
    }
  });
}

// ---- The beginning ----

bool PortStart(Port *Port, const std::vector<PDRIVER_OBJECT> &Drivers) {
  const PortOptions &options = Port->Options;
  PortDescription description;
  NTSTATUS status = STATUS_SUCCESS;
  description.Values = options.Registry;
  description.Values["PortName"] = RegistryText(options.Name);
  description.Values["TtyPath"] = {REG_BINARY, {options.Tty.begin(), options.Tty.end()}};
  description.Drivers = Drivers;
  SerialOnLoss(LoseByDevice);
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

// While nobody has the port open, only its directory tells that the tty goes.
static void WatchDevice(Port *Port) {
  LoopFdWait(Port->NotifyWatch, LoopWait::Readable, [Port]() {
    char events[4096];
    while (read(Port->Notify, events, sizeof(events)) > 0) {
    }
    if (access(Port->DeviceNode.c_str(), F_OK) != 0) {
      Lose(Port);
    } else {
      WatchDevice(Port);
    }
  });
}

static int StartWatching(Port *Port) {
  char node[PATH_MAX];
  if (!realpath(Port->Options.Tty.c_str(), node)) {
    return errno;
  }
  Port->DeviceNode = node;
  std::string directory = Port->DeviceNode.substr(0, Port->DeviceNode.rfind('/') + 1);
  Port->Notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (Port->Notify < 0 ||
      inotify_add_watch(Port->Notify, directory.c_str(), IN_DELETE | IN_MOVED_FROM) < 0) {
    return errno;
  }
  Port->NotifyWatch = LoopFdAdd(Port->Notify);
  WatchDevice(Port);
  return 0;
}

bool PortServe(Port *Port, std::function<void()> OnGone) {
  const std::string &name = PortName(Port);
  std::string error;
  Port->OnGone = std::move(OnGone);
  int watch = StartWatching(Port);
  if (watch) {
    HostLog(name, "%s: %s", Port->Options.Tty.c_str(), TtyErrorText(watch).c_str());
    return false;
  }
  Port->Client =
      ClientPtyMake({name, Port->ClientPath, "\\DosDevices\\" + name, Port->Line}, &error);
  if (Port->Client) {
    Port->Control =
        ControlSocketMake({name, Port->ControlPath, "\\DosDevices\\VORLIX_" + name}, &error);
  }
  if (!error.empty()) {
    HostLog(name, "%s", error.c_str());
    return false;
  }
  Port->State = PortState::Serving;
  printf("ready %s %s %s\n", name.c_str(), Port->ClientPath.c_str(), Port->ControlPath.c_str());
  fflush(stdout);
  return true;
}
