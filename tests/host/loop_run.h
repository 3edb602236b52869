// A run of the model, on the event loop and by the real clock.
#pragma once

#include <gtest/gtest.h>

#include "host/event_loop.h"
#include "platform/model/model.h"

inline void RunInLoop(const char *Name, const std::function<void()> &Body) {
  RunReport report = ModelRun({.RealClock = true}, [Name, &Body]() {
    LoopOpen();
    LoopTimer *overdue = LoopTimerStart(60000, [Name]() {
      fprintf(stderr, "%s: what is awaited has not come\n", Name);
      abort();
    });
    LoopTask("test", Body, [overdue]() {
      LoopTimerCancel(overdue);
      LoopEnd();
    });
    LoopRun();
    LoopClose();
  });
  EXPECT_FALSE(report.Stopped) << Name << ": " << report.Rule << "\n" << report.Text;
}
