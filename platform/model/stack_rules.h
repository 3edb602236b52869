// What a driver in the stack of a bus's device owes to the requests that travel the whole stack:
// Plug and Play, power, system control. Judged by what the packet carried when it came to the
// driver, when it was passed on, when it came back and when it left.
//
// The verifier's rules here:
//
//   pnp.not-forwarded             kept from the devices below
//   pnp.must-succeed              failed where a driver may not
//   pnp.status-changed            passed down failed; changed although the driver does not know the
//                                 request; came back as not supported although it had been
//                                 supported
//   power.not-forwarded power.failed power.status-changed   see power.h
//   system-control.not-forwarded  kept from the devices below, though meant for another device
#pragma once

#include "platform/model/packets.h"

// Whether packets of this major function are judged.
inline bool StackRulesApply(UCHAR Major) {
  return Major >= IRP_MJ_POWER && (Major == IRP_MJ_PNP || Major <= IRP_MJ_SYSTEM_CONTROL);
}

// Under RequestMutex. Irp leaves the hands of the driver at From for a device below.
void StackRulesPassDown(const LocationShadow *From, PIRP Irp);
// Under RequestMutex. The current location At is completed, its own record still as it was.
void StackRulesLeave(const LocationShadow *At, PIRP Irp);
