// qmxutil probe: what a stream or a configuration record is, and what the library knows of it.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "qmxutil_audio.h"
#include "qmxutil_string.h"
#include "qmxutil_video.h"
#include "stream_file.h"

namespace {

using nlohmann::ordered_json;

constexpr size_t kReadLimit = size_t{256} << 20;

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...) {
  char buffer[200];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

// What was found: values for scripts, lines for people.
struct Report {
  ordered_json values = ordered_json::object();
  std::vector<std::string> lines;
  std::vector<std::string> notes;

  void line(const char* label, const std::string& shown) {
    lines.push_back(text("  %-20s %s", label, shown.c_str()));
  }
  void number(const char* key, uint32_t value, const char* label) {
    values[key] = value;
    line(label, std::to_string(value));
  }
  void flag(const char* key, uint32_t value, const char* label) {
    values[key] = value != 0;
    line(label, value != 0 ? "yes" : "no");
  }
  void named(const char* key, uint32_t value, const char* label, const std::string& name) {
    values[key] = value;
    line(label, name + " (" + std::to_string(value) + ")");
  }
  void size(uint32_t width, uint32_t height, const char* label) {
    values["width"] = width;
    values["height"] = height;
    line(label, text("%u x %u", width, height));
  }
};

struct Named {
  uint32_t code;
  const char* name;
};

template <size_t N>
std::string name_of(const Named (&names)[N], uint32_t code) {
  const Named* const it =
      std::find_if(names, names + N, [=](const Named& known) { return known.code == code; });
  return it != names + N ? it->name : "unnamed";
}

constexpr Named kH264Profiles[] = {
    {66, "Baseline"}, {77, "Main"},        {88, "Extended"},    {100, "High"},
    {110, "High 10"}, {122, "High 4:2:2"}, {144, "High 4:4:4"}, {244, "High 4:4:4 Predictive"}};
constexpr Named kH265Profiles[] = {
    {1, "Main"}, {2, "Main 10"}, {3, "Main Still Picture"}, {4, "Range extensions"}};
constexpr Named kChromaFormats[] = {{0, "monochrome"}, {1, "4:2:0"}, {2, "4:2:2"}, {3, "4:4:4"}};
constexpr Named kChannelModes[] = {
    {0, "stereo"}, {1, "joint stereo"}, {2, "dual channel"}, {3, "single channel"}};

uint32_t length_of(std::span<const uint8_t> bytes) { return static_cast<uint32_t>(bytes.size()); }

ordered_json lengths_of(const std::vector<StartCodeUnit>& units) {
  ordered_json lengths = ordered_json::array();
  for (const StartCodeUnit& unit : units) lengths.push_back(unit.bytes.size());
  return lengths;
}

void report_parameter_sets(Report& report, const std::vector<StartCodeUnit>& sets) {
  report.values["parameterSetBytes"] = lengths_of(sets);
  std::string shown;
  for (const StartCodeUnit& set : sets)
    shown += (shown.empty() ? "" : ", ") + std::to_string(set.bytes.size());
  report.line("parameter sets", std::to_string(sets.size()) + ", of " + shown + " bytes");
}

void report_h264_profile(Report& report, const H264ProfileInfo& profile) {
  report.named("profile", profile.profile, "profile", name_of(kH264Profiles, profile.profile));
  report.values["compatibility"] = profile.compatibility;
  report.line("constraint flags", text("0x%02X", profile.compatibility));
  report.named("level", profile.level, "level", text("%u.%u", profile.level / 10, profile.level % 10));
}

// Profiles that carry a chroma format which the library does not look for: the size behind it is not
// reliable.
bool has_unread_chroma_format(uint32_t profile) {
  constexpr uint32_t kProfiles[] = {44, 83, 86, 118, 128, 134, 135, 138, 139, 244};
  return std::ranges::find(kProfiles, profile) != std::end(kProfiles);
}

void report_h264_sets(Report& report, const std::vector<StartCodeUnit>& sets) {
  const auto sps = std::ranges::find_if(sets, [](const StartCodeUnit& unit) { return h264_type(unit) == 7; });
  if (sps == sets.end()) return;
  std::vector<uint8_t> payload(sps->bytes.begin() + 1, sps->bytes.end());
  uint32_t length = length_of(payload);
  QMXUtil_H26xRemoveEPB(payload.data(), &length);
  VideoInfo info = {};
  H264ProfileInfo profile = {};
  UtilGetSPSPPSInfo(payload.data(), length, &info, &profile);
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

void report_h264(Report& report, const StreamFile& file) {
  report_h264_sets(report, h264_parameter_sets(start_code_units(file.bytes())));
}

// A record, turned into start-code form by `convert`; the copy has room for what each unit gains, and a zero
// behind it.
std::vector<uint8_t> converted(std::span<const uint8_t> record, void (*convert)(uint8_t*, uint32_t*)) {
  std::vector<uint8_t> copy(record.begin(), record.end());
  copy.resize(record.size() * 2 + 1);
  uint32_t length = length_of(record);
  convert(copy.data(), &length);
  copy.resize(length);
  copy.push_back(0);
  return copy;
}

std::vector<StartCodeUnit> units_of(const std::vector<uint8_t>& stream) {
  return start_code_units({stream.data(), stream.size() - 1});
}

void report_avcc(Report& report, const StreamFile& file) {
  H264ProfileInfo profile = {};
  QMXUtil_GetH264Info(file.bytes().data(), length_of(file.bytes()), nullptr, &profile);
  const auto stream = converted(file.bytes(), QMXUtil_ConvH264InfoToStartCode);
  report_h264_sets(report, h264_parameter_sets(units_of(stream)));
  report.number("nalLengthSize", profile.nalLengthSize, "NAL length bytes");
}

void report_h265_sets(Report& report, const std::vector<StartCodeUnit>& sets) {
  std::vector<uint8_t> stream = byte_stream(sets);
  uint32_t length = length_of(stream);
  QMXUtil_H26xRemoveEPB(stream.data(), &length);  // profile_tier_level() usually holds some
  H265ParamSetInfo info = {};
  UtilConvH265InfoFromStartCode(stream.data(), static_cast<int32_t>(length), &info);
  if (info.spsNal == nullptr) return;
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

void report_h265(Report& report, const StreamFile& file) {
  report_h265_sets(report, h265_parameter_sets(start_code_units(file.bytes())));
}

void report_hvcc(Report& report, const StreamFile& file) {
  VideoInfo info = {};
  QMXUtil_GetH265Info(file.bytes().data(), length_of(file.bytes()), &info, nullptr);
  const auto stream = converted(file.bytes(), QMXUtil_ConvHEVCInfoToStartCode);
  report_h265_sets(report, h265_parameter_sets(units_of(stream)));
  report.values["recordProfile"] = info.profile;
  report.values["recordLevel"] = info.level;
  report.line("record says", text("profile %u, level %u", info.profile, info.level));
}

void report_mpeg12(Report& report, const StreamFile& file) {
  VideoInfo info = {};
  if (!UtilGetMPEG12Info(file.bytes().data(), length_of(file.bytes()), &info)) {
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

// How many pictures are coded, and how many are skipped.
void report_vops(Report& report, const StreamFile& file, uint32_t time_increment_bits) {
  constexpr uint8_t kVopCode = 0xB6;
  uint32_t coded = 0, skipped = 0;
  for (const StartCodeUnit& unit : start_code_units(file.bytes())) {
    if (unit.bytes[0] != kVopCode) continue;
    std::array<uint8_t, 160> start = {0, 0, 1};  // more than VopCheckCoded() ever reads
    std::copy_n(unit.bytes.begin(), std::min(unit.bytes.size(), start.size() - 3), start.begin() + 3);
    VopCheckCoded(start.data(), time_increment_bits) ? ++coded : ++skipped;
  }
  if (coded + skipped == 0) return;  // a configuration alone
  report.values["codedPictures"] = coded;
  report.values["skippedPictures"] = skipped;
  report.line("pictures", text("%u coded, %u skipped", coded, skipped));
}

void report_mpeg4(Report& report, const StreamFile& file) {
  VideoInfo info = {};
  MPEG4VolInfo vol = {};
  if (!UtilGetMPEG4Info(file.bytes().data(), length_of(file.bytes()), &info, &vol)) {
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
  report_vops(report, file, vol.timeIncrementBits);
}

struct Mp3Walk {
  uint32_t frames = 0;
  uint64_t samples = 0;
  bool one_bit_rate = true;
  uint32_t bytes_behind = 0;  // the last whole frame
};

Mp3Walk walk_mp3(const uint8_t* position, uint32_t remaining) {
  Mp3Walk walk;
  AudioInfo first = {}, info = {};
  QMXUtil_GetMP3Info(position, remaining, &first, nullptr);
  uint32_t length, samples;
  while (QMXUtil_GetMP3Frame(&position, &remaining, &length, &samples) != nullptr && length <= remaining) {
    QMXUtil_GetMP3Info(position, remaining, &info, nullptr);
    walk.one_bit_rate = walk.one_bit_rate && info.bitRate == first.bitRate;
    ++walk.frames;
    walk.samples += samples;
    position += length;
    remaining -= length;
  }
  walk.bytes_behind = remaining;
  return walk;
}

void report_mp3(Report& report, const StreamFile& file) {
  const uint8_t* position = file.bytes().data();
  uint32_t remaining = length_of(file.bytes()), length = 0, samples = 0;
  AudioInfo info = {};
  QMXUtil_GetMP3Info(position, remaining, &info, nullptr);
  QMXUtil_GetMP3Frame(&position, &remaining, &length, &samples);
  MP3HeaderInfo header = {};
  uint32_t word = 0;
  for (int i = 0; i < 4; ++i) word = word << 8 | position[i];
  const uint32_t side_info = UtilDecode_mp3header(&header, word);
  const Mp3Walk walk = walk_mp3(position, remaining);

  const char* const version = header.mpeg25 ? "MPEG-2.5" : header.lsf ? "MPEG-2" : "MPEG-1";
  report.values["version"] = version;
  report.line("version", version);
  report.values["sampleRate"] = info.sampleRate;
  report.line("sampling rate", text("%u Hz", info.sampleRate));
  report.number("channels", info.channels, "channels");
  report.named("mode", header.mode, "mode", name_of(kChannelModes, header.mode));
  report.values["bitRate"] = info.bitRate;
  report.values["oneBitRate"] = walk.one_bit_rate;
  report.line("bit rate", text("%u bit/s %s", info.bitRate,
                               walk.one_bit_rate ? "throughout" : "in the first frame, others later"));
  report.number("samplesPerFrame", samples, "samples per frame");
  report.flag("crc", header.crc, "CRC");
  report.number("sideInfoBytes", side_info, "side information");
  report.flag("copyright", header.copyBit, "copyright");
  report.flag("original", header.originalBit, "original");
  report.number("emphasis", header.emphasis, "emphasis");
  report.number("firstFrame", static_cast<uint32_t>(position - file.bytes().data()), "first frame at");
  report.number("frames", walk.frames, "whole frames");
  const double seconds = static_cast<double>(walk.samples) / info.sampleRate;
  report.values["seconds"] = seconds;
  report.line("duration", text("%.3f s", seconds));
  report.number("bytesBehind", walk.bytes_behind, "bytes behind them");
}

void report_aac(Report& report, const StreamFile& file) {
  constexpr uint32_t kAacFormat = 255;
  AudioInfo info = {};
  QMXUtil_UtilGetLATMInfo(file.bytes().data(), length_of(file.bytes()), &info);
  report.values["sampleRate"] = info.sampleRate;
  report.line("sampling rate", text("%u Hz", info.sampleRate));
  report.number("channels", info.channels, "channel setup");
  report.number("samplesPerFrame", QMXUtil_GetAudioSampleSize(kAacFormat), "samples per frame");
  if (info.sampleRate == 0) {
    report.notes.push_back("the sampling frequency index is reserved, or a frequency follows it");
  }
}

Report report_of(const StreamFile& file, StreamKind kind) {
  Report report;
  switch (kind) {
    case StreamKind::kMp3:
      report_mp3(report, file);
      break;
    case StreamKind::kH264:
      report_h264(report, file);
      break;
    case StreamKind::kH265:
      report_h265(report, file);
      break;
    case StreamKind::kAvcc:
      report_avcc(report, file);
      break;
    case StreamKind::kHvcc:
      report_hvcc(report, file);
      break;
    case StreamKind::kMpeg12:
      report_mpeg12(report, file);
      break;
    case StreamKind::kMpeg4:
      report_mpeg4(report, file);
      break;
    case StreamKind::kAacConfiguration:
      report_aac(report, file);
      break;
    case StreamKind::kUnknown:
      throw CommandError("no stream or configuration record that the library knows");
  }
  return report;
}

void print(const Report& report, const std::string& path, StreamKind kind, bool as_json) {
  if (as_json) {
    ordered_json all = {{"file", path}, {"kind", kind_id(kind)}};
    all.update(report.values);
    if (!report.notes.empty()) all["notes"] = report.notes;
    std::printf("%s\n", all.dump(2).c_str());
    return;
  }
  std::printf("%s: %s\n", path.c_str(), kind_name(kind));
  for (const std::string& line : report.lines) std::printf("%s\n", line.c_str());
  for (const std::string& note : report.notes) std::printf("  (%s)\n", note.c_str());
}

void run_probe(const std::string& path, bool as_json) {
  const StreamFile file = read_stream(path, kReadLimit);
  const StreamKind kind = stream_kind(file);
  try {
    Report report = report_of(file, kind);
    if (file.file_size > kReadLimit) report.notes.push_back("of the file's first 256 MiB");
    print(report, path, kind, as_json);
  } catch (const CommandError& error) {
    throw CommandError(path + ": " + error.what());
  }
}

}  // namespace

void add_probe_command(CLI::App& app) {
  struct Options {
    std::string file;
    bool as_json = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "probe", "Tell what an elementary stream or a decoder configuration is, and what its headers say");
  command
      ->add_option(
          "FILE", options->file,
          "MP3; H.264 or H.265 with start codes; avcC or hvcC record; MPEG-1/2 or MPEG-4 Part 2 video; "
          "the two bytes of an AAC configuration")
      ->required();
  command->add_flag("--json", options->as_json, "print JSON");
  command->footer("Example: qmxutil probe clip.264 --json");
  command->callback([options] { run_probe(options->file, options->as_json); });
}
