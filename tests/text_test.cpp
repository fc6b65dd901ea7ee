// The text family against plain models, on random bytes in buffers that end at an unreadable page.
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <optional>
#include <random>
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

  template <class T>
  const T& one_of(const std::vector<T>& all) {
    return all[below(static_cast<uint32_t>(all.size()))];
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
template <class T>
std::string take(T* block, size_t size) {
  if (block == nullptr) return "(null)";
  const std::string content = of_bytes(block, size);
  QMX_Free(block, 0);
  return content;
}
std::string take(char* s) { return take(s, s ? strlen(s) : 0); }

// ---- Numbers

TEST_F(TextTest, NumbersFromText) {
  struct Case {
    int32_t (*convert)(const char*);
    const char* text;
    int64_t value;
  };
  const auto hex = [](const char* s) { return static_cast<int32_t>(QMX_ATOI_HEX(s)); };
  const Case cases[] = {{QMX_ATOI, "", 0},
                        {QMX_ATOI, "007", 7},
                        {QMX_ATOI, "1a", 59},
                        {QMX_ATOI, "-5", -25},
                        {QMX_ATOI, "\xFF", 207},
                        {QMX_ATOI, "4294967297", 1},
                        {QMX_ATOI, "2147483648", INT32_MIN},
                        {QMX_ATOI_MS, "", 0},
                        {QMX_ATOI_MS, "12", 12000},
                        {QMX_ATOI_MS, "12.5", 12500},
                        {QMX_ATOI_MS, "12.05", 12050},
                        {QMX_ATOI_MS, "12.3456", 12345},
                        {QMX_ATOI_MS, ".25", 250},
                        {QMX_ATOI_MS, "1.", 1000},
                        {QMX_ATOI_MS, ".", 0},
                        {QMX_ATOI_MS, "0.0009", 0},
                        {QMX_ATOI_MS, "1.2.3", 1183},
                        {QMX_ATOI_MS, "4294968", 704},
                        {QMX_ATOI_TS, "00:00:00", 0},
                        {QMX_ATOI_TS, "01:02:03.5", 3723500},
                        {QMX_ATOI_TS, "10:20:30.123", 37230123},
                        {QMX_ATOI_TS, "01-02-03", 3723000},
                        {QMX_ATOI_TS, "01:02:3723", 7443000},
                        {QMX_ATOI_TS, "::::::", 402600000},
                        {QMX_ATOI_TS, "", 0},
                        {QMX_ATOI_TS, "5", 18000000},
                        {QMX_ATOI_TS, "12", 43200000},
                        {QMX_ATOI_TS, "12:", 43200000},
                        {QMX_ATOI_TS, "12:3", 43380000},
                        {QMX_ATOI_TS, "12:34", 45240000},
                        {QMX_ATOI_TS, "12:34:", 45240000},
                        {QMX_ATOI_TS, "12:34:.2", 45240200},
                        {hex, "", 0},
                        {hex, "ff", 255},
                        {hex, "FF", 255},
                        {hex, "FFFFFFFF", -1},
                        {hex, "123456789", 0x23456789},
                        {hex, "0x10", 18448},
                        {hex, "g", 55}};
  for (const Case& c : cases) EXPECT_EQ(c.convert(GuardedText(c.text).text()), c.value) << c.text;
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
        EXPECT_EQ(of_bytes(guarded.data(), size), expected) << size << ' ' << from << ' ' << lower;
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
    if (below(2)) b.resize(below(static_cast<uint32_t>(b.size()) + 1));
    if (below(2) && !b.empty())
      b[below(static_cast<uint32_t>(b.size()))] = one_of<char>({'_', '@', '[', '\xE1'});
    const GuardedText guarded_a(a), guarded_b(b);
    ASSERT_EQ(QMXUtilStricmp(guarded_a.text(), guarded_b.text()), plain_comparison(a, b, SIZE_MAX))
        << a << '\n'
        << b;
    const uint32_t n = below(static_cast<uint32_t>(std::min(a.size(), b.size())) + 3);
    ASSERT_EQ(QMXUtilStrnicmp(guarded_a.text(), guarded_b.text(), n), plain_comparison(a, b, n)) << a << '\n'
                                                                                                 << b;
    const GuardedBytes unterminated(a.substr(0, n));
    ASSERT_EQ(QMXUtilStrnicmp(unterminated.text(), guarded_b.text(), unterminated.size()),
              plain_comparison(a, b, unterminated.size()));
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
    if (below(2)) content.insert(below(static_cast<uint32_t>(content.size()) + 1), pattern);
    if (below(2))
      content.insert(below(static_cast<uint32_t>(content.size()) + 1),
                     one_of<std::string>({"\r\n", "\n", "\r"}));
    if (round % 50 == 0) content.insert(0, 1500, 'c');
    const GuardedText guarded(content), guarded_pattern(pattern);
    ASSERT_EQ(offset(guarded, QMXUtilStrFindString(guarded.text(), guarded_pattern.text())),
              static_cast<ptrdiff_t>(plain_find(content, pattern)))
        << content << '\n'
        << pattern;
  }
  const GuardedText text("Size-Limit: 5\r\nX: y");
  EXPECT_EQ(offset(text, QMXUtilStrFindString(text.text(), "X:")), -1);
  EXPECT_EQ(offset(text, QMXUtilStrFindString(text.text(), "Limit")), 5);
  EXPECT_EQ(offset(text, QMXUtilStrFindString(text.text(), nullptr)), 0);
  EXPECT_EQ(QMXUtilStrFindString(nullptr, "x"), nullptr);
}

TEST_F(TextTest, LogicalLinesAreJoinedInPlace) {
  const GuardedText subject("Subject: a\r\n b\r\nNext: c");
  uint32_t len = 77;
  char* next = QMXUtilStrGetLine(subject.text(), &len);
  EXPECT_EQ(subject.content(), "Subject: a   b\r\nNext: c");
  EXPECT_EQ(len, 16u);
  EXPECT_EQ(offset(subject, next), 16);
  EXPECT_EQ(offset(subject, QMXUtilStrGetLine(next, &len)), 23);
  EXPECT_EQ(len, 7u);
  len = 77;
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

const std::string kDigits = "0123456789";
const std::string kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

struct NumberKind {
  const char* name;
  const char* (*get)(const char*, const char*, int32_t*);
  std::string members;
  std::function<int32_t(const char*)> convert;
};

const std::vector<NumberKind> kNumberKinds = {
    {"decimal", QMXUtilStrGetDecNumber, kDigits, QMX_ATOI},
    {"integer", QMXUtilStrGetIntNumber, kDigits, QMX_ATOI},
    {"hexadecimal",
     [](const char* t, const char* k, int32_t* out) {
       return QMXUtilStrGetHexNumber(t, k, reinterpret_cast<uint32_t*>(out));
     },
     kDigits + "ABCDEFabcdef", [](const char* s) { return static_cast<int32_t>(QMX_ATOI_HEX(s)); }},
    {"float", QMXUtilStrGetFloatNumber, kDigits + ".", QMX_ATOI_MS},
    {"time", QMXUtilStrGetTimeNumber, kDigits + ":.", QMX_ATOI_TS}};

TEST_F(TextTest, NumbersAfterAKey) {
  struct Case {
    int kind;
    const char* text;
    const char* key;
    ptrdiff_t end;
    int64_t value;
  };
  const Case cases[] = {{0, "Size: 1234\r\n", "Size:", 10, 1234},
                        {0, "Port=abc12", "Port=", 10, 12},
                        {0, "Count: none\r\n7", "Count:", -1, 0},
                        {0, "a\r\nKey: 1", "Key:", -1, 0},
                        {0, "x 17 18", nullptr, 4, 17},
                        {0, "n=123456789012345678901234567890;", "n=", 32, 1900168395},
                        {1, "offset=-12;", "offset=", 10, -12},
                        {1, "x: a-b 5", "x:", 5, 0},
                        {1, "+5", nullptr, 2, 5},
                        {1, "-4294967295", nullptr, 11, 1},
                        {1, "a\n-1", nullptr, -1, 0},
                        {2, "id: 0x1F", "id:", 5, 0},
                        {2, "id: none", "id:", 8, 14},
                        {2, "FFFFFFFE", nullptr, 8, -2},
                        {3, "range=12.5-20", "range=", 10, 12500},
                        {3, "1.2.3", nullptr, 5, 1183},
                        {4, "t=01:02:03.250-", "t=", 14, 3723250},
                        {4, "t=12", "t=", 4, 43200000}};
  for (const Case& c : cases) {
    const NumberKind& kind = kNumberKinds[static_cast<size_t>(c.kind)];
    const GuardedText guarded(c.text);
    int32_t value = 77;
    EXPECT_EQ(offset(guarded, kind.get(guarded.text(), c.key, &value)), c.end) << c.text;
    EXPECT_EQ(value, c.end < 0 ? 77 : static_cast<int32_t>(c.value)) << c.text;
    EXPECT_EQ(offset(guarded, kind.get(guarded.text(), c.key, nullptr)), c.end) << c.text;
    EXPECT_EQ(kind.get(nullptr, c.key, &value), nullptr);
  }

  for (uint32_t round = 0; round < 20000; ++round) {
    const NumberKind& kind = kNumberKinds[round % kNumberKinds.size()];
    const std::string content = text(below(60), round % 3 ? "K=0159.:-aFgz" : "K=09.-: \r\n\xB2");
    const std::string key = one_of<std::string>({"", "K", "K=", "="});
    std::optional<size_t> end;
    int32_t expected = 77;
    if (const size_t at = plain_find(content, key); at != std::string::npos) {
      const bool integer = kind.get == QMXUtilStrGetIntNumber;
      const size_t from = at + key.size();
      size_t start = content.find_first_of(kind.members + (integer ? "-" : ""), from);
      if (start < content.find_first_of("\r\n", from)) {
        const bool negative = integer && content[start] == '-';
        start += negative;
        end = std::min(content.find_first_not_of(kind.members, start), content.size());
        expected = kind.convert(content.substr(start, std::min<size_t>(*end - start, 23)).c_str());
        if (negative) expected = static_cast<int32_t>(0u - static_cast<uint32_t>(expected));
      }
    }
    const GuardedText guarded(content);
    int32_t value = 77;
    ASSERT_EQ(offset(guarded, kind.get(guarded.text(), key.c_str(), &value)),
              end ? static_cast<ptrdiff_t>(*end) : -1)
        << kind.name << ' ' << content << ' ' << key;
    ASSERT_EQ(value, expected) << kind.name << ' ' << content << ' ' << key;
  }
}

using TokenGetter = const char* (*)(const char*, const char**, uint32_t*);

TEST_F(TextTest, Tokens) {
  const std::vector<std::pair<TokenGetter, std::string>> kinds = {
      {QMXUtilStrGetString, kLetters + kDigits + "-._"},
      {QMXUtilStrGetAddress, kLetters + kDigits + "-._"},
      {QMXUtilStrGetHexString, kDigits + "ABCDEFabcdef"},
      {QMXUtilStrGetSafeString, kLetters + kDigits + "\"#$&'*+,-./:=?@[]^_`{|}~"},
      {QMXUtilBase64GetString, kLetters + kDigits + "+,/="}};
  std::string any_byte;
  for (int c = 1; c < 256; ++c) any_byte += static_cast<char>(c);
  for (uint32_t round = 0; round < 20000; ++round) {
    const auto& [get, members] = kinds[round % kinds.size()];
    std::string content = text(below(kLongest), round % 3 ? any_byte : "ag1.=+ ;\r\n");
    if (round % 4 == 0) content.insert(below(static_cast<uint32_t>(content.size()) + 1), "://");
    const size_t scheme = get == QMXUtilStrGetAddress ? plain_find(content, "://") : std::string::npos;
    const size_t from = scheme != std::string::npos ? scheme + 3 : 0;
    const size_t first = content.find_first_of(members, from);
    const bool found = first < content.find_first_of("\r\n", from);
    const size_t end = found ? std::min(content.find_first_not_of(members, first), content.size()) : 0;
    const GuardedText guarded(content);
    const char* start = nullptr;
    uint32_t len = 77;
    ASSERT_EQ(offset(guarded, get(guarded.text(), &start, &len)), found ? static_cast<ptrdiff_t>(end) : -1)
        << content;
    ASSERT_EQ(offset(guarded, start), found ? static_cast<ptrdiff_t>(first) : -1) << content;
    ASSERT_EQ(len, found ? end - first : 77) << content;
  }
  const char* start = nullptr;
  uint32_t len = 0;
  EXPECT_STREQ(QMXUtilStrGetAddress("proto://host-7:554/x", &start, &len), ":554/x");
  EXPECT_STREQ(QMXUtilBase64GetString("a=Z0IA,aM48gA== x", &start, &len), " x");
  for (const auto& [get, members] : kinds) EXPECT_EQ(get(nullptr, &start, &len), nullptr);
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
    for (uint32_t i = 0; i < size; ++i) {
      char two[3];
      snprintf(two, sizeof two, "%x%x", bin.data()[i] >> 4, bin.data()[i] & 15);
      expected += two;
    }
    recording().clear_calls();
    ASSERT_EQ(take(QMXUtil_ConvBinToStr(bin.data(), size)), expected);
    ASSERT_EQ(recording().calls_of("Malloc").at(0), "Malloc " + std::to_string(2 * size + 1) + " -1");
  }
  for (uint32_t round = 0; round < 4 * kLongest; ++round) {
    const uint32_t size = round / 4;
    const std::string content = round % 2 ? text(size, "0123456789abcdefABCDEF") : bytes(size);
    std::string lower = content;
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    std::string expected(size / 2, '\0');
    for (uint32_t i = 0; i < size / 2; ++i) {
      int value = 0;
      for (const char c : lower.substr(2 * i, 2)) {
        const int code = static_cast<uint8_t>(c);
        value = value * 16 + (code >= 'a' && code <= 'f' ? code - 'a' + 10 : code - '0');
      }
      expected[i] = static_cast<char>(value);
    }
    const GuardedBytes apart(content), out(size / 2), in_place(content);
    ASSERT_EQ(QMXUtil_ConvStrToBin(apart.text(), size, out.data()), size / 2);
    ASSERT_EQ(of_bytes(out.data(), size / 2), expected) << content;
    ASSERT_EQ(of_bytes(apart.data(), size), lower);
    ASSERT_EQ(QMXUtil_ConvStrToBin(in_place.text(), size, in_place.data()), size / 2);
    ASSERT_EQ(of_bytes(in_place.data(), size), expected + lower.substr(size / 2));
  }
}

TEST_F(TextTest, StartCodeSearchesAgreeWithAPlainScan) {
  const std::string zeros_and_ones("\0\0\0\1\1\xB3\xFF", 7), few_zeros("\0\1\2\3\4\5\6\7\xFE\xB3", 10);
  for (uint32_t round = 0; round < 20000; ++round) {
    const uint32_t size = round % kLongest;
    const std::string content = text(size, round % 3 ? zeros_and_ones : few_zeros);
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

// ---- Base64

const std::string kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

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
    for (uint32_t odd = round % 4 ? below(6) : 0; odd > 0; --odd) {
      content.insert(
          below(static_cast<uint32_t>(content.size()) + 1),
          one_of<std::string>({"=", "==", "===", ",", " ", "\r\n", "\xC1", std::string(1, '\0'), "-"}));
    }
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
      entries += static_cast<char>(segment.bytes.size());
      entries += static_cast<char>(segment.bytes.size() >> 8);
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

TEST_F(TextTest, WithoutMemoryNothingIsStored) {
  uint32_t length = 77;
  const uint8_t data[] = {1, 2, 3};
  const std::vector<std::function<const void*()>> calls = {
      [&] { return QMXUtilStrdupn("abc", 2); },
      [&] { return QMXUtilStrdup("abc"); },
      [&] { return QMXUtilStrmcat("abc", "d"); },
      [&] { return QMXUtilStrmcat("abc", nullptr); },
      [&] { return QMXUtil_ConvBinToStr(data, 3); },
      [&] { return QMXUtilBase64Encoding(data, 3, &length); },
      [&] { return QMXUtilBase64ConvToBin("QUJD", 4, &length); }};
  recording().fail_from(qmxtest::Op::kMalloc);
  for (size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i](), nullptr) << i;
  EXPECT_EQ(length, 77u);
}

TEST_F(TextTest, SizesBeyond32BitsAreRefusedBeforeAnythingIsTouched) {
  uint32_t length = 77;
  const GuardedBytes none(size_t{0});  // reading at its data would end the test
  EXPECT_EQ(QMXUtilStrdupn(none.text(), UINT32_MAX), nullptr);
  EXPECT_EQ(QMXUtil_ConvBinToStr(none.data(), 0x80000000u), nullptr);
  EXPECT_EQ(QMXUtilBase64Encoding(none.data(), -1, &length), nullptr);
  EXPECT_EQ(length, 77u);
  EXPECT_EQ(recording().calls(), std::vector<std::string>{});
}

}  // namespace
