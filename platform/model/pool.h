// The pool: tagged blocks, poisoned when given out and when taken back, quarantined, counted.
#pragma once

#include <cstdint>
#include <string>

#include "platform/kernel.h"

struct PoolCounts {
  uint64_t Blocks = 0;  // live now
  uint64_t Bytes = 0;
  uint64_t Allocations = 0;  // ever, in this run
};

// Of one tag (written in memory order, as FourCharacters does), or of all with tag 0.
PoolCounts PoolCount(ULONG Tag);
constexpr ULONG FourCharacters(const char (&T)[5]) {
  return static_cast<ULONG>(static_cast<unsigned char>(T[0])) |
         static_cast<ULONG>(static_cast<unsigned char>(T[1])) << 8 |
         static_cast<ULONG>(static_cast<unsigned char>(T[2])) << 16 |
         static_cast<ULONG>(static_cast<unsigned char>(T[3])) << 24;
}

// Whether the address lies in a live block of paged pool.
bool PoolIsPaged(const void *Address);

// The size of a live block; 0 when no block begins at the address.
SIZE_T PoolBlockBytes(const void *Block);

// From here on in this run a freed block of nonpaged pool is what the next allocation of its size
// gets, as may happen on a busy system: two owners, one after the other, have the same address.
void PoolReuseAtOnce();

// One line a live block: tag, size, where it was allocated.
std::string PoolLeaks();
