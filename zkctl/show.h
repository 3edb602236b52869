// What zkctl prints: for people, or one JSON object a line. Every routine gives the text, line
// feeds included, and prints nothing itself.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

struct ShowStyle {
  bool Json;
  bool Colour;  // never with Json
};

// A packet from the device, frame or not. `command` names the command that a reply answers, empty
// when nobody knows.
std::string ShowPacket(const ShowStyle &style, std::span<const uint8_t> packet,
                       std::string_view command);
// The result of what `command` wrote, at `now`.
std::string ShowWritten(const ShowStyle &style, std::string_view command, uint32_t status,
                        uint32_t information, uint64_t now);
std::string ShowClosed(const ShowStyle &style, uint64_t now);

// 100 ns units since 1601 UTC as ISO 8601 with microseconds.
std::string TimeText(uint64_t time);
uint64_t TimeNow();

// "access denied (0xc0000022)"; the bare number where there is no name for it.
std::string StatusText(uint32_t status);
