#include "controller/zk_read.h"

#include "controller/frame_format.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "pipes/pending_reads.h"

// Serves the read from a waiting frame, or tells the engine that ZK waits and lets the read wait.
static NTSTATUS SubmitZkRead(PDEVICE_OBJECT Device, PIRP Irp, PipeElement *Reader) {
  PortExtension *port = PortOf(Device);
  Pipe *pipe = &port->ZkPipe;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pipe->Lock);
  if (pipe->CurrentWriter != nullptr) {
    return PipeSubmitReadLocked(pipe, Reader, irql);
  }
  KeReleaseSpinLock(&pipe->Lock, irql);
  ProxyReadRequest *request;
  NTSTATUS status = ProxyReadCreateRequest(&port->Engine, Device, Irp, PROXY_ZK_CLASS,
                                           POOL_PROXY_ZK_REQUEST, &request);
  if (NT_SUCCESS(status)) {
    status = ProxyReadSubmit(&port->Engine, request);
  }
  if (!NT_SUCCESS(status)) {
    Irp->IoStatus.Status = status;
    Irp->IoStatus.Information = 0;
    PipeCompleteElement(Reader);
    return status;
  }
  return PipeSubmitRead(Reader);
}

NTSTATUS ZkRead(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
  if (PortMode(port) == MODE_IDLE) {
    return CompleteRequest(Device, Irp, STATUS_INVALID_DEVICE_STATE, 0);
  }
  if (length == 0) {
    return CompleteRequest(Device, Irp, STATUS_SUCCESS, 0);
  }
  PipeElement *reader;
  NTSTATUS status =
      PipeAllocateElement(&port->ZkPipe, Irp, 0, FALSE, length, POOL_ZK_READER, &reader);
  if (!NT_SUCCESS(status)) {
    return CompleteRequest(Device, Irp, status, 0);
  }
  HoldPort(port);
  status = SubmitZkRead(Device, Irp, reader);
  // A read queued after a removal's flush has nobody else to end it; the removal sets its flag
  // before it flushes, and both go through the pipe's lock.
  if (status == STATUS_PENDING && PortIsGoing(port)) {
    PipeFlush(&port->ZkPipe, STATUS_CANCELLED);
  }
  ReleasePort(port);
  return status;
}
