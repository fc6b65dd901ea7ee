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
using std::string;

// Sizes up to a few vectors and up to a few of the stretches that the searches pass over at once.
constexpr uint32_t kLongest = 600;

const string kBytes = [] {
  string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  return all;
}();
const string kPrefix("\0\0\1", 3);
const string kDigits = "0123456789";
const string kHexadecimal = kDigits + "ABCDEFabcdef";
const string kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const string kAlphabet = kLetters + kDigits + "+/";

class TextTest : public qmxtest::BaseTest {
 protected:
  uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }

  // Characters of `alphabet` only: the smaller it is, the more often something nearly matches.
  string text(uint32_t size, const string& alphabet = kBytes) {
    string out(size, '\0');
    for (char& c : out) c = alphabet[below(alphabet.size())];
    return out;
  }
  void insert(string& content, const string& part) { content.insert(below(content.size() + 1), part); }
  string one_of(const std::vector<string>& all) { return all[below(all.size())]; }

 private:
  std::mt19937 random_{20260101};
};

string content_of(const GuardedBytes& bytes) { return {bytes.text(), bytes.size()}; }

// A text whose NUL is the last readable byte.
struct GuardedText : GuardedBytes {
  explicit GuardedText(const string& s) : GuardedBytes(s + '\0') {}
  int64_t offset(const char* at) const { return at ? at - text() : -1; }
};

// Takes over a new text.
string take(void* block, size_t size) {
  const string content(static_cast<char*>(block), size);
  QMX_Free(block, 0);
  return content;
}
string take(char* s) { return take(s, strlen(s)); }

char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

// Checks a list of "text=value".
template <class Convert>
void check_numbers(Convert convert, const string& list) {
  std::istringstream cases(list);
  for (string text; cases >> text;) {
    const size_t equals = text.find('=');
    const auto value = static_cast<int32_t>(convert(GuardedText(text.substr(0, equals)).text()));
    EXPECT_EQ(std::to_string(value), text.substr(equals + 1)) << text;
  }
}

TEST_F(TextTest, NumbersFromTextAndBack) {
  check_numbers(QMX_ATOI, "=0 007=7 1a=59 -5=-25 \xFF=207 4294967297=1 2147483648=-2147483648");
  check_numbers(QMX_ATOI_MS, "=0 12=12000 12.05=12050 12.3456=12345 .25=250 1.=1000 1.2.3=1183 4294968=704");
  check_numbers(QMX_ATOI_TS,
                "=0 01:02:03.5=3723500 01-02-03=3723000 01:02:3723=7443000 ::::::=402600000 5=18000000 "
                "12=43200000 12:=43200000 12:3=43380000 12:34=45240000 12:34:=45240000 12:34:.2=45240200");
  check_numbers(QMX_ATOI_HEX, "=0 ff=255 FFFFFFFF=-1 123456789=591751049 0x10=18448 g=55");
  check_numbers(QMXUtilStrIsDecNumber, "0=1 9x=1 =0 -7=0 x7=0 /=0 :=0");
  EXPECT_EQ(QMXUtilStrIsDecNumber("  7") - QMXUtilStrIsDecNumber("\t7"), 1);
  for (int i = 0; i < 2000; ++i) {
    const auto value = static_cast<int32_t>(i == 0 ? 1u << 31 : below(UINT32_MAX) >> below(32));
    const GuardedBytes room(12);
    EXPECT_EQ(QMX_ITOA(value, room.text()), room.text());
    EXPECT_EQ(room.text(), std::to_string(value));
  }
}

TEST_F(TextTest, CaseConversionChangesTheLettersOfExactlyTheCountedBytes) {
  for (uint32_t round = 0; round < 6 * kLongest; ++round) {
    const bool lower = round % 2 == 0;
    string expected = text(round / 6);
    const GuardedBytes guarded(expected);
    const size_t from = expected.size() * (round % 3) / 4;
    const size_t end = expected.size() - below(expected.size() - from + 1);
    for (size_t i = from; i < end; ++i) {
      char& c = expected[i];
      if (lower ? c >= 'A' && c <= 'Z' : c >= 'a' && c <= 'z') c = static_cast<char>(c ^ 32);
    }
    char* const s = guarded.text() + from;
    ASSERT_EQ((lower ? QMXUtilStrntolower : QMXUtilStrntoupper)(s, static_cast<int32_t>(end - from)), s);
    ASSERT_EQ(content_of(guarded), expected) << from << ' ' << end;
  }
  char untouched[] = "Ab";
  EXPECT_STREQ(QMXUtilStrntolower(QMXUtilStrntoupper(untouched, -1), INT32_MIN), "Ab");
}

int plain_comparison(const string& a, const string& b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const int difference = static_cast<uint8_t>(folded(a[i])) - static_cast<uint8_t>(folded(b[i]));
    if (difference != 0 || a[i] == '\0') return difference;
  }
  return 0;
}

TEST_F(TextTest, ComparisonIgnoresTheCaseOfLettersOnly) {
  for (uint32_t round = 0; round < 20000; ++round) {
    const string a = text(below(round % 8 ? 60 : 700), round % 2 ? "aA" : "aZ_\x80\xFF");
    string b = a;
    for (char& c : b) {
      if (below(2) && (c == 'a' || c == 'A' || c == 'Z')) c = static_cast<char>(c ^ 32);
    }
    if (below(2)) b.resize(below(b.size() + 1));
    if (below(2) && !b.empty()) b[below(b.size())] = "_@[\xE1"[below(4)];
    const uint32_t n = below(std::min(a.size(), b.size()) + 3);
    const GuardedText guarded_a(a), guarded_b(b);
    const GuardedBytes counted((a + '\0').substr(0, n));
    ASSERT_EQ(QMXUtilStricmp(guarded_a.text(), guarded_b.text()), plain_comparison(a, b, SIZE_MAX));
    ASSERT_EQ(QMXUtilStrnicmp(counted.text(), guarded_b.text(), n), plain_comparison(a, b, n));
  }
  EXPECT_EQ(QMXUtilStrnicmp("abc", "abd", UINT32_MAX), -1);
}

TEST_F(TextTest, CopiesHaveTheSizesThatTheyState) {
  const GuardedText hello("hello"), cd("cd");
  EXPECT_EQ(take(QMXUtilStrdupn(GuardedBytes("hel").text(), 3)), "hel");
  EXPECT_EQ(take(QMXUtilStrdupn(hello.text(), 9), 10), string("hello\0\0\0\0\0", 10));
  EXPECT_EQ(take(QMXUtilStrdup(hello.text())), "hello");
  EXPECT_EQ(take(QMXUtilStrmcat(hello.text(), cd.text())), "hellocd");
  EXPECT_EQ(take(QMXUtilStrmcat(hello.text(), nullptr)), "hello");
  EXPECT_EQ(recording().calls_of("Malloc"), (std::vector<string>{"Malloc 4 -1", "Malloc 10 -1", "Malloc 6 -1",
                                                                 "Malloc 8 -1", "Malloc 6 -1"}));
}

size_t plain_find(const string& text, const string& pattern) {
  const size_t line = std::min(text.find_first_of("\r\n"), text.size());
  const size_t at = text.find(pattern);
  return at <= line ? at : string::npos;
}

TEST_F(TextTest, FindStringStaysOnTheFirstLine) {
  for (uint32_t round = 0; round < 20000; ++round) {
    string content = text(below(kLongest), round % 3 ? "ab" : "abc:\xC4");
    const string pattern = text(below(round % 5 ? 5 : 40), round % 7 ? "ab" : "a\r\n");
    if (below(2)) insert(content, pattern);
    if (below(2)) insert(content, one_of({"\r\n", "\n", "\r"}));
    if (round % 50 == 0) content.insert(0, 1500, 'c');
    const GuardedText guarded(content), guarded_pattern(pattern);
    ASSERT_EQ(guarded.offset(QMXUtilStrFindString(guarded.text(), guarded_pattern.text())),
              static_cast<int64_t>(plain_find(content, pattern)))
        << content << '\n'
        << pattern;
  }
  EXPECT_STREQ(QMXUtilStrFindString("text", nullptr), "text");
}

TEST_F(TextTest, LogicalLinesAreJoinedInPlace) {
  for (int round = 0; round < 5000; ++round) {
    string expected = text(below(30), "  \r\n\nx");
    const GuardedText guarded(expected);
    const size_t start = std::min(expected.find_first_not_of(' '), expected.size());
    size_t end = start;
    while ((end = std::min(expected.find('\n', end), expected.size())) < expected.size()) {
      if (expected[++end] != ' ') break;
      expected[end - 1] = ' ';
      if (end >= 2 && expected[end - 2] == '\r') expected[end - 2] = ' ';
    }
    uint32_t len;
    ASSERT_EQ(guarded.offset(QMXUtilStrGetLine(guarded.text(), &len)), static_cast<int64_t>(end)) << expected;
    ASSERT_EQ(len, end - start) << expected;
    ASSERT_EQ(guarded.text(), expected);
  }
}

// ---- Keyed values

// The first run of members on the line, positions -1 without one.
struct Stretch {
  int64_t first = -1, end = -1;
  string of(const string& s) const {
    return s.substr(static_cast<size_t>(first), static_cast<size_t>(end - first));
  }
};
Stretch plain_run(const string& content, size_t from, const string& members, const char* sign = "") {
  const size_t first = content.find_first_of(members + sign, from);
  if (first >= content.find_first_of("\r\n", from)) return {};
  const size_t end = content.find_first_not_of(members, first + (content[first] == *sign));
  return {static_cast<int64_t>(first), static_cast<int64_t>(std::min(end, content.size()))};
}

struct NumberKind {
  const char* (*get)(const char*, const char*, int32_t*);
  string members;
  std::function<int32_t(const char*)> convert;
};
const char* hex_number(const char* text, const char* key, int32_t* out) {
  return QMXUtilStrGetHexNumber(text, key, reinterpret_cast<uint32_t*>(out));
}
const std::vector<NumberKind> kNumberKinds = {{QMXUtilStrGetDecNumber, kDigits, QMX_ATOI},
                                              {QMXUtilStrGetIntNumber, kDigits, QMX_ATOI},
                                              {hex_number, kHexadecimal, QMX_ATOI_HEX},
                                              {QMXUtilStrGetFloatNumber, kDigits + ".", QMX_ATOI_MS},
                                              {QMXUtilStrGetTimeNumber, kDigits + ":.", QMX_ATOI_TS}};

TEST_F(TextTest, NumbersAfterAKey) {
  for (uint32_t round = 0; round < 20000; ++round) {
    const auto& [get, members, convert] = kNumberKinds[round % kNumberKinds.size()];
    string content = text(below(60), round % 3 ? "K=0159.:-aFgz" : "K=09.-: \r\n\xB2");
    if (below(8) == 0) insert(content, text(below(40), kDigits));
    const string key = one_of({"", "K", "K=", "="});
    const bool integer = get == QMXUtilStrGetIntNumber;
    const size_t at = plain_find(content, key);
    Stretch run;
    int32_t expected = 77;
    if (at != string::npos) run = plain_run(content, at + key.size(), members, integer ? "-" : "");
    if (run.end >= 0) {
      const string number = run.of(content);
      const bool negative = integer && number[0] == '-';
      expected = convert(number.substr(negative, 23).c_str());
      if (negative) expected = static_cast<int32_t>(0u - static_cast<uint32_t>(expected));
    }
    const GuardedText guarded(content);
    const char* const key_or_null = key.empty() && below(2) ? nullptr : key.c_str();
    int32_t value = 77;
    ASSERT_EQ(guarded.offset(get(guarded.text(), key_or_null, &value)), run.end) << content << ' ' << key;
    ASSERT_EQ(value, expected) << content << ' ' << key;
    ASSERT_EQ(guarded.offset(get(guarded.text(), key_or_null, nullptr)), run.end);
  }
}

using Getter = const char* (*)(const char*, const char**, uint32_t*);
const std::vector<std::pair<Getter, string>> kTokenKinds = {
    {QMXUtilStrGetString, kLetters + kDigits + "-._"},
    {QMXUtilStrGetAddress, kLetters + kDigits + "-._"},
    {QMXUtilStrGetHexString, kHexadecimal},
    {QMXUtilStrGetSafeString, kLetters + kDigits + "\"#$&'*+,-./:=?@[]^_`{|}~"},
    {QMXUtilBase64GetString, kAlphabet + ",="},
    {QMXUtilStrGetContext, ""}};

TEST_F(TextTest, Tokens) {
  for (uint32_t round = 0; round < 20000; ++round) {
    const auto& [get, members] = kTokenKinds[round % kTokenKinds.size()];
    string content = text(below(kLongest), round % 3 ? kBytes.substr(1) : "  ag1.=+ ;\r\n");
    if (round % 4 == 0) insert(content, "://");
    const size_t scheme = get == QMXUtilStrGetAddress ? plain_find(content, "://") : string::npos;
    Stretch run = plain_run(content, scheme != string::npos ? scheme + 3 : 0, members);
    if (members.empty()) {  // the rest of a header line, which ends at its carriage return
      const size_t first = std::min(content.find_first_not_of(' '), content.size());
      run = {static_cast<int64_t>(first), static_cast<int64_t>(std::min(content.find('\r'), content.size()))};
    }
    const GuardedText guarded(content);
    const char* start = nullptr;
    uint32_t len = 77;
    ASSERT_EQ(guarded.offset(get(guarded.text(), &start, &len)), run.end) << content;
    ASSERT_EQ(guarded.offset(start), run.first) << content;
    ASSERT_EQ(len, run.end < 0 ? 77 : run.end - run.first) << content;
  }
}

// ---- Hexadecimal text and start codes

TEST_F(TextTest, HexadecimalText) {
  for (uint32_t round = 0; round < 4 * kLongest; ++round) {
    const uint32_t size = round / 4;
    const string content = round % 2 ? text(size, kHexadecimal) : text(size);
    string lower = content, expected;
    std::transform(content.begin(), content.end(), lower.begin(), folded);
    const auto digit = [&](size_t i) {
      const int code = static_cast<uint8_t>(lower[i]);
      return code >= 'a' && code <= 'f' ? code - 'a' + 10 : code - '0';
    };
    for (size_t i = 0; i < size / 2; ++i) expected += static_cast<char>(digit(2 * i) * 16 + digit(2 * i + 1));
    const GuardedBytes apart(content), out(size / 2), in_place(content);
    ASSERT_EQ(QMXUtil_ConvStrToBin(apart.text(), size, out.data()), size / 2);
    ASSERT_EQ(content_of(out), expected) << content;
    ASSERT_EQ(content_of(apart), lower);
    ASSERT_EQ(QMXUtil_ConvStrToBin(in_place.text(), size, in_place.data()), size / 2);
    ASSERT_EQ(content_of(in_place), expected + lower.substr(size / 2));
    if (round % 2 == 0) continue;
    recording().clear_calls();
    ASSERT_EQ(take(QMXUtil_ConvBinToStr(out.data(), size / 2)), lower.substr(0, size / 2 * 2));
    ASSERT_EQ(recording().calls_of("Malloc").at(0), "Malloc " + std::to_string(size / 2 * 2 + 1) + " -1");
  }
}

TEST_F(TextTest, StartCodeSearchesAgreeWithAPlainScan) {
  const string zeros_and_ones("\0\0\0\1\1\xB3\xFF", 7), few_zeros("\0\1\2\3\4\5\6\7\xFE\xB3", 10),
      no_start_code("\0\0\2\3", 4);
  for (uint32_t at = 40; at < 2 * kLongest - 3; ++at) {  // wherever it begins, behind zeros that are none
    string content(2 * kLongest, 2);
    content.replace(30, 2, 2, '\0').replace(at, 3, kPrefix);
    ASSERT_EQ(qmxutil::find_start_code_prefix(GuardedBytes(content).data(), 0, 2 * kLongest), at);
  }
  for (uint32_t round = 0; round < 20000; ++round) {
    const bool long_run = round % 50 == 0;  // of zeros, with one start code
    const uint32_t size = long_run ? 4 + below(10000) : round % kLongest;
    string content = text(size, long_run ? no_start_code : round % 3 ? zeros_and_ones : few_zeros);
    if (long_run) content.replace(below(size - 3), 4, kPrefix + '\xB3');
    const GuardedBytes guarded(content);
    const uint32_t from = size ? below(size) : 0;
    const size_t prefix = std::min<size_t>(content.find(kPrefix, from), size);
    ASSERT_EQ(qmxutil::find_start_code_prefix(guarded.data(), from, size), prefix) << round;

    const string four = round % 5 ? kPrefix + '\xB3' : text(4, zeros_and_ones);
    uint32_t wanted = 0;
    for (const char c : four) wanted = wanted << 8 | static_cast<uint8_t>(c);
    for (const bool any_code : {true, false}) {
      const uint8_t* cursor = guarded.data() + from;
      uint32_t left = size - from, code = 77;
      const int found = any_code ? QMXUtil_FindStartCode(&cursor, &left, &code)
                                 : QMXUtil_FindStartCode2(&cursor, &left, wanted);
      const size_t at = any_code ? prefix : std::min<size_t>(content.find(four, from), size);
      const bool expected = at + 5 <= size;
      ASSERT_EQ(found, expected) << round << ' ' << any_code;
      ASSERT_EQ(left, expected ? size - at : std::min(size - from, 4u)) << round << ' ' << any_code;
      ASSERT_EQ(cursor, guarded.data() + size - left);
      ASSERT_EQ(code, expected && any_code ? 0x100u + guarded.data()[at + 3] : 77u);
    }
  }
}

// ---- Base64

struct Decoded {
  string bytes;
  size_t stop = 0;
};

Decoded plain_decoding(const string& text) {
  Decoded result;
  while (text.size() - result.stop >= 4) {
    if (result.stop > 0 && text[result.stop] == ',') break;
    string group;
    uint32_t bits = 0;
    while (group.size() < 4 && result.stop < text.size()) {
      const char c = text[result.stop++];
      const size_t value = c == '=' ? 0 : kAlphabet.find(c);
      if (value == string::npos) continue;
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

TEST_F(TextTest, Base64Encoding) {
  for (uint32_t size = 0; size < kLongest; ++size) {
    const string content = text(size), padded = content + string(2, '\0');
    string expected;
    for (size_t bit = 0; bit < 8 * size; bit += 6) {
      const int two = static_cast<uint8_t>(padded[bit / 8]) << 8 | static_cast<uint8_t>(padded[bit / 8 + 1]);
      expected += kAlphabet[static_cast<size_t>(two >> (10 - bit % 8) & 63)];
    }
    expected.append((size + 2) / 3 * 4 - expected.size(), '=');
    const size_t room = (size + 2) * 4 / 3 + 2;
    recording().clear_calls();
    uint32_t length = 77;
    char* const encoded =
        QMXUtilBase64Encoding(GuardedBytes(content).data(), static_cast<int32_t>(size), &length);
    ASSERT_EQ(recording().calls().at(0), "Malloc " + std::to_string(room) + " -1");
    ASSERT_EQ(length, expected.size());
    ASSERT_EQ(take(encoded, room), expected + string(room - length, '\0'));
  }
}

TEST_F(TextTest, Base64DecodingAgreesWithAPlainDecoder) {
  for (uint32_t round = 0; round < 20000; ++round) {
    string content = text(below(round % 10 ? 40 : 200), kAlphabet);
    const std::vector<string> odd = {"=", "==", "===", ",", " ", "\r\n", {'\0'}, "\xC1", "-"};
    for (uint32_t n = round % 4 ? below(6) : 0; n > 0; --n) insert(content, one_of(odd));
    const Decoded expected = plain_decoding(content);
    const GuardedBytes guarded(content), out(expected.bytes.size());
    uint32_t length = 77;
    const char* const stop = QMXUtilBase64Decoding(guarded.text(), out.data(), guarded.size(), &length);
    ASSERT_EQ(content_of(out), expected.bytes) << content;
    ASSERT_EQ(length, out.size()) << content;
    ASSERT_EQ(stop, guarded.text() + expected.stop) << content;
    if (round % 20 == 0) {
      recording().clear_calls();
      ASSERT_EQ(take(QMXUtilBase64ConvToBin(guarded.text(), guarded.size(), &length), length),
                expected.bytes);
      ASSERT_EQ(recording().calls().at(0), "Malloc " + std::to_string(guarded.size()) + " -1");
    }

    string entries;
    for (string rest = content; !rest.empty();) {
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
    ASSERT_EQ(content_of(list), entries) << content;
  }
  const GuardedBytes long_segment(string(93336, 'A')), out(70004);  // keeps the low 16 bits of its length
  EXPECT_EQ(QMXUtilBase64ConvToBinWLen(long_segment.text(), long_segment.size(), out.data()), 70004u);
  EXPECT_EQ(out.data()[0] + out.data()[1] * 256, 70002 - 65536);
}

TEST_F(TextTest, NullsAndSizesBeyond32BitsAreRefusedBeforeAnythingIsTouched) {
  uint32_t length = 77;
  int32_t value = 77;
  const GuardedBytes none(size_t{0});  // reading at its data would end the test
  for (const void* result : std::initializer_list<const void*>{
           QMX_strrev(nullptr), QMXUtilStrntolower(nullptr, 5), QMXUtilStrntoupper(nullptr, 5),
           QMXUtilStrdupn(nullptr, 3), QMXUtilStrdup(nullptr), QMXUtilStrmcat(nullptr, "x"),
           QMXUtilStrFindString(nullptr, "x"), QMXUtilStrGetLine(nullptr, &length),
           QMXUtilBase64ConvToBin(nullptr, 4, &length), QMXUtilStrdupn(none.text(), UINT32_MAX),
           QMXUtil_ConvBinToStr(none.data(), 1u << 31), QMXUtilBase64Encoding(none.data(), -1, &length)}) {
    EXPECT_EQ(result, nullptr);
  }
  EXPECT_EQ(QMXUtilStrIsDecNumber(nullptr), 0);
  for (const NumberKind& kind : kNumberKinds) EXPECT_EQ(kind.get(nullptr, "K", &value), nullptr);
  for (const auto& kind : kTokenKinds) EXPECT_EQ(kind.first(nullptr, nullptr, nullptr), nullptr);
  EXPECT_TRUE(recording().calls().empty());
  EXPECT_EQ(length, 77u);
}

}  // namespace
