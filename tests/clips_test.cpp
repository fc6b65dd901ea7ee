// Clips of real encoders: every field that the library reports is what ffprobe and the stream's own headers
// say (tests/data/clips/ffprobe.txt, made by scripts/make-clips.sh), but for the deviations stated beside
// each.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "bytes.h"
#include "qmxutil_audio.h"
#include "qmxutil_video.h"
#include "recording_base.h"

namespace {

using namespace qmxtest;
using std::string;

string clip_path(const string& name) { return TEST_DATA_DIR "/clips/" + name; }
string extension(const string& name) { return std::filesystem::path(name).extension(); }

// What is known of a clip: values by name, such as "width" or "max_num_ref_frames".
struct Clip {
  string name, bytes;
  std::map<string, string> facts = {};

  uint32_t number(const string& fact) const { return static_cast<uint32_t>(std::stoul(facts.at(fact))); }
  // What the library reports is what is known.
  void expect(std::initializer_list<std::pair<const char*, uint32_t>> reported) const {
    for (const auto& [fact, value] : reported) EXPECT_EQ(value, number(fact)) << fact;
  }
};

const std::map<string, Clip>& clips() {
  static const std::map<string, Clip> all = [] {
    std::map<string, Clip> read;
    std::ifstream table(clip_path("ffprobe.txt"));
    for (string line, name, field; std::getline(table, line);) {
      std::istringstream fields(line);
      std::getline(fields, name, '|');
      Clip& clip = read[name] = {name, read_file(clip_path(name))};
      while (std::getline(fields, field, '|')) {
        clip.facts[field.substr(0, field.find('='))] = field.substr(field.find('=') + 1);
      }
    }
    return read;
  }();
  return all;
}

// The elementary stream that a configuration record or a track belongs to.
const Clip& stream_of(const string& name) {
  const string stem = std::filesystem::path(name).stem();
  return clips().at(stem + (stem.starts_with("h264") ? ".264" : ".265"));
}

class ClipsTest : public BaseTest {
 protected:
  // Calls `check` for each clip of these extensions, of which there must be as many.
  static void for_each(const string& extensions, int least, const std::function<void(const Clip&)>& check) {
    for (const auto& [name, clip] : clips()) {
      if (extensions.find(extension(name)) == string::npos) continue;
      SCOPED_TRACE(name);
      check(clip);
      --least;
    }
    EXPECT_LE(least, 0) << extensions;
  }
};

// The NAL units of a byte stream, found by a plain scan.
std::vector<string> nal_units(const string& stream) {
  const string prefix = kStartCode.substr(1);
  std::vector<string> units;
  for (size_t at = stream.find(prefix); at != string::npos;) {
    const size_t next = stream.find(prefix, at + 3);
    string unit = stream.substr(at + 3, next == string::npos ? next : next - at - 3);
    while (next != string::npos && unit.ends_with('\0')) unit.pop_back();
    units.push_back(unit);
    at = next;
  }
  return units;
}

int type_of(const string& unit, bool h264) { return h264 ? unit[0] & 0x1F : unit[0] >> 1 & 0x3F; }

// The first units of these types, as many as there are types, behind start codes.
string parameter_sets(const Clip& stream, int first, int last) {
  string sets;
  int left = last - first + 1;
  for (const string& unit : nal_units(stream.bytes)) {
    const int type = type_of(unit, stream.name.ends_with(".264"));
    if (type >= first && type <= last && left-- > 0) sets += kStartCode + unit;
  }
  return sets;
}

uint32_t round_up(uint32_t value, uint32_t unit) { return (value + unit - 1) / unit * unit; }

void expect_profile(const Clip& clip, const H264ProfileInfo& profile) {
  uint32_t constraints = 0;
  for (int i = 0; i < 6; ++i) {
    constraints |= clip.number("constraint_set" + std::to_string(i) + "_flag") << (7 - i);
  }
  EXPECT_EQ(profile.compatibility, constraints);
  clip.expect({{"profile_idc", profile.profile}, {"level", profile.level}});
}

TEST_F(ClipsTest, H264ParameterSets) {
  for_each(".264", 15, [](const Clip& clip) {
    const GuardedBytes payload(parameter_sets(clip, 7, 7).substr(5));
    VideoInfo info = {};
    H264ProfileInfo profile = {};
    ASSERT_EQ(UtilGetSPSPPSInfo(payload.data(), payload.size(), &info, &profile), 1);
    expect_profile(clip, profile);
    if (profile.profile == 244) return;  // the fields behind are not reliable for this profile
    clip.expect({{"max_num_ref_frames", profile.numRefFrames},
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
    H264ProfileInfo profile = {};
    ASSERT_EQ(QMXUtil_GetH264Info(record.data(), record.size(), nullptr, &profile), 1);
    expect_profile(stream_of(clip.name), profile);
    clip.expect({{"nal_length_size", profile.nalLengthSize}});

    // To start codes: the parameter sets of the clip. And back: the record, without what follows the PPS.
    uint32_t length = record.size(), back_length = 0;
    QMXUtil_ConvH264InfoToStartCode(record.data(), &length);
    ASSERT_EQ(text_of(record.data(), length), parameter_sets(stream_of(clip.name), 7, 8));
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
      clip.expect({{"general_profile_space", ptl.general_profile_space},
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
    clip.expect({{"vps_max_layers_minus1", sets.vps_max_layers_minus1},
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
    VideoInfo info = {};
    ASSERT_EQ(QMXUtil_GetH265Info(record.data(), record.size(), &info, nullptr), 1);
    stream_of(clip.name).expect({{"general_profile_idc", info.profile}, {"level", info.level}});
    const string sets = parameter_sets(stream_of(clip.name), 32, 34);
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
    const string samples = read_file(entry.path());
    const GuardedBytes track(samples);
    UtilConvH264FrameToStartCode(track.data(), static_cast<int32_t>(track.size()));
    EXPECT_TRUE(nal_units(text_of(track.data(), track.size())) == nal_units(stream_of(entry.path()).bytes));
    UtilConvH264FrameFromStartCode(track.data(), static_cast<int32_t>(track.size()));
    EXPECT_TRUE(text_of(track.data(), track.size()) == samples);
    ++tracks;
  }
  EXPECT_GE(tracks, 10);
}

TEST_F(ClipsTest, Mpeg12SequenceHeaders) {
  for_each(".m1v .m2v", 6, [](const Clip& clip) {
    const GuardedBytes stream(clip.bytes);
    VideoInfo info = {};
    ASSERT_EQ(UtilGetMPEG12Info(stream.data(), stream.size(), &info), 1);
    clip.expect({{"width", info.width}, {"height", info.height}});
    uint32_t frames, seconds;
    ASSERT_EQ(std::sscanf(clip.facts.at("r_frame_rate").c_str(), "%u/%u", &frames, &seconds), 2);
    const uint32_t rate = static_cast<uint32_t>(frames * 1000ull / seconds);
    EXPECT_EQ(info.frameRate, rate == 23976 ? 23975 : rate);  // the table's value for 24000/1001
    EXPECT_EQ(info.bitRate,
              clip.name.ends_with(".m1v")
                  ? clip.number("bit_rate")
                  : (clip.number("bit_rate_extension") << 18 | clip.number("bit_rate_value")) * 400);
  });
}

TEST_F(ClipsTest, Mpeg4Layers) {
  for_each(".m4v .vol", 6, [](const Clip& clip) {
    const GuardedBytes stream(clip.bytes);
    VideoInfo info = {};
    MPEG4VolInfo vol = {};
    ASSERT_EQ(UtilGetMPEG4Info(stream.data(), stream.size(), &info, &vol), 1);
    clip.expect(
        {{"width", info.width}, {"height", info.height}, {"width", vol.width}, {"height", vol.height}});
    EXPECT_EQ(vol.interlaced, clip.name.find("interlaced") != string::npos ? 1u : 0u);
    if (clip.name.ends_with(".m4v")) {  // for the others it is the container's
      EXPECT_TRUE(
          clip.facts.at("r_frame_rate").starts_with(std::to_string(vol.timeIncrementResolution) + "/"));
    }
  });
}

TEST_F(ClipsTest, Mp3Streams) {
  for_each(".mp3", 10, [](const Clip& clip) {
    const GuardedBytes stream(clip.bytes);
    AudioInfo info = {};
    uint32_t samples = 0;
    ASSERT_NE(QMXUtil_GetMP3Info(stream.data(), stream.size(), &info, &samples), 0u);
    clip.expect({{"sample_rate", info.sampleRate}, {"channels", info.channels}});
    EXPECT_EQ(samples, info.sampleRate >= 32000 ? 1152u : 576u);

    // A frame that holds the encoder's notes instead of sound is no packet, and may have its own bit rate.
    const bool notes_first = clip.bytes.find("Info") != string::npos;
    const uint8_t* position = stream.data();
    uint32_t remaining = stream.size(), length = 0, frames = 0;
    for (; QMXUtil_GetMP3Frame(&position, &remaining, &length, nullptr) != nullptr; ++frames) {
      ASSERT_LE(length, remaining);
      if (frames == notes_first) {
        const uint32_t bit_rate = QMXUtil_GetMP3Info(position, remaining, &info, nullptr);
        clip.expect({{"bit_rate", bit_rate}, {"bit_rate", info.bitRate}});
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
    clip.expect({{"sample_rate", rate}, {"channels", info.channels}});
  });
}

TEST_F(ClipsTest, CutFramesHoldOnePictureAndJoinToTheFile) {
  int without_picture = 1;  // the parameter sets in front of the process's first one
  for_each(".264 .265", 25, [&](const Clip& clip) {
    const bool h264 = clip.name.ends_with(".264");
    // What a frame holds one of: the first slice of a picture, in H.265 any slice.
    const auto count = [&](const string& bytes) {
      const auto units = nal_units(bytes);
      return std::count_if(units.begin(), units.end(), [&](const string& unit) {
        const int type = type_of(unit, h264);
        return (type == 1 || type == (h264 ? 5 : 19)) && (!h264 || (unit[1] & 0x80) != 0);
      });
    };
    FILE* const file = QMX_FileOpen(clip_path(clip.name).c_str(), QMX_FILE_READ);
    const GuardedBytes buffer(clip.bytes.size() + 6);
    string joined;
    const auto read = h264 ? UtilVideo_H264_ReadOneFrame : UtilVideo_H265_ReadOneFrame;
    while (const uint32_t length = read(file, buffer.data(), buffer.size())) {
      const string frame = text_of(buffer.data(), length);
      EXPECT_TRUE(frame.starts_with(kStartCode) || frame.starts_with(kStartCode.substr(1)));
      joined += frame;
      EXPECT_TRUE(count(frame) == 1 ||
                  (count(frame) == 0 && (without_picture-- > 0 || joined == clip.bytes)));
    }
    QMX_FileClose(file);
    EXPECT_TRUE(joined == clip.bytes);
    EXPECT_EQ(count(joined), h264 ? clip.number("nb_read_packets") : count(clip.bytes));
  });
}

}  // namespace
