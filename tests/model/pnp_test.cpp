#include <algorithm>

#include "tests/model/two_drivers.h"

// A function driver with one raw child, below a pass-through filter.
struct PortExtension {
  PDEVICE_OBJECT Lower;
  PDEVICE_OBJECT Child;  // of the function device
};

static const ULONG Tag = FourCharacters("PnpT");

static PDRIVER_OBJECT Function;
static PDRIVER_OBJECT Filter;
static std::string Log;  // a letter a minor function, as each device sees it
static NTSTATUS StartStatus;
static NTSTATUS FilterAddStatus;
static UCHAR Refused;      // minor function that the child refuses
static UCHAR PortRefuses;  // and the port
static bool ReportChild;
static PDRIVER_DISPATCH FilterPnp;
static PDRIVER_DISPATCH FunctionFirst;  // tried before the function driver's own; may pass
static NTSTATUS (*OnChild)(PIRP Irp);   // takes the place of the child's own answers

static PortExtension *ExtensionOf(PDEVICE_OBJECT Device) {
  return static_cast<PortExtension *>(Device->DeviceExtension);
}

static const char *MinorText(UCHAR Minor) {
  switch (Minor) {
  case IRP_MN_START_DEVICE:
    return "start";
  case IRP_MN_QUERY_REMOVE_DEVICE:
    return "query-remove";
  case IRP_MN_CANCEL_REMOVE_DEVICE:
    return "cancel-remove";
  case IRP_MN_REMOVE_DEVICE:
    return "remove";
  case IRP_MN_SURPRISE_REMOVAL:
    return "surprise";
  case IRP_MN_STOP_DEVICE:
    return "stop";
  case IRP_MN_QUERY_STOP_DEVICE:
    return "query-stop";
  case IRP_MN_CANCEL_STOP_DEVICE:
    return "cancel-stop";
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    return "relations";
  case IRP_MN_QUERY_CAPABILITIES:
    return "capabilities";
  case IRP_MN_QUERY_ID:
    return "id";
  case IRP_MN_QUERY_BUS_INFORMATION:
    return "bus";
  case IRP_MN_QUERY_PNP_DEVICE_STATE:
    return "state";
  case IRP_MN_FILTER_RESOURCE_REQUIREMENTS:
    return "resources";
  default:
    return "other";
  }
}

static void Note(const char *Who, PIRP Irp) {
  Log += std::string(Log.empty() ? "" : " ") + Who +
         MinorText(IoGetCurrentIrpStackLocation(Irp)->MinorFunction);
}

static PVOID Answer(const void *Bytes, size_t Count) {
  PVOID block = ExAllocatePoolWithTag(PagedPool, Count, Tag);
  memcpy(block, Bytes, Count);
  return block;
}

static NTSTATUS ChildPnp(PIRP Irp) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  Note("c:", Irp);
  if (location->MinorFunction == Refused) {
    return CompleteWith(Irp, STATUS_DEVICE_BUSY);
  }
  if (OnChild) {
    return OnChild(Irp);
  }
  PVOID answer = nullptr;
  PNP_BUS_INFORMATION bus = {};
  switch (location->MinorFunction) {
  case IRP_MN_QUERY_ID:
    answer = Answer(L"A\0", 6);
    break;
  case IRP_MN_QUERY_BUS_INFORMATION:
    answer = Answer(&bus, sizeof bus);
    break;
  case IRP_MN_QUERY_CAPABILITIES:
    location->Parameters.DeviceCapabilities.Capabilities->RawDeviceOK = 1;
    break;
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    return CompleteWith(Irp, STATUS_NOT_SUPPORTED);
  }
  return CompleteWith(Irp, STATUS_SUCCESS, reinterpret_cast<ULONG_PTR>(answer));
}

static NTSTATUS SendDown(PDEVICE_OBJECT Device, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(ExtensionOf(Device)->Lower, Irp);
}

static void Relate(PortExtension *Extension, PIRP Irp) {
  auto *relations = static_cast<PDEVICE_RELATIONS>(
      ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), Tag));
  relations->Count = ReportChild ? 1 : 0;
  if (ReportChild) {
    relations->Objects[0] = Extension->Child;
    ObReferenceObject(Extension->Child);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
}

static NTSTATUS RemoveFunction(PDEVICE_OBJECT Device, PIRP Irp) {
  PortExtension *extension = ExtensionOf(Device);
  NTSTATUS status = SendDown(Device, Irp);
  IoDetachDevice(extension->Lower);
  IoDeleteDevice(extension->Child);
  IoDeleteDevice(Device);
  return status;
}

static NTSTATUS FunctionPnp(PDEVICE_OBJECT Device, PIRP Irp) {
  if (!ExtensionOf(Device)->Lower) {
    return ChildPnp(Irp);
  }
  Note("f:", Irp);
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  if (location->MinorFunction == PortRefuses) {
    return CompleteWith(Irp, STATUS_DEVICE_BUSY);
  }
  if (FunctionFirst) {
    NTSTATUS status = FunctionFirst(Device, Irp);
    if (status != STATUS_MORE_PROCESSING_REQUIRED) {
      return status;
    }
  }
  switch (location->MinorFunction) {
  case IRP_MN_START_DEVICE:
    return NT_SUCCESS(StartStatus) ? SendDown(Device, Irp) : CompleteWith(Irp, StartStatus);
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    if (location->Parameters.QueryDeviceRelations.Type == BusRelations) {
      Relate(ExtensionOf(Device), Irp);
    }
    return SendDown(Device, Irp);
  case IRP_MN_REMOVE_DEVICE:
    return RemoveFunction(Device, Irp);
  default:
    return SendDown(Device, Irp);
  }
}

static NTSTATUS FilterPnpAsItShould(PDEVICE_OBJECT Device, PIRP Irp) {
  bool removes = IoGetCurrentIrpStackLocation(Irp)->MinorFunction == IRP_MN_REMOVE_DEVICE;
  PDEVICE_OBJECT lower = ExtensionOf(Device)->Lower;
  NTSTATUS status = SendDown(Device, Irp);
  if (removes) {
    IoDetachDevice(lower);
    IoDeleteDevice(Device);
  }
  return status;
}

static NTSTATUS PassPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PDEVICE_OBJECT lower = ExtensionOf(Device)->Lower;
  PoStartNextPowerIrp(Irp);
  if (!lower) {
    return CompleteWith(Irp, STATUS_SUCCESS);
  }
  IoSkipCurrentIrpStackLocation(Irp);
  return PoCallDriver(lower, Irp);
}

static PDEVICE_OBJECT Attach(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo, const char *Name) {
  Wide name(Name ? Name : "");
  PDEVICE_OBJECT device;
  EXPECT_EQ(IoCreateDevice(Driver, sizeof(PortExtension), Name ? &name.String : nullptr,
                           FILE_DEVICE_SERIAL_PORT, 0, FALSE, &device),
            STATUS_SUCCESS);
  ExtensionOf(device)->Lower = Pdo ? IoAttachDeviceToDeviceStack(device, Pdo) : nullptr;
  device->Flags = (device->Flags | DO_BUFFERED_IO) & ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return device;
}

static NTSTATUS FunctionAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  PDEVICE_OBJECT device = Attach(Driver, Pdo, "\\Device\\Port");
  ExtensionOf(device)->Child = Attach(Driver, nullptr, "\\Device\\Child");
  return STATUS_SUCCESS;
}

static NTSTATUS FilterAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  if (NT_SUCCESS(FilterAddStatus)) {
    Attach(Driver, Pdo, nullptr);
  }
  return FilterAddStatus;
}

static NTSTATUS Entry(PDRIVER_OBJECT Driver, PUNICODE_STRING) {
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
    Driver->MajorFunction[major] = Succeed;
  }
  Driver->MajorFunction[IRP_MJ_POWER] = PassPower;
  return STATUS_SUCCESS;
}

static PortDescription Load() {
  Log.clear();
  StartStatus = FilterAddStatus = STATUS_SUCCESS;
  Refused = PortRefuses = 0xFF;
  FunctionFirst = nullptr;
  OnChild = nullptr;
  ReportChild = true;
  FilterPnp = FilterPnpAsItShould;
  Function = DriverLoad("Function", Entry);
  Function->DriverExtension->AddDevice = FunctionAdd;
  Function->MajorFunction[IRP_MJ_PNP] = FunctionPnp;
  Filter = DriverLoad("Filter", Entry);
  Filter->DriverExtension->AddDevice = FilterAdd;
  Filter->MajorFunction[IRP_MJ_PNP] = [](PDEVICE_OBJECT Device, PIRP Irp) {
    return FilterPnp(Device, Irp);
  };
  PortDescription port;
  port.Drivers = {Function, Filter};
  port.Values["PortName"] = RegistryText("COM3");
  return port;
}

static void Unload() {
  DriverUnload(Filter);
  DriverUnload(Function);
}

TEST(Pnp, StartFindsAndStartsTheRawChild) {
  ExpectCleanOnBoth([] {
    PnpNode *node = PnpAdd(Load());
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(DeviceTop(PnpPdo(node))->StackSize, 3);
    EXPECT_EQ(PnpStart(node), STATUS_SUCCESS);
    EXPECT_EQ(Log,
              "f:resources f:start f:capabilities f:state f:relations c:id c:id c:id c:id "
              "c:capabilities c:bus c:start c:capabilities c:state c:relations");
    std::vector<PDEVICE_OBJECT> children = PnpChildren(node);
    ASSERT_EQ(children.size(), 1u);
    EXPECT_TRUE(children[0]->Flags & DO_BUS_ENUMERATED_DEVICE);
    EXPECT_TRUE(PnpChildStarted(node, children[0]));
    PnpAskEverything(node);
    PnpRemove(node);
    Unload();
  });
}

TEST(Pnp, StopGoesToChildrenFirstAndStartToThemLast) {
  ExpectCleanOnBoth([] {
    PnpNode *node = PnpAdd(Load());
    PnpStart(node);
    Log.clear();
    EXPECT_EQ(PnpQueryStop(node), STATUS_SUCCESS);
    EXPECT_EQ(PnpCancelStop(node), STATUS_SUCCESS);
    EXPECT_EQ(Log, "c:query-stop f:query-stop f:cancel-stop c:cancel-stop");

    Log.clear();
    Refused = IRP_MN_QUERY_STOP_DEVICE;
    EXPECT_EQ(PnpQueryStop(node), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Log, "c:query-stop c:cancel-stop");
    Refused = 0xFF;

    Log.clear();
    PortRefuses = IRP_MN_QUERY_STOP_DEVICE;
    EXPECT_EQ(PnpQueryStop(node), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Log, "c:query-stop f:query-stop f:cancel-stop c:cancel-stop");
    PortRefuses = 0xFF;

    Log.clear();
    EXPECT_EQ(PnpStop(node), STATUS_SUCCESS);
    EXPECT_FALSE(PnpChildStarted(node, PnpChildren(node)[0]));
    EXPECT_EQ(PnpStart(node), STATUS_SUCCESS);
    EXPECT_EQ(Log,
              "c:stop f:stop f:start f:capabilities f:state f:relations c:start c:capabilities "
              "c:state c:relations");
    PnpRemove(node);
    Unload();
  });
}

TEST(Pnp, ChildrenComeAndVanishWithTheRelations) {
  ExpectClean([] {
    PortDescription port = Load();
    ReportChild = false;
    PnpNode *node = PnpAdd(port);
    PnpStart(node);
    EXPECT_TRUE(PnpChildren(node).empty());
    ReportChild = true;
    EXPECT_EQ(PnpInvalidateRelations(node), STATUS_SUCCESS);
    ASSERT_EQ(PnpChildren(node).size(), 1u);
    Log.clear();
    EXPECT_EQ(PnpInvalidateRelations(node), STATUS_SUCCESS);
    EXPECT_EQ(Log, "f:relations");

    // The removal waits for the handle, the news of it does not.
    HANDLE handle;
    EXPECT_EQ(FileOpen("\\Device\\Child", Account::User, &handle), STATUS_SUCCESS);
    Log.clear();
    ReportChild = false;
    PnpInvalidateRelations(node);
    PnpInvalidateRelations(node);
    EXPECT_EQ(Log, "f:relations c:surprise f:relations");
    FileClose(handle);
    PnpInvalidateRelations(node);
    EXPECT_EQ(Log, "f:relations c:surprise f:relations f:relations c:remove");
    EXPECT_TRUE(PnpChildren(node).empty());

    // One that fails its start is removed from its drivers and stays listed.
    ReportChild = true;
    Refused = IRP_MN_START_DEVICE;
    PnpInvalidateRelations(node);
    Log.clear();
    PnpInvalidateRelations(node);
    PnpQueryRemove(node);
    EXPECT_EQ(Log, "f:relations f:query-remove");
    EXPECT_EQ(PnpChildren(node).size(), 1u);
    PnpRemove(node);
    Unload();
  });
}

TEST(Pnp, OnlyWhatHasStartedIsSurprised) {
  ExpectClean([] {
    PortDescription port = Load();
    PnpNode *node = PnpAdd(port);
    PnpSurpriseRemove(node);
    PnpRemove(node);
    EXPECT_EQ(Log, "f:remove");

    // A start that fails after a stop ends as a surprise removal does.
    node = PnpAdd(port);
    PnpStart(node);
    PnpStop(node);
    Log.clear();
    StartStatus = STATUS_IO_DEVICE_ERROR;
    EXPECT_EQ(PnpStart(node), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(Log, "f:start c:surprise f:surprise");
    PnpRemove(node);
    EXPECT_EQ(Log, "f:start c:surprise f:surprise c:remove f:remove");
    Unload();
  });
}

// Whatever the order in which they go, everybody's names and devices are found again.
TEST(Pnp, ManyPortsComeAndGo) {
  ExpectClean([] {
    PortDescription port = Load();
    port.Drivers = {Filter};
    std::vector<PnpNode *> nodes;
    for (int i = 0; i < 60; ++i) {
      nodes.push_back(PnpAdd(port));
      ASSERT_EQ(PnpStart(nodes.back()), STATUS_SUCCESS);
    }
    for (size_t step : {7, 3, 1}) {
      for (size_t i = 0; i < nodes.size(); i += step) {
        if (nodes[i]) {
          PnpRemove(nodes[i]);
          nodes[i] = nullptr;
        }
      }
      uint64_t left = static_cast<uint64_t>(std::count_if(
          nodes.begin(), nodes.end(), [](const PnpNode *node) { return node != nullptr; }));
      EXPECT_EQ(DeviceCount(Filter), left);
    }
    Unload();
  });
}

TEST(Pnp, RemovalGoesToChildrenFirst) {
  ExpectClean([] {
    PnpNode *node = PnpAdd(Load());
    PnpStart(node);
    Log.clear();
    EXPECT_EQ(PnpQueryRemove(node), STATUS_SUCCESS);
    EXPECT_EQ(PnpCancelRemove(node), STATUS_SUCCESS);
    Refused = IRP_MN_QUERY_REMOVE_DEVICE;
    EXPECT_EQ(PnpQueryRemove(node), STATUS_DEVICE_BUSY);
    PnpSurpriseRemove(node);
    PnpRemove(node);
    EXPECT_EQ(Log,
              "c:query-remove f:query-remove f:cancel-remove c:cancel-remove c:query-remove "
              "c:cancel-remove c:surprise f:surprise c:remove f:remove");
    Unload();
  });
}

TEST(Pnp, RemovalWaitsForHandlesUnlessForced) {
  ExpectCleanOnBoth([] {
    PortDescription port = Load();
    PnpNode *node = PnpAdd(port);
    PnpStart(node);
    static HANDLE handle;
    EXPECT_EQ(FileOpen("\\Device\\Child", Account::User, &handle), STATUS_SUCCESS);
    Log.clear();
    static PnpNode *removed;
    removed = node;
    PKTHREAD remover = ThreadStart("remover", [] { PnpRemove(removed); });
    ThreadSettle();
    EXPECT_EQ(Log, "");
    FileClose(handle);
    ThreadJoin(remover);
    EXPECT_EQ(Log, "c:remove f:remove");

    node = PnpAdd(port);
    PnpStart(node);
    EXPECT_EQ(FileOpen("\\Device\\Port", Account::User, &handle), STATUS_SUCCESS);
    PnpRemove(node, true);
    EXPECT_EQ(DeviceCount(Function), 1u);
    FileClose(handle);
    EXPECT_EQ(DeviceCount(Function), 0u);
    Unload();
  });
}

TEST(Pnp, FailuresLeaveNothing) {
  ExpectClean([] {
    PortDescription port = Load();
    NTSTATUS status;
    FilterAddStatus = STATUS_INSUFFICIENT_RESOURCES;
    EXPECT_EQ(PnpAdd(port, &status), nullptr);
    EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Log, "f:remove");
    FilterAddStatus = STATUS_SUCCESS;

    StartStatus = STATUS_IO_DEVICE_ERROR;
    PnpNode *node = PnpAdd(port, &status);
    EXPECT_EQ(PnpStart(node), STATUS_IO_DEVICE_ERROR);
    EXPECT_TRUE(PnpChildren(node).empty());
    PnpRemove(node);
    Unload();
  });
}

TEST(Pnp, UnknownRequestsComeBackAsTheyWere) {
  ExpectClean([] {
    PnpNode *node = PnpAdd(Load());
    ULONG_PTR information = 0;
    EXPECT_EQ(PnpSend(PnpPdo(node), IRP_MN_QUERY_DEVICE_TEXT, &information), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(information, 0u);
    PnpRemove(node);
    Unload();
  });
}

TEST(Pnp, HardwareKeyOfThePort) {
  ExpectClean([] {
    PortDescription port = Load();
    PnpNode *node = PnpAdd(port);
    HANDLE key;
    EXPECT_EQ(IoOpenDeviceRegistryKey(PnpPdo(node), PLUGPLAY_REGKEY_DEVICE, READ_CONTROL, &key),
              STATUS_SUCCESS);
    Wide name("portname");
    UCHAR buffer[64];
    ULONG length;
    EXPECT_EQ(ZwQueryValueKey(key, &name.String, KeyValueFullInformation, buffer, 64, &length),
              STATUS_SUCCESS);
    ZwClose(key);
    EXPECT_EQ(IoOpenDeviceRegistryKey(DeviceTop(PnpPdo(node)), PLUGPLAY_REGKEY_DEVICE, 0, &key),
              STATUS_INVALID_DEVICE_REQUEST);
    PnpRemove(node);
    port.HasKey = false;
    node = PnpAdd(port);
    EXPECT_EQ(IoOpenDeviceRegistryKey(PnpPdo(node), PLUGPLAY_REGKEY_DEVICE, 0, &key),
              STATUS_OBJECT_NAME_NOT_FOUND);
    PnpRemove(node);
    Unload();
  });
}

// ---- what the verifier stops ----

static void StartWith(PDRIVER_DISPATCH Bad) {
  PnpNode *node = PnpAdd(Load());
  FilterPnp = Bad;
  PnpStart(node);
  PnpStop(node);
  PnpRemove(node);
}

// Pass what they spoil by minor function; everything else as it should be.
static bool Is(PIRP Irp, UCHAR Minor) {
  return IoGetCurrentIrpStackLocation(Irp)->MinorFunction == Minor;
}

// The port lives with the filter's or function driver's fault, and is asked everything.
static void LiveWith(PDRIVER_DISPATCH BadFilter, PDRIVER_DISPATCH BadFunction = nullptr,
                     NTSTATUS (*BadChild)(PIRP Irp) = nullptr) {
  PnpNode *node = PnpAdd(Load());
  FilterPnp = BadFilter ? BadFilter : FilterPnp;
  FunctionFirst = BadFunction;
  OnChild = BadChild;
  PnpStart(node);
  PnpAskEverything(node);
  PnpSurpriseRemove(node);
  PnpRemove(node);
}

// Relations of the function driver that name Device, referenced or not, as often as Count says.
static NTSTATUS RelateTo(PDEVICE_OBJECT Device, PIRP Irp, PDEVICE_OBJECT Related, ULONG Count,
                         bool Referenced) {
  if (!Is(Irp, IRP_MN_QUERY_DEVICE_RELATIONS)) {
    return STATUS_MORE_PROCESSING_REQUIRED;
  }
  // Room for two.
  PVOID answer[] = {reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(Count)), Related, Related};
  for (ULONG i = 0; Referenced && i < Count; ++i) {
    ObReferenceObject(Related);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(Answer(answer, sizeof answer));
  return SendDown(Device, Irp);
}

// The child answers one minor function, with these bytes, and no other.
static NTSTATUS AnswerOnly(PIRP Irp, UCHAR Minor, const WCHAR *Text, size_t Count) {
  PVOID answer = Is(Irp, Minor) ? Answer(Text, Count * sizeof(WCHAR)) : nullptr;
  return CompleteWith(Irp, answer ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED,
                      reinterpret_cast<ULONG_PTR>(answer));
}

static NTSTATUS Unsupport(PDEVICE_OBJECT, PIRP Irp, PVOID) {
  Irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  return STATUS_SUCCESS;
}

static NTSTATUS SwallowControl(PDEVICE_OBJECT, PIRP Irp) {
  return CompleteWith(Irp, STATUS_SUCCESS);
}

static const BadRoutine BadDrivers[] = {
    {"swallows a request", "pnp.not-forwarded", [] { StartWith(Succeed); }},
    {"leaves what it does not know undone", "pnp.not-forwarded",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         return Is(Irp, IRP_MN_QUERY_DEVICE_TEXT) ? CompleteWith(Irp, Irp->IoStatus.Status)
                                                  : FilterPnpAsItShould(Device, Irp);
       });
     }},
    {"fails what may not fail", "pnp.must-succeed",
     [] {
       StartWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         return Is(Irp, IRP_MN_STOP_DEVICE) ? CompleteWith(Irp, STATUS_UNSUCCESSFUL)
                                            : SendDown(Device, Irp);
       });
     }},
    {"supports what it does not know", "pnp.status-changed",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         Irp->IoStatus.Status = STATUS_SUCCESS;
         return FilterPnpAsItShould(Device, Irp);
       });
     }},
    {"answers what it does not know", "pnp.status-changed",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         Irp->IoStatus.Information = Is(Irp, IRP_MN_QUERY_RESOURCES) ? 4711 : 0;
         return FilterPnpAsItShould(Device, Irp);
       });
     }},
    {"passes a failure down", "pnp.status-changed",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
         return SendDown(Device, Irp);
       });
     }},
    {"takes back what the bus has said", "pnp.status-changed",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         IoCopyCurrentIrpStackLocationToNext(Irp);
         IoSetCompletionRoutine(Irp, Unsupport, nullptr, TRUE, TRUE, TRUE);
         return IofCallDriver(ExtensionOf(Device)->Lower, Irp);
       });
     }},
    {"keeps system control", "system-control.not-forwarded",
     [] {
       PnpNode *node = PnpAdd(Load());
       Filter->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = SwallowControl;
       SendPacket(PnpPdo(node), IRP_MJ_SYSTEM_CONTROL, 0, nullptr);
     }},
    {"does not reference a child", "pnp.bad-relations",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         return RelateTo(Device, Irp, ExtensionOf(Device)->Child, 1, false);
       });
     }},
    {"reports a child twice", "pnp.bad-relations",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         return RelateTo(Device, Irp, ExtensionOf(Device)->Child, 2, true);
       });
     }},
    {"reports more children than it has room for", "pnp.bad-relations",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         return RelateTo(Device, Irp, ExtensionOf(Device)->Child, 3, true);
       });
     }},
    {"reports itself", "pnp.bad-relations",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         return RelateTo(Device, Irp, Device, 1, true);
       });
     }},
    {"reports the port as its own child", "pnp.bad-relations",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         return RelateTo(Device, Irp, ExtensionOf(Device)->Lower, 1, true);
       });
     }},
    {"reports what is no device", "pnp.bad-relations",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         return RelateTo(Device, Irp, reinterpret_cast<PDEVICE_OBJECT>(Function), 1, true);
       });
     }},
    {"changes the capabilities' version", "pnp.bad-capabilities",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         if (Is(Irp, IRP_MN_QUERY_CAPABILITIES)) {
           IoGetCurrentIrpStackLocation(Irp)->Parameters.DeviceCapabilities.Capabilities->Version =
               2;
         }
         return FilterPnpAsItShould(Device, Irp);
       });
     }},
    {"does not end an identifier", "pnp.bad-answer",
     [] {
       LiveWith(nullptr, nullptr,
                [](PIRP Irp) { return AnswerOnly(Irp, IRP_MN_QUERY_ID, L"NOEND", 5); });
     }},
    {"ends a list of identifiers like one", "pnp.bad-answer",
     [] {
       LiveWith(nullptr, nullptr,
                [](PIRP Irp) { return AnswerOnly(Irp, IRP_MN_QUERY_ID, L"ONE\0", 4); });
     }},
    {"has a comma in an identifier", "pnp.bad-answer",
     [] {
       LiveWith(nullptr, nullptr,
                [](PIRP Irp) { return AnswerOnly(Irp, IRP_MN_QUERY_ID, L"A,B\0", 4); });
     }},
    {"answers too little", "pnp.bad-answer",
     [] {
       LiveWith(nullptr, nullptr,
                [](PIRP Irp) { return AnswerOnly(Irp, IRP_MN_QUERY_BUS_INFORMATION, L"AB", 2); });
     }},
    {"answers a state with a block", "pnp.bad-answer",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         bool state = Is(Irp, IRP_MN_QUERY_PNP_DEVICE_STATE);
         Irp->IoStatus = state ? IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0x7FFF0000} : Irp->IoStatus;
         return state ? SendDown(Device, Irp) : STATUS_MORE_PROCESSING_REQUIRED;
       });
     }},
    {"takes the stack apart in a surprise removal", "device.detached-early",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         bool surprise = Is(Irp, IRP_MN_SURPRISE_REMOVAL);
         NTSTATUS status = FilterPnpAsItShould(Device, Irp);
         if (surprise) {
           IoDetachDevice(ExtensionOf(Device)->Lower);
         }
         return status;
       });
     }},
    {"detaches, but does not delete", "device.not-deleted",
     [] {
       LiveWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         PDEVICE_OBJECT lower = ExtensionOf(Device)->Lower;
         bool removes = Is(Irp, IRP_MN_REMOVE_DEVICE);
         NTSTATUS status = SendDown(Device, Irp);
         if (removes) {
           IoDetachDevice(lower);
         }
         return status;
       });
     }},
    {"is not powered as the device below", "device.flags",
     [] {
       PortDescription port = Load();
       Function->DriverExtension->AddDevice = [](PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
         FunctionAdd(Driver, Pdo);
         Pdo->AttachedDevice->Flags |= DO_POWER_PAGABLE;
         return STATUS_SUCCESS;
       };
       PnpAdd(port);
     }},
    {"stays attached", "device.not-detached",
     [] {
       PortDescription port = Load();
       port.Drivers = {Filter};
       FilterPnp = SendDown;
       PnpRemove(PnpAdd(port));
     }},
    {"stays attached to a deleted device", "leak.device", [] { StartWith(SendDown); }},
    {"stays initializing", "device.initializing",
     [] {
       PortDescription port = Load();
       Filter->DriverExtension->AddDevice = [](PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
         FilterAdd(Driver, Pdo);
         Driver->DeviceObject->Flags |= DO_DEVICE_INITIALIZING;
         return STATUS_SUCCESS;
       };
       PnpAdd(port);
     }},
    {"other buffering than below", "device.flags",
     [] {
       PortDescription port = Load();
       Filter->DriverExtension->AddDevice = [](PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
         FilterAdd(Driver, Pdo);
         Driver->DeviceObject->Flags ^= DO_BUFFERED_IO | DO_DIRECT_IO;
         return STATUS_SUCCESS;
       };
       PnpAdd(port);
     }},
    {"port left", "leak.node", [] { PnpAdd(Load()); }},
};

TEST(Pnp, BadDriversAreStopped) {
  for (const BadRoutine &bad : BadDrivers) {
    ExpectStopped(bad);
  }
}
