// Video headers, conversions and frame readers: headers composed at random field by field, and plain models
// that take one byte at a time, in buffers that end at an unreadable page.
#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <tuple>

#include "internal/first_frame.h"
#include "qmxutil_video.h"
#include "recording_base.h"

namespace {

using qmxtest::GuardedBytes;
using qmxtest::recording;

class VideoTest : public qmxtest::BaseTest {
 protected:
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }
  uint32_t value(uint32_t bits) { return bits == 0 ? 0 : static_cast<uint32_t>(random_()) >> (32 - bits); }
  bool chance(uint32_t one_in) { return below(one_in) == 0; }

  // Bytes among which zeros, ones and threes are frequent.
  std::string tricky_bytes(size_t size) {
    static const char few[] = {0, 0, 0, 0, 1, 1, 3, 'x'};
    std::string bytes(size, 0);
    for (char& byte : bytes) byte = chance(8) ? static_cast<char>(random_()) : few[below(sizeof few)];
    return bytes;
  }
  // Bytes without a start code in or at their ends.
  std::string plain_bytes(size_t size) {
    std::string bytes(size, 0);
    for (char& byte : bytes) byte = static_cast<char>(2 + below(254));
    return bytes;
  }

  std::mt19937 random_{1};
};

const std::string kStartCode("\0\0\0\1", 4);

std::string be(size_t value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) text += static_cast<char>(value >> (8 * i));
  return text;
}

std::string hex(const char* text) {
  std::string bytes;
  for (const char* p = text; *p != 0; ++p) {
    if (*p != ' ') bytes += static_cast<char>(std::stoi(std::string(p++, 2), nullptr, 16));
  }
  return bytes;
}

std::string text_of(const uint8_t* data, size_t size) { return {reinterpret_cast<const char*>(data), size}; }

// Composes headers.
class Bits {
 public:
  uint32_t u(uint32_t n, uint32_t value) {
    for (uint32_t i = n; i > 0; --i) {
      if (used_++ % 8 == 0) bytes_ += '\0';
      if (value >> (i - 1) & 1) bytes_.back() = static_cast<char>(bytes_.back() | 0x80 >> (used_ - 1) % 8);
    }
    return value;
  }
  uint32_t ue(uint32_t value) {
    uint32_t size = 0;
    while ((uint64_t{value} + 1) >> (size + 1) != 0) ++size;
    u(size, 0);
    u(1, 1);
    u(size, static_cast<uint32_t>((uint64_t{value} + 1) & ((uint64_t{1} << size) - 1)));
    return value;
  }
  void se(int32_t v) { ue(v > 0 ? 2 * static_cast<uint32_t>(v) - 1 : 2 * static_cast<uint32_t>(-v)); }
  const std::string& bytes() const { return bytes_; }
  uint32_t used() const { return used_; }

 private:
  std::string bytes_;
  uint32_t used_ = 0;
};

// A record whose bytes all hold a mark, so that what was not to be written can be told.
template <class Record>
Record marked() {
  Record record;
  std::memset(static_cast<void*>(&record), 0xA5, sizeof record);
  return record;
}
template <class Record>
bool equal(const Record& a, const Record& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// What stands in front of the first four-byte start code, then the unit behind each.
std::vector<std::string> split(const std::string& data) {
  std::vector<std::string> parts(1);
  for (size_t i = 0; i < data.size(); ++i) {
    if (data.compare(i, 4, kStartCode) == 0) {
      parts.emplace_back();
      i += 3;
    } else {
      parts.back() += data[i];
    }
  }
  return parts;
}

// ---- Exp-Golomb codes

TEST_F(VideoTest, BothDecodersReadTheSameCodes) {
  for (int i = 0; i < 20000; ++i) {
    Bits bits;
    const uint32_t offset = below(32), code = i == 0 ? UINT32_MAX - 1 : value(below(33)) & (UINT32_MAX - 1);
    bits.u(offset, 0);
    bits.ue(code);
    const uint32_t used = bits.used();
    bits.u(9, 0x155);
    const GuardedBytes bytes(bits.bytes());
    for (const auto decode : {UtilGetUE, vlc_Golomb}) {
      QMXBit* const handle = QMXBitOpen(bytes.data(), bytes.size());
      QMXBitGetBit(handle, offset);
      EXPECT_EQ(decode(handle), code);
      EXPECT_EQ(QMXBitGetProcessed(handle), used);
      QMXBitClose(handle);
    }
  }
}

TEST_F(VideoTest, LongAndTruncatedCodesEnd) {
  const struct {
    std::string bytes;
    uint32_t result, processed;
  } cases[] = {
      {std::string(4, 0) + hex("80 FF"), 0, 33},         // 32 zeros and a 1
      {std::string(100, 0) + hex("01"), 0, 808},         // the zeros and the 1 are consumed
      {hex("00 00 00 01 FF FF FF FF"), 0xFFFFFFFE, 63},  // 31 zeros
      {hex("01"), 254, 15},                              // 1s past the end
      {"", 0, 1},
      {std::string(70000, 0) + "\xFF", 0, 65535 * 8},  // no parameter set is that long
  };
  for (const auto& c : cases) {
    const GuardedBytes bytes(c.bytes);
    QMXBit* const handle = QMXBitOpen(bytes.data(), bytes.size());
    EXPECT_EQ(UtilGetUE(handle), c.result);
    EXPECT_EQ(QMXBitGetProcessed(handle), c.processed);
    QMXBitClose(handle);
  }
}

// ---- H.264 parameter sets

uint32_t fourcc(const char* text) {
  uint32_t code;
  std::memcpy(&code, text, sizeof code);
  return code;
}

TEST_F(VideoTest, FourCCsBecomeUpperCase) {
  EXPECT_EQ(UtilToUpperVideoFourCC(fourcc("hvc1")), fourcc("HVC1"));
  EXPECT_EQ(UtilToUpperVideoFourCC(fourcc("a`{Z")), fourcc("A`{Z"));
  EXPECT_EQ(UtilToUpperVideoFourCC(fourcc("\xE1zAz")), fourcc("\xE1ZAZ"));
}

// One of the scaling lists of 7.3.2.1.1.1: its scales by chance, cut short by a next scale of 0 at times.
void put_scaling_list(Bits& bits, uint32_t size, const std::function<uint32_t(uint32_t)>& below) {
  int last = 8;
  for (uint32_t j = 0; j < size; ++j) {
    const int next = below(20) == 0 ? 0 : 1 + static_cast<int>(below(255));
    const int delta = next - last;
    bits.se(delta > 127 ? delta - 256 : delta < -128 ? delta + 256 : delta);
    if (next == 0) return;
    last = next;
  }
}

TEST_F(VideoTest, H264SpsOfAllKinds) {
  for (int i = 0; i < 5000; ++i) {
    VideoInfo size = marked<VideoInfo>(), want_size = size;
    H264ProfileInfo profile = marked<H264ProfileInfo>(), want = profile;
    Bits bits;
    static const uint32_t profiles[] = {66, 77, 88, 100, 110, 122, 144, 244, 44};
    want.profile = bits.u(8, profiles[below(9)]);
    want.compatibility = bits.u(8, value(8));
    want.level = bits.u(8, value(8));
    bits.ue(below(32));
    if (want.profile == 100 || want.profile == 110 || want.profile == 122 || want.profile == 144) {
      if (bits.ue(below(4)) == 3) bits.u(1, below(2));
      bits.ue(below(7));
      bits.ue(below(7));
      bits.u(1, below(2));
      if (bits.u(1, below(2))) {
        for (uint32_t list = 0; list < 8; ++list) {
          if (bits.u(1, below(2)))
            put_scaling_list(bits, list < 6 ? 16 : 64, [&](uint32_t n) { return below(n); });
        }
      }
    }
    bits.ue(below(13));
    const uint32_t poc_type = bits.ue(below(4));
    if (poc_type == 0) bits.ue(below(13));
    if (poc_type == 1) {
      bits.u(1, below(2));
      bits.ue(value(31));
      bits.ue(value(31));
      for (uint32_t n = bits.ue(below(256)); n > 0; --n) bits.ue(value(below(32)));
    }
    want.numRefFrames = bits.ue(below(17));
    bits.u(1, below(2));
    want_size.width = (bits.ue(value(below(17))) + 1) * 16;
    want_size.height = (bits.ue(value(below(17))) + 1) * 16;
    const GuardedBytes sps(bits.bytes());
    EXPECT_EQ(UtilGetSPSPPSInfo(sps.data(), sps.size(), &size, &profile), 1);
    EXPECT_TRUE(equal(size, want_size) && equal(profile, want))
        << "profile_idc " << want.profile << " case " << i;
    size = marked<VideoInfo>();
    EXPECT_EQ(UtilGetSPSPPSInfo(sps.data(), sps.size(), &size, nullptr), 1);
    EXPECT_TRUE(equal(size, want_size));
    EXPECT_EQ(UtilGetSPSPPSInfo(sps.data(), sps.size(), nullptr, nullptr), 1);
    const GuardedBytes cut(bits.bytes().substr(0, below(sps.size())));
    EXPECT_EQ(UtilGetSPSPPSInfo(cut.data(), cut.size(), &size, &profile), 1);
  }
}

TEST_F(VideoTest, ACycleOfFourBillionOffsetsEndsWithTheData) {
  Bits bits;
  bits.u(24, 66 << 16);
  for (const uint32_t code : {0u, 0u, 1u}) bits.ue(code);
  bits.u(1, 0);
  for (const uint32_t code : {0u, 0u, UINT32_MAX - 1}) bits.ue(code);
  const GuardedBytes sps(bits.bytes());
  VideoInfo size = {};
  EXPECT_EQ(UtilGetSPSPPSInfo(sps.data(), sps.size(), &size, nullptr), 1);
  EXPECT_EQ(size.width, 16u);  // 1s past the end
}

TEST_F(VideoTest, AvccRecordsByTheirFirstParameterSet) {
  for (int i = 0; i < 500; ++i) {
    std::string record = plain_bytes(12);
    const bool sps = chance(2);
    record[8] = static_cast<char>((sps ? 7 : 8) | value(3) << 5);
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(record[at]); };
    H264ProfileInfo profile = marked<H264ProfileInfo>(), want = profile;
    want.profile = byte(sps ? 9 : 1);
    want.level = byte(sps ? 11 : 3);
    want.nalLengthSize = (byte(4) & 3) + 1u;
    if (sps) want.compatibility = byte(10);
    const GuardedBytes config(record);
    EXPECT_EQ(QMXUtil_GetH264Info(config.data(), config.size(), nullptr, &profile), sps);
    EXPECT_TRUE(equal(profile, want));
    EXPECT_EQ(QMXUtil_GetH264Info(config.data(), config.size(), nullptr, nullptr), sps);
  }
  EXPECT_EQ(QMXUtil_GetH264Info(nullptr, 0, nullptr, nullptr), 0);
  EXPECT_EQ(UtilSetH264Info(nullptr, 0, nullptr, nullptr), -1);
}

// ---- H.265 parameter sets

// The removal step by step, each pass of the loop one output byte.
std::string without_emulation_prevention(std::string data) {
  std::string out;
  for (size_t r = 0; r < data.size();) {
    if (r + 2 < data.size() && data[r] == 0 && data[r + 1] == 0 && data[r + 2] == 3) {
      data[r + 2] = 0;
      out += data[r + 1];
      r += 2;
    } else {
      out += data[r++];
    }
  }
  return out;
}

TEST_F(VideoTest, EmulationPreventionIsRemovedAsTheStepsSay) {
  for (int i = 0; i < 30000; ++i) {
    std::string data = tricky_bytes(below(i % 100 == 0 ? 3000 : 90));
    if (chance(3)) data.insert(below(static_cast<uint32_t>(data.size() + 1)), plain_bytes(below(200)));
    const std::string want = without_emulation_prevention(data);
    const GuardedBytes bytes(data);
    uint32_t length = bytes.size();
    QMXUtil_H26xRemoveEPB(bytes.data(), &length);
    ASSERT_EQ(text_of(bytes.data(), length), want);
  }
}

using Values = std::function<uint32_t(uint32_t)>;

void put_profile(Bits& bits, H265ProfileTierLevel& want, uint32_t n, const Values& value) {
  const auto put = [&](uint32_t size, uint8_t& field) {
    field = static_cast<uint8_t>(bits.u(size, value(size)));
  };
  const auto put_half = [&](uint8_t& space, uint8_t& tier, uint8_t& idc, uint8_t(&compatibility)[32],
                            uint8_t& progressive, uint8_t& interlaced, uint8_t& non_packed,
                            uint8_t& frame_only) {
    put(2, space), put(1, tier), put(5, idc);
    for (uint8_t& flag : compatibility) put(1, flag);
    put(1, progressive), put(1, interlaced), put(1, non_packed), put(1, frame_only);
    bits.u(32, value(32)), bits.u(12, value(12));
  };
  put_half(want.general_profile_space, want.general_tier_flag, want.general_profile_idc,
           want.general_profile_compatibility_flag, want.general_progressive_source_flag,
           want.general_interlaced_source_flag, want.general_non_packed_constraint_flag,
           want.general_frame_only_constraint_flag);
  put(8, want.general_level_idc);
  for (uint32_t i = 0; i < n; ++i) {
    put(1, want.sub_layer_profile_present_flag[i]), put(1, want.sub_layer_level_present_flag[i]);
  }
  for (uint32_t i = n; n > 0 && i < 8; ++i) bits.u(2, value(2));
  for (uint32_t i = 0; i < n; ++i) {
    if (want.sub_layer_profile_present_flag[i]) {
      put_half(want.sub_layer_profile_space[i], want.sub_layer_tier_flag[i], want.sub_layer_profile_idc[i],
               want.sub_layer_profile_compatibility_flag[i], want.sub_layer_progressive_source_flag[i],
               want.sub_layer_interlaced_source_flag[i], want.sub_layer_non_packed_constraint_flag[i],
               want.sub_layer_frame_only_constraint_flag[i]);
    }
    if (want.sub_layer_level_present_flag[i]) put(8, want.sub_layer_level_idc[i]);
  }
}

// Where the units lie: byte by byte, then each to the next of the others behind it.
void locate(const GuardedBytes& stream, H265ParamSetInfo& want) {
  const uint8_t *const data = stream.data(), *nals[3] = {};
  for (uint32_t i = 0; i + 5 <= stream.size() && !(nals[0] && nals[1] && nals[2]); ++i) {
    for (int k = 0; k < 3; ++k) {
      if (std::memcmp(data + i, "\0\0\0\1", 4) == 0 && data[i + 4] == 0x40 + 2 * k) nals[k] = data + i + 4;
    }
  }
  const auto length = [&](const uint8_t* nal) {
    const uint8_t* end = data + stream.size();
    for (const uint8_t* other : nals) end = nal < other ? std::min(end, other - 4) : end;
    return nal == nullptr ? 0 : static_cast<uint32_t>(end - nal);
  };
  want.vpsNal = nals[0], want.spsNal = nals[1], want.ppsNal = nals[2];
  want.vpsNalLength = length(nals[0]), want.spsNalLength = length(nals[1]),
  want.ppsNalLength = length(nals[2]);
}

TEST_F(VideoTest, H265ParameterSetsAreLocatedAndRead) {
  for (int i = 0; i < 4000; ++i) {
    H265ParamSetInfo info = marked<H265ParamSetInfo>(), want = info;
    const Values value_of = [&](uint32_t bits) { return value(bits); };
    Bits vps, sps;
    const auto put = [&](Bits& bits, uint32_t n, uint8_t& field) {
      field = static_cast<uint8_t>(bits.u(n, value(n)));
    };
    vps.u(16, 0x4001);
    put(vps, 4, want.vps_video_parameter_set_id);
    put(vps, 1, want.vps_base_layer_internal_flag);
    put(vps, 1, want.vps_base_layer_available_flag);
    put(vps, 6, want.vps_max_layers_minus1);
    put(vps, 3, want.vps_max_sub_layers_minus1);
    put(vps, 1, want.vps_temporal_id_nesting_flag);
    vps.u(16, 0xFFFF);
    put_profile(vps, want.vpsProfileTierLevel, std::min<uint32_t>(want.vps_max_sub_layers_minus1, 6),
                value_of);
    sps.u(16, 0x4201);
    put(sps, 4, want.sps_video_parameter_set_id);
    put(sps, 3, want.sps_max_sub_layers_minus1);
    sps.u(1, value(1));
    put_profile(sps, want.spsProfileTierLevel, std::min<uint32_t>(want.sps_max_sub_layers_minus1, 6),
                value_of);
    want.sps_seq_parameter_set_id = static_cast<uint8_t>(sps.ue(below(16)));
    want.chroma_format_idc = static_cast<uint8_t>(sps.ue(below(4)));
    want.pic_width_in_luma_samples = static_cast<uint16_t>(sps.ue(value(16)));
    want.pic_height_in_luma_samples = static_cast<uint16_t>(sps.ue(value(16)));
    std::string units[] = {vps.bytes(), sps.bytes(), "\x44" + plain_bytes(below(9)),
                           "\x4E" + plain_bytes(below(20))};
    std::shuffle(std::begin(units), std::end(units), random_);
    const bool hostile = chance(2);  // units cut, doubled, left out, behind start codes of all lengths
    std::string stream;
    for (int k = 0; k < 4 || (hostile && !chance(4)); ++k) {
      const std::string& unit = units[hostile ? below(4) : static_cast<uint32_t>(k)];
      stream += kStartCode.substr(hostile ? below(3) : 0) +
                (hostile ? unit.substr(0, below(30)) + tricky_bytes(below(9)) : unit);
    }
    const GuardedBytes data(stream);
    locate(data, want);
    EXPECT_EQ(UtilConvH265InfoFromStartCode(data.data(), static_cast<int32_t>(data.size()), &info), 0);
    const auto places = [](const H265ParamSetInfo& at) {
      return std::make_tuple(at.vpsNal, at.vpsNalLength, at.spsNal, at.spsNalLength, at.ppsNal,
                             at.ppsNalLength);
    };
    EXPECT_EQ(places(info), places(want));
    EXPECT_TRUE(hostile || equal(info, want)) << "case " << i;
  }
}

TEST_F(VideoTest, H265TracesWhatWasParsed) {
  Bits sps;
  sps.u(32, 0x42010101);
  sps.u(32, 0x60000000), sps.u(32, 0x90000000), sps.u(24, 0x00005D);
  for (const uint32_t code : {0u, 1u, 1920u, 1080u}) sps.ue(code);
  const std::string stream = kStartCode + sps.bytes();
  H265ParamSetInfo info = marked<H265ParamSetInfo>();
  UtilConvH265InfoFromStartCode(reinterpret_cast<const uint8_t*>(stream.data()),
                                static_cast<int32_t>(stream.size()), &info);
  EXPECT_EQ(info.vpsNal, nullptr);
  std::vector<std::string> want = {"\n--- SPS PARSED -----------------------------------\n",
                                   "profile_space 0, tier_flag 0, profile_idc 1, level_idc 93\n"};
  for (uint32_t i = 0; i < 32; ++i) want.push_back(i == 1 || i == 2 ? "1 " : "0 ");
  for (const char* line : {"\n", "sps_id 0, chroma_format 1, width 1920, height 1080\n",
                           "-------------------------------------------------\n"}) {
    want.push_back(line);
  }
  EXPECT_EQ(recording().trace_texts(), want);
  for (const auto& trace : recording().traces()) {
    EXPECT_EQ(trace.level, 3);
    EXPECT_EQ(trace.module, "utilvideo");
    EXPECT_EQ(trace.function, "UtilConvH265InfoFromStartCode");
  }
}

TEST_F(VideoTest, NoCodecDataIsTraced) {
  const uint8_t byte = 0;
  H265ParamSetInfo info = marked<H265ParamSetInfo>();
  UtilConvH265InfoFromStartCode(nullptr, 9, &info);
  UtilConvH265InfoFromStartCode(&byte, 0, &info);
  UtilConvH265InfoFromStartCode(&byte, -1, &info);
  EXPECT_TRUE(equal(info, marked<H265ParamSetInfo>()));
  uint32_t length = 7;
  UtilConvH264InfoFromStartCode(nullptr, 9, nullptr, &length, nullptr);
  UtilConvH264InfoFromStartCode(&byte, 0, nullptr, &length, nullptr);
  EXPECT_EQ(length, 7u);
  EXPECT_EQ(recording().trace_texts(), std::vector<std::string>(5, "No codec data!\n"));
}

TEST_F(VideoTest, HvccHead) {
  VideoInfo info = marked<VideoInfo>(), want = info;
  want.profile = 1, want.level = 93;
  const GuardedBytes config(hex("01 A1 60 00 00 00 90 00 00 00 00 00 5D"));
  EXPECT_EQ(QMXUtil_GetH265Info(config.data(), config.size(), &info, nullptr), 1);
  EXPECT_TRUE(equal(info, want));
  H265ParamSetInfo head = marked<H265ParamSetInfo>(), want_head = head;
  want_head.vpsProfileTierLevel.general_profile_space = 0xA1;
  want_head.vpsProfileTierLevel.general_profile_idc = 1;
  want_head.vpsProfileTierLevel.general_level_idc = 93;
  EXPECT_EQ(UtilConvH265Info(config.data(), config.size(), &head), 0);
  EXPECT_TRUE(equal(head, want_head));
  config.data()[0] = 2;
  EXPECT_EQ(UtilConvH265Info(config.data(), config.size(), &head), 0);
  EXPECT_TRUE(equal(head, want_head));
  want.profile = want.level = 0;
  EXPECT_EQ(QMXUtil_GetH265Info(config.data(), config.size(), &info, nullptr), 1);
  EXPECT_TRUE(equal(info, want));
}

// ---- Configuration records and samples

using Convert = void (*)(uint8_t*, uint32_t*);

// Converts in a buffer of `room` bytes that ends at an unreadable page.
std::string converted(Convert convert, const std::string& input, size_t room) {
  const GuardedBytes buffer(std::max(room, input.size()));
  std::memcpy(buffer.data(), input.data(), input.size());
  uint32_t length = static_cast<uint32_t>(input.size());
  convert(buffer.data(), &length);
  return text_of(buffer.data(), length);
}

// The most that a valid record of this size becomes: smallest units, of 3 bytes, that gain 2. No less than
// the record.
size_t room_of(Convert convert, size_t size) {
  const size_t counts = convert == QMXUtil_ConvH264InfoToStartCode ? 7 : 4;
  if (convert == QMXUtil_ConvHEVCInfoToStartCode || size < counts) return size;
  return std::max(size, size - counts + 2 * ((size - counts) / 3));
}

TEST_F(VideoTest, RecordsBecomeStartCodesHoweverTheyAreCut) {
  for (int i = 0; i < 300; ++i) {
    std::string record;
    std::vector<std::pair<size_t, std::string>> units;  // where each ends in the record, and its bytes
    const auto add_units = [&](uint32_t count) {
      for (; count > 0; --count) {
        const std::string unit = plain_bytes(below(i % 4 == 0 ? 3 : 12));
        record += be(unit.size(), 2) + unit;
        units.emplace_back(record.size(), unit);
      }
    };
    const auto check = [&](Convert convert, size_t group_at) {  // 4 bytes of a group are not looked at
      for (size_t cut = 0; cut <= record.size(); ++cut) {
        const size_t room = room_of(convert, cut);
        std::string want;
        for (const auto& [end, unit] : units) {
          if (end > cut || (end > group_at && cut - group_at <= 4) || want.size() + 4 + unit.size() > room)
            break;
          want += kStartCode + unit;
        }
        EXPECT_EQ(converted(convert, record.substr(0, cut), want.size()), want);
      }
      units.clear();
    };
    const uint32_t sps = below(i % 4 == 0 ? 30 : 3), pps = below(3), arrays = below(4);
    record = hex("01 64 00 28 FF") + static_cast<char>(0xE0 | sps);
    add_units(sps);
    const size_t pps_at = record.size();
    record += static_cast<char>(pps);
    add_units(pps);
    if (chance(2)) record += hex("FD F8 F8 00");
    check(QMXUtil_ConvH264InfoToStartCode, pps_at);

    record = std::string(1, static_cast<char>(arrays));
    for (uint32_t k = 0; k < arrays; ++k) {
      const uint32_t count = below(i % 4 == 0 ? 30 : 3);
      record += '\x20' + be(count, 2);
      add_units(count);
    }
    check(QMXUtil_ConvH265InfoToStartCode, SIZE_MAX);

    record = std::string(22, 1) + '\3';
    for (int k = 0; k < 3; ++k) {
      record += "\x20" + be(1, 2);
      add_units(1);
    }
    check(QMXUtil_ConvHEVCInfoToStartCode, SIZE_MAX);
  }
}

TEST_F(VideoTest, HostileRecordsStayInTheirBounds) {
  for (int i = 0; i < 3000; ++i) {
    const std::string record = tricky_bytes(below(60));
    for (const Convert convert : {QMXUtil_ConvH264InfoToStartCode, QMXUtil_ConvH265InfoToStartCode,
                                  QMXUtil_ConvHEVCInfoToStartCode}) {
      converted(convert, record, room_of(convert, record.size()));
    }
  }
}

TEST_F(VideoTest, RecordsAreLeftAloneWithoutMemoryAndWhenConvertedAlready) {
  const std::string record = hex("01 64 00 28 FF E1 00 04 67 64 00 28 01 00 02 68 EE");
  const std::string annexb = hex("00 00 00 01 67 64 00 28 00 00 00 01 68 EE");
  EXPECT_EQ(converted(QMXUtil_ConvH264InfoToStartCode, annexb, 0), annexb);
  for (const Convert convert :
       {QMXUtil_ConvH264InfoToStartCode, QMXUtil_ConvHEVCInfoToStartCode, QMXUtil_ConvH265InfoToStartCode}) {
    recording().fail(qmxtest::Op::kMalloc);
    EXPECT_EQ(converted(convert, record, 0), record);
  }
  recording().fail(qmxtest::Op::kByteOpen);
  EXPECT_EQ(converted(QMXUtil_ConvH265InfoToStartCode, record, 0), record);
  recording().clear_calls();
  EXPECT_EQ(converted(QMXUtil_ConvH264InfoToStartCode, record, 0), annexb);
  EXPECT_EQ(recording().calls(), (std::vector<std::string>{"Malloc 33 -1", "Free"}));
}

TEST_F(VideoTest, StartCodesBecomeRecordsAndLengths) {
  const H264ProfileInfo profile = {100, 0, 40, 4, 1};
  for (int i = 0; i < 5000; ++i) {
    std::string data = chance(20) ? tricky_bytes(below(40)) : "";
    while (!chance(4)) {
      data += kStartCode + (chance(2) ? "\x67" : "\x68") +
              (chance(2) ? tricky_bytes(below(20)) : plain_bytes(below(90)));
    }
    const std::vector<std::string> parts = split(data);
    std::string with_2 = parts[0], with_4 = parts[0], record = hex("01 64 00 28 FF") + parts[0];
    size_t counts[2] = {}, units[2] = {};  // of SPS, of others
    for (size_t k = 1; k < parts.size(); ++k) {
      with_2 += be(parts[k].size(), 2) + parts[k];
      with_4 += be(parts[k].size(), 4) + parts[k];
      const int group = parts[k][0] == 0x67 ? 0 : 1;
      if (units[group]++ == 0) {
        counts[group] = record.size();
        record += '\0';
      }
      record += be(parts[k].size(), 2) + parts[k];
    }
    if (units[0] > 0) record[counts[0]] = static_cast<char>(0xE0 | units[0]);
    if (units[1] > 0) record[counts[1]] = static_cast<char>(units[1]);
    const GuardedBytes input(data), frame(data), out(data.size()), record_out(data.size() + 7);
    uint32_t length = 1;
    QMXUtil_ConvH26xExtraDataFromStartCode(input.data(), static_cast<int32_t>(input.size()), out.data(),
                                           &length);
    EXPECT_EQ(text_of(out.data(), length), with_2);
    UtilConvH264FrameFromStartCode(frame.data(), static_cast<int32_t>(frame.size()));
    EXPECT_EQ(text_of(frame.data(), frame.size()), with_4);
    if (data.empty()) continue;
    UtilConvH264InfoFromStartCode(input.data(), input.size(), record_out.data(), &length, &profile);
    EXPECT_EQ(text_of(record_out.data(), length), record);
  }
}

TEST_F(VideoTest, SamplesConvertBothWays) {
  for (int i = 0; i < 5000; ++i) {
    std::string lengths, codes;
    for (uint32_t units = 1 + below(6); units > 0; --units) {
      const std::string unit = plain_bytes(2 + below(chance(10) ? 70000 : 50));
      lengths += be(unit.size(), 4) + unit;
      codes += kStartCode + unit;
    }
    const size_t cut = chance(2) ? lengths.size() : below(static_cast<uint32_t>(lengths.size()) + 1);
    const GuardedBytes sample(lengths.substr(0, cut));
    const int32_t length = static_cast<int32_t>(cut);
    UtilConvH264FrameToStartCode(sample.data(), length);
    // A length of which less than four bytes are left stays; a unit cut short still gets its start code.
    std::string want = codes.substr(0, cut);
    const size_t last = want.find_last_not_of(std::string("\0\1", 2)) + 1;
    if (cut - last < 4) want = want.substr(0, last) + lengths.substr(last, cut - last);
    ASSERT_EQ(text_of(sample.data(), cut), want);
    if (cut < lengths.size()) continue;
    UtilConvH264FrameToStartCode(sample.data(), length);
    EXPECT_EQ(text_of(sample.data(), cut), codes) << "converted already";
    UtilConvH264FrameFromStartCode(sample.data(), length);
    EXPECT_EQ(text_of(sample.data(), cut), lengths);
  }
  const GuardedBytes huge(hex("FF FF FF FF 01 02 03 04 05"));
  UtilConvH264FrameToStartCode(huge.data(), 9);
  EXPECT_EQ(text_of(huge.data(), 9), hex("00 00 00 01 01 02 03 04 05"));
  UtilConvH264FrameToStartCode(huge.data() + 6, -1);
  EXPECT_EQ(text_of(huge.data() + 6, 3), hex("03 04 05"));
}

// ---- MPEG-1/2 and MPEG-4

TEST_F(VideoTest, MpegSequenceHeaders) {
  static const uint32_t rates[16] = {0, 23975, 24000, 25000, 29970, 30000, 50000, 59940, 60000};
  for (int i = 0; i < 3000; ++i) {
    Bits header, extension;
    VideoInfo info = marked<VideoInfo>(), want = info;
    header.u(32, 0x1B3);
    want.width = header.u(12, value(12));
    want.height = header.u(12, value(12));
    header.u(4, value(4));
    const uint32_t rate_code = header.u(4, value(4));
    uint32_t bit_rate = header.u(18, value(18));
    header.u(30, value(30) | 1);
    extension.u(32, 0x1B5);
    const uint32_t id = extension.u(4, chance(2) ? 1 : value(4));
    extension.u(15, value(15) | 1);
    const uint32_t bit_rate_extension = extension.u(12, value(12));
    extension.u(10, value(10));
    uint32_t n = extension.u(2, value(2)), d = extension.u(5, value(5));
    if (id == 1) {
      bit_rate += bit_rate_extension << 18;
    } else {
      n = d = 0;
    }
    want.bitRate = bit_rate * 400;
    want.frameRate = rates[rate_code] * (n + 1) / (d + 1);
    const GuardedBytes data(plain_bytes(below(20)) + header.bytes() + hex("00 00 01 B2 41") +
                            extension.bytes());
    EXPECT_EQ(UtilGetMPEG12Info(data.data(), data.size(), &info), 1);
    EXPECT_TRUE(equal(info, want)) << "case " << i;
    const GuardedBytes cut(text_of(data.data(), below(data.size())));
    UtilGetMPEG12Info(cut.data(), cut.size(), &info);
  }
  VideoInfo info = {}, want = {};
  want.width = 352, want.height = 240, want.frameRate = 29970, want.bitRate = 460000;
  const GuardedBytes mpeg1(hex("00 00 01 B3 16 00 F0 C4 01 1F A0"));
  EXPECT_EQ(UtilGetMPEG12Info(mpeg1.data(), mpeg1.size(), &info), 1);
  EXPECT_TRUE(equal(info, want));
  EXPECT_EQ(UtilGetMPEG12Info(mpeg1.data() + 1, mpeg1.size() - 1, &info), 0);
  EXPECT_TRUE(equal(info, want));
}

struct Vol {
  std::string bytes;
  std::string error;  // the word that its trace ends with
  VideoInfo info = marked<VideoInfo>();
  MPEG4VolInfo vol = marked<MPEG4VolInfo>();
};

Vol compose_vol(const Values& value) {
  Vol out;
  Bits bits;
  const auto field = [&](uint32_t n) { return bits.u(n, value(n)); };
  const auto rarely = [&](uint32_t n) { return bits.u(n, value(4) == 0 ? value(n) : 0); };
  const auto finish = [&](const char* error) {
    out.error = error;
    out.bytes = hex("00 00 01") + static_cast<char>(0x20 + value(4)) + bits.bytes();
    return out;
  };
  MPEG4VolInfo& vol = out.vol;
  field(1);
  vol.objectType = field(8);
  uint32_t verid = 1;
  if (field(1)) verid = field(4), field(3);
  if (bits.u(4, value(1) ? 15 : value(4)) == 15) field(16);
  if (field(1)) {
    field(3);
    if (field(1)) {
      for (const uint32_t n : {16, 16, 16, 15, 16}) field(n);
    }
  }
  if (rarely(2) != 0) return finish("video_object_layer_shape");
  bits.u(1, 1);
  vol.timeIncrementResolution = bits.u(16, value(1) ? value(16) : value(3));
  uint32_t digits = 0;
  while (vol.timeIncrementResolution > 1 && (vol.timeIncrementResolution - 1) >> digits != 0) ++digits;
  if (vol.timeIncrementResolution > 0 && digits == 0) digits = 1;
  vol.timeIncrementBits = digits;
  bits.u(1, 1);
  if (field(1)) vol.fixedTimeIncrement = field(digits);
  bits.u(1, 1), out.info.width = vol.width = field(13);
  bits.u(1, 1), out.info.height = vol.height = field(13);
  bits.u(1, 1), vol.interlaced = field(1), field(1);
  if (rarely(verid == 1 ? 1 : 2) != 0) return finish("sprite_enable");
  field(1);
  if (rarely(1) != 0) return finish("quant_type");
  vol.quantType = 0;
  if (verid != 1) field(1);
  vol.complexityFlags = 0;
  if (!field(1)) {
    vol.complexityFlags = 1 << 24;
    const uint32_t method = field(2);
    const auto group = [&](uint32_t n, int shift) {
      if (!field(1)) vol.complexityFlags |= field(n) << shift;
    };
    if (method < 2) {
      group(6, 16), group(4, 12), bits.u(1, 1), group(4, 8), group(6, 2), bits.u(1, 1);
      if (method == 1) group(2, 0);
    }
  }
  vol.resyncMarkers = 1 - field(1);
  if (field(1)) vol.dataPartitioned = 1, vol.reversibleVlc = field(1);
  field(10);
  return finish("");
}

TEST_F(VideoTest, Mpeg4VideoObjectLayers) {
  int errors = 0;
  for (int i = 0; i < 10000; ++i) {
    const Vol want = compose_vol([&](uint32_t n) { return value(n); });
    const GuardedBytes data(plain_bytes(below(20)) + hex("00 00 01 B0 F3") + want.bytes);
    VideoInfo info = marked<VideoInfo>();
    MPEG4VolInfo vol = marked<MPEG4VolInfo>();
    recording().clear_traces();
    EXPECT_EQ(UtilGetMPEG4Info(data.data(), data.size(), &info, &vol), want.error.empty());
    EXPECT_TRUE(equal(info, want.info) && equal(vol, want.vol)) << "case " << i << " " << want.error;
    std::vector<std::string> traces;
    if (!want.error.empty())
      traces.push_back("[DecVideo] GetMPEG4Info - Parsing Error for " + want.error + "\n");
    EXPECT_EQ(recording().trace_texts(), traces);
    errors += !want.error.empty();
    EXPECT_EQ(UtilGetMPEG4Info(data.data(), data.size(), nullptr, nullptr), want.error.empty());
    const GuardedBytes cut(text_of(data.data(), below(data.size())));
    UtilGetMPEG4Info(cut.data(), cut.size(), &info, &vol);
  }
  EXPECT_GT(errors, 500);
  for (const auto& trace : recording().traces()) EXPECT_EQ(trace.function, "UtilGetMPEG4Info");

  for (const char* text : {"", "00 00 01 20", "FF 00 00 01 20", "00 00 01 30 FF", "00 00 01 1F FF"}) {
    recording().clear_traces();
    const GuardedBytes data(hex(text));
    EXPECT_EQ(UtilGetMPEG4Info(data.data(), data.size(), nullptr, nullptr), 0) << text;
    EXPECT_EQ(recording().trace_texts(),
              std::vector<std::string>{"[Util]\tUtilGetMPEG4Info - Parsing Error for VOL Start Code\n"});
  }
}

TEST_F(VideoTest, Mpeg4ConfigurationIsComposedAndReadBack) {
  const std::string head = hex("00 00 01 B0 03 00 00 01 B5 89 13 00 00 01 B2") + "MPEG4Info" +
                           std::string(23, 0) + hex("00 00 01 00 00 00 01 20");
  for (int i = 0; i < 500; ++i) {
    VideoInfo size = {}, info = {};
    size.width = value(13), size.height = value(13);
    MPEG4VolInfo vol = {}, read = {};
    vol.timeIncrementResolution = value(16), vol.quantType = below(2);
    const GuardedBytes out(200);
    std::memset(out.data(), 0xEE, out.size());
    ASSERT_EQ(UtilSetMPEG4Info(out.data(), 0, &size, &vol), 66u);
    EXPECT_EQ(text_of(out.data(), head.size()), head);
    EXPECT_EQ(out.data()[66], 0xEE);
    EXPECT_EQ(out.data()[65] & (vol.quantType ? 0x1F : 0x7F), vol.quantType ? 0x0F : 0x3F) << "stuffing";
    EXPECT_EQ(UtilGetMPEG4Info(out.data(), 66, &info, &read), vol.quantType == 0);
    EXPECT_TRUE(equal(info, size));
    EXPECT_EQ(read.timeIncrementResolution, vol.timeIncrementResolution);
  }
}

TEST_F(VideoTest, VopsAreCodedOrNot) {
  for (int i = 0; i < 5000; ++i) {
    const uint32_t offset = below(132), time_bits = chance(9) ? 32 : below(17),
                   seconds = chance(9) ? below(70) : below(3);
    Bits vop;
    for (uint32_t k = 0; k < offset; ++k) vop.u(8, 2 + below(254));
    vop.u(32, 0x1B6), vop.u(2, value(2));
    for (uint32_t k = 0; k < seconds; ++k) vop.u(1, 1);
    vop.u(2, 1), vop.u(time_bits, value(time_bits)), vop.u(1, 1);
    const uint32_t coded = vop.u(1, value(1));
    const GuardedBytes bytes(vop.bytes());  // ends with the byte that vop_coded is in
    const int want = offset > 128 || seconds > 64 ? 1 : static_cast<int>(coded);
    EXPECT_EQ(VopCheckCoded(bytes.data(), chance(9) && time_bits == 32 ? UINT32_MAX : time_bits), want);
  }
}

// ---- Dispatch, and what happens without a reader

TEST_F(VideoTest, TheCodecChoosesTheParser) {
  const std::string avcc = hex("01 64 00 28 FF E1 00 04 67 64 00 28 01 00 02 68 EE");
  const std::string hvcc = hex("01 01 60 00 00 00 90 00 00 00 00 00 5D");
  const std::string mpeg = hex("00 00 01 B3 16 00 F0 C4 01 1F A0");
  std::string mpeg4(200, 0);
  VideoInfo size = {};
  size.width = 640, size.height = 480;
  const MPEG4VolInfo vol = {};
  UtilSetMPEG4Info(reinterpret_cast<uint8_t*>(mpeg4.data()), 0, &size, &vol);
  const struct {
    std::vector<const char*> codecs;
    std::string config;
    uint8_t result;
    VideoInfo want;
  } cases[] = {
      {{"H264", "avc1", "AVC1"}, avcc, 1, {}},
      {{"H265", "HEVC", "hvc1", "hev1", "HEV1"}, hvcc, 1, {0, 0, 0, 0, 0, {}, 0, {}, 1, 93}},
      {{"XVID", "MP4S", "MP4V"}, mpeg4, 1, {0, 0, 640, 480, 0, {}, 0, {}, 0, 0}},
      {{"MPEG"}, mpeg, 1, {0, 0, 352, 240, 29970, {}, 460000, {}, 0, 0}},
      {{"HVC1", "mpeg", "h264", "mp4v", "xvid", "hevc", "\0\0\0"}, avcc, 0, {}},
  };
  for (const auto& c : cases) {
    for (const char* codec : c.codecs) {
      VideoInfo info = {}, want = c.want;
      info.codec = want.codec = fourcc(codec);
      const GuardedBytes config(c.config);
      EXPECT_EQ(QMXUtil_GetVideoInfo(config.data(), config.size(), &info), c.result) << codec;
      EXPECT_TRUE(equal(info, want)) << codec;
      info = {}, want = {};
      info.codec = want.codec = fourcc(codec);
      recording().fail_any(1);  // no bit reader, no byte reader
      EXPECT_EQ(QMXUtil_GetVideoInfo(config.data(), config.size(), &info),
                codec[0] == 'H' || codec[0] == 'h' ? info.codec != fourcc("H264") && c.result : 0)
          << codec;
      EXPECT_TRUE(equal(info, want)) << codec;
      recording().stop_failing();
    }
  }
}

// ---- Frame readers

// The reader that takes one byte at a time.
struct ByteReader {
  const std::string& file;
  bool h265;
  size_t position = 0;
  bool first_frame = true;

  uint32_t read_frame(std::string& out, uint32_t size) {
    out.clear();
    if (size < 2) return 0;
    uint32_t last_four = UINT32_MAX;
    bool begun = false, at_pps = false;
    for (;;) {
      if (position == file.size()) return static_cast<uint32_t>(out.size());
      const uint8_t byte = static_cast<uint8_t>(file[position++]);
      const bool header = (last_four & 0xFFFFFF) == 1;
      const size_t code = last_four == 1 ? 4 : 3;
      last_four = last_four << 8 | byte;
      bool room_for_two = false;
      if (header) {
        const int type = h265 ? byte >> 1 & 0x3F : byte & 0x1F;
        const bool slice = h265 ? type == 1 || type == 19 : type == 1 || type == 5;
        const bool pps = type == (h265 ? 34 : 8);
        if (!begun) {
          begun = slice || (pps && first_frame);
          at_pps = begun && pps;
        } else if (slice && !at_pps) {
          out += static_cast<char>(byte);
          if (out.size() + 2 >= size) return 0;
          if (position == file.size()) return static_cast<uint32_t>(out.size());
          const uint8_t second = static_cast<uint8_t>(file[position++]);
          if (h265 || second >= 0x80) return end(out, 1, code, 2);
          last_four = last_four << 8 | second;
          out += static_cast<char>(second);
          room_for_two = true;
        } else {
          if (at_pps && (slice || (h265 ? pps : type == 6))) first_frame = false;
          if (h265 || slice || (type >= 6 && type <= 9)) return end(out, 0, code, 1);
        }
      }
      if (!room_for_two) out += static_cast<char>(byte);
      if (out.size() + 1 >= size) return 0;
    }
  }

  uint32_t end(std::string& out, size_t headers_stored, size_t code, size_t headers_read) {
    position -= code + headers_read;
    out.resize(out.size() - headers_stored - code);
    return static_cast<uint32_t>(out.size());
  }
};

class FrameReaderTest : public VideoTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    VideoTest::SetUp();
    recording().use_guard_pages(false);
  }
  // Any NAL unit types, slices and parameter sets more often, all kinds of start codes.
  std::string stream() {
    static const int types_264[] = {1, 1, 5, 6, 7, 8, 9}, types_265[] = {1, 1, 19, 32, 33, 34, 35, 39, 20, 0};
    std::string out = chance(3) ? tricky_bytes(below(6)) : "";
    while (!chance(15)) {
      out += kStartCode.substr(chance(2));
      const uint32_t type = static_cast<uint32_t>(chance(4)    ? value(6)
                                                  : GetParam() ? types_265[below(10)]
                                                               : types_264[below(7)]);
      out += static_cast<char>(GetParam() ? type << 1 | value(1) : type | value(3) << 5);
      if (!chance(9)) out += static_cast<char>(value(8));
      out += chance(4) ? tricky_bytes(below(15)) : plain_bytes(below(40));
      // The next start code where a block of the reader may end.
      if (chance(8)) out += plain_bytes(1024u * (1 + below(9)) - out.size() % 1024 - below(6));
      if (chance(8)) out.append(below(3), '\0');
    }
    return out;
  }
  uint32_t read(FILE* file, uint8_t* buffer, uint32_t size) {
    return (GetParam() ? UtilVideo_H265_ReadOneFrame : UtilVideo_H264_ReadOneFrame)(file, buffer, size);
  }
};

TEST_P(FrameReaderTest, CutsAsAReaderOfSingleBytesDoes) {
  const qmxtest::TempDir dir;
  for (int i = 0; i < 500; ++i) {
    const std::string content = stream();
    const std::string path = dir.write("stream", content);
    FILE* const file = QMX_FileOpen(path.c_str(), QMX_FILE_READ);
    ASSERT_NE(file, nullptr);
    ByteReader model{content, GetParam(), 0, chance(2)};
    g_bFirstFrame = model.first_frame;
    const uint32_t usual_size = chance(2) ? 100000 : chance(2) ? below(3000) : below(60);
    for (int calls = 0; calls < 40; ++calls) {
      const uint32_t size = chance(6) ? below(50) : usual_size;
      std::string want;
      const uint32_t want_length = model.read_frame(want, size);
      const GuardedBytes buffer(size);
      recording().clear_calls();
      ASSERT_EQ(read(file, buffer.data(), size), want_length)
          << "case " << i << " call " << calls << " size " << size;
      ASSERT_EQ(text_of(buffer.data(), want_length), want.substr(0, want_length));
      ASSERT_LE(recording().calls_of("FileSeek").size(), 1u);
      ASSERT_EQ(QMX_FileTell(file), static_cast<int64_t>(model.position))
          << "case " << i << " call " << calls;
      ASSERT_EQ(g_bFirstFrame != 0, model.first_frame);
    }
    QMX_FileClose(file);
  }
}

TEST_P(FrameReaderTest, AReadErrorIsTheEndOfTheFile) {
  const qmxtest::TempDir dir;
  const std::string path = dir.write("stream", kStartCode + plain_bytes(50000));
  for (int n = 1; n < 4; ++n) {
    FILE* const file = QMX_FileOpen(path.c_str(), QMX_FILE_READ);
    const GuardedBytes buffer(60000);
    recording().fail_from(qmxtest::Op::kFileRead, n);
    const uint32_t got = read(file, buffer.data(), buffer.size());
    recording().stop_failing();
    EXPECT_EQ(got > 0, n > 1);
    EXPECT_EQ(QMX_FileTell(file), static_cast<int64_t>(got));
    QMX_FileClose(file);
  }
}

INSTANTIATE_TEST_SUITE_P(Codecs, FrameReaderTest, ::testing::Bool(),
                         [](const auto& codec) { return std::string(codec.param ? "H265" : "H264"); });

}  // namespace
