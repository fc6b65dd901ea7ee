// What the media file reader's containers share: bounded reading of an untrusted file, and their cursors.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmx_reader.h"

namespace qmxbase {

// A file that may say anything about itself. Reads beyond its end fail. Whoever follows what it says takes
// steps, and there are so many to an operation: no file makes a reader run on.
struct Source {
  static constexpr uint32_t kSteps = 1u << 22;
  static constexpr uint32_t kStepOfHeader = 2;  // somewhere in the file, against the next entry of a table

  int fd;
  uint32_t steps_left;
  bool gave_up;  // for want of steps
  uint64_t size;
  uint64_t window_start;
  uint32_t window_length;
  uint8_t window[4096];

  // Small reads, through the window.
  bool read(uint64_t offset, uint8_t* to, uint32_t count);
  // Any size, past the window.
  bool read_block(uint64_t offset, uint8_t* to, uint64_t count) const;
  bool step(uint32_t cost);
};

// One user data record in the file.
struct Record {
  uint64_t offset;
  uint64_t size;
  uint64_t time_ms;
};

// The metadata field goes by this name in both containers: an ISO box type, a RIFF chunk name.
constexpr uint32_t kMetadataName = 0x716D786D;  // "qmxm"

// Fills the metadata fields of `info` from the payload of a box or chunk of that name.
void read_metadata(Source& in, uint64_t offset, uint64_t size, QMXReaderInfo& info);

// value x numerator / denominator; UINT64_MAX when it does not fit or cannot be told.
uint64_t scaled(uint64_t value, uint64_t numerator, uint64_t denominator);

// A table of equal entries in the file.
struct Table {
  uint64_t begin;
  uint32_t count;
};

// The samples of a timed metadata track of an ISO base media file (ISO/IEC 14496-12).
struct IsoTrack {
  uint32_t timescale;
  Table durations;       // stts
  Table chunk_runs;      // stsc
  Table chunk_offsets;   // stco, co64
  uint32_t offset_size;  // 4, 8
  Table sizes;           // stsz
  uint32_t equal_size;   // of all samples; 0: the table tells

  // The sample that comes next.
  uint32_t sample;
  uint64_t time;
  uint32_t durations_read, duration_left, duration;
  uint32_t chunk, runs_read, samples_per_chunk, chunk_left;
  uint64_t offset;

  bool open(Source& in, QMXReaderInfo& info);
  bool next(Source& in, Record& record);  // false after the last one, and for one that is not there
};

// The chunks of a data or text stream of an AVI file (RIFF, with the OpenDML extensions).
struct AviStream {
  uint32_t number;
  uint32_t rate, scale;  // ticks of the stream's clock: rate / scale a second
  uint32_t sample_size;  // bytes a tick; 0: a chunk is one

  // How chunks are found: by the stream's own index, the file's old index, or by walking the movie lists.
  enum class Way : uint8_t { kStreamIndex, kOldIndex, kWalk } way;
  Table indices;  // of the stream
  Table index;    // the one at hand
  uint64_t index_base;
  Table old_index;
  uint64_t old_base;
  uint64_t walk_at, walk_end, next_riff;

  uint64_t ticks;  // of the chunk that comes next

  bool open(Source& in, QMXReaderInfo& info);
  bool next(Source& in, Record& record);
};

inline uint32_t be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
inline uint64_t be64(const uint8_t* p) { return uint64_t{be32(p)} << 32 | be32(p + 4); }
inline uint32_t le32(const uint8_t* p) {
  return uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0];
}
inline uint64_t le64(const uint8_t* p) { return uint64_t{le32(p + 4)} << 32 | le32(p); }

constexpr uint32_t fourcc(const char (&name)[5]) {
  return uint32_t{static_cast<uint8_t>(name[0])} << 24 | uint32_t{static_cast<uint8_t>(name[1])} << 16 |
         uint32_t{static_cast<uint8_t>(name[2])} << 8 | static_cast<uint8_t>(name[3]);
}

}  // namespace qmxbase
