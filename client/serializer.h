// The request serializer: runs a port's opens, closes and control frames one at a time, in arrival
// order, whichever of the port's devices they came through.
//
// An item finishes on its starter's thread or from the completion of a request that went down. The
// next one then starts in the finisher's context, at whatever IRQL that is; a run of items that
// finish at once is a loop on one stack, not a nest of calls.
#pragma once

#include "platform/kernel.h"

struct RequestSerializer;
struct SerializerItem;

using SerializerStart = NTSTATUS (*)(RequestSerializer *Serializer, SerializerItem *Item);
using SerializerQueued = NTSTATUS (*)(SerializerItem *Item);
using SerializerFinish = void (*)(PDEVICE_OBJECT Device, PIRP Irp);

// A start routine leaves the request's final status in it, records FinishDevice and FinishRequest
// before anything can finish the item, sets Finish to null when it hands the request to another
// driver, and causes exactly one FinishSerializerItem.
struct SerializerItem {
  LIST_ENTRY Link;
  SerializerStart Start;
  SerializerQueued Queued;
  PIRP Request;
  SerializerFinish Finish;
  PDEVICE_OBJECT FinishDevice;
  PIRP FinishRequest;
};

struct RequestSerializer {
  LIST_ENTRY Items GUARDED_BY(Lock);  // waiting, oldest first
  KSPIN_LOCK Lock;
  SerializerItem *Current GUARDED_BY(Lock);
  PDEVICE_OBJECT Owner;                          // the filter device
  ULONG StartsOnStack GUARDED_BY(Lock);          // starts that some thread is inside of
  SerializerItem *LeftToStart GUARDED_BY(Lock);  // the current item, to be started by one of them
};

// "Runs as the port's serializer item": what the open count, mode, state flags, proxy state and
// message level require. A name for the lock analysis, never addressed.
struct CAPABILITY("role") SERIALIZER_ROLE {
  char Unused;
};
extern SERIALIZER_ROLE SerializerRole;

// Said by the routines that run as the current item, or complete its request.
inline void RunningAsSerializerItem() ASSERT_HELD(SerializerRole);
inline void RunningAsSerializerItem() {
}

void InitSerializer(RequestSerializer *Serializer, PDEVICE_OBJECT FilterDevice);

// STATUS_INSUFFICIENT_RESOURCES and no item when the pool is exhausted. IRQL <= DISPATCH_LEVEL.
NTSTATUS CreateSerializerItem(SerializerStart Start, SerializerQueued Queued,
                              SerializerFinish Finish, PIRP Request, SerializerItem **Item);

// Starts the item now and returns its start routine's status, or queues it and returns
// STATUS_PENDING. The request's reference is held on entry; item, request and port may be gone
// afterwards.
NTSTATUS SubmitSerializerItem(RequestSerializer *Serializer, SerializerItem *Item);

// Creates and submits an item with the routines below; on failure completes the request. The
// dispatch routine returns the result.
NTSTATUS SubmitSerialized(PDEVICE_OBJECT Device, PIRP Irp, SerializerStart Start);

// Ends the current item and starts the next. Entered with Lock held, taken at Irql; releases it.
// Item, request and, without a reference of the caller's own, port may be gone afterwards.
NTSTATUS FinishSerializerItem(RequestSerializer *Serializer, KIRQL Irql) RELEASE(Serializer->Lock);

// Records what the finish routine will be given.
void RecordSerializerFinish(RequestSerializer *Serializer, SerializerItem *Item,
                            PDEVICE_OBJECT Device, PIRP Irp);

// The queued and finish routines of every user.
NTSTATUS MarkSerializedPending(SerializerItem *Item);
void CompleteSerializedRequest(PDEVICE_OBJECT Device, PIRP Irp);
