// The text family against plain models, on random bytes in buffers that end at an unreadable page.
#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "bytes.h"
#include "qmxutil_string.h"
#include "recording_base.h"
#include "text_models.h"

namespace {

using namespace qmxtest;
using std::string;

// Sizes up to a few vectors and up to a few of the stretches that the searches pass over at once.
constexpr uint32_t kLongest = 600;

const string kPrefix("\0\0\1", 3);
const string kDigits = "0123456789";
const string kHexadecimal = kDigits + "ABCDEFabcdef";
const string kWord = kBase64Alphabet.substr(0, 62) + "-._";

using TextTest = BaseTest;

void insert(string& content, const string& part) { content.insert(below(content.size() + 1), part); }
const string& one_of(const std::vector<string>& all) { return all[below(all.size())]; }

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
  const string before("A@[Z\0\xC1qAz`{a\xE1Q", 14), lower("a@[z\0\xC1qaz`{a\xE1Q", 14),
      upper("A@[Z\0\xC1QAZ`{A\xE1Q", 14);
  for (const auto& [convert, after] : {std::pair(&QMXUtilStrntolower, lower), {&QMXUtilStrntoupper, upper}}) {
    const GuardedBytes bytes(before);
    EXPECT_EQ(convert(convert(bytes.text(), -1), INT32_MIN), bytes.text());
    EXPECT_EQ(content_of(bytes), before);
    EXPECT_EQ(convert(bytes.text(), 13), bytes.text());
    EXPECT_EQ(content_of(bytes), after);
  }
}

int plain_comparison(const string& a, const string& b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const int difference = static_cast<uint8_t>(folded(a[i])) - static_cast<uint8_t>(folded(b[i]));
    if (difference != 0 || a[i] == '\0') return difference;
  }
  return 0;
}

TEST_F(TextTest, ComparisonIgnoresTheCaseOfLettersOnly) {
  for (uint32_t round = 0; round < 10000; ++round) {
    const string a = chars(below(round % 8 ? 60 : 700), round % 2 ? "aA" : "aZ_\x80\xFF");
    string b = a;
    for (char& c : b) {
      if (chance(2) && (c == 'a' || c == 'A' || c == 'Z')) c = static_cast<char>(c ^ 32);
    }
    if (chance(2)) b = some_of(b);
    if (chance(2) && !b.empty()) b[below(b.size())] = "_@[\xE1"[below(4)];
    const uint32_t n = below(std::min(a.size(), b.size()) + 3);
    const GuardedText guarded_a(a), guarded_b(b);
    const GuardedBytes counted((a + '\0').substr(0, n));
    ASSERT_EQ(QMXUtilStricmp(guarded_a.text(), guarded_b.text()), plain_comparison(a, b, SIZE_MAX));
    ASSERT_EQ(QMXUtilStrnicmp(counted.text(), guarded_b.text(), n), plain_comparison(a, b, n));
  }
  EXPECT_EQ(QMXUtilStrnicmp("abc", "abd", UINT32_MAX), -1);
  EXPECT_EQ(QMXUtilStricmp("a", ""), 97);
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

TEST_F(TextTest, FindStringStaysOnTheFirstLine) {
  for (uint32_t round = 0; round < 10000; ++round) {
    string content = chars(below(kLongest), round % 3 ? "ab" : "abc:\xC4");
    const string pattern = chars(below(round % 5 ? 5 : 40), round % 7 ? "ab" : "a\r\n");
    if (chance(2)) insert(content, pattern);
    if (chance(2)) insert(content, one_of({"\r\n", "\n", "\r"}));
    if (round % 50 == 0) content.insert(0, 1500, 'c');
    const GuardedText guarded(content), guarded_pattern(pattern);
    ASSERT_EQ(guarded.offset(QMXUtilStrFindString(guarded.text(), guarded_pattern.text())),
              static_cast<int64_t>(model_find(content, pattern)))
        << content << '\n'
        << pattern;
  }
  EXPECT_STREQ(QMXUtilStrFindString("text", nullptr), "text");
}

TEST_F(TextTest, LogicalLinesAreJoinedInPlace) {
  for (int round = 0; round < 5000; ++round) {
    string expected = chars(below(30), "  \r\n\nx");
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
  for (uint32_t round = 0; round < 10000; ++round) {
    const auto& [get, members, convert] = kNumberKinds[round % kNumberKinds.size()];
    string content = chars(below(60), round % 3 ? "K=0159.:-aFgz" : "K=09.-: \r\n\xB2");
    if (chance(8)) insert(content, chars(below(40), kDigits));
    const string key = one_of({"", "K", "K=", "="});
    const bool integer = get == QMXUtilStrGetIntNumber;
    const size_t at = model_find(content, key);
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
    const char* const key_or_null = key.empty() && chance(2) ? nullptr : key.c_str();
    int32_t value = 77;
    ASSERT_EQ(guarded.offset(get(guarded.text(), key_or_null, &value)), run.end) << content << ' ' << key;
    ASSERT_EQ(value, expected) << content << ' ' << key;
    ASSERT_EQ(guarded.offset(get(guarded.text(), key_or_null, nullptr)), run.end);
  }
}

using Getter = const char* (*)(const char*, const char**, uint32_t*);
const std::vector<std::pair<Getter, string>> kTokenKinds = {
    {QMXUtilStrGetString, kWord},
    {QMXUtilStrGetAddress, kWord},
    {QMXUtilStrGetHexString, kHexadecimal},
    {QMXUtilStrGetSafeString, kWord + "\"#$&'*+,/:=?@[]^`{|}~"},
    {QMXUtilBase64GetString, kBase64Alphabet + ",="},
    {QMXUtilStrGetContext, ""}};

TEST_F(TextTest, Tokens) {
  for (uint32_t round = 0; round < 10000; ++round) {
    const auto& [get, members] = kTokenKinds[round % kTokenKinds.size()];
    string content = round % 3 ? any_bytes(below(kLongest)) : chars(below(kLongest), "  ag1.=+ ;\r\n");
    std::replace(content.begin(), content.end(), '\0', ' ');
    if (round % 4 == 0) insert(content, "://");
    const size_t scheme = get == QMXUtilStrGetAddress ? model_find(content, "://") : string::npos;
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
  for (uint32_t size = 0; size < kLongest; ++size) {
    const string content = any_bytes(size);
    const GuardedBytes bytes(content), out(size);
    const string digits = take(QMXUtil_ConvBinToStr(bytes.data(), size));
    ASSERT_EQ(recording().calls_of("Malloc").at(size), "Malloc " + std::to_string(2 * size + 1) + " -1");
    string upper = digits;
    std::transform(digits.begin(), digits.end(), upper.begin(), toupper);
    const GuardedBytes apart(upper), in_place(upper);
    ASSERT_EQ(QMXUtil_ConvStrToBin(apart.text(), 2 * size, out.data()), size);
    ASSERT_EQ(content_of(out) + content_of(apart), content + digits);
    ASSERT_EQ(QMXUtil_ConvStrToBin(in_place.text(), 2 * size, in_place.data()), size);
    ASSERT_EQ(content_of(in_place), content + digits.substr(size));
  }
  string digits, lower, bytes;
  for (int i = 0; i < 4; ++i) {  // values of characters that are no digits, too
    digits += "00ff7Fg:/a`G", lower += "00ff7fg:/a`g", bytes += hex("00 FF 7F 7A FA 37");
  }
  const GuardedBytes odd(digits + "9"), out(24);
  EXPECT_EQ(take(QMXUtil_ConvBinToStr(reinterpret_cast<const uint8_t*>("\0\n\xFF"), 3)), "000aff");
  EXPECT_EQ(QMXUtil_ConvStrToBin(odd.text(), odd.size(), out.data()), 24u);
  EXPECT_EQ(content_of(out) + content_of(odd), bytes + lower + "9");
}

TEST_F(TextTest, StartCodeSearchesAgreeWithAPlainScan) {
  const string zeros_and_ones("\0\0\1\1\xB3\xFF", 6), few_zeros("\0\1\2\3\4\5\6\7\xFE\xB3", 10);
  for (uint32_t round = 0; round < 10000; ++round) {
    const uint32_t size = round % kLongest + (round % 64 == 0 ? 3000 : 0);
    const string content = chars(size, round % 3 ? zeros_and_ones : few_zeros);
    const string four = round % 5 ? kPrefix + '\xB3' : chars(4, zeros_and_ones);
    uint32_t wanted = 0;
    for (const char c : four) wanted = wanted << 8 | static_cast<uint8_t>(c);
    const GuardedBytes guarded(content);
    const uint32_t from = size ? below(size) : 0;
    for (const bool any_code : {true, false}) {
      const uint8_t* cursor = guarded.data() + from;
      uint32_t left = size - from, code = 77;
      const int found = any_code ? QMXUtil_FindStartCode(&cursor, &left, &code)
                                 : QMXUtil_FindStartCode2(&cursor, &left, wanted);
      const size_t at = content.find(any_code ? kPrefix : four, from);
      const bool expected = at < size && at + 5 <= size;
      ASSERT_EQ(found, expected) << round << ' ' << any_code;
      ASSERT_EQ(left, expected ? size - at : std::min(size - from, 4u)) << round << ' ' << any_code;
      ASSERT_EQ(cursor, guarded.data() + size - left);
      ASSERT_EQ(code, expected && any_code ? 0x100u + guarded.data()[at + 3] : 77u);
    }
  }
}

// ---- Base64

TEST_F(TextTest, Base64Encoding) {
  for (uint32_t size = 0; size < kLongest; ++size) {
    const string content = any_bytes(size), padded = content + string(2, '\0');
    string expected;
    for (size_t bit = 0; bit < 8 * size; bit += 6) {
      const int two = static_cast<uint8_t>(padded[bit / 8]) << 8 | static_cast<uint8_t>(padded[bit / 8 + 1]);
      expected += kBase64Alphabet[static_cast<size_t>(two >> (10 - bit % 8) & 63)];
    }
    expected.append((size + 2) / 3 * 4 - expected.size(), '=');
    const size_t room = (size + 2) * 4 / 3 + 2;
    uint32_t length = 77;
    char* const encoded =
        QMXUtilBase64Encoding(GuardedBytes(content).data(), static_cast<int32_t>(size), &length);
    ASSERT_EQ(recording().calls_of("Malloc").at(size), "Malloc " + std::to_string(room) + " 0");
    ASSERT_EQ(length, expected.size());
    ASSERT_EQ(take(encoded, room), expected + string(room - length, '\0'));
  }
}

TEST_F(TextTest, Base64DecodingAgreesWithAPlainDecoder) {
  const std::vector<string> odd = {"=", "==", "===", ",", " ", "\r\n", {'\0'}, "\xC1", "-"};
  for (uint32_t round = 0; round < 10000; ++round) {
    string content = chars(below(round % 10 ? 40 : 200), kBase64Alphabet);
    for (uint32_t n = round % 4 ? below(6) : 0; n > 0; --n) insert(content, one_of(odd));
    const Decoded expected = model_decoding(content);
    const string entries = model_entries(content);
    const GuardedBytes guarded(content), out(expected.bytes.size()), list(entries.size()), in_place(content);
    uint32_t length = 77;
    const char* const stop = QMXUtilBase64Decoding(guarded.text(), out.data(), guarded.size(), &length);
    ASSERT_EQ(content_of(out), expected.bytes) << content;
    ASSERT_EQ(length, out.size()) << content;
    ASSERT_EQ(stop, guarded.text() + expected.stop) << content;
    QMXUtilBase64Decoding(in_place.text(), in_place.data(), in_place.size(), &length);
    ASSERT_EQ(content_of(in_place).substr(0, length), expected.bytes) << content;
    ASSERT_EQ(QMXUtilBase64ConvToBinWLen(guarded.text(), guarded.size(), list.data()), list.size())
        << content;
    ASSERT_EQ(content_of(list), entries) << content;
    if (round % 20 != 0) continue;
    recording().clear_calls();
    ASSERT_EQ(take(QMXUtilBase64ConvToBin(guarded.text(), guarded.size(), &length), length), expected.bytes);
    ASSERT_EQ(recording().calls().at(0), "Malloc " + std::to_string(guarded.size()) + " -1");
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
