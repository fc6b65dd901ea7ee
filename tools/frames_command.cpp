// qmxutil frames: cuts an H.264 or H.265 byte stream into the units that the library's frame readers give.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "container.h"
#include "output.h"
#include "qmx_file.h"
#include "qmxutil_video.h"
#include "stream_kind.h"
#include "units.h"

namespace {

constexpr uint32_t kFirstBuffer = 1u << 20;
constexpr uint32_t kLargestBuffer = 32u << 20;  // the largest picture of the highest levels is smaller
constexpr size_t kLongestList = 65536;

struct CloseFile {
  void operator()(FILE* file) const { QMX_FileClose(file); }
};

// What the library's reader cut at one call.
struct Unit {
  uint64_t offset;
  uint32_t length;
  uint32_t pictures;
  std::string types;
};

struct TypeName {
  int type;
  const char* name;
};
constexpr TypeName kH264Types[] = {{1, "slice"}, {2, "partA"},       {3, "partB"}, {4, "partC"},
                                   {5, "IDR"},   {6, "SEI"},         {7, "SPS"},   {8, "PPS"},
                                   {9, "AUD"},   {10, "end-of-seq"}, {11, "end"},  {12, "filler"}};
constexpr TypeName kH265Types[] = {
    {0, "TRAIL_N"},     {1, "TRAIL_R"},     {2, "TSA_N"},     {3, "TSA_R"},       {4, "STSA_N"},
    {5, "STSA_R"},      {6, "RADL_N"},      {7, "RADL_R"},    {8, "RASL_N"},      {9, "RASL_R"},
    {16, "BLA_W_LP"},   {17, "BLA_W_RADL"}, {18, "BLA_N_LP"}, {19, "IDR_W_RADL"}, {20, "IDR_N_LP"},
    {21, "CRA"},        {32, "VPS"},        {33, "SPS"},      {34, "PPS"},        {35, "AUD"},
    {36, "end-of-seq"}, {37, "end"},        {38, "filler"},   {39, "SEI"},        {40, "SEI-suffix"}};

template <size_t N>
std::string type_name(const TypeName (&names)[N], int type) {
  for (const TypeName& known : names) {
    if (known.type == type) return known.name;
  }
  return std::to_string(type);
}

// Whether a NAL unit is the first slice of a picture: first_mb_in_slice is 0, which is a single bit of 1
// (ISO/IEC 14496-10, 7.3.3), or first_slice_segment_in_pic_flag is 1 (ISO/IEC 23008-2, 7.3.6.1).
bool begins_picture(const StartCodeUnit& nal, bool h265) {
  const size_t header = h265 ? 2 : 1;
  if (nal.bytes.size() <= header || (nal.bytes[header] & 0x80) == 0) return false;
  if (h265) return h265_type(nal) < 32 && (nal.bytes[0] & 1) == 0 && nal.bytes[1] >> 3 == 0;
  return h264_type(nal) == 1 || h264_type(nal) == 2 || h264_type(nal) == 5;
}

// Fills in "SPS PPS IDR x4", the types of a unit's NAL units, a run of one type counted; and the pictures.
void look_into(Unit& unit, std::span<const uint8_t> bytes, bool h265) {
  std::string last;
  size_t run = 0;
  const auto end_run = [&] {
    if (run == 0 || unit.types.size() > kLongestList) return;
    unit.types += (unit.types.empty() ? "" : " ") + last + (run > 1 ? " x" + std::to_string(run) : "");
    if (unit.types.size() > kLongestList) unit.types += " ...";
  };
  UnitReader reader(bytes);
  for (StartCodeUnit nal; reader.next(nal);) {
    const std::string name =
        h265 ? type_name(kH265Types, h265_type(nal)) : type_name(kH264Types, h264_type(nal));
    unit.pictures += begins_picture(nal, h265);
    if (name != last) {
      end_run();
      run = 0;
      last = name;
    }
    ++run;
  }
  end_run();
}

// A line on the terminal for work that takes longer than a second.
class Progress {
 public:
  void show(uint64_t done, uint64_t all) {
    const auto now = std::chrono::steady_clock::now();
    if (!on_terminal_ || now - last_ < (shown_ ? std::chrono::milliseconds(100) : std::chrono::seconds(1)))
      return;
    std::fprintf(stderr, "\r%3" PRIu64 " %%", done * 100 / all);
    last_ = now;
    shown_ = true;
  }
  ~Progress() {
    if (shown_) std::fprintf(stderr, "\r     \r");
  }

 private:
  const bool on_terminal_ = isatty(STDERR_FILENO) != 0;
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
  bool shown_ = false;
};

struct Totals {
  uint64_t units = 0;
  uint64_t pictures = 0;
  uint64_t bytes = 0;
  std::string failure = {};  // why they are not of the whole file
};

// Reads unit after unit. The readers take none larger than their buffer: then it grows, and they try again
// from where the unit began.
template <class Take>
Totals read_units(const Input& input, bool h265, const Take& take) {
  const std::unique_ptr<FILE, CloseFile> file(QMX_FileOpen(input.reopenable_path().c_str(), QMX_FILE_READ));
  if (file == nullptr) fail_as_system_said(input.name());
  const uint64_t file_size = input.size();
  const auto read = h265 ? UtilVideo_H265_ReadOneFrame : UtilVideo_H264_ReadOneFrame;
  uint32_t room = kFirstBuffer;
  auto buffer = std::make_unique_for_overwrite<uint8_t[]>(room);
  Progress progress;
  Totals totals;
  for (Unit unit = {}; unit.offset < file_size;) {
    unit.length = read(file.get(), buffer.get(), room - 1);
    if (std::ferror(file.get()) != 0) fail_as_system_said(input.name());
    if (unit.length == 0) {
      if (room >= kLargestBuffer) {
        totals.failure = "no unit ends within 32 MiB from byte " + std::to_string(unit.offset) + " on";
        break;
      }
      buffer.reset();
      buffer = std::make_unique_for_overwrite<uint8_t[]>(room *= 2);
      if (QMX_FileSeek(file.get(), static_cast<int64_t>(unit.offset), 0) != 0)
        fail_as_system_said(input.name());
      continue;
    }
    buffer[unit.length] = 0;  // for the reader of units; what stands after this one is scratch
    look_into(unit, {buffer.get(), unit.length}, h265);
    take(unit);
    ++totals.units;
    totals.pictures += unit.pictures;
    totals.bytes = unit.offset + unit.length;
    unit = {totals.bytes, 0, 0, {}};
    progress.show(unit.offset, file_size);
  }
  return totals;
}

// A row a unit. The first rows wait until it is known how long their bars and how wide their types are; later
// ones take what those leave, so that a recording of days takes no more memory.
class Table {
 public:
  void add(const Unit& unit) {
    constexpr size_t kMostKept = 65536, kShownTypes = 200;
    if (bar_width_ > 0) return print(unit);
    kept_.push_back(unit);
    kept_.back().types = fitted(unit.types, kShownTypes);
    largest_ = std::max(largest_, unit.length);
    widest_ = std::max(widest_, kept_.back().types.size());
    if (kept_.size() == kMostKept) print_kept();
  }
  void print_kept() {
    if (bar_width_ > 0) return;
    constexpr size_t kFixed = 33, kLeastBar = 10, kMostBar = 40;
    const size_t columns = std::max(terminal_columns(), kFixed + kLeastBar + 5);
    widest_ = std::min(widest_, columns - kFixed - kLeastBar);
    bar_width_ = std::min(columns - kFixed - widest_, kMostBar);
    std::printf("%6s  %10s  %8s  %s\n", "unit", "offset", "bytes", "types");
    for (const Unit& unit : kept_) print(unit);
  }

 private:
  void print(const Unit& unit) {
    const uint64_t share = std::min(unit.length, largest_);
    const auto bar = static_cast<size_t>((share * bar_width_ + largest_ - 1) / largest_);
    std::printf("%6" PRIu64 "  %10" PRIu64 "  %8u  %-*s  %s\n", printed_++, unit.offset, unit.length,
                static_cast<int>(widest_), fitted(unit.types, widest_).c_str(),
                std::string(bar, '#').c_str());
  }

  std::vector<Unit> kept_;
  uint32_t largest_ = 1;
  size_t widest_ = 5;
  size_t bar_width_ = 0;  // until the first row is printed
  uint64_t printed_ = 0;
};

Totals print_table(const Input& input, bool h265) {
  Table table;
  const Totals totals = read_units(input, h265, [&](const Unit& unit) { table.add(unit); });
  table.print_kept();
  std::printf("%" PRIu64 " units, %" PRIu64 " pictures, %" PRIu64 " bytes", totals.units, totals.pictures,
              totals.bytes);
  if (totals.pictures > 0) std::printf(", on average %" PRIu64 " a picture", totals.bytes / totals.pictures);
  std::printf("\n");
  return totals;
}

Totals print_as_json(const Input& input, bool h265) {
  std::printf("{\n  \"file\": %s,\n  \"codec\": \"%s\",\n  \"bytes\": %" PRIu64 ",\n  \"frames\": [",
              Json(input.name()).in_one_line().c_str(), h265 ? "h265" : "h264", input.size());
  const Totals totals = read_units(input, h265, [&](const Unit& unit) {
    const Json row = {
        {"offset", unit.offset}, {"bytes", unit.length}, {"pictures", unit.pictures}, {"units", unit.types}};
    std::printf("%s\n    %s", unit.offset > 0 ? "," : "", row.in_one_line().c_str());
  });
  std::printf("\n  ],\n  \"unitCount\": %" PRIu64 ",\n  \"pictures\": %" PRIu64 "\n}\n", totals.units,
              totals.pictures);
  return totals;
}

struct FramesOptions {
  std::string file;
  std::string codec;
  bool as_json = false;
};

void run_frames(const FramesOptions& options) {
  Input input(options.file);
  Window window(input);
  if (window.view().empty()) throw CommandError(input.name() + ": empty");
  const StreamKind kind = recognise(window).kind;
  if (is_container(kind)) {
    const auto lines = ffmpeg_lines(kind, window);
    throw CommandError(input.name() + ": " + kind_name(kind) + ", no byte stream" +
                       (lines.empty() ? "" : "; take it out with\n  " + lines[0]));
  }
  const bool is_known = kind == StreamKind::kH264 || kind == StreamKind::kH265;
  if (options.codec.empty() && !is_known) {
    throw CommandError(input.name() +
                       ": no parameter sets of an H.264 or H.265 byte stream; --codec says which");
  }
  const bool h265 = options.codec.empty() ? kind == StreamKind::kH265 : options.codec == "h265";
  const Totals totals = options.as_json ? print_as_json(input, h265) : print_table(input, h265);
  if (!totals.failure.empty()) throw CommandError(input.name() + ": " + totals.failure);
  if (is_known && h265 != (kind == StreamKind::kH265)) {
    throw CommandError(input.name() + ": " + kind_name(kind) +
                       " by its parameter sets; --codec makes no sense of it");
  }
}

}  // namespace

void add_frames_command(const Command& app) {
  const auto options = std::make_shared<FramesOptions>();
  const Command command = app.add(
      "frames", "Cut an H.264 or H.265 byte stream into the units that the library's frame readers give");
  command.option("FILE", options->file, "the stream, with start codes; - for a file as standard input")
      .required();
  command.option("--codec", options->codec, "what the stream is, when it carries no parameter sets")
      .one_of({"h264", "h265"});
  command.option("--json", options->as_json, "print JSON");
  command.footer(
      "The first unit holds the parameter sets alone. An H.265 unit ends with one slice of type TRAIL_R or "
      "IDR_W_RADL, slices of other types come in front of it; and until such a slice or another PPS comes "
      "right after a PPS, each PPS ends a unit.\nExample: qmxutil frames clip.264");
  command.runs([options] { run_frames(*options); });
}
