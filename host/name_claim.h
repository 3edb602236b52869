// A port's claim on its name in the directory: a lock file that is ours as long as the port exists,
// and the two paths that people open while the port is ready.
#pragma once

#include <string>

struct NameClaim {
  std::string ClientPath;
  std::string ControlPath;
  std::string LockPath;
  int Lock = -1;
};

// Claims the name. Returns what went wrong, or nothing.
std::string NameClaimTake(NameClaim *Claim, const std::string &Directory, const std::string &Name);
// Makes way at both paths: what an earlier run left is deleted. Returns what stands there that is
// somebody else's, or nothing.
std::string NameClaimClear(const NameClaim &Claim);
// Gives the name back. A claim that was not taken has nothing to give.
void NameClaimRelease(NameClaim *Claim);
