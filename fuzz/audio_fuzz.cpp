// MP3 headers and frame search: nothing outside the bytes, the search only moves forward, and what it finds
// is a frame that the decoder agrees with.
#include <cstdint>
#include <cstdlib>

#include "qmxutil_audio.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

uint32_t header_at(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

void walk(const uint8_t* data, uint32_t size) {
  const uint8_t* position = data;
  uint32_t remaining = size;
  for (;;) {
    uint32_t length = 0, samples = 0;
    const uint8_t* const before = position;
    const uint8_t* const frame = QMXUtil_GetMP3Frame(&position, &remaining, &length, &samples);
    require(position >= before && position + remaining == data + size);
    if (frame == nullptr) return;
    require(frame == position && remaining > 4 && UtilCheck_mp3header(header_at(frame)) == 1);
    MP3HeaderInfo info = {};
    require(UtilDecode_mp3header(&info, header_at(frame)) <= 34);
    require(info.frameSize + 4 == length && MP3SampleNum[info.lsf * 4 + info.layer] == samples);
    if (length > remaining) return;
    position += length;
    remaining -= length;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  walk(data, static_cast<uint32_t>(size));
  AudioInfo info = {};
  const uint32_t bit_rate = QMXUtil_GetMP3Info(data, static_cast<uint32_t>(size), &info, nullptr);
  require(info.bitRate == bit_rate && (bit_rate != 0) == (info.sampleRate != 0));
  MP3HeaderInfo header = {};
  if (size >= 4) UtilDecode_mp3header(&header, header_at(data));
  for (uint32_t format = 0; format < 256; ++format) require(QMXUtil_GetAudioSampleSize(format) <= 2048);
  if (size >= 2) require(QMXUtil_UtilGetLATMInfo(data, 2, &info) == info.sampleRate && info.channels < 16);
  return 0;
}
