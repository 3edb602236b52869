#include "controller/zk_read.h"

#include "controller/frame_format.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "pipes/pending_reads.h"
#include "pipes/waiting_read.h"

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
  status = SubmitWaitingRead(Device, reader, PROXY_ZK_CLASS, POOL_PROXY_ZK_REQUEST);
  // A read queued after the flush of a removal or of its handle's cleanup has nobody else to end
  // it; both set their flag before they flush, and all go through the pipe's lock.
  if (status == STATUS_PENDING && (PortIsGoing(port) || IsCleanedUp(Device))) {
    ProxyReadDiscard(&port->Engine, PROXY_ZK_CLASS);
    PipeFlush(&port->ZkPipe, STATUS_CANCELLED);
  }
  ReleasePort(port);
  return status;
}
