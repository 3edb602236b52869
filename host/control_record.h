// What the host says to a controller besides the driver's frames: the result of its open, and the
// result of every frame that it wrote. A record is one packet; its length and type stand where a
// frame has them, and the types are out of the frames' range. All fields are little-endian. No
// kernel type, so that the controller program shares it.
#pragma once

#include <cstddef>
#include <cstdint>

struct ControlRecord {
  uint32_t Length;       // 16
  uint32_t Type;         // RECORD_...
  uint32_t Status;       // of the open, or of the write
  uint32_t Information;  // bytes that the write took; 0 for an open
};
static_assert(sizeof(ControlRecord) == 16);
static_assert(offsetof(ControlRecord, Type) == 4 && offsetof(ControlRecord, Status) == 8 &&
              offsetof(ControlRecord, Information) == 12);

enum : uint32_t {
  RECORD_COMPLETION = 0x80000000,   // one for every packet received, in order of completion
  RECORD_OPEN_RESULT = 0x80000001,  // the first packet of a connection; a failure is also the last
};

// The longest frame that the host takes from a controller: a header and 64 KiB.
constexpr size_t CONTROL_FRAME_MOST = 64 * 1024 + 24;
