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
static UCHAR Refused;  // minor function that the child refuses
static bool ReportChild;
static PDRIVER_DISPATCH FilterPnp;

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
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
  case IRP_MN_START_DEVICE:
    return NT_SUCCESS(StartStatus) ? SendDown(Device, Irp) : CompleteWith(Irp, StartStatus);
  case IRP_MN_QUERY_DEVICE_RELATIONS:
    Relate(ExtensionOf(Device), Irp);
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
  Refused = 0xFF;
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
              "f:start f:capabilities f:relations c:id c:id c:id c:id c:capabilities c:bus "
              "c:start");
    std::vector<PDEVICE_OBJECT> children = PnpChildren(node);
    ASSERT_EQ(children.size(), 1u);
    EXPECT_TRUE(children[0]->Flags & DO_BUS_ENUMERATED_DEVICE);

    // Known children are not started again; a vanished one is removed.
    Log.clear();
    EXPECT_EQ(PnpQueryStop(node), STATUS_SUCCESS);
    EXPECT_EQ(PnpCancelStop(node), STATUS_SUCCESS);
    EXPECT_EQ(PnpQueryStop(node), STATUS_SUCCESS);
    EXPECT_EQ(PnpStop(node), STATUS_SUCCESS);
    EXPECT_EQ(PnpStart(node), STATUS_SUCCESS);
    EXPECT_EQ(Log,
              "f:query-stop f:cancel-stop f:query-stop f:stop f:start f:capabilities f:relations");
    Log.clear();
    ReportChild = false;
    EXPECT_EQ(PnpStart(node), STATUS_SUCCESS);
    EXPECT_EQ(Log, "f:start f:capabilities f:relations c:remove");
    EXPECT_TRUE(PnpChildren(node).empty());

    PnpRemove(node);
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

TEST(Pnp, PowerGoesThroughTheStack) {
  ExpectClean([] {
    PnpNode *node = PnpAdd(Load());
    PnpStart(node);
    EXPECT_EQ(PnpQueryDevicePower(PnpPdo(node), PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(PowerReports(), 0u);
    EXPECT_EQ(PnpSetDevicePower(PnpPdo(node), PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(PowerStateReported(PnpPdo(node)), PowerDeviceD3);
    EXPECT_EQ(PnpSetSystemPower(PnpChildren(node)[0], PowerSystemSleeping3), STATUS_SUCCESS);
    EXPECT_EQ(PowerReports(), 1u);
    EXPECT_EQ(PowerNextCalls(), 7u);
    EXPECT_EQ(VerifierWarnings("power.next"), 0u);

    Filter->MajorFunction[IRP_MJ_POWER] = SendDown;  // forgets PoStartNextPowerIrp
    PnpQueryDevicePower(PnpPdo(node), PowerDeviceD0);
    EXPECT_EQ(VerifierWarnings("power.next"), 1u);
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

static const BadRoutine BadDrivers[] = {
    {"swallows a request", "pnp.not-forwarded", [] { StartWith(Succeed); }},
    {"fails what may not fail", "pnp.must-succeed",
     [] {
       StartWith([](PDEVICE_OBJECT Device, PIRP Irp) {
         bool stop = IoGetCurrentIrpStackLocation(Irp)->MinorFunction == IRP_MN_STOP_DEVICE;
         return stop ? CompleteWith(Irp, STATUS_UNSUCCESSFUL) : SendDown(Device, Irp);
       });
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
