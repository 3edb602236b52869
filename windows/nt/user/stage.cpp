#include "windows/nt/user/stage.h"

constexpr ULONG ROUNDS = 500;  // of 20 ms

static PCWSTR NameOf(WCHAR *Buffer, PCWSTR Prefix, ULONG Port) {
  ULONG at = 0;
  for (; Prefix[at] != 0; ++at) {
    Buffer[at] = Prefix[at];
  }
  Buffer[at] = static_cast<WCHAR>(L'0' + Port);
  Buffer[at + 1] = 0;
  return Buffer;
}

ULONG VxLength(const char *Text) {
  ULONG length = 0;
  while (Text[length] != 0) {
    ++length;
  }
  return length;
}

static bool Same(const void *Bytes, const char *Text, ULONG Count) {
  return RtlCompareMemory(Bytes, Text, Count) == Count;
}

bool VxBrought(const Io *Io, const char *Text) {
  ULONG length = VxLength(Text);
  return Io->Iosb.Status == STATUS_SUCCESS && Io->Iosb.Information == length &&
         Same(Io->Bytes, Text, length);
}

static NTSTATUS Ask(Stage *Stage, ULONG Code, const VxPortRequest *Request, const char *Bytes,
                    Io *Io, ULONG Room) {
  UCHAR buffer[IO_BYTES];
  ULONG length = Bytes != nullptr ? VxLength(Bytes) : 0;
  RtlCopyMemory(buffer, Request, sizeof(*Request));
  if (length != 0) {
    RtlCopyMemory(buffer + sizeof(*Request), Bytes, length);
  }
  ULONG bytes = static_cast<ULONG>(sizeof(*Request)) + length;
  VxControl(Stage->Bus, Io, Code, buffer, bytes, Room);
  return VxWait(Io);
}

NTSTATUS StageAsk(Stage *Stage, ULONG Code, ULONG Major, ULONG How, ULONG Value) {
  VxPortRequest request = {static_cast<uint32_t>(Stage->Port), static_cast<uint32_t>(Major),
                           static_cast<uint32_t>(How), static_cast<uint32_t>(Value)};
  Io io = {};
  NTSTATUS status = Ask(Stage, Code, &request, nullptr, &io, 0);
  VxClose(&io.Event);
  return status;
}

static NTSTATUS Open(Stage *Stage, PCWSTR Prefix, HANDLE *Handle) {
  WCHAR name[32];
  NTSTATUS status;
  *Handle = VxOpen(NameOf(name, Prefix, Stage->Port), &status);
  return status;
}

NTSTATUS StageOpenClient(Stage *Stage) {
  return Open(Stage, L"\\??\\COM", &Stage->Client);
}

NTSTATUS StageOpenZk(Stage *Stage) {
  return Open(Stage, L"\\??\\VORLIX_COM", &Stage->Zk);
}

// Until the control device answers, or does not any more.
static bool AwaitControlDevice(Stage *Stage, bool There) {
  for (ULONG round = 0; round < ROUNDS; ++round) {
    HANDLE zk;
    bool opened = NT_SUCCESS(Open(Stage, L"\\??\\VORLIX_COM", &zk));
    VxClose(&zk);
    if (opened == There) {
      return true;
    }
    VxSleep(20);
  }
  return false;
}

void StagePlug(Stage *Stage, ULONG Port, ULONG Flags) {
  NTSTATUS status;
  *Stage = {};
  Stage->Port = Port;
  Stage->Bus = VxOpen(VXPORT_DEVICE, &status);
  EXPECT_STATUS(status, STATUS_SUCCESS);
  status = STATUS_DEVICE_BUSY;
  for (ULONG round = 0; round < ROUNDS && status == STATUS_DEVICE_BUSY; ++round) {
    VxSleep(round != 0 ? 20 : 0);
    status = StageAsk(Stage, IOCTL_VX_PLUG, 0, 0, Flags);
  }
  EXPECT_STATUS(status, STATUS_SUCCESS);
  EXPECT(AwaitControlDevice(Stage, true));
}

void StageUnplug(Stage *Stage) {
  VxClose(&Stage->Client);
  VxClose(&Stage->Zk);
  EXPECT_STATUS(StageAsk(Stage, IOCTL_VX_UNPLUG), STATUS_SUCCESS);
  EXPECT(AwaitControlDevice(Stage, false));
  VxClose(&Stage->Bus);
}

void StageNormal(Stage *Stage) {
  EXPECT_STATUS(StageOpenZk(Stage), STATUS_SUCCESS);
  EXPECT_STATUS(StageOpenClient(Stage), STATUS_SUCCESS);
  StageCommand(Stage, COMMAND_SET_MODE, MODE_NORMAL);
}

ULONG StageCommand(Stage *Stage, ULONG Command, ULONG Argument) {
  Io io = {};
  EXPECT_STATUS(VxCommand(Stage->Zk, Command, ++Stage->Tag, Argument), STATUS_SUCCESS);
  FrameHeader reply = VxFrame(Stage->Zk, &io);
  EXPECT(reply.Type == FRAME_CONTROL_REPLY && reply.Tag == Stage->Tag && reply.Code == 0);
  ULONG value = VxValue(&io);
  VxClose(&io.Event);
  return value;
}

void StageFeed(Stage *Stage, const char *Text) {
  VxPortRequest request = {static_cast<uint32_t>(Stage->Port), 0, 0, 0};
  Io io = {};
  EXPECT_STATUS(Ask(Stage, IOCTL_VX_FEED, &request, Text, &io, 0), STATUS_SUCCESS);
  VxClose(&io.Event);
}

bool StageWasSent(Stage *Stage, const char *Text) {
  VxPortRequest request = {static_cast<uint32_t>(Stage->Port), 0, 0, 0};
  Io io = {};
  EXPECT_STATUS(Ask(Stage, IOCTL_VX_TAKE, &request, nullptr, &io, IO_BYTES), STATUS_SUCCESS);
  bool same = VxBrought(&io, Text);
  VxClose(&io.Event);
  return same;
}

bool StageFrame(Stage *Stage, ULONG Tag, const char *Text) {
  Io io = {};
  FrameHeader frame = VxFrame(Stage->Zk, &io);
  ULONG length = VxLength(Text);
  VxClose(&io.Event);
  return frame.Type == FRAME_REPORT && frame.Tag == Tag && frame.Code == 0 &&
         frame.Length == sizeof(frame) + length && Same(io.Bytes + sizeof(frame), Text, length);
}

static ULONG Counted(Stage *Stage, ULONG Major, ULONG Which) {
  VxPortRequest request = {static_cast<uint32_t>(Stage->Port), static_cast<uint32_t>(Major), 0, 0};
  ULONG counts[2] = {};
  Io io = {};
  EXPECT_STATUS(Ask(Stage, IOCTL_VX_COUNT, &request, nullptr, &io, sizeof(counts)), STATUS_SUCCESS);
  RtlCopyMemory(counts, io.Bytes, sizeof(counts));
  VxClose(&io.Event);
  return counts[Which];
}

ULONG StageSeen(Stage *Stage, ULONG Major) {
  return Counted(Stage, Major, 0);
}

ULONG StageHeld(Stage *Stage, ULONG Major) {
  return Counted(Stage, Major, 1);
}

bool StageAwaitHeld(Stage *Stage, ULONG Major, ULONG Count) {
  for (ULONG round = 0; round < ROUNDS; ++round) {
    if (StageHeld(Stage, Major) == Count) {
      return true;
    }
    VxSleep(20);
  }
  return false;
}
