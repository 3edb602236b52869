#include "tests/model/two_drivers.h"

static int64_t Now() {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return now.QuadPart;
}

static NTSTATUS WaitMany(ULONG count, PVOID objects[], WAIT_TYPE type, int64_t timeout) {
  LARGE_INTEGER due;
  due.QuadPart = timeout;
  return KeWaitForMultipleObjects(count, objects, type, Executive, KernelMode, FALSE, &due,
                                  nullptr);
}

TEST(Events, SynchronizationReleasesOneAndNotificationAll) {
  for (EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
    ExpectClean([type] {
      KEVENT event;
      KeInitializeEvent(&event, type, FALSE);
      int released = 0;
      auto body = [&] {
        WaitForEver(&event);
        ++released;
      };
      PKTHREAD a = ThreadStart("a", body);
      PKTHREAD b = ThreadStart("b", body);
      ThreadSettle();
      EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
      ThreadSettle();
      EXPECT_EQ(released, type == NotificationEvent ? 2 : 1);
      EXPECT_EQ(KeReadStateEvent(&event), type == NotificationEvent ? 1 : 0);
      KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
      ThreadJoin(a);
      ThreadJoin(b);
    });
  }
}

MODEL_TEST(Events, StayAsSetUntilTakenOrCleared) {
  KEVENT event;
  KeInitializeEvent(&event, SynchronizationEvent, TRUE);
  EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 1);
  EXPECT_EQ(WaitFor(&event, 0), STATUS_SUCCESS);
  EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
  KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
  KeClearEvent(&event);
  EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
}

// The waiter frees the event as soon as it runs; the setter may be anywhere then.
static void WaiterFreesEvent() {
  auto *event = static_cast<PKEVENT>(
      ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KEVENT), FourCharacters("Evnt")));
  KeInitializeEvent(event, NotificationEvent, FALSE);
  PKTHREAD setter = ThreadStart("setter", [event] { KeSetEvent(event, IO_NO_INCREMENT, FALSE); });
  ExploreWindow(true);
  WaitForEver(event);
  ExFreePoolWithTag(event, FourCharacters("Evnt"));
  ExploreWindow(false);
  ThreadJoin(setter);
}

TEST(Events, MayBeFreedByTheirWaiter) {
  ExploreResult result = ModelExplore({}, WaiterFreesEvent);
  EXPECT_TRUE(result.Exhausted) << result.Failure.Text;
  EXPECT_GT(result.Runs, 3u);
  for (int i = 0; i < 50; ++i) {
    ExpectClean(WaiterFreesEvent, {.Executor = ExecutorKind::Threads});
  }
}

MODEL_TEST(Semaphores, CountUpToTheirLimit) {
  KSEMAPHORE semaphore;
  KeInitializeSemaphore(&semaphore, 1, 3);
  EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 2, FALSE), 1);
  for (NTSTATUS expected : {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS, STATUS_TIMEOUT}) {
    EXPECT_EQ(WaitFor(&semaphore, 0), expected);
  }
}

MODEL_TEST(Waits, AnyTakesTheLowestAndOnlyThatOne) {
  KEVENT low;
  KSEMAPHORE high;
  KeInitializeEvent(&low, SynchronizationEvent, TRUE);
  KeInitializeSemaphore(&high, 1, 1);
  PVOID objects[] = {&low, &high};
  EXPECT_EQ(WaitMany(2, objects, WaitAny, 0), STATUS_WAIT_0);
  EXPECT_EQ(WaitMany(2, objects, WaitAny, 0), STATUS_WAIT_1);
  EXPECT_EQ(WaitMany(2, objects, WaitAny, -Second), STATUS_TIMEOUT);
}

MODEL_TEST(Waits, AllTakesNothingUntilAllAreThere) {
  KEVENT one;
  KEVENT two;
  KeInitializeEvent(&one, SynchronizationEvent, TRUE);
  KeInitializeEvent(&two, SynchronizationEvent, FALSE);
  PVOID objects[] = {&one, &two};
  NTSTATUS status = STATUS_PENDING;
  PKTHREAD all = ThreadStart("all", [&] {
    EXPECT_EQ(WaitMany(2, objects, WaitAll, -Second), STATUS_TIMEOUT);
    status = WaitMany(2, objects, WaitAll, -Second);
  });
  ThreadSettle();
  EXPECT_EQ(KeReadStateEvent(&one), 1);
  ClockAdvance(Second);
  ThreadSettle();
  KeSetEvent(&two, IO_NO_INCREMENT, FALSE);
  ThreadJoin(all);
  EXPECT_EQ(status, STATUS_SUCCESS);
  EXPECT_EQ(KeReadStateEvent(&one) + KeReadStateEvent(&two), 0);
}

MODEL_TEST(Clock, MovesOnlyWhenEverybodyWaits) {
  KEVENT never;
  KeInitializeEvent(&never, NotificationEvent, FALSE);
  KEVENT go;
  KeInitializeEvent(&go, NotificationEvent, FALSE);
  int64_t start = Now();
  LONG order = 0;
  PKTHREAD late = ThreadStart("late", [&] {
    EXPECT_EQ(WaitFor(&never, start + 5 * Second), STATUS_TIMEOUT);
    EXPECT_EQ(InterlockedIncrement(&order), 2);
  });
  PKTHREAD early = ThreadStart("early", [&] {
    EXPECT_EQ(WaitFor(&never, -3 * Second), STATUS_TIMEOUT);
    EXPECT_EQ(Now(), start + 3 * Second);
    EXPECT_EQ(InterlockedIncrement(&order), 1);
  });
  PKTHREAD endless = ThreadStart("endless", [&] { WaitForEver(&go); });
  ThreadSettle();
  EXPECT_EQ(Now(), start);
  EXPECT_EQ(ThreadNextDeadline(), start + 3 * Second);
  KeSetEvent(&go, IO_NO_INCREMENT, FALSE);
  ThreadJoin(endless);
  ThreadJoin(late);
  ThreadJoin(early);
  EXPECT_EQ(Now(), start + 5 * Second);
  EXPECT_EQ(WaitFor(&never, start), STATUS_TIMEOUT) << "long past";
}

TEST(Clock, RealTimeoutComesDue) {
  for (ExecutorKind executor : {ExecutorKind::Fibers, ExecutorKind::Threads}) {
    ExpectClean(
        [executor] {
          EXPECT_EQ(ExecutorInUse(), executor);
          KEVENT never;
          KeInitializeEvent(&never, NotificationEvent, FALSE);
          int64_t start = Now();
          EXPECT_EQ(WaitFor(&never, -Second / 100), STATUS_TIMEOUT);
          EXPECT_GE(Now(), start + Second / 100);
        },
        {.Executor = executor, .RealClock = true});
  }
}

static void ReleaseOneOf(LONG count, LONG limit, LONG times) {
  KSEMAPHORE semaphore;
  KeInitializeSemaphore(&semaphore, count, limit);
  KeReleaseSemaphore(&semaphore, 0, times, FALSE);
}

static const BadRoutine badRoutines[] = {
    {"released above the limit", "semaphore.limit", [] { ReleaseOneOf(1, 2, 2); }},
    {"released no times", "semaphore.bad-arguments", [] { ReleaseOneOf(0, 1, 0); }},
    {"made above its limit", "semaphore.bad-arguments", [] { ReleaseOneOf(2, 1, 1); }},
    {"never initialised", "dispatcher.uninitialized",
     [] {
       KEVENT event = {};
       KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
     }},
    {"semaphore set as an event", "dispatcher.wrong-type",
     [] {
       KSEMAPHORE semaphore;
       KeInitializeSemaphore(&semaphore, 1, 2);
       KeSetEvent(reinterpret_cast<PKEVENT>(&semaphore), IO_NO_INCREMENT, FALSE);
     }},
    {"four objects without wait blocks", "wait.bad-arguments",
     [] {
       PVOID objects[4] = {};
       WaitMany(4, objects, WaitAny, 0);
     }},
    {"freed under its waiter", "dispatcher.freed-waited",
     [] {
       auto *event = static_cast<PKEVENT>(
           ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KEVENT), FourCharacters("Evnt")));
       KeInitializeEvent(event, NotificationEvent, FALSE);
       ThreadStart("waiter", [event] { WaitForEver(event); });
       ThreadSettle();
       ExFreePoolWithTag(event, 0);
     }},
};

TEST(Waits, MisuseIsStopped) {
  ExpectStopped(badRoutines);
}
