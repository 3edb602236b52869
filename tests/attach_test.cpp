// Attaching: which ports are refused, what a port's key says, the control device, and unwinding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

#include "driver/entry.h"
#include "driver/event_log.h"
#include "lifecycle/control_device.h"
#include "lifecycle/device_name.h"
#include "lifecycle/multi_string.h"
#include "lifecycle/port_config.h"
#include "platform/model/causality.h"
#include "platform/model/devices.h"
#include "tests/support/world.h"

static RegistryValue Bytes(std::initializer_list<uint8_t> Data) {
  return {REG_BINARY, Data};
}

// Loads, tries to add a port, lets the test look, ends.
static void Attach(const WorldOptions &Options, const std::function<void(World *)> &Look,
                   const std::function<void(World *)> &Prepare = nullptr) {
  RunReport report = ModelRun({}, [&] {
    World world;
    WorldLoad(&world, Options);
    if (Prepare) {
      Prepare(&world);
    }
    WorldAdd(&world, Options);
    Look(&world);
    WorldEnd(&world);
    EXPECT_EQ(EventLogCount(EVENT_INTERNAL), 0u);  // its thread has ended as it should
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

TEST(Attach, RefusesPortsWithNeitherBufferedNorDirectIo) {
  Attach({.Buffering = 0}, [](World *world) {
    EXPECT_EQ(world->AddStatus, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(EventLogCount(EVENT_NEITHER_IO), 1u);
    EXPECT_EQ(EventLogEntries().back().FinalStatus, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(EventLogCount(EVENT_ATTACHING), 1u);
    EXPECT_EQ(DeviceCount(world->Driver), 0u);
  });
}

TEST(Attach, RefusesTheReflectorWhateverTheCase) {
  for (const char *name : {"WUDFRd", "wudfrD"}) {
    RunReport report = ModelRun({}, [&] {
      World world;
      world.PortDriver = DriverLoad(name, LowerEntry);
      world.Driver = DriverLoad("Vorlix", DriverEntry);
      EXPECT_EQ(WorldAdd(&world), STATUS_INVALID_DEVICE_REQUEST);
      EXPECT_EQ(EventLogCount(EVENT_REFLECTED_PORT), 1u);
      EXPECT_EQ(EventLogEntries().back().FinalStatus, STATUS_INVALID_DEVICE_REQUEST);
      EXPECT_EQ(DeviceCount(world.Driver), 0u);
      WorldEnd(&world);
    });
    EXPECT_FALSE(report.Stopped) << report.Text;
  }
}

TEST(Attach, InheritsFlagsFromTheDeviceBelow) {
  for (ULONG flags : {DO_BUFFERED_IO, DO_DIRECT_IO, DO_BUFFERED_IO | DO_EXCLUSIVE}) {
    Attach({.Buffering = flags}, [=](World *world) {
      PDEVICE_OBJECT filter = WorldPort(world)->Header.Device;
      EXPECT_EQ(filter->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO | DO_EXCLUSIVE), flags);
      EXPECT_EQ(filter->Flags & DO_DEVICE_INITIALIZING, 0u);
      EXPECT_NE(filter->Flags & DO_POWER_PAGABLE, 0u);
      EXPECT_EQ(filter->Characteristics, 0u);
      PDEVICE_OBJECT control = WorldPort(world)->ControlDevice;
      EXPECT_EQ(control->Flags & (DO_BUFFERED_IO | DO_DIRECT_IO), flags & ~DO_EXCLUSIVE);
      EXPECT_NE(control->Flags & DO_POWER_PAGABLE, 0u);
      EXPECT_NE(control->Flags & 0x40, 0u);  // what the system sets of a device with a name, stays
      EXPECT_EQ(control->StackSize, filter->StackSize + 1);
    });
  }
}

struct Settings {
  ULONG DebugLevel, PacketDump, UseAuxiliary, AutoDetect, Limit;
};

struct SettingsCase {
  const char *What;
  std::map<std::string, RegistryValue> Values;
  Settings Taken;
};

TEST(PortSettings, TakeTheirFallbacks) {
  const std::vector<SettingsCase> cases = {
      {"nothing", {}, {0x80000000, 0, 0, 1, 1024}},
      {"all given",
       {{"VORLIXDebugLevel", RegistryDword(5)},
        {"VORLIXPacketDump", RegistryDword(2)},
        {"VORLIXUseEdo", RegistryDword(0)},
        {"VORLIXProxyReadLimit", RegistryDword(64)}},
       {5, 2, 0, 0, 64}},
      {"a short mask sets its own bytes only",
       {{"VORLIXPacketDump", Bytes({0x34, 0x12})}},
       {0x80000000, 0x1234, 0, 1, 1024}},
      {"six bytes are read but not taken",
       {{"VORLIXUseEdo", Bytes({1, 0, 0, 0, 0, 0})}},
       {0x80000000, 0, 0, 0, 1024}},
      {"any number is a choice",
       {{"VORLIXUseEdo", RegistryDword(256)}},
       {0x80000000, 0, 256, 0, 1024}},
      {"a limit too large to be read is no limit",
       {{"VORLIXProxyReadLimit", {REG_BINARY, std::vector<uint8_t>(64, 1)}}},
       {0x80000000, 0, 0, 1, 0}},
      {"so is one of eight bytes",
       {{"VORLIXProxyReadLimit", Bytes({1, 0, 0, 0, 0, 0, 0, 0})}},
       {0x80000000, 0, 0, 1, 0}},
  };
  for (const SettingsCase &c : cases) {
    SCOPED_TRACE(c.What);
    Attach({.Values = c.Values}, [&](World *world) {
      PortExtension *port = WorldPort(world);
      EXPECT_EQ(port->Header.DebugLevel, c.Taken.DebugLevel);
      EXPECT_EQ(port->Control->Header.DebugLevel, c.Taken.DebugLevel);
      EXPECT_EQ(port->Header.PacketDump, c.Taken.PacketDump);
      EXPECT_EQ(port->UseAuxiliary, c.Taken.UseAuxiliary);
      EXPECT_EQ(port->AuxiliaryAutoDetect, c.Taken.AutoDetect);
      EXPECT_EQ(port->ProxyReadLimit, c.Taken.Limit);
    });
  }
}

TEST(PortSettings, AnUnusablePortNameFailsTheAttach) {
  std::vector<uint8_t> full(512, 'A');
  const std::vector<std::pair<RegistryValue, NTSTATUS>> cases = {
      {RegistryText("COM3", false), STATUS_INVALID_PARAMETER},
      {{REG_SZ, full}, STATUS_INVALID_PARAMETER},
      {{REG_SZ, {}}, STATUS_INVALID_PARAMETER},
      {{REG_SZ, std::vector<uint8_t>(600, 0)}, STATUS_BUFFER_OVERFLOW},
  };
  for (const auto &[value, status] : cases) {
    Attach({.Values = {{"PortName", value}}}, [&, expected = status](World *world) {
      EXPECT_EQ(world->AddStatus, expected);
      EXPECT_EQ(EventLogCount(EVENT_NO_PORT_NAME), expected == STATUS_BUFFER_OVERFLOW ? 1u : 0u);
      if (expected == STATUS_BUFFER_OVERFLOW) {
        EXPECT_EQ(EventLogEntries().back().FinalStatus, expected);
      }
      EXPECT_EQ(DeviceCount(world->Driver), 0u);
    });
  }
}

TEST(PortSettings, NoKeyOrNoNameFailsTheAttach) {
  for (bool hasKey : {false, true}) {
    RunReport report = ModelRun({}, [&] {
      World world;
      WorldLoad(&world);
      LowerNext(&world.Lower);
      PortDescription port;
      port.HasKey = hasKey;
      port.Drivers = {world.PortDriver, world.Driver};
      NTSTATUS status = STATUS_SUCCESS;
      EXPECT_EQ(PnpAdd(port, &status), nullptr);
      EXPECT_FALSE(NT_SUCCESS(status));
      EXPECT_EQ(EventLogCount(EVENT_NO_PORT_NAME), hasKey ? 1u : 0u);
      WorldEnd(&world);
    });
    EXPECT_FALSE(report.Stopped) << report.Text;
  }
}

TEST(ControlDevice, NamesAreNeverUsedTwice) {
  Attach({}, [](World *world) {
    auto text = [](PCWSTR name) {
      return std::u16string(reinterpret_cast<const char16_t *>(name));
    };
    EXPECT_EQ(text(WorldPort(world)->DosDeviceName), u"\\DosDevices\\COM3");
    EXPECT_EQ(text(WorldPort(world)->ControlLinkName), u"\\DosDevices\\VORLIX_COM3");
    EXPECT_NE(NameLookup("\\Device\\VORLIX1"), nullptr);
    EXPECT_EQ(NameLookup("\\DosDevices\\VORLIX_COM3"), NameLookup("\\Device\\VORLIX1"));
    // A second port of the same name, whatever the case: its link collides, the number is spent,
    // and the first keeps its link.
    World twin;
    twin.PortDriver = world->PortDriver;
    twin.Driver = world->Driver;
    twin.Lower.Name = "COM4";
    WorldOptions same;
    same.Values["PortName"] = RegistryText("com3");
    EXPECT_EQ(WorldAdd(&twin, same), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(EventLogCount(EVENT_NO_CONTROL_DEVICE), 1u);
    EXPECT_EQ(EventLogEntries().back().Strings.at(0), "\\DosDevices\\VORLIX_com3");
    EXPECT_EQ(NameLookup("\\DosDevices\\VORLIX_COM3"), NameLookup("\\Device\\VORLIX1"));
    EXPECT_EQ(WorldAdd(&twin), STATUS_SUCCESS);
    EXPECT_NE(NameLookup("\\Device\\VORLIX3"), nullptr);
    PnpRemove(twin.Node);
    EXPECT_EQ(NameLookup("\\Device\\VORLIX3"), nullptr);
  });
}

TEST(ControlDevice, IdentifiersAndNumberedNames) {
  RunReport report = ModelRun({}, [] {
    using namespace std::string_literals;
    auto build = [](std::vector<const char *> texts) {
      UNICODE_STRING strings;
      texts.push_back(nullptr);
      bool made = NT_SUCCESS(BuildMultiString(&strings, texts.data()));
      std::u16string text(reinterpret_cast<char16_t *>(strings.Buffer), strings.Length / 2);
      RtlFreeUnicodeString(&strings);
      return made ? text : u"failed"s;
    };
    EXPECT_EQ(build({}), u"");
    EXPECT_EQ(build({",a,b\fc", "d"}), u"\0a\0b\0c\0d\0\0"s);
    std::string tooLong(40000, 'x');  // for a counted string
    EXPECT_EQ(build({"one", tooLong.c_str()}), u"failed");
    std::u16string prefix(256, u'x');  // leaves no room for a number
    LONG counter = 6;
    UNICODE_STRING name;
    EXPECT_EQ(MakeDeviceName(reinterpret_cast<PCWSTR>(prefix.c_str()), &counter, &name),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(counter, 7);
  });
  EXPECT_FALSE(report.Stopped) << report.Text;
}

// What is given up early is not given up, or listed, again when the port goes.
TEST(ControlDevice, GivenUpBeforeThePort) {
  Attach({.Start = false}, [](World *world) {
    PortExtension *port = WorldPort(world);
    ProxyReadTeardown(&port->Engine);
    DeleteControlDevice(port->ControlDevice);
    EXPECT_EQ(NameLookup("\\Device\\VORLIX1"), nullptr);
    EXPECT_EQ(DeleteControlLink(port), STATUS_SUCCESS);
    EXPECT_EQ(NameLookup("\\DosDevices\\VORLIX_COM3"), nullptr);
    EXPECT_EQ(DeleteControlLink(port), STATUS_SUCCESS);
    FreeRetiredNames(port);
    for (ULONG report : {0u, 1u}) {
      port->ReportControlChild = report;
      ULONG_PTR information = 0;
      EXPECT_EQ(PnpSend(port->Header.Device, IRP_MN_QUERY_DEVICE_RELATIONS, &information),
                STATUS_SUCCESS);
      auto *relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
      ASSERT_NE(relations, nullptr);
      EXPECT_EQ(relations->Count, 0u);
      ExFreePoolWithTag(relations, 0);
    }
  });
}

TEST(ControlDevice, OnlyTheSystemOpensItAndItsNumberStaysSpent) {
  Attach({}, [](World *world) {
    HANDLE handle;
    for (Account who : {Account::Administrator, Account::User}) {
      EXPECT_EQ(FileOpen("\\DosDevices\\VORLIX_COM3", who, &handle), STATUS_ACCESS_DENIED);
    }
    EXPECT_EQ(OpenZk(world), STATUS_SUCCESS);
    CloseZk(world);
    PnpRemove(world->Node);
    EXPECT_EQ(WorldAdd(world), STATUS_SUCCESS);
    EXPECT_EQ(NameLookup("\\Device\\VORLIX1"), nullptr);
    EXPECT_EQ(NameLookup("\\DosDevices\\VORLIX_COM3"), WorldPort(world)->ControlDevice);
    EXPECT_EQ(NameLookup("\\Device\\VORLIX2"), WorldPort(world)->ControlDevice);
  });
}

// Each refusal is in the event log with its status; the call-down thread's alone has it as the
// unique value.
TEST(Attach, FailuresAreReported) {
  struct Case {
    FaultPlan Plan;
    ULONG Event;
    bool ForDevice, Named;
    NTSTATUS Status = STATUS_INSUFFICIENT_RESOURCES;
  };
  const Case cases[] = {
      // The first device is the port's.
      {{FaultDevice, 0, 2, false}, EVENT_NO_FILTER_DEVICE, false, false},
      {{FaultPool, FourCharacters("ZK19"), 1, false},
       EVENT_REFLECTED_PORT,
       false,
       false,
       STATUS_INVALID_DEVICE_REQUEST},
      // The name comes after four other values.
      {{FaultPool, FourCharacters("ZK0B"), 5, false}, EVENT_NO_PORT_NAME, false, false},
      {{FaultPool, FourCharacters("ZK16"), 1, false}, EVENT_NO_CONTROL_DEVICE, true, true},
      {{FaultThread, 0, 1, false}, EVENT_NO_THREAD, true, true},
      {{FaultReference, 0, 1, false}, EVENT_NO_THREAD, true, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << c.Event);
    Attach(
        {},
        [&](World *world) {
          EXPECT_TRUE(FaultDisarm());
          ASSERT_EQ(world->AddStatus, c.Status);
          EXPECT_EQ(EventLogCount(c.Event), 1u);
          EventLogEntry entry = EventLogEntries().back();
          EXPECT_EQ(entry.Code, c.Event);
          bool unique = c.Event == EVENT_NO_THREAD;
          EXPECT_EQ(entry.UniqueValue, unique ? static_cast<ULONG>(world->AddStatus) : 0);
          EXPECT_EQ(entry.FinalStatus, unique ? STATUS_SUCCESS : world->AddStatus);
          EXPECT_EQ(entry.Device != nullptr, c.ForDevice);
          EXPECT_EQ(entry.StringCount, c.Named ? 1 : 0);
          EXPECT_EQ(DeviceCount(world->Driver), 0u);
        },
        [&](World *) { FaultArm(c.Plan); });
  }
}

// Every call that can fail on the way, one after the other: the attach either works or leaves
// nothing behind, and works again once the fault is gone.
TEST(Attach, UnwindsWhereverItFails) {
  std::map<NTSTATUS, int> failures;
  bool delivered = true;
  for (uint64_t nth = 1; delivered; ++nth) {
    RunReport report = ModelRun({}, [&] {
      World world;
      WorldLoad(&world);
      FaultArm({FaultEverything, 0, nth, false});
      NTSTATUS status = WorldAdd(&world);
      delivered = FaultDisarm();
      if (world.Node == nullptr) {
        ++failures[world.AddStatus];
        EXPECT_EQ(DeviceCount(world.Driver), 0u);
        EXPECT_EQ(NameLookup("\\DosDevices\\VORLIX_COM3"), nullptr);
        EXPECT_EQ(WorldAdd(&world), STATUS_SUCCESS);
      } else if (!NT_SUCCESS(status)) {
        PnpRemove(world.Node);  // the start failed
        EXPECT_EQ(WorldAdd(&world), STATUS_SUCCESS);
      }
      if (world.Node != nullptr && OpenClient(&world) != STATUS_SUCCESS) {
        ADD_FAILURE() << "the port does not work after fault " << nth;
      }
      WorldEnd(&world);
    });
    ASSERT_FALSE(report.Stopped) << "fault " << nth << "\n" << report.Text;
    ASSERT_LT(nth, 200u);
  }
  EXPECT_GT(failures[STATUS_INSUFFICIENT_RESOURCES], 10);
  EXPECT_EQ(failures[STATUS_UNSUCCESSFUL], 2);            // no registry key, not attached
  EXPECT_EQ(failures[STATUS_INVALID_DEVICE_REQUEST], 1);  // no memory to compare a name
  EXPECT_EQ(failures.size(), 3u);
}

// The filter device of the port that is being added; it is over the port's for a while.
static PDEVICE_OBJECT FilterOver(World *World, const LowerPort *Port) {
  CausalTouch(&DeviceMutex, Access::Read);  // it looks without a service
  PDEVICE_OBJECT device = World->PortDriver->DeviceObject;
  while (device != nullptr && device != Port->Device) {
    device = device->NextDevice;
  }
  return device != nullptr ? device->AttachedDevice : nullptr;
}

// A handle may be open on the port's device, and power changes, when the filter device comes over
// it. Another port has the control device's link: the attach fails, and then the port's device
// goes, too. What is inside comes back all the same.
TEST(AttachRaces, AFailureAgainstARequestInside) {
  static const std::map<UCHAR, std::set<std::string>> cases = {
      {IRP_MJ_POWER, {"gone", "refused"}},
      {IRP_MJ_FLUSH_BUFFERS, {"success", "refused"}},
      {IRP_MJ_CLEANUP, {"success"}},
      {IRP_MJ_CLOSE, {StatusName(STATUS_ACCESS_DENIED), "success"}},
  };
  for (const auto &entry : cases) {
    UCHAR major = entry.first;
    const std::set<std::string> &outcomes = entry.second;
    SCOPED_TRACE(int{major});
    auto scenario = [&](World *world) {
      World second;
      second.Driver = world->Driver;
      second.PortDriver = world->PortDriver;
      second.Lower.Name = "COM4";
      second.Lower.Result[IRP_MJ_POWER] = STATUS_DEVICE_NOT_CONNECTED;
      const WorldOptions options = {.Values = {{"PortName", RegistryText("COM3")}}};
      Against([&] { EXPECT_NE(WorldAdd(&second, options), STATUS_SUCCESS); },
              [&] {
                if (PDEVICE_OBJECT filter = FilterOver(world, &second.Lower)) {
                  ObReferenceObject(filter);
                  UCHAR minor = major == IRP_MJ_POWER ? IRP_MN_QUERY_POWER : 0;
                  ExploreSaw(SendPacket(filter, major, minor, nullptr));
                  ObDereferenceObject(filter);
                }
              });
    };
    std::set<std::string> seen = OutcomesOf(ExploreWorld(scenario, 2));
    EXPECT_TRUE(std::includes(outcomes.begin(), outcomes.end(), seen.begin(), seen.end()));
    // Some need both preemptions, which a slow build does not make.
    bool shallow = getenv("VORLIX_PREEMPTIONS") != nullptr || getenv("VORLIX_EXPLORE") != nullptr;
    EXPECT_TRUE(shallow || seen == outcomes) << seen.size() << " of " << outcomes.size();
  }
}
