#include <unistd.h>

#include <map>
#include <set>
#include <vector>

#include "platform/model/shrink.h"
#include "tests/model/model_run.h"

static void ExpectParts(const std::string &text, std::initializer_list<const char *> parts) {
  for (const char *part : parts) {
    EXPECT_NE(text.find(part), std::string::npos) << part << " is missing in\n" << text;
  }
}

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
      // Who does nothing might as well come later.
      {1, 0, 2}, {1, 1, 4}, {2, 0, 2}, {2, 1, 6}, {2, 2, 14}, {0, 2, 1},
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

TEST(Explore, EndsAfterMaxRunsOrWithoutAWindowAfterOne) {
  ExploreOptions options;
  options.MaxRuns = 5;
  ExploreResult result = ModelExplore(options, [] { TwoThreads(2); });
  EXPECT_EQ(result.Runs, 5u);
  EXPECT_FALSE(result.Exhausted);
  result = ModelExplore({}, [] {
    LONG counter = 0;
    PKTHREAD a = ThreadStart("a", [&] { InterlockedIncrement(&counter); });
    InterlockedIncrement(&counter);
    ThreadJoin(a);
  });
  EXPECT_EQ(result.Runs, 1u);
  EXPECT_TRUE(result.Exhausted);
}

static void LoseAnUpdate() {
  LONG counter = 0;
  LONG other = 0;
  auto body = [&] {
    LONG seen = counter;
    InterlockedIncrement(&other);
    counter = seen + 1;
  };
  Together({body, body});
  if (counter != 2) {
    KeBugCheckModel("an update was lost");
  }
}

static void LocksCrossed() {
  KSPIN_LOCK one;
  KSPIN_LOCK two;
  KeInitializeSpinLock(&one);
  KeInitializeSpinLock(&two);
  Together({[&] { TakeBoth(&one, &two); }, [&] { TakeBoth(&two, &one); }});
}

static RunOptions Replay(const std::string &text) {
  RunOptions options;
  options.Schedule.How = SchedulePolicy::Kind::Replay;
  options.Schedule.Replay = text;
  return options;
}

TEST(Explore, FindsAPlantedDeadlockAndReplaysIt) {
  RunOptions plain;
  plain.Verifier = false;
  EXPECT_EQ(RuleOf(LocksCrossed, plain), "") << "needs a preemption";

  ExploreOptions options;
  options.Verifier = false;
  RunReport failure = ModelExplore(options, LocksCrossed).Failure;
  ASSERT_EQ(failure.Rule, "deadlock");
  ExpectParts(failure.Text,
              {"\"main\" waits for thread", "\"a\" wants lock", "\"b\" wants lock",
               "in a circle:", "\"a\" wants lock #", "holds lock", "taken at", "replay: w:"});

  RunOptions replay = Replay(failure.Replay);
  replay.Verifier = false;
  RunReport again = ModelRun(replay, LocksCrossed);
  EXPECT_EQ(again.Rule, "deadlock");
  EXPECT_EQ(again.Switches, failure.Switches);
  EXPECT_EQ(again.Replay, failure.Replay);
}

static std::string Order() {
  std::string order;
  auto body = [&order](char name) {
    for (int i = 0; i < 5; ++i) {
      static LONG counter;
      InterlockedIncrement(&counter);
      order += name;
    }
  };
  Together({[&] { body('a'); }, [&] { body('b'); }, [&] { body('c'); }});
  return order;
}

TEST(Replay, AnotherWayIsNoticed) {
  // The same string in every build: nothing but the order of choices is in it.
  EXPECT_EQ(RuleOf(LoseAnUpdate, Replay("w:001/1a7e")), "bugcheck");
  struct {
    const char *Text;
    const char *Part;
  } const cases[] = {
      {"r:3", "choice 0 was number 3 and is now made among 2 threads"},
      {"w:001/0000", "went another way before choice 2"},
      {"w:~50.1", "has ended after"},
  };
  for (const auto &c : cases) {
    RunReport report = ModelRun(Replay(c.Text), [] { TwoThreads(2); });
    EXPECT_EQ(report.Rule, "schedule.diverged") << c.Text;
    ExpectParts(report.Text, {c.Part});
  }
}

TEST(Policies, FindAPlantedRaceAndShowItShort) {
  for (const char *how : {"random runs=100", "pct depth=2 runs=100", "exhaust preemptions=2"}) {
    ExploreResult result = ExploreAs(how, LoseAnUpdate);
    EXPECT_EQ(result.Failure.Rule, "bugcheck") << how;
    EXPECT_EQ(result.Failure.Replay, "w:001/1a7e") << how;
  }
  EXPECT_EQ(ExploreAs("fifo", LoseAnUpdate).Runs, 1u);
  for (const char *wrong : {"psychic", "runs=many", "runs=", "luck=7"}) {
    ExploreOptions options;
    EXPECT_FALSE(ExploreRead(wrong, &options)) << wrong;
  }
}

// Who gets first: what is seen, how often, and what fails do not depend on who makes the runs.
TEST(Policies, WorkersFindWhatOneProcessFinds) {
  for (const char *how : {"exhaust preemptions=3", "random runs=500", "pct runs=500"}) {
    for (bool fails : {false, true}) {
      auto scenario = [fails] {
        std::string order = Order();
        ExploreSaw(order.substr(0, 4) + "\n");
        if (fails && order.starts_with("abb")) {
          KeBugCheckModel("a planted order");
        }
      };
      ExploreResult alone = ExploreAs(how, scenario);
      ExploreResult shared = ExploreAs((std::string(how) + " workers=3").c_str(), scenario);
      EXPECT_EQ(alone.Failure.Stopped, fails) << how;
      EXPECT_EQ(alone.Failure.Replay, shared.Failure.Replay) << how;
      EXPECT_EQ(alone.Runs, shared.Runs) << how;
      EXPECT_EQ(alone.Outcomes["aaaa\n"].Replay, "w:") << how;  // of the first run that ended so
      ASSERT_EQ(alone.Outcomes.size(), shared.Outcomes.size()) << how;
      EXPECT_GT(alone.Outcomes.size(), fails ? 0u : 3u) << how;
      for (const auto &[text, seen] : alone.Outcomes) {
        EXPECT_EQ(seen.Count, shared.Outcomes[text].Count) << how;
        EXPECT_EQ(seen.Replay, shared.Outcomes[text].Replay) << how;
      }
    }
  }
}

TEST(Policies, AWorkerThatDiesIsNoticed) {
  pid_t here = getpid();
  ExploreResult result = ExploreAs("random runs=500 workers=2", [here] {
    TwoThreads(2);
    if (getpid() != here) {
      _exit(1);
    }
  });
  EXPECT_EQ(result.Failure.Rule, "model.worker-died");
}

// Choices of two, at switch points.
static Choices ChoicesOf(const std::string &taken) {
  Choices choices;
  for (char c : taken) {
    choices.push_back({static_cast<uint16_t>(c - '0'), 3, 0, true});
  }
  return choices;
}

static std::string TextOf(const Choices &choices) {
  std::string text;
  for (const Choice &choice : choices) {
    text += static_cast<char>('0' + choice.Taken);
  }
  return text;
}

TEST(Shrink, FindsTheShortestWithinItsRuns) {
  struct {
    const char *Failing;
    bool (*Fails)(const std::string &);
    uint64_t MostRuns;
    const char *Shortest;
  } const cases[] = {
      // One of many is needed; two are, and the rest is not; all are.
      {"1201102", [](const std::string &s) { return s[3] == '1'; }, 100, "0001000"},
      {"1201102", [](const std::string &s) { return s[1] == '2' && s[6] == '2'; }, 100, "0200002"},
      {"1100000", [](const std::string &s) { return s.starts_with("11"); }, 100, "1100000"},
      // Closer together; with one preemption of another kind instead of two.
      {"1000010", [](const std::string &s) { return s.find('1') != s.rfind('1'); }, 100, "0000110"},
      {"0010010", [](const std::string &s) { return s == "0010010" || s == "0000200"; }, 100,
       "0000200"},
      {"1201102", [](const std::string &) { return true; }, 0, "1201102"},
  };
  for (const auto &c : cases) {
    Choices choices = ChoicesOf(c.Failing);
    uint64_t tries = 0;
    uint64_t used = ShrinkChoices(&choices, c.MostRuns, [&](Choices *run) {
      ++tries;
      return c.Fails(TextOf(*run));
    });
    EXPECT_EQ(TextOf(choices), c.Shortest) << c.Failing;
    EXPECT_EQ(used, tries);
    EXPECT_LE(used, c.MostRuns);
  }
}

// Two faults, one of a longer schedule than the other: what is shown is the fault that was found,
// by its own shortest schedule.
TEST(Shrink, KeepsTheRuleThatWasBroken) {
  auto scenario = [] {
    LONG step = 0;
    LONG other = 0;
    auto twoSteps = [&] {
      InterlockedIncrement(&step);
      InterlockedIncrement(&step);
    };
    auto look = [&] {
      if (step == 0) {
        VerifierStop("sooner", nullptr, "b was first");
      } else if (step == 1) {
        VerifierStop("later", nullptr, "b was between");
      }
    };
    auto disturb = [&] {
      for (int i = 0; i < 5; ++i) {
        InterlockedIncrement(&other);
      }
    };
    Together({twoSteps, look, disturb});
  };
  std::map<std::string, std::set<std::string>> shortest;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    ExploreOptions options;
    options.How = SchedulePolicy::Kind::Random;
    options.Seed = seed;
    options.ShrinkRuns = 0;
    std::string found = ModelExplore(options, scenario).Failure.Rule;
    options.ShrinkRuns = 100;
    RunReport shown = ModelExplore(options, scenario).Failure;
    EXPECT_EQ(shown.Rule, found);
    shortest[found].insert(shown.Replay);
  }
  EXPECT_EQ(shortest.size(), 2u);
  for (const auto &[rule, replays] : shortest) {
    EXPECT_EQ(replays.size(), 1u) << rule;
  }
}

TEST(Report, ShowsWhoDidWhatAndWhere) {
  std::string text = ModelExplore({}, [] {
                       static LONG shared;
                       shared = 0;
                       VerifierName(&shared, sizeof shared, "the shared word");
                       LoseAnUpdate();
                     }).Failure.Text;
  const char *inOrder[] = {"bugcheck: an update was lost",
                           "who did what:",
                           "-- \"a\" is preempted before an interlocked operation on ",
                           "; \"b\" goes on",
                           "  b     interlocked operation on word #",
                           "tests/model/scheduler_test.cpp:",
                           "  a     interlocked operation on word #",
                           "replay: w:001/"};
  size_t at = 0;
  for (const char *part : inOrder) {
    size_t found = text.find(part, at);
    ASSERT_NE(found, std::string::npos) << part << " is missing in\n" << text;
    at = found;
  }
}

static void Spin(const LONG *until, LONG *rounds) {
  while (__atomic_load_n(until, __ATOMIC_RELAXED) == 0) {
    InterlockedIncrement(rounds);
  }
}

TEST(Livelock, IsFoundAndExplainedUnlessTheScheduleAloneIsUnfair) {
  ExploreOptions options;
  options.MostSteps = 20'000;
  auto circle = [] {
    LONG never = 0;
    LONG rounds[2] = {};
    VerifierName(&rounds[0], sizeof(LONG), "the rounds of a");
    Together({[&] { Spin(&never, &rounds[0]); }, [&] { Spin(&never, &rounds[1]); }}, false);
  };
  RunReport report = ModelExplore(options, circle).Failure;
  EXPECT_EQ(report.Rule, "livelock");
  ExpectParts(report.Text,
              {"\"a\", before an interlocked operation on the rounds of a",
               "tests/model/scheduler_test.cpp:", "\"b\", before an interlocked operation"});
  auto endsByB = [] {
    LONG flag = 0;
    LONG rounds = 0;
    Together({[&] { Spin(&flag, &rounds); }, [&] { InterlockedExchange(&flag, 1); }}, false);
  };
  report = ModelExplore(options, endsByB).Failure;
  EXPECT_FALSE(report.Stopped) << report.Text;
}
