// The controller frame: everything that crosses a control device, in either direction. No kernel
// type, so that the controller program shares it. All fields are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

struct FrameHeader {
  uint32_t Length;     // of the whole frame in bytes, this header included
  uint32_t Type;       // FRAME_...
  uint64_t Timestamp;  // from the driver: 100 ns units since 1 January 1601 UTC; to it: not read
  uint32_t Tag;        // origin, sink, or the request tag that a reply echoes
  uint32_t Code;       // status of a port read, command, or result of a command
};
static_assert(sizeof(FrameHeader) == 24);
static_assert(offsetof(FrameHeader, Timestamp) == 8 && offsetof(FrameHeader, Tag) == 16 &&
              offsetof(FrameHeader, Code) == 20);

enum : uint32_t {
  FRAME_REPORT = 1,         // driver to ZK: bytes or a message, by Tag
  FRAME_DATA = 2,           // ZK to driver: bytes for the sink named by Tag
  FRAME_CONTROL = 3,        // ZK to driver: the command in Code, its argument behind the header
  FRAME_CONTROL_REPLY = 4,  // driver to ZK: result in Code, one 32-bit value behind the header
};

enum : uint32_t {
  TAG_CLIENT = 0,  // written by the port's client
  TAG_LOWER = 1,   // read from the real port, or to be written to it
  TAG_DRIVER = 4,  // a text message: u32 level, UTF-16LE text, a terminating zero character
};

enum : uint32_t {
  COMMAND_SET_MODE = 1,  // argument: port mode
  COMMAND_GET_MODE = 2,
  COMMAND_LOCK_STREAM = 3,
  COMMAND_UNLOCK_STREAM = 4,
  COMMAND_SET_LEVEL = 9,  // argument: message level
  COMMAND_GET_LEVEL = 10,
};

enum : uint32_t { MODE_INVALID = 0, MODE_IDLE = 1, MODE_NORMAL = 2, MODE_REDIRECT = 3 };

// What stands behind the header of a control frame with an argument, and of every reply.
constexpr uint32_t FRAME_ARGUMENT_OFFSET = 24;
constexpr uint32_t FRAME_WITH_ARGUMENT = 28;
