// A connection is served from two sides. The loop owns the socket, the driver's completions and the
// reads, none of which wait. A task of the connection's own opens and closes the device and sends
// the frames that came, one after the other: the driver may wait inside a control frame. The
// connection counts a frame as outstanding from its arrival until it is both completed and out of
// the driver's dispatch routine, and the device is closed when nothing is outstanding.
#include "host/control_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <memory>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/control_record.h"
#include "host/event_loop.h"
#include "host/host_log.h"
#include "platform/model/model.h"

constexpr size_t ReadsOutstanding = 4;
constexpr size_t ReadBytesFirst = 8192;
// For a controller that does not read its socket: so many packets wait here, then the rest stays
// in the driver's pipe.
constexpr size_t PacketsMost = 64;
// For a port that does not take what is written: so many frames are in the driver, then the rest
// stays in the socket.
constexpr size_t FramesMost = 32;
// For a controller that has left: so long the port may take for its last frames while somebody
// else waits for the device.
constexpr unsigned GraceMilliseconds = 2000;

struct Connection;

struct WrittenFrame {
  Connection *Owner = nullptr;
  FileRequest Request;
  bool Sent = false;  // the driver's dispatch routine has returned
  bool Completed = false;
};

struct FrameRead {
  Connection *Owner = nullptr;
  FileRequest Request;
  bool Busy = false;
};

// Waiting -> Opening: nobody else is leaving. Opening -> Open or Ended, by the driver's answer.
// Open -> Leaving: the peer is gone and its last packet was read, or the socket is being stopped.
// Leaving -> Ended: nothing is outstanding; the task closes the device.
enum class ConnectionState { Waiting, Opening, Open, Leaving, Ended };

struct Connection {
  ControlSocket *Socket = nullptr;
  int Fd = -1;
  LoopFd *Watch = nullptr;
  Account Who = Account::User;
  ConnectionState State = ConnectionState::Waiting;
  bool PeerGone = false;
  LoopTimer *Grace = nullptr;  // runs while leaving
  bool GraceOver = false;
  bool Forced = false;  // do not wait for the port: cancel what is outstanding
  NTSTATUS OpenStatus = STATUS_SUCCESS;
  HANDLE Handle = nullptr;

  KEVENT Work = {};  // for the task: frames to send, or the end
  std::deque<WrittenFrame *> ToSend;
  size_t Frames = 0;  // outstanding, those to send included

  FrameRead Reads[ReadsOutstanding];
  size_t ReadBytes = ReadBytesFirst;
  bool ReadsRefused = false;  // the last one was; the next written frame may change that

  std::deque<std::vector<uint8_t>> Packets;  // to the controller
};

struct ControlSocket {
  ControlSocketOptions Options;
  int Fd = -1;
  LoopFd *Watch = nullptr;
  std::list<std::unique_ptr<Connection>> Connections;
  std::function<void()> Stopped;  // set: the socket goes away
};

static void ReceivePackets(Connection *Peer);
static void StartReads(Connection *Peer);
static void OpenNext(ControlSocket *Socket);

// ---- The end of a connection ----

static bool Idle(const Connection *Peer) {
  for (const FrameRead &read : Peer->Reads) {
    if (read.Busy) {
      return false;
    }
  }
  return Peer->Frames == 0;
}

static void EndWhenIdle(Connection *Peer) {
  if (Peer->State == ConnectionState::Leaving && Idle(Peer)) {
    Peer->State = ConnectionState::Ended;
    KeSetEvent(&Peer->Work, IO_NO_INCREMENT, FALSE);
  }
}

static void StartGrace(Connection *Peer) {
  if (!Peer->Grace && !Peer->GraceOver) {
    Peer->Grace = LoopTimerStart(GraceMilliseconds, [Peer]() {
      Peer->Grace = nullptr;
      Peer->GraceOver = true;
      OpenNext(Peer->Socket);
    });
  }
}

static void Leave(Connection *Peer) {
  StartGrace(Peer);
  Peer->State = ConnectionState::Leaving;
  Peer->Packets.clear();
  for (FrameRead &read : Peer->Reads) {
    if (read.Busy) {
      FileCancel(&read.Request);
    }
  }
  EndWhenIdle(Peer);
}

// Somebody else wants the device, or it goes away: no more waiting for the port.
static void Force(Connection *Peer) {
  Peer->Forced = true;
  if (Peer->State == ConnectionState::Open || Peer->State == ConnectionState::Leaving) {
    FileCancelAll(Peer->Handle);
    Leave(Peer);
  }
}

static void Forget(Connection *Peer) {
  ControlSocket *socket = Peer->Socket;
  LoopTimerCancel(Peer->Grace);
  LoopFdRemove(Peer->Watch);
  close(Peer->Fd);
  socket->Connections.remove_if(
      [Peer](const std::unique_ptr<Connection> &one) { return one.get() == Peer; });
  if (!socket->Stopped) {
    OpenNext(socket);
  } else if (socket->Connections.empty()) {
    std::function<void()> then = std::move(socket->Stopped);
    delete socket;
    then();
  }
}

// ---- To the controller ----

static void SendPackets(Connection *Peer) {
  while (!Peer->Packets.empty()) {
    const std::vector<uint8_t> &packet = Peer->Packets.front();
    ssize_t sent = send(Peer->Fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR)) {
      LoopFdWait(Peer->Watch, LoopWait::Writable, [Peer]() {
        SendPackets(Peer);
        StartReads(Peer);
        ReceivePackets(Peer);
      });
      return;
    }
    if (sent < 0 && errno == EMSGSIZE) {
      HostLog(Peer->Socket->Options.PortName, "a frame of %zu bytes is too long for the controller",
              packet.size());
    } else if (sent < 0) {
      Peer->PeerGone = true;  // what it sent before is still read
      Peer->Packets.clear();
      return;
    }
    Peer->Packets.pop_front();
  }
}

static void QueueRecord(Connection *Peer, uint32_t Type, NTSTATUS Status, ULONG_PTR Information) {
  ControlRecord record = {sizeof(record), Type, static_cast<uint32_t>(Status),
                          static_cast<uint32_t>(Information)};
  auto *bytes = reinterpret_cast<uint8_t *>(&record);
  if (!Peer->PeerGone && Peer->State != ConnectionState::Leaving) {
    Peer->Packets.emplace_back(bytes, bytes + sizeof(record));
  }
}

static void ReadDone(FrameRead *Read) {
  Connection *peer = Read->Owner;
  Read->Busy = false;
  if (peer->State != ConnectionState::Open) {
    EndWhenIdle(peer);
    return;
  }
  const std::vector<uint8_t> &bytes = Read->Request.Buffer;
  uint32_t needed = 0;
  peer->ReadsRefused = false;
  switch (Read->Request.Iosb.Status) {
  case STATUS_SUCCESS:
    if (!peer->PeerGone) {
      auto end = bytes.begin() + static_cast<ptrdiff_t>(Read->Request.Iosb.Information);
      peer->Packets.emplace_back(bytes.begin(), end);
    }
    break;
  case STATUS_BUFFER_OVERFLOW:
    memcpy(&needed, bytes.data(), sizeof(needed));
    peer->ReadBytes = std::max<size_t>(peer->ReadBytes, needed);
    break;
  case STATUS_BUFFER_TOO_SMALL:
    peer->ReadBytes *= 2;
    break;
  case STATUS_CANCELLED:
    break;  // the pipe was flushed, by somebody else's refused open
  default:
    peer->ReadsRefused = true;
    break;
  }
  SendPackets(peer);
  if (!peer->ReadsRefused) {
    StartReads(peer);
  }
}

// Keeps reads waiting in the driver. A read that ends at once stops the round: what comes next
// depends on how it ended.
static void StartReads(Connection *Peer) {
  for (FrameRead &read : Peer->Reads) {
    if (Peer->State != ConnectionState::Open || Peer->Packets.size() >= PacketsMost) {
      return;
    }
    if (read.Busy) {
      continue;
    }
    read.Owner = Peer;
    read.Busy = true;
    read.Request.Major = IRP_MJ_READ;
    read.Request.Buffer.resize(Peer->ReadBytes);
    read.Request.Context = &read;
    read.Request.OnDone = [](FileRequest *, void *Context) {
      auto *done = static_cast<FrameRead *>(Context);
      LoopPost([done]() { ReadDone(done); });
    };
    if (FileSend(Peer->Handle, &read.Request) != STATUS_PENDING) {
      return;
    }
    Peer->ReadsRefused = false;
  }
}

// ---- From the controller ----

static void Retire(WrittenFrame *Frame) {
  Connection *peer = Frame->Owner;
  delete Frame;
  --peer->Frames;
  ReceivePackets(peer);
  EndWhenIdle(peer);
}

static void FrameDone(WrittenFrame *Frame) {
  Connection *peer = Frame->Owner;
  const IO_STATUS_BLOCK &result = Frame->Request.Iosb;
  QueueRecord(peer, RECORD_COMPLETION, result.Status, result.Information);
  SendPackets(peer);
  StartReads(peer);  // the frame may have been the one that allows them
  Frame->Completed = true;
  if (Frame->Sent) {
    Retire(Frame);
  }
}

// In the connection's task.
static void SendFrame(WrittenFrame *Frame) {
  if (!Frame->Owner->Forced) {
    Frame->Request.Major = IRP_MJ_WRITE;
    Frame->Request.Context = Frame;
    Frame->Request.OnDone = [](FileRequest *, void *Context) {
      auto *done = static_cast<WrittenFrame *>(Context);
      LoopPost([done]() { FrameDone(done); });
    };
    FileSend(Frame->Owner->Handle, &Frame->Request);
  } else {
    Frame->Completed = true;
  }
  LoopPost([Frame]() {
    Frame->Sent = true;
    if (Frame->Completed) {
      Retire(Frame);
    }
  });
}

enum class Received { Frame, TooLong, Nothing, End };

static Received ReceivePacket(Connection *Peer, std::vector<uint8_t> *Bytes) {
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  Bytes->resize(CONTROL_FRAME_MOST);
  iovec part = {Bytes->data(), Bytes->size()};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  ssize_t bytes = recvmsg(Peer->Fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (bytes < 0) {
    return errno == EAGAIN || errno == EINTR ? Received::Nothing : Received::End;
  }
  // An empty packet and the end both have no bytes; but every packet carries credentials.
  if (bytes == 0 && message.msg_controllen == 0) {
    return Received::End;
  }
  Bytes->resize(static_cast<size_t>(bytes));
  return message.msg_flags & MSG_TRUNC ? Received::TooLong : Received::Frame;
}

static void TakeFrame(Connection *Peer, std::vector<uint8_t> Bytes) {
  auto *frame = new WrittenFrame;
  frame->Owner = Peer;
  frame->Request.Buffer = std::move(Bytes);
  Peer->ToSend.push_back(frame);
  ++Peer->Frames;
  KeSetEvent(&Peer->Work, IO_NO_INCREMENT, FALSE);
}

static void ReceivePackets(Connection *Peer) {
  while (Peer->State == ConnectionState::Open && Peer->Frames < FramesMost &&
         Peer->Packets.size() < PacketsMost) {
    std::vector<uint8_t> bytes;
    switch (ReceivePacket(Peer, &bytes)) {
    case Received::Frame:
      TakeFrame(Peer, std::move(bytes));
      break;
    case Received::TooLong:
      QueueRecord(Peer, RECORD_COMPLETION, STATUS_INVALID_PARAMETER, 0);
      SendPackets(Peer);
      break;
    case Received::Nothing:
      LoopFdWait(Peer->Watch, LoopWait::Readable, [Peer]() { ReceivePackets(Peer); });
      return;
    case Received::End:
      Leave(Peer);
      return;
    }
  }
}

// ---- Opening ----

static void Opened(Connection *Peer) {
  bool granted = NT_SUCCESS(Peer->OpenStatus);
  QueueRecord(Peer, RECORD_OPEN_RESULT, Peer->OpenStatus, 0);
  SendPackets(Peer);
  if (!granted) {
    Peer->State = ConnectionState::Ended;
    return;
  }
  Peer->State = ConnectionState::Open;
  if (Peer->Forced) {
    Leave(Peer);
    return;
  }
  // Full queues stop the reading of the socket; that the controller is gone is to be seen anyway.
  LoopFdWait(Peer->Watch, LoopWait::HangUp, [Peer]() {
    Peer->PeerGone = true;
    Peer->Packets.clear();
    StartGrace(Peer);
    ReceivePackets(Peer);
  });
  StartReads(Peer);
  ReceivePackets(Peer);
}

// The connection's task.
static void Serve(Connection *Peer) {
  Peer->OpenStatus = FileOpen(Peer->Socket->Options.DeviceName, Peer->Who, &Peer->Handle);
  LoopPost([Peer]() { Opened(Peer); });
  if (!NT_SUCCESS(Peer->OpenStatus)) {
    return;
  }
  while (Peer->State != ConnectionState::Ended) {
    KeWaitForSingleObject(&Peer->Work, Executive, KernelMode, FALSE, nullptr);
    while (!Peer->ToSend.empty()) {
      WrittenFrame *frame = Peer->ToSend.front();
      Peer->ToSend.pop_front();
      SendFrame(frame);
    }
  }
  FileClose(Peer->Handle);
}

// Whether the peer has hung up, whatever is still to be read from it.
static bool HungUp(const Connection *Peer) {
  pollfd state = {Peer->Fd, POLLRDHUP, 0};
  return poll(&state, 1, 0) > 0 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

// Whether somebody is about to give the device back.
static bool SomebodyLeaves(ControlSocket *Socket) {
  bool leaves = false;
  for (const std::unique_ptr<Connection> &peer : Socket->Connections) {
    bool leaving = peer->State == ConnectionState::Leaving ||
                   (peer->State != ConnectionState::Waiting && HungUp(peer.get()));
    if (leaving && peer->GraceOver && !peer->Forced) {
      Force(peer.get());
    }
    leaves |= leaving || peer->State == ConnectionState::Ended;
  }
  return leaves;
}

// Opens the device for those who wait, but not while somebody leaves: a controller that is started
// right after another has ended is not to be refused because of it.
static void OpenNext(ControlSocket *Socket) {
  if (Socket->Stopped) {
    return;
  }
  for (const std::unique_ptr<Connection> &waiting : Socket->Connections) {
    Connection *peer = waiting.get();
    if (peer->State != ConnectionState::Waiting) {
      continue;
    }
    if (SomebodyLeaves(Socket)) {
      return;
    }
    peer->State = ConnectionState::Opening;
    LoopTask(
        "controller", [peer]() { Serve(peer); }, [peer]() { Forget(peer); });
  }
}

static Account AccountOf(int Fd) {
  ucred peer = {};
  socklen_t length = sizeof(peer);
  if (getsockopt(Fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
    return Account::User;
  }
  return peer.uid == 0 || peer.uid == geteuid() ? Account::LocalSystem : Account::User;
}

static void AcceptAll(ControlSocket *Socket) {
  int fd;
  int on = 1;
  while ((fd = accept4(Socket->Fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0) {
    setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));
    auto peer = std::make_unique<Connection>();
    peer->Socket = Socket;
    peer->Fd = fd;
    peer->Watch = LoopFdAdd(fd);
    peer->Who = AccountOf(fd);
    KeInitializeEvent(&peer->Work, SynchronizationEvent, FALSE);
    Socket->Connections.push_back(std::move(peer));
  }
  OpenNext(Socket);
  LoopFdWait(Socket->Watch, LoopWait::Readable, [Socket]() { AcceptAll(Socket); });
}

// Returns an errno value.
static int Listen(ControlSocket *Socket) {
  const std::string &path = Socket->Options.SocketPath;
  sockaddr_un address = {};
  int on = 1;
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return ENAMETOOLONG;
  }
  memcpy(address.sun_path, path.c_str(), path.size() + 1);
  Socket->Fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (Socket->Fd < 0 || setsockopt(Socket->Fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0 ||
      bind(Socket->Fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
      listen(Socket->Fd, 16) != 0) {
    return errno;
  }
  return 0;
}

ControlSocket *ControlSocketMake(const ControlSocketOptions &Options, std::string *Error) {
  auto *socket = new ControlSocket;
  socket->Options = Options;
  int error = Listen(socket);
  if (error) {
    *Error = Options.SocketPath + ": " + strerror(error);
    if (socket->Fd >= 0) {
      close(socket->Fd);
    }
    delete socket;
    return nullptr;
  }
  socket->Watch = LoopFdAdd(socket->Fd);
  AcceptAll(socket);
  return socket;
}

void ControlSocketStop(ControlSocket *Socket, std::function<void()> Then) {
  unlink(Socket->Options.SocketPath.c_str());
  LoopFdRemove(Socket->Watch);
  close(Socket->Fd);
  Socket->Stopped = std::move(Then);
  std::vector<Connection *> waiting;
  for (const std::unique_ptr<Connection> &peer : Socket->Connections) {
    if (peer->State == ConnectionState::Waiting) {
      waiting.push_back(peer.get());
    } else {
      Force(peer.get());
    }
  }
  // Not in the caller's stack: what it does next may rely on not having been called back yet.
  if (Socket->Connections.size() == waiting.size()) {
    LoopPost([Socket, waiting]() {
      if (waiting.empty()) {
        std::function<void()> then = std::move(Socket->Stopped);
        delete Socket;
        then();
      }
      for (Connection *peer : waiting) {
        Forget(peer);
      }
    });
  } else {
    for (Connection *peer : waiting) {
      Forget(peer);
    }
  }
}
