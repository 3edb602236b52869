#include "client/forward.h"

#include "driver/extension.h"
#include "driver/requests.h"

NTSTATUS ForwardToLower(PDEVICE_OBJECT LowerDevice, PIRP Irp, PDEVICE_OBJECT Device) {
  PVOID context = ReadPointerAcquire(&PortOf(Device)->LowerOpenContext);
  PFILE_OBJECT file = IoGetNextIrpStackLocation(Irp)->FileObject;
  // Without a lock: only a null FsContext is filled, and always with the same value while the real
  // port's open lasts.
  if (context != nullptr && file != nullptr && ReadPointerAcquire(&file->FsContext) == nullptr) {
    WritePointerRelease(&file->FsContext, context);
  }
  NTSTATUS status = IofCallDriver(LowerDevice, Irp);
  ReleaseRequest(Device, Irp);
  return status;
}

NTSTATUS SkipToLower(PDEVICE_OBJECT Device, PIRP Irp) {
  PDEVICE_OBJECT lower = LowerDeviceOf(Device);
  IoSkipCurrentIrpStackLocation(Irp);
  return ForwardToLower(lower, Irp, Device);
}
