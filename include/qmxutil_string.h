/**
 * @file qmxutil_string.h
 * @brief Text and byte utilities.
 */
#ifndef QMXUTIL_STRING_H
#define QMXUTIL_STRING_H

#include <stdint.h>

#include "qmxutil_export.h"

/**
 * Turns a stretch of bytes into lower case. A NUL does not end it: exactly `n` bytes are converted.
 *
 * @param s  the bytes, changed in place; null gives null
 * @param n  how many; 0 and less change nothing
 * @return `s`
 */
QMX_API char* QMXUtilStrntolower(char* s, int32_t n);

/**
 * Turns a stretch of bytes into upper case. A NUL does not end it: exactly `n` bytes are converted.
 *
 * @param s  the bytes, changed in place; null gives null
 * @param n  how many; 0 and less change nothing
 * @return `s`
 */
QMX_API char* QMXUtilStrntoupper(char* s, int32_t n);

/**
 * Moves a cursor to the next MPEG start code, 00 00 01 and a code byte (ISO/IEC 13818-1, ISO/IEC 11172-2).
 *
 * The cursor is left on the start code, not after it: to find the next one, move it on by at least one byte
 * first. A start code is found only when at least five bytes remain from its first byte on.
 *
 * @param buf   the cursor; moved to the start code, or to the last four bytes when there is none
 * @param len   bytes from the cursor to the end; becomes the bytes from the new position to the end
 * @param code  receives 0x100 plus the code byte, only when a start code is found
 * @return 1 when a start code was found, else 0; with fewer than five bytes nothing is changed.
 */
QMX_API int QMXUtil_FindStartCode(const uint8_t** buf, uint32_t* len, uint32_t* code);

/**
 * Moves a cursor to the next place where four bytes are a given value, such as 0x1B3 for a sequence header.
 * Works like QMXUtil_FindStartCode() otherwise, for any 32-bit pattern.
 *
 * @param buf   the cursor; moved to the four bytes, or to the last four bytes when they are not there
 * @param len   bytes from the cursor to the end; becomes the bytes from the new position to the end
 * @param code  the four bytes, read big-endian
 * @return 1 when they were found, else 0; with fewer than five bytes nothing is changed.
 */
QMX_API int QMXUtil_FindStartCode2(const uint8_t** buf, uint32_t* len, uint32_t code);

#endif
