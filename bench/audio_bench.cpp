// MP3: walking a stream, and finding its first frame, beside the same work written out by hand.
#include <cstring>
#include <random>
#include <vector>

#include "bench_rows.h"
#include "qmxutil_audio.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A minimp3-style reader of headers: it looks at the bytes it needs and keeps nothing.
bool peer_is_header(const uint8_t* h) {
  return h[0] == 0xFF && (h[1] & 0xE6) == 0xE2 && h[2] >> 4 != 0 && h[2] >> 4 != 15 && (h[2] >> 2 & 3) != 3;
}
uint32_t peer_frame_length(const uint8_t* h) {
  static const uint8_t half_rate[2][15] = {{0, 4, 8, 12, 16, 20, 24, 28, 32, 40, 48, 56, 64, 72, 80},
                                           {0, 16, 20, 24, 28, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160}};
  static const uint32_t hz[3] = {44100, 48000, 32000};
  const uint32_t mpeg1 = h[1] >> 3 & 1, not_mpeg25 = h[1] >> 4 & 1;
  const uint32_t samples = 1152 >> (1 - mpeg1);
  const uint32_t rate = hz[h[2] >> 2 & 3] >> (1 - mpeg1) >> (1 - not_mpeg25);
  return samples * (2u * half_rate[mpeg1][h[2] >> 4]) * 125 / rate + (h[2] >> 1 & 1);
}

// Frames of 128 kbit/s at 44100 Hz, padded as an encoder pads them.
Bytes mp3_stream(size_t size) {
  Bytes stream;
  std::mt19937 random(1);
  for (uint32_t rest = 0; stream.size() < size;) {
    rest += 144 * 128000 % 44100;
    const bool padded = rest >= 44100;
    if (padded) rest -= 44100;
    const size_t at = stream.size();
    stream.resize(at + 417 + padded);
    for (size_t i = at; i < stream.size(); ++i) stream[i] = static_cast<uint8_t>(random());
    const uint8_t header[4] = {0xFF, 0xFB, static_cast<uint8_t>(padded ? 0x92 : 0x90), 0x64};
    std::memcpy(&stream[at], header, 4);
  }
  return stream;
}

void walk_ours(benchmark::State& state) {
  static const Bytes stream = mp3_stream(10'000'000);
  for (auto _ : state) {
    const uint8_t* position = stream.data();
    uint32_t remaining = static_cast<uint32_t>(stream.size()), length, frames = 0;
    while (QMXUtil_GetMP3Frame(&position, &remaining, &length, nullptr) != nullptr && length <= remaining) {
      position += length;
      remaining -= length;
      ++frames;
    }
    benchmark::DoNotOptimize(frames);
  }
}

void walk_peer(benchmark::State& state) {
  static const Bytes stream = mp3_stream(10'000'000);
  for (auto _ : state) {
    const uint8_t* position = stream.data();
    size_t remaining = stream.size();
    uint32_t frames = 0;
    while (remaining > 4 && peer_is_header(position)) {
      const uint32_t length = peer_frame_length(position);
      if (length > remaining) break;
      position += length;
      remaining -= length;
      ++frames;
    }
    benchmark::DoNotOptimize(frames);
  }
}

// The least that finds every frame of this stream: its rates are known, the padding is not.
void walk_headers(benchmark::State& state) {
  static const Bytes stream = mp3_stream(10'000'000);
  for (auto _ : state) {
    const uint8_t *position = stream.data(), *const end = position + stream.size();
    uint32_t frames = 0;
    while (end - position >= 4) {
      uint32_t header;
      std::memcpy(&header, position, 4);
      position += 417 + (__builtin_bswap32(header) >> 9 & 1);
      ++frames;
    }
    benchmark::DoNotOptimize(frames);
  }
}

Bytes behind(bool noise) {
  Bytes data(1 << 20);
  std::mt19937 random(2);
  if (noise) {
    for (uint8_t& byte : data) byte = static_cast<uint8_t>(random());
  }
  const Bytes stream = mp3_stream(4000);
  data.insert(data.end(), stream.begin(), stream.end());
  return data;
}

void find_ours(benchmark::State& state, const Bytes& data) {
  for (auto _ : state) {
    const uint8_t* position = data.data();
    uint32_t remaining = static_cast<uint32_t>(data.size());
    const uint8_t* const frame = QMXUtil_GetMP3Frame(&position, &remaining, nullptr, nullptr);
    if (frame != data.data() + (1 << 20)) state.SkipWithError("no frame");
  }
}

void find_peer(benchmark::State& state, const Bytes& data) {
  for (auto _ : state) {
    const uint8_t* const end = data.data() + data.size();
    const uint8_t* position = data.data();
    for (;; ++position) {
      position = static_cast<const uint8_t*>(memchr(position, 0xFF, static_cast<size_t>(end - position)));
      if (position == nullptr || end - position < 4) break;
      if (!peer_is_header(position)) continue;
      const uint8_t* next = position;
      int confirmed = 0;
      for (; confirmed < 3; ++confirmed) {
        next += peer_frame_length(next);
        if (end - next < 4 || !peer_is_header(next)) break;
      }
      if (confirmed == 3) break;
    }
    if (position != data.data() + (1 << 20)) state.SkipWithError("no frame");
  }
}

const bench::Rows rows([] {
  static const Bytes noise = behind(true), zeros = behind(false);
  bench::add_row("MP3: walking all frames of 10 MB", "the same by hand", 1.4, walk_ours, walk_peer);
  bench::add_row("MP3: walking all frames of 10 MB", "one header load a frame", 0, walk_ours, walk_headers);
  for (const auto& [name, data] : {std::pair{"noise", &noise}, std::pair{"zeros", &zeros}}) {
    bench::add_row(
        std::string("MP3: first frame behind 1 MiB of ") + name, "memchr by hand", 1.2,
        [d = data](benchmark::State& state) { find_ours(state, *d); },
        [d = data](benchmark::State& state) { find_peer(state, *d); });
  }
});

}  // namespace
