#include "client/pass_through.h"

#include "client/forward.h"
#include "client/gate.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"

// Lives from just before its request goes down until the request's completion or the cleanup of its
// device, whichever comes first.
struct PassThroughRecord {
  PIRP Request;
  LIST_ENTRY Link;  // in the device's PassThroughList, under the cancel spin lock
};

constexpr ULONG METHOD_MASK = 3;

NTSTATUS ClientDeviceControl(PDEVICE_OBJECT Device, PIRP Irp) {
  ULONG code = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl.IoControlCode;
  NTSTATUS refuseHeld =
      (code & METHOD_MASK) == METHOD_BUFFERED ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED;
  NTSTATUS status;
  if (ParkWhileHeld(Device, Irp, refuseHeld, &status)) {
    return status;
  }
  return SkipToLower(Device, Irp);
}

// The context may have been freed by a cleanup, so the record is found by its request.
static NTSTATUS PassThroughDone(PDEVICE_OBJECT Device, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Context);
  PassThroughRecord *found = nullptr;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  PLIST_ENTRY list = &HeaderOf(Device)->PassThroughList;
  for (PLIST_ENTRY link = list->Flink; link != list; link = link->Flink) {
    auto *record = CONTAINING_RECORD(link, PassThroughRecord, Link);
    if (record->Request == Irp) {
      RemoveEntryList(&record->Link);
      found = record;
      break;
    }
  }
  IoReleaseCancelSpinLock(irql);
  if (found != nullptr) {
    ExFreePoolWithTag(found, POOL_PASS_THROUGH);
  }
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  ReleaseRequest(Device, Irp);
  return STATUS_SUCCESS;
}

static NTSTATUS SendTracked(PDEVICE_OBJECT Device, PIRP Irp) {
  auto *record = static_cast<PassThroughRecord *>(
      ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(PassThroughRecord), POOL_PASS_THROUGH));
  if (record == nullptr) {
    return CompleteRequest(Device, Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
  }
  record->Request = Irp;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  InsertTailList(&HeaderOf(Device)->PassThroughList, &record->Link);
  IoReleaseCancelSpinLock(irql);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, PassThroughDone, record, TRUE, TRUE, TRUE);
  return IofCallDriver(LowerDeviceOf(Device), Irp);
}

NTSTATUS DispatchDefault(PDEVICE_OBJECT Device, PIRP Irp) {
  if (HeaderOf(Device)->Kind == KIND_CONTROL) {
    NTSTATUS carried = Irp->IoStatus.Status;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return carried;
  }
  NTSTATUS status = AcquireRequest(Device, Irp);
  if (status == STATUS_PENDING) {
    return status;
  }
  if (status != STATUS_SUCCESS) {
    return CompleteRefused(Device, Irp);
  }
  if (ReadULongAcquire(&PortOf(Device)->Header.PnpState) == PNP_NEVER_STARTED) {
    return SkipToLower(Device, Irp);
  }
  return SendTracked(Device, Irp);
}

// Does what IoCancelIrp does, but with the lock that keeps the request alive already held: a listed
// request cannot pass its completion routine, which takes that lock to find its record. Returns
// without the lock; the analysis cannot see that a cancel routine releases it.
static void CancelTracked(PIRP Irp, KIRQL Irql) RELEASE(CancelSpinLock) ANALYSIS_OFF;
static void CancelTracked(PIRP Irp, KIRQL Irql) {
  Irp->Cancel = TRUE;
  Irp->CancelIrql = Irql;
  PDRIVER_CANCEL cancel = IoSetCancelRoutine(Irp, nullptr);
  if (cancel != nullptr) {
    cancel(IoGetCurrentIrpStackLocation(Irp)->DeviceObject, Irp);  // releases the lock
  } else {
    IoReleaseCancelSpinLock(Irql);
  }
}

void CancelPassThrough(PDEVICE_OBJECT Device) {
  PLIST_ENTRY list = &HeaderOf(Device)->PassThroughList;
  for (;;) {
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    if (IsListEmpty(list)) {
      IoReleaseCancelSpinLock(irql);
      return;
    }
    auto *record = CONTAINING_RECORD(RemoveHeadList(list), PassThroughRecord, Link);
    PIRP irp = record->Request;
    CancelTracked(irp, irql);
    ExFreePoolWithTag(record, POOL_PASS_THROUGH);
  }
}
