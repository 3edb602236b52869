#include "zkctl/frame.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "frames are little-endian");

namespace {

template <typename Number>
Number Load(std::span<const uint8_t> bytes, size_t offset) {
  Number number;
  std::memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

void AppendUtf8(uint32_t c, std::string *text) {
  auto tail = [&](uint32_t shift) {
    text->push_back(static_cast<char>(0x80 | (c >> shift & 0x3F)));
  };
  if (c < 0x80) {
    text->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    text->push_back(static_cast<char>(0xC0 | c >> 6));
    tail(0);
  } else if (c < 0x10000) {
    text->push_back(static_cast<char>(0xE0 | c >> 12));
    tail(6);
    tail(0);
  } else {
    text->push_back(static_cast<char>(0xF0 | c >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

bool IsHighSurrogate(uint32_t c) {
  return c >= 0xD800 && c < 0xDC00;
}

bool IsLowSurrogate(uint32_t c) {
  return c >= 0xDC00 && c < 0xE000;
}

// Up to the terminating zero or the end, whichever comes first; half a pair becomes U+FFFD.
std::string Utf16ToUtf8(std::span<const uint8_t> bytes) {
  std::string text;
  for (size_t at = 0; at + 2 <= bytes.size(); at += 2) {
    uint32_t c = Load<uint16_t>(bytes, at);
    if (c == 0) {
      break;
    }
    if (IsHighSurrogate(c) && at + 4 <= bytes.size()) {
      uint32_t low = Load<uint16_t>(bytes, at + 2);
      if (IsLowSurrogate(low)) {
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        at += 2;
      }
    }
    AppendUtf8(IsHighSurrogate(c) || IsLowSurrogate(c) ? 0xFFFD : c, &text);
  }
  return text;
}

}  // namespace

std::optional<Frame> FrameDecode(std::span<const uint8_t> packet) {
  if (packet.size() < sizeof(FrameHeader)) {
    return std::nullopt;
  }
  Frame frame{Load<FrameHeader>(packet, 0), packet.subspan(sizeof(FrameHeader))};
  if (frame.Header.Length != packet.size()) {
    return std::nullopt;
  }
  return frame;
}

std::optional<DriverMessage> FrameDecodeMessage(const Frame &frame) {
  if (frame.Header.Type != FRAME_REPORT || frame.Header.Tag != TAG_DRIVER ||
      frame.Payload.size() < sizeof(uint32_t)) {
    return std::nullopt;
  }
  return DriverMessage{Load<uint32_t>(frame.Payload, 0),
                       Utf16ToUtf8(frame.Payload.subspan(sizeof(uint32_t)))};
}

std::optional<uint32_t> FrameDecodeReply(const Frame &frame) {
  if (frame.Header.Type != FRAME_CONTROL_REPLY || frame.Payload.size() != sizeof(uint32_t)) {
    return std::nullopt;
  }
  return Load<uint32_t>(frame.Payload, 0);
}

std::vector<uint8_t> FrameBuild(uint32_t type, uint32_t tag, uint32_t code,
                                std::span<const uint8_t> payload) {
  FrameHeader header = {.Length = static_cast<uint32_t>(sizeof(FrameHeader) + payload.size()),
                        .Type = type,
                        .Timestamp = 0,
                        .Tag = tag,
                        .Code = code};
  std::vector<uint8_t> frame(header.Length);
  std::memcpy(frame.data(), &header, sizeof(header));
  std::copy(payload.begin(), payload.end(), frame.begin() + sizeof(header));
  return frame;
}
