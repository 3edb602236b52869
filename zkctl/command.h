// The commands that a person or a script gives to zkctl, one a line. Parsing only: the session
// carries them out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum CommandKind {
  DO_CONTROL,  // write a control frame: Code, and Argument if HasArgument
  DO_SEND,     // write Bytes to the real port
  DO_WAIT,     // let Milliseconds pass before the next command
  DO_STAY,     // the end of standard input no longer ends the session
  DO_QUIT,
};

struct Command {
  CommandKind Kind = DO_QUIT;
  uint32_t Code = 0;
  bool HasArgument = false;
  uint32_t Argument = 0;
  uint32_t Milliseconds = 0;
  std::vector<uint8_t> Bytes = {};
};

// One frame carries what one command sends.
constexpr size_t SEND_LIMIT = 65536;

// Gives false and says why in `error` when the line is not a command. Blank lines and comments
// (from a #) are for the caller to skip: CommandIsBlank.
bool CommandParse(std::string_view line, Command *command, std::string *error);
bool CommandIsBlank(std::string_view line);

// The name of a control command as the driver's messages spell it, "command 12" when unknown.
std::string CommandName(uint32_t code);
