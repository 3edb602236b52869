// What the model's own services ask the verifier at every call.
#pragma once

#include <string>

#include "platform/kernel.h"

extern bool VerifierEnabled;
extern bool RunActive;  // between the boot of the areas and their shutdown

void VerifierBoot(bool On, bool BreaksAllowed);
void FaultsBoot();

// Before nobody being able to run is reported: what explains it better (packets).
void PacketsRequireCancelledEnded();

// Why the last run stopped.
struct StopReport {
  bool Stopped;
  std::string Rule;
  std::string Text;
};
const StopReport &VerifierReport();
