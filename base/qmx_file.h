/**
 * @file qmx_file.h
 * @brief Base library: files.
 *
 * A stream is a standard I/O stream: fileno(), fputs() and fflush() work on it. Different streams may be
 * used by different threads at the same time; none of these functions may be called from a signal handler.
 */
#ifndef QMX_FILE_H
#define QMX_FILE_H

#include <stdint.h>
#include <stdio.h>

#include "qmx_api.h"

/** An existing file, for reading from its start. */
#define QMX_FILE_READ 0xF0000002u
/** For writing; what is written becomes the whole file. */
#define QMX_FILE_REPLACE 0xF0000004u
/** For writing after what the file holds already; the file is created when it is missing. */
#define QMX_FILE_CREATE 0xF0000005u
/** An existing file, for writing from its start, not truncated. */
#define QMX_FILE_WRITE_IN_PLACE 0xF0000008u
/** An existing file, for writing in place after a seek. */
#define QMX_FILE_UPDATE 8u

/**
 * Opens a file.
 *
 * @param path  NUL-terminated path
 * @param mode  one of the QMX_FILE_* modes
 * @return the stream, which the caller closes with QMX_FileClose(), or null with errno set.
 */
QMX_BASE_API FILE* QMX_FileOpen(const char* path, uint32_t mode);

/**
 * Moves the position of a stream.
 *
 * @param stream  an open stream
 * @param offset  bytes, relative to `whence`
 * @param whence  0 from the start, 1 from the current position, 2 from the end
 * @return 0 on success, anything else on failure.
 */
QMX_BASE_API int QMX_FileSeek(FILE* stream, int64_t offset, int whence);

/**
 * Tells the position of a stream.
 *
 * @param stream  an open stream
 * @return bytes from the start, negative on failure.
 */
QMX_BASE_API int64_t QMX_FileTell(FILE* stream);

/**
 * Reads from the current position and moves it on by what was read.
 *
 * @param stream  a stream opened for reading
 * @param buffer  room for `count` bytes
 * @param count   bytes wanted
 * @return bytes read, fewer than `count` only at the end of the file or on error; 0 or less when none were.
 */
QMX_BASE_API int64_t QMX_FileRead(FILE* stream, void* buffer, int64_t count);

/**
 * Writes at the current position and moves it on. The bytes have reached the operating system when the call
 * returns, so that a file lock which the caller holds around the write covers it.
 *
 * @param stream  a stream opened for writing
 * @param buffer  the bytes
 * @param count   how many
 * @return bytes written, fewer than `count` on failure, with errno set.
 */
QMX_BASE_API int64_t QMX_FileWrite(FILE* stream, const void* buffer, int64_t count);

/**
 * Pushes written data through to storage. Blocks until it is there.
 *
 * @param stream  a stream opened for writing
 * @return 0 on success.
 */
QMX_BASE_API int QMX_FileSync(FILE* stream);

/**
 * Closes a stream and releases it, whatever the result.
 *
 * @param stream  an open stream
 * @return 0 on success.
 */
QMX_BASE_API int QMX_FileClose(FILE* stream);

#endif
