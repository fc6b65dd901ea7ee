#include "stream_kind.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <utility>

#include "container.h"
#include "qmxutil_audio.h"
#include "qmxutil_video.h"
#include "units.h"

namespace {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

// ---- MPEG video

bool begins_with_start_code(View bytes) {
  const auto one = std::find_if(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte != 0; });
  return one != bytes.end() && *one == 1 && one - bytes.begin() >= 2;
}

// A sequence header of ISO/IEC 13818-2, 6.2.2.1; in ISO/IEC 14496-2 the same code begins a group of VOPs,
// which is shorter.
bool is_sequence_header(View unit) {
  constexpr size_t kLeast = 9;
  if (unit.size() < kLeast || unit[0] != 0xB3) return false;
  const uint8_t frame_rate_code = unit[4] & 0x0F;
  const bool has_marker = (unit[7] & 0x20) != 0;
  return frame_rate_code >= 1 && frame_rate_code <= 8 && has_marker;
}

// Tells MPEG-1/2 from MPEG-4 Part 2 by the last bytes of their start codes; nothing when all of them could be
// NAL unit headers, whose first bit is 0. The first has to be theirs too: an object, a layer or one of those.
std::optional<StreamKind> kind_of_mpeg(View head) {
  bool is_first = true, is_theirs = false, has_sequence = false, has_foreign = false, after_object = false;
  UnitReader units(head);
  for (StartCodeUnit unit; units.next(unit);) {
    const uint8_t code = unit.bytes[0];
    const bool is_layer = code >= 0x20 && code <= 0x2F;
    const bool is_object = code <= 0x1F && unit.bytes.size() == 1;
    if (std::exchange(is_first, false)) is_theirs = is_object || is_layer || code >= 0x80;
    if (!is_theirs && code >= 0x80) return StreamKind::kUnknown;
    if (!is_theirs) continue;
    if (is_layer && after_object) return StreamKind::kMpeg4;
    if (is_layer && has_sequence) return StreamKind::kMpeg12;
    if (code == 0xB0 || code == 0xB1 || code == 0xB6) return StreamKind::kMpeg4;
    after_object = is_object;
    has_sequence = has_sequence || is_sequence_header(unit.bytes);
    has_foreign = has_foreign || code >= 0x80;
  }
  if (has_sequence) return StreamKind::kMpeg12;
  return has_foreign ? std::optional(StreamKind::kUnknown) : std::nullopt;
}

// ---- H.264 and H.265 byte streams

// The different units of some kind, in order. More than this is no longer parameter sets.
class Sets {
 public:
  void add(const StartCodeUnit& unit) {
    constexpr size_t kMost = size_t{1} << 20;
    if (stream_.size() > kMost || !seen_.emplace(unit.bytes.begin(), unit.bytes.end()).second) return;
    const Bytes more = byte_stream({unit});
    stream_.insert(stream_.end(), more.begin(), more.end());
  }
  const Bytes& stream() const { return stream_; }
  Bytes stream_and_zero() {
    stream_.push_back(0);
    return std::move(stream_);
  }

 private:
  std::set<std::string> seen_;
  Bytes stream_;
};

// By the first bytes of a sequence parameter set (ISO/IEC 14496-10, 7.3.2.1.1), whose type alone is found in
// any data.
bool is_likely_sps(View unit) {
  constexpr uint8_t kProfiles[] = {44,  66,  77,  83,  86,  88,  100, 110, 118,
                                   122, 128, 134, 135, 138, 139, 144, 244};
  return unit.size() >= 4 && (unit[0] & 0xE0) != 0 && unit[0] < 0x80 &&
         std::ranges::find(kProfiles, unit[1]) != std::end(kProfiles) && (unit[2] & 3) == 0 && unit[3] >= 9 &&
         unit[3] <= 62;
}

// Looks at the units in view and moves the window on, 64 MiB at most.
Stream find_parameter_sets(Window& window) {
  constexpr size_t kLongestSet = 65536, kMostViews = 64;
  Sets h264, h265;
  uint64_t seen = 0;  // types of both, a bit each
  const auto has_all = [&](std::initializer_list<int> types) {
    return std::ranges::all_of(types, [&](int type) { return seen >> type & 1; });
  };
  const auto look = [&](const StartCodeUnit& unit) {
    if (h264_type(unit) == 8 || (h264_type(unit) == 7 && is_likely_sps(unit.bytes))) {
      h264.add(unit);
      seen |= uint64_t{1} << h264_type(unit);
    }
    if (is_h265_set(unit)) {
      h265.add(unit);
      seen |= uint64_t{1} << h265_type(unit);
    }
  };
  for (size_t views = 0; views < kMostViews && !has_all({7, 8}) && !has_all({32, 33, 34}); ++views) {
    const View view = window.view();
    const size_t shown = window.reaches_end() ? view.size() : view.size() - kLongestSet;
    UnitReader reader(view);
    for (StartCodeUnit unit; reader.next(unit) && unit.bytes.data() - 3 < view.data() + shown;) look(unit);
    if (window.reaches_end()) break;
    window.advance(shown);
    window.fill();
  }
  if (has_h265_parameter_sets(h265.stream())) return {StreamKind::kH265, h265.stream_and_zero()};
  if (has_all({7})) return {StreamKind::kH264, h264.stream_and_zero()};
  return {};
}

// ---- Configuration records (ISO/IEC 14496-15: both begin with version 1)

bool has_bits(uint8_t byte, uint8_t bits) { return (byte & bits) == bits; }

// Not every writer sets the reserved bits; then the whole record has to be in order.
bool is_avcc(View bytes) {
  constexpr size_t kFirstSet = 8;
  if (bytes.size() < 7 || bytes[0] != 1) return false;
  const size_t sps_count = bytes[5] & 0x1F;
  const bool begins_with_sps = sps_count > 0 && bytes.size() > kFirstSet && (bytes[kFirstSet] & 0x1F) == 7;
  if (has_bits(bytes[4], 0xFC) && has_bits(bytes[5], 0xE0)) return begins_with_sps || sps_count == 0;
  return begins_with_sps && avcc_units(bytes).has_value();
}

bool is_hvcc(View bytes) {
  constexpr int kLevels[] = {30, 60, 63, 90, 93, 120, 123, 150, 153, 156, 180, 183, 186};
  if (bytes.size() <= kHvccArrays || bytes[0] != 1) return false;
  if (std::ranges::find(kLevels, bytes[12]) == std::end(kLevels)) return false;
  const bool reserved_set = has_bits(bytes[13], 0xF0) && has_bits(bytes[15], 0xFC) &&
                            has_bits(bytes[16], 0xFC) && has_bits(bytes[17], 0xF8) &&
                            has_bits(bytes[18], 0xF8);
  const auto units = hvcc_units(bytes.subspan(kHvccArrays));
  return reserved_set || (units && (!units->empty() || bytes.size() == kHvccArrays + 1));
}

// ---- MP3

constexpr size_t kId3Header = 10;

// Bytes of the ID3v2 tag that the view begins with (id3.org, 2.4.0), 0 when there is none.
uint64_t id3_size(View view) {
  if (view.size() < kId3Header || view[0] != 'I' || view[1] != 'D' || view[2] != '3') return 0;
  uint64_t size = 0;
  for (size_t i = 6; i < kId3Header; ++i) {
    if (view[i] >= 0x80) return 0;
    size = size << 7 | view[i];
  }
  const bool has_footer = (view[5] & 0x10) != 0;
  return size + kId3Header + (has_footer ? kId3Header : 0);
}

// Whether frames of one kind follow one another from the first byte on: four, or all up to the end.
bool begins_with_mp3(View view, bool is_all) {
  constexpr uint32_t kSameInAll = 0xFFFE0C00;  // sync, version, layer, sampling rate
  const uint8_t* position = view.data();
  auto remaining = static_cast<uint32_t>(view.size());
  uint32_t first = 0;
  for (int frames = 0; frames < 4; ++frames) {
    const uint8_t* const expected = position;
    uint32_t length = 0;
    if (QMXUtil_GetMP3Frame(&position, &remaining, &length, nullptr) == nullptr || position != expected) {
      return frames > 0 && is_all && position == expected && remaining <= 4;
    }
    const uint32_t header =
        uint32_t{position[0]} << 24 | uint32_t{position[1]} << 16 | uint32_t{position[2]} << 8 | position[3];
    if (frames == 0) first = header & kSameInAll;
    if ((header & kSameInAll) != first) return false;
    if (length > remaining) return frames > 0;
    position += length;
    remaining -= length;
  }
  return true;
}

struct KindNames {
  const char* id;
  const char* name;
};
constexpr std::array<KindNames, 15> kKindNames = {{
    {"unknown", "unknown"},
    {"mp3", "MP3 (MPEG audio Layer III)"},
    {"h264", "H.264 byte stream"},
    {"h265", "H.265 byte stream"},
    {"avcc", "H.264 configuration record (avcC)"},
    {"hvcc", "H.265 configuration record (hvcC)"},
    {"mpeg12", "MPEG-1/2 video"},
    {"mpeg4", "MPEG-4 Part 2 video"},
    {"aac", "AAC configuration"},
    {"mp4", "MP4/MOV file"},
    {"avi", "AVI file"},
    {"mpegts", "MPEG transport stream"},
    {"mpegps", "MPEG program stream"},
    {"matroska", "Matroska/WebM file"},
    {"adts", "AAC with ADTS headers"},
}};

}  // namespace

bool find_mp3(Window& window) {
  bool tagged = false;
  while (const uint64_t size = id3_size(window.view())) {
    window.advance(size);
    window.fill();
    tagged = true;
  }
  if (tagged) {  // some writers pad after the tag
    const auto view = window.view();
    window.advance(static_cast<uint64_t>(
        std::find_if(view.begin(), view.end(), [](uint8_t b) { return b != 0; }) - view.begin()));
    window.fill();
  }
  return begins_with_mp3(window.view(), window.reaches_end());
}

bool has_h265_parameter_sets(const Bytes& stream) {
  if (stream.empty()) return false;
  H265ParamSetInfo sets = {};
  UtilConvH265InfoFromStartCode(stream.data(), static_cast<int32_t>(stream.size()), &sets);
  return sets.vpsNal != nullptr && sets.spsNal != nullptr;
}

Stream recognise(Window& window) {
  const View head = window.view();
  if (head.empty()) return {};
  if (const StreamKind kind = container_kind(window); kind != StreamKind::kUnknown) return {kind, {}};
  if (begins_with_start_code(head)) {
    const auto kind = kind_of_mpeg(head);
    return kind ? Stream{*kind, {}} : find_parameter_sets(window);
  }
  if (window.reaches_end() && is_avcc(head)) return {StreamKind::kAvcc, {}};
  if (window.reaches_end() && is_hvcc(head)) return {StreamKind::kHvcc, {}};
  if (find_mp3(window)) return {StreamKind::kMp3, {}};
  return {is_adts(window.view()) ? StreamKind::kAdts : StreamKind::kUnknown, {}};
}

const char* kind_id(StreamKind kind) { return kKindNames[static_cast<size_t>(kind)].id; }
const char* kind_name(StreamKind kind) { return kKindNames[static_cast<size_t>(kind)].name; }
