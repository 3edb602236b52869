// The Plug and Play manager's requests, one by one, and what must be true of their answers.
//
// The verifier's rules here:
//
//   pnp.bad-relations      relations that do not name what they should, or not in the way they
//   should pnp.bad-capabilities   capabilities of another size or version, or with impossible
//   states pnp.bad-answer         an identifier, text or other answer that is too short or
//   malformed
//
// Warnings: pnp.child-must-succeed.
#pragma once

#include <vector>

#include "platform/kernel.h"

// All go to the top of the stack of the device that is asked, with STATUS_NOT_SUPPORTED.
NTSTATUS PnpSendPlain(PDEVICE_OBJECT Device, UCHAR Minor);
// To a child: a failure where there must be none is a warning.
NTSTATUS PnpSendToChild(PDEVICE_OBJECT Child, UCHAR Minor);

// Whether there was an answer. What it says is checked and not used.
bool PnpAskId(PDEVICE_OBJECT Device, BUS_QUERY_ID_TYPE Type);
void PnpAskText(PDEVICE_OBJECT Device, DEVICE_TEXT_TYPE Type);
void PnpAskBusInformation(PDEVICE_OBJECT Device);
void PnpAskState(PDEVICE_OBJECT Device);
void PnpAskResources(PDEVICE_OBJECT Device);
void PnpFilterResources(PDEVICE_OBJECT Device);
void PnpAskInterface(PDEVICE_OBJECT Device);
void PnpNotifyUsage(PDEVICE_OBJECT Device);
NTSTATUS PnpAskCapabilities(PDEVICE_OBJECT Device, PDEVICE_CAPABILITIES Capabilities);

// The devices that the relations name, referenced for the caller; Known are those to which the
// caller has a reference already. A failure names none.
NTSTATUS PnpAskRelations(PDEVICE_OBJECT Device, DEVICE_RELATION_TYPE Type,
                         const std::vector<PDEVICE_OBJECT> &Known,
                         std::vector<PDEVICE_OBJECT> *Related);
