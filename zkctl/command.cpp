#include "zkctl/command.h"

#include <fmt/format.h>

#include <charconv>
#include <optional>

#include "controller/frame_format.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr std::string_view BLANKS = " \t\r\n";

std::string_view Trim(std::string_view text) {
  size_t first = text.find_first_not_of(BLANKS);
  if (first == text.npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool ParseNumber(std::string_view text, uint32_t *number) {
  const char *end = text.data() + text.size();
  auto [stop, failure] = std::from_chars(text.data(), end, *number);
  return failure == std::errc() && stop == end;
}

std::optional<uint32_t> HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return std::nullopt;
}

// The digits of \x (one or two) or of an octal escape (one to three), from `*at` on.
bool NumericEscape(std::string_view text, size_t *at, uint32_t base, size_t most, uint32_t *value) {
  size_t count = 0;
  *value = 0;
  while (count < most && *at < text.size()) {
    std::optional<uint32_t> digit = HexDigit(text[*at]);
    if (!digit || *digit >= base) {
      break;
    }
    *value = *value * base + *digit;
    ++*at;
    ++count;
  }
  return count > 0 && *value <= 0xFF;
}

std::optional<uint8_t> PlainEscape(char c) {
  switch (c) {
  case 'a':
    return '\a';
  case 'b':
    return '\b';
  case 'e':
    return 0x1B;
  case 'f':
    return '\f';
  case 'n':
    return '\n';
  case 'r':
    return '\r';
  case 't':
    return '\t';
  case 'v':
    return '\v';
  case '\\':
  case '"':
  case '\'':
  case '?':
    return static_cast<uint8_t>(c);
  default:
    return std::nullopt;
  }
}

bool Unescape(std::string_view text, Bytes *bytes, std::string *error) {
  for (size_t at = 0; at < text.size();) {
    char c = text[at++];
    if (c != '\\') {
      bytes->push_back(static_cast<uint8_t>(c));
      continue;
    }
    if (at == text.size()) {
      *error = "send: a lone \\ at the end";
      return false;
    }
    c = text[at];
    uint32_t value = 0;
    if (std::optional<uint8_t> plain = PlainEscape(c)) {
      value = *plain;
      ++at;
    } else if (c == 'x') {
      ++at;
      if (!NumericEscape(text, &at, 16, 2, &value)) {
        *error = "send: \\x without a hexadecimal digit";
        return false;
      }
    } else if (!NumericEscape(text, &at, 8, 3, &value)) {
      *error = value > 0xFF ? "send: an octal escape above \\377"
                            : fmt::format("send: unknown escape \\{}", c);
      return false;
    }
    bytes->push_back(static_cast<uint8_t>(value));
  }
  return true;
}

bool ParseHex(std::string_view text, Bytes *bytes, std::string *error) {
  uint32_t high = 0;
  bool half = false;
  for (char c : text) {
    if (BLANKS.find(c) != BLANKS.npos && !half) {
      continue;
    }
    std::optional<uint32_t> digit = HexDigit(c);
    if (!digit) {
      *error = "sendhex: not pairs of hexadecimal digits";
      return false;
    }
    if (half) {
      bytes->push_back(static_cast<uint8_t>(high << 4 | *digit));
    }
    high = *digit;
    half = !half;
  }
  if (half) {
    *error = "sendhex: an odd number of digits";
    return false;
  }
  return true;
}

bool ParseMode(std::string_view argument, Command *command, std::string *error) {
  if (argument != "normal" && argument != "idle") {
    *error = "mode: normal or idle";
    return false;
  }
  command->Argument = argument == "normal" ? MODE_NORMAL : MODE_IDLE;
  return true;
}

bool ParseLevel(std::string_view argument, Command *command, std::string *error) {
  if (!ParseNumber(argument, &command->Argument)) {
    *error = "level: a number from 0 to 4294967295";
    return false;
  }
  return true;
}

bool ParseWait(std::string_view argument, Command *command, std::string *error) {
  if (!ParseNumber(argument, &command->Milliseconds)) {
    *error = "wait: a number of milliseconds";
    return false;
  }
  return true;
}

bool CheckSize(const Command &command, std::string *error) {
  if (command.Bytes.size() > SEND_LIMIT) {
    *error = fmt::format("more than {} bytes to send at once", SEND_LIMIT);
    return false;
  }
  return true;
}

bool ParseSend(std::string_view argument, Command *command, std::string *error) {
  return Unescape(argument, &command->Bytes, error) && CheckSize(*command, error);
}

bool ParseSendHex(std::string_view argument, Command *command, std::string *error) {
  return ParseHex(argument, &command->Bytes, error) && CheckSize(*command, error);
}

struct Word {
  std::string_view Name;
  CommandKind Kind;
  uint32_t Code;
  bool (*ParseArgument)(std::string_view, Command *, std::string *);  // null: takes none
};

constexpr Word WORDS[] = {
    {"mode", DO_CONTROL, COMMAND_SET_MODE, ParseMode},
    {"getmode", DO_CONTROL, COMMAND_GET_MODE, nullptr},
    {"lock", DO_CONTROL, COMMAND_LOCK_STREAM, nullptr},
    {"unlock", DO_CONTROL, COMMAND_UNLOCK_STREAM, nullptr},
    {"level", DO_CONTROL, COMMAND_SET_LEVEL, ParseLevel},
    {"getlevel", DO_CONTROL, COMMAND_GET_LEVEL, nullptr},
    {"send", DO_SEND, 0, ParseSend},
    {"sendhex", DO_SEND, 0, ParseSendHex},
    {"wait", DO_WAIT, 0, ParseWait},
    {"stay", DO_STAY, 0, nullptr},
    {"quit", DO_QUIT, 0, nullptr},
};

}  // namespace

bool CommandIsBlank(std::string_view line) {
  std::string_view text = Trim(line);
  return text.empty() || text.front() == '#';
}

bool CommandParse(std::string_view line, Command *command, std::string *error) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
    line.remove_suffix(1);
  }
  size_t start = line.find_first_not_of(BLANKS);
  line.remove_prefix(start == line.npos ? line.size() : start);
  std::string_view name = line.substr(0, line.find_first_of(BLANKS));
  // What is sent begins after one blank and keeps every other one.
  std::string_view argument = line.substr(std::min(line.size(), name.size() + 1));

  for (const Word &word : WORDS) {
    if (word.Name != name) {
      continue;
    }
    *command = Command{.Kind = word.Kind, .Code = word.Code};
    if (!word.ParseArgument) {
      if (!Trim(argument).empty()) {
        *error = fmt::format("{}: takes nothing behind it", name);
        return false;
      }
      return true;
    }
    if (Trim(argument).empty() && word.Kind != DO_SEND) {
      *error = fmt::format("{}: something is missing behind it", name);
      return false;
    }
    if (argument.empty()) {
      *error = fmt::format("{}: nothing to send", name);
      return false;
    }
    command->HasArgument = word.Kind == DO_CONTROL;
    return word.ParseArgument(word.Kind == DO_SEND ? argument : Trim(argument), command, error);
  }
  *error = name.empty() ? "no command" : fmt::format("unknown command '{}'", name);
  return false;
}

std::string CommandName(uint32_t code) {
  switch (code) {
  case COMMAND_SET_MODE:
    return "setmode";
  case COMMAND_GET_MODE:
    return "getmode";
  case COMMAND_LOCK_STREAM:
    return "lockstream";
  case COMMAND_UNLOCK_STREAM:
    return "unlockstream";
  case COMMAND_SET_LEVEL:
    return "setlevel";
  case COMMAND_GET_LEVEL:
    return "getlevel";
  default:
    return fmt::format("command {}", code);
  }
}
