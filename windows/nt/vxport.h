// The test bus: what its control device is asked, by the native program. Every buffer begins with a
// VxPortRequest; what else goes in or out stands behind it. No kernel type.
#pragma once

#include <cstdint>

#define VXPORT_DEVICE L"\\Device\\VxPort"

// METHOD_BUFFERED, of a device type of our own.
constexpr uint32_t VxPortCode(uint32_t Function) {
  return 0x8000u << 16 | (0x800 + Function) << 2;
}

enum : uint32_t {
  IOCTL_VX_PLUG = VxPortCode(0),    // Value: VX_DIRECT or 0; busy until the last life is over
  IOCTL_VX_UNPLUG = VxPortCode(1),  // by surprise
  IOCTL_VX_EJECT = VxPortCode(2),   // in order: asked first, refused by open handles
  IOCTL_VX_BEHAVE = VxPortCode(3),  // Major, How, Value: the status
  IOCTL_VX_FEED = VxPortCode(4),    // bytes for reads
  IOCTL_VX_TAKE = VxPortCode(5),    // out: what was written and not taken yet
  IOCTL_VX_FINISH = VxPortCode(6),  // Major, Value: the status of the oldest that is held
  IOCTL_VX_COUNT = VxPortCode(7),   // Major; out: uint32_t seen, held now
};

enum : uint32_t { VX_DIRECT = 1 };

// How a port ends its requests. Reads wait for bytes whatever is asked for.
enum : uint32_t {
  VX_IN_PLACE = 0,
  VX_IN_DPC = 1,
  VX_RAISED = 2,  // in place, at DISPATCH_LEVEL
  VX_HOLD = 3,    // cancellable, until IOCTL_VX_FINISH
  VX_DEAF = 4,    // likewise, but not cancellable
};

// Ports are COM5 to COM8.
enum : uint32_t { VX_FIRST_PORT = 5, VX_PORTS = 4 };

struct VxPortRequest {
  uint32_t Port;
  uint32_t Major;
  uint32_t How;
  uint32_t Value;
};
static_assert(sizeof(VxPortRequest) == 16);

constexpr uint32_t VX_BUFFER_BYTES = 65536;  // of what is fed, and of what was written
