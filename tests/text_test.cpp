// The text family against plain models, on random bytes in buffers that end at an unreadable page.
#include <array>
#include <cstring>
#include <random>
#include <string>

#include "internal/start_code.h"
#include "qmxutil_string.h"
#include "recording_base.h"

namespace {

using qmxtest::GuardedBytes;

class TextTest : public qmxtest::BaseTest {
 protected:
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

  // Characters of `alphabet` only: the smaller it is, the more often something nearly matches.
  std::string text(uint32_t size, const std::string& alphabet) {
    std::string out(size, '\0');
    for (char& c : out) c = alphabet[below(static_cast<uint32_t>(alphabet.size()))];
    return out;
  }

  std::string bytes(uint32_t size) {
    std::string out(size, '\0');
    for (char& c : out) c = static_cast<char>(below(256));
    return out;
  }

 private:
  std::mt19937 random_{20260101};
};

const std::string kStartCodeBytes("\0\0\0\1\1\xB3\xFF", 7);

// Sizes up to a few vectors and up to a few of the stretches that the searches pass over at once.
constexpr uint32_t kLongest = 200;

// ---- String helpers

TEST_F(TextTest, CaseConversionChangesTheLettersOfExactlyTheCountedBytes) {
  for (uint32_t size = 0; size < kLongest; ++size) {
    const std::string before = bytes(size);
    for (const uint32_t from : {0u, size / 3, size / 2}) {
      for (const bool lower : {true, false}) {
        const int32_t count = static_cast<int32_t>(size - from) - (size % 2 ? 1 : 0);
        std::string expected = before;
        for (uint32_t i = from; static_cast<int32_t>(i - from) < count; ++i) {
          char& c = expected[i];
          if (lower && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
          if (!lower && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
        }
        GuardedBytes guarded(before);
        char* const s = guarded.text() + from;
        EXPECT_EQ((lower ? QMXUtilStrntolower : QMXUtilStrntoupper)(s, count), s);
        EXPECT_EQ(std::string(guarded.text(), size), expected) << size << ' ' << from << ' ' << lower;
      }
    }
  }
  char untouched[] = "Ab";
  for (const int32_t none : {0, -1, INT32_MIN}) {
    QMXUtilStrntolower(untouched, none);
    QMXUtilStrntoupper(untouched, none);
    EXPECT_STREQ(untouched, "Ab");
  }
  EXPECT_EQ(QMXUtilStrntolower(nullptr, 5), nullptr);
  EXPECT_EQ(QMXUtilStrntoupper(nullptr, 5), nullptr);
}

// ---- Start codes

TEST_F(TextTest, StartCodeSearchesAgreeWithAPlainScan) {
  for (uint32_t round = 0; round < 12000; ++round) {
    const uint32_t size = round % kLongest;
    const std::string content =
        text(size, round % 3 ? kStartCodeBytes : std::string("\0\1\2\3\4\5\6\7\xFE\xB3", 10));
    const GuardedBytes guarded(content);
    const uint32_t from = size ? below(size) : 0;

    size_t prefix = content.find(std::string("\0\0\1", 3), from);
    if (prefix == std::string::npos) prefix = size;
    ASSERT_EQ(qmxutil::find_start_code_prefix(guarded.data(), from, size), prefix) << round;

    const std::string four = round % 5 ? std::string("\0\0\1\xB3", 4) : text(4, kStartCodeBytes);
    const uint32_t wanted = __builtin_bswap32(*reinterpret_cast<const uint32_t*>(four.data()));
    for (const bool any_code : {true, false}) {
      const uint8_t* cursor = guarded.data() + from;
      uint32_t left = size - from;
      uint32_t code = 77;
      const int found = any_code ? QMXUtil_FindStartCode(&cursor, &left, &code)
                                 : QMXUtil_FindStartCode2(&cursor, &left, wanted);
      const size_t at = any_code ? prefix : content.find(four, from);
      const bool expected = at != std::string::npos && at + 5 <= size;
      ASSERT_EQ(found, expected) << round << ' ' << any_code;
      uint32_t expected_left = size - from;
      if (expected_left >= 5) expected_left = expected ? size - static_cast<uint32_t>(at) : 4;
      ASSERT_EQ(left, expected_left) << round << ' ' << any_code;
      ASSERT_EQ(cursor, guarded.data() + size - left);
      const bool stored = expected && any_code;
      ASSERT_EQ(code, stored ? 0x100u + static_cast<uint8_t>(content[at + 3]) : 77u);
    }
  }
}

}  // namespace
