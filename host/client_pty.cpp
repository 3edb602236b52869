// How an open is noticed. A pty's master tells by a hang-up condition that nobody has the slave
// open, and it wakes up when the last slave is closed; but nothing wakes it when the slave is
// opened. The opens come from inotify on the slave's node. inotify alone would not do: it merges
// equal events that follow each other, so opens and closes cannot be counted. So an inotify event
// only starts a session, and the master's end of file, which comes after the last byte, ends it.
// The slave is opened and closed once at the beginning, which brings the hang-up condition about.
//
// The pty is in packet mode with EXTPROC set: the line discipline leaves the bytes alone whatever
// the client sets, and the master is woken by every change of the settings. A change is found by
// reading the settings after every read of bytes, and goes to the port before those bytes: they
// may have been written after it.
//
// A pty keeps eight data bits and no parity, whatever is asked of it. So only speed, stop bits and
// flow control follow the client; word length and parity are those of the options' line.
#include "host/client_pty.h"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include "host/event_loop.h"
#include "host/host_log.h"
#include "host/serial_codes.h"
#include "platform/model/model.h"

constexpr size_t ReadBytes = 4096;
constexpr size_t WriteBytes = 4096;
constexpr uint8_t UnknownStopBits = 0xFF;

// Closed -> Opening: an open was noticed. Opening -> Open: the port was opened; -> Closed: it was
// not. Open -> Closing: the client is gone and nothing is outstanding. Closing -> Closed.
enum class ClientState { Closed, Opening, Open, Closing };

struct ClientPty {
  ClientPtyOptions Options;
  int Master = -1;
  LoopFd *MasterWatch = nullptr;
  int Notify = -1;
  LoopFd *NotifyWatch = nullptr;
  int NotifyId = -1;

  ClientState State = ClientState::Closed;
  bool OpenSeen = false;  // an open that belongs to no session yet
  bool Leaving = false;   // the session ends as soon as nothing is outstanding
  bool HangUp = false;    // and whoever has the pty open is to see it
  HANDLE Handle = nullptr;
  NTSTATUS OpenStatus = STATUS_SUCCESS;

  FileRequest Read;
  bool Reading = false;
  std::vector<uint8_t> ToClient;  // from the port, not yet taken by the pty
  size_t Taken = 0;

  FileRequest Out;  // a write or a device control; one at a time keeps their order
  bool Sending = false;
  std::vector<uint8_t> FromClient;  // read from the pty, not yet sent
  LineSettings Told;                // what the port was told of the line

  std::function<void()> Stopped;  // set: the pty goes away
};

static void StartSession(ClientPty *Client);
static void PumpOut(ClientPty *Client);
static void StartRead(ClientPty *Client);

// ---- The pty ----

static void ClosePty(ClientPty *Client) {
  LoopFdRemove(Client->MasterWatch);
  Client->MasterWatch = nullptr;
  if (Client->Master >= 0) {
    close(Client->Master);
    Client->Master = -1;
  }
}

// Points the link at the slave, in one step when there is a link already.
static int LinkTo(const std::string &Slave, const std::string &Link) {
  std::string fresh = Link + ".new";
  unlink(fresh.c_str());
  if (symlink(Slave.c_str(), fresh.c_str()) != 0 || rename(fresh.c_str(), Link.c_str()) != 0) {
    return errno;
  }
  return 0;
}

static int PreparePty(ClientPty *Client) {
  char slave[64];
  int packets = 1;
  if (grantpt(Client->Master) != 0 || unlockpt(Client->Master) != 0 ||
      ptsname_r(Client->Master, slave, sizeof(slave)) != 0) {
    return errno;
  }
  int error = LineResetPty(Client->Master, Client->Told);
  if (error) {
    return error;
  }
  int peer = ioctl(Client->Master, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (peer < 0 || ioctl(Client->Master, TIOCPKT, &packets) != 0) {
    return errno;
  }
  close(peer);
  if (Client->NotifyId >= 0) {
    inotify_rm_watch(Client->Notify, Client->NotifyId);  // fails when the old slave is gone
  }
  Client->NotifyId = inotify_add_watch(Client->Notify, slave, IN_OPEN);
  return Client->NotifyId < 0 ? errno : LinkTo(slave, Client->Options.LinkPath);
}

// Makes a new pty in place of the present one, whose users see a hang-up: when the link leads to
// the new one, for they may come again at once. Returns an errno value.
static int RenewPty(ClientPty *Client) {
  int old = std::exchange(Client->Master, -1);
  LoopFdRemove(std::exchange(Client->MasterWatch, nullptr));
  Client->FromClient.clear();
  Client->Master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  int error = Client->Master < 0 ? errno : 0;
  if (!error) {
    Client->MasterWatch = LoopFdAdd(Client->Master);
    Client->OpenSeen = false;
    error = PreparePty(Client);
  }
  if (old >= 0) {
    close(old);
  }
  return error;
}

// Reads what inotify has to say; whether the slave was opened.
static bool TakeOpens(ClientPty *Client) {
  alignas(inotify_event) char events[4096];
  bool opened = false;
  ssize_t bytes;
  while ((bytes = read(Client->Notify, events, sizeof(events))) > 0) {
    for (char *at = events; at < events + bytes;) {
      auto *event = reinterpret_cast<inotify_event *>(at);
      opened |= (event->mask & IN_Q_OVERFLOW) ||
                ((event->mask & IN_OPEN) && event->wd == Client->NotifyId);
      at += sizeof(*event) + event->len;
    }
  }
  return opened;
}

// Whether somebody has the slave open, or had and left bytes.
static bool SomebodyThere(ClientPty *Client) {
  pollfd state = {Client->Master, POLLIN, 0};
  return poll(&state, 1, 0) < 0 || !(state.revents & POLLHUP) || (state.revents & POLLIN);
}

// Reads from the pty into FromClient. Returns 0, or why there is nothing.
static int ReadPty(ClientPty *Client) {
  uint8_t kind = TIOCPKT_DATA;
  Client->FromClient.resize(WriteBytes);
  iovec parts[] = {{&kind, 1}, {Client->FromClient.data(), WriteBytes}};
  ssize_t bytes = readv(Client->Master, parts, 2);
  int error = bytes < 0 ? errno : 0;
  // A packet of another kind tells of a change and has no bytes.
  bool data = bytes > 1 && kind == TIOCPKT_DATA;
  Client->FromClient.resize(data ? static_cast<size_t>(bytes) - 1 : 0);
  return error;
}

static void WatchOpens(ClientPty *Client) {
  LoopFdWait(Client->NotifyWatch, LoopWait::Readable, [Client]() {
    if (TakeOpens(Client)) {
      Client->OpenSeen = true;
    }
    WatchOpens(Client);
    if (Client->State == ClientState::Closed && Client->OpenSeen) {
      StartSession(Client);
    }
  });
}

// ---- A session ----

static void Destroy(ClientPty *Client) {
  std::function<void()> then = std::move(Client->Stopped);
  delete Client;
  then();
}

static void SessionClosed(ClientPty *Client) {
  Client->State = ClientState::Closed;
  Client->Leaving = false;
  Client->Handle = nullptr;
  if (Client->Stopped) {
    Destroy(Client);
    return;
  }
  if (std::exchange(Client->HangUp, false)) {
    int error = RenewPty(Client);
    if (error) {
      HostLog(Client->Options.PortName, "clients cannot open the port any more: %s",
              strerror(error));
    }
    return;
  }
  if (Client->OpenSeen || SomebodyThere(Client)) {
    StartSession(Client);
  }
}

// Goes on with the end of the session when nothing is outstanding any more.
static void CloseWhenIdle(ClientPty *Client) {
  if (!Client->Leaving || Client->Reading || Client->Sending ||
      Client->State != ClientState::Open) {
    return;
  }
  Client->State = ClientState::Closing;
  LoopTask(
      "client close", [Client]() { FileClose(Client->Handle); },
      [Client]() { SessionClosed(Client); });
}

// The client is gone and everything that it wrote was read. What the port had for it is dropped,
// and so is what it left unread in the pty.
static void Leave(ClientPty *Client) {
  Client->Leaving = true;
  Client->ToClient.clear();
  if (Client->Master >= 0) {
    LineSettings line;
    // The opens so far were this session's; whoever came in between is found by the pty's state.
    TakeOpens(Client);
    if (!SomebodyThere(Client) && LineRead(Client->Master, &line) == 0) {
      LineResetPty(Client->Master, line);
      // The reset is a change that the master is told of; left unread, it would look like bytes.
      ReadPty(Client);
    }
    Client->OpenSeen = !Client->FromClient.empty() || SomebodyThere(Client);
  }
  if (Client->Reading) {
    FileCancel(&Client->Read);
  }
  CloseWhenIdle(Client);
}

static void LeaveWithHangUp(ClientPty *Client) {
  Client->HangUp = true;
  ClosePty(Client);
  Leave(Client);
}

static void SessionOpened(ClientPty *Client) {
  if (!NT_SUCCESS(Client->OpenStatus)) {
    HostLog(Client->Options.PortName, "a client could not open the port: status 0x%08x",
            static_cast<unsigned>(Client->OpenStatus));
    Client->HangUp = true;
    SessionClosed(Client);
    return;
  }
  Client->State = ClientState::Open;
  // Tell the port these in any case, and with the stop bits the word length and the parity.
  Client->Told.Speed = 0;
  Client->Told.StopBits = UnknownStopBits;
  if (Client->Stopped) {
    Leave(Client);
    return;
  }
  StartRead(Client);
  PumpOut(Client);
}

static void StartSession(ClientPty *Client) {
  if (Client->Stopped || Client->Master < 0) {
    return;
  }
  Client->State = ClientState::Opening;
  Client->OpenSeen = false;
  LoopTask(
      "client open",
      [Client]() {
        Client->OpenStatus = FileOpen(Client->Options.DeviceName, Account::User, &Client->Handle);
      },
      [Client]() { SessionOpened(Client); });
}

// ---- From the client to the port ----

static void OutDone(ClientPty *Client) {
  Client->Sending = false;
  NTSTATUS status = Client->Out.Iosb.Status;
  if (!NT_SUCCESS(status) && !Client->Stopped) {
    bool write = Client->Out.Major == IRP_MJ_WRITE;
    HostLog(Client->Options.PortName, "%s failed: status 0x%08x",
            write ? "a client's write" : "a change of the line settings",
            static_cast<unsigned>(status));
  }
  PumpOut(Client);
  CloseWhenIdle(Client);
}

static void Send(ClientPty *Client, UCHAR Major, ULONG ControlCode, std::vector<uint8_t> Bytes) {
  Client->Sending = true;
  Client->Out.Major = Major;
  Client->Out.ControlCode = ControlCode;
  Client->Out.Buffer = std::move(Bytes);
  Client->Out.Context = Client;
  Client->Out.OnDone = [](FileRequest *, void *Context) {
    auto *client = static_cast<ClientPty *>(Context);
    LoopPost([client]() { OutDone(client); });
  };
  FileSend(Client->Handle, &Client->Out);
}

template <typename Record>
static void SendControl(ClientPty *Client, ULONG ControlCode, const Record &Settings) {
  auto *bytes = reinterpret_cast<const uint8_t *>(&Settings);
  Send(Client, IRP_MJ_DEVICE_CONTROL, ControlCode, {bytes, bytes + sizeof(Settings)});
}

// Sends one setting that the port has not been told yet; false when it knows them all.
static bool SendSetting(ClientPty *Client) {
  LineSettings line;
  LineSettings *told = &Client->Told;
  if (LineRead(Client->Master, &line) != 0) {
    return false;
  }
  if (line.Speed != told->Speed && line.Speed != 0) {
    told->Speed = line.Speed;
    SendControl(Client, IOCTL_SERIAL_SET_BAUD_RATE, SERIAL_BAUD_RATE{line.Speed});
    return true;
  }
  if (line.StopBits != told->StopBits) {
    told->StopBits = line.StopBits;
    SendControl(Client, IOCTL_SERIAL_SET_LINE_CONTROL,
                SERIAL_LINE_CONTROL{told->StopBits, told->Parity, told->WordLength});
    return true;
  }
  if (line.HardwareFlow != told->HardwareFlow || line.XonOut != told->XonOut ||
      line.XonIn != told->XonIn) {
    told->HardwareFlow = line.HardwareFlow;
    told->XonOut = line.XonOut;
    told->XonIn = line.XonIn;
    SERIAL_HANDFLOW flow = {SERIAL_DTR_CONTROL, SERIAL_RTS_CONTROL, 0, 0};
    flow.ControlHandShake |= line.HardwareFlow ? SERIAL_CTS_HANDSHAKE : 0;
    flow.FlowReplace |= line.HardwareFlow ? SERIAL_RTS_HANDSHAKE : 0;
    flow.FlowReplace |= line.XonOut ? SERIAL_AUTO_TRANSMIT : 0;
    flow.FlowReplace |= line.XonIn ? SERIAL_AUTO_RECEIVE : 0;
    SendControl(Client, IOCTL_SERIAL_SET_HANDFLOW, flow);
    return true;
  }
  return false;
}

static void PumpOut(ClientPty *Client) {
  while (Client->State == ClientState::Open && !Client->Leaving && !Client->Sending) {
    if (SendSetting(Client)) {
      return;
    }
    if (!Client->FromClient.empty()) {
      Send(Client, IRP_MJ_WRITE, 0, std::exchange(Client->FromClient, {}));
      return;
    }
    int error = ReadPty(Client);
    if (error == EAGAIN || error == EINTR) {
      LoopFdWait(Client->MasterWatch, LoopWait::Readable, [Client]() { PumpOut(Client); });
      return;
    }
    if (error) {
      Leave(Client);
    }
  }
}

// ---- From the port to the client ----

static void PushToClient(ClientPty *Client) {
  while (Client->Taken < Client->ToClient.size()) {
    ssize_t bytes = write(Client->Master, Client->ToClient.data() + Client->Taken,
                          Client->ToClient.size() - Client->Taken);
    if (bytes < 0 && (errno == EAGAIN || errno == EINTR)) {
      LoopFdWait(Client->MasterWatch, LoopWait::Writable, [Client]() { PushToClient(Client); });
      return;
    }
    if (bytes < 0) {
      break;  // nobody is there to take them; the read side finds out
    }
    Client->Taken += static_cast<size_t>(bytes);
  }
  Client->ToClient.clear();
  StartRead(Client);
}

static void ReadDone(ClientPty *Client) {
  Client->Reading = false;
  NTSTATUS status = Client->Read.Iosb.Status;
  if (Client->Leaving) {
    CloseWhenIdle(Client);
    return;
  }
  if (NT_SUCCESS(status)) {
    auto bytes = Client->Read.Buffer.begin();
    Client->ToClient.assign(bytes, bytes + static_cast<ptrdiff_t>(Client->Read.Iosb.Information));
    Client->Taken = 0;
    PushToClient(Client);
  } else if (status == STATUS_CANCELLED) {
    StartRead(Client);  // a purge, or somebody else's refused open, ends a waiting read
  } else {
    HostLog(Client->Options.PortName, "a client's read failed: status 0x%08x",
            static_cast<unsigned>(status));
    LeaveWithHangUp(Client);
  }
}

static void StartRead(ClientPty *Client) {
  if (Client->State != ClientState::Open || Client->Leaving || Client->Reading) {
    return;
  }
  Client->Reading = true;
  Client->Read.Major = IRP_MJ_READ;
  Client->Read.Buffer.resize(ReadBytes);
  Client->Read.Context = Client;
  Client->Read.OnDone = [](FileRequest *, void *Context) {
    auto *client = static_cast<ClientPty *>(Context);
    LoopPost([client]() { ReadDone(client); });
  };
  FileSend(Client->Handle, &Client->Read);
}

// ---- Life ----

ClientPty *ClientPtyMake(const ClientPtyOptions &Options, std::string *Error) {
  auto *client = new ClientPty;
  client->Options = Options;
  client->Told = Options.Line;
  client->Notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  int error = client->Notify < 0 ? errno : RenewPty(client);
  if (error) {
    *Error = Options.LinkPath + ": " + strerror(error);
    ClosePty(client);
    close(client->Notify);
    delete client;
    return nullptr;
  }
  client->NotifyWatch = LoopFdAdd(client->Notify);
  WatchOpens(client);
  return client;
}

void ClientPtyStop(ClientPty *Client, std::function<void()> Then) {
  Client->Stopped = std::move(Then);
  unlink(Client->Options.LinkPath.c_str());
  LoopFdRemove(Client->NotifyWatch);
  close(Client->Notify);
  ClosePty(Client);
  if (Client->State == ClientState::Closed) {
    // Not in the caller's stack: what it does next may rely on not having been called back yet.
    LoopPost([Client]() { Destroy(Client); });
  } else if (Client->State == ClientState::Open) {
    FileCancelAll(Client->Handle);
    Leave(Client);
  }
}
