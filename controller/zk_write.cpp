#include "controller/zk_write.h"

#include "controller/control_frames.h"
#include "controller/frame_format.h"
#include "controller/sinks.h"
#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/requests.h"
#include "driver/trace.h"

// The type of the frame, or 0 when its length is wrong. The header is copied out of ZK's buffer and
// the copy is judged: with direct I/O the buffer is live user memory, and may say something else on
// a second look.
static ULONG FrameType(const UCHAR *Buffer, ULONG Length) {
  FrameHeader header;
  if (Length < sizeof(header)) {
    return 0;
  }
  RtlCopyMemory(&header, Buffer, sizeof(header));
  return header.Length == Length ? header.Type : 0;
}

static NTSTATUS RefuseFrame(PDEVICE_OBJECT Device, PIRP Irp) {
  ReportPortEvent(DriverWide.DriverObject, Device, 0, 0, EVENT_BAD_FRAME, STATUS_INVALID_PARAMETER,
                  PortOf(Device));
  return CompleteRequest(Device, Irp, STATUS_INVALID_PARAMETER, 0);
}

NTSTATUS ZkWrite(PDEVICE_OBJECT Device, PIRP Irp) {
  TraceEvent(TRACE_CLASS, TraceCode("0WKZ"), TracePointer(Device), TracePointer(Irp), 0);
  PUCHAR buffer = nullptr;
  NTSTATUS status = GetRequestBuffer(Irp, &buffer);
  TraceEvent(TRACE_CLASS, TraceCode("1WKZ"), TracePointer(Device), TracePointer(Irp),
             TracePointer(buffer));
  if (!NT_SUCCESS(status)) {
    return CompleteRequest(Device, Irp, status, 0);
  }
  switch (FrameType(buffer, IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length)) {
  case FRAME_DATA:
    return WriteToSinks(Device, Irp);
  case FRAME_CONTROL:
    return SubmitControlFrame(Device, Irp);
  default:
    return RefuseFrame(Device, Irp);
  }
}
