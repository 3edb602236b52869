#include "pipes/waiting_read.h"

#include "driver/extension.h"
#include "pipes/pending_reads.h"

NTSTATUS SubmitWaitingRead(PDEVICE_OBJECT Device, PipeElement *Reader, ProxyReadClass Class,
                           ULONG PoolTag) {
  Pipe *pipe = Reader->Pipe;
  PIRP irp = Reader->Request;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pipe->Lock);
  if (pipe->CurrentWriter != nullptr) {
    return PipeSubmitReadLocked(pipe, Reader, irql);
  }
  KeReleaseSpinLock(&pipe->Lock, irql);

  // The proxy read goes first: what it brings lands in the pipe and waits for this reader.
  ProxyReadEngine *engine = &Reader->Port->Engine;
  ProxyReadRequest *request;
  NTSTATUS status = ProxyReadCreateRequest(engine, Device, irp, Class, PoolTag, &request);
  if (NT_SUCCESS(status)) {
    status = ProxyReadSubmit(engine, request);
  }
  if (!NT_SUCCESS(status)) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    PipeCompleteElement(Reader);
    return status;
  }
  return PipeSubmitRead(Reader);
}
