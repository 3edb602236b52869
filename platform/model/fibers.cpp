#include "platform/model/fibers.h"

#include <sys/mman.h>

#include <boost/context/detail/fcontext.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/model/sanitizers.h"

using boost::context::detail::jump_fcontext;
using boost::context::detail::make_fcontext;
using boost::context::detail::transfer_t;

struct FiberStack {
  FiberStack *Next;
  char *Low;
  size_t Bytes;
};

static constexpr size_t GuardBytes = 4096;

// Idle stacks of the two sizes. They stay mapped for the life of the process.
static FiberStack *idleSmall;
static FiberStack *idleLarge;

// A copy of frames that were abandoned, for the leak checker to look through. A region of its own
// for each stack would have it read the process's map of memory once for each.
struct KeptFrames {
  KeptFrames *Next;
  char Frames[];
};

[[maybe_unused]] static KeptFrames *kept;

static Fiber *arriving;
[[maybe_unused]] static void *endedTsan;

static FiberStack **StackList(size_t bytes) {
  return bytes > FiberBytes ? &idleLarge : &idleSmall;
}

static FiberStack *StackTake(size_t bytes) {
  FiberStack **list = StackList(bytes);
  if (FiberStack *stack = *list) {
    *list = stack->Next;
    // Frames that were never left (a thread terminated, a run stopped) are still marked.
    BytesAllow(stack->Low, stack->Bytes);
    return stack;
  }
  void *mapped = mmap(nullptr, GuardBytes + bytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (mapped == MAP_FAILED || mprotect(mapped, GuardBytes, PROT_NONE) != 0) {
    perror("kernel model: no memory for a fiber's stack");
    abort();
  }
  return new FiberStack{nullptr, static_cast<char *>(mapped) + GuardBytes, bytes};
}

static void StackGive(FiberStack *stack) {
  FiberStack **list = StackList(stack->Bytes);
  stack->Next = *list;
  *list = stack;
}

// Runs on the stack that has just been switched to.
static void Arrive(transfer_t from, [[maybe_unused]] Fiber *self) {
  if (from.data) {
    static_cast<Fiber *>(from.data)->Context = from.fctx;
  }
#if defined(MODEL_ASAN)
  const void *low = nullptr;
  size_t bytes = 0;
  __sanitizer_finish_switch_fiber(self->AsanFake, &low, &bytes);
  if (Fiber *last = static_cast<Fiber *>(from.data); last && !last->Stack) {
    last->Low = low;
    last->Bytes = bytes;
  }
#endif
#if defined(MODEL_TSAN)
  if (endedTsan) {
    __tsan_destroy_fiber(endedTsan);
    endedTsan = nullptr;
  }
#endif
}

static void FiberBegin(transfer_t from) {
  Fiber *self = arriving;
  Arrive(from, self);
  self->Entry();
  abort();
}

void FiberAdopt(Fiber *Host) {
  *Host = Fiber{};
#if defined(MODEL_TSAN)
  Host->Tsan = __tsan_get_current_fiber();
#endif
}

void FiberPrepare(Fiber *New, size_t Bytes, void (*Entry)()) {
  FiberStack *stack = StackTake(Bytes);
  *New = Fiber{};
  New->Stack = stack;
  New->Entry = Entry;
  New->Low = stack->Low;
  New->Bytes = stack->Bytes;
  New->Context = make_fcontext(stack->Low + stack->Bytes, stack->Bytes, FiberBegin);
#if defined(MODEL_TSAN)
  New->Tsan = __tsan_create_fiber(0);
#endif
}

static transfer_t Jump([[maybe_unused]] void **fake, Fiber *from, Fiber *to) {
  arriving = to;
#if defined(MODEL_ASAN)
  __sanitizer_start_switch_fiber(fake, to->Low, to->Bytes);
#endif
#if defined(MODEL_TSAN)
  __tsan_switch_to_fiber(to->Tsan, 0);
#endif
  return jump_fcontext(std::exchange(to->Context, nullptr), from);
}

void FiberSwitch(Fiber *From, Fiber *To) {
  transfer_t back = Jump(&From->AsanFake, From, To);
  Arrive(back, From);
}

void FiberLeave(Fiber *From, Fiber *To) {
  // Nobody takes the stack before it is left: there is one OS thread.
  StackGive(From->Stack);
  From->Stack = nullptr;
#if defined(MODEL_TSAN)
  endedTsan = From->Tsan;
#endif
  FiberEscape(To);
}

void FiberEscape(Fiber *To) {
  Jump(nullptr, nullptr, To);
  abort();
}

#if defined(MODEL_ASAN)
// From where the fiber stands; one that was running when it escaped stands nowhere, and has touched
// its stack from the first word that is not zero.
static void FramesKeep(const Fiber *dead) {
  const FiberStack *stack = dead->Stack;
  const char *end = stack->Low + stack->Bytes;
  BytesAllow(stack->Low, stack->Bytes);
  const char *from = static_cast<const char *>(dead->Context);
  if (!from) {
    const uintptr_t *word = reinterpret_cast<const uintptr_t *>(stack->Low);
    while (reinterpret_cast<const char *>(word) < end && *word == 0) {
      ++word;
    }
    from = reinterpret_cast<const char *>(word);
  }
  size_t bytes = static_cast<size_t>(end - from);
  KeptFrames *copy = static_cast<KeptFrames *>(malloc(sizeof(KeptFrames) + bytes));
  if (!copy) {
    perror("kernel model: no memory for a copy of frames");
    abort();
  }
  copy->Next = kept;
  memcpy(copy->Frames, from, bytes);
  kept = copy;
}
#endif

void FiberAbandon(Fiber *Dead) {
  if (!Dead->Stack) {
    return;
  }
#if defined(MODEL_TSAN)
  __tsan_destroy_fiber(Dead->Tsan);
#endif
#if defined(MODEL_ASAN)
  // Objects that only these frames know are no leaks of the program's.
  FramesKeep(Dead);
#endif
  StackGive(Dead->Stack);
  Dead->Stack = nullptr;
}
