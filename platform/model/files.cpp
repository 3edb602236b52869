#include "platform/model/files.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/model/causality.h"
#include "platform/model/devices.h"
#include "platform/model/executor.h"
#include "platform/model/file_objects.h"
#include "platform/model/io_manager.h"
#include "platform/model/mdl.h"
#include "platform/model/names.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/text.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

static constexpr CSHORT FileType = 5;
static constexpr int FreshByte = 0xC9;

struct FileIo;

// A file object and what the model knows of it. FileMutex guards what is not set once.
struct FileBody {
  FILE_OBJECT File;
  bool Opened;      // the create succeeded: a close is due
  bool FromHandle;  // not from IoGetDeviceObjectPointer
  bool Closing;     // a thread waits for the last request, to close after it
  unsigned Outstanding;
  FileIo *First;
  KEVENT Drained;
};

// One request on its way.
struct FileIo {
  FileBody *File;
  FileIo *Next;
  FileIo **Link;
  LIST_ENTRY LiveLink;
  FileRequest *Request;
  void *SystemBuffer;
  uint8_t *Output;  // of a device control whose output is not in the system buffer
  PMDL Mdl;
  ULONG Room;  // for the answer
  uint64_t CancelRound;
};

static ModelMutex FileMutex;
static uint64_t CancelRounds;
static LIST_ENTRY LiveIo = {&LiveIo, &LiveIo};
static FileIo *FreeIos;  // for reuse, by Next; guarded by FileMutex

// ---- file objects ----

static NTSTATUS SendForFile(FileBody *Body, UCHAR Major, PIRP *Visible = nullptr) {
  PacketRequest request = {};
  request.Major = Major;
  request.Irp = Visible;
  request.File = &Body->File;
  return PacketSendAndWait(Body->File.DeviceObject, &request);
}

static void FileGone(void *Object) {
  FileBody *body = static_cast<FileBody *>(Object);
  VerifierRequireIrql(PASSIVE_LEVEL, "the last dereference of a file object");
  if (body->Opened) {
    SendForFile(body, IRP_MJ_CLOSE);
  }
  PDEVICE_OBJECT device = body->File.DeviceObject;
  DeviceCloseFile(device, body->FromHandle);
  ObfDereferenceObject(device);
}

// The close must not go out where the last request happens to be completed, which may be deep in a
// driver and at DISPATCH_LEVEL: a thread of its own waits for that request.
static void CloseAfterLastRequest(FileBody *Body) {
  KeInitializeEvent(&Body->Drained, NotificationEvent, FALSE);
  {
    Guard guard(FileMutex);
    CausalTouch(Body, Access::Write);
    if (Body->Outstanding == 0) {
      return;
    }
    Body->Closing = true;
  }
  ObfReferenceObject(Body);
  auto wait = [Body] {
    KeWaitForSingleObject(&Body->Drained, Executive, KernelMode, FALSE, nullptr);
    ObfDereferenceObject(Body);
  };
  PKTHREAD thread = ThreadCreate("close", wait, FiberBytes);
  ThreadLaunch(thread);
  ObjectRelease(thread);
}

static void FileLastHandle(void *Object) {
  FileBody *body = static_cast<FileBody *>(Object);
  SendForFile(body, IRP_MJ_CLEANUP);
  CloseAfterLastRequest(body);
}

static FileBody *MakeFile(PDEVICE_OBJECT Device, bool FromHandle) {
  FileBody *body =
      static_cast<FileBody *>(ObjectCreate(ObjectKind::File, sizeof(FileBody), FileGone));
  body->FromHandle = FromHandle;
  PFILE_OBJECT file = &body->File;
  file->Type = FileType;
  file->Size = sizeof(FILE_OBJECT);
  file->DeviceObject = Device;
  file->ReadAccess = file->WriteAccess = TRUE;
  KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
  KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
  InitializeListHead(&file->IrpList);
  return body;
}

static NTSTATUS OpenByName(const std::string &Name, bool LocalSystem, bool FromHandle,
                           FileBody **Opened, PIRP *Create = nullptr) {
  PDEVICE_OBJECT device = NameReference(Name);
  if (!device) {
    return STATUS_OBJECT_NAME_NOT_FOUND;
  }
  NTSTATUS status = DeviceOpenFile(device, LocalSystem, FromHandle);
  if (!NT_SUCCESS(status)) {
    ObfDereferenceObject(device);
    return status;
  }
  FileBody *body = MakeFile(device, FromHandle);
  status = SendForFile(body, IRP_MJ_CREATE, Create);
  if (!NT_SUCCESS(status)) {
    ObfDereferenceObject(body);
    return status;
  }
  body->Opened = true;
  *Opened = body;
  return STATUS_SUCCESS;
}

NTSTATUS FileOpen(const std::string &Name, Account Who, HANDLE *Handle, FileOpening *Opening) {
  InProcess process(true);
  *Handle = nullptr;
  FileBody *body;
  NTSTATUS status =
      OpenByName(Name, Who == Account::LocalSystem, true, &body, Opening ? &Opening->Irp : nullptr);
  if (NT_SUCCESS(status)) {
    *Handle = ObjectOpenHandle(body, FileLastHandle);
    ObfDereferenceObject(body);
  }
  return status;
}

bool FileCancelOpen(FileOpening *Opening) {
  return PacketCancel(&Opening->Irp);
}

void FileClose(HANDLE Handle) {
  InProcess process(true);
  if (Handle) {
    ZwClose(Handle);
  }
}

static FileBody *BodyOf(HANDLE Handle) {
  return static_cast<FileBody *>(ObjectFromHandle(Handle, ObjectKind::File));
}

HANDLE FileDuplicate(HANDLE Handle) {
  FileBody *body = BodyOf(Handle);
  return body ? ObjectOpenHandle(body, FileLastHandle) : nullptr;
}

PFILE_OBJECT FileObject(HANDLE Handle) {
  FileBody *body = BodyOf(Handle);
  return body ? &body->File : nullptr;
}

NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess,
                                  PFILE_OBJECT *FileObject, PDEVICE_OBJECT *DeviceObject) {
  UNREFERENCED_PARAMETER(DesiredAccess);
  VerifierRequireIrql(PASSIVE_LEVEL, "IoGetDeviceObjectPointer");
  FileBody *body;
  NTSTATUS status = OpenByName(TextFromString(ObjectName), true, false, &body);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  // The open was by handle; the handle goes, the file object stays.
  ZwClose(ObjectOpenHandle(body, FileLastHandle));
  *FileObject = &body->File;
  *DeviceObject = DeviceTop(body->File.DeviceObject);
  return STATUS_SUCCESS;
}

// ---- buffers ----

static void SystemBuffer(FileIo *Io, PIRP Irp, const void *Input, size_t InputBytes,
                         size_t OutputBytes) {
  size_t bytes = std::max(InputBytes, OutputBytes);
  Irp->Flags |= IRP_BUFFERED_IO;
  if (bytes == 0) {
    return;
  }
  Io->SystemBuffer = malloc(bytes);
  if (!Io->SystemBuffer) {
    abort();
  }
  if (VerifierOn()) {
    memset(Io->SystemBuffer, FreshByte, bytes);
  }
  if (InputBytes > 0) {
    memcpy(Io->SystemBuffer, Input, InputBytes);
  }
  Irp->AssociatedIrp.SystemBuffer = Io->SystemBuffer;
  Irp->Flags |= IRP_DEALLOCATE_BUFFER | (OutputBytes > 0 ? IRP_INPUT_OPERATION : 0);
}

static void LockBytes(FileIo *Io, PIRP Irp, void *Bytes, size_t Count) {
  if (Count > 0) {
    Irp->MdlAddress = Io->Mdl = MdlMakeLocked(Bytes, Count);
  }
}

static void FillTransfer(FileIo *Io, PIRP Irp, PIO_STACK_LOCATION Location, ULONG DeviceFlags) {
  FileRequest *request = Io->Request;
  bool read = request->Major == IRP_MJ_READ;
  size_t length = request->Buffer.size();
  void *bytes = length ? request->Buffer.data() : nullptr;
  Location->Parameters.Read.Length = static_cast<ULONG>(length);
  Irp->Flags |= (read ? IRP_READ_OPERATION : IRP_WRITE_OPERATION) | IRP_DEFER_IO_COMPLETION;
  Io->Room = static_cast<ULONG>(length);
  if (DeviceFlags & DO_BUFFERED_IO) {
    SystemBuffer(Io, Irp, bytes, read ? 0 : length, read ? length : 0);
    Irp->UserBuffer = read ? bytes : nullptr;
  } else if (DeviceFlags & DO_DIRECT_IO) {
    LockBytes(Io, Irp, bytes, length);
  } else {
    Irp->UserBuffer = bytes;
  }
}

static void FillControl(FileIo *Io, PIRP Irp, PIO_STACK_LOCATION Location) {
  FileRequest *request = Io->Request;
  size_t input = request->Buffer.size();
  ULONG output = request->OutputBytes;
  void *inputBytes = input ? request->Buffer.data() : nullptr;
  Location->Parameters.DeviceIoControl.IoControlCode = request->ControlCode;
  Location->Parameters.DeviceIoControl.InputBufferLength = static_cast<ULONG>(input);
  Location->Parameters.DeviceIoControl.OutputBufferLength = output;
  Io->Room = output;
  unsigned method = request->ControlCode & 3;
  if (output > 0) {
    Io->Output = static_cast<uint8_t *>(calloc(1, output));
    Irp->UserBuffer = Io->Output;
  }
  if (method == METHOD_BUFFERED) {
    SystemBuffer(Io, Irp, inputBytes, input, output);
  } else if (method == METHOD_NEITHER) {
    Location->Parameters.DeviceIoControl.Type3InputBuffer = inputBytes;
  } else {
    SystemBuffer(Io, Irp, inputBytes, input, 0);
    Irp->UserBuffer = nullptr;
    LockBytes(Io, Irp, Io->Output, output);
  }
}

static void FillInformation(FileIo *Io, PIRP Irp, PIO_STACK_LOCATION Location) {
  FileRequest *request = Io->Request;
  bool query = request->Major == IRP_MJ_QUERY_INFORMATION;
  size_t length = query ? request->OutputBytes : request->Buffer.size();
  Location->Parameters.QueryFile.Length = static_cast<ULONG>(length);
  Location->Parameters.QueryFile.FileInformationClass = request->ControlCode;
  Io->Room = query ? request->OutputBytes : 0;
  if (query && length > 0) {
    Io->Output = static_cast<uint8_t *>(calloc(1, length));
    Irp->UserBuffer = Io->Output;
  }
  SystemBuffer(Io, Irp, request->Buffer.data(), query ? 0 : length, query ? length : 0);
}

// ---- the end of a request ----

static bool Copies(NTSTATUS Status) {
  return static_cast<ULONG>(Status) < 0xC0000000u;
}

static void RequireInformation(const FileIo *Io, PIRP Irp) {
  bool counted = Io->Request->Major == IRP_MJ_READ || Io->Request->Major == IRP_MJ_WRITE ||
                 Io->Room > 0 || Irp->AssociatedIrp.SystemBuffer;
  if (VerifierOn() && counted && Copies(Irp->IoStatus.Status) &&
      Irp->IoStatus.Information > Io->Room) {
    VerifierStop("packet.information", Irp, "%llu bytes reported, room for %u",
                 static_cast<unsigned long long>(Irp->IoStatus.Information), Io->Room);
  }
}

// Brings the answer to the user: what the system buffer holds is copied unless the status is an
// error; a device control's output takes the input's place on success.
static void DeliverOutput(FileIo *Io, PIRP Irp) {
  FileRequest *request = Io->Request;
  NTSTATUS status = Irp->IoStatus.Status;
  size_t count = std::min<size_t>(Irp->IoStatus.Information, Io->Room);
  if (count > 0 && Io->SystemBuffer && (Irp->Flags & IRP_INPUT_OPERATION) && Copies(status)) {
    memcpy(Irp->UserBuffer, Io->SystemBuffer, count);
  }
  bool separate = request->Major != IRP_MJ_READ && request->Major != IRP_MJ_WRITE;
  if (separate && Copies(status) && (NT_SUCCESS(status) || count > 0)) {
    request->Buffer.assign(Io->Output, Io->Output + (Io->Output ? count : 0));
  }
}

// The file object's last handle may be closed at any time; from then on only the closing thread's
// reference counts, so none of the references dropped here is the last one.
static void LeaveFile(FileIo *Io) {
  FileBody *body = Io->File;
  bool drained;
  {
    Guard guard(FileMutex);
    Io->Request->Irp = nullptr;
    *Io->Link = Io->Next;
    if (Io->Next) {
      Io->Next->Link = Io->Link;
    }
    RemoveEntryList(&Io->LiveLink);
    drained = --body->Outstanding == 0 && body->Closing;
    CausalTouch(Io->Request, Access::Write);
    CausalTouch(body, drained ? Access::Write : Access::Add);
    ObjectRelease(body);
  }
  if (drained) {
    KeSetEvent(&body->Drained, IO_NO_INCREMENT, FALSE);
  }
}

// What a driver gets to see is given back to the heap, whose tools watch it; the record is not.
static void FreeIo(FileIo *Io) {
  free(Io->SystemBuffer);
  free(Io->Output);
  SyncRelease(Io);
  Guard guard(FileMutex);
  Io->Next = FreeIos;
  FreeIos = Io;
}

void FilesShutdown() {
  while (!IsListEmpty(&LiveIo)) {
    FreeIo(CONTAINING_RECORD(RemoveHeadList(&LiveIo), FileIo, LiveLink));
  }
}

static void FinishFileIo(PIRP Irp, void *Context) {
  FileIo *io = static_cast<FileIo *>(Context);
  FileRequest *request = io->Request;
  RequireInformation(io, Irp);
  DeliverOutput(io, Irp);
  request->Iosb = Irp->IoStatus;
  // The verifier has made sure that who marked the packet pending returned STATUS_PENDING, and that
  // nobody else did. The value returned itself comes too late: the request may be gone by then.
  request->Returned = Irp->PendingReturned ? STATUS_PENDING : Irp->IoStatus.Status;
  LeaveFile(io);
  PacketFree(Irp);
  if (io->Mdl) {
    MdlUnlockAndFree(io->Mdl);
  }
  FreeIo(io);
  if (request->OnDone) {
    request->OnDone(request, request->Context);
  }
  CausalTouch(request, Access::Write);
  __atomic_store_n(&request->Done, true, __ATOMIC_RELEASE);
  KeSetEvent(&request->Event, IO_NO_INCREMENT, FALSE);
}

// ---- requests ----

static FileIo *MakeIo(FileRequest *Request) {
  FileIo *io;
  {
    Guard guard(FileMutex);
    io = FreeIos;
    FreeIos = io ? io->Next : nullptr;
  }
  if (!io) {
    io = new FileIo;
  }
  SyncAcquire(io);
  *io = {};
  io->Request = Request;
  return io;
}

static void EnterFile(FileIo *Io, FileBody *Body, PIRP Irp) {
  ObfReferenceObject(Body);
  CausalTouch(Body, Access::Add);
  Guard guard(FileMutex);
  Io->File = Body;
  Io->Next = Body->First;
  Io->Link = &Body->First;
  if (Io->Next) {
    Io->Next->Link = &Io->Next;
  }
  Body->First = Io;
  ++Body->Outstanding;
  InsertTailList(&LiveIo, &Io->LiveLink);
  Io->Request->Irp = Irp;
}

static void FillRequest(FileIo *Io, PIRP Irp, FileBody *Body, ULONG DeviceFlags) {
  Irp->RequestorMode = UserMode;
  Irp->UserIosb = &Io->Request->Iosb;
  Irp->Tail.Overlay.Thread = KeGetCurrentThread();
  Irp->Tail.Overlay.OriginalFileObject = &Body->File;
  PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(Irp);
  location->MajorFunction = Io->Request->Major;
  location->FileObject = &Body->File;
  switch (Io->Request->Major) {
  case IRP_MJ_READ:
  case IRP_MJ_WRITE:
    FillTransfer(Io, Irp, location, DeviceFlags);
    break;
  case IRP_MJ_DEVICE_CONTROL:
  case IRP_MJ_INTERNAL_DEVICE_CONTROL:
    FillControl(Io, Irp, location);
    break;
  case IRP_MJ_QUERY_INFORMATION:
  case IRP_MJ_SET_INFORMATION:
    FillInformation(Io, Irp, location);
    break;
  default:
    break;
  }
}

NTSTATUS FileSend(HANDLE Handle, FileRequest *Request) {
  VerifierRequireIrql(PASSIVE_LEVEL, "FileSend");
  InProcess process(true);
  KeInitializeEvent(&Request->Event, NotificationEvent, FALSE);
  Request->Iosb = {};
  Request->Returned = STATUS_PENDING;
  __atomic_store_n(&Request->Done, false, __ATOMIC_RELAXED);
  FileBody *body = BodyOf(Handle);
  if (!body) {
    Request->Iosb.Status = Request->Returned = STATUS_INVALID_HANDLE;
    __atomic_store_n(&Request->Done, true, __ATOMIC_RELEASE);
    KeSetEvent(&Request->Event, IO_NO_INCREMENT, FALSE);
    return STATUS_INVALID_HANDLE;
  }
  ObfReferenceObject(body);  // another thread may close the handle
  SwitchPoint(SwitchReason::Call, Request);
  FileIo *io = MakeIo(Request);
  PDEVICE_OBJECT top = DeviceTop(body->File.DeviceObject);
  PIRP irp = PacketMake(top->StackSize, FinishFileIo, io);
  FillRequest(io, irp, body, top->Flags);
  EnterFile(io, body, irp);
  NTSTATUS status = PacketCall(top, irp);
  ObfDereferenceObject(body);
  return status;
}

// The event's state is looked at last: once it is signalled, the model no longer touches Request.
bool FileDone(const FileRequest *Request) {
  CausalTouch(Request, Access::Read);
  return __atomic_load_n(&Request->Done, __ATOMIC_ACQUIRE) &&
         KeReadStateEvent(const_cast<PKEVENT>(&Request->Event)) != 0;
}

NTSTATUS FileWait(FileRequest *Request) {
  KeWaitForSingleObject(&Request->Event, UserRequest, KernelMode, FALSE, nullptr);
  return Request->Iosb.Status;
}

static bool CancelHeld(PIRP Irp) {
  bool called = IoCancelIrp(Irp) != FALSE;
  PacketLet(Irp);
  return called;
}

bool FileCancel(FileRequest *Request) {
  CausalTouch(Request, Access::Read);
  PIRP irp;
  {
    Guard guard(FileMutex);
    irp = Request->Irp;
    if (!irp) {
      return false;
    }
    Guard inner(RequestMutex);
    PacketHold(irp);
  }
  return CancelHeld(irp);
}

static PIRP NextToCancel(FileBody *Body, uint64_t Round) {
  CausalTouch(Body, Access::Write);
  Guard guard(FileMutex);
  for (FileIo *io = Body->First; io; io = io->Next) {
    if (io->CancelRound < Round) {
      io->CancelRound = Round;
      Guard inner(RequestMutex);
      PacketHold(io->Request->Irp);
      return io->Request->Irp;
    }
  }
  return nullptr;
}

void FileCancelAll(HANDLE Handle) {
  FileBody *body = BodyOf(Handle);
  if (!body) {
    return;
  }
  ObfReferenceObject(body);
  uint64_t round;
  {
    Guard guard(FileMutex);
    round = ++CancelRounds;
  }
  while (PIRP irp = NextToCancel(body, round)) {
    CancelHeld(irp);
  }
  ObfDereferenceObject(body);
}

static NTSTATUS SendAndWait(HANDLE Handle, FileRequest *Request) {
  FileSend(Handle, Request);
  return FileWait(Request);
}

NTSTATUS FileRead(HANDLE Handle, size_t Length, std::vector<uint8_t> *Bytes) {
  FileRequest request;
  request.Major = IRP_MJ_READ;
  request.Buffer.resize(Length);
  NTSTATUS status = SendAndWait(Handle, &request);
  size_t count = Copies(status) ? std::min<size_t>(Length, request.Iosb.Information) : 0;
  Bytes->assign(request.Buffer.begin(), request.Buffer.begin() + static_cast<ptrdiff_t>(count));
  return status;
}

NTSTATUS FileWrite(HANDLE Handle, const std::vector<uint8_t> &Bytes, ULONG_PTR *Written) {
  FileRequest request;
  request.Major = IRP_MJ_WRITE;
  request.Buffer = Bytes;
  NTSTATUS status = SendAndWait(Handle, &request);
  if (Written) {
    *Written = request.Iosb.Information;
  }
  return status;
}
