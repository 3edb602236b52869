#include "zkctl/command.h"

#include <gtest/gtest.h>

#include "controller/frame_format.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ToBytes(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

TEST(Command, ControlCommandsCarryTheirCodeAndArgument) {
  struct Case {
    const char *Line;
    uint32_t Code;
    bool HasArgument;
    uint32_t Argument;
  };
  const Case cases[] = {
      {"mode normal", COMMAND_SET_MODE, true, MODE_NORMAL},
      {"  mode\tidle  \r\n", COMMAND_SET_MODE, true, MODE_IDLE},
      {"getmode", COMMAND_GET_MODE, false, 0},
      {"lock", COMMAND_LOCK_STREAM, false, 0},
      {"unlock ", COMMAND_UNLOCK_STREAM, false, 0},
      {"level 0", COMMAND_SET_LEVEL, true, 0},
      {"level 4294967295", COMMAND_SET_LEVEL, true, 0xFFFFFFFF},
      {"getlevel", COMMAND_GET_LEVEL, false, 0},
  };
  for (const Case &c : cases) {
    Command command;
    std::string error;
    ASSERT_TRUE(CommandParse(c.Line, &command, &error)) << c.Line << ": " << error;
    EXPECT_EQ(command.Kind, DO_CONTROL) << c.Line;
    EXPECT_EQ(command.Code, c.Code) << c.Line;
    EXPECT_EQ(command.HasArgument, c.HasArgument) << c.Line;
    EXPECT_EQ(command.Argument, c.Argument) << c.Line;
  }
}

TEST(Command, SendsExactlyTheBytesMeant) {
  using namespace std::string_view_literals;
  struct Case {
    std::string_view Line;
    std::string_view Bytes;
  };
  const Case cases[] = {
      {"send hello world", "hello world"sv},
      {"send  two blanks kept ", " two blanks kept "sv},
      {"send a\r\n", "a"sv},
      {R"(send \r\n\t\a\b\f\v\e\\\"\'\?)", "\r\n\t\a\b\f\v\033\\\"'?"sv},
      {R"(send \0\00\0001)",
       "\0\0\0"
       "1"sv},
      {R"(send \377\1018)", "\377A8"sv},
      {R"(send \x0\x7f\xFFf)",
       "\0\x7F\xFF"
       "f"sv},
      {"send \xC3\xA4", "\xC3\xA4"sv},
      {"sendhex 00ff7F", "\0\xFF\x7F"sv},
      {"sendhex 0a 0b  0c", "\n\v\f"sv},
  };
  for (const Case &c : cases) {
    Command command;
    std::string error;
    ASSERT_TRUE(CommandParse(c.Line, &command, &error)) << c.Line << ": " << error;
    EXPECT_EQ(command.Kind, DO_SEND) << c.Line;
    EXPECT_EQ(command.Bytes, ToBytes(c.Bytes)) << c.Line;
  }
}

TEST(Command, MalformedLinesAreRefusedByName) {
  struct Case {
    std::string Line;
    const char *Error;
  };
  const Case cases[] = {
      {"", "no command"},
      {"frobnicate 3", "unknown command 'frobnicate'"},
      {"Mode normal", "unknown command 'Mode'"},
      {"mode", "mode: something is missing behind it"},
      {"mode redirect", "mode: normal or idle"},
      {"lock now", "lock: takes nothing behind it"},
      {"level", "level: something is missing behind it"},
      {"level -1", "level: a number from 0 to 4294967295"},
      {"level 4294967296", "level: a number from 0 to 4294967295"},
      {"level 5x", "level: a number from 0 to 4294967295"},
      {"wait 1.5", "wait: a number of milliseconds"},
      {"send", "send: nothing to send"},
      {"send \\", "send: a lone \\ at the end"},
      {"send \\q", "send: unknown escape \\q"},
      {"send \\8", "send: unknown escape \\8"},
      {"send \\xg", "send: \\x without a hexadecimal digit"},
      {"send \\400", "send: an octal escape above \\377"},
      {"sendhex 0", "sendhex: an odd number of digits"},
      {"sendhex 0 0", "sendhex: not pairs of hexadecimal digits"},
      {"sendhex 0g", "sendhex: not pairs of hexadecimal digits"},
      {"send " + std::string(SEND_LIMIT + 1, 'x'), "more than 65536 bytes to send at once"},
  };
  for (const Case &c : cases) {
    Command command;
    std::string error;
    EXPECT_FALSE(CommandParse(c.Line, &command, &error)) << c.Line;
    EXPECT_EQ(error, c.Error) << c.Line;
  }
}

}  // namespace
