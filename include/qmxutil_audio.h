/**
 * @file qmxutil_audio.h
 * @brief What an audio stream is, from its first bytes: MPEG audio Layer III (MP3) frame headers
 * (ISO/IEC 11172-3, ISO/IEC 13818-3 and its unofficial extension MPEG-2.5), the AAC AudioSpecificConfig
 * (ISO/IEC 14496-3), samples per frame by format code.
 *
 * All records belong to the caller; functions fill the fields named here and leave the rest alone. There is
 * no state: every function may be called from any thread at any time, and all but UtilDecode_mp3header()
 * (which traces) from a signal handler too. Nothing blocks, nothing is allocated, nothing outside the given
 * bytes is read. Pointers may be null only where that is said.
 */
#ifndef QMXUTIL_AUDIO_H
#define QMXUTIL_AUDIO_H

#include <stdint.h>

#include "qmxutil_export.h"

#define QMX_AUDIO_FORMAT_MP3 85u /**< AudioInfo::format of MPEG audio Layer III, its WAVE format tag */

/** What is known of an audio stream. */
typedef struct AudioInfo {
  uint32_t format;     /**< format code, numbered like WAVE format tags */
  uint32_t sampleRate; /**< samples per second */
  uint32_t channels;   /**< MP3: 1 or 2. AAC: the 4-bit channel configuration (7 stands for 8 channels) */
  uint32_t user[3];    /**< the caller's; never touched here */
  uint32_t bitRate;    /**< bits per second */
} AudioInfo;

/** The fields of one 32-bit MPEG audio frame header, under the names of ISO/IEC 11172-3, 2.4.1.3. */
typedef struct MP3HeaderInfo {
  uint32_t id;           /**< 0x80000 when the ID bit is 1 (MPEG-1), else 0: the bit is left in its place */
  uint32_t layer;        /**< 1, 2 or 3; 4 for the reserved code */
  uint32_t crc;          /**< 1: a 16-bit CRC follows the header */
  uint32_t bitrateIndex; /**< last index into MP3Bitrate */
  /** index into MP3SampleRate; 9 (outside it) for MPEG-2.5 with the reserved code */
  uint32_t sampleRateIndex;
  uint32_t padding;       /**< 1: the frame is one byte longer */
  uint32_t privateBit;    /**< private_bit */
  uint32_t mode;          /**< 0 stereo, 1 joint stereo, 2 dual channel, 3 single channel */
  uint32_t modeExtension; /**< mode_extension */
  uint32_t copyBit;       /**< copyright */
  uint32_t originalBit;   /**< original/copy */
  uint32_t emphasis;      /**< emphasis */
  uint32_t lsf;           /**< 1: low sampling frequencies (MPEG-2, MPEG-2.5), 0: MPEG-1 */
  uint32_t mpeg25;        /**< 1: MPEG-2.5 */
  uint32_t channels;      /**< 1 or 2 */
  uint32_t user[2];       /**< the caller's; never touched here */
  uint32_t frameSize;     /**< Layer III: bytes of the frame without its 4-byte header; 0: free format */
} MP3HeaderInfo;

/** Sampling rates in Hz by MP3HeaderInfo::sampleRateIndex: three each of MPEG-1, MPEG-2, MPEG-2.5. */
QMX_API const uint32_t MP3SampleRate[9];
/** Bit rates in kbit/s by lsf, layer - 1, bitrateIndex; 0 for free format and for the forbidden index. */
QMX_API const uint32_t MP3Bitrate[2][3][16];
/** Samples per frame by lsf x 4 + layer. */
QMX_API const uint32_t MP3SampleNum[8];
/** Sampling rates in Hz by AAC samplingFrequencyIndex (ISO/IEC 14496-3, 1.6.3.4). */
QMX_API const uint32_t AACSampleRates[12];

/**
 * Tells whether a word is a frame header that this library accepts: frame sync (eleven 1 bits), Layer III, a
 * bit rate that is neither free format nor forbidden, a sampling rate that is not reserved. The version bits
 * are not looked at: the reserved version is accepted and decoded as MPEG-2.5.
 *
 * @param header  the four bytes of the header as a big-endian number
 * @return 1 when it is accepted, else 0.
 */
QMX_API uint8_t UtilCheck_mp3header(uint32_t header);

/**
 * Takes a frame header apart. Any word can be decoded, but the fields are meaningful only for one that
 * UtilCheck_mp3header() accepts. Deliberate results for other words, none of which reads outside a table:
 * the forbidden bit rate index 15 counts as 0 kbit/s and makes frameSize wrap (padding - 4); the reserved
 * sampling rate code is used as the next entry of MP3SampleRate, and gives frameSize 0 for MPEG-2.5, where
 * there is no next entry.
 *
 * For a layer other than III the message "[Reader]\tSorry, layer %d not supported\n" is traced at level 1 and
 * frameSize is not written.
 *
 * @param out     the record to fill
 * @param header  the four bytes of the header as a big-endian number
 * @return bytes that follow the header before the main data: the CRC (0 or 2) and the Layer III side
 *         information (9 to 32); for another layer the CRC alone.
 */
QMX_API uint32_t UtilDecode_mp3header(MP3HeaderInfo* out, uint32_t header);

/**
 * Finds the next frame and moves the caller's position to it.
 *
 * A header at the position itself is taken at once. Otherwise the position moves on to the first header that
 * is confirmed by three more headers, each at the distance that the one before it decodes to; so a sync
 * pattern inside other data is passed over, and the last three frames of a stream are found only by a caller
 * that walks from frame to frame (position += frameLength, remaining -= frameLength).
 *
 * Null, without a message, is given when 4 bytes or fewer are left (nothing moves then), or when the data
 * ends before a header could be confirmed. The position then stands at that header, or at the last 4 bytes.
 *
 * Data that arrives piece by piece: when null is returned and the position has moved, the header there is not
 * confirmed, and would be taken at once by a call that begins there. So keep one byte more, from
 * position - 1 on, append what arrives and begin at that byte, which is no header. When the position has not
 * moved, keep what is from there on and begin there. The frames are then those of the data in one piece.
 *
 * @param[in,out] data       in: the position; out: where the search ended
 * @param[in,out] remaining  in: bytes from there; out: bytes from where the search ended
 * @param frameLength        where the bytes of the whole frame with its header are stored; may be null. May
 *                           be more than what remains: the frame's end has not arrived yet
 * @param samplesPerFrame    where the samples per channel of the frame (1152 or 576) are stored; may be null
 * @return the first byte of the frame, equal to *data then, or null (frameLength and samplesPerFrame are then
 *         not written).
 */
QMX_API const uint8_t* QMXUtil_GetMP3Frame(const uint8_t** data, uint32_t* remaining, uint32_t* frameLength,
                                           uint32_t* samplesPerFrame);

/**
 * Describes an MP3 stream by its first frame, found as QMXUtil_GetMP3Frame() finds it. For a stream of
 * variable bit rate the bit rate is that of the first frame.
 *
 * @param data             the stream
 * @param length           bytes of it
 * @param info             receives format (85), sampleRate, channels and bitRate
 * @param samplesPerFrame  where the samples per channel of a frame are stored; may be null
 * @return the bit rate in bits per second, or 0 when no frame was found (nothing is written then).
 */
QMX_API uint32_t QMXUtil_GetMP3Info(const uint8_t* data, uint32_t length, AudioInfo* info,
                                    uint32_t* samplesPerFrame);

/**
 * Reads the sampling rate and the channel configuration of an AAC stream from the first two bytes of its
 * AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1). The audio object type is not looked at, nor are extensions:
 * a stream with spectral band replication reports its core rate. The sampling frequency indexes 12 to 15
 * (reserved, and the escape to an explicit frequency) give rate 0; channels is stored all the same.
 *
 * @param config  two bytes
 * @param length  not looked at
 * @param info    receives sampleRate and channels
 * @return the sampling rate in Hz.
 */
QMX_API uint32_t QMXUtil_UtilGetLATMInfo(const uint8_t* config, uint32_t length, AudioInfo* info);

/**
 * Gives the samples per frame of an audio format.
 *
 * @param format  format code, numbered like WAVE format tags: 1 PCM, 2 and 17 ADPCM, 85 MP3, 255 AAC, and the
 *                recorder's own 253 and 254
 * @return samples per frame, 0 for an unknown code. MP3 at a low sampling frequency has half of what is given
 *         here: ask QMXUtil_GetMP3Info().
 */
QMX_API uint32_t QMXUtil_GetAudioSampleSize(uint32_t format);

#endif
