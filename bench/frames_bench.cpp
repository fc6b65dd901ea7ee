// Cutting elementary-stream files into frames, beside a parser that does the same and beside reading alone.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench_rows.h"
#include "qmx_file.h"
#include "qmxutil_video.h"

#ifdef HAVE_AVCODEC
extern "C" {
#include <libavcodec/avcodec.h>
}
#endif

namespace {

constexpr size_t kCachedBytes = 12'000'000;      // stays in the processor's cache from run to run
constexpr size_t kRecordingBytes = 200'000'000;  // does not, as a recording does not
constexpr int64_t kBlock = 65536;

// A file that is gone when the program ends.
struct TempFile {
  explicit TempFile(const std::string& content) {
    char name[] = "/tmp/qmxutil-bench-XXXXXX";
    const int descriptor = mkstemp(name);
    if (descriptor < 0 ||
        write(descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
      std::abort();
    }
    close(descriptor);
    path = name;
  }
  ~TempFile() { unlink(path.c_str()); }
  std::string path;
};

// A NAL unit of `size` bytes as entropy coding leaves them: noise in which no start code can be seen.
std::string nal_unit(const std::string& header, size_t size, std::mt19937& random) {
  std::string unit = std::string("\0\0\0\1", 4) + header;
  int zeros = 0;
  while (unit.size() < size) {
    uint8_t byte = static_cast<uint8_t>(random());
    if (zeros >= 2 && byte <= 3) byte = 0x5A;
    zeros = byte == 0 ? zeros + 1 : 0;
    unit += static_cast<char>(byte);
  }
  unit.back() = '\x5A';
  return unit;
}

struct Stream {
  bool h265;
  size_t frames;
  TempFile file;
};

// Parameter sets of an encoder, an intra picture, predicted pictures, all of about `frame_bytes`.
Stream make_stream(bool h265, size_t frame_bytes, size_t file_bytes) {
  static const unsigned char h264_sets[] = {0x00, 0x00, 0x00, 0x01, 0x67, 0x64, 0x00, 0x0D, 0xAC, 0xD9,
                                            0x41, 0x60, 0x96, 0xC0, 0x44, 0x00, 0x00, 0x03, 0x00, 0x04,
                                            0x00, 0x00, 0x03, 0x00, 0xF0, 0x3C, 0x50, 0xA6, 0x58, 0x00,
                                            0x00, 0x00, 0x01, 0x68, 0xEB, 0xE0, 0xE4, 0xB2, 0x2C};
  static const unsigned char h265_sets[] = {
      0x00, 0x00, 0x00, 0x01, 0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90,
      0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3C, 0x92, 0x80, 0x90, 0x00, 0x00, 0x00, 0x01, 0x42, 0x01,
      0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3C, 0xA0,
      0x16, 0x20, 0x24, 0x59, 0x64, 0xA9, 0x24, 0xCA, 0xF0, 0x16, 0x80, 0x80, 0x00, 0x00, 0x03, 0x00, 0x80,
      0x00, 0x00, 0x0C, 0x84, 0x00, 0x00, 0x00, 0x01, 0x44, 0x01, 0xC1, 0x72, 0xB4, 0x62, 0x40};
  std::mt19937 random(7);
  std::string content =
      h265 ? std::string(h265_sets, std::end(h265_sets)) : std::string(h264_sets, std::end(h264_sets));
  const std::string intra = h265 ? std::string("\x26\x01\xAF", 3) : std::string("\x65\x88\x84", 3);
  const std::string predicted = h265 ? std::string("\x02\x01\xD0", 3) : std::string("\x41\x9A\x22", 3);
  size_t frames = 0;
  for (; content.size() < file_bytes; ++frames) {
    const size_t size = frame_bytes / 2 + random() % frame_bytes;
    content += nal_unit(frames == 0 ? intra : predicted, size, random);
  }
  return {h265, frames, TempFile(content)};
}

// Made when it is first used.
template <bool h265, size_t frame_bytes, size_t file_bytes>
const Stream& stream_of() {
  static const Stream stream = make_stream(h265, frame_bytes, file_bytes);
  return stream;
}

FILE* open(const Stream& stream) { return QMX_FileOpen(stream.file.path.c_str(), QMX_FILE_READ); }

void cut_ours(benchmark::State& state, const Stream& stream) {
  std::vector<uint8_t> buffer(1 << 20);
  const auto read = stream.h265 ? UtilVideo_H265_ReadOneFrame : UtilVideo_H264_ReadOneFrame;
  for (auto _ : state) {
    FILE* const file = open(stream);
    size_t frames = 0;
    while (read(file, buffer.data(), static_cast<uint32_t>(buffer.size())) > 0) ++frames;
    QMX_FileClose(file);
    if (frames < stream.frames || frames > stream.frames + 1) state.SkipWithError("frames are missing");
  }
}

void read_blocks(benchmark::State& state, const Stream& stream) {
  std::vector<uint8_t> block(kBlock);
  for (auto _ : state) {
    FILE* const file = open(stream);
    while (QMX_FileRead(file, block.data(), kBlock) > 0) benchmark::DoNotOptimize(block.data());
    QMX_FileClose(file);
  }
}

#ifdef HAVE_AVCODEC
void cut_avcodec(benchmark::State& state, const Stream& stream) {
  av_log_set_level(AV_LOG_QUIET);
  const AVCodecID id = stream.h265 ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264;
  std::vector<uint8_t> block(kBlock + AV_INPUT_BUFFER_PADDING_SIZE);
  for (auto _ : state) {
    AVCodecParserContext* const parser = av_parser_init(id);
    AVCodecContext* context = avcodec_alloc_context3(avcodec_find_decoder(id));
    FILE* const file = open(stream);
    size_t frames = 0;
    int got;
    do {
      got = static_cast<int>(QMX_FileRead(file, block.data(), kBlock));
      if (got < 0) got = 0;
      const uint8_t* data = block.data();
      int left = got;
      do {  // with nothing left, once: the last frame comes out
        uint8_t* frame;
        int size;
        const int used =
            av_parser_parse2(parser, context, &frame, &size, data, left, AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        data += used;
        left -= used;
        frames += size > 0;
      } while (left > 0);
    } while (got > 0);
    QMX_FileClose(file);
    avcodec_free_context(&context);
    av_parser_close(parser);
    if (frames != stream.frames) state.SkipWithError("frames are missing");
  }
}
#endif

void add_parser_row([[maybe_unused]] const std::string& work, [[maybe_unused]] const Stream& (*stream)(),
                    [[maybe_unused]] double bar) {
#ifdef HAVE_AVCODEC
  bench::add_row(
      work, "libavcodec's parser", bar, [stream](benchmark::State& state) { cut_ours(state, stream()); },
      [stream](benchmark::State& state) { cut_avcodec(state, stream()); });
#endif
}

// No bar: what standard I/O copies, and asks the kernel at each seek, is the stand-in's and not the device's.
void add_reading_row(const std::string& work, const Stream& (*stream)()) {
  bench::add_system_row(
      work, "reading it in 64 KiB blocks", 0,
      [stream](benchmark::State& state) { cut_ours(state, stream()); },
      [stream](benchmark::State& state) { read_blocks(state, stream()); });
}

const bench::Rows rows([] {
#ifndef HAVE_AVCODEC
  bench::add_note("libavcodec is not installed: its rows are left out");
#endif
  add_parser_row("cutting an H.264 file, frames of 34 KB", stream_of<false, 34'000, kCachedBytes>, 0.6);
  add_parser_row("cutting an H.264 file, frames of 0.8 KB", stream_of<false, 800, kCachedBytes>, 0.95);
  add_parser_row("cutting an H.265 file, frames of 34 KB", stream_of<true, 34'000, kCachedBytes>, 0.4);
  add_reading_row("cutting an H.264 file of 12 MB, frames of 34 KB", stream_of<false, 34'000, kCachedBytes>);
  add_reading_row("cutting an H.264 file of 12 MB, frames of 0.8 KB", stream_of<false, 800, kCachedBytes>);
  add_reading_row("cutting an H.264 file of 200 MB, frames of 34 KB",
                  stream_of<false, 34'000, kRecordingBytes>);
});

}  // namespace
