#include "stream_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "commands.h"
#include "qmxutil_audio.h"
#include "qmxutil_string.h"
#include "qmxutil_video.h"

namespace {

// Codes of ISO/IEC 13818-2 and 14496-2. NAL unit headers stay below 0x180: their first bit is 0.
constexpr uint32_t kFirstMpegCode = 0x1B0;
constexpr uint32_t kLastMpegVideoCode = 0x1B8;
constexpr uint32_t kSequenceHeaderCode = 0x1B3;

bool is_video_object_code(uint32_t code) { return code >= 0x100 && code <= 0x11F; }
bool is_layer_code(uint32_t code) { return code >= 0x120 && code <= 0x12F; }

bool begins_with_start_code(std::span<const uint8_t> bytes) {
  const auto one = std::find_if(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte != 0; });
  return one != bytes.end() && *one == 1 && one - bytes.begin() >= 2;
}

bool has_h265_parameter_sets(const std::vector<uint8_t>& stream) {
  if (stream.empty()) return false;
  H265ParamSetInfo sets = {};
  UtilConvH265InfoFromStartCode(stream.data(), static_cast<int32_t>(stream.size()), &sets);
  return sets.vpsNal != nullptr && sets.spsNal != nullptr;
}

StreamKind kind_of_start_codes(const StreamFile& file) {
  const auto units = start_code_units(file.bytes());
  for (size_t i = 0; i < units.size(); ++i) {
    const uint32_t code = 0x100u + units[i].bytes[0];
    if (code == kSequenceHeaderCode) return StreamKind::kMpeg12;
    if (code >= kFirstMpegCode) return code <= kLastMpegVideoCode ? StreamKind::kMpeg4 : StreamKind::kUnknown;
    const bool empty_object = is_video_object_code(code) && units[i].bytes.size() == 1;
    if (empty_object && i + 1 < units.size() && is_layer_code(0x100u + units[i + 1].bytes[0])) {
      return StreamKind::kMpeg4;
    }
  }
  if (has_h265_parameter_sets(byte_stream(h265_parameter_sets(units)))) return StreamKind::kH265;
  const bool has_sps =
      std::any_of(units.begin(), units.end(), [](const StartCodeUnit& unit) { return h264_type(unit) == 7; });
  return has_sps ? StreamKind::kH264 : StreamKind::kUnknown;
}

// A record is what converts to parameter sets (ISO/IEC 14496-15: both begin with version 1).
StreamKind kind_of_record(std::span<const uint8_t> bytes) {
  constexpr size_t kHvccHeader = 22;
  if (bytes.size() > 6 && (bytes[4] & 0xFC) == 0xFC && (bytes[5] & 0xE0) == 0xE0 &&
      QMXUtil_GetH264Info(bytes.data(), static_cast<uint32_t>(bytes.size()), nullptr, nullptr) == 1) {
    return StreamKind::kAvcc;
  }
  if (bytes.size() > kHvccHeader) {
    std::vector<uint8_t> copy(bytes.begin(), bytes.end());
    uint32_t length = static_cast<uint32_t>(copy.size());
    QMXUtil_ConvHEVCInfoToStartCode(copy.data(), &length);
    copy.resize(length);
    if (has_h265_parameter_sets(copy)) return StreamKind::kHvcc;
  }
  return StreamKind::kUnknown;
}

std::vector<StartCodeUnit> chosen_once(const std::vector<StartCodeUnit>& units,
                                       bool (*wanted)(const StartCodeUnit&)) {
  std::vector<StartCodeUnit> chosen;
  for (const StartCodeUnit& unit : units) {
    const auto same = [&](const StartCodeUnit& other) { return std::ranges::equal(unit.bytes, other.bytes); };
    if (wanted(unit) && std::none_of(chosen.begin(), chosen.end(), same)) chosen.push_back(unit);
  }
  return chosen;
}

struct KindNames {
  const char* id;
  const char* name;
};
constexpr std::array<KindNames, 9> kKindNames = {{
    {"unknown", "unknown"},
    {"mp3", "MP3 (MPEG audio Layer III)"},
    {"h264", "H.264 byte stream"},
    {"h265", "H.265 byte stream"},
    {"avcc", "H.264 configuration record (avcC)"},
    {"hvcc", "H.265 configuration record (hvcC)"},
    {"mpeg12", "MPEG-1/2 video"},
    {"mpeg4", "MPEG-4 Part 2 video"},
    {"aac", "AAC configuration"},
}};

}  // namespace

StreamFile read_stream(const std::string& path, size_t limit) {
  std::error_code error;
  StreamFile file;
  file.file_size = std::filesystem::file_size(path, error);
  if (error) throw CommandError(path + ": " + error.message());
  if (file.file_size == 0) throw CommandError(path + ": the file is empty");
  const size_t length = static_cast<size_t>(std::min<uint64_t>(file.file_size, limit));
  file.buffer.resize(length + 1);
  std::ifstream in(path, std::ios::binary);
  in.read(reinterpret_cast<char*>(file.buffer.data()), static_cast<std::streamsize>(length));
  if (!in) throw CommandError(path + ": " + std::strerror(errno));
  return file;
}

StreamKind stream_kind(const StreamFile& file) {
  const auto bytes = file.bytes();
  if (file.file_size == 2) return StreamKind::kAacConfiguration;
  if (begins_with_start_code(bytes)) return kind_of_start_codes(file);
  if (bytes[0] == 1) {
    if (const StreamKind kind = kind_of_record(bytes); kind != StreamKind::kUnknown) return kind;
  }
  AudioInfo info = {};
  const bool mp3 = QMXUtil_GetMP3Info(bytes.data(), static_cast<uint32_t>(bytes.size()), &info, nullptr) != 0;
  return mp3 ? StreamKind::kMp3 : StreamKind::kUnknown;
}

const char* kind_id(StreamKind kind) { return kKindNames[static_cast<size_t>(kind)].id; }
const char* kind_name(StreamKind kind) { return kKindNames[static_cast<size_t>(kind)].name; }

std::vector<StartCodeUnit> start_code_units(std::span<const uint8_t> bytes) {
  std::vector<StartCodeUnit> units;
  const auto close_last_at = [&](const uint8_t* end) {
    if (units.empty()) return;
    const uint8_t* const begin = units.back().bytes.data();
    units.back().bytes = {begin, end};
  };
  const uint8_t* position = bytes.data();
  uint32_t remaining = static_cast<uint32_t>(bytes.size() + 1), code;
  while (QMXUtil_FindStartCode(&position, &remaining, &code)) {
    const uint8_t* start = position;
    while (start > bytes.data() && start[-1] == 0 &&
           (units.empty() || start - 1 > units.back().bytes.data())) {
      --start;
    }
    close_last_at(start);
    units.push_back({static_cast<size_t>(start - bytes.data()), {position + 3, size_t{1}}});
    position += 3;
    remaining -= 3;
  }
  close_last_at(bytes.data() + bytes.size());
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

std::vector<StartCodeUnit> h264_parameter_sets(const std::vector<StartCodeUnit>& units) {
  return chosen_once(units,
                     [](const StartCodeUnit& unit) { return h264_type(unit) == 7 || h264_type(unit) == 8; });
}

std::vector<StartCodeUnit> h265_parameter_sets(const std::vector<StartCodeUnit>& units) {
  return chosen_once(units,
                     [](const StartCodeUnit& unit) {  // of the base layer, whose first header byte is even
                       return h265_type(unit) >= 32 && h265_type(unit) <= 34 && unit.bytes[0] % 2 == 0;
                     });
}
