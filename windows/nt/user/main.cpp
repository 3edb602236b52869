// Started by the session manager, before anything else of user mode: plays the scenarios that its
// command line names, or all, once as they are and once with jolts, and switches the machine off.
#include "windows/nt/user/scenarios.h"
#include "windows/nt/vxcheck.h"

const char *VxFirstFailure();
void VxForgetFailures();

// Of the process environment block and what it points to.
constexpr ULONG PEB_PARAMETERS = 0x20;
constexpr ULONG PARAMETERS_COMMAND_LINE = 0x70;

// Whether the command line names it, as a word.
static bool Named(const UNICODE_STRING *Line, const char *Name, bool *Any) {
  ULONG count = Line->Length / sizeof(WCHAR);
  ULONG at = 0;
  while (at < count && Line->Buffer[at] != L' ') {
    ++at;  // the program
  }
  *Any = false;
  while (at < count) {
    while (at < count && Line->Buffer[at] == L' ') {
      ++at;
    }
    ULONG matched = 0;
    bool same = at < count;
    for (; at < count && Line->Buffer[at] != L' '; ++at) {
      *Any = true;
      same = same && Name[matched] != 0 && Line->Buffer[at] == static_cast<WCHAR>(Name[matched]);
      matched += same ? 1 : 0;
    }
    if (same && Name[matched] == 0) {
      return true;
    }
  }
  return false;
}

static void Play(const UNICODE_STRING *Line, const char *Suffix) {
  for (ULONG i = 0; i < ScenarioCount; ++i) {
    const Scenario *scenario = &Scenarios[i];
    bool any = false;
    if (!Named(Line, scenario->Name, &any) && any) {
      continue;
    }
    VxLog("scenario %s%s begins", scenario->Name, Suffix);
    VxForgetFailures();
    scenario->Play();
    if (VxFailed()) {
      VxLog("scenario %s%s failed: %s", scenario->Name, Suffix, VxFirstFailure());
    } else {
      VxLog("scenario %s%s ok", scenario->Name, Suffix);
    }
  }
}

// Another one every time; it is told.
static ULONG JoltSeed() {
  LARGE_INTEGER now;
  NtQuerySystemTime(&now);
  return now.LowPart / 10'000;
}

extern "C" void NtProcessStartup(PUCHAR Peb) {
  PUCHAR parameters = *reinterpret_cast<PUCHAR *>(Peb + PEB_PARAMETERS);
  auto *line = reinterpret_cast<UNICODE_STRING *>(parameters + PARAMETERS_COMMAND_LINE);
  Play(line, "");
  NTSTATUS status;
  HANDLE check = VxOpen(VXCHECK_DEVICE, &status);
  if (check != nullptr) {
    Io io = {};
    uint32_t seed = static_cast<uint32_t>(JoltSeed());
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
