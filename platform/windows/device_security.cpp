// IoCreateDeviceSecure for systems built without the kit's device-security library: the kernel's
// own export where there is one, otherwise a device whose descriptor is replaced before anybody can
// open it. One security string is known, the only one that the driver uses.
#include "platform/kernel.h"

extern "C" {
DECLSPEC_IMPORT NTSTATUS NTAPI ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes,
                                                     PACCESS_STATE PassedAccessState,
                                                     ACCESS_MASK DesiredAccess,
                                                     POBJECT_TYPE ObjectType,
                                                     KPROCESSOR_MODE AccessMode, PHANDLE Handle);
DECLSPEC_IMPORT NTSTATUS NTAPI ZwSetSecurityObject(HANDLE Handle,
                                                   SECURITY_INFORMATION SecurityInformation,
                                                   PSECURITY_DESCRIPTOR SecurityDescriptor);
}

typedef NTSTATUS(NTAPI *CreateDeviceSecure)(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                            PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                            ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                            PCUNICODE_STRING DefaultSDDLString,
                                            LPCGUID DeviceClassGuid, PDEVICE_OBJECT *DeviceObject);

// A self-relative security descriptor: the header, an access list of one entry, and the entry with
// the account it is for.
struct SystemOnlyDescriptor {
  UCHAR Revision;
  UCHAR Reserved;
  USHORT Control;
  ULONG OwnerOffset;
  ULONG GroupOffset;
  ULONG AuditListOffset;
  ULONG AccessListOffset;

  UCHAR ListRevision;
  UCHAR ListReserved;
  USHORT ListSize;
  USHORT EntryCount;
  USHORT ListReserved2;

  UCHAR EntryType;
  UCHAR EntryFlags;
  USHORT EntrySize;
  ACCESS_MASK EntryMask;

  UCHAR AccountRevision;
  UCHAR AccountPartCount;
  UCHAR AccountAuthority[6];
  ULONG AccountPart;
};
static_assert(offsetof(SystemOnlyDescriptor, ListRevision) == 20);
static_assert(offsetof(SystemOnlyDescriptor, EntryType) == 28);
static_assert(offsetof(SystemOnlyDescriptor, AccountRevision) == 36);
static_assert(sizeof(SystemOnlyDescriptor) == 48);

// "D:P(A;;GA;;;SY)": protected, generic all for S-1-5-18, nothing for anybody else.
static const SystemOnlyDescriptor systemOnly = {
    .Revision = 1,
    .Reserved = 0,
    .Control = 0x8000 | 0x1000 | 0x0004,  // self-relative, list protected, list present
    .OwnerOffset = 0,
    .GroupOffset = 0,
    .AuditListOffset = 0,
    .AccessListOffset = offsetof(SystemOnlyDescriptor, ListRevision),
    .ListRevision = 2,
    .ListReserved = 0,
    .ListSize = sizeof(SystemOnlyDescriptor) - offsetof(SystemOnlyDescriptor, ListRevision),
    .EntryCount = 1,
    .ListReserved2 = 0,
    .EntryType = 0,  // access allowed
    .EntryFlags = 0,
    .EntrySize = sizeof(SystemOnlyDescriptor) - offsetof(SystemOnlyDescriptor, EntryType),
    .EntryMask = GENERIC_ALL,
    .AccountRevision = 1,
    .AccountPartCount = 1,
    .AccountAuthority = {0, 0, 0, 0, 0, 5},
    .AccountPart = 18,
};

constexpr SECURITY_INFORMATION PROTECTED_ACCESS_LIST = 0x80000004;

static NTSTATUS ProtectDevice(PDEVICE_OBJECT DeviceObject) {
  HANDLE handle;
  NTSTATUS status = ObOpenObjectByPointer(DeviceObject, OBJ_KERNEL_HANDLE, nullptr, WRITE_DAC,
                                          nullptr, KernelMode, &handle);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  status = ZwSetSecurityObject(handle, PROTECTED_ACCESS_LIST,
                               const_cast<SystemOnlyDescriptor *>(&systemOnly));
  ZwClose(handle);
  return status;
}

static bool IsSystemOnly(PCUNICODE_STRING Sddl) {
  UNICODE_STRING known;
  RtlInitUnicodeString(&known, L"D:P(A;;GA;;;SY)");
  return Sddl != nullptr && RtlCompareUnicodeString(Sddl, &known, FALSE) == 0;
}

extern "C" NTSTATUS IoCreateDeviceSecure(PDRIVER_OBJECT DriverObject, ULONG DeviceExtensionSize,
                                         PUNICODE_STRING DeviceName, DEVICE_TYPE DeviceType,
                                         ULONG DeviceCharacteristics, BOOLEAN Exclusive,
                                         PCUNICODE_STRING DefaultSDDLString,
                                         LPCGUID DeviceClassGuid, PDEVICE_OBJECT *DeviceObject) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"IoCreateDeviceSecure");
  CreateDeviceSecure exported =
      reinterpret_cast<CreateDeviceSecure>(MmGetSystemRoutineAddress(&name));
  if (exported != nullptr) {
    return exported(DriverObject, DeviceExtensionSize, DeviceName, DeviceType,
                    DeviceCharacteristics, Exclusive, DefaultSDDLString, DeviceClassGuid,
                    DeviceObject);
  }
  if (!IsSystemOnly(DefaultSDDLString)) {
    return STATUS_INVALID_PARAMETER;
  }
  NTSTATUS status = IoCreateDevice(DriverObject, DeviceExtensionSize, DeviceName, DeviceType,
                                   DeviceCharacteristics, Exclusive, DeviceObject);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  // Nobody can open the device in between: it still carries DO_DEVICE_INITIALIZING.
  status = ProtectDevice(*DeviceObject);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(*DeviceObject);
    *DeviceObject = nullptr;
  }
  return status;
}
