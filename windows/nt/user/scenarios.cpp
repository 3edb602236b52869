#include "windows/nt/user/scenarios.h"

static const WCHAR ZkName[] = L"\\??\\VORLIX_COM1";

// The filter stands above the system's own serial driver, and answers.
static void Load() {
  NTSTATUS status;
  HANDLE zk = VxOpen(ZkName, &status);
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

const Scenario Scenarios[] = {
    {"load", Load},
};
const ULONG ScenarioCount = sizeof(Scenarios) / sizeof(Scenarios[0]);
