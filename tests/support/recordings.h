// Small MP4 and AVI files with user data records and a metadata field, as a recorder writes them.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bytes.h"

namespace qmxtest {

inline std::string box(const std::string& type, const std::string& payload) {
  return be(payload.size() + 8, 4) + type + payload;
}
inline std::string chunk(const std::string& name, const std::string& payload) {
  return name + le(payload.size(), 4) + payload + std::string(payload.size() % 2, '\0');
}
inline std::string list(const std::string& type, const std::string& chunks) {
  return chunk("LIST", type + chunks);
}

// A file with a hole in it; without one just `head`.
struct SparseFile {
  std::string head;
  uint64_t hole = 0;
  std::string tail;

  void write(const std::string& path) const {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool done = pwrite(fd, head.data(), head.size(), 0) == static_cast<ssize_t>(head.size());
    const auto at = static_cast<off_t>(head.size() + hole);
    done &= pwrite(fd, tail.data(), tail.size(), at) == static_cast<ssize_t>(tail.size());
    if (close(fd) != 0 || !done) abort();
  }
};

struct Mp4 {
  uint32_t timescale = 1000, duration = 0;  // of the movie, in milliseconds
  std::vector<std::string> records;
  std::vector<uint32_t> deltas;         // time from each record to the next, in the track's timescale
  std::vector<uint32_t> chunk_lengths;  // records in each chunk
  bool moov_first = false, long_offsets = false;
  std::string metadata;  // payload of the field; empty: none
  uint64_t hole = 0;     // before the first record; needs long_offsets and moov behind

  std::string moov(uint64_t first_record) const {
    std::string stts, stsc, stsz, offsets;
    for (size_t i = 0; i < records.size(); ++i) {
      stts += be(1, 4) + be(deltas[i], 4);
      stsz += be(records[i].size(), 4);
    }
    uint64_t at = first_record;
    size_t record = 0;
    uint32_t runs = 0;
    for (size_t i = 0; i < chunk_lengths.size(); ++i) {
      if (i == 0 || chunk_lengths[i] != chunk_lengths[i - 1]) {
        stsc += be(i + 1, 4) + be(chunk_lengths[i], 4) + be(1, 4);
        ++runs;
      }
      offsets += be(at, long_offsets ? 8 : 4);
      for (uint32_t k = 0; k < chunk_lengths[i]; ++k) at += records[record++].size();
      at += kFiller;
    }
    const std::string zero4(4, '\0'), zero12(12, '\0'), count = be(records.size(), 4);
    const std::string stbl =
        box("stts", zero4 + count + stts) + box("stsc", zero4 + be(runs, 4) + stsc) +
        box("stsz", zero4 + zero4 + count + stsz) +
        box(long_offsets ? "co64" : "stco", zero4 + be(chunk_lengths.size(), 4) + offsets);
    const auto trak = [&](const std::string& handler, const std::string& tables) {
      return box("trak", box("tkhd", std::string(84, '\0')) +
                             box("mdia", box("mdhd", zero12 + be(timescale, 4) + be(0, 8)) +
                                             box("hdlr", zero4 + zero4 + handler + zero12 + "\0") +
                                             box("minf", box("stbl", tables))));
    };
    return box("moov", box("mvhd", zero12 + be(1000, 4) + be(duration, 4) + std::string(80, '\0')) +
                           trak("vide", "") + (records.empty() ? "" : trak("meta", stbl)) +
                           box("udta", box("name", "x") + (metadata.empty() ? "" : box("qmxm", metadata))));
  }

  SparseFile file() const {
    const std::string ftyp = box("ftyp", "isom" + be(0, 4) + "isom");
    std::string data;
    size_t record = 0;
    for (const uint32_t length : chunk_lengths) {
      for (uint32_t k = 0; k < length; ++k) data += records[record++];
      data += std::string(kFiller, 'v');
    }
    const uint64_t before = ftyp.size() + 16 + (moov_first ? moov(0).size() : 0);
    const std::string table = moov(before + hole);
    const std::string mdat = be(1, 4) + "mdat" + be(16 + hole + data.size(), 8);
    if (moov_first) return {ftyp + table + mdat + data, 0, ""};
    return {ftyp + mdat, hole, data + table};
  }

 private:
  static constexpr size_t kFiller = 7;  // between chunks: other tracks
};

struct Avi {
  enum Index { kNone, kOld, kOldAbsolute, kOfStream };
  uint32_t scale = 1, rate = 1, frame_us = 40000, frames = 0;
  std::vector<std::string> records;
  size_t in_first_riff = SIZE_MAX;  // the others lie in a second one
  Index index = kNone;
  bool grouped = false;  // records in LIST rec
  std::string metadata, stream_type = "dats";
  uint64_t hole = 0;  // before the second RIFF, less than 4 GiB

  SparseFile file() const {
    std::vector<uint64_t> at[2];  // headers of the records, from the type of their movie list
    std::string movi[2], old_index, filler = chunk("00dc", "video");
    for (size_t i = 0; i < records.size(); ++i) {
      const int part = i >= in_first_riff;
      movi[part] += filler;
      const std::string record = chunk("01tx", records[i]);
      at[part].push_back(4 + movi[part].size() + (grouped ? 12 : 0));
      movi[part] += grouped ? list("rec ", record) : record;
    }
    const bool two = !at[1].empty();
    const auto headers = [&](const std::string& indx) {
      const auto strl = [&](const std::string& type, const std::string& more) {
        return list("strl", chunk("strh", type + std::string(16, '\0') + le(scale, 4) + le(rate, 4) +
                                              std::string(28, '\0')) +
                                chunk("strf", "odd") + more);
      };
      return list("hdrl", chunk("avih", le(frame_us, 4) + le(0, 12) + le(two ? 1 : frames, 4) + le(0, 36)) +
                              strl("vids", "") + strl(stream_type, indx) +
                              list("odml", chunk("dmlh", le(frames, 4))) +
                              (metadata.empty() ? "" : chunk("qmxm", metadata)));
    };
    // One index a RIFF, behind the records; all sizes are known before the positions.
    const auto stream_index = [&](int part, uint64_t movi_at) {
      std::string entries;
      for (const uint64_t header : at[part]) entries += le(header + 8, 4) + le(5, 4);
      return chunk("ix01", le(2, 2) + le(1 << 8, 2) + le(at[part].size(), 4) + "01tx" + le(movi_at, 8) +
                               le(0, 4) + entries);
    };
    const auto super_index = [&](uint64_t first, uint64_t second) {
      return chunk("indx", le(4, 2) + le(0, 2) + le(two ? 2 : 1, 4) + "01tx" + le(0, 12) + le(first, 8) +
                               le(0, 8) + (two ? le(second, 8) + le(0, 8) : ""));
    };
    const bool of_stream = index == kOfStream;
    const uint64_t first_movi = 12 + headers(of_stream ? super_index(0, 0) : "").size() + 8;
    const uint64_t first_index = first_movi + 4 + movi[0].size();
    if (of_stream) movi[0] += stream_index(0, first_movi);
    for (const uint64_t header : at[0]) {
      old_index += "00dc" + le(0, 4) + le(header - 14, 4) + le(5, 4);
      old_index += "01tx" + le(0, 4) + le(header + (index == kOldAbsolute ? first_movi : 0), 4) + le(5, 4);
    }
    if (index == kOldAbsolute) old_index.replace(8, 4, le(first_movi + 4, 4));
    std::string rest = list("movi", movi[0]);
    if (index == kOld || index == kOldAbsolute) rest += chunk("idx1", old_index);
    const uint64_t header_size = first_movi - 20;
    const uint64_t riff_size = 4 + header_size + rest.size() + (hole > 0 ? 8 + hole : 0);
    if (hole > 0) rest += "JUNK" + le(hole, 4);
    const uint64_t second_movi = 8 + riff_size + 12 + 8;
    const std::string super = super_index(first_index, second_movi + 4 + movi[1].size());
    if (of_stream) movi[1] += stream_index(1, second_movi);
    const std::string second = two ? chunk("RIFF", "AVIX" + list("movi", movi[1])) : "";
    return {"RIFF" + le(riff_size, 4) + "AVI " + headers(of_stream ? super : "") + rest, hole, second};
  }
};

}  // namespace qmxtest
