// Audio headers against a plain model of header and search, in buffers ending at an unreadable page.
#include <cstring>
#include <map>
#include <span>

#include "bytes.h"
#include "qmxutil_audio.h"
#include "recording_base.h"

namespace {

using namespace qmxtest;
using std::string;

class AudioTest : public BaseTest {};

// The plain model: whether a header is accepted, and how long its frame is, from the public tables.
bool model_accepts(uint32_t h) {
  return (h & 0xFFE00000) == 0xFFE00000 && (h & 0x60000) == 0x20000 && (h & 0xF000) != 0 &&
         (h & 0xF000) != 0xF000 && (h & 0xC00) != 0xC00;
}
uint32_t model_frame_length(uint32_t h) {
  static const uint32_t bit_rates[2][16] = {
      {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
      {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
  };
  static const uint32_t base_rate[] = {44100, 48000, 32000};
  const uint32_t version = h >> 19 & 3, kbps = bit_rates[version == 3][h >> 12 & 15];
  const uint32_t rate = base_rate[h >> 10 & 3] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
  return (version == 3 ? 144000 : 72000) * kbps / rate + (h >> 9 & 1);
}

uint32_t word_at(const string& data, size_t at) {
  uint32_t word = 0;
  for (const char c : data.substr(at, 4)) word = word << 8 | static_cast<uint8_t>(c);
  return word;
}

// Where the search ends in `data`, byte by byte, and whether a frame stands there.
std::pair<size_t, bool> model_search(const string& data) {
  if (data.size() <= 4) return {0, false};
  if (model_accepts(word_at(data, 0))) return {0, true};
  for (size_t at = 1; data.size() - at > 4; ++at) {
    size_t next = at;
    for (int passed = 1; model_accepts(word_at(data, next)); ++passed) {
      if (passed == 4) return {at, true};
      next += model_frame_length(word_at(data, next));
      if (next + 4 > data.size()) return {at, false};
    }
  }
  return {data.size() - 4, false};
}

uint32_t random_header() { return 0xFFE20000 | below(0x1E0000); }  // sync and Layer III, the rest by chance

TEST_F(AudioTest, DecodesEveryFieldOfAnyWord) {
  for (int i = 0; i < 500'000; ++i) {
    const uint32_t h = i % 2 == 0 ? any_word() : random_header();
    ASSERT_EQ(UtilCheck_mp3header(h), model_accepts(h)) << std::hex << h;
    if ((h >> 17 & 3) != 1) continue;
    MP3HeaderInfo info;
    std::memset(&info, 0xA5, sizeof info);
    const uint32_t side_info = UtilDecode_mp3header(&info, h);
    const uint32_t mpeg25 = (h & 0x100000) == 0, lsf = mpeg25 || (h & 0x80000) == 0, rate = h >> 10 & 3;
    const uint32_t mode = h >> 6 & 3, mono = mode == 3, crc = (h & 0x10000) == 0;
    const uint32_t size = model_accepts(h) ? model_frame_length(h) - 4 : info.frameSize;
    const uint32_t expected[] = {h & 0x80000, 3,          crc,  h >> 12 & 15, 3 * (lsf + mpeg25) + rate,
                                 h >> 9 & 1,  h >> 8 & 1, mode, h >> 4 & 3,   h >> 3 & 1,
                                 h >> 2 & 1,  h & 3,      lsf,  mpeg25,       2 - mono,
                                 0xA5A5A5A5,  0xA5A5A5A5, size};
    static_assert(sizeof info == sizeof expected);
    ASSERT_EQ(std::memcmp(&info, &expected, sizeof info), 0) << std::hex << h;
    ASSERT_EQ(side_info, (lsf ? (mono ? 9 : 17) : (mono ? 17 : 32)) + 2 * crc) << std::hex << h;
  }
}

TEST_F(AudioTest, HeadersWithoutAFrameSize) {
  const auto decode = [](uint32_t header, uint32_t frame_size) {
    MP3HeaderInfo info;
    info.frameSize = 77;
    const uint32_t result = UtilDecode_mp3header(&info, header);
    EXPECT_EQ(info.frameSize, frame_size) << std::hex << header;
    return result;
  };
  EXPECT_EQ(decode(0xFFFB0064, 0), 32u) << "free format";
  EXPECT_EQ(decode(0xFFE31CC4, 0), 9u) << "no sample rate";
  EXPECT_EQ(decode(0xFFFF9064, 77), 0u);
  EXPECT_EQ(decode(0xFFFC9064, 77), 2u);
  EXPECT_EQ(decode(0xFFF99064, 77), 0u);
  string traced;
  for (const auto& trace : recording().traces()) traced += trace.module + ' ' + trace.function + trace.text;
  const string place = "utilaudio UtilDecode_mp3header[Reader]\tSorry, layer ", rest = " not supported\n";
  EXPECT_EQ(traced, place + "1" + rest + place + "2" + rest + place + "4" + rest);
}

// Where frames begin in data that arrives in pieces, kept as the header says.
std::vector<size_t> frames_of(const string& data, size_t piece) {
  std::vector<size_t> frames;
  for (size_t kept = 0, arrived = 0; arrived < data.size();) {
    arrived = std::min(data.size(), arrived + piece);
    const GuardedBytes bytes(data.substr(kept, arrived - kept));
    const uint8_t *position = bytes.data(), *begin = nullptr, *frame = nullptr;
    uint32_t remaining = bytes.size(), length = 0;
    for (;; position += length, remaining -= length) {
      begin = position;
      frame = QMXUtil_GetMP3Frame(&position, &remaining, &length, nullptr);
      if (frame == nullptr || length > remaining) break;
      frames.push_back(kept + static_cast<size_t>(frame - bytes.data()));
    }
    if (frame == nullptr && position > begin) --position;  // not confirmed yet
    kept += static_cast<size_t>(position - bytes.data());
  }
  return frames;
}

TEST_F(AudioTest, SearchEndsWhereAPlainScanEnds) {
  for (int round = 0; round < 3000; ++round) {
    SCOPED_TRACE(round);
    string data = any_bytes(below(300));  // sync bytes and second bytes of headers are common
    for (char& byte : data) byte = chance(2) ? byte : "\xFF\xFB"[below(2)];
    const size_t garbage = data.size();
    for (uint32_t frames = below(7); frames > 0; --frames) {
      uint32_t header = 0;
      while (!model_accepts(header)) header = random_header();
      data += be(header, 4) + string(model_frame_length(header) - 4, static_cast<char>(any_word()));
    }
    if (chance(4) && data.size() > garbage) data[garbage + below(data.size() - garbage)] ^= 0x40;
    if (chance(3)) data.resize(data.size() - below(data.size() - garbage + 1));
    if (round < 2) data = hex("FF FB 90 64") + string(static_cast<size_t>(round), 0);

    ASSERT_EQ(frames_of(data, 8 + below(chance(4) ? 30 : 2000)), frames_of(data, data.size()));
    const GuardedBytes bytes(data);
    const auto [end, found] = model_search(data);
    const uint8_t* position = bytes.data();
    uint32_t remaining = bytes.size(), length = 77, samples = 77;
    const uint8_t* const frame = QMXUtil_GetMP3Frame(&position, &remaining, &length, &samples);
    ASSERT_EQ(frame, found ? bytes.data() + end : nullptr);
    ASSERT_EQ(position, bytes.data() + end);
    ASSERT_EQ(remaining, data.size() - end);
    const uint32_t header = found ? word_at(data, end) : 0;
    const bool mpeg1 = (header & 0x180000) == 0x180000;
    ASSERT_EQ(length, found ? model_frame_length(header) : 77);
    ASSERT_EQ(samples, found ? (mpeg1 ? 1152u : 576u) : 77u);

    const AudioInfo before = {1, 2, 3, {4, 5, 6}, 7};
    AudioInfo info = before;
    const uint32_t bit_rate = QMXUtil_GetMP3Info(bytes.data(), bytes.size(), &info, nullptr);
    const AudioInfo expected = {85, info.sampleRate, (header & 0xC0) == 0xC0 ? 1u : 2u, {4, 5, 6}, bit_rate};
    ASSERT_EQ(std::memcmp(&info, found ? &expected : &before, sizeof info), 0) << std::hex << header;
    ASSERT_EQ(bit_rate, found ? info.bitRate : 0);
    if (!found) continue;
    ASSERT_EQ(samples / 8 * bit_rate / info.sampleRate + (header >> 9 & 1), length) << std::hex << header;
  }
}

TEST_F(AudioTest, AacConfigurationsAndSamplesPerFrame) {
  static const uint32_t rates[16] = {96000, 88200, 64000, 48000, 44100, 32000,
                                     24000, 22050, 16000, 12000, 11025, 8000};
  for (uint32_t word = 0; word < 0x10000; word += 13) {
    const GuardedBytes config(be(word, 2));
    AudioInfo info = {1, 2, 3, {4, 5, 6}, 7};
    ASSERT_EQ(QMXUtil_UtilGetLATMInfo(config.data(), 2, &info), rates[word >> 7 & 15]);
    const AudioInfo expected = {1, rates[word >> 7 & 15], word >> 3 & 15, {4, 5, 6}, 7};
    ASSERT_EQ(std::memcmp(&info, &expected, sizeof info), 0);
  }
  const std::map<uint32_t, uint32_t> samples = {{1, 1600},   {2, 1024},   {17, 1024}, {85, 1152},
                                                {253, 2048}, {254, 2048}, {255, 1024}};
  for (uint32_t format = 0; format < 300; ++format) {
    EXPECT_EQ(QMXUtil_GetAudioSampleSize(format), samples.contains(format) ? samples.at(format) : 0);
  }
  uint32_t sum = 0;  // of the tables, those parts that this library itself does not use too
  const std::span<const uint32_t> bit_rates(&MP3Bitrate[0][0][0], 96);
  for (const auto& table : {bit_rates, {MP3SampleRate}, {MP3SampleNum}, {AACSampleRates}})
    for (const uint32_t entry : table) sum = 31 * sum + entry;
  EXPECT_EQ(sum, 1401271624u);
}

}  // namespace
