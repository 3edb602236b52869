#include <memory>
#include <vector>

#include "tests/model/two_drivers.h"

MODEL_TEST(Executor, SettleWaitsForAllThatCanGoOn) {
  KSEMAPHORE turns[2];
  KeInitializeSemaphore(&turns[0], 1, 1);
  KeInitializeSemaphore(&turns[1], 0, 1);
  int rounds = 0;
  auto body = [&](int me) {
    for (int i = 0; i < 100; ++i) {
      WaitForEver(&turns[me]);
      ++rounds;
      KeReleaseSemaphore(&turns[1 - me], 0, 1, FALSE);
    }
  };
  PKTHREAD a = ThreadStart("a", [&] { body(0); });
  PKTHREAD b = ThreadStart("b", [&] { body(1); });
  ThreadSettle();
  EXPECT_EQ(rounds, 200);
  ThreadJoin(a);
  ThreadJoin(b);
}

// Who waits for a deadlock comes after those who settle and those who wait for the clock.
MODEL_TEST(Executor, ADeadlockMayBeResolved) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  std::string order;
  PKTHREAD rescuer = ThreadStart("rescuer", [&] {
    ThreadAwaitDeadlock();
    order += "rescue ";
    KeSetEvent(&event, 0, FALSE);
  });
  WaitFor(&event, -Second);
  ThreadSettle();
  order += "settled ";
  EXPECT_EQ(WaitForEver(&event), STATUS_SUCCESS);
  ThreadJoin(rescuer);
  EXPECT_EQ(order, "settled rescue ");
}

// A system thread that ends itself from deep within; its object outlives it as long as referenced.
struct Worker {
  KEVENT Go;
  int Steps;
};

static void WorkerEnd(Worker *worker) {
  ++worker->Steps;
  PsTerminateSystemThread(STATUS_SUCCESS);
}

static void WorkerMain(PVOID context) {
  auto *worker = static_cast<Worker *>(context);
  WaitForEver(&worker->Go);
  WorkerEnd(worker);
  worker->Steps = -1;
}

static HANDLE WorkerStart(Worker *worker) {
  KeInitializeEvent(&worker->Go, NotificationEvent, FALSE);
  return SystemThread(WorkerMain, worker);
}

MODEL_TEST(SystemThreads, TerminateAndAreWaitable) {
  Worker worker = {};
  HANDLE handle = WorkerStart(&worker);
  PVOID thread;
  ASSERT_EQ(
      ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, nullptr, KernelMode, &thread, nullptr),
      STATUS_SUCCESS);
  ZwClose(handle);
  EXPECT_EQ(WaitFor(thread, 0), STATUS_TIMEOUT);
  KeSetEvent(&worker.Go, IO_NO_INCREMENT, FALSE);
  EXPECT_EQ(WaitForEver(thread), STATUS_SUCCESS);
  EXPECT_EQ(worker.Steps, 1);
  ObDereferenceObject(thread);
}

TEST(SystemThreads, NeverEndedIsALeak) {
  RunReport report = ModelRun({}, [] {
    static Worker worker;
    ZwClose(WorkerStart(&worker));
  });
  EXPECT_EQ(report.Rule, "leak.thread");
  EXPECT_NE(report.Text.find("waits for notification event"), std::string::npos) << report.Text;
}

TEST(SystemThreads, MayRunBeforeTheirCreatorGoesOn) {
  bool before = false;
  ExploreResult result = ModelExplore({}, [&] {
    static bool ran;
    ran = false;
    ExploreWindow(true);
    HANDLE handle = SystemThread([](PVOID) { ran = true; });
    before |= ran;
    ExploreWindow(false);
    ZwClose(handle);
  });
  EXPECT_TRUE(result.Exhausted);
  EXPECT_TRUE(before);
}

MODEL_TEST(Executor, LastWaitsEndWithTheClock) {
  PKTHREAD thread = ThreadStart("sleeper", [] {
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    WaitFor(&never, -Second);
  });
  ObDereferenceObject(thread);  // nobody joins it
}

TEST(Executor, AStoppedRunLeavesTheNextOneClean) {
  for (int i = 0; i < 20; ++i) {
    std::string rule = RuleOf([] {
      auto text = std::make_unique<std::string>(1000, 'x');
      ThreadStart("other", [&] {
        std::vector<int> numbers(1000);
        ThreadSettle();
        EXPECT_EQ(numbers.size() + text->size(), 2000u);
      });
      ThreadSettle();
      KeBugCheckModel("on purpose");
    });
    EXPECT_EQ(rule, "bugcheck");
    ExpectClean([] { ThreadJoin(ThreadStart("next", [] {})); });
  }
}

TEST(Stress, ThreadsStopByAborting) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(ModelRun({.Executor = ExecutorKind::Threads}, SleepForEver),
               "kernel model stopped: deadlock");
}
