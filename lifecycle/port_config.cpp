#include "lifecycle/port_config.h"

#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/text_length.h"

constexpr ULONG PORT_NAME_BYTES = 512;
constexpr ULONG PORT_NAME_BUFFER_BYTES = PORT_NAME_BYTES + sizeof(WCHAR);
constexpr ULONG PROXY_READ_LIMIT_DEFAULT = 1024;

// The fixed part of the full information, rounded up to the alignment of the data behind the name.
constexpr ULONG VALUE_INFORMATION_BYTES = 24;

static const WCHAR ControlLinkPrefix[] = L"\\DosDevices\\VORLIX_";
static const WCHAR DosNamePrefix[] = L"\\DosDevices\\";

// Data larger than the destination that still fits the query buffer is left uncopied, and the query
// counts as a success all the same; the type plays no part.
static NTSTATUS ReadRegistryValue(HANDLE Key, PCWSTR Name, ULONG NameBytes, PVOID Destination,
                                  ULONG DestinationBytes) {
  ULONG bytes = DestinationBytes + VALUE_INFORMATION_BYTES + NameBytes;
  auto *value = static_cast<PKEY_VALUE_FULL_INFORMATION>(
      ExAllocatePoolWithTag(PagedPool, bytes, POOL_REGISTRY_VALUE));
  if (value == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, Name);
  ULONG needed;
  NTSTATUS status = ZwQueryValueKey(Key, &name, KeyValueFullInformation, value, bytes, &needed);
  if (NT_SUCCESS(status) && value->DataLength <= DestinationBytes) {
    RtlCopyMemory(Destination, reinterpret_cast<PUCHAR>(value) + value->DataOffset,
                  value->DataLength);
  }
  ExFreePoolWithTag(value, POOL_REGISTRY_VALUE);
  return status;
}

static void ReadSwitches(HANDLE Key, PortExtension *Port) {
  static const WCHAR debugLevel[] = L"VORLIXDebugLevel";
  static const WCHAR packetDump[] = L"VORLIXPacketDump";
  static const WCHAR useAuxiliary[] = L"VORLIXUseEdo";
  static const WCHAR proxyReadLimit[] = L"VORLIXProxyReadLimit";

  // Unreadable is the same as absent here: the level keeps its default.
  ReadRegistryValue(Key, debugLevel, sizeof(debugLevel), &Port->Header.DebugLevel,
                    sizeof(Port->Header.DebugLevel));
  ReadRegistryValue(Key, packetDump, sizeof(packetDump), &Port->Header.PacketDump,
                    sizeof(Port->Header.PacketDump));
  if (!NT_SUCCESS(ReadRegistryValue(Key, useAuxiliary, sizeof(useAuxiliary), &Port->UseAuxiliary,
                                    sizeof(Port->UseAuxiliary)))) {
    Port->AuxiliaryAutoDetect = TRUE;
  }
  // Only an absent value gives the default; one that cannot be read means no limit.
  if (ReadRegistryValue(Key, proxyReadLimit, sizeof(proxyReadLimit), &Port->ProxyReadLimit,
                        sizeof(Port->ProxyReadLimit)) == STATUS_OBJECT_NAME_NOT_FOUND) {
    Port->ProxyReadLimit = PROXY_READ_LIMIT_DEFAULT;
  }
}

// On success *Name is the caller's to free, under the tag.
static NTSTATUS BuildPrefixedName(PCWSTR Prefix, SIZE_T PrefixBytes, PCWSTR Suffix,
                                  SIZE_T SuffixBytes, POOL_TYPE PoolType, ULONG PoolTag,
                                  PWSTR *Name) {
  *Name = nullptr;
  SIZE_T prefixLength;
  SIZE_T suffixLength;
  NTSTATUS status = TextLength(Prefix, PrefixBytes, &prefixLength);
  if (NT_SUCCESS(status)) {
    status = TextLength(Suffix, SuffixBytes, &suffixLength);
  }
  if (!NT_SUCCESS(status)) {
    return status;
  }
  SIZE_T bytes = prefixLength + suffixLength + sizeof(WCHAR);
  auto *name = static_cast<PWSTR>(ExAllocatePoolWithTag(PoolType, bytes, PoolTag));
  if (name == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(name, bytes);
  status = RtlStringCbCopyW(name, bytes, Prefix);
  if (NT_SUCCESS(status)) {
    status = RtlStringCbCatW(name, bytes, Suffix);
  }
  if (!NT_SUCCESS(status)) {
    ExFreePoolWithTag(name, PoolTag);
    return status;
  }
  *Name = name;
  return STATUS_SUCCESS;
}

// The control link name is used at DISPATCH_LEVEL too, by messages and port events.
static NTSTATUS BuildNames(PCWSTR PortName, PortExtension *Port) {
  NTSTATUS status = BuildPrefixedName(ControlLinkPrefix, sizeof(ControlLinkPrefix), PortName,
                                      PORT_NAME_BUFFER_BYTES, NonPagedPoolNx, POOL_CONTROL_LINK,
                                      &Port->ControlLinkName);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = BuildPrefixedName(DosNamePrefix, sizeof(DosNamePrefix), PortName, PORT_NAME_BUFFER_BYTES,
                             PagedPool, POOL_DOS_NAME, &Port->DosDeviceName);
  if (!NT_SUCCESS(status)) {
    ExFreePoolWithTag(Port->ControlLinkName, POOL_CONTROL_LINK);
    Port->ControlLinkName = nullptr;
  }
  return status;
}

static NTSTATUS ReadNames(PDRIVER_OBJECT DriverObject, HANDLE Key, PortExtension *Port) {
  static const WCHAR valueName[] = L"PortName";
  auto *name =
      static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, PORT_NAME_BUFFER_BYTES, POOL_PORT_NAME));
  if (name == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  // Only a terminator that was read may end the name.
  RtlFillMemory(name, PORT_NAME_BUFFER_BYTES, 0xFF);
  NTSTATUS status = ReadRegistryValue(Key, valueName, sizeof(valueName), name, PORT_NAME_BYTES);
  if (status != STATUS_SUCCESS) {
    ReportEvent(DriverObject, nullptr, 0, 0, EVENT_NO_PORT_NAME, status, nullptr, 0);
  } else {
    status = BuildNames(name, Port);
  }
  ExFreePoolWithTag(name, POOL_PORT_NAME);
  return status;
}

NTSTATUS ReadPortConfiguration(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDevice,
                               PortExtension *Port) {
  HANDLE key;
  NTSTATUS status =
      IoOpenDeviceRegistryKey(PhysicalDevice, PLUGPLAY_REGKEY_DEVICE, READ_CONTROL, &key);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  ReadSwitches(key, Port);
  status = ReadNames(DriverObject, key, Port);
  ZwClose(key);
  return status;
}

void FreeRetiredNames(PortExtension *Port) {
  if (Port->RetiredControlLinkName != nullptr) {
    ExFreePoolWithTag(Port->RetiredControlLinkName, POOL_CONTROL_LINK);
    Port->RetiredControlLinkName = nullptr;
  }
  if (Port->RetiredDosDeviceName != nullptr) {
    ExFreePoolWithTag(Port->RetiredDosDeviceName, POOL_DOS_NAME);
    Port->RetiredDosDeviceName = nullptr;
  }
}
