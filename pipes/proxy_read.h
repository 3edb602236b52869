// The proxy read engine: in NORMAL the driver reads the real port itself, one read at a time, with
// one packet that it reuses, and gives each block to the ZK pipe and, when a client's read asked
// for it, to the client pipe.
//
// Every read of the client or of ZK that finds no data lends its parameters as a proxy read
// request. The proxy state says whose requests drive the reads. Freeing such a request never
// completes anything: the reads themselves wait in the pipes.
//
// The read after a completion goes out through the call-down thread, so that the stack stays flat;
// the first of a burst is sent directly.
#pragma once

#include "platform/kernel.h"

struct PortExtension;
struct ProxyReadEngine;

// ENGINE_IDLE: no read in flight            -> BUSY (issue), STOPPED (stop)
// ENGINE_BUSY: a read is in flight          -> BUSY, IDLE (completion), STOPPING (stop)
// ENGINE_STOPPING: it is being cancelled    -> STOPPED (the waiting stop, or the completion when
//                                              none waits), IDLE (completion, with a restart
//                                              waiting)
// ENGINE_STOPPED: nothing until a restart   -> IDLE (restart)
enum : ULONG { ENGINE_IDLE = 1, ENGINE_BUSY = 2, ENGINE_STOPPING = 3, ENGINE_STOPPED = 4 };

enum : ULONG {
  REQUEST_CLIENT = 0x1,     // lent by a client's read; else by one of ZK's
  REQUEST_DISCARDED = 0x2,  // its reader is gone; the completion in flight frees it
};

struct ProxyReadRequest {
  LIST_ENTRY Links;
  ULONG Flags;  // REQUEST_...
  IO_STACK_LOCATION StackCopy;
  PDEVICE_OBJECT Device;  // where the read arrived; may be deleted by now: a value for the debugger
  ProxyReadEngine *Engine;
};

enum ProxyReadClass { PROXY_CLIENT_CLASS, PROXY_ZK_CLASS };

struct ProxyReadEngine {
  KSPIN_LOCK Lock;
  ProxyReadRequest *ClientSlot GUARDED_BY(Lock);
  ProxyReadRequest *ZkSlot GUARDED_BY(Lock);
  ProxyReadRequest *CurrentRequest GUARDED_BY(Lock);  // one of the two; ReadIrp carries it
  LIST_ENTRY ClientRequests GUARDED_BY(Lock);
  LIST_ENTRY ZkRequests GUARDED_BY(Lock);
  PIRP ReadIrp GUARDED_BY(Lock);
  PVOID ReadBuffer GUARDED_BY(Lock);
  KEVENT StopEvent;  // set by the completion of a read that a stop waits for
  ULONG EngineState GUARDED_BY(Lock);
  PDEVICE_OBJECT Device;                        // the filter device
  BOOLEAN StopWaited GUARDED_BY(Lock);          // the stop under way waits for StopEvent
  BOOLEAN RestartWhenStopped GUARDED_BY(Lock);  // a restart came while ENGINE_STOPPING
};

// Before the filter device is attached: cleanups of older handles come as soon as it is, and
// discard.
void ProxyReadPrepare(ProxyReadEngine *Engine, PDEVICE_OBJECT FilterDevice);

// Makes the packet and starts the port's call-down thread. PASSIVE_LEVEL.
NTSTATUS ProxyReadInitialize(ProxyReadEngine *Engine, PDEVICE_OBJECT FilterDevice, CCHAR StackSize);

// Copies the read's parameters, its length lowered to the port's proxy read limit.
NTSTATUS ProxyReadCreateRequest(ProxyReadEngine *Engine, PDEVICE_OBJECT Device, PIRP Read,
                                ProxyReadClass Class, ULONG PoolTag, ProxyReadRequest **Request);

// The request is the engine's from here on, whatever the result. A failure says that the read could
// not be sent: the caller fails its own read. IRQL <= DISPATCH_LEVEL.
NTSTATUS ProxyReadSubmit(ProxyReadEngine *Engine, ProxyReadRequest *Request);

// Cancels the read in flight, so that none is issued until a restart. Waits for it where waiting is
// possible: below DISPATCH_LEVEL and not on the call-down thread. Elsewhere the engine is left
// ENGINE_STOPPING and its completion ends the stop. Called from serializer items and from teardown.
void ProxyReadStop(ProxyReadEngine *Engine);
void ProxyReadRestart(ProxyReadEngine *Engine);

// Frees the requests of a class; one whose read is in flight is left to the completion.
void ProxyReadDiscard(ProxyReadEngine *Engine, ProxyReadClass Class);

// The call-down thread could not send the posted read.
void ProxyReadNotSent(ProxyReadEngine *Engine);

// Stops, and frees packet, buffer and every request left. PASSIVE_LEVEL, no request in the port.
void ProxyReadTeardown(ProxyReadEngine *Engine);
