#include "lifecycle/power.h"

#include "driver/extension.h"

NTSTATUS DispatchPower(PDEVICE_OBJECT Device, PIRP Irp) {
  PoStartNextPowerIrp(Irp);
  if (HeaderOf(Device)->Kind != KIND_FILTER) {
    NTSTATUS carried = Irp->IoStatus.Status;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    return carried;
  }
  IoSkipCurrentIrpStackLocation(Irp);
  return PoCallDriver(HeaderOf(Device)->LowerDevice, Irp);
}
