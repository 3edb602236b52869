// Started by the session manager, before anything else of user mode: plays the scenarios that its
// command line names, or all, once as they are and once with jolts, and switches the machine off.
#include "windows/nt/user/scenarios.h"
#include "windows/nt/vxcheck.h"

// Of the process environment block and what it points to.
constexpr ULONG PEB_PARAMETERS = 0x20;
constexpr ULONG PARAMETERS_COMMAND_LINE = 0x70;

// Passes a word of the line; its length, or 0 at the end.
static ULONG PassWord(const UNICODE_STRING *Line, ULONG *At) {
  ULONG count = Line->Length / sizeof(WCHAR);
  while (*At < count && Line->Buffer[*At] == L' ') {
    ++*At;
  }
  ULONG start = *At;
  while (*At < count && Line->Buffer[*At] != L' ') {
    ++*At;
  }
  return *At - start;
}

static bool IsWord(const WCHAR *Word, ULONG Length, const char *Name) {
  ULONG i = 0;
  while (i < Length && Word[i] == static_cast<WCHAR>(Name[i]) && Name[i] != 0) {
    ++i;
  }
  return i == Length && Name[i] == 0;
}

// Behind the program the command line names it, or nothing.
static bool IsWanted(const UNICODE_STRING *Line, const char *Name) {
  ULONG at = 0;
  PassWord(Line, &at);
  bool named = false;
  while (ULONG length = PassWord(Line, &at)) {
    named = true;
    if (IsWord(Line->Buffer + at - length, length, Name)) {
      return true;
    }
  }
  return !named;
}

static void Play(const UNICODE_STRING *Line, const char *Suffix) {
  for (ULONG i = 0; i < ScenarioCount; ++i) {
    const Scenario *scenario = &Scenarios[i];
    if (!IsWanted(Line, scenario->Name)) {
      continue;
    }
    VxLog("scenario %s%s begins", scenario->Name, Suffix);
    VxForgetFailure();
    scenario->Play();
    if (const char *failure = VxFirstFailure()) {
      VxLog("scenario %s%s failed: %s", scenario->Name, Suffix, failure);
    } else {
      VxLog("scenario %s%s ok", scenario->Name, Suffix);
    }
  }
}

// Another one every time.
static uint32_t JoltSeed() {
  LARGE_INTEGER now;
  NtQuerySystemTime(&now);
  return static_cast<uint32_t>(now.LowPart / 10'000);
}

extern "C" void NtProcessStartup(PUCHAR Peb) {
  PUCHAR parameters = *reinterpret_cast<PUCHAR *>(Peb + PEB_PARAMETERS);
  auto *line = reinterpret_cast<UNICODE_STRING *>(parameters + PARAMETERS_COMMAND_LINE);
  Play(line, "");
  NTSTATUS status;
  HANDLE check = VxOpen(VXCHECK_DEVICE, &status);
  if (check != nullptr) {
    Io io = {};
    uint32_t seed = JoltSeed();
    VxLog("jolts by the seed %lu", static_cast<ULONG>(seed));
    VxControl(check, &io, IOCTL_VXCHECK_JOLTS, &seed, sizeof(seed), 0);
    VxWait(&io);
    Play(line, "+jolts");
    VxCheckCounts counts = {};
    VxControl(check, &io, IOCTL_VXCHECK_COUNTS, nullptr, 0, sizeof(counts));
    VxWait(&io);
    RtlCopyMemory(&counts, io.Bytes, sizeof(counts));
    VxLog("checked %lu requests, %lu are left, %lu breaches, %lu jolts",
          static_cast<ULONG>(counts.Requests), static_cast<ULONG>(counts.Pending),
          static_cast<ULONG>(counts.Breaches), static_cast<ULONG>(counts.Jolts));
    if (counts.Pending != 0) {
      VxLog("breach came out: requests are left behind");
    }
    VxClose(&io.Event);
    VxClose(&check);
  }
  VxLog("done");
  BOOLEAN was;
  RtlAdjustPrivilege(SHUTDOWN_PRIVILEGE, TRUE, FALSE, &was);
  NtShutdownSystem(SHUTDOWN_POWER_OFF);
}
