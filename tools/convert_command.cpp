// qmxutil convert: H.264 and H.265 configuration records, parameter sets and samples between their framings.
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>

#include "commands.h"
#include "qmxutil_video.h"
#include "stream_file.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kReadLimit = size_t{1} << 30;
constexpr size_t kHvccArrays = 22;  // offset of numOfArrays (ISO/IEC 14496-15, 8.3.3.1)

// A conversion that the library does in place and that may grow: each NAL unit, of 2 bytes at least, gains 2.
Bytes in_place(std::span<const uint8_t> bytes, void (*convert)(uint8_t*, uint32_t*)) {
  Bytes result(bytes.begin(), bytes.end());
  result.resize(bytes.size() * 2 + 16);
  uint32_t length = static_cast<uint32_t>(bytes.size());
  convert(result.data(), &length);
  result.resize(length);
  return result;
}

Bytes sample_to_start_codes(std::span<const uint8_t> bytes) {
  const auto length = static_cast<int32_t>(bytes.size());
  Bytes result(bytes.begin(), bytes.end());
  UtilConvH264FrameToStartCode(result.data(), length);
  Bytes back = result;
  UtilConvH264FrameFromStartCode(back.data(), length);
  if (!std::equal(back.begin(), back.end(), bytes.begin(), bytes.end())) {
    throw CommandError("no configuration record, and no NAL units behind four-byte lengths either");
  }
  return result;
}

Bytes to_annexb(const StreamFile& file, StreamKind kind, const std::string& from) {
  if (from == "avcc" || (from.empty() && kind == StreamKind::kAvcc)) {
    return in_place(file.bytes(), QMXUtil_ConvH264InfoToStartCode);
  }
  if (from == "hvcc" || (from.empty() && kind == StreamKind::kHvcc)) {
    if (file.bytes().size() <= kHvccArrays) throw CommandError("too short for an hvcC record");
    return in_place(file.bytes().subspan(kHvccArrays), QMXUtil_ConvH265InfoToStartCode);
  }
  if (from == "hvcc-arrays") return in_place(file.bytes(), QMXUtil_ConvH265InfoToStartCode);
  return sample_to_start_codes(file.bytes());
}

std::vector<StartCodeUnit> units_with_start_codes(const StreamFile& file) {
  auto units = start_code_units(file.bytes());
  if (units.empty() || units[0].offset != 0) throw CommandError("does not begin with a start code");
  return units;
}

Bytes to_lengths(const StreamFile& file) {
  Bytes result = byte_stream(units_with_start_codes(file));  // the library takes four-byte start codes only
  UtilConvH264FrameFromStartCode(result.data(), static_cast<int32_t>(result.size()));
  return result;
}

Bytes to_avcc(const StreamFile& file, StreamKind kind) {
  constexpr uint8_t kSpsHeader = 0x67;  // the only one that the library counts as an SPS
  if (kind != StreamKind::kH264) throw CommandError("no H.264 parameter sets with start codes");
  auto sets = h264_parameter_sets(units_with_start_codes(file));
  std::stable_partition(sets.begin(), sets.end(),
                        [](const StartCodeUnit& unit) { return h264_type(unit) == 7; });
  if (sets[0].bytes[0] != kSpsHeader) throw CommandError("the SPS has a header other than 67");
  H264ProfileInfo profile = {};
  UtilGetSPSPPSInfo(sets[0].bytes.data() + 1, static_cast<uint32_t>(sets[0].bytes.size() - 1), nullptr,
                    &profile);
  profile.nalLengthSize = 4;
  const Bytes stream = byte_stream(sets);
  Bytes result(stream.size() + 7);
  uint32_t length = 0;
  UtilConvH264InfoFromStartCode(stream.data(), static_cast<uint32_t>(stream.size()), result.data(), &length,
                                &profile);
  result.resize(length);
  return result;
}

Bytes to_hvcc_arrays(const StreamFile& file, StreamKind kind) {
  if (kind != StreamKind::kH265) throw CommandError("no H.265 parameter sets with start codes");
  const Bytes stream = byte_stream(h265_parameter_sets(units_with_start_codes(file)));
  Bytes result(stream.size());
  uint32_t length = 0;
  QMXUtil_ConvH26xExtraDataFromStartCode(stream.data(), static_cast<int32_t>(stream.size()), result.data(),
                                         &length);
  result.resize(length);
  return result;
}

struct ConvertOptions {
  std::string to;
  std::string from;
  std::string in;
  std::string out;
};

Bytes converted(const ConvertOptions& options, const StreamFile& file) {
  const StreamKind kind = stream_kind(file);
  if (options.to == "annexb") return to_annexb(file, kind, options.from);
  if (options.to == "avcc") return to_avcc(file, kind);
  if (options.to == "hvcc-arrays") return to_hvcc_arrays(file, kind);
  return to_lengths(file);
}

void run_convert(const ConvertOptions& options) {
  const StreamFile file = read_stream(options.in, kReadLimit);
  if (file.file_size > kReadLimit) throw CommandError(options.in + ": more than 1 GiB");
  Bytes result;
  try {
    result = converted(options, file);
  } catch (const CommandError& error) {
    throw CommandError(options.in + ": " + error.what());
  }
  if (result.empty()) throw CommandError(options.in + ": nothing to convert");
  std::ofstream out(options.out, std::ios::binary);
  out.write(reinterpret_cast<const char*>(result.data()), static_cast<std::streamsize>(result.size()));
  out.close();
  if (!out) throw CommandError("cannot write " + options.out);
  std::printf("%s, %zu bytes -> %s, %zu bytes\n", options.in.c_str(), file.bytes().size(),
              options.out.c_str(), result.size());
}

}  // namespace

void add_convert_command(CLI::App& app) {
  const auto options = std::make_shared<ConvertOptions>();
  CLI::App* const command = app.add_subcommand(
      "convert", "Convert H.264 and H.265 configuration and samples between their framings");
  command
      ->add_option(
          "--to", options->to,
          "annexb: start codes, from an avcC or hvcC record or from samples; avcc: a record, from a stream's "
          "parameter sets; hvcc-arrays: H.265 parameter sets behind two-byte lengths, as hvcC arrays hold "
          "them; lengths: samples, from start codes")
      ->required()
      ->check(CLI::IsMember({"annexb", "avcc", "hvcc-arrays", "lengths"}));
  command->add_option("--from", options->from, "what IN is, for --to annexb; otherwise it is looked at")
      ->check(CLI::IsMember({"avcc", "hvcc", "hvcc-arrays", "lengths"}));
  command->add_option("IN", options->in, "the file to read")->required();
  command->add_option("OUT", options->out, "the file to write")->required();
  command->footer("Example: qmxutil convert --to annexb clip.avcc clip.264");
  command->callback([options] { run_convert(*options); });
}
