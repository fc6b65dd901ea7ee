/**
 * @file qmx_bits.h
 * @brief Base library: bit reader and writer over a caller's buffer.
 *
 * Bits are taken and put most significant bit first, as the video standards write them. A handle belongs to
 * one thread at a time; none of these functions may be called from a signal handler.
 *
 * Parsers ask for bits beyond the end of short buffers in ordinary use. Nothing outside the buffer is ever
 * read or written; missing bits read as 1s, so that a count of leading zeros ends there.
 */
#ifndef QMX_BITS_H
#define QMX_BITS_H

#include <stdint.h>

#include "qmx_api.h"

typedef struct QMXBit QMXBit; /**< a bit position in a buffer; opaque */

/**
 * Opens a reader or writer at the first bit of a buffer.
 *
 * @param buffer  the bytes, which must outlive the handle; written to only by the QMXBitPut functions
 * @param length  bytes in the buffer (for writing: its room)
 * @return the handle, which the caller releases with QMXBitClose(), or null.
 */
QMX_BASE_API QMXBit* QMXBitOpen(const uint8_t* buffer, uint32_t length);

/**
 * Moves to the next byte boundary; does nothing at one.
 *
 * @param handle  the handle
 */
QMX_BASE_API void QMXBitByteAlign(QMXBit* handle);

/**
 * Reads bits.
 *
 * @param handle  the handle
 * @param n       how many, 0 to 32; 0 gives 0 and consumes nothing
 * @return the bits as a number, the first one read being the most significant.
 */
QMX_BASE_API uint32_t QMXBitGetBit(QMXBit* handle, uint32_t n);

/**
 * Reads bits without consuming them.
 *
 * @param handle  the handle
 * @param n       how many, 0 to 32
 * @return as QMXBitGetBit().
 */
QMX_BASE_API uint32_t QMXBitShow(QMXBit* handle, uint32_t n);

/**
 * Appends bits. Bits that do not fit the room are dropped.
 *
 * @param handle  the handle, opened over a writable buffer
 * @param n       how many, 1 to 32
 * @param value   the bits, in its low `n` bits
 */
QMX_BASE_API void QMXBitPutBit(QMXBit* handle, uint32_t n, uint32_t value);

/**
 * Appends whole bytes (at any bit position). Bytes that do not fit the room are dropped.
 *
 * @param handle  the handle, opened over a writable buffer
 * @param count   how many
 * @param bytes   the bytes
 */
QMX_BASE_API void QMXBitPutByte(QMXBit* handle, uint32_t count, const uint8_t* bytes);

/**
 * @param handle  the handle
 * @return the number of bits read or written so far.
 */
QMX_BASE_API uint32_t QMXBitGetProcessed(QMXBit* handle);

/**
 * Releases the handle, not the buffer.
 *
 * @param handle  the handle
 */
QMX_BASE_API void QMXBitClose(QMXBit* handle);

#endif
