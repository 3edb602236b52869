// The channel to the driver on Windows: overlapped reads and writes on the control device.
#ifdef _WIN32

#include <windows.h>

#include <algorithm>

#include "controller/frame_format.h"
#include "zkctl/channel.h"
#include "zkctl/show.h"

namespace {

constexpr DWORD READ_SIZE = 4096;
constexpr uint32_t NT_BUFFER_OVERFLOW = 0x80000005;
constexpr uint32_t NT_CANCELLED = 0xC0000120;
constexpr uint32_t NT_INVALID_DEVICE_STATE = 0xC0000184;

enum WaitIndex { WAIT_INTERRUPT, WAIT_INPUT, WAIT_READ, WAIT_WRITE, WAIT_COUNT };

// Reads standard input, which cannot be waited for, and hands over a chunk at a time. It may block
// for ever, so it outlives the channel and its record is never freed.
struct Input {
  HANDLE Ready;  // a chunk (or the end, an empty one) is in Bytes
  HANDLE Taken;
  std::vector<uint8_t> Bytes;
};

struct Transfer {
  OVERLAPPED Overlapped;
  std::vector<uint8_t> Bytes;
  bool Busy;
};

HANDLE interruptEvent;

DWORD WINAPI ReadInput(void *context) {
  Input *input = static_cast<Input *>(context);
  HANDLE handle = GetStdHandle(STD_INPUT_HANDLE);
  for (;;) {
    DWORD size = 0;
    input->Bytes.resize(READ_SIZE);
    if (!ReadFile(handle, input->Bytes.data(), READ_SIZE, &size, nullptr)) {
      size = 0;
    }
    input->Bytes.resize(size);
    SetEvent(input->Ready);
    if (size == 0) {
      return 0;
    }
    WaitForSingleObject(input->Taken, INFINITE);
  }
}

BOOL WINAPI Interrupt(DWORD) {
  SetEvent(interruptEvent);
  return TRUE;
}

// The status as the kernel gave it, where the error code is a translation.
uint32_t LastStatus() {
  using Routine = LONG(WINAPI *)();
  FARPROC found = GetProcAddress(GetModuleHandleA("ntdll.dll"), "RtlGetLastNtStatus");
  return found ? static_cast<uint32_t>(reinterpret_cast<Routine>(reinterpret_cast<void *>(found))())
               : 0;
}

uint32_t TransferStatus(const Transfer &transfer) {
  return static_cast<uint32_t>(transfer.Overlapped.Internal);
}

}  // namespace

struct Channel {
  HANDLE Device;
  Input *Standard;
  bool InputEnded;
  Transfer Read;
  Transfer Write;
  bool ReadLater;  // reads fail in IDLE; the next completed write may have changed the mode
  bool Closed;
};

namespace {

void StartRead(Channel *channel, size_t size) {
  Transfer &read = channel->Read;
  HANDLE event = read.Overlapped.hEvent;
  read.Overlapped = {};
  read.Overlapped.hEvent = event;
  read.Bytes.resize(size);
  read.Busy = true;
  if (!ReadFile(channel->Device, read.Bytes.data(), static_cast<DWORD>(size), nullptr,
                &read.Overlapped) &&
      GetLastError() != ERROR_IO_PENDING) {
    // A read that fails at once may leave no trace in the overlapped record.
    read.Overlapped.Internal = LastStatus();
    read.Overlapped.InternalHigh = std::min<ULONG_PTR>(read.Overlapped.InternalHigh, size);
    SetEvent(event);
  }
}

// False when there is nothing to tell.
bool FinishRead(Channel *channel, Event *event) {
  Transfer &read = channel->Read;
  uint32_t status = TransferStatus(read);
  read.Busy = false;
  ResetEvent(read.Overlapped.hEvent);
  if (status == NT_BUFFER_OVERFLOW && read.Overlapped.InternalHigh == sizeof(uint32_t)) {
    // The frame stays for a read that has room; its length came instead.
    uint32_t length;
    std::copy_n(read.Bytes.begin(), sizeof(length), reinterpret_cast<uint8_t *>(&length));
    StartRead(channel, std::max<size_t>(length, READ_SIZE));
    return false;
  }
  if (status == NT_INVALID_DEVICE_STATE) {
    channel->ReadLater = true;
    return false;
  }
  if (status == NT_CANCELLED) {
    StartRead(channel, READ_SIZE);
    return false;
  }
  if (status != 0) {
    channel->Closed = true;
    *event = {EVENT_CLOSED, {}};
    return true;
  }
  read.Bytes.resize(read.Overlapped.InternalHigh);
  *event = {EVENT_FRAME, std::move(read.Bytes)};
  StartRead(channel, READ_SIZE);
  return true;
}

Event FinishWrite(Channel *channel) {
  channel->Write.Busy = false;
  ResetEvent(channel->Write.Overlapped.hEvent);
  if (channel->ReadLater) {
    channel->ReadLater = false;
    StartRead(channel, READ_SIZE);
  }
  return {EVENT_WRITTEN,
          {},
          TransferStatus(channel->Write),
          static_cast<uint32_t>(channel->Write.Overlapped.InternalHigh)};
}

Event TakeInput(Channel *channel) {
  Input *input = channel->Standard;
  Event event = {EVENT_INPUT, std::move(input->Bytes)};
  if (event.Bytes.empty()) {
    channel->InputEnded = true;
    event.Kind = EVENT_INPUT_ENDED;
  }
  SetEvent(input->Taken);
  return event;
}

DWORD WaitTime(Deadline deadline) {
  if (!deadline) {
    return INFINITE;
  }
  auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
  return static_cast<DWORD>(std::clamp<int64_t>(left.count(), 0, INT32_MAX));
}

void StopTransfer(Channel *channel, Transfer *transfer) {
  DWORD size;
  if (transfer->Busy) {
    CancelIoEx(channel->Device, &transfer->Overlapped);
    GetOverlappedResult(channel->Device, &transfer->Overlapped, &size, TRUE);
  }
  CloseHandle(transfer->Overlapped.hEvent);
}

}  // namespace

Channel *ChannelOpen(const std::string &name, const std::string &, std::string *error) {
  std::string path = "\\\\.\\VORLIX_" + name;
  HANDLE device = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              FILE_FLAG_OVERLAPPED, nullptr);
  if (device == INVALID_HANDLE_VALUE) {
    DWORD code = GetLastError();
    uint32_t status = LastStatus();
    if (code == ERROR_FILE_NOT_FOUND) {
      *error = "no such device (" + path + ")";
    } else {
      *error = status ? StatusText(status) : "error " + std::to_string(code);
    }
    return nullptr;
  }
  interruptEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  SetConsoleCtrlHandler(Interrupt, TRUE);
  Channel *channel = new Channel{};
  channel->Device = device;
  channel->Read.Overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  channel->Write.Overlapped.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  channel->Standard = new Input{CreateEventA(nullptr, FALSE, FALSE, nullptr),
                                CreateEventA(nullptr, FALSE, FALSE, nullptr),
                                {}};
  CloseHandle(CreateThread(nullptr, 0, ReadInput, channel->Standard, 0, nullptr));
  StartRead(channel, READ_SIZE);
  return channel;
}

void ChannelClose(Channel *channel) {
  StopTransfer(channel, &channel->Read);
  StopTransfer(channel, &channel->Write);
  CloseHandle(channel->Device);
  delete channel;
}

void ChannelWrite(Channel *channel, std::span<const uint8_t> frame) {
  Transfer &write = channel->Write;
  HANDLE event = write.Overlapped.hEvent;
  write.Overlapped = {};
  write.Overlapped.hEvent = event;
  write.Bytes.assign(frame.begin(), frame.end());
  write.Busy = true;
  if (!WriteFile(channel->Device, write.Bytes.data(), static_cast<DWORD>(write.Bytes.size()),
                 nullptr, &write.Overlapped) &&
      GetLastError() != ERROR_IO_PENDING) {
    write.Overlapped.Internal = LastStatus();
    SetEvent(event);
  }
}

Event ChannelWait(Channel *channel, bool wantInput, Deadline deadline) {
  for (;;) {
    if (channel->Closed) {
      return {EVENT_CLOSED, {}};
    }
    HANDLE handles[WAIT_COUNT];
    WaitIndex indices[WAIT_COUNT];
    DWORD count = 0;
    auto add = [&](WaitIndex index, HANDLE handle, bool wanted) {
      if (wanted) {
        indices[count] = index;
        handles[count++] = handle;
      }
    };
    add(WAIT_INTERRUPT, interruptEvent, true);
    add(WAIT_INPUT, channel->Standard->Ready, wantInput && !channel->InputEnded);
    add(WAIT_READ, channel->Read.Overlapped.hEvent, channel->Read.Busy);
    add(WAIT_WRITE, channel->Write.Overlapped.hEvent, channel->Write.Busy);
    DWORD result = WaitForMultipleObjects(count, handles, FALSE, WaitTime(deadline));
    if (result >= WAIT_OBJECT_0 + count) {
      return {EVENT_TIMED_OUT, {}};
    }
    Event event;
    switch (indices[result - WAIT_OBJECT_0]) {
    case WAIT_INTERRUPT:
      return {EVENT_INTERRUPTED, {}};
    case WAIT_INPUT:
      return TakeInput(channel);
    case WAIT_WRITE:
      return FinishWrite(channel);
    default:
      if (FinishRead(channel, &event)) {
        return event;
      }
    }
  }
}

#endif
