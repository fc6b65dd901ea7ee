// AVI files: RIFF, with the OpenDML extensions for more than one RIFF and for indices of a stream.
//
// Indices only tell where to look: a record is what its chunk's own header says, and there must be one. A
// recording that was cut off has no index yet; its movie list is walked.
#include <algorithm>

#include "container.h"

namespace qmxbase {
namespace {

constexpr uint32_t kHeaderSize = 8;        // name, size
constexpr uint32_t kIndexHeaderSize = 24;  // of a stream's index and of the index of those, behind the above

struct Chunk {
  uint32_t name;
  uint64_t begin;  // payload
  uint64_t end;    // no later than the list's
  uint64_t next;   // at an even distance
  bool whole;
};

// A chunk of a list that ends at `end`. A chunk that was cut off ends there too; room that was never written
// to (zeros) is none.
bool read_chunk(Source& in, uint64_t at, uint64_t end, Chunk& chunk) {
  uint8_t header[kHeaderSize];
  if (at >= end || end - at < kHeaderSize || !in.step(Source::kStepOfHeader)) return false;
  if (!in.read(at, header, kHeaderSize)) return false;
  const uint64_t size = le32(header + 4);
  chunk.name = be32(header);
  chunk.begin = at + kHeaderSize;
  chunk.end = chunk.begin + std::min(size, end - chunk.begin);
  chunk.next = chunk.begin + size + size % 2;
  chunk.whole = chunk.end - chunk.begin == size;
  return chunk.name != 0;
}

// The type of a RIFF or LIST; its chunks follow.
uint32_t list_type(Source& in, const Chunk& list) {
  uint8_t type[4];
  if (list.name != fourcc("LIST") && list.name != fourcc("RIFF")) return 0;
  return list.end - list.begin >= sizeof type && in.read(list.begin, type, sizeof type) ? be32(type) : 0;
}

uint64_t first_chunk(const Chunk& list) { return list.begin + 4; }

bool find_list(Source& in, const Chunk& parent, uint32_t type, Chunk& list) {
  for (uint64_t at = first_chunk(parent); read_chunk(in, at, parent.end, list); at = list.next) {
    if (list_type(in, list) == type) return true;
  }
  return false;
}

// A chunk of stream n is named by two digits and two letters of its kind.
bool belongs_to(uint32_t name, uint32_t stream) {
  return name >> 24 == '0' + stream / 10 && (name >> 16 & 0xFF) == '0' + stream % 10;
}

// Either a stream's index or an index of those: longs per entry (2), sub-type, type (1 each), entries in use
// (4), chunk name (4), base offset (8).
struct IndexHeader {
  bool of_indices;
  uint64_t base;
  Table entries;
};

bool read_index(Source& in, const Chunk& chunk, IndexHeader& index) {
  uint8_t bytes[kIndexHeaderSize];
  if (chunk.end - chunk.begin < sizeof bytes || !in.read(chunk.begin, bytes, sizeof bytes)) return false;
  index.of_indices = bytes[3] == 0;
  index.base = le64(bytes + 12);
  index.entries = {chunk.begin + sizeof bytes, le32(bytes + 4)};
  return index.entries.count <= (chunk.end - index.entries.begin) / (index.of_indices ? 16 : 8);
}

// The next entry of a table, which is then one shorter.
bool take_entry(Source& in, Table& table, uint8_t* to, uint32_t size) {
  if (table.count == 0 || !in.step(1) || !in.read(table.begin, to, size)) return false;
  table.begin += size;
  --table.count;
  return true;
}

// LIST strl: strh, and indx where the stream has an index.
bool read_stream(Source& in, const Chunk& strl, AviStream& stream) {
  bool wanted = false;
  Chunk chunk;
  IndexHeader header;
  for (uint64_t at = first_chunk(strl); read_chunk(in, at, strl.end, chunk); at = chunk.next) {
    if (chunk.name == fourcc("strh")) {
      uint8_t strh[48];
      if (chunk.end - chunk.begin < sizeof strh || !in.read(chunk.begin, strh, sizeof strh)) return false;
      const uint32_t type = be32(strh);
      wanted = type == fourcc("dats") || type == fourcc("txts");
      stream.scale = le32(strh + 20);
      stream.rate = le32(strh + 24);
      stream.ticks = le32(strh + 28);  // dwStart
      stream.sample_size = le32(strh + 44);
    } else if (chunk.name == fourcc("indx") && read_index(in, chunk, header)) {
      (header.of_indices ? stream.indices : stream.index) = header.entries;
      stream.index_base = header.base;
    }
  }
  return wanted;
}

// LIST hdrl: avih, one LIST strl a stream, LIST odml, and the metadata field.
bool read_header_list(Source& in, const Chunk& hdrl, QMXReaderInfo& info, AviStream& stream) {
  uint8_t avih[20];
  uint32_t frames = 0, frame_us = 0, streams = 0;
  bool has_avih = false, has_stream = false;
  Chunk chunk, dmlh;
  for (uint64_t at = first_chunk(hdrl); read_chunk(in, at, hdrl.end, chunk); at = chunk.next) {
    const uint32_t type = list_type(in, chunk);
    if (chunk.name == fourcc("avih") && chunk.end - chunk.begin >= sizeof avih) {
      if (!in.read(chunk.begin, avih, sizeof avih)) return false;
      frame_us = le32(avih);
      frames = std::max(frames, le32(avih + 16));
      has_avih = true;
    } else if (type == fourcc("strl")) {
      AviStream found = {};
      found.number = streams++;
      if (!has_stream && read_stream(in, chunk, found)) {
        if (found.rate == 0 || found.scale == 0) return false;
        stream = found;
        has_stream = true;
      }
    } else if (type == fourcc("odml")) {  // the frames of all RIFFs, where avih counts those of the first
      uint8_t total[4];
      if (read_chunk(in, first_chunk(chunk), chunk.end, dmlh) && dmlh.name == fourcc("dmlh") &&
          dmlh.end - dmlh.begin >= sizeof total && in.read(dmlh.begin, total, sizeof total)) {
        frames = std::max(frames, le32(total));
      }
    } else if (chunk.name == kMetadataName && chunk.whole) {
      read_metadata(in, chunk.begin, chunk.end - chunk.begin, info);
    }
  }
  info.durationMs = static_cast<uint32_t>(std::min<uint64_t>(scaled(frames, frame_us, 1000), UINT32_MAX));
  info.userDataPresent = has_stream;
  return has_avih;
}

// idx1: chunk name, flags, offset, size. Offsets count from the movie list's type, with some writers from the
// start of the file: the first entry tells, which is that of the first chunk.
void read_old_index(Source& in, const Chunk& idx1, uint64_t movi, AviStream& stream) {
  stream.old_index = {idx1.begin, static_cast<uint32_t>((idx1.end - idx1.begin) / 16)};
  uint8_t entry[16], name[4];
  const bool from_start = stream.old_index.count > 0 && in.read(idx1.begin, entry, sizeof entry) &&
                          le32(entry + 8) > movi && in.read(le32(entry + 8), name, sizeof name) &&
                          be32(name) == be32(entry);
  stream.old_base = from_start ? 0 : movi;
}

bool next_in_stream_index(Source& in, AviStream& stream, uint64_t& at) {
  uint8_t entry[16];
  while (!take_entry(in, stream.index, entry, 8)) {  // offset of the payload, size
    Chunk chunk;
    IndexHeader header;
    if (!take_entry(in, stream.indices, entry, 16)) return false;  // offset, size, duration
    if (read_chunk(in, le64(entry), in.size, chunk) && read_index(in, chunk, header) && !header.of_indices) {
      stream.index = header.entries;
      stream.index_base = header.base;
    }
  }
  at = stream.index_base + le32(entry) - kHeaderSize;
  return true;
}

bool next_in_old_index(Source& in, AviStream& stream, uint64_t& at) {
  uint8_t entry[16];
  while (take_entry(in, stream.old_index, entry, sizeof entry)) {
    if (belongs_to(be32(entry), stream.number)) {
      at = stream.old_base + le32(entry + 8);
      return true;
    }
  }
  return false;
}

bool next_in_movie_lists(Source& in, AviStream& stream, uint64_t& at) {
  Chunk chunk, movi;
  for (;;) {
    if (read_chunk(in, stream.walk_at, stream.walk_end, chunk)) {
      const bool is_group = list_type(in, chunk) == fourcc("rec ");
      stream.walk_at = is_group ? first_chunk(chunk) : chunk.next;
      if (belongs_to(chunk.name, stream.number) && chunk.whole) {
        at = chunk.begin - kHeaderSize;
        return true;
      }
    } else if (read_chunk(in, stream.next_riff, in.size, chunk)) {
      stream.next_riff = chunk.next;
      if (list_type(in, chunk) == fourcc("AVIX") && find_list(in, chunk, fourcc("movi"), movi)) {
        stream.walk_at = first_chunk(movi);
        stream.walk_end = movi.end;
      }
    } else {
      return false;
    }
  }
}

bool next_header(Source& in, AviStream& stream, uint64_t& at) {
  switch (stream.way) {
    case AviStream::Way::kStreamIndex:
      return next_in_stream_index(in, stream, at);
    case AviStream::Way::kOldIndex:
      return next_in_old_index(in, stream, at);
    default:
      return next_in_movie_lists(in, stream, at);
  }
}

}  // namespace

bool AviStream::open(Source& in, QMXReaderInfo& info) {
  Chunk riff, hdrl, movi, chunk;
  if (!read_chunk(in, 0, in.size, riff) || !find_list(in, riff, fourcc("hdrl"), hdrl) ||
      !read_header_list(in, hdrl, info, *this)) {
    return false;
  }
  info.containerType = 2;
  if (!info.userDataPresent) return true;
  next_riff = riff.next;
  if (find_list(in, riff, fourcc("movi"), movi)) {
    walk_at = first_chunk(movi);
    walk_end = movi.end;
    for (uint64_t at = movi.next; read_chunk(in, at, riff.end, chunk); at = chunk.next) {
      if (chunk.name == fourcc("idx1")) read_old_index(in, chunk, movi.begin, *this);
    }
  }
  for (const Way candidate : {Way::kStreamIndex, Way::kOldIndex, Way::kWalk}) {
    way = candidate;
    AviStream counting = *this;
    for (uint64_t at; next_header(in, counting, at);) ++info.userDataCount;
    if (info.userDataCount > 0) break;
  }
  return true;
}

bool AviStream::next(Source& in, Record& record) {
  uint64_t at;
  if (!next_header(in, *this, at)) return false;
  Chunk chunk;
  const bool there = read_chunk(in, at, in.size, chunk) && belongs_to(chunk.name, number) && chunk.whole;
  const uint64_t size = there ? chunk.end - chunk.begin : 0;
  record = {there ? chunk.begin : 0, size, scaled(ticks, 1000ull * scale, rate)};
  ticks += there && sample_size != 0 ? size / sample_size : 1;
  return there;
}

}  // namespace qmxbase
