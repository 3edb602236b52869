// Two small drivers for the tests of requests: a lower one with a named device, and a filter
// attached to it. What their dispatch routines do is set by each test, or told in words.
#pragma once

#include <cstring>
#include <map>
#include <sstream>

#include "platform/model/irql.h"
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

inline void SetRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE Routine) {
  IoSetCompletionRoutine(Irp, Routine, nullptr, TRUE, TRUE, TRUE);
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

// Does not carry pending upward.
inline NTSTATUS Forget(PDEVICE_OBJECT, PIRP, PVOID) {
  return STATUS_SUCCESS;
}

// Makes a packet of the test's own a read that comes back to the routine.
inline void AimRead(PIRP Irp, PIO_COMPLETION_ROUTINE Routine = Keep) {
  IoGetNextIrpStackLocation(Irp)->MajorFunction = IRP_MJ_READ;
  SetRoutine(Irp, Routine);
}

inline PIRP OwnRead(PIO_COMPLETION_ROUTINE Routine = Keep) {
  PIRP irp = IoAllocateIrp(4, FALSE);
  AimRead(irp, Routine);
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
  return IoCreateDevice(Driver, sizeof(KEVENT), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &Two.Upper);
}

inline void Buffer(ULONG Way) {
  for (PDEVICE_OBJECT device : {Two.Lower, Two.Upper}) {
    device->Flags = (device->Flags & ~(DO_BUFFERED_IO | DO_DIRECT_IO)) | Way;
  }
}

// The lower driver completes everything with success, the upper one skips its location.
inline void TwoLoad() {
  OnLower = Succeed;
  OnUpper = PassDown;
  Held = nullptr;
  CancelCalls = 0;
  Two.LowerDriver = DriverLoad("Lower", LowerEntry);
  Two.UpperDriver = DriverLoad("Upper", UpperEntry);
  Buffer(DO_BUFFERED_IO);
  ASSERT_EQ(IoAttachDeviceToDeviceStack(Two.Upper, Two.Lower), Two.Lower);
}

inline void TwoUnload() {
  IoDetachDevice(Two.Lower);
  IoDeleteDevice(Two.Upper);
  IoDeleteDevice(Two.Lower);
  DriverUnload(Two.UpperDriver);
  DriverUnload(Two.LowerDriver);
}

// A run between the load and the unload of the two.
inline void ExpectTwoClean(const std::function<void()> &Body) {
  ExpectCleanOnBoth([&Body] {
    TwoLoad();
    Body();
    TwoUnload();
  });
}

#define TWO_DRIVERS_TEST(SUITE, NAME) TEST_RUN_BY(ExpectTwoClean, SUITE, NAME)

inline HANDLE OpenLow(Account Who = Account::User) {
  HANDLE handle;
  EXPECT_EQ(FileOpen("\\Device\\Low", Who, &handle), STATUS_SUCCESS);
  return handle;
}

// A read by way of a handle, of one byte.
inline NTSTATUS BeginRead(HANDLE Handle, FileRequest *Request) {
  Request->Buffer.resize(1);
  return FileSend(Handle, Request);
}

// The device below that of the routine which is at its words, and a location that one noted.
inline PDEVICE_OBJECT Below;
inline PIO_STACK_LOCATION Noted;

inline NTSTATUS Forgive(PDEVICE_OBJECT, PIRP Irp, PVOID) {
  Irp->IoStatus.Status = STATUS_SUCCESS;
  return STATUS_SUCCESS;
}

inline NTSTATUS Deny(PDEVICE_OBJECT, PIRP Irp, PVOID) {
  Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  return STATUS_SUCCESS;
}

// What a dispatch routine does with its packet, a word a step. It begins with success, and returns
// the status that it has in the end.
inline const std::map<std::string, void (*)(PIRP Irp, NTSTATUS *Status)> Steps = {
    {"success", [](PIRP, NTSTATUS *Status) { *Status = STATUS_SUCCESS; }},
    {"failure", [](PIRP, NTSTATUS *Status) { *Status = STATUS_UNSUCCESSFUL; }},
    {"pending", [](PIRP, NTSTATUS *Status) { *Status = STATUS_PENDING; }},
    {"unsupported", [](PIRP, NTSTATUS *Status) { *Status = STATUS_NOT_SUPPORTED; }},
    {"minus-one", [](PIRP, NTSTATUS *Status) { *Status = -1; }},
    {"mark", [](PIRP Irp, NTSTATUS *) { IoMarkIrpPending(Irp); }},
    {"note", [](PIRP Irp, NTSTATUS *) { Held = Irp; }},
    {"hold", [](PIRP Irp, NTSTATUS *Status) { *Status = HoldIt(nullptr, Irp); }},
    {"complete", [](PIRP Irp, NTSTATUS *Status) { CompleteWith(Irp, *Status); }},
    {"end-again", [](PIRP Irp, NTSTATUS *) { IofCompleteRequest(Irp, IO_NO_INCREMENT); }},
    {"skip", [](PIRP Irp, NTSTATUS *) { IoSkipCurrentIrpStackLocation(Irp); }},
    {"advance", [](PIRP Irp, NTSTATUS *) { IoSetNextIrpStackLocation(Irp); }},
    {"copy", [](PIRP Irp, NTSTATUS *) { IoCopyCurrentIrpStackLocationToNext(Irp); }},
    {"copy-all",
     [](PIRP Irp, NTSTATUS *) {
       *IoGetNextIrpStackLocation(Irp) = *IoGetCurrentIrpStackLocation(Irp);
     }},
    {"bad-major",
     [](PIRP Irp, NTSTATUS *) {
       IoGetNextIrpStackLocation(Irp)->MajorFunction = IRP_MJ_MAXIMUM_FUNCTION + 1;
     }},
    {"version",
     [](PIRP Irp, NTSTATUS *) {
       IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities->Version = 2;
     }},
    {"no-routine", [](PIRP Irp, NTSTATUS *) { SetRoutine(Irp, nullptr); }},
    {"keep", [](PIRP Irp, NTSTATUS *) { SetRoutine(Irp, Keep); }},
    {"let-go", [](PIRP Irp, NTSTATUS *) { SetRoutine(Irp, LetGo); }},
    {"forget", [](PIRP Irp, NTSTATUS *) { SetRoutine(Irp, Forget); }},
    {"forgive", [](PIRP Irp, NTSTATUS *) { SetRoutine(Irp, Forgive); }},
    {"deny", [](PIRP Irp, NTSTATUS *) { SetRoutine(Irp, Deny); }},
    {"down", [](PIRP Irp, NTSTATUS *Status) { *Status = IofCallDriver(Below, Irp); }},
    {"next-power", [](PIRP Irp, NTSTATUS *) { PoStartNextPowerIrp(Irp); }},
    {"cancellable", [](PIRP Irp, NTSTATUS *) { IoSetCancelRoutine(Irp, NoRoutine); }},
    {"other-buffer", [](PIRP Irp, NTSTATUS *) { Irp->AssociatedIrp.SystemBuffer = &Held; }},
    {"other-mdl",
     [](PIRP Irp, NTSTATUS *) {
       Irp->MdlAddress = IoAllocateMdl(&Held, 1, FALSE, FALSE, nullptr);
     }},
    {"flags", [](PIRP Irp, NTSTATUS *) { Irp->Flags |= IRP_READ_OPERATION; }},
    {"note-own", [](PIRP Irp, NTSTATUS *) { Noted = IoGetCurrentIrpStackLocation(Irp); }},
    {"change-noted", [](PIRP, NTSTATUS *) { Noted->Parameters.Read.Length ^= 1; }},
    {"context", [](PIRP Irp, NTSTATUS *) { Irp->Tail.Overlay.DriverContext[1] = &Noted; }},
    {"trust-context",
     [](PIRP Irp, NTSTATUS *) { NT_ASSERT(Irp->Tail.Overlay.DriverContext[1] == &Noted); }},
    {"say", [](PIRP Irp, NTSTATUS *Status) { Irp->IoStatus.Status = *Status; }},
    {"answer", [](PIRP Irp, NTSTATUS *) { Irp->IoStatus.Information = 1; }},
    {"free", [](PIRP Irp, NTSTATUS *) { IoFreeIrp(Irp); }},
    {"raise", [](PIRP, NTSTATUS *) { IrqlRaise(DISPATCH_LEVEL); }},
    {"lock",
     [](PIRP, NTSTATUS *) ANALYSIS_OFF {
       KIRQL irql;
       IoAcquireCancelSpinLock(&irql);
     }},
    {"detach", [](PIRP, NTSTATUS *) { IoDetachDevice(Below); }},
    {"delete-below", [](PIRP, NTSTATUS *) { IoDeleteDevice(Below); }},
};

inline NTSTATUS Perform(const char *Words, PDEVICE_OBJECT Lower, PIRP Irp) {
  NTSTATUS status = STATUS_SUCCESS;
  std::istringstream words(Words);
  for (std::string word; words >> word;) {
    Below = Lower;
    Steps.at(word)(Irp, &status);
  }
  return status;
}

inline void Tell(const char *Upper, const char *Lower) {
  static const char *upper, *lower;
  upper = Upper;
  lower = Lower;
  OnUpper = [](PDEVICE_OBJECT, PIRP Irp) { return Perform(upper, Two.Lower, Irp); };
  OnLower = [](PDEVICE_OBJECT, PIRP Irp) { return Perform(lower, Two.Lower, Irp); };
}

inline void Play(const char *Upper, const char *Lower) {
  Tell(Upper, Lower);
  SendRead();
}

// Likewise with a packet of the test's own.
inline PIRP PlayOwn(const char *Upper, const char *Lower, PIO_COMPLETION_ROUTINE Routine = Keep) {
  Tell(Upper, Lower);
  PIRP irp = OwnRead(Routine);
  IofCallDriver(Two.Upper, irp);
  return irp;
}

// The lower driver has none left.
inline void SendWithoutALocation() {
  Tell("down", "complete");
  PIRP irp = IoAllocateIrp(1, FALSE);
  AimRead(irp);
  IofCallDriver(Two.Upper, irp);
}

// What the two do with a read, and the rule that must stop it.
struct BadPair {
  const char *Name;
  const char *Rule;
  const char *Upper;
  const char *Lower;
};

inline void ExpectTwoStopped(const char *Name, const char *Rule, const std::function<void()> &Body,
                             const RunOptions &Options = {}) {
  RunReport report = ModelRun(Options, [&Body] {
    TwoLoad();
    Body();
  });
  EXPECT_EQ(report.Rule, Rule) << Name << "\n" << report.Text;
}

inline void ExpectTwoStopped(std::span<const BadRoutine> All) {
  for (const BadRoutine &bad : All) {
    ExpectTwoStopped(bad.Name, bad.Rule, bad.Body);
  }
}

inline void ExpectTwoStopped(std::span<const BadPair> All, const RunOptions &Options = {}) {
  for (const BadPair &bad : All) {
    ExpectTwoStopped(
        bad.Name, bad.Rule, [&bad] { Play(bad.Upper, bad.Lower); }, Options);
  }
}
