// The text family against plain models, on random bytes in buffers that end at an unreadable page.
#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "internal/start_code.h"
#include "qmxutil_string.h"
#include "recording_base.h"

namespace {

using qmxtest::GuardedBytes;
using qmxtest::recording;

// Sizes up to a few vectors and up to a few of the stretches that the searches pass over at once.
constexpr uint32_t kLongest = 600;

const std::string kBytes = [] {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  return all;
}();

const std::string kDigits = "0123456789";
const std::string kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const std::string kAlphabet = kLetters + kDigits + "+/";

class TextTest : public qmxtest::BaseTest {
 protected:
  uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }

  // Characters of `alphabet` only: the smaller it is, the more often something nearly matches.
  std::string text(uint32_t size, const std::string& alphabet) {
    std::string out(size, '\0');
    for (char& c : out) c = alphabet[below(alphabet.size())];
    return out;
  }
  std::string bytes(uint32_t size) { return text(size, kBytes); }

  void insert(std::string& content, const std::string& part) {
    content.insert(below(content.size() + 1), part);
  }

  template <class T>
  const T& one_of(const std::vector<T>& all) {
    return all[below(all.size())];
  }

 private:
  std::mt19937 random_{20260101};
};

// A text whose NUL is the last readable byte.
struct GuardedText : GuardedBytes {
  explicit GuardedText(const std::string& s) : GuardedBytes(s + '\0') {}
  std::string content() const { return std::string(text(), size() - 1); }
};

std::string of_bytes(const void* data, size_t size) {
  return std::string(static_cast<const char*>(data), size);
}

// Takes over a new text.
std::string take(void* block, size_t size) {
  const std::string content = of_bytes(block, size);
  QMX_Free(block, 0);
  return content;
}
std::string take(char* s) { return take(s, strlen(s)); }

// ---- Numbers

// Checks a list of "text=value".
template <class Convert>
void check_numbers(Convert convert, const std::string& list) {
  std::istringstream cases(list);
  for (std::string text; cases >> text;) {
    const size_t equals = text.find('=');
    const auto value = static_cast<int32_t>(convert(GuardedText(text.substr(0, equals)).text()));
    EXPECT_EQ(std::to_string(value), text.substr(equals + 1)) << text;
  }
}

TEST_F(TextTest, NumbersFromText) {
  check_numbers(QMX_ATOI, "=0 007=7 1a=59 -5=-25 \xFF=207 4294967297=1 2147483648=-2147483648");
  check_numbers(QMX_ATOI_MS,
                "=0 12=12000 12.5=12500 12.05=12050 12.3456=12345 .25=250 1.=1000 .=0 0.0009=0 "
                "1.2.3=1183 4294968=704");
  check_numbers(QMX_ATOI_TS,
                "=0 01:02:03.5=3723500 10:20:30.123=37230123 01-02-03=3723000 01:02:3723=7443000 "
                "::::::=402600000 5=18000000 12=43200000 12:=43200000 12:3=43380000 12:34=45240000 "
                "12:34:=45240000 12:34:.2=45240200");
  check_numbers(QMX_ATOI_HEX, "=0 ff=255 FF=255 FFFFFFFF=-1 123456789=591751049 0x10=18448 g=55");
}

TEST_F(TextTest, NumbersToTextAndReversal) {
  std::vector<int32_t> values = {0, -45, INT32_MAX, INT32_MIN, -1, 10};
  for (int i = 0; i < 2000; ++i) values.push_back(static_cast<int32_t>(below(UINT32_MAX) >> below(32)));
  for (const int32_t value : values) {
    const GuardedBytes room(12);
    EXPECT_EQ(QMX_ITOA(value, room.text()), room.text());
    EXPECT_EQ(room.text(), std::to_string(value));
  }
  for (std::string s : {"", "a", "abc", "abcd"}) {
    const GuardedText guarded(s);
    std::reverse(s.begin(), s.end());
    EXPECT_EQ(QMX_strrev(guarded.text()), guarded.text());
    EXPECT_EQ(guarded.content(), s);
  }
  EXPECT_EQ(QMX_strrev(nullptr), nullptr);
}

// ---- String helpers

TEST_F(TextTest, CaseConversionChangesTheLettersOfExactlyTheCountedBytes) {
  for (uint32_t round = 0; round < 6 * kLongest; ++round) {
    const bool lower = round % 2 == 0;
    const std::string before = bytes(round / 6);
    const size_t from = before.size() * (round % 3) / 4;
    const size_t end = before.size() - below(before.size() - from + 1);
    std::string expected = before;
    for (size_t i = from; i < end; ++i) {
      char& c = expected[i];
      if (lower ? c >= 'A' && c <= 'Z' : c >= 'a' && c <= 'z') c = static_cast<char>(c ^ 32);
    }
    const GuardedBytes guarded(before);
    char* const s = guarded.text() + from;
    ASSERT_EQ((lower ? QMXUtilStrntolower : QMXUtilStrntoupper)(s, static_cast<int32_t>(end - from)), s);
    ASSERT_EQ(of_bytes(guarded.data(), before.size()), expected) << before << ' ' << from << ' ' << end;
  }
  char untouched[] = "Ab";
  for (const int32_t none : {-1, INT32_MIN})
    EXPECT_STREQ(QMXUtilStrntolower(QMXUtilStrntoupper(untouched, none), none), "Ab");
  EXPECT_EQ(QMXUtilStrntolower(nullptr, 5), nullptr);
  EXPECT_EQ(QMXUtilStrntoupper(nullptr, 5), nullptr);
}

int plain_comparison(const std::string& a, const std::string& b, size_t n) {
  const auto folded = [](const std::string& s, size_t i) {
    const int c = i < s.size() ? static_cast<uint8_t>(s[i]) : 0;
    return c >= 'A' && c <= 'Z' ? c + 32 : c;
  };
  for (size_t i = 0; i < n; ++i) {
    if (folded(a, i) != folded(b, i) || i == a.size()) return folded(a, i) - folded(b, i);
  }
  return 0;
}

TEST_F(TextTest, ComparisonIgnoresTheCaseOfLettersOnly) {
  for (uint32_t round = 0; round < 20000; ++round) {
    const std::string a = text(below(round % 8 ? 60 : 700), round % 2 ? "aA" : "aZ_\x80\xFF");
    std::string b = a;
    for (char& c : b) {
      if (below(2) && (c == 'a' || c == 'A' || c == 'Z')) c = static_cast<char>(c ^ 32);
    }
    if (below(2)) b.resize(below(b.size() + 1));
    if (below(2) && !b.empty()) b[below(b.size())] = one_of<char>({'_', '@', '[', '\xE1'});
    const GuardedText guarded_a(a), guarded_b(b);
    const uint32_t n = below(std::min(a.size(), b.size()) + 3);
    const GuardedBytes unterminated(a.substr(0, n));
    const uint32_t m = unterminated.size();
    SCOPED_TRACE(a + '\n' + b);
    ASSERT_EQ(QMXUtilStricmp(guarded_a.text(), guarded_b.text()), plain_comparison(a, b, SIZE_MAX));
    ASSERT_EQ(QMXUtilStrnicmp(guarded_a.text(), guarded_b.text(), n), plain_comparison(a, b, n));
    ASSERT_EQ(QMXUtilStrnicmp(unterminated.text(), guarded_b.text(), m), plain_comparison(a, b, m));
  }
  EXPECT_EQ(QMXUtilStrnicmp("abc", "abd", UINT32_MAX), -1);
}

TEST_F(TextTest, CopiesHaveTheSizesThatTheyState) {
  const GuardedText hello("hello"), cd("cd");
  EXPECT_EQ(take(QMXUtilStrdupn(hello.text(), 3)), "hel");
  EXPECT_EQ(take(QMXUtilStrdupn(GuardedBytes("hel").text(), 3)), "hel");
  EXPECT_EQ(take(QMXUtilStrdupn(hello.text(), 0)), "");
  EXPECT_EQ(take(QMXUtilStrdupn(hello.text(), 9), 10), std::string("hello\0\0\0\0\0", 10));
  EXPECT_EQ(take(QMXUtilStrdup(hello.text())), "hello");
  EXPECT_EQ(take(QMXUtilStrmcat(hello.text(), cd.text())), "hellocd");
  EXPECT_EQ(take(QMXUtilStrmcat(hello.text(), nullptr)), "hello");
  EXPECT_EQ(recording().calls_of("Malloc"),
            (std::vector<std::string>{"Malloc 4 -1", "Malloc 4 -1", "Malloc 1 -1", "Malloc 10 -1",
                                      "Malloc 6 -1", "Malloc 8 -1", "Malloc 6 -1"}));
  EXPECT_EQ(QMXUtilStrdupn(nullptr, 3), nullptr);
  EXPECT_EQ(QMXUtilStrdup(nullptr), nullptr);
  EXPECT_EQ(QMXUtilStrmcat(nullptr, "x"), nullptr);
}

TEST_F(TextTest, LeadingDecimalDigit) {
  for (const char* s : {"   7x", "0", " 9"}) EXPECT_EQ(QMXUtilStrIsDecNumber(s), 1) << s;
  for (const char* s : {"", "-7", "\t7", "x7", " ", "/", ":"}) EXPECT_EQ(QMXUtilStrIsDecNumber(s), 0) << s;
  EXPECT_EQ(QMXUtilStrIsDecNumber(nullptr), 0);
}

size_t plain_find(const std::string& text, const std::string& pattern) {
  const size_t line = std::min(text.find_first_of("\r\n"), text.size());
  const size_t at = text.find(pattern);
  return at <= line ? at : std::string::npos;
}

// The position in a text, -1 for null.
ptrdiff_t offset(const GuardedText& text, const char* at) { return at ? at - text.text() : -1; }

TEST_F(TextTest, FindStringStaysOnTheFirstLine) {
  for (uint32_t round = 0; round < 20000; ++round) {
    std::string content = text(below(kLongest), round % 3 ? "ab" : "abc:\xC4");
    const std::string pattern = text(below(round % 5 ? 5 : 40), round % 7 ? "ab" : "a\r\n");
    if (below(2)) insert(content, pattern);
    if (below(2)) insert(content, one_of<std::string>({"\r\n", "\n", "\r"}));
    if (round % 50 == 0) content.insert(0, 1500, 'c');
    const GuardedText guarded(content), guarded_pattern(pattern);
    ASSERT_EQ(offset(guarded, QMXUtilStrFindString(guarded.text(), guarded_pattern.text())),
              static_cast<ptrdiff_t>(plain_find(content, pattern)))
        << content << '\n'
        << pattern;
  }
  EXPECT_STREQ(QMXUtilStrFindString("text", nullptr), "text");
  EXPECT_EQ(QMXUtilStrFindString(nullptr, "x"), nullptr);
}

TEST_F(TextTest, LogicalLinesAreJoinedInPlace) {
  uint32_t len = 77;
  EXPECT_EQ(QMXUtilStrGetLine(nullptr, &len), nullptr);
  EXPECT_EQ(len, 77u);
  for (int round = 0; round < 5000; ++round) {
    const GuardedText guarded(text(below(30), "  \r\n\nx"));
    std::string expected = guarded.content();
    const size_t start = std::min(expected.find_first_not_of(' '), expected.size());
    size_t end = start;
    while ((end = std::min(expected.find('\n', end), expected.size())) < expected.size()) {
      if (expected[++end] != ' ') break;
      expected[end - 1] = ' ';
      if (end >= 2 && expected[end - 2] == '\r') expected[end - 2] = ' ';
    }
    ASSERT_EQ(offset(guarded, QMXUtilStrGetLine(guarded.text(), &len)), static_cast<ptrdiff_t>(end))
        << expected;
    ASSERT_EQ(len, end - start) << expected;
    ASSERT_EQ(guarded.content(), expected);
  }
}

// ---- Keyed values

// The first run of members on the line, positions -1 without one.
struct Stretch {
  ptrdiff_t first = -1, end = -1;
  size_t size() const { return static_cast<size_t>(end - first); }
};
Stretch plain_run(const std::string& content, size_t from, const std::string& members,
                  const char* sign = "") {
  const size_t first = content.find_first_of(members + sign, from);
  if (first >= content.find_first_of("\r\n", from)) return {};
  const size_t end = content.find_first_not_of(members, first + (content[first] == *sign));
  return {static_cast<ptrdiff_t>(first), static_cast<ptrdiff_t>(std::min(end, content.size()))};
}

struct NumberKind {
  const char* (*get)(const char*, const char*, int32_t*);
  std::string members;
  std::function<int32_t(const char*)> convert;
};
const char* hex_number(const char* text, const char* key, int32_t* out) {
  return QMXUtilStrGetHexNumber(text, key, reinterpret_cast<uint32_t*>(out));
}
const std::vector<NumberKind> kNumberKinds = {{QMXUtilStrGetDecNumber, kDigits, QMX_ATOI},
                                              {QMXUtilStrGetIntNumber, kDigits, QMX_ATOI},
                                              {hex_number, kDigits + "ABCDEFabcdef", QMX_ATOI_HEX},
                                              {QMXUtilStrGetFloatNumber, kDigits + ".", QMX_ATOI_MS},
                                              {QMXUtilStrGetTimeNumber, kDigits + ":.", QMX_ATOI_TS}};

TEST_F(TextTest, NumbersAfterAKey) {
  for (uint32_t round = 0; round < 20000; ++round) {
    const auto& [get, members, convert] = kNumberKinds[round % kNumberKinds.size()];
    std::string content = text(below(60), round % 3 ? "K=0159.:-aFgz" : "K=09.-: \r\n\xB2");
    if (below(8) == 0) insert(content, text(below(40), kDigits));
    const std::string key = one_of<std::string>({"", "K", "K=", "="});
    const bool integer = get == QMXUtilStrGetIntNumber;
    const size_t at = plain_find(content, key);
    Stretch run;
    int32_t expected = 77;
    if (at != std::string::npos) run = plain_run(content, at + key.size(), members, integer ? "-" : "");
    if (run.end >= 0) {
      std::string number = content.substr(static_cast<size_t>(run.first), run.size());
      const bool negative = integer && number[0] == '-';
      expected = convert(number.substr(negative, 23).c_str());
      if (negative) expected = static_cast<int32_t>(0u - static_cast<uint32_t>(expected));
    }
    const GuardedText guarded(content);
    const char* const key_or_null = key.empty() && below(2) ? nullptr : key.c_str();
    int32_t value = 77;
    SCOPED_TRACE(std::to_string(round) + ' ' + content + ' ' + key);
    ASSERT_EQ(offset(guarded, get(guarded.text(), key_or_null, &value)), run.end);
    ASSERT_EQ(value, expected);
    ASSERT_EQ(offset(guarded, get(guarded.text(), key_or_null, nullptr)), run.end);
  }
  int32_t value = 77;
  for (const NumberKind& kind : kNumberKinds) EXPECT_EQ(kind.get(nullptr, "K", &value), nullptr);
}

TEST_F(TextTest, Tokens) {
  using Getter = const char* (*)(const char*, const char**, uint32_t*);
  const std::vector<std::pair<Getter, std::string>> kinds = {
      {QMXUtilStrGetString, kLetters + kDigits + "-._"},
      {QMXUtilStrGetAddress, kLetters + kDigits + "-._"},
      {QMXUtilStrGetHexString, kDigits + "ABCDEFabcdef"},
      {QMXUtilStrGetSafeString, kLetters + kDigits + "\"#$&'*+,-./:=?@[]^_`{|}~"},
      {QMXUtilBase64GetString, kLetters + kDigits + "+,/="}};
  for (uint32_t round = 0; round < 20000; ++round) {
    const auto& [get, members] = kinds[round % kinds.size()];
    std::string content = text(below(kLongest), round % 3 ? kBytes.substr(1) : "ag1.=+ ;\r\n");
    if (round % 4 == 0) insert(content, "://");
    const size_t scheme = get == QMXUtilStrGetAddress ? plain_find(content, "://") : std::string::npos;
    const Stretch run = plain_run(content, scheme != std::string::npos ? scheme + 3 : 0, members);
    const GuardedText guarded(content);
    const char* start = nullptr;
    uint32_t len = 77;
    ASSERT_EQ(offset(guarded, get(guarded.text(), &start, &len)), run.end) << content;
    ASSERT_EQ(offset(guarded, start), run.first) << content;
    ASSERT_EQ(len, run.end < 0 ? 77 : run.size()) << content;
  }
  for (const auto& [get, members] : kinds) EXPECT_EQ(get(nullptr, nullptr, nullptr), nullptr);
}

TEST_F(TextTest, TheRestOfAHeaderLineEndsAtItsCarriageReturn) {
  const std::pair<const char*, std::string> cases[] = {
      {"   text/plain; q=1\r\n", "text/plain; q=1"}, {"\rx", ""}, {"", ""}, {"  ", ""}, {" a\nb\rc", "a\nb"}};
  for (const auto& [text, value] : cases) {
    const GuardedText guarded(text);
    const char* start;
    uint32_t len;
    const char* const end = QMXUtilStrGetContext(guarded.text(), &start, &len);
    EXPECT_EQ(std::string(start, len), value);
    EXPECT_EQ(end, start + len);
  }
  EXPECT_EQ(QMXUtilStrGetContext(nullptr, nullptr, nullptr), nullptr);
}

// ---- Hexadecimal text and start codes

TEST_F(TextTest, HexadecimalText) {
  for (uint32_t size = 0; size < kLongest; ++size) {
    const GuardedBytes bin(bytes(size));
    std::string expected;
    for (uint32_t i = 0; i < 2 * size; ++i)
      expected += "0123456789abcdef"[i % 2 ? bin.data()[i / 2] & 15 : bin.data()[i / 2] >> 4];
    recording().clear_calls();
    ASSERT_EQ(take(QMXUtil_ConvBinToStr(bin.data(), size)), expected);
    ASSERT_EQ(recording().calls_of("Malloc").at(0), "Malloc " + std::to_string(2 * size + 1) + " -1");
  }
  for (uint32_t round = 0; round < 4 * kLongest; ++round) {
    const uint32_t size = round / 4;
    const std::string content = round % 2 ? text(size, "0123456789abcdefABCDEF") : bytes(size);
    std::string lower = content;
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    const auto digit = [&](size_t i) {
      const int code = static_cast<uint8_t>(lower[i]);
      return code >= 'a' && code <= 'f' ? code - 'a' + 10 : code - '0';
    };
    std::string expected;
    for (size_t i = 0; i < size / 2; ++i) expected += static_cast<char>(digit(2 * i) * 16 + digit(2 * i + 1));
    const GuardedBytes apart(content), out(size / 2), in_place(content);
    ASSERT_EQ(QMXUtil_ConvStrToBin(apart.text(), size, out.data()), size / 2);
    ASSERT_EQ(of_bytes(out.data(), size / 2), expected) << content;
    ASSERT_EQ(of_bytes(apart.data(), size), lower);
    ASSERT_EQ(QMXUtil_ConvStrToBin(in_place.text(), size, in_place.data()), size / 2);
    ASSERT_EQ(of_bytes(in_place.data(), size), expected + lower.substr(size / 2));
  }
}

TEST_F(TextTest, StartCodeIsFoundWhereverItBegins) {
  for (uint32_t at = 20; at < kLongest - 3; ++at) {
    std::string content(kLongest, 2);
    content.replace(at - 20, 2, 2, '\0');  // zeros that lead to no start code
    content.replace(at, 3, std::string("\0\0\1", 3));
    const GuardedBytes guarded(content);
    ASSERT_EQ(qmxutil::find_start_code_prefix(guarded.data(), 0, kLongest), at);
  }
}

TEST_F(TextTest, StartCodeSearchesAgreeWithAPlainScan) {
  const std::string zeros_and_ones("\0\0\0\1\1\xB3\xFF", 7), few_zeros("\0\1\2\3\4\5\6\7\xFE\xB3", 10),
      no_start_code("\0\0\2\3", 4);
  for (uint32_t round = 0; round < 20000; ++round) {
    const bool long_run = round % 50 == 0;  // of zeros, with one start code
    const uint32_t size = long_run ? 4 + below(10000) : round % kLongest;
    std::string content = text(size, long_run ? no_start_code : round % 3 ? zeros_and_ones : few_zeros);
    if (long_run) content.replace(below(size - 3), 4, std::string("\0\0\1\xB3", 4));
    const GuardedBytes guarded(content);
    const uint32_t from = size ? below(size) : 0;

    size_t prefix = content.find(std::string("\0\0\1", 3), from);
    if (prefix == std::string::npos) prefix = size;
    ASSERT_EQ(qmxutil::find_start_code_prefix(guarded.data(), from, size), prefix) << round;

    const std::string four = round % 5 ? std::string("\0\0\1\xB3", 4) : text(4, zeros_and_ones);
    uint32_t wanted = 0;
    for (const char c : four) wanted = wanted << 8 | static_cast<uint8_t>(c);
    for (const bool any_code : {true, false}) {
      const uint8_t* cursor = guarded.data() + from;
      uint32_t left = size - from, code = 77;
      const int found = any_code ? QMXUtil_FindStartCode(&cursor, &left, &code)
                                 : QMXUtil_FindStartCode2(&cursor, &left, wanted);
      const size_t at = any_code ? prefix : content.find(four, from);
      const bool expected = at != std::string::npos && at + 5 <= size;
      ASSERT_EQ(found, expected) << round << ' ' << any_code;
      uint32_t expected_left = size - from;
      if (expected_left >= 5) expected_left = expected ? size - static_cast<uint32_t>(at) : 4;
      ASSERT_EQ(left, expected_left) << round << ' ' << any_code;
      ASSERT_EQ(cursor, guarded.data() + size - left);
      ASSERT_EQ(code, expected && any_code ? 0x100u + guarded.data()[at + 3] : 77u);
    }
  }
}

// ---- Base64

std::string plain_encoding(const std::string& data) {
  std::string bits, out;
  for (const char c : data) {
    for (int bit = 7; bit >= 0; --bit) bits += static_cast<char>('0' + (static_cast<uint8_t>(c) >> bit & 1));
  }
  while (bits.size() % 6 != 0) bits += '0';
  for (size_t i = 0; i < bits.size(); i += 6) out += kAlphabet[std::stoul(bits.substr(i, 6), nullptr, 2)];
  while (out.size() % 4 != 0) out += '=';
  return out;
}

struct Decoded {
  std::string bytes;
  size_t stop = 0;
};

Decoded plain_decoding(const std::string& text) {
  Decoded result;
  const auto value = [](char c) { return c == '=' ? 0u : static_cast<unsigned>(kAlphabet.find(c)); };
  while (text.size() - result.stop >= 4) {
    if (result.stop > 0 && text[result.stop] == ',') break;
    std::string group;
    while (group.size() < 4 && result.stop < text.size()) {
      const char c = text[result.stop++];
      if (c == '=' || kAlphabet.find(c) != std::string::npos) group += c;
    }
    if (group.size() < 4 || group[0] == '=') break;
    const unsigned bits =
        value(group[0]) << 18 | value(group[1]) << 12 | value(group[2]) << 6 | value(group[3]);
    const size_t count = group[2] == '=' ? 1 : group[3] == '=' ? 2 : 3;
    for (size_t i = 0; i < count; ++i) result.bytes += static_cast<char>(bits >> (16 - 8 * i));
    if (count < 3) break;
  }
  return result;
}

TEST_F(TextTest, Base64Encoding) {
  for (uint32_t size = 0; size < kLongest; ++size) {
    const GuardedBytes data(bytes(size));
    const std::string expected = plain_encoding(of_bytes(data.data(), size));
    const size_t room = (size + 2) * 4 / 3 + 2;
    recording().clear_calls();
    uint32_t length = 77;
    char* const encoded = QMXUtilBase64Encoding(data.data(), static_cast<int32_t>(size), &length);
    ASSERT_EQ(length, expected.size());
    ASSERT_EQ(take(encoded, room), expected + std::string(room - expected.size(), '\0'));
    ASSERT_EQ(recording().calls_of("Malloc").at(0), "Malloc " + std::to_string(room) + " 0");
  }
}

TEST_F(TextTest, Base64DecodingAgreesWithAPlainDecoder) {
  for (uint32_t round = 0; round < 20000; ++round) {
    std::string content = text(below(round % 10 ? 40 : 200), kAlphabet);
    const std::vector<std::string> odd = {"=", "==", "===", ",", " ", "\r\n", {'\0'}, "\xC1", "-"};
    for (uint32_t n = round % 4 ? below(6) : 0; n > 0; --n) insert(content, one_of(odd));
    const Decoded expected = plain_decoding(content);
    const GuardedBytes guarded(content), out(expected.bytes.size());
    uint32_t length = 77;
    const char* const stop = QMXUtilBase64Decoding(guarded.text(), out.data(), guarded.size(), &length);
    ASSERT_EQ(of_bytes(out.data(), out.size()), expected.bytes) << content;
    ASSERT_EQ(length, out.size()) << content;
    ASSERT_EQ(stop, guarded.text() + expected.stop) << content;
    if (round % 20 == 0 && !content.empty()) {
      uint8_t* const bin = QMXUtilBase64ConvToBin(guarded.text(), guarded.size(), &length);
      ASSERT_EQ(recording().block_size(bin), guarded.size());
      ASSERT_EQ(take(bin, length), expected.bytes);
    }

    std::string entries;
    for (std::string rest = content; !rest.empty();) {
      const Decoded segment = plain_decoding(rest);
      size_t next = segment.stop;
      while (next < rest.size() && !strchr("\r\n,=", rest[next])) ++next;  // or a NUL
      if (next == 0) break;
      entries += {static_cast<char>(segment.bytes.size()), '\0'};
      entries += segment.bytes;
      rest.erase(0, next);
    }
    const GuardedBytes list(entries.size());
    ASSERT_EQ(QMXUtilBase64ConvToBinWLen(guarded.text(), guarded.size(), list.data()), list.size())
        << content;
    ASSERT_EQ(of_bytes(list.data(), list.size()), entries) << content;
  }
  uint32_t length;
  EXPECT_EQ(QMXUtilBase64ConvToBin(nullptr, 4, &length), nullptr);
}

TEST_F(TextTest, ALongSegmentKeepsTheLow16BitsOfItsLength) {
  const GuardedBytes text(plain_encoding(std::string(70000, 'x'))), out(70002);
  EXPECT_EQ(QMXUtilBase64ConvToBinWLen(text.text(), text.size(), out.data()), 70002u);
  EXPECT_EQ(out.data()[0] + out.data()[1] * 256, 70000 - 65536);
  EXPECT_EQ(out.data()[70001], 'x');
}

// ---- Memory

TEST_F(TextTest, SizesBeyond32BitsOrMemoryAreRefusedBeforeAnythingIsTouched) {
  uint32_t length = 77;
  const GuardedBytes none(size_t{0});  // reading at its data would end the test
  EXPECT_EQ(QMXUtilStrdupn(none.text(), UINT32_MAX), nullptr);
  EXPECT_EQ(QMXUtil_ConvBinToStr(none.data(), 0x80000000u), nullptr);
  EXPECT_EQ(QMXUtilBase64Encoding(none.data(), -1, &length), nullptr);
  EXPECT_EQ(length, 77u);
  EXPECT_EQ(recording().calls(), std::vector<std::string>{});
  recording().fail_from(qmxtest::Op::kMalloc);
  EXPECT_EQ(QMXUtilBase64Encoding(none.data(), 1, &length), nullptr);
  EXPECT_EQ(QMXUtilBase64ConvToBin(none.text(), 4, &length), nullptr);
  EXPECT_EQ(length, 77u);
}

}  // namespace
