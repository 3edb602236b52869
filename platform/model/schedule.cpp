#include "platform/model/schedule.h"

#include <algorithm>
#include <cstdlib>

#include "platform/model/verifier.h"

// Replay strings: "f" has no choices; "r:" has one at every point where several threads can run;
// "x2:" has them inside the window, and at switch points only until 2 preemptions are used up. A
// choice is one character 0-9a-z or "(number)"; "~number." stands for so many zeros; zeros at the
// end are left out.
enum class Mode : uint8_t { Fifo, Anywhere, Bounded };

struct Schedule {
  Mode How;
  bool Drawn;  // new choices are drawn, not zero
  uint64_t State;
  unsigned Bound;
  unsigned Preempted;
  bool WindowOpen;
  std::vector<Choice> Given;  // Offered is 0 when unknown
  std::vector<Choice> Made;
};

bool PreemptionOn;
static Schedule schedule;

static void Reset(Mode how) {
  schedule.How = how;
  schedule.Drawn = false;
  schedule.Bound = 0;
  schedule.Preempted = 0;
  schedule.WindowOpen = false;
  schedule.Given.clear();
  schedule.Made.clear();
  PreemptionOn = how == Mode::Anywhere;
}

static unsigned long TakeNumber(const char **at) {
  char *end = nullptr;
  unsigned long value = strtoul(*at, &end, 10);
  *at = *end ? end + 1 : end;
  return value;
}

static void ReadChoices(const char *at) {
  while (*at) {
    char c = *at++;
    if (c == '~') {
      schedule.Given.resize(schedule.Given.size() + TakeNumber(&at), Choice{0, 0});
    } else if (c == '(') {
      schedule.Given.push_back({static_cast<uint16_t>(TakeNumber(&at)), 0});
    } else {
      int value = c >= 'a' ? c - 'a' + 10 : c - '0';
      schedule.Given.push_back({static_cast<uint16_t>(value), 0});
    }
  }
}

static void ReadReplay(const std::string &text) {
  const char *at = text.c_str();
  if (*at == 'r' && at[1] == ':') {
    Reset(Mode::Anywhere);
    ReadChoices(at + 2);
  } else if (*at == 'x') {
    Reset(Mode::Bounded);
    ++at;
    schedule.Bound = static_cast<unsigned>(TakeNumber(&at));
    ReadChoices(at);
  } else {
    Reset(Mode::Fifo);
  }
}

void ScheduleBegin(const SchedulePolicy &Policy) {
  switch (Policy.How) {
  case SchedulePolicy::Kind::Fifo:
    Reset(Mode::Fifo);
    break;
  case SchedulePolicy::Kind::Random:
    Reset(Mode::Anywhere);
    schedule.Drawn = true;
    schedule.State = Policy.Seed;
    break;
  case SchedulePolicy::Kind::Exhaustive:
  case SchedulePolicy::Kind::Replay:
    ReadReplay(Policy.Replay);
    break;
  }
}

void ScheduleBeginBounded(unsigned Preemptions, const std::vector<Choice> &Given) {
  Reset(Mode::Bounded);
  schedule.Bound = Preemptions;
  schedule.Given = Given;
}

static void SetPreemption() {
  PreemptionOn = schedule.WindowOpen && schedule.Preempted < schedule.Bound;
}

void ScheduleWindow(bool Open) {
  if (schedule.How == Mode::Bounded) {
    schedule.WindowOpen = Open;
    SetPreemption();
  }
}

// SplitMix64: every seed, also 0 and 1, starts a well-mixed sequence.
static uint64_t Draw() {
  uint64_t z = schedule.State += 0x9E3779B97F4A7C15;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
  return z ^ (z >> 31);
}

static unsigned Choose(unsigned offered) {
  size_t at = schedule.Made.size();
  unsigned taken = 0;
  if (schedule.Drawn) {
    taken = static_cast<unsigned>(Draw() % offered);
  } else if (at < schedule.Given.size()) {
    const Choice &given = schedule.Given[at];
    taken = given.Taken;
    if (taken >= offered || (given.Offered && given.Offered != offered)) {
      VerifierStop("schedule.diverged", nullptr,
                   "choice %zu was made among %u threads and is now offered %u: the run depends on "
                   "something other than its schedule",
                   at, given.Offered, offered);
    }
  }
  schedule.Made.push_back({static_cast<uint16_t>(taken), static_cast<uint16_t>(offered)});
  return taken;
}

unsigned ScheduleAtPoint(unsigned Others) {
  unsigned taken = Choose(Others + 1);
  if (taken != 0 && schedule.How == Mode::Bounded) {
    ++schedule.Preempted;
    SetPreemption();
  }
  return taken;
}

unsigned ScheduleAtBlock(unsigned Ready) {
  if (Ready < 2 || schedule.How == Mode::Fifo ||
      (schedule.How == Mode::Bounded && !schedule.WindowOpen)) {
    return 0;
  }
  return Choose(Ready);
}

const std::vector<Choice> &ScheduleChoices() {
  return schedule.Made;
}

static void AppendZeros(std::string *text, size_t count) {
  if (count > 4) {
    *text += '~' + std::to_string(count) + '.';
  } else {
    text->append(count, '0');
  }
}

std::string ScheduleText() {
  if (schedule.How == Mode::Fifo) {
    return "f";
  }
  std::string text =
      schedule.How == Mode::Anywhere ? "r:" : 'x' + std::to_string(schedule.Bound) + ':';
  size_t zeros = 0;
  for (const Choice &choice : schedule.Made) {
    if (choice.Taken == 0) {
      ++zeros;
      continue;
    }
    AppendZeros(&text, zeros);
    zeros = 0;
    if (choice.Taken < 10) {
      text += static_cast<char>('0' + choice.Taken);
    } else if (choice.Taken < 36) {
      text += static_cast<char>('a' + choice.Taken - 10);
    } else {
      text += '(' + std::to_string(choice.Taken) + ')';
    }
  }
  return text;
}
