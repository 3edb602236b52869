// Memory descriptor lists and the hidden record in front of each.
//
// The verifier's rules here:
//
//   mdl.unknown           what is passed is no live MDL
//   mdl.double-free       freed again
//   mdl.in-use            freed while a packet that carries it is with a driver
//   mdl.freed-locked      freed while its pages are locked
//   mdl.paged             built for nonpaged pool over paged pool
//   mdl.not-locked        mapped, or used as a source, with pages neither locked nor nonpaged
//   mdl.already-mapped    mapped again
//   mdl.executable        mapped without MdlMappingNoExecute
//   mdl.pool-freed        pool freed that an MDL of a packet under way describes
//   mdl.outside           a partial MDL for bytes that its source does not describe
//   mdl.target-too-small  a partial MDL that was allocated for fewer pages
//   leak.mdl              left over
#pragma once

#include "platform/kernel.h"

// Over a user's bytes, which are locked and stay at their own address; and back.
PMDL MdlMakeLocked(void *Bytes, size_t Count);
void MdlUnlockAndFree(PMDL Mdl);

// A packet that carries the MDL is with a driver. Under RequestMutex; null is fine.
void MdlTake(PMDL Mdl);
void MdlLetGo(PMDL Mdl);

// Pool is about to be freed.
void MdlPoolFreed(const void *Block, size_t Bytes);

// Parts of RequestArea.
void MdlBoot();
void MdlCheck();
void MdlShutdown();
