// What the media file reader's containers share: bounded reading of an untrusted file, and their cursors.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmx_reader.h"

namespace qmxbase {

// A file that may say anything about itself. Reads beyond its end fail, and so do those of an operation that
// has read more than the file's size warrants: no file makes a reader run on.
struct Source {
  static constexpr uint64_t kWorkOfSmallFile = 1u << 16;
  static constexpr uint64_t kMostWork = 1u << 26;
  static constexpr uint64_t kWorkOfFilling = 64;  // the window, against one read from it

  int fd;
  bool gave_up;  // for too much work
  uint64_t work_left;
  uint64_t size;
  uint64_t window_start;
  uint32_t window_length;
  uint8_t window[4096];

  void begin_operation();
  bool work(uint64_t amount);
  // Small reads, through the window.
  bool read(uint64_t offset, uint8_t* to, uint32_t count);
  // Any size, past the window.
  bool read_block(uint64_t offset, uint8_t* to, uint64_t count) const;
};

// What is left of a table of equal entries in the file.
struct Table {
  uint64_t begin;
  uint32_t count;

  bool take(Source& in, uint8_t* to, uint32_t entry_size);
};

// One user data record in the file.
struct Record {
  uint64_t offset;
  uint64_t size;
  uint64_t time_ms;
};

constexpr uint32_t kIso = 1, kAvi = 2;  // container types

// The metadata field goes by this name in both containers: an ISO box type, a RIFF chunk name.
constexpr uint32_t kMetadataName = 0x716D786D;  // "qmxm"

// Fills the metadata fields of `info` from the payload of a box or chunk of that name.
void read_metadata(Source& in, uint64_t offset, uint64_t size, QMXReaderInfo& info);

__extension__ typedef unsigned __int128 Wide;

// UINT64_MAX when it does not fit.
uint64_t narrow(Wide value);
// value x numerator / denominator.
uint64_t scaled(uint64_t value, uint64_t numerator, uint32_t denominator);
// As the information has room for.
uint32_t to_32_bits(uint64_t value);

// ---- ISO base media files (ISO/IEC 14496-12)

struct Box {
  uint32_t type;
  uint64_t begin;  // payload
  uint64_t end;
};

// What is left of a list of boxes.
struct BoxList {
  uint64_t at, end;

  bool next(Source& in, Box& box);
};

// A value for each sample, as runs of equal ones: stts, ctts.
struct ValueRuns {
  Table table;  // sample_count, value
  uint32_t left, value;

  bool take(Source& in, uint32_t& to);
};

// Where the media lies in the presentation: elst.
struct EditList {
  Table table;
  bool is_64_bit;
  uint64_t next_start;             // of the edits still in the table, in the movie's timescale
  uint64_t start;                  // of the edit at hand, the same
  uint64_t media_time, media_end;  // what it shows of the track, in the track's timescale
};

// The samples of a chunk table: stbl.
struct SampleTable {
  ValueRuns durations;            // stts
  ValueRuns composition_offsets;  // ctts
  Table chunk_runs;               // stsc: first_chunk, samples_per_chunk, sample_description_index
  Table chunk_offsets;            // stco, co64
  uint32_t offset_size;           // 4, 8
  Table sizes;                    // stsz
  uint32_t equal_size;            // of all samples; 0: the table tells
  uint32_t samples_left;
  uint32_t chunk, samples_per_chunk, chunk_left;
  uint64_t offset;
};

struct Trex {
  uint32_t track_id, default_duration, default_size;
};

// The samples of movie fragments: moof, with what its boxes say of the run at hand.
struct Fragments {
  BoxList file, moof, traf;
  Trex trexs[8];  // of those read last, at the remainder of their track_id
  uint64_t moof_begin;
  uint32_t track_id;  // tfhd
  uint64_t base;
  uint32_t default_duration, default_size;
  uint32_t run_flags;  // trun
  Table run;
  uint64_t offset;  // of the sample that comes next
  uint64_t room;    // of the file, for records still to come
};

// A track, and the sample that comes next.
struct IsoTrack {
  uint32_t movie_timescale, timescale;
  uint32_t id;
  Box mvex;
  EditList edits;
  SampleTable table;
  Fragments fragments;
  uint64_t time;

  bool open(Source& in, QMXReaderInfo& info);
  bool next(Source& in, Record& record);  // false after the last one, and for one that is not there
};

// ---- AVI files (RIFF, with the OpenDML extensions)

// The chunks of a data or text stream.
struct AviStream {
  uint32_t number;
  uint32_t rate, scale;  // ticks of the stream's clock: rate / scale a second
  uint32_t sample_size;  // bytes a tick; 0: a chunk is one

  // Chunks are found by an index as far as it goes, then by walking the movie lists.
  Table indices;  // of the stream
  Table index;    // the one at hand
  bool is_old;    // it is idx1
  uint64_t index_base, index_end;
  uint64_t last_indexed;
  bool index_ended;
  uint64_t walk_at;

  uint64_t ticks;  // of the chunk that comes next

  bool open(Source& in, QMXReaderInfo& info);
  bool next(Source& in, Record& record);  // as above
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
