// AVI files: RIFF, with the OpenDML extensions for more than one RIFF and for indices of a stream.
//
// Indices only tell where to look: a record is what its chunk's own header says, and there must be one. A
// recording that was cut off has no index of its end, and its lists do not know how long they are: the movie
// is then walked chunk by chunk to the end of the file.
#include <algorithm>

#include "container.h"

namespace qmxbase {
namespace {

constexpr uint32_t kHeaderSize = 8;        // name, size
constexpr uint32_t kIndexHeaderSize = 24;  // of a stream's index and of the index of those, after the above

struct Chunk {
  uint32_t name;
  uint32_t size;
  uint64_t begin;  // payload
  uint64_t end;    // no later than the list's
  uint64_t next;   // at an even distance

  bool is_whole() const { return end - begin == size; }
};

// A chunk of a list that ends at `end`. A chunk that was cut off ends there too; room that was never written
// to (zeros) is none.
bool read_chunk(Source& in, uint64_t at, uint64_t end, Chunk& chunk) {
  uint8_t header[kHeaderSize];
  if (at > end || end - at < kHeaderSize || !in.read(at, header, kHeaderSize)) return false;
  chunk.name = be32(header);
  chunk.size = le32(header + 4);
  chunk.begin = at + kHeaderSize;
  chunk.end = chunk.begin + std::min<uint64_t>(chunk.size, end - chunk.begin);
  chunk.next = chunk.begin + chunk.size + chunk.size % 2;
  return chunk.name != 0;
}

// The type of a RIFF or LIST; its chunks follow. (Its size may not have been written yet.)
uint32_t list_type(Source& in, const Chunk& list) {
  uint8_t type[4];
  if (list.name != fourcc("LIST") && list.name != fourcc("RIFF")) return 0;
  return in.read(list.begin, type, sizeof type) ? be32(type) : 0;
}

uint64_t first_chunk(const Chunk& list) { return list.begin + 4; }

bool find_list(Source& in, uint64_t at, uint32_t type, Chunk& list) {
  for (; read_chunk(in, at, in.size, list); at = list.next) {
    if (list_type(in, list) == type) return true;
  }
  return false;
}

// A chunk of stream n is named by two digits and two letters of its kind.
bool belongs_to(uint32_t name, uint32_t stream) {
  return name >> 24 == '0' + stream / 10 && (name >> 16 & 0xFF) == '0' + stream % 10;
}

// ---- Headers

// Either a stream's index or an index of those.
struct IndexHeader {
  bool is_of_indices;
  uint64_t base;
  Table entries;
};

// wLongsPerEntry (2), bIndexSubType, bIndexType (1 each), nEntriesInUse (4), dwChunkId (4), qwBaseOffset (8).
bool read_index(Source& in, const Chunk& chunk, IndexHeader& index) {
  uint8_t bytes[kIndexHeaderSize];
  if (chunk.end - chunk.begin < sizeof bytes || !in.read(chunk.begin, bytes, sizeof bytes)) return false;
  const uint32_t kind = le32(bytes);
  constexpr uint32_t kOfIndices = 4, kOfChunks = 2 | 1 << 24;
  index.is_of_indices = kind == kOfIndices;
  index.base = le64(bytes + 12);
  index.entries = {chunk.begin + sizeof bytes, le32(bytes + 4)};
  return (kind == kOfIndices || kind == kOfChunks) &&
         index.entries.count <= (chunk.end - index.entries.begin) / (index.is_of_indices ? 16 : 8);
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
      (header.is_of_indices ? stream.indices : stream.index) = header.entries;
      stream.index_base = header.base;
    }
  }
  return wanted;
}

// LIST hdrl: avih, one LIST strl a stream, LIST odml, and the metadata field.
bool read_header_list(Source& in, const Chunk& hdrl, QMXReaderInfo& info, AviStream& stream) {
  uint8_t avih[20];
  uint32_t frames = 0, frame_us = 0, streams = 0;
  bool has_avih = false;
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
      if (stream.rate == 0 && read_stream(in, chunk, found)) {
        if (found.rate == 0 || found.scale == 0) return false;
        stream = found;
      }
    } else if (type == fourcc("odml")) {  // the frames of all RIFFs, where avih counts those of the first
      uint8_t total[4];
      if (read_chunk(in, first_chunk(chunk), chunk.end, dmlh) && dmlh.name == fourcc("dmlh") &&
          dmlh.end - dmlh.begin >= sizeof total && in.read(dmlh.begin, total, sizeof total)) {
        frames = std::max(frames, le32(total));
      }
    } else if (chunk.name == kMetadataName && chunk.is_whole()) {
      read_metadata(in, chunk.begin, chunk.end - chunk.begin, info);
    }
  }
  info.durationMs = to_32_bits(scaled(frames, frame_us, 1000));
  return has_avih;
}

// idx1: chunk name, flags, offset, size. Offsets count from the movie list's type, with some writers from the
// start of the file: the first entry tells, which is that of the first chunk.
void read_old_index(Source& in, const Chunk& idx1, uint64_t movi, AviStream& stream) {
  stream.is_old = true;
  stream.index = {idx1.begin, static_cast<uint32_t>((idx1.end - idx1.begin) / 16)};
  uint8_t entry[16], name[4];
  const bool from_start = stream.index.count > 0 && in.read(idx1.begin, entry, sizeof entry) &&
                          le32(entry + 8) > movi && in.read(le32(entry + 8), name, sizeof name) &&
                          be32(name) == be32(entry);
  stream.index_base = from_start ? 0 : movi;
}

// ---- Chunks

struct Place {
  uint64_t at;  // header
  uint32_t size;
};

bool next_in_old_index(Source& in, AviStream& stream, Place& place) {
  uint8_t entry[16];
  while (stream.index.take(in, entry, sizeof entry)) {
    if (!belongs_to(be32(entry), stream.number)) continue;
    place = {stream.index_base + le32(entry + 8), le32(entry + 12)};
    return true;
  }
  return false;
}

// A stream's indices lie one after another, as they were written; one that does not is passed over.
bool next_in_stream_index(Source& in, AviStream& stream, Place& place) {
  uint8_t entry[16];
  while (!stream.index.take(in, entry, 8)) {  // dwOffset of the payload, dwSize
    Chunk chunk;
    IndexHeader header;
    if (!stream.indices.take(in, entry, 16)) return false;  // qwOffset, dwSize, dwDuration
    if (le64(entry) < stream.index_end) continue;
    if (!read_chunk(in, le64(entry), in.size, chunk) || !read_index(in, chunk, header) ||
        header.is_of_indices) {
      return false;
    }
    stream.index = header.entries;
    stream.index_base = header.base;
    stream.index_end = chunk.end;
  }
  constexpr uint32_t kNoKeyframe = 0x80000000;
  place = {stream.index_base + le32(entry) - kHeaderSize, le32(entry + 4) & ~kNoKeyframe};
  return true;
}

// So do a stream's chunks: an entry that leads back, or out of the file, ends the index. Where it tells of
// no bytes it needs no chunk.
bool next_in_index(Source& in, AviStream& stream, Place& place) {
  const bool found =
      stream.is_old ? next_in_old_index(in, stream, place) : next_in_stream_index(in, stream, place);
  if (!found) return false;
  const uint64_t whole_size = uint64_t{kHeaderSize} + place.size;
  if (place.at < stream.walk_at || place.at > in.size || in.size - place.at < whole_size) {
    return place.size == 0;
  }
  stream.last_indexed = place.at;
  stream.walk_at = place.at + whole_size;
  return true;
}

bool next_in_movie_lists(Source& in, AviStream& stream, Place& place) {
  for (Chunk chunk; read_chunk(in, stream.walk_at, in.size, chunk);) {
    const uint32_t type = list_type(in, chunk);
    const bool is_open = type == fourcc("AVIX") || type == fourcc("movi") || type == fourcc("rec ");
    stream.walk_at = is_open ? first_chunk(chunk) : chunk.next;
    if (!belongs_to(chunk.name, stream.number) || !chunk.is_whole()) continue;
    place = {chunk.begin - kHeaderSize, chunk.size};
    return true;
  }
  return false;
}

bool next_chunk(Source& in, AviStream& stream, Place& place) {
  if (!stream.index_ended && next_in_index(in, stream, place)) return true;
  if (!stream.index_ended && stream.last_indexed != 0) {  // the chunks after those that it told of
    Chunk chunk;
    const bool there = read_chunk(in, stream.last_indexed, in.size, chunk);
    stream.walk_at = there && belongs_to(chunk.name, stream.number) ? chunk.next : in.size;
  }
  stream.index_ended = true;
  return next_in_movie_lists(in, stream, place);
}

void pass(AviStream& stream, uint64_t size) {
  stream.ticks += stream.sample_size != 0 ? size / stream.sample_size : 1;
}

// A chunk of no bytes is no record: writers let time pass with those.
bool next_record(Source& in, AviStream& stream, Place& place) {
  while (next_chunk(in, stream, place)) {
    if (place.size > 0) return true;
    pass(stream, 0);
  }
  return false;
}

uint64_t to_ms(const AviStream& stream, uint64_t ticks) {
  return scaled(ticks, uint64_t{1000} * stream.scale, stream.rate);
}

}  // namespace

bool AviStream::open(Source& in, QMXReaderInfo& info) {
  Chunk list, chunk;
  constexpr uint64_t kFirstChunk = 12;  // after RIFF, size, AVI
  if (!find_list(in, kFirstChunk, fourcc("hdrl"), list) || !read_header_list(in, list, info, *this))
    return false;
  walk_at = in.size;
  if (rate == 0 || !find_list(in, list.next, fourcc("movi"), list)) return true;
  walk_at = list.begin - kHeaderSize;
  if (index.count == 0 && indices.count == 0) {
    for (uint64_t at = list.next; read_chunk(in, at, in.size, chunk); at = chunk.next) {
      if (chunk.name != fourcc("idx1")) continue;
      read_old_index(in, chunk, list.begin, *this);
      break;
    }
  }
  AviStream counting = *this;
  uint64_t last = 0;
  for (Place place; next_record(in, counting, place); pass(counting, place.size)) {
    ++info.userDataCount;
    last = counting.ticks;
  }
  // The header of a recording that was cut off tells of what was written until then, or of nothing.
  info.durationMs = std::max(info.durationMs, to_32_bits(to_ms(*this, last)));
  return true;
}

bool AviStream::next(Source& in, Record& record) {
  Place place;
  if (!next_record(in, *this, place)) return false;
  Chunk chunk;
  const bool there =
      read_chunk(in, place.at, in.size, chunk) && belongs_to(chunk.name, number) && chunk.is_whole();
  if (there) record = {chunk.begin, chunk.size, to_ms(*this, ticks)};
  pass(*this, there ? chunk.size : place.size);
  return there;
}

}  // namespace qmxbase
