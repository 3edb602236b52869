// A world to play in: the kernel model with the driver loaded over one scripted port, a client and
// ZK. Its end checks for free that nothing was left over.
#pragma once

#include <gtest/gtest-test-part.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "controller/frame_format.h"
#include "driver/extension.h"
#include "platform/model/model.h"
#include "tests/support/lower_port.h"

// Where the port's DOS name leads to.
enum class DosName {
  OwnStack,     // the port's device, and so the top of its stack
  SameDriver,   // a second device of the port's driver, outside of the stack: World::Outside
  OtherDriver,  // likewise, of another driver
  Nowhere,
};

// A driver more in the port's stack; see RelayEntry.
enum class RelayPlace { None, BelowTheFilter, AboveTheFilter };

struct WorldOptions {
  ULONG Buffering = DO_BUFFERED_IO;
  // Of the port's key; "PortName" is COM3 unless given.
  std::map<std::string, RegistryValue> Values = {};
  bool Start = true;
  DosName Name = DosName::OwnStack;
  RelayPlace Relay = RelayPlace::None;
  bool FailsInTurn = true;  // the scenario is also played with each of its calls failing
};

struct World {
  PDRIVER_OBJECT Driver = nullptr;
  PDRIVER_OBJECT PortDriver = nullptr;
  PDRIVER_OBJECT OtherDriver = nullptr;  // likewise a scripted port driver
  PDRIVER_OBJECT RelayDriver = nullptr;
  LowerPort Lower;
  LowerPort Outside;  // when the DOS name leads there
  PnpNode *Node = nullptr;
  NTSTATUS AddStatus = STATUS_SUCCESS;
  HANDLE Client = nullptr;
  HANDLE Zk = nullptr;
};

// Pieces of a world, for scenarios that are explored or that fail on the way.
void WorldLoad(World *World, const WorldOptions &Options = {});
NTSTATUS WorldAdd(World *World, const WorldOptions &Options = {});
// Closes what is open, removes what is there, unloads.
void WorldEnd(World *World);

// The port extension of the world's filter device, to look at; its spin locks' order is declared to
// the verifier when the port is added.
PortExtension *WorldPort(World *World);

// Runs a scenario in a world of its own and expects that nothing stopped it.
void RunWorld(const std::function<void(World *)> &Scenario, const WorldOptions &Options = {});
// The same under every schedule with at most Preemptions preemptions inside the scenario's window,
// or as VORLIX_EXPLORE says (see ExploreRead). The runs are shared among processes: the scenario
// tells with ExploreSaw how it ended, and a failed expectation ends the exploration.
ExploreResult ExploreWorld(const std::function<void(World *)> &Scenario, unsigned Preemptions = 2,
                           const WorldOptions &Options = {});
// Under the schedules that How or, when it is set, VORLIX_EXPLORE names (see ExploreRead); without
// failing calls.
ExploreResult ExploreWorldAs(const char *How, const std::function<void(World *)> &Scenario,
                             const WorldOptions &Options = {});
// A failed expectation among these, from the one given on, ends the run like a rule of the
// verifier's, so that it is made short, explained and replayed as well, in another process, too.
void StopAtFailure(const testing::TestPartResultArray &Failures, int From);
// The options of a run that repeats the schedule of a replay string; null: first in, first out.
RunOptions ReplayOptions(const char *Replay);
// In a scenario: an expectation that holds even when calls of the scenario fail (see FailInTurn).
void Must(bool Holds, const char *What);
// What the scenario told, without how often.
std::set<std::string> OutcomesOf(const ExploreResult &Result);
// "success", "cancelled", "refused" (the port goes), "gone" (the device has gone), or the number.
std::string StatusName(NTSTATUS Status);
void ExploreSaw(NTSTATUS Status);

// Runs parties against each other inside the window.
void Against(const std::vector<std::function<void()>> &Parties);
void Against(const std::function<void()> &One, const std::function<void()> &Other);
// The removal by the manager; Force: whatever handles are open.
void RemovePort(World *World, bool Force = false);
// A removal, after a surprise removal or without, whatever handles are open, against another party.
void RemoveAgainst(World *World, const std::function<void()> &Other, bool Surprise = false);

NTSTATUS OpenClient(World *World);
NTSTATUS OpenZk(World *World);
void CloseClient(World *World);
void CloseZk(World *World);
// Both open, mode NORMAL, the reply read.
void GoNormal(World *World, bool WithClient = true);

// A read or write under way. A scenario that is left at a call that failed gives it up.
struct Io : FileRequest {
  bool Sent = false;
  ~Io();
  std::string Text() const;  // what a finished read brought
};
NTSTATUS StartRead(HANDLE Handle, Io *Io, size_t Length);
NTSTATUS StartWrite(HANDLE Handle, Io *Io, const std::string &Bytes);
NTSTATUS StartControl(HANDLE Handle, Io *Io, ULONG Code, const std::string &Input = "");

// A packet of the test's own, for what no handle sends: cancelled before it is sent, or bytes for a
// device that nobody has open. Send returns what the driver returned, Wait the final status.
struct OwnPacket {
  bool Cancelled = false;
  NTSTATUS Carried = STATUS_SUCCESS;  // when it is sent
  std::string Bytes;
  ULONG ControlCode = 0;
  UCHAR Minor = 0;
  PFILE_OBJECT File = nullptr;   // whose request it is, when it is one's
  std::function<void()> AtDone;  // inside of the completion
  IO_STATUS_BLOCK Iosb = {};
  PIRP Irp = nullptr;
  KEVENT Done = {};
  const void *Stack = nullptr;  // where its completion stood
};
NTSTATUS OwnSend(PDEVICE_OBJECT Device, UCHAR Major, OwnPacket *Packet);
NTSTATUS OwnWait(OwnPacket *Packet);

// A frame as ZK reads it; Status is the read's.
struct Frame {
  NTSTATUS Status = STATUS_SUCCESS;
  FrameHeader Header = {};
  std::string Payload;
  ULONG Value() const;              // of a reply
  std::string MessageText() const;  // of a driver message, as ASCII
};
Frame DecodeFrame(const Io &Read);
// Reads one frame that is waiting.
Frame NextFrame(World *World, size_t Room = 65536);

std::string MakeFrame(ULONG Type, ULONG Tag, ULONG Code, const std::string &Payload = "");
std::string MakeArgument(ULONG Value);
// Writes a control frame and returns the write's status; Information, when given, is the write's.
NTSTATUS SendCommand(World *World, ULONG Command, ULONG Tag = 0, ULONG Argument = 0,
                     ULONG_PTR *Information = nullptr);
