#include "platform/model/report.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>

#include "platform/model/dispatcher.h"
#include "platform/model/guard.h"
#include "platform/model/locks.h"
#include "platform/model/packets.h"
#include "platform/model/text.h"
#include "platform/model/verifier.h"

static constexpr int FramesKept = 12;
static constexpr size_t MostEvents = 200'000;
static constexpr size_t LinesNearSwitch = 3;
static constexpr size_t LastLines = 10;
static constexpr size_t ShortRecord = 60;

struct Frames {
  int Count;
  void *At[FramesKept];
};

struct Event {
  unsigned Thread;
  std::string Name;  // of the thread
  std::string Text;
  const volatile void *Object;
  bool Minor;   // shown only when it concerns the object in question
  bool Switch;  // another thread goes on
  Frames Where;
};

struct NamedRange {
  const volatile char *Low;
  size_t Bytes;
  const char *Name;
};

struct Spin {
  PKTHREAD Thread;
  SwitchReason Reason;
  const volatile void *Object;
  Frames Where;
};

bool ReportOn;
static ModelMutex namesMutex;
static std::vector<NamedRange> ranges;
static std::vector<Event> events;
static size_t windowAt;
static size_t windowEnd;
static std::map<const volatile char *, std::string> requests;  // by packet
static std::map<const volatile char *, std::string> others;    // locks, events, words
static unsigned requestCount;
static unsigned otherCount;
static std::vector<Spin> spins;

void ReportBoot(bool On) {
  ReportOn = On;
  ranges.clear();
  spins.clear();
  if (!events.empty() || !others.empty() || !requests.empty()) {
    events.clear();
    requests.clear();
    others.clear();
  }
  windowAt = requestCount = otherCount = 0;
  windowEnd = SIZE_MAX;
}

// --- names -------------------------------------------------------------------------------------

void VerifierName(const volatile void *Object, size_t Bytes, const char *Name) {
  Guard guard(namesMutex);
  ranges.push_back({static_cast<const volatile char *>(Object), Bytes, Name});
}

void ReportForget(const void *Low, size_t Bytes) {
  const char *low = static_cast<const char *>(Low);
  Guard guard(namesMutex);
  if (!ranges.empty()) {
    std::erase_if(ranges, [=](const NamedRange &r) { return r.Low >= low && r.Low < low + Bytes; });
  }
  if (!others.empty()) {
    others.erase(others.lower_bound(low), others.lower_bound(low + Bytes));
  }
}

static std::string GivenName(const volatile void *Object) {
  auto at = static_cast<const volatile char *>(Object);
  const NamedRange *best = nullptr;
  Guard guard(namesMutex);
  for (const NamedRange &range : ranges) {
    if (at >= range.Low && at < range.Low + range.Bytes && (!best || range.Bytes < best->Bytes)) {
      best = &range;
    }
  }
  if (!best) {
    return "";
  }
  std::string name = best->Name;
  if (at != best->Low) {
    char offset[24];
    snprintf(offset, sizeof offset, "+%#tx", at - best->Low);
    name += offset;
  }
  return name;
}

static const char *MajorText(unsigned major) {
  static const char *const names[] = {"create",          "create named pipe",
                                      "close",           "read",
                                      "write",           "query information",
                                      "set information", "query ea",
                                      "set ea",          "flush",
                                      "query volume",    "set volume",
                                      "directory",       "file system",
                                      "device control",  "internal device control",
                                      "shutdown",        "lock",
                                      "cleanup",         "create mailslot",
                                      "query security",  "set security",
                                      "power",           "system control",
                                      "device change",   "query quota",
                                      "set quota",       "pnp"};
  return major < sizeof names / sizeof names[0] ? names[major] : "request";
}

// A request is named when it is first passed down: "write #3 (COM3 client)".
static std::string RequestMade(PIRP irp, unsigned major) {
  PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
  std::string text = MajorText(major);
  if (major == IRP_MJ_PNP || major == IRP_MJ_POWER) {
    text += " minor " + std::to_string(next->MinorFunction);
  }
  text += " #" + std::to_string(++requestCount);
  std::string of = next->FileObject ? GivenName(next->FileObject) : "";
  if (of.empty() && !PacketShadowOf(irp)->Finish) {
    of = "a driver's own";
  }
  return of.empty() ? text : text + " (" + of + ")";
}

static std::string RequestText(const volatile void *object, const char *otherwise) {
  auto at = static_cast<const volatile char *>(object);
  auto next = requests.upper_bound(at);
  if (next != requests.begin()) {
    auto found = std::prev(next);
    if (at < found->first + sizeof(IRP)) {
      return at == found->first ? found->second : otherwise + (" of " + found->second);
    }
  }
  return "";
}

static std::string ObjectText(const volatile void *object, const char *kind) {
  std::string text = GivenName(object);
  if (text.empty()) {
    text = RequestText(object, "the cancel routine");
  }
  if (!text.empty()) {
    return text;
  }
  std::string &other = others[static_cast<const volatile char *>(object)];
  if (other.empty()) {
    other = std::string(kind) + " #" + std::to_string(++otherCount);
  }
  return other;
}

std::string ReportNameOf(const volatile void *Object, const char *Kind) {
  return ReportOn ? ObjectText(Object, Kind) : GivenName(Object);
}

static std::string LockName(const volatile void *lock) {
  return LockText(static_cast<const KSPIN_LOCK *>(const_cast<const void *>(lock)));
}

static std::string WaitName(const volatile void *object) {
  auto header = static_cast<const DISPATCHER_HEADER *>(const_cast<const void *>(object));
  if (header->Type == WaitThread) {
    return std::string("the end of \"") + reinterpret_cast<const _KTHREAD *>(header)->Name + '"';
  }
  return ObjectText(object, header->Type == WaitSemaphore ? "semaphore" : "event");
}

// --- the record --------------------------------------------------------------------------------

static void Keep(std::string text, const volatile void *object, bool minor, bool change) {
  if (events.size() >= MostEvents) {
    return;
  }
  PKTHREAD self = ThreadSelf();
  Event &event = events.emplace_back();
  event.Thread = self->Number;
  event.Name = self->Name;
  event.Text = std::move(text);
  event.Object = object;
  event.Minor = minor;
  event.Switch = change;
  event.Where.Count = change ? 0 : backtrace(event.Where.At, FramesKept);
}

void ReportWindow(bool Open) {
  if (Open) {
    windowAt = events.size();
    windowEnd = SIZE_MAX;
  } else if (windowEnd == SIZE_MAX) {
    windowEnd = events.size();
  }
}

struct NoteForm {
  const char *What;
  bool Minor;
  std::string (*Text)(const volatile void *object, uint64_t a, uint64_t b);
};

static std::string StatusText(uint64_t status) {
  char text[16];
  snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(status));
  return text;
}

static std::string CallText(const volatile void *object, uint64_t major, uint64_t location) {
  PIRP irp = static_cast<PIRP>(const_cast<void *>(object));
  std::string &name = requests[static_cast<const volatile char *>(object)];
  if (name.empty() || name.starts_with("packet")) {
    name = RequestMade(irp, static_cast<unsigned>(major));
  }
  PDRIVER_OBJECT driver = PacketShadowOf(irp)->Locations[location].Driver;
  return "call " + TextFromString(&driver->DriverName) + " with " + name;
}

static std::string ObjectOr(const volatile void *object, const char *kind) {
  return object ? ObjectText(object, kind) : "";
}

static const NoteForm forms[] = {
    {"lock", false, [](auto object, auto, auto) { return "acquire " + LockName(object); }},
    {"unlock", false, [](auto object, auto, auto) { return "release " + LockName(object); }},
    {"wait", false, [](auto object, auto, auto) { return "wait for " + WaitName(object); }},
    {"wait over", true, [](auto, auto, auto) { return std::string("wait over"); }},
    {"set event", false, [](auto object, auto, auto) { return "set " + WaitName(object); }},
    {"release semaphore", false,
     [](auto object, auto, auto) { return "release " + WaitName(object); }},
    {"call", false, CallText},
    {"returned", true,
     [](auto object, auto status, auto) {
       return ObjectText(object, "request") + ": the call returned " + StatusText(status);
     }},
    {"complete", false,
     [](auto object, auto status, auto) {
       return "complete " + ObjectText(object, "request") + " with " + StatusText(status);
     }},
    {"cancel", false,
     [](auto object, auto, auto) { return "cancel " + ObjectText(object, "request"); }},
    {"cancel routine", false,
     [](auto object, auto, auto) {
       return "call the cancel routine of " + ObjectText(object, "request");
     }},
    {"IoAllocateIrp", true,
     [](auto object, auto, auto) { return "allocate " + ObjectText(object, "request"); }},
    {"reference", true,
     [](auto object, auto, auto) { return "reference " + ObjectText(object, "object"); }},
    {"dereference", true,
     [](auto object, auto, auto) { return "dereference " + ObjectText(object, "object"); }},
    {"allocate", true,
     [](auto, auto bytes, auto) { return "allocate " + std::to_string(bytes) + " bytes"; }},
    {"free", true, [](auto object, auto, auto) { return "free " + ObjectOr(object, "block"); }},
};

void ReportNote(const char *What, const volatile void *Object, uint64_t A, uint64_t B) {
  auto at = static_cast<const volatile char *>(Object);
  for (const NoteForm &form : forms) {
    if (strcmp(What, form.What) == 0) {
      Keep(form.Text(Object, A, B), Object, form.Minor, false);
      return;
    }
  }
  std::string object = ObjectOr(Object, "object");
  Keep(object.empty() ? What : std::string(What) + ' ' + object, Object, false, false);
  if (strcmp(What, "packet freed") == 0) {
    requests.erase(at);
  }
}

static std::string PointText(SwitchReason reason, const volatile void *object) {
  struct Point {
    const char *Text;
    const char *Kind;  // of the object
  };
  static const Point points[] = {
      {"before taking", "lock"},
      {"after giving back", "lock"},
      {"before an interlocked operation on", "word"},
      {"after an interlocked operation on", "word"},
      {"before reading", "word"},
      {"before writing", "word"},
      {"after writing", "word"},
      {"before exchanging the cancel routine of", "request"},
      {"after exchanging the cancel routine of", "request"},
      {"before waiting for", "event"},
      {"before signalling", "event"},
      {"after signalling", "event"},
      {"before dropping a reference on", "object"},
      {"after dropping a reference on", "object"},
      {"before calling or making", "object"},
      {"before completing", "request"},
      {"before an allocation", ""},
  };
  static_assert(std::size(points) == SwitchReasons);
  const Point &point = points[static_cast<size_t>(reason)];
  if (!object) {
    return point.Text;
  }
  bool lock = reason == SwitchReason::Lock || reason == SwitchReason::Unlocked;
  return std::string(point.Text) + ' ' + (lock ? LockName(object) : ObjectText(object, point.Kind));
}

void ReportPoint(SwitchReason Reason, const volatile void *Object) {
  switch (Reason) {
  case SwitchReason::Interlock:
    Keep("interlocked operation on " + ObjectText(Object, "word"), Object, false, false);
    break;
  case SwitchReason::Read:
    Keep("read " + ObjectText(Object, "word"), Object, true, false);
    break;
  case SwitchReason::Write:
    Keep("write " + ObjectText(Object, "word"), Object, false, false);
    break;
  case SwitchReason::Exchange:
    Keep("exchange of the cancel routine of " + ObjectText(Object, "request"), Object, false,
         false);
    break;
  default:
    break;
  }
}

void ReportPreempted(PKTHREAD From, PKTHREAD To, SwitchReason Reason, const volatile void *Object) {
  Keep(std::string("\"") + From->Name + "\" is preempted " + PointText(Reason, Object) + "; \"" +
           To->Name + "\" goes on",
       nullptr, false, true);
}

void ReportGoesOn(PKTHREAD To) {
  Keep(std::string("\"") + To->Name + "\" goes on", nullptr, false, true);
}

void ReportBlocked(PKTHREAD From, PKTHREAD To) {
  std::string text = std::string("\"") + From->Name + '"';
  switch (From->State) {
  case ThreadState::Waiting:
    text += From->WantedLock ? " has to wait for " + LockName(From->WantedLock) : " waits";
    break;
  case ThreadState::Settling:
    text += " lets the others settle";
    break;
  default:
    return;
  }
  Keep(text + "; \"" + To->Name + "\" goes on", nullptr, false, true);
}

// --- places ------------------------------------------------------------------------------------

// What the paths of the build's sources begin with.
static std::string Root() {
  std::string self = __FILE__;
  size_t end = self.rfind("platform/model/");
  return end == std::string::npos ? "" : self.substr(0, end);
}

static std::string ReadCommand(const std::string &command) {
  std::string output;
  FILE *pipe = popen(command.c_str(), "r");
  if (!pipe) {
    return output;
  }
  char bytes[4096];
  for (size_t got; (got = fread(bytes, 1, sizeof bytes, pipe)) > 0;) {
    output.append(bytes, got);
  }
  pclose(pipe);
  return output;
}

using PlaceMap = std::map<void *, std::string>;

// Of one address: pairs of lines, function and file:line, inlined ones first. The first that is not
// the model's own or a library's is the place.
static std::string PlaceAmong(const std::vector<std::string> &lines, const std::string &root) {
  for (size_t i = 0; i + 1 < lines.size(); i += 2) {
    const std::string &file = lines[i + 1];
    if (!file.starts_with(root) || file.find("platform/") == root.size()) {
      continue;
    }
    std::string place = file.substr(root.size(), file.find(" (", root.size()) - root.size());
    std::string function = lines[i].substr(0, lines[i].find('('));
    bool plain = function != "operator" && function.find_first_of("<:{") == std::string::npos;
    return plain ? place + ' ' + function : place;
  }
  return "";
}

static void ReadPlaces(const std::string &output, const std::vector<void *> &order,
                       PlaceMap *places) {
  std::string root = Root();
  std::vector<std::string> lines;
  size_t index = 0;
  size_t at = 0;
  auto finish = [&] {
    if (!lines.empty() && index <= order.size() && index > 0) {
      (*places)[order[index - 1]] = PlaceAmong(lines, root);
    }
    lines.clear();
  };
  while (at < output.size()) {
    size_t end = std::min(output.find('\n', at), output.size());
    std::string line = output.substr(at, end - at);
    at = end + 1;
    if (line.starts_with("0x")) {
      finish();
      ++index;
    } else {
      lines.push_back(line);
    }
  }
  finish();
}

static PlaceMap known;  // for the life of the process

static std::string AddressCommand(const std::vector<void *> &order, const char *base) {
  char program[4096];
  ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
  program[std::max<ssize_t>(length, 0)] = 0;
  std::string command = std::string("addr2line -Cfia -e '") + program + "'";
  for (void *place : order) {
    char address[32];
    // The call stands before the place to return to.
    snprintf(address, sizeof address, " %#tx", static_cast<char *>(place) - base - 1);
    command += address;
  }
  return command + " 2>/dev/null";
}

// Asks addr2line, where there is one, about addresses of the program itself.
static const PlaceMap &Places(const std::vector<const Frames *> &frames) {
  Dl_info self;
  std::vector<void *> order;
  if (!dladdr(reinterpret_cast<void *>(&ReportBoot), &self)) {
    return known;
  }
  for (const Frames *frame : frames) {
    for (int i = 0; i < frame->Count; ++i) {
      Dl_info info;
      if (dladdr(frame->At[i], &info) && info.dli_fbase == self.dli_fbase &&
          known.try_emplace(frame->At[i]).second) {
        order.push_back(frame->At[i]);
      }
    }
  }
  if (!order.empty()) {
    ReadPlaces(ReadCommand(AddressCommand(order, static_cast<char *>(self.dli_fbase))), order,
               &known);
  }
  return known;
}

static std::string PlaceOf(const Frames &frames, const PlaceMap &places) {
  for (int i = 0; i < frames.Count; ++i) {
    auto found = places.find(frames.At[i]);
    if (found != places.end() && !found->second.empty()) {
      return found->second;
    }
  }
  return "";
}

std::string ReportPlaceOf(const void *Place) {
  if (!ReportOn || !Place) {
    return "";
  }
  Frames frames = {1, {const_cast<void *>(Place)}};
  return PlaceOf(frames, Places({&frames}));
}

// --- the text ----------------------------------------------------------------------------------

// Which events are shown: all of the window when they are few, otherwise those near a change of
// threads; the last ones; and whatever happened to the object.
static std::vector<bool> Shown(const volatile void *object) {
  std::vector<bool> shown(events.size());
  std::vector<size_t> major;
  size_t inWindow = 0;
  for (size_t i = 0; i < events.size(); ++i) {
    shown[i] = object && events[i].Object == object;
    if (i >= windowAt && !events[i].Minor) {
      major.push_back(i);
      inWindow += i < windowEnd;
    }
  }
  for (size_t i = 0; i < major.size(); ++i) {
    bool near = i + LastLines >= major.size() || (i < inWindow && inWindow <= ShortRecord);
    size_t from = i > LinesNearSwitch ? i - LinesNearSwitch : 0;
    for (size_t j = from; j <= i + LinesNearSwitch && j < inWindow; ++j) {
      near |= events[major[j]].Switch;
    }
    if (near) {
      shown[major[i]] = true;
    }
  }
  return shown;
}

static std::string Line(const Event &event, size_t nameWidth, const PlaceMap &places) {
  if (event.Switch) {
    return "  " + std::string(nameWidth, '-') + "-- " + event.Text + '\n';
  }
  std::string line = "  " + event.Name;
  line.resize(nameWidth + 4, ' ');
  line += event.Text;
  std::string place = PlaceOf(event.Where, places);
  if (!place.empty()) {
    line.resize(std::max(line.size() + 2, nameWidth + 60), ' ');
    line += place;
  }
  return line + '\n';
}

std::string ReportText(const volatile void *Object) {
  std::vector<bool> shown = Shown(Object);
  std::vector<const Frames *> frames;
  size_t nameWidth = 4;
  for (size_t i = 0; i < events.size(); ++i) {
    if (shown[i]) {
      frames.push_back(&events[i].Where);
      nameWidth = std::max(nameWidth, events[i].Name.size());
    }
  }
  const PlaceMap &places = Places(frames);
  std::string text;
  size_t left = 0;
  for (size_t i = 0; i < events.size(); ++i) {
    if (!shown[i]) {
      left += i >= windowAt && !events[i].Minor;
      continue;
    }
    if (left > 0) {
      text += "  " + std::string(nameWidth, ' ') + "  ... " + std::to_string(left) + " more\n";
      left = 0;
    }
    text += Line(events[i], nameWidth, places);
  }
  return text;
}

// --- runs that do not end ----------------------------------------------------------------------

void ReportSpin(PKTHREAD Thread, SwitchReason Reason, const volatile void *Object) {
  Spin &spin = spins.emplace_back(Spin{Thread, Reason, Object, {}});
  spin.Where.Count = backtrace(spin.Where.At, FramesKept);
}

std::string ReportSpins() {
  std::vector<const Frames *> frames;
  for (const Spin &spin : spins) {
    frames.push_back(&spin.Where);
  }
  const PlaceMap &places = Places(frames);
  std::map<std::string, unsigned> counts;
  for (const Spin &spin : spins) {
    std::string place = PlaceOf(spin.Where, places);
    ++counts[std::string("  \"") + spin.Thread->Name + "\", " +
             PointText(spin.Reason, spin.Object) + (place.empty() ? "" : ", " + place)];
  }
  std::vector<std::pair<unsigned, std::string>> sorted;
  for (const auto &[text, count] : counts) {
    sorted.push_back({count, text});
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto &a, const auto &b) { return a.first > b.first; });
  sorted.resize(std::min(sorted.size(), LastLines));
  std::string text;
  for (const auto &[count, line] : sorted) {
    text += line + ": " + std::to_string(count) + " times\n";
  }
  return text;
}
