// Load and unload, the trace ring, the event log, and the routing by kind of device.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/text_length.h"
#include "driver/trace.h"
#include "tests/support/world.h"

static const char ServiceKey[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Vorlix";

static uint64_t BreaksWith(const RegistryValue *Value, bool OldSystem) {
  uint64_t breaks = 0;
  RunReport report = ModelRun({.BreaksAllowed = true}, [&] {
    if (OldSystem) {
      SystemRoutineHide("RtlQueryRegistryValuesEx");
    }
    if (Value != nullptr) {
      RegistrySet(ServiceKey, "VORLIXBreakOnLoad", *Value);
    }
    PDRIVER_OBJECT driver = DriverLoad("Vorlix", DriverEntry);
    breaks = DebuggerBreaks();
    DriverUnload(driver);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
  return breaks;
}

TEST(DriverFrame, BreaksOnLoadByTheLowOrderByte) {
  const std::pair<RegistryValue, uint64_t> cases[] = {
      {RegistryDword(1), 1},
      {RegistryDword(256), 0},
      {RegistryDword(0), 0},
      // Whatever else stands there is kept out of the driver's memory.
      {RegistryText("1"), 0},
      {{REG_DWORD, {}}, 0},
      {{REG_DWORD, std::vector<uint8_t>(256, 1)}, 1},
      {{REG_DWORD, std::vector<uint8_t>(257, 1)}, 0},
  };
  for (bool oldSystem : {false, true}) {
    EXPECT_EQ(BreaksWith(nullptr, oldSystem), 0u);
    for (const auto &[value, breaks] : cases) {
      EXPECT_EQ(BreaksWith(&value, oldSystem), breaks);
    }
  }
}

TEST(DriverFrame, LoadFillsTheTableAndSurvivesEveryFault) {
  const std::vector<UCHAR> own = {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_CLEANUP,
                                  IRP_MJ_READ,   IRP_MJ_POWER, IRP_MJ_DEVICE_CONTROL};
  int withoutRing = 0;
  bool delivered = true;
  for (uint64_t nth = 1; delivered; ++nth) {
    RunReport report = ModelRun({}, [&] {
      FaultArm({FaultEverything, 0, nth, false});
      PDRIVER_OBJECT driver = DriverLoad("Vorlix", DriverEntry);
      delivered = FaultDisarm();
      ASSERT_NE(driver, nullptr);
      PDRIVER_DISPATCH *table = driver->MajorFunction;
      PDRIVER_DISPATCH unhandled = table[IRP_MJ_FLUSH_BUFFERS];
      std::set<PDRIVER_DISPATCH> distinct(table, table + IRP_MJ_MAXIMUM_FUNCTION + 1);
      EXPECT_EQ(distinct.size(), own.size() + 2);  // Plug and Play, and everything else
      for (UCHAR major = 0; major < IRP_MJ_PNP; ++major) {
        bool handled =
            major == IRP_MJ_WRITE || std::find(own.begin(), own.end(), major) != own.end();
        EXPECT_EQ(table[major] != unhandled, handled) << int{major};
      }
      EXPECT_EQ(table[IRP_MJ_READ], table[IRP_MJ_WRITE]);
      if (Trace.Base == nullptr) {
        ++withoutRing;
        TraceEvent(TRACE_CLASS, TraceCode("PCF0"), 1, 2, 3);
        EXPECT_EQ(Trace.Base, nullptr);
      }
      DriverUnload(driver);
    });
    ASSERT_FALSE(report.Stopped) << report.Text;
    ASSERT_LT(nth, 50u);
  }
  EXPECT_EQ(withoutRing, 1);
}

TEST(DriverFrame, ReportsLoadAndUnloadForTheDriver) {
  RunReport report = ModelRun({}, [] {
    PDRIVER_OBJECT driver = DriverLoad("Vorlix", DriverEntry);
    DriverUnload(driver);
    std::vector<EventLogEntry> entries = EventLogEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].Code, EVENT_DRIVER_LOADED);
    EXPECT_EQ(entries[1].Code, EVENT_DRIVER_UNLOADED);
    EXPECT_EQ(entries[0].Device, nullptr);
    EXPECT_EQ(entries[0].StringCount, 0u);
    EXPECT_EQ(entries[0].StringOffset, 0u);
    EXPECT_EQ(entries[0].Size, 48u);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

// Without memory tracing is off, whatever an earlier ring left.
TEST(TraceRing, WithoutMemory) {
  RunReport report = ModelRun({}, [] {
    FaultArm({FaultPool, FourCharacters("Sevx"), 1, false});
    PDRIVER_OBJECT driver = DriverLoad("Vorlix", DriverEntry);
    EXPECT_TRUE(FaultDisarm());
    Trace.Cursor = Trace.Last = nullptr;
    TraceEvent(TRACE_CLASS, TraceCode("US00"), 0, 0, 0);
    EXPECT_EQ(Trace.Cursor, nullptr);
    DriverUnload(driver);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

TEST(TraceRing, FillsDownwardAndWrapsAround) {
  RunReport report = ModelRun({}, [] {
    PDRIVER_OBJECT driver = DriverLoad("Vorlix", DriverEntry);
    TraceRecord *base = Trace.Base;
    TraceRecord *last = base + TRACE_RECORDS - 1;
    ASSERT_EQ(reinterpret_cast<char *>(last) - reinterpret_cast<char *>(base), 12256);
    TraceEvent(TRACE_CLASS, TraceCode("US01"), 0x1122334455667788, 0,
               TraceStatus(STATUS_CANCELLED));
    EXPECT_EQ(Trace.Cursor, last);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(last->Code), 4), "US01");
    EXPECT_EQ(last->Arguments[0], 0x1122334455667788u);
    EXPECT_EQ(last->Arguments[2], 0xFFFFFFFFC0000120u);
    for (ULONG i = 1; i < TRACE_RECORDS; ++i) {
      TraceEvent(TRACE_CLASS, TraceCode("US00"), i, 0, 0);
    }
    EXPECT_EQ(Trace.Cursor, base);
    TraceEvent(TRACE_CLASS, TraceCode("US04"), 0, 0, 0);
    EXPECT_EQ(Trace.Cursor, last);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(last->Code), 4), "US04");
    TraceEvent(2, TraceCode("US03"), 0, 0, 0);  // every class is on
    EXPECT_EQ(Trace.Cursor, last - 1);
    TraceEvent(0, TraceCode("US03"), 0, 0, 0);
    EXPECT_EQ(Trace.Cursor, last - 1);
    DriverUnload(driver);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

TEST(EventLog, TextsThatMayNotEnd) {
  SIZE_T bytes = 77;
  EXPECT_EQ(TextLength(L"abc", 8, &bytes), STATUS_SUCCESS);
  EXPECT_EQ(bytes, 6u);
  EXPECT_EQ(TextLength(L"abc", 6, &bytes), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(TextLength(L"abc", SIZE_T{0x80000000} * 2, &bytes), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(TextLength(nullptr, 8, &bytes), STATUS_INVALID_PARAMETER);
}

// The largest entry is 240 bytes: 48 and a name of 95 characters with its terminator. The size of
// one with 200 of 'N' would be 232 in the byte that names it.
TEST(EventLog, LongNamesAreDropped) {
  for (size_t characters : {76u, 77u, 200u}) {
    const WorldOptions options = {
        .Values = {{"PortName", RegistryText(std::string(characters, 'N'))}}};
    RunReport report = ModelRun({}, [&] {
      World world;
      world.Lower.Name = std::string(characters, 'N');
      WorldLoad(&world, options);
      ASSERT_EQ(WorldAdd(&world, options), STATUS_SUCCESS);
      PortExtension *port = WorldPort(&world);
      ReportPortEvent(world.Driver, port->Header.Device, 0, 7, EVENT_INTERNAL, STATUS_UNSUCCESSFUL,
                      port);
      EXPECT_EQ(EventLogCount(EVENT_INTERNAL), characters == 76 ? 1u : 0u);
      ReportEvent(world.Driver, nullptr, 0, 0, EVENT_BAD_FRAME, STATUS_UNSUCCESSFUL, L"", ~0u);
      EXPECT_EQ(EventLogCount(EVENT_BAD_FRAME), 0u);
      if (characters == 76) {
        EventLogEntry entry = EventLogEntries().back();
        EXPECT_EQ(entry.Size, 240u);
        EXPECT_EQ(entry.StringOffset, 40u);
        EXPECT_EQ(entry.UniqueValue, 7u);
        EXPECT_EQ(entry.FinalStatus, STATUS_UNSUCCESSFUL);
        EXPECT_EQ(entry.Device, port->Header.Device);
        EXPECT_EQ(entry.Strings.at(0), "\\DosDevices\\VORLIX_" + std::string(76, 'N'));
      }
      WorldEnd(&world);
    });
    EXPECT_FALSE(report.Stopped) << report.Text;
  }
}

TEST(Routing, ControlDeviceAnswersForItself) {
  RunWorld([](World *world) {
    ASSERT_EQ(OpenZk(world), STATUS_SUCCESS);
    Io io;
    StartControl(world->Zk, &io, CTL_CODE(FILE_DEVICE_SERIAL_PORT, 1, METHOD_BUFFERED, 0));
    EXPECT_EQ(FileWait(&io), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(io.Iosb.Information, 0u);
    EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_DEVICE_CONTROL), 0u);
    PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
    for (UCHAR major : {IRP_MJ_FLUSH_BUFFERS, IRP_MJ_QUERY_INFORMATION, IRP_MJ_SHUTDOWN}) {
      EXPECT_EQ(SendPacket(control, major, 0, nullptr, nullptr, STATUS_IO_TIMEOUT),
                STATUS_IO_TIMEOUT);
      EXPECT_EQ(LowerCount(&world->Lower, major), 0u);
    }
    EXPECT_EQ(WorldPort(world)->RequestCount, 1);
  });
}

TEST(Routing, NothingOpensBeforeTheStart) {
  RunWorld(
      [](World *world) {
        auto refused = [=] {
          EXPECT_EQ(OpenClient(world), STATUS_INSUFFICIENT_RESOURCES);
          EXPECT_EQ(OpenZk(world), STATUS_INSUFFICIENT_RESOURCES);
          ULONG_PTR information = 77;  // as it came
          EXPECT_EQ(
              SendPacket(WorldPort(world)->Header.Device, IRP_MJ_CREATE, 0, nullptr, &information),
              STATUS_INSUFFICIENT_RESOURCES);
          EXPECT_EQ(information, 77u);
          EXPECT_EQ(WorldPort(world)->RequestCount, 1);
          EXPECT_EQ(WorldPort(world)->Header.OpenRefs, 1);
        };
        refused();
        EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_CREATE), 0u);
        world->Lower.StartResult = STATUS_IO_DEVICE_ERROR;
        EXPECT_EQ(PnpStart(world->Node), STATUS_IO_DEVICE_ERROR);
        EXPECT_FALSE(WorldPort(world)->StartedOnce);
        refused();
        world->Lower.StartResult = STATUS_SUCCESS;
        EXPECT_EQ(PnpSend(PnpPdo(world->Node), IRP_MN_START_DEVICE), STATUS_SUCCESS);
        EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
        // The manager asks the child first, which refuses; the filter refuses, too.
        EXPECT_EQ(PnpQueryStop(world->Node), STATUS_DEVICE_BUSY);
        EXPECT_EQ(PnpCancelStop(world->Node), STATUS_SUCCESS);
        size_t below = LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_QUERY_STOP_DEVICE);
        EXPECT_EQ(PnpSend(WorldPort(world)->Header.Device, IRP_MN_QUERY_STOP_DEVICE),
                  STATUS_DEVICE_BUSY);
        PnpSend(WorldPort(world)->Header.Device, IRP_MN_CANCEL_STOP_DEVICE);
        EXPECT_EQ(LowerCount(&world->Lower, IRP_MJ_PNP, IRP_MN_QUERY_STOP_DEVICE), below);
        CloseClient(world);
        EXPECT_EQ(PnpQueryStop(world->Node), STATUS_SUCCESS);
        EXPECT_EQ(OpenClient(world), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(PnpCancelStop(world->Node), STATUS_SUCCESS);
        EXPECT_EQ(OpenClient(world), STATUS_SUCCESS);
        CloseClient(world);
        EXPECT_EQ(PnpQueryStop(world->Node), STATUS_SUCCESS);
        EXPECT_EQ(PnpStop(world->Node), STATUS_SUCCESS);
        refused();
        EXPECT_EQ(PnpStart(world->Node), STATUS_SUCCESS);
      },
      {.Start = false});
}
