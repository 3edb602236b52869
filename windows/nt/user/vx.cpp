#include "windows/nt/user/vx.h"

static char FirstFailure[256];  // empty: none

void VxLog(const char *Format, ...) {
  char line[400];
  va_list arguments;
  va_start(arguments, Format);
  _vsnprintf(line, sizeof(line) - 1, Format, arguments);
  va_end(arguments);
  line[sizeof(line) - 1] = 0;
  DbgPrint("VX: %s\n", line);
}

void VxExpect(bool Holds, const char *What, const char *File, int Line, ULONG Value) {
  if (!Holds && FirstFailure[0] == 0) {
    _snprintf(FirstFailure, sizeof(FirstFailure) - 1, "%s:%d: %s (%08lx)", File, Line, What, Value);
  }
}

const char *VxFirstFailure() {
  return FirstFailure[0] != 0 ? FirstFailure : nullptr;
}

void VxForgetFailure() {
  FirstFailure[0] = 0;
}

static LARGE_INTEGER After(ULONG Milliseconds) {
  LARGE_INTEGER interval;
  interval.QuadPart = -10'000LL * Milliseconds;
  return interval;
}

void VxSleep(ULONG Milliseconds) {
  LARGE_INTEGER interval = After(Milliseconds);
  NtDelayExecution(FALSE, &interval);
}

HANDLE VxOpen(PCWSTR Name, NTSTATUS *Status) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, Name);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  IO_STATUS_BLOCK iosb;
  HANDLE handle = nullptr;
  *Status = ZwCreateFile(&handle, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &iosb,
                         nullptr, 0, 0, FILE_OPEN, 0, nullptr, 0);
  return NT_SUCCESS(*Status) ? handle : nullptr;
}

void VxClose(HANDLE *Handle) {
  if (*Handle != nullptr) {
    ZwClose(*Handle);
    *Handle = nullptr;
  }
}

static void Begin(Io *Io) {
  if (Io->Event == nullptr) {
    NtCreateEvent(&Io->Event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
  }
  Io->Iosb.Status = STATUS_PENDING;
  Io->Iosb.Information = 0;
}

// The system leaves the block alone when the request is refused at once.
static NTSTATUS Begun(Io *Io, NTSTATUS Status) {
  if (NT_ERROR(Status)) {
    Io->Iosb.Status = Status;
  }
  return Status;
}

NTSTATUS VxRead(HANDLE File, Io *Io, ULONG Length) {
  Begin(Io);
  LARGE_INTEGER offset = {};
  return Begun(Io, ZwReadFile(File, Io->Event, nullptr, nullptr, &Io->Iosb, Io->Bytes, Length,
                              &offset, nullptr));
}

NTSTATUS VxWrite(HANDLE File, Io *Io, const void *Bytes, ULONG Length) {
  Begin(Io);
  RtlCopyMemory(Io->Bytes, Bytes, Length);
  LARGE_INTEGER offset = {};
  return Begun(Io, ZwWriteFile(File, Io->Event, nullptr, nullptr, &Io->Iosb, Io->Bytes, Length,
                               &offset, nullptr));
}

NTSTATUS VxControl(HANDLE File, Io *Io, ULONG Code, const void *Input, ULONG InputLength,
                   ULONG OutputLength) {
  Begin(Io);
  if (InputLength != 0) {
    RtlCopyMemory(Io->Bytes, Input, InputLength);
  }
  return Begun(Io, NtDeviceIoControlFile(File, Io->Event, nullptr, nullptr, &Io->Iosb, Code,
                                         Io->Bytes, InputLength, Io->Bytes, OutputLength));
}

NTSTATUS VxWait(Io *Io, ULONG Milliseconds) {
  if (NT_ERROR(Io->Iosb.Status)) {
    return Io->Iosb.Status;
  }
  LARGE_INTEGER interval = After(Milliseconds);
  if (ZwWaitForSingleObject(Io->Event, FALSE, &interval) != STATUS_SUCCESS) {
    return STATUS_TIMEOUT;
  }
  return Io->Iosb.Status;
}

void VxCancel(HANDLE File) {
  IO_STATUS_BLOCK iosb;
  NtCancelIoFile(File, &iosb);
}

NTSTATUS VxWriteAll(HANDLE File, const void *Bytes, ULONG Length) {
  Io io = {};
  VxWrite(File, &io, Bytes, Length);
  NTSTATUS status = VxWait(&io);
  VxClose(&io.Event);
  return status == STATUS_SUCCESS && io.Iosb.Information != Length ? STATUS_UNSUCCESSFUL : status;
}

NTSTATUS VxCommand(HANDLE Zk, ULONG Command, ULONG Tag, ULONG Argument) {
  struct {
    FrameHeader Header;
    ULONG Argument;
  } frame = {{FRAME_WITH_ARGUMENT, FRAME_CONTROL, 0, Tag, Command}, Argument};
  return VxWriteAll(Zk, &frame, FRAME_WITH_ARGUMENT);
}

NTSTATUS VxDataFrame(HANDLE Zk, const void *Bytes, ULONG Length) {
  UCHAR frame[IO_BYTES];
  FrameHeader header = {static_cast<ULONG>(sizeof(header)) + Length, FRAME_DATA, 0, TAG_LOWER, 0};
  RtlCopyMemory(frame, &header, sizeof(header));
  RtlCopyMemory(frame + sizeof(header), Bytes, Length);
  return VxWriteAll(Zk, frame, header.Length);
}

FrameHeader VxFrame(HANDLE Zk, Io *Io) {
  FrameHeader header = {};
  VxRead(Zk, Io, IO_BYTES);
  EXPECT_STATUS(VxWait(Io), STATUS_SUCCESS);
  if (Io->Iosb.Status == STATUS_SUCCESS) {
    RtlCopyMemory(&header, Io->Bytes, sizeof(header));
    EXPECT(header.Length == Io->Iosb.Information);
  }
  return header;
}

ULONG VxValue(const Io *Io) {
  ULONG value;
  RtlCopyMemory(&value, Io->Bytes + FRAME_ARGUMENT_OFFSET, sizeof(value));
  return value;
}
