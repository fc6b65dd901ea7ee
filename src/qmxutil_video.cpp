// Video streams: H.264, H.265, MPEG-1/2 and MPEG-4 Part 2 headers, conversion between length-prefixed and
// start-code form, frames of elementary-stream files.
#include "qmxutil_video.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <span>

#include "internal/big_endian.h"
#include "internal/bit_reader.h"
#include "internal/first_frame.h"
#include "internal/frame_buffer.h"
#include "internal/handles.h"
#include "internal/simd/find_bytes.h"
#include "internal/start_code.h"
#include "internal/trace.h"
#include "qmxutil_string.h"

using namespace qmxutil;

namespace {

constexpr char MODULE[] = "utilvideo";

using Bytes = std::span<const uint8_t>;

}  // namespace

// ---- Exp-Golomb codes (ISO/IEC 14496-10, 9.1)

namespace {

constexpr uint32_t kMostLeadingZeros = 31;

// The longest parameter set that a configuration record can carry has no more bits.
constexpr uint32_t kMostZerosCounted = 65535 * 8;

// floor(log2(i)), 0 for 0.
constexpr std::array<uint8_t, 256> log2_tab = [] {
  std::array<uint8_t, 256> table = {};
  for (size_t i = 2; i < table.size(); ++i) table[i] = static_cast<uint8_t>(table[i / 2] + 1);
  return table;
}();

}  // namespace

uint32_t UtilGetUE(QMXBit* handle) {
  uint32_t zeros = 0;
  while (zeros < kMostZerosCounted && QMXBitGetBit(handle, 1) == 0) ++zeros;
  if (zeros > kMostLeadingZeros) return 0;
  return (1u << zeros) - 1 + QMXBitGetBit(handle, zeros);
}

uint32_t vlc_Golomb(QMXBit* handle) {
  uint32_t rest = QMXBitShow(handle, 32);
  uint32_t log2 = 0;
  if (rest >= 0x10000) {
    rest >>= 16;
    log2 += 16;
  }
  if (rest >= 0x100) {
    rest >>= 8;
    log2 += 8;
  }
  log2 += log2_tab[rest];
  const uint32_t zeros = kMostLeadingZeros - log2;
  QMXBitGetBit(handle, zeros);
  return QMXBitGetBit(handle, zeros + 1) - 1;
}

// ---- H.264 parameter sets (ISO/IEC 14496-10, 7.3.2.1; ISO/IEC 14496-15, 5.3.3.1)

namespace {

constexpr uint32_t kH264NalTypeMask = 0x1F;
constexpr uint32_t kH264NalSlice = 1;
constexpr uint32_t kH264NalIdrSlice = 5;
constexpr uint32_t kH264NalSei = 6;
constexpr uint32_t kH264NalSps = 7;
constexpr uint32_t kH264NalPps = 8;
constexpr uint32_t kH264NalAccessUnitDelimiter = 9;

constexpr uint32_t kChromaFormat444 = 3;
constexpr uint32_t kScalingLists = 8;
constexpr uint32_t kScalingLists4x4 = 6;  // the first ones; the later ones are 8x8
constexpr uint32_t kMacroblock = 16;

bool has_chroma_format(uint32_t profile_idc) {
  return profile_idc == 100 || profile_idc == 110 || profile_idc == 122 || profile_idc == 144;
}

// scaling_list(), 7.3.2.1.1.1
void skip_scaling_list(BitReader& in, uint32_t size) {
  uint8_t last_scale = 8;
  for (uint32_t i = 0; i < size; ++i) {
    const int32_t delta_scale = in.se();
    const uint8_t next_scale = static_cast<uint8_t>(last_scale + delta_scale % 256);
    if (next_scale == 0) return;  // the rest repeats the last scale
    last_scale = next_scale;
  }
}

void skip_chroma_and_scaling(BitReader& in) {
  if (in.ue() == kChromaFormat444) in.skip(1);  // chroma_format_idc, separate_colour_plane_flag
  in.ue();                                      // bit_depth_luma_minus8
  in.ue();                                      // bit_depth_chroma_minus8
  in.skip(1);                                   // qpprime_y_zero_transform_bypass_flag
  if (!in.flag()) return;                       // seq_scaling_matrix_present_flag
  for (uint32_t i = 0; i < kScalingLists; ++i) {
    if (in.flag()) skip_scaling_list(in, i < kScalingLists4x4 ? 16 : 64);  // seq_scaling_list_present_flag
  }
}

// A code has one bit at least, so that there are no more offsets than bits: a larger count is not counted
// down past the end of the data.
void skip_pic_order_cnt(BitReader& in, uint64_t bits) {
  const uint32_t pic_order_cnt_type = in.ue();
  if (pic_order_cnt_type == 0) {
    in.ue();  // log2_max_pic_order_cnt_lsb_minus4
  } else if (pic_order_cnt_type == 1) {
    in.skip(1);  // delta_pic_order_always_zero_flag
    in.ue();     // offset_for_non_ref_pic
    in.ue();     // offset_for_top_to_bottom_field
    const uint64_t num_ref_frames_in_pic_order_cnt_cycle = in.ue();
    for (uint64_t i = std::min(num_ref_frames_in_pic_order_cnt_cycle, bits); i > 0; --i) {
      in.ue();  // offset_for_ref_frame
    }
  }
}

}  // namespace

uint8_t UtilGetSPSPPSInfo(const uint8_t* sps, uint32_t length, VideoInfo* size, H264ProfileInfo* profile) {
  const BitHandle handle = open_bits(sps, length);
  if (handle == nullptr) return false;
  BitReader in(handle.get());
  VideoInfo unused_size;
  if (size == nullptr) size = &unused_size;
  H264ProfileInfo unused_profile;
  if (profile == nullptr) profile = &unused_profile;

  profile->profile = in.u(8);        // profile_idc
  profile->compatibility = in.u(8);  // constraint_set flags
  profile->level = in.u(8);          // level_idc
  in.ue();                           // seq_parameter_set_id
  if (has_chroma_format(profile->profile)) skip_chroma_and_scaling(in);
  in.ue();  // log2_max_frame_num_minus4
  skip_pic_order_cnt(in, uint64_t{length} * 8);
  profile->numRefFrames = in.ue();             // max_num_ref_frames
  in.skip(1);                                  // gaps_in_frame_num_value_allowed_flag
  size->width = (in.ue() + 1) * kMacroblock;   // pic_width_in_mbs_minus1
  size->height = (in.ue() + 1) * kMacroblock;  // pic_height_in_map_units_minus1
  return true;
}

uint8_t QMXUtil_GetH264Info(const uint8_t* config, uint32_t length, VideoInfo*, H264ProfileInfo* profile) {
  const BitHandle handle = open_bits(config, length);
  if (handle == nullptr) return false;
  BitReader in(handle.get());
  H264ProfileInfo unused;
  if (profile == nullptr) profile = &unused;

  in.skip(8);                            // configurationVersion
  profile->profile = in.u(8);            // AVCProfileIndication
  in.skip(8);                            // profile_compatibility
  profile->level = in.u(8);              // AVCLevelIndication
  in.skip(6);                            // reserved
  profile->nalLengthSize = in.u(2) + 1;  // lengthSizeMinusOne
  in.skip(3);                            // reserved
  in.skip(5);                            // numOfSequenceParameterSets
  in.skip(16);                           // sequenceParameterSetLength
  if ((in.u(8) & kH264NalTypeMask) != kH264NalSps) return false;
  profile->profile = in.u(8);        // profile_idc
  profile->compatibility = in.u(8);  // constraint_set flags
  profile->level = in.u(8);          // level_idc
  return true;
}

int UtilSetH264Info(uint8_t*, uint32_t, const VideoInfo*, const H264ProfileInfo*) { return -1; }

// ---- Emulation prevention (ISO/IEC 14496-10, 7.4.1; ISO/IEC 23008-2, 7.4.2)

namespace {

constexpr uint8_t kEmulationPrevention[] = {0, 0, 3};

}  // namespace

void QMXUtil_H26xRemoveEPB(uint8_t* data, uint32_t* length) {
  const size_t end = *length;
  size_t read = 0, written = 0;
  while (read < end) {
    const size_t found = find_bytes(data, read, end, kEmulationPrevention, sizeof kEmulationPrevention);
    const size_t kept = (found < end ? found + 2 : end) - read;  // through the two zeros
    std::memmove(data + written, data + read, kept);
    written += kept;
    read += kept + 1;
    while (read + 1 < end && data[read] == 0 && data[read + 1] == 3) {  // the byte removed counts as a zero
      data[written++] = 0;
      read += 2;
    }
  }
  *length = static_cast<uint32_t>(written);
}

// ---- H.265 parameter sets (ISO/IEC 23008-2, 7.3.2 and 7.3.3; ISO/IEC 14496-15, 8.3.3.1)

namespace {

constexpr uint8_t kH265VpsHeader = 0x40;  // first byte of the NAL unit header, nuh_layer_id below 32
constexpr uint8_t kH265SpsHeader = 0x42;
constexpr uint8_t kH265PpsHeader = 0x44;
constexpr uint32_t kH265NalHeaderSize = 2;
constexpr uint8_t kMostSubLayersMinus1 = 6;
constexpr uint8_t kProfileIdcMask = 0x1F;

void read_compatibility_flags(BitReader& in, uint8_t (&flags)[32]) {
  const uint32_t bits = in.u(32);
  for (uint32_t j = 0; j < 32; ++j) flags[j] = bits >> (31 - j) & 1;
}

// The end of a unit that begins at `nal`: the start code of the next one of those known, or the end of the
// data.
const uint8_t* unit_end(const uint8_t* nal, std::span<const uint8_t* const> known, const uint8_t* data_end) {
  const uint8_t* end = data_end;
  for (const uint8_t* other : known) {
    if (other != nullptr && other > nal) end = std::min(end, other - kStartCodeSize);
  }
  return end;
}

void locate_parameter_sets(const uint8_t* data, size_t length, H265ParamSetInfo& out) {
  const uint8_t *vps = nullptr, *sps = nullptr, *pps = nullptr;
  for (size_t at = find_start_code(data, 0, length); length - at > kStartCodeSize;) {
    const uint8_t* const nal = data + at + kStartCodeSize;
    if (*nal == kH265VpsHeader) vps = nal;
    if (*nal == kH265SpsHeader) sps = nal;
    if (*nal == kH265PpsHeader) pps = nal;
    if (vps != nullptr && sps != nullptr && pps != nullptr) break;
    at = find_start_code(data, at + kStartCodeSize, length);
  }
  const uint8_t* const known[] = {vps, sps, pps};
  const auto length_of = [&](const uint8_t* nal) {
    return nal != nullptr ? static_cast<uint32_t>(unit_end(nal, known, data + length) - nal) : 0;
  };
  out.vpsNal = vps;
  out.vpsNalLength = length_of(vps);
  out.spsNal = sps;
  out.spsNalLength = length_of(sps);
  out.ppsNal = pps;
  out.ppsNalLength = length_of(pps);
}

BitHandle open_payload(const uint8_t* nal, uint32_t length) {
  if (length < kH265NalHeaderSize) return open_bits(nal, 0);
  return open_bits(nal + kH265NalHeaderSize, length - kH265NalHeaderSize);
}

bool read_vps(H265ParamSetInfo& out) {
  const BitHandle handle = open_payload(out.vpsNal, out.vpsNalLength);
  if (handle == nullptr) return false;
  BitReader in(handle.get());
  out.vps_video_parameter_set_id = in.u8(4);
  out.vps_base_layer_internal_flag = in.u8(1);
  out.vps_base_layer_available_flag = in.u8(1);
  out.vps_max_layers_minus1 = in.u8(6);
  out.vps_max_sub_layers_minus1 = in.u8(3);
  out.vps_temporal_id_nesting_flag = in.u8(1);
  in.skip(16);  // vps_reserved_0xffff_16bits
  QMXUtil_H26xGetProfileTierLevel(handle.get(), &out.vpsProfileTierLevel, out.vps_max_sub_layers_minus1);
  return true;
}

bool read_sps(H265ParamSetInfo& out) {
  const BitHandle handle = open_payload(out.spsNal, out.spsNalLength);
  if (handle == nullptr) return false;
  BitReader in(handle.get());
  out.sps_video_parameter_set_id = in.u8(4);
  out.sps_max_sub_layers_minus1 = in.u8(3);
  in.skip(1);  // sps_temporal_id_nesting_flag
  QMXUtil_H26xGetProfileTierLevel(handle.get(), &out.spsProfileTierLevel, out.sps_max_sub_layers_minus1);
  out.sps_seq_parameter_set_id = static_cast<uint8_t>(in.ue_by_bit());
  out.chroma_format_idc = static_cast<uint8_t>(in.ue_by_bit());
  out.pic_width_in_luma_samples = static_cast<uint16_t>(in.ue_by_bit());
  out.pic_height_in_luma_samples = static_cast<uint16_t>(in.ue_by_bit());
  return true;
}

void trace_profile(const char* function, const H265ProfileTierLevel& profile) {
  TRACE_AS(function, QMX_TRACE_VERBOSE, "profile_space %d, tier_flag %d, profile_idc %d, level_idc %d\n",
           profile.general_profile_space, profile.general_tier_flag, profile.general_profile_idc,
           profile.general_level_idc);
  for (const uint8_t flag : profile.general_profile_compatibility_flag) {
    TRACE_AS(function, QMX_TRACE_VERBOSE, "%d ", flag);
  }
  TRACE_AS(function, QMX_TRACE_VERBOSE, "\n");
}

}  // namespace

void QMXUtil_H26xGetProfileTierLevel(QMXBit* handle, H265ProfileTierLevel* out, uint8_t maxSubLayersMinus1) {
  BitReader in(handle);
  const uint32_t sub_layers = std::min(maxSubLayersMinus1, kMostSubLayersMinus1);
  out->general_profile_space = in.u8(2);
  out->general_tier_flag = in.u8(1);
  out->general_profile_idc = in.u8(5);
  read_compatibility_flags(in, out->general_profile_compatibility_flag);
  out->general_progressive_source_flag = in.u8(1);
  out->general_interlaced_source_flag = in.u8(1);
  out->general_non_packed_constraint_flag = in.u8(1);
  out->general_frame_only_constraint_flag = in.u8(1);
  in.skip(44);  // general_reserved_zero_44bits
  out->general_level_idc = in.u8(8);
  if (sub_layers == 0) return;
  for (uint32_t i = 0; i < sub_layers; ++i) {
    out->sub_layer_profile_present_flag[i] = in.u8(1);
    out->sub_layer_level_present_flag[i] = in.u8(1);
  }
  for (uint32_t i = sub_layers; i < 8; ++i) in.skip(2);  // reserved_zero_2bits
  for (uint32_t i = 0; i < sub_layers; ++i) {
    if (out->sub_layer_profile_present_flag[i]) {
      out->sub_layer_profile_space[i] = in.u8(2);
      out->sub_layer_tier_flag[i] = in.u8(1);
      out->sub_layer_profile_idc[i] = in.u8(5);
      read_compatibility_flags(in, out->sub_layer_profile_compatibility_flag[i]);
      out->sub_layer_progressive_source_flag[i] = in.u8(1);
      out->sub_layer_interlaced_source_flag[i] = in.u8(1);
      out->sub_layer_non_packed_constraint_flag[i] = in.u8(1);
      out->sub_layer_frame_only_constraint_flag[i] = in.u8(1);
      in.skip(44);  // sub_layer_reserved_zero_44bits
    }
    if (out->sub_layer_level_present_flag[i]) out->sub_layer_level_idc[i] = in.u8(8);
  }
}

int UtilConvH265InfoFromStartCode(const uint8_t* data, int32_t length, H265ParamSetInfo* out) {
  if (data == nullptr || length <= 0) {
    TRACE_ERROR("No codec data!\n");
    return 0;
  }
  locate_parameter_sets(data, static_cast<size_t>(length), *out);
  const bool vps_read = out->vpsNal != nullptr && read_vps(*out);
  const bool sps_read = out->spsNal != nullptr && read_sps(*out);
  if (vps_read) {
    TRACE_VERBOSE("\n--- VPS PARSED -----------------------------------\n");
    trace_profile(__func__, out->vpsProfileTierLevel);
    TRACE_VERBOSE("-------------------------------------------------\n");
  }
  if (sps_read) {
    TRACE_VERBOSE("\n--- SPS PARSED -----------------------------------\n");
    trace_profile(__func__, out->spsProfileTierLevel);
    TRACE_VERBOSE("sps_id %d, chroma_format %d, width %d, height %d\n", out->sps_seq_parameter_set_id,
                  out->chroma_format_idc, out->pic_width_in_luma_samples, out->pic_height_in_luma_samples);
    TRACE_VERBOSE("-------------------------------------------------\n");
  }
  return 0;
}

int UtilConvH265Info(const uint8_t* config, uint32_t length, H265ParamSetInfo* out) {
  const ByteHandle handle(QMXByte_Open(config, length));
  if (handle == nullptr) return 0;
  int error = 0;
  if (QMXByte_Get_char(handle.get(), &error) != 1) return 0;  // configurationVersion
  const uint8_t profile = QMXByte_Get_char(handle.get(), &error);
  out->vpsProfileTierLevel.general_profile_space = profile;
  out->vpsProfileTierLevel.general_profile_idc = profile & kProfileIdcMask;
  QMXByte_Get_le_int32(handle.get(), &error);  // general_profile_compatibility_flags
  QMXByte_Get_le_int32(handle.get(), &error);  // general_constraint_indicator_flags
  QMXByte_Get_le_int16(handle.get(), &error);
  out->vpsProfileTierLevel.general_level_idc = QMXByte_Get_char(handle.get(), &error);
  return 0;
}

uint8_t QMXUtil_GetH265Info(const uint8_t* config, uint32_t length, VideoInfo* info, void*) {
  H265ParamSetInfo head = {};
  UtilConvH265Info(config, length, &head);
  info->profile = head.vpsProfileTierLevel.general_profile_space & kProfileIdcMask;
  info->level = head.vpsProfileTierLevel.general_level_idc;
  return true;
}

// ---- Configuration records and samples (ISO/IEC 14496-15, 5.3.3.1 and 8.3.3.1; annex B of the video
// standards)

namespace {

constexpr uint32_t kAvccHeaderSize = 6;  // to the first parameter set
constexpr uint32_t kAvccCopySlack = 16;
constexpr uint32_t kAvccLeastGroup = 4;   // a group of this many bytes or fewer is not looked at
constexpr uint32_t kHvccHeaderSize = 23;  // to the first array
constexpr uint32_t kHvccArrayHeader = 3;  // NAL unit type, numNalus
constexpr int kHvccArrays = 3;
constexpr uint32_t kUnitLengthSize = 2;   // of a NAL unit in a record
constexpr uint8_t kH264SpsHeader = 0x67;  // nal_ref_idc 3, SPS

// Writes a start code and a NAL unit; the result is where the next one goes.
uint8_t* put_unit(uint8_t* out, Bytes nal) {
  std::memcpy(out, kStartCode, kStartCodeSize);
  std::memcpy(out + kStartCodeSize, nal.data(), nal.size());
  return out + kStartCodeSize + nal.size();
}

// Takes a NAL unit after a 2-byte length off the front; nothing when it is not there whole.
std::optional<Bytes> take_unit(Bytes& rest) {
  if (rest.size() < kUnitLengthSize) return std::nullopt;
  const size_t length = load_be16(rest.data());
  if (rest.size() - kUnitLengthSize < length) return std::nullopt;
  const Bytes nal = rest.subspan(kUnitLengthSize, length);
  rest = rest.subspan(kUnitLengthSize + length);
  return nal;
}

// Moves `count` NAL units from the front of `rest` to `out`; false when the data ends first. A unit takes at
// least the 2 bytes of its length and becomes 2 longer: the result is at most twice the record.
bool convert_group(uint32_t count, Bytes& rest, uint8_t*& out) {
  for (; count > 0; --count) {
    const std::optional<Bytes> nal = take_unit(rest);
    if (!nal) return false;
    out = put_unit(out, *nal);
  }
  return true;
}

// The arrays of an hvcC record, `rest` bytes of them, to `out`; the result is the end of what was written,
// at most twice as much.
uint8_t* convert_arrays(QMXByte* in, uint32_t rest, uint8_t* out) {
  int error = 0;
  if (rest == 0) return out;
  uint32_t arrays = QMXByte_Get_char(in, &error);  // numOfArrays
  --rest;
  for (; arrays > 0 && rest >= kHvccArrayHeader; --arrays) {
    QMXByte_Skip(in, 1, &error);                        // array_completeness, NAL_unit_type
    uint32_t units = QMXByte_Get_be_int16(in, &error);  // numNalus
    rest -= kHvccArrayHeader;
    for (; units > 0; --units) {
      if (rest < kUnitLengthSize) return out;
      const uint32_t length = QMXByte_Get_be_int16(in, &error);  // nalUnitLength
      rest -= kUnitLengthSize;
      if (rest < length) return out;
      std::memcpy(out, kStartCode, kStartCodeSize);
      QMXByte_Get_string(in, out + kStartCodeSize, length, &error);
      out += kStartCodeSize + length;
      rest -= length;
    }
  }
  return out;
}

uint8_t* put_bytes(uint8_t* out, const uint8_t* bytes, size_t count) {
  if (count > 0) std::memmove(out, bytes, count);
  return out + count;
}

// Writes a NAL unit after its 2-byte length; the result is where the next one goes.
uint8_t* put_unit_with_length(uint8_t* out, const uint8_t* nal, size_t length) {
  uint8_t* const end = put_bytes(out + kUnitLengthSize, nal, length);
  store_be16(out, length);
  return end;
}

// A group of parameter sets in a record that is being written.
struct Group {
  uint8_t* count = nullptr;  // where the count goes, before the first one
  uint32_t units = 0;
};

// Fills in the count of a group, after its reserved bits; a group of no units has a count of 0 at the end of
// the record. The result is where the record ends.
uint8_t* put_count(uint8_t* end, const Group& group, uint32_t reserved) {
  if (group.units == 0) {
    *end = 0;
    return end + 1;
  }
  *group.count = static_cast<uint8_t>(reserved | group.units);
  return end;
}

}  // namespace

void QMXUtil_ConvH264InfoToStartCode(uint8_t* data, uint32_t* length) {
  if (begins_with_start_code(data, *length)) return;
  if (*length > UINT32_MAX - kAvccCopySlack) return;
  const Block<uint8_t> copy = NEW_BLOCK(uint8_t, *length + kAvccCopySlack, QMX_FILL_NONE);
  if (copy == nullptr) return;
  put_bytes(copy.get(), data, *length);
  uint8_t* end = data;
  if (*length > kAvccHeaderSize) {
    Bytes rest(copy.get() + kAvccHeaderSize, *length - kAvccHeaderSize);
    const uint32_t numOfSequenceParameterSets = copy.get()[5] & 0x1F;
    if (convert_group(numOfSequenceParameterSets, rest, end) && rest.size() > kAvccLeastGroup) {
      const uint32_t numOfPictureParameterSets = rest[0];
      rest = rest.subspan(1);
      convert_group(numOfPictureParameterSets, rest, end);
    }
  }
  *length = static_cast<uint32_t>(end - data);
}

void QMXUtil_ConvHEVCInfoToStartCode(uint8_t* data, uint32_t* length) {
  const Block<uint8_t> copy = NEW_BLOCK(uint8_t, *length, QMX_FILL_NONE);
  if (copy == nullptr) return;
  put_bytes(copy.get(), data, *length);
  uint8_t* end = data;
  Bytes rest = Bytes(copy.get(), *length).subspan(std::min(*length, kHvccHeaderSize));
  for (int i = 0; i < kHvccArrays && rest.size() > kHvccArrayHeader; ++i) {
    rest = rest.subspan(kHvccArrayHeader);
    if (!convert_group(1, rest, end)) break;
  }
  *length = static_cast<uint32_t>(end - data);
}

void QMXUtil_ConvH265InfoToStartCode(uint8_t* data, uint32_t* length) {
  const Block<uint8_t> copy = NEW_BLOCK(uint8_t, *length, QMX_FILL_NONE);
  if (copy == nullptr) return;
  put_bytes(copy.get(), data, *length);
  const ByteHandle handle(QMXByte_Open(copy.get(), *length));
  if (handle == nullptr) return;
  *length = static_cast<uint32_t>(convert_arrays(handle.get(), *length, data) - data);
}

void UtilConvH264InfoFromStartCode(const uint8_t* data, uint32_t length, uint8_t* out, uint32_t* outLength,
                                   const H264ProfileInfo* profile) {
  if (data == nullptr || length == 0) {
    TRACE_ERROR("No codec data!\n");
    return;
  }
  uint8_t* end = out;
  *end++ = 1;                                                          // configurationVersion
  *end++ = static_cast<uint8_t>(profile->profile);                     // AVCProfileIndication
  *end++ = static_cast<uint8_t>(profile->compatibility);               // profile_compatibility
  *end++ = static_cast<uint8_t>(profile->level);                       // AVCLevelIndication
  *end++ = static_cast<uint8_t>(0xFC | (profile->nalLengthSize - 1));  // reserved, lengthSizeMinusOne
  Group sps, pps;
  size_t at = find_start_code(data, 0, length);
  end = put_bytes(end, data, at);
  while (at < length) {
    const size_t nal = at + kStartCodeSize;
    at = find_start_code(data, nal, length);
    Group& group = nal < length && data[nal] == kH264SpsHeader ? sps : pps;
    if (group.units++ == 0) group.count = end++;
    end = put_unit_with_length(end, data + nal, at - nal);
  }
  end = put_count(end, sps, 0xE0);  // reserved, numOfSequenceParameterSets
  end = put_count(end, pps, 0);     // numOfPictureParameterSets
  *outLength = static_cast<uint32_t>(end - out);
}

void UtilConvH264FrameToStartCode(uint8_t* frame, int32_t length) {
  uint64_t rest = static_cast<uint64_t>(std::max(length, 0));
  if (begins_with_start_code(frame, rest)) return;
  while (rest >= kStartCodeSize) {
    const uint64_t step = uint64_t{load_be32(frame)} + kStartCodeSize;
    std::memcpy(frame, kStartCode, kStartCodeSize);
    if (step > rest) return;
    frame += step;
    rest -= step;
  }
}

void UtilConvH264FrameFromStartCode(uint8_t* frame, int32_t length) {
  const size_t end = static_cast<size_t>(std::max(length, 0));
  for (size_t at = find_start_code(frame, 0, end); at < end;) {
    const size_t nal = at + kStartCodeSize;
    const size_t next = find_start_code(frame, nal, end);
    store_be32(frame + at, next - nal);
    at = next;
  }
}

void QMXUtil_ConvH26xExtraDataFromStartCode(const uint8_t* data, int32_t length, uint8_t* out,
                                            uint32_t* outLength) {
  const size_t data_end = static_cast<size_t>(std::max(length, 0));
  size_t at = find_start_code(data, 0, data_end);
  uint8_t* end = put_bytes(out, data, at);
  while (at < data_end) {
    const size_t nal = at + kStartCodeSize;
    at = find_start_code(data, nal, data_end);
    end = put_unit_with_length(end, data + nal, at - nal);
  }
  *outLength = static_cast<uint32_t>(end - out);
}

// ---- MPEG-1/2 (ISO/IEC 11172-2, 2.4.2.3; ISO/IEC 13818-2, 6.2.2)

namespace {

constexpr uint32_t kSequenceHeaderCode = 0x1B3;
constexpr uint32_t kExtensionStartCode = 0x1B5;
constexpr uint32_t kSequenceExtensionId = 1;
constexpr uint32_t kBitRateUnit = 400;  // bit/s

// Frames in 1000 seconds by frame_rate_code; the reserved codes have none.
constexpr uint32_t MPEGFrameRate[16] = {0, 23975, 24000, 25000, 29970, 30000, 50000, 59940, 60000};

struct SequenceHeader {
  uint32_t horizontal_size_value = 0;
  uint32_t vertical_size_value = 0;
  uint32_t frame_rate_code = 0;
  uint32_t bit_rate_value = 0;
};

bool read_sequence_header(BitReader in, SequenceHeader& header) {
  if (in.u(32) != kSequenceHeaderCode) return false;  // sequence_header_code
  header.horizontal_size_value = in.u(12);
  header.vertical_size_value = in.u(12);
  in.skip(4);  // aspect_ratio_information
  header.frame_rate_code = in.u(4);
  header.bit_rate_value = in.u(18);
  return true;
}

struct SequenceExtension {
  uint32_t bit_rate_extension = 0;
  uint32_t frame_rate_extension_n = 0;
  uint32_t frame_rate_extension_d = 0;
};

// Of an extension of any kind: false when it is not a sequence extension.
bool read_sequence_extension(BitReader in, SequenceExtension& extension) {
  in.skip(32);                                        // extension_start_code
  if (in.u(4) != kSequenceExtensionId) return false;  // extension_start_code_identifier
  in.skip(8);                                         // profile_and_level_indication
  in.skip(1);                                         // progressive_sequence
  in.skip(2);                                         // chroma_format
  in.skip(2);                                         // horizontal_size_extension
  in.skip(2);                                         // vertical_size_extension
  extension.bit_rate_extension = in.u(12);
  in.marker();
  in.skip(8);  // vbv_buffer_size_extension
  in.skip(1);  // low_delay
  extension.frame_rate_extension_n = in.u(2);
  extension.frame_rate_extension_d = in.u(5);
  return true;
}

// Moves to the first sequence header and reads it; false when there is none, or no bit reader to be had.
bool find_sequence_header(const uint8_t*& data, uint32_t& length, SequenceHeader& found) {
  if (!QMXUtil_FindStartCode2(&data, &length, kSequenceHeaderCode)) return false;
  const BitHandle handle = open_bits(data, length);
  return handle != nullptr && read_sequence_header(BitReader(handle.get()), found);
}

// Reads the first sequence extension from `data` on, if any; false when there is no bit reader to be had.
bool find_sequence_extension(const uint8_t* data, uint32_t length, SequenceExtension& found) {
  uint32_t code;
  for (; QMXUtil_FindStartCode(&data, &length, &code); ++data, --length) {
    if (code != kExtensionStartCode) continue;
    const BitHandle handle = open_bits(data, length);
    if (handle == nullptr) return false;
    if (read_sequence_extension(BitReader(handle.get()), found)) return true;
  }
  return true;
}

}  // namespace

uint8_t UtilGetMPEG12Info(const uint8_t* data, uint32_t length, VideoInfo* info) {
  SequenceHeader header;
  SequenceExtension extension;
  if (!find_sequence_header(data, length, header)) return false;
  if (!find_sequence_extension(data, length, extension)) return false;
  info->width = header.horizontal_size_value;
  info->height = header.vertical_size_value;
  info->bitRate = (header.bit_rate_value + (extension.bit_rate_extension << 18)) * kBitRateUnit;
  info->frameRate = MPEGFrameRate[header.frame_rate_code] * (extension.frame_rate_extension_n + 1) /
                    (extension.frame_rate_extension_d + 1);
  return true;
}

// ---- MPEG-4 Part 2 (ISO/IEC 14496-2, 6.2.2 to 6.2.5)

namespace {

constexpr uint32_t kVisualObjectSequenceStartCode = 0x1B0;
constexpr uint32_t kVisualObjectStartCode = 0x1B5;
constexpr uint32_t kUserDataStartCode = 0x1B2;
constexpr uint32_t kVideoObjectStartCode = 0x100;
constexpr uint32_t kVideoObjectLayerStartCode = 0x120;  // to 0x12F
constexpr uint32_t kExtendedPar = 15;
constexpr uint32_t kRectangular = 0;

constexpr uint32_t kMpeg4InfoRoom = 200;
constexpr uint8_t kUserData[32] = {'M', 'P', 'E', 'G', '4', 'I', 'n', 'f', 'o'};

constexpr uint32_t kStartCodePrefix = 1;
constexpr uint8_t kVopCode = 0xB6;     // vop_start_code is 00 00 01 B6
constexpr size_t kVopSearchEnd = 131;  // where the last byte of one may be
constexpr uint32_t kMostModuloSeconds = 64;
constexpr uint32_t kMostTimeIncrementBits = 32;

// Position of the first video object layer start code with more than its four bytes there, or `length`.
size_t find_vol_start_code(const uint8_t* data, size_t length) {
  if (length <= kStartCodeSize) return length;
  const size_t prefixes_end = length - 2;
  for (size_t at = 0; (at = find_start_code_prefix(data, at, prefixes_end)) < prefixes_end; ++at) {
    if ((data[at + 3] & 0xF0) == (kVideoObjectLayerStartCode & 0xFF)) return at;
  }
  return length;
}

uint32_t time_increment_bits(uint32_t resolution) {
  if (resolution == 0) return 0;
  return std::max(1u, static_cast<uint32_t>(std::bit_width(resolution - 1)));
}

// From random_accessible_vol to vol_control_parameters; the result is the layer's verid.
uint32_t read_vol_identity(BitReader& in, MPEG4VolInfo& vol) {
  in.skip(1);                // random_accessible_vol
  vol.objectType = in.u(8);  // video_object_type_indication
  uint32_t verid = 1;
  if (in.flag()) {    // is_object_layer_identifier
    verid = in.u(4);  // video_object_layer_verid
    in.skip(3);       // video_object_layer_priority
  }
  if (in.u(4) == kExtendedPar) {  // aspect_ratio_info
    in.skip(8);                   // par_width
    in.skip(8);                   // par_height
  }
  if (in.flag()) {    // vol_control_parameters
    in.skip(2);       // chroma_format
    in.skip(1);       // low_delay
    if (in.flag()) {  // vbv_parameters
      in.skip(15);    // first_half_bit_rate
      in.marker();
      in.skip(15);  // latter_half_bit_rate
      in.marker();
      in.skip(15);  // first_half_vbv_buffer_size
      in.marker();
      in.skip(3);   // latter_half_vbv_buffer_size
      in.skip(11);  // first_half_vbv_occupancy
      in.marker();
      in.skip(15);  // latter_half_vbv_occupancy
      in.marker();
    }
  }
  return verid;
}

// From the marker after video_object_layer_shape to obmc_disable, of a rectangular layer.
void read_vol_time_and_size(BitReader& in, VideoInfo& info, MPEG4VolInfo& vol) {
  in.marker();
  vol.timeIncrementResolution = in.u(16);  // vop_time_increment_resolution
  vol.timeIncrementBits = time_increment_bits(vol.timeIncrementResolution);
  in.marker();
  if (in.flag()) {                                         // fixed_vop_rate
    vol.fixedTimeIncrement = in.u(vol.timeIncrementBits);  // fixed_vop_time_increment
  }
  in.marker();
  info.width = vol.width = in.u(13);  // video_object_layer_width
  in.marker();
  info.height = vol.height = in.u(13);  // video_object_layer_height
  in.marker();
  vol.interlaced = in.u(1);
  in.skip(1);  // obmc_disable
}

// define_vop_complexity_estimation_header()
uint32_t read_complexity_estimation(BitReader& in) {
  uint32_t flags = MPEG4_COMPLEXITY_ENABLED;
  const uint32_t estimation_method = in.u(2);
  if (estimation_method > 1) return flags;
  if (!in.flag()) {  // shape_complexity_estimation_disable
    flags |= in.u(6) << MPEG4_COMPLEXITY_SHAPE_SHIFT;
  }
  if (!in.flag()) {  // texture_complexity_estimation_set_1_disable
    flags |= in.u(4) << MPEG4_COMPLEXITY_TEXTURE1_SHIFT;
  }
  in.marker();
  if (!in.flag()) {  // texture_complexity_estimation_set_2_disable
    flags |= in.u(4) << MPEG4_COMPLEXITY_TEXTURE2_SHIFT;
  }
  if (!in.flag()) {  // motion_compensation_complexity_disable
    flags |= in.u(6) << MPEG4_COMPLEXITY_MOTION_SHIFT;
  }
  in.marker();
  if (estimation_method == 1 && !in.flag()) {  // version2_complexity_estimation_disable
    flags |= in.u(2) << MPEG4_COMPLEXITY_VERSION2_SHIFT;
  }
  return flags;
}

// A 0 bit, then 1 bits to the byte boundary. Unlike next_start_code() (5.2.4) nothing when already there.
void put_stuffing(QMXBit* out) {
  const uint32_t used = QMXBitGetProcessed(out) % 8;
  if (used != 0) QMXBitPutBit(out, 8 - used, 0x7Fu >> used);
}

// The length of a picture is not known here: each byte is read only when all before it have been needed.

bool bit_at(const uint8_t* data, size_t bit) { return (data[bit / 8] >> (7 - bit % 8) & 1) != 0; }

// Where the first VOP start code ends, of those that begin in the first 129 bytes; 0 when there is none.
size_t find_vop_header(const uint8_t* vop) {
  uint32_t last_three = UINT32_MAX;
  for (size_t at = 0;; ++at) {
    if (last_three == kStartCodePrefix && vop[at] == kVopCode) return at + 1;
    if (at == kVopSearchEnd) return 0;
    last_three = (last_three << 8 | vop[at]) & 0xFFFFFF;
  }
}

}  // namespace

uint8_t UtilGetMPEG4Info(const uint8_t* data, uint32_t length, VideoInfo* info, MPEG4VolInfo* vol) {
  const size_t at = find_vol_start_code(data, length);
  if (at == length) {
    TRACE_ERROR("[Util]\tUtilGetMPEG4Info - Parsing Error for VOL Start Code\n");
    return false;
  }
  const BitHandle handle =
      open_bits(data + at + kStartCodeSize, static_cast<uint32_t>(length - at - kStartCodeSize));
  if (handle == nullptr) return false;
  BitReader in(handle.get());
  VideoInfo unused_info;
  if (info == nullptr) info = &unused_info;
  MPEG4VolInfo unused_vol;
  if (vol == nullptr) vol = &unused_vol;

  const uint32_t verid = read_vol_identity(in, *vol);
  if (in.u(2) != kRectangular) {
    TRACE_ERROR("[DecVideo] GetMPEG4Info - Parsing Error for video_object_layer_shape\n");
    return false;
  }
  read_vol_time_and_size(in, *info, *vol);
  if (in.u(verid == 1 ? 1 : 2) != 0) {
    TRACE_ERROR("[DecVideo] GetMPEG4Info - Parsing Error for sprite_enable\n");
    return false;
  }
  in.skip(1);  // not_8_bit
  if (in.flag()) {
    TRACE_ERROR("[DecVideo] GetMPEG4Info - Parsing Error for quant_type\n");
    return false;
  }
  vol->quantType = 0;
  if (verid != 1) in.skip(1);  // quarter_sample
  vol->complexityFlags = 0;
  if (!in.flag()) {  // complexity_estimation_disable
    vol->complexityFlags = read_complexity_estimation(in);
  }
  vol->resyncMarkers = 1 - in.u(1);  // resync_marker_disable
  if (in.flag()) {                   // data_partitioned
    vol->dataPartitioned = 1;
    vol->reversibleVlc = in.u(1);
  }
  if (verid != 1) {
    in.skip(1);  // newpred_enable
    in.skip(1);  // reduced_resolution_vop_enable
  }
  in.skip(1);  // scalability
  return true;
}

uint32_t UtilSetMPEG4Info(uint8_t* out, uint32_t, const VideoInfo* info, const MPEG4VolInfo* vol) {
  const BitHandle handle(QMXBitOpen(out, kMpeg4InfoRoom));
  if (handle == nullptr) return 0;
  QMXBit* const bits = handle.get();
  const uint32_t quant_type = vol->quantType & 1;

  QMXBitPutBit(bits, 32, kVisualObjectSequenceStartCode);
  QMXBitPutBit(bits, 8, 3);  // profile_and_level_indication
  QMXBitPutBit(bits, 32, kVisualObjectStartCode);
  QMXBitPutBit(bits, 1, 1);  // is_visual_object_identifier
  QMXBitPutBit(bits, 4, 1);  // visual_object_verid
  QMXBitPutBit(bits, 3, 1);  // visual_object_priority
  QMXBitPutBit(bits, 4, 1);  // visual_object_type: video
  QMXBitPutBit(bits, 1, 0);  // video_signal_type
  put_stuffing(bits);
  QMXBitPutBit(bits, 32, kUserDataStartCode);
  QMXBitPutByte(bits, sizeof kUserData, kUserData);
  QMXBitPutBit(bits, 32, kVideoObjectStartCode);
  QMXBitPutBit(bits, 32, kVideoObjectLayerStartCode);
  QMXBitPutBit(bits, 1, 0);                              // random_accessible_vol
  QMXBitPutBit(bits, 8, 1);                              // video_object_type_indication
  QMXBitPutBit(bits, 1, 1);                              // is_object_layer_identifier
  QMXBitPutBit(bits, 4, 1);                              // video_object_layer_verid
  QMXBitPutBit(bits, 3, 1);                              // video_object_layer_priority
  QMXBitPutBit(bits, 4, 1);                              // aspect_ratio_info: square
  QMXBitPutBit(bits, 1, 0);                              // vol_control_parameters
  QMXBitPutBit(bits, 2, kRectangular);                   // video_object_layer_shape
  QMXBitPutBit(bits, 1, 1);                              // marker_bit
  QMXBitPutBit(bits, 16, vol->timeIncrementResolution);  // vop_time_increment_resolution
  QMXBitPutBit(bits, 1, 1);                              // marker_bit
  QMXBitPutBit(bits, 1, 0);                              // fixed_vop_rate
  QMXBitPutBit(bits, 1, 1);                              // marker_bit
  QMXBitPutBit(bits, 13, info->width);                   // video_object_layer_width
  QMXBitPutBit(bits, 1, 1);                              // marker_bit
  QMXBitPutBit(bits, 13, info->height);                  // video_object_layer_height
  QMXBitPutBit(bits, 1, 1);                              // marker_bit
  QMXBitPutBit(bits, 1, 0);                              // interlaced
  QMXBitPutBit(bits, 1, 1);                              // obmc_disable
  QMXBitPutBit(bits, 1, 0);                              // sprite_enable
  QMXBitPutBit(bits, 1, 0);                              // not_8_bit
  QMXBitPutBit(bits, 1, quant_type);
  if (quant_type == 1) {
    QMXBitPutBit(bits, 1, 0);  // load_intra_quant_mat
    QMXBitPutBit(bits, 1, 0);  // load_nonintra_quant_mat
  }
  QMXBitPutBit(bits, 1, 1);  // complexity_estimation_disable
  QMXBitPutBit(bits, 1, 1);  // resync_marker_disable
  QMXBitPutBit(bits, 1, 0);  // data_partitioned
  QMXBitPutBit(bits, 1, 0);  // scalability
  put_stuffing(bits);
  return QMXBitGetProcessed(bits) / 8;
}

int VopCheckCoded(const uint8_t* vop, uint32_t timeIncrementBits) {
  const size_t header = find_vop_header(vop);
  if (header == 0) return 1;
  size_t bit = header * 8 + 2;                                 // vop_coding_type
  for (uint32_t seconds = 0; bit_at(vop, bit++); ++seconds) {  // modulo_time_base
    if (seconds == kMostModuloSeconds) return 1;
  }
  bit += 1;                                                    // marker_bit
  bit += std::min(timeIncrementBits, kMostTimeIncrementBits);  // vop_time_increment
  bit += 1;                                                    // marker_bit
  return bit_at(vop, bit);                                     // vop_coded
}

// ---- Dispatch by codec

namespace {

consteval uint32_t fourcc(const char (&text)[5]) {
  return std::bit_cast<uint32_t>(std::array<char, 4>{text[0], text[1], text[2], text[3]});
}

}  // namespace

uint32_t UtilToUpperVideoFourCC(uint32_t fourcc) {
  char text[sizeof fourcc + 1] = {};
  std::memcpy(text, &fourcc, sizeof fourcc);
  QMXUtilStrntoupper(text, sizeof fourcc);
  std::memcpy(&fourcc, text, sizeof fourcc);
  return fourcc;
}

uint8_t QMXUtil_GetVideoInfo(const uint8_t* config, uint32_t length, VideoInfo* info) {
  switch (info->codec) {
    case fourcc("H264"):
    case fourcc("avc1"):
    case fourcc("AVC1"):
      return QMXUtil_GetH264Info(config, length, info, nullptr);
    case fourcc("H265"):
    case fourcc("HEVC"):
    case fourcc("hvc1"):
    case fourcc("hev1"):
    case fourcc("HEV1"):
      return QMXUtil_GetH265Info(config, length, info, nullptr);
    case fourcc("XVID"):
    case fourcc("MP4S"):
    case fourcc("MP4V"):
      return UtilGetMPEG4Info(config, length, info, nullptr);
    case fourcc("MPEG"):
      return UtilGetMPEG12Info(config, length, info);
    default:
      return false;
  }
}

// ---- Frames of elementary-stream files (annex B of ISO/IEC 14496-10 and of ISO/IEC 23008-2)

constinit std::atomic<uint8_t> g_bFirstFrame = 1;

namespace {

constexpr uint32_t kLeastFrameRoom = 2;
constexpr uint8_t kFirstMbInSliceIsZero = 0x80;  // of the byte after a slice's NAL unit header

constexpr uint32_t kH265NalTrailR = 1;
constexpr uint32_t kH265NalIdrWRadl = 19;
constexpr uint32_t kH265NalPps = 34;

}  // namespace

uint32_t UtilVideo_H264_ReadOneFrame(FILE* file, uint8_t* buffer, uint32_t size) {
  if (size < kLeastFrameRoom) return 0;
  FrameBuffer in(file, buffer, size);
  bool begun = false, began_at_pps = false;
  while (const std::optional<size_t> header = in.next_header()) {
    const uint32_t type = buffer[*header] & kH264NalTypeMask;
    const bool slice = type == kH264NalSlice || type == kH264NalIdrSlice;
    if (!begun) {
      began_at_pps = type == kH264NalPps && g_bFirstFrame.load(std::memory_order_relaxed) != 0;
      begun = slice || began_at_pps;
    } else if (slice && !began_at_pps) {
      if (!in.has_room_for_slice(*header)) return in.give_up_after(*header);
      if (!in.has(*header + 1)) break;
      if ((buffer[*header + 1] & kFirstMbInSliceIsZero) != 0) return in.end_before(*header);
    } else {
      if (began_at_pps && (slice || type == kH264NalSei)) g_bFirstFrame.store(0, std::memory_order_relaxed);
      if (slice || (type >= kH264NalSei && type <= kH264NalAccessUnitDelimiter))
        return in.end_before(*header);
    }
  }
  return in.end_of_data();
}

uint32_t UtilVideo_H265_ReadOneFrame(FILE* file, uint8_t* buffer, uint32_t size) {
  if (size < kLeastFrameRoom) return 0;
  FrameBuffer in(file, buffer, size);
  bool begun = false, began_at_pps = false;
  while (const std::optional<size_t> header = in.next_header()) {
    const uint32_t type = buffer[*header] >> 1 & 0x3F;
    const bool slice = type == kH265NalTrailR || type == kH265NalIdrWRadl;
    if (!begun) {
      began_at_pps = type == kH265NalPps && g_bFirstFrame.load(std::memory_order_relaxed) != 0;
      begun = slice || began_at_pps;
      continue;
    }
    if (slice && !began_at_pps) {
      if (!in.has_room_for_slice(*header)) return in.give_up_after(*header);
      if (!in.has(*header + 1)) break;
    } else if (began_at_pps && (slice || type == kH265NalPps)) {
      g_bFirstFrame.store(0, std::memory_order_relaxed);
    }
    return in.end_before(*header);
  }
  return in.end_of_data();
}
