// A port whose tty comes and goes while its stack is built or removed: every order, forced by a
// driver that stops in each request of the Plug and Play manager until the test lets it go on.
#include "host/port.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <utility>

#include "host/tty_watch.h"
#include "tests/host/loop_run.h"

static KEVENT Entered;  // the driver is in a request of kind Minor
static KEVENT Go;
static UCHAR Minor;
static NTSTATUS StartStatus;
static PDEVICE_OBJECT Below;

static NTSTATUS Pnp(PDEVICE_OBJECT Device, PIRP Irp) {
  UCHAR minor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
  if (minor == IRP_MN_START_DEVICE || minor == IRP_MN_SURPRISE_REMOVAL ||
      minor == IRP_MN_REMOVE_DEVICE) {
    Minor = minor;
    KeSetEvent(&Entered, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(&Go, Executive, KernelMode, FALSE, nullptr);
    Irp->IoStatus.Status = minor == IRP_MN_START_DEVICE ? StartStatus : STATUS_SUCCESS;
  }
  if (minor == IRP_MN_START_DEVICE && !NT_SUCCESS(StartStatus)) {
    NTSTATUS status = StartStatus;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return status;
  }
  IoSkipCurrentIrpStackLocation(Irp);
  NTSTATUS status = IofCallDriver(Below, Irp);
  if (minor == IRP_MN_REMOVE_DEVICE) {
    IoDetachDevice(Below);
    IoDeleteDevice(Device);
  }
  return status;
}

static NTSTATUS AddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT PhysicalDevice) {
  PDEVICE_OBJECT device = nullptr;
  NTSTATUS status = IoCreateDevice(Driver, 0, nullptr, FILE_DEVICE_SERIAL_PORT, 0, FALSE, &device);
  if (NT_SUCCESS(status)) {
    Below = IoAttachDeviceToDeviceStack(device, PhysicalDevice);
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  }
  return status;
}

static NTSTATUS GateEntry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  Driver->DriverExtension->AddDevice = AddDevice;
  Driver->DriverUnload = [](PDRIVER_OBJECT) {};
  Driver->MajorFunction[IRP_MJ_PNP] = Pnp;
  return STATUS_SUCCESS;
}

struct World {
  std::string Directory;
  std::string Link;
  int Device = -1;  // the master of the pty that the link leads to
  Port *ThePort = nullptr;
  KEVENT LinkSeen = {};
  KEVENT Settled = {};  // the port is ready, or refused
  KEVENT Stopped = {};
};

static void Await(KEVENT *Event) {
  KeWaitForSingleObject(Event, Executive, KernelMode, FALSE, nullptr);
}

static void Set(KEVENT *Event) {
  KeSetEvent(Event, IO_NO_INCREMENT, FALSE);
}

static void MakePty(World *W) {
  W->Device = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_EQ(0, grantpt(W->Device) | unlockpt(W->Device));
  ASSERT_EQ(0, symlink(ptsname(W->Device), W->Link.c_str()));
}

// Until the loop has run every handler of what has changed.
static void AwaitLinkSeen(World *W) {
  KEVENT after;
  KeInitializeEvent(&after, NotificationEvent, FALSE);
  Await(&W->LinkSeen);
  LoopPost([&after]() { Set(&after); });
  Await(&after);
}

// What Order speaks of.
static const std::map<char, void (*)(World *)> Actions = {
    {'+', [](World *W) { MakePty(W), AwaitLinkSeen(W); }},
    {'-',
     [](World *W) {
       close(std::exchange(W->Device, -1)), unlink(W->Link.c_str()), AwaitLinkSeen(W);
     }},
    {'s', [](World *W) { Await(&W->Settled); }},
    {'x', [](World *W) { PortStop(W->ThePort, [W]() { Set(&W->Stopped); }); }},
    {'F', [](World *) { StartStatus = STATUS_INSUFFICIENT_RESOURCES; }},
    {'A', [](World *) { StartStatus = STATUS_SUCCESS; }},
};

// All requests that the driver gets, in order: S start, L loss (surprise removal), R removal.
// Behind each what is done before it goes on, and after a slash right after it was told to: as in
// Actions, where s awaits that the port is ready or refused.
struct Order {
  const char *Name;
  const char *Requests;
};

static char LetterOf(UCHAR Request) {
  return Request == IRP_MN_START_DEVICE ? 'S' : Request == IRP_MN_REMOVE_DEVICE ? 'R' : 'L';
}

static void FollowScript(World *W, const char *Requests) {
  std::istringstream requests(Requests);
  for (std::string request; requests >> request;) {
    Await(&Entered);
    EXPECT_EQ(request[0], LetterOf(Minor));
    for (char action : request.substr(1)) {
      action == '/' ? Set(&Go) : Actions.at(action)(W);
    }
    if (request.find('/') == std::string::npos) {
      Set(&Go);
    }
  }
  Await(&W->Stopped);
}

static void Play(const Order &Script) {
  World world;
  std::string error;
  char directory[] = "/tmp/vorlix-XXXXXX";
  world.Directory = mkdtemp(directory);
  world.Link = world.Directory + "/tty";
  for (KEVENT *event : {&Entered, &Go, &world.LinkSeen, &world.Settled, &world.Stopped}) {
    KeInitializeEvent(event, SynchronizationEvent, FALSE);
  }
  StartStatus = STATUS_SUCCESS;
  MakePty(&world);
  TtyWatch *link = TtyWatchMake([&world](int) { Set(&world.LinkSeen); });
  TtyWatch *ready = TtyWatchMake([&world](int) {
    if (std::filesystem::exists(world.Directory + "/VORLIX_COM3")) {
      Set(&world.Settled);
    }
  });
  EXPECT_EQ(0, TtyWatchPath(link, world.Link));
  EXPECT_EQ(0, TtyWatchPath(ready, world.Directory + "/VORLIX_COM3"));
  PDRIVER_OBJECT driver = DriverLoad("gate", GateEntry);
  world.ThePort = PortClaim({world.Link, "COM3", world.Directory, {}, ""}, &error);
  PortStart(world.ThePort, {driver}, [&world]() { Set(&world.Settled); });
  FollowScript(&world, Script.Requests);
  TtyWatchEnd(link);
  TtyWatchEnd(ready);
  PortRelease(world.ThePort);
  DriverUnload(driver);
  if (world.Device >= 0) {
    close(world.Device);
  }
  std::filesystem::remove_all(world.Directory);
}

TEST(Port, SurvivesEveryOrderOfGoingComingAndStopping) {
  static const Order orders[] = {
      {"gone while ready", "S/s- L R/+ S/sx R"},
      {"gone during the start", "S- L R/+ S/sx R"},
      {"gone and back during the start", "S-+ L R S/sx R"},
      {"back during the surprise removal", "S/s- L+ R S/sx R"},
      {"back during the removal, gone and back again", "S/s- L R+-+ S/sx R"},
      {"back during the removal, and gone again", "S/s- L R+-/+ S/sx R"},
      {"stopped during the start", "Sx R"},
      {"gone and stopped during the start", "S-x R"},
      {"gone during the removal of a stop", "S/sx R-"},
      {"stopped during the surprise removal", "S/s- Lx+ R"},
      {"stopped during the removal", "S/s- L R+x"},
      {"stopped while away", "S/s- L R/x"},
      {"refused, and tried again with the next device", "SF/s RA/-+ S/sx R"},
      {"refused, and the next device is there before the end", "SF/s RA-+ S/sx R"},
  };
  for (const Order &order : orders) {
    SCOPED_TRACE(order.Name);
    RunInLoop(order.Name, [&order]() { Play(order); });
  }
}
