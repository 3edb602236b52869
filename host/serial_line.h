// A Linux tty as a serial line: finding out whether it can be had, its settings, its modem lines.
// Results are 0 or an errno value. No kernel type.
#pragma once

#include <cstdint>
#include <string>

enum : uint8_t { PARITY_NONE = 0, PARITY_ODD, PARITY_EVEN, PARITY_MARK, PARITY_SPACE };
enum : uint8_t { STOP_BIT_1 = 0, STOP_BITS_1_5, STOP_BITS_2 };

struct LineSettings {
  uint32_t Speed = 9600;   // bits a second
  uint8_t WordLength = 8;  // 5 to 8
  uint8_t Parity = PARITY_NONE;
  uint8_t StopBits = STOP_BIT_1;
  bool HardwareFlow = false;  // RTS and CTS
  bool XonOut = false;        // what is sent stops at XOFF
  bool XonIn = false;         // XOFF is sent when too much comes in
  bool operator==(const LineSettings &) const = default;
};

// Opens the tty for this program alone: not as controlling terminal, not waiting, locked against
// others that ask. The settings are left as they are. A negative result is minus an errno value:
// EBUSY when another program has it, ENOTTY when it is no tty.
int TtyOpen(const std::string &Path);
// May block until the line has taken what is still to be sent.
void TtyClose(int Fd);
// What an errno value of TtyOpen means to a person.
std::string TtyErrorText(int Error);

int LineRead(int Fd, LineSettings *Settings);
// Changes Settings as Text says: a speed, a frame as 7E1 (bits, parity NOEMS, stop bits), or both
// with a comma between. False, and nothing changed, when it says something else.
bool LineParse(const std::string &Text, LineSettings *Settings);
// Sets the line: eight-bit clean, no echo, no signals, and Settings.
int LineApply(int Fd, const LineSettings &Settings);

// The same for a pty, through its master. The line discipline leaves all processing to the master
// (which in packet mode is told of every change that a client makes), and what the client has not
// read is thrown away.
int LineResetPty(int Master, const LineSettings &Settings);

int LineSetModem(int Fd, int Lines, bool On);  // TIOCM_DTR, TIOCM_RTS
int LineGetModem(int Fd, int *Lines);
int LineSetBreak(int Fd, bool On);
int LineFlush(int Fd, bool Input, bool Output);
// Bytes that wait in the kernel; 0 where the tty cannot say.
uint32_t LineInputWaiting(int Fd);
uint32_t LineOutputWaiting(int Fd);
