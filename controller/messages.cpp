#include "controller/messages.h"

#include <cstdarg>

#include "driver/extension.h"
#include "driver/pool_tags.h"
#include "driver/text_length.h"

constexpr ULONG TEXT_CHARACTERS = 1024;  // with the terminator

// On the heap: a kernel stack is small.
struct MessageText {
  ULONG Level;
  WCHAR Text[TEXT_CHARACTERS];
};
static_assert(sizeof(MessageText) == 2052);

// *TextBytes without the terminator.
static NTSTATUS Format(MessageText *Message, PCWSTR Format, va_list Arguments, SIZE_T *TextBytes) {
  // A failure is negative: as a count, it is more than fits.
  auto written =
      static_cast<ULONG>(_vsnwprintf(Message->Text, TEXT_CHARACTERS - 1, Format, Arguments));
  Message->Text[TEXT_CHARACTERS - 1] = 0;  // a text that just fits has no terminator yet
  if (written > TEXT_CHARACTERS - 1) {
    return STATUS_BUFFER_OVERFLOW;
  }
  return TextLength(Message->Text, sizeof(Message->Text), TextBytes);
}

static NTSTATUS Queue(PortExtension *Port, const MessageText *Message, SIZE_T TextBytes) {
  auto bytes = static_cast<ULONG>(sizeof(Message->Level) + TextBytes + sizeof(WCHAR));
  PipeElement *element;
  NTSTATUS status = PipeAllocateElement(&Port->ZkPipe, nullptr, FRAME_REPORT, TRUE, bytes,
                                        POOL_MESSAGE, &element);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  element->FrameHeader.Tag = TAG_DRIVER;
  RtlCopyMemory(PipePayload(element), Message, bytes);  // level, text and terminator in one
  status = PipePutForZk(element);
  return NT_SUCCESS(status) ? STATUS_SUCCESS : status;
}

NTSTATUS SendZkMessage(PDEVICE_OBJECT Device, ULONG Level, PCWSTR FormatText, ...) {
  PortExtension *port = PortOf(Device);
  if (Level > PortMessageLevel(port)) {
    return STATUS_SUCCESS;
  }
  auto *message = static_cast<MessageText *>(
      ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(MessageText), POOL_MESSAGE_TEXT));
  if (message == nullptr) {
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  message->Level = Level;
  va_list arguments;
  va_start(arguments, FormatText);
  SIZE_T textBytes;
  NTSTATUS status = Format(message, FormatText, arguments, &textBytes);
  va_end(arguments);
  if (status == STATUS_SUCCESS) {
    status = Queue(port, message, textBytes);
  }
  ExFreePoolWithTag(message, POOL_MESSAGE_TEXT);
  return status;
}
