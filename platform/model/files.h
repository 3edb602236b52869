// Handles, file objects and requests as a user of the system has them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/kernel.h"

enum class Account { LocalSystem, Administrator, User };

// Opens a device by name: follows links, checks DO_DEVICE_INITIALIZING, exclusivity and the
// account, makes a file object and sends a create to the top of the stack; waits for it. On
// success the handle is open. Buffering of later requests follows the top device's flags.
// Another thread may cancel the create of an open for which an Opening was given, which it has to
// keep until then: what comes of it the driver decides.
struct FileOpening {
  PIRP Irp = nullptr;  // while the create is on its way; guarded by the model
};
NTSTATUS FileOpen(const std::string &Name, Account Who, HANDLE *Handle,
                  FileOpening *Opening = nullptr);
// False when no create is on its way, or no routine was there to be called.
bool FileCancelOpen(FileOpening *Opening);

// Closes: at the last handle the cleanup goes to whatever is on top then, at the last reference
// the close. Requests still outstanding hold the file object. Waits for cleanup (and for the close
// when it goes out here).
// A null handle, of an open that failed, is left alone.
void FileClose(HANDLE Handle);
HANDLE FileDuplicate(HANDLE Handle);
PFILE_OBJECT FileObject(HANDLE Handle);

// One overlapped request. It belongs to its maker, stays where it is until Done, and may be reused
// after that. Buffer is the user's: bytes to write or the room to read into; for a device control
// the input, and on success replaced by the output.
struct FileRequest {
  UCHAR Major = IRP_MJ_READ;
  std::vector<uint8_t> Buffer;
  ULONG ControlCode = 0;
  ULONG OutputBytes = 0;  // device control: room for the answer

  // Called once when the request is finished (after the results below are set), in the context that
  // completed it, up to DISPATCH_LEVEL; it may not wait. Then Event is set.
  void (*OnDone)(FileRequest *Request, void *Context) = nullptr;
  void *Context = nullptr;

  KEVENT Event = {};
  IO_STATUS_BLOCK Iosb = {};
  NTSTATUS Returned = 0;  // what the top driver's dispatch routine returned
  bool Done = false;      // read with FileDone
  PIRP Irp = nullptr;     // while outstanding; guarded by the model
};

// Sends the request and returns what the driver returned. The top device's flags decide: system
// buffer, MDL (the user's bytes are locked in place) or the plain address. A zero-length request
// carries no buffer.
NTSTATUS FileSend(HANDLE Handle, FileRequest *Request);
bool FileDone(const FileRequest *Request);
// Waits until done and returns the final status.
NTSTATUS FileWait(FileRequest *Request);
// Asks for cancellation; false when it had already completed or no routine was there to be called.
bool FileCancel(FileRequest *Request);
// Cancels every outstanding request of the file object.
void FileCancelAll(HANDLE Handle);

// Send and wait.
NTSTATUS FileRead(HANDLE Handle, size_t Length, std::vector<uint8_t> *Bytes);
NTSTATUS FileWrite(HANDLE Handle, const std::vector<uint8_t> &Bytes, ULONG_PTR *Written = nullptr);
