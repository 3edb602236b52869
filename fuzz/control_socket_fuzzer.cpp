// The host's control socket: controllers that connect and leave at any time and send packets of any
// size and content, while the port takes, holds or fails what comes through. The host's own code
// runs over its event loop, the model with the driver and a scripted port, all in one process.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "fuzz/input.h"
#include "host/control_record.h"
#include "host/control_socket.h"
#include "host/event_loop.h"
#include "host/host_log.h"
#include "tests/support/world.h"

constexpr size_t PeerCount = 3;
constexpr unsigned StepsMost = 200;

void HostLog(const std::string &, const char *, ...) {
}

struct Peer {
  int Fd = -1;
  size_t Sent = 0, Completed = 0;  // packets
  bool Greeted = false;            // the result of the open has come
};

struct Program {
  ::World World;
  ControlSocket *Socket = nullptr;
  Peer Peers[PeerCount];
  Input Input;
  unsigned Steps = 0;
};
static Program *Now;
static std::string Path;

static void Connect(Peer *Peer) {
  if (Peer->Fd < 0) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    *Peer = {};
    Peer->Fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (connect(Peer->Fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
      close(std::exchange(Peer->Fd, -1));  // too many are waiting
    }
  }
}

static void Disconnect(Peer *Peer) {
  if (Peer->Fd >= 0) {
    close(std::exchange(Peer->Fd, -1));
  }
}

static void Send(Peer *Peer, const std::string &Bytes) {
  if (Peer->Fd >= 0 && send(Peer->Fd, Bytes.data(), Bytes.size(), MSG_NOSIGNAL) >= 0) {
    ++Peer->Sent;
  }
}

// The result of the open comes first and once; each packet is completed once; frames are whole.
static void CheckPacket(Peer *Peer, const char *Bytes, size_t Size) {
  ControlRecord record = {};
  Require(Size >= sizeof(record), "a packet is too short");
  memcpy(&record, Bytes, sizeof(record));
  Require(record.Length == Size, "a packet's length is wrong");
  Require((record.Type == RECORD_OPEN_RESULT) == !Peer->Greeted, "no greeting, or another one");
  Peer->Greeted = true;
  if (record.Type == RECORD_COMPLETION) {
    Require(++Peer->Completed <= Peer->Sent, "more packets are completed than were sent");
  } else if (record.Type != RECORD_OPEN_RESULT) {
    Require(record.Type == FRAME_REPORT || record.Type == FRAME_CONTROL_REPLY, "no frame of ours");
  }
}

static void Receive(Peer *Peer, unsigned Count) {
  static char bytes[CONTROL_FRAME_MOST + 4096];
  while (Peer->Fd >= 0 && Count-- > 0) {
    ssize_t size = recv(Peer->Fd, bytes, sizeof(bytes), MSG_DONTWAIT);
    if (size <= 0) {
      return;
    }
    CheckPacket(Peer, bytes, static_cast<size_t>(size));
  }
}

static std::string TakePacket(Input *Input) {
  size_t length = TakeByte(Input);
  length = length < 250 ? length : (length - 249) * 16000;  // up to more than a frame may have
  std::string bytes = TakeText(Input, length);
  bytes.resize(length);
  if (length >= sizeof(FrameHeader) && bytes[0] != 0) {
    uint32_t claimed = static_cast<uint32_t>(length);
    memcpy(bytes.data(), &claimed, sizeof(claimed));
  }
  return bytes;
}

static void TouchPort(LowerPort *Port, uint8_t How) {
  UCHAR major = (How & 1) != 0 ? IRP_MJ_WRITE : IRP_MJ_READ;
  switch (How / 2 % 4) {
  case 0:
    LowerFeed(Port, std::string(How, 'p'));
    break;
  case 1:
    LowerFinish(Port, major, (How & 8) != 0 ? STATUS_DEVICE_NOT_CONNECTED : STATUS_SUCCESS, "f");
    break;
  case 2:
    Port->How[IRP_MJ_WRITE] = (How & 8) != 0 ? Behaviour::Pend : Behaviour::Inline;
    break;
  default:
    Port->How[IRP_MJ_CREATE] = (How & 8) != 0 ? Behaviour::Pend : Behaviour::Inline;
    LowerFinish(Port, IRP_MJ_CREATE, (How & 16) != 0 ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS);
    break;
  }
}

static void End() {
  LowerPort *port = &Now->World.Lower;
  port->How[IRP_MJ_CREATE] = Behaviour::Inline;
  while (LowerFinish(port, IRP_MJ_CREATE)) {
  }
  ControlSocketStop(Now->Socket, [] {
    LoopTask(
        "end", [] { WorldEnd(&Now->World); }, LoopEnd);
  });
}

static void Step() {
  Input *input = &Now->Input;
  if (input->Left == 0 || ++Now->Steps > StepsMost) {
    End();
    return;
  }
  uint8_t what = TakeByte(input);
  Peer *peer = &Now->Peers[what / 8 % PeerCount];
  switch (what % 8) {
  case 0:
    Connect(peer);
    break;
  case 1:
    Disconnect(peer);
    break;
  case 2:
    Send(peer, TakePacket(input));
    break;
  case 3:
  case 4: {
    ULONG type = TakeByte(input), tag = TakeByte(input), code = TakeByte(input);
    Send(peer, MakeFrame(type, tag, code, MakeArgument(TakeByte(input))));
    break;
  }
  case 5:
    Receive(peer, TakeByte(input));
    break;
  case 6:
    TouchPort(&Now->World.Lower, TakeByte(input));
    break;
  default:
    if (peer->Fd >= 0) {
      shutdown(peer->Fd, (what & 64) != 0 ? SHUT_RD : SHUT_WR);
    }
    break;
  }
  LoopPost(Step);
}

static void Begin() {
  std::string error;
  Now->Socket = ControlSocketMake({"COM3", Path, "\\DosDevices\\VORLIX_COM3"}, &error);
  Require(Now->Socket != nullptr, error.c_str());
  Step();
}

static void Play() {
  LoopOpen();
  LoopTask(
      "start",
      [] {
        WorldLoad(&Now->World);
        Require(WorldAdd(&Now->World) == STATUS_SUCCESS, "the port does not start");
      },
      Begin);
  LoopRun();
  LoopClose();
}

static void MakePath() {
  char directory[] = "/tmp/control-socket-XXXXXX";
  Require(mkdtemp(directory) != nullptr, "no temporary directory");
  Path = std::string(directory) + "/socket";
  atexit([] { rmdir(Path.substr(0, Path.rfind('/')).c_str()); });
}

static int NextDescriptor() {
  int next = dup(STDERR_FILENO);
  close(next);
  return next;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *Data, size_t Size) {
  if (Path.empty()) {
    MakePath();
  }
  int before = NextDescriptor();
  Program program;
  program.Input = {Data, Size};
  Now = &program;
  RunOptions options;
  options.RealClock = true;
  RequireNotStopped(ModelRun(options, Play));
  for (Peer &peer : program.Peers) {
    Receive(&peer, 1000);
    Disconnect(&peer);
  }
  Require(NextDescriptor() == before, "a descriptor is left open");
  return 0;
}
