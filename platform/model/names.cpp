#include "platform/model/names.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <map>

#include "platform/model/causality.h"
#include "platform/model/devices.h"
#include "platform/model/faults.h"
#include "platform/model/io_manager.h"
#include "platform/model/objects.h"
#include "platform/model/text.h"
#include "platform/model/verifier.h"

static constexpr unsigned MostHops = 16;
static constexpr size_t MostGone = 1024;
static constexpr ULONG InterfaceTag = 0x69446f49;  // "IoDi"

struct NamedThing {
  std::string Name;       // as it was given
  PDEVICE_OBJECT Device;  // null for a link, or once the link is gone
  std::string Target;     // of a link
  bool Gone;              // a link that was deleted, kept to tell a second deletion
};

struct DeviceInterface {
  DeviceInterface *Next;  // of the same device
  std::string Link;
  std::string Reference;
  GUID Class;
  PDEVICE_OBJECT Device;
  bool Enabled;
};

// Guarded by DeviceMutex. Devices and links by their names in upper case, with one spelling for
// the directory of DOS names.
static std::map<std::string, NamedThing> Names;
static std::map<std::string, DeviceInterface> Interfaces;
static std::deque<std::string> GoneKeys;  // oldest first; some have come back since
static uint64_t InterfaceNumber;
static uint64_t StateChanges;

static std::string KeyOf(const std::string &Name) {
  static const char dosDevices[] = "\\DOSDEVICES\\";
  std::string key = TextUpper(Name);
  if (key.compare(0, sizeof dosDevices - 1, dosDevices) == 0) {
    key.replace(0, sizeof dosDevices - 1, "\\??\\");
  }
  return key;
}

static NamedThing *Find(const std::string &Key) {
  auto found = Names.find(Key);
  return found == Names.end() || found->second.Gone ? nullptr : &found->second;
}

bool NameTaken(const std::string &Name) {
  return Find(KeyOf(Name)) != nullptr;
}

void NameAddDevice(const std::string &Name, PDEVICE_OBJECT Device) {
  auto at = Names.insert_or_assign(KeyOf(Name), NamedThing{Name, Device, {}, false}).first;
  DeviceShadowOf(Device)->Name = &at->first;
}

void NameRemoveDevice(PDEVICE_OBJECT Device) {
  const std::string *&key = DeviceShadowOf(Device)->Name;
  if (key) {
    Names.erase(Names.find(*key));
    key = nullptr;
  }
}

void NameForgetDevice(PDEVICE_OBJECT Device) {
  NameRemoveDevice(Device);
  DeviceInterface *next;
  for (DeviceInterface *at = DeviceShadowOf(Device)->Interfaces; at; at = next) {
    next = at->Next;
    if (at->Enabled) {
      VerifierWarn("interface.left-enabled");
    }
    Interfaces.erase(KeyOf(at->Link));
  }
}

// A link that is gone is remembered for long, but not for ever.
static void RememberGone(const std::string &Key) {
  GoneKeys.push_back(Key);
  if (GoneKeys.size() > MostGone) {
    auto oldest = Names.find(GoneKeys.front());
    if (oldest != Names.end() && oldest->second.Gone) {
      Names.erase(oldest);
    }
    GoneKeys.pop_front();
  }
}

static PDEVICE_OBJECT Resolve(const std::string &Name) {
  std::string key = KeyOf(Name);
  for (unsigned hop = 0; hop < MostHops; ++hop) {
    auto interface = Interfaces.find(key);
    if (interface != Interfaces.end()) {
      return interface->second.Enabled ? interface->second.Device : nullptr;
    }
    NamedThing *thing = Find(key);
    if (!thing || thing->Device) {
      return thing ? thing->Device : nullptr;
    }
    key = KeyOf(thing->Target);
  }
  return nullptr;
}

PDEVICE_OBJECT NameLookup(const std::string &Name) {
  SharedGuard guard(DeviceMutex, Access::Read);
  return Resolve(Name);
}

PDEVICE_OBJECT NameReference(const std::string &Name) {
  PDEVICE_OBJECT device;
  {
    SharedGuard guard(DeviceMutex, Access::Read);
    device = Resolve(Name);
    if (device) {
      ObfReferenceObject(device);
    }
  }
  SyncAcquire(&Names);
  return device;
}

std::vector<std::string> NameLinks() {
  std::vector<std::string> links;
  SharedGuard guard(DeviceMutex, Access::Read);
  for (const auto &[key, thing] : Names) {
    if (!thing.Device && !thing.Gone) {
      links.push_back(thing.Name + " -> " + thing.Target);
    }
  }
  std::sort(links.begin(), links.end());
  return links;
}

// ---- links ----

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
  VerifierRequireIrql(PASSIVE_LEVEL, "IoCreateSymbolicLink");
  if (FaultHere(FaultLink)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  std::string name = TextFromString(SymbolicLinkName);
  if (name.empty() || name[0] != '\\') {
    return STATUS_OBJECT_NAME_INVALID;
  }
  SyncRelease(&Names);
  SharedGuard guard(DeviceMutex, Access::Write);
  std::string key = KeyOf(name);
  if (Find(key)) {
    return STATUS_OBJECT_NAME_COLLISION;
  }
  Names[key] = {name, nullptr, TextFromString(DeviceName), false};
  return STATUS_SUCCESS;
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
  VerifierRequireIrql(PASSIVE_LEVEL, "IoDeleteSymbolicLink");
  std::string name = TextFromString(SymbolicLinkName);
  SharedGuard guard(DeviceMutex, Access::Write);
  auto found = Names.find(KeyOf(name));
  if (found == Names.end()) {
    return STATUS_OBJECT_NAME_NOT_FOUND;
  }
  if (found->second.Device) {
    return STATUS_OBJECT_TYPE_MISMATCH;
  }
  if (found->second.Gone) {
    if (VerifierOn()) {
      VerifierStop("link.deleted-twice", nullptr, "IoDeleteSymbolicLink: \"%s\" was deleted",
                   name.c_str());
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
  }
  found->second.Gone = true;
  RememberGone(found->first);
  return STATUS_SUCCESS;
}

// ---- interfaces ----

static std::string GuidText(const GUID &Guid) {
  char text[40];
  snprintf(text, sizeof text, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", Guid.Data1,
           Guid.Data2, Guid.Data3, Guid.Data4[0], Guid.Data4[1], Guid.Data4[2], Guid.Data4[3],
           Guid.Data4[4], Guid.Data4[5], Guid.Data4[6], Guid.Data4[7]);
  return text;
}

static bool SameGuid(const GUID &One, const GUID &Other) {
  return __builtin_memcmp(&One, &Other, sizeof(GUID)) == 0;
}

// Under DeviceMutex: the name of the interface, and whether it was there already.
static std::string AddInterface(PDEVICE_OBJECT Device, const GUID &Class,
                                const std::string &Reference, bool *Existed) {
  DeviceInterface *&first = DeviceShadowOf(Device)->Interfaces;
  for (const DeviceInterface *known = first; known; known = known->Next) {
    if (SameGuid(known->Class, Class) && known->Reference == Reference) {
      *Existed = true;
      return known->Link;
    }
  }
  *Existed = false;
  std::string link = "\\??\\MODEL#" + std::to_string(InterfaceNumber++) + "#" + GuidText(Class);
  if (!Reference.empty()) {
    link += "\\" + Reference;
  }
  DeviceInterface *added = &Interfaces[KeyOf(link)];
  *added = {first, link, Reference, Class, Device, false};
  first = added;
  return link;
}

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject,
                                   const GUID *InterfaceClassGuid, PUNICODE_STRING ReferenceString,
                                   PUNICODE_STRING SymbolicLinkName) {
  VerifierRequireIrql(PASSIVE_LEVEL, "IoRegisterDeviceInterface");
  if (FaultHere(FaultInterface)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  // Only a device that a bus has reported has a place in the registry for its interfaces.
  if (!(PhysicalDeviceObject->Flags & DO_BUS_ENUMERATED_DEVICE)) {
    return STATUS_INVALID_DEVICE_REQUEST;
  }
  std::string reference =
      ReferenceString && ReferenceString->Length ? TextFromString(ReferenceString) : std::string();
  std::string link;
  bool existed;
  {
    SharedGuard guard(DeviceMutex, Access::Write);
    link = AddInterface(PhysicalDeviceObject, *InterfaceClassGuid, reference, &existed);
  }
  std::vector<WCHAR> wide = TextToWide(link);
  wide.push_back(0);
  USHORT bytes = static_cast<USHORT>(wide.size() * sizeof(WCHAR));
  PVOID buffer = ExAllocatePoolWithTag(PagedPool, bytes, InterfaceTag);
  if (!buffer) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlCopyMemory(buffer, wide.data(), bytes);
  SymbolicLinkName->Buffer = static_cast<PWSTR>(buffer);
  SymbolicLinkName->MaximumLength = bytes;
  SymbolicLinkName->Length = static_cast<USHORT>(bytes - sizeof(WCHAR));
  return existed ? STATUS_OBJECT_NAME_EXISTS : STATUS_SUCCESS;
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable) {
  VerifierRequireIrql(PASSIVE_LEVEL, "IoSetDeviceInterfaceState");
  if (FaultHere(FaultInterface)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  std::string key = KeyOf(TextFromString(SymbolicLinkName));
  bool enable = Enable != FALSE;
  SyncRelease(&Names);
  SharedGuard guard(DeviceMutex, Access::Write);
  auto found = Interfaces.find(key);
  if (found == Interfaces.end()) {
    return STATUS_OBJECT_NAME_NOT_FOUND;
  }
  if (found->second.Enabled == enable) {
    VerifierWarn(enable ? "interface.enabled-twice" : "interface.disabled-twice");
    return enable ? STATUS_OBJECT_NAME_EXISTS : STATUS_OBJECT_NAME_NOT_FOUND;
  }
  found->second.Enabled = enable;
  ++StateChanges;
  return STATUS_SUCCESS;
}

std::vector<std::string> InterfacesEnabled(const GUID &Class) {
  std::vector<std::string> links;
  SharedGuard guard(DeviceMutex, Access::Read);
  for (const auto &[key, known] : Interfaces) {
    if (known.Enabled && SameGuid(known.Class, Class)) {
      links.push_back(known.Link);
    }
  }
  return links;
}

uint64_t InterfaceStateChanges() {
  SharedGuard guard(DeviceMutex, Access::Read);
  return StateChanges;
}

// ---- the area ----

void NamesBoot() {
  Names.clear();
  GoneKeys.clear();
  Interfaces.clear();
  InterfaceNumber = 0;
  StateChanges = 0;
}

void NamesCheck() {
  for (const auto &[key, thing] : Names) {
    if (!thing.Device && !thing.Gone) {
      VerifierStop("leak.link", nullptr, "the symbolic link \"%s\" is left", thing.Name.c_str());
    }
  }
}
