#include "platform/model/forced.h"

#include "platform/model/guard.h"
#include "platform/model/paged_pool.h"
#include "platform/model/run.h"

bool PendingForced;
static ForcedOptions always;

void ForceAlways(const ForcedOptions &Options) {
  always = Options;
}

void ForcedBoot(const ForcedOptions &Options) {
  PendingForced = Options.Pending || always.Pending;
  PagedBoot((Options.PagedPool || always.PagedPool) && !ThreadsInUse);
}
