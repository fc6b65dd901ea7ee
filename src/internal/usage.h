// Internal functions of the usage monitors that unit tests and the fuzz target call directly.
#pragma once

#include "qmxutil_usage.h"

// Takes the counters of one `cpu` line. Returns 1, or 0 with the sample untouched when user, system or idle
// is missing or negative (traced).
int usage_cpu_parse(const char* line, UsageCpuSample* sample);

// Percentages of the interval between two samples; all 0 when no time has passed.
void usage_cpu_calc(const UsageCpuSample* prev, const UsageCpuSample* cur, int32_t* user, int32_t* system,
                    int32_t* total);

// Reads the `stat` files one directory level below `dirPath` into the handle's table: appended on a rebuild,
// otherwise matched by name. `depth` is 0 at first; `mismatch` is set when ticks went backwards.
void usage_task_read_depth1(UsageTaskHandle* handle, const char* dirPath, uint8_t rebuild, int32_t* depth,
                            int32_t* mismatch);

// Takes name, utime and stime of one `stat` line into a cleared entry. Always returns 0.
int usage_task_parse(const char* line, UsageTaskEntry* entry);
