#include "controller/control_frames.h"

#include "controller/frame_format.h"
#include "controller/messages.h"
#include "controller/port_mode.h"
#include "controller/stream_lock.h"
#include "driver/entry.h"
#include "driver/event_log.h"
#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/requests.h"
#include "driver/trace.h"

// What a command works on. The frame was read once; ZK's buffer is not looked at again.
struct Command {
  PDEVICE_OBJECT Device;
  PIRP Request;
  PortExtension *Port;
  PipeElement *Reply;
  ULONG Tag;
  ULONG Argument;
};

// Each runs a command and queues its reply; returns what queuing the reply returned, or a refusal.
using CommandRoutine = NTSTATUS (*)(Command *Command);

static void SetReplyValue(PipeElement *Reply, ULONG Value) {
  RtlCopyMemory(PipePayload(Reply), &Value, sizeof(Value));
}

// A reply that the pipe took is the pipe's; one that it refused is freed here.
static NTSTATUS QueueReply(Command *Command) {
  Command->Reply->FrameHeader.Tag = Command->Tag;
  NTSTATUS status = PipePut(Command->Reply);
  if (!NT_SUCCESS(status)) {
    PipeCompleteElement(Command->Reply);
  }
  return status;
}

static NTSTATUS SetMode(Command *Command) {
  RunningAsSerializerItem();
  PortExtension *port = Command->Port;
  SendZkMessage(Command->Device, MESSAGE_TRAFFIC, L"ZK setmode %ws on %ws\n",
                ModeName(Command->Argument), PortLinkName(port));
  ULONG before = PortMode(port);
  Command->Reply->FrameHeader.Code = static_cast<ULONG>(SetPortMode(port, Command->Argument));
  NTSTATUS status = QueueReply(Command);
  if (!NT_SUCCESS(status)) {
    SetPortMode(port, before);
  }
  return status;
}

static NTSTATUS GetMode(Command *Command) {
  SetReplyValue(Command->Reply, PortMode(Command->Port));
  return QueueReply(Command);
}

// The reply is queued before the lock takes effect: ZK's next frames come after it.
static NTSTATUS LockStream(Command *Command) {
  RunningAsSerializerItem();
  PortExtension *port = Command->Port;
  PDEVICE_OBJECT device = Command->Device;
  SendZkMessage(device, MESSAGE_TRAFFIC, L"ZK lockstream on %ws\n", PortLinkName(port));
  TraceEvent(TRACE_CLASS, TraceCode("LS00"), TracePointer(device), TracePointer(Command->Request),
             0);
  NTSTATUS status = QueueReply(Command);
  if (!NT_SUCCESS(status)) {
    TraceEvent(TRACE_CLASS, TraceCode("LS01"), TracePointer(device), TracePointer(Command->Request),
               TraceStatus(status));
    return status;
  }
  ULONG flags = PortStateFlags(port) | PSF_LOCKED;
  StoreStateFlags(port, flags);
  HoldClientRequests(port);
  SetPortFlags(device, flags);
  TraceEvent(TRACE_CLASS, TraceCode("LS02"), TracePointer(device), TracePointer(Command->Request),
             TraceStatus(status));
  return status;
}

static NTSTATUS UnlockStream(Command *Command) {
  RunningAsSerializerItem();
  PortExtension *port = Command->Port;
  SendZkMessage(Command->Device, MESSAGE_TRAFFIC, L"ZK unlockstream on %ws\n", PortLinkName(port));
  NTSTATUS status = QueueReply(Command);
  if (NT_SUCCESS(status)) {
    ReleaseHeldRequests(Command->Device);
    SetPortFlags(Command->Device, PortStateFlags(port));
  }
  return status;
}

static NTSTATUS SetLevel(Command *Command) {
  RunningAsSerializerItem();
  ULONG before = PortMessageLevel(Command->Port);
  StoreMessageLevel(Command->Port, Command->Argument);
  NTSTATUS status = QueueReply(Command);
  if (!NT_SUCCESS(status)) {
    StoreMessageLevel(Command->Port, before);
  }
  return status;
}

static NTSTATUS GetLevel(Command *Command) {
  SetReplyValue(Command->Reply, PortMessageLevel(Command->Port));
  return QueueReply(Command);
}

struct CommandEntry {
  ULONG Code;
  ULONG LeastBytes;  // of the frame
  CommandRoutine Run;
};

static const CommandEntry Commands[] = {
    {COMMAND_SET_MODE, FRAME_WITH_ARGUMENT, SetMode},
    {COMMAND_GET_MODE, sizeof(FrameHeader), GetMode},
    {COMMAND_LOCK_STREAM, sizeof(FrameHeader), LockStream},
    {COMMAND_UNLOCK_STREAM, sizeof(FrameHeader), UnlockStream},
    {COMMAND_SET_LEVEL, FRAME_WITH_ARGUMENT, SetLevel},
    {COMMAND_GET_LEVEL, sizeof(FrameHeader), GetLevel},
};

static CommandRoutine FindCommand(ULONG Code, ULONG FrameBytes) {
  for (const CommandEntry &entry : Commands) {
    if (entry.Code == Code && FrameBytes >= entry.LeastBytes) {
      return entry.Run;
    }
  }
  return nullptr;
}

// An unknown command, or one whose argument is missing: nothing was done, no reply is sent.
static NTSTATUS RefuseCommand(Command *Command) {
  ReportPortEvent(DriverWide.DriverObject, Command->Device, 0, 0, EVENT_BAD_COMMAND,
                  STATUS_INVALID_PARAMETER, Command->Port);
  PipeCompleteElement(Command->Reply);
  return STATUS_INVALID_PARAMETER;
}

static NTSTATUS MakeReply(PortExtension *Port, PipeElement **Reply) {
  NTSTATUS status = PipeAllocateElement(&Port->ZkPipe, nullptr, FRAME_CONTROL_REPLY, TRUE,
                                        sizeof(ULONG), POOL_CONTROL_REPLY, Reply);
  if (NT_SUCCESS(status)) {
    SetReplyValue(*Reply, 0);
  }
  return status;
}

static NTSTATUS ExecuteFrame(PDEVICE_OBJECT Device, PIRP Irp, ULONG FrameBytes) {
  PUCHAR buffer;
  NTSTATUS status = GetRequestBuffer(Irp, &buffer);
  if (!NT_SUCCESS(status)) {
    SendZkMessage(Device, MESSAGE_ERROR, L"Error getting buffer for ControlFrame status 0x%x",
                  status);
    return status;
  }
  Command command = {};
  command.Device = Device;
  command.Request = Irp;
  command.Port = PortOf(Device);
  status = MakeReply(command.Port, &command.Reply);
  if (!NT_SUCCESS(status)) {
    SendZkMessage(Device, MESSAGE_ERROR,
                  L"Could not allocate pipe element for ControlFrame status 0x%x", status);
    return status;
  }
  FrameHeader header;
  RtlCopyMemory(&header, buffer, sizeof(header));
  command.Tag = header.Tag;
  if (FrameBytes >= FRAME_WITH_ARGUMENT) {
    RtlCopyMemory(&command.Argument, buffer + FRAME_ARGUMENT_OFFSET, sizeof(command.Argument));
  }
  CommandRoutine run = FindCommand(header.Code, FrameBytes);
  return run != nullptr ? run(&command) : RefuseCommand(&command);
}

// The start routine. The write's own status says only whether the frame was executed and answered;
// the outcome of the command is in the reply.
static NTSTATUS RunControlFrame(RequestSerializer *Serializer, SerializerItem *Item) {
  PIRP irp = Item->Request;
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  PDEVICE_OBJECT device = stack->DeviceObject;
  ULONG length = stack->Parameters.Write.Length;
  RecordSerializerFinish(Serializer, Item, device, irp);
  NTSTATUS status = ExecuteFrame(device, irp, length);
  if (NT_SUCCESS(status)) {
    status = STATUS_SUCCESS;
  }
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = status == STATUS_SUCCESS ? length : 0;
  KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Serializer->Lock);
  FinishSerializerItem(Serializer, irql);
  return status;
}

NTSTATUS SubmitControlFrame(PDEVICE_OBJECT Device, PIRP Irp) {
  TraceEvent(TRACE_CLASS, TraceCode("PCF0"), TracePointer(Device), TracePointer(Irp), 0);
  NTSTATUS status = SubmitSerialized(Device, Irp, RunControlFrame);
  // Both are values only by now.
  TraceEvent(TRACE_CLASS, TraceCode("PCFE"), TracePointer(Device), TracePointer(Irp),
             TraceStatus(status));
  return status;
}
