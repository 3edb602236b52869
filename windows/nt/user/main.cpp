// Started by the session manager, before anything else of user mode: plays the scenarios that its
// command line names, or all, and switches the machine off.
#include "windows/nt/user/scenarios.h"

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

extern "C" void NtProcessStartup(PUCHAR Peb) {
  PUCHAR parameters = *reinterpret_cast<PUCHAR *>(Peb + PEB_PARAMETERS);
  auto *line = reinterpret_cast<UNICODE_STRING *>(parameters + PARAMETERS_COMMAND_LINE);
  for (ULONG i = 0; i < ScenarioCount; ++i) {
    const Scenario *scenario = &Scenarios[i];
    bool any = false;
    if (!Named(line, scenario->Name, &any) && any) {
      continue;
    }
    VxLog("scenario %s begins", scenario->Name);
    VxForgetFailures();
    scenario->Play();
    if (VxFailed()) {
      VxLog("scenario %s failed: %s", scenario->Name, VxFirstFailure());
    } else {
      VxLog("scenario %s ok", scenario->Name);
    }
  }
  VxLog("done");
  BOOLEAN was;
  RtlAdjustPrivilege(SHUTDOWN_PRIVILEGE, TRUE, FALSE, &was);
  NtShutdownSystem(SHUTDOWN_POWER_OFF);
}
