// What the benchmarks play on: a port whose reads, writes and device controls cost next to nothing,
// one of two filters above it or none, and packets that are sent again and again, so that neither
// the port nor the model's file requests drown what is measured.
#pragma once

#include <functional>

#include "platform/model/model.h"
#include "tests/support/lower_port.h"

enum class Above { Nothing, MinimalFilter, Driver };

struct Rig {
  LowerPort Port;
  PDRIVER_OBJECT PortDriver = nullptr;
  PDRIVER_OBJECT Filter = nullptr;  // null with Above::Nothing
  PnpNode *Node = nullptr;
  HANDLE Client = nullptr;
  HANDLE Zk = nullptr;
};

// Boots a model, builds the stack, has a client open the port, and calls Body. Whatever goes wrong
// ends the program.
void RunRig(Above What, bool Verifier, const std::function<void(Rig *)> &Body);

// Its two ends, for a body that is a run of its own.
void RigBegin(Rig *Rig, Above What);
void RigEnd(Rig *Rig);

// Opens the control device and sets NORMAL. To be called once; the rig's end closes it.
void RigGoNormal(Rig *Rig);

[[noreturn]] void RigFail(const char *What);
inline void RigRequire(bool Condition, const char *What) {
  if (!Condition) {
    RigFail(What);
  }
}

// A packet of the benchmark's own, sent to the top of the stack of the file's device. It is taken
// back when it completes, and may be sent again from then on.
struct RepeatedPacket {
  PIRP Irp;
  PDEVICE_OBJECT Top;
  PFILE_OBJECT File;
  UCHAR Major;  // read, write or device control
  void *Buffer;
  ULONG Length;
  bool Done;  // came back from its last sending
};

RepeatedPacket MakePacket(Rig *Rig, HANDLE File, UCHAR Major, void *Buffer, ULONG Length);
NTSTATUS SendPacketAgain(RepeatedPacket *Packet);
void FreePacket(RepeatedPacket *Packet);

// Completes the read that the port holds, with the whole length it asked for. The bytes are those
// that stand in its buffer, as from a port that writes there by itself.
void FinishPortRead();
