// What the scenarios are made of: handles, overlapped requests that are waited for with a limit,
// frames, and expectations, of which the first that fails is told.
#pragma once

#include "controller/frame_format.h"
#include "windows/nt/user/nt.h"

constexpr ULONG IO_BYTES = 4096;
constexpr ULONG WAIT_MS = 10'000;  // for what has to happen

// One request. Lives until it is done: VxWait, or VxCancel.
struct Io {
  IO_STATUS_BLOCK Iosb;
  HANDLE Event;
  UCHAR Bytes[IO_BYTES];
};

// A line of the debug log.
void VxLog(const char *Format, ...);

// The first expectation that fails is kept for the line that tells of the scenario.
void VxExpect(bool Holds, const char *What, const char *File, int Line, ULONG Value);
#define EXPECT(condition) VxExpect(condition, #condition, __FILE_NAME__, __LINE__, 0)
#define EXPECT_STATUS(status, expected)                                           \
  do {                                                                            \
    NTSTATUS is = (status);                                                       \
    VxExpect(is == (expected), #status " is " #expected, __FILE_NAME__, __LINE__, \
             static_cast<ULONG>(is));                                             \
  } while (0)
// What failed, or null.
const char *VxFirstFailure();
void VxForgetFailure();

void VxSleep(ULONG Milliseconds);

// Opens for overlapped requests; null when it is refused.
HANDLE VxOpen(PCWSTR Name, NTSTATUS *Status);
void VxClose(HANDLE *Handle);

// What the request returned at once.
NTSTATUS VxRead(HANDLE File, Io *Io, ULONG Length);
NTSTATUS VxWrite(HANDLE File, Io *Io, const void *Bytes, ULONG Length);
NTSTATUS VxControl(HANDLE File, Io *Io, ULONG Code, const void *Input, ULONG InputLength,
                   ULONG OutputLength);
// The final status, or STATUS_TIMEOUT when it does not come.
NTSTATUS VxWait(Io *Io, ULONG Milliseconds = WAIT_MS);
// Cancels all of this thread's on the handle.
void VxCancel(HANDLE File);
// Starts and waits.
NTSTATUS VxWriteAll(HANDLE File, const void *Bytes, ULONG Length);

// Writes a control frame; the write's final status.
NTSTATUS VxCommand(HANDLE Zk, ULONG Command, ULONG Tag, ULONG Argument = 0);
NTSTATUS VxDataFrame(HANDLE Zk, const void *Bytes, ULONG Length);
// Reads a frame: its header, and its payload in Io->Bytes behind it.
FrameHeader VxFrame(HANDLE Zk, Io *Io);
ULONG VxValue(const Io *Io);  // of a reply
