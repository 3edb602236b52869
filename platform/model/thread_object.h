// The thread object: a waitable, counted object that carries what the model knows of a thread.
#pragma once

#include <setjmp.h>

#include <condition_variable>
#include <cstdint>
#include <functional>

#include "platform/kernel.h"
#include "platform/model/fibers.h"
#include "platform/model/stack_depth.h"

// Ready -> Running -> Ready (preempted, yielding), Waiting, Settling or Ended; Waiting and Settling
// -> Ready. The thread executor knows no Ready: who is woken runs.
enum class ThreadState : uint8_t { Ready, Running, Waiting, Settling, Ended };

constexpr unsigned MostLocksHeld = 16;
constexpr int64_t NoDeadline = INT64_MAX;

struct HeldLock {
  PKSPIN_LOCK Lock;
  const void *Place;  // where it was taken
  KIRQL Saved;
  bool AtDpc;
};

// One object that a thread waits for; on the waiting thread's stack, unlinked by who wakes it.
struct WaitBlock {
  LIST_ENTRY Link;
  PKTHREAD Thread;
  DISPATCHER_HEADER *Object;
};

// What a thread is made of besides its record.
struct ThreadRunner {
  std::function<void()> Body;
  std::condition_variable Wake;  // thread executor
  jmp_buf Exit;                  // thread executor: how a thread leaves from wherever it is
};

struct _KTHREAD {
  DISPATCHER_HEADER Header;
  char Name[24];
  bool System;           // started by PsCreateSystemThread
  PDRIVER_OBJECT Maker;  // of a system thread: whose routine called it, if that is known
  unsigned Number;       // in the order of the run's threads, from 1

  // The thread's own.
  KIRQL Irql;
  unsigned HeldCount;
  HeldLock Held[MostLocksHeld];
  struct DispatchFrame *Dispatching;  // the driver routine it runs for a packet, see packets.h
  uint64_t RoutinesEntered;           // of drivers, for packets
  PDRIVER_OBJECT Acting;              // the driver whose routine it runs, if that is known
  bool OfUser;                        // it runs in a user's process, not in the system's
  unsigned PowerDown;                 // dispatch routines for a power-down that it is in
  StackUse Stack;                     // what drivers use of its stack

  // Guarded by DispatcherMutex.
  ThreadState State;
  bool WaitForAll;
  NTSTATUS WaitStatus;
  ULONG BlockCount;
  WaitBlock *Blocks;
  int64_t Due;  // of the wait's time-out
  LIST_ENTRY AllLink;
  LIST_ENTRY QueueLink;

  PKSPIN_LOCK WantedLock;  // fibers only: the held lock that it waits for
  uint64_t Priority;       // fibers only, when priorities decide
  uint64_t Following;      // fibers only: when it has the number below; see causality.h
  unsigned Follower;

  Fiber Context;
  ThreadRunner *Runner;
};

extern constinit thread_local PKTHREAD CurrentThread;
// Stands in for a thread outside of a run and while areas boot and shut down.
extern _KTHREAD HostThread;

inline PKTHREAD ThreadSelf() {
  return CurrentThread ? CurrentThread : &HostThread;
}

// In whose process the thread runs meanwhile. A stopped run may leave it for good.
struct InProcess {
  explicit InProcess(bool OfUser) : Thread(ThreadSelf()), Before(Thread->OfUser) {
    Thread->OfUser = OfUser;
  }
  ~InProcess() {
    Thread->OfUser = Before;
  }
  InProcess(const InProcess &) = delete;
  InProcess &operator=(const InProcess &) = delete;

  PKTHREAD Thread;
  bool Before;
};

// A new thread at PASSIVE_LEVEL that can run at once. The caller holds one reference, the running
// thread another one.
PKTHREAD ThreadCreate(const char *Name, std::function<void()> Body, size_t StackBytes);

// Thread executor: lets the created thread begin. Nothing to do for a fiber.
void ThreadLaunch(PKTHREAD Thread);

// Ends the calling thread: wakes who waits for it and gives back its own reference.
[[noreturn]] void ThreadEnd();
