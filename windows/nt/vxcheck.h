// The checking filter: what its control device is asked, by the native program. No kernel type.
#pragma once

#include <cstdint>

#define VXCHECK_DEVICE L"\\Device\\VxCheck"

enum : uint32_t {
  IOCTL_VXCHECK_COUNTS = 0x8001u << 16 | 0x800 << 2,  // out: VxCheckCounts
  IOCTL_VXCHECK_JOLTS = 0x8001u << 16 | 0x801 << 2,   // in: a uint32_t seed, 0 for none
};

struct VxCheckCounts {
  uint32_t Requests;  // that came by, of both kinds of devices
  uint32_t Pending;   // of those, not completed yet
  uint32_t Breaches;
  uint32_t Jolts;
};
