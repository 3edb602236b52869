#include <map>
#include <vector>

#include "tests/model/model_run.h"

// Two threads, each through as many switch points as it is told.
static void TwoThreads(unsigned points) {
  static LONG counter;
  auto body = [points] {
    for (unsigned i = 0; i < points; ++i) {
      InterlockedIncrement(&counter);
    }
  };
  PKTHREAD a = ThreadStart("a", body);
  PKTHREAD b = ThreadStart("b", body);
  ExploreWindow(true);
  ThreadSettle();
  ExploreWindow(false);
  ThreadJoin(a);
  ThreadJoin(b);
}

TEST(Explore, RunsEveryScheduleOnce) {
  struct {
    unsigned Points;
    unsigned Preemptions;
    uint64_t Runs;
  } const cases[] = {
      // Who begins is a free choice; then at most so many of its and the other's points are taken.
      {1, 0, 2}, {1, 1, 4}, {2, 0, 2}, {2, 1, 6}, {2, 2, 14}, {0, 2, 2},
  };
  for (const auto &c : cases) {
    ExploreOptions options;
    options.Preemptions = c.Preemptions;
    ExploreResult result = ModelExplore(options, [&] { TwoThreads(c.Points); });
    EXPECT_TRUE(result.Exhausted);
    EXPECT_FALSE(result.Failure.Stopped) << result.Failure.Text;
    EXPECT_EQ(result.Runs, c.Runs) << c.Points << " points, " << c.Preemptions << " preemptions";
  }
}

TEST(Explore, GivesUpAfterMaxRuns) {
  ExploreOptions options;
  options.MaxRuns = 5;
  ExploreResult result = ModelExplore(options, [] { TwoThreads(2); });
  EXPECT_EQ(result.Runs, 5u);
  EXPECT_FALSE(result.Exhausted);
}

TEST(Explore, WithoutAWindowThereIsOneRun) {
  ExploreResult result = ModelExplore({}, [] {
    LONG counter = 0;
    PKTHREAD a = ThreadStart("a", [&] { InterlockedIncrement(&counter); });
    PKTHREAD b = ThreadStart("b", [&] { InterlockedIncrement(&counter); });
    ThreadJoin(b);
    ThreadJoin(a);
  });
  EXPECT_EQ(result.Runs, 1u);
  EXPECT_TRUE(result.Exhausted);
}

// A read and a write of the same word with something else in between.
static void LoseAnUpdate() {
  LONG counter = 0;
  LONG other = 0;
  auto body = [&] {
    LONG seen = counter;
    InterlockedIncrement(&other);
    counter = seen + 1;
  };
  PKTHREAD a = ThreadStart("a", body);
  PKTHREAD b = ThreadStart("b", body);
  ExploreWindow(true);
  ThreadJoin(a);
  ThreadJoin(b);
  ExploreWindow(false);
  if (counter != 2) {
    KeBugCheckModel("an update was lost");
  }
}

static void LocksCrossed() {
  KSPIN_LOCK one;
  KSPIN_LOCK two;
  KeInitializeSpinLock(&one);
  KeInitializeSpinLock(&two);
  auto body = [](PKSPIN_LOCK first, PKSPIN_LOCK second) {
    KIRQL outer = KeAcquireSpinLockRaiseToDpc(first);
    KIRQL inner = KeAcquireSpinLockRaiseToDpc(second);
    KeReleaseSpinLock(second, inner);
    KeReleaseSpinLock(first, outer);
  };
  PKTHREAD a = ThreadStart("a", [&] { body(&one, &two); });
  PKTHREAD b = ThreadStart("b", [&] { body(&two, &one); });
  ExploreWindow(true);
  ThreadJoin(a);
  ThreadJoin(b);
  ExploreWindow(false);
}

TEST(Explore, FindsAPlantedRaceAndReplaysIt) {
  struct {
    const char *Rule;
    void (*Scenario)();
  } const cases[] = {{"bugcheck", LoseAnUpdate}, {"deadlock", LocksCrossed}};
  for (const auto &c : cases) {
    RunOptions plain;
    plain.Verifier = false;
    EXPECT_EQ(RuleOf(c.Scenario, plain), "") << c.Rule << " needs no preemption";

    ExploreOptions options;
    options.Verifier = false;
    ExploreResult result = ModelExplore(options, c.Scenario);
    ASSERT_EQ(result.Failure.Rule, c.Rule);

    RunOptions replay = plain;
    replay.Schedule.How = SchedulePolicy::Kind::Replay;
    replay.Schedule.Replay = result.Failure.Replay;
    RunReport again = ModelRun(replay, c.Scenario);
    EXPECT_EQ(again.Rule, c.Rule);
    EXPECT_EQ(again.Switches, result.Failure.Switches);
    EXPECT_EQ(again.Replay, result.Failure.Replay);
  }
}

TEST(Deadlock, NamesWhatEachThreadWaitsForAndHolds) {
  ExploreOptions options;
  options.Verifier = false;
  std::string text = ModelExplore(options, LocksCrossed).Failure.Text;
  for (const char *part : {"\"main\" waits for thread", "\"a\" wants lock", "\"b\" wants lock",
                           "holds lock", "taken at", "replay: x2:"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " is missing in\n" << text;
  }
}

// The order in which three threads pass their switch points.
static std::string Order() {
  std::string order;
  std::vector<PKTHREAD> threads;
  for (char name : {'a', 'b', 'c'}) {
    threads.push_back(ThreadStart("letter", [&order, name] {
      for (int i = 0; i < 5; ++i) {
        static LONG counter;
        InterlockedIncrement(&counter);
        order += name;
      }
    }));
  }
  for (PKTHREAD thread : threads) {
    ThreadJoin(thread);
  }
  return order;
}

TEST(Random, SeedsDifferAndEveryRunReplays) {
  std::map<std::string, int> orders;
  for (uint64_t seed = 0; seed < 50; ++seed) {
    RunOptions options;
    options.Schedule.How = SchedulePolicy::Kind::Random;
    options.Schedule.Seed = seed;
    std::string first;
    std::string second;
    RunReport report = ModelRun(options, [&] { first = Order(); });
    options.Schedule.How = SchedulePolicy::Kind::Replay;
    options.Schedule.Replay = report.Replay;
    EXPECT_EQ(ModelRun(options, [&] { second = Order(); }).Replay, report.Replay);
    ASSERT_EQ(first, second) << report.Replay;
    ++orders[first];
  }
  EXPECT_GT(orders.size(), 40u);
}

TEST(Random, ReplayOfAnotherBodyIsNoticed) {
  RunOptions options;
  options.Schedule.How = SchedulePolicy::Kind::Replay;
  options.Schedule.Replay = "r:3";
  EXPECT_EQ(RuleOf([] { TwoThreads(1); }, options), "schedule.diverged");
}

TEST(Fifo, NobodyIsPreempted) {
  std::string order;
  RunReport report = ModelRun({}, [&] { order = Order(); });
  EXPECT_EQ(order, "aaaaabbbbbccccc");
  EXPECT_EQ(report.Replay, "f");
}

TEST(Fifo, YieldLetsEachReadyThreadRunOnce) {
  ExpectClean([] {
    std::string order;
    auto body = [&order](char name) {
      order += name;
      ThreadYieldToReady();
      order += name;
    };
    PKTHREAD a = ThreadStart("a", [&] { body('a'); });
    PKTHREAD b = ThreadStart("b", [&] { body('b'); });
    EXPECT_TRUE(ThreadAnyReady());
    EXPECT_TRUE(ThreadYieldToReady());
    EXPECT_EQ(order, "ab");
    EXPECT_FALSE(ThreadYieldToReady());
    EXPECT_EQ(order, "abab");
    ThreadJoin(a);
    ThreadJoin(b);
  });
}
