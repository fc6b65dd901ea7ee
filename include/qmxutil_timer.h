/**
 * @file qmxutil_timer.h
 * @brief Interval timers: a function of the caller's, called once after a delay or again and again
 *        (POSIX timers, IEEE Std 1003.1-2017, timer_create()).
 *
 * A timer runs on the monotonic clock (CLOCK_MONOTONIC: changes of the wall clock do not matter) and
 * announces itself with the real-time signal SIGRTMIN + 4. The first QMXUtil_TimerNew() of the process
 * installs the handler for that signal (SA_SIGINFO | SA_RESTART, empty mask) and it stays for good, also when
 * no timer is left: the signal belongs to this library and its earlier action is not kept.
 *
 * The signal goes to the process, so a callback runs inside a signal handler on whichever thread the system
 * picks among those that do not block the signal (one at least must not). All callbacks of the process run
 * one at a time; system calls they interrupt in that thread are restarted as far as SA_RESTART reaches
 * (nanosleep(), poll() and the like fail with EINTR all the same); errno is kept.
 *
 * What a callback may do. It interrupts its thread anywhere, inside malloc() or printf() as well, and holds
 * up every other callback while it runs. So it calls async-signal-safe functions only (write() to a pipe or
 * an eventfd, sem_post(), clock_gettime(); see signal-safety(7)), touches lock-free atomics and volatile
 * sig_atomic_t, and returns soon. It must not
 * - create or free a timer: the thread would wait for itself for ever,
 * - allocate, take a lock, use standard I/O, or call a function of this library that is not said to be fit
 * for a signal handler,
 * - leave by longjmp(), pthread_exit() or an exception.
 *
 * What the library promises:
 * - the n-th call comes no earlier than n intervals after QMXUtil_TimerNew() was called;
 * - expiries that fall due while the signal is still waiting are not made up for (POSIX: timer overrun);
 * - once QMXUtil_TimerFree() has returned, the callback is not running and is never called again, even when
 *   the signal was already on its way;
 * - a periodic timer whose callback returned nonzero is not called again, even when its next signal was
 *   already on its way.
 *
 * After fork() the child has the handler but none of the timers (POSIX). It may free the records and create
 * timers of its own, whatever other threads did in this family at the moment of the fork; only in the child
 * of a fork() that a callback made does that have to wait until the callback has returned there. _Fork() runs
 * no fork handlers (POSIX): in its child this family may not be used before an exec. A program started with
 * exec has neither timers nor the handler, but inherits a blocked signal as blocked.
 */
#ifndef QMXUTIL_TIMER_H
#define QMXUTIL_TIMER_H

#include <stdint.h>
#include <sys/types.h>

#include "qmxutil_export.h"

/**
 * The function a timer calls, in signal context; see above for what it may do there.
 *
 * @param arg  the pointer given to QMXUtil_TimerNew()
 * @return for a periodic timer: 0 to go on, anything else to end it. Ignored for a one-shot timer.
 */
typedef int (*TimerCallback)(void* arg);

/** One timer: made by QMXUtil_TimerNew(), the caller's until QMXUtil_TimerFree(). Callers only read it; what
    the library needs besides follows in the same block. */
typedef struct TimerHandle {
  timer_t timerId;        /**< the POSIX timer */
  int32_t periodic;       /**< the caller's flag, unchanged: 0 one-shot, anything else periodic */
  TimerCallback callback; /**< the caller's function; may be null */
  void* arg;              /**< the caller's pointer for `callback` */
} TimerHandle;

/**
 * Creates a timer and arms it.
 *
 * The callback can run before this function returns: what it needs must be ready before, and it cannot count
 * on the returned pointer having been stored.
 *
 * Any thread may call it, except in a timer callback or another signal handler. Waits while a callback is
 * running. The caller's signal mask is as it was when it returns.
 *
 * @param msec      delay to the first expiry in milliseconds and, for a periodic timer, also the interval. 0
 *                  makes a timer that never fires (POSIX: a zero first expiry leaves it disarmed); a negative
 *                  delay is refused
 * @param periodic  0 for one call, anything else for a call every `msec` until `callback` returns nonzero
 * @param callback  the function to call; with null each expiry only traces "timer->callback is NULL\n" at
 *                  level 1 (a periodic timer goes on doing so until it is freed)
 * @param arg       handed to `callback` unchanged; neither read nor released
 * @return the timer, which the caller releases with QMXUtil_TimerFree() in every case, also when it has fired
 *         or ended. Null, with nothing left allocated, when memory is short (not traced), when the system has
 *         no timer to give (traced at level 1 with errno: EAGAIN when RLIMIT_SIGPENDING is used up), or when
 *         it refuses the delay (traced at level 1 with errno: EINVAL for a negative one).
 */
QMX_API TimerHandle* QMXUtil_TimerNew(int msec, uint8_t periodic, TimerCallback callback, void* arg);

/**
 * Stops a timer and releases it, in whatever state it is. When it returns the callback is not running and is
 * never called again, so that what `arg` points to may be released.
 *
 * Any thread may call it, except in a timer callback or another signal handler. Waits while a callback (of
 * any timer) is running. The caller's signal mask is as it was when it returns.
 *
 * @param timer  the timer; null, and a pointer that is no timer of QMXUtil_TimerNew() or no longer one, is
 *               ignored
 * @return 0.
 */
QMX_API int QMXUtil_TimerFree(TimerHandle* timer);

#endif
