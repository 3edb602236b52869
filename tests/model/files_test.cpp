#include <algorithm>
#include <map>

#include "platform/model/irql.h"
#include "tests/model/two_drivers.h"

// What arrives at the two drivers, a letter a request: the driver's in upper (lower driver) or
// lower case, and the major function's.
static std::string Arrivals;
static NTSTATUS CreateStatus;

static char LetterOf(PIRP Irp) {
  static const std::map<UCHAR, char> letters = {
      {IRP_MJ_CREATE, 'c'}, {IRP_MJ_CLEANUP, 'u'}, {IRP_MJ_CLOSE, 'x'}, {IRP_MJ_READ, 'r'}};
  return letters.at(IoGetCurrentIrpStackLocation(Irp)->MajorFunction);
}

static NTSTATUS LogLower(PDEVICE_OBJECT Device, PIRP Irp) {
  char letter = LetterOf(Irp);
  Arrivals += static_cast<char>(letter - 'a' + 'A');
  return letter == 'c' ? CompleteWith(Irp, CreateStatus) : OnLower(Device, Irp);
}

static NTSTATUS LogUpper(PDEVICE_OBJECT Device, PIRP Irp) {
  Arrivals += LetterOf(Irp);
  return PassDown(Device, Irp);
}

static void StartLog() {
  Arrivals.clear();
  CreateStatus = STATUS_SUCCESS;
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_READ}) {
    Two.LowerDriver->MajorFunction[major] = LogLower;
    Two.UpperDriver->MajorFunction[major] = LogUpper;
  }
}

TWO_DRIVERS_TEST(Files, CleanupAtTheLastHandleCloseAtTheLastReference) {
  StartLog();
  HANDLE handle = OpenLow();
  HANDLE second = FileDuplicate(handle);
  PFILE_OBJECT file = FileObject(handle);
  EXPECT_EQ(file->DeviceObject, Two.Lower);
  EXPECT_EQ(Two.Lower->ReferenceCount, 1);
  ObReferenceObject(file);
  FileClose(handle);
  EXPECT_EQ(Arrivals, "cC");
  FileClose(second);
  EXPECT_EQ(Arrivals, "cCuU");
  ObDereferenceObject(file);
  EXPECT_EQ(Arrivals, "cCuUxX");
  EXPECT_EQ(Two.Lower->ReferenceCount, 0);
}

// The request is completed at DISPATCH_LEVEL, where no close could be sent.
TWO_DRIVERS_TEST(Files, RequestHoldsTheFileObject) {
  StartLog();
  OnLower = [](PDEVICE_OBJECT Device, PIRP Irp) {
    bool read = IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_READ;
    return read ? HoldIt(Device, Irp) : Succeed(Device, Irp);
  };
  HANDLE handle = OpenLow();
  FileRequest request;
  BeginRead(handle, &request);
  FileClose(handle);
  EXPECT_EQ(Arrivals, "cCrRuU");
  KIRQL before = IrqlRaise(DISPATCH_LEVEL);
  CompleteWith(Held, STATUS_SUCCESS, 1);
  IrqlLower(before);
  FileWait(&request);
  ThreadSettle();
  EXPECT_EQ(Arrivals, "cCrRuUxX");
}

static NTSTATUS LookUp(const char *Name, PFILE_OBJECT *File) {
  Wide name(Name);
  PDEVICE_OBJECT top;
  *File = nullptr;
  NTSTATUS status = IoGetDeviceObjectPointer(&name.String, FILE_ALL_ACCESS, File, &top);
  EXPECT_TRUE(!NT_SUCCESS(status) || top == DeviceTop(Two.Lower));
  return status;
}

TWO_DRIVERS_TEST(Files, LookUpByNameOpensForReal) {
  StartLog();
  PFILE_OBJECT file;
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_SUCCESS);
  EXPECT_EQ(file->DeviceObject, Two.Lower);
  EXPECT_EQ(Arrivals, "cCuU");
  ObDereferenceObject(file);
  EXPECT_EQ(Arrivals, "cCuUxX");

  // What is refused brings nothing else.
  HANDLE handle;
  CreateStatus = STATUS_SHARING_VIOLATION;
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_SHARING_VIOLATION);
  EXPECT_EQ(FileOpen("\\Device\\Low", Account::User, &handle), STATUS_SHARING_VIOLATION);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(Arrivals, "cCuUxXcCcC");
  EXPECT_EQ(Two.Lower->ReferenceCount, 0);
  EXPECT_EQ(FileOpen("\\Device\\Nowhere", Account::User, &handle), STATUS_OBJECT_NAME_NOT_FOUND);
  CreateStatus = STATUS_SUCCESS;

  // Exclusive: who looked it up has it open, until the file object goes.
  Two.Lower->Flags |= DO_EXCLUSIVE;
  handle = OpenLow();
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_ACCESS_DENIED);
  EXPECT_EQ(file, nullptr);
  FileClose(handle);
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_SUCCESS);
  EXPECT_EQ(FileOpen("\\Device\\Low", Account::LocalSystem, &handle), STATUS_ACCESS_DENIED);
  ObDereferenceObject(file);

  // What is named decides, not what is on top.
  Two.Lower->Flags &= ~static_cast<ULONG>(DO_EXCLUSIVE);
  Two.Upper->Flags |= DO_EXCLUSIVE | DO_DEVICE_INITIALIZING;
  handle = OpenLow();
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_SUCCESS);
  ObDereferenceObject(file);
  FileClose(handle);
  Two.Lower->Flags |= DO_DEVICE_INITIALIZING;
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_NO_SUCH_DEVICE);
}

// As a driver does that puts itself over a device outside of any stack, found by its name.
MODEL_TEST(Files, WhoAttachesLaterSeesWhatWasOpenedBefore) {
  TwoLoad();
  StartLog();
  IoDetachDevice(Two.Lower);
  HANDLE handle = OpenLow();
  PFILE_OBJECT file;
  EXPECT_EQ(LookUp("\\Device\\Low", &file), STATUS_SUCCESS);
  EXPECT_EQ(Arrivals, "CCU");
  Two.Upper->StackSize = 1;
  EXPECT_EQ(IoAttachDeviceToDeviceStack(Two.Upper, Two.Lower), Two.Lower);
  EXPECT_EQ(Two.Upper->StackSize, 2);
  ObDereferenceObject(file);
  EXPECT_EQ(Arrivals, "CCUxX");
  std::vector<uint8_t> bytes;
  FileRead(handle, 1, &bytes);
  EXPECT_EQ(Arrivals, "CCUxXrR");

  // Detached with the handle open: the handle is the device's below.
  IoDetachDevice(Two.Lower);
  IoDeleteDevice(Two.Upper);
  EXPECT_FALSE(ObjectIs(Two.Upper, ObjectKind::Device));
  FileRead(handle, 1, &bytes);
  FileClose(handle);
  EXPECT_EQ(Arrivals, "CCUxXrRRUX");
  IoDeleteDevice(Two.Lower);
  DriverUnload(Two.UpperDriver);
  DriverUnload(Two.LowerDriver);
}

// Its driver deletes the device that another one's is attached over, with a handle open.
MODEL_TEST(Files, ADeletedDeviceServesWhoeverStillHasIt) {
  TwoLoad();
  StartLog();
  HANDLE handle = OpenLow();
  IoDeleteDevice(Two.Lower);
  HANDLE refused;
  EXPECT_EQ(FileOpen("\\Device\\Low", Account::User, &refused), STATUS_OBJECT_NAME_NOT_FOUND);
  PDEVICE_OBJECT late;
  EXPECT_EQ(IoCreateDevice(Two.UpperDriver, 0, nullptr, 0x22, 0, FALSE, &late), STATUS_SUCCESS);
  IoDetachDevice(Two.Lower);
  EXPECT_EQ(IoAttachDeviceToDeviceStack(late, Two.Lower), nullptr);
  IoDeleteDevice(late);
  std::vector<uint8_t> bytes;
  FileRead(handle, 1, &bytes);
  EXPECT_TRUE(ObjectIs(Two.Lower, ObjectKind::Device));
  FileClose(handle);
  EXPECT_EQ(Arrivals, "cCRUX");
  EXPECT_FALSE(ObjectIs(Two.Lower, ObjectKind::Device));
  IoDeleteDevice(Two.Upper);
  DriverUnload(Two.UpperDriver);
  DriverUnload(Two.LowerDriver);
}

static NTSTATUS OpenStatus(const char *Name, Account Who) {
  HANDLE handle;
  NTSTATUS status = FileOpen(Name, Who, &handle);
  FileClose(handle);
  return status;
}

TWO_DRIVERS_TEST(Files, OnlyTheGrantedOpenASecuredDevice) {
  Wide name("\\Device\\Guarded");
  Wide system("D:P(A;;GA;;;SY)");
  Wide everyone("D:P(A;;GA;;;WD)");
  PDEVICE_OBJECT device;
  auto create = [&](Wide *Sddl) {
    return IoCreateDeviceSecure(Two.LowerDriver, 0, &name.String, 0x1b, 0, FALSE, &Sddl->String,
                                nullptr, &device);
  };
  EXPECT_EQ(create(&everyone), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(create(&system), STATUS_SUCCESS);
  EXPECT_EQ(OpenStatus("\\Device\\Guarded", Account::LocalSystem), STATUS_NO_SUCH_DEVICE);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  EXPECT_EQ(OpenStatus("\\Device\\Guarded", Account::LocalSystem), STATUS_SUCCESS);
  EXPECT_EQ(OpenStatus("\\Device\\Guarded", Account::Administrator), STATUS_ACCESS_DENIED);
  IoDeleteDevice(device);
}

static const char Text[] = "abcd";

TEST(Files, NothingIsBufferedForNoBytesNorForADeviceThatAsksForNoBuffer) {
  for (ULONG flags : {DO_BUFFERED_IO, DO_DIRECT_IO, 0}) {
    ExpectTwoClean([flags] {
      Buffer(flags);
      OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
        EXPECT_EQ(Irp->MdlAddress, nullptr);
        EXPECT_EQ(Irp->AssociatedIrp.SystemBuffer, nullptr);
        ULONG length = IoGetCurrentIrpStackLocation(Irp)->Parameters.Read.Length;
        std::copy_n(Text, length, static_cast<char *>(Irp->UserBuffer));
        return CompleteWith(Irp, STATUS_SUCCESS, length);
      };
      HANDLE handle = OpenLow();
      std::vector<uint8_t> bytes;
      EXPECT_EQ(FileRead(handle, flags ? 0 : 4, &bytes), STATUS_SUCCESS);
      EXPECT_EQ(std::string(bytes.begin(), bytes.end()), flags ? "" : Text);
      FileClose(handle);
    });
  }
}

TWO_DRIVERS_TEST(Files, OutputIsCopiedUnlessAnError) {
  static NTSTATUS status;
  OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
    memcpy(Irp->AssociatedIrp.SystemBuffer, Text, 4);
    return CompleteWith(Irp, status, 2);
  };
  HANDLE handle = OpenLow();
  for (NTSTATUS one : {STATUS_SUCCESS, STATUS_BUFFER_OVERFLOW, STATUS_UNSUCCESSFUL}) {
    status = one;
    std::vector<uint8_t> bytes;
    EXPECT_EQ(FileRead(handle, 4, &bytes), one);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), one == STATUS_UNSUCCESSFUL ? "" : "ab");
  }
  FileClose(handle);
}

TWO_DRIVERS_TEST(Files, DeviceControlByItsMethod) {
  static unsigned method;
  OnLower = [](PDEVICE_OBJECT, PIRP Irp) {
    auto &parameters = IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceIoControl;
    EXPECT_EQ(parameters.InputBufferLength, 2u);
    EXPECT_EQ(parameters.OutputBufferLength, 4u);
    bool direct = method == METHOD_IN_DIRECT || method == METHOD_OUT_DIRECT;
    void *in =
        method == METHOD_NEITHER ? parameters.Type3InputBuffer : Irp->AssociatedIrp.SystemBuffer;
    void *out = method == METHOD_BUFFERED ? in
                : direct                  ? MmGetMdlVirtualAddress(Irp->MdlAddress)
                                          : Irp->UserBuffer;
    EXPECT_EQ(memcmp(in, "in", 2), 0);
    memcpy(out, Text, 4);
    return CompleteWith(Irp, STATUS_SUCCESS, 3);
  };
  HANDLE handle = OpenLow();
  for (unsigned one : {METHOD_BUFFERED, METHOD_IN_DIRECT, METHOD_OUT_DIRECT, METHOD_NEITHER}) {
    method = one;
    FileRequest request;
    request.Major = IRP_MJ_DEVICE_CONTROL;
    request.ControlCode = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, method, FILE_ANY_ACCESS);
    request.Buffer = {'i', 'n'};
    request.OutputBytes = 4;
    FileSend(handle, &request);
    EXPECT_EQ(FileWait(&request), STATUS_SUCCESS);
    EXPECT_EQ(std::string(request.Buffer.begin(), request.Buffer.end()), "abc");
  }
  FileClose(handle);
}

TWO_DRIVERS_TEST(Files, CancelOneAndAll) {
  OnLower = HoldCancellable;
  HANDLE handle = OpenLow();
  std::vector<FileRequest> requests(4);
  for (FileRequest &request : requests) {
    EXPECT_EQ(BeginRead(handle, &request), STATUS_PENDING);
  }
  EXPECT_TRUE(FileCancel(&requests[1]));
  EXPECT_FALSE(FileCancel(&requests[1]));
  EXPECT_TRUE(FileDone(&requests[1]));
  EXPECT_FALSE(FileDone(&requests[0]));
  FileCancelAll(handle);
  for (FileRequest &request : requests) {
    EXPECT_EQ(FileWait(&request), STATUS_CANCELLED);
  }
  FileClose(handle);
}

TWO_DRIVERS_TEST(Files, ACreateIsCancelled) {
  static FileOpening opening;
  static HANDLE handle;
  static NTSTATUS status;
  Two.LowerDriver->MajorFunction[IRP_MJ_CREATE] = HoldCancellable;
  EXPECT_FALSE(FileCancelOpen(&opening));
  for (bool late : {false, true}) {
    PKTHREAD opener = ThreadStart(
        "opener", [] { status = FileOpen("\\Device\\Low", Account::User, &handle, &opening); });
    ThreadSettle();
    if (late) {
      CompleteWith(TakeHeld(), STATUS_SUCCESS);
      FileCancelOpen(&opening);
    } else {
      EXPECT_TRUE(FileCancelOpen(&opening));
    }
    ThreadJoin(opener);
    EXPECT_EQ(status, late ? STATUS_SUCCESS : STATUS_CANCELLED);
    EXPECT_EQ(Two.Lower->ReferenceCount, late ? 1 : 0);
    FileClose(handle);
  }
}

TEST(Files, AreServedWithoutTheVerifier) {
  auto play = [] {
    TwoLoad();
    HANDLE handle = OpenLow();
    FileWrite(handle, {1});
    FileClose(handle);
    TwoUnload();
  };
  ExpectClean(play, {.Verifier = false});
}

static const BadRoutine BadDrivers[] = {
    {"more bytes than room", "packet.information",
     [] {
       OnLower = [](PDEVICE_OBJECT, PIRP Irp) { return CompleteWith(Irp, STATUS_SUCCESS, 5); };
       std::vector<uint8_t> bytes;
       FileRead(OpenLow(), 4, &bytes);
     }},
    {"handle left", "leak.file", [] { OpenLow(); }},
    {"last dereference at raised level", "irql.too-high",
     [] {
       HANDLE handle = OpenLow();
       PFILE_OBJECT file = FileObject(handle);
       ObReferenceObject(file);
       FileClose(handle);
       IrqlRaise(DISPATCH_LEVEL);
       ObDereferenceObject(file);
     }},
};

TEST(Files, BadDriversAreStopped) {
  ExpectTwoStopped(BadDrivers);
}
