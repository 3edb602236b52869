// The channel to vorlix-host: a socket that keeps packets apart, one packet one frame or record.
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/control_record.h"
#include "zkctl/channel.h"
#include "zkctl/show.h"

struct Channel {
  int Socket;
  int Signals;
  bool Closed;
};

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t STATUS_ACCESS_DENIED = 0xC0000022;
constexpr std::chrono::seconds OPEN_TIMEOUT(10);
constexpr int SOCKET_BUFFER = 1 << 20;

std::string DefaultDirectory() {
  const char *runtime = std::getenv("XDG_RUNTIME_DIR");
  return runtime && *runtime ? fmt::format("{}/vorlix", runtime)
                             : fmt::format("/tmp/vorlix-{}", geteuid());
}

// Milliseconds for poll, rounded up so that it does not wake just before the deadline.
int PollTimeout(Deadline deadline) {
  if (!deadline) {
    return -1;
  }
  auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
}

// One whole packet; empty when the other end has closed.
std::vector<uint8_t> Receive(int fd) {
  char probe;
  ssize_t size;
  do {
    size = recv(fd, &probe, 1, MSG_PEEK | MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  if (size <= 0) {
    return {};
  }
  std::vector<uint8_t> packet(size);
  size = recv(fd, packet.data(), packet.size(), 0);
  packet.resize(std::max<ssize_t>(size, 0));
  return packet;
}

bool DecodeRecord(std::span<const uint8_t> packet, ControlRecord *record) {
  if (packet.size() != sizeof(*record)) {
    return false;
  }
  std::memcpy(record, packet.data(), sizeof(*record));
  return record->Length == sizeof(*record) &&
         (record->Type == RECORD_COMPLETION || record->Type == RECORD_OPEN_RESULT);
}

int Connect(const std::string &path, std::string *error) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    *error = fmt::format("the path {} is too long for a socket", path);
    return -1;
  }
  path.copy(address.sun_path, path.size());
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = fmt::format("cannot make a socket: {}", std::strerror(errno));
    return -1;
  }
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SOCKET_BUFFER, sizeof(SOCKET_BUFFER));
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0) {
    return fd;
  }
  if (errno == EACCES || errno == EPERM) {
    *error = StatusText(STATUS_ACCESS_DENIED);
  } else {
    *error = fmt::format("no such device ({}: {})", path, std::strerror(errno));
  }
  close(fd);
  return -1;
}

// The first packet says what opening the device gave.
bool AwaitOpened(int fd, std::string *error) {
  pollfd ready = {fd, POLLIN, 0};
  Deadline deadline = Clock::now() + OPEN_TIMEOUT;
  int count;
  do {
    count = poll(&ready, 1, PollTimeout(deadline));
  } while (count < 0 && errno == EINTR);
  if (count <= 0) {
    *error = fmt::format("the host did not answer within {} s", OPEN_TIMEOUT.count());
    return false;
  }
  std::vector<uint8_t> packet = Receive(fd);
  ControlRecord record;
  if (packet.empty()) {
    *error = "the host closed the connection";
    return false;
  }
  if (!DecodeRecord(packet, &record) || record.Type != RECORD_OPEN_RESULT) {
    *error = "what answers is not the host";
    return false;
  }
  *error = StatusText(record.Status);
  return record.Status == 0;
}

int CatchSignals() {
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  return signalfd(-1, &stop, SFD_CLOEXEC);
}

Event DeviceEvent(Channel *channel) {
  std::vector<uint8_t> packet = Receive(channel->Socket);
  if (packet.empty()) {
    channel->Closed = true;
    return {EVENT_CLOSED, {}};
  }
  ControlRecord record;
  if (DecodeRecord(packet, &record)) {
    return {EVENT_WRITTEN, {}, record.Status, record.Information};
  }
  return {EVENT_FRAME, std::move(packet)};
}

Event InputEvent() {
  std::vector<uint8_t> bytes(4096);
  ssize_t size = read(STDIN_FILENO, bytes.data(), bytes.size());
  if (size <= 0) {
    return {EVENT_INPUT_ENDED, {}};
  }
  bytes.resize(size);
  return {EVENT_INPUT, std::move(bytes)};
}

}  // namespace

Channel *ChannelOpen(const std::string &name, const std::string &directory, std::string *error) {
  std::string path =
      fmt::format("{}/VORLIX_{}", directory.empty() ? DefaultDirectory() : directory, name);
  int fd = Connect(path, error);
  if (fd < 0) {
    return nullptr;
  }
  if (!AwaitOpened(fd, error)) {
    close(fd);
    return nullptr;
  }
  return new Channel{fd, CatchSignals(), false};
}

void ChannelClose(Channel *channel) {
  close(channel->Signals);
  close(channel->Socket);
  delete channel;
}

void ChannelWrite(Channel *channel, std::span<const uint8_t> frame) {
  ssize_t size;
  do {
    size = send(channel->Socket, frame.data(), frame.size(), MSG_NOSIGNAL);
  } while (size < 0 && errno == EINTR);
  if (size < 0) {
    // What the host had sent before it went is still to be read; the end comes behind it.
    shutdown(channel->Socket, SHUT_WR);
  }
}

Event ChannelWait(Channel *channel, bool wantInput, Deadline deadline) {
  if (channel->Closed) {
    return {EVENT_CLOSED, {}};
  }
  // Input before the device: a stream of frames must not keep a command waiting, while commands
  // cannot keep frames waiting, since each wants its write completed.
  pollfd sources[] = {{channel->Signals, POLLIN, 0},
                      {wantInput ? STDIN_FILENO : -1, POLLIN, 0},
                      {channel->Socket, POLLIN, 0}};
  int count;
  do {
    count = poll(sources, std::size(sources), PollTimeout(deadline));
  } while (count < 0 && errno == EINTR);
  if (sources[0].revents) {
    return {EVENT_INTERRUPTED, {}};
  }
  if (sources[1].revents) {
    return InputEvent();
  }
  if (sources[2].revents) {
    return DeviceEvent(channel);
  }
  return {EVENT_TIMED_OUT, {}};
}
