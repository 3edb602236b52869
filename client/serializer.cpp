#include "client/serializer.h"

#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"

void InitSerializer(RequestSerializer *Serializer, PDEVICE_OBJECT FilterDevice) {
  InitializeListHead(&Serializer->Items);
  KeInitializeSpinLock(&Serializer->Lock);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
  Serializer->Current = nullptr;
  Serializer->StartsOnStack = 0;
  Serializer->LeftToStart = nullptr;
  KeReleaseSpinLock(&Serializer->Lock, irql);
  Serializer->Owner = FilterDevice;
}

NTSTATUS CreateSerializerItem(SerializerStart Start, SerializerQueued Queued,
                              SerializerFinish Finish, PIRP Request, SerializerItem **Item) {
  *Item = nullptr;
  auto *item = static_cast<SerializerItem *>(
      ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(SerializerItem), POOL_SERIALIZER_ITEM));
  if (item == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  InitializeListHead(&item->Link);
  item->Start = Start;
  item->Queued = Queued;
  item->Request = Request;
  item->Finish = Finish;
  item->FinishDevice = nullptr;
  item->FinishRequest = nullptr;
  *Item = item;
  return STATUS_SUCCESS;
}

// Starts the item, and after it whatever finishers left to this stack. Entered with StartsOnStack
// counted and an extra port reference held, both given back here: an item's finish may drop the
// last reference of its request, and the loop looks at the serializer once more. Returns the first
// item's status.
static NTSTATUS RunStarts(RequestSerializer *Serializer, SerializerItem *Item) {
  PortExtension *port = PortOf(Serializer->Owner);
  NTSTATUS status = Item->Start(Serializer, Item);
  for (;;) {
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
    SerializerItem *next = Serializer->LeftToStart;
    Serializer->LeftToStart = nullptr;
    if (next == nullptr) {
      --Serializer->StartsOnStack;
    }
    KeReleaseSpinLock(&Serializer->Lock, irql);
    if (next == nullptr) {
      break;
    }
    next->Start(Serializer, next);
  }
  ReleasePort(port);
  return status;
}

NTSTATUS SubmitSerializerItem(RequestSerializer *Serializer, SerializerItem *Item) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
  if (Serializer->Current != nullptr) {
    // Marked before the item can be seen, so before the dispatch routine returns STATUS_PENDING.
    Item->Queued(Item);
    InsertTailList(&Serializer->Items, &Item->Link);
    KeReleaseSpinLock(&Serializer->Lock, irql);
    return STATUS_PENDING;
  }
  Serializer->Current = Item;
  ++Serializer->StartsOnStack;
  KeReleaseSpinLock(&Serializer->Lock, irql);
  HoldPort(PortOf(Serializer->Owner));
  return RunStarts(Serializer, Item);
}

NTSTATUS SubmitSerialized(PDEVICE_OBJECT Device, PIRP Irp, SerializerStart Start) {
  SerializerItem *item;
  NTSTATUS status =
      CreateSerializerItem(Start, MarkSerializedPending, CompleteSerializedRequest, Irp, &item);
  if (!NT_SUCCESS(status)) {
    return CompleteRequest(Device, Irp, status, 0);
  }
  return SubmitSerializerItem(&PortOf(Device)->Serializer, item);
}

// The next item becomes the current one. A start on some stack, perhaps this one, looks for what
// was left to it when it returns; without one the item is returned, to be started here.
static SerializerItem *TakeNext(RequestSerializer *Serializer) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
  SerializerItem *next = nullptr;
  if (!IsListEmpty(&Serializer->Items)) {
    next = CONTAINING_RECORD(RemoveHeadList(&Serializer->Items), SerializerItem, Link);
  }
  Serializer->Current = next;
  if (next != nullptr && Serializer->StartsOnStack > 0) {
    Serializer->LeftToStart = next;
    next = nullptr;
  } else if (next != nullptr) {
    ++Serializer->StartsOnStack;
  }
  KeReleaseSpinLock(&Serializer->Lock, irql);
  return next;
}

// The item stays the current one until its finish routine has run: what comes meanwhile waits, so
// that no stack can complete a request before the one that was executed before it.
NTSTATUS FinishSerializerItem(RequestSerializer *Serializer, KIRQL Irql) {
  SerializerItem *finished = Serializer->Current;
  KeReleaseSpinLock(&Serializer->Lock, Irql);
  // The finish routine may drop the last reference of the item's request.
  PortExtension *port = PortOf(Serializer->Owner);
  HoldPort(port);
  if (finished->Finish != nullptr) {
    finished->Finish(finished->FinishDevice, finished->FinishRequest);
  }
  ExFreePoolWithTag(finished, POOL_SERIALIZER_ITEM);
  SerializerItem *next = TakeNext(Serializer);
  if (next != nullptr) {
    return RunStarts(Serializer, next);
  }
  ReleasePort(port);
  return STATUS_SUCCESS;
}

void RecordSerializerFinish(RequestSerializer *Serializer, SerializerItem *Item,
                            PDEVICE_OBJECT Device, PIRP Irp) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
  Item->FinishDevice = Device;
  Item->FinishRequest = Irp;
  KeReleaseSpinLock(&Serializer->Lock, irql);
}

NTSTATUS MarkSerializedPending(SerializerItem *Item) {
  IoMarkIrpPending(Item->Request);
  return STATUS_SUCCESS;
}

void CompleteSerializedRequest(PDEVICE_OBJECT Device, PIRP Irp) {
  CompleteAdmitted(Device, Irp);
}
