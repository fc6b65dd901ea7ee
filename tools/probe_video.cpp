// What `probe` tells of video streams and of their configuration records.
#include <algorithm>
#include <array>
#include <cstring>

#include "error.h"
#include "probe_report.h"
#include "qmxutil_video.h"
#include "units.h"

namespace {

using View = std::span<const uint8_t>;
using Bytes = std::vector<uint8_t>;

constexpr Named kH264Profiles[] = {
    {66, "Baseline"}, {77, "Main"},        {88, "Extended"},    {100, "High"},
    {110, "High 10"}, {122, "High 4:2:2"}, {144, "High 4:4:4"}, {244, "High 4:4:4 Predictive"}};
constexpr Named kH265Profiles[] = {
    {1, "Main"}, {2, "Main 10"}, {3, "Main Still Picture"}, {4, "Range extensions"}};
constexpr Named kChromaFormats[] = {{0, "monochrome"}, {1, "4:2:0"}, {2, "4:2:2"}, {3, "4:4:4"}};

uint32_t length_of(View bytes) { return static_cast<uint32_t>(bytes.size()); }

// The units of a stream whose last byte is a zero to spare.
std::vector<StartCodeUnit> units_of(const Bytes& stream) {
  return start_code_units({stream.data(), stream.size() - 1});
}

void report_parameter_sets(Report& report, const std::vector<StartCodeUnit>& sets) {
  Json lengths = Json::array();
  std::string shown;
  for (const StartCodeUnit& set : sets) {
    lengths.push_back(set.bytes.size());
    shown += (shown.empty() ? "" : ", ") + std::to_string(set.bytes.size());
  }
  report.values["parameterSetBytes"] = std::move(lengths);
  report.line("parameter sets", std::to_string(sets.size()) + ", of " + shown + " bytes");
}

void report_h264_profile(Report& report, const H264ProfileInfo& profile) {
  report.named("profile", profile.profile, "profile", name_of(kH264Profiles, profile.profile));
  report.values["compatibility"] = profile.compatibility;
  report.line("constraint flags", text("0x%02X", profile.compatibility));
  report.named("level", profile.level, "level", text("%u.%u", profile.level / 10, profile.level % 10));
}

// Profiles that carry a chroma format which the library does not look for: the size after it is not
// reliable.
bool has_unread_chroma_format(uint32_t profile) {
  constexpr uint32_t kProfiles[] = {44, 83, 86, 118, 128, 134, 135, 138, 139, 244};
  return std::ranges::find(kProfiles, profile) != std::end(kProfiles);
}

// The library reads on after the end of an SPS that is cut short: what it reads then depends on what stands
// there.
void read_sps(Bytes payload, VideoInfo& info, H264ProfileInfo& profile) {
  constexpr size_t kMore = 64;
  VideoInfo other_info = {};
  H264ProfileInfo other = {};
  payload.resize(payload.size() + kMore, 0xFF);
  UtilGetSPSPPSInfo(payload.data(), length_of(payload), &info, &profile);
  std::fill_n(payload.end() - kMore, kMore, uint8_t{0});
  UtilGetSPSPPSInfo(payload.data(), length_of(payload), &other_info, &other);
  const bool same = std::memcmp(&profile, &other, sizeof profile) == 0 && info.width == other_info.width &&
                    info.height == other_info.height;
  if (!same) throw CommandError("its sequence parameter set is cut short");
}

void report_h264_sets(Report& report, const std::vector<StartCodeUnit>& sets) {
  const auto sps = std::ranges::find_if(sets, [](const StartCodeUnit& unit) { return h264_type(unit) == 7; });
  if (sps == sets.end()) throw CommandError("holds no sequence parameter set");
  Bytes payload(sps->bytes.begin() + 1, sps->bytes.end());
  uint32_t length = length_of(payload);
  QMXUtil_H26xRemoveEPB(payload.data(), &length);
  payload.resize(length);
  VideoInfo info = {};
  H264ProfileInfo profile = {};
  read_sps(payload, info, profile);
  report_h264_profile(report, profile);
  if (has_unread_chroma_format(profile.profile)) {
    report.notes.push_back("size and reference frames of this profile are not read reliably: left out");
  } else {
    report.size(info.width, info.height, "coded size");
    report.number("referenceFrames", profile.numRefFrames, "reference frames");
    report.notes.push_back(
        "the size is the coded one, in whole macroblocks before cropping; half the height when fields are "
        "coded");
  }
  report_parameter_sets(report, sets);
}

void report_h265_sets(Report& report, const std::vector<StartCodeUnit>& sets) {
  std::vector<uint8_t> stream = byte_stream(sets);
  uint32_t length = length_of(stream);
  QMXUtil_H26xRemoveEPB(stream.data(), &length);  // profile_tier_level() usually holds some
  H265ParamSetInfo info = {};
  UtilConvH265InfoFromStartCode(stream.data(), static_cast<int32_t>(length), &info);
  if (info.spsNal == nullptr) throw CommandError("holds no sequence parameter set");
  const H265ProfileTierLevel& ptl = info.spsProfileTierLevel;
  report.named("profile", ptl.general_profile_idc, "profile",
               name_of(kH265Profiles, ptl.general_profile_idc));
  report.values["tier"] = ptl.general_tier_flag != 0 ? "high" : "main";
  report.line("tier", ptl.general_tier_flag != 0 ? "High" : "Main");
  report.named("level", ptl.general_level_idc, "level",
               text("%u.%u", ptl.general_level_idc / 30, ptl.general_level_idc % 30 / 3));
  report.named("chromaFormat", info.chroma_format_idc, "chroma format",
               name_of(kChromaFormats, info.chroma_format_idc));
  if (info.chroma_format_idc == 3) {
    report.notes.push_back("the size of 4:4:4 streams is not read reliably: left out");
  } else {
    report.size(info.pic_width_in_luma_samples, info.pic_height_in_luma_samples, "size before cropping");
  }
  report.flag("progressive", ptl.general_progressive_source_flag, "progressive");
  report.flag("interlaced", ptl.general_interlaced_source_flag, "interlaced");
  report.flag("nonPacked", ptl.general_non_packed_constraint_flag, "non-packed");
  report.flag("frameOnly", ptl.general_frame_only_constraint_flag, "frames only");
  report.number("subLayers", info.sps_max_sub_layers_minus1 + 1u, "sub-layers");
  report_parameter_sets(report, sets);
}

void report_mpeg12(Report& report, Window& window) {
  VideoInfo info = {};
  if (!UtilGetMPEG12Info(window.view().data(), length_of(window.view()), &info)) {
    throw CommandError("an MPEG-1/2 stream whose sequence header is cut short");
  }
  report.size(info.width, info.height, "size");
  report.values["frameRate"] = info.frameRate / 1000.0;
  report.line("frames per second", text("%.3f", info.frameRate / 1000.0));
  report.values["bitRate"] = info.bitRate;
  report.line("bit rate", text("%u bit/s", info.bitRate));
  constexpr uint32_t kVariable = 0x3FFFF * 400u;
  if (info.bitRate == kVariable) report.notes.push_back("this bit rate stands for a variable one (MPEG-1)");
}

void report_avcc(Report& report, View record) {
  H264ProfileInfo profile = {};
  QMXUtil_GetH264Info(record.data(), length_of(record), nullptr, &profile);
  Bytes stream = to_start_codes(record, avcc_units(record), QMXUtil_ConvH264InfoToStartCode);
  if (stream.empty()) {
    report_h264_profile(report, profile);
    report.notes.push_back("the record holds no parameter sets: they are in the stream");
  } else {
    stream.push_back(0);
    report_h264_sets(report, units_of(stream));
  }
  report.number("nalLengthSize", profile.nalLengthSize, "NAL length bytes");
}

void report_hvcc(Report& report, View record) {
  VideoInfo info = {};
  QMXUtil_GetH265Info(record.data(), length_of(record), &info, nullptr);
  const View arrays = record.subspan(kHvccArrays);
  Bytes stream = to_start_codes(arrays, hvcc_units(arrays), QMXUtil_ConvH265InfoToStartCode);
  if (stream.empty()) {
    report.notes.push_back("the record holds no parameter sets: they are in the stream");
  } else {
    stream.push_back(0);
    report_h265_sets(report, units_of(stream));
  }
  report.values["recordProfile"] = info.profile;
  report.values["recordLevel"] = info.level;
  report.line("record says", text("profile %u, level %u", info.profile, info.level));
}

// How many pictures in view are coded, and how many are skipped.
void report_vops(Report& report, const Window& window, uint32_t time_increment_bits) {
  constexpr size_t kReach = 160;  // more than VopCheckCoded() ever reads
  constexpr uint8_t kVopCode = 0xB6;
  uint64_t coded = 0, skipped = 0;
  UnitReader reader(window.view());
  for (StartCodeUnit unit; reader.next(unit);) {
    if (unit.bytes[0] != kVopCode) continue;
    std::array<uint8_t, kReach> start = {0, 0, 1};
    std::copy_n(unit.bytes.begin(), std::min(unit.bytes.size(), start.size() - 3), start.begin() + 3);
    VopCheckCoded(start.data(), time_increment_bits) ? ++coded : ++skipped;
  }
  if (coded + skipped == 0) return;  // a configuration alone
  report.values["codedPictures"] = coded;
  report.values["skippedPictures"] = skipped;
  report.values["countedBytes"] = window.view().size();
  report.line("pictures", std::to_string(coded) + " coded, " + std::to_string(skipped) + " skipped" +
                              (window.reaches_end() ? "" : ", in the first MiB"));
}

void report_mpeg4(Report& report, Window& window) {
  VideoInfo info = {};
  MPEG4VolInfo vol = {};
  if (!UtilGetMPEG4Info(window.view().data(), length_of(window.view()), &info, &vol)) {
    throw CommandError("an MPEG-4 Part 2 stream whose video object layer is not supported");
  }
  report.size(info.width, info.height, "size");
  report.number("objectType", vol.objectType, "object type");
  report.number("timeIncrementResolution", vol.timeIncrementResolution, "ticks per second");
  report.number("timeIncrementBits", vol.timeIncrementBits, "time bits");
  if (vol.fixedTimeIncrement != 0)
    report.number("fixedTimeIncrement", vol.fixedTimeIncrement, "ticks per picture");
  report.flag("interlaced", vol.interlaced, "interlaced");
  report.flag("resyncMarkers", vol.resyncMarkers, "resync markers");
  report.flag("dataPartitioned", vol.dataPartitioned, "data partitioned");
  if (vol.dataPartitioned != 0) report.flag("reversibleVlc", vol.reversibleVlc, "reversible VLC");
  report.values["complexityFlags"] = vol.complexityFlags;
  report.line("complexity flags", text("0x%X", vol.complexityFlags));
  report_vops(report, window, vol.timeIncrementBits);
}

}  // namespace

void report_video(Report& report, const Stream& stream, Window& window) {
  switch (stream.kind) {
    case StreamKind::kH264:
      report_h264_sets(report, units_of(stream.sets));
      break;
    case StreamKind::kH265:
      report_h265_sets(report, units_of(stream.sets));
      break;
    case StreamKind::kAvcc:
      report_avcc(report, window.view());
      break;
    case StreamKind::kHvcc:
      report_hvcc(report, window.view());
      break;
    case StreamKind::kMpeg12:
      report_mpeg12(report, window);
      break;
    default:
      report_mpeg4(report, window);
  }
}
