// What `probe` tells of MP3 and of AAC configurations.
#include <cstring>

#include "error.h"
#include "probe_report.h"
#include "qmxutil_audio.h"

namespace {

constexpr Named kChannelModes[] = {
    {0, "stereo"}, {1, "joint stereo"}, {2, "dual channel"}, {3, "single channel"}};

// ---- MP3

struct Mp3Frame {
  uint32_t length;
  uint32_t samples;
  AudioInfo info;
};

// Moves the window to the next whole frame, past garbage if there is any. False when none follows.
bool next_frame(Window& window, Mp3Frame& frame) {
  constexpr size_t kReach = 65536;  // far more than the frames that confirm one after garbage
  for (;;) {
    if (window.view().size() < kReach) window.fill();
    const uint8_t* position = window.view().data();
    auto remaining = static_cast<uint32_t>(window.view().size());
    const bool found = QMXUtil_GetMP3Frame(&position, &remaining, &frame.length, &frame.samples) != nullptr;
    const auto passed = static_cast<size_t>(position - window.view().data());
    if (found && frame.length <= remaining) {
      QMXUtil_GetMP3Info(position, remaining, &frame.info, nullptr);
      window.advance(passed);
      return true;
    }
    if (window.reaches_end()) return false;
    window.advance(passed - 1);  // a header at the position itself would be believed unconfirmed
  }
}

// Encoders write what they know of the whole stream into a first frame without audio.
bool holds_notes(std::span<const uint8_t> frame, uint32_t side_info) {
  constexpr size_t kVbriPlace = 36;
  const auto has = [&](size_t at, const char* name) {
    return frame.size() >= at + 4 && std::memcmp(frame.data() + at, name, 4) == 0;
  };
  return has(4 + side_info, "Xing") || has(4 + side_info, "Info") || has(kVbriPlace, "VBRI");
}

constexpr uint32_t kTicks = 14112000;  // a second; a multiple of every sampling rate

struct Mp3Walk {
  uint64_t frames = 0;  // with audio
  uint64_t bytes = 0;   // theirs
  uint64_t ticks = 0;
  bool one_bit_rate = true;
  uint64_t between = 0;  // bytes between frames
  uint64_t after = 0;    // bytes after the last whole one
};

Mp3Walk walk_mp3(Window& window, bool has_notes) {
  Mp3Walk walk;
  uint64_t end = window.offset();
  uint32_t bit_rate = 0;
  bool skip = has_notes;
  for (Mp3Frame frame; next_frame(window, frame); window.advance(frame.length)) {
    walk.between += window.offset() - end;
    end = window.offset() + frame.length;
    if (std::exchange(skip, false)) continue;
    if (walk.frames++ == 0) bit_rate = frame.info.bitRate;
    walk.one_bit_rate = walk.one_bit_rate && frame.info.bitRate == bit_rate;
    walk.bytes += frame.length;
    walk.ticks += uint64_t{frame.samples} * (kTicks / frame.info.sampleRate);
  }
  walk.after = window.offset() + window.view().size() - end;
  return walk;
}

void report_mp3(Report& report, Window& window) {
  const uint64_t start = window.offset();
  Mp3Frame first = {};
  if (!next_frame(window, first)) throw CommandError("an MP3 without a whole frame");
  const auto view = window.view();
  uint32_t word = 0;
  for (size_t i = 0; i < 4; ++i) word = word << 8 | view[i];
  MP3HeaderInfo header = {};
  const uint32_t side_info = UtilDecode_mp3header(&header, word);
  const bool has_notes = holds_notes(view.first(first.length), side_info);
  const Mp3Walk walk = walk_mp3(window, has_notes);

  const char* const version = header.mpeg25 ? "MPEG-2.5" : header.lsf ? "MPEG-2" : "MPEG-1";
  report.values["version"] = version;
  report.line("version", version);
  report.values["sampleRate"] = first.info.sampleRate;
  report.line("sampling rate", text("%u Hz", first.info.sampleRate));
  report.number("channels", first.info.channels, "channels");
  report.named("mode", header.mode, "mode", name_of(kChannelModes, header.mode));
  const double seconds = static_cast<double>(walk.ticks) / kTicks;
  const double average = walk.ticks > 0 ? static_cast<double>(walk.bytes) * 8 / seconds : 0;
  const uint32_t bit_rate = walk.one_bit_rate ? first.info.bitRate : static_cast<uint32_t>(average + 0.5);
  report.values["bitRate"] = bit_rate;
  report.values["oneBitRate"] = walk.one_bit_rate;
  report.line("bit rate", text("%u bit/s %s", bit_rate, walk.one_bit_rate ? "throughout" : "on average"));
  report.number("samplesPerFrame", first.samples, "samples per frame");
  report.flag("crc", header.crc, "CRC");
  report.number("sideInfoBytes", side_info, "side information");
  report.flag("copyright", header.copyBit, "copyright");
  report.flag("original", header.originalBit, "original");
  report.number("emphasis", header.emphasis, "emphasis");
  report.number("firstFrame", start, "first frame at");
  report.number("frames", walk.frames + has_notes, "whole frames");
  report.values["seconds"] = seconds;
  report.line("duration", text("%.3f s", seconds));
  report.number("bytesBehind", walk.after, "bytes after them");
  if (has_notes) report.notes.push_back("the first frame holds notes of the encoder, and no audio");
  if (walk.between > 0) {
    report.values["bytesBetween"] = walk.between;
    report.notes.push_back(std::to_string(walk.between) + " bytes between frames were passed over");
  }
}

// ---- AAC

void report_aac(Report& report, Window& window) {
  constexpr uint32_t kAacFormat = 255;
  constexpr size_t kLongest = 64;  // the longest AudioSpecificConfig in use takes some 20 bytes
  const auto config = window.view();
  if (config.size() < 2 || config.size() > kLongest)
    throw CommandError("no AAC configuration: 2 bytes or little more");
  AudioInfo info = {};
  if (QMXUtil_UtilGetLATMInfo(config.data(), static_cast<uint32_t>(config.size()), &info) == 0) {
    throw CommandError(
        "no AAC configuration that the library reads: the sampling frequency index is reserved, or a "
        "frequency follows it");
  }
  report.values["sampleRate"] = info.sampleRate;
  report.line("sampling rate", text("%u Hz", info.sampleRate));
  report.number("channels", info.channels, "channel setup");
  report.number("samplesPerFrame", QMXUtil_GetAudioSampleSize(kAacFormat), "samples per frame");
}

}  // namespace

void report_audio(Report& report, StreamKind kind, Window& window) {
  if (kind == StreamKind::kMp3) {
    report_mp3(report, window);
  } else {
    report_aac(report, window);
  }
}
