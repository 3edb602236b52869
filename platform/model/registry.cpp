#include "platform/model/registry.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/model/area.h"
#include "platform/model/faults.h"
#include "platform/model/guard.h"
#include "platform/model/objects.h"
#include "platform/model/registry_keys.h"
#include "platform/model/text.h"
#include "platform/model/verifier.h"

static constexpr ULONG StringTag = 0x67747251;  // "Qrtg"
static constexpr ULONG NoDefault = 0;           // REG_NONE
static constexpr size_t FullNameOffset = offsetof(KEY_VALUE_FULL_INFORMATION, Name);

struct NamedValue {
  std::string Name;
  RegistryValue Value;
};
using RegistryKey = std::map<std::string, NamedValue>;  // by name in upper case

struct OpenedKey {
  std::shared_ptr<RegistryKey> Key;
  unsigned Objects;
};

// Guarded by RegistryMutex. Keys by path in upper case. A key that is removed while a handle is
// open stays for the handle.
static ModelMutex RegistryMutex;
static std::map<std::string, std::shared_ptr<RegistryKey>> Keys;
static std::map<RegistryKey *, OpenedKey> Opened;
static std::vector<std::string> HiddenRoutines;

struct KeyBody {
  RegistryKey *Key;
};

// ---- the control surface ----

RegistryValue RegistryDword(ULONG Value) {
  RegistryValue value;
  value.Type = REG_DWORD;
  value.Data.resize(sizeof Value);
  memcpy(value.Data.data(), &Value, sizeof Value);
  return value;
}

RegistryValue RegistryText(std::string_view Text, bool Terminated) {
  std::vector<WCHAR> wide = TextToWide(Text);
  if (Terminated) {
    wide.push_back(0);
  }
  RegistryValue value;
  value.Type = REG_SZ;
  value.Data.resize(wide.size() * sizeof(WCHAR));
  if (!wide.empty()) {
    memcpy(value.Data.data(), wide.data(), value.Data.size());
  }
  return value;
}

static std::shared_ptr<RegistryKey> &KeyAt(const std::string &Path) {
  std::shared_ptr<RegistryKey> &key = Keys[TextUpper(Path)];
  if (!key) {
    key = std::make_shared<RegistryKey>();
  }
  return key;
}

void RegistrySet(const std::string &Path, const std::string &Name, const RegistryValue &Value) {
  Guard guard(RegistryMutex);
  (*KeyAt(Path))[TextUpper(Name)] = {Name, Value};
}

void RegistryAddKey(const std::string &Path, const std::map<std::string, RegistryValue> &Values) {
  Guard guard(RegistryMutex);
  std::shared_ptr<RegistryKey> &key = KeyAt(Path);
  for (const auto &[name, value] : Values) {
    (*key)[TextUpper(name)] = {name, value};
  }
}

void RegistryRemoveKey(const std::string &Path) {
  Guard guard(RegistryMutex);
  Keys.erase(TextUpper(Path));
}

static void KeyGone(void *Body) {
  Guard guard(RegistryMutex);
  auto opened = Opened.find(static_cast<KeyBody *>(Body)->Key);
  if (--opened->second.Objects == 0) {
    Opened.erase(opened);
  }
}

NTSTATUS RegistryOpenKey(const std::string &Path, HANDLE *Key) {
  RegistryKey *key;
  {
    Guard guard(RegistryMutex);
    auto found = Keys.find(TextUpper(Path));
    if (found == Keys.end()) {
      return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    key = found->second.get();
    OpenedKey *opened = &Opened[key];
    opened->Key = found->second;
    ++opened->Objects;
  }
  KeyBody *body = static_cast<KeyBody *>(ObjectCreate(ObjectKind::Key, sizeof(KeyBody), KeyGone));
  body->Key = key;
  *Key = ObjectOpenHandle(body, nullptr);
  ObfDereferenceObject(body);
  return STATUS_SUCCESS;
}

// ---- one value ----

static void FillFull(const NamedValue &Value, const std::vector<WCHAR> &Name, void *Information,
                     ULONG Length) {
  size_t nameBytes = Name.size() * sizeof(WCHAR);
  size_t dataOffset = (FullNameOffset + nameBytes + 7) & ~static_cast<size_t>(7);
  KEY_VALUE_FULL_INFORMATION full = {};
  full.Type = Value.Value.Type;
  full.DataOffset = static_cast<ULONG>(dataOffset);
  full.DataLength = static_cast<ULONG>(Value.Value.Data.size());
  full.NameLength = static_cast<ULONG>(nameBytes);
  char *out = static_cast<char *>(Information);
  memcpy(out, &full, FullNameOffset);
  size_t nameRoom = std::min<size_t>(nameBytes, Length - FullNameOffset);
  if (nameRoom > 0) {
    memcpy(out + FullNameOffset, Name.data(), nameRoom);
  }
  if (Length > dataOffset && full.DataLength > 0) {
    size_t dataRoom = std::min<size_t>(full.DataLength, Length - dataOffset);
    memcpy(out + dataOffset, Value.Value.Data.data(), dataRoom);
  }
}

static const NamedValue *FindValue(const RegistryKey &Key, const std::string &Name) {
  auto found = Key.find(TextUpper(Name));
  return found == Key.end() ? nullptr : &found->second;
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                         PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
  VerifierRequireIrql(PASSIVE_LEVEL, "ZwQueryValueKey");
  if (FaultHere(FaultRegistry)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  KeyBody *body = static_cast<KeyBody *>(ObjectFromHandle(KeyHandle, ObjectKind::Key));
  if (!body) {
    if (VerifierOn()) {
      VerifierStop("handle.bad", nullptr, "ZwQueryValueKey: %p is no key's handle", KeyHandle);
    }
    return STATUS_INVALID_HANDLE;
  }
  if (KeyValueInformationClass != KeyValueFullInformation) {
    return STATUS_INVALID_PARAMETER;
  }
  Guard guard(RegistryMutex);
  const NamedValue *value = FindValue(*body->Key, TextFromString(ValueName));
  if (!value) {
    return STATUS_OBJECT_NAME_NOT_FOUND;
  }
  std::vector<WCHAR> name = TextToWide(value->Name);
  size_t dataOffset = (FullNameOffset + name.size() * sizeof(WCHAR) + 7) & ~static_cast<size_t>(7);
  size_t needed = dataOffset + value->Value.Data.size();
  *ResultLength = static_cast<ULONG>(needed);
  if (Length < FullNameOffset) {
    return STATUS_BUFFER_TOO_SMALL;
  }
  FillFull(*value, name, KeyValueInformation, Length);
  return Length < needed ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// ---- a table of values ----

static bool IsText(ULONG Type) {
  return Type == REG_SZ;
}

static NTSTATUS DeliverText(PUNICODE_STRING Destination, const void *Data, size_t Bytes) {
  const WCHAR *text = static_cast<const WCHAR *>(Data);
  size_t count = Bytes / sizeof(WCHAR);
  if (count > 0 && text[count - 1] == 0) {
    --count;
  }
  size_t needed = (count + 1) * sizeof(WCHAR);
  if (!Destination->Buffer) {
    Destination->Buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, needed, StringTag));
    if (!Destination->Buffer) {
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    Destination->MaximumLength = static_cast<USHORT>(needed);
  } else if (Destination->MaximumLength < needed) {
    return STATUS_BUFFER_TOO_SMALL;
  }
  memcpy(Destination->Buffer, text, count * sizeof(WCHAR));
  Destination->Buffer[count] = 0;
  Destination->Length = static_cast<USHORT>(count * sizeof(WCHAR));
  return STATUS_SUCCESS;
}

// Bytes that fit a ULONG are stored as they are. More need a buffer that says its size as a
// negative number in its first LONG; without that the size and the type go in front of the data.
static NTSTATUS DeliverBytes(void *Destination, ULONG Type, const void *Data, size_t Bytes) {
  if (Bytes == 0) {
    return STATUS_SUCCESS;
  }
  if (Bytes <= sizeof(ULONG)) {
    memcpy(Destination, Data, Bytes);
    return STATUS_SUCCESS;
  }
  LONG room;
  memcpy(&room, Destination, sizeof room);
  if (room < 0) {
    if (static_cast<size_t>(-static_cast<int64_t>(room)) < Bytes) {
      return STATUS_BUFFER_TOO_SMALL;
    }
    memcpy(Destination, Data, Bytes);
    return STATUS_SUCCESS;
  }
  ULONG head[2] = {static_cast<ULONG>(Bytes), Type};
  memcpy(Destination, head, sizeof head);
  memcpy(static_cast<char *>(Destination) + sizeof head, Data, Bytes);
  return STATUS_SUCCESS;
}

static NTSTATUS Deliver(const RTL_QUERY_REGISTRY_TABLE *Entry, ULONG Type, const void *Data,
                        size_t Bytes, PVOID Context) {
  if (!(Entry->Flags & RTL_QUERY_REGISTRY_DIRECT)) {
    return Entry->QueryRoutine(Entry->Name, Type, const_cast<void *>(Data),
                               static_cast<ULONG>(Bytes), Context, Entry->EntryContext);
  }
  if (IsText(Type)) {
    return DeliverText(static_cast<PUNICODE_STRING>(Entry->EntryContext), Data, Bytes);
  }
  return DeliverBytes(Entry->EntryContext, Type, Data, Bytes);
}

static size_t DefaultBytes(const RTL_QUERY_REGISTRY_TABLE *Entry) {
  if (Entry->DefaultLength || !IsText(Entry->DefaultType)) {
    return Entry->DefaultLength;
  }
  return (WideLength(static_cast<const WCHAR *>(Entry->DefaultData)) + 1) * sizeof(WCHAR);
}

static NTSTATUS QueryEntry(const RegistryKey *Key, const RTL_QUERY_REGISTRY_TABLE *Entry,
                           PVOID Context) {
  const NamedValue *value = nullptr;
  {
    Guard guard(RegistryMutex);
    if (Key) {
      value = FindValue(*Key, TextFromWide(Entry->Name, WideLength(Entry->Name)));
    }
  }
  bool checked = (Entry->Flags & RTL_QUERY_REGISTRY_TYPECHECK) != 0;
  ULONG expected = Entry->DefaultType >> RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
  if (value && checked && value->Value.Type != expected) {
    return STATUS_OBJECT_TYPE_MISMATCH;
  }
  if (value) {
    return Deliver(Entry, value->Value.Type, value->Value.Data.data(), value->Value.Data.size(),
                   Context);
  }
  if (Entry->DefaultType == NoDefault) {
    return STATUS_SUCCESS;
  }
  ULONG type = checked ? Entry->DefaultType & 0x00FFFFFF : Entry->DefaultType;
  return Deliver(Entry, type, Entry->DefaultData, DefaultBytes(Entry), Context);
}

// A path that does not exist is no error when it is optional: every value takes its default.
static NTSTATUS QueryTable(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE Table,
                           PVOID Context) {
  VerifierRequireIrql(PASSIVE_LEVEL, "RtlQueryRegistryValues");
  if (FaultHere(FaultRegistry)) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  if ((RelativeTo & ~RTL_REGISTRY_OPTIONAL) != RTL_REGISTRY_ABSOLUTE) {
    return STATUS_INVALID_PARAMETER;
  }
  std::shared_ptr<RegistryKey> key;
  {
    Guard guard(RegistryMutex);
    std::string path = TextFromWide(Path, WideLength(Path));
    auto found = Keys.find(TextUpper(path));
    if (found != Keys.end()) {
      key = found->second;
    }
  }
  if (!key && !(RelativeTo & RTL_REGISTRY_OPTIONAL)) {
    return STATUS_OBJECT_NAME_NOT_FOUND;
  }
  for (; Table->QueryRoutine || Table->Name; ++Table) {
    NTSTATUS status = QueryEntry(key.get(), Table, Context);
    if (!NT_SUCCESS(status)) {
      return status;
    }
  }
  return STATUS_SUCCESS;
}

NTSTATUS RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path,
                                PRTL_QUERY_REGISTRY_TABLE QueryTable_, PVOID Context,
                                PVOID Environment) {
  UNREFERENCED_PARAMETER(Environment);
  return QueryTable(RelativeTo, Path, QueryTable_, Context);
}

// ---- routines found by name ----

static NTSTATUS QueryRegistryValuesEx(ULONG RelativeTo, PCWSTR Path,
                                      PRTL_QUERY_REGISTRY_TABLE Table, PVOID Context,
                                      PVOID Environment) {
  UNREFERENCED_PARAMETER(Environment);
  return QueryTable(RelativeTo, Path, Table, Context);
}

PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName) {
  VerifierRequireIrql(PASSIVE_LEVEL, "MmGetSystemRoutineAddress");
  std::string name = TextFromString(SystemRoutineName);
  Guard guard(RegistryMutex);
  if (std::find(HiddenRoutines.begin(), HiddenRoutines.end(), name) != HiddenRoutines.end()) {
    return nullptr;
  }
  if (name == "RtlQueryRegistryValuesEx") {
    return reinterpret_cast<PVOID>(QueryRegistryValuesEx);
  }
  if (name == "RtlQueryRegistryValues") {
    return reinterpret_cast<PVOID>(RtlQueryRegistryValues);
  }
  return nullptr;
}

void SystemRoutineHide(const std::string &Name) {
  Guard guard(RegistryMutex);
  HiddenRoutines.push_back(Name);
}

// ---- the area ----

static void Clear() {
  Keys.clear();
  Opened.clear();
  HiddenRoutines.clear();
}

static void Nothing() {
}

extern const ModelArea RegistryArea = {Clear, Nothing, Clear};
