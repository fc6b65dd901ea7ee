// What kind of stream, configuration record or container an input is.
#pragma once

#include <cstdint>
#include <vector>

#include "input.h"

enum class StreamKind {
  kUnknown,
  kMp3,
  kH264,
  kH265,
  kAvcc,
  kHvcc,
  kMpeg12,
  kMpeg4,
  kAacConfiguration,
  kMp4,  // the containers, from here on
  kAvi,
  kMpegTs,
  kMpegPs,
  kMatroska,
  kAdts,
};
constexpr bool is_container(StreamKind kind) { return kind >= StreamKind::kMp4; }

struct Stream {
  StreamKind kind = StreamKind::kUnknown;
  std::vector<uint8_t>
      sets;  // of H.264 and H.265: the parameter sets, each once, after four-byte start codes; and a zero
};

// Looks at what is in view, and only for the parameter sets of a stream that begins without any further on.
Stream recognise(Window& window);

// Moves the window to the first frame of an MP3, after its ID3 tags; false when none stands there.
bool find_mp3(Window& window);

bool has_h265_parameter_sets(const std::vector<uint8_t>& stream);

// Short name for scripts ("h264") and one for people ("H.264 byte stream").
const char* kind_id(StreamKind kind);
const char* kind_name(StreamKind kind);
