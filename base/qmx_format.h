/**
 * @file qmx_format.h
 * @brief Base library: formatting and sleep.
 */
#ifndef QMX_FORMAT_H
#define QMX_FORMAT_H

#include <stdint.h>

#include "qmx_api.h"

/**
 * Formats like snprintf(): the text is cut to `size` - 1 bytes and always terminated. Any thread.
 *
 * @param buffer  room for `size` bytes
 * @param size    bytes of room, at least 1
 * @param format  printf format, followed by its arguments
 * @return the length of the uncut text in bytes.
 */
QMX_BASE_API int QMX_snprintf(char* buffer, uint32_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

/**
 * Suspends the calling thread. A signal that is handled meanwhile does not shorten the sleep.
 *
 * @param duration  milliseconds; 0 and less return at once
 */
QMX_BASE_API void QMX_ThreadSleep(int duration);

#endif
