#include "driver/entry.h"

#include "controller/frame_format.h"
#include "driver/dispatch.h"
#include "driver/event_log.h"
#include "driver/pool_tags.h"
#include "driver/trace.h"
#include "lifecycle/attach.h"
#include "lifecycle/auxiliary_device.h"

DriverVariables DriverWide;

using QueryRegistryValues = decltype(&RtlQueryRegistryValues);

// The newer routine checks the types of direct queries; a system without it has the older one.
INIT_CODE static QueryRegistryValues FindQueryRoutine() {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"RtlQueryRegistryValuesEx");
  PVOID routine = MmGetSystemRoutineAddress(&name);
  return routine != nullptr ? reinterpret_cast<QueryRegistryValues>(routine)
                            : &RtlQueryRegistryValues;
}

// Where a direct query puts a value, whoever wrote it: at most four bytes as they are; more only as
// far as the size allows that the first four bytes name, negative. Its low-order byte is 0, which
// says no break when nothing is put there.
struct QueriedValue {
  LONG Start;
  UCHAR Room[252];
};

INIT_CODE static NTSTATUS QueryBreakOnLoad(PCWSTR Path) {
  static WCHAR valueName[] = L"VORLIXBreakOnLoad";
  ULONG absent = 0;
  QueriedValue value = {};
  value.Start = -static_cast<LONG>(sizeof(value));
  RTL_QUERY_REGISTRY_TABLE table[2];
  RtlZeroMemory(table, sizeof(table));
  // Text would be stored as a counted string.
  table[0].Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TYPECHECK;
  table[0].Name = valueName;
  table[0].EntryContext = &value;
  table[0].DefaultType = REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT | REG_DWORD;
  table[0].DefaultData = &absent;
  table[0].DefaultLength = sizeof(absent);
  NTSTATUS status = FindQueryRoutine()(RTL_REGISTRY_ABSOLUTE | RTL_REGISTRY_OPTIONAL, Path, table,
                                       nullptr, nullptr);
  DriverWide.BreakOnLoad = static_cast<ULONG>(value.Start);
  return status;
}

INIT_CODE static void ReadDriverParameters(PUNICODE_STRING ServiceKey) {
  SIZE_T bytes = static_cast<SIZE_T>(ServiceKey->Length) + sizeof(WCHAR);
  auto *path = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, POOL_SERVICE_PATH));
  if (path == nullptr) {
    return;
  }
  RtlZeroMemory(path, bytes);
  RtlCopyMemory(path, ServiceKey->Buffer, ServiceKey->Length);
  if (!NT_SUCCESS(QueryBreakOnLoad(path))) {
    DriverWide.BreakOnLoad &= ~0xFFu;
  }
  ExFreePoolWithTag(path, POOL_SERVICE_PATH);
}

static void DriverUnload(PDRIVER_OBJECT DriverObject) {
  UNREFERENCED_PARAMETER(DriverObject);
  FreeRetiredAuxiliaryDevices();
  ReportEvent(DriverWide.DriverObject, nullptr, 0, 0, EVENT_DRIVER_UNLOADED, STATUS_SUCCESS,
              nullptr, 0);
  TraceFree();
}

extern "C" INIT_CODE NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject,
                                          PUNICODE_STRING RegistryPath) {
  RtlZeroMemory(&DriverWide, sizeof(DriverWide));
  DriverWide.DriverObject = DriverObject;
  ReportEvent(DriverObject, nullptr, 0, 0, EVENT_DRIVER_LOADED, STATUS_SUCCESS, nullptr, 0);
  InstallDispatchTable(DriverObject);
  DriverObject->DriverUnload = DriverUnload;
  DriverObject->DriverExtension->AddDevice = AddDevice;
  ReadDriverParameters(RegistryPath);
  if ((DriverWide.BreakOnLoad & 0xFF) != 0) {
    DbgBreakPoint();
  }
  DriverWide.ModeNames[MODE_INVALID] = L"INVALID";
  DriverWide.ModeNames[MODE_IDLE] = L"IDLE";
  DriverWide.ModeNames[MODE_NORMAL] = L"NORMAL";
  DriverWide.ModeNames[MODE_REDIRECT] = L"REDIRECT";
  TraceInit();
  return STATUS_SUCCESS;
}
