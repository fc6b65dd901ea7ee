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
              offsetof(TimerHandle, callback) == 16 && offsetof(TimerHandle, arg) == 24);

namespace {

constinit char MODULE[] = "qmxutil_timer";

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kNsPerMs = 1'000'000;

constinit int gTimerAction = 0;  // 1 once the handler is installed
// Taken in the handler, or under a TimerSignalBlock.
constinit pthread_mutex_t gTimerLock = PTHREAD_MUTEX_INITIALIZER;
constinit struct sigaction gTimerSigact = {};
constinit std::atomic<bool> idle = false;  // the handler is in force and no callback runs: no need to wait
constinit int forks = 0;  // from the process of the first timer to this one; changes before fork() returns

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

// --- The live timers: chains through the records themselves, found by address. A timer joins at the front of
// its chain at any time; who looks along a chain or takes a timer out holds gTimerLock.

constexpr size_t kChainBits = 9;
using Chain = std::atomic<TimerHandle*>;
constinit Chain live_timers[1 << kChainBits] = {};

Chain& chain_of(const TimerHandle* timer) {
  constexpr uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;  // spreads addresses, whatever their alignment
  return live_timers[reinterpret_cast<uintptr_t>(timer) * kGoldenRatio >> (64 - kChainBits)];
}

void add_live(TimerHandle& timer) {
  Chain& chain = chain_of(&timer);
  timer.reservedNext = chain.load(std::memory_order_relaxed);
  while (!chain.compare_exchange_weak(timer.reservedNext, &timer, std::memory_order_release,
                                      std::memory_order_relaxed)) {
  }
}

// The timer at this address, null when there is none. Never looks behind an address that is none.
TimerHandle* find_live(const TimerHandle* address) {
  TimerHandle* timer = chain_of(address).load(std::memory_order_acquire);
  while (timer != nullptr && timer != address) timer = timer->reservedNext;
  return timer;
}

bool remove_live(const TimerHandle* address) {
  if (find_live(address) == nullptr) return false;
  TimerHandle* before = const_cast<TimerHandle*>(address);
  if (chain_of(address).compare_exchange_strong(before, address->reservedNext, std::memory_order_acquire)) {
    return true;  // it was the first
  }
  while (before->reservedNext != address) before = before->reservedNext;
  before->reservedNext = address->reservedNext;
  return true;
}

// --- Creating

// Waits for a callback that runs; in the process's first call installs the handler, and is true.
bool wait_or_install() {
  const TimerSignalBlock block;
  const MutexLock lock(gTimerLock);
  if (!__sync_bool_compare_and_swap(&gTimerAction, 0, 1)) return false;  // a full memory barrier, too
  gTimerSigact.sa_sigaction = qmxutil_timer_handler;
  gTimerSigact.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&gTimerSigact.sa_mask);
  sigaction(timer_signal(), &gTimerSigact, nullptr);
  idle.store(true, std::memory_order_release);
  return true;
}

// Takes a timer from the handler: its callback does not run, nor will it again. False when there is none
// here.
bool retire(const TimerHandle* address) {
  const TimerSignalBlock block;
  const MutexLock lock(gTimerLock);
  return remove_live(address);
}

int64_t monotonic_ns() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

bool create_posix_timer(TimerHandle& timer) {
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = timer_signal();
  event.sigev_value.sival_ptr = &timer;
  return timer_create(CLOCK_MONOTONIC, &event, &timer.timerId) == 0;
}

// Makes the timer known to the handler and starts it. False, with errno set, leaves it unknown.
bool arm(TimerHandle& timer, int msec) {
  const timespec delay = {msec / 1000, msec % 1000 * kNsPerMs};
  const itimerspec spec = {timer.periodic != 0 ? delay : timespec{}, delay};
  // The clock is read before the kernel reads it: no signal of this timer can come before it is due.
  timer.reservedDueNs = msec > 0 ? monotonic_ns() + msec * kNsPerMs : kNever;
  timer.reservedIntervalNs = timer.periodic != 0 ? msec * kNsPerMs : 0;
  add_live(timer);
  if (timer_settime(timer.timerId, 0, &spec, nullptr) == 0) return true;
  const int error = errno;
  retire(&timer);
  errno = error;
  return false;
}

// --- Expiring

// A signal that no timer sent (sigqueue() with the record's address, say) is taken at its word.
bool is_due(TimerHandle& timer, const siginfo_t& info, int64_t now) {
  if (timer.reservedEnded != 0) return false;
  if (info.si_code != SI_TIMER) return true;
  if (now < timer.reservedDueNs) return false;
  // From one expiry to the next, however late this one is: after an overrun `due` stays behind, and no signal
  // of the timer's own can ever come before it.
  timer.reservedDueNs =
      timer.reservedIntervalNs == 0 ? kNever : timer.reservedDueNs + timer.reservedIntervalNs;
  return true;
}

// Calls back, if there is a live timer at this address and it is due. False when it has no callback.
bool expire(const TimerHandle* address, const siginfo_t& info) {
  const int64_t now = monotonic_ns();  // before waiting for the lock: a late signal does not age there
  const MutexLock lock(gTimerLock);
  TimerHandle* const timer = find_live(address);
  if (timer == nullptr || !is_due(*timer, info, now)) return true;
  if (timer->callback == nullptr) return false;
  idle.store(false, std::memory_order_relaxed);
  const int result = timer->callback(timer->arg);
  idle.store(true, std::memory_order_release);
  if (result != 0 && timer->periodic != 0) {
    timer->reservedEnded = 1;
    const itimerspec disarmed = {};
    timer_settime(timer->timerId, 0, &disarmed, nullptr);
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
  } else if (!expire(static_cast<const TimerHandle*>(info->si_value.sival_ptr), *info)) {
    TRACE_ERROR("timer->callback is NULL\n");
  }
  errno = interrupted_errno;
}

TimerHandle* QMXUtil_TimerNew(int msec, uint8_t periodic, TimerCallback callback, void* arg) {
  if (!idle.load(std::memory_order_acquire) && wait_or_install()) {
    pthread_atfork(nullptr, nullptr, [] { ++forks; });
  }
  Block<TimerHandle> timer(static_cast<TimerHandle*>(
      QMX_Calloc(1, sizeof(TimerHandle), QMX_FILL_ZERO, __FILE_NAME__, __LINE__, __func__)));
  if (timer == nullptr) return nullptr;
  timer->periodic = periodic;
  timer->callback = callback;
  timer->arg = arg;
  timer->reservedForks = forks;
  if (!create_posix_timer(*timer)) {
    TRACE_ERROR("timer creation failed!! (err.%d)\n", errno);
    return nullptr;
  }
  if (!arm(*timer, msec)) {
    TRACE_ERROR("timer time setting failed!! (err.%d)\n", errno);
    timer_delete(timer->timerId);
    return nullptr;
  }
  return timer.release();
}

int QMXUtil_TimerFree(TimerHandle* timer) {
  if (timer == nullptr || !retire(timer)) return 0;
  // In the child of a fork() the number of an inherited timer is nobody's, or one of the child's own.
  if (timer->reservedForks == forks) timer_delete(timer->timerId);
  QMX_Free(timer, 0);
  return 0;
}
