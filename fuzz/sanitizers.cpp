// What the sanitizers of every fuzzer are told. The symbol must be a strong one: the runtime has a
// weak one of its own, and of two weak ones its own comes first.
#include "fuzz/sanitizers.h"

// Traces of allocations cost more than all the rest. A small quarantine stays in the cache and
// still holds what hundreds of inputs gave back; pool, packets and objects have the model's own
// besides.
const char *__asan_default_options() {
  return "malloc_context_size=1:quarantine_size_mb=1:thread_local_quarantine_size_kb=64";
}
