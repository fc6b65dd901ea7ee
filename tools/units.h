// Start code units and length-prefixed ones: what the stream commands do with NAL units before and after the
// library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

// What stands after a start code prefix, up to the next one less trailing zeros.
struct StartCodeUnit {
  size_t offset;  // of its start code
  std::span<const uint8_t> bytes;
};

// Walks the units of a stream, found by the library's search. It needs a byte after the last unit: `bytes`
// must be followed by a readable zero.
class UnitReader {
 public:
  explicit UnitReader(std::span<const uint8_t> bytes);
  bool next(StartCodeUnit& unit);

 private:
  bool find();

  std::span<const uint8_t> bytes_;
  const uint8_t* position_;
  uint32_t remaining_;
  bool found_;
  const uint8_t* start_;   // of the start code found, its zeros included
  const uint8_t* header_;  // after it
};

std::vector<StartCodeUnit> start_code_units(std::span<const uint8_t> bytes);

// Units one after another, each after a four-byte start code: the form that the library's readers of
// parameter sets and its conversions take.
std::vector<uint8_t> byte_stream(const std::vector<StartCodeUnit>& units);

using Lengths = std::vector<size_t>;  // of NAL units, in order

// The units of a sample, which stand after lengths; nothing when they do not fill it exactly.
std::optional<Lengths> sample_units(std::span<const uint8_t> sample, size_t length_bytes = 4);

// The parameter sets of a configuration record (ISO/IEC 14496-15, 5.3.3.1 and 8.3.3.1), of a whole hvcC or of
// its arrays alone; nothing when the record is cut short.
std::optional<Lengths> avcc_units(std::span<const uint8_t> record);
std::optional<Lengths> hvcc_units(std::span<const uint8_t> arrays);

// A record or a sample in start-code form, as `convert` of the library makes it in place. Throws CommandError
// when it is cut short, or when not every one of its units has come through.
std::vector<uint8_t> to_start_codes(std::span<const uint8_t> bytes, const std::optional<Lengths>& units,
                                    const std::function<void(uint8_t*, uint32_t*)>& convert);

constexpr size_t kHvccArrays = 22;  // offset of numOfArrays in an hvcC

constexpr int h264_type(const StartCodeUnit& unit) { return unit.bytes[0] & 0x1F; }
constexpr int h265_type(const StartCodeUnit& unit) { return unit.bytes[0] >> 1 & 0x3F; }
// Of the base layer; but for a PPS of the lowest sub-layer (ISO/IEC 23008-2, 7.4.2.2).
constexpr bool is_h265_set(const StartCodeUnit& unit) {
  return h265_type(unit) >= 32 && h265_type(unit) <= 34 && unit.bytes[0] % 2 == 0 && unit.bytes.size() > 2 &&
         unit.bytes[1] >> 3 == 0 && (unit.bytes[0] == 0x44 || unit.bytes[1] == 1);
}
