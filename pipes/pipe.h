// A pipe is where producers of bytes meet the read requests that consume them. Each port has two:
// the client pipe (plain bytes from the real port) and the ZK pipe (whole frames).
//
// A writer element holds a run of bytes, a reader element stands for one read request. A pipe has
// at most one current writer and one current reader, with a queue behind each; while both are
// there, bytes move and the reader completes. A reader takes from one writer only.
//
// Locks: a pipe's Lock, then the cancel spin lock, never the other way; never two pipes' locks.
// Queue membership changes only under the cancel spin lock, because PipeCancelQueued unlinks with
// nothing else held. Elements are completed and freed after every lock is released.
#pragma once

#include "controller/frame_format.h"
#include "platform/kernel.h"

struct Pipe;
struct PortExtension;

enum : ULONG {
  ELEMENT_WRITER = 0x4,
  ELEMENT_PENDING = 0x8,  // STATUS_PENDING was or will be returned for the element's request
};

enum : ULONG {
  PIPE_FRAMED = 1,
  PIPE_UNFRAMED = 2,
  PIPE_FRAMING = 3,           // mask of the two
  PIPE_READER_SUCCESS = 0x8,  // a reader that got bytes completes with STATUS_SUCCESS
};

// One block of non-paged pool: this record, then DataLength bytes of payload. Readers have the same
// room but use the request's own buffer.
struct PipeElement {
  LIST_ENTRY Links;       // in a queue of the pipe or a completion list; else to itself
  ULONG Flags;            // ELEMENT_...
  ::FrameHeader *Header;  // framed: the address of FrameHeader; else null
  ULONG HeaderLength;     // framed: 24; else 0
  PUCHAR Data;            // reader: the request's buffer; writer: the payload
  ULONG DataLength;       // payload bytes, or the read's length
  ULONG Remaining;        // bytes of a writer, header included, not yet taken
  ULONG Offset;           // bytes taken out of a writer or put into a reader
  PIRP Request;           // of a reader; its Tail.Overlay.ListEntry.Flink points back here
  NTSTATUS Status;        // unframed writer: what a reader that takes from it completes with
  ::Pipe *Pipe;
  PortExtension *Port;
  ::FrameHeader FrameHeader;
};
static_assert(sizeof(PipeElement) == offsetof(PipeElement, FrameHeader) + sizeof(FrameHeader),
              "the payload follows the frame header directly");

struct Pipe {
  KSPIN_LOCK Lock ACQUIRED_BEFORE(CancelSpinLock);
  LIST_ENTRY WriterQueue GUARDED_BY(Lock);
  PipeElement *CurrentWriter GUARDED_BY(Lock);
  LIST_ENTRY ReaderQueue GUARDED_BY(Lock);
  PipeElement *CurrentReader GUARDED_BY(Lock);
  ULONG Kind;                   // PIPE_...
  ULONG Room GUARDED_BY(Lock);  // bytes the current reader can take, during a transfer
  PDEVICE_OBJECT Device;        // the port's filter device
};

enum PipeSide { PIPE_WRITER_SIDE, PIPE_READER_SIDE };

void PipeInitialize(Pipe *Pipe, ULONG Kind, PDEVICE_OBJECT Device);

// Makes an element: a writer without a request or a reader with one. Type is the frame type of a
// framed pipe. IRQL <= DISPATCH_LEVEL. The element is the caller's until it is put or submitted;
// on failure (STATUS_INSUFFICIENT_RESOURCES) the request stays the caller's.
NTSTATUS PipeAllocateElement(Pipe *Pipe, PIRP Request, ULONG Type, BOOLEAN Writer, ULONG Length,
                             ULONG PoolTag, PipeElement **Element);

// A writer element with bytes read from the real port and the status of that read.
NTSTATUS PipeMakePortDataElement(Pipe *Pipe, const void *Data, ULONG Length, NTSTATUS Status,
                                 PipeElement **Element);

// Where a writer's payload stands.
inline PUCHAR PipePayload(PipeElement *Element) {
  return reinterpret_cast<PUCHAR>(Element + 1);
}

// Hands a writer element to its pipe, which owns it from here on. STATUS_PENDING: it waits;
// STATUS_SUCCESS: it was dropped or used up; else, in the client pipe, the status with which it was
// used up. The ZK pipe never refuses.
NTSTATUS PipePut(PipeElement *Element);

// The same for producers of the ZK pipe that look at the result: were it to refuse, the element is
// freed here, and nobody will read it.
NTSTATUS PipePutForZk(PipeElement *Element);

// Completes the element's request, if it has one, drops that request's reference, frees the
// element.
void PipeCompleteElement(PipeElement *Element);

// Entered with Lock held (taken at Irql) right after an element became current on Side; moves what
// can be moved, releases Lock, completes what has finished.
NTSTATUS PipePump(Pipe *Pipe, PipeSide Side, KIRQL Irql) RELEASE(Pipe->Lock);

// Empties the slot and fills it with the oldest element of the queue that is not cancelled;
// cancelled ones go to Completed, to be completed once the locks are released.
void PipePromoteNext(Pipe *Pipe, PipeElement **Slot, PLIST_ENTRY Queue, PLIST_ENTRY Completed)
    REQUIRES(Pipe->Lock);

// Completes and frees a list that PipePromoteNext and its callers gathered.
void PipeCompleteList(PLIST_ENTRY Completed);
