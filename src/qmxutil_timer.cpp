// Interval timers: POSIX timers whose signal calls the caller's function inside the signal's handler.
//
// A handler interrupts a thread anywhere, and a signal can outlive its timer. Three rules make that safe:
//
// 1. The handler takes gTimerLock, so whoever else takes it has the timer signal blocked from before until
//    after: the handler never waits for the thread it interrupted. (It waits with pthread_mutex_lock, which
//    POSIX does not list as async-signal-safe for just the reason that this rule removes.)
// 2. The handler may have stopped its thread inside malloc, with the heap's lock held, and now waits for
//    gTimerLock. Whoever holds that must not want the heap's lock. So outside the handler nothing happens
//    under it but system calls and a few stores: records are allocated and released, and messages traced,
//    without it, and so are timers created and deleted, for which older C libraries use the heap. A new timer
//    becomes known to the handler by one atomic exchange, which needs no lock either: blocking a signal and
//    putting the mask back cost as much as a quarter of a timer's whole life.
// 3. A signal's value is a hint, not a pointer to follow. The handler looks the address up among the live
//    timers, comparing addresses only; what it does not find there is the late signal of a dead timer, or
//    rubbish. An address that is found can still be a new timer's while the signal was its predecessor's; so
//    the record knows when its next expiry is due, and a signal that comes earlier is not its own. One that
//    comes later does no harm: the callback is due, and the timer's own signal then comes too early. (The
//    kernel's timer number, si_timerid, would not do: it need not be what timer_create() gave, and is not
//    under older C libraries or the user-mode emulator.)
#include "qmxutil_timer.h"

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <limits>

#include "internal/handles.h"
#include "internal/lock.h"
#include "internal/timer.h"
#include "internal/trace.h"

using namespace qmxutil;

static_assert(offsetof(TimerHandle, timerId) == 0 && offsetof(TimerHandle, periodic) == 8 &&
              offsetof(TimerHandle, callback) == 16 && offsetof(TimerHandle, arg) == 24 &&
              sizeof(TimerHandle) == 32);

namespace {

constinit char MODULE[] = "qmxutil_timer";

// A timer's record: what callers see of it, then the library's own.
struct Timer {
  TimerHandle handle;
  Timer* next;  // in its chain of live timers
  int64_t due_ns;
  int64_t interval_ns;
  bool ended;  // its callback said so
  int forks;   // gTimerForks when it was made
};
static_assert(offsetof(Timer, handle) == 0);

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kNsPerMs = 1'000'000;

constinit int gTimerAction = 0;  // 1 once the handler is installed
constinit pthread_mutex_t gTimerLock = PTHREAD_MUTEX_INITIALIZER;
constinit std::atomic<pthread_t> gTimerLockOwner = 0;
constinit struct sigaction gTimerSigact = {};
constinit std::atomic<bool> gTimerIdle =
    false;  // the handler is in force and no callback runs: no need to wait
constinit int gTimerForks =
    0;  // from the process of the first timer to this one; changes before fork() returns

int timer_signal() { return SIGRTMIN + 4; }  // SIGRTMIN is the C library's to choose, at run time

// Keeps the timer signal from this thread, and puts the caller's mask back.
class TimerSignalBlock {
 public:
  TimerSignalBlock() {
    sigset_t timer_only;
    sigemptyset(&timer_only);
    sigaddset(&timer_only, timer_signal());
    pthread_sigmask(SIG_BLOCK, &timer_only, &before_);
  }
  ~TimerSignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  TimerSignalBlock(const TimerSignalBlock&) = delete;
  TimerSignalBlock& operator=(const TimerSignalBlock&) = delete;

 private:
  sigset_t before_;
};

// gTimerLock, and who holds it. Taken in the handler, or under a TimerSignalBlock.
class TimerLock {
 public:
  TimerLock() { gTimerLockOwner.store(pthread_self(), std::memory_order_relaxed); }
  ~TimerLock() { gTimerLockOwner.store(0, std::memory_order_relaxed); }
  TimerLock(const TimerLock&) = delete;
  TimerLock& operator=(const TimerLock&) = delete;

 private:
  MutexLock lock_{gTimerLock};
};

}  // namespace

// ---- Live timers
//
// Chains through the records themselves, found by address. A timer joins at the front of its chain at any
// time; who looks along a chain or takes a timer out holds gTimerLock. Each change is one store, so that the
// chains are whole at any moment, also in the child of a fork().

namespace {

constexpr size_t kChainBits = 9;
using Chain = std::atomic<Timer*>;
constinit Chain live_timers[1 << kChainBits] = {};

Chain& chain_of(const void* address) {
  constexpr uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;  // spreads addresses, whatever their alignment
  return live_timers[reinterpret_cast<uintptr_t>(address) * kGoldenRatio >> (64 - kChainBits)];
}

void add_live(Timer& timer) {
  Chain& chain = chain_of(&timer);
  timer.next = chain.load(std::memory_order_relaxed);
  while (!chain.compare_exchange_weak(timer.next, &timer, std::memory_order_release,
                                      std::memory_order_relaxed)) {
  }
}

// The timer at this address, null when there is none. Never looks at what is there before it is known to be
// one. Under gTimerLock.
Timer* find_live(const void* address) {
  Timer* timer = chain_of(address).load(std::memory_order_acquire);
  while (timer != nullptr && timer != address) timer = timer->next;
  return timer;
}

// The timer at this address, which is no longer live; null when there is none. Under gTimerLock.
Timer* remove_live(const void* address) {
  Timer* const timer = find_live(address);
  if (timer == nullptr) return nullptr;
  Timer* before = timer;
  if (chain_of(timer).compare_exchange_strong(before, timer->next, std::memory_order_acquire)) {
    return timer;  // it was the first
  }
  while (before->next != timer) before = before->next;
  before->next = timer->next;
  return timer;
}

}  // namespace

// ---- Creating and releasing

namespace {

// In the child of a fork(), on its one thread. Another thread of the parent may have been in a callback, or
// about to end one: here nobody is, and nobody will give the lock back. Not so when this thread forked in a
// callback of its own, which goes on here.
void begin_in_child() {
  ++gTimerForks;
  if (gTimerLockOwner.load(std::memory_order_relaxed) == pthread_self()) return;
  gTimerLock = PTHREAD_MUTEX_INITIALIZER;
  gTimerLockOwner.store(0, std::memory_order_relaxed);
  gTimerIdle.store(gTimerAction != 0, std::memory_order_relaxed);
}

// In the process's first call. Under gTimerLock.
void install_handler() {
  if (gTimerAction != 0) return;
  gTimerSigact.sa_sigaction = qmxutil_timer_handler;
  gTimerSigact.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&gTimerSigact.sa_mask);
  sigaction(timer_signal(), &gTimerSigact, nullptr);
  __sync_bool_compare_and_swap(&gTimerAction, 0, 1);  // a full memory barrier, too
  gTimerIdle.store(true, std::memory_order_release);
}

// Waits for a callback that runs. In the process's first call the handlers come in force: that of fork()
// first, before another thread can see a timer.
void wait_until_idle() {
  static constinit pthread_once_t fork_handler = PTHREAD_ONCE_INIT;
  pthread_once(&fork_handler, [] { pthread_atfork(nullptr, nullptr, begin_in_child); });
  const TimerSignalBlock block;
  const TimerLock lock;
  install_handler();
}

// Takes a timer from the handler: its callback does not run, nor will it again. Null when there is none at
// this address.
Timer* retire(const TimerHandle* address) {
  const TimerSignalBlock block;
  const TimerLock lock;
  return remove_live(address);
}

int64_t monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

bool create_posix_timer(Timer& timer) {
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = timer_signal();
  event.sigev_value.sival_ptr = &timer;
  return timer_create(CLOCK_MONOTONIC, &event, &timer.handle.timerId) == 0;
}

// Makes the timer known to the handler and starts it. False, with errno set, leaves it unknown.
bool arm(Timer& timer, int msec) {
  const timespec delay = {msec / 1000, msec % 1000 * kNsPerMs};
  const bool periodic = timer.handle.periodic != 0;
  const itimerspec spec = {periodic ? delay : timespec{}, delay};
  // The clock is read before the kernel reads it: no signal of this timer can come before it is due.
  timer.due_ns = msec > 0 ? monotonic_ns() + msec * kNsPerMs : kNever;
  timer.interval_ns = periodic ? msec * kNsPerMs : 0;
  add_live(timer);
  if (timer_settime(timer.handle.timerId, 0, &spec, nullptr) == 0) return true;
  const int error = errno;
  retire(&timer.handle);
  errno = error;
  return false;
}

}  // namespace

TimerHandle* QMXUtil_TimerNew(int msec, uint8_t periodic, TimerCallback callback, void* arg) {
  if (!gTimerIdle.load(std::memory_order_acquire)) wait_until_idle();
  Block<Timer> timer(
      static_cast<Timer*>(QMX_Calloc(1, sizeof(Timer), QMX_FILL_ZERO, __FILE_NAME__, __LINE__, __func__)));
  if (timer == nullptr) return nullptr;
  timer->handle.periodic = periodic;
  timer->handle.callback = callback;
  timer->handle.arg = arg;
  timer->forks = gTimerForks;
  if (!create_posix_timer(*timer)) {
    TRACE_ERROR("timer creation failed!! (err.%d)\n", errno);
    return nullptr;
  }
  if (!arm(*timer, msec)) {
    TRACE_ERROR("timer time setting failed!! (err.%d)\n", errno);
    timer_delete(timer->handle.timerId);
    return nullptr;
  }
  return &timer.release()->handle;
}

int QMXUtil_TimerFree(TimerHandle* handle) {
  Timer* const timer = handle != nullptr ? retire(handle) : nullptr;
  if (timer == nullptr) return 0;
  // In the child of a fork() the number of an inherited timer is nobody's, or one of the child's own.
  if (timer->forks == gTimerForks) timer_delete(timer->handle.timerId);
  QMX_Free(timer, 0);
  return 0;
}

// ---- Expiring

namespace {

// Whether the signal is this timer's expiry; if so it is used up. A signal that no timer sent (sigqueue()
// with the record's address, say) is taken at its word.
bool take_expiry(Timer& timer, const siginfo_t& info, int64_t now) {
  if (timer.ended) return false;
  if (info.si_code != SI_TIMER) return true;
  if (now < timer.due_ns) return false;
  // From one expiry to the next, however late this one is: after an overrun the time due lags, and no signal
  // of the timer's own can ever come before it.
  timer.due_ns = timer.interval_ns == 0 ? kNever : timer.due_ns + timer.interval_ns;
  return true;
}

// Calls back, if there is a live timer at this address and it is due. False when it has no callback.
bool expire(const void* address, const siginfo_t& info) {
  const int64_t now = monotonic_ns();  // before waiting for the lock: a late signal does not age there
  const TimerLock lock;
  Timer* const timer = find_live(address);
  if (timer == nullptr || !take_expiry(*timer, info, now)) return true;
  const TimerHandle& handle = timer->handle;
  if (handle.callback == nullptr) return false;
  gTimerIdle.store(false, std::memory_order_relaxed);
  const int result = handle.callback(handle.arg);
  gTimerIdle.store(true, std::memory_order_release);
  if (result != 0 && handle.periodic != 0) {
    timer->ended = true;
    const itimerspec disarmed = {};
    timer_settime(handle.timerId, 0, &disarmed, nullptr);
  }
  return true;
}

}  // namespace

void qmxutil_timer_handler(int sig, siginfo_t* info, void*) {
  const int interrupted_errno = errno;
  if (sig != timer_signal()) {
    TRACE_ERROR("sig(%d) is not QMX_TIMER_SIGNAL(%d)\n", sig, timer_signal());
  } else if (info->si_value.sival_ptr == nullptr) {
    TRACE_ERROR("timer is NULL\n");
  } else if (!expire(info->si_value.sival_ptr, *info)) {
    TRACE_ERROR("timer->callback is NULL\n");
  }
  errno = interrupted_errno;
}
