// The event loop that everything of all ports runs on. It is the model's main thread: whenever no
// other model thread can run it waits for descriptors, signals and the next time-out.
//
// Everything here belongs to the one OS thread of the run, whichever model thread it is called
// from. Handlers run on the loop itself, at PASSIVE_LEVEL, and must not wait; what may wait goes
// into a task.
#pragma once

#include <functional>

void LoopOpen();
// Runs until LoopEnd, then what is still posted is run too.
void LoopRun();
void LoopEnd();
// After the last task: waits for blocking work, drops every handler.
void LoopClose();

// Runs Work soon; never inside this call. May be called up to DISPATCH_LEVEL.
void LoopPost(std::function<void()> Work);

// Runs Body as a model thread of its own, and Done (may be null) on the loop after its end.
void LoopTask(const char *Name, std::function<void()> Body, std::function<void()> Done = nullptr);

// Runs Work on another OS thread, for a system call that blocks and touches nothing of the model,
// and Done on the loop afterwards.
void LoopBlocking(std::function<void()> Work, std::function<void()> Done);

// SIGINT, SIGTERM and SIGHUP, from LoopOpen on.
void LoopOnSignal(std::function<void(int Signal)> Handler);

struct LoopFd;
enum class LoopWait { Readable, Writable, HangUp };

// Watches a descriptor that stays its owner's, and open until LoopFdRemove. After the removal no
// handler of it runs. A removal of null does nothing.
LoopFd *LoopFdAdd(int Fd);
void LoopFdRemove(LoopFd *Watched);

// Runs Then once when the descriptor is ready now or becomes so; an error or a hang-up makes it
// ready for everything. One wait of a kind at a time: another while one is there changes nothing.
void LoopFdWait(LoopFd *Watched, LoopWait What, std::function<void()> Then);

// Runs Then once, Milliseconds from now, unless cancelled before. Whoever runs or cancels it ends
// it. A cancellation of null does nothing.
struct LoopTimer;
LoopTimer *LoopTimerStart(unsigned Milliseconds, std::function<void()> Then);
void LoopTimerCancel(LoopTimer *Timer);
