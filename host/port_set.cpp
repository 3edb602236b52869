#include "host/port_set.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "host/config.h"
#include "host/event_loop.h"
#include "host/host_log.h"

struct Member {
  Port *Held = nullptr;
  bool Leaving = false;
};

namespace {
struct PortSet {
  std::vector<PortOptions> Wanted;
  std::vector<std::unique_ptr<Member>> Members;
  std::vector<PDRIVER_OBJECT> Drivers;
  std::function<void()> Empty;  // set: the run ends
};
}  // namespace

static PortSet TheSet;

static void Pursue();

static bool IsWanted(const PortOptions &Options) {
  return std::any_of(TheSet.Wanted.begin(), TheSet.Wanted.end(),
                     [&Options](const auto &wanted) { return PortOptionsEqual(wanted, Options); });
}

static void Forget(Member *Gone) {
  if (!TheSet.Empty) {
    HostLog(PortOptionsOf(Gone->Held).Name, "removed");
  }
  PortRelease(Gone->Held);
  std::erase_if(TheSet.Members, [Gone](const auto &member) { return member.get() == Gone; });
  Pursue();
}

// The last one first, as drivers are removed.
static void StopUnwanted() {
  for (size_t i = TheSet.Members.size(); i-- > 0;) {
    Member *member = TheSet.Members[i].get();
    if (!member->Leaving && !IsWanted(PortOptionsOf(member->Held))) {
      member->Leaving = true;
      PortStop(member->Held, [member]() { Forget(member); });
    }
  }
}

// Whether the port is there, or what is still to go stands in its way.
static bool MustWait(const PortOptions &Options) {
  for (const std::unique_ptr<Member> &member : TheSet.Members) {
    const PortOptions &there = PortOptionsOf(member->Held);
    if (member->Leaving ? PortsClash(there, Options) : PortOptionsEqual(there, Options)) {
      return true;
    }
  }
  return false;
}

// Whether the port could be claimed; says why not.
static bool Add(const PortOptions &Options) {
  std::string error;
  Port *port = PortClaim(Options, &error);
  if (!port) {
    HostLog(Options.Name, "%s", error.c_str());
    return false;
  }
  TheSet.Members.push_back(std::make_unique<Member>(Member{port}));
  return true;
}

// One that cannot be claimed is not tried again before it is wanted again.
static void StartWanted() {
  std::erase_if(TheSet.Wanted, [](const PortOptions &options) {
    if (MustWait(options)) {
      return false;
    }
    bool added = Add(options);
    if (added) {
      PortStart(TheSet.Members.back()->Held, TheSet.Drivers, nullptr);
    }
    return !added;
  });
}

static void Pursue() {
  StopUnwanted();
  StartWanted();
  if (TheSet.Empty && TheSet.Members.empty()) {
    LoopPost(std::exchange(TheSet.Empty, nullptr));
  }
}

bool PortSetClaim(const std::vector<PortOptions> &Ports) {
  TheSet.Wanted = Ports;
  for (const PortOptions &options : Ports) {
    if (!Add(options)) {
      return false;
    }
    std::string error = PortCheckTty(TheSet.Members.back()->Held);
    if (!error.empty()) {
      HostLog(options.Name, "%s", error.c_str());
      return false;
    }
  }
  return true;
}

void PortSetStart(const std::vector<PDRIVER_OBJECT> &Drivers, std::function<void()> OnRefused) {
  TheSet.Drivers = Drivers;
  for (const std::unique_ptr<Member> &member : TheSet.Members) {
    PortStart(member->Held, Drivers, OnRefused);
  }
}

void PortSetWant(const std::vector<PortOptions> &Ports) {
  TheSet.Wanted = Ports;
  Pursue();
}

void PortSetStop(std::function<void()> Then) {
  TheSet.Empty = std::move(Then);
  TheSet.Wanted.clear();
  Pursue();
}

void PortSetRelease() {
  for (const std::unique_ptr<Member> &member : TheSet.Members) {
    PortRelease(member->Held);
  }
  TheSet = {};
}
