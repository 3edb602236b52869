#include "host/serial_line.h"

#include <cerrno>
#include <cstring>

// The kernel's own termios: unlike the C library's it carries any speed. The two headers exclude
// each other.
#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

int TtyOpen(const std::string &Path) {
  int fd = open(Path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return -errno;
  }
  int error = 0;
  termios2 line;
  if (ioctl(fd, TCGETS2, &line) != 0) {
    error = ENOTTY;
  } else if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    error = EBUSY;
  }
  if (error) {
    close(fd);
    return -error;
  }
  // Refuses other opens, where the tty knows how; the lock above covers those who ask for it.
  ioctl(fd, TIOCEXCL);
  return fd;
}

void TtyClose(int Fd) {
  // The mark belongs to the tty and would outlive this descriptor if another one is open.
  ioctl(Fd, TIOCNXCL);
  close(Fd);
}

std::string TtyErrorText(int Error) {
  switch (Error) {
  case ENOENT:
  case ENXIO:
  case ENODEV:
  case EIO:
    return "no such device";
  case EBUSY:
    return "in use by another program";
  case ENOTTY:
    return "not a serial device";
  case EACCES:
  case EPERM:
    return "permission denied";
  default:
    return strerror(Error);
  }
}

static uint8_t ParityOf(tcflag_t Flags) {
  if (!(Flags & PARENB)) {
    return PARITY_NONE;
  }
  if (Flags & CMSPAR) {
    return Flags & PARODD ? PARITY_MARK : PARITY_SPACE;
  }
  return Flags & PARODD ? PARITY_ODD : PARITY_EVEN;
}

static tcflag_t ParityFlags(uint8_t Parity) {
  constexpr tcflag_t Flags[] = {0, PARENB | PARODD, PARENB, PARENB | PARODD | CMSPAR,
                                PARENB | CMSPAR};
  return Flags[Parity];
}

int LineRead(int Fd, LineSettings *Settings) {
  constexpr tcflag_t Sizes[] = {CS5, CS6, CS7, CS8};
  termios2 line;
  if (ioctl(Fd, TCGETS2, &line) != 0) {
    return errno;
  }
  Settings->Speed = line.c_ospeed;
  for (uint8_t bits = 5; bits <= 8; ++bits) {
    if ((line.c_cflag & CSIZE) == Sizes[bits - 5]) {
      Settings->WordLength = bits;
    }
  }
  Settings->Parity = ParityOf(line.c_cflag);
  Settings->StopBits = line.c_cflag & CSTOPB ? STOP_BITS_2 : STOP_BIT_1;
  Settings->HardwareFlow = line.c_cflag & CRTSCTS;
  Settings->XonOut = line.c_iflag & IXON;
  Settings->XonIn = line.c_iflag & IXOFF;
  return 0;
}

// The code of a speed that has one; others are given as a number beside BOTHER. Programs that know
// only the codes can read those.
static tcflag_t SpeedCode(uint32_t Speed) {
  constexpr struct {
    uint32_t Speed;
    tcflag_t Code;
  } Codes[] = {
      {50, B50},           {75, B75},           {110, B110},         {134, B134},
      {150, B150},         {200, B200},         {300, B300},         {600, B600},
      {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
      {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
      {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
      {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
      {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
      {3500000, B3500000}, {4000000, B4000000},
  };
  for (const auto &one : Codes) {
    if (one.Speed == Speed) {
      return one.Code;
    }
  }
  return BOTHER;
}

// Everything but the control characters, which have no meaning on a raw line except START and STOP.
static void MakeRaw(termios2 *Line, const LineSettings &Settings) {
  constexpr tcflag_t Sizes[] = {CS5, CS6, CS7, CS8};
  Line->c_iflag = (Settings.XonOut ? IXON : 0) | (Settings.XonIn ? IXOFF : 0);
  Line->c_oflag = 0;
  Line->c_lflag = 0;
  Line->c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT) | CSIZE | CSTOPB | PARENB |
                                          PARODD | CMSPAR | CRTSCTS);
  Line->c_cflag |= SpeedCode(Settings.Speed) | CREAD | CLOCAL | Sizes[Settings.WordLength - 5] |
                   ParityFlags(Settings.Parity);
  Line->c_cflag |=
      (Settings.StopBits == STOP_BIT_1 ? 0 : CSTOPB) | (Settings.HardwareFlow ? CRTSCTS : 0);
  Line->c_ispeed = Settings.Speed;
  Line->c_ospeed = Settings.Speed;
  Line->c_cc[VMIN] = 1;
  Line->c_cc[VTIME] = 0;
}

int LineApply(int Fd, const LineSettings &Settings) {
  termios2 line;
  if (ioctl(Fd, TCGETS2, &line) != 0) {
    return errno;
  }
  MakeRaw(&line, Settings);
  return ioctl(Fd, TCSETS2, &line) != 0 ? errno : 0;
}

int LineResetPty(int Master, const LineSettings &Settings) {
  termios2 line;
  // What is on its way to the slave first, then, with the settings, what the slave has received.
  if (ioctl(Master, TCFLSH, TCOFLUSH) != 0 || ioctl(Master, TCGETS2, &line) != 0) {
    return errno;
  }
  MakeRaw(&line, Settings);
  line.c_lflag = EXTPROC;
  return ioctl(Master, TCSETSF2, &line) != 0 ? errno : 0;
}

int LineSetModem(int Fd, int Lines, bool On) {
  return ioctl(Fd, On ? TIOCMBIS : TIOCMBIC, &Lines) != 0 ? errno : 0;
}

int LineGetModem(int Fd, int *Lines) {
  return ioctl(Fd, TIOCMGET, Lines) != 0 ? errno : 0;
}

int LineSetBreak(int Fd, bool On) {
  return ioctl(Fd, On ? TIOCSBRK : TIOCCBRK) != 0 ? errno : 0;
}

int LineFlush(int Fd, bool Input, bool Output) {
  if (!Input && !Output) {
    return 0;
  }
  int queue = Input && Output ? TCIOFLUSH : Input ? TCIFLUSH : TCOFLUSH;
  return ioctl(Fd, TCFLSH, queue) != 0 ? errno : 0;
}

uint32_t LineInputWaiting(int Fd) {
  int bytes = 0;
  return ioctl(Fd, FIONREAD, &bytes) == 0 && bytes > 0 ? static_cast<uint32_t>(bytes) : 0;
}

uint32_t LineOutputWaiting(int Fd) {
  int bytes = 0;
  return ioctl(Fd, TIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<uint32_t>(bytes) : 0;
}

// "7E1": bits, parity and stop bits.
static bool ParseFrame(const std::string &Text, LineSettings *Settings) {
  static const std::string parities = "NOEMS";  // in the order of PARITY_...
  if (Text.size() != 3 || Text[0] < '5' || Text[0] > '8' || (Text[2] != '1' && Text[2] != '2')) {
    return false;
  }
  size_t parity = parities.find(Text[1]);
  if (parity == std::string::npos) {
    return false;
  }
  Settings->WordLength = static_cast<uint8_t>(Text[0] - '0');
  Settings->Parity = static_cast<uint8_t>(parity);
  Settings->StopBits = Text[2] == '1' ? STOP_BIT_1 : STOP_BITS_2;
  return true;
}

static bool ParseSpeed(const std::string &Text, LineSettings *Settings) {
  constexpr size_t digitsMost = 8;
  if (Text.empty() || Text.size() > digitsMost ||
      Text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  Settings->Speed = static_cast<uint32_t>(std::stoul(Text));
  return Settings->Speed != 0;
}

bool LineParse(const std::string &Text, LineSettings *Settings) {
  LineSettings parsed = *Settings;
  size_t comma = Text.find(',');
  bool fine = comma == std::string::npos ? ParseFrame(Text, &parsed) || ParseSpeed(Text, &parsed)
                                         : ParseSpeed(Text.substr(0, comma), &parsed) &&
                                               ParseFrame(Text.substr(comma + 1), &parsed);
  if (fine) {
    *Settings = parsed;
  }
  return fine;
}
