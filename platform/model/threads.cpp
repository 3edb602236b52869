// System threads as drivers start and end them.
#include <cstdio>

#include "platform/model/executor.h"
#include "platform/model/faults.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/scheduler.h"
#include "platform/model/stack_depth.h"
#include "platform/model/thread_object.h"
#include "platform/model/unload.h"
#include "platform/model/verifier.h"

// A handle that is none of the kernel's stands in the table of the process that happens to run:
// whose user's it is may close it, or open it to something else.
static bool KernelHandleWanted(const OBJECT_ATTRIBUTES *Attributes) {
  bool kernel = Attributes && (Attributes->Attributes & OBJ_KERNEL_HANDLE);
  if (!kernel && ThreadSelf()->OfUser && VerifierOn()) {
    VerifierStop("handle.of-user", nullptr,
                 "PsCreateSystemThread without OBJ_KERNEL_HANDLE in a user's process");
  }
  return kernel;
}

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE, PCLIENT_ID, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext) {
  VerifierRequireIrql(PASSIVE_LEVEL, "PsCreateSystemThread");
  bool kernel = KernelHandleWanted(ObjectAttributes);
  if (FaultHere(FaultThread)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  char name[24];
  snprintf(name, sizeof name, "system %u", static_cast<unsigned>(FaultCount(FaultThread)));
  auto body = [StartRoutine, StartContext] {
    StackEnterDriver();
    StartRoutine(StartContext);
    PsTerminateSystemThread(STATUS_SUCCESS);
  };
  PKTHREAD thread = ThreadCreate(name, body, FiberBytes);
  thread->System = true;
  thread->Maker = thread->Acting = ThreadSelf()->Acting;
  *ThreadHandle = ObjectOpenHandle(thread, nullptr, kernel);
  ThreadLaunch(thread);
  ObjectRelease(thread);
  // The new thread may run before its creator goes on.
  SwitchPoint(SwitchReason::Call, thread);
  return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS) {
  if (!ThreadSelf()->System) {
    VerifierStop("thread.not-system", nullptr, "\"%s\" is not a system thread", ThreadSelf()->Name);
  }
  VerifierRequireNoLocks("PsTerminateSystemThread", nullptr);
  VerifierRequireIrql(PASSIVE_LEVEL, "PsTerminateSystemThread");
  ThreadEnd();
}

// Frames of others are looked at only where those stand still.
static bool RunsCodeOf(const _KTHREAD *Thread, PDRIVER_OBJECT Driver) {
  if (Thread->Maker == Driver) {
    return true;
  }
  if (ThreadsInUse) {
    return false;
  }
  bool runs = Thread->Acting == Driver;
  for (const DispatchFrame *frame = Thread->Dispatching; frame && !runs; frame = frame->Outer) {
    runs = frame->Driver == Driver || frame->ActedBefore == Driver;
  }
  return runs;
}

void ThreadsCheckUnloaded(PDRIVER_OBJECT Driver) {
  Guard guard(DispatcherMutex);
  for (PLIST_ENTRY entry = ThreadList.Flink; entry != &ThreadList; entry = entry->Flink) {
    const _KTHREAD *thread = CONTAINING_RECORD(entry, _KTHREAD, AllLink);
    if (RunsCodeOf(thread, Driver)) {
      VerifierStop("unload.running", nullptr, "%s is unloaded while \"%s\" runs its code",
                   DriverText(Driver).c_str(), thread->Name);
    }
  }
}

PKTHREAD KeGetCurrentThread(void) {
  return ThreadSelf();
}

NTSTATUS ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
  VerifierRequireIrql(PASSIVE_LEVEL, "ZwWaitForSingleObject");
  void *thread = ObjectFromHandle(Handle, ObjectKind::Thread);
  if (thread == nullptr) {
    if (VerifierOn()) {
      VerifierStop("handle.bad", nullptr, "ZwWaitForSingleObject: %p is no thread's handle",
                   Handle);
    }
    return STATUS_INVALID_HANDLE;
  }
  // The handle may be closed by another thread meanwhile.
  ObfReferenceObject(thread);
  NTSTATUS status = KeWaitForSingleObject(thread, Executive, KernelMode, Alertable, Timeout);
  ObjectRelease(thread);
  return status;
}
