#include "controller/messages.h"

#include <cstdarg>

#include "driver/extension.h"
#include "driver/pool_tags.h"

constexpr ULONG TEXT_CHARACTERS = 1024;  // with the terminator

// On the heap: a kernel stack is small.
struct MessageText {
  ULONG Level;
  WCHAR Text[TEXT_CHARACTERS];
};
static_assert(sizeof(MessageText) == 2052);

static NTSTATUS Format(MessageText *Message, PCWSTR Format, va_list Arguments) {
  int written = _vsnwprintf(Message->Text, TEXT_CHARACTERS - 1, Format, Arguments);
  if (written < 0 || written >= static_cast<int>(TEXT_CHARACTERS - 1)) {
    Message->Text[TEXT_CHARACTERS - 1] = 0;  // a text that just fits has no terminator yet
  }
  if (written < 0 || written > static_cast<int>(TEXT_CHARACTERS - 1)) {
    return STATUS_BUFFER_OVERFLOW;
  }
  return STATUS_SUCCESS;
}

static ULONG CountCharacters(const MessageText *Message) {
  ULONG count = 0;
  while (count < TEXT_CHARACTERS && Message->Text[count] != 0) {
    ++count;
  }
  return count;
}

static NTSTATUS Queue(PortExtension *Port, const MessageText *Message) {
  ULONG characters = CountCharacters(Message);
  if (characters == TEXT_CHARACTERS) {
    return STATUS_INVALID_PARAMETER;
  }
  ULONG bytes = static_cast<ULONG>(sizeof(ULONG) + (characters + 1) * sizeof(WCHAR));
  PipeElement *element;
  NTSTATUS status = PipeAllocateElement(&Port->ZkPipe, nullptr, FRAME_REPORT, TRUE, bytes,
                                        POOL_MESSAGE, &element);
  if (!NT_SUCCESS(status)) {
    return status;
  }
  element->FrameHeader.Tag = TAG_DRIVER;
  RtlCopyMemory(PipePayload(element), Message, bytes);  // level, text and terminator in one
  status = PipePut(element);
  if (!NT_SUCCESS(status)) {
    PipeCompleteElement(element);
    return status;
  }
  return STATUS_SUCCESS;
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
  NTSTATUS status = Format(message, FormatText, arguments);
  va_end(arguments);
  if (status == STATUS_SUCCESS) {
    status = Queue(port, message);
  }
  ExFreePoolWithTag(message, POOL_MESSAGE_TEXT);
  return status;
}
