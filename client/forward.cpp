#include "client/forward.h"

#include "driver/extension.h"
#include "driver/requests.h"

NTSTATUS ForwardToLower(PDEVICE_OBJECT LowerDevice, PIRP Irp, PDEVICE_OBJECT Device) {
  PFILE_OBJECT file = IoGetNextIrpStackLocation(Irp)->FileObject;
  // Only a null FsContext is filled, and always with the same value while the open below lasts.
  if (file != nullptr && ReadPointerAcquire(&file->FsContext) == nullptr) {
    PVOID context = LowerOpenContextFor(PortOf(Device), LowerDevice);
    if (context != nullptr) {
      WritePointerRelease(&file->FsContext, context);
    }
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
