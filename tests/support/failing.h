// Every scenario once more, for each call in it that can fail, with that call failing.
#pragma once

#include <functional>
#include <string>

#include "tests/support/world.h"

// Plays the scenario with its n-th call that can fail failing, once and from there on, for every n;
// and once inside the scenario's window under every schedule with at most Preemptions.
// What the scenario expects is not judged then: a client whose open failed goes on all the same,
// and whoever waits for what never comes gives up. But nothing is lost, nothing is left, and the
// port works as it does after the undisturbed scenario, as does, without preemptions, one that is
// made anew. Runs in other processes; returns what failed, or nothing.
std::string FailInTurn(const std::function<void(World *)> &Scenario, unsigned Preemptions,
                       const WorldOptions &Options);

// Whether a scenario of this process is played with failing calls.
bool Failing();
