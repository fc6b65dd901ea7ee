/**
 * @file qmxutil_video.h
 * @brief Video streams: what their headers say, conversion between length-prefixed and start-code form, and
 *        cutting of elementary-stream files into frames.
 *
 * Standards: H.264 is ISO/IEC 14496-10, H.265 is ISO/IEC 23008-2, their configuration records (avcC, hvcC)
 * ISO/IEC 14496-15; MPEG-1 and MPEG-2 video are ISO/IEC 11172-2 and 13818-2, MPEG-4 Part 2 is ISO/IEC
 * 14496-2. Fields carry the standards' names.
 *
 * Ownership: every record and buffer is the caller's. Only the fields that a function names are written, the
 * others keep what the caller put there. Nothing is allocated beyond a call.
 *
 * Results: a `uint8_t` result is a boolean, 1 or 0. Parsers never look outside the bytes they are given; what
 * a short header leaves out reads as the base library's bit reader answers past its end (1s with the stand-in
 * of this package).
 *
 * Context: any thread, on different buffers at the same time, never from a signal handler. The frame readers
 * block on their file, nothing else blocks.
 *
 * Trace module: "utilvideo".
 */
#ifndef QMXUTIL_VIDEO_H
#define QMXUTIL_VIDEO_H

#include <stdint.h>
#include <stdio.h>

#include "qmxutil_export.h"

typedef struct QMXBit QMXBit; /**< the base library's bit reader (qmx_bits.h) */

/** A video stream, described. */
typedef struct VideoInfo {
  uint32_t codec;     /**< FourCC, its first character in the byte at the lowest address; set by the caller */
  uint32_t user4;     /**< the caller's */
  uint32_t width;     /**< picture width in pixels */
  uint32_t height;    /**< picture height in pixels */
  uint32_t frameRate; /**< frames in 1000 seconds: 29970 is 29.97 a second */
  uint32_t user20[3]; /**< the caller's */
  uint32_t bitRate;   /**< bits per second */
  uint8_t user[64];   /**< the caller's */
  uint32_t profile;   /**< profile indication */
  uint32_t level;     /**< level indication */
} VideoInfo;

/** Profile of an H.264 stream. */
typedef struct H264ProfileInfo {
  uint32_t profile;       /**< profile_idc, 0 to 255 */
  uint32_t compatibility; /**< the byte after profile_idc, whole: constraint_set flags and reserved bits */
  uint32_t level;         /**< level_idc, 0 to 255 */
  uint32_t nalLengthSize; /**< bytes of the length before each NAL unit of a sample, 1 to 4 */
  uint32_t numRefFrames;  /**< max_num_ref_frames */
} H264ProfileInfo;

/** profile_tier_level() of H.265, one byte a value. Reserved bits are not kept. */
typedef struct H265ProfileTierLevel {
  uint8_t general_profile_space; /**< 0 in this version of the standard */
  uint8_t general_tier_flag;     /**< 0 Main tier, 1 High tier */
  uint8_t general_profile_idc;   /**< 1 Main, 2 Main 10, 3 Main Still Picture, 4 and up extensions */
  uint8_t general_profile_compatibility_flag[32];      /**< [j]: decoders of profile j can decode it */
  uint8_t general_progressive_source_flag;             /**< pictures are frames */
  uint8_t general_interlaced_source_flag;              /**< pictures are fields or interlaced frames */
  uint8_t general_non_packed_constraint_flag;          /**< no frame packing */
  uint8_t general_frame_only_constraint_flag;          /**< field_seq_flag is 0 */
  uint8_t general_level_idc;                           /**< 30 times the level */
  uint8_t sub_layer_profile_present_flag[6];           /**< the profile fields of sub-layer i are there */
  uint8_t sub_layer_level_present_flag[6];             /**< the level of sub-layer i is there */
  uint8_t sub_layer_profile_space[6];                  /**< as general_profile_space */
  uint8_t sub_layer_tier_flag[6];                      /**< as general_tier_flag */
  uint8_t sub_layer_profile_idc[6];                    /**< as general_profile_idc */
  uint8_t sub_layer_profile_compatibility_flag[6][32]; /**< as general_profile_compatibility_flag */
  uint8_t sub_layer_progressive_source_flag[6];        /**< as general_progressive_source_flag */
  uint8_t sub_layer_interlaced_source_flag[6];         /**< as general_interlaced_source_flag */
  uint8_t sub_layer_non_packed_constraint_flag[6];     /**< as general_non_packed_constraint_flag */
  uint8_t sub_layer_frame_only_constraint_flag[6];     /**< as general_frame_only_constraint_flag */
  uint8_t sub_layer_level_idc[6];                      /**< as general_level_idc */
} H265ProfileTierLevel;

/** H.265 parameter sets: where they are, and the fields that are read of them. */
typedef struct H265ParamSetInfo {
  uint8_t vps_video_parameter_set_id;       /**< 0 to 15 */
  uint8_t vps_base_layer_internal_flag;     /**< the base layer is in this stream */
  uint8_t vps_base_layer_available_flag;    /**< the base layer is available */
  uint8_t vps_max_layers_minus1;            /**< 0 to 63 */
  uint8_t vps_max_sub_layers_minus1;        /**< 0 to 6 (7 as it stands) */
  uint8_t vps_temporal_id_nesting_flag;     /**< one can switch up between sub-layers anywhere */
  H265ProfileTierLevel vpsProfileTierLevel; /**< of the VPS, or the head of a configuration record */
  const uint8_t* vpsNal;                    /**< in the caller's data, at its NAL unit header; null: none */
  uint32_t vpsNalLength;                    /**< bytes, header included */
  uint8_t sps_video_parameter_set_id;       /**< the VPS that the SPS belongs to */
  uint8_t sps_max_sub_layers_minus1;        /**< 0 to 6 (7 as it stands) */
  H265ProfileTierLevel spsProfileTierLevel; /**< of the SPS */
  uint8_t sps_seq_parameter_set_id;         /**< 0 to 15 */
  uint8_t chroma_format_idc;                /**< 0 monochrome, 1 4:2:0, 2 4:2:2, 3 4:4:4 */
  uint16_t pic_width_in_luma_samples;       /**< coded width, modulo 65536 */
  uint16_t pic_height_in_luma_samples;      /**< coded height, modulo 65536 */
  const uint8_t* spsNal;                    /**< as vpsNal */
  uint32_t spsNalLength;                    /**< bytes, header included */
  const uint8_t* ppsNal;                    /**< as vpsNal */
  uint32_t ppsNalLength;                    /**< bytes, header included */
} H265ParamSetInfo;

/**
 * The video object layer of an MPEG-4 Part 2 stream. Zero it before a parse: fields that a stream does not
 * carry keep their value.
 */
typedef struct MPEG4VolInfo {
  uint32_t timeIncrementResolution; /**< vop_time_increment_resolution */
  uint32_t timeIncrementBits;       /**< bits of vop_time_increment, 1 to 16; 0 when the resolution is 0 */
  uint32_t quantType;               /**< quant_type */
  uint32_t dataPartitioned;         /**< data_partitioned; written only when it is 1 */
  uint32_t reversibleVlc;           /**< reversible_vlc; written only when data_partitioned is 1 */
  uint32_t fixedTimeIncrement;      /**< fixed_vop_time_increment; written only when fixed_vop_rate is 1 */
  uint32_t width;                   /**< video_object_layer_width */
  uint32_t height;                  /**< video_object_layer_height */
  uint32_t objectType;              /**< video_object_type_indication */
  uint32_t resyncMarkers;           /**< 1 - resync_marker_disable */
  uint32_t complexityFlags;         /**< see below; 0 when complexity estimation is disabled */
  uint32_t interlaced;              /**< interlaced */
} MPEG4VolInfo;

/**
 * @name MPEG4VolInfo::complexityFlags
 * The groups of define_vop_complexity_estimation_header(), the first flag of each in its highest bit.
 * @{
 */
/** complexity_estimation_disable is 0 */
#define MPEG4_COMPLEXITY_ENABLED 0x1000000u
/** opaque, transparent, intra_cae, inter_cae, no_update, upsampling */
#define MPEG4_COMPLEXITY_SHAPE_SHIFT 16
/** intra_blocks, inter_blocks, inter4v_blocks, not_coded_blocks */
#define MPEG4_COMPLEXITY_TEXTURE1_SHIFT 12
/** dct_coefs, dct_lines, vlc_symbols, vlc_bits */
#define MPEG4_COMPLEXITY_TEXTURE2_SHIFT 8
/** apm, npm, interpolate_mc_q, forw_back_mc_q, halfpel2, halfpel4 */
#define MPEG4_COMPLEXITY_MOTION_SHIFT 2
/** sadct, quarterpel */
#define MPEG4_COMPLEXITY_VERSION2_SHIFT 0
/** @} */

/**
 * Reads one unsigned Exp-Golomb code, ue(v), bit by bit.
 *
 * A code with more than 31 leading zero bits gives 0; its zeros and the 1 after them are consumed. A count
 * of zeros ends after 65535 bytes of them, the size of the longest parameter set, so that it ends with every
 * base library, whatever its bit reader answers past the end.
 *
 * @param handle  an open bit reader
 * @return the value.
 */
QMX_API uint32_t UtilGetUE(QMXBit* handle);

/**
 * Reads one unsigned Exp-Golomb code, ue(v), with one look at the next 32 bits. Codes of up to 63 bits are
 * decoded, with the same result as UtilGetUE(). 32 zero bits are taken as 31 leading zeros with the rest of
 * the code after them.
 *
 * @param handle  an open bit reader
 * @return the value.
 */
QMX_API uint32_t vlc_Golomb(QMXBit* handle);

/**
 * Reads an H.264 sequence parameter set up to the picture size (ISO/IEC 14496-10, 7.3.2.1.1).
 *
 * The size is the coded one, in whole macroblocks: 1920x1080 pictures report 1920 x 1088, because the
 * cropping after the size is not read. The height counts map units: field-coded streams report half of it.
 * Emulation prevention bytes are not removed; remove them on a copy first (QMXUtil_H26xRemoveEPB()) for exact
 * values. Chroma format and bit depths are looked for with profile_idc 100, 110, 122 and 144 alone; other
 * profiles that carry them (244, 44, 83, 86, 118, 128 and later ones) do not give a reliable size. Scaling
 * lists are stepped over; eight of their flags are read also for chroma_format_idc 3, which has twelve.
 *
 * @param sps      the SPS after its NAL unit header: the first byte is profile_idc
 * @param length   bytes at `sps`
 * @param size     where `width` and `height` go; may be null
 * @param profile  where `profile`, `compatibility`, `level` and `numRefFrames` go; may be null
 * @return 1; 0 only when the base library has no bit reader to give, with nothing written. A short or damaged
 *         SPS is not recognised as such.
 */
QMX_API uint8_t UtilGetSPSPPSInfo(const uint8_t* sps, uint32_t length, VideoInfo* size,
                                  H264ProfileInfo* profile);

/**
 * Reads an H.264 configuration record, avcC, up to the first bytes of its first parameter set (ISO/IEC
 * 14496-15, 5.3.3.1). The configurationVersion and the number of parameter sets are not looked at.
 *
 * @param config   the record
 * @param length   bytes at `config`
 * @param info     not used; may be null
 * @param profile  where `profile`, `compatibility`, `level` and `nalLengthSize` go; may be null
 * @retval 1  the first parameter set is an SPS; the values are the SPS's own
 * @retval 0  it is not (`profile`, `level` and `nalLengthSize` are from the record's header), or the base
 *            library has no bit reader to give (nothing is written)
 */
QMX_API uint8_t QMXUtil_GetH264Info(const uint8_t* config, uint32_t length, VideoInfo* info,
                                    H264ProfileInfo* profile);

/**
 * Composing H.264 parameter sets is not supported.
 *
 * @param out      not touched
 * @param length   not used
 * @param info     not used
 * @param profile  not used
 * @return -1.
 */
QMX_API int UtilSetH264Info(uint8_t* out, uint32_t length, const VideoInfo* info,
                            const H264ProfileInfo* profile);

/**
 * Removes the emulation prevention bytes of H.264 and H.265 parameter sets in place: each 03 after two zero
 * bytes (ISO/IEC 14496-10, 7.4.1).
 *
 * For parameter sets, not for SEI and slices. It deviates from the standard: the place of a removed byte
 * counts as a zero for the next match, so that 00 00 03 00 03 becomes 00 00 00, where the second 03 is data.
 * Encoders write this in SEI and slices; in parameter sets it has not been seen. A 03 after 00 00 at the very
 * end is removed too. What stands after the new length is scratch.
 *
 * @param[in,out] data    the bytes
 * @param[in,out] length  in: bytes at `data`; out: bytes left
 */
QMX_API void QMXUtil_H26xRemoveEPB(uint8_t* data, uint32_t* length);

/**
 * Reads profile_tier_level(1, maxSubLayersMinus1) of H.265 from where the bit reader stands (ISO/IEC 23008-2,
 * 7.3.3). Fields of sub-layers that the stream does not carry are left alone.
 *
 * @param handle              an open bit reader
 * @param out                 the record to fill
 * @param maxSubLayersMinus1  0 to 6; larger values count as 6
 */
QMX_API void QMXUtil_H26xGetProfileTierLevel(QMXBit* handle, H265ProfileTierLevel* out,
                                             uint8_t maxSubLayersMinus1);

/**
 * Locates the VPS, SPS and PPS of an H.265 byte stream and reads the VPS and the head of the SPS (ISO/IEC
 * 23008-2, 7.3.2.1 and 7.3.2.2). What was read is traced at level 3.
 *
 * Only four-byte start codes count, and of NAL units only those whose first header byte is 40, 42 or 44. Of
 * several of one kind the last counts; the search ends as soon as there is one of each. A unit runs to the
 * start code of the next of the three after it, or to the end of the data. Emulation prevention bytes are
 * not removed: profile_tier_level() usually holds some, so remove them on a copy first
 * (QMXUtil_H26xRemoveEPB()) for exact values. chroma_format_idc 3 does not give a reliable size. An absent
 * parameter set leaves its pointer null, its length 0 and its fields alone.
 *
 * @param data    the stream; must outlive the use of the pointers in `out`
 * @param length  bytes at `data`; none (0, negative or null data): traced at level 1, `out` untouched
 * @param out     the record to fill
 * @return 0.
 */
QMX_API int UtilConvH265InfoFromStartCode(const uint8_t* data, int32_t length, H265ParamSetInfo* out);

/**
 * Reads the head of an H.265 configuration record, hvcC (ISO/IEC 14496-15, 8.3.3.1).
 *
 * Of vpsProfileTierLevel are written: general_profile_space, the record's second byte whole (tier flag and
 * profile included); general_profile_idc, its low five bits; general_level_idc.
 *
 * @param config  the record
 * @param length  bytes at `config`
 * @param out     the record to fill; untouched when configurationVersion is not 1
 * @return 0.
 */
QMX_API int UtilConvH265Info(const uint8_t* config, uint32_t length, H265ParamSetInfo* out);

/**
 * Reads profile and level from an H.265 configuration record, hvcC.
 *
 * @param config  the record
 * @param length  bytes at `config`
 * @param info    where `profile` (general_profile_idc) and `level` (general_level_idc, 30 times the level)
 *                go; both 0 when configurationVersion is not 1
 * @param extra   not used; may be null
 * @return 1.
 */
QMX_API uint8_t QMXUtil_GetH265Info(const uint8_t* config, uint32_t length, VideoInfo* info, void* extra);

/**
 * Turns an H.264 configuration record, avcC, into NAL units after four-byte start codes, in place.
 *
 * The result is 2 bytes longer than the record for each NAL unit, less the 7 bytes of header and counts; the
 * buffer must hold it. It is never longer than twice the record, whatever the record holds: units of no bytes
 * become bare start codes. Bytes after the picture parameter sets are left out, and so is what the record
 * cuts short: the walk ends at a length that runs past the data, and at a group of picture parameter sets of
 * 4 bytes or less. Data that begins with a start code is left alone.
 *
 * @param[in,out] data    the record
 * @param[in,out] length  in: bytes of the record; out: bytes of the result, 0 for a record of 6 bytes or
 *                        less. Unchanged, like the data, when there is no memory for a copy.
 */
QMX_API void QMXUtil_ConvH264InfoToStartCode(uint8_t* data, uint32_t* length);

/**
 * Turns a whole H.265 configuration record, hvcC, into NAL units after four-byte start codes, in place: the
 * first NAL unit of each of the first three arrays, whatever their type. The result is never longer than the
 * record. The walk ends at a length that runs past the data.
 *
 * @param[in,out] data    the record
 * @param[in,out] length  in: bytes of the record; out: bytes of the result. Unchanged, like the data, when
 *                        there is no memory for a copy.
 */
QMX_API void QMXUtil_ConvHEVCInfoToStartCode(uint8_t* data, uint32_t* length);

/**
 * Turns the arrays of an H.265 configuration record, hvcC from numOfArrays (offset 22) on, into NAL units
 * after four-byte start codes, in place: all NAL units of all arrays.
 *
 * The result is 2 bytes longer than the input for each NAL unit, less 3 for each array and 1; the buffer must
 * hold it. It is never longer than twice the input, whatever that holds: units of no bytes become bare start
 * codes. The walk ends at a count or length that runs past the data.
 *
 * @param[in,out] data    the arrays
 * @param[in,out] length  in: bytes at `data`; out: bytes of the result. Unchanged, like the data, when there
 *                        is no memory for a copy.
 */
QMX_API void QMXUtil_ConvH265InfoToStartCode(uint8_t* data, uint32_t* length);

/**
 * Composes an H.264 configuration record, avcC, from NAL units after four-byte start codes.
 *
 * A unit whose header byte is exactly 67 counts as an SPS, any other (27 too) as a PPS. The units are written
 * in the order in which they stand, so the SPS must come first. Bytes before the first start code are copied
 * like those of a unit, but no length counts them. A group of which there is no unit has its count, one byte
 * 0, at the end, after all that there is: without an SPS the result is not a valid record.
 *
 * @param data       the NAL units; must not overlap `out`
 * @param length     bytes at `data`; none (0 or null data): traced at level 1, the outputs untouched
 * @param out        room for `length` + 7 bytes
 * @param outLength  bytes written: `length` + 7, less 2 for each start code
 * @param profile    profile, compatibility, level and NAL length size for the record's header
 */
QMX_API void UtilConvH264InfoFromStartCode(const uint8_t* data, uint32_t length, uint8_t* out,
                                           uint32_t* outLength, const H264ProfileInfo* profile);

/**
 * Replaces the four-byte lengths of a sample of H.264 or H.265 (ISO/IEC 14496-15) by start codes, in place.
 *
 * A sample that begins with a start code is left alone, also one whose first NAL unit is 1 byte long, which
 * looks the same. The walk ends after the length that runs past the sample; that unit gets its start code.
 *
 * @param[in,out] frame  the sample
 * @param length         its bytes; with less than 4 nothing is done
 */
QMX_API void UtilConvH264FrameToStartCode(uint8_t* frame, int32_t length);

/**
 * Replaces the four-byte start codes of a frame by lengths, in place. Bytes before the first start code are
 * left alone. Three-byte start codes are not recognised: they become part of the unit before them.
 *
 * @param[in,out] frame  the frame
 * @param length         its bytes
 */
QMX_API void UtilConvH264FrameFromStartCode(uint8_t* frame, int32_t length);

/**
 * Copies NAL units after four-byte start codes into NAL units after two-byte lengths. Bytes before the first
 * start code are copied, but no length counts them; a unit of no bytes gets the length 0.
 *
 * @param data       the NAL units
 * @param length     bytes at `data`
 * @param out        room for `length` bytes
 * @param outLength  bytes written; 0 for a length of 0 or less
 */
QMX_API void QMXUtil_ConvH26xExtraDataFromStartCode(const uint8_t* data, int32_t length, uint8_t* out,
                                                    uint32_t* outLength);

/**
 * Reads the first sequence header of an MPEG-1 or MPEG-2 stream, and the sequence extension when one follows
 * anywhere after it (ISO/IEC 11172-2, 2.4.2.3; ISO/IEC 13818-2, 6.2.2.1 and 6.2.2.3).
 *
 * The size extensions are not applied: sizes from 4096 on are reported modulo 4096. A reserved
 * frame_rate_code gives frame rate 0. The bit rate wraps at 32 bits.
 *
 * @param data    the stream
 * @param length  bytes at `data`
 * @param info    where `width`, `height`, `frameRate` and `bitRate` go
 * @return 1; 0, with `info` untouched, when there is no sequence header, or when the base library has no bit
 *         reader to give.
 */
QMX_API uint8_t UtilGetMPEG12Info(const uint8_t* data, uint32_t length, VideoInfo* info);

/**
 * Reads the first video object layer header of an MPEG-4 Part 2 stream (ISO/IEC 14496-2, 6.2.3).
 *
 * Refused, and traced at level 1: no VOL start code with more than 4 bytes from it on, a shape that is not
 * rectangular, sprites, quant_type 1. Layers with not_8_bit or newpred_enable set do not give reliable values
 * for the fields after those flags.
 *
 * @param data    the stream
 * @param length  bytes at `data`
 * @param info    where `width` and `height` go; may be null
 * @param vol     the layer; may be null
 * @retval 1  read to its end
 * @retval 0  refused (what was read before that is stored), or the base library has no bit reader to give
 *            (nothing is written)
 */
QMX_API uint8_t UtilGetMPEG4Info(const uint8_t* data, uint32_t length, VideoInfo* info, MPEG4VolInfo* vol);

/**
 * Composes a minimal MPEG-4 Part 2 configuration: visual object sequence, visual object, user data
 * ("MPEG4Info"), video object and video object layer (ISO/IEC 14496-2, 6.2.2 and 6.2.3).
 *
 * @param out     room for 200 bytes
 * @param length  not used
 * @param info    `width` and `height`, of which the low 13 bits are written
 * @param vol     `timeIncrementResolution` (low 16 bits) and `quantType` (low bit)
 * @return bytes written, 66; 0 when the base library has no bit writer to give.
 */
QMX_API uint32_t UtilSetMPEG4Info(uint8_t* out, uint32_t length, const VideoInfo* info,
                                  const MPEG4VolInfo* vol);

/**
 * Tells whether a picture of an MPEG-4 Part 2 stream is coded, or skipped (ISO/IEC 14496-2, 6.2.5).
 *
 * Bytes are read one after another, up to vop_coded and no further: at most 13 after the VOP start code; when
 * there is none, the first 131 and no more, unless the last three of these are 00 00 01, which the next byte
 * may make one. A VOP whose start code does not begin in the first 129 bytes counts as coded, and so does one
 * with a modulo_time_base of more than 64 seconds.
 *
 * @param vop                the picture
 * @param timeIncrementBits  bits of vop_time_increment (MPEG4VolInfo::timeIncrementBits); above 32 counts as
 *                           32
 * @return 1 when it is coded, 0 when vop_coded is 0.
 */
QMX_API int VopCheckCoded(const uint8_t* vop, uint32_t timeIncrementBits);

/**
 * Turns the lower-case ASCII letters of a FourCC into upper case.
 *
 * @param fourcc  four characters, the first in the byte at the lowest address
 * @return the same four characters in the same order, "avc1" as "AVC1".
 */
QMX_API uint32_t UtilToUpperVideoFourCC(uint32_t fourcc);

/**
 * Reads the header of a stream with the parser that its codec calls for.
 *
 * | `info->codec` | parser | written to `info` |
 * |---|---|---|
 * | "H264", "avc1", "AVC1" | QMXUtil_GetH264Info() | nothing |
 * | "H265", "HEVC", "hvc1", "hev1", "HEV1" | QMXUtil_GetH265Info() | `profile`, `level` |
 * | "XVID", "MP4S", "MP4V" | UtilGetMPEG4Info() | `width`, `height` |
 * | "MPEG" | UtilGetMPEG12Info() | `width`, `height`, `frameRate`, `bitRate` |
 *
 * The codec is compared as it stands, so "HVC1" and "mp4v" are unknown. Put upper case into `codec` with
 * UtilToUpperVideoFourCC() for MPEG-4 and MPEG alone: it would lose "hvc1".
 *
 * @param config  the stream's codec data: avcC, hvcC, VOL header or sequence header
 * @param length  bytes at `config`
 * @param info    its `codec` is read
 * @return what the parser returned; 0 for an unknown codec.
 */
QMX_API uint8_t QMXUtil_GetVideoInfo(const uint8_t* config, uint32_t length, VideoInfo* info);

/**
 * Reads the next frame of an H.264 elementary-stream file (ISO/IEC 14496-10, annex B): the NAL units up to
 * and including all slices (types 1 and 5) of one picture.
 *
 * The frame ends before the next SEI, SPS, PPS or access unit delimiter, or the next slice whose
 * first_mb_in_slice is 0; the file then stands on the start code there, of three bytes or four, so that the
 * frames of a file join to the file byte for byte.
 *
 * Until it has held once, a first-unit rule of the process (not of the file) is different: a PPS before any
 * slice begins a unit, so that the parameter sets come alone. It has held when such a unit ends before a
 * slice or an SEI; one that ends before an SPS, another PPS or an access unit delimiter leaves it in force.
 * The rule is shared by both readers and all files, without a lock.
 *
 * The file is read in blocks into the buffer, never past it, and what was read ahead is given back with one
 * relative seek: the file must be seekable.
 *
 * @param file    a stream opened for reading with the base library
 * @param buffer  room for `size` bytes; what stands after the frame is scratch
 * @param size    at least the frame and 8 bytes more
 * @return bytes of the frame. At the end of the file, or at a read error, the bytes that were left; 0 when
 *         none were. 0 too when `size` is below 2 (nothing is read) or the frame does not fit; the file then
 *         stands inside the frame, `size` - 1 bytes on (up to 2 less when it is a slice's header that no
 *         longer fits).
 */
QMX_API uint32_t UtilVideo_H264_ReadOneFrame(FILE* file, uint8_t* buffer, uint32_t size);

/**
 * Reads the next unit of an H.265 elementary-stream file (ISO/IEC 23008-2, annex B): the NAL units before one
 * slice of type 1 (TRAIL_R) or 19 (IDR_W_RADL), and that slice. Everything else is as with
 * UtilVideo_H264_ReadOneFrame(), but for the end of the first-unit rule.
 *
 * A picture of several slices comes one slice a call. Slices of other types (20, IDR_N_LP, and 0, TRAIL_N,
 * among them) do not count as such: they come with the next slice that does.
 *
 * The first-unit rule has held when a unit that began at a PPS ends before a slice of type 1 or 19, or before
 * another PPS. Any other NAL unit there, a slice of another type too, ends the unit and leaves the rule in
 * force: in a stream whose pictures after parameter sets are all of type 20, say, every repetition of the
 * parameter sets ends a unit, which holds the slices before them too.
 *
 * @param file    a stream opened for reading with the base library
 * @param buffer  room for `size` bytes; what stands after the unit is scratch
 * @param size    at least the unit and 8 bytes more
 * @return as UtilVideo_H264_ReadOneFrame().
 */
QMX_API uint32_t UtilVideo_H265_ReadOneFrame(FILE* file, uint8_t* buffer, uint32_t size);

#endif
