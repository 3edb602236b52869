#include "windows/nt/user/scenarios.h"

#include "windows/nt/user/stage.h"

// IOCTL_SERIAL_GET_BAUD_RATE; the test port knows no control, and ends them all alike.
constexpr ULONG GET_BAUD_RATE = 0x001B0050;

static const ULONG Bufferings[] = {0, VX_DIRECT};
static const ULONG Ways[] = {VX_IN_PLACE, VX_IN_DPC, VX_RAISED};

// The filter stands above the system's own serial driver, and answers.
static void Load() {
  NTSTATUS status;
  HANDLE zk = VxOpen(L"\\??\\VORLIX_COM1", &status);
  EXPECT_STATUS(status, STATUS_SUCCESS);
  if (zk == nullptr) {
    return;
  }
  Io io = {};
  EXPECT_STATUS(VxRead(zk, &io, 64), STATUS_INVALID_DEVICE_STATE);  // in IDLE
  EXPECT_STATUS(VxCommand(zk, COMMAND_SET_MODE, 7, MODE_NORMAL), STATUS_SUCCESS);
  FrameHeader reply = VxFrame(zk, &io);
  EXPECT(reply.Type == FRAME_CONTROL_REPLY && reply.Tag == 7 && reply.Code == 0);
  EXPECT_STATUS(VxCommand(zk, COMMAND_GET_MODE, 8), STATUS_SUCCESS);
  reply = VxFrame(zk, &io);
  EXPECT(reply.Tag == 8 && VxValue(&io) == MODE_NORMAL);
  VxClose(&io.Event);
  VxClose(&zk);
}

// ---- Traffic -------------------------------------------------------------------------------

static void BehaveAll(Stage *Stage, ULONG Way) {
  static const ULONG majors[] = {IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_DEVICE_CONTROL};
  for (ULONG major : majors) {
    EXPECT_STATUS(StageAsk(Stage, IOCTL_VX_BEHAVE, major, Way), STATUS_SUCCESS);
  }
}

// The client writes, and reads what comes while it waits.
static void ClientBothWays(Stage *Stage) {
  Io io = {};
  EXPECT_STATUS(VxWriteAll(Stage->Client, "question", 8), STATUS_SUCCESS);
  EXPECT(StageWasSent(Stage, "question"));
  EXPECT_STATUS(VxRead(Stage->Client, &io, 100), STATUS_PENDING);
  StageFeed(Stage, "answer");
  EXPECT_STATUS(VxWait(&io), STATUS_SUCCESS);
  EXPECT(VxBrought(&io, "answer"));
  VxClose(&io.Event);
}

static void EachPort(void (*Play)(Stage *Stage)) {
  for (ULONG buffering : Bufferings) {
    Stage stage;
    StagePlug(&stage, VX_FIRST_PORT, buffering);
    Play(&stage);
    StageUnplug(&stage);
  }
}

static void PlayIdle(Stage *Stage) {
  EXPECT_STATUS(StageOpenClient(Stage), STATUS_SUCCESS);
  for (ULONG way : Ways) {
    BehaveAll(Stage, way);
    ClientBothWays(Stage);
    Io io = {};
    VxControl(Stage->Client, &io, GET_BAUD_RATE, nullptr, 0, 0);
    EXPECT_STATUS(VxWait(&io), STATUS_SUCCESS);
    VxClose(&io.Event);
  }
  EXPECT(StageSeen(Stage, IRP_MJ_DEVICE_CONTROL) == 3);
}

static void PlayNormal(Stage *Stage) {
  StageNormal(Stage);
  for (ULONG way : Ways) {
    BehaveAll(Stage, way);
    ClientBothWays(Stage);
    EXPECT(StageFrame(Stage, TAG_CLIENT, "question"));
    EXPECT(StageFrame(Stage, TAG_LOWER, "answer"));
    EXPECT_STATUS(VxDataFrame(Stage->Zk, "of ZK's own", 11), STATUS_SUCCESS);
    EXPECT(StageWasSent(Stage, "of ZK's own"));
  }
}

static void Idle() {
  EachPort(PlayIdle);
}

static void Normal() {
  EachPort(PlayNormal);
}

// ---- Control -------------------------------------------------------------------------------

static void PlayCommands(Stage *Stage) {
  StageNormal(Stage);
  EXPECT(StageCommand(Stage, COMMAND_GET_MODE) == MODE_NORMAL);
  StageCommand(Stage, COMMAND_SET_LEVEL, 3);
  EXPECT(StageCommand(Stage, COMMAND_GET_LEVEL) == 3);
  StageCommand(Stage, COMMAND_LOCK_STREAM);
  StageCommand(Stage, COMMAND_UNLOCK_STREAM);
  // Refused, and said.
  Io io = {};
  EXPECT_STATUS(VxCommand(Stage->Zk, COMMAND_SET_MODE, 99, MODE_REDIRECT), STATUS_SUCCESS);
  FrameHeader frame = VxFrame(Stage->Zk, &io);
  EXPECT(frame.Type == FRAME_REPORT && frame.Tag == TAG_DRIVER);
  frame = VxFrame(Stage->Zk, &io);
  EXPECT(frame.Tag == 99 && frame.Code == static_cast<ULONG>(STATUS_NOT_SUPPORTED));
  EXPECT_STATUS(VxCommand(Stage->Zk, 5, 1), STATUS_INVALID_PARAMETER);
  // Frames that lie.
  struct Lie {
    ULONG Length, Type, Bytes;
  };
  static const Lie lies[] = {{24, FRAME_DATA, 23},      {60, FRAME_DATA, 100},
                             {101, FRAME_CONTROL, 100}, {24, FRAME_REPORT, 24},
                             {24, 0xFFFFFFFF, 24},      {0xFFFFFFFF, FRAME_DATA, 64}};
  for (const Lie &lie : lies) {
    UCHAR bytes[128] = {};
    RtlCopyMemory(bytes, &lie, 2 * sizeof(ULONG));
    EXPECT_STATUS(VxWriteAll(Stage->Zk, bytes, lie.Bytes), STATUS_INVALID_PARAMETER);
  }
  VxClose(&io.Event);
}

static void Commands() {
  EachPort(PlayCommands);
}

// Under the lock the client's writes wait; one is cancelled, one goes on when the lock ends.
static void PlayLock(Stage *Stage) {
  StageNormal(Stage);
  StageCommand(Stage, COMMAND_LOCK_STREAM);
  Io cancelled = {}, released = {};
  EXPECT_STATUS(VxWrite(Stage->Client, &cancelled, "never", 5), STATUS_PENDING);
  VxCancel(Stage->Client);
  EXPECT_STATUS(VxWait(&cancelled), STATUS_CANCELLED);
  EXPECT_STATUS(VxWrite(Stage->Client, &released, "late", 4), STATUS_PENDING);
  EXPECT(StageSeen(Stage, IRP_MJ_WRITE) == 0);
  StageCommand(Stage, COMMAND_UNLOCK_STREAM);
  EXPECT_STATUS(VxWait(&released), STATUS_SUCCESS);
  EXPECT(StageWasSent(Stage, "late"));
  EXPECT(StageFrame(Stage, TAG_CLIENT, "late"));
  VxClose(&cancelled.Event);
  VxClose(&released.Event);
}

static void Lock() {
  EachPort(PlayLock);
}

// ---- Opens ---------------------------------------------------------------------------------

// Each order of opening and closing, with a second open of each side refused.
static void PlayOpens(Stage *Stage) {
  for (ULONG round = 0; round < 200; ++round) {
    HANDLE *first = round % 2 != 0 ? &Stage->Zk : &Stage->Client;
    EXPECT_STATUS(round % 2 != 0 ? StageOpenZk(Stage) : StageOpenClient(Stage), STATUS_SUCCESS);
    EXPECT_STATUS(round % 2 != 0 ? StageOpenClient(Stage) : StageOpenZk(Stage), STATUS_SUCCESS);
    struct Stage second = *Stage;
    EXPECT_STATUS(StageOpenZk(&second), STATUS_ACCESS_DENIED);
    EXPECT_STATUS(StageOpenClient(&second), STATUS_ACCESS_DENIED);
    if (round % 4 < 2) {
      VxClose(first);
    }
    VxClose(&Stage->Client);
    VxClose(&Stage->Zk);
  }
  EXPECT(StageSeen(Stage, IRP_MJ_CREATE) == StageSeen(Stage, IRP_MJ_CLOSE));
}

static void Opens() {
  EachPort(PlayOpens);
}

// ---- Cancels -------------------------------------------------------------------------------

// Reads and writes that wait, in the pipe or at the port, end when they are cancelled, and when
// their handle is closed.
static void PlayCancels(Stage *Stage) {
  for (ULONG round = 0; round < 4; ++round) {
    bool normal = round % 2 != 0;
    if (normal) {
      StageNormal(Stage);
    } else {
      EXPECT_STATUS(StageOpenClient(Stage), STATUS_SUCCESS);
    }
    EXPECT_STATUS(StageAsk(Stage, IOCTL_VX_BEHAVE, IRP_MJ_WRITE, VX_HOLD), STATUS_SUCCESS);
    Io reads[3] = {};
    Io write = {};
    for (Io &read : reads) {
      EXPECT_STATUS(VxRead(Stage->Client, &read, 10), STATUS_PENDING);
    }
    EXPECT_STATUS(VxWrite(Stage->Client, &write, "held", 4), STATUS_PENDING);
    EXPECT(StageAwaitHeld(Stage, IRP_MJ_WRITE, 1));
    if (round < 2) {
      VxCancel(Stage->Client);
    } else {
      VxClose(&Stage->Client);
    }
    for (Io &read : reads) {
      EXPECT_STATUS(VxWait(&read), STATUS_CANCELLED);
      VxClose(&read.Event);
    }
    // Beside ZK the port does not hear of the client's end: its write stays there until it is done.
    bool stays = round == 3;
    if (stays) {
      EXPECT_STATUS(StageAsk(Stage, IOCTL_VX_FINISH, IRP_MJ_WRITE), STATUS_SUCCESS);
    }
    EXPECT_STATUS(VxWait(&write), stays ? STATUS_SUCCESS : STATUS_CANCELLED);
    VxClose(&write.Event);
    VxClose(&Stage->Client);
    VxClose(&Stage->Zk);
    EXPECT(StageAwaitHeld(Stage, IRP_MJ_READ, 0));
  }
}

static void Cancels() {
  EachPort(PlayCancels);
}

// ---- Comings and goings --------------------------------------------------------------------

// Fifty lives of a port, each ended by surprise while both sides wait for it.
static void Unplugs() {
  for (ULONG life = 0; life < 50; ++life) {
    Stage stage;
    StagePlug(&stage, VX_FIRST_PORT + life % VX_PORTS, Bufferings[life % 2]);
    StageNormal(&stage);
    Io client = {}, zk = {}, write = {};
    EXPECT_STATUS(VxRead(stage.Client, &client, 10), STATUS_PENDING);
    EXPECT_STATUS(VxRead(stage.Zk, &zk, 100), STATUS_PENDING);
    StageAsk(&stage, IOCTL_VX_BEHAVE, IRP_MJ_WRITE, VX_HOLD);
    EXPECT_STATUS(VxWrite(stage.Client, &write, "held", 4), STATUS_PENDING);
    EXPECT_STATUS(StageAsk(&stage, IOCTL_VX_UNPLUG), STATUS_SUCCESS);
    EXPECT_STATUS(VxWait(&client), STATUS_CANCELLED);
    EXPECT_STATUS(VxWait(&zk), STATUS_SUCCESS);  // with the copy of what the client wrote
    EXPECT_STATUS(VxWait(&write), STATUS_DELETE_PENDING);
    EXPECT(!NT_SUCCESS(VxWriteAll(stage.Client, "x", 1)));
    VxClose(&client.Event);
    VxClose(&zk.Event);
    VxClose(&write.Event);
    StageAsk(&stage, IOCTL_VX_BEHAVE, IRP_MJ_WRITE, VX_IN_PLACE);
    StageUnplug(&stage);
  }
}

const Scenario Scenarios[] = {
    {"load", Load}, {"idle", Idle},   {"normal", Normal},   {"commands", Commands},
    {"lock", Lock}, {"opens", Opens}, {"cancels", Cancels}, {"unplugs", Unplugs},
};
const ULONG ScenarioCount = sizeof(Scenarios) / sizeof(Scenarios[0]);
