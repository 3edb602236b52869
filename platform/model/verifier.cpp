#include "platform/model/verifier.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/model/executor.h"
#include "platform/model/guard.h"
#include "platform/model/locks.h"
#include "platform/model/report.h"
#include "platform/model/schedule.h"
#include "platform/model/scheduler.h"
#include "platform/model/stack_depth.h"
#include "platform/model/verifier_state.h"

bool VerifierEnabled;
bool RunActive;

struct Warning {
  const char *Rule;
  uint64_t Count;
};

struct HistoryEntry {
  const char *What;
  const volatile void *Object;
  uint64_t A;
  uint64_t B;
  char Thread[15];  // the first characters of its name; the thread may be gone
  KIRQL Irql;
};

static constexpr unsigned HistorySize = 1024;
static constexpr unsigned HistoryShown = 40;

static ModelMutex noteMutex;  // warnings and history; taken last
static std::vector<Warning> warnings;
static HistoryEntry history[HistorySize];
static uint64_t historyNext;
static uint64_t debuggerBreaks;
static bool breaksAllowed;
static StopReport report;
static bool stopping;  // thread executor: somebody reports already

void VerifierBoot(bool On, bool BreaksAllowed) {
  VerifierEnabled = On;
  breaksAllowed = BreaksAllowed;
  warnings.clear();
  historyNext = 0;
  debuggerBreaks = 0;
  report.Stopped = false;
  report.Rule.clear();
  report.Text.clear();
}

const StopReport &VerifierReport() {
  return report;
}

bool VerifierOn() {
  return VerifierEnabled;
}

// --- stopping ----------------------------------------------------------------------------------

static std::string ThreadText(PKTHREAD self) {
  char text[96];
  snprintf(text, sizeof text, "thread \"%s\" at IRQL %u", self->Name, self->Irql);
  std::string line = text;
  for (unsigned i = 0; i < self->HeldCount; ++i) {
    line += (i ? ", " : " holds ") + LockText(self->Held[i].Lock) + " taken at " +
            PlaceText(self->Held[i].Place);
  }
  return line + '\n';
}

__attribute__((format(printf, 1, 0))) static std::string FormatV(const char *format, va_list args) {
  va_list again;
  va_copy(again, args);
  int length = vsnprintf(nullptr, 0, format, args);
  std::string text(static_cast<size_t>(length), '\0');
  vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

static std::string HistoryLines(const volatile void *object, unsigned most);

static std::string Evidence(const void *object) {
  std::string text = ThreadText(ThreadSelf());
  if (ReportOn) {
    return text + "who did what:\n" + ReportText(object) + "replay: " + ScheduleText() + '\n';
  }
  std::string lines = HistoryLines(object, HistoryShown);
  if (object && !lines.empty()) {
    text += "what happened to it:\n" + lines;
  } else {
    text += "what happened last:\n" + HistoryLines(nullptr, HistoryShown);
  }
  return text + "replay: " + ScheduleText() + '\n';
}

// VORLIX_STOPS names a file to which each place that stops a run or warns is added, by its rule,
// its text and what was said, so that those which no test has ever seen can be told
// (tests/stops_test.py).
static void RecordPlace(const char *Rule, const char *Text, const std::string &Said) {
  const char *path = getenv("VORLIX_STOPS");
  if (!path) {
    return;
  }
  int file = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  dprintf(file, "%s\t%.*s\t%s\n", Rule, static_cast<int>(strcspn(Text, "\n")), Text,
          Said.substr(0, Said.find('\n')).c_str());
  close(file);
}

[[noreturn]] static void Leave() {
  if (RunActive && !ThreadsInUse) {
    SchedulerAbandon();
  }
  fprintf(stderr, "kernel model stopped: %s\n%s", report.Rule.c_str(), report.Text.c_str());
  abort();
}

void VerifierStop(const char *Rule, const void *Object, const char *Format, ...) {
  // No model lock is taken from here on: the caller may hold any of them.
  TsanIgnoreBegin();
  if (__atomic_exchange_n(&stopping, ThreadsInUse, __ATOMIC_SEQ_CST)) {
    for (;;) {
      pause();
    }
  }
  PreemptionOn = PointsOn = false;
  va_list args;
  va_start(args, Format);
  report.Stopped = true;
  report.Rule = Rule;
  std::string text = FormatV(Format, args);
  va_end(args);
  RecordPlace(Rule, Format, text);
  report.Text = report.Rule + ": " + text + '\n' + Evidence(Object);
  TsanIgnoreEnd();
  Leave();
}

void KeBugCheckModel(const char *Why) {
  VerifierStop("bugcheck", nullptr, "%s", Why);
}

void __fastfail(unsigned int Code) {
  VerifierStop("fastfail", nullptr, "fail-fast with code %u at %s", Code,
               PlaceText(__builtin_return_address(0)).c_str());
}

void DbgBreakPoint(void) {
  __atomic_add_fetch(&debuggerBreaks, 1, __ATOMIC_RELAXED);
  if (VerifierEnabled && !breaksAllowed) {
    VerifierStop("break", nullptr, "a debugger break at %s; nobody has asked for it",
                 PlaceText(__builtin_return_address(0)).c_str());
  }
}

uint64_t DebuggerBreaks() {
  return __atomic_load_n(&debuggerBreaks, __ATOMIC_RELAXED);
}

void KiInterlockPoint(const volatile void *Target) {
  SwitchPoint(SwitchReason::Interlock, Target);
}

void KiInterlockedPoint(const volatile void *Target) {
  SwitchPoint(SwitchReason::Interlocked, Target);
}

void KiReadPoint(const volatile void *Source) {
  SwitchPoint(SwitchReason::Read, Source);
}

void KiWritePoint(const volatile void *Target) {
  SwitchPoint(SwitchReason::Write, Target);
}

void KiWrittenPoint(const volatile void *Target) {
  SwitchPoint(SwitchReason::Written, Target);
}

// --- rules that several services share ---------------------------------------------------------

void VerifierRequireIrql(KIRQL Highest, const char *Service) {
  if (!VerifierEnabled) {
    return;
  }
  StackRequire();
  PKTHREAD self = ThreadSelf();
  if (self->Irql > Highest) {
    VerifierStop("irql.too-high", nullptr, "%s at IRQL %u; it allows %u at most", Service,
                 self->Irql, Highest);
  }
  if (Highest == PASSIVE_LEVEL && self->PowerDown > 0) {
    VerifierStop("power.down-call", nullptr, "%s in a power-down", Service);
  }
}

void VerifierRequireNoLocks(const char *Service, const void *Object) {
  if (VerifierEnabled && ThreadSelf()->HeldCount > 0) {
    VerifierStop("lock.held-across", Object, "%s with %u locks held", Service,
                 ThreadSelf()->HeldCount);
  }
}

unsigned VerifierLocksHeld() {
  return ThreadSelf()->HeldCount;
}

void VerifierWarn(const char *Rule) {
  HistoryNote(Rule, nullptr);
  Guard guard(noteMutex);
  for (Warning &warning : warnings) {
    if (strcmp(warning.Rule, Rule) == 0) {
      ++warning.Count;
      return;
    }
  }
  warnings.push_back({Rule, 1});
  RecordPlace("warning", Rule, "");
}

uint64_t VerifierWarnings(const char *Rule) {
  Guard guard(noteMutex);
  for (const Warning &warning : warnings) {
    if (strcmp(warning.Rule, Rule) == 0) {
      return warning.Count;
    }
  }
  return 0;
}

// --- history -----------------------------------------------------------------------------------

void HistoryNote(const char *What, const volatile void *Object, uint64_t A, uint64_t B) {
  if (__builtin_expect(ReportOn, false)) {
    ReportNote(What, Object, A, B);
  }
  if (!VerifierEnabled) {
    return;
  }
  PKTHREAD self = ThreadSelf();
  Guard guard(noteMutex);
  HistoryEntry *entry = &history[historyNext++ % HistorySize];
  entry->What = What;
  entry->Object = Object;
  entry->A = A;
  entry->B = B;
  entry->Irql = self->Irql;
  // Two words that overlap: they are moved without a call even under AddressSanitizer.
  memcpy(entry->Thread, self->Name, 8);
  memcpy(entry->Thread + sizeof entry->Thread - 8, self->Name + sizeof entry->Thread - 8, 8);
}

static std::string HistoryLine(const HistoryEntry &entry) {
  char text[192];
  snprintf(text, sizeof text, "  [%.*s, IRQL %u] %s %p (%#llx, %#llx)\n",
           static_cast<int>(sizeof entry.Thread), entry.Thread, entry.Irql, entry.What,
           const_cast<const void *>(entry.Object), static_cast<unsigned long long>(entry.A),
           static_cast<unsigned long long>(entry.B));
  return text;
}

static std::string HistoryLines(const volatile void *object, unsigned most) {
  uint64_t end = historyNext;
  uint64_t at = end;
  uint64_t oldest = end > HistorySize ? end - HistorySize : 0;
  unsigned found = 0;
  while (at > oldest && found < most) {
    --at;
    found += !object || history[at % HistorySize].Object == object;
  }
  std::string text;
  for (; at < end; ++at) {
    const HistoryEntry &entry = history[at % HistorySize];
    if (!object || entry.Object == object) {
      text += HistoryLine(entry);
    }
  }
  return text;
}

std::string HistoryText(const volatile void *Object, unsigned Most) {
  Guard guard(noteMutex);
  return HistoryLines(Object, Most);
}

void KiCopyOverlaps(const void *Destination) {
  VerifierStop("memory.overlap", Destination, "bytes are copied onto themselves");
}

void KiAssertionFailed(const char *Expression) {
  VerifierStop("assertion", nullptr, "assertion failed: %s", Expression);
}
