#include "driver/event_log.h"

#include "driver/extension.h"
#include "driver/text_length.h"

constexpr ULONG ENTRY_BYTES = sizeof(IO_ERROR_LOG_PACKET);
constexpr USHORT STRING_OFFSET = offsetof(IO_ERROR_LOG_PACKET, DumpData);
constexpr SIZE_T NAME_BYTES_MAX = SIZE_T{0x7FFFFFFF} * sizeof(WCHAR);

void ReportEvent(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Device, UCHAR MajorFunction,
                 ULONG UniqueValue, ULONG EventCode, NTSTATUS FinalStatus, PCWSTR String,
                 ULONG StringBytes) {
  ULONG size = ENTRY_BYTES + StringBytes;
  // The second test catches a string so long that the sum wrapped round.
  if (size > ERROR_LOG_MAXIMUM_SIZE || size < StringBytes) {
    return;
  }
  PVOID object = Device != nullptr ? static_cast<PVOID>(Device) : static_cast<PVOID>(DriverObject);
  auto *entry =
      static_cast<PIO_ERROR_LOG_PACKET>(IoAllocateErrorLogEntry(object, static_cast<UCHAR>(size)));
  if (entry == nullptr) {
    return;
  }
  RtlZeroMemory(entry, ENTRY_BYTES);
  entry->MajorFunctionCode = MajorFunction;
  entry->ErrorCode = static_cast<NTSTATUS>(EventCode);
  entry->UniqueErrorValue = UniqueValue;
  entry->FinalStatus = FinalStatus;
  if (StringBytes != 0) {
    entry->NumberOfStrings = 1;
    entry->StringOffset = STRING_OFFSET;
    RtlCopyMemory(reinterpret_cast<PUCHAR>(entry) + STRING_OFFSET, String, StringBytes);
  }
  IoWriteErrorLogEntry(entry);
}

void ReportPortEvent(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Device, UCHAR MajorFunction,
                     ULONG UniqueValue, ULONG EventCode, NTSTATUS FinalStatus,
                     const PortExtension *Port) {
  PCWSTR name = PortLinkName(Port);
  ULONG bytes = 0;
  SIZE_T length;
  // No name has no length.
  if (NT_SUCCESS(TextLength(name, NAME_BYTES_MAX, &length))) {
    bytes = static_cast<ULONG>(length + sizeof(WCHAR));
  }
  ReportEvent(DriverObject, Device, MajorFunction, UniqueValue, EventCode, FinalStatus, name,
              bytes);
}
