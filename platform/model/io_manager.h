// The I/O manager's control surface: drivers, names and packets that do not belong to a file.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/kernel.h"

// Loads a driver: makes its object "\Driver\Name", with every dispatch entry failing with
// STATUS_INVALID_DEVICE_REQUEST until the entry routine fills it, and calls Entry with the service
// key path "\Registry\Machine\System\CurrentControlSet\Services\Name". Returns null and the status
// when Entry fails. The driver stays until DriverUnload.
PDRIVER_OBJECT DriverLoad(const std::string &Name, PDRIVER_INITIALIZE Entry,
                          NTSTATUS *Status = nullptr);
// Calls the driver's unload routine; all its devices must be gone. Checks what the verifier checks
// at unload (pool, packets, MDLs, threads, links of that driver).
void DriverUnload(PDRIVER_OBJECT Driver);

// A name's device after following links, or null: "\Device\X", "\DosDevices\COM3", "\??\COM3".
PDEVICE_OBJECT NameLookup(const std::string &Name);
// Every link that exists, "name -> target", sorted.
std::vector<std::string> NameLinks();
uint64_t DeviceCount(PDRIVER_OBJECT Driver);
PDEVICE_OBJECT DeviceTop(PDEVICE_OBJECT Device);
// The interface links of a class that are enabled now.
std::vector<std::string> InterfacesEnabled(const GUID &Class);
uint64_t InterfaceStateChanges();

// Builds a packet for the top of Device's stack, lets Fill complete its first stack location, sends
// it, waits, and frees it. The status is the packet's. Used for requests without a file object.
// Information, when given, carries the packet's IoStatus.Information in and out; InitialStatus is
// what the packet carries when it is sent (STATUS_NOT_SUPPORTED for Plug and Play and power).
NTSTATUS SendPacket(PDEVICE_OBJECT Device, UCHAR Major, UCHAR Minor,
                    const std::function<void(PIO_STACK_LOCATION)> &Fill,
                    ULONG_PTR *Information = nullptr,
                    NTSTATUS InitialStatus = STATUS_NOT_SUPPORTED);

// Live packets and MDLs (model allocated or driver allocated).
uint64_t PacketCount();
uint64_t MdlCount();
