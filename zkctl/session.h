// One controller session on an open channel: carries out the commands one after the other and
// prints what the device sends, until it is told to stop.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "zkctl/channel.h"
#include "zkctl/command.h"
#include "zkctl/show.h"

struct Session {
  Channel *Port = nullptr;
  ShowStyle Style = {};
  std::deque<Command> Commands;  // to be carried out before anything from standard input
  bool Stay = false;             // the end of standard input does not end it

  std::vector<std::string> Written = {};  // names of the control commands, by request tag less one
  std::string Writing = {};               // the command whose write has not completed; empty: none
  Deadline Until = {};                    // of a wait command
  bool Normal = false;                    // reads succeed, so replies can be expected
  unsigned RepliesDue = 0;
  std::string Line = {};  // of standard input, still without its end
  unsigned LineNumber = 0;
  bool InputEnded = false;
  bool Quit = false;
};

enum SessionEnd { SESSION_DONE, SESSION_DEVICE_GONE };

SessionEnd SessionRun(Session *session);
