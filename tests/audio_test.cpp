// Audio headers: against a plain model of the header and of the search, in buffers that end at an unreadable
// page.
#include <algorithm>
#include <cstring>
#include <random>

#include "qmxutil_audio.h"
#include "recording_base.h"

namespace {

using qmxtest::GuardedBytes;

class AudioTest : public qmxtest::BaseTest {};

std::string header_bytes(uint32_t header) {
  return {static_cast<char>(header >> 24), static_cast<char>(header >> 16), static_cast<char>(header >> 8),
          static_cast<char>(header)};
}

// The plain model: whether a header is accepted, and how long its frame is, from the public tables.
bool model_accepts(uint32_t h) {
  return (h & 0xFFE00000) == 0xFFE00000 && (h & 0x60000) == 0x20000 && (h & 0xF000) != 0 &&
         (h & 0xF000) != 0xF000 && (h & 0xC00) != 0xC00;
}
uint32_t model_frame_length(uint32_t h) {
  static const uint32_t kbps_1[] = {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
  static const uint32_t kbps_2[] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
  static const uint32_t base_rate[] = {44100, 48000, 32000};
  const bool mpeg1 = (h & 0x180000) == 0x180000, mpeg2 = (h & 0x180000) == 0x100000;
  const uint32_t rate = base_rate[h >> 10 & 3] / (mpeg1 ? 1 : mpeg2 ? 2 : 4);
  return mpeg1 ? 144000 * kbps_1[h >> 12 & 15] / rate + (h >> 9 & 1)
               : 72000 * kbps_2[h >> 12 & 15] / rate + (h >> 9 & 1);
}

uint32_t word_at(const std::string& data, size_t at) {
  uint32_t word = 0;
  for (size_t i = 0; i < 4; ++i) word = word << 8 | static_cast<uint8_t>(data[at + i]);
  return word;
}

// Where the search ends in `data`, byte by byte, and whether a frame stands there.
std::pair<size_t, bool> model_search(const std::string& data) {
  if (data.size() <= 4) return {0, false};
  if (model_accepts(word_at(data, 0))) return {0, true};
  for (size_t at = 1; data.size() - at > 4; ++at) {
    size_t next = at;
    int passed = 0;
    while (passed < 4 && model_accepts(word_at(data, next))) {
      ++passed;
      if (passed == 4) return {at, true};
      next += model_frame_length(word_at(data, next));
      if (next + 4 > data.size()) return {at, false};
    }
  }
  return {data.size() - 4, false};
}

uint32_t random_header(std::mt19937& random) {
  return 0xFFE20000 | static_cast<uint32_t>(random() & 0x1DFFFF);  // sync and Layer III, the rest by chance
}

std::string frames(std::mt19937& random, int count) {
  std::string stream;
  while (count > 0) {
    const uint32_t header = random_header(random);
    if (!model_accepts(header)) continue;
    std::string frame = header_bytes(header);
    frame.resize(model_frame_length(header), static_cast<char>(random()));
    stream += frame;
    --count;
  }
  return stream;
}

TEST_F(AudioTest, AcceptsLayer3HeadersOnly) {
  std::mt19937 random(1);
  for (int i = 0; i < 2'000'000; ++i) {
    uint32_t header = static_cast<uint32_t>(random());
    if (i % 2 == 0) header |= 0xFFE00000;
    ASSERT_EQ(UtilCheck_mp3header(header), model_accepts(header)) << std::hex << header;
  }
}

TEST_F(AudioTest, DecodesKnownHeaders) {
  struct Case {
    uint32_t header, side_info, frame_size, rate_index, lsf, mpeg25, channels, crc;
  };
  for (const Case& c : {Case{0xFFFB9064, 32, 413, 0, 0, 0, 2, 0}, Case{0xFFFB9264, 32, 414, 0, 0, 0, 2, 0},
                        Case{0xFFFA90C4, 19, 413, 0, 0, 0, 1, 1}, Case{0xFFF38044, 17, 204, 3, 1, 0, 2, 0},
                        Case{0xFFF380C4, 9, 204, 3, 1, 0, 1, 0}, Case{0xFFE318C4, 9, 68, 8, 1, 1, 1, 0},
                        Case{0xFFFB0064, 32, 0, 0, 0, 0, 2, 0}, Case{0xFFE31CC4, 9, 0, 9, 1, 1, 1, 0}}) {
    MP3HeaderInfo info;
    std::memset(&info, 0xA5, sizeof info);
    EXPECT_EQ(UtilDecode_mp3header(&info, c.header), c.side_info) << std::hex << c.header;
    EXPECT_EQ(info.frameSize, c.frame_size) << std::hex << c.header;
    EXPECT_EQ(info.sampleRateIndex, c.rate_index);
    EXPECT_EQ(info.lsf, c.lsf);
    EXPECT_EQ(info.mpeg25, c.mpeg25);
    EXPECT_EQ(info.channels, c.channels);
    EXPECT_EQ(info.crc, c.crc);
    EXPECT_EQ(info.layer, 3u);
    EXPECT_EQ(info.reserved[0], 0xA5A5A5A5u);
    EXPECT_EQ(info.reserved[1], 0xA5A5A5A5u);
  }
  EXPECT_TRUE(qmxtest::recording().traces().empty());
}

TEST_F(AudioTest, CopiesEveryBitFieldOfAnyWord) {
  std::mt19937 random(2);
  for (int i = 0; i < 200'000; ++i) {
    const uint32_t h = i % 2 == 0 ? static_cast<uint32_t>(random()) : random_header(random);
    if ((h >> 17 & 3) != 1) continue;
    MP3HeaderInfo info;
    const uint32_t side_info = UtilDecode_mp3header(&info, h);
    const uint32_t fields[] = {info.id,         info.bitrateIndex, info.padding,
                               info.privateBit, info.mode,         info.modeExtension,
                               info.copyBit,    info.originalBit,  info.emphasis};
    const uint32_t expected[] = {h & 0x80000, h >> 12 & 15, h >> 9 & 1, h >> 8 & 1, h >> 6 & 3,
                                 h >> 4 & 3,  h >> 3 & 1,   h >> 2 & 1, h & 3};
    ASSERT_TRUE(std::equal(fields, std::end(fields), expected)) << std::hex << h;
    const bool mono = (h >> 6 & 3) == 3, mpeg1 = (h & 0x180000) == 0x180000, crc = (h & 0x10000) == 0;
    ASSERT_EQ(side_info, (mpeg1 ? (mono ? 17u : 32u) : (mono ? 9u : 17u)) + (crc ? 2 : 0)) << std::hex << h;
    if (model_accepts(h)) {
      ASSERT_EQ(info.frameSize + 4, model_frame_length(h)) << std::hex << h;
    }
  }
}

TEST_F(AudioTest, OtherLayersAreTracedAndHaveNoSize) {
  struct Case {
    uint32_t header;
    int layer;
    uint32_t result;
  };
  for (const Case& c : {Case{0xFFFF9064, 1, 0}, Case{0xFFFC9064, 2, 2}, Case{0xFFF99064, 4, 0}}) {
    qmxtest::recording().clear_traces();
    MP3HeaderInfo info;
    info.frameSize = 77;
    EXPECT_EQ(UtilDecode_mp3header(&info, c.header), c.result);
    EXPECT_EQ(info.frameSize, 77u);
    EXPECT_EQ(info.layer, static_cast<uint32_t>(c.layer));
    const auto traces = qmxtest::recording().traces();
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0].text, "[Reader]\tSorry, layer " + std::to_string(c.layer) + " not supported\n");
    EXPECT_EQ(traces[0].module, "utilaudio");
    EXPECT_EQ(traces[0].level, 1);
    EXPECT_EQ(traces[0].function, "UtilDecode_mp3header");
  }
}

// One search over `data` in a guarded buffer must end where the model's ends.
void expect_search_as_model(const std::string& data) {
  const GuardedBytes bytes(data);
  const auto [end, found] = model_search(data);
  const uint8_t* position = bytes.data();
  uint32_t remaining = bytes.size(), length = 77, samples = 77;
  const uint8_t* const frame = QMXUtil_GetMP3Frame(&position, &remaining, &length, &samples);
  ASSERT_EQ(static_cast<size_t>(position - bytes.data()), end);
  ASSERT_EQ(remaining, data.size() - end);
  ASSERT_EQ(frame, found ? position : nullptr);
  const uint32_t header = found ? word_at(data, end) : 0;
  const bool mpeg1 = (header & 0x180000) == 0x180000;
  ASSERT_EQ(length, found ? model_frame_length(header) : 77);
  ASSERT_EQ(samples, found ? (mpeg1 ? 1152u : 576u) : 77u);

  AudioInfo info = {1, 2, 3, {4, 5, 6}, 7};
  const uint32_t bit_rate = QMXUtil_GetMP3Info(bytes.data(), bytes.size(), &info, nullptr);
  if (!found) {
    ASSERT_EQ(bit_rate, 0u);
    ASSERT_EQ(info.format + info.sampleRate + info.channels + info.bitRate, 1u + 2 + 3 + 7);
    return;
  }
  ASSERT_EQ(info.format, 85u);
  ASSERT_EQ(info.bitRate, bit_rate);
  ASSERT_EQ(info.channels, (header & 0xC0) == 0xC0 ? 1u : 2u);
  const uint32_t unpadded = model_frame_length(header) - (header >> 9 & 1);
  ASSERT_EQ(samples / 8 * bit_rate / info.sampleRate, unpadded) << std::hex << header;
  ASSERT_EQ(info.reserved[0] + info.reserved[1] + info.reserved[2], 15u);
}

TEST_F(AudioTest, SearchEndsWhereAPlainScanEnds) {
  std::mt19937 random(3);
  const auto byte = [&random] {  // sync bytes and second bytes of headers are common
    const uint32_t r = static_cast<uint32_t>(random());
    return static_cast<char>(r % 4 == 0 ? 0xFF : r % 4 == 1 ? 0xFB : r >> 8);
  };
  for (int round = 0; round < 3000; ++round) {
    std::string garbage(random() % 300, '\0');
    std::generate(garbage.begin(), garbage.end(), byte);
    std::string stream = frames(random, static_cast<int>(random() % 7));
    if (random() % 4 == 0 && !stream.empty()) stream[random() % stream.size()] ^= 0x40;
    if (random() % 3 == 0) stream.resize(stream.size() - random() % (stream.size() + 1));
    ASSERT_NO_FATAL_FAILURE(expect_search_as_model(garbage + stream)) << "round " << round;
  }
  for (const std::string& data :
       {std::string(), std::string("\xFF\xFB\x90\x64", 4), std::string(5000, '\xFF'), std::string(5000, '\0'),
        std::string("\xFF\xFB\x90\x64\0", 5)}) {
    ASSERT_NO_FATAL_FAILURE(expect_search_as_model(data));
  }
}

TEST_F(AudioTest, WalkingFromFrameToFrameVisitsEveryFrame) {
  std::mt19937 random(4);
  const std::string stream = frames(random, 50);
  const GuardedBytes bytes("ID3" + stream);
  const uint8_t* position = bytes.data();
  uint32_t remaining = bytes.size(), length = 0;
  int count = 0;
  for (; QMXUtil_GetMP3Frame(&position, &remaining, &length, nullptr) != nullptr; ++count) {
    position += length;
    remaining -= length;
  }
  EXPECT_EQ(count, 50);
  EXPECT_EQ(remaining, 0u);
}

TEST_F(AudioTest, AacConfiguration) {
  for (uint32_t word = 0; word < 0x10000; word += 13) {
    const GuardedBytes config(header_bytes(word).substr(2));
    AudioInfo info = {1, 2, 3, {4, 5, 6}, 7};
    static const uint32_t rates[16] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050,
                                       16000, 12000, 11025, 8000,  0,     0,     0,     0};
    ASSERT_EQ(QMXUtil_UtilGetLATMInfo(config.data(), 2, &info), rates[word >> 7 & 15]);
    ASSERT_EQ(info.sampleRate, rates[word >> 7 & 15]);
    ASSERT_EQ(info.channels, word >> 3 & 15);
    ASSERT_EQ(info.format + info.bitRate, 8u);
  }
}

TEST_F(AudioTest, SamplesPerFrameByFormatCode) {
  const std::pair<uint32_t, uint32_t> known[] = {{1, 1600},   {2, 1024},   {17, 1024}, {85, 1152},
                                                 {253, 2048}, {254, 2048}, {255, 1024}};
  for (const auto& [format, samples] : known) EXPECT_EQ(QMXUtil_GetAudioSampleSize(format), samples);
  for (const uint32_t format : {0u, 3u, 86u, 256u, UINT32_MAX})
    EXPECT_EQ(QMXUtil_GetAudioSampleSize(format), 0u);
}

}  // namespace
