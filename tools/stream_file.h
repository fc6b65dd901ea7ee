// What the stream commands share: a file in memory, what kind of stream it is, its start code units.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class StreamKind {
  kUnknown,
  kMp3,
  kH264,
  kH265,
  kAvcc,
  kHvcc,
  kMpeg12,
  kMpeg4,
  kAacConfiguration,
};

struct StreamFile {
  std::vector<uint8_t> buffer;  // the bytes and one zero more, for start_code_units()
  uint64_t file_size = 0;       // may be more than was read

  std::span<const uint8_t> bytes() const { return {buffer.data(), buffer.size() - 1}; }
};

// Reads at most `limit` bytes of a file; throws CommandError when it cannot, or when it is empty.
StreamFile read_stream(const std::string& path, size_t limit);

// What the library recognises in the bytes.
StreamKind stream_kind(const StreamFile& file);

// Short name for scripts ("h264") and one for people ("H.264 byte stream").
const char* kind_id(StreamKind kind);
const char* kind_name(StreamKind kind);

// What stands behind a start code prefix, up to the next one less trailing zeros.
struct StartCodeUnit {
  size_t offset;  // of its start code
  std::span<const uint8_t> bytes;
};

// The units of a stream, found by the library's search. It needs a byte behind the last unit: `bytes` must be
// followed by a readable zero.
std::vector<StartCodeUnit> start_code_units(std::span<const uint8_t> bytes);

// The units behind one another, each behind a four-byte start code: the form that the library's readers of
// parameter sets and its conversions take.
std::vector<uint8_t> byte_stream(const std::vector<StartCodeUnit>& units);

// The parameter sets among the units, each once: SPS and PPS; VPS, SPS and PPS.
std::vector<StartCodeUnit> h264_parameter_sets(const std::vector<StartCodeUnit>& units);
std::vector<StartCodeUnit> h265_parameter_sets(const std::vector<StartCodeUnit>& units);

constexpr int h264_type(const StartCodeUnit& unit) { return unit.bytes[0] & 0x1F; }
constexpr int h265_type(const StartCodeUnit& unit) { return unit.bytes[0] >> 1 & 0x3F; }
