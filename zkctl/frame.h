// Controller frames as the controller program builds and reads them. Nothing that comes from the
// device is trusted: a packet is a frame only if its length says so.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "controller/frame_format.h"

struct Frame {
  FrameHeader Header;
  std::span<const uint8_t> Payload;  // points into the packet
};

// A frame of the driver's text messages.
struct DriverMessage {
  uint32_t Level;
  std::string Text;  // UTF-8
};

std::optional<Frame> FrameDecode(std::span<const uint8_t> packet);
std::optional<DriverMessage> FrameDecodeMessage(const Frame &frame);
std::optional<uint32_t> FrameDecodeReply(const Frame &frame);

std::vector<uint8_t> FrameBuild(uint32_t type, uint32_t tag, uint32_t code,
                                std::span<const uint8_t> payload);
