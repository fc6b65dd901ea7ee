// The text family's searches and Base64 decoder once more, in few plain lines, for tests and fuzz targets.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

namespace qmxtest {

const std::string kBase64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Where a pattern is found that may begin at the end of the first line at the latest.
inline size_t model_find(const std::string& text, const std::string& pattern) {
  const size_t line = std::min(text.find_first_of("\r\n"), text.size());
  const size_t at = text.find(pattern);
  return at <= line ? at : std::string::npos;
}

struct Decoded {
  std::string bytes;
  size_t stop = 0;
};

inline Decoded model_decoding(const std::string& text) {
  Decoded result;
  while (text.size() - result.stop >= 4) {
    if (result.stop > 0 && text[result.stop] == ',') break;
    std::string group;
    uint32_t bits = 0;
    while (group.size() < 4 && result.stop < text.size()) {
      const char c = text[result.stop++];
      const size_t value = c == '=' ? 0 : kBase64Alphabet.find(c);
      if (value == std::string::npos) continue;
      group += c;
      bits = bits << 6 | static_cast<uint32_t>(value);
    }
    if (group.size() < 4 || group[0] == '=') break;
    const size_t count = group[2] == '=' ? 1 : group[3] == '=' ? 2 : 3;
    for (size_t i = 0; i < count; ++i) result.bytes += static_cast<char>(bits >> (16 - 8 * i));
    if (count < 3) break;
  }
  return result;
}

// The list of segments with their lengths.
inline std::string model_entries(std::string text) {
  std::string entries;
  while (!text.empty()) {
    const Decoded segment = model_decoding(text);
    size_t next = segment.stop;
    while (next < text.size() && strchr("\r\n,=", text[next]) == nullptr) ++next;  // or a NUL
    if (next == 0) break;
    const size_t size = segment.bytes.size();
    entries += {static_cast<char>(size), static_cast<char>(size >> 8)};
    entries += segment.bytes;
    text.erase(0, next);
  }
  return entries;
}

}  // namespace qmxtest
