// Whose code a thread runs, and what a driver leaves behind when it is unloaded.
//
// The verifier's rules here:
//
//   pool.unloading             pool allocated by a driver that is being unloaded
//   unload.running             its code still runs on some thread when its unload routine returns
//   leak.pool leak.packet leak.mdl   made by a driver and left at its unload
#pragma once

#include <string>

#include "platform/kernel.h"
#include "platform/model/thread_object.h"

// While it lives, the thread runs a routine of this driver. A stopped run may leave it for good.
struct ActingAs {
  explicit ActingAs(PDRIVER_OBJECT Driver) : Thread(ThreadSelf()), Before(Thread->Acting) {
    Thread->Acting = Driver;
  }
  ~ActingAs() {
    Thread->Acting = Before;
  }
  ActingAs(const ActingAs &) = delete;
  ActingAs &operator=(const ActingAs &) = delete;

  PKTHREAD Thread;
  PDRIVER_OBJECT Before;
};

// The driver whose unload routine runs, or null.
PDRIVER_OBJECT UnloadingDriver();

// Calls the driver's unload routine, if it has one; then nothing that it made may be left.
void UnloadRun(PDRIVER_OBJECT Driver);
void UnloadCheck(PDRIVER_OBJECT Driver);
void UnloadBoot();

// The driver's name, for reports.
std::string DriverText(PDRIVER_OBJECT Driver);

// Parts of UnloadCheck: stop the run when something that the driver made is left, or its code runs.
void ThreadsCheckUnloaded(PDRIVER_OBJECT Driver);
void PoolCheckUnloaded(PDRIVER_OBJECT Driver);
void PacketsCheckUnloaded(PDRIVER_OBJECT Driver);
void MdlsCheckUnloaded(PDRIVER_OBJECT Driver);
