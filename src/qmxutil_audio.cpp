// Audio stream headers: MP3 frame headers and the search for them, AAC configuration, samples per frame.
#include "qmxutil_audio.h"

#include <array>
#include <cstring>
#include <iterator>
#include <optional>

#include "internal/big_endian.h"
#include "internal/trace.h"

using namespace qmxutil;

// ---- Tables

// ISO/IEC 11172-3, 2.4.2.3 and ISO/IEC 13818-3, 2.4.2.3; the last row is MPEG-2.5.
constexpr uint32_t MP3SampleRate[9] = {
    44100, 48000, 32000,  //
    22050, 24000, 16000,  //
    11025, 12000, 8000,
};

// ISO/IEC 11172-3, 2.4.2.3 and ISO/IEC 13818-3, 2.4.2.3.
constexpr uint32_t MP3Bitrate[2][3][16] = {
    {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
     {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0}},
    {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0}},
};

constexpr uint32_t MP3SampleNum[8] = {0, 384, 1152, 1152, 0, 384, 1152, 576};

// ISO/IEC 14496-3, 1.6.3.4.
constexpr uint32_t AACSampleRates[12] = {96000, 88200, 64000, 48000, 44100, 32000,
                                         24000, 22050, 16000, 12000, 11025, 8000};

namespace {

constexpr char MODULE[] = "utilaudio";

constexpr uint32_t bits(uint32_t word, uint32_t lowest, uint32_t count) {
  return word >> lowest & ((1u << count) - 1);
}

}  // namespace

// ---- MP3 frame headers

namespace {

constexpr uint32_t kHeaderBytes = 4;
constexpr uint32_t kLayer3 = 3;
constexpr uint32_t kReservedSampleRate = 9;  // MPEG-2.5 with the reserved code: no entry in MP3SampleRate

// Bit 20 is 0 for MPEG-2.5; bit 19 tells MPEG-1 from MPEG-2.
constexpr uint32_t is_mpeg25(uint32_t header) { return bits(header, 20, 1) ^ 1; }
constexpr uint32_t is_lsf(uint32_t header) { return is_mpeg25(header) | (bits(header, 19, 1) ^ 1); }
constexpr uint32_t bitrate_index(uint32_t header) { return bits(header, 12, 4); }
constexpr uint32_t padding_bit(uint32_t header) { return bits(header, 9, 1); }
constexpr uint32_t sample_rate_index(uint32_t header) {
  return (is_lsf(header) + is_mpeg25(header)) * 3 + bits(header, 10, 2);
}

// Bytes of a Layer III frame with its header, before padding. The sample rate must not be the reserved one.
constexpr uint32_t unpadded_length(uint32_t header) {
  const uint32_t lsf = is_lsf(header);
  return MP3Bitrate[lsf][kLayer3 - 1][bitrate_index(header)] * 144000 /
         (MP3SampleRate[sample_rate_index(header)] << lsf);
}

// The same without the header, with padding; 0 where there is no length to tell.
uint32_t layer3_frame_size(uint32_t header) {
  if (bitrate_index(header) == 0 || sample_rate_index(header) == kReservedSampleRate) return 0;
  return unpadded_length(header) + padding_bit(header) - kHeaderBytes;
}

constexpr uint32_t kSyncAndLayer = 0xFFE60000;
constexpr uint32_t kSyncAndLayer3 = 0xFFE20000;

// All else that makes a header accepted, and the length of its frame, stands in the version bits and in
// bitrate_index and sampling_frequency: a table saves the walk from frame to frame tests and a division.
constexpr uint32_t length_index(uint32_t header) { return bits(header, 19, 2) << 6 | bits(header, 10, 6); }

constexpr auto kUnpaddedLengths = [] {
  std::array<uint16_t, 256> lengths{};  // 0: free format, the forbidden bit rate, the reserved sample rate
  for (uint32_t version = 0; version < 4; ++version) {
    for (uint32_t code = 0; code < 64; ++code) {
      const uint32_t header = version << 19 | code << 10;
      if (bits(header, 10, 2) == 3) continue;
      lengths[length_index(header)] = static_cast<uint16_t>(unpadded_length(header));
    }
  }
  return lengths;
}();

// Bytes of the frame of an accepted header, 0 for any other word.
uint32_t accepted_length(uint32_t header) {
  if ((header & kSyncAndLayer) != kSyncAndLayer3) return 0;
  const uint32_t length = kUnpaddedLengths[length_index(header)];
  return length != 0 ? length + padding_bit(header) : 0;
}

}  // namespace

uint8_t UtilCheck_mp3header(uint32_t header) { return accepted_length(header) != 0; }

uint32_t UtilDecode_mp3header(MP3HeaderInfo* out, uint32_t header) {
  out->id = header & 0x80000;
  out->layer = 4 - bits(header, 17, 2);
  out->crc = bits(header, 16, 1) ^ 1;  // protection_bit is 0 when there is one
  out->bitrateIndex = bitrate_index(header);
  out->sampleRateIndex = sample_rate_index(header);
  out->padding = padding_bit(header);
  out->privateBit = bits(header, 8, 1);
  out->mode = bits(header, 6, 2);
  out->modeExtension = bits(header, 4, 2);
  out->copyBit = bits(header, 3, 1);
  out->originalBit = bits(header, 2, 1);
  out->emphasis = bits(header, 0, 2);
  out->lsf = is_lsf(header);
  out->mpeg25 = is_mpeg25(header);
  out->channels = out->mode == 3 ? 1 : 2;

  const uint32_t crc_bytes = out->crc * 2;
  if (out->layer != kLayer3) {
    TRACE_ERROR("[Reader]\tSorry, layer %d not supported\n", static_cast<int>(out->layer));
    return crc_bytes;
  }
  out->frameSize = layer3_frame_size(header);
  constexpr uint32_t kSideInfoBytes[2][2] = {{17, 32}, {9, 17}};  // by lsf and channels - 1
  return kSideInfoBytes[out->lsf][out->channels - 1] + crc_bytes;
}

// ---- MP3 frames

namespace {

constexpr uint8_t kSyncByte = 0xFF;
constexpr int kConfirmingHeaders = 3;

uint32_t layer3_samples(uint32_t header) { return MP3SampleNum[is_lsf(header) * 4 + kLayer3]; }

// Where a search ended, and the bytes of the frame that stands there; 0 when there is none.
struct Search {
  const uint8_t* position;
  uint32_t frame_length;
};

// Whether headers follow an accepted one at the decoded distances; nothing when the data ends first.
std::optional<bool> is_confirmed(const uint8_t* data, uint32_t length, uint32_t frame_length) {
  uint32_t distance = 0;
  for (int i = 0; i < kConfirmingHeaders; ++i) {
    distance += frame_length;
    if (length - kHeaderBytes < distance) return std::nullopt;
    frame_length = accepted_length(load_be32(data + distance));
    if (frame_length == 0) return false;
  }
  return true;
}

// The first position in [position, last) whose byte is the sync byte, or `last`.
const uint8_t* find_sync_byte(const uint8_t* position, const uint8_t* last) {
  if (position < last && *position == kSyncByte) return position;  // runs of it are not worth a call each
  const void* const found = std::memchr(position, kSyncByte, static_cast<size_t>(last - position));
  return found != nullptr ? static_cast<const uint8_t*>(found) : last;
}

// Scans from the second byte on. A frame needs more than the four bytes of its header, so the search ends at
// the last four.
Search find_confirmed_frame(const uint8_t* data, uint32_t length) {
  const uint8_t* const last = data + (length - kHeaderBytes);
  for (const uint8_t* position = data + 1;; ++position) {
    position = find_sync_byte(position, last);
    if (position == last) return {last, 0};
    const uint32_t frame_length = accepted_length(load_be32(position));
    if (frame_length == 0) continue;
    const uint32_t left = length - static_cast<uint32_t>(position - data);
    const std::optional<bool> confirmed = is_confirmed(position, left, frame_length);
    if (!confirmed) return {position, 0};
    if (*confirmed) return {position, frame_length};
  }
}

// In line, because most calls walk from frame to frame and end here.
[[gnu::always_inline]] inline Search find_frame(const uint8_t* data, uint32_t length) {
  if (length <= kHeaderBytes) return {data, 0};
  const uint32_t frame_length = accepted_length(load_be32(data));
  return frame_length != 0 ? Search{data, frame_length} : find_confirmed_frame(data, length);
}

}  // namespace

const uint8_t* QMXUtil_GetMP3Frame(const uint8_t** data, uint32_t* remaining, uint32_t* frameLength,
                                   uint32_t* samplesPerFrame) {
  const Search search = find_frame(*data, *remaining);
  *remaining -= static_cast<uint32_t>(search.position - *data);
  *data = search.position;
  if (search.frame_length == 0) return nullptr;
  if (frameLength != nullptr) *frameLength = search.frame_length;
  if (samplesPerFrame != nullptr) *samplesPerFrame = layer3_samples(load_be32(search.position));
  return search.position;
}

uint32_t QMXUtil_GetMP3Info(const uint8_t* data, uint32_t length, AudioInfo* info,
                            uint32_t* samplesPerFrame) {
  const Search search = find_frame(data, length);
  if (search.frame_length == 0) return 0;
  const uint32_t header = load_be32(search.position);
  if (samplesPerFrame != nullptr) *samplesPerFrame = layer3_samples(header);
  info->format = QMX_AUDIO_FORMAT_MP3;
  info->sampleRate = MP3SampleRate[sample_rate_index(header)];
  info->channels = bits(header, 6, 2) == 3 ? 1 : 2;
  info->bitRate = MP3Bitrate[is_lsf(header)][kLayer3 - 1][bitrate_index(header)] * 1000;
  return info->bitRate;
}

// ---- AAC, and all formats

uint32_t QMXUtil_UtilGetLATMInfo(const uint8_t* config, uint32_t, AudioInfo* info) {
  const uint32_t word = load_be16(config);
  const uint32_t sampling_frequency_index = bits(word, 7, 4);
  info->channels = bits(word, 3, 4);
  info->sampleRate =
      sampling_frequency_index < std::size(AACSampleRates) ? AACSampleRates[sampling_frequency_index] : 0;
  return info->sampleRate;
}

uint32_t QMXUtil_GetAudioSampleSize(uint32_t format) {
  switch (format) {
    case 1:
      return 1600;
    case 2:
    case 17:
      return 1024;
    case QMX_AUDIO_FORMAT_MP3:
      return 1152;
    case 253:
    case 254:
      return 2048;
    case 255:
      return 1024;
    default:
      return 0;
  }
}
