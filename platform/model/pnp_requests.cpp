#include "platform/model/pnp_requests.h"

#include <algorithm>

#include "platform/model/devices.h"
#include "platform/model/objects.h"
#include "platform/model/packets.h"
#include "platform/model/pnp_manager.h"
#include "platform/model/pool.h"
#include "platform/model/verifier.h"

static constexpr ULONG UnknownNumber = 0xFFFFFFFF;
static constexpr size_t MostIdCharacters = 200;
static constexpr ULONG_PTR StateFlags = 0x1FF;  // PNP_DEVICE_STATE
static constexpr ULONG EnglishLocale = 0x409;

using FillRoutine = void (*)(PIO_STACK_LOCATION Location, const void *Context);

static NTSTATUS Send(PDEVICE_OBJECT Device, UCHAR Minor, FillRoutine Fill, const void *Context,
                     ULONG_PTR *Information) {
  PacketRequest request = {};
  request.Major = IRP_MJ_PNP;
  request.Minor = Minor;
  request.Fill = Fill;
  request.Context = Context;
  request.Iosb.Status = STATUS_NOT_SUPPORTED;
  request.Iosb.Information = Information ? *Information : 0;
  NTSTATUS status = PacketSendAndWait(Device, &request);
  if (Information) {
    *Information = request.Iosb.Information;
  }
  return status;
}

NTSTATUS PnpSend(PDEVICE_OBJECT Device, UCHAR Minor, ULONG_PTR *Information) {
  return Send(Device, Minor, nullptr, nullptr, Information);
}

NTSTATUS PnpSendPlain(PDEVICE_OBJECT Device, UCHAR Minor) {
  return Send(Device, Minor, nullptr, nullptr, nullptr);
}

NTSTATUS PnpSendToChild(PDEVICE_OBJECT Child, UCHAR Minor) {
  bool mayFail = Minor == IRP_MN_START_DEVICE || Minor == IRP_MN_QUERY_STOP_DEVICE ||
                 Minor == IRP_MN_QUERY_REMOVE_DEVICE;
  NTSTATUS status = PnpSendPlain(Child, Minor);
  if (!NT_SUCCESS(status) && !mayFail) {
    VerifierWarn("pnp.child-must-succeed");
  }
  return status;
}

// ---- texts ----

// The block of an answer, or null. It is the asker's to free.
static PVOID AnswerOf(NTSTATUS Status, ULONG_PTR Information, UCHAR Minor, size_t Least) {
  if (!NT_SUCCESS(Status) || Information == 0) {
    return nullptr;
  }
  PVOID block = reinterpret_cast<PVOID>(Information);
  if (VerifierOn() && PoolBlockBytes(block) < Least) {
    VerifierStop("pnp.bad-answer", block,
                 "minor function 0x%02x was answered with %p, no block of at least %zu bytes",
                 Minor, block, Least);
  }
  return block;
}

static bool FitForId(WCHAR Character) {
  return Character > 0x20 && Character < 0x80 && Character != ',';
}

// The characters up to and without the terminating NUL at most; stops when it is not there.
static size_t TextLength(const WCHAR *Text, size_t Room) {
  size_t length = 0;
  while (length < Room && Text[length] != 0) {
    ++length;
  }
  if (length == Room) {
    VerifierStop("pnp.bad-answer", Text, "the text does not end within its block");
  }
  return length;
}

static void CheckId(const WCHAR *Id, size_t Length) {
  if (Length > MostIdCharacters || !std::all_of(Id, Id + Length, FitForId)) {
    VerifierStop("pnp.bad-answer", Id,
                 "an identifier of %zu characters, or with one it cannot have", Length);
  }
}

static void CheckIds(const void *Block, bool Several) {
  const WCHAR *text = static_cast<const WCHAR *>(Block);
  size_t room = PoolBlockBytes(Block) / sizeof(WCHAR);
  size_t at = 0;
  for (;;) {
    size_t length = TextLength(text + at, room - at);
    CheckId(text + at, length);
    at += length + 1;
    if (!Several || length == 0) {
      return;
    }
  }
}

static void FillId(PIO_STACK_LOCATION Location, const void *Context) {
  Location->Parameters.QueryId.IdType = *static_cast<const BUS_QUERY_ID_TYPE *>(Context);
}

static void FreeAnswer(PVOID Block) {
  if (Block) {
    ExFreePoolWithTag(Block, 0);
  }
}

bool PnpAskId(PDEVICE_OBJECT Device, BUS_QUERY_ID_TYPE Type) {
  ULONG_PTR information = 0;
  NTSTATUS status = Send(Device, IRP_MN_QUERY_ID, FillId, &Type, &information);
  PVOID answer = AnswerOf(status, information, IRP_MN_QUERY_ID, sizeof(WCHAR));
  if (answer && VerifierOn()) {
    CheckIds(answer, Type == BusQueryHardwareIDs || Type == BusQueryCompatibleIDs);
  }
  FreeAnswer(answer);
  return answer != nullptr;
}

static void FillText(PIO_STACK_LOCATION Location, const void *Context) {
  Location->Parameters.QueryDeviceText.DeviceTextType =
      *static_cast<const DEVICE_TEXT_TYPE *>(Context);
  Location->Parameters.QueryDeviceText.LocaleId = EnglishLocale;
}

void PnpAskText(PDEVICE_OBJECT Device, DEVICE_TEXT_TYPE Type) {
  ULONG_PTR information = 0;
  NTSTATUS status = Send(Device, IRP_MN_QUERY_DEVICE_TEXT, FillText, &Type, &information);
  PVOID answer = AnswerOf(status, information, IRP_MN_QUERY_DEVICE_TEXT, sizeof(WCHAR));
  if (answer && VerifierOn()) {
    TextLength(static_cast<const WCHAR *>(answer), PoolBlockBytes(answer) / sizeof(WCHAR));
  }
  FreeAnswer(answer);
}

// ---- other answers ----

void PnpAskBusInformation(PDEVICE_OBJECT Device) {
  ULONG_PTR information = 0;
  NTSTATUS status = PnpSend(Device, IRP_MN_QUERY_BUS_INFORMATION, &information);
  FreeAnswer(
      AnswerOf(status, information, IRP_MN_QUERY_BUS_INFORMATION, sizeof(PNP_BUS_INFORMATION)));
}

void PnpAskState(PDEVICE_OBJECT Device) {
  ULONG_PTR information = 0;
  NTSTATUS status = PnpSend(Device, IRP_MN_QUERY_PNP_DEVICE_STATE, &information);
  if (VerifierOn() && NT_SUCCESS(status) && (information & ~StateFlags) != 0) {
    VerifierStop("pnp.bad-answer", Device, "%#llx is no state of a device",
                 static_cast<unsigned long long>(information));
  }
}

void PnpAskResources(PDEVICE_OBJECT Device) {
  for (UCHAR minor : {IRP_MN_QUERY_RESOURCES, IRP_MN_QUERY_RESOURCE_REQUIREMENTS}) {
    ULONG_PTR information = 0;
    NTSTATUS status = PnpSend(Device, minor, &information);
    FreeAnswer(AnswerOf(status, information, minor, 1));
  }
}

// The ports of the model's bus need no resources: there is no list to begin with.
void PnpFilterResources(PDEVICE_OBJECT Device) {
  ULONG_PTR information = 0;
  NTSTATUS status = PnpSend(Device, IRP_MN_FILTER_RESOURCE_REQUIREMENTS, &information);
  FreeAnswer(AnswerOf(status, information, IRP_MN_FILTER_RESOURCE_REQUIREMENTS, 1));
}

// An interface of which nobody knows.
void PnpAskInterface(PDEVICE_OBJECT Device) {
  static const GUID nobodys = {0x7C3E59A1, 0x4B0D, 0x4F62, {0x90, 0x1D, 0, 0, 0, 0, 0, 1}};
  ULONG_PTR room[8] = {};
  auto fill = [](PIO_STACK_LOCATION Location, const void *Context) {
    Location->Parameters.QueryInterface.InterfaceType = &nobodys;
    Location->Parameters.QueryInterface.Size = sizeof room;
    Location->Parameters.QueryInterface.Version = 1;
    Location->Parameters.QueryInterface.Interface = const_cast<void *>(Context);
  };
  Send(Device, IRP_MN_QUERY_INTERFACE, fill, room, nullptr);
}

// A paging file comes, and goes when it could come.
void PnpNotifyUsage(PDEVICE_OBJECT Device) {
  auto fill = [](PIO_STACK_LOCATION Location, const void *Context) {
    Location->Parameters.UsageNotification.InPath = *static_cast<const BOOLEAN *>(Context);
    Location->Parameters.UsageNotification.Type = DeviceUsageTypePaging;
  };
  BOOLEAN in = TRUE;
  if (NT_SUCCESS(Send(Device, IRP_MN_DEVICE_USAGE_NOTIFICATION, fill, &in, nullptr))) {
    in = FALSE;
    Send(Device, IRP_MN_DEVICE_USAGE_NOTIFICATION, fill, &in, nullptr);
  }
}

// ---- capabilities ----

static bool PossibleStates(const DEVICE_CAPABILITIES *Capabilities) {
  auto impossible = [](DEVICE_POWER_STATE state) {
    return state < PowerDeviceUnspecified || state > PowerDeviceD3;
  };
  const DEVICE_POWER_STATE *states = Capabilities->DeviceState;
  return std::none_of(states, states + PowerSystemMaximum, impossible) &&
         !impossible(Capabilities->DeviceWake) &&
         Capabilities->SystemWake >= PowerSystemUnspecified &&
         Capabilities->SystemWake < PowerSystemMaximum;
}

NTSTATUS PnpAskCapabilities(PDEVICE_OBJECT Device, PDEVICE_CAPABILITIES Capabilities) {
  *Capabilities = {};
  Capabilities->Size = sizeof(DEVICE_CAPABILITIES);
  Capabilities->Version = 1;
  Capabilities->Address = UnknownNumber;
  Capabilities->UINumber = UnknownNumber;
  auto fill = [](PIO_STACK_LOCATION Location, const void *Context) {
    Location->Parameters.DeviceCapabilities.Capabilities =
        static_cast<PDEVICE_CAPABILITIES>(const_cast<void *>(Context));
  };
  NTSTATUS status = Send(Device, IRP_MN_QUERY_CAPABILITIES, fill, Capabilities, nullptr);
  bool right = Capabilities->Size == sizeof(DEVICE_CAPABILITIES) && Capabilities->Version == 1 &&
               PossibleStates(Capabilities);
  if (VerifierOn() && NT_SUCCESS(status) && !right) {
    VerifierStop("pnp.bad-capabilities", Device,
                 "size %u, version %u, system wake %d, device wake %d", Capabilities->Size,
                 Capabilities->Version, Capabilities->SystemWake, Capabilities->DeviceWake);
  }
  return status;
}

// ---- relations ----

static const char *WrongWith(PDEVICE_OBJECT Related, PDEVICE_OBJECT Asked,
                             DEVICE_RELATION_TYPE Type, bool Known) {
  if (!ObjectIs(Related, ObjectKind::Device) || DeviceIsDeleted(Related)) {
    return "is no live device";
  }
  PDEVICE_OBJECT bottom = DeviceBottom(Related);
  if (bottom != Related) {
    return "is attached to a device: relations name what a bus driver has made";
  }
  if ((bottom == DeviceBottom(Asked)) != (Type == TargetDeviceRelation)) {
    return "is not the device's relation but itself, or the other way round";
  }
  if (Related->Flags & DO_DEVICE_INITIALIZING) {
    return "is initializing";
  }
  // Its maker's reference, the asker's older one, and the one that comes with the relations.
  return ObjectReferences(Related) < 2 + Known ? "is not referenced for the asker" : nullptr;
}

static bool Contains(const std::vector<PDEVICE_OBJECT> &Devices, PDEVICE_OBJECT Device) {
  return std::find(Devices.begin(), Devices.end(), Device) != Devices.end();
}

static void CheckRelations(const DEVICE_RELATIONS *Relations, PDEVICE_OBJECT Asked,
                           DEVICE_RELATION_TYPE Type, const std::vector<PDEVICE_OBJECT> &Known) {
  size_t bytes = PoolBlockBytes(Relations);
  size_t heads = offsetof(DEVICE_RELATIONS, Objects);
  if (bytes < heads || (bytes - heads) / sizeof(PDEVICE_OBJECT) < Relations->Count) {
    VerifierStop("pnp.bad-relations", Relations,
                 "the relations of type %d are no block that holds "
                 "them",
                 Type);
  }
  std::vector<PDEVICE_OBJECT> seen;
  for (ULONG i = 0; i < Relations->Count; ++i) {
    PDEVICE_OBJECT related = Relations->Objects[i];
    const char *wrong = Contains(seen, related)
                            ? "is named twice"
                            : WrongWith(related, Asked, Type, Contains(Known, related));
    if (wrong) {
      VerifierStop("pnp.bad-relations", Relations, "relations of type %d: device %p %s", Type,
                   static_cast<void *>(related), wrong);
    }
    seen.push_back(related);
  }
}

NTSTATUS PnpAskRelations(PDEVICE_OBJECT Device, DEVICE_RELATION_TYPE Type,
                         const std::vector<PDEVICE_OBJECT> &Known,
                         std::vector<PDEVICE_OBJECT> *Related) {
  auto fill = [](PIO_STACK_LOCATION Location, const void *Context) {
    Location->Parameters.QueryDeviceRelations.Type =
        *static_cast<const DEVICE_RELATION_TYPE *>(Context);
  };
  Related->clear();
  ULONG_PTR information = 0;
  NTSTATUS status = Send(Device, IRP_MN_QUERY_DEVICE_RELATIONS, fill, &Type, &information);
  if (!NT_SUCCESS(status) || information == 0) {
    return status;
  }
  auto *relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
  if (VerifierOn()) {
    CheckRelations(relations, Device, Type, Known);
  }
  Related->assign(relations->Objects, relations->Objects + relations->Count);
  ExFreePoolWithTag(relations, 0);
  return status;
}
