#include "lifecycle/device_name.h"

#include "driver/pool_tags.h"

constexpr ULONG NAME_BYTES = 514;

NTSTATUS MakeDeviceName(PCWSTR Prefix, LONG *Counter, PUNICODE_STRING Name) {
  auto *buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(PagedPool, NAME_BYTES, POOL_DEVICE_NAME));
  if (buffer == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  // "%s" is a wide string in the kernel's wide formatting.
  LONG number = InterlockedIncrement(Counter);
  NTSTATUS status = RtlStringCbPrintfW(buffer, NAME_BYTES, L"%s%d", Prefix, number);
  if (status != STATUS_SUCCESS) {
    ExFreePoolWithTag(buffer, POOL_DEVICE_NAME);
    return status;
  }
  RtlInitUnicodeString(Name, buffer);
  return STATUS_SUCCESS;
}

void FreeDeviceName(PUNICODE_STRING Name) {
  ExFreePoolWithTag(Name->Buffer, POOL_DEVICE_NAME);
}
