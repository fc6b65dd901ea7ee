// Clips of real encoders: every field that the library reports is what ffprobe and the stream's own headers
// say (tests/data/clips/ffprobe.txt, made by scripts/make-clips.sh), but for the deviations stated beside
// each.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>

#include "qmxutil_audio.h"
#include "qmxutil_video.h"
#include "recording_base.h"

namespace {

using qmxtest::GuardedBytes;

// What is known of a clip: values by name, such as "width" or "max_num_ref_frames".
struct Clip {
  std::string name;
  std::string bytes;
  std::map<std::string, std::string> facts;

  const std::string& text(const std::string& fact) const {
    const auto it = facts.find(fact);
    if (it == facts.end()) throw std::runtime_error(name + " has no " + fact);
    return it->second;
  }
  uint32_t number(const std::string& fact) const { return static_cast<uint32_t>(std::stoul(text(fact))); }
};

std::string clip_path(const std::string& name) { return TEST_DATA_DIR "/clips/" + name; }

std::vector<Clip> clips(const std::string& extension) {
  std::vector<Clip> chosen;
  std::ifstream table(clip_path("ffprobe.txt"));
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    Clip clip;
    std::getline(fields, clip.name, '|');
    if (std::filesystem::path(clip.name).extension() != extension) continue;
    for (std::string field; std::getline(fields, field, '|');) {
      clip.facts[field.substr(0, field.find('='))] = field.substr(field.find('=') + 1);
    }
    clip.bytes = qmxtest::read_file(clip_path(clip.name));
    chosen.push_back(clip);
  }
  return chosen;
}

class ClipsTest : public qmxtest::BaseTest {};

void for_each(const std::string& extension, size_t least, const std::function<void(const Clip&)>& check) {
  const auto all = clips(extension);
  ASSERT_GE(all.size(), least) << extension;
  for (const Clip& clip : all) {
    SCOPED_TRACE(clip.name);
    check(clip);
  }
}

// What the library reports is what is known.
void expect_facts(const Clip& clip, std::initializer_list<std::pair<const char*, uint32_t>> reported) {
  for (const auto& [fact, value] : reported) EXPECT_EQ(value, clip.number(fact)) << fact;
}

// The elementary stream that a configuration record belongs to.
Clip stream_of(const Clip& record, const std::string& extension) {
  for (const Clip& clip : clips(extension)) {
    if (std::filesystem::path(clip.name).stem() == std::filesystem::path(record.name).stem()) return clip;
  }
  throw std::runtime_error(record.name + " has no stream");
}

const std::string kStartCode("\0\0\0\1", 4);

// The NAL units of a byte stream, found by a plain scan.
std::vector<std::string> nal_units(const std::string& stream) {
  const std::string prefix = kStartCode.substr(1);
  std::vector<std::string> units;
  for (size_t at = stream.find(prefix); at != std::string::npos;) {
    const size_t next = stream.find(prefix, at + 3);
    std::string unit = stream.substr(at + 3, next == std::string::npos ? next : next - at - 3);
    while (next != std::string::npos && !unit.empty() && unit.back() == '\0') unit.pop_back();
    units.push_back(unit);
    at = next;
  }
  return units;
}

int h264_type(const std::string& unit) { return unit[0] & 0x1F; }
int h265_type(const std::string& unit) { return unit[0] >> 1 & 0x3F; }

// The first units of these types, as many as there are types, behind start codes.
std::string parameter_sets(const Clip& stream, int (*type)(const std::string&), int first, int last) {
  std::string sets;
  int left = last - first + 1;
  for (const std::string& unit : nal_units(stream.bytes)) {
    if (type(unit) >= first && type(unit) <= last && left-- > 0) sets += kStartCode + unit;
  }
  return sets;
}

std::string text_of(const uint8_t* bytes, size_t length) {
  return {reinterpret_cast<const char*>(bytes), length};
}

uint32_t round_up(uint32_t value, uint32_t unit) { return (value + unit - 1) / unit * unit; }

TEST_F(ClipsTest, H264ParameterSets) {
  for_each(".264", 15, [](const Clip& clip) {
    const GuardedBytes payload(parameter_sets(clip, h264_type, 7, 7).substr(5));
    VideoInfo info = {};
    H264ProfileInfo profile = {};
    ASSERT_EQ(UtilGetSPSPPSInfo(payload.data(), payload.size(), &info, &profile), 1);
    uint32_t constraints = 0;
    for (int i = 0; i < 6; ++i) {
      constraints |= clip.number("constraint_set" + std::to_string(i) + "_flag") << (7 - i);
    }
    EXPECT_EQ(profile.compatibility, constraints);
    expect_facts(clip, {{"profile_idc", profile.profile}, {"level", profile.level}});
    if (profile.profile == 244) return;  // the fields behind are not reliable for this profile
    expect_facts(clip, {{"max_num_ref_frames", profile.numRefFrames},
                        {"pic_width_in_mbs_minus1", info.width / 16 - 1},
                        {"pic_height_in_map_units_minus1", info.height / 16 - 1}});
    // The size is the coded one, and for streams that may hold fields the height is that of a field.
    const uint32_t fields = 2 - clip.number("frame_mbs_only_flag");
    EXPECT_EQ(info.width, round_up(clip.number("width"), 16));
    EXPECT_EQ(info.height, round_up(clip.number("height"), 16 * fields) / fields);
  });
}

TEST_F(ClipsTest, H264ConfigurationRecords) {
  for_each(".avcc", 6, [](const Clip& clip) {
    const GuardedBytes record(clip.bytes);
    const Clip stream = stream_of(clip, ".264");
    H264ProfileInfo profile = {};
    ASSERT_EQ(QMXUtil_GetH264Info(record.data(), record.size(), nullptr, &profile), 1);
    expect_facts(stream, {{"profile_idc", profile.profile}});
    expect_facts(clip, {{"level", profile.level}, {"nal_length_size", profile.nalLengthSize}});

    // To start codes: the parameter sets of the clip. And back: the record, without what follows the PPS.
    uint32_t length = record.size(), back_length = 0;
    QMXUtil_ConvH264InfoToStartCode(record.data(), &length);
    ASSERT_EQ(text_of(record.data(), length), parameter_sets(stream, h264_type, 7, 8));
    const GuardedBytes back(length + 7);
    UtilConvH264InfoFromStartCode(record.data(), length, back.data(), &back_length, &profile);
    ASSERT_EQ(text_of(back.data(), back_length), clip.bytes.substr(0, back_length));
    EXPECT_LE(clip.bytes.size() - back_length, 4u);
  });
}

TEST_F(ClipsTest, H265ParameterSets) {
  for_each(".265", 10, [](const Clip& clip) {
    const GuardedBytes copy(clip.bytes);
    uint32_t length = copy.size();
    QMXUtil_H26xRemoveEPB(copy.data(), &length);
    H265ParamSetInfo sets = {};
    UtilConvH265InfoFromStartCode(copy.data(), static_cast<int32_t>(length), &sets);
    ASSERT_TRUE(sets.vpsNal != nullptr && sets.spsNal != nullptr && sets.ppsNal != nullptr);
    for (const H265ProfileTierLevel& ptl : {sets.vpsProfileTierLevel, sets.spsProfileTierLevel}) {
      expect_facts(clip,
                   {{"general_profile_space", ptl.general_profile_space},
                    {"general_tier_flag", ptl.general_tier_flag},
                    {"general_profile_idc", ptl.general_profile_idc},
                    {"general_profile_compatibility_flag[1]", ptl.general_profile_compatibility_flag[1]},
                    {"general_profile_compatibility_flag[2]", ptl.general_profile_compatibility_flag[2]},
                    {"general_progressive_source_flag", ptl.general_progressive_source_flag},
                    {"general_interlaced_source_flag", ptl.general_interlaced_source_flag},
                    {"general_non_packed_constraint_flag", ptl.general_non_packed_constraint_flag},
                    {"general_frame_only_constraint_flag", ptl.general_frame_only_constraint_flag},
                    {"level", ptl.general_level_idc}});
    }
    expect_facts(clip, {{"vps_max_layers_minus1", sets.vps_max_layers_minus1},
                        {"vps_max_sub_layers_minus1", sets.vps_max_sub_layers_minus1},
                        {"vps_temporal_id_nesting_flag", sets.vps_temporal_id_nesting_flag},
                        {"sps_max_sub_layers_minus1", sets.sps_max_sub_layers_minus1},
                        {"sps_seq_parameter_set_id", sets.sps_seq_parameter_set_id},
                        {"chroma_format_idc", sets.chroma_format_idc},
                        {"coded_width", sets.pic_width_in_luma_samples},
                        {"coded_height", sets.pic_height_in_luma_samples}});
  });
}

TEST_F(ClipsTest, H265ConfigurationRecords) {
  for_each(".hvcc", 4, [](const Clip& clip) {
    const GuardedBytes record(clip.bytes), arrays(clip.bytes.substr(22));
    const Clip stream = stream_of(clip, ".265");
    VideoInfo info = {};
    ASSERT_EQ(QMXUtil_GetH265Info(record.data(), record.size(), &info, nullptr), 1);
    expect_facts(stream, {{"general_profile_idc", info.profile}});
    expect_facts(clip, {{"level", info.level}});
    const std::string sets = parameter_sets(stream, h265_type, 32, 34);
    uint32_t length = record.size(), arrays_length = arrays.size();
    QMXUtil_ConvHEVCInfoToStartCode(record.data(), &length);
    EXPECT_EQ(text_of(record.data(), length), sets);
    QMXUtil_ConvH265InfoToStartCode(arrays.data(), &arrays_length);
    EXPECT_EQ(text_of(arrays.data(), arrays_length), sets);
  });
}

TEST_F(ClipsTest, WholeTracksConvertToTheUnitsOfTheirStreamAndBack) {
  int tracks = 0;
  for (const auto& entry : std::filesystem::directory_iterator(clip_path(""))) {
    if (entry.path().extension() != ".samples") continue;
    SCOPED_TRACE(entry.path());
    const std::string samples = qmxtest::read_file(entry.path());
    const std::string stem = clip_path(entry.path().stem());
    const bool h264 = std::filesystem::exists(stem + ".264");
    const GuardedBytes track(samples);
    const auto length = static_cast<int32_t>(track.size());
    UtilConvH264FrameToStartCode(track.data(), length);
    EXPECT_TRUE(nal_units(text_of(track.data(), track.size())) ==
                nal_units(qmxtest::read_file(stem + (h264 ? ".264" : ".265"))));
    UtilConvH264FrameFromStartCode(track.data(), length);
    EXPECT_TRUE(text_of(track.data(), track.size()) == samples);
    ++tracks;
  }
  EXPECT_GE(tracks, 10);
}

TEST_F(ClipsTest, Mpeg12SequenceHeaders) {
  const auto check = [](const Clip& clip) {
    const GuardedBytes stream(clip.bytes);
    VideoInfo info = {};
    ASSERT_EQ(UtilGetMPEG12Info(stream.data(), stream.size(), &info), 1);
    expect_facts(clip, {{"width", info.width}, {"height", info.height}});
    uint32_t frames, seconds;
    ASSERT_EQ(std::sscanf(clip.text("r_frame_rate").c_str(), "%u/%u", &frames, &seconds), 2);
    const uint32_t rate = static_cast<uint32_t>(frames * 1000ull / seconds);
    EXPECT_EQ(info.frameRate, rate == 23976 ? 23975 : rate);  // the table's value for 24000/1001
    EXPECT_EQ(info.bitRate,
              clip.text("codec_name") == "mpeg1video"
                  ? clip.number("bit_rate")
                  : (clip.number("bit_rate_extension") << 18 | clip.number("bit_rate_value")) * 400);
  };
  for_each(".m1v", 2, check);
  for_each(".m2v", 4, check);
}

TEST_F(ClipsTest, Mpeg4Layers) {
  const auto check = [](const Clip& clip) {
    const GuardedBytes stream(clip.bytes);
    VideoInfo info = {};
    MPEG4VolInfo vol = {};
    ASSERT_EQ(UtilGetMPEG4Info(stream.data(), stream.size(), &info, &vol), 1);
    expect_facts(
        clip, {{"width", info.width}, {"height", info.height}, {"width", vol.width}, {"height", vol.height}});
    EXPECT_EQ(vol.interlaced, clip.name.find("interlaced") != std::string::npos ? 1u : 0u);
    if (clip.name.ends_with(".m4v")) {  // for the others it is the container's
      EXPECT_TRUE(clip.text("r_frame_rate").starts_with(std::to_string(vol.timeIncrementResolution) + "/"));
    }
  };
  for_each(".m4v", 4, check);
  for_each(".vol", 2, check);
}

TEST_F(ClipsTest, Mp3Streams) {
  for_each(".mp3", 10, [](const Clip& clip) {
    const GuardedBytes stream(clip.bytes);
    AudioInfo info = {};
    uint32_t samples = 0;
    ASSERT_NE(QMXUtil_GetMP3Info(stream.data(), stream.size(), &info, &samples), 0u);
    expect_facts(clip, {{"sample_rate", info.sampleRate}, {"channels", info.channels}});
    EXPECT_EQ(samples, info.sampleRate >= 32000 ? 1152u : 576u);

    // A frame that holds the encoder's notes instead of sound is no packet, and may have its own bit rate.
    const bool notes_first = clip.bytes.find("Info") != std::string::npos;
    const uint8_t* position = stream.data();
    uint32_t remaining = stream.size(), length = 0, frames = 0;
    for (; QMXUtil_GetMP3Frame(&position, &remaining, &length, nullptr) != nullptr; ++frames) {
      ASSERT_LE(length, remaining);
      if (frames == notes_first) {
        const uint32_t bit_rate = QMXUtil_GetMP3Info(position, remaining, &info, nullptr);
        expect_facts(clip, {{"bit_rate", bit_rate}, {"bit_rate", info.bitRate}});
      }
      position += length;
      remaining -= length;
    }
    EXPECT_EQ(remaining, 0u);
    EXPECT_EQ(frames - notes_first, clip.number("nb_read_packets"));
  });
}

TEST_F(ClipsTest, AacConfigurations) {
  for_each(".asc", 6, [](const Clip& clip) {
    const GuardedBytes config(clip.bytes);
    AudioInfo info = {};
    const uint32_t rate = QMXUtil_UtilGetLATMInfo(config.data(), config.size(), &info);
    expect_facts(clip, {{"sample_rate", rate}, {"channels", info.channels}});
  });
}

// The units of a file as the frame reader gives them, in a buffer that ends at an unreadable page.
std::vector<std::string> read_units(const Clip& clip, uint32_t (*read)(FILE*, uint8_t*, uint32_t)) {
  std::vector<std::string> units;
  FILE* const file = QMX_FileOpen(clip_path(clip.name).c_str(), QMX_FILE_READ);
  const GuardedBytes buffer(clip.bytes.size() + 6);
  while (const uint32_t length = read(file, buffer.data(), buffer.size())) {
    units.push_back(text_of(buffer.data(), length));
  }
  QMX_FileClose(file);
  return units;
}

TEST_F(ClipsTest, CutH264FramesArePicturesAndJoinToTheFile) {
  size_t parameter_sets_alone = 0;  // only the first unit of the process may be
  for_each(".264", 15, [&](const Clip& clip) {
    std::string file;
    size_t pictures = 0;
    for (const std::string& frame : read_units(clip, UtilVideo_H264_ReadOneFrame)) {
      ASSERT_TRUE(frame.starts_with(kStartCode) || frame.starts_with(kStartCode.substr(1)));
      const auto units = nal_units(frame);
      const auto first_slices = std::count_if(units.begin(), units.end(), [](const std::string& unit) {
        return (h264_type(unit) == 1 || h264_type(unit) == 5) && (unit[1] & 0x80) != 0;
      });
      ASSERT_LE(first_slices, 1);
      first_slices == 1 ? ++pictures : ++parameter_sets_alone;
      file += frame;
    }
    EXPECT_TRUE(file == clip.bytes);
    EXPECT_EQ(pictures, clip.number("nb_read_packets"));
  });
  EXPECT_LE(parameter_sets_alone, 1u);
}

TEST_F(ClipsTest, CutH265UnitsEndWithASliceAndJoinToTheFile) {
  const auto is_slice = [](const std::string& unit) { return h265_type(unit) == 1 || h265_type(unit) == 19; };
  for_each(".265", 10, [&](const Clip& clip) {
    const auto all = nal_units(clip.bytes);
    const auto slices = std::count_if(all.begin(), all.end(), is_slice);
    std::string file;
    int units_with_slice = 0;
    for (const std::string& frame : read_units(clip, UtilVideo_H265_ReadOneFrame)) {
      file += frame;
      const auto units = nal_units(frame);
      const auto count = std::count_if(units.begin(), units.end(), is_slice);
      ASSERT_LE(count, 1);
      units_with_slice += static_cast<int>(count);
      // Without a slice at its end it is the parameter sets of the first unit, or the last of the file.
      ASSERT_TRUE(is_slice(units.back()) || h265_type(units.back()) == 34 || file == clip.bytes);
    }
    EXPECT_TRUE(file == clip.bytes);
    EXPECT_EQ(units_with_slice, slices);
  });
}

}  // namespace
