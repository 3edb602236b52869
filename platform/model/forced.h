// Harsher conditions that a run may ask for (see ForcedOptions in run.h), as the model asks for
// them.
#pragma once

extern bool PendingForced;

struct ForcedOptions;
void ForcedBoot(const ForcedOptions &Options);
