// The ports of the run: those that are wanted, and those that there are. What is no longer wanted
// is stopped and removed, what is wanted anew is started, and everything else is left alone. A
// change of mind may come at any time: what is wanted last is what will be.
#pragma once

#include <functional>
#include <vector>

#include "host/port.h"

// Claims the first ports, before any driver is loaded. False after saying which one cannot be had.
bool PortSetClaim(const std::vector<PortOptions> &Ports);

// Starts what was claimed. OnRefused runs when one of these does not get ready.
void PortSetStart(const std::vector<PDRIVER_OBJECT> &Drivers, std::function<void()> OnRefused);

// Between start and stop: the ports that are wanted from now on, checked as a list.
void PortSetWant(const std::vector<PortOptions> &Ports);

// Stops all ports; Then runs when the last one is removed.
void PortSetStop(std::function<void()> Then);

// Gives up what a run that was stopped half way has left.
void PortSetRelease();
