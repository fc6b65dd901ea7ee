// ISO base media files (ISO/IEC 14496-12): MP4, MOV.
//
// A list of boxes ends where one does not fit. What is missing then, or lies, shows when it is asked for.
#include <algorithm>

#include "container.h"

namespace qmxbase {
namespace {

struct Box {
  uint32_t type;
  uint64_t begin;  // payload
  uint64_t end;
};

class BoxList {
 public:
  BoxList(Source& in, uint64_t begin, uint64_t end) : in_(in), at_(begin), end_(end) {}
  BoxList(Source& in, const Box& parent) : BoxList(in, parent.begin, parent.end) {}

  bool next(Box& box) {
    uint8_t header[16];
    if (end_ - at_ < 8 || !in_.step(Source::kStepOfHeader) || !in_.read(at_, header, 8)) return false;
    uint64_t header_size = 8;
    uint64_t size = be32(header);
    if (size == 1) {
      header_size = 16;
      if (!in_.read(at_ + 8, header + 8, 8)) return false;
      size = be64(header + 8);
    } else if (size == 0) {
      size = end_ - at_;
    }
    if (size < header_size || size > end_ - at_) return false;
    box = {be32(header + 4), at_ + header_size, at_ + size};
    at_ += size;
    return true;
  }

  bool find(uint32_t type, Box& box) {
    while (next(box)) {
      if (box.type == type) return true;
    }
    return false;
  }

 private:
  Source& in_;
  uint64_t at_;
  uint64_t end_;
};

bool find(Source& in, const Box& parent, uint32_t type, Box& box) {
  return BoxList(in, parent).find(type, box);
}

// The start of a full box: version and flags, and what follows.
bool read_start(Source& in, const Box& box, uint8_t* to, uint32_t count) {
  return box.end - box.begin >= count && in.read(box.begin, to, count);
}

// mvhd and mdhd begin alike: creation_time, modification_time, timescale, duration.
bool read_time_header(Source& in, const Box& box, uint32_t& timescale, uint64_t& duration) {
  uint8_t bytes[32];
  if (!read_start(in, box, bytes, 20)) return false;
  const bool is_64_bit = bytes[0] == 1;
  if (is_64_bit && !read_start(in, box, bytes, 32)) return false;
  timescale = be32(bytes + (is_64_bit ? 20 : 12));
  duration = is_64_bit ? be64(bytes + 24) : be32(bytes + 16);
  if (duration == (is_64_bit ? UINT64_MAX : UINT32_MAX)) duration = 0;  // not known
  return timescale != 0;
}

// entry_count and the entries behind it.
bool read_table(Source& in, const Box& box, uint32_t entry_size, Table& table) {
  uint8_t bytes[8];
  if (!read_start(in, box, bytes, sizeof bytes)) return false;
  table = {box.begin + sizeof bytes, be32(bytes + 4)};
  return table.count <= (box.end - table.begin) / entry_size;
}

bool read_sizes(Source& in, const Box& box, IsoTrack& track) {
  uint8_t bytes[12];  // version and flags, sample_size, sample_count
  if (!read_start(in, box, bytes, sizeof bytes)) return false;
  track.equal_size = be32(bytes + 4);
  track.sizes = {box.begin + sizeof bytes, be32(bytes + 8)};
  // Without a table to bound their number: that many samples must fit the file.
  if (track.equal_size != 0) return track.sizes.count <= in.size / track.equal_size;
  return track.sizes.count <= (box.end - track.sizes.begin) / 4;
}

bool is_metadata_track(Source& in, const Box& mdia) {
  Box hdlr;
  uint8_t bytes[12];
  return find(in, mdia, fourcc("hdlr"), hdlr) && read_start(in, hdlr, bytes, sizeof bytes) &&
         be32(bytes + 8) == fourcc("meta");
}

bool read_track(Source& in, const Box& mdia, IsoTrack& track) {
  Box mdhd, minf, stbl, stts, stsc, stsz, offsets;
  uint64_t duration;
  if (!find(in, mdia, fourcc("mdhd"), mdhd) || !read_time_header(in, mdhd, track.timescale, duration) ||
      !find(in, mdia, fourcc("minf"), minf) || !find(in, minf, fourcc("stbl"), stbl) ||
      !find(in, stbl, fourcc("stts"), stts) || !read_table(in, stts, 8, track.durations) ||
      !find(in, stbl, fourcc("stsc"), stsc) || !read_table(in, stsc, 12, track.chunk_runs) ||
      !find(in, stbl, fourcc("stsz"), stsz) || !read_sizes(in, stsz, track)) {
    return false;
  }
  track.offset_size = find(in, stbl, fourcc("stco"), offsets) ? 4 : 8;
  return (track.offset_size == 4 || find(in, stbl, fourcc("co64"), offsets)) &&
         read_table(in, offsets, track.offset_size, track.chunk_offsets);
}

bool find_duration(Source& in, IsoTrack& track) {
  while (track.duration_left == 0) {
    uint8_t entry[8];  // sample_count, sample_delta
    if (track.durations_read == track.durations.count || !in.step(1) ||
        !in.read(track.durations.begin + 8ull * track.durations_read, entry, sizeof entry)) {
      return false;
    }
    ++track.durations_read;
    track.duration_left = be32(entry);
    track.duration = be32(entry + 4);
  }
  return true;
}

bool find_chunk(Source& in, IsoTrack& track) {
  if (track.chunk_left > 0) return true;
  if (track.chunk == track.chunk_offsets.count) return false;
  uint8_t entry[12];  // first_chunk (counted from 1), samples_per_chunk, sample_description_index
  if (track.runs_read < track.chunk_runs.count) {
    if (!in.read(track.chunk_runs.begin + 12ull * track.runs_read, entry, sizeof entry)) return false;
    if (be32(entry) == track.chunk + 1) {
      track.samples_per_chunk = be32(entry + 4);
      ++track.runs_read;
    }
  }
  const uint64_t at = track.chunk_offsets.begin + uint64_t{track.offset_size} * track.chunk;
  if (!in.read(at, entry, track.offset_size)) return false;
  track.offset = track.offset_size == 4 ? be32(entry) : be64(entry);
  track.chunk_left = track.samples_per_chunk;
  ++track.chunk;
  return track.chunk_left > 0;  // 0 also when no run begins at the first chunk
}

bool find_size(Source& in, const IsoTrack& track, uint32_t& size) {
  uint8_t entry[4];
  size = track.equal_size;
  if (size != 0) return true;
  if (!in.read(track.sizes.begin + 4ull * track.sample, entry, sizeof entry)) return false;
  size = be32(entry);
  return true;
}

}  // namespace

bool IsoTrack::open(Source& in, QMXReaderInfo& info) {
  Box moov, box;
  uint32_t movie_timescale;
  uint64_t movie_duration;
  if (!BoxList(in, 0, in.size).find(fourcc("moov"), moov) || !find(in, moov, fourcc("mvhd"), box) ||
      !read_time_header(in, box, movie_timescale, movie_duration)) {
    return false;
  }
  info.containerType = 1;
  const uint64_t duration_ms = scaled(movie_duration, 1000, movie_timescale);
  info.durationMs = static_cast<uint32_t>(std::min<uint64_t>(duration_ms, UINT32_MAX));

  for (BoxList traks(in, moov); traks.find(fourcc("trak"), box);) {
    Box mdia;
    if (!find(in, box, fourcc("mdia"), mdia) || !is_metadata_track(in, mdia)) continue;
    if (!read_track(in, mdia, *this)) return false;
    info.userDataCount = sizes.count;
    break;
  }
  Box udta;
  if (find(in, moov, fourcc("udta"), udta) && find(in, udta, kMetadataName, box)) {
    read_metadata(in, box.begin, box.end - box.begin, info);
  }
  return true;
}

bool IsoTrack::next(Source& in, Record& record) {
  uint32_t size = 0;
  if (sample == sizes.count || !find_duration(in, *this) || !find_chunk(in, *this) ||
      !find_size(in, *this, size)) {
    sample = sizes.count;  // where the tables break off, the track ends
    return false;
  }
  record = {offset, size, scaled(time, 1000, timescale)};
  ++sample;
  time += duration;
  --duration_left;
  offset += size;
  --chunk_left;
  return true;
}

}  // namespace qmxbase
