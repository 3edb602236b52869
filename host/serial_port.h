// The record of one serial port, the extension of its device, and how its requests wait: shared by
// the driver's three sources.
#pragma once

#include "host/event_loop.h"
#include "host/serial_codes.h"
#include "host/serial_line.h"
#include "platform/kernel.h"

constexpr ULONG SERIAL_POOL_TAG = 0x74726553;  // "Sert"
constexpr ULONG TTY_PATH_BYTES = 1024;
constexpr ULONG LINK_NAME_BYTES = 600;

struct SerialPort;

// Requests in order of arrival; each has a cancel routine as long as it is in the list.
struct RequestQueue {
  LIST_ENTRY Requests;
  LoopWait Wait;  // what the first request waits for
  // Carries the first request on, with Information as its progress: STATUS_PENDING when the tty
  // cannot go on now.
  NTSTATUS (*Advance)(SerialPort *Port, PIRP Irp);
};

struct SerialPort {
  PDEVICE_OBJECT Device;
  PDEVICE_OBJECT PhysicalDevice;
  PDEVICE_OBJECT LowerDevice;
  BOOLEAN LinkMade;
  WCHAR LinkName[LINK_NAME_BYTES / sizeof(WCHAR)];
  char TtyPath[TTY_PATH_BYTES];

  KSPIN_LOCK Lock;
  RequestQueue Reads GUARDED_BY(Lock);
  RequestQueue Writes GUARDED_BY(Lock);

  // Written under Lock. Creates, closes and removals, which never overlap with each other or with a
  // control, read them without.
  NTSTATUS Gone;  // why nothing is taken any more; STATUS_SUCCESS while the port is there
  int Fd;         // -1 while closed
  LoopFd *Watch;  // of Fd; null while closed or lost

  // Survives closing; from the tty at the first open.
  BOOLEAN LineKnown;
  LineSettings Line;
  SERIAL_TIMEOUTS Timeouts;
  SERIAL_HANDFLOW HandFlow;
  ULONG WaitMask;
};

inline SerialPort *SerialPortOf(PDEVICE_OBJECT Device) {
  return static_cast<SerialPort *>(Device->DeviceExtension);
}

NTSTATUS SerialFinish(PIRP Irp, NTSTATUS Status, ULONG_PTR Information);

// serial_queue: reads, writes and flushes, and the loss of the tty.
void SerialQueuesInitialize(SerialPort *Port);
NTSTATUS SerialReadWrite(PDEVICE_OBJECT Device, PIRP Irp);
// Completes everything that waits.
void SerialQueuesFlush(SerialPort *Port, NTSTATUS Status);
void SerialQueueFlush(SerialPort *Port, RequestQueue *Queue, NTSTATUS Status);
// The tty was opened: from here on its loss is noticed.
void SerialAttachTty(SerialPort *Port, int Fd);
// The tty is to be closed, or left alone: gives back what was open, or -1.
int SerialDetachTty(SerialPort *Port);

// serial_control: device controls.
NTSTATUS SerialDeviceControl(PDEVICE_OBJECT Device, PIRP Irp);
// Takes the line's settings over at the first open, and applies them at every later one.
NTSTATUS SerialLinePrepare(SerialPort *Port, int Fd);

// serial_pnp: a port's device, Plug and Play and power.
NTSTATUS SerialAddDevice(PDRIVER_OBJECT Driver, PDEVICE_OBJECT PhysicalDevice);
NTSTATUS SerialPnp(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS SerialPower(PDEVICE_OBJECT Device, PIRP Irp);
NTSTATUS SerialSystemControl(PDEVICE_OBJECT Device, PIRP Irp);
