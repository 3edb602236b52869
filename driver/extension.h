// Device extensions. Every device of the driver begins its extension with the same header; the
// filter device's extension is the port extension, which holds everything of a port and which the
// control and auxiliary devices reach through the filter device.
//
// Fields marked "atomic" are read without the writer's lock, always through the kernel's
// acquire and release accessors. Fields that want the SerializerRole are written only by the
// routines below.
#pragma once

#include "client/serializer.h"
#include "pipes/call_down.h"
#include "pipes/pipe.h"
#include "pipes/proxy_read.h"
#include "platform/kernel.h"

enum : ULONG { KIND_FILTER = 0, KIND_CONTROL = 1, KIND_AUXILIARY = 2 };

// CLOSED -> OPEN (open granted or done below), OPEN -> CLOSED (close granted or done below).
// An auxiliary device starts in BYPASS, and becomes CLOSED once it is attached.
enum : ULONG { OPEN_STATE_OPEN = 0, OPEN_STATE_CLOSED = 1, OPEN_STATE_BYPASS = 2 };

// NEVER_STARTED -> STARTED (start), STARTED -> STOP_PENDING (stop query), STOP_PENDING -> STARTED
// (cancelled query) or STOPPED (stop), STOPPED -> STARTED (start).
enum : ULONG { PNP_NEVER_STARTED = 0, PNP_STARTED = 1, PNP_STOP_PENDING = 2, PNP_STOPPED = 3 };

// Admission flags; see requests.h.
enum : ULONG {
  ADMISSION_REMOVED = 0x1,
  ADMISSION_REMOVE_QUERIED = 0x2,
  ADMISSION_SURPRISE_REMOVED = 0x8,
  ADMISSION_RESTARTING = 0x10,  // parked requests go on; new ones wait behind them
  ADMISSION_GOING = ADMISSION_REMOVED | ADMISSION_SURPRISE_REMOVED,
};

// Port state flags; see controller/port_mode.h.
enum : ULONG {
  PSF_NORMAL = 1,
  PSF_REDIRECT = 2,
  PSF_ZK_OPEN = 4,
  PSF_CLIENT_OPEN = 8,
  PSF_LOCKED = 16,
};

enum : ULONG { PROXY_OFF = 1, PROXY_FOR_ZK = 2, PROXY_FOR_CLIENT = 3 };

constexpr ULONG DEBUG_LEVEL_DEFAULT = 0x80000000;
constexpr ULONG PACKET_DUMP_CLIENT_READ = 0x2;

struct ExtensionHeader {
  PDEVICE_OBJECT Device;
  ULONG Kind;        // KIND_..., never changes
  UCHAR Removed;     // atomic; filter: a removal came; power requests are refused from then on
  ULONG DebugLevel;  // read from the registry and copied; governs nothing yet
  ULONG DevicePowerState;  // atomic; last reported to the power manager
  ULONG OpenState;         // atomic; OPEN_STATE_...
  LONG OpenRefs;           // interlocked; one base reference and one an open
  KEVENT OpenDrainEvent;   // set when OpenRefs reaches 0
  LIST_ENTRY PassThroughList GUARDED_BY(CancelSpinLock);  // tracked requests that are down
  ULONG PacketDump;                                       // PACKET_DUMP_... bits
  ULONG PnpState;                                         // atomic; PNP_...
  PDEVICE_OBJECT LowerDevice;  // filter, auxiliary (there atomic): the device attached over
  LONG FilterHolds;       // control, auxiliary: interlocked; handles that keep the filter device
  PFILE_OBJECT OpenFile;  // atomic; whose open holds the device OPEN; to compare, never followed
  UCHAR CleanedUp;        // atomic; the handle's cleanup has begun to end the reads that wait
};

struct ControlExtension {
  ExtensionHeader Header;
  PDEVICE_OBJECT FilterDevice;
  UNICODE_STRING HardwareIds;  // multi-strings, ended by two NULs; a null buffer is none
  UNICODE_STRING CompatibleIds;
  UNICODE_STRING DeviceId;
};

struct AuxiliaryExtension {
  ExtensionHeader Header;
  PDEVICE_OBJECT FilterDevice;
  PDEVICE_OBJECT NextRetired;  // the device that was detached before this one
};
static_assert(offsetof(ControlExtension, FilterDevice) ==
              offsetof(AuxiliaryExtension, FilterDevice));

struct PortExtension {
  ExtensionHeader Header;
  UCHAR StartedOnce;         // atomic
  ULONG ReportControlChild;  // control devices to add to the bus relations: 0 or 1
  PDEVICE_OBJECT ControlDevice;
  ControlExtension *Control;
  LONG PowerRequestCount;  // interlocked, biased by 1
  KEVENT PowerEvent;
  UNICODE_STRING PortInterface;  // symbolic link names
  UNICODE_STRING ControlInterface;
  ULONG SystemWake;
  ULONG DeviceWake;
  Pipe ClientPipe;
  Pipe ZkPipe;
  ProxyReadEngine Engine;
  ULONG Mode;                // atomic; MODE_..., written as a serializer item
  ULONG MessageLevel;        // atomic; likewise
  UCHAR HoldClientRequests;  // atomic; written under ClientLock
  KSPIN_LOCK ClientLock ACQUIRED_BEFORE(CancelSpinLock);
  LIST_ENTRY ParkedRequests GUARDED_BY(CancelSpinLock);  // insertions and releases: ClientLock too
  KSPIN_LOCK PortLock;                                   // a leaf; taken inside the engine's lock
  LONG OpenCount;  // atomic; sides that have the port open; written as a serializer item
  PVOID LowerOpenContext GUARDED_BY(PortLock);  // FsContext of the open that went down
  FILE_OBJECT ProxyFileObject;
  ULONG UseAuxiliary;
  BOOLEAN AuxiliaryAutoDetect;
  PWSTR DosDeviceName;    // "\DosDevices\" and the port name
  PWSTR ControlLinkName;  // atomic; "\DosDevices\VORLIX_" and the port name; null once going
  PDEVICE_OBJECT ClientSideDevice GUARDED_BY(PortLock);
  PDEVICE_OBJECT MessageDevice;  // the control device; text messages are sent through it
  RequestSerializer Serializer;
  LONG RequestCount;  // interlocked, biased by 1
  KEVENT IdleEvent;
  ULONG AdmissionFlags;  // atomic; written under AdmissionLock
  KSPIN_LOCK AdmissionLock ACQUIRED_BEFORE(CancelSpinLock);
  LIST_ENTRY PnpHoldList GUARDED_BY(CancelSpinLock);
  ULONG ProxyState;  // atomic; PROXY_..., written as a serializer item
  ULONG StateFlags;  // atomic; PSF_..., likewise
  PDEVICE_OBJECT PhysicalDevice;
  CallDownQueue CallDown;
  ULONG ProxyReadLimit;  // bytes; 0 is no limit

  // The names while requests that loaded the pointers above may still use them.
  PWSTR RetiredDosDeviceName;
  PWSTR RetiredControlLinkName;
  BOOLEAN LinkMade;  // the control link was made by this port and is its to delete
  BOOLEAN Gone GUARDED_BY(AdmissionLock);  // the removal waits for the port to be idle, or has
  PIRP RestartedRequest GUARDED_BY(AdmissionLock);  // goes on now, and is not to wait again
  PVOID PowerLowerDevice;  // interlocked; the device below, referenced for power requests
  PDEVICE_OBJECT LowerOpenDevice GUARDED_BY(PortLock);  // where that open went; null: nowhere
};

inline ExtensionHeader *HeaderOf(PDEVICE_OBJECT Device) {
  return static_cast<ExtensionHeader *>(Device->DeviceExtension);
}

// The port of any of its devices.
inline PortExtension *PortOf(PDEVICE_OBJECT Device) {
  PVOID extension = Device->DeviceExtension;
  if (HeaderOf(Device)->Kind != KIND_FILTER) {
    extension = static_cast<ControlExtension *>(extension)->FilterDevice->DeviceExtension;
  }
  return static_cast<PortExtension *>(extension);
}

inline BOOLEAN IsZkSide(PDEVICE_OBJECT Device) {
  return static_cast<BOOLEAN>(HeaderOf(Device)->Kind == KIND_CONTROL);
}

inline BOOLEAN IsCleanedUp(PDEVICE_OBJECT Device) {
  return static_cast<BOOLEAN>(ReadUCharAcquire(&HeaderOf(Device)->CleanedUp) != 0);
}

// Where a request that goes down from Device goes to.
inline PDEVICE_OBJECT LowerDeviceOf(PDEVICE_OBJECT Device) {
  const ExtensionHeader *header = IsZkSide(Device) ? &PortOf(Device)->Header : HeaderOf(Device);
  return static_cast<PDEVICE_OBJECT>(
      ReadPointerAcquire(reinterpret_cast<PVOID const volatile *>(&header->LowerDevice)));
}

inline Pipe *PipeOfSide(PDEVICE_OBJECT Device) {
  PortExtension *port = PortOf(Device);
  return IsZkSide(Device) ? &port->ZkPipe : &port->ClientPipe;
}

// The open that stands for both sides: the device below that took it and what its driver left in
// the file object. Two drivers can get the first open, the port's or that of the device below the
// auxiliary one. IRQL <= DISPATCH_LEVEL, as all three.
void StoreLowerOpen(PortExtension *Port, PDEVICE_OBJECT Lower, PVOID Context);
PDEVICE_OBJECT LoadLowerOpen(PortExtension *Port, PVOID *Context);
// The context for a request that goes to Lower: null unless Lower's driver made it.
PVOID LowerOpenContextFor(PortExtension *Port, PDEVICE_OBJECT Lower);

// Fills a header that belongs to Device.
void InitializeHeader(ExtensionHeader *Header, PDEVICE_OBJECT Device, ULONG Kind, ULONG DebugLevel,
                      ULONG OpenState);

// Zeroes a filter device's extension and gives every field its first value.
void InitializePort(PortExtension *Port, PDEVICE_OBJECT FilterDevice,
                    PDEVICE_OBJECT PhysicalDevice);

// The control link name, or null once the port is going; the text stays until the port is idle.
inline PCWSTR PortLinkName(const PortExtension *Port) {
  return static_cast<PCWSTR>(
      ReadPointerAcquire(reinterpret_cast<PVOID const volatile *>(&Port->ControlLinkName)));
}

inline ULONG PortMode(const PortExtension *Port) {
  return ReadULongAcquire(&Port->Mode);
}
inline ULONG PortStateFlags(const PortExtension *Port) {
  return ReadULongAcquire(&Port->StateFlags);
}
inline ULONG PortProxyState(const PortExtension *Port) {
  return ReadULongAcquire(&Port->ProxyState);
}
inline ULONG PortMessageLevel(const PortExtension *Port) {
  return ReadULongAcquire(&Port->MessageLevel);
}
inline BOOLEAN PortHoldsClient(const PortExtension *Port) {
  return static_cast<BOOLEAN>(ReadUCharAcquire(&Port->HoldClientRequests) != 0);
}
inline BOOLEAN PortIsGoing(const PortExtension *Port) {
  return static_cast<BOOLEAN>((ReadULongAcquire(&Port->AdmissionFlags) & ADMISSION_GOING) != 0);
}

inline void StoreMode(PortExtension *Port, ULONG Mode) REQUIRES(SerializerRole) {
  WriteULongRelease(&Port->Mode, Mode);
}
inline void StoreStateFlags(PortExtension *Port, ULONG Flags) REQUIRES(SerializerRole) {
  WriteULongRelease(&Port->StateFlags, Flags);
}
inline void StoreProxyState(PortExtension *Port, ULONG State) REQUIRES(SerializerRole) {
  WriteULongRelease(&Port->ProxyState, State);
}
inline void StoreMessageLevel(PortExtension *Port, ULONG Level) REQUIRES(SerializerRole) {
  WriteULongRelease(&Port->MessageLevel, Level);
}
inline LONG AddToOpenCount(PortExtension *Port, LONG Change) REQUIRES(SerializerRole) {
  LONG count = Port->OpenCount + Change;
  WriteULongRelease(reinterpret_cast<volatile ULONG *>(&Port->OpenCount),
                    static_cast<ULONG>(count));
  return count;
}
