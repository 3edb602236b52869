// vorlix-host: the serial filter on the kernel model, over Linux serial devices.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "host/config.h"
#include "host/event_loop.h"
#include "host/host_log.h"
#include "host/options.h"
#include "host/port_set.h"
#include "host/serial_driver.h"

// The filter's entry, all that a loader knows of a driver.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

enum ExitStatus { ExitFine = 0, ExitFailed = 1 };

struct Host {
  HostOptions Options;
  PDRIVER_OBJECT Serial = nullptr;
  PDRIVER_OBJECT Filter = nullptr;
  bool Stopping = false;
  int Status = ExitFine;
};

static Host TheHost;

// ---- The directory ----

// A directory under /tmp may have been made by somebody else.
static bool OursAlone(const std::string &Path) {
  struct stat found;
  return lstat(Path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == geteuid() &&
         (found.st_mode & 022) == 0;
}

static bool MakeDirectory(const std::string &Directory, bool Given) {
  std::error_code error;
  std::filesystem::path path(Directory);
  if (path.has_parent_path() && Given) {
    std::filesystem::create_directories(path.parent_path(), error);
  }
  if (mkdir(Directory.c_str(), 0700) != 0 && errno != EEXIST) {
    HostLog("", "%s: %s", Directory.c_str(), strerror(errno));
    return false;
  }
  if (!std::filesystem::is_directory(path, error) || (!Given && !OursAlone(Directory))) {
    HostLog("", "%s: not a directory of ours", Directory.c_str());
    return false;
  }
  return true;
}

// ---- The run ----

static void UnloadDrivers() {
  LoopTask(
      "unload",
      []() {
        if (TheHost.Filter) {
          DriverUnload(TheHost.Filter);
        }
        if (TheHost.Serial) {
          DriverUnload(TheHost.Serial);
        }
      },
      LoopEnd);
}

static void StopHost(int Status) {
  if (!TheHost.Stopping) {
    TheHost.Stopping = true;
    TheHost.Status = Status;
    PortSetStop(UnloadDrivers);
  }
}

// The file again: everything in it counts, or, when it is not fit to be used, nothing.
static void Reload() {
  const HostOptions &options = TheHost.Options;
  std::vector<PortOptions> ports = options.Fixed;
  std::string error;
  if (options.Config.empty()) {
    HostLog("", "SIGHUP is ignored: there is no --config to read again");
  } else if (!ConfigRead(options.Config, options.Defaults, &ports, &error)) {
    HostLog("", "%s; nothing is changed", error.c_str());
  } else {
    HostLog("", "%s: read again", options.Config.c_str());
    PortSetWant(ports);
  }
}

static void OnSignal(int Signal) {
  if (Signal == SIGHUP) {
    if (!TheHost.Stopping) {
      Reload();
    }
    return;
  }
  if (TheHost.Stopping) {
    HostLog("", "interrupted again: not waiting for the ports");
    _exit(ExitFailed);
  }
  StopHost(ExitFine);
}

static PDRIVER_OBJECT Load(const char *Name, PDRIVER_INITIALIZE Entry) {
  NTSTATUS status = STATUS_SUCCESS;
  PDRIVER_OBJECT driver = DriverLoad(Name, Entry, &status);
  if (!driver) {
    HostLog("", "the driver %s did not load: status 0x%08x", Name, static_cast<unsigned>(status));
  }
  return driver;
}

static void StartPorts() {
  if (TheHost.Filter) {
    PortSetStart({TheHost.Serial, TheHost.Filter}, []() { StopHost(ExitFailed); });
  } else {
    StopHost(ExitFailed);
  }
  LoopOnSignal(OnSignal);
}

// SIGHUP would end the program while there is nobody yet to take it.
static void HoldHangUps(int How) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(How, &signals, nullptr);
}

static void RunHost() {
  LoopOpen();
  HoldHangUps(SIG_UNBLOCK);
  EventLogPrint();
  LoopTask(
      "load",
      []() {
        TheHost.Serial = Load("serial", SerialDriverEntry);
        TheHost.Filter = TheHost.Serial ? Load("vorlix", DriverEntry) : nullptr;
      },
      StartPorts);
  LoopRun();
  EventLogWatch(nullptr);
  LoopClose();
}

// Whether the run went to its end.
static bool RunModel(bool Verify) {
  RunOptions run;
  run.Verifier = Verify;
  run.RealClock = true;
  RunReport report = ModelRun(run, RunHost);
  if (report.Stopped) {
    fprintf(stderr, "%s\n%s\n", report.Rule.c_str(), report.Text.c_str());
  }
  return !report.Stopped;
}

int main(int Count, char **Arguments) {
  HostOptions &options = TheHost.Options;
  HoldHangUps(SIG_BLOCK);
  // Whoever read the ready lines may be gone when a device comes back.
  signal(SIGPIPE, SIG_IGN);
  if (!OptionsParse(Count, Arguments, &options, &TheHost.Status)) {
    return TheHost.Status;
  }
  if (!MakeDirectory(options.Defaults.Directory, options.DirectoryGiven)) {
    return ExitFailed;
  }
  if (!PortSetClaim(options.Ports)) {
    PortSetRelease();
    return ExitFailed;
  }
  bool whole = RunModel(options.Verify);
  PortSetRelease();
  if (!whole) {
    // What the abandoned tasks still hold is not fit to be destroyed.
    _exit(ExitFailed);
  }
  return TheHost.Status;
}
