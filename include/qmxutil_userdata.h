/**
 * @file qmxutil_userdata.h
 * @brief User data records and the metadata field of recorded media files, directory search, GPS conversion.
 *
 * Recordings are read through the base library's media file reader. A user data handle belongs to one thread
 * at a time; everything else here keeps nothing between calls. No function may be called from a signal
 * handler. Failures are traced at level 1 under "qmxutiluserdata".
 */
#ifndef QMXUTIL_USERDATA_H
#define QMXUTIL_USERDATA_H

#include <stdint.h>

#include "qmx_reader.h"
#include "qmxutil_export.h"

#define QMX_USERDATA_MAX_RECORD 1024 /**< largest record size in bytes */

/** Where one record is kept. */
typedef struct UserDataIndexEntry {
  uint8_t* data; /**< its bytes, within the handle's `buffer` */
  int32_t
      timeMs; /**< milliseconds from the start of the recording; 0 until it is read, negative: it failed */
} UserDataIndexEntry;

/** A recording whose user data is being read. Made and released by the library; not for callers to change. */
typedef struct UserDataHandle {
  QMXReader* reader;         /**< the open file */
  QMXReaderInfo info;        /**< what the file carries */
  uint8_t* buffer;           /**< room for all records, one after another */
  UserDataIndexEntry* index; /**< `count` entries, in file order */
  int32_t count;             /**< records in the file */
  int32_t cur;               /**< the record handed out last */
  int32_t loaded;            /**< records asked of the file so far: those before this index */
  int32_t recordSize;        /**< bytes of one record */
} UserDataHandle;

/**
 * Opens a recording that carries user data. Room for all records is reserved here, in steps of 512 KiB;
 * nothing is read yet, and reading later allocates nothing.
 *
 * Any thread; may block on the file.
 *
 * @param path        NUL-terminated path of the recording
 * @param recordSize  bytes of one record, 1 to QMX_USERDATA_MAX_RECORD: longer records are cut, shorter ones
 *                    are followed by zeros
 * @return the handle, which the caller releases with QMXUtil_UserDataClose(), or null: the arguments are out
 *         of range, the file cannot be read or carries no user data (each traced), or there is not enough
 *         memory for that many records (not traced). Nothing stays held then.
 */
QMX_API UserDataHandle* QMXUtil_UserDataOpen(const char* path, int32_t recordSize);

/**
 * Finds the first record at or after a second of the recording. Records that were read before are searched
 * first, in file order; then the file is read on until one matches.
 *
 * May block on the file. A record that the file fails to deliver ends the search with 0; it is passed over
 * from then on. A search without a result leaves the position of QMXUtil_UserDataReadNext() where it was.
 *
 * @param handle  the handle
 * @param second  seconds from the start of the recording, at most its duration
 * @param out     room for `recordSize` bytes, all of them written on success
 * @return 1, or 0 (traced): a null argument, a second after the end, no record at or after it, or a record
 *         that could not be read. `out` is untouched then.
 */
QMX_API int QMXUtil_UserDataRead(UserDataHandle* handle, uint32_t second, void* out);

/**
 * Hands out the record after the one handed out last; on a fresh handle the first.
 *
 * May block on the file. A record that the file fails to deliver, or whose time does not fit 31 bits, gives 0
 * and is moved past: the next call goes on with the one after it. When QMXUtil_UserDataRead() has loaded
 * records without finding one, a handle is no longer fresh: the first record is then passed over.
 *
 * @param handle  the handle
 * @param out     room for `recordSize` bytes, all of them written on success
 * @return 1, or 0 (traced): a null argument, the end of the data, or a record that could not be read. `out`
 * is untouched then.
 */
QMX_API int QMXUtil_UserDataReadNext(UserDataHandle* handle, void* out);

/**
 * @param handle  the handle
 * @return the number of records in the file, 0 (traced) for a null handle.
 */
QMX_API int QMXUtil_UserDataCount(UserDataHandle* handle);

/**
 * Closes the recording and releases the handle with all its memory.
 *
 * @param handle  the handle; null is ignored
 */
QMX_API void QMXUtil_UserDataClose(UserDataHandle* handle);

#define QMX_META_BYTE 1 /**< the type of a one-byte metadata value; every other type is a 16-bit one */

/**
 * Reads the metadata field of a recording.
 *
 * Any thread; may block on the file.
 *
 * @param path      NUL-terminated path of the recording
 * @param metaType  QMX_META_BYTE, or anything else for all bits that the media file reader found
 * @return the value, its low 8 bits alone for QMX_META_BYTE. 0 (traced) when the path is null, the file
 * cannot be read or has no such field; 0 is also a possible value.
 */
QMX_API uint32_t QMXUtil_MetaDataRead(const char* path, int32_t metaType);

/**
 * Overwrites the metadata field of a recording in place: no other byte of the file changes, nor its length.
 * The file is not locked meanwhile.
 *
 * QMX_META_BYTE writes the low 8 bits of the value, as a big-endian 32-bit number in a container of type 1
 * (ISO base media file) and as one byte elsewhere. Every other type writes the low 16 bits, low byte first.
 * The field's own size is not looked at: the type must be the one that the field was made with, or bytes
 * after the field are overwritten or the value reads back as another one.
 *
 * Any thread; may block on the file.
 *
 * @param path      NUL-terminated path of the recording
 * @param metaType  QMX_META_BYTE, or anything else for 16 bits
 * @param value     the new value
 * @return 1, or 0 (traced, nothing written): the path is null, the file cannot be read, has no such field,
 *         cannot be written to or positioned. Whether the write itself succeeds is not examined: read the
 *         value back where that matters.
 */
QMX_API int QMXUtil_MetaDataUpdate(const char* path, int32_t metaType, uint32_t value);

/**
 * Finds the first subdirectory of a directory that contains an entry of a given name.
 *
 * Runs `find` in a shell and tries at most 32 subdirectories, in the order it lists them, which is the
 * directory's own. Each line that it prints is a path; one longer than 62 bytes is passed over. (A newline in
 * a subdirectory's name therefore makes two paths of it, the second relative to the working directory.)
 * The directory reaches the shell as it is when every character is a letter, a digit or one of _ . / + : , @
 * % -, and in quotes otherwise, so that nothing in its name is taken for shell syntax; one that begins with
 * '-', '(', ')', '!' or ',' gets "./" in front, so that it is no option. The empty one is no word at all:
 * what `find` then searches is its own choice (the working directory, or nothing). A directory whose command,
 * quotes not counted, would be longer than 127 bytes is refused, and an entry whose path would be is not
 * found.
 *
 * Any thread; blocks until the command has ended.
 *
 * @param dir      NUL-terminated path of the directory
 * @param name     name of the entry, a file or a directory
 * @param out      where the path found is written, NUL-terminated; may be null
 * @param outSize  bytes of room at `out`; a longer path is cut, and 0 or less writes nothing
 * @return 1 when there is one, else 0 (nothing is traced, `out` is untouched).
 */
QMX_API int QMXUtil_FileSearch(const char* dir, const char* name, char* out, int32_t outSize);

/** A position in decimal degrees. */
typedef struct GpsMapPoint {
  float latitude;      /**< degrees, negative in the south */
  float longitude;     /**< degrees, negative in the west */
  int32_t latitudeE5;  /**< `latitude` x 100000, truncated toward zero */
  int32_t longitudeE5; /**< `longitude` x 100000, truncated toward zero */
} GpsMapPoint;

/**
 * Converts a position from degrees and minutes, as NMEA 0183 sentences have it, to decimal degrees.
 *
 * All steps are done in single precision: of the 9 digits that a sentence can carry about 7 survive. Values
 * that an integer does not hold become the nearest one, and what is not a number becomes 0 there; a zero
 * never comes out negative. Any thread; keeps nothing.
 *
 * @param latitudeFlag   nonzero north, 0 south
 * @param longitudeFlag  nonzero east, 0 west
 * @param latitude       ddmm.mmmm
 * @param longitude      dddmm.mmmm
 * @return the position.
 */
QMX_API GpsMapPoint QMXUtil_GPSConvToMap(uint8_t latitudeFlag, uint8_t longitudeFlag, float latitude,
                                         float longitude);

#endif
