#include "client/read.h"

#include "client/forward.h"
#include "controller/frame_format.h"
#include "controller/messages.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "pipes/pending_reads.h"
#include "pipes/waiting_read.h"

static NTSTATUS ClientReadDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Context);
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  ReleaseRequest(Device, Irp);
  return STATUS_SUCCESS;
}

// Keeps the reference until the read is back, so that a dump's request count shows it.
static NTSTATUS SendCounted(PDEVICE_OBJECT Device, PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, ClientReadDone, Device, TRUE, TRUE, TRUE);
  return IofCallDriver(LowerDeviceOf(Device), Irp);
}

// A read that passed the gate may have been queued after the sweep that was to end it: the flush of
// a removal or of its handle's cleanup, or the hand-down when ZK closed. Whoever sweeps sets its
// flag first and then takes the pipe's lock; here the read was queued under that lock first, so one
// side sees the other.
static void SweepLateRead(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  if (PortIsGoing(port) || IsCleanedUp(Device)) {
    ProxyReadDiscard(&port->Engine, PROXY_CLIENT_CLASS);
    PipeFlush(&port->ClientPipe, STATUS_CANCELLED);
  } else if (PortMode(port) == MODE_IDLE && (PortStateFlags(port) & PSF_ZK_OPEN) == 0) {
    PipeHandDownReads(&port->ClientPipe);
  }
}

static NTSTATUS ClientReadFromPipe(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *port = PortOf(Device);
  SendZkMessage(Device, MESSAGE_TRAFFIC, L"Client read from %ws\n", PortLinkName(port));
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
  if (length == 0) {
    return CompleteRequest(Device, Irp, STATUS_SUCCESS, 0);
  }
  PipeElement *reader;
  NTSTATUS status =
      PipeAllocateElement(&port->ClientPipe, Irp, 0, FALSE, length, POOL_CLIENT_READER, &reader);
  if (!NT_SUCCESS(status)) {
    return CompleteRequest(Device, Irp, status, 0);
  }
  HoldPort(port);
  status = SubmitWaitingRead(Device, reader, PROXY_CLIENT_CLASS, POOL_PROXY_CLIENT_REQUEST);
  if (status == STATUS_PENDING) {
    SweepLateRead(Device);
  }
  ReleasePort(port);
  return status;
}

NTSTATUS ClientRead(PDEVICE_OBJECT Device, PIRP Irp, ULONG Mode) {
  switch (Mode) {
  case MODE_IDLE:
    if ((PortOf(Device)->Header.PacketDump & PACKET_DUMP_CLIENT_READ) != 0) {
      return SendCounted(Device, Irp);
    }
    return SkipToLower(Device, Irp);
  case MODE_NORMAL:
  case MODE_REDIRECT:
    return ClientReadFromPipe(Device, Irp);
  default:
    return CompleteRequest(Device, Irp, STATUS_UNSUCCESSFUL, 0);
  }
}
