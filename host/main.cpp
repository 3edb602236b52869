// vorlix-host: the serial filter on the kernel model, over Linux serial devices.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "host/event_loop.h"
#include "host/host_log.h"
#include "host/port.h"
#include "host/serial_driver.h"
#include "host/serial_line.h"

// The filter's entry, all that a loader knows of a driver.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

enum ExitStatus { ExitFine = 0, ExitFailed = 1, ExitUsage = 2 };

struct HostOptions {
  std::vector<std::string> Ttys;
  std::vector<std::string> Names;
  std::string Directory;
  std::vector<std::string> Registry;
  std::string Line;
  bool Verify = false;
};

struct Host {
  std::vector<Port *> Ports;
  PDRIVER_OBJECT Serial = nullptr;
  PDRIVER_OBJECT Filter = nullptr;
  size_t Gone = 0;  // ports whose tty is gone
  bool Stopping = false;
  int Status = ExitFine;
};

static Host TheHost;

// ---- Options ----

// Numbers are DWORDs, everything else text.
static RegistryValue ParseValue(const std::string &Text) {
  char *end = nullptr;
  errno = 0;
  bool digit = !Text.empty() && isdigit(static_cast<unsigned char>(Text[0]));
  unsigned long long number = digit ? strtoull(Text.c_str(), &end, 0) : 0;
  if (!digit || *end != '\0') {
    return RegistryText(Text);
  }
  if (errno != 0 || number > UINT32_MAX) {
    throw CLI::ValidationError("--registry", Text + " does not fit 32 bits");
  }
  return RegistryDword(static_cast<ULONG>(number));
}

static std::map<std::string, RegistryValue> ParseRegistry(const std::vector<std::string> &Entries) {
  std::map<std::string, RegistryValue> values;
  for (const std::string &entry : Entries) {
    size_t equals = entry.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw CLI::ValidationError("--registry", "expected NAME=VALUE, found \"" + entry + "\"");
    }
    values[entry.substr(0, equals)] = ParseValue(entry.substr(equals + 1));
  }
  return values;
}

static void CheckNames(const HostOptions &Options) {
  constexpr size_t NameMost = 64;
  std::set<std::string> seen;
  if (Options.Ttys.size() != Options.Names.size()) {
    throw CLI::ValidationError("--name", "every --port needs one --name");
  }
  for (std::string name : Options.Names) {
    bool fine = !name.empty() && name.size() <= NameMost;
    for (char &letter : name) {
      fine = fine && (isalnum(static_cast<unsigned char>(letter)) || strchr("_-", letter));
      letter = static_cast<char>(toupper(static_cast<unsigned char>(letter)));
    }
    if (!fine) {
      throw CLI::ValidationError("--name", "\"" + name + "\" is no name for a port");
    }
    if (!seen.insert(name).second) {
      throw CLI::ValidationError("--name", name + " is given twice");
    }
  }
  std::set<std::filesystem::path> ttys;
  for (const std::string &tty : Options.Ttys) {
    std::error_code error;
    std::filesystem::path real = std::filesystem::canonical(tty, error);
    if (!error && !ttys.insert(real).second) {
      throw CLI::ValidationError("--port", tty + " is given twice");
    }
  }
}

static std::vector<PortOptions> ParseOptions(int Count, char **Arguments, HostOptions *Options) {
  CLI::App app("Runs the serial filter over Linux serial devices.", "vorlix-host");
  app.add_option("--port", Options->Ttys, "the serial device of a port")
      ->required()
      ->allow_extra_args(false)
      ->type_name("TTY");
  app.add_option("--name", Options->Names, "the name of that port, as COM3")
      ->required()
      ->allow_extra_args(false)
      ->type_name("NAME");
  app.add_option("--dir", Options->Directory,
                 "where the ports' files are made (default: $XDG_RUNTIME_DIR/vorlix, or "
                 "/tmp/vorlix-UID)")
      ->type_name("DIR");
  app.add_option("--registry", Options->Registry, "a value of every port's device key")
      ->allow_extra_args(false)
      ->type_name("NAME=VALUE");
  app.add_option("--line", Options->Line,
                 "speed, bits, parity and stop bits of every port, as 9600,7E1 or 7E1 (default: as "
                 "its device has them); clients may change speed and stop bits")
      ->type_name("LINE");
  app.add_flag("--verify", Options->Verify, "let the verifier watch every driver");
  std::vector<PortOptions> ports;
  try {
    app.parse(Count, Arguments);
    CheckNames(*Options);
    LineSettings line;
    if (!Options->Line.empty() && !LineParse(Options->Line, &line)) {
      throw CLI::ValidationError("--line", "\"" + Options->Line + "\" is no line as 9600,7E1");
    }
    std::map<std::string, RegistryValue> registry = ParseRegistry(Options->Registry);
    for (size_t i = 0; i < Options->Ttys.size(); ++i) {
      ports.push_back(
          {Options->Ttys[i], Options->Names[i], Options->Directory, registry, Options->Line});
    }
  } catch (const CLI::ParseError &error) {
    exit(app.exit(error) == 0 ? ExitFine : ExitUsage);
  }
  return ports;
}

// ---- The directory ----

// A directory under /tmp may have been made by somebody else.
static bool OursAlone(const std::string &Path) {
  struct stat found;
  return lstat(Path.c_str(), &found) == 0 && S_ISDIR(found.st_mode) && found.st_uid == geteuid() &&
         (found.st_mode & 022) == 0;
}

static bool MakeDirectory(std::string *Directory) {
  bool chosen = !Directory->empty();
  if (!chosen) {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    *Directory = runtime && *runtime ? std::string(runtime) + "/vorlix"
                                     : "/tmp/vorlix-" + std::to_string(geteuid());
  }
  std::error_code error;
  std::filesystem::path path(*Directory);
  if (path.has_parent_path() && chosen) {
    std::filesystem::create_directories(path.parent_path(), error);
  }
  if (mkdir(Directory->c_str(), 0700) != 0 && errno != EEXIST) {
    HostLog("", "%s: %s", Directory->c_str(), strerror(errno));
    return false;
  }
  if (!std::filesystem::is_directory(path, error) || (!chosen && !OursAlone(*Directory))) {
    HostLog("", "%s: not a directory of ours", Directory->c_str());
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

// The ports go one after the other, the last one started first.
static void StopPorts(size_t Left) {
  if (Left == 0) {
    UnloadDrivers();
    return;
  }
  PortStop(TheHost.Ports[Left - 1], [Left]() { StopPorts(Left - 1); });
}

static void StopHost(int Status) {
  if (TheHost.Stopping) {
    return;
  }
  TheHost.Stopping = true;
  TheHost.Status = Status;
  StopPorts(TheHost.Ports.size());
}

static void OnSignal() {
  if (TheHost.Stopping) {
    HostLog("", "interrupted again: not waiting for the ports");
    _exit(ExitFailed);
  }
  StopHost(ExitFine);
}

static void OnPortGone() {
  if (++TheHost.Gone == TheHost.Ports.size()) {
    HostLog("", "no port is left");
    StopHost(ExitFailed);
  }
}

static PDRIVER_OBJECT Load(const char *Name, PDRIVER_INITIALIZE Entry) {
  NTSTATUS status = STATUS_SUCCESS;
  PDRIVER_OBJECT driver = DriverLoad(Name, Entry, &status);
  if (!driver) {
    HostLog("", "the driver %s did not load: status 0x%08x", Name, static_cast<unsigned>(status));
  }
  return driver;
}

// In a task. Whether everything is started.
static bool StartAll() {
  TheHost.Serial = Load("serial", SerialDriverEntry);
  TheHost.Filter = TheHost.Serial ? Load("vorlix", DriverEntry) : nullptr;
  if (!TheHost.Filter) {
    return false;
  }
  for (Port *port : TheHost.Ports) {
    if (!PortStart(port, {TheHost.Serial, TheHost.Filter})) {
      return false;
    }
  }
  return true;
}

static void ServeAll(bool Started) {
  for (Port *port : TheHost.Ports) {
    Started = Started && !TheHost.Stopping && PortServe(port, OnPortGone);
  }
  if (!Started) {
    StopHost(ExitFailed);
  }
}

static void RunHost() {
  LoopOpen();
  EventLogPrint();
  bool started = false;
  LoopTask(
      "start", [&started]() { started = StartAll(); },
      [&started]() {
        ServeAll(started);
        LoopOnSignal(OnSignal);
      });
  LoopRun();
  EventLogWatch(nullptr);
  LoopClose();
}

static void ReleasePorts() {
  for (Port *port : TheHost.Ports) {
    PortRelease(port);
  }
}

int main(int Count, char **Arguments) {
  HostOptions options;
  std::vector<PortOptions> ports = ParseOptions(Count, Arguments, &options);
  if (!MakeDirectory(&options.Directory)) {
    return ExitFailed;
  }
  for (PortOptions &port : ports) {
    std::string error;
    port.Directory = options.Directory;
    Port *claimed = PortClaim(port, &error);
    if (!claimed) {
      HostLog(port.Name, "%s", error.c_str());
      TheHost.Status = ExitFailed;
      break;
    }
    TheHost.Ports.push_back(claimed);
  }
  if (TheHost.Status == ExitFine) {
    RunOptions run;
    run.Verifier = options.Verify;
    run.RealClock = true;
    RunReport report = ModelRun(run, RunHost);
    if (report.Stopped) {
      fprintf(stderr, "%s\n%s\n", report.Rule.c_str(), report.Text.c_str());
      ReleasePorts();
      // What the abandoned tasks still hold is not fit to be destroyed.
      _exit(ExitFailed);
    }
  }
  ReleasePorts();
  return TheHost.Status;
}
