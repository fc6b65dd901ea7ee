// Tracing with the place filled in. A source file that traces names its module in a string MODULE.
#pragma once

#include "qmx_trace.h"

// The function traced is the one the macro stands in: keep it out of lambdas and helpers whose name the
// reader of a trace would not know. A helper that exported functions share traces as its caller, with
// TRACE_AS.
#define TRACE_AS(function, level, ...) \
  QMX_Trace(MODULE, level, __FILE_NAME__, __LINE__, function, __VA_ARGS__)
#define TRACE(level, ...) TRACE_AS(__func__, level, __VA_ARGS__)
#define TRACE_ERROR(...) TRACE(QMX_TRACE_ERROR, __VA_ARGS__)
#define TRACE_EVENT(...) TRACE(QMX_TRACE_EVENT, __VA_ARGS__)
#define TRACE_VERBOSE(...) TRACE(QMX_TRACE_VERBOSE, __VA_ARGS__)
