// Video headers, conversions and frame readers: headers composed at random field by field, and plain models
// that take one byte at a time, in buffers that end at an unreadable page.
#include <algorithm>
#include <bit>
#include <cstring>

#include "bytes.h"
#include "internal/first_frame.h"
#include "qmxutil_video.h"
#include "recording_base.h"

namespace {

using namespace qmxtest;
using std::string;

class VideoTest : public BaseTest {};

VideoInfo* const kNoSize = nullptr;
H264ProfileInfo* const kNoProfile = nullptr;

uint32_t value(uint32_t bits) { return bits == 0 ? 0 : any_word() >> (32 - bits); }

// Bytes among which zeros, ones and threes are frequent.
string tricky_bytes(size_t size) {
  string bytes = any_bytes(size);
  for (char& byte : bytes) byte = chance(8) ? byte : "\0\0\0\0\1\1\3x"[below(8)];
  return bytes;
}
// Bytes without a start code in or at their ends.
string plain_bytes(size_t size) {
  string bytes(size, 0);
  for (char& byte : bytes) byte = static_cast<char>(2 + below(254));
  return bytes;
}

// Composes headers; each function gives the value that it puts.
struct Bits {
  string bytes;
  uint32_t used = 0;

  uint32_t put(uint32_t n, uint32_t number) {
    for (uint32_t i = n; i > 0; --i, ++used) {
      if (used % 8 == 0) bytes += '\0';
      if (number >> (i - 1) & 1) bytes.back() = static_cast<char>(bytes.back() | 0x80 >> used % 8);
    }
    return number;
  }
  uint32_t any(uint32_t n) { return put(n, value(n)); }
  void any(uint32_t n, uint8_t& field) { field = static_cast<uint8_t>(any(n)); }
  uint32_t ue(uint32_t number) {
    const auto zeros = static_cast<uint32_t>(std::bit_width(number + 1)) - 1;
    put(zeros, 0);
    put(zeros + 1, number + 1);
    return number;
  }
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

// Calls a parser on bytes that end at an unreadable page.
template <class Parser, class... Out>
int parse(Parser parser, const string& bytes, Out*... out) {
  const GuardedBytes data(bytes);
  return static_cast<int>(parser(data.data(), data.size(), out...));
}

// ---- H.264 parameter sets

TEST_F(VideoTest, ExpGolombCodesAtTheirLimits) {
  const std::tuple<string, uint32_t, uint32_t> cases[] = {
      {hex("00 00 00 01 FF FF FF FE"), UINT32_MAX - 1, 63},
      {string(4, 0) + "\x80", 0, 33},
      {string(100, 0) + "\1", 0, 808},             // the zeros and the 1 are consumed
      {"\1", 254, 15},                             // 1s past the end
      {string(70000, 0) + "\xFF", 0, 65535 * 8}};  // no parameter set is that long
  for (const auto& [code, want, read] : cases) {
    const GuardedBytes bytes(code);
    QMXBit* const handle = QMXBitOpen(bytes.data(), bytes.size());
    EXPECT_EQ(UtilGetUE(handle), want);
    QMXBitClose(handle);
    EXPECT_EQ(recording().calls().back(), "BitClose " + std::to_string(read));
  }
}

// One of the scaling lists of 7.3.2.1.1.1: its scales by chance, cut short by a next scale of 0 at times.
void put_scaling_list(Bits& bits, int size) {
  for (int j = 0, last = 8, next; j < size; ++j, last = next) {
    next = chance(20) ? 0 : 1 + static_cast<int>(below(255));
    const int delta = static_cast<int8_t>(next - last);
    bits.ue(static_cast<uint32_t>(delta > 0 ? 2 * delta - 1 : -2 * delta));
    if (next == 0) return;
  }
}

TEST_F(VideoTest, H264SpsOfAllKinds) {
  static const uint32_t profiles[] = {66, 77, 88, 244, 44, 100, 110, 122, 144};
  for (int i = 0; i < 5000; ++i) {
    VideoInfo size = marked<VideoInfo>(), want_size = size;
    H264ProfileInfo profile = marked<H264ProfileInfo>(), want = profile;
    Bits bits;
    const uint32_t kind = below(9);
    want.profile = bits.put(8, profiles[kind]);
    want.compatibility = bits.any(8);
    want.level = bits.any(8);
    bits.ue(below(32));
    if (kind >= 5) {
      if (bits.ue(below(4)) == 3) bits.any(1);
      bits.ue(value(32) & ~1u);
      bits.ue(below(7));
      bits.any(1);
      const bool lists = bits.any(1);
      for (int list = 0; lists && list < 8; ++list) {
        if (bits.any(1)) put_scaling_list(bits, list < 6 ? 16 : 64);
      }
    }
    bits.ue(below(13));
    const uint32_t poc_type = bits.ue(below(4));
    if (poc_type == 0) bits.ue(below(13));
    if (poc_type == 1) {
      bits.any(1);
      const uint32_t n = 2 + below(256), longest = chance(8) ? 1 : 32;
      for (uint32_t k = 0; k <= n; ++k) bits.ue(k == 2 ? n - 2 : value(below(longest)));
    }
    want.numRefFrames = bits.ue(below(17));
    bits.any(1);
    want_size.width = (bits.ue(value(below(17))) + 1) * 16;
    want_size.height = (bits.ue(value(below(17))) + 1) * 16;
    EXPECT_EQ(parse(UtilGetSPSPPSInfo, bits.bytes, kNoSize, &profile), 1);
    EXPECT_EQ(parse(UtilGetSPSPPSInfo, bits.bytes, &size, kNoProfile), 1);
    EXPECT_TRUE(equal(size, want_size) && equal(profile, want)) << want.profile << " case " << i;
  }
  VideoInfo size = {};
  const string four_billion_offsets = hex("42 00 00 D3 00 00 00 01 FF FF FF FE");
  EXPECT_EQ(parse(UtilGetSPSPPSInfo, four_billion_offsets, &size, kNoProfile), 1);
  EXPECT_EQ(size.width, 16u);  // 1s past the end
}

TEST_F(VideoTest, RecordsOfOtherKinds) {
  constexpr uint32_t kMark = 0xA5A5A5A5;
  H264ProfileInfo profile = marked<H264ProfileInfo>();
  EXPECT_EQ(parse(QMXUtil_GetH264Info, hex("01 4D 40 1E FF E1 00 04 68"), kNoSize, &profile), 0);
  EXPECT_TRUE(equal(profile, H264ProfileInfo{0x4D, kMark, 0x1E, 4, kMark}));
  EXPECT_EQ(UtilSetH264Info(nullptr, 0, nullptr, nullptr), -1);
  H265ParamSetInfo head = marked<H265ParamSetInfo>(), want = head;
  EXPECT_EQ(parse(UtilConvH265Info, hex("81 A1 60000000 90000000 0000 5D"), &head), 0);
  EXPECT_TRUE(equal(head, want)) << "of another version";
  H265ProfileTierLevel& ptl = want.vpsProfileTierLevel;
  ptl.general_profile_space = 0xA1, ptl.general_profile_idc = 1, ptl.general_level_idc = 93;
  EXPECT_EQ(parse(UtilConvH265Info, hex("01 A1 60000000 90000000 0000 5D"), &head), 0);
  EXPECT_TRUE(equal(head, want));
}

TEST_F(VideoTest, TheCodecChoosesTheParser) {
  // An avcC record, as hvcC another one, then a video object layer and a sequence header.
  const string config =
      hex("01640028 FFE10004 67640028 5D 00000120 00845D4C28582120A31F0000 000001B3 1700F0C4011FA0");
  const std::pair<const char*, std::vector<uint32_t>> cases[] = {
      {"H264 avc1 AVC1", {1, 0, 0, 0, 0, 0, 0}},
      {"H265 HEVC hvc1 hev1 HEV1", {1, 0, 0, 0, 0, 4, 93}},
      {"XVID MP4S MP4V", {1, 352, 288, 0, 0, 0, 0}},
      {"MPEG", {1, 368, 240, 29970, 460000, 0, 0}},
      {"HVC1 mpeg h264 mp4v xvid hevc", {0, 0, 0, 0, 0, 0, 0}}};
  for (const auto& [codecs, want] : cases) {
    for (const char* codec = codecs; codec < codecs + std::strlen(codecs); codec += 5) {
      VideoInfo i = {};
      std::memcpy(&i.codec, codec, 4);
      const uint32_t result = parse(QMXUtil_GetVideoInfo, config, &i);
      EXPECT_EQ((std::vector{result, i.width, i.height, i.frameRate, i.bitRate, i.profile, i.level}), want);
    }
  }
  EXPECT_EQ(UtilToUpperVideoFourCC(0x7A7B6061), 0x5A7B6041u);  // a`{z
}

// ---- H.265 parameter sets

TEST_F(VideoTest, EmulationPreventionIsRemovedAsTheStepsSay) {
  for (int i = 0; i < 20000; ++i) {
    string data = tricky_bytes(below(i % 100 == 0 ? 3000 : 90)), want;
    if (chance(3)) data.insert(below(data.size() + 1), plain_bytes(below(200)));
    const GuardedBytes bytes(data);
    uint32_t length = bytes.size();
    QMXUtil_H26xRemoveEPB(bytes.data(), &length);
    for (size_t r = 0; r < data.size();) {  // each pass is one byte of the result
      const bool found = data.compare(r, 3, string("\0\0\3", 3)) == 0;
      if (found) data[r + 2] = 0;
      want += data[r];
      r += found ? 2 : 1;
    }
    ASSERT_EQ(text_of(bytes.data(), length), want);
  }
}

// The fields of the i-th of `count` profiles: those of one name lie side by side.
void put_profile(Bits& bits, uint8_t* fields, uint32_t count, uint32_t i) {
  const auto field = [&](uint32_t k) -> uint8_t& { return fields[k * count + i]; };
  bits.any(2, field(0)), bits.any(1, field(1)), bits.any(5, field(2));
  for (uint32_t j = 0; j < 32; ++j) bits.any(1, fields[3 * count + 32 * i + j]);
  for (uint32_t k = 35; k < 39; ++k) bits.any(1, field(k));
  bits.any(32), bits.any(12);
}

void put_profile_tier_level(Bits& bits, H265ProfileTierLevel& want, uint32_t max_sub_layers_minus1) {
  const uint32_t n = std::min(max_sub_layers_minus1, 6u);
  put_profile(bits, &want.general_profile_space, 1, 0);
  bits.any(8, want.general_level_idc);
  for (uint32_t i = 0; n > 0 && i < 8; ++i) {
    if (i >= n) bits.any(2);
    if (i < n)
      bits.any(1, want.sub_layer_profile_present_flag[i]), bits.any(1, want.sub_layer_level_present_flag[i]);
  }
  for (uint32_t i = 0; i < n; ++i) {
    if (want.sub_layer_profile_present_flag[i]) put_profile(bits, want.sub_layer_profile_space, 6, i);
    if (want.sub_layer_level_present_flag[i]) bits.any(8, want.sub_layer_level_idc[i]);
  }
}

// Where the units lie: byte by byte, then each to the next of the others after it.
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
  want.vpsNal = nals[0], want.vpsNalLength = length(nals[0]);
  want.spsNal = nals[1], want.spsNalLength = length(nals[1]);
  want.ppsNal = nals[2], want.ppsNalLength = length(nals[2]);
}

TEST_F(VideoTest, H265ParameterSetsAreLocatedAndRead) {
  for (int i = 0; i < 4000; ++i) {
    H265ParamSetInfo info = marked<H265ParamSetInfo>(), want = info;
    Bits vps, sps;
    vps.put(16, 0x4001);
    uint8_t* field = &want.vps_video_parameter_set_id;  // the first of six
    for (const uint32_t n : {4, 1, 1, 6, 3, 1}) vps.any(n, *field++);
    vps.put(16, 0xFFFF);
    put_profile_tier_level(vps, want.vpsProfileTierLevel, want.vps_max_sub_layers_minus1);
    sps.put(16, 0x4201);
    sps.any(4, want.sps_video_parameter_set_id);
    sps.any(3, want.sps_max_sub_layers_minus1);
    sps.any(1);
    put_profile_tier_level(sps, want.spsProfileTierLevel, want.sps_max_sub_layers_minus1);
    want.sps_seq_parameter_set_id = static_cast<uint8_t>(sps.ue(below(16)));
    want.chroma_format_idc = static_cast<uint8_t>(sps.ue(below(4)));
    want.pic_width_in_luma_samples = static_cast<uint16_t>(sps.ue(value(16)));
    want.pic_height_in_luma_samples = static_cast<uint16_t>(sps.ue(value(16)));
    const string units[] = {vps.bytes, sps.bytes, "\x44" + plain_bytes(below(9)),
                            "\x4E" + plain_bytes(below(20))};
    const bool hostile = chance(2);  // units cut, doubled, left out, after start codes of all lengths
    string stream;
    for (uint32_t k = below(4), end = hostile ? k + below(8) : k + 4; k < end; ++k) {
      stream += hostile ? kStartCode.substr(below(3)) + units[below(4)].substr(0, below(30)) +
                              tricky_bytes(below(9))
                        : kStartCode + units[k % 4];
    }
    if (stream.empty()) continue;
    const GuardedBytes data(stream);
    EXPECT_EQ(UtilConvH265InfoFromStartCode(data.data(), static_cast<int32_t>(data.size()), &info), 0);
    if (hostile) want = info;  // but for the places
    locate(data, want);
    EXPECT_TRUE(equal(info, want)) << "case " << i;
  }
}

TEST_F(VideoTest, ThatThereIsNothingIsTraced) {
  const H265ParamSetInfo before = marked<H265ParamSetInfo>();
  H265ParamSetInfo info = before;
  uint32_t length = 7;
  uint8_t none = 0;
  UtilConvH265InfoFromStartCode(nullptr, 9, &info);
  for (const int32_t no_bytes : {0, -1}) UtilConvH265InfoFromStartCode(&none, no_bytes, &info);
  UtilConvH264InfoFromStartCode(nullptr, 9, nullptr, &length, nullptr);
  UtilConvH264InfoFromStartCode(&none, 0, nullptr, &length, nullptr);
  EXPECT_TRUE(equal(info, before) && length == 7);
  string text;
  for (const auto& trace : recording().traces())
    text += trace.module + trace.function.substr(8, 4) + trace.text;
  const string h264 = "utilvideoH264No codec data!\n", h265 = "utilvideoH265No codec data!\n";
  EXPECT_EQ(text, h265 + h265 + h265 + h264 + h264);
}

// ---- Configuration records and samples

// What stands before the first four-byte start code, then the unit after each.
std::vector<string> split(const string& data) {
  std::vector<string> parts(1);
  for (size_t i = 0; i < data.size();) {
    const bool code = data.compare(i, 4, kStartCode) == 0;
    code ? parts.emplace_back() : parts.back() += data[i];
    i += code ? 4 : 1;
  }
  return parts;
}

TEST_F(VideoTest, UnitsConvertToStartCodesAndFromThem) {
  const H264ProfileInfo profile = {100, 0, 40, 4, 1};
  static const string headers[] = {"\x67", "\x67", "\x27", ""};
  for (int i = 0; i < 4000; ++i) {
    string data = chance(5) ? tricky_bytes(below(40)) : "";
    for (const uint32_t many = chance(9) ? 20 : 4; !chance(many);) {
      data += kStartCode + headers[below(4)];
      data += chance(2) ? tricky_bytes(below(20)) : plain_bytes(below(chance(900) ? 70000 : 90));
    }
    std::vector<string> units = split(data);
    const string front = units[0];
    units.erase(units.begin());

    string with_2 = front, with_4 = front, record = hex("01 64 00 28 FF") + front;
    const size_t cut = some_of(data).size();
    string want = data.substr(0, cut);  // a length of which less than four bytes are left stays
    std::vector<string> groups[2];      // SPS, others
    for (const string& unit : units) groups[!unit.starts_with('\x67')].push_back(unit);
    size_t seen[2] = {};
    for (const string& unit : units) {
      const size_t at = with_4.size(), group = !unit.starts_with('\x67');
      with_2 += be(unit.size(), 2) + unit;
      with_4 += be(unit.size(), 4) + unit;
      if (at < cut && cut - at < 4) want.replace(at, 4, with_4, at, cut - at);
      if (seen[group]++ == 0) record += be(groups[group].size() | (group == 0 ? 0xE0 : 0), 1);
      record += be(unit.size(), 2) + unit;
    }
    for (const size_t count : seen) record.append(count == 0, '\0');
    const GuardedBytes input(data), frame(data), out(data.size()), record_out(data.size() + 7);
    const auto size = static_cast<int32_t>(input.size());
    uint32_t length = 1;
    QMXUtil_ConvH26xExtraDataFromStartCode(input.data(), size, out.data(), &length);
    ASSERT_EQ(text_of(out.data(), length), with_2);
    UtilConvH264FrameFromStartCode(frame.data(), size);
    ASSERT_EQ(text_of(frame.data(), frame.size()), with_4);
    if (front.empty() && !with_4.starts_with(kStartCode)) {
      const GuardedBytes sample(with_4.substr(0, cut));
      UtilConvH264FrameToStartCode(sample.data(), static_cast<int32_t>(cut));
      ASSERT_EQ(text_of(sample.data(), cut), want);
      UtilConvH264FrameToStartCode(sample.data(), static_cast<int32_t>(cut));
      ASSERT_EQ(text_of(sample.data(), cut), want) << "converted already";
    }
    if (data.empty()) continue;
    UtilConvH264InfoFromStartCode(input.data(), input.size(), record_out.data(), &length, &profile);
    ASSERT_EQ(text_of(record_out.data(), length), record);

    // Records, of which what is there whole of the first units is converted, however they are cut.
    if (data.size() > 0xFFFF) continue;
    std::vector<size_t> ends;  // of each unit in the record
    const auto add_group = [&](const string& head, size_t count) {
      record += head;
      for (; count > 0; --count) {
        const string& unit = units[ends.size()];
        record += be(unit.size(), 2) + unit;
        ends.push_back(record.size());
      }
    };
    const auto expect_start_codes = [&](void (*convert)(uint8_t*, uint32_t*), size_t first, size_t group) {
      const string part = chance(3) ? record : some_of(record);
      string converted;
      for (size_t k = 0; k < first && ends[k] <= part.size(); ++k) {
        if (ends[k] > group && part.size() - group <= 4) break;  // a group of 4 bytes is not looked at
        converted += kStartCode + units[k];
      }
      const GuardedBytes buffer(std::max(part.size(), converted.size()));
      std::memcpy(buffer.data(), part.data(), part.size());
      length = static_cast<uint32_t>(part.size());
      convert(buffer.data(), &length);
      ASSERT_EQ(text_of(buffer.data(), length), converted);
      ends.clear();
    };
    const size_t count = units.size(), sps = below(std::min<size_t>(count, 31) + 1);
    record = hex("01 64 00 28 FF");
    add_group(be(0xE0 | sps, 1), sps);
    const size_t pps_at = record.size();
    add_group(be(count - sps, 1), count - sps);
    if (chance(2)) record += hex("FD F8 F8 00");
    expect_start_codes(QMXUtil_ConvH264InfoToStartCode, count, pps_at);
    record = "\3";
    for (const size_t left : {2, 1, 0}) {
      const size_t taken = left == 0 ? count - ends.size() : below(count - ends.size() + 1);
      add_group('\x20' + be(taken, 2), taken);
    }
    expect_start_codes(QMXUtil_ConvH265InfoToStartCode, count, SIZE_MAX);
    record = string(22, 1) + '\3';
    while (ends.size() < count) add_group(hex("20 00 01"), 1);
    expect_start_codes(QMXUtil_ConvHEVCInfoToStartCode, std::min<size_t>(count, 3), SIZE_MAX);
  }
  const GuardedBytes done(kStartCode + "\x67"), huge(hex("FF FF FF FF 01"));
  uint32_t length = done.size();
  QMXUtil_ConvH264InfoToStartCode(done.data(), &length);
  EXPECT_EQ(text_of(done.data(), length), kStartCode + "\x67");
  UtilConvH264FrameToStartCode(huge.data(), -1);
  EXPECT_EQ(huge.data()[0], 0xFF);
  UtilConvH264FrameToStartCode(huge.data(), 5);
  EXPECT_EQ(text_of(huge.data(), 5), kStartCode + "\1");
}

// ---- MPEG-1/2 and MPEG-4

TEST_F(VideoTest, MpegSequenceHeaders) {
  static const uint32_t rates[16] = {0, 23975, 24000, 25000, 29970, 30000, 50000, 59940, 60000};
  for (int i = 0; i < 3000; ++i) {
    Bits header, extension, other;
    VideoInfo info = marked<VideoInfo>(), want = info;
    header.put(32, 0x1B3);
    want.width = header.any(12);
    want.height = header.any(12);
    header.any(4);
    want.frameRate = rates[header.any(4)];
    want.bitRate = header.any(18) * 400;
    header.put(30, value(30) | 1);
    other.put(32, 0x1B5), other.put(4, 2 + below(14)), other.put(28, value(28) | 1);
    if (chance(2)) {
      extension.put(32, 0x1B5), extension.put(4, 1), extension.put(15, value(15) | 1);
      want.bitRate += (extension.any(12) << 18) * 400;
      extension.any(10);
      want.frameRate *= extension.any(2) + 1;
      want.frameRate /= extension.any(5) + 1;
    }
    const GuardedBytes data(plain_bytes(below(20)) + header.bytes + hex("00 00 01 B2 41") +
                            (chance(2) ? other.bytes : "") + extension.bytes);
    EXPECT_EQ(UtilGetMPEG12Info(data.data(), data.size(), &info), 1);
    EXPECT_TRUE(equal(info, want)) << "case " << i;
  }
  VideoInfo info = marked<VideoInfo>();
  EXPECT_EQ(UtilGetMPEG12Info(reinterpret_cast<const uint8_t*>("\0\1\xB3\x16\0\xF0"), 6, &info), 0);
  EXPECT_TRUE(equal(info, marked<VideoInfo>()));
}

TEST_F(VideoTest, Mpeg4VideoObjectLayers) {
  VideoInfo info;
  MPEG4VolInfo vol;
  uint32_t end;  // bits of the layer that are read
  const auto expect = [&](const string& bytes, const string& trace) {
    const GuardedBytes data(bytes);
    VideoInfo got_info = marked<VideoInfo>();
    MPEG4VolInfo got = marked<MPEG4VolInfo>();
    recording().clear_traces();
    recording().clear_calls();
    EXPECT_EQ(UtilGetMPEG4Info(data.data(), data.size(), &got_info, &got), trace.empty());
    EXPECT_TRUE(equal(got_info, info) && equal(got, vol)) << trace;
    EXPECT_EQ(UtilGetMPEG4Info(data.data(), data.size(), nullptr, nullptr), trace.empty());
    EXPECT_EQ(recording().trace_texts(), std::vector<string>(trace.empty() ? 0 : 2, trace));
    const string close = "BitClose " + std::to_string(end);
    EXPECT_EQ(recording().calls_of("BitClose"), std::vector<string>(end > 0 ? 2 : 0, close));
  };
  for (int i = 0; i < 10000; ++i) {
    info = marked<VideoInfo>();
    vol = marked<MPEG4VolInfo>();
    Bits bits;
    const auto ends = [&](const string& error) {
      end = bits.used;
      const string start = hex("00 00 01 B0 F3 00 00 01") + static_cast<char>(0x20 + value(4));
      expect(plain_bytes(below(20)) + start + bits.bytes + "xx",
             error.empty() ? "" : "[DecVideo] GetMPEG4Info - Parsing Error for " + error + "\n");
    };
    const auto is_refused = [&](uint32_t n, const char* field) {  // rarely
      const bool refused = bits.put(n, chance(16) ? value(n) : 0) != 0;
      if (refused) ends(field);
      return refused;
    };
    bits.any(1);
    vol.objectType = bits.any(8);
    uint32_t verid = 1;
    if (bits.any(1)) verid = bits.any(4), bits.any(3);
    if (bits.put(4, chance(2) ? 15 : value(4)) == 15) bits.any(16);
    if (bits.any(1)) {
      bits.any(3);
      if (bits.any(1)) bits.any(32), bits.any(32), bits.any(15);
    }
    if (is_refused(2, "video_object_layer_shape")) continue;
    bits.any(1);
    vol.timeIncrementResolution = bits.put(16, value(chance(2) ? 16 : 3));
    vol.timeIncrementBits = vol.timeIncrementResolution > 0 ? 1 : 0;
    while (vol.timeIncrementResolution > 1u << vol.timeIncrementBits) ++vol.timeIncrementBits;
    bits.any(1);
    if (bits.any(1)) vol.fixedTimeIncrement = bits.any(vol.timeIncrementBits);
    bits.any(1), info.width = vol.width = bits.any(13);
    bits.any(1), info.height = vol.height = bits.any(13);
    bits.any(1), vol.interlaced = bits.any(1), bits.any(1);
    if (is_refused(verid == 1 ? 1 : 2, "sprite_enable")) continue;
    bits.any(1);
    if (is_refused(1, "quant_type")) continue;
    vol.quantType = 0;
    if (verid != 1) bits.any(1);
    vol.complexityFlags = 0;
    if (!bits.any(1)) {
      vol.complexityFlags = 1 << 24;
      const uint32_t method = bits.any(2);
      const auto group = [&](uint32_t n, int shift) {
        if (!bits.any(1)) vol.complexityFlags |= bits.any(n) << shift;
      };
      if (method < 2) group(6, 16), group(4, 12), bits.any(1), group(4, 8), group(6, 2), bits.any(1);
      if (method == 1) group(2, 0);
    }
    vol.resyncMarkers = 1 - bits.any(1);
    if (bits.any(1)) vol.dataPartitioned = 1, vol.reversibleVlc = bits.any(1);
    bits.any(verid == 1 ? 1 : 3);
    ends("");
  }
  info = marked<VideoInfo>();
  vol = marked<MPEG4VolInfo>();
  end = 0;
  for (const char* text : {"", "00 00 01 20", "FF 00 00 01 20", "00 00 01 30 FF", "00 00 01 1F FF"}) {
    expect(hex(text), "[Util]\tUtilGetMPEG4Info - Parsing Error for VOL Start Code\n");
  }
}

TEST_F(VideoTest, Mpeg4ConfigurationIsComposed) {
  const string start = hex("000001B003 000001B58913 000001B2") + "MPEG4Info" + string(23, 0);
  VideoInfo size = {};
  size.width = 0x1ABD;
  size.height = 0x0543;
  MPEG4VolInfo vol = {};
  vol.timeIncrementResolution = 0x8001;
  for (const auto& [quant_type, end] : {std::pair{2u, "463F"}, {5u, "498F"}}) {  // the lowest bit counts
    vol.quantType = quant_type;
    const GuardedBytes out(200);
    ASSERT_EQ(UtilSetMPEG4Info(out.data(), 0, &size, &vol), 66u);
    EXPECT_EQ(text_of(out.data(), 66), start + hex("00000100 00000120 00C488C000DD5ECA87") + hex(end));
  }
}

TEST_F(VideoTest, VopsAreCodedOrNot) {
  for (int i = 0; i < 5000; ++i) {
    const uint32_t offset = below(132), time_bits = chance(9) ? 32 : below(17);
    const uint32_t seconds = chance(9) ? 60 + below(10) : below(3);
    Bits vop{plain_bytes(offset), offset * 8};
    vop.put(32, 0x1B6), vop.any(2);
    for (uint32_t k = 0; k < seconds; ++k) vop.put(1, 1);
    vop.put(2, 1), vop.any(time_bits), vop.any(1);
    const uint32_t coded = vop.any(1);
    // Ends with the byte that vop_coded is in; when nothing is found no more than 131 bytes are looked at.
    const GuardedBytes bytes(offset > 128 ? vop.bytes.substr(0, 131) : vop.bytes);
    const int want = offset > 128 || seconds > 64 ? 1 : static_cast<int>(coded);
    EXPECT_EQ(VopCheckCoded(bytes.data(), chance(2) && time_bits == 32 ? UINT32_MAX : time_bits), want);
  }
}

// ---- Frame readers

// The reader that takes one byte at a time, and may look back.
string read_frame(const string& file, size_t& position, uint32_t size, bool h265, bool& first_frame) {
  if (size < 2) return "";
  const size_t begin = position;
  bool begun = false, at_pps = false;
  for (uint32_t last_four = UINT32_MAX; position < file.size();) {
    const size_t start_code = position - (last_four == 1 ? 4 : 3);
    const bool header = (last_four & 0xFFFFFF) == 1;
    const uint8_t byte = static_cast<uint8_t>(file[position++]);
    last_four = last_four << 8 | byte;
    const int type = h265 ? byte >> 1 & 0x3F : byte & 0x1F;
    const bool slice = h265 ? type == 1 || type == 19 : type == 1 || type == 5;
    const bool pps = type == (h265 ? 34 : 8);
    bool ends = false;
    if (header && !begun) {
      begun = slice || (pps && first_frame);
      at_pps = begun && pps;
    } else if (header && slice && !at_pps) {
      if (position - begin + 2 >= size) return "";
      if (position == file.size()) break;
      const uint8_t second = static_cast<uint8_t>(file[position++]);
      last_four = last_four << 8 | second;
      ends = h265 || second >= 0x80;
    } else if (header) {
      if (at_pps && (slice || (h265 ? pps : type == 6))) first_frame = false;
      ends = h265 || slice || (type >= 6 && type <= 9);
    }
    if (ends) return file.substr(begin, (position = start_code) - begin);
    if (position - begin + 1 >= size) return "";
  }
  return file.substr(begin, position - begin);
}

// Any NAL unit types, slices and parameter sets more often, all kinds of start codes.
string elementary_stream(bool h265) {
  static const uint32_t types_264[] = {1, 1, 5, 6, 7, 8, 9},
                        types_265[] = {1, 1, 19, 32, 33, 34, 35, 39, 20, 0};
  string out = chance(3) ? tricky_bytes(below(6)) : "";
  while (!chance(15)) {
    out += kStartCode.substr(chance(2));
    const uint32_t type = chance(4) ? value(6) : h265 ? types_265[below(10)] : types_264[below(7)];
    out += static_cast<char>(h265 ? type << 1 | value(1) : type | value(3) << 5);
    out += any_bytes(!chance(9));
    out += chance(4) ? tricky_bytes(below(15)) : plain_bytes(below(40));
    // The next start code where a block of the reader may end.
    if (chance(8)) out += plain_bytes(1024u * (1 + below(9)) - out.size() % 1024 - below(6));
    if (chance(8)) out.append(below(3), '\0');
  }
  if (chance(9)) out += kStartCode + (h265 ? '\2' : '\1');  // a slice of which only the header is there
  return out;
}

TEST_F(VideoTest, FrameReadersCutAsAReaderOfSingleBytesDoes) {
  const TempDir dir;
  for (int i = 0; i < 1000; ++i) {
    const bool h265 = i % 2;
    const auto read = h265 ? UtilVideo_H265_ReadOneFrame : UtilVideo_H264_ReadOneFrame;
    const string content = elementary_stream(h265);
    FILE* const file = QMX_FileOpen(dir.write(std::to_string(i), content).c_str(), QMX_FILE_READ);
    bool first_frame = chance(2);
    g_bFirstFrame = first_frame;
    size_t position = 0;
    const uint32_t usual_size = chance(2) ? 100000 : chance(2) ? below(3000) : below(60);
    for (int calls = 0; calls < 40; ++calls) {
      SCOPED_TRACE("case " + std::to_string(i) + " call " + std::to_string(calls));
      const GuardedBytes buffer(chance(6) ? below(50) : usual_size);
      const string want = read_frame(content, position, buffer.size(), h265, first_frame);
      recording().clear_calls();
      const uint32_t length = read(file, buffer.data(), buffer.size());
      ASSERT_EQ(text_of(buffer.data(), length), want);
      ASSERT_LE(recording().calls_of("FileSeek").size(), 1u);
      ASSERT_EQ(QMX_FileTell(file), static_cast<int64_t>(position));
      ASSERT_EQ(g_bFirstFrame != 0, first_frame);
    }
    QMX_FileClose(file);
  }
}

}  // namespace
