#include "pipes/pipe.h"

#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "pipes/pending_reads.h"

constexpr ULONG FRAME_HEADER_BYTES = sizeof(FrameHeader);
constexpr ULONG SIZE_ANSWER_BYTES = sizeof(ULONG);  // tells ZK how large a buffer it needs

void PipeInitialize(Pipe *Pipe, ULONG Kind, PDEVICE_OBJECT Device) {
  RtlZeroMemory(Pipe, sizeof(*Pipe));
  KeInitializeSpinLock(&Pipe->Lock);
  InitializeListHead(&Pipe->WriterQueue);
  InitializeListHead(&Pipe->ReaderQueue);
  Pipe->Kind = Kind;
  Pipe->Device = Device;
}

static NTSTATUS PointAtRequest(PipeElement *Element) {
  NTSTATUS status = GetRequestBuffer(Element->Request, &Element->Data);
  if (NT_SUCCESS(status)) {
    // The cancel routines find the element here, for as long as it exists.
    Element->Request->Tail.Overlay.ListEntry.Flink = &Element->Links;
  }
  return status;
}

static void FillFrameHeader(PipeElement *Element, ULONG Type) {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  Element->FrameHeader.Length = Element->DataLength + FRAME_HEADER_BYTES;
  Element->FrameHeader.Type = Type;
  Element->FrameHeader.Timestamp = static_cast<ULONGLONG>(now.QuadPart);
  Element->Header = &Element->FrameHeader;
  Element->HeaderLength = FRAME_HEADER_BYTES;
}

NTSTATUS PipeAllocateElement(Pipe *Pipe, PIRP Request, ULONG Type, BOOLEAN Writer, ULONG Length,
                             ULONG PoolTag, PipeElement **Element) {
  *Element = nullptr;
  ULONG framing = Pipe->Kind & PIPE_FRAMING;
  if (framing != PIPE_FRAMED && framing != PIPE_UNFRAMED) {
    return STATUS_NOT_SUPPORTED;
  }
  if (framing == PIPE_FRAMED && Length > 0xFFFFFFFF - FRAME_HEADER_BYTES) {
    return STATUS_INSUFFICIENT_RESOURCES;  // header and payload would not fit 32 bits
  }
  auto *element = static_cast<PipeElement *>(ExAllocatePoolWithTag(
      NonPagedPoolNx, sizeof(PipeElement) + static_cast<SIZE_T>(Length), PoolTag));
  if (element == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(element, sizeof(*element));
  InitializeListHead(&element->Links);
  element->Pipe = Pipe;
  element->Port = PortOf(Pipe->Device);
  element->Flags = Writer ? static_cast<ULONG>(ELEMENT_WRITER) : 0;
  element->Request = Request;
  element->DataLength = Length;
  element->Data = PipePayload(element);
  if (Request != nullptr) {
    NTSTATUS status = PointAtRequest(element);
    if (!NT_SUCCESS(status)) {
      ExFreePoolWithTag(element, 0);
      return status;
    }
  }
  if (framing == PIPE_FRAMED) {
    FillFrameHeader(element, Type);
  }
  element->Remaining = element->HeaderLength + element->DataLength;
  *Element = element;
  return STATUS_SUCCESS;
}

NTSTATUS PipeMakePortDataElement(Pipe *Pipe, const void *Data, ULONG Length, NTSTATUS Status,
                                 PipeElement **Element) {
  NTSTATUS status =
      PipeAllocateElement(Pipe, nullptr, FRAME_REPORT, TRUE, Length, POOL_PORT_DATA, Element);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  PipeElement *element = *Element;
  element->Status = Status;
  element->FrameHeader.Tag = TAG_LOWER;
  element->FrameHeader.Code = static_cast<ULONG>(Status);
  if (Length != 0) {
    RtlCopyMemory(PipePayload(element), Data, Length);
  }
  return STATUS_SUCCESS;
}

void PipeCompleteElement(PipeElement *Element) {
  PIRP request = Element->Request;
  if (request != nullptr) {
    PDEVICE_OBJECT device = Element->Pipe->Device;
    if ((Element->Flags & ELEMENT_PENDING) != 0) {
      IoMarkIrpPending(request);
    }
    IofCompleteRequest(request, IO_NO_INCREMENT);
    ReleaseRequest(device, request);
  }
  ExFreePoolWithTag(Element, 0);  // its tag is its producer's
}

void PipeCompleteList(PLIST_ENTRY Completed) {
  while (!IsListEmpty(Completed)) {
    PipeCompleteElement(CONTAINING_RECORD(RemoveHeadList(Completed), PipeElement, Links));
  }
}

void PipePromoteNext(Pipe *Pipe, PipeElement **Slot, PLIST_ENTRY Queue, PLIST_ENTRY Completed) {
  UNREFERENCED_PARAMETER(Pipe);  // names the lock that the caller holds
  // The cancel spin lock is taken even for an empty queue: a cancel routine of the element that
  // just left the slot may be between reading the element and its own reference, and whoever frees
  // the element has to come after it.
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  *Slot = nullptr;
  while (*Slot == nullptr && !IsListEmpty(Queue)) {
    auto *element = CONTAINING_RECORD(RemoveHeadList(Queue), PipeElement, Links);
    PIRP request = element->Request;
    if (request != nullptr && request->Cancel) {
      request->IoStatus.Status = STATUS_CANCELLED;
      request->IoStatus.Information = 0;
      IoSetCancelRoutine(request, nullptr);
      InsertTailList(Completed, &element->Links);
      continue;
    }
    InitializeListHead(&element->Links);
    *Slot = element;
    if (request != nullptr) {
      IoSetCancelRoutine(request, PipeCancelCurrent);
    }
  }
  IoReleaseCancelSpinLock(irql);
}

// Copies bytes of a writer, from its Offset on, into a reader at its Offset.
static void CopyToReader(PipeElement *Writer, PipeElement *Reader, const void *Source,
                         ULONG Count) {
  if (Count == 0) {
    return;
  }
  RtlCopyMemory(Reader->Data + Reader->Offset, Source, Count);
  Writer->Offset += Count;
  Writer->Remaining -= Count;
  Reader->Offset += Count;
  Reader->Request->IoStatus.Information += Count;
}

// A frame goes to one reader, whole. *Consumed says whether it did.
static NTSTATUS TransferFrame(Pipe *Pipe, PipeElement *Writer, PipeElement *Reader,
                              BOOLEAN *Consumed) REQUIRES(Pipe->Lock) {
  ULONG size = Writer->HeaderLength + Writer->DataLength;
  *Consumed = FALSE;
  if (Pipe->Room < SIZE_ANSWER_BYTES) {
    return STATUS_BUFFER_TOO_SMALL;
  }
  if (Pipe->Room < size) {
    RtlCopyMemory(Reader->Data, &size, SIZE_ANSWER_BYTES);
    Reader->Request->IoStatus.Information += SIZE_ANSWER_BYTES;
    Pipe->Room = 0;
    return STATUS_BUFFER_OVERFLOW;
  }
  CopyToReader(Writer, Reader, Writer->Header, Writer->HeaderLength);
  CopyToReader(Writer, Reader, Writer->Data, Writer->DataLength);
  Pipe->Room = 0;
  *Consumed = TRUE;
  return (Pipe->Kind & PIPE_READER_SUCCESS) != 0 ? STATUS_SUCCESS : Writer->Status;
}

static NTSTATUS TransferBytes(Pipe *Pipe, PipeElement *Writer, PipeElement *Reader)
    REQUIRES(Pipe->Lock) {
  ULONG left = Writer->Offset < Writer->DataLength ? Writer->DataLength - Writer->Offset : 0;
  ULONG count = left < Pipe->Room ? left : Pipe->Room;
  CopyToReader(Writer, Reader, Writer->Data + Writer->Offset, count);
  Pipe->Room -= count;
  return Writer->Status;
}

// Moves bytes from the current writer to the current reader; a writer that is used up makes room
// for the next.
static NTSTATUS Transfer(Pipe *Pipe, PLIST_ENTRY Completed) REQUIRES(Pipe->Lock) {
  PipeElement *writer = Pipe->CurrentWriter;
  BOOLEAN moved = TRUE;
  NTSTATUS status;
  if ((Pipe->Kind & PIPE_FRAMING) == PIPE_FRAMED) {
    status = TransferFrame(Pipe, writer, Pipe->CurrentReader, &moved);
  } else {
    status = TransferBytes(Pipe, writer, Pipe->CurrentReader);
  }
  if (moved && writer->Remaining == 0) {
    InsertTailList(Completed, &writer->Links);
    PipePromoteNext(Pipe, &Pipe->CurrentWriter, &Pipe->WriterQueue, Completed);
  }
  return status;
}

// The current reader has what it gets: the next one comes up.
static void FinishReader(Pipe *Pipe, NTSTATUS Status, PLIST_ENTRY Completed) REQUIRES(Pipe->Lock) {
  PipeElement *reader = Pipe->CurrentReader;
  Pipe->Room = 0;
  reader->Request->IoStatus.Status = Status;
  IoSetCancelRoutine(reader->Request, nullptr);
  PipePromoteNext(Pipe, &Pipe->CurrentReader, &Pipe->ReaderQueue, Completed);
  if (Pipe->CurrentReader != nullptr) {
    Pipe->Room = Pipe->CurrentReader->DataLength;
  }
  InsertTailList(Completed, &reader->Links);
}

NTSTATUS PipePump(Pipe *Pipe, PipeSide Side, KIRQL Irql) {
  LIST_ENTRY completed;
  InitializeListHead(&completed);
  PipeElement *trigger = Side == PIPE_WRITER_SIDE ? Pipe->CurrentWriter : Pipe->CurrentReader;
  NTSTATUS result = STATUS_SUCCESS;
  Pipe->Room = Pipe->CurrentReader != nullptr ? Pipe->CurrentReader->DataLength : 0;
  while (Pipe->CurrentReader != nullptr && Pipe->CurrentWriter != nullptr) {
    result = Transfer(Pipe, &completed);
    FinishReader(Pipe, result, &completed);
  }
  Pipe->Room = 0;
  PipeElement *current = Side == PIPE_WRITER_SIDE ? Pipe->CurrentWriter : Pipe->CurrentReader;
  if (current == trigger) {
    // Its request is marked when it completes; here it only is told that STATUS_PENDING went out.
    trigger->Flags |= ELEMENT_PENDING;
    result = STATUS_PENDING;
  }
  KeReleaseSpinLock(&Pipe->Lock, Irql);
  PipeCompleteList(&completed);
  return result;
}

// An empty report is worth a wake-up of ZK only when nothing else waits for it.
static BOOLEAN IsDroppable(Pipe *Pipe, PipeElement *Element) REQUIRES(Pipe->Lock) {
  const FrameHeader *header = &Element->FrameHeader;
  return static_cast<BOOLEAN>(Pipe == &Element->Port->ZkPipe && Pipe->CurrentWriter != nullptr &&
                              header->Type == FRAME_REPORT && header->Code == 0 &&
                              header->Length == FRAME_HEADER_BYTES);
}

NTSTATUS PipePut(PipeElement *Element) {
  Pipe *pipe = Element->Pipe;
  KIRQL cancelIrql;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pipe->Lock);
  IoAcquireCancelSpinLock(&cancelIrql);
  if (IsDroppable(pipe, Element)) {
    IoReleaseCancelSpinLock(cancelIrql);
    KeReleaseSpinLock(&pipe->Lock, irql);
    PipeCompleteElement(Element);
    return STATUS_SUCCESS;
  }
  if (pipe->CurrentWriter == nullptr) {
    pipe->CurrentWriter = Element;
    IoReleaseCancelSpinLock(cancelIrql);
    return PipePump(pipe, PIPE_WRITER_SIDE, irql);
  }
  Element->Flags |= ELEMENT_PENDING;
  InsertTailList(&pipe->WriterQueue, &Element->Links);
  IoReleaseCancelSpinLock(cancelIrql);
  KeReleaseSpinLock(&pipe->Lock, irql);
  return STATUS_PENDING;
}

NTSTATUS PipePutForZk(PipeElement *Element) {
  NTSTATUS status = PipePut(Element);
  if (!NT_SUCCESS(status)) {
    PipeCompleteElement(Element);
  }
  return status;
}
