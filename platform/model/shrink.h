// Making the schedule of a failing run short: fewer preemptions, fewer choices that differ from
// first in, first out, closer together. Deterministic, and bounded in the runs that it makes.
#pragma once

#include <functional>

#include "platform/model/schedule.h"

// Runs under the choices, as far as they fit, and says whether the run fails as the first one did;
// the choices are then those that the run made.
using ShrinkTry = std::function<bool(Choices *Run)>;

// Makes Failing the shortest schedule found with at most MostRuns tries; returns how many it made.
uint64_t ShrinkChoices(Choices *Failing, uint64_t MostRuns, const ShrinkTry &Try);
