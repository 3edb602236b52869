#include <sys/ioctl.h>

#include <cerrno>

#include "host/serial_port.h"

// A control's routine. The buffer holds the input, and the answer afterwards; both lengths were
// checked.
struct SerialControl {
  ULONG Code;
  ULONG InputBytes;
  ULONG OutputBytes;
  NTSTATUS (*Routine)(SerialPort *Port, PVOID Buffer);
};

static NTSTATUS ErrnoStatus(int Error) {
  switch (Error) {
  case 0:
    return STATUS_SUCCESS;
  case EIO:
    return STATUS_DEVICE_NOT_CONNECTED;
  default:
    return STATUS_NOT_SUPPORTED;  // a tty without what was asked for
  }
}

// Applies new settings and remembers them when the tty took them.
static NTSTATUS ApplyLine(SerialPort *Port, const LineSettings &Line) {
  NTSTATUS status = ErrnoStatus(LineApply(Port->Fd, Line));
  if (NT_SUCCESS(status)) {
    Port->Line = Line;
  }
  return status;
}

static NTSTATUS SetBaudRate(SerialPort *Port, PVOID Buffer) {
  LineSettings line = Port->Line;
  line.Speed = static_cast<SERIAL_BAUD_RATE *>(Buffer)->BaudRate;
  return line.Speed == 0 ? STATUS_INVALID_PARAMETER : ApplyLine(Port, line);
}

static NTSTATUS GetBaudRate(SerialPort *Port, PVOID Buffer) {
  static_cast<SERIAL_BAUD_RATE *>(Buffer)->BaudRate = Port->Line.Speed;
  return STATUS_SUCCESS;
}

static NTSTATUS SetLineControl(SerialPort *Port, PVOID Buffer) {
  auto *control = static_cast<SERIAL_LINE_CONTROL *>(Buffer);
  bool lengths = control->WordLength >= 5 && control->WordLength <= 8;
  // Two stop bits on a line of five-bit words are one and a half.
  bool stops = control->StopBits == STOP_BIT_1 ||
               (control->StopBits == STOP_BITS_1_5 && control->WordLength == 5) ||
               (control->StopBits == STOP_BITS_2 && control->WordLength != 5);
  if (!lengths || !stops || control->Parity > PARITY_SPACE) {
    return STATUS_INVALID_PARAMETER;
  }
  LineSettings line = Port->Line;
  line.WordLength = control->WordLength;
  line.Parity = control->Parity;
  line.StopBits = control->StopBits;
  return ApplyLine(Port, line);
}

static NTSTATUS GetLineControl(SerialPort *Port, PVOID Buffer) {
  *static_cast<SERIAL_LINE_CONTROL *>(Buffer) = {Port->Line.StopBits, Port->Line.Parity,
                                                 Port->Line.WordLength};
  return STATUS_SUCCESS;
}

static NTSTATUS SetTimeouts(SerialPort *Port, PVOID Buffer) {
  Port->Timeouts = *static_cast<SERIAL_TIMEOUTS *>(Buffer);
  return STATUS_SUCCESS;
}

static NTSTATUS GetTimeouts(SerialPort *Port, PVOID Buffer) {
  *static_cast<SERIAL_TIMEOUTS *>(Buffer) = Port->Timeouts;
  return STATUS_SUCCESS;
}

static NTSTATUS SetHandFlow(SerialPort *Port, PVOID Buffer) {
  auto *flow = static_cast<SERIAL_HANDFLOW *>(Buffer);
  LineSettings line = Port->Line;
  line.HardwareFlow = (flow->ControlHandShake & SERIAL_CTS_HANDSHAKE) ||
                      (flow->FlowReplace & SERIAL_RTS_HANDSHAKE) == SERIAL_RTS_HANDSHAKE;
  line.XonOut = flow->FlowReplace & SERIAL_AUTO_TRANSMIT;
  line.XonIn = flow->FlowReplace & SERIAL_AUTO_RECEIVE;
  NTSTATUS status = ApplyLine(Port, line);
  if (NT_SUCCESS(status)) {
    Port->HandFlow = *flow;
  }
  return status;
}

static NTSTATUS GetHandFlow(SerialPort *Port, PVOID Buffer) {
  *static_cast<SERIAL_HANDFLOW *>(Buffer) = Port->HandFlow;
  return STATUS_SUCCESS;
}

static NTSTATUS SetWaitMask(SerialPort *Port, PVOID Buffer) {
  Port->WaitMask = *static_cast<ULONG *>(Buffer);
  return STATUS_SUCCESS;
}

static NTSTATUS GetWaitMask(SerialPort *Port, PVOID Buffer) {
  *static_cast<ULONG *>(Buffer) = Port->WaitMask;
  return STATUS_SUCCESS;
}

// The tty's buffers are what they are.
static NTSTATUS SetQueueSize(SerialPort *, PVOID) {
  return STATUS_SUCCESS;
}

static NTSTATUS Purge(SerialPort *Port, PVOID Buffer) {
  constexpr ULONG Known =
      SERIAL_PURGE_TXABORT | SERIAL_PURGE_RXABORT | SERIAL_PURGE_TXCLEAR | SERIAL_PURGE_RXCLEAR;
  ULONG what = *static_cast<ULONG *>(Buffer);
  if (what == 0 || (what & ~Known)) {
    return STATUS_INVALID_PARAMETER;
  }
  if (what & SERIAL_PURGE_RXABORT) {
    SerialQueueFlush(Port, &Port->Reads, STATUS_CANCELLED);
  }
  if (what & SERIAL_PURGE_TXABORT) {
    SerialQueueFlush(Port, &Port->Writes, STATUS_CANCELLED);
  }
  return ErrnoStatus(LineFlush(Port->Fd, what & SERIAL_PURGE_RXCLEAR, what & SERIAL_PURGE_TXCLEAR));
}

static NTSTATUS SetDtr(SerialPort *Port, PVOID) {
  return ErrnoStatus(LineSetModem(Port->Fd, TIOCM_DTR, true));
}

static NTSTATUS ClearDtr(SerialPort *Port, PVOID) {
  return ErrnoStatus(LineSetModem(Port->Fd, TIOCM_DTR, false));
}

static NTSTATUS SetRts(SerialPort *Port, PVOID) {
  return ErrnoStatus(LineSetModem(Port->Fd, TIOCM_RTS, true));
}

static NTSTATUS ClearRts(SerialPort *Port, PVOID) {
  return ErrnoStatus(LineSetModem(Port->Fd, TIOCM_RTS, false));
}

static NTSTATUS BreakOn(SerialPort *Port, PVOID) {
  return ErrnoStatus(LineSetBreak(Port->Fd, true));
}

static NTSTATUS BreakOff(SerialPort *Port, PVOID) {
  return ErrnoStatus(LineSetBreak(Port->Fd, false));
}

static NTSTATUS GetModemStatus(SerialPort *Port, PVOID Buffer) {
  int lines = 0;
  NTSTATUS status = ErrnoStatus(LineGetModem(Port->Fd, &lines));
  *static_cast<ULONG *>(Buffer) =
      (lines & TIOCM_CTS ? SERIAL_CTS_STATE : 0) | (lines & TIOCM_DSR ? SERIAL_DSR_STATE : 0) |
      (lines & TIOCM_RI ? SERIAL_RI_STATE : 0) | (lines & TIOCM_CD ? SERIAL_DCD_STATE : 0);
  return status;
}

static NTSTATUS GetCommStatus(SerialPort *Port, PVOID Buffer) {
  auto *status = static_cast<SERIAL_STATUS *>(Buffer);
  *status = {};
  status->AmountInInQueue = LineInputWaiting(Port->Fd);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Port->Lock);
  for (PLIST_ENTRY entry = Port->Writes.Requests.Flink; entry != &Port->Writes.Requests;
       entry = entry->Flink) {
    PIRP irp = CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    if (location->MajorFunction == IRP_MJ_WRITE) {
      status->AmountInOutQueue +=
          location->Parameters.Write.Length - static_cast<ULONG>(irp->IoStatus.Information);
    }
  }
  KeReleaseSpinLock(&Port->Lock, irql);
  return STATUS_SUCCESS;
}

static const SerialControl Controls[] = {
    {IOCTL_SERIAL_SET_BAUD_RATE, sizeof(SERIAL_BAUD_RATE), 0, SetBaudRate},
    {IOCTL_SERIAL_GET_BAUD_RATE, 0, sizeof(SERIAL_BAUD_RATE), GetBaudRate},
    {IOCTL_SERIAL_SET_LINE_CONTROL, sizeof(SERIAL_LINE_CONTROL), 0, SetLineControl},
    {IOCTL_SERIAL_GET_LINE_CONTROL, 0, sizeof(SERIAL_LINE_CONTROL), GetLineControl},
    {IOCTL_SERIAL_SET_TIMEOUTS, sizeof(SERIAL_TIMEOUTS), 0, SetTimeouts},
    {IOCTL_SERIAL_GET_TIMEOUTS, 0, sizeof(SERIAL_TIMEOUTS), GetTimeouts},
    {IOCTL_SERIAL_SET_HANDFLOW, sizeof(SERIAL_HANDFLOW), 0, SetHandFlow},
    {IOCTL_SERIAL_GET_HANDFLOW, 0, sizeof(SERIAL_HANDFLOW), GetHandFlow},
    {IOCTL_SERIAL_SET_WAIT_MASK, sizeof(ULONG), 0, SetWaitMask},
    {IOCTL_SERIAL_GET_WAIT_MASK, 0, sizeof(ULONG), GetWaitMask},
    {IOCTL_SERIAL_SET_QUEUE_SIZE, sizeof(SERIAL_QUEUE_SIZE), 0, SetQueueSize},
    {IOCTL_SERIAL_PURGE, sizeof(ULONG), 0, Purge},
    {IOCTL_SERIAL_SET_DTR, 0, 0, SetDtr},
    {IOCTL_SERIAL_CLR_DTR, 0, 0, ClearDtr},
    {IOCTL_SERIAL_SET_RTS, 0, 0, SetRts},
    {IOCTL_SERIAL_CLR_RTS, 0, 0, ClearRts},
    {IOCTL_SERIAL_SET_BREAK_ON, 0, 0, BreakOn},
    {IOCTL_SERIAL_SET_BREAK_OFF, 0, 0, BreakOff},
    {IOCTL_SERIAL_GET_MODEMSTATUS, 0, sizeof(ULONG), GetModemStatus},
    {IOCTL_SERIAL_GET_COMMSTATUS, 0, sizeof(SERIAL_STATUS), GetCommStatus},
};

static NTSTATUS RunControl(SerialPort *Port, PIRP Irp, ULONG *Answer) {
  PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
  for (const SerialControl &control : Controls) {
    if (control.Code != location->Parameters.DeviceIoControl.IoControlCode) {
      continue;
    }
    if (location->Parameters.DeviceIoControl.InputBufferLength < control.InputBytes ||
        location->Parameters.DeviceIoControl.OutputBufferLength < control.OutputBytes) {
      return STATUS_BUFFER_TOO_SMALL;
    }
    *Answer = control.OutputBytes;
    return control.Routine(Port, Irp->AssociatedIrp.SystemBuffer);
  }
  return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS SerialDeviceControl(PDEVICE_OBJECT Device, PIRP Irp) {
  SerialPort *port = SerialPortOf(Device);
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&port->Lock);
  NTSTATUS status = port->Gone;
  if (!status && port->Fd < 0) {
    status = STATUS_INVALID_DEVICE_STATE;
  }
  KeReleaseSpinLock(&port->Lock, irql);
  ULONG answer = 0;
  if (!status) {
    status = RunControl(port, Irp, &answer);
  }
  return SerialFinish(Irp, status, NT_SUCCESS(status) ? answer : 0);
}

NTSTATUS SerialLinePrepare(SerialPort *Port, int Fd) {
  if (!Port->LineKnown) {
    NTSTATUS status = ErrnoStatus(LineRead(Fd, &Port->Line));
    if (!NT_SUCCESS(status)) {
      return status;
    }
    Port->LineKnown = TRUE;
    Port->HandFlow = {SERIAL_DTR_CONTROL, SERIAL_RTS_CONTROL, 0, 0};
  }
  return ErrnoStatus(LineApply(Fd, Port->Line));
}
