// qmxutil frames: cuts an H.264 or H.265 byte stream into the units that the library's frame readers give.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "qmx_file.h"
#include "qmxutil_video.h"
#include "stream_file.h"

namespace {

using nlohmann::ordered_json;

constexpr size_t kHeadBytes = size_t{1} << 20;  // enough to find the parameter sets
constexpr size_t kFirstBuffer = size_t{1} << 20;
constexpr uint32_t kReadBehindFrame = 8;  // start code and header that the readers look at
constexpr int kBarWidth = 40;

struct CloseFile {
  void operator()(FILE* file) const { QMX_FileClose(file); }
};

struct Frame {
  uint64_t offset;
  uint32_t length;
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

// "SPS PPS IDR x4": the types of a frame's NAL units, a run of one type counted.
std::string type_list(std::span<const uint8_t> frame, bool h265) {
  std::string list, last;
  int run = 0;
  const auto end_run = [&] {
    if (run == 0) return;
    list += (list.empty() ? "" : " ") + last + (run > 1 ? " x" + std::to_string(run) : "");
  };
  for (const StartCodeUnit& unit : start_code_units(frame)) {
    const std::string name =
        h265 ? type_name(kH265Types, h265_type(unit)) : type_name(kH264Types, h264_type(unit));
    if (name != last) {
      end_run();
      run = 0;
      last = name;
    }
    ++run;
  }
  end_run();
  return list;
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

// Reads frame after frame. The readers take no frame larger than their buffer: then it grows, and they try
// again from where the frame began.
std::vector<Frame> read_frames(const std::string& path, uint64_t file_size, bool h265) {
  const std::unique_ptr<FILE, CloseFile> file(QMX_FileOpen(path.c_str(), QMX_FILE_READ));
  if (file == nullptr) throw CommandError(path + ": cannot be opened");
  const auto read = h265 ? UtilVideo_H265_ReadOneFrame : UtilVideo_H264_ReadOneFrame;
  std::vector<Frame> frames;
  std::vector<uint8_t> buffer(kFirstBuffer);
  Progress progress;
  for (uint64_t offset = 0; offset < file_size;) {
    const auto room = static_cast<uint32_t>(buffer.size() - 1);
    const uint32_t length = read(file.get(), buffer.data(), room);
    if (length == 0) {
      if (buffer.size() > file_size + kReadBehindFrame || buffer.size() > UINT32_MAX / 2) {
        throw CommandError(path + ": cannot be read from byte " + std::to_string(offset) + " on");
      }
      buffer.resize(buffer.size() * 2);
      QMX_FileSeek(file.get(), static_cast<int64_t>(offset), 0);
      continue;
    }
    buffer[length] = 0;  // for start_code_units(); what stands behind the frame is scratch
    frames.push_back({offset, length, type_list({buffer.data(), length}, h265)});
    offset += length;
    progress.show(offset, file_size);
  }
  return frames;
}

void print_table(const std::vector<Frame>& frames, uint64_t file_size) {
  uint32_t largest = 0;
  size_t widest = 5;
  for (const Frame& frame : frames) {
    largest = std::max(largest, frame.length);
    widest = std::max(widest, frame.types.size());
  }
  std::printf("%6s  %10s  %8s  %-*s\n", "frame", "offset", "bytes", static_cast<int>(widest), "units");
  for (size_t i = 0; i < frames.size(); ++i) {
    const Frame& frame = frames[i];
    const auto bar = static_cast<size_t>((uint64_t{frame.length} * kBarWidth + largest - 1) / largest);
    std::printf("%6zu  %10" PRIu64 "  %8u  %-*s  %s\n", i, frame.offset, frame.length,
                static_cast<int>(widest), frame.types.c_str(), std::string(bar, '#').c_str());
  }
  std::printf("%zu frames, %" PRIu64 " bytes, on average %" PRIu64 "\n", frames.size(), file_size,
              frames.empty() ? 0 : file_size / frames.size());
}

void print_json(const std::string& path, const std::vector<Frame>& frames, uint64_t file_size, bool h265) {
  ordered_json list = ordered_json::array();
  for (const Frame& frame : frames) {
    list.push_back({{"offset", frame.offset}, {"bytes", frame.length}, {"units", frame.types}});
  }
  const ordered_json all = {
      {"file", path}, {"codec", h265 ? "h265" : "h264"}, {"bytes", file_size}, {"frames", list}};
  std::printf("%s\n", all.dump(2).c_str());
}

struct FramesOptions {
  std::string file;
  std::string codec;
  bool as_json = false;
};

void run_frames(const FramesOptions& options) {
  const StreamFile head = read_stream(options.file, kHeadBytes);
  const StreamKind kind = stream_kind(head);
  if (options.codec.empty() && kind != StreamKind::kH264 && kind != StreamKind::kH265) {
    throw CommandError(options.file +
                       ": no parameter sets of an H.264 or H.265 byte stream; --codec says which");
  }
  const bool h265 = options.codec.empty() ? kind == StreamKind::kH265 : options.codec == "h265";
  const std::vector<Frame> frames = read_frames(options.file, head.file_size, h265);
  if (options.as_json) {
    print_json(options.file, frames, head.file_size, h265);
  } else {
    print_table(frames, head.file_size);
  }
}

}  // namespace

void add_frames_command(CLI::App& app) {
  const auto options = std::make_shared<FramesOptions>();
  CLI::App* const command = app.add_subcommand("frames",
                                               "Cut an H.264 or H.265 byte stream into frames. The first "
                                               "unit holds the parameter sets alone; an H.265 "
                                               "unit ends with one slice of type TRAIL_R or IDR_W_RADL");
  command->add_option("FILE", options->file, "the stream, with start codes")->required();
  command->add_option("--codec", options->codec, "what the stream is, when it carries no parameter sets")
      ->check(CLI::IsMember({"h264", "h265"}));
  command->add_flag("--json", options->as_json, "print JSON");
  command->footer("Example: qmxutil frames clip.264");
  command->callback([options] { run_frames(*options); });
}
