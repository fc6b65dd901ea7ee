// ISO base media files (ISO/IEC 14496-12): MP4, MOV.
//
// A list of boxes ends where one does not fit. What is missing then, or lies, shows when it is asked for.
#include <algorithm>
#include <iterator>

#include "container.h"

namespace qmxbase {

bool BoxList::next(Source& in, Box& box) {
  uint8_t header[16];
  if (end - at < 8 || !in.read(at, header, 8)) return false;
  uint64_t header_size = 8;
  uint64_t size = be32(header);
  if (size == 1) {
    header_size = 16;
    if (!in.read(at + 8, header + 8, 8)) return false;
    size = be64(header + 8);
  } else if (size == 0) {
    size = end - at;
  }
  if (size < header_size || size > end - at) return false;
  box = {be32(header + 4), at + header_size, at + size};
  at += size;
  return true;
}

bool ValueRuns::take(Source& in, uint32_t& to) {
  while (left == 0) {
    uint8_t entry[8];
    if (!table.take(in, entry, sizeof entry)) return false;
    left = be32(entry);
    value = be32(entry + 4);
  }
  --left;
  to = value;
  return true;
}

namespace {

// The fields at the start of a full box, in their order. Those beyond its end are 0, and it is not whole.
class Fields {
 public:
  Fields(Source& in, const Box& box) : begin_(box.begin), end_(box.end) {
    length_ = static_cast<uint32_t>(std::min<uint64_t>(end_ - begin_, sizeof bytes_));
    whole = in.read(begin_, bytes_, length_);
    const uint32_t start = u32();
    version = start >> 24;
    flags = start & 0xFFFFFF;
  }

  uint32_t u32() {
    whole = whole && length_ - at_ >= 4;
    if (!whole) return 0;
    at_ += 4;
    return be32(bytes_ + at_ - 4);
  }
  uint64_t u64() {
    const uint64_t high = u32();
    return high << 32 | u32();
  }
  // Times are longer in version 1.
  uint64_t time() { return version == 1 ? u64() : u32(); }
  // The entries that follow.
  Table table(uint32_t count, uint32_t entry_size) {
    const uint64_t begin = begin_ + at_;
    whole = whole && (entry_size == 0 || count <= (end_ - begin) / entry_size);
    return {begin, whole ? count : 0};
  }

  uint32_t version, flags;
  bool whole;

 private:
  uint64_t begin_, end_;
  uint8_t bytes_[40];
  uint32_t length_;
  uint32_t at_ = 0;
};

bool find(Source& in, const Box& parent, uint32_t type, Box& box) {
  for (BoxList list = {parent.begin, parent.end}; list.next(in, box);) {
    if (box.type == type) return true;
  }
  return false;
}

// mvhd and mdhd begin alike.
bool read_time_header(Source& in, const Box& box, uint32_t& timescale, uint64_t& duration) {
  Fields fields(in, box);
  fields.time();  // creation_time
  fields.time();  // modification_time
  timescale = fields.u32();
  duration = fields.time();
  if (duration == (fields.version == 1 ? UINT64_MAX : UINT32_MAX)) duration = 0;  // not known
  return fields.whole && timescale != 0;
}

bool read_tkhd(Source& in, const Box& tkhd, IsoTrack& track) {
  Fields fields(in, tkhd);
  fields.time();  // creation_time
  fields.time();  // modification_time
  track.id = fields.u32();
  return fields.whole;
}

// ---- Edit lists

bool read_elst(Source& in, const Box& elst, EditList& edits) {
  Fields fields(in, elst);
  edits.is_64_bit = fields.version == 1;
  const uint32_t entry_count = fields.u32();
  edits.table = fields.table(entry_count, edits.is_64_bit ? 20 : 12);
  return fields.whole;
}

// Goes on to the edit that shows what the track has at `time`, or that comes next; an empty one shows
// nothing.
void find_edit(Source& in, IsoTrack& track, uint64_t time) {
  EditList& edits = track.edits;
  uint8_t entry[20];  // segment_duration, media_time, media_rate
  while (time >= edits.media_end && edits.table.take(in, entry, edits.is_64_bit ? 20 : 12)) {
    const uint64_t duration = edits.is_64_bit ? be64(entry) : be32(entry);
    const uint64_t media_time = edits.is_64_bit ? be64(entry + 8) : be32(entry + 4);
    if (media_time != (edits.is_64_bit ? UINT64_MAX : UINT32_MAX)) {
      const uint64_t length = scaled(duration, track.timescale, track.movie_timescale);
      edits.start = edits.next_start;
      edits.media_time = media_time;
      edits.media_end =
          duration == 0 ? UINT64_MAX : narrow(Wide{media_time} + length);  // 0: with all fragments
    }
    edits.next_start += duration;
  }
}

// When the presentation comes to what the track has at `media_time`; what lies before an edit comes at its
// start. Times are signed, in two's complement: a fragment may begin before the track does.
uint64_t presentation_ms(Source& in, IsoTrack& track, uint64_t media_time) {
  const uint64_t time = media_time >> 63 != 0 ? 0 : media_time;
  find_edit(in, track, time);
  const uint64_t after = time - std::min(time, track.edits.media_time);
  return narrow((Wide{track.edits.start} * track.timescale + Wide{after} * track.movie_timescale) * 1000 /
                (uint64_t{track.timescale} * track.movie_timescale));
}

// ---- Sample tables

struct Sample {
  uint64_t offset;
  uint32_t size;
  uint32_t duration;
  uint32_t composition_offset;  // signed, in two's complement
};

uint64_t composition_time(const IsoTrack& track, const Sample& sample) {
  const int64_t offset = static_cast<int32_t>(sample.composition_offset);
  return track.time + static_cast<uint64_t>(offset);
}

bool read_table(Source& in, const Box& box, uint32_t entry_size, Table& table) {
  Fields fields(in, box);
  const uint32_t entry_count = fields.u32();
  table = fields.table(entry_count, entry_size);
  return fields.whole;
}

bool read_stsz(Source& in, const Box& stsz, SampleTable& table) {
  Fields fields(in, stsz);
  table.equal_size = fields.u32();  // sample_size
  table.samples_left = fields.u32();
  if (table.equal_size == 0) table.sizes = fields.table(table.samples_left, 4);
  // Without a table to bound their number: that many samples must fit the file.
  return fields.whole && (table.equal_size == 0 || table.samples_left <= in.size / table.equal_size);
}

bool read_stbl(Source& in, const Box& stbl, SampleTable& table) {
  Box stts, ctts, stsc, stsz, offsets;
  if (!find(in, stbl, fourcc("stts"), stts) || !read_table(in, stts, 8, table.durations.table) ||
      !find(in, stbl, fourcc("stsc"), stsc) || !read_table(in, stsc, 12, table.chunk_runs) ||
      !find(in, stbl, fourcc("stsz"), stsz) || !read_stsz(in, stsz, table)) {
    return false;
  }
  if (find(in, stbl, fourcc("ctts"), ctts) && !read_table(in, ctts, 8, table.composition_offsets.table)) {
    return false;
  }
  table.offset_size = find(in, stbl, fourcc("stco"), offsets) ? 4 : 8;
  return (table.offset_size == 4 || find(in, stbl, fourcc("co64"), offsets)) &&
         read_table(in, offsets, table.offset_size, table.chunk_offsets);
}

bool find_chunk(Source& in, SampleTable& table) {
  if (table.chunk_left > 0) return true;
  uint8_t entry[12];
  ++table.chunk;  // counted from 1
  Table runs = table.chunk_runs;
  if (runs.take(in, entry, sizeof entry) && be32(entry) == table.chunk) {
    table.chunk_runs = runs;
    table.samples_per_chunk = be32(entry + 4);
  }
  if (!table.chunk_offsets.take(in, entry, table.offset_size)) return false;
  table.offset = table.offset_size == 4 ? be32(entry) : be64(entry);
  table.chunk_left = table.samples_per_chunk;
  return table.chunk_left > 0;  // 0 also when no run begins at the first chunk
}

bool take_of_table(Source& in, SampleTable& table, Sample& sample) {
  uint8_t size[4];
  --table.samples_left;
  if (!table.durations.take(in, sample.duration) || !find_chunk(in, table)) return false;
  if (!table.composition_offsets.take(in, sample.composition_offset)) sample.composition_offset = 0;
  if (table.equal_size == 0 && !table.sizes.take(in, size, sizeof size)) return false;
  sample.size = table.equal_size == 0 ? be32(size) : table.equal_size;
  sample.offset = table.offset;
  table.offset += sample.size;
  --table.chunk_left;
  return true;
}

// ---- Movie fragments

// The defaults of the fragments of the track that is at hand.
Trex find_trex(Source& in, const Box& mvex, Fragments& fragments) {
  Trex& trex = fragments.trexs[fragments.track_id % std::size(fragments.trexs)];
  if (trex.track_id == fragments.track_id) return trex;
  trex = {fragments.track_id, 0, 0};
  Box box;
  for (BoxList list = {mvex.begin, mvex.end}; list.next(in, box);) {
    if (box.type != fourcc("trex")) continue;
    Fields fields(in, box);
    if (fields.u32() != fragments.track_id) continue;
    fields.u32();  // default_sample_description_index
    trex.default_duration = fields.u32();
    trex.default_size = fields.u32();
    break;
  }
  return trex;
}

bool read_tfhd(Source& in, const Box& tfhd, IsoTrack& track) {
  constexpr uint32_t kBaseDataOffset = 0x1, kSampleDescriptionIndex = 0x2, kDefaultDuration = 0x8,
                     kDefaultSize = 0x10, kDefaultBaseIsMoof = 0x20000;
  Fragments& fragments = track.fragments;
  Fields fields(in, tfhd);
  fragments.track_id = fields.u32();
  if (fields.flags & kDefaultBaseIsMoof) fragments.offset = fragments.moof_begin;
  if (fields.flags & kBaseDataOffset) fragments.offset = fields.u64();
  if (fields.flags & kSampleDescriptionIndex) fields.u32();
  const bool has_both = (~fields.flags & (kDefaultDuration | kDefaultSize)) == 0;
  const Trex trex = has_both ? Trex{} : find_trex(in, track.mvex, fragments);
  fragments.default_duration = fields.flags & kDefaultDuration ? fields.u32() : trex.default_duration;
  fragments.default_size = fields.flags & kDefaultSize ? fields.u32() : trex.default_size;
  fragments.base = fragments.offset;  // without flags: where the data of the track before ends
  return fields.whole;
}

// tr_flags: what stands in the entries of a run.
constexpr uint32_t kSampleDuration = 0x100, kSampleSize = 0x200, kSampleFlags = 0x400,
                   kSampleCompositionOffset = 0x800;

uint32_t entry_size(uint32_t run_flags) {
  return 4 * static_cast<uint32_t>(__builtin_popcount(run_flags & 0xF00));
}

bool read_trun(Source& in, const Box& trun, Fragments& fragments) {
  constexpr uint32_t kDataOffset = 0x1, kFirstSampleFlags = 0x4;
  Fields fields(in, trun);
  const uint32_t sample_count = fields.u32();
  if (fields.flags & kDataOffset) {
    fragments.offset = fragments.base + static_cast<uint64_t>(static_cast<int32_t>(fields.u32()));
  }
  if (fields.flags & kFirstSampleFlags) fields.u32();
  fragments.run_flags = fields.flags;
  fragments.run = fields.table(sample_count, entry_size(fields.flags));
  return fields.whole;
}

// Goes on to the next run, of whichever track.
bool find_run(Source& in, IsoTrack& track) {
  Fragments& fragments = track.fragments;
  for (Box box;;) {
    const uint64_t box_begin = fragments.file.at;
    if (fragments.traf.next(in, box)) {
      if (box.type == fourcc("tfhd") && !read_tfhd(in, box, track)) return false;
      if (box.type == fourcc("tfdt") && fragments.track_id == track.id) track.time = Fields(in, box).time();
      if (box.type == fourcc("trun")) return read_trun(in, box, fragments);
    } else if (fragments.moof.next(in, box)) {
      if (box.type != fourcc("traf")) continue;
      fragments.traf = {box.begin, box.end};
      fragments.track_id = 0;
    } else if (fragments.file.next(in, box)) {
      if (box.type != fourcc("moof")) continue;
      fragments.moof = {box.begin, box.end};
      fragments.moof_begin = fragments.offset = box_begin;
    } else {
      return false;
    }
  }
}

bool take_of_run(Source& in, Fragments& fragments, Sample& sample) {
  uint8_t entry[16];
  if (!fragments.run.take(in, entry, entry_size(fragments.run_flags))) return false;
  const uint8_t* at = entry;
  const auto field = [&](uint32_t flag, uint32_t otherwise) {
    if ((fragments.run_flags & flag) == 0) return otherwise;
    at += 4;
    return be32(at - 4);
  };
  sample.duration = field(kSampleDuration, fragments.default_duration);
  sample.size = field(kSampleSize, fragments.default_size);
  field(kSampleFlags, 0);
  sample.composition_offset = field(kSampleCompositionOffset, 0);
  sample.offset = fragments.offset;
  fragments.offset += sample.size;
  return true;
}

// Passes over what is left of a run, and returns its duration.
uint64_t pass_run(Source& in, Fragments& fragments) {
  uint64_t duration = 0;
  if ((fragments.run_flags & (kSampleDuration | kSampleSize)) == 0) {
    duration = uint64_t{fragments.run.count} * fragments.default_duration;
    fragments.offset += uint64_t{fragments.run.count} * fragments.default_size;
    fragments.run.count = 0;
  }
  for (Sample sample; take_of_run(in, fragments, sample);) duration += sample.duration;
  return duration;
}

// What is not in the file whole ends the recording. All samples together are no larger than the file: one of
// no bytes counts as one.
bool take_of_fragments(Source& in, IsoTrack& track, Sample& sample) {
  Fragments& fragments = track.fragments;
  while (fragments.run.count == 0 || fragments.track_id != track.id) {
    pass_run(in, fragments);
    if (!find_run(in, track)) return false;
  }
  if (!take_of_run(in, fragments, sample)) return false;
  const uint32_t taken = std::max(sample.size, 1u);
  if (sample.offset > in.size || sample.size > in.size - sample.offset || taken > fragments.room)
    return false;
  fragments.room -= taken;
  return true;
}

// When the fragments of a track end, as far as they are in the file; 0 without any.
uint64_t end_of_fragments_ms(Source& in, IsoTrack track) {
  uint64_t end_ms = 0;
  while (find_run(in, track)) {
    const uint64_t duration = pass_run(in, track.fragments);
    if (track.fragments.offset > in.size) break;
    if (track.fragments.track_id != track.id) continue;
    track.time += duration;
    end_ms = presentation_ms(in, track, track.time);
  }
  return end_ms;
}

// ---- Tracks

bool is_metadata_track(Source& in, const Box& mdia) {
  Box hdlr;
  if (!find(in, mdia, fourcc("hdlr"), hdlr)) return false;
  Fields fields(in, hdlr);
  fields.u32();  // pre_defined
  return fields.u32() == fourcc("meta");
}

bool read_trak(Source& in, const Box& trak, const Box& mdia, IsoTrack& track) {
  Box tkhd, edts, elst, mdhd;
  if (!find(in, trak, fourcc("tkhd"), tkhd) || !read_tkhd(in, tkhd, track)) return false;
  if (find(in, trak, fourcc("edts"), edts) && find(in, edts, fourcc("elst"), elst) &&
      !read_elst(in, elst, track.edits)) {
    return false;
  }
  // The tables end at the duration; there the fragments go on.
  return find(in, mdia, fourcc("mdhd"), mdhd) && read_time_header(in, mdhd, track.timescale, track.time);
}

bool read_sample_table(Source& in, const Box& mdia, IsoTrack& track) {
  Box minf, stbl;
  track.time = 0;
  return find(in, mdia, fourcc("minf"), minf) && find(in, minf, fourcc("stbl"), stbl) &&
         read_stbl(in, stbl, track.table);
}

// ---- Movie

// mvhd, and mvex where there are fragments, whose duration may be in mehd.
bool read_movie(Source& in, const Box& moov, IsoTrack& movie, uint64_t& duration_ms) {
  Box mvhd, mehd;
  uint64_t duration;
  if (!find(in, moov, fourcc("mvhd"), mvhd) || !read_time_header(in, mvhd, movie.movie_timescale, duration)) {
    return false;
  }
  if (find(in, moov, fourcc("mvex"), movie.mvex) && find(in, movie.mvex, fourcc("mehd"), mehd)) {
    duration = std::max(duration, Fields(in, mehd).time());
  }
  duration_ms = scaled(duration, 1000, movie.movie_timescale);
  movie.fragments.file = {moov.end, in.size};
  movie.fragments.room = in.size;
  return true;
}

// Those of the tables are as many as these say; those of the fragments are looked at.
uint64_t count_samples(Source& in, IsoTrack& track, uint64_t& duration_ms) {
  uint64_t count = track.table.samples_left, last = 0;
  track.fragments.room -= std::min(track.fragments.room, count);
  IsoTrack counting = track;
  for (Sample sample; take_of_fragments(in, counting, sample); ++count) {
    last = composition_time(counting, sample);
    counting.time += sample.duration;
  }
  duration_ms = std::max(duration_ms, presentation_ms(in, counting, last));
  return count;
}

}  // namespace

bool IsoTrack::open(Source& in, QMXReaderInfo& info) {
  Box moov, box, mdia;
  IsoTrack movie = {};
  uint64_t duration_ms;
  if (!find(in, {0, 0, in.size}, fourcc("moov"), moov) || !read_movie(in, moov, movie, duration_ms)) {
    return false;
  }
  bool found = false;
  for (BoxList list = {moov.begin, moov.end}; list.next(in, box);) {
    if (box.type != fourcc("trak") || !find(in, box, fourcc("mdia"), mdia)) continue;
    IsoTrack track = movie;
    const bool is_wanted = !found && is_metadata_track(in, mdia);
    const bool is_whole = read_trak(in, box, mdia, track);
    if (is_whole) duration_ms = std::max(duration_ms, end_of_fragments_ms(in, track));
    if (!is_wanted) continue;
    if (!is_whole || !read_sample_table(in, mdia, track)) return false;
    *this = track;
    found = true;
  }
  if (found) info.userDataCount = to_32_bits(count_samples(in, *this, duration_ms));
  info.durationMs = to_32_bits(duration_ms);
  if (find(in, moov, fourcc("udta"), box) && find(in, box, kMetadataName, box)) {
    read_metadata(in, box.begin, box.end - box.begin, info);
  }
  return true;
}

bool IsoTrack::next(Source& in, Record& record) {
  Sample sample;
  if (table.samples_left > 0) {
    if (!take_of_table(in, table, sample)) {
      table.chunk_offsets.count = table.chunk_left = 0;  // where the tables break off, they end
      return false;
    }
  } else if (!take_of_fragments(in, *this, sample)) {
    fragments.room = 0;  // the same
    return false;
  }
  record = {sample.offset, sample.size, presentation_ms(in, *this, composition_time(*this, sample))};
  time += sample.duration;
  return true;
}

}  // namespace qmxbase
