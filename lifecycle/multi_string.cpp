#include "lifecycle/multi_string.h"

#include "driver/pool_tags.h"

NTSTATUS BuildMultiString(PUNICODE_STRING Strings, const char *const *Texts) {
  RtlZeroMemory(Strings, sizeof(*Strings));
  ULONG bytes = 0;
  for (const char *const *text = Texts; *text != nullptr; ++text) {
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, *text);
    bytes += RtlxAnsiStringToUnicodeSize(&ansi);
  }
  if (bytes == 0) {
    return STATUS_SUCCESS;
  }
  bytes += sizeof(WCHAR);
  auto *buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, bytes, POOL_STRINGS));
  if (buffer == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(buffer, bytes);
  PWSTR position = buffer;
  for (const char *const *text = Texts; *text != nullptr; ++text) {
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, *text);
    UNICODE_STRING wide;
    wide.Length = 0;
    wide.MaximumLength = static_cast<USHORT>(RtlxAnsiStringToUnicodeSize(&ansi));
    wide.Buffer = position;
    NTSTATUS status = RtlAnsiStringToUnicodeString(&wide, &ansi, FALSE);
    if (!NT_SUCCESS(status)) {
      ExFreePoolWithTag(buffer, POOL_STRINGS);
      return status;
    }
    for (ULONG i = 0; i < wide.Length / sizeof(WCHAR); ++i) {
      if (position[i] == L',' || position[i] == L'\f') {
        position[i] = 0;
      }
    }
    position += wide.MaximumLength / sizeof(WCHAR);
  }
  Strings->Buffer = buffer;
  Strings->Length = static_cast<USHORT>(bytes);
  Strings->MaximumLength = static_cast<USHORT>(bytes);
  return STATUS_SUCCESS;
}
