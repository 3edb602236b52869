#include "host/tty_watch.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <set>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "host/event_loop.h"

// A name that a lookup asks for in a watched directory.
using WatchedName = std::pair<int, std::string>;

struct TtyWatch {
  std::string Path;
  std::function<void(int)> Changed;
  int Notify = -1;
  LoopFd *NotifyWatch = nullptr;
  std::set<WatchedName> Names;
};

// ---- The node ----

int TtyNodeFind(const std::string &Path, TtyNode *Node) {
  char resolved[PATH_MAX];
  if (!realpath(Path.c_str(), resolved)) {
    return errno;
  }
  TtyNode found = {resolved, open(resolved, O_PATH | O_NOFOLLOW | O_CLOEXEC),
                   open(Path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
  if (found.Pin < 0 || found.Entry < 0) {
    int error = errno;
    TtyNodeForget(&found);
    return error;
  }
  *Node = found;
  return 0;
}

void TtyNodeForget(TtyNode *Node) {
  for (int fd : {Node->Pin, Node->Entry}) {
    if (fd >= 0) {
      close(fd);
    }
  }
  *Node = {};
}

static bool SameFile(const struct stat &One, const struct stat &Other) {
  return One.st_ino == Other.st_ino && One.st_dev == Other.st_dev;
}

bool TtyNodeThere(const TtyNode &Node) {
  struct stat ours;
  struct stat found;
  return fstat(Node.Pin, &ours) == 0 && ours.st_nlink > 0 &&
         lstat(Node.Path.c_str(), &found) == 0 && SameFile(ours, found);
}

bool TtyNodeIsOthers(const TtyNode &Node, const TtyNode &Before) {
  struct statfs system;
  struct stat now;
  struct stat then;
  if (fstatfs(Node.Pin, &system) != 0 || system.f_type != DEVPTS_SUPER_MAGIC ||
      fstat(Before.Pin, &then) != 0 || then.st_nlink > 0) {
    return false;
  }
  bool link = fstat(Node.Entry, &now) == 0 && S_ISLNK(now.st_mode);
  return !link || (fstat(Before.Entry, &then) == 0 && SameFile(now, then));
}

// ---- The way to it ----

// Puts the parts of a path, or of a link's target, in front of those still to be looked up.
static void PutInFront(const std::filesystem::path &Path, std::deque<std::string> *Parts) {
  std::deque<std::string> all;
  for (const std::filesystem::path &part : Path.relative_path()) {
    all.push_back(part.string());
  }
  Parts->insert(Parts->begin(), all.begin(), all.end());
}

// Looks the path up as the kernel does, and watches each directory before it looks into it: what
// changes after the look is told. Returns an errno value of the last directory.
static int WatchLookup(int Notify, const std::string &Path, std::set<WatchedName> *Names) {
  constexpr uint32_t events = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB;
  constexpr unsigned linksMost = 40;
  std::filesystem::path at = "/";
  std::deque<std::string> parts;
  unsigned links = 0;
  int error = 0;
  PutInFront(std::filesystem::absolute(Path), &parts);
  while (!parts.empty()) {
    std::string part = std::move(parts.front());
    parts.pop_front();
    if (part.empty() || part == ".") {
      continue;
    }
    if (part == "..") {
      at = at.parent_path();
      continue;
    }
    int directory = inotify_add_watch(Notify, at.c_str(), events | IN_ONLYDIR);
    error = directory < 0 ? errno : 0;
    if (directory >= 0) {
      Names->insert({directory, part});
    }
    std::error_code failed;
    std::filesystem::path next = at / part;
    std::filesystem::file_status found = std::filesystem::symlink_status(next, failed);
    if (std::filesystem::is_symlink(found) && ++links <= linksMost) {
      std::filesystem::path target = std::filesystem::read_symlink(next, failed);
      at = target.is_absolute() ? "/" : at;
      PutInFront(target, &parts);
    } else if (std::filesystem::is_directory(found)) {
      at = next;
    } else {
      break;
    }
  }
  // A directory that is gone again is seen to go by the one above it.
  return error == ENOENT || error == ENOTDIR ? 0 : error;
}

int TtyWatchPath(TtyWatch *Watch, const std::string &Path) {
  std::set<WatchedName> names;
  int error = WatchLookup(Watch->Notify, Path, &names);
  std::set<int> kept;
  for (const WatchedName &name : names) {
    kept.insert(name.first);
  }
  for (const WatchedName &name : Watch->Names) {
    if (kept.insert(name.first).second) {
      inotify_rm_watch(Watch->Notify, name.first);  // fails when the directory is gone
    }
  }
  Watch->Path = Path;
  Watch->Names = std::move(names);
  return error;
}

// Reads what inotify has to say; whether any of it is about the path.
static bool TakeChanges(TtyWatch *Watch) {
  alignas(inotify_event) char events[4096];
  bool changed = false;
  ssize_t bytes;
  while ((bytes = read(Watch->Notify, events, sizeof(events))) > 0) {
    for (char *at = events; at < events + bytes;) {
      auto *event = reinterpret_cast<inotify_event *>(at);
      // A directory that is gone (IN_IGNORED) is a name that is gone from the one above, unless it
      // was the root of a file system that was unmounted.
      changed |= (event->mask & (IN_Q_OVERFLOW | IN_UNMOUNT)) ||
                 (event->len > 0 && Watch->Names.count({event->wd, event->name}));
      at += sizeof(*event) + event->len;
    }
  }
  return changed;
}

static void AwaitChange(TtyWatch *Watch) {
  LoopFdWait(Watch->NotifyWatch, LoopWait::Readable, [Watch]() {
    bool changed = TakeChanges(Watch);
    AwaitChange(Watch);
    if (changed) {
      Watch->Changed(TtyWatchPath(Watch, Watch->Path));
    }
  });
}

TtyWatch *TtyWatchMake(std::function<void(int)> Changed) {
  int notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (notify < 0) {
    return nullptr;
  }
  auto *watch = new TtyWatch;
  watch->Changed = std::move(Changed);
  watch->Notify = notify;
  watch->NotifyWatch = LoopFdAdd(notify);
  AwaitChange(watch);
  return watch;
}

void TtyWatchEnd(TtyWatch *Watch) {
  if (Watch) {
    LoopFdRemove(Watch->NotifyWatch);
    close(Watch->Notify);
    delete Watch;
  }
}
