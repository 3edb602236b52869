#include "tests/support/failing.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

// The scenarios are shared out among so many processes.
constexpr uint64_t Shares = 2;
// A scenario that does the same thousands of times is played with about so many of its calls.
// VORLIX_TURNS sets another number, and plays each turn under one schedule only.
constexpr uint64_t MostCalls = 300;
constexpr unsigned MostPatience = 64;

struct Turn {
  const std::function<void(World *)> *Scenario;
  const WorldOptions *Options;
  uint64_t Nth = 0;  // 0: none
  bool AndAllAfter = false;
  bool Works = false;      // the port after the undisturbed scenario
  bool Anew = false;       // a port made anew is to work, too
  bool Delivered = false;  // in any run
  bool InWindow = false;   // likewise, and there first
  uint64_t Calls = 0;      // in the last run
};

static bool failing;

bool Failing() {
  return failing;
}

// ---- Giving up ----

static void FinishAll(LowerPort *Port) {
  if (Port->Device == nullptr) {
    return;
  }
  for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
    while (LowerFinish(Port, major)) {
    }
  }
}

// Ends what nobody is about to end, whenever nothing else can go on. Who waits even then does so
// for ever, and the run is stopped.
static void GiveUp(World *World, const bool *Over) {
  for (unsigned n = 0; n < MostPatience; ++n) {
    ThreadAwaitDeadlock();
    if (*Over) {
      return;
    }
    CancelOutstanding();
    FinishAll(&World->Lower);
    FinishAll(&World->Outside);
  }
}

// ---- The proof ----

static void BeOrdinary(LowerPort *Port) {
  std::fill(std::begin(Port->How), std::end(Port->How), Behaviour::Inline);
  std::fill(std::begin(Port->Result), std::end(Port->Result), STATUS_SUCCESS);
  Port->How[IRP_MJ_READ] = Behaviour::Queue;
  Port->StartResult = STATUS_SUCCESS;
  Port->AtDispatchLevel = false;
  Port->ClaimedRead = 0;
  Port->Input.clear();
  Port->Seen.clear();
}

// ZK has its way with the port, and what the port sends comes to it and to a client.
static bool Works(World *World, bool WithClient) {
  BeOrdinary(&World->Lower);
  BeOrdinary(&World->Outside);
  bool works = OpenZk(World) == STATUS_SUCCESS &&
               (!WithClient || OpenClient(World) == STATUS_SUCCESS) &&
               SendCommand(World, COMMAND_SET_MODE, 0, MODE_NORMAL) == STATUS_SUCCESS;
  if (works) {
    Io frames[8], write, read;  // the reply, what may be left of others, the port's byte
    for (Io &frame : frames) {
      StartRead(World->Zk, &frame, 512);
    }
    StartRead(World->Client, &read, 1);  // without a handle it fails
    StartWrite(World->Zk, &write, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "again"));
    LowerFeed(&World->Lower, "p");
    ThreadSettle();
    bool heard = std::any_of(std::begin(frames), std::end(frames),
                             [](const Io &frame) { return DecodeFrame(frame).Payload == "p"; });
    works &= heard && LowerWritten(&World->Lower) == "again" && (!WithClient || read.Text() == "p");
  }
  CloseClient(World);
  CloseZk(World);
  return works;
}

static void ProveAnew(World *First, const WorldOptions &Options) {
  World world;
  world.Driver = First->Driver;
  world.PortDriver = First->PortDriver;
  world.OtherDriver = First->OtherDriver;
  world.RelayDriver = First->RelayDriver;
  world.Lower.BufferingFlags = world.Outside.BufferingFlags = Options.Buffering;
  EXPECT_EQ(WorldAdd(&world, Options), STATUS_SUCCESS);
  EXPECT_TRUE(Options.Start || PnpStart(world.Node) == STATUS_SUCCESS);
  EXPECT_TRUE(Works(&world, Options.Name == DosName::OwnStack)) << "a port made anew does not work";
  PnpRemove(world.Node);
}

static void Judge(World *World, Turn *Turn) {
  CloseClient(World);
  CloseZk(World);
  ThreadSettle();
  if (World->Node != nullptr) {
    // A close that gets no item leaves its device open for good; a child that failed its start has
    // been removed, and nobody opens it any more.
    const PortExtension *port = WorldPort(World);
    bool shut = OpenZk(World) == STATUS_NO_SUCH_DEVICE;
    CloseZk(World);
    bool excused = shut || port->OpenCount != 0 || port->Header.PnpState != PNP_STARTED;
    bool works = !excused && Works(World, false);
    Turn->Works |= Turn->Nth == 0 && works;
    EXPECT_TRUE(works || excused || !Turn->Works) << "the port does not work any more";
    PnpRemove(World->Node);
    World->Node = nullptr;
  }
  EXPECT_EQ(DeviceCount(World->Driver), 0u);
  if (Turn->Anew) {
    ProveAnew(World, *Turn->Options);
  }
}

// ---- A run ----

static void PlayTurn(Turn *Turn, testing::TestPartResultArray *Failures) {
  World world;
  bool over = false;
  WorldLoad(&world, *Turn->Options);
  WorldAdd(&world, *Turn->Options);
  PKTHREAD patience = ThreadStart("patience", [&] { GiveUp(&world, &over); });
  FaultArm({.Kinds = Turn->Nth == 0 ? 0u : uint32_t{FaultEverything},
            .Nth = Turn->Nth,
            .AndAllAfter = Turn->AndAllAfter});
  uint64_t before = FaultCount(FaultEverything);
  (*Turn->Scenario)(&world);
  ExploreWindow(false);
  ThreadSettle();
  Turn->Calls = FaultCount(FaultEverything) - before;
  Turn->Delivered |= FaultDisarm();
  Turn->InWindow |= FaultInWindow();
  int judged = Failures->size();
  Judge(&world, Turn);
  over = true;
  ThreadJoin(patience);
  WorldEnd(&world);
  StopAtFailure(*Failures, judged);
}

// VORLIX_TURNS; 0 when it is not set.
static uint64_t AskedTurns() {
  const char *asked = getenv("VORLIX_TURNS");
  return asked != nullptr ? std::max<uint64_t>(strtoull(asked, nullptr, 10), 1) : 0;
}

static std::string TurnName(const Turn *Turn) {
  return std::to_string(Turn->Nth) + (Turn->AndAllAfter ? "+" : "");
}

// Returns what failed.
static std::string PlayTurns(Turn *Turn, unsigned Preemptions, const char *Replay = nullptr) {
  testing::TestPartResultArray failures;
  testing::ScopedFakeTestPartResultReporter reporter(
      testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
  ExploreOptions options;
  options.Preemptions = Preemptions;
  Turn->Anew = Preemptions == 0;
  auto play = [&] { PlayTurn(Turn, &failures); };
  bool once = Replay != nullptr || AskedTurns() != 0;
  RunReport report =
      once ? ModelRun(ReplayOptions(Replay), play) : ModelExplore(options, play).Failure;
  return report.Stopped ? "VORLIX_FAIL=" + TurnName(Turn) + "\n" + report.Text : "";
}

// The turn that VORLIX_FAIL asks for.
static std::string PlayAskedFor(const std::function<void(World *)> &Scenario,
                                const WorldOptions &Options, const std::string &Asked) {
  failing = true;
  Turn turn = {&Scenario, &Options, 0, Asked.ends_with('+')};
  std::string failed = PlayTurns(&turn, 0);
  turn.Nth = strtoull(Asked.c_str(), nullptr, 10);
  failed += PlayTurns(&turn, 0, getenv("VORLIX_REPLAY"));
  failing = false;
  return failed;
}

static std::string PlayShare(uint64_t Share, const std::function<void(World *)> &Scenario,
                             unsigned Preemptions, const WorldOptions &Options) {
  failing = true;
  Turn plain = {&Scenario, &Options};
  std::string failed = PlayTurns(&plain, 0);
  uint64_t asked = AskedTurns();
  uint64_t stride = plain.Calls / (asked != 0 ? asked : MostCalls) + 1;
  for (uint64_t nth = 1 + Share * stride; failed.empty(); nth += Shares * stride) {
    bool delivered = false;
    for (bool after : {false, true}) {
      Turn turn = {&Scenario, &Options, nth, after, plain.Works};
      failed += failed.empty() ? PlayTurns(&turn, 0) : "";
      if (failed.empty() && turn.InWindow && !after && Preemptions > 0 && asked == 0) {
        failed = PlayTurns(&turn, Preemptions);
      }
      delivered |= turn.Delivered;
    }
    if (!delivered) {
      break;
    }
  }
  return failed;
}

// What a process of its own says, and that it came to its end.
struct Child {
  pid_t Process;
  int From;
};

static Child InChild(const std::function<std::string()> &Say) {
  int ends[2];
  if (pipe(ends) != 0) {
    return {-1, -1};
  }
  fflush(nullptr);
  pid_t process = fork();
  if (process == 0) {
    std::string text = Say();
    bool written = write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(written ? 0 : 1);
  }
  close(ends[1]);
  return {process, ends[0]};
}

static std::string Hear(const Child &Child) {
  if (Child.Process < 0) {
    return "the machine has no process for the failing calls\n";
  }
  std::string text;
  char bytes[4096];
  for (ssize_t count; (count = read(Child.From, bytes, sizeof bytes)) > 0;) {
    text.append(bytes, static_cast<size_t>(count));
  }
  close(Child.From);
  int status = -1;
  waitpid(Child.Process, &status, 0);
  return status == 0 ? text : text + "the process with failing calls has died\n";
}

std::string FailInTurn(const std::function<void(World *)> &Scenario, unsigned Preemptions,
                       const WorldOptions &Options) {
  if (const char *asked = getenv("VORLIX_FAIL")) {
    return PlayAskedFor(Scenario, Options, asked);
  }
  std::vector<Child> children;
  std::string failed;
  for (uint64_t share = 0; share < Shares; ++share) {
    children.push_back(InChild([&] { return PlayShare(share, Scenario, Preemptions, Options); }));
  }
  for (const Child &child : children) {
    failed += Hear(child);
  }
  return failed;
}
