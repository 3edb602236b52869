// Port modes, the port state flags, and the proxy state that follows from them.
//
// The mode decides where the client's data goes; the flags say who has the port open, whether the
// mode is NORMAL and whether the stream is locked. Of the 32 combinations of flags ten are valid,
// and each names the proxy state under which the proxy read engine works.
//
// Everything here runs as the port's serializer item, or in the completion of its request.
#pragma once

#include "controller/frame_format.h"
#include "driver/extension.h"
#include "platform/kernel.h"

// "INVALID" to "REDIRECT", "ILLEGAL MODE" for any other value.
PCWSTR ModeName(ULONG Mode);

// STATUS_NOT_SUPPORTED for MODE_REDIRECT, STATUS_INVALID_PARAMETER for an unknown mode, or the
// refusal of the flags that the mode would give; a refused change changes nothing.
NTSTATUS SetPortMode(PortExtension *Port, ULONG Mode) REQUIRES(SerializerRole);

// Brings the proxy state in line with flags that are already stored; Device is who it is traced
// and reported for. STATUS_UNSUCCESSFUL when the combination is not valid: the proxy state stays.
NTSTATUS SetPortFlags(PDEVICE_OBJECT Device, ULONG Flags) REQUIRES(SerializerRole);

// Stores the flags and brings the proxy state in line.
NTSTATUS ApplyStateFlags(PortExtension *Port, PDEVICE_OBJECT Device, ULONG Flags)
    REQUIRES(SerializerRole);
