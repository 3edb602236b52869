// Three parties against each other, told by tables: what the manager does, what a side does, and
// what happens besides. Every combination ends with nothing lost and nothing left, in every world,
// in every order of one preemption; and under priorities by chance.
#include <gtest/gtest.h>

#include <cmath>

#include "platform/model/schedule.h"
#include "tests/support/world.h"

enum class Side { None, Client, Zk };

// What the parties leave to be waited for.
struct Played {
  Io Write, Reads[2], Control, Frame, ZkRead;
  HANDLE Client, Zk;  // as they were open when the parties began, or the party opened them
  PFILE_OBJECT Kept;  // by somebody in the kernel, so that its handle's close is a cleanup only
  PDEVICE_OBJECT Filter;
  PDEVICE_OBJECT Pdo;
};

struct Party {
  const char *Name;
  void (*Play)(World *World, Played *Played);
  bool WithoutPower = false;  // a power request on its way is beyond any driver when it is removed
};

static const Party Managers[] = {
    {"a removal",
     [](World *world, Played *) {
       if (PnpQueryRemove(world->Node) == STATUS_SUCCESS) {
         PnpRemove(world->Node);
         world->Node = nullptr;
       }
     },
     true},
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
    {"a write", [](World *, Played *played) { StartWrite(played->Client, &played->Write, "c"); }},
    {"a read", [](World *, Played *played) { StartRead(played->Client, &played->Reads[0], 8); }},
    {"a device control",
     [](World *, Played *played) { StartControl(played->Client, &played->Control, 0x1B0004); }},
    {"a close", [](World *world, Played *) { CloseClient(world); }},
    {"a cleanup",
     [](World *world, Played *played) {
       if (world->Client != nullptr) {
         played->Kept = FileObject(world->Client);
         ObfReferenceObject(played->Kept);
         CloseClient(world);
       }
     }},
    {"a cancel", [](World *, Played *played) { FileCancel(&played->Reads[1]); }},
};

static const Party Zks[] = {
    {"a data frame",
     [](World *, Played *played) {
       StartWrite(played->Zk, &played->Frame, MakeFrame(FRAME_DATA, TAG_LOWER, 0, "z"));
     }},
    {"a read of ZK", [](World *, Played *played) { StartRead(played->Zk, &played->ZkRead, 64); }},
    {"a lock", [](World *world, Played *) { SendCommand(world, COMMAND_LOCK_STREAM); }},
    {"an unlock", [](World *world, Played *) { SendCommand(world, COMMAND_UNLOCK_STREAM); }},
    {"the mode IDLE",
     [](World *world, Played *) { SendCommand(world, COMMAND_SET_MODE, 0, MODE_IDLE); }},
    {"the close of ZK", [](World *world, Played *) { CloseZk(world); }},
};

static void OpenOnce(const std::string &path, Account who) {
  HANDLE handle;
  if (FileOpen(path, who, &handle) == STATUS_SUCCESS) {
    FileClose(handle);
  }
}

static const Party Others[] = {
    {"power down and up",
     [](World *, Played *played) {
       PnpSetDevicePower(played->Pdo, PowerDeviceD3);
       PnpSetDevicePower(played->Pdo, PowerDeviceD0);
     }},
    {"a completion by the port", [](World *world, Played *) { LowerFeed(&world->Lower, "p"); }},
    {"a second client's open",
     [](World *world, Played *) { OpenOnce("\\DosDevices\\" + world->Lower.Name, Account::User); }},
    {"a second controller's open",
     [](World *world, Played *) {
       OpenOnce("\\DosDevices\\VORLIX_" + world->Lower.Name, Account::LocalSystem);
     }},
};

// The worlds that a combination is played in.
enum class Begin { Normal, Idle, Closed };  // closed: a party opens what it uses, and closes it

struct Setting {
  Begin From;
  bool Auxiliary;
  bool Direct;
  bool Pended;  // by the port: it keeps writes and device controls until they are finished
};

constexpr unsigned Settings = 18;  // eight that begin open, each NORMAL and IDLE, and two closed

static Setting SettingOf(unsigned number) {
  number %= Settings;
  return {static_cast<Begin>(number / 8), (number & 1) != 0, (number & 2) != 0, (number & 4) != 0};
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
  for (Io *io : {&played->Write, &played->Reads[0], &played->Reads[1], &played->Control,
                 &played->Frame, &played->ZkRead}) {
    if (io->Sent) {
      FileCancel(io);
      FileWait(io);
    }
  }
  if (played->Kept != nullptr) {
    ObfDereferenceObject(played->Kept);
  }
}

static void BeginClient(World *world, Played *played) {
  OpenClient(world);
  played->Client = world->Client;
  StartRead(world->Client, &played->Reads[1], 4);
}

static void BeginZk(World *world, Played *played, bool normal) {
  OpenZk(world);
  played->Zk = world->Zk;
  if (normal) {
    SendCommand(world, COMMAND_SET_MODE, 0, MODE_NORMAL);
  }
}

static Side SideOf(const Party *party) {
  auto of = [&](const auto &table) {
    return party >= std::begin(table) && party < std::end(table);
  };
  return of(Clients) ? Side::Client : of(Zks) ? Side::Zk : Side::None;
}

static void PlayParty(World *world, Played *played, const Party *party, bool opens) {
  Side side = opens ? SideOf(party) : Side::None;
  if (side == Side::Client) {
    BeginClient(world, played);
  } else if (side == Side::Zk) {
    BeginZk(world, played, false);
  }
  party->Play(world, played);
  if (side == Side::Client) {
    CloseClient(world);
  } else if (side == Side::Zk) {
    CloseZk(world);
  }
}

static void PlayParties(World *world, const Setting &setting,
                        const std::vector<const Party *> &parties) {
  Played played = {};
  bool closed = setting.From == Begin::Closed;
  if (!closed) {
    BeginZk(world, &played, setting.From == Begin::Normal);
    BeginClient(world, &played);
  }
  if (setting.From == Begin::Normal) {
    NextFrame(world);
  }
  if (setting.Pended) {
    for (LowerPort *port : {&world->Lower, &world->Outside}) {
      port->How[IRP_MJ_WRITE] = port->How[IRP_MJ_DEVICE_CONTROL] = Behaviour::Pend;
    }
  }
  played.Filter = WorldPort(world)->Header.Device;
  played.Pdo = PnpPdo(world->Node);
  std::vector<std::function<void()>> bodies;
  for (const Party *party : parties) {
    bodies.push_back([&, party] { PlayParty(world, &played, party, closed); });
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
  std::erase_if(all, [](const auto &combination) {
    return combination.front()->WithoutPower && combination.back() == &Others[0];
  });
  return all;
}

static std::string NameOf(const Setting &setting) {
  static const char *const begins[] = {"normal", "idle", "closed"};
  return std::string(begins[static_cast<int>(setting.From)]) +
         (setting.Auxiliary ? "_auxiliary" : "") + (setting.Direct ? "_direct" : "") +
         (setting.Pended ? "_pended" : "");
}

static std::string NameOf(const std::vector<const Party *> &parties) {
  std::string name;
  for (const Party *party : parties) {
    name += (name.empty() ? "" : ", ") + std::string(party->Name);
  }
  return name;
}

struct PartyTable : testing::TestWithParam<unsigned> {};

// Each combination in one world, in every order that one preemption makes.
TEST_P(PartyTable, EveryThreeInEveryOrder) {
  Setting setting = SettingOf(GetParam());
  auto all = Combinations();
  uint64_t runs = 0, orders = 0;
  for (const auto &parties : all) {
    SCOPED_TRACE(NameOf(parties));
    ExploreResult result = ExploreWorldAs(
        "exhaust preemptions=1", [&](World *world) { PlayParties(world, setting, parties); },
        OptionsOf(setting));
    runs += result.Runs;
    orders += result.Orders.size();
    ASSERT_FALSE(testing::Test::HasFailure());
  }
  printf("%zu combinations, %llu runs, %llu orders\n", all.size(),
         static_cast<unsigned long long>(runs), static_cast<unsigned long long>(orders));
}

INSTANTIATE_TEST_SUITE_P(Worlds, PartyTable, testing::Range(0u, Settings),
                         [](const auto &number) { return NameOf(SettingOf(number.param)); });

// What is left out are runs, not orders: looked at where all schedules can be paid for.
TEST(PartyTableReduced, HasTheSameOrders) {
  auto all = Combinations();
  for (unsigned preemptions : {1, 2}) {
    uint64_t runs[2] = {};
    for (unsigned number = 0; number < all.size(); number += preemptions == 1 ? 23 : 199) {
      Setting setting = SettingOf(number);
      SCOPED_TRACE(NameOf(all[number]) + "; " + NameOf(setting));
      ExploreResult results[2];
      for (int reduce : {0, 1}) {
        std::string how = "exhaust preemptions=" + std::to_string(preemptions) +
                          " reduce=" + std::to_string(reduce);
        results[reduce] = ExploreWorldAs(
            how.c_str(), [&](World *world) { PlayParties(world, setting, all[number]); },
            OptionsOf(setting));
        runs[reduce] += results[reduce].Runs;
      }
      EXPECT_EQ(results[0].Orders, results[1].Orders);
    }
    printf("%u preemptions: %llu runs instead of %llu\n", preemptions,
           static_cast<unsigned long long>(runs[1]), static_cast<unsigned long long>(runs[0]));
  }
}

constexpr unsigned Runs = 100;
constexpr double Threads = 6;  // main, three parties, the device, the call-down thread

// Each combination in one of the worlds; VORLIX_TURN chooses another round of them.
TEST(PartyRaces, EveryThreeUnderPrioritiesByChance) {
  const char *turn = getenv("VORLIX_TURN");
  unsigned number = turn != nullptr ? static_cast<unsigned>(atoi(turn)) : 0;
  double most = 0;  // switch points of a first run
  for (const auto &parties : Combinations()) {
    Setting setting = SettingOf(number++);
    SCOPED_TRACE(NameOf(parties) + "; " + NameOf(setting));
    std::string how =
        "pct depth=3 runs=" + std::to_string(Runs) + " seed=" + std::to_string(number);
    ExploreWorldAs(
        how.c_str(), [&](World *world) { PlayParties(world, setting, parties); },
        OptionsOf(setting));
    most = std::max(most, static_cast<double>(SchedulePoints()));
    ASSERT_FALSE(testing::Test::HasFailure());
  }
  // One run finds a fault of depth d among n threads and k points with at least 1/(n k^(d-1)).
  printf("a fault of depth 3 is found in a turn with a probability of at least %.2g\n",
         1 - std::pow(1 - 1 / (Threads * most * most), Runs));
}
