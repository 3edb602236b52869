// Short ways to run a body on the kernel model and to name the rule that stopped it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/model/model.h"

// Empty when the run came to its end.
inline std::string RuleOf(const std::function<void()> &Body, const RunOptions &Options = {}) {
  return ModelRun(Options, Body).Rule;
}

inline void ExpectClean(const std::function<void()> &Body, const RunOptions &Options = {}) {
  RunReport report = ModelRun(Options, Body);
  EXPECT_FALSE(report.Stopped) << report.Text;
}

// A small driver fault and the rule that must stop it.
struct BadRoutine {
  const char *Name;
  const char *Rule;
  void (*Body)();
};

inline void ExpectStopped(const BadRoutine &Bad) {
  RunReport report = ModelRun({}, Bad.Body);
  EXPECT_EQ(report.Rule, Bad.Rule) << Bad.Name << "\n" << report.Text;
}
