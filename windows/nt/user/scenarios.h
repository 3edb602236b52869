// The scenarios: each begins with nothing open and leaves nothing open.
#pragma once

#include "windows/nt/user/vx.h"

struct Scenario {
  const char *Name;
  void (*Play)();
};

extern const Scenario Scenarios[];
extern const ULONG ScenarioCount;
