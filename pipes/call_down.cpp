#include "pipes/call_down.h"

#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "pipes/proxy_read.h"

CallDownEntry *CallDownMakeEntry(CallDownQueue *Queue, PDEVICE_OBJECT TargetDevice, PIRP Irp) {
  auto *entry = static_cast<CallDownEntry *>(
      ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(CallDownEntry), POOL_CALL_DOWN));
  if (entry == nullptr) {
    // Free for the taking: the packet that used it last has come back, and entries are given back
    // before their packet goes down.
    entry = &Queue->Reserve;
  }
  InitializeListHead(&entry->Links);
  entry->TargetDevice = TargetDevice;
  entry->Irp = Irp;
  return entry;
}

static void GiveBackEntry(CallDownQueue *Queue, CallDownEntry *Entry) {
  if (Entry != &Queue->Reserve) {
    ExFreePoolWithTag(Entry, POOL_CALL_DOWN);
  }
}

NTSTATUS CallDownPost(CallDownQueue *Queue, CallDownEntry *Entry) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Queue->Lock);
  BOOLEAN refused = Queue->ShuttingDown;
  if (!refused) {
    InsertTailList(&Queue->Entries, &Entry->Links);
    // Under the lock: a thread that ends on its own may take the entry back as soon as the lock is
    // free, and then nothing keeps the port until this call returns.
    KeReleaseSemaphore(&Queue->WorkSemaphore, IO_NO_INCREMENT, 1, FALSE);
  }
  KeReleaseSpinLock(&Queue->Lock, irql);
  if (refused) {
    GiveBackEntry(Queue, Entry);
    return STATUS_DELETE_PENDING;
  }
  return STATUS_SUCCESS;
}

static CallDownEntry *TakeEntry(CallDownQueue *Queue, BOOLEAN Last) {
  CallDownEntry *entry = nullptr;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Queue->Lock);
  if (Last) {
    Queue->ShuttingDown = TRUE;
  }
  if (!IsListEmpty(&Queue->Entries)) {
    entry = CONTAINING_RECORD(RemoveHeadList(&Queue->Entries), CallDownEntry, Links);
  }
  KeReleaseSpinLock(&Queue->Lock, irql);
  return entry;
}

static void PassOn(CallDownQueue *Queue) {
  CallDownEntry *entry = TakeEntry(Queue, FALSE);
  if (entry == nullptr) {
    return;
  }
  PDEVICE_OBJECT target = entry->TargetDevice;
  PIRP irp = entry->Irp;
  // Before the call: the packet may come back and be posted again while it is still under way.
  GiveBackEntry(Queue, entry);
  IofCallDriver(target, irp);
}

// The thread cannot go on. What it was to send is told to the engine, which would otherwise count
// on a read that nobody sends.
static void EndOnFailedWait(PortExtension *Port, NTSTATUS Wait) {
  CallDownQueue *queue = &Port->CallDown;
  CallDownEntry *entry = TakeEntry(queue, TRUE);
  if (entry != nullptr) {
    GiveBackEntry(queue, entry);
    ProxyReadNotSent(&Port->Engine);
  }
  ReportPortEvent(DriverWide.DriverObject, queue->Device, 0, EVENT_INTERNAL_THREAD_WAIT,
                  EVENT_INTERNAL, Wait, Port);
  PsTerminateSystemThread(STATUS_UNSUCCESSFUL);
}

static void CallDownThread(PVOID Context) {
  auto *port = static_cast<PortExtension *>(Context);
  CallDownQueue *queue = &port->CallDown;
  PVOID objects[2] = {&queue->WorkSemaphore, &queue->StopEvent};
  for (;;) {
    // Both signalled: the semaphore is reported first, so posted work comes before the end.
    NTSTATUS wait = KeWaitForMultipleObjects(2, objects, WaitAny, Executive, KernelMode, FALSE,
                                             nullptr, nullptr);
    if (wait != STATUS_WAIT_0 && wait != STATUS_WAIT_1) {
      EndOnFailedWait(port, wait);
    }
    PassOn(queue);
    if (wait == STATUS_WAIT_1) {
      PsTerminateSystemThread(STATUS_SUCCESS);
    }
  }
}

static void RefusePosts(CallDownQueue *Queue) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Queue->Lock);
  Queue->ShuttingDown = TRUE;
  KeReleaseSpinLock(&Queue->Lock, irql);
}

// Takes a reference on the thread behind the handle and closes the handle. A thread that cannot be
// referenced is ended first: it must not outlive the record it runs on.
static NTSTATUS ReferenceThread(CallDownQueue *Queue, HANDLE Handle) {
  PVOID thread;
  NTSTATUS status =
      ObReferenceObjectByHandle(Handle, THREAD_ALL_ACCESS, nullptr, KernelMode, &thread, nullptr);
  if (NT_SUCCESS(status)) {
    Queue->Thread = static_cast<PKTHREAD>(thread);
  } else {
    RefusePosts(Queue);
    KeSetEvent(&Queue->StopEvent, IO_NO_INCREMENT, FALSE);
    ZwWaitForSingleObject(Handle, FALSE, nullptr);
  }
  ZwClose(Handle);
  return status;
}

NTSTATUS CallDownInitialize(PDEVICE_OBJECT FilterDevice, CallDownQueue *Queue) {
  PortExtension *port = PortOf(FilterDevice);
  RtlZeroMemory(Queue, sizeof(*Queue));
  Queue->Device = FilterDevice;
  KeInitializeSpinLock(&Queue->Lock);
  KeInitializeEvent(&Queue->StopEvent, SynchronizationEvent, FALSE);
  KeInitializeSemaphore(&Queue->WorkSemaphore, 0, 1);
  InitializeListHead(&Queue->Entries);
  HANDLE handle;
  NTSTATUS status = PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                         CallDownThread, port);
  if (NT_SUCCESS(status)) {
    status = ReferenceThread(Queue, handle);
  }
  if (!NT_SUCCESS(status)) {
    ReportPortEvent(DriverWide.DriverObject, FilterDevice, 0, static_cast<ULONG>(status),
                    EVENT_NO_THREAD, STATUS_SUCCESS, port);
  }
  return status;
}

NTSTATUS CallDownShutdown(CallDownQueue *Queue) {
  RefusePosts(Queue);
  PKTHREAD thread = Queue->Thread;
  if (thread == nullptr) {
    return STATUS_SUCCESS;
  }
  KeSetEvent(&Queue->StopEvent, IO_NO_INCREMENT, FALSE);
  NTSTATUS status = KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
  ObDereferenceObject(thread);
  Queue->Thread = nullptr;
  return status;
}
