#include "controller/port_mode.h"

#include "controller/messages.h"
#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/trace.h"

constexpr ULONG FLAG_COMBINATIONS = 32;
constexpr UCHAR NO_STATE = 0;

struct ProxyStateTable {
  UCHAR State[FLAG_COMBINATIONS];
};

static constexpr ProxyStateTable MakeProxyStates() {
  ProxyStateTable table = {};
  table.State[0] = PROXY_OFF;
  table.State[PSF_ZK_OPEN] = PROXY_OFF;
  table.State[PSF_ZK_OPEN | PSF_NORMAL] = PROXY_FOR_ZK;
  table.State[PSF_ZK_OPEN | PSF_REDIRECT] = PROXY_OFF;
  table.State[PSF_CLIENT_OPEN] = PROXY_OFF;
  table.State[PSF_ZK_OPEN | PSF_CLIENT_OPEN] = PROXY_OFF;
  table.State[PSF_ZK_OPEN | PSF_CLIENT_OPEN | PSF_NORMAL] = PROXY_FOR_CLIENT;
  table.State[PSF_ZK_OPEN | PSF_CLIENT_OPEN | PSF_REDIRECT] = PROXY_OFF;
  table.State[PSF_ZK_OPEN | PSF_NORMAL | PSF_LOCKED] = PROXY_FOR_ZK;
  table.State[PSF_ZK_OPEN | PSF_CLIENT_OPEN | PSF_NORMAL | PSF_LOCKED] = PROXY_FOR_ZK;
  return table;
}

static constexpr ProxyStateTable ProxyStates = MakeProxyStates();

PCWSTR ModeName(ULONG Mode) {
  return Mode <= MODE_REDIRECT ? DriverWide.ModeNames[Mode] : L"ILLEGAL MODE";
}

static void TraceFlags(ULONG Code, PDEVICE_OBJECT Device, ULONG Flags, ULONG64 Argument3) {
  TraceEvent(TRACE_CLASS, Code, TracePointer(Device), Flags, Argument3);
}

static void LeaveProxyOff(PortExtension *Port, PDEVICE_OBJECT Device, ULONG Flags, ULONG State)
    REQUIRES(SerializerRole) {
  TraceFlags(TraceCode("PU01"), Device, Flags, 0);
  ProxyReadStop(&Port->Engine);
  StoreProxyState(Port, State);
  ProxyReadRestart(&Port->Engine);
}

static void LeaveActiveState(PortExtension *Port, PDEVICE_OBJECT Device, ULONG Flags, ULONG State)
    REQUIRES(SerializerRole) {
  TraceFlags(TraceCode("PU02"), Device, Flags, 0);
  ProxyReadStop(&Port->Engine);
  StoreProxyState(Port, State);
  if (State == PROXY_OFF) {
    TraceFlags(TraceCode("PU04"), Device, Flags, 0);
    ProxyReadDiscard(&Port->Engine, PROXY_ZK_CLASS);
    ProxyReadDiscard(&Port->Engine, PROXY_CLIENT_CLASS);
    return;
  }
  TraceFlags(TraceCode("PU03"), Device, Flags, State);
  ProxyReadRestart(&Port->Engine);
}

NTSTATUS SetPortFlags(PDEVICE_OBJECT Device, ULONG Flags) {
  PortExtension *port = PortOf(Device);
  TraceFlags(TraceCode("PU00"), Device, Flags, 0);
  ULONG state = ProxyStates.State[Flags % FLAG_COMBINATIONS];
  if (state == NO_STATE) {
    ReportPortEvent(DriverWide.DriverObject, Device, 0, 0, EVENT_BAD_STATE_FLAGS,
                    STATUS_UNSUCCESSFUL, port);
    return STATUS_UNSUCCESSFUL;
  }
  ULONG current = PortProxyState(port);
  if (state == current) {
    return STATUS_SUCCESS;
  }
  switch (current) {
  case PROXY_OFF:
    LeaveProxyOff(port, Device, Flags, state);
    return STATUS_SUCCESS;
  case PROXY_FOR_ZK:
  case PROXY_FOR_CLIENT:
    LeaveActiveState(port, Device, Flags, state);
    return STATUS_SUCCESS;
  default:
    return STATUS_UNSUCCESSFUL;
  }
}

NTSTATUS ApplyStateFlags(PortExtension *Port, PDEVICE_OBJECT Device, ULONG Flags) {
  StoreStateFlags(Port, Flags);
  return SetPortFlags(Device, Flags);
}

static NTSTATUS ChangeMode(PortExtension *Port, ULONG Mode, ULONG Set, ULONG Clear)
    REQUIRES(SerializerRole) {
  ULONG before = PortStateFlags(Port);
  NTSTATUS status = ApplyStateFlags(Port, Port->Header.Device, (before & ~Clear) | Set);
  if (status == STATUS_SUCCESS) {
    StoreMode(Port, Mode);
  } else {
    // The proxy state did not change either, so storing the word is enough.
    StoreStateFlags(Port, before);
  }
  return status;
}

NTSTATUS SetPortMode(PortExtension *Port, ULONG Mode) {
  NTSTATUS status;
  switch (Mode) {
  case MODE_IDLE:
    status = ChangeMode(Port, Mode, 0, PSF_NORMAL | PSF_REDIRECT);
    break;
  case MODE_NORMAL:
    status = ChangeMode(Port, Mode, PSF_NORMAL, PSF_REDIRECT);
    break;
  case MODE_REDIRECT:
    status = STATUS_NOT_SUPPORTED;
    break;
  default:
    status = STATUS_INVALID_PARAMETER;
    ReportPortEvent(DriverWide.DriverObject, Port->Header.Device, 0, 0, EVENT_BAD_MODE, status,
                    Port);
    break;
  }
  if (status != STATUS_SUCCESS) {
    SendZkMessage(Port->MessageDevice, MESSAGE_ERROR, L"Error setting mode of 0x%x status 0x%x",
                  Mode, status);
  }
  return status;
}
