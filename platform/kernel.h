// The boundary: the only kernel header that driver code includes.
//
// On Windows it is the driver kit's own headers with what they lack; on the host it is the same
// names, records, values and signatures, served by the kernel model. Driver sources compile
// unchanged against both.
#pragma once

#include "platform/annotations.h"

#if defined(_WIN32)
#include "platform/windows/ddk.h"
#else
#include "platform/kernel/io.h"
#include "platform/kernel/memory.h"
#include "platform/kernel/pnp.h"
#include "platform/kernel/rtl.h"
#include "platform/kernel/sync.h"
#include "platform/kernel/types.h"
#endif

#include "platform/atomics.h"
#include "platform/layout.h"
#include "platform/lists.h"
