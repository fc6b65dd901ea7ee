#include "units.h"

#include <algorithm>

#include "error.h"
#include "qmxutil_string.h"

UnitReader::UnitReader(std::span<const uint8_t> bytes)
    : bytes_(bytes), position_(bytes.data()), remaining_(static_cast<uint32_t>(bytes.size() + 1)) {
  header_ = bytes.data();
  found_ = find();
}

bool UnitReader::find() {
  uint32_t code;
  if (!QMXUtil_FindStartCode(&position_, &remaining_, &code)) return false;
  start_ = position_;
  while (start_ > header_ && start_[-1] == 0) --start_;
  position_ += 3;
  remaining_ -= 3;
  return true;
}

bool UnitReader::next(StartCodeUnit& unit) {
  const uint8_t* const end = bytes_.data() + bytes_.size();
  const uint8_t* const from = position_;
  if (!found_ || from >= end) return false;
  const auto offset = static_cast<size_t>(start_ - bytes_.data());
  header_ = from + 1;  // the unit's first byte is its own, a zero too
  found_ = find();
  unit = {offset, {from, found_ ? std::max(start_, header_) : end}};
  return true;
}

std::vector<StartCodeUnit> start_code_units(std::span<const uint8_t> bytes) {
  std::vector<StartCodeUnit> units;
  UnitReader reader(bytes);
  for (StartCodeUnit unit; reader.next(unit);) units.push_back(unit);
  return units;
}

std::vector<uint8_t> byte_stream(const std::vector<StartCodeUnit>& units) {
  std::vector<uint8_t> stream;
  for (const StartCodeUnit& unit : units) {
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), unit.bytes.begin(), unit.bytes.end());
  }
  return stream;
}

namespace {

// Takes numbers and units from the front of a record; `whole` tells whether all of them were there.
struct RecordReader {
  std::span<const uint8_t> rest;
  bool whole = true;
  Lengths units = {};

  size_t number(size_t bytes) {
    size_t value = 0;
    for (size_t i = 0; i < bytes && i < rest.size(); ++i) value = value << 8 | rest[i];
    skip(bytes);
    return value;
  }
  void unit(size_t length_bytes) {
    const size_t length = number(length_bytes);
    skip(length);
    whole = whole && length > 0;
    if (whole) units.push_back(length);
  }
  void skip(size_t count) {
    whole = whole && count <= rest.size();
    rest = rest.subspan(std::min(count, rest.size()));
  }
  std::optional<Lengths> result() { return whole ? std::optional(std::move(units)) : std::nullopt; }
};

}  // namespace

std::optional<Lengths> sample_units(std::span<const uint8_t> sample, size_t length_bytes) {
  RecordReader reader{sample};
  while (reader.whole && !reader.rest.empty()) reader.unit(length_bytes);
  return reader.result();
}

std::optional<Lengths> avcc_units(std::span<const uint8_t> record) {
  RecordReader reader{record};
  reader.skip(5);
  for (size_t left = reader.number(1) & 0x1F; left > 0 && reader.whole; --left) reader.unit(2);
  for (size_t left = reader.number(1); left > 0 && reader.whole; --left) reader.unit(2);
  return reader.result();
}

std::optional<Lengths> hvcc_units(std::span<const uint8_t> arrays) {
  RecordReader reader{arrays};
  for (size_t left = reader.number(1); left > 0 && reader.whole; --left) {
    reader.skip(1);  // array_completeness, NAL_unit_type
    for (size_t units = reader.number(2); units > 0 && reader.whole; --units) reader.unit(2);
  }
  return reader.result();
}

std::vector<uint8_t> to_start_codes(std::span<const uint8_t> bytes, const std::optional<Lengths>& units,
                                    const std::function<void(uint8_t*, uint32_t*)>& convert) {
  constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
  if (!units) throw CommandError("cut short: its units do not fill it");
  std::vector<uint8_t> result(bytes.begin(), bytes.end());
  result.resize(2 * bytes.size() +
                sizeof kStartCode);  // a unit of one byte with its length takes three, and becomes five
  auto length = static_cast<uint32_t>(bytes.size());
  convert(result.data(), &length);
  result.resize(length);
  size_t at = 0;
  for (const size_t unit : *units) {
    const bool is_there =
        at + sizeof kStartCode + unit <= length &&
        std::equal(std::begin(kStartCode), std::end(kStartCode), result.begin() + static_cast<ptrdiff_t>(at));
    if (!is_there) throw CommandError("has units that cannot be converted");
    at += sizeof kStartCode + unit;
  }
  return result;
}
