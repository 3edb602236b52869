// The call-down thread: one system thread a port that passes posted packets to a device below, so
// that a read is never sent from inside the completion of the one before.
#pragma once

#include "platform/kernel.h"

struct CallDownEntry {
  LIST_ENTRY Links;
  PDEVICE_OBJECT TargetDevice;
  PIRP Irp;
};

// At most one entry is posted at a time: the engine has one packet and posts it again only after it
// came back. The semaphore's limit of 1 and the single reserve entry rely on it.
struct CallDownQueue {
  LIST_ENTRY Entries GUARDED_BY(Lock);
  KSPIN_LOCK Lock;
  KSEMAPHORE WorkSemaphore;
  KEVENT StopEvent;
  PKTHREAD Thread;
  PDEVICE_OBJECT Device;
  BOOLEAN ShuttingDown GUARDED_BY(Lock);
  CallDownEntry Reserve;  // serves when the pool has no entry to give
};

// Starts the thread. On failure the thread, if it ran, has ended. PASSIVE_LEVEL.
NTSTATUS CallDownInitialize(PDEVICE_OBJECT FilterDevice, CallDownQueue *Queue);

// An entry for the one packet; never fails. IRQL <= DISPATCH_LEVEL.
CallDownEntry *CallDownMakeEntry(CallDownQueue *Queue, PDEVICE_OBJECT TargetDevice, PIRP Irp);

// Hands the entry to the thread. When the queue is shutting down the entry is given back, nothing
// is sent, and the result is a failure. IRQL <= DISPATCH_LEVEL.
NTSTATUS CallDownPost(CallDownQueue *Queue, CallDownEntry *Entry);

// Ends the thread, after it passed on what was posted, and waits for it. PASSIVE_LEVEL.
NTSTATUS CallDownShutdown(CallDownQueue *Queue);
