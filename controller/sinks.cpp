#include "controller/sinks.h"

#include "controller/frame_format.h"
#include "controller/messages.h"
#include "driver/extension.h"
#include "driver/requests.h"
#include "driver/trace.h"

constexpr ULONG HEADER_BYTES = sizeof(FrameHeader);

static void TraceWrite(ULONG Code, PDEVICE_OBJECT Device, PIRP Irp, ULONG64 Value) {
  TraceEvent(TRACE_CLASS, Code, TracePointer(Device), TracePointer(Irp), Value);
}

// Context is what the request carried before it was trimmed: ZK's MDL or its system buffer.
static NTSTATUS LowerSinkWriteDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  NTSTATUS status = Irp->IoStatus.Status;
  TraceWrite(TraceCode("CWKZ"), Device, Irp, TraceStatus(status));
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  if (Irp->MdlAddress != nullptr) {
    IoFreeMdl(Irp->MdlAddress);
    Irp->MdlAddress = static_cast<PMDL>(Context);
  } else {
    Irp->AssociatedIrp.SystemBuffer = Context;
  }
  if (NT_SUCCESS(status)) {
    Irp->IoStatus.Information += HEADER_BYTES;
  } else {
    SendZkMessage(Device, MESSAGE_PORT_ERROR, L"Error writing buffer to lower sink status 0x%x",
                  status);
  }
  ReleaseRequest(Device, Irp);
  return STATUS_SUCCESS;
}

// Puts an MDL over the payload in the place of ZK's.
static NTSTATUS TrimMdl(PDEVICE_OBJECT Device, PIRP Irp, ULONG PayloadBytes) {
  PMDL whole = Irp->MdlAddress;
  PVOID address = static_cast<PUCHAR>(MmGetMdlVirtualAddress(whole)) + HEADER_BYTES;
  TraceWrite(TraceCode("0XKZ"), Device, Irp, TracePointer(address));
  PMDL payload = IoAllocateMdl(address, PayloadBytes, FALSE, FALSE, nullptr);
  if (payload == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  IoBuildPartialMdl(whole, payload, address, PayloadBytes);
  if ((payload->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) == 0) {
    // For the port's sake; a port that needs the address maps it itself when this fails.
    MmMapLockedPagesSpecifyCache(payload, KernelMode, MmCached, nullptr, FALSE,
                                 NormalPagePriority | MdlMappingNoExecute);
  }
  Irp->MdlAddress = payload;
  TraceEvent(TRACE_CLASS, TraceCode("1XKZ"), TracePointer(Irp), TracePointer(whole),
             TracePointer(payload));
  return STATUS_SUCCESS;
}

static NTSTATUS WriteToPort(PDEVICE_OBJECT Device, PIRP Irp, ULONG PayloadBytes) {
  PVOID replaced;
  if (Irp->MdlAddress != nullptr) {
    replaced = Irp->MdlAddress;
    NTSTATUS status = TrimMdl(Device, Irp, PayloadBytes);
    if (!NT_SUCCESS(status)) {
      return CompleteRequest(Device, Irp, status, 0);
    }
  } else {
    replaced = Irp->AssociatedIrp.SystemBuffer;
    Irp->AssociatedIrp.SystemBuffer = static_cast<PUCHAR>(replaced) + HEADER_BYTES;
  }
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoGetNextIrpStackLocation(Irp)->Parameters.Write.Length = PayloadBytes;
  IoSetCompletionRoutine(Irp, LowerSinkWriteDone, replaced, TRUE, TRUE, TRUE);
  NTSTATUS status = IofCallDriver(LowerDeviceOf(Device), Irp);
  TraceWrite(TraceCode("2XKZ"), Device, Irp, TraceStatus(status));
  return status;
}

static NTSTATUS DeliverFrame(PDEVICE_OBJECT Device, PIRP Irp) {
  PUCHAR buffer;
  NTSTATUS status = GetRequestBuffer(Irp, &buffer);
  if (!NT_SUCCESS(status)) {
    SendZkMessage(Device, MESSAGE_ERROR, L"Error getting buffer for ZK write status 0x%x", status);
    return CompleteRequest(Device, Irp, status, 0);
  }
  ULONG mode = PortMode(PortOf(Device));
  if (mode != MODE_NORMAL && mode != MODE_REDIRECT) {
    SendZkMessage(Device, MESSAGE_ERROR, L"Cannot write to sinks in idle mode");
    return CompleteRequest(Device, Irp, STATUS_INVALID_PARAMETER, 0);
  }
  FrameHeader header;
  RtlCopyMemory(&header, buffer, sizeof(header));
  if (header.Tag != TAG_LOWER) {
    // A sink that takes nothing: the write ends as it came, with success and 0 bytes.
    NTSTATUS carried = Irp->IoStatus.Status;
    CompleteAdmitted(Device, Irp);
    return carried;
  }
  ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Write.Length;
  if (length == HEADER_BYTES) {
    return CompleteRequest(Device, Irp, STATUS_SUCCESS, HEADER_BYTES);
  }
  return WriteToPort(Device, Irp, length - HEADER_BYTES);
}

NTSTATUS WriteToSinks(PDEVICE_OBJECT Device, PIRP Irp) {
  NTSTATUS status = DeliverFrame(Device, Irp);
  TraceWrite(TraceCode("3XKZ"), Device, Irp, TraceStatus(status));
  return status;
}
