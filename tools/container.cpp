#include "container.h"

#include <algorithm>
#include <string_view>

#include "error.h"

namespace {

using View = std::span<const uint8_t>;
using std::string_view;

string_view text_at(View bytes, size_t offset, size_t length) {
  if (offset > bytes.size() || length > bytes.size() - offset) return {};
  return {reinterpret_cast<const char*>(bytes.data()) + offset, length};
}

uint64_t number_at(View bytes, size_t offset, size_t length) {
  uint64_t value = 0;
  for (const char c : text_at(bytes, offset, length)) value = value << 8 | static_cast<uint8_t>(c);
  return value;
}

// ---- Recognition

struct Box {
  string_view type;
  uint64_t size;  // UINT64_MAX: up to the end; 0: no box
};

// The header of an ISO base media file box (ISO/IEC 14496-12, 4.2), of the types that a file is made of.
Box box_at(View header) {
  constexpr string_view kTypes[] = {"ftyp", "styp", "moov", "mdat", "moof", "free", "skip",
                                    "wide", "pnot", "sidx", "uuid", "mfra", "meta"};
  const string_view type = text_at(header, 4, 4);
  if (std::ranges::find(kTypes, type) == std::end(kTypes)) return {type, 0};
  const uint64_t size = number_at(header, 0, 4);
  if (size == 0) return {type, UINT64_MAX};
  const uint64_t whole = size == 1 ? number_at(header, 8, 8) : size;
  return {type, whole >= (size == 1 ? 16u : 8u) ? whole : 0};
}

// Pictures are kept in such files too (ISO/IEC 23008-12); a text may have one type in its first bytes, but
// not two boxes.
bool is_iso(const Window& window) {
  constexpr string_view kPictures[] = {"heic", "heix", "heim", "heis", "mif1",
                                       "avif", "jp2 ", "jpx ", "crx "};
  const View head = window.view();
  const Box first = box_at(head);
  if (first.size == 0) return false;
  if (first.type == "moov" && text_at(head, 12, 4) == "mvhd") return true;
  if (first.type != "ftyp" && first.type != "styp") return box_at(window.bytes_at(first.size, 16)).size != 0;
  return first.size < 4096 && std::ranges::find(kPictures, text_at(head, 8, 4)) == std::end(kPictures);
}

constexpr size_t kTsPacket = 188;

// The header of a transport stream packet, without the values that are reserved (ISO/IEC 13818-1, 2.4.3.2).
bool is_ts_packet(View bytes) {
  return bytes.size() >= 4 && bytes[0] == 0x47 && (bytes[3] & 0x30) != 0 && (bytes[3] & 0xC0) != 0x40;
}

// Bytes from one packet of a transport stream to the next: 188, 192 with a time stamp in front, 204 with a
// code after it; 0 for something else.
size_t ts_packet_size(View head, size_t first) {
  constexpr size_t kPackets = 5;
  for (const size_t size : {kTsPacket, kTsPacket + 4, kTsPacket + 16}) {
    size_t seen = 0;
    while (first + seen * size < head.size() && is_ts_packet(head.subspan(first + seen * size))) ++seen;
    if (seen >= kPackets) return size;
  }
  return 0;
}

bool is_ts(View head) { return ts_packet_size(head, 0) != 0 || ts_packet_size(head, 4) == kTsPacket + 4; }

// ---- Codecs

// A bare stream, as ffmpeg writes it.
struct Format {
  const char* options;
  const char* output;
  bool is_video;
};
constexpr Format kH264 = {"-f h264", "stream.264", true};
constexpr Format kH265 = {"-f hevc", "stream.265", true};
constexpr Format kMpeg4 = {"-bsf:v dump_extra -f m4v", "stream.m4v", true};
constexpr Format kMpeg2 = {"-f mpeg2video", "stream.m2v", true};
constexpr Format kMpeg1 = {"-f mpeg1video", "stream.m1v", true};
constexpr Format kAac = {"-f adts", "stream.aac", false};
constexpr Format kMp3 = {"-f mp3", "stream.mp3", false};
constexpr Format kMpegAudio = {"-f data", "stream.mpa", false};  // of whatever layer

struct Codec {
  string_view name;
  const Format* format;
};
constexpr Codec kIsoCodecs[] = {
    {"avc1", &kH264}, {"avc3", &kH264}, {"hvc1", &kH265}, {"hev1", &kH265}, {".mp3", &kMp3}};
constexpr Codec kAviCodecs[] = {{"H264", &kH264},  {"X264", &kH264},  {"AVC1", &kH264},  {"HEVC", &kH265},
                                {"H265", &kH265},  {"XVID", &kMpeg4}, {"DIVX", &kMpeg4}, {"DX50", &kMpeg4},
                                {"FMP4", &kMpeg4}, {"MPG1", &kMpeg1}, {"MPG2", &kMpeg2}, {"MP4V", &kMpeg4}};
constexpr Codec kAviSound[] = {{string_view("\x55\0", 2), &kMp3}, {string_view("\xFF\0", 2), &kAac}};
constexpr Codec kMatroskaCodecs[] = {{"V_MPEG4/ISO/AVC", &kH264},  {"V_MPEGH/ISO/HEVC", &kH265},
                                     {"V_MPEG4/ISO/ASP", &kMpeg4}, {"V_MPEG2", &kMpeg2},
                                     {"V_MPEG1", &kMpeg1},         {"A_AAC", &kAac},
                                     {"A_MPEG/L3", &kMp3}};
constexpr Codec kTsCodecs[] = {{"\x1B", &kH264},      {"\x24", &kH265},     {"\x10", &kMpeg4},
                               {"\x02", &kMpeg2},     {"\x01", &kMpeg1},    {"\x0F", &kAac},
                               {"\x03", &kMpegAudio}, {"\x04", &kMpegAudio}};

// The first known codec of each sort, in the order in which they are named.
struct Found {
  const Format* video = nullptr;
  const Format* audio = nullptr;

  void add(std::span<const Codec> known, string_view name) {
    const auto it = std::ranges::find(known, name, &Codec::name);
    if (it == known.end()) return;
    const Format*& place = it->format->is_video ? video : audio;
    if (place == nullptr) place = it->format;
  }
};

// Calls `take` with the place of each `mark`.
template <class Take>
void each_mark(View bytes, string_view mark, const Take& take) {
  const string_view text = text_at(bytes, 0, bytes.size());
  for (size_t at = 0; (at = text.find(mark, at)) != text.npos; ++at) take(at);
}

// Up to 1 MiB of the movie box, which may stand at the end.
std::vector<uint8_t> movie_box(const Window& window) {
  constexpr int kMostBoxes = 4096;
  uint64_t at = 0;
  for (int i = 0; i < kMostBoxes; ++i) {
    const std::vector<uint8_t> header = window.bytes_at(at, 16);
    const Box box = box_at(header);
    if (box.size == 0 || box.size > INT64_MAX - at) break;
    if (box.type == "moov") return window.bytes_at(at, std::min<uint64_t>(box.size, Window::kRoom));
    at += box.size;
  }
  return {};
}

// The objectTypeIndication of the elementary stream descriptor at `at` (ISO/IEC 14496-1, 7.2.6.5
// and 7.2.6.6).
uint8_t object_type(View esds, size_t at) {
  const auto skip_header = [&] {  // tag and length
    do ++at;
    while (at < esds.size() && (esds[at] & 0x80) != 0);
    ++at;
  };
  skip_header();
  at += 3;  // ES_ID, flags
  skip_header();
  return static_cast<uint8_t>(number_at(esds, at, 1));
}

// "mp4a" and "mp4v" stand for several codecs.
constexpr Codec kObjectTypes[] = {{"\x20", &kMpeg4}, {"\x60", &kMpeg2},     {"\x61", &kMpeg2},
                                  {"\x62", &kMpeg2}, {"\x6A", &kMpeg1},     {"\x40", &kAac},
                                  {"\x67", &kAac},   {"\x69", &kMpegAudio}, {"\x6B", &kMpegAudio}};

Found iso_codecs(View movie) {
  Found found;
  each_mark(movie, "stsd", [&](size_t at) {
    const string_view name = text_at(movie, at + 16, 4);
    const size_t esds = text_at(movie, 0, movie.size()).find("esds", at);
    if ((name == "mp4a" || name == "mp4v") && esds != string_view::npos) {
      const char type = static_cast<char>(object_type(movie, esds + 8));
      found.add(kObjectTypes, {&type, 1});
    } else {
      found.add(kIsoCodecs, name);
    }
  });
  return found;
}

// A stream header (strh) of 56 bytes begins with its type; the format (strf) follows.
Found avi_codecs(View head) {
  constexpr size_t kFormat = 56 + 8, kCompression = kFormat + 16;
  Found found;
  each_mark(head, "vids", [&](size_t at) {
    std::string name(text_at(head, at + kCompression, 4));
    std::ranges::transform(name, name.begin(),
                           [](char c) { return c >= 'a' && c <= 'z' ? char(c - 32) : c; });
    found.add(kAviCodecs, name);
  });
  each_mark(head, "auds", [&](size_t at) { found.add(kAviSound, text_at(head, at + kFormat, 2)); });
  return found;
}

Found matroska_codecs(View head) {
  Found found;
  for (const Codec& codec : kMatroskaCodecs) {
    each_mark(head, codec.name, [&](size_t) { found.add(kMatroskaCodecs, codec.name); });
  }
  return found;
}

// The stream types of the program map section that this packet begins, if it does (ISO/IEC 13818-1, 2.4.4.8).
void add_program_map(View packet, Found& found) {
  const bool begins_section = (packet[1] & 0x40) != 0 && (packet[3] & 0x10) != 0;
  size_t at = 4;
  if ((packet[3] & 0x20) != 0) at += 1 + packet[4];  // adaptation_field
  if (!begins_section || at >= packet.size()) return;
  at += 1 + packet[at];  // pointer_field
  constexpr uint64_t kProgramMap = 2;
  if (at + 12 > packet.size() || packet[at] != kProgramMap) return;
  const size_t end = std::min(at + 3 + (number_at(packet, at + 1, 2) & 0xFFF) - 4, packet.size());
  at += 12 + (number_at(packet, at + 10, 2) & 0xFFF);
  for (; at + 5 <= end; at += 5 + (number_at(packet, at + 3, 2) & 0xFFF)) {
    found.add(kTsCodecs, text_at(packet, at, 1));
  }
}

Found ts_codecs(View head) {
  const size_t first = ts_packet_size(head, 0) != 0 ? 0 : 4;
  const size_t size = ts_packet_size(head, first);
  Found found;
  for (size_t at = first; size != 0 && at + kTsPacket <= head.size(); at += size) {
    if (is_ts_packet(head.subspan(at))) add_program_map(head.subspan(at, kTsPacket), found);
  }
  return found;
}

Found codecs(StreamKind kind, Window& window) {
  switch (kind) {
    case StreamKind::kMp4:
      return iso_codecs(movie_box(window));
    case StreamKind::kAvi:
      return avi_codecs(window.view());
    case StreamKind::kMatroska:
      return matroska_codecs(window.view());
    case StreamKind::kMpegTs:
      return ts_codecs(window.view());
    default:
      return {};
  }
}

std::string quoted(const std::string& text) {
  constexpr string_view kHarmless = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./+,@%-";
  if (text.find_first_not_of(kHarmless) == text.npos) return text;
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

}  // namespace

// Three ADTS frames in a row, or all there are (ISO/IEC 14496-3, 1.A.3.2).
bool is_adts(View view) {
  size_t at = 0;
  int frames = 0;
  for (; frames < 3 && at < view.size(); ++frames) {
    constexpr size_t kHeader = 7;
    const bool is_sync = view.size() - at >= kHeader && (number_at(view, at, 2) & 0xFFF6) == 0xFFF0;
    const size_t length = is_sync ? number_at(view, at + 3, 3) >> 5 & 0x1FFF : 0;
    const size_t rate_index = is_sync ? view[at + 2] >> 2 & 0xF : 15;
    if (length < kHeader || rate_index > 12) return false;
    at += length;
  }
  return frames > 1 || (frames == 1 && at == view.size());
}

// A pack header of MPEG-2 or MPEG-1 (ISO/IEC 13818-1, 2.5.3.3; ISO/IEC 11172-1, 2.4.3.2).
bool is_pack(View head) {
  const uint64_t start = number_at(head, 0, 5);
  return (start & 0xFFFFFFFFC4) == 0x000001BA44 || (start & 0xFFFFFFFFF1) == 0x000001BA21;
}

StreamKind container_kind(const Window& window) {
  const View head = window.view();
  constexpr string_view kEbml("\x1A\x45\xDF\xA3");
  if (is_iso(window)) return StreamKind::kMp4;
  if (text_at(head, 0, 4) == "RIFF" && text_at(head, 8, 4) == "AVI ") return StreamKind::kAvi;
  if (text_at(head, 0, 4) == kEbml) return StreamKind::kMatroska;
  if (is_pack(head)) return StreamKind::kMpegPs;
  if (is_ts(head)) return StreamKind::kMpegTs;
  return StreamKind::kUnknown;
}

std::vector<std::string> ffmpeg_lines(StreamKind kind, Window& window) {
  const std::string in = "ffmpeg -i " + quoted(window.input().path());
  if (kind == StreamKind::kAdts) return {in + " -c copy -bsf:a aac_adtstoasc stream.m4a"};
  const Found found = codecs(kind, window);
  std::vector<std::string> lines;
  for (const Format* const format : {found.video, found.audio}) {
    if (format == nullptr) continue;
    const char* const stream = format->is_video ? " -map 0:v:0" : " -map 0:a:0";
    lines.push_back(in + stream + " -c copy " + format->options + " " + format->output);
  }
  return lines;
}
