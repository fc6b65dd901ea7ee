/**
 * @file qmxutil_usage.h
 * @brief Usage monitors: CPU load, CPU shares of a process's threads, memory declared by components.
 *
 * Any thread may call these functions, none a signal handler or a timer callback. A CPU or task handle is one
 * caller's: calls on one handle must not overlap, different handles are independent. Memory accounting is one
 * table for the process, locked inside.
 *
 * CPU and task readings run shell pipelines over the system's tools (proc(5) gives the formats they read);
 * their descriptors are close-on-exec, their children are waited for, and a signal handler that runs
 * meanwhile does not end a reading.
 */
#ifndef QMXUTIL_USAGE_H
#define QMXUTIL_USAGE_H

#include <stdint.h>

#include "qmxutil_export.h"

#define QMXUTIL_USAGE_MAX_CORES 8   /**< cores that a CPU handle keeps */
#define QMXUTIL_USAGE_MAX_TASKS 100 /**< threads that a task handle keeps */

/* ---- CPU usage ---- */

/** Counters of one `cpu` line of /proc/stat, in clock ticks since the system started. */
typedef struct UsageCpuSample {
  int64_t user;   /**< in user mode */
  int64_t nice;   /**< in user mode at low priority */
  int64_t system; /**< in system mode */
  int64_t idle;   /**< idle */
  int64_t total;  /**< sum of the four; -1: no sample yet. Further columns of the line are not counted. */
} UsageCpuSample;

/** State of a CPU monitor; made by QMXUTIL_UsageCpuOpen(), not to be changed by the caller. */
typedef struct UsageCpuHandle {
  int32_t coreCount;                                /**< cores, 1 to 8 */
  UsageCpuSample prevCore[QMXUTIL_USAGE_MAX_CORES]; /**< previous sample of each core */
  UsageCpuSample curCore[QMXUTIL_USAGE_MAX_CORES];  /**< current sample of each core */
  UsageCpuSample prevAll;                           /**< previous sample of the whole machine */
  UsageCpuSample curAll;                            /**< current sample of the whole machine */
} UsageCpuHandle;

/** Load over an interval, in whole percent, rounded toward zero. */
typedef struct UsageCpuLoad {
  char name[8];   /**< "CPU", "CPU*" or "CPU0" to "CPU7"; written by the first reading only */
  int32_t user;   /**< in user mode, low priority included */
  int32_t system; /**< in system mode */
  int32_t total; /**< busy: the larger of 100 - idle and user + system. Above 100 when idle went backwards. */
} UsageCpuLoad;

/** Load of the machine and of each core. */
typedef struct UsageCpuLoadMulti {
  UsageCpuLoad all;                           /**< the whole machine */
  UsageCpuLoad core[QMXUTIL_USAGE_MAX_CORES]; /**< each core, in the order of /proc/stat */
  int32_t coreCount;                          /**< records of `core` in use; 0 on a machine with one core */
} UsageCpuLoadMulti;

/**
 * Opens a CPU monitor.
 *
 * Blocks until the pipeline that counts the cores (`cat`, `grep`, `wc`) has ended. On a machine with more
 * than eight cores the first eight are kept; the load of the whole machine counts all of them.
 *
 * @return a handle that the caller releases with QMXUTIL_UsageCpuClose(); null when the number of cores
 * cannot be found (traced at level 1) or memory is short (not traced).
 */
QMX_API UsageCpuHandle* QMXUTIL_UsageCpuOpen(void);

/**
 * Reads the load of the whole machine since the previous reading on this handle.
 *
 * The first reading only starts the measurement: it writes the label "CPU" and 0, 0, 0. Later ones leave the
 * label alone, so pass the same record each time. QMXUTIL_UsageCpuGetMulti() shares this measurement:
 * whichever runs first writes its label. When no counter moved in between, the load is 0, 0, 0.
 *
 * Blocks until the pipeline (`cat`, `head`) has ended. When it prints nothing, the counters stay what they
 * were.
 *
 * @param handle  the handle
 * @param out     the record to fill
 * @return 1; 0 when an argument is null (not traced), or the pipeline cannot be started or its line is no
 *         `cpu` line (traced at level 1; `out` untouched).
 */
QMX_API int QMXUTIL_UsageCpuGet(UsageCpuHandle* handle, UsageCpuLoad* out);

/**
 * Reads the load of the whole machine and of each core since the previous reading of each.
 *
 * As QMXUTIL_UsageCpuGet(); the label of the whole machine is "CPU*", those of the cores "CPU0" and up by
 * position, whatever the line itself says. A core whose line is refused (traced) keeps its record and its
 * previous sample, and the reading goes on. On a machine with one core only `all` is filled.
 *
 * @param handle  the handle
 * @param out     the record to fill
 * @return 1; 0 as QMXUTIL_UsageCpuGet().
 */
QMX_API int QMXUTIL_UsageCpuGetMulti(UsageCpuHandle* handle, UsageCpuLoadMulti* out);

/**
 * Releases a CPU monitor. Never blocks.
 *
 * @param handle  the handle, or null
 */
QMX_API void QMXUTIL_UsageCpuClose(void* handle);

/* ---- Task usage ---- */

/** One thread of the watched process. Ticks are 32-bit and wrap. */
typedef struct UsageTaskEntry {
  char name[64];        /**< name with its parentheses, up to its first blank, such as "(main)" */
  uint32_t updated;     /**< 1 when matched during the current reading */
  uint32_t prevUser;    /**< user mode ticks before the last update */
  uint32_t prevSystem;  /**< system mode ticks before the last update */
  uint32_t curUser;     /**< user mode ticks at the last update */
  uint32_t curSystem;   /**< system mode ticks at the last update */
  uint32_t deltaUser;   /**< curUser - prevUser */
  uint32_t deltaSystem; /**< curSystem - prevSystem */
} UsageTaskEntry;

/** State of a task monitor; made by QMXUTIL_UsageTaskOpen(), not to be changed by the caller. */
typedef struct UsageTaskHandle {
  char path[64];                                   /**< "/proc/<pid>/task" */
  uint8_t rebuild;                                 /**< 1: the next reading builds the table anew */
  int32_t count;                                   /**< entries in use */
  UsageTaskEntry entries[QMXUTIL_USAGE_MAX_TASKS]; /**< in the order of the directory when it was built */
  uint32_t sumPrevUser;                            /**< sums over all entries; 0 between readings */
  uint32_t sumPrevSystem;                          /**< likewise */
  uint32_t sumCurUser;                             /**< likewise */
  uint32_t sumCurSystem;                           /**< likewise */
  uint32_t sumDeltaUser;                           /**< likewise */
  uint32_t sumDeltaSystem;                         /**< likewise */
} UsageTaskHandle;

/** Share of one thread in the CPU time that its process used in the interval, in percent. */
typedef struct UsageTaskLoad {
  char name[32]; /**< the thread's name, cut to 31 bytes */
  float user;    /**< in user mode */
  float system;  /**< in system mode */
  float total;   /**< both */
} UsageTaskLoad;

/** Shares of all threads. */
typedef struct UsageTaskLoadList {
  int32_t count;                               /**< records in use */
  UsageTaskLoad task[QMXUTIL_USAGE_MAX_TASKS]; /**< in table order */
} UsageTaskLoadList;

/**
 * Opens a monitor of the threads of a process, found by name with the tool `pidof` (the first process that it
 * lists). Blocks until the tool has ended.
 *
 * @param processName  the process's name; what follows its first 121 bytes is not looked at
 * @return a handle that the caller releases with QMXUTIL_UsageTaskClose(); null when `processName` is null,
 *         there is no such process or the tool cannot be run (traced at level 1), or memory is short (not
 *         traced).
 */
QMX_API UsageTaskHandle* QMXUTIL_UsageTaskOpen(const char* processName);

/**
 * Reads how the threads shared the process's CPU time since the previous reading.
 *
 * The first reading only builds the table of threads and writes no records. Threads are recognised by name;
 * those of one name, in the order of the directory. What follows from that:
 * - A thread that appears later is not reported until the table is built anew.
 * - A thread that ends stays in the table with its last values, which keep counting in the total, so that the
 *   shares of the others come out smaller.
 * - When a thread's ticks went backwards (another thread of its name took its place), the reading returns 0
 *   and the next one builds the table anew, like the first.
 * - A thread whose name contains a blank is listed by what precedes it, with no CPU time: the name ends at
 * its first blank, and the fields after it no longer line up.
 * - Threads beyond the hundredth are not counted. When no thread used any CPU time, all shares are 0.
 * - When the process has ended (traced), the table is reported unchanged.
 *
 * Reads one small file per thread; blocks for nothing else.
 *
 * @param handle  the handle
 * @param out     the records to fill; `count` is 0 when none were written
 * @return 1, also for the reading that builds the table; 0 when an argument is null (not traced) or the table
 *         must be built anew (traced at level 1).
 */
QMX_API int QMXUTIL_UsageTaskGet(UsageTaskHandle* handle, UsageTaskLoadList* out);

/**
 * Releases a task monitor. Never blocks.
 *
 * @param handle  the handle, or null
 */
QMX_API void QMXUTIL_UsageTaskClose(void* handle);

/* ---- Memory accounting ----
 *
 * Components declare blocks that they hold; a report lists them by type in megabytes (of 1048576 bytes).
 * There are three types at most and any number of items. Each function holds the table's lock from start to
 * end and so blocks while another one runs, a report's output included.
 */

/**
 * Opens the accounting, or counts one more user when it is open already.
 *
 * @param path  report file, created when it is missing; null for "/tmp/memstat". Only the first open uses it.
 * @return 1 when the accounting is open; 0 when the file cannot be opened (traced at level 1) or memory is
 *         short (not traced); the accounting is closed then.
 */
QMX_API int QMXUTIL_UsageMemOpen(const char* path);

/**
 * Declares a block. Blocks are never withdrawn one by one; one name may be declared any number of times, and
 * each time is a line of the report. Takes constant time.
 *
 * @param type  type name, copied; a new one takes one of three places
 * @param item  item name, copied; null prints as an empty name
 * @param size  bytes; added to the type's total in 32 bits, which wrap
 * @return 1 when it was recorded, or the accounting is closed and nothing was done; 0 with nothing recorded
 *         when there is no place for a new type (traced at level 1), `type` is null, or memory is short.
 */
QMX_API int QMXUTIL_UsageMemAdd(const char* type, const char* item, int32_t size);

/**
 * Writes a report; nothing when the accounting is closed. Types whose total is 0 or less are left out. Each
 * line is cut to 63 bytes, its end included: one that is cut runs into the next.
 *
 * Blocks until the output is written. Reports to the file follow one another until the last close.
 *
 * @param toStdout  nonzero: to standard output, else to the report file
 * @return 1.
 */
QMX_API int QMXUTIL_UsageMemPrint(uint8_t toStdout);

/** Takes back one open; the last one closes the report file and forgets all items. */
QMX_API void QMXUTIL_UsageMemClose(void);

#endif
