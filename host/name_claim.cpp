#include "host/name_claim.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

// Locks the port's name in the directory. A lock file may have been deleted by its last owner
// between our open and our lock; then it is not the one that others find.
static int Lock(NameClaim *Claim) {
  for (;;) {
    struct stat ours;
    struct stat found;
    int fd = open(Claim->LockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
      return errno;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      int error = errno == EWOULDBLOCK ? EBUSY : errno;
      close(fd);
      return error;
    }
    if (fstat(fd, &ours) == 0 && stat(Claim->LockPath.c_str(), &found) == 0 &&
        ours.st_ino == found.st_ino && ours.st_dev == found.st_dev) {
      Claim->Lock = fd;
      return 0;
    }
    close(fd);
  }
}

// Deletes what an earlier run left at a path; false when it is something else.
static bool DeleteStale(const std::string &Path, mode_t Kind) {
  struct stat found;
  if (lstat(Path.c_str(), &found) != 0) {
    return errno == ENOENT;
  }
  return (found.st_mode & S_IFMT) == Kind && unlink(Path.c_str()) == 0;
}

std::string NameClaimTake(NameClaim *Claim, const std::string &Directory, const std::string &Name) {
  Claim->ClientPath = Directory + "/" + Name;
  Claim->ControlPath = Directory + "/VORLIX_" + Name;
  Claim->LockPath = Directory + "/." + Name + ".lock";
  int error = Lock(Claim);
  if (error) {
    return Claim->ClientPath + (error == EBUSY ? ": in use by another vorlix-host"
                                               : std::string(": ") + strerror(error));
  }
  return NameClaimClear(*Claim);
}

std::string NameClaimClear(const NameClaim &Claim) {
  if (!DeleteStale(Claim.ClientPath, S_IFLNK)) {
    return Claim.ClientPath + ": exists and is no link of an earlier run";
  }
  if (!DeleteStale(Claim.ControlPath, S_IFSOCK)) {
    return Claim.ControlPath + ": exists and is no socket of an earlier run";
  }
  return "";
}

void NameClaimRelease(NameClaim *Claim) {
  if (Claim->Lock < 0) {
    return;
  }
  NameClaimClear(*Claim);  // after a run that was stopped half way
  unlink(Claim->LockPath.c_str());
  close(Claim->Lock);
  Claim->Lock = -1;
}
