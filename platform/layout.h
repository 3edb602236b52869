// Sizes and offsets of the kernel's records on 64-bit systems, checked wherever the driver is
// built.
#pragma once

static_assert(sizeof(WCHAR) == 2 && sizeof(ULONG) == 4 && sizeof(PVOID) == 8);
static_assert(sizeof(KSPIN_LOCK) == 8 && sizeof(KEVENT) == 24 && sizeof(KSEMAPHORE) == 32);
static_assert(sizeof(LIST_ENTRY) == 16 && sizeof(UNICODE_STRING) == 16);
static_assert(sizeof(IRP) == 208 && offsetof(IRP, MdlAddress) == 8);
static_assert(offsetof(IRP, IoStatus) == 0x30 && offsetof(IRP, Cancel) == 0x44);
static_assert(offsetof(IRP, CancelRoutine) == 0x68 && offsetof(IRP, Tail) == 0x78);
static_assert(offsetof(IRP, Tail.Overlay.ListEntry) == 0xA8);
static_assert(offsetof(IRP, Tail.Overlay.CurrentStackLocation) == 0xB8);
static_assert(sizeof(IO_STACK_LOCATION) == 72);
static_assert(offsetof(IO_STACK_LOCATION, Parameters) == 8);
static_assert(offsetof(IO_STACK_LOCATION, DeviceObject) == 0x28);
static_assert(offsetof(IO_STACK_LOCATION, CompletionRoutine) == 0x38);
static_assert(offsetof(DEVICE_OBJECT, AttachedDevice) == 0x18);
static_assert(offsetof(DEVICE_OBJECT, Flags) == 0x30);
static_assert(offsetof(DEVICE_OBJECT, DeviceExtension) == 0x40);
static_assert(offsetof(DEVICE_OBJECT, StackSize) == 0x4C);
static_assert(sizeof(DRIVER_OBJECT) == 336 && offsetof(DRIVER_OBJECT, MajorFunction) == 0x70);
static_assert(sizeof(FILE_OBJECT) == 216 && offsetof(FILE_OBJECT, FsContext) == 0x18);
static_assert(sizeof(MDL) == 48 && offsetof(MDL, MappedSystemVa) == 24);
static_assert(sizeof(IO_ERROR_LOG_PACKET) == 48 && offsetof(IO_ERROR_LOG_PACKET, DumpData) == 40);
static_assert(sizeof(DEVICE_CAPABILITIES) == 64 && sizeof(DEVICE_RELATIONS) == 16);
static_assert(sizeof(PNP_BUS_INFORMATION) == 24);
