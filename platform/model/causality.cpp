#include "platform/model/causality.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "platform/model/schedule.h"
#include "platform/model/thread_object.h"

// Threads that a run can have from the opening of its window on. Of one with more nothing is known:
// all its choices are wanted.
static constexpr unsigned MostThreads = 24;
static constexpr size_t Places = 1 << 14;  // of objects
static constexpr size_t MostObjects = Places / 2;

using Clock = uint32_t[MostThreads];  // by thread: how many of its steps came before

// Where a step was chosen: at the last choice its thread passed, and at the one by which that
// thread came to run at all. -1: there was none.
struct Place {
  int Choice;
  int Block;
};

struct Follower {
  Clock Before;
  uint64_t Chain;  // print of its last step
  uint32_t Steps;
  Place Now;
  uint64_t PreemptedAt;  // the number of steps then; 0 when it was not, or had a reason to be
  std::vector<uint64_t> Prints;  // by steps done: of so many
  std::vector<Place> Behind;     // by steps done: the first point passed after so many
};

// Steps at an object that commute with each other, or one that does not.
struct Group {
  Access How;
  uint32_t Members;  // threads
  Clock Known;       // to any of them
  uint64_t Print;
  struct {
    uint32_t Step;    // the thread's last one here
    uint64_t Number;  // of all threads' steps
    Place Where;
  } Of[MostThreads];
};

struct Object {
  const volatile void *Name;
  uint64_t Following;
  Group Last;
  Group Former;  // whom all of Last come after
  // Of a lock: who gave it back last, in which of its steps, and when somebody last found it taken.
  const Follower *Giver;
  uint32_t Given;
  Place GivenWhere;
  uint64_t FoundTaken;
};

bool CausalOn;
static bool wanted;  // a window that opens is to be followed
static bool windowOpen;
static uint64_t followings;  // begun: what is known of threads and objects is of one of them
static unsigned threads;
static uint64_t print;
static uint64_t steps;      // of all threads
static uint64_t lastCease;  // the number of steps then
static bool windowSeen;
static Follower followers[MostThreads];
static Object objects[Places];
static std::vector<Object *> inUse;
static const volatile void *commuting;

static uint64_t Mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

void CausalBegin(bool Follow) {
  CausalOn = windowOpen = false;
  wanted = Follow;
  commuting = nullptr;
  windowSeen = false;
  print = 0;
  ++followings;
}

uint64_t CausalPrint() {
  return print;
}

bool CausalKnown() {
  return windowSeen && wanted;
}

void CausalLeave() {
  CausalOn = wanted = false;
}

void CausalCommutes(const volatile void *Lock) {
  commuting = Lock;
}

// Nothing is known any more.
static void GiveUp() {
  CausalLeave();
  ScheduleWantAll();
}

// --- threads -----------------------------------------------------------------------------------

static Follower *Enter(PKTHREAD thread, uint64_t name) {
  if (threads == MostThreads) {
    GiveUp();
    return nullptr;
  }
  Follower *follower = &followers[threads];
  thread->Follower = threads++;
  thread->Following = followings;
  memset(follower->Before, 0, sizeof follower->Before);
  follower->Chain = Mix(name);
  follower->Steps = 0;
  follower->Now = {-1, -1};
  follower->PreemptedAt = 0;
  follower->Prints.assign(1, 0);
  follower->Behind.clear();
  return follower;
}

static Follower *Of(PKTHREAD thread) {
  return thread->Following == followings ? &followers[thread->Follower]
                                         : Enter(thread, thread->Number);
}

static void Join(uint32_t *clock, const uint32_t *other) {
  for (unsigned i = 0; i < threads; ++i) {
    clock[i] = std::max(clock[i], other[i]);
  }
}

static void Step(Follower *self, uint64_t before) {
  ++steps;
  self->Before[self - followers] = ++self->Steps;
  self->Chain = Mix(self->Chain * 3 + before + 1);
  self->Prints.push_back(self->Prints.back() + Mix(self->Chain));
}

// What the end of the window depends on is the order that was run in it. Others may have gone
// further, or not so far: that is nobody's choice any more.
static void PrintWindow() {
  const Follower *self = CausalOn ? Of(ThreadSelf()) : nullptr;
  for (unsigned i = 0; self && i < threads; ++i) {
    print += self->Before[i] > 0 ? followers[i].Prints[self->Before[i]] : 0;
  }
}

void CausalWindow(bool Open) {
  if (!Open && windowOpen) {
    PrintWindow();
  }
  windowOpen = Open && wanted;
  if (!windowOpen || CausalOn) {
    return;
  }
  CausalOn = windowSeen = true;
  threads = 0;
  steps = 1;
  lastCease = 0;
  inUse.clear();
}

void CausalFork(PKTHREAD Child) {
  if (!CausalOn) {
    return;
  }
  Follower *parent = Of(ThreadSelf());
  if (!parent) {
    return;
  }
  Step(parent, 0);
  Follower *child = Enter(Child, parent->Chain);
  if (child) {
    memcpy(child->Before, parent->Before, sizeof child->Before);
  }
}

void CausalJoinAll() {
  if (!CausalOn) {
    return;
  }
  Follower *self = Of(ThreadSelf());
  if (!self) {
    return;
  }
  uint64_t all = 0;
  for (unsigned i = 0; i < threads; ++i) {
    Join(self->Before, followers[i].Before);
    all += &followers[i] == self ? 0 : Mix(followers[i].Chain);
  }
  Step(self, all);
  if (!windowOpen) {
    CausalOn = false;  // nothing from here on could have come before anything in the window
    ++followings;
  }
}

void CausalPreempt(PKTHREAD Thread) {
  Follower *self = CausalOn ? Of(Thread) : nullptr;
  if (self) {
    self->PreemptedAt = steps;
  }
}

static void Want(const Place &place) {
  ScheduleWant(place.Choice);
  ScheduleWant(place.Block);
}

// The step that the thread was preempted before is over.
static void JudgePreemption(Follower *self) {
  // Once the window is closed there is no later point to be preempted at.
  if (self->PreemptedAt > lastCease && windowOpen) {
    Want(self->Now);  // who might have gone on in its place is not told by what follows here
    ScheduleCut();
  }
  self->PreemptedAt = 0;
}

void CausalBlock(PKTHREAD Thread, bool Lock) {
  Follower *self = CausalOn ? Of(Thread) : nullptr;
  if (self && Lock) {
    self->PreemptedAt = 0;
  } else if (self) {
    JudgePreemption(self);
  }
}

void CausalPoint(PKTHREAD Thread, int Choice, bool Chosen) {
  if (!CausalOn) {
    return;
  }
  Follower *self = Of(Thread);
  if (!self) {
    return;
  }
  if (!Chosen) {
    JudgePreemption(self);
  }
  // Behind the window the last point inside stands for all that follow.
  if (windowOpen || Choice >= 0) {
    self->Now.Choice = Choice;
    self->Now.Block = Chosen ? Choice : self->Now.Block;
  }
  if (self->Behind.size() <= self->Steps) {
    self->Behind.resize(self->Steps + 1, self->Now);
  }
}

// --- objects -----------------------------------------------------------------------------------

static Object *Find(const volatile void *name) {
  size_t at = Mix(reinterpret_cast<uintptr_t>(name)) % Places;
  while (objects[at].Following == followings && objects[at].Name != name) {
    at = (at + 1) % Places;
  }
  Object *object = &objects[at];
  if (object->Following != followings) {
    if (inUse.size() == MostObjects) {
      GiveUp();
      return nullptr;
    }
    object->Following = followings;
    object->Name = name;
    object->Last.Members = object->Former.Members = 0;
    object->Giver = nullptr;
    object->FoundTaken = 0;
    inUse.push_back(object);
  }
  return object;
}

static void Clear(Group *group, Access how) {
  group->How = how;
  group->Members = 0;
  group->Print = 0;
  memset(group->Known, 0, sizeof group->Known);
}

// What of the group nothing has ordered before the thread could have come after its next step.
static void WantOtherOrders(Follower *self, const Group &group) {
  for (unsigned i = 0; i < threads; ++i) {
    if ((group.Members >> i & 1) && self != &followers[i] && self->Before[i] < group.Of[i].Step) {
      Want(group.Of[i].Where);
      if (group.Of[i].Number > self->PreemptedAt) {
        self->PreemptedAt = 0;  // what happened meanwhile is what it was preempted for
      }
    }
  }
}

static void Come(Follower *self, Object *object, Access how) {
  if (object->Last.Members == 0) {
    Clear(&object->Former, how);
    Clear(&object->Last, how);
  } else if (how == Access::Write || how != object->Last.How) {
    object->Former = object->Last;
    Clear(&object->Last, how);
  }
  WantOtherOrders(self, object->Former);
  Join(self->Before, object->Former.Known);
  Step(self, object->Former.Print);
  unsigned at = static_cast<unsigned>(self - followers);
  Group *group = &object->Last;
  group->Members |= 1u << at;
  group->Of[at] = {self->Steps, steps, self->Now};
  Join(group->Known, self->Before);
  group->Print += Mix(self->Chain + 2);
}

void CausalTouchTaken(const volatile void *Name, Access How) {
  Follower *self = Of(ThreadSelf());
  Object *object = self ? Find(Name) : nullptr;
  if (object) {
    Come(self, object, How);
  }
}

static Object *LockOf(const volatile void *lock, Follower **self) {
  if (!CausalOn || lock == commuting) {
    return nullptr;
  }
  *self = Of(ThreadSelf());
  return *self ? Find(lock) : nullptr;
}

// The holder before could have been found with the lock: others would then have gone on.
void CausalAcquire(const volatile void *Lock) {
  Follower *self;
  Object *object = LockOf(Lock, &self);
  if (!object) {
    return;
  }
  if (object->Giver && object->Giver != self &&
      self->Before[object->Giver - followers] < object->Given) {
    Want(object->GivenWhere);
  }
  Come(self, object, Access::Write);
}

void CausalFoundTaken(const volatile void *Lock) {
  Follower *self;
  if (Object *object = LockOf(Lock, &self)) {
    object->FoundTaken = ++steps;
    WantOtherOrders(self, object->Last);  // it could have come before the holder took it
  }
}

// Who takes it next knows what this holder did, but could have come before it took the lock.
void CausalRelease(const volatile void *Lock) {
  Follower *self;
  Object *object = LockOf(Lock, &self);
  if (!object) {
    return;
  }
  if (object->FoundTaken > self->PreemptedAt) {
    self->PreemptedAt = 0;
  }
  Step(self, 0);
  object->Giver = self;
  object->Given = self->Steps;
  object->GivenWhere = self->Now;
  if (object->Last.Members == 0) {
    return;  // taken before the window
  }
  Join(object->Last.Known, self->Before);
  object->Last.Print = Mix(self->Chain + 2);
}

void CausalForget(const volatile void *Name) {
  if (CausalOn) {
    if (Object *object = Find(Name)) {
      object->Last.Members = object->Former.Members = 0;
    }
  }
}

void CausalCeaseTaken(const volatile void *Low, size_t Bytes) {
  Follower *self = Of(ThreadSelf());
  if (!self) {
    return;
  }
  lastCease = steps;
  const volatile char *low = static_cast<const volatile char *>(Low);
  // By address: in which order they were first met is nobody's choice.
  std::vector<Object *> within;
  for (size_t i = 0; Bytes > 0 && i < inUse.size(); ++i) {
    const volatile char *at = static_cast<const volatile char *>(inUse[i]->Name);
    if (at >= low && at < low + Bytes && inUse[i]->Last.Members != 0) {
      within.push_back(inUse[i]);
    }
  }
  std::sort(within.begin(), within.end(),
            [](const Object *one, const Object *other) { return one->Name < other->Name; });
  for (Object *object : within) {
    Come(self, object, Access::Write);
    object->Last.Members = object->Former.Members = 0;
  }
  for (unsigned i = 0; i < threads; ++i) {
    const Follower &other = followers[i];
    uint32_t known = self->Before[i];
    if (&other != self && known < other.Behind.size()) {
      Want(other.Behind[known]);
    }
  }
}
