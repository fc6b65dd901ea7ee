// Audio headers against a plain model of header and search, in buffers ending at an unreadable page.
#include <cstring>

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
  const struct {
    uint32_t header, result, frame_size;
    const char* layer = "";
  } cases[] = {{0xFFFB0064, 32, 0},  // free format
               {0xFFE31CC4, 9, 0},   // no sample rate
               {0xFFFF9064, 0, 77, "1"},
               {0xFFFC9064, 2, 77, "2"},
               {0xFFF99064, 0, 77, "4"}};
  for (const auto& c : cases) {
    recording().clear_traces();
    MP3HeaderInfo info;
    info.frameSize = 77;
    EXPECT_EQ(UtilDecode_mp3header(&info, c.header), c.result) << std::hex << c.header;
    EXPECT_EQ(info.frameSize, c.frame_size) << std::hex << c.header;
    const auto traces = recording().traces();
    ASSERT_EQ(traces.size(), c.frame_size == 77);
    if (traces.empty()) continue;
    EXPECT_EQ(traces[0].module + traces[0].function, "utilaudioUtilDecode_mp3header");
    EXPECT_EQ(traces[0].text, string("[Reader]\tSorry, layer ") + c.layer + " not supported\n");
  }
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

TEST_F(AudioTest, AacConfiguration) {
  static const uint32_t rates[16] = {96000, 88200, 64000, 48000, 44100, 32000,
                                     24000, 22050, 16000, 12000, 11025, 8000};
  for (uint32_t word = 0; word < 0x10000; word += 13) {
    const GuardedBytes config(be(word, 2));
    AudioInfo info = {1, 2, 3, {4, 5, 6}, 7};
    ASSERT_EQ(QMXUtil_UtilGetLATMInfo(config.data(), 2, &info), rates[word >> 7 & 15]);
    const AudioInfo expected = {1, rates[word >> 7 & 15], word >> 3 & 15, {4, 5, 6}, 7};
    ASSERT_EQ(std::memcmp(&info, &expected, sizeof info), 0);
  }
}

TEST_F(AudioTest, SamplesPerFrameByFormatCode) {
  const std::pair<uint32_t, uint32_t> known[] = {{0, 0},      {1, 1600},   {2, 1024}, {3, 0},
                                                 {17, 1024},  {85, 1152},  {86, 0},   {253, 2048},
                                                 {254, 2048}, {255, 1024}, {256, 0}};
  for (const auto& [format, samples] : known) EXPECT_EQ(QMXUtil_GetAudioSampleSize(format), samples);
}

}  // namespace
