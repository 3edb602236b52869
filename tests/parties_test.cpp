// Three parties against each other, told by tables: what the manager does, what a side does, and
// what happens besides. Every combination ends with nothing lost and nothing left, under priorities
// by chance; VORLIX_EXPLORE="exhaust preemptions=1" tries every order of one preemption.
#include <gtest/gtest.h>

#include <cmath>

#include "platform/model/schedule.h"
#include "tests/support/world.h"

struct Party {
  const char *Name;
  void (*Play)(World *World, struct Played *Played);
};

// What the parties leave to be waited for.
struct Played {
  Io Writes[2], Reads[2], Controls[2], Frames[3];
  HANDLE Client, Zk;  // as they were open when the parties began
  PDEVICE_OBJECT Filter;
  PDEVICE_OBJECT Pdo;
};

static const Party Managers[] = {
    {"surprise removal", [](World *world, Played *) { PnpSurpriseRemove(world->Node); }},
    {"query and cancel of a removal",
     [](World *, Played *played) {
       PnpSend(played->Filter, IRP_MN_QUERY_REMOVE_DEVICE);
       PnpSend(played->Filter, IRP_MN_CANCEL_REMOVE_DEVICE);
     }},
    {"query and cancel of a stop",
     [](World *, Played *played) {
       PnpSend(played->Filter, IRP_MN_QUERY_STOP_DEVICE);
       PnpSend(played->Filter, IRP_MN_CANCEL_STOP_DEVICE);
     }},
    {"stop and start",
     [](World *world, Played *) {
       if (PnpQueryStop(world->Node) == STATUS_SUCCESS) {
         PnpStop(world->Node);
         PnpStart(world->Node);
       }
     }},
};

static const Party Clients[] = {
    {"a write",
     [](World *, Played *played) { StartWrite(played->Client, &played->Writes[0], "c"); }},
    {"a read", [](World *, Played *played) { StartRead(played->Client, &played->Reads[0], 8); }},
    {"a device control",
     [](World *, Played *played) { StartControl(played->Client, &played->Controls[0], 0x1B0004); }},
    {"a close", [](World *world, Played *) { CloseClient(world); }},
    {"a cancel", [](World *, Played *played) { FileCancel(&played->Reads[1]); }},
};

static const Party Zks[] = {
    {"a data frame",
     [](World *, Played *played) {
       StartWrite(played->Zk, &played->Frames[0], MakeFrame(FRAME_DATA, TAG_LOWER, 0, "z"));
     }},
    {"a read of ZK",
     [](World *, Played *played) { StartRead(played->Zk, &played->Frames[1], 64); }},
    {"a lock", [](World *world, Played *) { SendCommand(world, COMMAND_LOCK_STREAM); }},
    {"an unlock", [](World *world, Played *) { SendCommand(world, COMMAND_UNLOCK_STREAM); }},
    {"the mode IDLE",
     [](World *world, Played *) { SendCommand(world, COMMAND_SET_MODE, 0, MODE_IDLE); }},
    {"the close of ZK", [](World *world, Played *) { CloseZk(world); }},
};

static const Party Others[] = {
    {"power down and up",
     [](World *, Played *played) {
       PnpSetDevicePower(played->Pdo, PowerDeviceD3);
       PnpSetDevicePower(played->Pdo, PowerDeviceD0);
     }},
    {"a completion by the port", [](World *world, Played *) { LowerFeed(&world->Lower, "p"); }},
    {"a second open",
     [](World *world, Played *) {
       HANDLE second;
       if (FileOpen("\\DosDevices\\" + world->Lower.Name, Account::User, &second) ==
           STATUS_SUCCESS) {
         FileClose(second);
       }
     }},
};

// The worlds that a combination is played in, one after the other.
struct Setting {
  bool Normal;
  bool Auxiliary;
  bool Direct;
  bool Pended;  // by the port: it keeps writes and device controls until they are finished
};

static Setting SettingOf(unsigned number) {
  return {(number & 1) == 0, (number & 2) != 0, (number & 4) != 0, (number & 8) != 0};
}

static WorldOptions OptionsOf(const Setting &setting) {
  WorldOptions options;
  options.Name = setting.Auxiliary ? DosName::SameDriver : DosName::OwnStack;
  options.Buffering = setting.Direct ? DO_DIRECT_IO : DO_BUFFERED_IO;
  return options;
}

static void FinishHeld(World *world) {
  for (LowerPort *port : {&world->Lower, &world->Outside}) {
    for (UCHAR major : {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL}) {
      while (port->Device != nullptr && LowerFinish(port, major)) {
      }
    }
  }
}

// The device behind the port: what it keeps comes to an end when everybody waits for it.
static void Answer(World *world, const bool *over) {
  for (int times = 0; times < 16 && !*over; ++times) {
    ThreadAwaitDeadlock();
    FinishHeld(world);
  }
}

// What the parties sent comes to its end, if need be by a cancel: a read that waits for bytes may
// wait, but not be lost.
static void EndAll(Played *played) {
  ThreadSettle();
  for (Io *io : {&played->Writes[0], &played->Reads[0], &played->Reads[1], &played->Controls[0],
                 &played->Frames[0], &played->Frames[1]}) {
    if (io->Sent) {
      FileCancel(io);
      FileWait(io);
    }
  }
}

static void PlayParties(World *world, const Setting &setting,
                        const std::vector<const Party *> &parties) {
  Played played = {};
  OpenZk(world);
  OpenClient(world);
  if (setting.Normal) {
    SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL);
    NextFrame(world);
  }
  if (setting.Pended) {
    for (LowerPort *port : {&world->Lower, &world->Outside}) {
      port->How[IRP_MJ_WRITE] = port->How[IRP_MJ_DEVICE_CONTROL] = Behaviour::Pend;
    }
  }
  played.Client = world->Client;
  played.Zk = world->Zk;
  played.Filter = WorldPort(world)->Header.Device;
  played.Pdo = PnpPdo(world->Node);
  StartRead(world->Client, &played.Reads[1], 4);
  std::vector<std::function<void()>> bodies;
  for (const Party *party : parties) {
    bodies.push_back([&, party] { party->Play(world, &played); });
  }
  bool over = false;
  PKTHREAD device = ThreadStart("device", [&] { Answer(world, &over); });
  ThreadSettle();
  Against(bodies);
  EndAll(&played);
  over = true;
  ThreadJoin(device);
}

// Every three of which no two are of the same table.
static std::vector<std::vector<const Party *>> Combinations() {
  struct {
    const Party *First;
    size_t Count;
  } const tables[] = {{Managers, std::size(Managers)},
                      {Clients, std::size(Clients)},
                      {Zks, std::size(Zks)},
                      {Others, std::size(Others)}};
  std::vector<std::vector<const Party *>> all;
  for (size_t left = 0; left < std::size(tables); ++left) {
    std::vector<std::vector<const Party *>> some = {{}};
    for (size_t t = 0; t < std::size(tables); ++t) {
      std::vector<std::vector<const Party *>> longer;
      for (size_t i = 0; t != left && i < tables[t].Count; ++i) {
        for (auto combination : some) {
          combination.push_back(&tables[t].First[i]);
          longer.push_back(combination);
        }
      }
      some = t == left ? some : longer;
    }
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

static std::string NameOf(const std::vector<const Party *> &parties, const Setting &setting) {
  std::string name;
  for (const Party *party : parties) {
    name += (name.empty() ? "" : ", ") + std::string(party->Name);
  }
  return name + (setting.Normal ? "; NORMAL" : "; IDLE") +
         (setting.Auxiliary ? ", auxiliary" : "") + (setting.Direct ? ", direct" : "") +
         (setting.Pended ? ", pended" : "");
}

constexpr unsigned Runs = 100;
constexpr double Threads = 6;  // main, three parties, the device, the call-down thread

// Each combination in one of the sixteen worlds; VORLIX_TURN chooses another round of them, so that
// sixteen rounds are the whole table.
TEST(PartyRaces, EveryThreeAgainstEachOther) {
  const char *turn = getenv("VORLIX_TURN");
  unsigned number = turn != nullptr ? static_cast<unsigned>(atoi(turn)) : 0;
  double most = 0;  // switch points of a first run
  for (const auto &parties : Combinations()) {
    Setting setting = SettingOf(number++ % 16);
    SCOPED_TRACE(NameOf(parties, setting));
    std::string how =
        "pct depth=3 runs=" + std::to_string(Runs) + " seed=" + std::to_string(number);
    ExploreWorldByChance(
        how.c_str(), [&](World *world) { PlayParties(world, setting, parties); },
        OptionsOf(setting));
    most = std::max(most, static_cast<double>(SchedulePoints()));
    if (testing::Test::HasFailure()) {
      break;
    }
  }
  // One run finds a fault of depth d among n threads and k points with at least 1/(n k^(d-1)).
  printf("a fault of depth 3 is found in a turn with a probability of at least %.2g\n",
         1 - std::pow(1 - 1 / (Threads * most * most), Runs));
}
