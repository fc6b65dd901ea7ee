// Video: emulation prevention, samples and configuration records beside the same work written out by hand
// with the C library, and beside GStreamer's codec parsers.
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "bench_rows.h"
#include "qmxutil_video.h"

#ifdef HAVE_GST_CODECPARSERS
#define GST_USE_UNSTABLE_API
#include <gst/codecparsers/gsth264parser.h>
#endif

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kMiB = 1 << 20;

uint8_t* find(uint8_t* from, uint8_t* end, const void* pattern, size_t size) {
  return static_cast<uint8_t*>(memmem(from, static_cast<size_t>(end - from), pattern, size));
}

// ---- Emulation prevention

Bytes random_bytes(size_t size, double zeros) {
  std::mt19937 random(1);
  std::bernoulli_distribution zero(zeros);
  Bytes bytes(size);
  for (uint8_t& byte : bytes) byte = zero(random) ? 0 : static_cast<uint8_t>(random());
  return bytes;
}

// Bytes without zeros, and an emulation prevention byte every so often.
Bytes emulation_prevention_every(size_t distance) {
  Bytes bytes(kMiB);
  std::mt19937 random(1);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(1 + random() % 255);
  for (size_t i = distance; i + 3 < bytes.size(); i += distance) std::memcpy(&bytes[i], "\0\0\3", 3);
  return bytes;
}

void remove_by_hand(uint8_t* data, uint32_t* length) {
  uint8_t *read = data, *written = data, *const end = data + *length;
  while (uint8_t* const found = find(read, end, "\0\0\3", 3)) {
    const size_t kept = static_cast<size_t>(found + 2 - read);
    std::memmove(written, read, kept);
    written += kept;
    read = found + 3;
  }
  std::memmove(written, read, static_cast<size_t>(end - read));
  *length = static_cast<uint32_t>(written - data + (end - read));
}

void move_by_one(uint8_t* data, uint32_t* length) { std::memmove(data, data + 1, --*length); }

// Each pass works on a fresh copy, made while the clock stands still.
bench::Work in_place(const Bytes& input, void (*work)(uint8_t*, uint32_t*)) {
  return [input, work](benchmark::State& state) {
    Bytes data(input.size());
    for (auto _ : state) {
      state.PauseTiming();
      std::memcpy(data.data(), input.data(), input.size());
      uint32_t length = static_cast<uint32_t>(input.size());
      state.ResumeTiming();
      work(data.data(), &length);
      benchmark::DoNotOptimize(length);
    }
  };
}

// ---- Samples

constexpr size_t kSampleUnits = 16;
constexpr size_t kUnitSize = 32 << 10;

Bytes sample_with_start_codes() {
  Bytes sample = random_bytes(kSampleUnits * kUnitSize, 0);
  for (uint8_t& byte : sample) byte |= 2;
  for (size_t i = 0; i < kSampleUnits; ++i) std::memcpy(&sample[i * kUnitSize], "\0\0\0\1", 4);
  return sample;
}

Bytes sample_with_lengths() {
  Bytes sample = sample_with_start_codes();
  UtilConvH264FrameFromStartCode(sample.data(), static_cast<int32_t>(sample.size()));
  return sample;
}

uint32_t big_endian(uint32_t value) { return __builtin_bswap32(value); }

void start_codes_to_lengths(uint8_t* data, uint32_t* length) {
  UtilConvH264FrameFromStartCode(data, static_cast<int32_t>(*length));
}

void start_codes_to_lengths_by_hand(uint8_t* data, uint32_t* length) {
  uint8_t* const end = data + *length;
  for (uint8_t* at = find(data, end, "\0\0\0\1", 4); at != nullptr;) {
    uint8_t* const next = find(at + 4, end, "\0\0\0\1", 4);
    const uint32_t size = big_endian(static_cast<uint32_t>((next != nullptr ? next : end) - at - 4));
    std::memcpy(at, &size, 4);
    at = next;
  }
}

void lengths_to_start_codes(uint8_t* data, uint32_t* length) {
  UtilConvH264FrameToStartCode(data, static_cast<int32_t>(*length));
}

void lengths_to_start_codes_by_hand(uint8_t* data, uint32_t* length) {
  for (uint8_t *at = data, *const end = data + *length; at < end;) {
    uint32_t size;
    std::memcpy(&size, at, 4);
    std::memcpy(at, "\0\0\0\1", 4);
    at += 4 + size_t{big_endian(size)};
  }
}

// Small samples, many in a pass: the walk itself is too short for the clock. Between passes every sample is
// put back by writing its lengths again, which is part of both sides' time.
bench::Work walk_samples(void (*work)(uint8_t*, uint32_t*)) {
  return [work](benchmark::State& state) {
    Bytes sample = sample_with_lengths();
    uint32_t length = static_cast<uint32_t>(sample.size());
    const uint32_t unit = big_endian(kUnitSize - 4);
    for (auto _ : state) {
      work(sample.data(), &length);
      for (size_t i = 0; i < kSampleUnits; ++i) std::memcpy(&sample[i * kUnitSize], &unit, 4);
      benchmark::ClobberMemory();
    }
  };
}

// ---- H.264 headers

#ifdef HAVE_GST_CODECPARSERS
// Of an x264 stream: High profile, 1920x1080.
constexpr uint8_t kSps[] = {0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02,
                            0x27, 0xE5, 0xC0, 0x44, 0x00, 0x00, 0x03, 0x00, 0x04,
                            0x00, 0x00, 0x03, 0x00, 0xF0, 0x3C, 0x60, 0xC6, 0x58};
constexpr uint8_t kPps[] = {0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0};

Bytes avcc() {
  Bytes record(8 + sizeof kSps + 3 + sizeof kPps);
  const uint8_t head[] = {1, kSps[1], kSps[2], kSps[3], 0xFF, 0xE1, 0, sizeof kSps};
  const uint8_t pps_head[] = {1, 0, sizeof kPps};
  uint8_t* end = record.data();
  const auto put = [&end](const uint8_t* bytes, size_t size) {
    std::memcpy(end, bytes, size);
    end += size;
  };
  put(head, sizeof head);
  put(kSps, sizeof kSps);
  put(pps_head, sizeof pps_head);
  put(kPps, sizeof kPps);
  return record;
}

void sps_ours(benchmark::State& state) {
  for (auto _ : state) {
    VideoInfo size;
    H264ProfileInfo profile;
    UtilGetSPSPPSInfo(kSps + 1, sizeof kSps - 1, &size, &profile);
    if (size.width != 1920) abort();
    benchmark::DoNotOptimize(size);
  }
}

void sps_gstreamer(benchmark::State& state) {
  GstH264NalParser* const parser = gst_h264_nal_parser_new();
  GstH264NalUnit nal;
  Bytes stream(4 + sizeof kSps);
  std::memcpy(stream.data(), "\0\0\0\1", 4);
  std::memcpy(stream.data() + 4, kSps, sizeof kSps);
  gst_h264_parser_identify_nalu_unchecked(parser, stream.data(), 0, stream.size(), &nal);
  for (auto _ : state) {
    GstH264SPS sps;
    if (gst_h264_parse_sps(&nal, &sps) != GST_H264_PARSER_OK || sps.width != 1920) abort();
    gst_h264_sps_clear(&sps);
    benchmark::DoNotOptimize(sps);
  }
  gst_h264_nal_parser_free(parser);
}

void avcc_ours(benchmark::State& state) {
  const Bytes record = avcc();
  for (auto _ : state) {
    H264ProfileInfo profile;
    if (!QMXUtil_GetH264Info(record.data(), static_cast<uint32_t>(record.size()), nullptr, &profile)) abort();
    benchmark::DoNotOptimize(profile);
  }
}

void avcc_gstreamer(benchmark::State& state) {
  const Bytes record = avcc();
  GstH264NalParser* const parser = gst_h264_nal_parser_new();
  for (auto _ : state) {
    GstH264DecoderConfigRecord* config = nullptr;
    if (gst_h264_parser_parse_decoder_config_record(parser, record.data(), record.size(), &config) !=
        GST_H264_PARSER_OK) {
      abort();
    }
    gst_h264_decoder_config_record_free(config);
  }
  gst_h264_nal_parser_free(parser);
}
#endif

const bench::Rows rows([] {
  const struct {
    const char* work;
    Bytes data;
    double bar;
  } payloads[] = {{"emulation prevention, 1 MiB, few", emulation_prevention_every(64 << 10), 0.2},
                  {"emulation prevention, 1 MiB, one in 64 B", emulation_prevention_every(64), 0.35},
                  {"emulation prevention, 1 MiB, a quarter zeros", random_bytes(kMiB, 0.25), 0.15}};
  for (const auto& payload : payloads) {
    bench::add_row(payload.work, "memmem + memmove", payload.bar,
                   in_place(payload.data, QMXUtil_H26xRemoveEPB), in_place(payload.data, remove_by_hand));
  }
  bench::add_row("emulation prevention, 1 MiB, few", "memmove alone", 4,
                 in_place(payloads[0].data, QMXUtil_H26xRemoveEPB), in_place(payloads[0].data, move_by_one));
  bench::add_row("sample, start codes to lengths", "memmem", 0.25,
                 in_place(sample_with_start_codes(), start_codes_to_lengths),
                 in_place(sample_with_start_codes(), start_codes_to_lengths_by_hand));
  bench::add_row("sample, lengths to start codes", "the bare walk", 1.2, walk_samples(lengths_to_start_codes),
                 walk_samples(lengths_to_start_codes_by_hand));
#ifdef HAVE_GST_CODECPARSERS
  bench::add_row("H.264 SPS", "GStreamer codecparsers", 0.5, sps_ours, sps_gstreamer);
  bench::add_row("H.264 avcC", "GStreamer codecparsers", 0.5, avcc_ours, avcc_gstreamer);
#else
  bench::add_note("GStreamer's codec parsers are not installed: their rows are left out");
#endif
});

}  // namespace
