// Small MP4 and AVI files with user data records and a metadata field, as recorders write them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "bytes.h"

namespace qmxtest {

inline std::string box(const std::string& type, const std::string& payload) {
  return be(payload.size() + 8, 4) + type + payload;
}
inline std::string full_box(const std::string& type, uint32_t version_and_flags, const std::string& fields) {
  return box(type, be(version_and_flags, 4) + fields);
}
inline std::string chunk(const std::string& name, const std::string& payload) {
  return name + le(payload.size(), 4) + payload + std::string(payload.size() % 2, '\0');
}
inline std::string list(const std::string& type, const std::string& chunks) {
  return chunk("LIST", type + chunks);
}

// A file with a hole in it; without one the two beside each other.
struct SparseFile {
  std::string head;
  uint64_t hole = 0;
  std::string tail;
};

struct Mp4 {
  struct Sample {
    std::string data;
    uint32_t delta = 0, shift = 0;  // time to the next one; composition offset
  };
  uint32_t timescale = 1000, duration = 0;  // of the movie, in milliseconds
  std::vector<std::vector<Sample>> chunks;
  bool is_wide = false;  // 64-bit times and offsets
  std::string elst;      // of the track, after entry_count
  std::string boxes;     // more of moov
  uint64_t hole = 0;     // before the first record

  std::string wide(uint64_t value) const { return be(value, is_wide ? 8 : 4); }
  SparseFile file() const {
    std::string data, stts, ctts, stsc, stsz, stco;
    for (size_t i = 0, run = 0; i < chunks.size(); ++i) {
      data += "another track";
      if (chunks[i].size() != run) stsc += be(i + 1, 4) + be(run = chunks[i].size(), 4) + be(1, 4);
      stco += wide(16 + hole + data.size());
      for (const Sample& sample : chunks[i]) {
        data += sample.data;
        stts += be(1, 4) + be(sample.delta, 4);
        ctts += be(1, 4) + be(sample.shift, 4);
        stsz += be(sample.data.size(), 4);
      }
    }
    const auto table = [](const char* type, size_t entry_size, const std::string& entries) {
      return full_box(type, 0, be(entries.size() / entry_size, 4) + entries);
    };
    const std::string stbl = table("stts", 8, stts) + table("ctts", 8, ctts) + table("stsc", 12, stsc) +
                             full_box("stsz", 0, be(0, 4) + be(stsz.size() / 4, 4) + stsz) +
                             table(is_wide ? "co64" : "stco", is_wide ? 8 : 4, stco);
    const auto header = [&](const char* type, uint32_t value, uint64_t time) {
      return full_box(type, is_wide << 24, wide(0) + wide(0) + be(value, 4) + wide(time));
    };
    const auto trak = [&](uint32_t id, const std::string& handler, const std::string& tables) {
      const std::string edits = be(elst.size() / (is_wide ? 20 : 12), 4) + elst;
      return box("trak", header("tkhd", id, 0) + box("edts", full_box("elst", is_wide << 24, edits)) +
                             box("mdia", header("mdhd", timescale, 0) +
                                             full_box("hdlr", 0, be(0, 4) + handler + be(0, 13)) +
                                             box("minf", box("stbl", tables))));
    };
    const std::string traks = chunks.empty() ? "" : trak(2, "meta", stbl) + trak(3, "meta", "");
    const std::string moov =
        header("mvhd", 1000, duration) + box("trak", box("mdia", "")) + trak(1, "vide", "") + traks + boxes;
    return {be(1, 4) + "mdat" + be(16 + hole + data.size(), 8), hole,
            data + (is_wide ? be(1, 4) + "moov" + be(16 + moov.size(), 8) + moov : box("moov", moov))};
  }
};

struct Avi {
  enum Index { kNone, kOld, kOldAbsolute, kOfStream };
  uint32_t scale = 1, rate = 1, start = 0, sample_size = 0, frames = 0;
  std::vector<std::string> records;
  size_t in_first_riff = SIZE_MAX;  // the others lie in a second one
  Index index = kNone;
  uint32_t pause = 0;       // chunks of no bytes before each record
  bool is_grouped = false;  // records in LIST rec
  bool is_cut_off = false;  // before the last RIFF's sizes and index were written
  std::string metadata, stream_type = "dats";
  uint64_t hole = 0;  // before the second RIFF, less than 4 GiB

  SparseFile file() const {
    const uint32_t riffs = in_first_riff < records.size() ? 2 : 1;
    std::string file[2];
    size_t record = 0;
    for (uint32_t part = 0; part < riffs; ++part) {
      std::string& out = file[part];
      out = "RIFF" + le(UINT32_MAX, 4) + (part == 0 ? "AVI " + headers(riffs) : "AVIX");
      const auto close = [&](size_t list, uint64_t more) {
        out.replace(list + 4, 4, le(out.size() - list - 8 + more, 4));
      };
      const size_t movi = out.size();
      const uint64_t base = movi + (part == 0 ? 0 : file[0].size() + hole);
      out += "LIST" + le(0, 4) + "movi";
      std::string places, old_places;
      const auto add = [&](const std::string& name, const std::string& payload) {
        const size_t from = index == kOldAbsolute ? 0 : movi + 8;
        const size_t at = payload.empty() ? from : out.size();  // no bytes are nowhere
        old_places += name + le(0, 4) + le(at - from, 4) + le(payload.size(), 4);
        if (name == "01tx") places += le(at + 8 - movi, 4) + le(payload.size() | 1u << 31, 4);
        out += chunk(name, payload);
      };
      for (const size_t end = part == riffs - 1 ? records.size() : in_first_riff; record < end; ++record) {
        add("00dc", "video");
        for (uint32_t k = 0; k <= pause; ++k) {
          const size_t group = out.size();
          if (is_grouped) out += "LIST" + le(0, 4) + "rec ";
          add("01tx", k < pause ? "" : records[record]);
          if (is_grouped) close(group, 0);
        }
      }
      if (is_cut_off && part == riffs - 1) break;
      if (index == kOfStream) {
        file[0].replace(file[0].find("indx") + 32 + 16 * part, 8, le(base + out.size() - movi, 8));
        out += chunk("ix01", le(1 << 24 | 2, 4) + le(places.size() / 8, 4) + "01tx" + le(base, 12) + places);
      }
      close(movi, 0);
      if (index == kOld || index == kOldAbsolute) out += chunk("idx1", old_places);
      const bool has_hole = part == 0 && hole > 0;
      if (has_hole) out += "JUNK" + le(hole, 4);
      close(0, has_hole ? hole : 0);
    }
    return {file[0], hole, file[1]};
  }

 private:
  std::string headers(uint32_t riffs) const {
    const std::string indx = chunk("indx", le(4, 4) + le(riffs - is_cut_off, 4) + "01tx" + le(0, 12 + 32));
    const std::string strh = le(0, 16) + le(scale, 4) + le(rate, 4) + le(start, 16) + le(sample_size, 12);
    return list(
        "hdrl",
        chunk("avih", le(40000, 16) + le(frames / riffs, 4)) + list("strl", chunk("strh", "vids" + strh)) +
            list("strl", chunk("strh", stream_type + strh) + (index == kOfStream ? indx : "")) +
            list("odml", chunk("dmlh", le(frames, 4))) + (metadata.empty() ? "" : chunk("qmxm", metadata)));
  }
};

}  // namespace qmxtest
