#include "platform/model/irql.h"

#include "platform/model/paged_pool.h"
#include "platform/model/thread_object.h"
#include "platform/model/verifier.h"

KIRQL KeGetCurrentIrql(void) {
  return ThreadSelf()->Irql;
}

KIRQL IrqlRaise(KIRQL NewIrql) {
  PKTHREAD self = ThreadSelf();
  KIRQL before = self->Irql;
  if (NewIrql < before) {
    VerifierStop("irql.wrong-raise", nullptr, "raised from %u to %u", before, NewIrql);
  }
  self->Irql = NewIrql;
  if (NewIrql >= DISPATCH_LEVEL) {
    PagedRaised();
  }
  return before;
}

void IrqlLower(KIRQL OldIrql) {
  PKTHREAD self = ThreadSelf();
  if (OldIrql > self->Irql || (OldIrql < DISPATCH_LEVEL && self->HeldCount > 0)) {
    VerifierStop("irql.wrong-restore", nullptr, "lowered from %u to %u with %u locks held",
                 self->Irql, OldIrql, self->HeldCount);
  }
  self->Irql = OldIrql;
}
