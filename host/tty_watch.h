// Where a port's tty is: the node that its path leads to, and word of every change on the way
// there.
//
// A path may go through symbolic links (/dev/serial/by-id/...), and the links, their directories
// and the node come and go with the device. What is watched are the directories that looking the
// path up comes through, down to the first name that is missing.
#pragma once

#include <functional>
#include <string>

// A node that was found. It is held without being opened, so that another one in its place is never
// taken for it.
struct TtyNode {
  std::string Path;  // with no link in it
  int Pin = -1;
  int Entry = -1;  // what stood at the path that was looked up: a link, or the node itself
};

// Returns an errno value; on 0 the node is the caller's to forget. Forgetting none does nothing.
int TtyNodeFind(const std::string &Path, TtyNode *Node);
void TtyNodeForget(TtyNode *Node);
// Whether the very node that was found still stands at its path.
bool TtyNodeThere(const TtyNode &Node);
// Whether Node, found later at the path that led to Before, belongs to somebody else. The number of
// a pty that is gone is given to whoever asks for one next, a terminal window for instance: only a
// link that was made anew says that a pty is meant.
bool TtyNodeIsOthers(const TtyNode &Node, const TtyNode &Before);

struct TtyWatch;

// Changed runs on the loop whenever the path in question may lead somewhere else than before, or
// its node's permissions are others. Its argument is what TtyWatchPath would return. Null with
// errno set when there is no watching.
TtyWatch *TtyWatchMake(std::function<void(int Error)> Changed);
// Changed is about this path from now on: of what happens after this call nothing is missed.
// Returns an errno value when the directory that decides cannot be watched.
int TtyWatchPath(TtyWatch *Watch, const std::string &Path);
// Changed does not run any more. Ending null does nothing.
void TtyWatchEnd(TtyWatch *Watch);
