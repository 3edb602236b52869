// A port of the test bus with its two sides, for a scenario to play with.
#pragma once

#include "windows/nt/user/vx.h"
#include "windows/nt/vxport.h"

struct Stage {
  ULONG Port;
  HANDLE Bus;
  HANDLE Client;
  HANDLE Zk;
  ULONG Tag;  // of the last command
};

// Plugs the port in and waits until the filter stands above it.
void StagePlug(Stage *Stage, ULONG Port, ULONG Flags = 0);
// Closes what is open, takes the port out and waits until the control device has gone.
void StageUnplug(Stage *Stage);
// Only tells the bus.
NTSTATUS StageAsk(Stage *Stage, ULONG Code, ULONG Major = 0, ULONG How = 0, ULONG Value = 0);

NTSTATUS StageOpenClient(Stage *Stage);
NTSTATUS StageOpenZk(Stage *Stage);
// Both sides, with NORMAL set and the reply read.
void StageNormal(Stage *Stage);
// A command whose reply is the next frame; returns the reply's value.
ULONG StageCommand(Stage *Stage, ULONG Command, ULONG Argument = 0);

void StageFeed(Stage *Stage, const char *Text);
// What the port was sent since the last time is the text.
bool StageWasSent(Stage *Stage, const char *Text);
// The next frame brings these bytes, from this side.
bool StageFrame(Stage *Stage, ULONG Tag, const char *Text);
// How many requests of a major function the port has; how many it holds.
ULONG StageSeen(Stage *Stage, ULONG Major);
ULONG StageHeld(Stage *Stage, ULONG Major);
// Waits until it holds as many.
bool StageAwaitHeld(Stage *Stage, ULONG Major, ULONG Count);

ULONG VxLength(const char *Text);
// The request has brought the text.
bool VxBrought(const Io *Io, const char *Text);
