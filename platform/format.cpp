// Formatting and sleep.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "qmx_format.h"

int QMX_snprintf(char* buffer, uint32_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, size, format, args);
  va_end(args);
  return length;
}

void QMX_ThreadSleep(int duration) {
  if (duration <= 0) return;
  // An absolute deadline: sleeping on after a signal does not add up to more than was asked for.
  timespec until;
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += duration / 1000;
  until.tv_nsec += duration % 1000 * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_nsec -= 1000000000L;
    ++until.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}
