#include "lifecycle/port_interfaces.h"

#include "driver/extension.h"

static const GUID PortInterfaceClass = {
    0x2046FBBA, 0x7912, 0x40B2, {0xAD, 0xCB, 0x73, 0x16, 0x13, 0x4A, 0xEB, 0x5E}};
static const GUID ControlInterfaceClass = {
    0x57089BA1, 0x471C, 0x4885, {0x9A, 0xCC, 0x8E, 0x40, 0x7B, 0x33, 0xBD, 0xE5}};

NTSTATUS RegisterPortInterfaces(PortExtension *Port) {
  NTSTATUS status = IoRegisterDeviceInterface(Port->PhysicalDevice, &PortInterfaceClass, nullptr,
                                              &Port->PortInterface);
  if (NT_SUCCESS(status)) {
    status = IoRegisterDeviceInterface(Port->PhysicalDevice, &ControlInterfaceClass, nullptr,
                                       &Port->ControlInterface);
  }
  if (NT_SUCCESS(status)) {
    status = IoSetDeviceInterfaceState(&Port->PortInterface, TRUE);
  }
  return status;
}

void DisablePortInterface(PortExtension *Port) {
  IoSetDeviceInterfaceState(&Port->PortInterface, FALSE);
}

NTSTATUS EnableControlInterface(PortExtension *Port) {
  return IoSetDeviceInterfaceState(&Port->ControlInterface, TRUE);
}

void DisableControlInterface(PortExtension *Port) {
  if (Port->ControlInterface.Buffer != nullptr) {
    IoSetDeviceInterfaceState(&Port->ControlInterface, FALSE);
  }
}

static void FreeName(PUNICODE_STRING Name) {
  if (Name->Buffer != nullptr) {
    RtlFreeUnicodeString(Name);
  }
  RtlZeroMemory(Name, sizeof(*Name));
}

void FreePortInterfaces(PortExtension *Port) {
  FreeName(&Port->PortInterface);
  FreeName(&Port->ControlInterface);
}
