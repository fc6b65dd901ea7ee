// Each kernel as the library has it for this processor against its plain version: every length up to three
// blocks, where an unreadable page begins, where one ends, and at other alignments.
#include <algorithm>
#include <string>

#include "internal/simd/base64.h"
#include "internal/simd/find_bytes.h"
#include "internal/simd/fold_case.h"
#include "internal/simd/hex.h"
#include "internal/simd/line_search.h"
#include "internal/simd/start_code.h"
#include "recording_base.h"

namespace {

using namespace qmxtest;
using namespace qmxutil;
using std::string;

constexpr size_t kThreeBlocks = 3 * 130;
constexpr size_t kManyZeros = 4096;  // as many as are searched in one way where zeros are common

uint8_t* as_bytes(string& text) { return reinterpret_cast<uint8_t*>(text.data()); }

// Two pages between unreadable ones.
struct Room : GuardedBytes {
  Room() : GuardedBytes(8192) {}
  uint8_t* put(const string& bytes, int place) {
    const size_t rest = size() - bytes.size();
    return std::copy(bytes.begin(), bytes.end(), data() + (place == 2 ? below(16) : place * rest)) -
           bytes.size();
  }
};

class SimdTest : public BaseTest {
 protected:
  template <class Check>
  void everywhere(size_t from, size_t to, Check check) {
    for (size_t size = from; size < to; ++size) {
      for (place_ = 0; place_ < 3; ++place_) {
        check(size);
        ASSERT_FALSE(HasFailure()) << size << " bytes at place " << place_;
      }
    }
  }

  // Runs a kernel and its plain version on these bytes and room for others; returns what comes there.
  template <class Kernel, class Plain>
  string expect_same(const string& bytes, size_t room, Kernel kernel, Plain plain) {
    string in = bytes, out(room, '?');
    uint8_t *const here = in_.put(in, place_), *const there = out_.put(out, place_);
    if constexpr (std::is_void_v<decltype(plain(here, there))>) {
      plain(as_bytes(in), as_bytes(out));
      kernel(here, there);
    } else {
      EXPECT_EQ(plain(as_bytes(in), as_bytes(out)), kernel(here, there));
    }
    EXPECT_EQ(in + out, text_of(here, in.size()) + text_of(there, room));
    return out;
  }

  int place_ = 0;
  Room in_, out_, other_;
};

#define EXPECT_SAME(bytes, room, kernel, ...)                                                 \
  expect_same(                                                                                \
      bytes, room, [&](auto* in, [[maybe_unused]] auto* out) { return kernel(__VA_ARGS__); }, \
      [&](auto* in, [[maybe_unused]] auto* out) { return plain::kernel(__VA_ARGS__); })

TEST_F(SimdTest, Searches) {
  const string many("\0\0\0\1\n\r:", 7), alphabets[] = {many, any_bytes(60) + many, "\2\3:"};
  const auto check = [&](size_t size) {
    string bytes = chars(size, alphabets[below(3)]);
    if (chance(2)) bytes.replace(below(size + 1), 3, "\0\0\1", 3).resize(size);
    const string pattern = bytes.substr(below(size + 1), 2 + below(6)) + chars(2, many);
    const uint8_t* const wanted = other_.put(pattern, place_);
    const size_t from = chance(2) ? 0 : below(size + 3), gap = below(2);
    EXPECT_SAME(bytes, 0, find_start_code_prefix, in, from, size);
    EXPECT_SAME(bytes, 0, find_bytes, in, from, size, wanted, pattern.size());
    if (from < size)
      EXPECT_SAME(bytes, 0, find_pair_or_line_end, in, from, size - 1, wanted[0], wanted[1], gap);
  };
  for (int round = 0; round < 4; ++round) everywhere(0, kThreeBlocks, check);
  everywhere(kManyZeros, kManyZeros + 200, [&](size_t size) {
    check(size);
    EXPECT_SAME(string(size - 1, 0) + "\1", 0, find_start_code_prefix, in, 0, size);
  });

  const uint8_t prefix[] = {0, 0, 1};
  for (size_t size = 3; size < kThreeBlocks; ++size) {  // wherever it begins
    for (size_t at = 0; at + 3 <= size; ++at) {
      const uint8_t* const data = in_.put(string(size, 2).replace(at, 3, "\0\0\1", 3), 1);
      ASSERT_EQ(find_start_code_prefix(data, 0, size), at) << size;
      ASSERT_EQ(find_bytes(data, 0, size, prefix, 3), at) << size;
    }
  }
}

TEST_F(SimdTest, Conversions) {
  const auto check = [&](size_t n) {
    const string text = chance(2) ? any_bytes(n) : chars(n, "aA@[`{zZ\xC1\xE1");
    string other = text;
    if (n > 0 && chance(2)) other[below(n)] ^= static_cast<char>(chance(2) ? 32 : 1 << below(8));
    const uint8_t* const b = other_.put(other, place_);
    EXPECT_SAME(text, 0, same_but_for_case, in, b, n);
    EXPECT_SAME(text, 0, switch_case<'A'>, in, n);
    EXPECT_SAME(text, 0, switch_case<'a'>, in, n);
    EXPECT_SAME(text, 2 * n, bytes_to_digits, in, n, out);
    EXPECT_SAME(any_bytes(2 * n), n, digits_to_bytes, in, n, out);
    EXPECT_SAME(any_bytes(2 * n), 0, digits_to_bytes, in, n, in);
    string encoded = EXPECT_SAME(any_bytes(3 * n), 4 * n, encode_groups, in, n, reinterpret_cast<char*>(out));
    if (n > 0 && chance(2)) encoded[below(4 * n)] = any_bytes(1)[0];
    EXPECT_SAME(encoded, 3 * n, decode_groups, in, n, out);
    EXPECT_SAME(encoded, 0, decode_groups, in, n, in);
  };
  for (int round = 0; round < 10; ++round) everywhere(0, 3 * 64, check);
}

}  // namespace
