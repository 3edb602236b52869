#include "client/write.h"

#include "client/forward.h"
#include "controller/messages.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"

static NTSTATUS CopyForZk(PortExtension *Port, PIRP Irp) {
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length;
  PipeElement *copy;
  NTSTATUS status = PipeAllocateElement(&Port->ZkPipe, nullptr, FRAME_REPORT, TRUE, length,
                                        POOL_CLIENT_WRITE, &copy);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  PUCHAR bytes;
  status = GetRequestBuffer(Irp, &bytes);
  if (!NT_SUCCESS(status)) {
    PipeCompleteElement(copy);
    return status;
  }
  copy->FrameHeader.Tag = TAG_CLIENT;
  if (length != 0) {
    RtlCopyMemory(PipePayload(copy), bytes, length);
  }
  return PipePutForZk(copy);
}

NTSTATUS ClientWrite(PDEVICE_OBJECT Device, PIRP Irp, ULONG Mode) {
  PortExtension *port = PortOf(Device);
  switch (Mode) {
  case MODE_IDLE:
  case MODE_REDIRECT:
    return SkipToLower(Device, Irp);
  case MODE_NORMAL: {
    SendZkMessage(Device, MESSAGE_TRAFFIC, L"Client write to %ws\n", PortLinkName(port));
    NTSTATUS status = CopyForZk(port, Irp);
    return NT_SUCCESS(status) ? SkipToLower(Device, Irp) : CompleteRequest(Device, Irp, status, 0);
  }
  default:
    return CompleteRequest(Device, Irp, STATUS_UNSUCCESSFUL, 0);
  }
}
