#include "platform/model/schedule.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/model/causality.h"
#include "platform/model/report.h"
#include "platform/model/scheduler.h"
#include "platform/model/verifier.h"

// Replay strings: "f" has no choices; "w:" has one wherever several threads can run inside the
// window, "r:" has them everywhere. A choice is one character 0-9a-z or "(number)"; "~number."
// stands for so many zeros; zeros at the end are left out. "/" and four hexadecimal digits, which
// may be missing, are the print of the run up to the last choice: another one means that the run
// went another way.
enum class Source : uint8_t { Given, Drawn, Priorities };

static constexpr unsigned MostChanges = 16;

struct Schedule {
  bool Choosing;  // false: first in, first out
  bool Whole;     // choices outside of the window, too
  Source From;
  bool Lenient;
  bool Bounded;
  bool WindowOpen;
  unsigned Bound;
  unsigned Preempted;
  uint64_t State;   // of the random numbers
  uint64_t Points;  // switch points passed with preemption on
  bool AllWanted;
  bool MayCut;
  bool IsCut;
  int Last;
  uint64_t Changes[MostChanges];
  unsigned ChangeCount;
  uint32_t Print;
  int GivenPrint;  // -1 when unknown
  Choices Given;
  Choices Made;
};

bool PointsOn;
bool PreemptionOn;
uint32_t PointsLeftOut;
static Schedule schedule;

static void SetPreemption() {
  PreemptionOn = schedule.Choosing && !schedule.IsCut && (schedule.Whole || schedule.WindowOpen);
}

static void Reset(bool choosing, bool whole) {
  CausalBegin(choosing);
  schedule.Choosing = choosing;
  schedule.Whole = whole;
  schedule.From = Source::Given;
  schedule.Lenient = schedule.Bounded = schedule.WindowOpen = false;
  schedule.Bound = schedule.Preempted = schedule.ChangeCount = 0;
  schedule.Points = 0;
  schedule.AllWanted = schedule.MayCut = schedule.IsCut = false;
  schedule.Last = -1;
  schedule.Print = 0;
  schedule.GivenPrint = -1;
  schedule.Given.clear();
  schedule.Made.clear();
  PointsOn = choosing;
  SetPreemption();
}

// --- replay strings ----------------------------------------------------------------------------

static unsigned long TakeNumber(const char **at) {
  char *end = nullptr;
  unsigned long value = strtoul(*at, &end, 10);
  *at = *end ? end + 1 : end;
  return value;
}

static void ReadChoices(const char *at) {
  while (*at && *at != '/') {
    char c = *at++;
    if (c == '~') {
      schedule.Given.resize(schedule.Given.size() + TakeNumber(&at), Choice{});
    } else if (c == '(') {
      schedule.Given.push_back({static_cast<uint16_t>(TakeNumber(&at)), 0, 0, false, false});
    } else {
      int value = c >= 'a' ? c - 'a' + 10 : c - '0';
      schedule.Given.push_back({static_cast<uint16_t>(value), 0, 0, false, false});
    }
  }
  if (*at == '/') {
    schedule.GivenPrint = static_cast<int>(strtoul(at + 1, nullptr, 16));
  }
}

static void ReadReplay(const std::string &text) {
  bool whole = text.starts_with("r:");
  bool choosing = whole || text.starts_with("w:");
  Reset(choosing, whole);
  if (choosing) {
    ReadChoices(text.c_str() + 2);
  }
  PointsOn = true;  // a run that spins must end in a replay, too
}

static void AppendZeros(std::string *text, size_t count) {
  if (count > 4) {
    *text += '~' + std::to_string(count) + '.';
  } else {
    text->append(count, '0');
  }
}

static void AppendChoice(std::string *text, unsigned taken) {
  if (taken < 10) {
    *text += static_cast<char>('0' + taken);
  } else if (taken < 36) {
    *text += static_cast<char>('a' + taken - 10);
  } else {
    *text += '(' + std::to_string(taken) + ')';
  }
}

std::string ScheduleText() {
  if (!schedule.Choosing) {
    return "f";
  }
  std::string text = schedule.Whole ? "r:" : "w:";
  size_t zeros = 0;
  const Choice *last = nullptr;
  for (const Choice &choice : schedule.Made) {
    if (choice.Taken == 0) {
      ++zeros;
      continue;
    }
    AppendZeros(&text, zeros);
    zeros = 0;
    AppendChoice(&text, choice.Taken);
    last = &choice;
  }
  if (last) {
    char print[8];
    snprintf(print, sizeof print, "/%04x", last->Print);
    text += print;
  }
  return text;
}

// --- beginning ---------------------------------------------------------------------------------

// SplitMix64: every seed, also 0 and 1, starts a well-mixed sequence.
static uint64_t Mix(uint64_t z) {
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

static uint64_t Draw() {
  return Mix(schedule.State += 0x9E3779B97F4A7C15);
}

static void DrawChanges(const SchedulePolicy &policy) {
  unsigned changes = policy.Depth > 0 ? policy.Depth - 1 : 0;
  schedule.ChangeCount = std::min(changes, MostChanges);
  for (unsigned i = 0; i < schedule.ChangeCount; ++i) {
    schedule.Changes[i] = 1 + Draw() % std::max<uint64_t>(policy.Points, 1);
  }
}

void ScheduleBegin(const SchedulePolicy &Policy) {
  using Kind = SchedulePolicy::Kind;
  if (Policy.How == Kind::Replay) {
    ReadReplay(Policy.Replay);
    return;
  }
  Reset(Policy.How != Kind::Fifo, !Policy.WindowOnly);
  schedule.State = Policy.Seed;
  if (Policy.How == Kind::Random) {
    schedule.From = Source::Drawn;
  } else if (Policy.How == Kind::Pct) {
    schedule.From = Source::Priorities;
    DrawChanges(Policy);
  }
}

void ScheduleBeginBounded(unsigned Preemptions, const Choices &Given, bool Cut) {
  Reset(true, false);
  schedule.MayCut = Cut;
  schedule.Bounded = true;
  schedule.Bound = Preemptions;
  schedule.Given = Given;
}

void ScheduleBeginLenient(const Choices &Given, bool Whole) {
  Reset(true, Whole);
  schedule.Lenient = true;
  schedule.Given = Given;
}

void ScheduleWindow(bool Open) {
  schedule.WindowOpen = Open;
  SetPreemption();
  CausalWindow(Open);
  if (ReportOn) {
    ReportWindow(Open);
  }
}

bool ScheduleInWindow() {
  return schedule.WindowOpen;
}

void ScheduleEnd() {
  if (schedule.Lenient || schedule.Given.size() <= schedule.Made.size()) {
    return;
  }
  VerifierStop(
      "schedule.diverged", nullptr,
      "the run has ended after %zu of the %zu choices that it was to replay: it depends on "
      "something other than its schedule",
      schedule.Made.size(), schedule.Given.size());
}

// --- choosing ----------------------------------------------------------------------------------

static void MixPrint(unsigned offered, unsigned why) {
  PKTHREAD self = CurrentThread;
  uint32_t word = (self ? self->Number : 0) * 0x10001u + offered * 0x101u + why;
  schedule.Print = (schedule.Print ^ word) * 0x9E3779B1u;
  schedule.Print ^= schedule.Print >> 15;
}

[[noreturn]] static void StopDiverged(const Choice &given, unsigned offered) {
  if (given.Taken < offered && (given.Offered == 0 || given.Offered == offered)) {
    VerifierStop("schedule.diverged", nullptr,
                 "the run went another way before choice %zu, the last one of the replay: it "
                 "depends on something other than its schedule, or the code has changed",
                 schedule.Made.size());
  }
  VerifierStop("schedule.diverged", nullptr,
               "choice %zu was number %u and is now made among %u threads: the run depends on "
               "something other than its schedule, or the code has changed",
               schedule.Made.size(), given.Taken, offered);
}

static unsigned TakeGiven(unsigned offered) {
  size_t at = schedule.Made.size();
  if (at >= schedule.Given.size()) {
    return 0;
  }
  const Choice &given = schedule.Given[at];
  bool fits = given.Taken < offered;
  if (schedule.Lenient) {
    return fits ? given.Taken : 0;
  }
  bool last = at + 1 == schedule.Given.size() && schedule.GivenPrint >= 0;
  if (!fits || (given.Offered && given.Offered != offered) ||
      (last && static_cast<uint32_t>(schedule.GivenPrint) != schedule.Print >> 16)) {
    StopDiverged(given, offered);
  }
  return given.Taken;
}

static unsigned Choose(unsigned offered, bool preempts) {
  unsigned taken = 0;
  switch (schedule.From) {
  case Source::Given:
    taken = TakeGiven(offered);
    break;
  case Source::Drawn:
    taken = static_cast<unsigned>(Draw() % offered);
    break;
  case Source::Priorities:
    taken = SchedulerHighest(preempts);
    break;
  }
  size_t at = schedule.Made.size();
  bool wanted = schedule.AllWanted || (at < schedule.Given.size() && schedule.Given[at].Wanted);
  schedule.Made.push_back({static_cast<uint16_t>(taken), static_cast<uint16_t>(offered),
                           static_cast<uint16_t>(schedule.Print >> 16), preempts, wanted});
  schedule.Last = static_cast<int>(at);
  return taken;
}

// Initial priorities lie above those of the points of change.
uint64_t SchedulePriority(unsigned Thread) {
  return Mix(schedule.State + Thread * 0x9E3779B97F4A7C15) | 1ull << 63;
}

static void ChangePriority() {
  for (unsigned i = 0; i < schedule.ChangeCount; ++i) {
    if (schedule.Changes[i] == schedule.Points) {
      CurrentThread->Priority = i;
    }
  }
}

void ScheduleWant(int Choice) {
  if (Choice >= 0) {
    schedule.Made[static_cast<size_t>(Choice)].Wanted = true;
  }
}

void ScheduleWantAll() {
  schedule.AllWanted = true;
  for (Choice &choice : schedule.Made) {
    choice.Wanted = true;
  }
}

void ScheduleCut() {
  // What was to be replayed goes on in any case.
  if (schedule.MayCut && schedule.Made.size() >= schedule.Given.size()) {
    schedule.IsCut = true;
    SetPreemption();
    CausalLeave();
  }
}

int ScheduleTakeLast() {
  return std::exchange(schedule.Last, -1);
}

unsigned ScheduleAtPoint(unsigned Others, SwitchReason Reason) {
  ++schedule.Points;
  if (schedule.ChangeCount) {
    ChangePriority();
  }
  if (Others == 0) {
    return 0;
  }
  MixPrint(Others, 1 + static_cast<unsigned>(Reason));
  bool spent = schedule.Bounded && schedule.Preempted == schedule.Bound;
  unsigned taken = Choose(spent ? 1 : Others + 1, true);
  schedule.Preempted += taken != 0;
  return taken;
}

unsigned ScheduleAtBlock(unsigned Ready) {
  if (Ready < 2 || !PreemptionOn) {
    return 0;
  }
  MixPrint(Ready, 0);
  return Choose(Ready, false);
}

uint64_t SchedulePoints() {
  return schedule.Points;
}

const Choices &ScheduleChoices() {
  return schedule.Made;
}
