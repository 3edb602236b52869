// Counted kernel objects: drivers, devices, files, threads, keys. A header with the counts stands
// in front of every object's body; the object is deleted when both counts are zero.
#pragma once

#include <cstdint>

#include "platform/kernel.h"

enum class ObjectKind : uint32_t { Driver, Device, File, Thread, Key };

using ObjectDelete = void (*)(void *Body);

// A zeroed body of Bytes with one reference, which the caller holds. Delete runs once, when the
// last reference is gone, before the memory is freed; it may be null.
void *ObjectCreate(ObjectKind Kind, size_t Bytes, ObjectDelete Delete);
// Whether the address is the body of a live object of this kind.
bool ObjectIs(const void *Body, ObjectKind Kind);
int64_t ObjectReferences(const void *Body);
// Drops a reference and returns how many are left, at one go: no other thread runs in between.
int64_t ObjectRelease(void *Body);
// One of the references is the model's own from now on; it is given back by ObjectLetGo alone, and
// who drops it by ObDereferenceObject is stopped.
void ObjectKeep(void *Body);
void ObjectLetGo(void *Body);

// A handle holds a reference of its own. OnLastHandle (may be null) is called by ZwClose when the
// object's last handle is closed, before that handle's reference is dropped (file cleanup).
using ObjectLastHandle = void (*)(void *Body);
// A kernel handle is good in every process, another one only in the system's.
HANDLE ObjectOpenHandle(void *Body, ObjectLastHandle OnLastHandle, bool Kernel = true);
// The body behind a handle, not referenced; null for a bad handle.
void *ObjectFromHandle(HANDLE Handle, ObjectKind Kind);
uint64_t ObjectHandleCount(const void *Body);

// Live objects of a kind, for the check at the end of a run.
uint64_t ObjectCount(ObjectKind Kind);
