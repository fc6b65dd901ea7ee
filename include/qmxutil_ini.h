/**
 * @file qmxutil_ini.h
 * @brief INI files: read, search, change, commit.
 *
 * An INI file here is a small text of "key = value" lines, with comment lines (';' or '#' anywhere) and
 * section lines ('[' anywhere) between them. Sections have no meaning: a key is found wherever it first
 * stands in the file. QMXUtil_INIOpenEx() reads the file whole, QMXUtil_INIWrite() changes the text in
 * memory, QMXUtil_INIClose() writes it back when it differs from what was read.
 *
 * Ordinary files hold their text and nothing else. Fixed-size files are written in place and filled with zero
 * bytes up to a committed size, a multiple of 2048 bytes, so that a file keeps its size (and its blocks on
 * the storage) while its text fits. Reading ends at the first zero byte.
 *
 * What surprises, and what to do about it: docs/surprises.md. What a file holds after a failure: docs/ini.md.
 *
 * Texts are byte strings; a file's text ends at its first zero byte. White space is the six ASCII characters
 * (space, \\t, \\n, \\v, \\f, \\r) and case that of ASCII letters, whatever the locale. A handle belongs to
 * one thread at a time; different handles may be used by different threads. Nothing here may be called from a
 * signal handler.
 */
#ifndef QMXUTIL_INI_H
#define QMXUTIL_INI_H

#include <stdint.h>

#include "qmxutil_export.h"

/** How a file is opened; the caller's own record. */
typedef struct INIAttr {
  uint8_t writable;  /**< not 0: writes are allowed, and a missing file is created at open */
  int32_t fixedSize; /**< size in bytes that the file is to keep; 0 for an ordinary file */
  uint8_t lock;      /**< not 0: an exclusive flock() is held on the file while it is rewritten */
} INIAttr;

/** An open file. The library makes and releases it; callers may read its fields. */
typedef struct INIHandle {
  char* path;        /**< copy of the path given at open */
  char* snapshot;    /**< the text as it was read, zero-terminated; null when the file was empty */
  char* text;        /**< the text as it is now, zero-terminated; null for an empty file not written to */
  char* cursor;      /**< where QMXUtil_INIParseLine() reads next; null when there is nothing to read */
  int32_t length;    /**< characters of `text` */
  int32_t fileSize;  /**< size of the file at open, bytes */
  uint8_t modified;  /**< set by a successful write; cleared by a caller, the close drops all changes */
  INIAttr attr;      /**< as given at open; `fixedSize` is the committed size when `writable` is set */
  uint8_t fixedMode; /**< set when the file keeps a fixed size */
} INIHandle;

/**
 * Opens an existing file for reading.
 *
 * The whole file is read, without a lock; a file of 1 MiB (1,048,576 bytes) or more is refused. A file that
 * delivers less than its size, as those of /sys do, has the text that it delivers. One that tells the size 0,
 * as those of /proc do, is empty.
 *
 * @param path  path of the file; null, and a directory, cannot be opened
 * @return the handle, released with QMXUtil_INIClose(); null (traced at level 1) when the file cannot be
 *         opened, is too large, cannot be read, or memory is short.
 */
QMX_API INIHandle* QMXUtil_INIOpen(const char* path);

/**
 * Opens a file, for writing too when the attributes say so.
 *
 * With `writable` set, a missing file is created empty, and so is the last directory of its path (mode 0755;
 * directories above it are not). With a `fixedSize` other than 0 the committed size becomes the larger of it
 * and the file's size, rounded up to a multiple of 2048 bytes.
 *
 * @param path  path of the file
 * @param attr  the attributes, copied; null is the same as QMXUtil_INIOpen()
 * @return the handle, released with QMXUtil_INIClose(); null (traced at level 1) as for QMXUtil_INIOpen(). A
 *         file that could not be created is reported as one that cannot be opened.
 */
QMX_API INIHandle* QMXUtil_INIOpenEx(const char* path, const INIAttr* attr);

/**
 * Reads one line from the cursor on and moves the cursor to the next; blank lines are passed over.
 *
 * A line that holds '[', ';' or '#' anywhere is no pair, nor is one without '='. The key of a pair runs up to
 * the first space, tab or '='; it may be empty. The value begins after the first '=' that follows and the
 * blanks after it, and runs up to the end of the line or its first carriage return; blanks at its end are
 * part of it. A last line that is no pair and has no line feed ends the text: the cursor becomes null, and a
 * further call is traced as an invalid argument until QMXUtil_INIReset().
 *
 * @param handle       the handle; null, or one with a null cursor, is an invalid argument (traced at level 1)
 * @param[out] key     room for the longest key and its terminator (the handle's `length` + 1 bytes always
 *                     do); null is an invalid argument
 * @param[out] value   room for the longest value and its terminator; null is an invalid argument
 * @param[out] isPair  1 when the line was a pair, and `key` and `value` are written; else 0. Must not be null
 * @retval 1  a line was read
 * @retval 0  the text is at its end (`isPair` is 0 or as it was), or an argument is invalid (nothing is
 *            written)
 */
QMX_API int QMXUtil_INIParseLine(INIHandle* handle, char* key, char* value, uint8_t* isPair);

/**
 * Moves the cursor to the start of the text.
 *
 * @param handle  the handle; null is ignored
 */
QMX_API void QMXUtil_INIReset(INIHandle* handle);

/**
 * Finds the first pair with exactly this key, from the cursor on. The cursor is at the start of the text
 * afterwards, so consecutive searches see the whole text. Keys of more than 63 characters are not found. The
 * time it takes grows with the text, whatever the text is.
 *
 * @param handle      the handle; null, or one with a null cursor (an empty file), is an invalid argument
 *                    (traced at level 1 as QMXUtil_INIParseLine())
 * @param key         the key; null is an invalid argument
 * @param[out] value  room for the value of this key and its terminator (the handle's `length` + 1 bytes
 *                    always do); nothing else is written to it. Null is an invalid argument
 * @retval 1  the pair was found; `value` is its value
 * @retval 0  there is no such pair, or an argument is invalid; `value` is the empty string
 */
QMX_API int QMXUtil_INISearch(INIHandle* handle, const char* key, char* value);

/**
 * Sets a value in memory: replaces it in the first line that matches the key, or appends "key = value" as a
 * new line. The cursor is at the start of the text afterwards.
 *
 * Unlike a search, a write looks for the key ignoring case, inside longer words and inside comments too, as
 * long as a space, a tab or '=' follows it, and within the first 64 characters of a line only.
 *
 * The changed line keeps what stands before the value. What follows stays, except that blanks at the start of
 * the next line go, and that the text ends with a line feed when the value was the last one. When the
 * matching line has no '=' after the key, the next '=' further down marks the value that is replaced; but a
 * line that holds '[', ']', '#' or ';' from the key on is only ever changed at its own '='.
 *
 * Failures are traced at level 1 and leave the text as it was.
 *
 * @param handle  a handle opened with `writable`; null is a failure
 * @param key     the key, not empty; null is a failure
 * @param value   the value, taken as it is, may be empty; null is a failure
 * @retval 1  the text holds the pair
 * @retval 0  an argument is null, the handle is not writable, the key is empty, the matching line has no
 *            '=', or memory is short
 */
QMX_API int QMXUtil_INIWrite(INIHandle* handle, const char* key, const char* value);

/**
 * Writes the text back if it was changed and differs from what was read, then releases the handle.
 *
 * One commit runs at a time in a process. With `lock` set an exclusive flock() is held around the writes, and
 * waited for; it covers these only, not the time since the open. The data has reached the storage when the
 * call returns. A commit is traced at level 2; one that cannot open the file loses the changes, and one that
 * cannot write does not tell.
 *
 * An ordinary file then holds the text alone. A fixed-size file is filled up with zero bytes to its committed
 * size; a longer text makes it longer, without padding.
 *
 * @param handle  the handle, not to be used afterwards; null is ignored
 */
QMX_API void QMXUtil_INIClose(INIHandle* handle);

#endif
