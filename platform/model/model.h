// The kernel model's control surface: everything that tests and the host program use. Driver code
// never includes from this folder; it sees the model only as platform/kernel.h.
#pragma once

#include "platform/kernel.h"

#include "platform/model/cancel_sweep.h"
#include "platform/model/event_log.h"
#include "platform/model/executor.h"
#include "platform/model/explore.h"
#include "platform/model/faults.h"
#include "platform/model/files.h"
#include "platform/model/io_manager.h"
#include "platform/model/objects.h"
#include "platform/model/pnp_manager.h"
#include "platform/model/pool.h"
#include "platform/model/power.h"
#include "platform/model/registry.h"
#include "platform/model/run.h"
#include "platform/model/verifier.h"
