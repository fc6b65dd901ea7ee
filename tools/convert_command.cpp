// qmxutil convert: H.264 and H.265 configuration records, parameter sets and samples between their framings.
#include <algorithm>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "output.h"
#include "qmxutil_video.h"
#include "stream_kind.h"
#include "units.h"

namespace {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

constexpr size_t kReadLimit = size_t{1} << 30;

Bytes to_annexb(View bytes, StreamKind kind, const std::string& from) {
  if (from == "avcc" || (from.empty() && kind == StreamKind::kAvcc)) {
    return to_start_codes(bytes, avcc_units(bytes), QMXUtil_ConvH264InfoToStartCode);
  }
  const bool is_record = from == "hvcc" || (from.empty() && kind == StreamKind::kHvcc);
  if (is_record && bytes.size() <= kHvccArrays) throw CommandError("too short for an hvcC record");
  if (is_record || from == "hvcc-arrays") {
    const View arrays = is_record ? bytes.subspan(kHvccArrays) : bytes;
    return to_start_codes(arrays, hvcc_units(arrays), QMXUtil_ConvH265InfoToStartCode);
  }
  const auto units = sample_units(bytes);
  if (!units) throw CommandError("no configuration record, and no NAL units after four-byte lengths either");
  return to_start_codes(bytes, units, [](uint8_t* sample, const uint32_t* length) {
    UtilConvH264FrameToStartCode(sample, static_cast<int32_t>(*length));
  });
}

// Throws unless the result holds just these units: a count or a length may have been too large for it.
void require_units(const std::optional<Lengths>& found, const std::vector<StartCodeUnit>& wanted) {
  const auto same = [](size_t length, const StartCodeUnit& unit) { return length == unit.bytes.size(); };
  if (!found || !std::ranges::equal(*found, wanted, same))
    throw CommandError("too many units, or too long ones");
}

void require_start_code(View bytes) {
  UnitReader reader(bytes);
  StartCodeUnit first;
  if (!reader.next(first) || first.offset != 0) throw CommandError("does not begin with a start code");
}

Bytes to_lengths(View bytes) {
  require_start_code(bytes);
  const auto units = start_code_units(bytes);
  Bytes result = byte_stream(units);  // the library takes four-byte start codes only
  UtilConvH264FrameFromStartCode(result.data(), static_cast<int32_t>(result.size()));
  require_units(sample_units(result), units);
  return result;
}

Bytes to_avcc(View bytes, const Stream& stream) {
  constexpr uint8_t kSpsHeader = 0x67;  // the only one that the library counts as an SPS
  if (stream.kind != StreamKind::kH264) throw CommandError("no H.264 parameter sets with start codes");
  require_start_code(bytes);
  auto sets = start_code_units({stream.sets.data(), stream.sets.size() - 1});
  const auto is_sps = [](const StartCodeUnit& unit) { return h264_type(unit) == 7; };
  std::ranges::stable_partition(sets, is_sps);
  for (const StartCodeUnit& set : sets) {
    if (is_sps(set) && set.bytes[0] != kSpsHeader) throw CommandError("an SPS has a header other than 67");
  }
  H264ProfileInfo profile = {};
  UtilGetSPSPPSInfo(sets[0].bytes.data() + 1, static_cast<uint32_t>(sets[0].bytes.size() - 1), nullptr,
                    &profile);
  profile.nalLengthSize = 4;
  const Bytes units = byte_stream(sets);
  Bytes result(units.size() + 7);
  uint32_t length = 0;
  UtilConvH264InfoFromStartCode(units.data(), static_cast<uint32_t>(units.size()), result.data(), &length,
                                &profile);
  result.resize(length);
  require_units(avcc_units(result), sets);
  return result;
}

Bytes to_hvcc_arrays(View bytes, const Stream& stream) {
  if (stream.kind != StreamKind::kH265) throw CommandError("no H.265 parameter sets with start codes");
  require_start_code(bytes);
  const auto length_in = static_cast<int32_t>(stream.sets.size() - 1);
  Bytes result(stream.sets.size());
  uint32_t length = 0;
  QMXUtil_ConvH26xExtraDataFromStartCode(stream.sets.data(), length_in, result.data(), &length);
  result.resize(length);
  require_units(sample_units(result, 2), start_code_units({stream.sets.data(), stream.sets.size() - 1}));
  return result;
}

struct ConvertOptions {
  std::string to;
  std::string from;
  std::string in;
  std::string out;
};

Bytes converted(const ConvertOptions& options, Window& window) {
  const View bytes = window.view();
  if (options.to == "lengths") return to_lengths(bytes);
  const Stream stream = recognise(window);
  if (is_container(stream.kind))
    throw CommandError(kind_name(stream.kind) +
                       std::string("; `qmxutil probe` tells how to take its streams out"));
  if (options.to == "annexb") return to_annexb(bytes, stream.kind, options.from);
  return options.to == "avcc" ? to_avcc(bytes, stream) : to_hvcc_arrays(bytes, stream);
}

void run_convert(const ConvertOptions& options) {
  Input input(options.in);
  Window window(input, kReadLimit);
  if (!window.reaches_end()) throw CommandError(input.name() + ": 1 GiB or more");
  const size_t bytes_in = window.view().size();
  Bytes result;
  try {
    result = converted(options, window);
  } catch (const CommandError& error) {
    throw CommandError(input.name() + ": " + error.what());
  }
  if (result.empty()) throw CommandError(input.name() + ": nothing to convert");
  write_file(options.out, result);
  if (options.out == "-") return;
  std::printf("%s, %zu bytes -> %s, %zu bytes\n", input.name().c_str(), bytes_in, options.out.c_str(),
              result.size());
}

}  // namespace

void add_convert_command(const Command& app) {
  const auto options = std::make_shared<ConvertOptions>();
  const Command command =
      app.add("convert", "Convert H.264 and H.265 configuration and samples between their framings");
  command
      .option(
          "--to", options->to,
          "annexb: start codes, from an avcC or hvcC record or from samples; avcc: a record, from a stream's "
          "parameter sets; hvcc-arrays: H.265 parameter sets after two-byte lengths, as hvcC arrays hold "
          "them; lengths: samples, from start codes")
      .required()
      .one_of({"annexb", "avcc", "hvcc-arrays", "lengths"});
  command.option("--from", options->from, "what IN is, for --to annexb; otherwise it is looked at")
      .one_of({"avcc", "hvcc", "hvcc-arrays", "lengths"});
  command.option("IN", options->in, "the file to read; - for standard input").required();
  command.option("OUT", options->out, "the file to write; - for standard output").required();
  command.footer("Example: qmxutil convert --to annexb clip.avcc clip.264");
  command.runs([options] { run_convert(*options); });
}
