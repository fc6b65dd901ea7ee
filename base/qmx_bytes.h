/**
 * @file qmx_bytes.h
 * @brief Base library: sequential byte reader over a caller's buffer.
 *
 * Each call moves the reader past what it took. Bytes beyond the end of the buffer read as 0; nothing
 * outside the buffer is touched. `error` is an int that the caller sets to 0 before the first call; an
 * implementation may store a nonzero value there when data is missing. A handle belongs to one thread at a
 * time; none of these functions may be called from a signal handler.
 */
#ifndef QMX_BYTES_H
#define QMX_BYTES_H

#include <stdint.h>

#include "qmx_api.h"

typedef struct QMXByte QMXByte; /**< a byte position in a buffer; opaque */

/**
 * Opens a reader at the first byte of a buffer.
 *
 * @param buffer  the bytes, which must outlive the handle
 * @param length  how many
 * @return the handle, which the caller releases with QMXByte_Close(), or null.
 */
QMX_BASE_API QMXByte* QMXByte_Open(const uint8_t* buffer, uint32_t length);

/**
 * @param handle  the handle
 * @param error   see above
 * @return the next byte.
 */
QMX_BASE_API uint8_t QMXByte_Get_char(QMXByte* handle, int* error);

/**
 * @param handle  the handle
 * @param error   see above
 * @return the next two bytes as a big-endian number.
 */
QMX_BASE_API uint16_t QMXByte_Get_be_int16(QMXByte* handle, int* error);

/**
 * @param handle  the handle
 * @param error   see above
 * @return the next two bytes as a little-endian number.
 */
QMX_BASE_API uint16_t QMXByte_Get_le_int16(QMXByte* handle, int* error);

/**
 * @param handle  the handle
 * @param error   see above
 * @return the next four bytes as a little-endian number.
 */
QMX_BASE_API uint32_t QMXByte_Get_le_int32(QMXByte* handle, int* error);

/**
 * Copies bytes.
 *
 * @param handle       the handle
 * @param destination  room for `length` bytes; all of them are written
 * @param length       how many
 * @param error        see above
 */
QMX_BASE_API void QMXByte_Get_string(QMXByte* handle, uint8_t* destination, uint32_t length, int* error);

/**
 * Passes over bytes.
 *
 * @param handle  the handle
 * @param count   how many
 * @param error   see above
 */
QMX_BASE_API void QMXByte_Skip(QMXByte* handle, uint32_t count, int* error);

/**
 * Releases the handle, not the buffer.
 *
 * @param handle  the handle
 */
QMX_BASE_API void QMXByte_Close(QMXByte* handle);

#endif
