// The schedule: the choices of a run, where they come from, and the string that replays them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/model/run.h"

// Whether switch points offer a choice at this moment.
extern bool PreemptionOn;

struct Choice {
  uint16_t Taken;
  uint16_t Offered;
};

void ScheduleBegin(const SchedulePolicy &Policy);
// Bounded exhaustion: at most Preemptions, taking Given first and then always the first choice.
void ScheduleBeginBounded(unsigned Preemptions, const std::vector<Choice> &Given);
void ScheduleWindow(bool Open);

// At a switch point with Others ready: 0 stays, n goes on with the n-th of them, counted from 1.
unsigned ScheduleAtPoint(unsigned Others);
// When the current thread cannot go on: the place in the ready queue of who goes on.
unsigned ScheduleAtBlock(unsigned Ready);

const std::vector<Choice> &ScheduleChoices();
std::string ScheduleText();
