#include "driver/extension.h"

#include "controller/frame_format.h"

void InitializeHeader(ExtensionHeader *Header, PDEVICE_OBJECT Device, ULONG Kind, ULONG DebugLevel,
                      ULONG OpenState) {
  RtlZeroMemory(Header, sizeof(*Header));
  Header->Device = Device;
  Header->Kind = Kind;
  Header->DebugLevel = DebugLevel;
  Header->DevicePowerState = PowerDeviceD0;
  Header->OpenState = OpenState;
  Header->OpenRefs = 1;
  KeInitializeEvent(&Header->OpenDrainEvent, SynchronizationEvent, FALSE);
  InitializeListHead(&Header->PassThroughList);
}

void InitializePort(PortExtension *Port, PDEVICE_OBJECT FilterDevice,
                    PDEVICE_OBJECT PhysicalDevice) {
  RtlZeroMemory(Port, sizeof(*Port));
  InitializeHeader(&Port->Header, FilterDevice, KIND_FILTER, DEBUG_LEVEL_DEFAULT,
                   OPEN_STATE_CLOSED);
  Port->PowerRequestCount = 1;
  KeInitializeEvent(&Port->PowerEvent, SynchronizationEvent, FALSE);
  PipeInitialize(&Port->ClientPipe, PIPE_UNFRAMED, FilterDevice);
  PipeInitialize(&Port->ZkPipe, PIPE_FRAMED | PIPE_READER_SUCCESS, FilterDevice);
  ProxyReadPrepare(&Port->Engine, FilterDevice);
  Port->Mode = MODE_IDLE;
  KeInitializeSpinLock(&Port->ClientLock);
  InitializeListHead(&Port->ParkedRequests);
  KeInitializeSpinLock(&Port->PortLock);
  InitSerializer(&Port->Serializer, FilterDevice);
  Port->RequestCount = 1;
  KeInitializeEvent(&Port->IdleEvent, SynchronizationEvent, FALSE);
  KeInitializeSpinLock(&Port->AdmissionLock);
  InitializeListHead(&Port->PnpHoldList);
  Port->ProxyState = PROXY_OFF;
  Port->PhysicalDevice = PhysicalDevice;
}

void StoreLowerOpen(PortExtension *Port, PDEVICE_OBJECT Lower, PVOID Context) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  Port->LowerOpenDevice = Lower;
  Port->LowerOpenContext = Context;
  KeReleaseSpinLock(&Port->PortLock, irql);
}

PDEVICE_OBJECT LoadLowerOpen(PortExtension *Port, PVOID *Context) {
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  PDEVICE_OBJECT lower = Port->LowerOpenDevice;
  *Context = Port->LowerOpenContext;
  KeReleaseSpinLock(&Port->PortLock, irql);
  return lower;
}

PVOID LowerOpenContextFor(PortExtension *Port, PDEVICE_OBJECT Lower) {
  PVOID context = nullptr;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->PortLock);
  PDEVICE_OBJECT opened = Port->LowerOpenDevice;
  if (opened != nullptr && opened->DriverObject == Lower->DriverObject) {
    context = Port->LowerOpenContext;
  }
  KeReleaseSpinLock(&Port->PortLock, irql);
  return context;
}
