#include "pipes/pending_reads.h"

#include "client/forward.h"
#include "driver/extension.h"
#include "driver/requests.h"

static PipeElement *ElementOf(PIRP Irp) {
  return CONTAINING_RECORD(Irp->Tail.Overlay.ListEntry.Flink, PipeElement, Links);
}

static void SetResult(PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = 0;
}

NTSTATUS PipeSubmitRead(PipeElement *Element) {
  Pipe *pipe = Element->Pipe;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pipe->Lock);
  return PipeSubmitReadLocked(pipe, Element, irql);
}

NTSTATUS PipeSubmitReadLocked(Pipe *Pipe, PipeElement *Element, KIRQL Irql) {
  PIRP request = Element->Request;
  KIRQL cancelIrql;
  IoAcquireCancelSpinLock(&cancelIrql);
  request->IoStatus.Information = 0;
  if (request->Cancel) {
    request->IoStatus.Status = STATUS_CANCELLED;
    IoReleaseCancelSpinLock(cancelIrql);
    KeReleaseSpinLock(&Pipe->Lock, Irql);
    PipeCompleteElement(Element);
    return STATUS_CANCELLED;
  }
  if (Pipe->CurrentReader == nullptr) {
    Pipe->CurrentReader = Element;
    IoSetCancelRoutine(request, PipeCancelCurrent);
    IoReleaseCancelSpinLock(cancelIrql);
    return PipePump(Pipe, PIPE_READER_SIDE, Irql);
  }
  IoSetCancelRoutine(request, PipeCancelQueued);
  IoMarkIrpPending(request);
  Element->Flags |= ELEMENT_PENDING;
  InsertTailList(&Pipe->ReaderQueue, &Element->Links);
  IoReleaseCancelSpinLock(cancelIrql);
  KeReleaseSpinLock(&Pipe->Lock, Irql);
  return STATUS_PENDING;
}

// Once the cancel spin lock is dropped the pump, a flush or a hand-down may finish the request, and
// with it element and port may go; their addresses may even be used again. The port is held from
// under the cancel spin lock on, which all of them take before they free anything, and the element
// is touched only when it is still the pipe's current one, with this request, cancelled.
void PipeCancelCurrent(PDEVICE_OBJECT Device, PIRP Irp) {
  UNREFERENCED_PARAMETER(Device);
  PipeElement *element = ElementOf(Irp);
  Pipe *pipe = element->Pipe;
  PortExtension *port = element->Port;
  HoldPort(port);
  IoReleaseCancelSpinLock(Irp->CancelIrql);

  LIST_ENTRY completed;
  InitializeListHead(&completed);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pipe->Lock);
  if (element == pipe->CurrentReader && element->Request == Irp && Irp->Cancel) {
    SetResult(Irp, STATUS_CANCELLED);
    InsertTailList(&completed, &element->Links);
    PipePromoteNext(pipe, &pipe->CurrentReader, &pipe->ReaderQueue, &completed);
  }
  KeReleaseSpinLock(&pipe->Lock, irql);
  PipeCompleteList(&completed);
  ReleasePort(port);
}

void PipeCancelQueued(PDEVICE_OBJECT Device, PIRP Irp) {
  UNREFERENCED_PARAMETER(Device);
  PipeElement *element = ElementOf(Irp);
  SetResult(Irp, STATUS_CANCELLED);
  RemoveEntryList(&element->Links);
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  PipeCompleteElement(element);
}

static void TakeOut(PipeElement *Element, NTSTATUS Status, PLIST_ENTRY Taken)
    REQUIRES(CancelSpinLock) {
  if (Element->Request != nullptr) {
    IoSetCancelRoutine(Element->Request, nullptr);
    SetResult(Element->Request, Status);
  }
  InsertTailList(Taken, &Element->Links);
}

static void TakeOutQueue(PLIST_ENTRY Queue, NTSTATUS Status, PLIST_ENTRY Taken)
    REQUIRES(CancelSpinLock) {
  while (!IsListEmpty(Queue)) {
    TakeOut(CONTAINING_RECORD(RemoveHeadList(Queue), PipeElement, Links), Status, Taken);
  }
}

void PipeFlush(Pipe *Pipe, NTSTATUS Status) {
  LIST_ENTRY taken;
  InitializeListHead(&taken);
  KIRQL cancelIrql;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Pipe->Lock);
  IoAcquireCancelSpinLock(&cancelIrql);
  if (Pipe->CurrentReader != nullptr) {
    TakeOut(Pipe->CurrentReader, Status, &taken);
    Pipe->CurrentReader = nullptr;
  }
  if (Pipe->CurrentWriter != nullptr) {
    TakeOut(Pipe->CurrentWriter, Status, &taken);
    Pipe->CurrentWriter = nullptr;
  }
  TakeOutQueue(&Pipe->ReaderQueue, Status, &taken);
  TakeOutQueue(&Pipe->WriterQueue, Status, &taken);
  IoReleaseCancelSpinLock(cancelIrql);
  KeReleaseSpinLock(&Pipe->Lock, irql);
  PipeCompleteList(&taken);
}

// Takes the request off its element; the element then frees only itself.
static void Detach(PipeElement *Element, PLIST_ENTRY Elements, PLIST_ENTRY Requests)
    REQUIRES(CancelSpinLock) {
  PIRP request = Element->Request;
  IoSetCancelRoutine(request, nullptr);
  Element->Request = nullptr;
  InsertTailList(Requests, &request->Tail.Overlay.ListEntry);
  InsertTailList(Elements, &Element->Links);
}

static void HandDown(Pipe *Pipe, PIRP Irp) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoMarkIrpPending(Irp);
  ForwardToLower(PortOf(Pipe->Device)->Header.LowerDevice, Irp, Pipe->Device);
}

void PipeHandDownReads(Pipe *Pipe) {
  LIST_ENTRY elements;
  LIST_ENTRY requests;
  InitializeListHead(&elements);
  InitializeListHead(&requests);
  KIRQL cancelIrql;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Pipe->Lock);
  IoAcquireCancelSpinLock(&cancelIrql);
  if (Pipe->CurrentReader != nullptr) {
    Detach(Pipe->CurrentReader, &elements, &requests);
    Pipe->CurrentReader = nullptr;
  }
  while (!IsListEmpty(&Pipe->ReaderQueue)) {
    PLIST_ENTRY link = RemoveHeadList(&Pipe->ReaderQueue);
    Detach(CONTAINING_RECORD(link, PipeElement, Links), &elements, &requests);
  }
  IoReleaseCancelSpinLock(cancelIrql);
  KeReleaseSpinLock(&Pipe->Lock, irql);

  PipeCompleteList(&elements);
  while (!IsListEmpty(&requests)) {
    HandDown(Pipe, CONTAINING_RECORD(RemoveHeadList(&requests), IRP, Tail.Overlay.ListEntry));
  }
}
