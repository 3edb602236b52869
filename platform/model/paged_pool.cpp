#include "platform/model/paged_pool.h"

#include <signal.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static constexpr size_t Page = 4096;

// At the beginning of a block's first page, whose end is the header; the body's pages follow.
struct PagedBlock {
  PagedBlock *Next;
  PagedBlock **Link;
  size_t BodyBytes;  // whole pages
  bool Open;
};

bool PagedForced;
bool PagedAnyOpen;
static PagedBlock *blocks;
static struct sigaction before;

static char *BodyOf(PagedBlock *block) {
  return reinterpret_cast<char *>(block) + Page;
}

static PagedBlock *BlockOf(void *header) {
  return reinterpret_cast<PagedBlock *>(reinterpret_cast<uintptr_t>(header) & ~(Page - 1));
}

static void Protect(PagedBlock *block, bool open) {
  if (mprotect(BodyOf(block), block->BodyBytes, open ? PROT_READ | PROT_WRITE : PROT_NONE) != 0) {
    perror("kernel model: paged pool");
    abort();
  }
  block->Open = open;
  PagedAnyOpen |= open;
}

void PagedCloseAll() {
  for (PagedBlock *block = blocks; block; block = block->Next) {
    if (block->Open) {
      Protect(block, false);
    }
  }
  PagedAnyOpen = false;
}

static PagedBlock *Find(const void *address) {
  const char *at = static_cast<const char *>(address);
  for (PagedBlock *block = blocks; block; block = block->Next) {
    if (at >= BodyOf(block) && at < BodyOf(block) + block->BodyBytes) {
      return block;
    }
  }
  return nullptr;
}

// Whoever touches a closed page comes here, on his own stack and between two instructions of his
// own, so a stop may leave for good.
static void OnFault(int, siginfo_t *info, void *) {
  PagedBlock *block = Find(info->si_addr);
  if (!block) {
    sigaction(SIGSEGV, &before, nullptr);  // the fault happens again and is another's
    return;
  }
  if (VerifierEnabled && ThreadSelf()->Irql >= DISPATCH_LEVEL) {
    VerifierStop("irql.paged-memory", BodyOf(block), "paged pool at %p touched at IRQL %u",
                 info->si_addr, ThreadSelf()->Irql);
  }
  Protect(block, true);
}

static void CatchFaults() {
  struct sigaction ours = {};
  ours.sa_sigaction = OnFault;
  ours.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigaction(SIGSEGV, &ours, &before);
}

void PagedBoot(bool Forced) {
  static bool catching;
  PagedForced = Forced && PagedForceable;
  PagedAnyOpen = false;
  if (PagedForced && !catching) {
    CatchFaults();
    catching = true;
  }
}

void *PagedTake(size_t HeaderBytes, size_t BodyBytes) {
  size_t bytes = (BodyBytes + Page - 1) & ~(Page - 1);
  void *memory =
      mmap(nullptr, Page + bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    return nullptr;
  }
  PagedBlock *block = static_cast<PagedBlock *>(memory);
  block->BodyBytes = bytes;
  block->Open = PagedAnyOpen = true;
  block->Link = &blocks;
  block->Next = blocks;
  if (blocks) {
    blocks->Link = &block->Next;
  }
  blocks = block;
  return BodyOf(block) - HeaderBytes;
}

void PagedGive(void *Header) {
  PagedBlock *block = BlockOf(Header);
  *block->Link = block->Next;
  if (block->Next) {
    block->Next->Link = block->Link;
  }
  munmap(block, Page + block->BodyBytes);
}

void PagedReach(void *Header) {
  PagedBlock *block = BlockOf(Header);
  if (!block->Open) {
    Protect(block, true);
  }
}
