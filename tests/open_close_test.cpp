// Opens, closes and cleanups of both sides, and the serializer that orders them.
#include <gtest/gtest.h>

#include "tests/support/world.h"

TEST(OpenClose, ThePortSeesOneOpenForBothSides) {
  for (bool zkFirst : {false, true}) {
    RunWorld([=](World *world) {
      LowerPort *lower = &world->Lower;
      PortExtension *port = WorldPort(world);
      EXPECT_EQ(zkFirst ? OpenZk(world) : OpenClient(world), STATUS_SUCCESS);
      EXPECT_EQ(port->LowerOpenContext, &lower->OpenContext);
      EXPECT_EQ(zkFirst ? OpenClient(world) : OpenZk(world), STATUS_SUCCESS);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CREATE), 1u);
      EXPECT_EQ(port->OpenCount, 2);
      EXPECT_EQ(port->StateFlags, static_cast<ULONG>(PSF_ZK_OPEN | PSF_CLIENT_OPEN));
      // The port's own context comes along with a client's requests, whoever opened the port.
      Io io;
      StartControl(world->Client, &io, CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_BUFFERED, 0));
      EXPECT_EQ(FileWait(&io), STATUS_SUCCESS);
      EXPECT_EQ(LowerLast(lower, IRP_MJ_DEVICE_CONTROL).FsContext, &lower->OpenContext);
      zkFirst ? CloseZk(world) : CloseClient(world);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CLEANUP), 0u);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CLOSE), 0u);
      zkFirst ? CloseClient(world) : CloseZk(world);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CLEANUP), 1u);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CLOSE), 1u);
      EXPECT_EQ(port->OpenCount, 0);
      EXPECT_EQ(port->StateFlags, 0u);
      EXPECT_EQ(port->LowerOpenContext, nullptr);
      EXPECT_EQ(port->Header.OpenRefs, 1);
      EXPECT_EQ(port->Control->Header.OpenRefs, 1);
    });
  }
}

// A second open of a side is refused, and the refusal still flushes the first holder's pipe.
TEST(OpenClose, ARefusedSecondOpenFlushesTheFirstHoldersReads) {
  RunWorld([](World *world) {
    GoNormal(world);
    Io clientRead, zkRead;
    EXPECT_EQ(StartRead(world->Client, &clientRead, 10), STATUS_PENDING);
    HANDLE second = nullptr;
    EXPECT_EQ(FileOpen("\\DosDevices\\COM3", Account::User, &second), STATUS_ACCESS_DENIED);
    FileClose(second);
    EXPECT_EQ(FileWait(&clientRead), STATUS_CANCELLED);
    EXPECT_EQ(StartRead(world->Zk, &zkRead, 100), STATUS_PENDING);
    EXPECT_EQ(FileOpen("\\DosDevices\\VORLIX_COM3", Account::LocalSystem, &second),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(FileWait(&zkRead), STATUS_CANCELLED);
    EXPECT_EQ(WorldPort(world)->Header.OpenRefs, 2);
    EXPECT_EQ(WorldPort(world)->OpenCount, 2);
    FileClose(second);
  });
}

// Success of the port's open is exactly 0.
TEST(OpenClose, AFailedOpenLeavesThePortAsItWas) {
  RunWorld([](World *world) {
    for (NTSTATUS status : {STATUS_NO_SUCH_DEVICE, STATUS_DEVICE_BUSY}) {
      world->Lower.Result[IRP_MJ_CREATE] = status;
      EXPECT_EQ(OpenClient(world), status);
      EXPECT_EQ(WorldPort(world)->OpenCount, 0);
      EXPECT_EQ(WorldPort(world)->Header.OpenRefs, 1);
      EXPECT_EQ(WorldPort(world)->StateFlags, 0u);
    }
    world->Lower.Result[IRP_MJ_CREATE] = STATUS_SUCCESS;
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CREATE), 3u);
  });
}

// Opens that the port takes its time for, and refuses: each lets the next one through.
TEST(Serializer, EveryOpenThatEndsStartsTheNext) {
  RunWorld([](World *world) {
    LowerPort *lower = &world->Lower;
    lower->How[IRP_MJ_CREATE] = Behaviour::Pend;
    std::vector<PKTHREAD> openers;
    for (auto open : {OpenClient, OpenZk, OpenClient, OpenZk}) {
      openers.push_back(ThreadStart("open", [=] { EXPECT_EQ(open(world), STATUS_DEVICE_BUSY); }));
      ThreadSettle();
    }
    for (size_t i = 0; i < openers.size(); ++i) {
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CREATE), i + 1);
      EXPECT_TRUE(LowerFinish(lower, IRP_MJ_CREATE, STATUS_DEVICE_BUSY));
      ThreadSettle();
    }
    for (PKTHREAD opener : openers) {
      ThreadJoin(opener);
    }
  });
}

// ZK's open and its frames behind a client's open that the port takes its time for: the frame that
// sets the mode finds ZK's side open, and those behind it the mode set. However many there are,
// they need no more stack than one.
TEST(Serializer, OpensAndFramesKeepTheirOrder) {
  for (bool atDispatchLevel : {false, true}) {
    RunWorld([=](World *world) {
      LowerPort *lower = &world->Lower;
      lower->AtDispatchLevel = atDispatchLevel;
      lower->How[IRP_MJ_CREATE] = Behaviour::Pend;
      PKTHREAD client =
          ThreadStart("client", [&] { EXPECT_EQ(OpenClient(world), STATUS_SUCCESS); });
      ThreadSettle();
      PKTHREAD zk = ThreadStart("zk", [&] { EXPECT_EQ(OpenZk(world), STATUS_SUCCESS); });
      ThreadSettle();
      OwnPacket frames[6];
      for (OwnPacket &frame : frames) {
        frame.Bytes = MakeFrame(FRAME_CONTROL, 2, COMMAND_GET_MODE);
      }
      frames[0].Bytes = MakeFrame(FRAME_CONTROL, 1, COMMAND_SET_MODE, MakeArgument(MODE_NORMAL));
      for (OwnPacket &frame : frames) {
        EXPECT_EQ(OwnSend(WorldPort(world)->ControlDevice, IRP_MJ_WRITE, &frame), STATUS_PENDING);
      }
      EXPECT_EQ(WorldPort(world)->RequestCount, 9);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CREATE), 1u);
      EXPECT_TRUE(LowerFinish(lower, IRP_MJ_CREATE));
      ThreadJoin(client);
      ThreadJoin(zk);
      for (OwnPacket &frame : frames) {
        EXPECT_EQ(OwnWait(&frame), STATUS_SUCCESS);
        EXPECT_EQ(frame.Iosb.Information, frame.Bytes.size());
        EXPECT_EQ(frame.Stack, frames[0].Stack);
      }
      Frame reply = NextFrame(world);
      EXPECT_EQ(reply.Header.Tag, 1u);
      EXPECT_EQ(reply.Header.Code, 0u);
      reply = NextFrame(world);
      EXPECT_EQ(reply.Header.Tag, 2u);
      EXPECT_EQ(reply.Value(), static_cast<ULONG>(MODE_NORMAL));
      EXPECT_EQ(WorldPort(world)->RequestCount, 1);
      EXPECT_EQ(LowerCount(lower, IRP_MJ_CREATE), 1u);
    });
  }
}

static NTSTATUS OpenSide(World *World, bool Zk, FileOpening *Opening) {
  std::string link = "\\DosDevices\\" + std::string(Zk ? "VORLIX_" : "") + World->Lower.Name;
  return FileOpen(link, Zk ? Account::LocalSystem : Account::User, Zk ? &World->Zk : &World->Client,
                  Opening);
}

// Where the open is when it is cancelled, and what lets it go on from there.
struct Stay {
  const char *Where;
  void (*Hold)(World *World, bool Zk);
  void (*Release)(World *World);
  std::set<std::string> Ends;
};

static PKTHREAD Ahead;

static const Stay Stays[] = {
    {"at the port",
     [](World *w, bool) { w->Lower.How[IRP_MJ_CREATE] = Behaviour::Pend; },
     [](World *w) { LowerFinish(&w->Lower, IRP_MJ_CREATE); },
     {"cancelled", "success"}},
    {"parked by a query",
     [](World *w, bool) { EXPECT_EQ(PnpQueryRemove(w->Node, true), STATUS_SUCCESS); },
     [](World *w) { PnpCancelRemove(w->Node); },
     {"cancelled", "success"}},
    // Nothing there looks at the cancel: it is granted, as one that was cancelled too late.
    {"behind the other side's open",
     [](World *w, bool zk) {
       w->Lower.How[IRP_MJ_CREATE] = Behaviour::Pend;
       Ahead = ThreadStart("ahead", [=] { OpenSide(w, !zk, nullptr); });
       ThreadSettle();
     },
     [](World *w) { LowerFinish(&w->Lower, IRP_MJ_CREATE); },
     {"success"}},
};

// An open that was cancelled leaves no trace, and one that came through is a whole one.
static void ExpectOpens(World *World, bool Zk, NTSTATUS Status) {
  PortExtension *port = WorldPort(World);
  bool other = (Zk ? World->Client : World->Zk) != nullptr;
  EXPECT_EQ(port->OpenCount, (Status == STATUS_SUCCESS) + other);
  EXPECT_EQ((Zk ? port->Control->Header : port->Header).OpenRefs, Status == STATUS_SUCCESS ? 2 : 1);
  EXPECT_EQ(port->RequestCount, 1);
  World->Lower.How[IRP_MJ_CREATE] = Behaviour::Inline;
  if (Status != STATUS_SUCCESS) {
    EXPECT_EQ(OpenSide(World, Zk, nullptr), STATUS_SUCCESS);
  }
  if (!other) {
    EXPECT_EQ(OpenSide(World, !Zk, nullptr), STATUS_SUCCESS);
  }
}

TEST(OpenClose, AnOpenIsCancelled) {
  for (const Stay &stay : Stays) {
    for (bool zk : {false, true}) {
      SCOPED_TRACE(std::string(stay.Where) + (zk ? ", ZK's" : ", the client's"));
      ExploreResult result = ExploreWorld([&](World *world) {
        FileOpening opening;
        NTSTATUS status = STATUS_PENDING;
        Ahead = nullptr;
        stay.Hold(world, zk);
        PKTHREAD opener = ThreadStart("open", [&] { status = OpenSide(world, zk, &opening); });
        ThreadSettle();
        Against([&] { FileCancelOpen(&opening); }, [&] { stay.Release(world); });
        ThreadJoin(opener);
        if (Ahead != nullptr) {
          ThreadJoin(Ahead);
        }
        ExpectOpens(world, zk, status);
        ExploreSaw(status);
      });
      EXPECT_EQ(OutcomesOf(result), stay.Ends);
    }
  }
}

// An open without an item leaves no trace. A close without one never happened, and one that the
// port fails is none, so the device stays open for good: nobody else gets in.
TEST(OpenClose, ACloseThatFailsLeavesTheDeviceOpen) {
  for (bool failsBelow : {false, true}) {
    RunWorld([=](World *world) {
      PortExtension *port = WorldPort(world);
      const FaultPlan plan = {FaultPool, FourCharacters("ZK0E"), 1, false};
      FaultArm(plan);
      EXPECT_EQ(OpenClient(world), STATUS_INSUFFICIENT_RESOURCES);
      EXPECT_TRUE(FaultDisarm());
      EXPECT_EQ(port->Header.OpenRefs, 1);
      EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CREATE), 0u);
      ASSERT_EQ(OpenClient(world), STATUS_SUCCESS);
      world->Lower.Result[IRP_MJ_CLOSE] = failsBelow ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
      if (!failsBelow) {
        FaultArm(plan);
      }
      CloseClient(world);
      EXPECT_EQ(FaultDisarm(), !failsBelow);
      EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CLOSE), failsBelow ? 1u : 0u);
      EXPECT_EQ(port->OpenCount, 1);
      EXPECT_EQ(OpenClient(world), STATUS_ACCESS_DENIED);
      EXPECT_EQ(OpenZk(world), STATUS_SUCCESS);
    });
  }
}

TEST(OpenClose, ACloseOfWhatIsNotOpen) {
  RunWorld([](World *world) {
    for (PDEVICE_OBJECT device :
         {WorldPort(world)->Header.Device, WorldPort(world)->ControlDevice}) {
      FILE_OBJECT file = {};
      file.DeviceObject = device;
      OwnPacket close;
      close.File = &file;
      EXPECT_EQ(OwnSend(device, IRP_MJ_CLOSE, &close), STATUS_ACCESS_DENIED);
      EXPECT_EQ(OwnWait(&close), STATUS_ACCESS_DENIED);
      EXPECT_EQ(close.Iosb.Information, 0u);
    }
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CLOSE), 0u);
    EXPECT_EQ(WorldPort(world)->OpenCount, 0);
    EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
    CloseClient(world);
    EXPECT_EQ(OpenZk(world), STATUS_SUCCESS);
    RemovePort(world, true);
    EXPECT_NE(DeviceCount(world->Driver), 0u);  // no close gave up what the handle holds
  });
}
