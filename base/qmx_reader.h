/**
 * @file qmx_reader.h
 * @brief Base library: media file reader.
 *
 * Opens a recorded media file, tells what it carries, and delivers its user data records one after another.
 * The records below cross the border to the base library, so their layout is fixed (64-bit, little-endian).
 * Room named `reserved` belongs to the base library; libqmxutil clears a record before it passes it in.
 * A handle belongs to one thread at a time; none of these functions may be called from a signal handler.
 */
#ifndef QMX_READER_H
#define QMX_READER_H

#include <stddef.h>
#include <stdint.h>

#include "qmx_api.h"

typedef struct QMXReader QMXReader; /**< an open media file; opaque */

/** What to open. */
typedef struct QMXReaderParam {
  const char* path;      /**< NUL-terminated path of the media file */
  uint8_t reserved8[24]; /**< zero */
} QMXReaderParam;

/** What an open file carries. */
typedef struct QMXReaderInfo {
  uint32_t containerType;    /**< 1: a one-byte metadata value is stored as a big-endian word */
  uint8_t reserved4[12];     /**< the base library's own */
  uint32_t metaPresent;      /**< nonzero when the file carries the metadata field */
  uint32_t userDataPresent;  /**< nonzero when the file carries user data records */
  uint8_t reserved24[6436];  /**< the base library's own */
  uint32_t durationMs;       /**< length of the recording in milliseconds */
  uint8_t reserved6464[4];   /**< the base library's own */
  uint32_t userDataCount;    /**< number of user data records */
  uint8_t reserved6472[56];  /**< the base library's own */
  uint32_t metaValue;        /**< current value of the metadata field */
  uint32_t metaOffset;       /**< byte offset of the metadata field from the start of the file */
  uint8_t reserved6536[160]; /**< the base library's own */
} QMXReaderInfo;

#define QMX_READER_KIND_USER_DATA 3u /**< QMXReaderFrame::kind of the user data stream */

/** A request for the next record of a stream. */
typedef struct QMXReaderFrame {
  uint8_t* data;          /**< in: where the record goes */
  uint32_t reserved8;     /**< in: 0 */
  uint32_t capacity;      /**< in: room at `data` in bytes */
  uint64_t timeMs;        /**< out: time of the record in milliseconds from the start of the recording */
  uint8_t reserved24[12]; /**< the base library's own */
  uint32_t reserved36;    /**< in: 0 */
  uint32_t kind;          /**< in: which stream, QMX_READER_KIND_USER_DATA */
  uint32_t reserved44;    /**< in: 0 */
  uint8_t reserved48[16]; /**< the base library's own */
} QMXReaderFrame;

#ifdef __cplusplus
#define QMX_READER_ASSERT(condition) static_assert(condition, #condition)
#else
#define QMX_READER_ASSERT(condition) _Static_assert(condition, #condition)
#endif
QMX_READER_ASSERT(sizeof(QMXReaderParam) == 32);
QMX_READER_ASSERT(offsetof(QMXReaderParam, path) == 0);
QMX_READER_ASSERT(sizeof(QMXReaderInfo) == 6696);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, containerType) == 0);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, metaPresent) == 16);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, userDataPresent) == 20);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, durationMs) == 6460);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, userDataCount) == 6468);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, metaValue) == 6528);
QMX_READER_ASSERT(offsetof(QMXReaderInfo, metaOffset) == 6532);
QMX_READER_ASSERT(sizeof(QMXReaderFrame) == 64);
QMX_READER_ASSERT(offsetof(QMXReaderFrame, data) == 0);
QMX_READER_ASSERT(offsetof(QMXReaderFrame, capacity) == 12);
QMX_READER_ASSERT(offsetof(QMXReaderFrame, timeMs) == 16);
QMX_READER_ASSERT(offsetof(QMXReaderFrame, kind) == 40);
#undef QMX_READER_ASSERT

/**
 * Opens a media file.
 *
 * @param out    where the handle is stored on success; the caller releases it with QMXReaderClose()
 * @param param  what to open
 * @return a negative value on failure.
 */
QMX_BASE_API int QMXReaderOpen(QMXReader** out, QMXReaderParam* param);

/**
 * Tells what the file carries.
 *
 * @param handle  the handle
 * @param info    the record to fill, cleared by the caller
 * @return a negative value on failure.
 */
QMX_BASE_API int QMXReaderGetInfo(QMXReader* handle, QMXReaderInfo* info);

/**
 * Delivers the next record of a stream, in file order: at most `capacity` bytes of it at `data`, and its
 * time in `timeMs`. A record larger than the room is cut, and counts as delivered.
 *
 * @param handle  the handle
 * @param frame   the request
 * @return a negative value on failure, also after the last record.
 */
QMX_BASE_API int QMXReaderReadFrame(QMXReader* handle, QMXReaderFrame* frame);

/**
 * Closes the file and releases the handle.
 *
 * @param handle  the handle
 */
QMX_BASE_API void QMXReaderClose(QMXReader* handle);

#endif
