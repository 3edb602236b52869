// The schedule: the choices of a run, where they come from, and the string that replays them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/model/executor.h"

// Whether switch points are looked at: always in a run whose schedule is not first in, first out.
extern bool PointsOn;
// Whether they offer a choice at this moment.
extern bool PreemptionOn;
// Reasons (bits by SwitchReason) for which there is no switch point; for tests that show what each
// kind is for.
extern uint32_t PointsLeftOut;

struct Choice {
  uint16_t Taken;
  uint16_t Offered;  // 0 when unknown, 1 when the bound on preemptions left nothing to choose
  uint16_t Print;    // of the run up to here: of who chose, why, and among how many, every time
  bool Preempts;  // at a switch point, where 0 stays; otherwise the running thread could not go on
  bool Wanted = false;  // another one may lead to another order; see causality.h
};
using Choices = std::vector<Choice>;

void ScheduleBegin(const SchedulePolicy &Policy);
// Given first, then always the first choice; at most Preemptions; choices in the window only. With
// Cut a run offers no more choices once it is known to bring no order that another one does not.
void ScheduleBeginBounded(unsigned Preemptions, const Choices &Given, bool Cut);
// Given as far as it fits (a choice that is not offered is 0). Whole: not in the window only.
void ScheduleBeginLenient(const Choices &Given, bool Whole);
void ScheduleWindow(bool Open);
bool ScheduleInWindow();
// The run has come to its end: stops it when it did not get to every choice that it was to replay.
void ScheduleEnd();

// The choice so numbered, if there is one, is wanted otherwise, too; all that were or will be made.
void ScheduleWant(int Choice);
void ScheduleWantAll();
// The run brings nothing new from here on.
void ScheduleCut();
// The number of the choice that one of the two below has made since this was asked last, or -1.
int ScheduleTakeLast();

// At a switch point with Others ready: 0 stays, n goes on with the n-th of them, counted from 1.
unsigned ScheduleAtPoint(unsigned Others, SwitchReason Reason);
// When the current thread cannot go on: the place in the ready queue of who goes on.
unsigned ScheduleAtBlock(unsigned Ready);
// Of a new thread, when priorities decide.
uint64_t SchedulePriority(unsigned Thread);

// Switch points at which preemption was possible.
uint64_t SchedulePoints();
const Choices &ScheduleChoices();
std::string ScheduleText();
