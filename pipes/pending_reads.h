// The reader side of a pipe: reads that wait, their cancellation, and what ends them all at once.
// A read leaves its pipe in exactly one way: served, cancelled, flushed, or handed down.
#pragma once

#include "pipes/pipe.h"
#include "platform/kernel.h"

// Submits a reader element with its request; both are the pipe's from here on. Returns the status
// the dispatch routine is to return: the completion status when the read was served or cancelled at
// once, else STATUS_PENDING. The second form is entered with Lock held (taken at Irql).
NTSTATUS PipeSubmitRead(PipeElement *Element);
NTSTATUS PipeSubmitReadLocked(Pipe *Pipe, PipeElement *Element, KIRQL Irql) RELEASE(Pipe->Lock);

// Cancel routines of the current reader's and of a queued reader's request.
void PipeCancelCurrent(PDEVICE_OBJECT Device, PIRP Irp) RELEASE(CancelSpinLock);
void PipeCancelQueued(PDEVICE_OBJECT Device, PIRP Irp) RELEASE(CancelSpinLock);

// Completes every waiting read with Status and throws every waiting writer away.
void PipeFlush(Pipe *Pipe, NTSTATUS Status);

// Passes every waiting read on to the port's lower device, oldest first. Writers stay.
void PipeHandDownReads(Pipe *Pipe);
