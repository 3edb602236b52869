// Short ways to run a body on the kernel model and to name the rule that stopped it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "platform/model/model.h"

// Empty when the run came to its end.
inline std::string RuleOf(const std::function<void()> &Body, const RunOptions &Options = {}) {
  return ModelRun(Options, Body).Rule;
}

inline void ExpectClean(const std::function<void()> &Body, const RunOptions &Options = {}) {
  RunReport report = ModelRun(Options, Body);
  EXPECT_FALSE(report.Stopped) << report.Text;
}

// The body under the deterministic executor, then under real threads.
inline void ExpectCleanOnBoth(const std::function<void()> &Body) {
  ExpectClean(Body);
  RunOptions threads;
  threads.Executor = ExecutorKind::Threads;
  ExpectClean(Body, threads);
}

// A test whose body is a run of the model from its beginning to its end, which nothing stops.
#define TEST_RUN_BY(RUNNER, SUITE, NAME) \
  static void SUITE##NAME();             \
  TEST(SUITE, NAME) {                    \
    RUNNER(SUITE##NAME);                 \
  }                                      \
  static void SUITE##NAME()

#define MODEL_TEST(SUITE, NAME) TEST_RUN_BY(ExpectCleanOnBoth, SUITE, NAME)

inline NTSTATUS WaitForEver(PVOID Object) {
  return KeWaitForSingleObject(Object, Executive, KernelMode, FALSE, nullptr);
}

constexpr int64_t Second = 10'000'000;

inline NTSTATUS WaitFor(PVOID Object, int64_t Timeout) {
  LARGE_INTEGER due = {.QuadPart = Timeout};
  return KeWaitForSingleObject(Object, Executive, KernelMode, FALSE, &due);
}

inline void SleepForEver() {
  KEVENT never;
  KeInitializeEvent(&never, NotificationEvent, FALSE);
  WaitForEver(&never);
}

inline HANDLE SystemThread(PKSTART_ROUTINE Body, PVOID Context = nullptr) {
  HANDLE thread = nullptr;
  PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, Body, Context);
  return thread;
}

inline void TakeBoth(PKSPIN_LOCK First, PKSPIN_LOCK Last) {
  KIRQL outer = KeAcquireSpinLockRaiseToDpc(First);
  KIRQL inner = KeAcquireSpinLockRaiseToDpc(Last);
  KeReleaseSpinLock(Last, inner);
  KeReleaseSpinLock(First, outer);
}

// A small driver fault and the rule that must stop it.
struct BadRoutine {
  const char *Name;
  const char *Rule;
  void (*Body)();
};

inline void ExpectStopped(std::span<const BadRoutine> All) {
  for (const BadRoutine &bad : All) {
    RunReport report = ModelRun({}, bad.Body);
    EXPECT_EQ(report.Rule, bad.Rule) << bad.Name << "\n" << report.Text;
  }
}

// Each body on a thread of its own; the window, if there is one, is until they have ended.
inline void Together(std::initializer_list<std::function<void()>> bodies, bool window = true) {
  std::vector<PKTHREAD> threads;
  for (const auto &body : bodies) {
    const char name[] = {static_cast<char>('a' + threads.size()), '\0'};
    threads.push_back(ThreadStart(name, body));
  }
  ExploreWindow(window);
  for (PKTHREAD thread : threads) {
    ThreadJoin(thread);
  }
  ExploreWindow(false);
}

inline ExploreResult ExploreAs(const char *how, const std::function<void()> &scenario) {
  ExploreOptions options;
  EXPECT_TRUE(ExploreRead(how, &options)) << how;
  return ModelExplore(options, scenario);
}
