#include "platform/model/objects.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "platform/model/address_map.h"
#include "platform/model/area.h"
#include "platform/model/causality.h"
#include "platform/model/dispatcher.h"
#include "platform/model/executor.h"
#include "platform/model/faults.h"
#include "platform/model/guard.h"
#include "platform/model/locks.h"
#include "platform/model/objects_internal.h"
#include "platform/model/scheduler.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"
#include "platform/model/verifier_state.h"

static constexpr int DeadByte = 0xDE;
static constexpr size_t MostDead = 4096;

struct alignas(16) ObjectHeader {
  AddressNode Node;  // by the body's address
  LIST_ENTRY Link;
  ObjectKind Kind;
  bool Dying;   // its delete routine has been called
  bool Dead;    // kept, forbidden, in the graveyard
  bool Hidden;  // not counted
  int64_t References;
  uint64_t Handles;  // each has a reference
  uint64_t Kept;     // references of the model's own
  ObjectDelete Delete;
  size_t Bytes;
};

struct HandleEntry {
  void *Body;
  ObjectLastHandle OnLastHandle;
  bool Kernel;
};

static ModelMutex objectMutex;
static AddressMap objectMap;
static LIST_ENTRY objects = {&objects, &objects};        // live
static LIST_ENTRY graveyard = {&graveyard, &graveyard};  // dead, oldest first
static size_t deadCount;
static std::unordered_map<uint64_t, HandleEntry> handles;  // open ones, by value
static uint64_t lastHandle;

static const char *KindText(ObjectKind kind) {
  static const char *const names[] = {"driver", "device", "file", "thread", "key"};
  return names[static_cast<uint32_t>(kind)];
}

static ObjectHeader *HeaderOf(void *body) {
  return static_cast<ObjectHeader *>(body) - 1;
}

static void *BodyOf(ObjectHeader *header) {
  return header + 1;
}

// Under objectMutex; null for what never was an object.
static ObjectHeader *Find(const void *body) {
  AddressNode *node = AddressFind(&objectMap, body);
  return node ? CONTAINING_RECORD(node, ObjectHeader, Node) : nullptr;
}

static ObjectHeader *Require(const void *body, const char *service) {
  ObjectHeader *header = Find(body);
  if (!header) {
    VerifierStop("object.foreign", body, "%s: there is no object at %p", service, body);
  }
  if (header->Dead) {
    VerifierStop("object.dead", body, "%s: the %s object at %p has been deleted", service,
                 KindText(header->Kind), body);
  }
  return header;
}

void *ObjectCreate(ObjectKind Kind, size_t Bytes, ObjectDelete Delete) {
  void *memory = calloc(1, sizeof(ObjectHeader) + Bytes);
  if (!memory) {
    abort();
  }
  ObjectHeader *header = static_cast<ObjectHeader *>(memory);
  header->Kind = Kind;
  header->References = 1;
  header->Delete = Delete;
  header->Bytes = Bytes;
  Guard guard(objectMutex);
  AddressAdd(&objectMap, &header->Node, BodyOf(header));
  InsertTailList(&objects, &header->Link);
  return BodyOf(header);
}

bool ObjectIs(const void *Body, ObjectKind Kind) {
  Guard guard(objectMutex);
  ObjectHeader *header = Find(Body);
  return header && !header->Dead && header->Kind == Kind;
}

int64_t ObjectReferences(const void *Body) {
  Guard guard(objectMutex);
  return Require(Body, "ObjectReferences")->References;
}

uint64_t ObjectCount(ObjectKind Kind) {
  Guard guard(objectMutex);
  uint64_t count = 0;
  for (PLIST_ENTRY entry = objects.Flink; entry != &objects; entry = entry->Flink) {
    ObjectHeader *header = CONTAINING_RECORD(entry, ObjectHeader, Link);
    count += header->Kind == Kind && !header->Hidden;
  }
  return count;
}

void ObjectHide(const void *Body) {
  Guard guard(objectMutex);
  Require(Body, "ObjectHide")->Hidden = true;
}

// --- references --------------------------------------------------------------------------------

LONG_PTR ObfReferenceObject(PVOID Object) {
  VerifierRequireIrql(DISPATCH_LEVEL, "ObReferenceObject");
  HistoryNote("reference", Object);
  CausalTouch(HeaderOf(Object), Access::Add);
  Guard guard(objectMutex);
  return ++Require(Object, "ObReferenceObject")->References;
}

static void Free(ObjectHeader *header) {
  RemoveEntryList(&header->Link);
  AddressRemove(&objectMap, &header->Node);
  BytesAllow(BodyOf(header), header->Bytes);
  free(header);
}

// A dead object stays where it is for long, unreadable, so that later uses of it are seen.
static void Bury(ObjectHeader *header) {
  void *body = BodyOf(header);
  CausalCease(header, sizeof *header + header->Bytes);
  if (VerifierEnabled) {
    LockLeaveMemory(body, header->Bytes);
    if (WaitsWithin(body, header->Bytes)) {
      VerifierStop("dispatcher.freed-waited", body, "a thread waits within a deleted %s object",
                   KindText(header->Kind));
    }
  }
  Guard guard(objectMutex);
  if (VerifierEnabled) {
    header->Dead = true;
    memset(body, DeadByte, header->Bytes);
    BytesForbid(body, header->Bytes);
    RemoveEntryList(&header->Link);
    InsertTailList(&graveyard, &header->Link);
    if (++deadCount > MostDead) {
      --deadCount;
      Free(CONTAINING_RECORD(graveyard.Flink, ObjectHeader, Link));
    }
  } else {
    Free(header);
  }
}

int64_t ObjectRelease(void *Object) {
  HistoryNote("dereference", Object);
  SyncRelease(Object);
  int64_t left;
  {
    Guard guard(objectMutex);
    ObjectHeader *header = Require(Object, "ObDereferenceObject");
    left = --header->References;
    CausalTouch(header, left > 0 ? Access::Add : Access::Write);
    if (VerifierEnabled && left < static_cast<int64_t>(header->Kept + header->Handles)) {
      VerifierStop(
          "object.over-dereferenced", Object,
          "ObDereferenceObject: the %s object at %p has %lld references left, and %llu are "
          "the system's",
          KindText(header->Kind), Object, static_cast<long long>(left),
          static_cast<unsigned long long>(header->Kept + header->Handles));
    }
    if (left > 0 || header->Dying) {
      return left;
    }
    header->Dying = true;
  }
  SyncAcquire(Object);
  ObjectHeader *header = HeaderOf(Object);
  if (header->Delete) {
    header->Delete(Object);
  }
  Bury(header);
  return left;
}

LONG_PTR ObfDereferenceObject(PVOID Object) {
  VerifierRequireIrql(DISPATCH_LEVEL, "ObDereferenceObject");
  SwitchPoint(SwitchReason::Dereference, Object);
  int64_t left = ObjectRelease(Object);
  // The object may be gone by now; only its address is used.
  SwitchPoint(SwitchReason::Dereferenced, Object);
  return left;
}

void ObjectKeep(void *Body) {
  Guard guard(objectMutex);
  ++Require(Body, "ObjectKeep")->Kept;
}

void ObjectLetGo(void *Body) {
  {
    Guard guard(objectMutex);
    --Require(Body, "ObjectLetGo")->Kept;
  }
  ObfDereferenceObject(Body);
}

// --- handles -----------------------------------------------------------------------------------

// A value is never given out twice.
static HandleEntry *FindHandle(HANDLE handle) {
  auto found = handles.find(reinterpret_cast<uint64_t>(handle));
  bool good = found != handles.end() && (found->second.Kernel || !ThreadSelf()->OfUser);
  return good ? &found->second : nullptr;
}

HANDLE ObjectOpenHandle(void *Body, ObjectLastHandle OnLastHandle, bool Kernel) {
  Guard guard(objectMutex);
  ObjectHeader *header = Require(Body, "ObjectOpenHandle");
  ++header->References;
  ++header->Handles;
  lastHandle += 4;
  handles[lastHandle] = {Body, OnLastHandle, Kernel};
  return reinterpret_cast<HANDLE>(lastHandle);
}

void *ObjectFromHandle(HANDLE Handle, ObjectKind Kind) {
  CausalTouch(Handle, Access::Read);
  Guard guard(objectMutex);
  HandleEntry *entry = FindHandle(Handle);
  return entry && HeaderOf(entry->Body)->Kind == Kind ? entry->Body : nullptr;
}

uint64_t ObjectHandleCount(const void *Body) {
  Guard guard(objectMutex);
  return Require(Body, "ObjectHandleCount")->Handles;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE, KPROCESSOR_MODE,
                                   PVOID *Object, PVOID) {
  VerifierRequireIrql(PASSIVE_LEVEL, "ObReferenceObjectByHandle");
  *Object = nullptr;
  if (FaultHere(FaultReference)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  CausalTouch(Handle, Access::Read);
  Guard guard(objectMutex);
  HandleEntry *entry = FindHandle(Handle);
  if (!entry) {
    if (VerifierEnabled) {
      VerifierStop("handle.bad", nullptr, "ObReferenceObjectByHandle: %p is no handle", Handle);
    }
    return STATUS_INVALID_HANDLE;
  }
  ++HeaderOf(entry->Body)->References;
  CausalTouch(HeaderOf(entry->Body), Access::Add);
  *Object = entry->Body;
  return STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE Handle) {
  VerifierRequireIrql(PASSIVE_LEVEL, "ZwClose");
  HandleEntry closed = {};
  bool last = false;
  CausalTouch(Handle, Access::Write);
  {
    Guard guard(objectMutex);
    HandleEntry *entry = FindHandle(Handle);
    if (entry) {
      closed = *entry;
      handles.erase(reinterpret_cast<uint64_t>(Handle));
      last = --HeaderOf(closed.Body)->Handles == 0;
      CausalTouch(&HeaderOf(closed.Body)->Handles, last ? Access::Write : Access::Add);
    }
  }
  if (!closed.Body) {
    if (VerifierEnabled) {
      VerifierStop("handle.bad", nullptr, "ZwClose: %p is no handle", Handle);
    }
    return STATUS_INVALID_HANDLE;
  }
  if (last && closed.OnLastHandle) {
    closed.OnLastHandle(closed.Body);
  }
  ObfDereferenceObject(closed.Body);
  return STATUS_SUCCESS;
}

// --- the area ----------------------------------------------------------------------------------

static void Boot() {
  InitializeListHead(&objects);
  InitializeListHead(&graveyard);
  deadCount = 0;
  handles.clear();
  lastHandle = 0;
}

static void Check() {
  for (const auto &[value, entry] : handles) {
    VerifierStop("leak.handle", entry.Body, "handle %#llx of the %s object at %p is open",
                 static_cast<unsigned long long>(value), KindText(HeaderOf(entry.Body)->Kind),
                 entry.Body);
  }
  for (PLIST_ENTRY entry = objects.Flink; entry != &objects; entry = entry->Flink) {
    ObjectHeader *header = CONTAINING_RECORD(entry, ObjectHeader, Link);
    if (!header->Hidden) {
      VerifierStop("leak.object", BodyOf(header), "the %s object at %p has %lld references",
                   KindText(header->Kind), BodyOf(header),
                   static_cast<long long>(header->References));
    }
  }
}

// Delete routines other than the threads' reach into areas that are shut down already; what those
// objects own belongs to their areas.
static void Shutdown() {
  while (!IsListEmpty(&objects)) {
    ObjectHeader *header = CONTAINING_RECORD(objects.Flink, ObjectHeader, Link);
    if (header->Kind == ObjectKind::Thread && !header->Dying) {
      header->Delete(BodyOf(header));
    }
    Free(header);
  }
  while (!IsListEmpty(&graveyard)) {
    Free(CONTAINING_RECORD(graveyard.Flink, ObjectHeader, Link));
  }
  handles.clear();
}

const ModelArea ObjectArea = {Boot, Check, Shutdown};
