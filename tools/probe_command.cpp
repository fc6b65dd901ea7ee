// qmxutil probe: what a stream, a configuration record or a container is, and what the library knows of it.
#include <cstdio>
#include <memory>

#include "commands.h"
#include "container.h"
#include "output.h"
#include "probe_report.h"

namespace {

// What the media file reader tells of a recording.
void report_recording(Report& report, const Input& input) {
  const std::optional<QMXReaderInfo> info = recording_info(input.reopenable_path());
  if (!info) throw CommandError("the media file reader cannot read it");
  report.values["durationMs"] = info->durationMs;
  report.line("duration", text("%.3f s", info->durationMs / 1000.0));
  report.number("userDataRecords", info->userDataPresent != 0 ? info->userDataCount : 0, "user data records");
  report.values["metadata"] = info->metaPresent != 0 ? Json(info->metaValue) : Json();
  report.line("metadata field",
              info->metaPresent != 0 ? text("%u (0x%X)", info->metaValue, info->metaValue) : "none");
}

void report_container(Report& report, StreamKind kind, Window& window) {
  const std::vector<std::string> lines = ffmpeg_lines(kind, window);
  Json& values = report.values["ffmpeg"] = Json::array();
  for (const std::string& line : lines) {
    values.push_back(line);
    report.lines.push_back("  " + line);
  }
  if (lines.empty()) report.notes.push_back("no stream in it is named that the library knows");
  if (kind == StreamKind::kMp4 || kind == StreamKind::kAvi) report_recording(report, window.input());
}

void print(Report& report, const std::string& name, StreamKind kind, bool as_json) {
  if (as_json) {
    Json notes = Json::array();
    for (const std::string& note : report.notes) notes.push_back(note);
    if (!report.notes.empty()) report.values["notes"] = notes;
    print_json(report.values);
    return;
  }
  std::printf("%s: %s\n", name.c_str(), kind_name(kind));
  for (const std::string& line : report.lines) std::printf("%s\n", line.c_str());
  for (const std::string& note : report.notes) std::printf("%s\n", wrapped("  (" + note + ")", 3).c_str());
}

void add_to(Report& report, const Stream& stream, Window& window) {
  if (stream.kind == StreamKind::kMp3 || stream.kind == StreamKind::kAacConfiguration) {
    report_audio(report, stream.kind, window);
  } else if (is_container(stream.kind)) {
    report_container(report, stream.kind, window);
  } else {
    report_video(report, stream, window);
  }
}

struct ProbeOptions {
  std::string file;
  std::string codec;
  bool as_json = false;
};

void run_probe(const ProbeOptions& options) {
  Input input(options.file);
  Window window(input);
  if (window.view().empty()) throw CommandError(input.name() + ": empty");
  const Stream stream =
      options.codec == "aac" ? Stream{StreamKind::kAacConfiguration, {}} : recognise(window);
  if (stream.kind == StreamKind::kUnknown) {
    throw CommandError(input.name() + ": no stream, configuration record or container that is known here");
  }
  Report report = {{{"file", input.name()}, {"kind", kind_id(stream.kind)}}, {}, {}};
  std::string failure;
  try {
    add_to(report, stream, window);
  } catch (const CommandError& error) {
    failure = error.what();
  }
  if (failure.empty() || is_container(stream.kind)) print(report, input.name(), stream.kind, options.as_json);
  if (!failure.empty()) throw CommandError(input.name() + ": " + kind_name(stream.kind) + ": " + failure);
}

}  // namespace

void add_probe_command(const Command& app) {
  const auto options = std::make_shared<ProbeOptions>();
  const Command command = app.add(
      "probe", "Tell what a stream, a decoder configuration or a container is, and what its headers say");
  command
      .option("FILE", options->file,
              "MP3; H.264 or H.265 with start codes; avcC or hvcC record; MPEG-1/2 or MPEG-4 Part 2 video; "
              "MP4, MOV, AVI, MPEG-TS, Matroska, ADTS; - for standard input")
      .required();
  command.option("--codec", options->codec, "aac: FILE is an AAC configuration of two bytes or a few more")
      .one_of({"aac"});
  command.option("--json", options->as_json, "print JSON");
  command.footer("Example: qmxutil probe clip.264 --json");
  command.runs([options] { run_probe(*options); });
}
