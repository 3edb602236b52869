// Which step of a run depends on which, from the opening of the window on: vector clocks over what
// the threads do to the same objects. Two runs in which everything depends on the same happened in
// the same order; CausalPrint names it. When a step depends on one of another thread that nothing
// else had ordered before it, the two could come the other way round: the choices that would let
// them are told to the schedule as wanted (see explore.h).
//
// What counts is what is announced here: by the switch points, and by services whose state is
// reached without one. Plain memory is not announced: who shares it without one of these has a data
// race, which is ThreadSanitizer's part.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kernel.h"
#include "platform/model/guard.h"

// Reads commute, and so do additions (a count of references before it is zero); nothing else does.
enum class Access : uint8_t { Read, Add, Write };

// Whether the run is being followed.
extern bool CausalOn;

// A run is about to begin; Follow it from the opening of its first window until, behind the last
// one, somebody goes on after all others have come to a halt.
void CausalBegin(bool Follow);
void CausalWindow(bool Open);
// Of what happened in the windows; when the run was followed to the end of the last one.
uint64_t CausalPrint();
bool CausalKnown();
// Stops following the run: it brings no order that another one does not.
void CausalLeave();

void CausalTouchTaken(const volatile void *Object, Access How);
void CausalCeaseTaken(const volatile void *Low, size_t Bytes);

// The calling thread does this to the object, a name which may be any address, now.
inline void CausalTouch(const volatile void *Object, Access How) {
  if (__builtin_expect(CausalOn, false)) {
    CausalTouchTaken(Object, How);
  }
}

// A guard of state that services reach without a switch point; its mutex is the state's name.
struct SharedGuard : Guard {
  SharedGuard(ModelMutex &What, Access How) : Guard(What) {
    CausalTouch(&What, How);
  }
};

// The bytes are no more, or are another's from here on: what stood there is forgotten, and
// everybody who may still use them because nothing has told him since is worth stopping where he
// last knew better. Without bytes: something else than memory has been given up.
inline void CausalCease(const volatile void *Low, size_t Bytes) {
  if (__builtin_expect(CausalOn, false)) {
    CausalCeaseTaken(Low, Bytes);
  }
}

// A new object stands at the address; what happened there before does not concern it.
void CausalForget(const volatile void *Object);

// A lock's holders exclude each other: what could come the other way round is who takes it first.
void CausalAcquire(const volatile void *Lock);
void CausalRelease(const volatile void *Lock);
void CausalFoundTaken(const volatile void *Lock);

// Those that take this lock do things that commute (they append to a log that nobody reads): their
// order is no order. Until the end of the run.
void CausalCommutes(const volatile void *Lock);

// The calling thread makes another; or goes on after all others have come to a halt.
void CausalFork(PKTHREAD Child);
void CausalJoinAll();

// The thread is preempted before its next step. When it goes on and that step depends on nothing
// that happened meanwhile, it could as well have been preempted behind it: a run with such a step
// is cut, since one without it leads to the same orders at no greater cost.
void CausalPreempt(PKTHREAD Thread);
// The thread cannot go on by itself; Lock: since somebody else has a lock that it wants.
void CausalBlock(PKTHREAD Thread, bool Lock);

// The thread goes on at a point where somebody else might have: at the choice so numbered, or none
// (-1). Chosen: it did not run before.
void CausalPoint(PKTHREAD Thread, int Choice, bool Chosen);
