#include "platform/model/blocks.h"

#include <cstdlib>

static Block *HeaderOf(void *Body) {
  return static_cast<Block *>(Body) - 1;
}

static void PushFree(BlockStore *Store, Block *Free) {
  Free->Next = Store->Free[Free->Class];
  Store->Free[Free->Class] = Free;
}

void *BlockTake(BlockStore *Store, unsigned Class, size_t Bytes) {
  Block *block = Store->Free[Class];
  if (block) {
    Store->Free[Class] = block->Next;
  } else {
    block = static_cast<Block *>(calloc(1, sizeof(Block) + Bytes));
    if (!block) {
      abort();
    }
    block->Class = Class;
  }
  block->Retired = 0;
  block->Next = &Store->Live;
  block->Previous = Store->Live.Previous;
  block->Previous->Next = block;
  Store->Live.Previous = block;
  ++Store->LiveCount;
  return block + 1;
}

void BlockRetire(BlockStore *Store, void *Body) {
  HeaderOf(Body)->Retired = 1;
  --Store->LiveCount;
}

static void Unlink(Block *Used) {
  Used->Previous->Next = Used->Next;
  Used->Next->Previous = Used->Previous;
}

void BlockGive(BlockStore *Store, void *Body, bool HoldBack) {
  Block *free = HeaderOf(Body);
  Unlink(free);
  if (HoldBack) {
    Block *oldest = Store->Back[Store->Oldest];
    Store->Back[Store->Oldest] = free;
    Store->Oldest = (Store->Oldest + 1) % BlocksHeldBack;
    free = oldest;
  }
  if (free) {
    PushFree(Store, free);
  }
}

void BlocksReset(BlockStore *Store) {
  while (Store->Live.Next != &Store->Live) {
    Block *block = Store->Live.Next;
    Unlink(block);
    PushFree(Store, block);
  }
  for (Block *&held : Store->Back) {
    if (held) {
      PushFree(Store, held);
      held = nullptr;
    }
  }
  Store->Oldest = 0;
  Store->LiveCount = 0;
}

static void *LiveFrom(BlockStore *Store, Block *block) {
  for (; block != &Store->Live; block = block->Next) {
    if (!block->Retired) {
      return block + 1;
    }
  }
  return nullptr;
}

void *BlockAnyLive(BlockStore *Store) {
  return LiveFrom(Store, Store->Live.Next);
}

void *BlockNextLive(BlockStore *Store, void *After) {
  return LiveFrom(Store, HeaderOf(After)->Next);
}
