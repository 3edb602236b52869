// A scripted port driver below the filter. Each major function has a behaviour; what it saw is
// recorded, what it holds is completed when the test says so, or at its removal, which waits until
// every request has been given back.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/model/model.h"

enum class Behaviour {
  Inline,  // completes in the dispatch routine
  Pend,    // holds the request, cancellable, until LowerFinish
  Deaf,    // holds it without a cancel routine (of Plug and Play: start, capabilities, removal)
  Queue,   // reads: served from what LowerFeed brings, held until then
};

struct LowerSeen {
  UCHAR Major;
  UCHAR Minor;
  NTSTATUS Status;  // that the request carried
  bool Covered;     // a device was attached above when it came
  ULONG Length;     // of a read or write
  std::string Bytes;
  PVOID FsContext;
  bool HasFile;
  ULONG ControlCode;
  bool Cancel;  // the request arrived cancelled
};

// What LowerPort::ByDpc is to begin with.
extern bool LowersByDpc;

struct LowerPort {
  PDEVICE_OBJECT Device = nullptr;
  PDEVICE_OBJECT Lower = nullptr;
  ULONG BufferingFlags = DO_BUFFERED_IO;
  std::string Name = "COM3";
  bool MakesName = true;  // gives the DOS name to its device
  // When given, a second device gets the DOS name instead. It stands outside of the stack, serves
  // requests like the first, with a record of its own, and is deleted at the port's removal; what
  // its handles send after that is answered as before, but nothing is held any more.
  LowerPort *Outside = nullptr;
  PDRIVER_OBJECT OutsideDriver = nullptr;  // of the second device; null: the port's own
  bool OutsideWasCovered = false;          // something was attached to it when it was deleted

  Behaviour How[IRP_MJ_MAXIMUM_FUNCTION + 1] = {};
  NTSTATUS Result[IRP_MJ_MAXIMUM_FUNCTION + 1] = {};  // of inline completions
  NTSTATUS StartResult = STATUS_SUCCESS;
  bool AtDispatchLevel = false;  // completes held requests there
  // Completes all but Plug and Play at DISPATCH_LEVEL, and what it held in a thread of its own, for
  // which a caller at PASSIVE_LEVEL waits.
  bool ByDpc = LowersByDpc;
  ULONG_PTR ClaimedRead = 0;  // when not 0, the Information of reads that the port ends itself

  std::mutex Mutex;  // of these; never held across a call into the kernel
  std::vector<LowerSeen> Seen;
  std::string Input;
  size_t Requests = 0;  // that a removal waits for
  bool Waited = false;  // by a removal
  KEVENT Idle;

  LIST_ENTRY Held;       // under the cancel spin lock
  bool Removed = false;  // likewise: nothing is held any more
  int OpenContext = 0;   // its address is the FsContext of an open
};

// The port that the next AddDevice of the driver serves.
void LowerNext(LowerPort *Port);
NTSTATUS LowerEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING Path);

// How many requests of a major function were seen (of a minor one, when given).
size_t LowerCount(LowerPort *Port, UCHAR Major, int Minor = -1);
LowerSeen LowerLast(LowerPort *Port, UCHAR Major);
// All bytes written, in order.
std::string LowerWritten(LowerPort *Port);
size_t LowerHeldCount(LowerPort *Port);

// Completes the oldest held request of a major function with a status and, for a read, bytes; false
// when there is none. A held Plug and Play request goes on its way instead, as does a power request
// when the status is a success. Information is the number of bytes, or of a write's length on
// success.
bool LowerFinish(LowerPort *Port, UCHAR Major, NTSTATUS Status = STATUS_SUCCESS,
                 const std::string &Bytes = "");
// Bytes for reads with Behaviour::Queue: to the oldest held read, or kept for the next.
void LowerFeed(LowerPort *Port, const std::string &Bytes);

// A driver whose devices pass everything down, one stack location further, wherever they stand in a
// stack. Until its port is started it answers opens, cleanups and closes itself.
NTSTATUS RelayEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING Path);
