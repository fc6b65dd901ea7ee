/**
 * @file qmxutil_signal.h
 * @brief Signal handler registry: install a handler, put back what was there before (POSIX sigaction()).
 *
 * One process-wide table holds, for each signal number from 0 to 33, the action that the last registration
 * replaced. Unregistering installs that action again and leaves the table as it is: after two registrations
 * one unregistration brings back the first handler, not what was there before both. A signal that was never
 * registered is put back to its default.
 *
 * The timer signal is not this registry's (qmxutil_timer.h keeps its own).
 */
#ifndef QMXUTIL_SIGNAL_H
#define QMXUTIL_SIGNAL_H

#include "qmxutil_export.h"

/** A signal handler; runs in signal context and receives the signal's number. */
typedef void (*QMXSignalHandler)(int sig);

/**
 * Installs a handler with no additionally blocked signals and no flags: system calls that the signal
 * interrupts fail with EINTR, they are not restarted.
 *
 * Any thread may call it; calls for one and the same signal must not overlap. Not from a signal handler.
 * Never blocks.
 *
 * @param sig      signal number, 1 to 31 (the C library keeps 32 and 33 for itself)
 * @param handler  the handler
 * @return 0, or -1 (traced at level 1, the earlier action still in force) when the number is no signal of the
 *         table or its action cannot be changed (SIGKILL, SIGSTOP).
 */
QMX_API int QMXUtil_RegSigHandler(int sig, QMXSignalHandler handler);

/**
 * Puts back the action that the last registration of this signal replaced.
 *
 * Any thread may call it; calls for one and the same signal must not overlap. Not from a signal handler.
 * Never blocks.
 *
 * @param sig  signal number, 1 to 31 (the C library keeps 32 and 33 for itself)
 * @return 0, or -1 (traced at level 1) when the number is no signal of the table or its action cannot be
 * changed.
 */
QMX_API int QMXUtil_UnRegSigHandler(int sig);

/**
 * A handler that does nothing. Registered for a signal, it makes the signal's delivery do nothing but
 * interrupt a blocking system call.
 *
 * @param sig  not used
 */
QMX_API void QMXUtil_Signal_Func(int sig);

#endif
