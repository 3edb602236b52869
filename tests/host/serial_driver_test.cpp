// The serial port driver alone, over a pty whose master is the device, under the verifier.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <numeric>

#include "host/serial_codes.h"
#include "host/serial_driver.h"
#include "host/serial_line.h"
#include "tests/host/loop_run.h"

using Bytes = std::vector<uint8_t>;

struct World {
  int Device = -1;  // the pty's master
  int Slave = -1;   // keeps the pty's state from close to open, as a real line's
  char Tty[64] = {};
  PDRIVER_OBJECT Driver = nullptr;
  PnpNode *Node = nullptr;
  HANDLE Port = nullptr;
};

static unsigned Losses;

static void Boot(World *W) {
  Losses = 0;
  SerialOnLoss([](PDEVICE_OBJECT) { ++Losses; });
  W->Device = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_EQ(0, grantpt(W->Device) | unlockpt(W->Device));
  ASSERT_EQ(0, ptsname_r(W->Device, W->Tty, sizeof(W->Tty)));
  W->Slave = open(W->Tty, O_RDWR | O_NOCTTY);
  W->Driver = DriverLoad("serial", SerialDriverEntry);
  PortDescription description;
  std::string path = W->Tty;
  description.Values["PortName"] = RegistryText("COM3");
  description.Values["TtyPath"] = {REG_BINARY, {path.begin(), path.end()}};
  description.Drivers = {W->Driver};
  W->Node = PnpAdd(description);
  ASSERT_NE(nullptr, W->Node);
  ASSERT_EQ(STATUS_SUCCESS, PnpStart(W->Node));
  ASSERT_EQ(STATUS_SUCCESS, FileOpen("\\DosDevices\\COM3", Account::User, &W->Port));
}

static void TearDown(World *W) {
  if (W->Port) {
    FileClose(W->Port);
  }
  PnpRemove(W->Node);
  DriverUnload(W->Driver);
  close(W->Slave);
  close(W->Device);
}

// Plays Body with an open port. The end checks that nothing is left over.
static void Play(const std::function<void(World *)> &Body) {
  RunInLoop("a serial port", [&Body]() {
    World world;
    Boot(&world);
    Body(&world);
    TearDown(&world);
  });
}

static void AwaitDevice(World *W) {
  KEVENT ready;
  KeInitializeEvent(&ready, NotificationEvent, FALSE);
  LoopFd *watch = LoopFdAdd(W->Device);
  LoopFdWait(watch, LoopWait::Readable, [&ready]() { KeSetEvent(&ready, IO_NO_INCREMENT, FALSE); });
  KeWaitForSingleObject(&ready, Executive, KernelMode, FALSE, nullptr);
  LoopFdRemove(watch);
}

static Bytes DeviceTake(World *W, size_t Count) {
  Bytes taken(Count);
  for (size_t done = 0; done < Count;) {
    ssize_t bytes = read(W->Device, taken.data() + done, Count - done);
    if (bytes > 0) {
      done += static_cast<size_t>(bytes);
    } else {
      AwaitDevice(W);
    }
  }
  return taken;
}

static void DeviceSay(World *W, const Bytes &Said) {
  ASSERT_EQ(static_cast<ssize_t>(Said.size()), write(W->Device, Said.data(), Said.size()));
}

static Bytes Pattern(size_t Count, uint8_t First) {
  Bytes bytes(Count);
  std::iota(bytes.begin(), bytes.end(), First);
  return bytes;
}

static FileRequest Request(UCHAR Major, Bytes Buffer) {
  FileRequest request;
  request.Major = Major;
  request.Buffer = std::move(Buffer);
  return request;
}

static NTSTATUS Control(World *W, ULONG Code, Bytes *Buffer, ULONG OutputBytes) {
  FileRequest request = Request(IRP_MJ_DEVICE_CONTROL, *Buffer);
  request.ControlCode = Code;
  request.OutputBytes = OutputBytes;
  FileSend(W->Port, &request);
  NTSTATUS status = FileWait(&request);
  *Buffer = request.Buffer;
  return status;
}

template <typename Record>
static Bytes BytesOf(const Record &From) {
  auto *at = reinterpret_cast<const uint8_t *>(&From);
  return {at, at + sizeof(From)};
}

TEST(SerialDriver, ReadTakesWhatIsThereAndWaitsForTheFirstByte) {
  Play([](World *W) {
    Bytes bytes;
    DeviceSay(W, {'a', 'b', 'c'});
    EXPECT_EQ(STATUS_SUCCESS, FileRead(W->Port, 10, &bytes));
    EXPECT_EQ((Bytes{'a', 'b', 'c'}), bytes);
    EXPECT_EQ(STATUS_SUCCESS, FileRead(W->Port, 0, &bytes));

    FileRequest first = Request(IRP_MJ_READ, Bytes(2));
    FileRequest second = Request(IRP_MJ_READ, Bytes(8));
    EXPECT_EQ(STATUS_PENDING, FileSend(W->Port, &first));
    EXPECT_EQ(STATUS_PENDING, FileSend(W->Port, &second));
    EXPECT_FALSE(FileDone(&first));
    DeviceSay(W, {1, 2, 3, 4, 5});
    EXPECT_EQ(STATUS_SUCCESS, FileWait(&first));
    EXPECT_EQ(STATUS_SUCCESS, FileWait(&second));
    EXPECT_EQ((Bytes{1, 2}), first.Buffer);
    EXPECT_EQ(3u, second.Iosb.Information);
    EXPECT_EQ(5, second.Buffer[2]);
  });
}

TEST(SerialDriver, WritesLongerThanTheLineTakesGoOnInOrderAndFlushWaitsForThem) {
  Play([](World *W) {
    Bytes first = Pattern(300'000, 0);
    Bytes second = Pattern(100'000, 77);
    FileRequest writes[] = {Request(IRP_MJ_WRITE, first), Request(IRP_MJ_WRITE, second)};
    FileRequest flush = Request(IRP_MJ_FLUSH_BUFFERS, {});
    for (FileRequest &one : writes) {
      EXPECT_EQ(STATUS_PENDING, FileSend(W->Port, &one));
    }
    FileSend(W->Port, &flush);
    EXPECT_FALSE(FileDone(&writes[0]) || FileDone(&flush));
    EXPECT_EQ(first, DeviceTake(W, first.size()));
    EXPECT_EQ(STATUS_SUCCESS, FileWait(&writes[0]));
    EXPECT_FALSE(FileDone(&flush));
    EXPECT_EQ(second, DeviceTake(W, second.size()));
    EXPECT_EQ(STATUS_SUCCESS, FileWait(&flush));
    EXPECT_EQ(second.size(), writes[1].Iosb.Information);
  });
}

TEST(SerialDriver, CancelledWriteReportsItsProgressAndTheNextGoesOn) {
  Play([](World *W) {
    Bytes first = Pattern(300'000, 0);
    Bytes second = Pattern(1000, 200);
    FileRequest writes[] = {Request(IRP_MJ_WRITE, first), Request(IRP_MJ_WRITE, second)};
    FileRequest read = Request(IRP_MJ_READ, Bytes(8));
    FileSend(W->Port, &writes[0]);
    FileSend(W->Port, &writes[1]);
    FileSend(W->Port, &read);
    EXPECT_TRUE(FileCancel(&writes[0]));
    EXPECT_TRUE(FileCancel(&read));
    EXPECT_EQ(STATUS_CANCELLED, FileWait(&writes[0]));
    EXPECT_EQ(STATUS_CANCELLED, FileWait(&read));
    size_t progress = writes[0].Iosb.Information;
    EXPECT_GT(progress, 0u);
    first.resize(progress);
    EXPECT_EQ(first, DeviceTake(W, progress));
    EXPECT_EQ(second, DeviceTake(W, second.size()));
    EXPECT_EQ(STATUS_SUCCESS, FileWait(&writes[1]));
  });
}

TEST(SerialDriver, PurgeAndCleanupEndWhatWaits) {
  Play([](World *W) {
    FileRequest write = Request(IRP_MJ_WRITE, Pattern(300'000, 0));
    FileRequest read = Request(IRP_MJ_READ, Bytes(8));
    FileSend(W->Port, &write);
    FileSend(W->Port, &read);
    Bytes what = BytesOf(ULONG{SERIAL_PURGE_TXABORT | SERIAL_PURGE_TXCLEAR});
    EXPECT_EQ(STATUS_SUCCESS, Control(W, IOCTL_SERIAL_PURGE, &what, 0));
    EXPECT_EQ(STATUS_CANCELLED, FileWait(&write));
    EXPECT_FALSE(FileDone(&read));
    what = BytesOf(ULONG{0x10});
    EXPECT_EQ(STATUS_INVALID_PARAMETER, Control(W, IOCTL_SERIAL_PURGE, &what, 0));
    FileClose(std::exchange(W->Port, nullptr));
    EXPECT_EQ(STATUS_CANCELLED, FileWait(&read));
  });
}

TEST(SerialDriver, ControlsSetTheLineAndRefuseWhatItCannotDo) {
  struct Step {
    ULONG Code;
    Bytes Input;
    ULONG OutputBytes;
    NTSTATUS Status;
    Bytes Output;
  };
  Bytes timeouts = BytesOf(SERIAL_TIMEOUTS{1, 2, 3, 4, 5});
  Bytes flow = BytesOf(SERIAL_HANDFLOW{SERIAL_CTS_HANDSHAKE, SERIAL_RTS_HANDSHAKE, 1, 2});
  const Step Steps[] = {
      {IOCTL_SERIAL_SET_BAUD_RATE, BytesOf(ULONG{115200}), 0, STATUS_SUCCESS, {}},
      {IOCTL_SERIAL_GET_BAUD_RATE, {}, 4, STATUS_SUCCESS, BytesOf(ULONG{115200})},
      {IOCTL_SERIAL_SET_BAUD_RATE, BytesOf(ULONG{0}), 0, STATUS_INVALID_PARAMETER, {}},
      {IOCTL_SERIAL_SET_BAUD_RATE, Bytes(3), 0, STATUS_BUFFER_TOO_SMALL, {}},
      {IOCTL_SERIAL_GET_BAUD_RATE, {}, 3, STATUS_BUFFER_TOO_SMALL, {}},
      {IOCTL_SERIAL_SET_LINE_CONTROL, {2, 2, 8}, 0, STATUS_SUCCESS, {}},
      {IOCTL_SERIAL_SET_LINE_CONTROL, {0, 0, 9}, 0, STATUS_INVALID_PARAMETER, {}},
      {IOCTL_SERIAL_SET_LINE_CONTROL, {0, 5, 8}, 0, STATUS_INVALID_PARAMETER, {}},
      {IOCTL_SERIAL_SET_LINE_CONTROL, {1, 0, 8}, 0, STATUS_INVALID_PARAMETER, {}},
      {IOCTL_SERIAL_GET_LINE_CONTROL, {}, 3, STATUS_SUCCESS, {2, 2, 8}},
      {IOCTL_SERIAL_SET_TIMEOUTS, timeouts, 0, STATUS_SUCCESS, {}},
      {IOCTL_SERIAL_GET_TIMEOUTS, {}, 20, STATUS_SUCCESS, timeouts},
      {IOCTL_SERIAL_SET_HANDFLOW, flow, 0, STATUS_SUCCESS, {}},
      {IOCTL_SERIAL_GET_HANDFLOW, {}, 16, STATUS_SUCCESS, flow},
      {SERIAL_CONTROL(99), {}, 0, STATUS_INVALID_DEVICE_REQUEST, {}},
  };
  Play([&Steps](World *W) {
    for (const Step &step : Steps) {
      Bytes buffer = step.Input;
      NTSTATUS status = Control(W, step.Code, &buffer, step.OutputBytes);
      EXPECT_EQ(step.Status, status) << &step - Steps;
      if (NT_SUCCESS(status) && step.OutputBytes) {
        EXPECT_EQ(step.Output, buffer) << &step - Steps;
      }
    }
    LineSettings line;
    ASSERT_EQ(0, LineRead(W->Device, &line));
    EXPECT_EQ(115200u, line.Speed);
    EXPECT_EQ(STOP_BITS_2, line.StopBits);
    EXPECT_TRUE(line.HardwareFlow);

    // The settings outlast a close, even when somebody else changed the tty meanwhile.
    FileClose(W->Port);
    line.Speed = 300;
    LineApply(W->Slave, line);
    ASSERT_EQ(STATUS_SUCCESS, FileOpen("\\DosDevices\\COM3", Account::User, &W->Port));
    ASSERT_EQ(0, LineRead(W->Device, &line));
    EXPECT_EQ(115200u, line.Speed);
  });
}

TEST(SerialDriver, LossEndsEverythingOnce) {
  Play([](World *W) {
    FileRequest read = Request(IRP_MJ_READ, Bytes(8));
    FileRequest write = Request(IRP_MJ_WRITE, Pattern(300'000, 0));
    FileSend(W->Port, &read);
    FileSend(W->Port, &write);
    close(std::exchange(W->Device, -1));
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, FileWait(&read));
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, FileWait(&write));
    EXPECT_EQ(1u, Losses);
    Bytes bytes;
    EXPECT_EQ(STATUS_DEVICE_NOT_CONNECTED, FileRead(W->Port, 8, &bytes));
    PnpSurpriseRemove(W->Node);
    EXPECT_EQ(STATUS_DEVICE_REMOVED, FileWrite(W->Port, {1}));
    EXPECT_EQ(1u, Losses);
  });
}
