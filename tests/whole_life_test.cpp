// One full life of a port in NORMAL, disturbed at every switch point: the port is pulled out, a
// removal is queried and cancelled, the port is rebalanced. And life in numbers: very many lives,
// very many ports.
#include <gtest/gtest.h>

#include <deque>

#include "tests/support/world.h"

// --- The life -------------------------------------------------------------------------------

// What a life tells: a word a step, '-' for a step that failed.
struct Story {
  std::string Text;
  bool Failed = false;                    // some step has
  bool Revived = false;                   // and a later one has not
  size_t Steps = 0;                       // told so far
  std::function<void()> Began = nullptr;  // called when the next step begins
};

static bool Tell(Story *Story, const std::string &Step, bool Worked) {
  Story->Text += (Worked ? Step : "-") + " ";
  Story->Revived |= Story->Failed && Worked;
  Story->Failed |= !Worked;
  ++Story->Steps;
  if (Story->Began) {
    Story->Began();
  }
  return Worked;
}

static bool Finished(Io *Io) {
  return FileWait(Io) == STATUS_SUCCESS;
}

static void Command(World *World, Story *Story, ULONG Command, ULONG Argument = 0) {
  Tell(Story, "command", SendCommand(World, Command, 0, Argument) == STATUS_SUCCESS);
}

static void TellFrame(World *World, Story *Story) {
  Io read;
  StartRead(World->Zk, &read, 4096);
  bool worked = Finished(&read);
  Frame frame = DecodeFrame(read);
  Tell(Story, frame.Header.Type == FRAME_CONTROL_REPLY ? "reply" : "[" + frame.Payload + "]",
       worked);
}

static void TellRead(Story *Story, Io *Read) {
  bool worked = Finished(Read);
  Tell(Story, "<" + Read->Text() + ">", worked);
}

// While the stream is locked a write and a read are parked, and go on in their order.
static void LockedPart(World *World, Story *Story) {
  Io write, read;
  Command(World, Story, COMMAND_LOCK_STREAM);
  TellFrame(World, Story);
  StartWrite(World->Client, &write, "parked");
  StartRead(World->Client, &read, 2);
  LowerFeed(&World->Lower, "cd");
  // Whatever ends some of these three may let others pass, so they are one step.
  bool worked = SendCommand(World, COMMAND_UNLOCK_STREAM) == STATUS_SUCCESS;
  worked &= Finished(&write);
  worked &= Finished(&read);
  Tell(Story, "unlock<" + read.Text() + ">", worked);
  TellFrame(World, Story);  // the reply
  TellFrame(World, Story);
  TellFrame(World, Story);
}

static void NormalPart(World *World, Story *Story) {
  Io read, write, data;
  Command(World, Story, COMMAND_SET_MODE, MODE_NORMAL);
  TellFrame(World, Story);
  StartRead(World->Client, &read, 2);
  LowerFeed(&World->Lower, "ab");
  TellRead(Story, &read);
  TellFrame(World, Story);
  StartWrite(World->Client, &write, "out");
  Tell(Story, "write", Finished(&write));
  TellFrame(World, Story);
  StartWrite(World->Zk, &data, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "zk"));
  Tell(Story, "data", Finished(&data));
  LockedPart(World, Story);
}

// Opens a handle; a port that is being rebalanced refuses, so then once more after Again.
static bool TellOpen(World *World, Story *Story, NTSTATUS (*Open)(::World *),
                     const std::function<void()> &Again) {
  NTSTATUS status = Open(World);
  if (status != STATUS_SUCCESS && Again) {
    Again();
    status = Open(World);
  }
  return Tell(Story, "open", status == STATUS_SUCCESS);
}

static void Live(World *World, Story *Story, const std::function<void()> &Again = nullptr) {
  if (TellOpen(World, Story, OpenZk, Again) && TellOpen(World, Story, OpenClient, Again)) {
    NormalPart(World, Story);
    // One of each waits when the handles are closed.
    Io zkRead, clientRead;
    StartRead(World->Zk, &zkRead, 64);
    StartRead(World->Client, &clientRead, 2);
    CloseZk(World);
    CloseClient(World);
    FileCancel(&clientRead);  // handed down to the port when ZK closed
    FileWait(&clientRead);
    FileWait(&zkRead);
  }
  CloseZk(World);
  CloseClient(World);
}

// The story of a life that nothing disturbs. Not from inside of a run, the first time.
static const std::string &Undisturbed() {
  static const std::string whole = [] {
    Story story;
    RunWorld([&](World *world) {
      Live(world, &story);
      EXPECT_EQ(LowerWritten(&world->Lower), "outzkparked");
    });
    EXPECT_FALSE(story.Failed) << story.Text;
    return story.Text;
  }();
  return whole;
}

// Those before the first that failed.
static size_t StepsDone(const std::string &Story) {
  std::string done = Story.substr(0, Story.find('-'));
  return static_cast<size_t>(std::count(done.begin(), done.end(), ' '));
}

struct Disturbed {
  void (*Disturb)(World *World);
  void (*Judge)(World *World, const Story &Story);
  bool OpensAgain = false;
  ULONG Buffering = DO_BUFFERED_IO;
};

constexpr size_t WholeLife = SIZE_MAX;

// The window is open, and the disturbance begins, from the given step on until the next.
static void PlayDisturbed(World *World, const Disturbed &Case, size_t Step) {
  Story story;
  KEVENT begin;
  KeInitializeEvent(&begin, NotificationEvent, Step == WholeLife);
  story.Began = [&] {
    if (Step != WholeLife && story.Steps == Step) {
      KeSetEvent(&begin, IO_NO_INCREMENT, FALSE);
      ExploreWindow(true);
    } else if (Step != WholeLife) {
      ExploreWindow(false);
    }
  };
  PKTHREAD other = ThreadStart("disturb", [&] {
    KeWaitForSingleObject(&begin, Executive, KernelMode, FALSE, nullptr);
    Case.Disturb(World);
  });
  std::function<void()> again;
  if (Case.OpensAgain) {
    again = [&] { KeWaitForSingleObject(other, Executive, KernelMode, FALSE, nullptr); };
  }
  ExploreWindow(Step == WholeLife);
  PKTHREAD life = ThreadStart("life", [&] {
    story.Began();
    Live(World, &story, again);
  });
  ThreadJoin(life);
  ThreadJoin(other);
  ExploreWindow(false);
  ThreadSettle();
  Case.Judge(World, story);
}

// Plays the life against the disturbance beginning at every switch point of it, and the life
// beginning at every switch point of the disturbance; then each step of the life against the
// disturbance, with two preemptions.
static ExploreResult DisturbEverywhere(const Disturbed &Case) {
  WorldOptions options;
  options.Buffering = Case.Buffering;
  auto explore = [&](size_t step, unsigned preemptions) {
    options.FailsInTurn = step == WholeLife;
    return ExploreWorld([&](World *world) { PlayDisturbed(world, Case, step); }, preemptions,
                        options);
  };
  size_t steps = StepsDone(Undisturbed());
  ExploreResult whole = explore(WholeLife, 1);
  for (size_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(testing::Message() << "step " << step);
    EXPECT_GT(explore(step, 2).Runs, 10u);
  }
  return whole;
}

// Every step but the last is the last that worked in some run, and once one failed none works.
TEST(WholeLife, PulledOutAtEverySwitchPoint) {
  std::string whole = Undisturbed();
  for (ULONG buffering : {DO_BUFFERED_IO, DO_DIRECT_IO}) {
    ExploreResult result = DisturbEverywhere({
        .Disturb = [](World *w) { PnpSurpriseRemove(w->Node); },
        .Judge =
            [](World *world, const Story &story) {
              EXPECT_FALSE(story.Revived) << story.Text;
              EXPECT_EQ(WorldPort(world)->RequestCount, 1);
              ExploreSaw(std::to_string(StepsDone(story.Text)));
            },
        .Buffering = buffering,
    });
    EXPECT_GT(result.Runs, 1000u);
    for (size_t step = 0; step <= StepsDone(whole); ++step) {
      EXPECT_TRUE(result.Outcomes.count(std::to_string(step)))
          << "never pulled out after step " << step << " of " << whole;
    }
  }
}

// Nobody notices: requests wait for the cancel and go on.
TEST(WholeLife, RemovalQueriedAndCancelledAtEverySwitchPoint) {
  static bool settle;
  for (bool pause : {false, true}) {
    settle = pause;
    ExploreResult result = DisturbEverywhere({
        .Disturb =
            [](World *w) {
              EXPECT_EQ(PnpQueryRemove(w->Node, true), STATUS_SUCCESS);
              if (settle) {
                ThreadSettle();  // the life comes to where it waits for a parked request
              }
              EXPECT_EQ(PnpCancelRemove(w->Node), STATUS_SUCCESS);
            },
        .Judge =
            [](World *world, const Story &story) {
              EXPECT_EQ(story.Text, Undisturbed());
              EXPECT_EQ(LowerWritten(&world->Lower), "outzkparked");
            },
    });
    EXPECT_GT(result.Runs, 1000u);
  }
}

// A stop is refused while somebody has the port open; an open that comes too late is refused.
TEST(WholeLife, RebalancedAtEverySwitchPoint) {
  static bool granted;
  ExploreResult result = DisturbEverywhere({
      .Disturb =
          [](World *w) {
            granted = PnpQueryStop(w->Node) == STATUS_SUCCESS;
            if (granted) {
              EXPECT_EQ(PnpStop(w->Node), STATUS_SUCCESS);
              EXPECT_EQ(PnpStart(w->Node), STATUS_SUCCESS);
            } else {
              EXPECT_EQ(PnpCancelStop(w->Node), STATUS_SUCCESS);
            }
          },
      .Judge =
          [](World *, const Story &story) {
            EXPECT_EQ(story.Text, Undisturbed());
            ExploreSaw(std::string(granted ? "stopped" : "refused"));
          },
      .OpensAgain = true,
  });
  EXPECT_EQ(OutcomesOf(result), (std::set<std::string>{"stopped", "refused"}));
}

// --- In numbers -----------------------------------------------------------------------------

// Ten thousand lives in one boot; the run's end finds what any of them left.
TEST(WholeLife, TenThousand) {
  RunReport report = ModelRun({}, [] {
    World world;
    WorldLoad(&world);
    for (int i = 0; i < 10000 && !testing::Test::HasFailure(); ++i) {
      Story story;
      WorldOptions options;
      options.Buffering = i % 2 != 0 ? DO_DIRECT_IO : DO_BUFFERED_IO;
      options.Start = i % 7 != 6;
      world.Lower.BufferingFlags = options.Buffering;
      ASSERT_EQ(WorldAdd(&world, options), STATUS_SUCCESS);
      if (options.Start) {
        Live(&world, &story);
        EXPECT_FALSE(story.Failed) << "life " << i << ": " << story.Text;
      }
      if (i % 3 == 0) {
        PnpSurpriseRemove(world.Node);
      }
      RemovePort(&world);
      EXPECT_EQ(DeviceCount(world.Driver), 0u);
      EXPECT_EQ(DeviceCount(world.PortDriver), 0u);
      world.Lower.Seen.clear();
    }
    WorldEnd(&world);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

constexpr size_t PortCount = 1000;

// A thousand ports at once, each with its own name, link and bytes, and every other one removed
// while its neighbours live on.
TEST(WholeLife, AThousandPorts) {
  RunReport report = ModelRun({}, [] {
    World first;
    WorldLoad(&first);
    std::deque<World> worlds(PortCount);
    for (size_t i = 0; i < PortCount; ++i) {
      worlds[i].Driver = first.Driver;
      worlds[i].PortDriver = first.PortDriver;
      worlds[i].Lower.Name = "COM" + std::to_string(i + 1);
      worlds[i].Lower.How[IRP_MJ_READ] = Behaviour::Queue;
      ASSERT_EQ(WorldAdd(&worlds[i]), STATUS_SUCCESS);
      GoNormal(&worlds[i]);
    }
    EXPECT_EQ(DeviceCount(first.Driver), 2 * PortCount);
    EXPECT_NE(NameLookup("\\Device\\VORLIX" + std::to_string(PortCount)), nullptr);
    auto use = [&](size_t i) {
      Io write, read;
      std::string text = std::to_string(i);
      StartWrite(worlds[i].Client, &write, text);
      EXPECT_EQ(NextFrame(&worlds[i]).Payload, text);
      StartRead(worlds[i].Client, &read, 16);
      LowerFeed(&worlds[i].Lower, text);
      EXPECT_EQ(FileWait(&read), STATUS_SUCCESS);
      EXPECT_EQ(read.Text(), text);
      EXPECT_EQ(NextFrame(&worlds[i]).Payload, text);
    };
    auto remove = [&](size_t i) {
      CloseClient(&worlds[i]);
      CloseZk(&worlds[i]);
      PnpRemove(worlds[i].Node);
    };
    for (size_t i = 0; i < PortCount; i += 2) {
      use(i + 1);
      remove(i);
      use(i + 1);
    }
    EXPECT_EQ(DeviceCount(first.Driver), PortCount);
    for (size_t i = PortCount; i > 0; i -= 2) {
      remove(i - 1);
    }
    WorldEnd(&first);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}
