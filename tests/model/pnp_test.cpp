#include <map>

#include "tests/model/port_stack.h"

// The function driver has one raw child.
static const ULONG Tag = FourCharacters("PnpT");

static PortDescription Port;
static std::string Log;  // a letter a minor function, as each device sees it
static NTSTATUS StartStatus;
static NTSTATUS FilterAddStatus;
static UCHAR Refused;      // minor function that the child refuses
static UCHAR PortRefuses;  // and the port
static bool ReportChild;
using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;
static Dispatch FilterPnp;
static Dispatch FunctionFirst;                 // tried before the function driver's own; may pass
static std::function<NTSTATUS(PIRP)> OnChild;  // takes the place of the child's own answers

static void Note(const char *Who, PIRP Irp) {
  static const std::map<UCHAR, const char *> names = {
      {IRP_MN_START_DEVICE, "start"},
      {IRP_MN_QUERY_REMOVE_DEVICE, "query-remove"},
      {IRP_MN_CANCEL_REMOVE_DEVICE, "cancel-remove"},
      {IRP_MN_REMOVE_DEVICE, "remove"},
      {IRP_MN_SURPRISE_REMOVAL, "surprise"},
      {IRP_MN_STOP_DEVICE, "stop"},
      {IRP_MN_QUERY_STOP_DEVICE, "query-stop"},
      {IRP_MN_CANCEL_STOP_DEVICE, "cancel-stop"},
      {IRP_MN_QUERY_DEVICE_RELATIONS, "relations"},
      {IRP_MN_QUERY_CAPABILITIES, "capabilities"},
      {IRP_MN_QUERY_ID, "id"},
      {IRP_MN_QUERY_BUS_INFORMATION, "bus"},
      {IRP_MN_QUERY_PNP_DEVICE_STATE, "state"},
      {IRP_MN_FILTER_RESOURCE_REQUIREMENTS, "resources"}};
  auto name = names.find(IoGetCurrentIrpStackLocation(Irp)->MinorFunction);
  Log +=
      (Log.empty() ? "" : " ") + std::string(Who) + (name == names.end() ? "other" : name->second);
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

static NTSTATUS FunctionAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  PDEVICE_OBJECT device = Attach(Driver, Pdo, "\\Device\\Port");
  ExtensionOf(device)->Child = Attach(Driver, nullptr, "\\Device\\Child");
  return STATUS_SUCCESS;
}

static NTSTATUS FilterAdd(PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
  if (NT_SUCCESS(FilterAddStatus)) {
    Attach(Driver, Pdo);
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

// What has been logged since it was last asked.
static std::string Seen() {
  return std::exchange(Log, "");
}

static void Load() {
  StartStatus = FilterAddStatus = STATUS_SUCCESS;
  Refused = PortRefuses = 0xFF;
  FunctionFirst = nullptr;
  OnChild = nullptr;
  ReportChild = true;
  FilterPnp = FollowDown;
  Log.clear();
  Port = LoadStack(Entry);
  Function->DriverExtension->AddDevice = FunctionAdd;
  Function->MajorFunction[IRP_MJ_PNP] = FunctionPnp;
  Filter->DriverExtension->AddDevice = FilterAdd;
  Filter->MajorFunction[IRP_MJ_PNP] = [](PDEVICE_OBJECT Device, PIRP Irp) {
    return FilterPnp(Device, Irp);
  };
}

static PnpNode *AddStarted() {
  PnpNode *node = PnpAdd(Port);
  PnpStart(node);
  Log.clear();
  return node;
}

static void ExpectPortClean(void (*Body)()) {
  ExpectCleanOnBoth([Body] {
    Load();
    Body();
    UnloadStack();
  });
}

#define PORT_TEST(NAME) TEST_RUN_BY(ExpectPortClean, Pnp, NAME)

PORT_TEST(StartFindsAndStartsTheRawChild) {
  PnpNode *node = PnpAdd(Port);
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(DeviceTop(PnpPdo(node))->StackSize, 3);
  EXPECT_EQ(PnpStart(node), STATUS_SUCCESS);
  EXPECT_EQ(Seen(),
            "f:resources f:start f:capabilities f:state f:relations c:id c:id c:id c:id "
            "c:capabilities c:bus c:start c:capabilities c:state c:relations");
  std::vector<PDEVICE_OBJECT> children = PnpChildren(node);
  ASSERT_EQ(children.size(), 1u);
  EXPECT_TRUE(children[0]->Flags & DO_BUS_ENUMERATED_DEVICE);
  EXPECT_TRUE(PnpChildStarted(node, children[0]));
  PnpAskEverything(node);
  HANDLE key;
  EXPECT_EQ(IoOpenDeviceRegistryKey(DeviceTop(PnpPdo(node)), PLUGPLAY_REGKEY_DEVICE, 0, &key),
            STATUS_INVALID_DEVICE_REQUEST);
  PnpRemove(node);
}

PORT_TEST(StopGoesToChildrenFirstAndStartToThemLast) {
  PnpNode *node = AddStarted();
  EXPECT_EQ(PnpQueryStop(node), STATUS_SUCCESS);
  EXPECT_EQ(PnpCancelStop(node), STATUS_SUCCESS);
  EXPECT_EQ(Seen(), "c:query-stop f:query-stop f:cancel-stop c:cancel-stop");

  Refused = IRP_MN_QUERY_STOP_DEVICE;
  EXPECT_EQ(PnpQueryStop(node), STATUS_DEVICE_BUSY);
  EXPECT_EQ(Seen(), "c:query-stop c:cancel-stop");
  Refused = 0xFF;

  PortRefuses = IRP_MN_QUERY_STOP_DEVICE;
  EXPECT_EQ(PnpQueryStop(node), STATUS_DEVICE_BUSY);
  EXPECT_EQ(Seen(), "c:query-stop f:query-stop f:cancel-stop c:cancel-stop");
  PortRefuses = 0xFF;

  EXPECT_EQ(PnpStop(node), STATUS_SUCCESS);
  EXPECT_FALSE(PnpChildStarted(node, PnpChildren(node)[0]));
  EXPECT_EQ(PnpStart(node), STATUS_SUCCESS);
  EXPECT_EQ(Seen(),
            "c:stop f:stop f:start f:capabilities f:state f:relations c:start c:capabilities "
            "c:state c:relations");
  PnpRemove(node);
}

PORT_TEST(ChildrenComeAndVanishWithTheRelations) {
  ReportChild = false;
  PnpNode *node = PnpAdd(Port);
  PnpStart(node);
  EXPECT_TRUE(PnpChildren(node).empty());
  ReportChild = true;
  EXPECT_EQ(PnpInvalidateRelations(node), STATUS_SUCCESS);
  ASSERT_EQ(PnpChildren(node).size(), 1u);
  Log.clear();
  EXPECT_EQ(PnpInvalidateRelations(node), STATUS_SUCCESS);
  EXPECT_EQ(Seen(), "f:relations");

  // The removal waits for the handle, the news of it does not.
  HANDLE handle;
  EXPECT_EQ(FileOpen("\\Device\\Child", Account::User, &handle), STATUS_SUCCESS);
  ReportChild = false;
  PnpInvalidateRelations(node);
  PnpInvalidateRelations(node);
  EXPECT_EQ(Seen(), "f:relations c:surprise f:relations");
  HANDLE late;
  EXPECT_EQ(FileOpen("\\Device\\Child", Account::User, &late), STATUS_NO_SUCH_DEVICE);
  FileClose(handle);
  PnpInvalidateRelations(node);
  EXPECT_EQ(Seen(), "f:relations c:remove");
  EXPECT_TRUE(PnpChildren(node).empty());

  // One that fails its start is removed from its drivers and stays listed.
  ReportChild = true;
  Refused = IRP_MN_START_DEVICE;
  PnpInvalidateRelations(node);
  Log.clear();
  PnpInvalidateRelations(node);
  PnpQueryRemove(node);
  EXPECT_EQ(Seen(), "f:relations f:query-remove");
  EXPECT_EQ(PnpChildren(node).size(), 1u);
  EXPECT_EQ(FileOpen("\\Device\\Child", Account::User, &late), STATUS_NO_SUCH_DEVICE);
  PnpRemove(node);
}

PORT_TEST(OnlyWhatHasStartedIsSurprised) {
  PnpNode *node = PnpAdd(Port);
  PnpSurpriseRemove(node);
  PnpRemove(node);
  EXPECT_EQ(Seen(), "f:remove");

  // A start that fails after a stop ends as a surprise removal does.
  node = AddStarted();
  PnpStop(node);
  Log.clear();
  StartStatus = STATUS_IO_DEVICE_ERROR;
  EXPECT_EQ(PnpStart(node), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(Seen(), "f:start c:surprise f:surprise");
  PnpRemove(node);
  EXPECT_EQ(Seen(), "c:remove f:remove");
}

PORT_TEST(RemovalGoesToChildrenFirst) {
  PnpNode *node = AddStarted();
  EXPECT_EQ(PnpQueryRemove(node), STATUS_SUCCESS);
  EXPECT_EQ(PnpCancelRemove(node), STATUS_SUCCESS);
  Refused = IRP_MN_QUERY_REMOVE_DEVICE;
  EXPECT_EQ(PnpQueryRemove(node), STATUS_DEVICE_BUSY);
  PnpSurpriseRemove(node);
  EXPECT_EQ(VerifierWarnings("pnp.child-must-succeed"), 0u);
  Refused = IRP_MN_REMOVE_DEVICE;
  PnpRemove(node);
  EXPECT_EQ(VerifierWarnings("pnp.child-must-succeed"), 1u);
  EXPECT_EQ(Seen(),
            "c:query-remove f:query-remove f:cancel-remove c:cancel-remove c:query-remove "
            "c:cancel-remove c:surprise f:surprise c:remove f:remove");
}

PORT_TEST(RemovalWaitsForHandlesUnlessForced) {
  PnpNode *node = AddStarted();
  static HANDLE handle;
  EXPECT_EQ(FileOpen("\\Device\\Child", Account::User, &handle), STATUS_SUCCESS);
  static PnpNode *removed;
  removed = node;
  PKTHREAD remover = ThreadStart("remover", [] { PnpRemove(removed); });
  ThreadSettle();
  EXPECT_EQ(Seen(), "");
  FileClose(handle);
  ThreadJoin(remover);
  EXPECT_EQ(Seen(), "c:remove f:remove");

  node = AddStarted();
  EXPECT_EQ(FileOpen("\\Device\\Port", Account::User, &handle), STATUS_SUCCESS);
  PnpRemove(node, true);
  EXPECT_EQ(DeviceCount(Function), 1u);
  FileClose(handle);
  EXPECT_EQ(DeviceCount(Function), 0u);
}

static bool Is(PIRP Irp, UCHAR Minor) {
  return IoGetCurrentIrpStackLocation(Irp)->MinorFunction == Minor;
}

static std::string TryOpens() {
  std::string names;
  for (const char *name : {"\\Device\\Port", "\\Device\\Child"}) {
    HANDLE handle;
    NTSTATUS status = FileOpen(name, Account::User, &handle);
    names += NT_SUCCESS(status) ? "open " : status == STATUS_NO_SUCH_DEVICE ? "shut " : "other ";
    FileClose(handle);
  }
  return names;
}

PORT_TEST(NobodyOpensWhatIsBeingRemoved) {
  static const struct {
    UCHAR Minor;
    void (*Remove)(PnpNode *Node);
  } ways[] = {
      {IRP_MN_REMOVE_DEVICE, [](PnpNode *Node) { PnpRemove(Node); }},
      {IRP_MN_REMOVE_DEVICE, [](PnpNode *Node) { PnpRemove(Node, true); }},
      {IRP_MN_SURPRISE_REMOVAL,
       [](PnpNode *Node) {
         PnpSurpriseRemove(Node);
         EXPECT_EQ(TryOpens(), "shut shut ");
         PnpRemove(Node);
       }},
  };
  for (const auto &way : ways) {
    PnpNode *node = AddStarted();
    EXPECT_EQ(TryOpens(), "open open ");
    std::string opened;
    FunctionFirst = [&](PDEVICE_OBJECT, PIRP Irp) {
      opened = Is(Irp, way.Minor) ? TryOpens() : opened;
      return STATUS_MORE_PROCESSING_REQUIRED;
    };
    way.Remove(node);
    EXPECT_EQ(opened, "shut shut ");
    FunctionFirst = nullptr;
  }
}

PORT_TEST(AQueryIsRefusedByAnOpenHandle) {
  PnpNode *node = AddStarted();
  for (const char *name : {"\\Device\\Port", "\\Device\\Child"}) {
    HANDLE handle;
    EXPECT_EQ(FileOpen(name, Account::User, &handle), STATUS_SUCCESS);
    EXPECT_EQ(PnpQueryRemove(node), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Seen(), "c:query-remove f:query-remove f:cancel-remove c:cancel-remove");
    EXPECT_EQ(PnpQueryRemove(node, true), STATUS_SUCCESS);
    EXPECT_EQ(TryOpens(), "open open ");
    PnpCancelRemove(node);
    FileClose(handle);
    Log.clear();
  }
  EXPECT_EQ(PnpQueryRemove(node), STATUS_SUCCESS);
  EXPECT_EQ(TryOpens(), "shut shut ");
  PnpCancelRemove(node);
  EXPECT_EQ(TryOpens(), "open open ");
  PnpRemove(node);
}

PORT_TEST(FailuresLeaveNothing) {
  NTSTATUS status;
  FilterAddStatus = STATUS_INSUFFICIENT_RESOURCES;
  EXPECT_EQ(PnpAdd(Port, &status), nullptr);
  EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(Seen(), "f:remove");
  FilterAddStatus = STATUS_SUCCESS;

  StartStatus = STATUS_IO_DEVICE_ERROR;
  PnpNode *node = PnpAdd(Port, &status);
  EXPECT_EQ(PnpStart(node), STATUS_IO_DEVICE_ERROR);
  EXPECT_TRUE(PnpChildren(node).empty());
  PnpRemove(node);
}

static void ExpectPortStopped(const char *Name, const char *Rule,
                              const std::function<void()> &Body) {
  RunReport report = ModelRun({}, [&Body] {
    Load();
    Body();
  });
  EXPECT_EQ(report.Rule, Rule) << Name << "\n" << report.Text;
}

// The port lives with the fault, and is asked everything.
static void LiveWith(const Dispatch &BadFilter, const Dispatch &BadFunction = nullptr,
                     const std::function<NTSTATUS(PIRP)> &BadChild = nullptr) {
  PnpNode *node = PnpAdd(Port);
  FilterPnp = BadFilter ? BadFilter : FilterPnp;
  FunctionFirst = BadFunction;
  OnChild = BadChild;
  PnpStart(node);
  PnpStop(node);
  PnpStart(node);
  PnpAskEverything(node);
  PnpSurpriseRemove(node);
  PnpRemove(node);
}

template <UCHAR Minor>
static NTSTATUS AskTheChild(PDEVICE_OBJECT Device, PIRP Irp) {
  if (!Is(Irp, Minor)) {
    return STATUS_MORE_PROCESSING_REQUIRED;
  }
  IoSkipCurrentIrpStackLocation(Irp);
  return IofCallDriver(ExtensionOf(Device)->Child, Irp);
}

// What the filter does with one minor function; the others it treats as it should.
struct BadFilter {
  const char *Name;
  const char *Rule;
  UCHAR Minor;
  const char *Words;
};

TEST(Pnp, BadFiltersAreStopped) {
  static const BadFilter bad[] = {
      {"swallows a request", "pnp.not-forwarded", IRP_MN_START_DEVICE, "complete"},
      {"leaves what it does not know undone", "pnp.not-forwarded", IRP_MN_QUERY_DEVICE_TEXT,
       "unsupported complete"},
      {"fails what may not fail", "pnp.must-succeed", IRP_MN_STOP_DEVICE, "failure complete"},
      {"supports what it does not know", "pnp.status-changed", IRP_MN_QUERY_DEVICE_TEXT,
       "success say skip down"},
      {"answers what it does not know", "pnp.status-changed", IRP_MN_QUERY_RESOURCES,
       "answer skip down"},
      {"passes a failure down", "pnp.status-changed", IRP_MN_START_DEVICE, "failure say skip down"},
      {"takes back what the bus has said", "pnp.status-changed", IRP_MN_QUERY_CAPABILITIES,
       "copy deny down"},
      {"changes the capabilities' version", "pnp.bad-capabilities", IRP_MN_QUERY_CAPABILITIES,
       "version skip down"},
      {"takes the stack apart in a surprise removal", "device.detached-early",
       IRP_MN_SURPRISE_REMOVAL, "skip down detach"},
      {"detaches, but does not delete", "device.not-deleted", IRP_MN_REMOVE_DEVICE,
       "skip down detach"},
      {"stays attached to a deleted device", "leak.device", IRP_MN_REMOVE_DEVICE, "skip down"},
  };
  for (const BadFilter &one : bad) {
    ExpectPortStopped(one.Name, one.Rule, [&one] {
      LiveWith([&one](PDEVICE_OBJECT Device, PIRP Irp) {
        return Is(Irp, one.Minor) ? Perform(one.Words, ExtensionOf(Device)->Lower, Irp)
                                  : FollowDown(Device, Irp);
      });
    });
  }
}

// What the function driver reports, referenced or not, as often as Count says. There is room for
// two.
struct BadRelation {
  const char *Name;
  PDEVICE_OBJECT (*Related)(PDEVICE_OBJECT Device);
  ULONG Count;
  bool Referenced;
};

static NTSTATUS RelateBadly(const BadRelation &Relation, PDEVICE_OBJECT Device, PIRP Irp) {
  if (!Is(Irp, IRP_MN_QUERY_DEVICE_RELATIONS)) {
    return STATUS_MORE_PROCESSING_REQUIRED;
  }
  PDEVICE_OBJECT related = Relation.Related(Device);
  PVOID answer[] = {reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(Relation.Count)), related,
                    related};
  for (ULONG i = 0; Relation.Referenced && i < Relation.Count; ++i) {
    ObReferenceObject(related);
  }
  Irp->IoStatus.Status = STATUS_SUCCESS;
  Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(Answer(answer, sizeof answer));
  return SendDown(Device, Irp);
}

TEST(Pnp, BadRelationsAreStopped) {
  auto child = [](PDEVICE_OBJECT Device) { return ExtensionOf(Device)->Child; };
  auto itself = [](PDEVICE_OBJECT Device) { return Device; };
  auto port = [](PDEVICE_OBJECT Device) { return ExtensionOf(Device)->Lower; };
  auto driver = [](PDEVICE_OBJECT) { return reinterpret_cast<PDEVICE_OBJECT>(Function); };
  const BadRelation bad[] = {
      {"a child without a reference", child, 1, false},
      {"a child twice", child, 2, true},
      {"more children than there is room for", child, 3, true},
      {"itself", itself, 1, true},
      {"the port as its own child", port, 1, true},
      {"what is no device", driver, 1, true},
  };
  for (const BadRelation &one : bad) {
    ExpectPortStopped(one.Name, "pnp.bad-relations",
                      [&one] { LiveWith(nullptr, std::bind_front(RelateBadly, std::cref(one))); });
  }
}

// The child answers one minor function, with these bytes, and no other.
struct BadAnswer {
  const char *Name;
  UCHAR Minor;
  const WCHAR *Text;
  size_t Count;
};

static NTSTATUS AnswerBadly(const BadAnswer &Of, PIRP Irp) {
  PVOID answer = Is(Irp, Of.Minor) ? Answer(Of.Text, Of.Count * sizeof(WCHAR)) : nullptr;
  return CompleteWith(Irp, answer ? STATUS_SUCCESS : STATUS_NOT_SUPPORTED,
                      reinterpret_cast<ULONG_PTR>(answer));
}

TEST(Pnp, BadAnswersAreStopped) {
  static const BadAnswer bad[] = {
      {"does not end an identifier", IRP_MN_QUERY_ID, L"NOEND", 5},
      {"ends a list of identifiers like one", IRP_MN_QUERY_ID, L"ONE\0", 4},
      {"has a comma in an identifier", IRP_MN_QUERY_ID, L"A,B\0", 4},
      {"answers too little", IRP_MN_QUERY_BUS_INFORMATION, L"AB", 2},
  };
  for (const BadAnswer &one : bad) {
    ExpectPortStopped(one.Name, "pnp.bad-answer", [&one] {
      LiveWith(nullptr, nullptr, std::bind_front(AnswerBadly, std::cref(one)));
    });
  }
}

// Flags that differ from what they should be when the filter's device has been added.
TEST(Pnp, BadFlagsAreStopped) {
  struct BadFlags {
    const char *Name, *Rule;
    ULONG Filter, Below;
  };
  static const BadFlags *flipped;
  static const BadFlags bad[] = {
      {"stays initializing", "device.initializing", DO_DEVICE_INITIALIZING, 0},
      {"is not powered as the device below", "device.flags", 0, DO_POWER_PAGABLE},
      {"other buffering than below", "device.flags", DO_BUFFERED_IO | DO_DIRECT_IO, 0},
  };
  for (const BadFlags &one : bad) {
    flipped = &one;
    ExpectPortStopped(one.Name, one.Rule, [] {
      Filter->DriverExtension->AddDevice = [](PDRIVER_OBJECT Driver, PDEVICE_OBJECT Pdo) {
        FilterAdd(Driver, Pdo);
        Driver->DeviceObject->Flags ^= flipped->Filter;
        Pdo->AttachedDevice->Flags ^= flipped->Below;
        return STATUS_SUCCESS;
      };
      PnpAdd(Port);
    });
  }
}

static const BadRoutine BadDrivers[] = {
    {"keeps system control", "system-control.not-forwarded",
     [] {
       PnpNode *node = PnpAdd(Port);
       Filter->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = Succeed;
       SendPacket(PnpPdo(node), IRP_MJ_SYSTEM_CONTROL, 0, nullptr);
     }},
    {"answers a state with a block", "pnp.bad-answer",
     [] {
       LiveWith(nullptr, [](PDEVICE_OBJECT Device, PIRP Irp) {
         bool state = Is(Irp, IRP_MN_QUERY_PNP_DEVICE_STATE);
         Irp->IoStatus = state ? IO_STATUS_BLOCK{{STATUS_SUCCESS}, 0x7FFF0000} : Irp->IoStatus;
         return state ? SendDown(Device, Irp) : STATUS_MORE_PROCESSING_REQUIRED;
       });
     }},
    {"has its child start in its place", "pnp.not-forwarded",
     [] { LiveWith(nullptr, AskTheChild<IRP_MN_START_DEVICE>); }},
    {"has its child stop in its place", "pnp.must-succeed",
     [] {
       Refused = IRP_MN_STOP_DEVICE;
       LiveWith(nullptr, AskTheChild<IRP_MN_STOP_DEVICE>);
     }},
    {"stays attached", "device.not-detached",
     [] {
       Port.Drivers = {Filter};
       FilterPnp = SendDown;
       PnpRemove(PnpAdd(Port));
     }},
    {"port left", "leak.node", [] { PnpAdd(Port); }},
};

TEST(Pnp, BadDriversAreStopped) {
  for (const BadRoutine &bad : BadDrivers) {
    ExpectPortStopped(bad.Name, bad.Rule, bad.Body);
  }
}
