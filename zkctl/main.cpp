#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>

#include "controller/frame_format.h"
#include "zkctl/session.h"

#ifdef _WIN32
#include <io.h>
#define isatty _isatty
#define fileno _fileno
#else
#include <unistd.h>
#endif

namespace {

constexpr char DESCRIPTION[] =
    "Watches and steers a serial port as its controller: opens the port's control device, sets "
    "the\n"
    "mode NORMAL and shows every byte in both directions, replies and the driver's messages.";

constexpr char COMMANDS[] =
    "Commands, from -e and then from standard input, one a line:\n"
    "  mode normal|idle    watch the port, or let it be\n"
    "  getmode\n"
    "  lock, unlock        hold the client's requests back, let them go\n"
    "  level N             driver's messages up to level N (0 none, 5 all)\n"
    "  getlevel\n"
    "  send TEXT           write to the real port; C escapes: \\n \\r \\t \\0 \\x1b ...\n"
    "  sendhex HEX         the same in hexadecimal\n"
    "  wait MS             let milliseconds pass before the next command\n"
    "  stay                do not end with standard input, as --stay\n"
    "  quit\n"
    "A command begins when what the one before wrote has completed. A bad line on standard input "
    "is\n"
    "reported and skipped.\n"
    "\n"
    "It ends at quit, at an interrupt, and once standard input has ended and the commands are "
    "done,\n"
    "unless told to stay. Exit status: 0; 1 when the device cannot be opened or goes away; 2 for\n"
    "wrong options or a bad -e, before anything is sent.";

struct Options {
  std::string Name;
  std::string Directory;
  bool Json = false;
  bool Stay = false;
  std::optional<uint32_t> Level;
  std::vector<std::string> Commands;
};

std::string CheckName(const std::string &name) {
  bool good = !name.empty() && name.find_first_of("/\\") == name.npos;
  return good ? "" : fmt::format("'{}' is not the name of a port", name);
}

void Describe(CLI::App *app, Options *options) {
  app->add_option("NAME", options->Name, "name of the port, as COM3")->required()->check(CheckName);
#ifndef _WIN32
  app->add_option("--dir", options->Directory,
                  "where vorlix-host keeps its sockets (default: $XDG_RUNTIME_DIR/vorlix, else "
                  "/tmp/vorlix-UID)");
#endif
  app->add_flag("--json", options->Json, "print one JSON object a line");
  app->add_option("--level", options->Level, "level of the driver's messages, set at the start");
  app->add_option("-e", options->Commands, "carry out a command")->allow_extra_args(false);
  app->add_flag("--stay", options->Stay, "do not end with standard input");
  app->footer(COMMANDS);
}

bool QueueCommands(const Options &options, std::deque<Command> *queue) {
  queue->push_back(
      {.Kind = DO_CONTROL, .Code = COMMAND_SET_MODE, .HasArgument = true, .Argument = MODE_NORMAL});
  if (options.Level) {
    queue->push_back({.Kind = DO_CONTROL,
                      .Code = COMMAND_SET_LEVEL,
                      .HasArgument = true,
                      .Argument = *options.Level});
  }
  for (const std::string &line : options.Commands) {
    Command command;
    std::string error;
    if (!CommandParse(line, &command, &error)) {
      fmt::print(stderr, "zkctl: -e '{}': {}\n", line, error);
      return false;
    }
    queue->push_back(std::move(command));
  }
  return true;
}

bool WantsColour() {
  const char *no = std::getenv("NO_COLOR");
  return isatty(fileno(stdout)) && !(no && *no);
}

int Run(const Options &options) {
  Session session;
  if (!QueueCommands(options, &session.Commands)) {
    return 2;
  }
  std::string error;
  session.Port = ChannelOpen(options.Name, options.Directory, &error);
  if (!session.Port) {
    fmt::print(stderr, "{}: {}\n", options.Name, error);
    return 1;
  }
  session.Style = {.Json = options.Json, .Colour = !options.Json && WantsColour()};
  session.Stay = options.Stay;
  SessionEnd end = SessionRun(&session);
  ChannelClose(session.Port);
  if (end == SESSION_DEVICE_GONE) {
    fmt::print(stderr, "{}: the device has gone away\n", options.Name);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app(DESCRIPTION, "zkctl");
  Options options;
  Describe(&app, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  return Run(options);
}
