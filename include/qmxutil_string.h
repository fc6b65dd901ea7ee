/**
 * @file qmxutil_string.h
 * @brief Text and bytes: number conversion, string helpers, keyed values, hexadecimal text and start codes,
 * Base64.
 *
 * Conventions of all functions here:
 * - A text is a NUL-terminated string of bytes. Letters and digits are those of ASCII, whatever the locale;
 *   only "A" to "Z" and "a" to "z" have a case. Bytes are unsigned: 128 and above are above every letter.
 * - A line ends at its first NUL, LF or CR.
 * - Functions that look for something return a position in the caller's text, usually the one after what they
 *   took, so that a line is read with one call after another; null when there is nothing. Then nothing is
 *   stored through out-pointers. A pointer may be null only where its description says so.
 * - Lengths and counts are in bytes, 32 bits. 32-bit numbers wrap; overflow is not reported.
 * - New memory comes from QMX_Malloc(), belongs to the caller and is released with QMX_Free() (qmx_memory.h).
 *   What does not fit 32 bits of size is refused with null before anything is touched.
 * - There are no messages and no errno. No function keeps state, blocks, or (apart from those that return
 *   new memory) calls the base library: any thread may call any of them at any time. Those that do not
 *   return new memory may be called from a signal handler.
 */
#ifndef QMXUTIL_STRING_H
#define QMXUTIL_STRING_H

#include <stdint.h>

#include "qmxutil_export.h"

/**
 * @name Numbers
 * Fast and trusting: no sign, no white space, no prefix, no error. Every character is taken for a digit and
 * counts its code minus the code of "0" (so "a" counts 49 in a decimal number, and "-5" is -3 x 10 + 5). Hand
 * them digits only; the keyed extractors below do. Results wrap in 32 bits.
 * @{
 */

/**
 * Reverses a text in place.
 *
 * @param[in,out] s  the text, or null
 * @return `s`
 */
QMX_API char* QMX_strrev(char* s);

/**
 * Converts decimal digits.
 *
 * @param s  the digits; an empty text is 0
 * @return the number, modulo 2^32: 2^31 and above come out negative.
 */
QMX_API int32_t QMX_ATOI(const char* s);

/**
 * Converts seconds with an optional fraction to milliseconds: "12.5" is 12500, ".25" is 250.
 *
 * @param s  digits, and after a "." up to three more that count; further ones are cut, not rounded
 * @return milliseconds, modulo 2^32; 0 for an empty text.
 */
QMX_API int32_t QMX_ATOI_MS(const char* s);

/**
 * Converts a time of the layout hh:mm:ss with an optional fraction to milliseconds: "01:02:03.5" is 3723500.
 *
 * The separators are not looked at, and the seconds may have any number of digits. Of a text shorter than the
 * layout the fields that are there count and the others are 0: "5" is five hours, "12:34" twelve hours and 34
 * minutes.
 *
 * @param s  the time
 * @return milliseconds, modulo 2^32.
 */
QMX_API int32_t QMX_ATOI_TS(const char* s);

/**
 * Converts hexadecimal digits of either case. There is no prefix: "0x10" is four digits, and 18448.
 *
 * @param s  the digits; an empty text is 0
 * @return the number, modulo 2^32.
 */
QMX_API uint32_t QMX_ATOI_HEX(const char* s);

/**
 * Writes a number in decimal.
 *
 * @param value  the number
 * @param buf    room for at least 12 bytes, for the longest text, -2147483648, and its NUL
 * @return `buf`
 */
QMX_API char* QMX_ITOA(int32_t value, char* buf);

/**
 * @}
 * @name String helpers
 * @{
 */

/**
 * Turns a stretch of bytes into lower case. A NUL does not end it: exactly `n` bytes are converted.
 *
 * @param[in,out] s  the bytes, or null
 * @param n          how many; 0 and less change nothing
 * @return `s`
 */
QMX_API char* QMXUtilStrntolower(char* s, int32_t n);

/**
 * Turns a stretch of bytes into upper case. A NUL does not end it: exactly `n` bytes are converted.
 *
 * @param[in,out] s  the bytes, or null
 * @param n          how many; 0 and less change nothing
 * @return `s`
 */
QMX_API char* QMXUtilStrntoupper(char* s, int32_t n);

/**
 * Compares two texts, ignoring case. Letters compare as lower case, so "_" sorts before every letter.
 *
 * @param a  a text
 * @param b  another
 * @return 0 when they are equal, else the difference of the first two bytes that differ, in lower case.
 */
QMX_API int QMXUtilStricmp(const char* a, const char* b);

/**
 * Compares the beginnings of two texts, ignoring case.
 *
 * @param a  a text; needs no NUL within its first `n` bytes
 * @param b  another, likewise
 * @param n  bytes to compare at most; 0 makes any two texts equal
 * @return as QMXUtilStricmp().
 */
QMX_API int QMXUtilStrnicmp(const char* a, const char* b, uint32_t n);

/**
 * Copies the beginning of a text. The block always has `n` + 1 bytes, those after the text are NUL.
 *
 * @param src  the text, which needs no NUL within its first `n` bytes; null gives null
 * @param n    characters to copy at most
 * @return the new text, or null when it cannot be had.
 */
QMX_API char* QMXUtilStrdupn(const char* src, uint32_t n);

/**
 * Copies a text.
 *
 * @param src  the text; null gives null
 * @return the new text, or null when it cannot be had.
 */
QMX_API char* QMXUtilStrdup(const char* src);

/**
 * Joins two texts.
 *
 * @param a  the first; null gives null
 * @param b  the second; null counts as empty
 * @return the new text, or null when it cannot be had.
 */
QMX_API char* QMXUtilStrmcat(const char* a, const char* b);

/**
 * Tells whether a text begins with a decimal digit, spaces before it (tabs not) left aside. Only this one
 * character is looked at: "7x" counts as a number, "-7" does not.
 *
 * @param s  the text; null is no number
 * @return 1 or 0
 */
QMX_API int QMXUtilStrIsDecNumber(const char* s);

/**
 * Searches the first line of a text, the case mattering.
 *
 * Only where a match begins is confined to the line: it may begin on the line end, and a pattern that itself
 * has an LF or CR is found across it.
 *
 * @param text     the text; null gives null
 * @param pattern  what to find; an empty or null pattern is found at the start of the text
 * @return the first match in `text`, or null.
 */
QMX_API const char* QMXUtilStrFindString(const char* text, const char* pattern);

/**
 * Takes one logical line: a line and the continuation lines after it, which are those that begin with a
 * space.
 *
 * The lines are joined in place: the LF between them, and a CR before it, become spaces, and the space that
 * began the continuation stays. A line of spaces only does continue the line before it. The line taken is not
 * terminated: it is the `len` bytes before the position returned, its own CR and LF included, spaces at its
 * start not.
 *
 * @param[in,out] text  the text; null gives null and leaves `len` alone
 * @param len           receives the length of the line
 * @return where the next line begins, or the text's NUL.
 */
QMX_API char* QMXUtilStrGetLine(char* text, uint32_t* len);

/**
 * @}
 * @name Numbers after a key
 * Each finds the key on the first line of the text (QMXUtilStrFindString()), passes over everything up to the
 * first character that can begin a number of its kind, whatever that is, letters and signs included, and
 * converts the run of such characters. A line end before it means that there is no number. Of a run longer
 * than 23 characters the first 23 are converted; the position returned is after the whole run.
 *
 * A key is found inside a longer word too: "port=" is found in "Report=1". Give the character before it as
 * part of the key where that matters, and check by the position returned that the value ended where it
 * should.
 * @{
 */

/**
 * Reads an unsigned decimal number: "Port=abc12" gives 12.
 *
 * @param text  the text; null gives null
 * @param key   the key; null reads the first number of the line
 * @param out   receives the number, modulo 2^32; may be null
 * @return the position after the number, or null.
 */
QMX_API const char* QMXUtilStrGetDecNumber(const char* text, const char* key, int32_t* out);

/**
 * Reads a decimal number with an optional "-". The first "-" begins the number even when no digit follows:
 * " a-b 5" gives 0, and the position after the "-". A "+" is passed over.
 *
 * @param text  the text; null gives null
 * @param key   the key; null reads the first number of the line
 * @param out   receives the number, modulo 2^32; may be null
 * @return the position after the number, or null.
 */
QMX_API const char* QMXUtilStrGetIntNumber(const char* text, const char* key, int32_t* out);

/**
 * Reads a hexadecimal number. A prefix is not understood ("0x1F" gives 0 and the position of the "x"), and
 * letters "a" to "f" of any word on the way are digits ("none" gives 14).
 *
 * @param text  the text; null gives null
 * @param key   the key; null reads the first number of the line
 * @param out   receives the number, modulo 2^32; may be null
 * @return the position after the number, or null.
 */
QMX_API const char* QMXUtilStrGetHexNumber(const char* text, const char* key, uint32_t* out);

/**
 * Reads a number with an optional fraction, in thousandths: "12.5" gives 12500. The run is one of digits and
 * "."; QMX_ATOI_MS() converts it, odd ones too.
 *
 * @param text  the text; null gives null
 * @param key   the key; null reads the first number of the line
 * @param out   receives the number in thousandths, modulo 2^32; may be null
 * @return the position after the number, or null.
 */
QMX_API const char* QMXUtilStrGetFloatNumber(const char* text, const char* key, int32_t* out);

/**
 * Reads a time hh:mm:ss with an optional fraction. The run is one of digits, ":" and "."; QMX_ATOI_TS()
 * converts it, odd ones too. The key should include a ":" that follows it: as the first character of the run
 * it would shift all fields.
 *
 * @param text  the text; null gives null
 * @param key   the key; null reads the first time of the line
 * @param out   receives milliseconds, modulo 2^32; may be null
 * @return the position after the time, or null.
 */
QMX_API const char* QMXUtilStrGetTimeNumber(const char* text, const char* key, int32_t* out);

/**
 * @}
 * @name Tokens
 * Each finds the first run of characters of its class on the first line of the text, passing over all others.
 * @{
 */

/**
 * Finds a word: letters, digits, "-", "." and "_".
 *
 * @param text   the text; null gives null
 * @param start  receives the position of the word
 * @param len    receives its length
 * @return the position after the word, or null when the line has none.
 */
QMX_API const char* QMXUtilStrGetString(const char* text, const char** start, uint32_t* len);

/**
 * Finds a run of hexadecimal digits of either case.
 *
 * @param text   the text; null gives null
 * @param start  receives the position of the run
 * @param len    receives its length
 * @return the position after the run, or null when the line has none.
 */
QMX_API const char* QMXUtilStrGetHexString(const char* text, const char** start, uint32_t* len);

/**
 * Finds the host of an address: the first word (see QMXUtilStrGetString()) after the first "://" of the line,
 * or of the line when it has no "://". It stops before a port or a path: "proto://host-7:554/x" gives host-7.
 * A user name before an "@" is not known as such and would be taken for the host.
 *
 * @param text   the text; null gives null
 * @param start  receives the position of the host
 * @param len    receives its length
 * @return the position after the host, or null when the line has none.
 */
QMX_API const char* QMXUtilStrGetAddress(const char* text, const char** start, uint32_t* len);

/**
 * Finds a run of safe characters: letters, digits, and the signs " # $ & ' * + , - . / : = ? @ [ ] ^ _ `
 * { | } ~. Not among them are space, ! % ( ) ; < > and the backslash. The class keeps a token together; it
 * holds quotes and "$", and does not make a text safe to put into a shell command.
 *
 * @param text   the text; null gives null
 * @param start  receives the position of the run
 * @param len    receives its length
 * @return the position after the run, or null when the line has none.
 */
QMX_API const char* QMXUtilStrGetSafeString(const char* text, const char** start, uint32_t* len);

/**
 * Takes the rest of a header line: everything after leading spaces up to the first CR, or up to the end of
 * the text when there is no CR. An LF does not end it: lines that end with a bare LF are taken together.
 *
 * @param text   the text; null gives null
 * @param start  receives the position of the value
 * @param len    receives its length, which may be 0
 * @return the position of the CR or NUL.
 */
QMX_API const char* QMXUtilStrGetContext(const char* text, const char** start, uint32_t* len);

/**
 * @}
 * @name Hexadecimal text
 * Two characters a byte, the high four bits first, nothing between them.
 * @{
 */

/**
 * Converts hexadecimal text of either case to bytes.
 *
 * The text itself is turned into lower case. Characters are not checked: one that is no digit counts its code
 * minus the code of "0", and a byte is made of that modulo 256. A careful caller makes sure of the text
 * first: QMXUtilStrGetHexString() takes exactly the digits. Of an odd number of characters the last is
 * ignored.
 *
 * @param[in,out] text  the characters
 * @param len           how many
 * @param out           room for `len` / 2 bytes; may be `text` itself, which converts in place, but must not
 *                      overlap it in another way
 * @return the bytes written, `len` / 2.
 */
QMX_API uint32_t QMXUtil_ConvStrToBin(char* text, uint32_t len, uint8_t* out);

/**
 * Converts bytes to lower-case hexadecimal text.
 *
 * @param bin  the bytes
 * @param len  how many, less than 2^31
 * @return a new text of 2 x `len` characters, or null when it cannot be had.
 */
QMX_API char* QMXUtil_ConvBinToStr(const uint8_t* bin, uint32_t len);

/**
 * @}
 * @name Start codes
 * The start codes of MPEG streams: 00 00 01 and a code byte (ISO/IEC 11172-2, 13818-1, 13818-2, 14496-2).
 * Both searches leave the cursor on what they found, not after it: to find the next one, move it on by at
 * least one byte first. Something is found only when at least five bytes remain from its first byte on, so
 * the last four bytes are never found; of a stream read in pieces, they go before the next piece.
 * @{
 */

/**
 * Moves a cursor to the next start code.
 *
 * @param[in,out] buf  the cursor; moved to the start code, or to the last four bytes when there is none
 * @param[in,out] len  bytes from the cursor to the end; becomes the bytes from the new position to the end
 * @param code         receives 0x100 plus the code byte, only when a start code is found
 * @return 1 when one was found, else 0. With fewer than five bytes nothing is changed.
 */
QMX_API int QMXUtil_FindStartCode(const uint8_t** buf, uint32_t* len, uint32_t* code);

/**
 * Moves a cursor to the next place where four bytes have a given value, such as 0x1B3 for a sequence header.
 * Any 32-bit pattern can be searched.
 *
 * @param[in,out] buf  the cursor; moved to the four bytes, or to the last four bytes when they are not there
 * @param[in,out] len  bytes from the cursor to the end; becomes the bytes from the new position to the end
 * @param code         the four bytes, read big-endian
 * @return 1 when they were found, else 0. With fewer than five bytes nothing is changed.
 */
QMX_API int QMXUtil_FindStartCode2(const uint8_t** buf, uint32_t* len, uint32_t code);

/**
 * @}
 * @name Base64
 * The standard alphabet with "=" as padding (RFC 4648, section 4).
 *
 * The decoder forgives, and reports nothing. What it does with text that is not plain Base64:
 * - It passes over every character that is neither of the alphabet nor "=", wherever it stands: line breaks,
 *   but a "," inside a group of four too. Only a "," right after a complete group ends a segment.
 * - A last group of fewer than four characters is lost: of unpadded text the last one to three characters.
 * - "=" in the first place of a group ends the decoding; in the second place it counts 0 and does not; in the
 *   third or fourth place it ends the decoding after one or two bytes of the group.
 *
 * All of a text is decoded when, white space taken out, it is one token (QMXUtilBase64GetString()) of a
 * multiple of four characters, has no ",", and has "=" only as its last one or two characters. The results do
 * not tell: a caller who must know looks at the text.
 * @{
 */

/**
 * Encodes bytes, without line breaks.
 *
 * @param data    the bytes
 * @param len     how many; a negative number is refused with null
 * @param outlen  receives the length of the text, 4 for every started three bytes
 * @return a new text, in a block of (`len` + 2) x 4 / 3 + 2 bytes whose rest is cleared; null, with `outlen`
 *         untouched, when it cannot be had.
 */
QMX_API char* QMXUtilBase64Encoding(const uint8_t* data, int32_t len, uint32_t* outlen);

/**
 * Decodes one segment: up to a "," after a complete group, padding, or the end.
 *
 * @param text    the characters; needs no NUL
 * @param out     room for three bytes for every four characters; nothing is written but what is decoded. May
 *                be where the text is, which decodes in place
 * @param len     how many characters; of fewer than four none is read
 * @param outlen  receives the number of bytes written
 * @return the position after the last character read: at a "," that ended the segment, after padding, or
 *         where fewer than four characters remained. When the last group did not get its four characters it
 *         is the end of the text, and that group is not decoded.
 */
QMX_API const char* QMXUtilBase64Decoding(const char* text, uint8_t* out, uint32_t len, uint32_t* outlen);

/**
 * Finds a Base64 token in the first line of a text: a run of the alphabet, "=" and ",", so that a list of
 * segments is one token. A key before it belongs to the token when only a "=" is between ("a=Z0IA"): start
 * after the key.
 *
 * @param text   the text; null gives null
 * @param start  receives the position of the token
 * @param len    receives its length
 * @return the position after the token, or null when the line has none.
 */
QMX_API const char* QMXUtilBase64GetString(const char* text, const char** start, uint32_t* len);

/**
 * Decodes one segment into new memory. See QMXUtilBase64Decoding().
 *
 * @param text    the characters; null gives null
 * @param len     how many
 * @param outlen  receives the number of bytes decoded
 * @return a new block of `len` bytes that begins with the decoded ones, the rest not set; null, with `outlen`
 *         untouched, when it cannot be had.
 */
QMX_API uint8_t* QMXUtilBase64ConvToBin(const char* text, uint32_t len, uint32_t* outlen);

/**
 * Decodes a list of segments with "," between them, such as the parameter sets of a session description
 * (RFC 6184, sprop-parameter-sets). Each becomes an entry: two bytes with the low 16 bits of its length, low
 * byte first, and the decoded bytes.
 *
 * After each segment the text is passed over up to the next ",", "=", NUL, LF or CR, so what follows padding
 * or was too short to decode is left out. A rest of fewer than four characters that begins with one of these
 * ends the list without an entry. What decodes to nothing otherwise gives an entry of zero length: a text of
 * one to three characters in whole ("ABC"), and a last segment of three ("QUJD,ABC").
 *
 * @param text  the characters
 * @param len   how many
 * @param out   room for `len` + 2 bytes, which is always enough
 * @return the bytes written.
 */
QMX_API uint32_t QMXUtilBase64ConvToBinWLen(const char* text, uint32_t len, uint8_t* out);

/** @} */

#endif
