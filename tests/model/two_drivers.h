// Two small drivers for the tests of requests: a lower one with a named device, and a filter
// attached to it. What their dispatch routines do is set by each test.
#pragma once

#include <cstring>

#include "tests/model/model_run.h"

struct TwoDrivers {
  PDRIVER_OBJECT LowerDriver;
  PDRIVER_OBJECT UpperDriver;
  PDEVICE_OBJECT Lower;  // "\Device\Low"
  PDEVICE_OBJECT Upper;
};

// Of the current run.
inline TwoDrivers Two;
inline PDRIVER_DISPATCH OnLower;
inline PDRIVER_DISPATCH OnUpper;
// A packet held by the lower driver, marked pending.
inline PIRP Held;
inline unsigned CancelCalls;

struct Wide {
  explicit Wide(const char *Text) {
    size_t i = 0;
    for (; Text[i]; ++i) {
      Buffer[i] = static_cast<WCHAR>(Text[i]);
    }
    Buffer[i] = 0;
    RtlInitUnicodeString(&String, Buffer);
  }
  WCHAR Buffer[80];
  UNICODE_STRING String;
};

// The body under the deterministic executor, then under real threads.
inline void ExpectCleanOnBoth(const std::function<void()> &Body) {
  ExpectClean(Body);
  RunOptions threads;
  threads.Executor = ExecutorKind::Threads;
  ExpectClean(Body, threads);
}

inline NTSTATUS CompleteWith(PIRP Irp, NTSTATUS Status, ULONG_PTR Information = 0) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IofCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

inline NTSTATUS Succeed(PDEVICE_OBJECT, PIRP Irp) {
  return CompleteWith(Irp, STATUS_SUCCESS);
}

inline NTSTATUS PassDown(PDEVICE_OBJECT, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(Two.Lower, Irp);
}

// A filter's whole Plug and Play: passes down, and goes with the removal.
inline NTSTATUS FollowDown(PDEVICE_OBJECT Device, PDEVICE_OBJECT Lower, PIRP Irp) {
  bool removes = IoGetCurrentIrpStackLocation(Irp)->MinorFunction == IRP_MN_REMOVE_DEVICE;
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = IofCallDriver(Lower, Irp);
  if (removes) {
    IoDetachDevice(Lower);
    IoDeleteDevice(Device);
  }
  return status;
}

// Copies its location and sets the routine for success, error and cancel.
inline NTSTATUS PassDownWith(PIRP Irp, PIO_COMPLETION_ROUTINE Routine, PVOID Context = nullptr) {
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, Routine, Context, TRUE, TRUE, TRUE);
  return IofCallDriver(Two.Lower, Irp);
}

inline NTSTATUS SendRead() {
  return SendPacket(Two.Upper, IRP_MJ_READ, 0, nullptr, nullptr, STATUS_SUCCESS);
}

inline NTSTATUS LetGo(PDEVICE_OBJECT, PIRP Irp, PVOID) {
  if (Irp->PendingReturned) {
    IoMarkIrpPending(Irp);
  }
  return STATUS_SUCCESS;
}

inline void NoRoutine(PDEVICE_OBJECT, PIRP) {
}

inline NTSTATUS Keep(PDEVICE_OBJECT, PIRP, PVOID) {
  return STATUS_MORE_PROCESSING_REQUIRED;
}

inline NTSTATUS KeepAndSignal(PDEVICE_OBJECT, PIRP, PVOID Event) {
  KeSetEvent(static_cast<PKEVENT>(Event), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

inline void PassDownAndWait(PIRP Irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  EXPECT_EQ(PassDownWith(Irp, KeepAndSignal, &done), STATUS_PENDING);
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
}

// Makes a packet of the test's own a read that comes back to the routine.
inline void AimRead(PIRP Irp, PIO_COMPLETION_ROUTINE Routine = Keep, PVOID Context = nullptr) {
  IoGetNextIrpStackLocation(Irp)->MajorFunction = IRP_MJ_READ;
  IoSetCompletionRoutine(Irp, Routine, Context, TRUE, TRUE, TRUE);
}

inline PIRP OwnRead(PIO_COMPLETION_ROUTINE Routine = Keep, PVOID Context = nullptr) {
  PIRP irp = IoAllocateIrp(2, FALSE);
  AimRead(irp, Routine, Context);
  return irp;
}

inline NTSTATUS HoldIt(PDEVICE_OBJECT, PIRP Irp) {
  IoMarkIrpPending(Irp);
  Held = Irp;
  return STATUS_PENDING;
}

inline void CancelHeld(PDEVICE_OBJECT, PIRP Irp) ANALYSIS_OFF {
  Held = nullptr;
  ++CancelCalls;
  IoReleaseCancelSpinLock(Irp->CancelIrql);
  CompleteWith(Irp, STATUS_CANCELLED);
}

// Takes a cancellable packet back, unless its cancel routine has it.
inline PIRP TakeHeld() {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  PIRP irp = Held;
  if (irp && !IoSetCancelRoutine(irp, nullptr)) {
    irp = nullptr;
  }
  IoReleaseCancelSpinLock(irql);
  return irp;
}

inline NTSTATUS HoldCancellable(PDEVICE_OBJECT, PIRP Irp) {
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  if (Irp->Cancel) {
    IoReleaseCancelSpinLock(irql);
    return CompleteWith(Irp, STATUS_CANCELLED);
  }
  IoMarkIrpPending(Irp);
  IoSetCancelRoutine(Irp, CancelHeld);
  Held = Irp;
  IoReleaseCancelSpinLock(irql);
  return STATUS_PENDING;
}

inline NTSTATUS LowerDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  bool plain = major == IRP_MJ_CREATE || major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE;
  return plain ? Succeed(Device, Irp) : OnLower(Device, Irp);
}

inline NTSTATUS UpperDispatch(PDEVICE_OBJECT Device, PIRP Irp) {
  UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  bool plain = major == IRP_MJ_CREATE || major == IRP_MJ_CLEANUP || major == IRP_MJ_CLOSE;
  return plain ? PassDown(Device, Irp) : OnUpper(Device, Irp);
}

inline NTSTATUS LowerEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH &dispatch : Driver->MajorFunction) {
    dispatch = LowerDispatch;
  }
  Wide name("\\Device\\Low");
  return IoCreateDevice(Driver, 16, &name.String, FILE_DEVICE_UNKNOWN, 0, FALSE, &Two.Lower);
}

inline NTSTATUS UpperEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH &dispatch : Driver->MajorFunction) {
    dispatch = UpperDispatch;
  }
  return IoCreateDevice(Driver, 16, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &Two.Upper);
}

// The lower driver completes everything with success, the upper one skips its location; the flags
// are both devices'.
inline void TwoLoad(ULONG Flags = DO_BUFFERED_IO) {
  OnLower = Succeed;
  OnUpper = PassDown;
  Held = nullptr;
  CancelCalls = 0;
  Two.LowerDriver = DriverLoad("Lower", LowerEntry);
  Two.Lower->Flags |= Flags;
  Two.UpperDriver = DriverLoad("Upper", UpperEntry);
  Two.Upper->Flags |= Flags;
  ASSERT_EQ(IoAttachDeviceToDeviceStack(Two.Upper, Two.Lower), Two.Lower);
}

inline void TwoUnload() {
  IoDetachDevice(Two.Lower);
  IoDeleteDevice(Two.Upper);
  IoDeleteDevice(Two.Lower);
  DriverUnload(Two.UpperDriver);
  DriverUnload(Two.LowerDriver);
}

inline void Play(PDRIVER_DISPATCH Upper, PDRIVER_DISPATCH Lower) {
  TwoLoad();
  OnUpper = Upper;
  OnLower = Lower;
  SendRead();
}

// Likewise with a packet of the test's own.
inline PIRP PlayOwn(PDRIVER_DISPATCH Upper, PDRIVER_DISPATCH Lower,
                    PIO_COMPLETION_ROUTINE Routine = Keep) {
  TwoLoad();
  OnUpper = Upper;
  OnLower = Lower;
  PIRP irp = OwnRead(Routine);
  IofCallDriver(Two.Upper, irp);
  return irp;
}

// What the two do with a read, and the rule that must stop it.
struct BadPair {
  const char *Name;
  const char *Rule;
  PDRIVER_DISPATCH Upper;
  PDRIVER_DISPATCH Lower;
};

inline void ExpectPairStopped(const BadPair &Bad) {
  static const BadPair *pair;
  pair = &Bad;
  ExpectStopped({Bad.Name, Bad.Rule, [] { Play(pair->Upper, pair->Lower); }});
}
