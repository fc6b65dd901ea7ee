/**
 * @file qmxutil_process.h
 * @brief Processes: start programs and shell commands, find a program by name, ask it to end.
 *
 * Any thread may call any of these functions at any time; nothing is shared and no lock is taken. None may be
 * called from a signal handler or from a timer callback. Each blocks its thread while it waits, as said at
 * the function; a signal handler that runs meanwhile, with or without SA_RESTART, does not end the wait.
 *
 * Children inherit the environment, the signal mask, the ignored signals and every descriptor that is not
 * close-on-exec. The pipes of this library are close-on-exec. A child that is waited for is always reaped,
 * unless the process ignores SIGCHLD: then the system reaps it, and the wait ends in its failure.
 *
 * A name reaches the shell's command line as it is when every character is a letter, a digit or one of
 * _ . / + : , @ % - (so does the empty one, which is then no word at all), and in quotes otherwise: no
 * character of it means anything to the shell. A name that begins with '-' is still an option to the tool it
 * is given to.
 */
#ifndef QMXUTIL_PROCESS_H
#define QMXUTIL_PROCESS_H

#include <stdint.h>

#include "qmxutil_export.h"

/**
 * Starts a program, found on the search path, with at most one argument (POSIX posix_spawnp()).
 *
 * Blocks until the program has ended when `wait` is set, otherwise not. What the program's end was is not
 * told. A program that is not waited for is the caller's to reap, with waitpid() on the id.
 *
 * @param file  program name to look up on PATH, or a path
 * @param arg   its one argument, passed whole whatever it contains, or null for none
 * @param wait  nonzero: return when the program has ended
 * @param pid   where the child's process id goes, or null; written only on success
 * @return 1 when the program was started (also when waiting for it failed, which is traced), 0 when it was
 *         not: `file` is null, or it cannot be run (traced at level 1).
 */
QMX_API int QMXUtil_ProcessRun(const char* file, const char* arg, uint8_t wait, int* pid);

/**
 * Finds a running program by name, with the tool `pidof`. Blocks until the tool has ended.
 *
 * @param name  the program's name; what follows its first 57 bytes is not looked at
 * @return the process id, the first one when there are several; 0 when no such program runs (traced at
 *         level 2), when the tool cannot be run (the same), or when `name` is null (traced at level 1).
 */
QMX_API int QMXUtil_ProcessPID(const char* name);

/**
 * Asks a process to end: sends it SIGTERM and does not wait for its end.
 *
 * Blocks while the name is looked up (QMXUtil_ProcessPID()), and for a tenth of a second after each of up to
 * ten attempts that fail for another reason than that there is no such process (EPERM). Processes are never
 * signalled as a group: an id of 0 or less is refused.
 *
 * @param name  the program to look up, or null to use `pid`
 * @param pid   process id; not used when `name` is given
 * @return 1 when the signal was sent or no process has the id (traced at level 1); 0 when the name or id
 * names no process, or all attempts failed (both traced at level 1).
 */
QMX_API int QMXUtil_ProcessKill(const char* name, int pid);

/**
 * Tells whether a command exists, with the tool `which`. Blocks until the tool has ended. Traces nothing.
 *
 * @param name  the command; what follows its first 25 bytes is not looked at. Null is no command.
 * @return 1 when `which` prints anything for it, else 0.
 */
QMX_API int QMXUtil_ProcessWhich(const char* name);

/**
 * Starts a program by its path, with arguments (POSIX posix_spawn()).
 *
 * Blocks until the program has ended when `wait` is set. Otherwise it looks once, right after the start,
 * whether the program has ended already; if not, the id that is returned is the caller's to reap.
 *
 * One number says several things: a positive result can be an exit code, the error number of a failed start
 * (ENOENT is 2), or a process id. The trace tells them apart.
 *
 * | What happened                     | Result               | Trace (level)                                |
 * |-----------------------------------|----------------------|----------------------------------------------|
 * | `path` is null                    | -1                   | Invalid path (1)                             |
 * | the program cannot be started     | the error number     | posix_spawn failed: %d (1)                   |
 * | waited: it exited                 | exit code, 0 to 255  | Process exited with status %d (2)            |
 * | waited: a signal ended it         | -1                   | Process terminated by signal %d (1)          |
 * | waited: waiting failed            | -1                   | waitpid failed (1)                           |
 * | not waited: it runs               | its process id       | Process still running: pid=%d (1)            |
 * | not waited: it has exited already | exit code, 0 to 255  | Process already exited with status %d (1)    |
 * | not waited: a signal has ended it | -1                   | Process terminated by signal %d (1)          |
 * | not waited: looking failed        | -1                   | waitpid(WNOHANG) failed (1)                  |
 *
 * @param path  path of the program; the search path is not used
 * @param args  arguments separated by blanks (' ' only; quotes and backslashes mean nothing), or null for
 *              none. The first 511 bytes and the first 30 arguments are used.
 * @param wait  nonzero: return when the program has ended
 * @return see the table.
 */
QMX_API int QMXUtil_ProcessRunEx(const char* path, const char* args, uint8_t wait);

/**
 * Runs a command line with "/bin/sh -c" and waits for it. Blocks until the shell has ended.
 *
 * The line is run as it is, with everything that the shell makes of it: never pass text that comes from
 * outside. The caller's memory is not touched by the child, and buffered output of the caller is not flushed.
 *
 * | What happened                     | Result               | Trace, all at level 1                        |
 * |-----------------------------------|----------------------|----------------------------------------------|
 * | `command` is null or empty        | -1                   | Invalid command                              |
 * | no resources for a child          | -1                   | vfork failed                                 |
 * | the shell cannot be executed      | 127                  | execl failed for command: %s, then           |
 * |                                   |                      | Command exited with status %d (127)          |
 * | waiting failed                    | -1                   | waitpid failed                               |
 * | a signal ended it                 | -1                   | Command terminated by signal %d              |
 * | it exited with 0                  | 0                    | none                                         |
 * | it exited with another code       | that code, 1 to 255  | Command exited with status %d                |
 *
 * @param command  the command line
 * @return see the table. 127 is also the shell's own code for a command that it does not find.
 */
QMX_API int QMXUtil_ExecShell(const char* command);

#endif
