#include "controller/zk_write.h"

#include "controller/control_frames.h"
#include "controller/frame_format.h"
#include "controller/sinks.h"
#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/requests.h"
#include "driver/trace.h"

// Copies the header out of ZK's buffer and accepts or refuses the copy: with direct I/O the buffer
// is live user memory, and may say something else on a second look.
static NTSTATUS CheckFrameHeader(PDEVICE_OBJECT Device, const UCHAR *Buffer, ULONG Length,
                                 FrameHeader *Header) {
  if (Length >= sizeof(*Header)) {
    RtlCopyMemory(Header, Buffer, sizeof(*Header));
    if (Header->Length == Length && (Header->Type == FRAME_DATA || Header->Type == FRAME_CONTROL)) {
      return STATUS_SUCCESS;
    }
  }
  ReportPortEvent(DriverWide.DriverObject, Device, 0, 0, EVENT_BAD_FRAME, STATUS_INVALID_PARAMETER,
                  PortOf(Device));
  return STATUS_INVALID_PARAMETER;
}

NTSTATUS ZkWrite(PDEVICE_OBJECT Device, PIRP Irp) {
  TraceEvent(TRACE_CLASS, TraceCode("0WKZ"), TracePointer(Device), TracePointer(Irp), 0);
  PUCHAR buffer = nullptr;
  NTSTATUS status = GetRequestBuffer(Irp, &buffer);
  TraceEvent(TRACE_CLASS, TraceCode("1WKZ"), TracePointer(Device), TracePointer(Irp),
             TracePointer(buffer));
  FrameHeader header;
  if (NT_SUCCESS(status)) {
    ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length;
    status = CheckFrameHeader(Device, buffer, length, &header);
  }
  if (!NT_SUCCESS(status)) {
    return CompleteRequest(Device, Irp, status, 0);
  }
  if (header.Type == FRAME_DATA) {
    return WriteToSinks(Device, Irp);
  }
  if (header.Type == FRAME_CONTROL) {
    return SubmitControlFrame(Device, Irp);
  }
  return CompleteRequest(Device, Irp, STATUS_INVALID_PARAMETER, 0);
}
