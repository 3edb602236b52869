#include "platform/model/unload.h"

#include "platform/model/devices.h"
#include "platform/model/text.h"
#include "platform/model/verifier.h"

static PDRIVER_OBJECT unloading;

void UnloadBoot() {
  unloading = nullptr;
}

PDRIVER_OBJECT UnloadingDriver() {
  return __atomic_load_n(&unloading, __ATOMIC_RELAXED);
}

std::string DriverText(PDRIVER_OBJECT Driver) {
  return TextFromString(&Driver->DriverName);
}

void UnloadRun(PDRIVER_OBJECT Driver) {
  CallbackScope scope = CallbackBegin();
  {
    ActingAs acting(Driver);
    __atomic_store_n(&unloading, Driver, __ATOMIC_RELAXED);
    if (Driver->DriverUnload) {
      Driver->DriverUnload(Driver);
    }
    __atomic_store_n(&unloading, nullptr, __ATOMIC_RELAXED);
  }
  CallbackEnd(scope, "the unload routine");
  UnloadCheck(Driver);
}

void UnloadCheck(PDRIVER_OBJECT Driver) {
  if (VerifierOn()) {
    ThreadsCheckUnloaded(Driver);
    PacketsCheckUnloaded(Driver);
    MdlsCheckUnloaded(Driver);
    PoolCheckUnloaded(Driver);
  }
}
