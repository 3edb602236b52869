#include "host/options.h"

#include <cstdlib>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "host/config.h"
#include "host/serial_line.h"

static void TakeRegistry(const std::vector<std::string> &Entries, HostOptions *Options) {
  for (const std::string &entry : Entries) {
    size_t equals = entry.find('=');
    if (equals == std::string::npos || equals == 0) {
      throw CLI::ValidationError("--registry", "expected NAME=VALUE, found \"" + entry + "\"");
    }
    RegistryValue *value = &Options->Defaults.Registry[entry.substr(0, equals)];
    if (!RegistryParse(entry.substr(equals + 1), value)) {
      throw CLI::ValidationError("--registry", entry.substr(equals + 1) + " does not fit 32 bits");
    }
  }
}

// The ports of the command line, and those of the file behind them.
static void TakePorts(const std::vector<std::string> &Ttys, const std::vector<std::string> &Names,
                      HostOptions *Options) {
  LineSettings line;
  std::string error;
  const std::string &given = Options->Defaults.Line;
  if (Ttys.size() != Names.size()) {
    throw CLI::ValidationError("--name", "every --port needs one --name");
  }
  if (Ttys.empty() && Options->Config.empty()) {
    throw CLI::RequiredError("--port or --config");
  }
  if (!given.empty() && !LineParse(given, &line)) {
    throw CLI::ValidationError("--line", "\"" + given + "\" is no line as 9600,7E1");
  }
  for (size_t i = 0; i < Ttys.size(); ++i) {
    Options->Fixed.push_back(Options->Defaults);
    Options->Fixed.back().Tty = Ttys[i];
    Options->Fixed.back().Name = Names[i];
  }
  PortsFault fault = PortsCheck(Options->Fixed);
  if (!fault.Key.empty()) {
    throw CLI::ValidationError("--" + fault.Key, fault.Reason);
  }
  Options->Ports = Options->Fixed;
  if (!Options->Config.empty() &&
      !ConfigRead(Options->Config, Options->Defaults, &Options->Ports, &error)) {
    throw CLI::ValidationError("--config", error);
  }
}

static void ChooseDirectory(HostOptions *Options) {
  std::string *directory = &Options->Defaults.Directory;
  Options->DirectoryGiven = !directory->empty();
  if (!Options->DirectoryGiven) {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    *directory = runtime && *runtime ? std::string(runtime) + "/vorlix"
                                     : "/tmp/vorlix-" + std::to_string(geteuid());
  }
}

bool OptionsParse(int Count, char **Arguments, HostOptions *Options, int *Status) {
  constexpr int usage = 2;
  std::vector<std::string> ttys;
  std::vector<std::string> names;
  std::vector<std::string> registry;
  CLI::App app("Runs the serial filter over Linux serial devices.", "vorlix-host");
  app.add_option("--port", ttys,
                 "the serial device of a port, or a stable link to it as in /dev/serial/by-id")
      ->allow_extra_args(false)
      ->type_name("TTY");
  app.add_option("--name", names, "the name of that port, as COM3")
      ->allow_extra_args(false)
      ->type_name("NAME");
  app.add_option("--config", Options->Config,
                 "a file of more ports, read again at SIGHUP: {\"ports\": [{\"port\": TTY, "
                 "\"name\": NAME, \"registry\": {NAME: VALUE}, \"line\": LINE}]}")
      ->type_name("FILE");
  app.add_option("--dir", Options->Defaults.Directory,
                 "where the ports' files are made (default: $XDG_RUNTIME_DIR/vorlix, or "
                 "/tmp/vorlix-UID)")
      ->type_name("DIR");
  app.add_option("--registry", registry,
                 "a value of every port's device key, unless the file has another for a port")
      ->allow_extra_args(false)
      ->type_name("NAME=VALUE");
  app.add_option("--line", Options->Defaults.Line,
                 "speed, bits, parity and stop bits of every port, as 9600,7E1 or 7E1 (default: "
                 "as its device has them), unless the file has others for a port; clients may "
                 "change speed and stop bits")
      ->type_name("LINE");
  app.add_flag("--verify", Options->Verify, "let the verifier watch every driver");
  try {
    app.parse(Count, Arguments);
    ChooseDirectory(Options);
    TakeRegistry(registry, Options);
    TakePorts(ttys, names, Options);
    return true;
  } catch (const CLI::ParseError &error) {
    *Status = app.exit(error) == 0 ? 0 : usage;
    return false;
  }
}
