/**
 * @file qmx_trace.h
 * @brief Base library: tracing.
 */
#ifndef QMX_TRACE_H
#define QMX_TRACE_H

#include "qmx_api.h"

#define QMX_TRACE_ERROR 1   /**< a call failed */
#define QMX_TRACE_EVENT 2   /**< a notable event */
#define QMX_TRACE_VERBOSE 3 /**< a dump of what was parsed */

/**
 * Emits one message.
 *
 * Any thread may call it, signal handlers included, so an implementation must not allocate, must not wait for
 * a lock that an interrupted thread could hold, and must leave errno as it was. A null string argument must
 * not crash it ("(null)" is printed for it). Whether a level is shown, and where, is the base library's
 * decision.
 *
 * @param module      trace module name of the calling source file, such as "qmxutil_ini"
 * @param level       QMX_TRACE_ERROR, QMX_TRACE_EVENT or QMX_TRACE_VERBOSE
 * @param sourceFile  name of the calling source file, without directories
 * @param line        line of the call
 * @param function    name of the calling function
 * @param format      printf format that ends with "\n", followed by its arguments
 */
QMX_BASE_API void QMX_Trace(const char* module, int level, const char* sourceFile, int line,
                            const char* function, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

#endif
