// The model's own locks: mutexes under the thread executor, nothing under fibers, where code runs
// undisturbed from one switch point to the next. Do not pass a switch point inside a Guard.
#pragma once

#include <mutex>

#include "platform/model/sanitizers.h"

// Constant during a run.
extern bool ThreadsInUse;

struct ModelMutex {
  std::mutex Mutex;
};

struct Guard {
  explicit Guard(ModelMutex &What) : Held(ThreadsInUse ? &What : nullptr) {
    if (Held) {
      TsanIgnoreBegin();
      Held->Mutex.lock();
    }
  }
  ~Guard() {
    if (Held) {
      Held->Mutex.unlock();
      TsanIgnoreEnd();
    }
  }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

  ModelMutex *Held;
};
