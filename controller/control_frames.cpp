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
  ULONG Before;     // what the command replaced
  NTSTATUS Queued;  // what queuing the reply returned
};

using CommandRoutine = void (*)(Command *Command);

static void Nothing(Command *Command) {
  UNREFERENCED_PARAMETER(Command);
}

static void SetReplyValue(PipeElement *Reply, ULONG Value) {
  RtlCopyMemory(PipePayload(Reply), &Value, sizeof(Value));
}

static void SetMode(Command *Command) {
  RunningAsSerializerItem();
  PortExtension *port = Command->Port;
  SendZkMessage(Command->Device, MESSAGE_TRAFFIC, L"ZK setmode %ws on %ws\n",
                ModeName(Command->Argument), PortLinkName(port));
  Command->Before = PortMode(port);
  Command->Reply->FrameHeader.Code = static_cast<ULONG>(SetPortMode(port, Command->Argument));
}

static void RestoreMode(Command *Command) {
  RunningAsSerializerItem();
  SetPortMode(Command->Port, Command->Before);
}

static void GetMode(Command *Command) {
  SetReplyValue(Command->Reply, PortMode(Command->Port));
}

static void TraceLock(ULONG Code, Command *Command) {
  TraceEvent(TRACE_CLASS, Code, TracePointer(Command->Device), TracePointer(Command->Request),
             TraceStatus(Command->Queued));
}

static void AnnounceLock(Command *Command) {
  SendZkMessage(Command->Device, MESSAGE_TRAFFIC, L"ZK lockstream on %ws\n",
                PortLinkName(Command->Port));
  TraceLock(TraceCode("LS00"), Command);
}

static void LockStream(Command *Command) {
  RunningAsSerializerItem();
  PortExtension *port = Command->Port;
  ULONG flags = PortStateFlags(port) | PSF_LOCKED;
  StoreStateFlags(port, flags);
  HoldClientRequests(port);
  SetPortFlags(Command->Device, flags);
  TraceLock(TraceCode("LS02"), Command);
}

static void TraceNoLock(Command *Command) {
  TraceLock(TraceCode("LS01"), Command);
}

static void AnnounceUnlock(Command *Command) {
  SendZkMessage(Command->Device, MESSAGE_TRAFFIC, L"ZK unlockstream on %ws\n",
                PortLinkName(Command->Port));
}

static void UnlockStream(Command *Command) {
  RunningAsSerializerItem();
  ReleaseHeldRequests(Command->Device);
  SetPortFlags(Command->Device, PortStateFlags(Command->Port));
}

static void SetLevel(Command *Command) {
  RunningAsSerializerItem();
  Command->Before = PortMessageLevel(Command->Port);
  StoreMessageLevel(Command->Port, Command->Argument);
}

static void RestoreLevel(Command *Command) {
  RunningAsSerializerItem();
  StoreMessageLevel(Command->Port, Command->Before);
}

static void GetLevel(Command *Command) {
  SetReplyValue(Command->Reply, PortMessageLevel(Command->Port));
}

// A mode and a level are in force when ZK can read the reply; a lock or its end takes effect after
// it, so that ZK's next frames come behind the reply.
struct CommandEntry {
  ULONG Code;
  ULONG LeastBytes;      // of the frame
  CommandRoutine Run;    // before the reply is queued
  CommandRoutine After;  // once it is
  CommandRoutine Undo;   // when it could not be
};

static const CommandEntry Commands[] = {
    {COMMAND_SET_MODE, FRAME_WITH_ARGUMENT, SetMode, Nothing, RestoreMode},
    {COMMAND_GET_MODE, sizeof(FrameHeader), GetMode, Nothing, Nothing},
    {COMMAND_LOCK_STREAM, sizeof(FrameHeader), AnnounceLock, LockStream, TraceNoLock},
    {COMMAND_UNLOCK_STREAM, sizeof(FrameHeader), AnnounceUnlock, UnlockStream, Nothing},
    {COMMAND_SET_LEVEL, FRAME_WITH_ARGUMENT, SetLevel, Nothing, RestoreLevel},
    {COMMAND_GET_LEVEL, sizeof(FrameHeader), GetLevel, Nothing, Nothing},
};

static const CommandEntry *FindCommand(ULONG Code, ULONG FrameBytes) {
  for (const CommandEntry &entry : Commands) {
    if (entry.Code == Code && FrameBytes >= entry.LeastBytes) {
      return &entry;
    }
  }
  return nullptr;
}

static NTSTATUS RunCommand(const CommandEntry *Entry, Command *Command) {
  Entry->Run(Command);
  Command->Reply->FrameHeader.Tag = Command->Tag;
  Command->Queued = PipePutForZk(Command->Reply);
  if (!NT_SUCCESS(Command->Queued)) {
    Entry->Undo(Command);
  } else {
    Entry->After(Command);
  }
  return Command->Queued;
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
  const CommandEntry *entry = FindCommand(header.Code, FrameBytes);
  return entry != nullptr ? RunCommand(entry, &command) : RefuseCommand(&command);
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
