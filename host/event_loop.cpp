#include "host/event_loop.h"

#include <csignal>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <chrono>
#include <memory>
#include <utility>

#include "platform/model/model.h"

namespace asio = boost::asio;
using boost::system::error_code;

struct LoopFd {
  explicit LoopFd(asio::io_context &Io) : Stream(Io) {
  }
  asio::posix::stream_descriptor Stream;
  std::function<void()> Waiting[3];  // by LoopWait; empty when nobody waits
  bool Removed = false;
  std::shared_ptr<LoopFd> Self;  // until removed; handlers on their way keep it alive longer
};

struct LoopTimer {
  explicit LoopTimer(asio::io_context &Io) : Timer(Io) {
  }
  asio::steady_timer Timer;
  std::function<void()> Then;  // empty once cancelled
};

namespace {
struct Loop {
  asio::io_context Io;
  asio::executor_work_guard<asio::io_context::executor_type> Work = asio::make_work_guard(Io);
  asio::signal_set Signals{Io, SIGINT, SIGTERM, SIGHUP};
  asio::thread_pool Blocking{1};
  bool Ending = false;
};
std::unique_ptr<Loop> TheLoop;
}  // namespace

void LoopOpen() {
  TheLoop = std::make_unique<Loop>();
}

void LoopClose() {
  TheLoop->Blocking.join();
  TheLoop.reset();
}

void LoopEnd() {
  TheLoop->Ending = true;
}

// Waits until something happens outside the model or a model thread's time-out is due.
static void WaitOutside() {
  constexpr int64_t UnixEpoch = 116'444'736'000'000'000;  // in 100 ns units since 1601
  int64_t deadline = ThreadNextDeadline();
  if (deadline == 0) {
    TheLoop->Io.run_one();
    return;
  }
  auto since = std::chrono::nanoseconds((deadline - UnixEpoch) * 100);
  std::chrono::system_clock::time_point due(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(since));
  TheLoop->Io.run_one_until(due);
}

// Some of the handlers that can run now, not all: one may always bring about the next, and the
// model's threads are to have their turn in between.
static bool RunHandlers() {
  constexpr int Most = 32;
  int count = 0;
  while (count < Most && TheLoop->Io.poll_one() > 0) {
    ++count;
  }
  return count > 0;
}

void LoopRun() {
  for (;;) {
    bool ready = ThreadYieldToReady();
    if (RunHandlers() || ready || ThreadAnyReady()) {
      continue;
    }
    if (TheLoop->Ending) {
      return;
    }
    WaitOutside();
  }
}

void LoopPost(std::function<void()> Work) {
  asio::post(TheLoop->Io, std::move(Work));
}

void LoopTask(const char *Name, std::function<void()> Body, std::function<void()> Done) {
  // The thread's name for itself is known only after it was started, and needed only at its end.
  auto thread = std::make_shared<PKTHREAD>();
  *thread = ThreadStart(Name, [thread, body = std::move(Body), done = std::move(Done)]() {
    body();
    LoopPost([thread, done]() {
      ThreadJoin(*thread);
      if (done) {
        done();
      }
    });
  });
}

void LoopBlocking(std::function<void()> Work, std::function<void()> Done) {
  asio::post(TheLoop->Blocking, [work = std::move(Work), done = std::move(Done)]() {
    work();
    LoopPost(done);
  });
}

void LoopOnSignal(std::function<void(int)> Handler) {
  TheLoop->Signals.async_wait([handler = std::move(Handler)](error_code Error, int Signal) {
    if (!Error) {
      LoopOnSignal(handler);
      handler(Signal);
    }
  });
}

LoopFd *LoopFdAdd(int Fd) {
  auto watched = std::make_shared<LoopFd>(TheLoop->Io);
  watched->Stream.assign(Fd);
  watched->Self = watched;
  return watched.get();
}

void LoopFdRemove(LoopFd *Watched) {
  if (!Watched) {
    return;
  }
  std::shared_ptr<LoopFd> self = std::move(Watched->Self);
  self->Removed = true;
  for (std::function<void()> &waiting : self->Waiting) {
    waiting = nullptr;
  }
  self->Stream.release();
}

void LoopFdWait(LoopFd *Watched, LoopWait What, std::function<void()> Then) {
  using Descriptor = asio::posix::stream_descriptor;
  constexpr Descriptor::wait_type Types[] = {Descriptor::wait_read, Descriptor::wait_write,
                                             Descriptor::wait_error};
  auto kind = static_cast<size_t>(What);
  if (Watched->Waiting[kind]) {
    return;
  }
  Watched->Waiting[kind] = std::move(Then);
  Watched->Stream.async_wait(Types[kind], [self = Watched->Self, kind](error_code) {
    std::function<void()> then = std::exchange(self->Waiting[kind], nullptr);
    if (!self->Removed && then) {
      then();
    }
  });
}

LoopTimer *LoopTimerStart(unsigned Milliseconds, std::function<void()> Then) {
  auto timer = std::make_shared<LoopTimer>(TheLoop->Io);
  timer->Then = std::move(Then);
  timer->Timer.expires_after(std::chrono::milliseconds(Milliseconds));
  timer->Timer.async_wait([timer](error_code) {
    if (timer->Then) {
      timer->Then();
    }
  });
  return timer.get();
}

void LoopTimerCancel(LoopTimer *Timer) {
  if (Timer) {
    Timer->Then = nullptr;
    Timer->Timer.cancel();
  }
}
