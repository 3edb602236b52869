// Memory for packets and MDLs: blocks that are kept for reuse, so that a stale pointer still finds
// its block's record, and reused late, so that the record still tells what became of it.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr unsigned BlockClasses = 128;
constexpr unsigned BlocksHeldBack = 64;

struct Block {
  Block *Next;
  Block *Previous;
  size_t Class;
  size_t Retired;
};

// Guarded by its owner's mutex.
struct BlockStore {
  Block Live = {&Live, &Live, 0, 0};
  uint64_t LiveCount = 0;
  Block *Free[BlockClasses] = {};
  Block *Back[BlocksHeldBack] = {};
  unsigned Oldest = 0;
};

// The bytes behind a block's header; all blocks of a class have the same size. Their content is
// what the last user left.
void *BlockTake(BlockStore *Store, unsigned Class, size_t Bytes);
// The block is no longer live, but its record may still be looked at.
void BlockRetire(BlockStore *Store, void *Body);
// A retired block may be reused: soon, or with HoldBack after others.
void BlockGive(BlockStore *Store, void *Body, bool HoldBack);
// Gives back everything, live, retired or held back.
void BlocksReset(BlockStore *Store);
// The body of the oldest live block, or null; of the one after a live or retired block.
void *BlockAnyLive(BlockStore *Store);
void *BlockNextLive(BlockStore *Store, void *After);
