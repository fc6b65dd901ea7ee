// Bytes for tests: in hexadecimal digits, as numbers, by chance.
#pragma once

#include <cstdint>
#include <random>
#include <string>

namespace qmxtest {

inline const std::string kStartCode("\0\0\0\1", 4);

inline std::string be(uint64_t value, int bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(bytes < 8 ? value >> (8 * bytes) : 0);
  return text;
}
inline std::string le(uint64_t value, int bytes) {
  const std::string text = be(value, bytes);
  return {text.rbegin(), text.rend()};
}

inline std::string hex(const char* digits) {
  std::string bytes;
  for (const char* p = digits; *p != 0; ++p) {
    if (*p != ' ') bytes += static_cast<char>(std::stoi(std::string(p++, 2), nullptr, 16));
  }
  return bytes;
}

inline std::string text_of(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// The same numbers in every run of a test, whatever ran before it.
inline std::mt19937 random_words{1};
inline uint32_t any_word() { return static_cast<uint32_t>(random_words()); }
inline uint32_t below(size_t n) { return static_cast<uint32_t>(random_words() % n); }
inline bool chance(uint32_t one_in) { return below(one_in) == 0; }
inline std::string any_bytes(size_t size) {
  std::string bytes(size, 0);
  for (char& byte : bytes) byte = static_cast<char>(random_words());
  return bytes;
}
inline std::string chars(size_t size, const std::string& of) {
  std::string text(size, 0);
  for (char& c : text) c = of[below(of.size())];
  return text;
}
inline std::string some_of(const std::string& bytes) { return bytes.substr(0, below(bytes.size() + 1)); }

}  // namespace qmxtest
