#include "zkctl/show.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>

#include "zkctl/command.h"
#include "zkctl/frame.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t BYTES_A_LINE = 16;

constexpr std::string_view RED = "\033[31m";
constexpr std::string_view GREEN = "\033[32m";
constexpr std::string_view YELLOW = "\033[33m";
constexpr std::string_view MAGENTA = "\033[35m";
constexpr std::string_view CYAN = "\033[36m";
constexpr std::string_view PLAIN = "\033[0m";

struct StatusName {
  uint32_t Status;
  std::string_view Name;
};

constexpr StatusName STATUS_NAMES[] = {
    {0x00000000, "success"},
    {0x80000005, "buffer overflow"},
    {0xC0000001, "unsuccessful"},
    {0xC000000D, "invalid parameter"},
    {0xC000000E, "no such device"},
    {0xC0000010, "invalid device request"},
    {0xC0000022, "access denied"},
    {0xC0000034, "no such device"},
    {0xC0000043, "in use"},
    {0xC0000056, "delete pending"},
    {0xC000009A, "insufficient resources"},
    {0xC000009D, "device not connected"},
    {0xC00000BB, "not supported"},
    {0xC0000120, "cancelled"},
    {0xC0000184, "invalid device state"},
    {0xC0000185, "I/O device error"},
};

bool IsFailure(uint32_t status) {
  return status >= 0x80000000;
}

std::string Line(const ShowStyle &style, uint64_t time, std::string_view colour,
                 std::string_view text) {
  if (!style.Colour) {
    return fmt::format("{} {}\n", TimeText(time), text);
  }
  return fmt::format("{} {}{}{}\n", TimeText(time), colour, text, PLAIN);
}

std::string JsonLine(const Json &object) {
  return object.dump() + "\n";
}

std::string Hex(std::span<const uint8_t> bytes) {
  std::string text;
  for (uint8_t byte : bytes) {
    fmt::format_to(std::back_inserter(text), "{:02x}", byte);
  }
  return text;
}

std::string HexDump(std::span<const uint8_t> bytes) {
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += BYTES_A_LINE) {
    std::span<const uint8_t> line = bytes.subspan(at, std::min(BYTES_A_LINE, bytes.size() - at));
    fmt::format_to(std::back_inserter(text), "  {:08x} ", at);
    for (size_t i = 0; i < BYTES_A_LINE; ++i) {
      text += i == BYTES_A_LINE / 2 ? "  " : " ";
      text += i < line.size() ? fmt::format("{:02x}", line[i]) : "  ";
    }
    text += "  |";
    for (uint8_t byte : line) {
      text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    text += "|\n";
  }
  return text;
}

// A message comes as one line, whatever it holds.
std::string OneLine(std::string_view text) {
  std::string line;
  while (!text.empty() && text.back() == '\n') {
    text.remove_suffix(1);
  }
  for (char c : text) {
    bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    line += control ? ' ' : c;
  }
  return line;
}

std::string_view ModeText(uint32_t mode) {
  static constexpr std::string_view NAMES[] = {"INVALID", "IDLE", "NORMAL", "REDIRECT"};
  return mode < std::size(NAMES) ? NAMES[mode] : "ILLEGAL MODE";
}

std::string ShowMalformed(const ShowStyle &style, std::span<const uint8_t> packet) {
  if (style.Json) {
    return JsonLine({{"event", "malformed"}, {"data", Hex(packet)}});
  }
  return Line(style, TimeNow(), RED, fmt::format("{} bytes that are no frame", packet.size())) +
         HexDump(packet);
}

std::string ShowBytes(const ShowStyle &style, const Frame &frame) {
  bool client = frame.Header.Tag == TAG_CLIENT;
  if (style.Json) {
    return JsonLine({{"event", "report"},
                     {"tag", client ? "client" : "lower"},
                     {"code", frame.Header.Code},
                     {"time", TimeText(frame.Header.Timestamp)},
                     {"data", Hex(frame.Payload)}});
  }
  std::string text =
      fmt::format("{} {} bytes", client ? "client wrote" : "port sent", frame.Payload.size());
  if (frame.Header.Code != 0) {
    text += ", " + StatusText(frame.Header.Code);
  }
  return Line(style, frame.Header.Timestamp, client ? CYAN : GREEN, text) + HexDump(frame.Payload);
}

std::string ShowMessage(const ShowStyle &style, const Frame &frame, const DriverMessage &message) {
  if (style.Json) {
    return JsonLine({{"event", "message"},
                     {"level", message.Level},
                     {"time", TimeText(frame.Header.Timestamp)},
                     {"text", message.Text}});
  }
  return Line(style, frame.Header.Timestamp, YELLOW,
              fmt::format("driver ({}) {}", message.Level, OneLine(message.Text)));
}

std::string ShowReply(const ShowStyle &style, const Frame &frame, uint32_t value,
                      std::string_view command) {
  const FrameHeader &header = frame.Header;
  if (style.Json) {
    return JsonLine(
        {{"event", "reply"}, {"tag", header.Tag}, {"code", header.Code}, {"value", value}});
  }
  std::string what = command.empty() ? fmt::format("reply {}", header.Tag) : std::string(command);
  std::string result = StatusText(header.Code);
  if (header.Code == 0 && command == CommandName(COMMAND_GET_MODE)) {
    result = fmt::format("{} ({})", ModeText(value), value);
  } else if (header.Code == 0 && command == CommandName(COMMAND_GET_LEVEL)) {
    result = fmt::format("{}", value);
  } else if (value != 0) {
    result += fmt::format(", value {}", value);
  }
  return Line(style, header.Timestamp, IsFailure(header.Code) ? RED : MAGENTA,
              fmt::format("{}: {}", what, result));
}

}  // namespace

std::string StatusText(uint32_t status) {
  for (const StatusName &known : STATUS_NAMES) {
    if (known.Status == status) {
      return status == 0 ? std::string(known.Name)
                         : fmt::format("{} (0x{:08x})", known.Name, status);
    }
  }
  return fmt::format("0x{:08x}", status);
}

std::string TimeText(uint64_t time) {
  using namespace std::chrono;
  constexpr uint64_t UNITS_A_DAY = 864'000'000'000;
  // The kernel's time is signed; beyond that it is a lie that the calendar could not hold.
  time = std::min<uint64_t>(time, INT64_MAX);
  year_month_day date(sys_days(year(1601) / 1 / 1) + days(time / UNITS_A_DAY));
  uint64_t micros = time % UNITS_A_DAY / 10;
  uint64_t seconds = micros / 1'000'000;
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     seconds / 3600, seconds / 60 % 60, seconds % 60, micros % 1'000'000);
}

uint64_t TimeNow() {
  using namespace std::chrono;
  using Units = duration<int64_t, std::ratio<1, 10'000'000>>;
  // In these units throughout: nanoseconds since 1601 do not fit 64 bits.
  auto sinceEpoch = duration_cast<Units>(system_clock::now().time_since_epoch());
  auto epoch = duration_cast<Units>(sys_days(year(1970) / 1 / 1) - sys_days(year(1601) / 1 / 1));
  return (epoch + sinceEpoch).count();
}

std::string ShowPacket(const ShowStyle &style, std::span<const uint8_t> packet,
                       std::string_view command) {
  std::optional<Frame> frame = FrameDecode(packet);
  if (!frame) {
    return ShowMalformed(style, packet);
  }
  if (std::optional<DriverMessage> message = FrameDecodeMessage(*frame)) {
    return ShowMessage(style, *frame, *message);
  }
  if (std::optional<uint32_t> value = FrameDecodeReply(*frame)) {
    return ShowReply(style, *frame, *value, command);
  }
  if (frame->Header.Type == FRAME_REPORT &&
      (frame->Header.Tag == TAG_CLIENT || frame->Header.Tag == TAG_LOWER)) {
    return ShowBytes(style, *frame);
  }
  return ShowMalformed(style, packet);
}

std::string ShowWritten(const ShowStyle &style, std::string_view command, uint32_t status,
                        uint32_t information, uint64_t now) {
  if (style.Json) {
    return JsonLine({{"event", "written"}, {"status", status}, {"information", information}});
  }
  std::string text = fmt::format("{}: written, {} bytes", command, information);
  if (status != 0) {
    text += ", " + StatusText(status);
  }
  return Line(style, now, IsFailure(status) ? RED : MAGENTA, text);
}

std::string ShowClosed(const ShowStyle &style, uint64_t now) {
  if (style.Json) {
    return JsonLine({{"event", "closed"}});
  }
  return Line(style, now, RED, "closed");
}
