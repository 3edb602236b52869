// Three parties against each other, told by tables: what the manager does, what a side does, and
// what happens besides. Every combination in each world ends with nothing lost and nothing left,
// under every schedule with one preemption; a walk by chance goes deeper.
#include <gtest/gtest.h>

#include "tests/support/world.h"

struct Party {
  const char *Name;
  bool OnZk;  // of a side: what it is on must be open
  void (*Play)(World *World, struct Played *Played);
};

// What the parties leave to be waited for.
struct Played {
  Io Writes[2], Reads[2], Controls[2], Frames[3];
  HANDLE Client, Zk;  // as they were open when the parties began
  PDEVICE_OBJECT Filter;
  PDEVICE_OBJECT Pdo;
};

// The manager's part. A removal of either kind waits for the handles by itself, so that what it
// needs of the others comes after them.
static const Party Managers[] = {
    {"surprise removal", false, [](World *world, Played *) { PnpSurpriseRemove(world->Node); }},
    {"query and cancel of a removal", false,
     [](World *, Played *played) {
       PnpSend(played->Filter, IRP_MN_QUERY_REMOVE_DEVICE);
       PnpSend(played->Filter, IRP_MN_CANCEL_REMOVE_DEVICE);
     }},
    {"query and cancel of a stop", false,
     [](World *, Played *played) {
       PnpSend(played->Filter, IRP_MN_QUERY_STOP_DEVICE);
       PnpSend(played->Filter, IRP_MN_CANCEL_STOP_DEVICE);
     }},
    {"stop and start", false,
     [](World *world, Played *) {
       if (PnpQueryStop(world->Node) == STATUS_SUCCESS) {
         PnpStop(world->Node);
         PnpStart(world->Node);
       }
     }},
};

static const Party Clients[] = {
    {"a write", false,
     [](World *, Played *played) { StartWrite(played->Client, &played->Writes[0], "c"); }},
    {"a read", false,
     [](World *, Played *played) { StartRead(played->Client, &played->Reads[0], 8); }},
    {"a device control", false,
     [](World *, Played *played) { StartControl(played->Client, &played->Controls[0], 0x1B0004); }},
    {"a close", false, [](World *world, Played *) { CloseClient(world); }},
    {"a cancel", false, [](World *, Played *played) { FileCancel(&played->Reads[1]); }},
};

static const Party Zks[] = {
    {"a data frame", true,
     [](World *, Played *played) {
       StartWrite(played->Zk, &played->Frames[0], MakeFrame(FRAME_DATA, TAG_LOWER, 0, "z"));
     }},
    {"a read of ZK", true,
     [](World *, Played *played) { StartRead(played->Zk, &played->Frames[1], 64); }},
    {"a lock", true, [](World *world, Played *) { SendCommand(world, COMMAND_LOCK_STREAM); }},
    {"an unlock", true, [](World *world, Played *) { SendCommand(world, COMMAND_UNLOCK_STREAM); }},
    {"the mode IDLE", true,
     [](World *world, Played *) { SendCommand(world, COMMAND_SET_MODE, 0, MODE_IDLE); }},
    {"the close of ZK", true, [](World *world, Played *) { CloseZk(world); }},
};

static const Party Others[] = {
    {"power down and up", false,
     [](World *, Played *played) {
       PnpSetDevicePower(played->Pdo, PowerDeviceD3);
       PnpSetDevicePower(played->Pdo, PowerDeviceD0);
     }},
    {"a completion by the port", false,
     [](World *world, Played *) { LowerFeed(&world->Lower, "p"); }},
    {"a second open", false,
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

// Each combination in one of the sixteen worlds; VORLIX_TURN chooses another round of them, so that
// sixteen rounds are the whole table.
TEST(PartyRaces, EveryThreeAgainstEachOther) {
  const char *turn = getenv("VORLIX_TURN");
  unsigned number = turn != nullptr ? static_cast<unsigned>(atoi(turn)) : 0;
  for (const auto &parties : Combinations()) {
    Setting setting = SettingOf(number++ % 16);
    SCOPED_TRACE(NameOf(parties, setting));
    ExploreWorldByChance(("pct depth=3 runs=100 seed=" + std::to_string(number)).c_str(),
                         [&](World *world) { PlayParties(world, setting, parties); },
                         OptionsOf(setting));
    if (testing::Test::HasFailure()) {
      break;
    }
  }
}
