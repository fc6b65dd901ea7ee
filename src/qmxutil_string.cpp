// Text and bytes: numbers, string helpers, keyed values, hexadecimal text and start codes, Base64.
//
// Texts are bytes: characters are looked at unsigned, and only ASCII letters have a case. Nothing here reads
// past a text's NUL or past a count. Where a text ends is asked of strnlen() a stretch at a time, so that
// bulk work never runs far ahead of what a short answer needs.
#include "qmxutil_string.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "internal/big_endian.h"
#include "internal/handles.h"
#include "internal/simd/base64.h"
#include "internal/simd/fold_case.h"
#include "internal/simd/hex.h"
#include "internal/simd/line_search.h"
#include "internal/start_code.h"

using namespace qmxutil;

static_assert(std::endian::native == std::endian::little, "vectors and tables hold bytes in memory order");

namespace {

const uint8_t* as_bytes(const char* text) { return reinterpret_cast<const uint8_t*>(text); }
uint8_t* as_bytes(char* text) { return reinterpret_cast<uint8_t*>(text); }
const char* as_text(const uint8_t* bytes) { return reinterpret_cast<const char*>(bytes); }

}  // namespace

// ---- Numbers

namespace {

// What a character counts, whether it is a digit or not; wraps for those below '0'.
uint32_t digit_value(char c) { return static_cast<uint8_t>(c) - uint32_t{'0'}; }

// The number in the characters up to the NUL, but at most `limit` of them. Wraps.
uint32_t decimal_value(const char* s, size_t limit) {
  uint32_t value = 0;
  for (size_t i = 0; i < limit && s[i] != '\0'; ++i) value = value * 10 + digit_value(s[i]);
  return value;
}

uint32_t milliseconds(const char* s) {
  uint32_t seconds = 0;
  for (; *s != '\0' && *s != '.'; ++s) seconds = seconds * 10 + digit_value(*s);
  if (*s == '.') ++s;
  uint32_t thousandths = 0;
  for (int place = 0; place < 3; ++place) thousandths = thousandths * 10 + (*s ? digit_value(*s++) : 0);
  return seconds * 1000 + thousandths;
}

uint32_t hexadecimal_digit_value(char c) {
  if (c >= 'A' && c <= 'F') return static_cast<uint32_t>(c - 'A') + 10;
  if (c >= 'a' && c <= 'f') return static_cast<uint32_t>(c - 'a') + 10;
  return digit_value(c);
}

}  // namespace

char* QMX_strrev(char* s) {
  if (s != nullptr) std::reverse(s, s + std::strlen(s));
  return s;
}

int32_t QMX_ATOI(const char* s) { return static_cast<int32_t>(decimal_value(s, SIZE_MAX)); }

int32_t QMX_ATOI_MS(const char* s) { return static_cast<int32_t>(milliseconds(s)); }

int32_t QMX_ATOI_TS(const char* s) {
  const size_t length = strnlen(s, 6);  // of hh:mm: and no more; fields that are not there count 0
  const uint32_t hours = decimal_value(s, 2);
  const uint32_t minutes = length > 3 ? decimal_value(s + 3, 2) : 0;
  const uint32_t seconds_ms = length == 6 ? milliseconds(s + 6) : 0;
  return static_cast<int32_t>(hours * 3600000 + minutes * 60000 + seconds_ms);
}

uint32_t QMX_ATOI_HEX(const char* s) {
  uint32_t value = 0;
  for (; *s != '\0'; ++s) value = value * 16 + hexadecimal_digit_value(*s);
  return value;
}

char* QMX_ITOA(int32_t value, char* buf) {
  uint32_t magnitude = static_cast<uint32_t>(value);
  if (value < 0) magnitude = 0 - magnitude;  // of -2147483648 too
  char* end = buf;
  do {
    *end++ = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0) *end++ = '-';
  *end = '\0';
  return QMX_strrev(buf);
}

// ---- String helpers

namespace {

// How far a text is asked for its end at once: most lines, and most texts that are compared, are shorter.
constexpr size_t kFirstStretch = 128;
constexpr size_t kStretch = 1024;

// Compares texts in stretches of which both are known to be there.
[[gnu::noinline]] int compare_long(const uint8_t* a, const uint8_t* b, size_t limit) {
  for (size_t stretch = kFirstStretch; limit > 0; stretch = kStretch) {
    const size_t wanted = std::min(limit, stretch);
    const size_t same = same_but_for_case(a, b, strnlen(as_text(b), strnlen(as_text(a), wanted)));
    if (same < wanted) return to_lower(a[same]) - to_lower(b[same]);
    a += same;
    b += same;
    limit -= same;
  }
  return 0;
}

// Most comparisons end before this, and are quickest without asking for the texts' ends.
constexpr size_t kSingly = 16;

// Compares texts of which no more than `limit` bytes are looked at.
int compare_ignoring_case(const uint8_t* a, const uint8_t* b, size_t limit) {
  int difference = 0;
  const auto ends_at = [&](size_t i) {
    if (a[i] == b[i]) [[likely]]
      return a[i] == '\0';
    difference = to_lower(a[i]) - to_lower(b[i]);
    return difference != 0;
  };
  if (limit < kSingly) {
    size_t i = 0;
    while (i < limit && !ends_at(i)) ++i;
    return difference;
  }
#pragma GCC unroll 16
  for (size_t i = 0; i < kSingly; ++i) {
    if (ends_at(i)) return difference;
  }
  return compare_long(a + kSingly, b + kSingly, limit - kSingly);
}

bool is_line_end(char c) { return c == '\0' || c == '\n' || c == '\r'; }

// The first match that a line end belongs to.
const char* find_across(const char* text, const char* line_end, const char* pattern, size_t size) {
  if (std::strchr(pattern, *line_end) == nullptr) return nullptr;
  const size_t before = std::min(static_cast<size_t>(line_end - text), size - 1);
  for (const char* at = line_end - before; at <= line_end; ++at) {
    if (std::strncmp(at, pattern, size) == 0) return at;
  }
  return nullptr;
}

// The first match that begins on the first line of a text, its end included. The pattern has `size` bytes,
// at least one; its last two are looked for, because of a key the last characters are rarer than the first.
const char* find_in_line(const char* text, const char* pattern, size_t size) {
  const size_t gap = size > 1, head = size - 1 - gap;
  const uint8_t first = as_bytes(pattern)[head], last = as_bytes(pattern)[size - 1];
  size_t i = 0, readable = 0;
  for (size_t stretch = kFirstStretch;; stretch = kStretch) {
    const size_t more = strnlen(text + readable, stretch);
    readable += more;
    while ((i = find_pair_or_line_end(as_bytes(text), i, readable, first, last, gap)) < readable) {
      if (is_line_end(text[i])) return find_across(text, text + i, pattern, size);
      if (i >= head && std::memcmp(text + i - head, pattern, head) == 0) return text + i - head;
      ++i;
    }
    if (more < stretch) return nullptr;
  }
}

}  // namespace

char* QMXUtilStrntolower(char* s, int32_t n) {
  if (s != nullptr && n > 0) switch_case<'A'>(as_bytes(s), static_cast<size_t>(n));
  return s;
}

char* QMXUtilStrntoupper(char* s, int32_t n) {
  if (s != nullptr && n > 0) switch_case<'a'>(as_bytes(s), static_cast<size_t>(n));
  return s;
}

int QMXUtilStricmp(const char* a, const char* b) {
  return compare_ignoring_case(as_bytes(a), as_bytes(b), SIZE_MAX);
}

int QMXUtilStrnicmp(const char* a, const char* b, uint32_t n) {
  return compare_ignoring_case(as_bytes(a), as_bytes(b), n);
}

char* QMXUtilStrdupn(const char* src, uint32_t n) {
  if (src == nullptr || n == UINT32_MAX) return nullptr;
  auto copy = NEW_BLOCK(char, n + 1, QMX_FILL_NONE);
  if (copy == nullptr) return nullptr;
  const size_t length = strnlen(src, n);
  std::memcpy(copy.get(), src, length);
  std::memset(copy.get() + length, 0, n + size_t{1} - length);
  return copy.release();
}

char* QMXUtilStrdup(const char* src) {
  if (src == nullptr) return nullptr;
  const size_t size = std::strlen(src) + 1;
  if (size > UINT32_MAX) return nullptr;
  auto copy = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_NONE);
  if (copy == nullptr) return nullptr;
  std::memcpy(copy.get(), src, size);
  return copy.release();
}

char* QMXUtilStrmcat(const char* a, const char* b) {
  if (a == nullptr) return nullptr;
  const size_t a_length = std::strlen(a);
  const size_t b_length = b != nullptr ? std::strlen(b) : 0;
  const size_t size = a_length + b_length + 1;
  if (size > UINT32_MAX) return nullptr;
  auto joined = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_NONE);
  if (joined == nullptr) return nullptr;
  std::memcpy(joined.get(), a, a_length);
  if (b != nullptr) std::memcpy(joined.get() + a_length, b, b_length);
  joined.get()[size - 1] = '\0';
  return joined.release();
}

int QMXUtilStrIsDecNumber(const char* s) {
  if (s == nullptr) return 0;
  s += std::strspn(s, " ");
  return *s >= '0' && *s <= '9';
}

const char* QMXUtilStrFindString(const char* text, const char* pattern) {
  if (text == nullptr) return nullptr;
  const size_t size = pattern != nullptr ? std::strlen(pattern) : 0;
  return size == 0 ? text : find_in_line(text, pattern, size);
}

char* QMXUtilStrGetLine(char* text, uint32_t* len) {
  if (text == nullptr) return nullptr;
  char* const line = text + std::strspn(text, " ");
  char* end = line;
  for (;;) {
    end = strchrnul(end, '\n');
    if (*end == '\0') break;
    if (end[1] != ' ') {
      ++end;
      break;
    }
    if (end > text && end[-1] == '\r') end[-1] = ' ';
    *end = ' ';
  }
  *len = static_cast<uint32_t>(end - line);
  return end;
}

// ---- Keyed values

namespace {

// Classes of characters, one bit each.
using Class = uint8_t;
constexpr Class kLineEnd = 1 << 0;
constexpr Class kDecimal = 1 << 1;
constexpr Class kHexadecimal = 1 << 2;
constexpr Class kFraction = 1 << 3;
constexpr Class kClock = 1 << 4;
constexpr Class kWord = 1 << 5;
constexpr Class kSafe = 1 << 6;
constexpr Class kBase64List = 1 << 7;

constexpr std::array<Class, 256> kClasses = [] {
  std::array<Class, 256> classes = {};
  const auto add = [&classes](Class c, const char* members) {
    for (; *members != '\0'; ++members) classes[static_cast<uint8_t>(*members)] |= c;
  };
  classes['\0'] = kLineEnd;
  add(kLineEnd, "\n\r");
  add(kDecimal | kHexadecimal | kFraction | kClock | kWord | kSafe | kBase64List, "0123456789");
  add(kHexadecimal, "ABCDEFabcdef");
  for (char c = 'a'; c <= 'z'; ++c) {
    const char both[] = {c, static_cast<char>(c - kCaseBit), '\0'};
    add(kWord | kSafe | kBase64List, both);
  }
  add(kFraction, ".");
  add(kClock, ":.");
  add(kWord, "-._");
  add(kSafe, "\"#$&'*+,-./:=?@[]^_`{|}~");
  add(kBase64List, "+,/=");
  return classes;
}();

bool is_in(char c, Class classes) { return (kClasses[static_cast<uint8_t>(c)] & classes) != 0; }

// The first character of the class, null when the line ends before.
const char* find_in_line(const char* text, Class wanted) {
  while (!is_in(*text, wanted | kLineEnd)) ++text;
  return is_in(*text, wanted) ? text : nullptr;
}

const char* end_of_run(const char* text, Class members) {
  while (is_in(*text, members)) ++text;
  return text;
}

// Where the value of a key may begin: after the key on the first line, or at the start without a key.
const char* after_key(const char* text, const char* key) {
  if (text == nullptr || key == nullptr) return text;
  const char* const at = QMXUtilStrFindString(text, key);
  return at != nullptr ? at + std::strlen(key) : nullptr;
}

// Takes a run of digits and converts it; of a run longer than 23 characters, which is no 32-bit number, the
// first 23.
template <class Number>
const char* convert_run(const char* run, Class members, Number (*convert)(const char*), Number& value) {
  const char* const end = end_of_run(run, members);
  char copy[24];
  const size_t length = std::min(static_cast<size_t>(end - run), sizeof copy - 1);
  std::memcpy(copy, run, length);
  copy[length] = '\0';
  value = convert(copy);
  return end;
}

template <class Number>
const char* get_number(const char* text, const char* key, Class members, Number (*convert)(const char*),
                       Number* out) {
  const char* const from = after_key(text, key);
  const char* const start = from != nullptr ? find_in_line(from, members) : nullptr;
  if (start == nullptr) return nullptr;
  Number value;
  const char* const end = convert_run(start, members, convert, value);
  if (out != nullptr) *out = value;
  return end;
}

const char* get_token(const char* text, Class members, const char** start, uint32_t* len) {
  const char* const token = text != nullptr ? find_in_line(text, members) : nullptr;
  if (token == nullptr) return nullptr;
  const char* const end = end_of_run(token, members);
  *start = token;
  *len = static_cast<uint32_t>(end - token);
  return end;
}

}  // namespace

const char* QMXUtilStrGetDecNumber(const char* text, const char* key, int32_t* out) {
  return get_number(text, key, kDecimal, QMX_ATOI, out);
}

const char* QMXUtilStrGetIntNumber(const char* text, const char* key, int32_t* out) {
  const char* start = after_key(text, key);
  if (start == nullptr) return nullptr;
  while (*start != '-' && !is_in(*start, kDecimal | kLineEnd)) ++start;
  if (is_in(*start, kLineEnd)) return nullptr;
  const bool negative = *start == '-';
  int32_t value;
  const char* const end = convert_run(start + negative, kDecimal, QMX_ATOI, value);
  if (negative) value = static_cast<int32_t>(0 - static_cast<uint32_t>(value));
  if (out != nullptr) *out = value;
  return end;
}

const char* QMXUtilStrGetHexNumber(const char* text, const char* key, uint32_t* out) {
  return get_number(text, key, kHexadecimal, QMX_ATOI_HEX, out);
}

const char* QMXUtilStrGetFloatNumber(const char* text, const char* key, int32_t* out) {
  return get_number(text, key, kFraction, QMX_ATOI_MS, out);
}

const char* QMXUtilStrGetTimeNumber(const char* text, const char* key, int32_t* out) {
  return get_number(text, key, kClock, QMX_ATOI_TS, out);
}

const char* QMXUtilStrGetString(const char* text, const char** start, uint32_t* len) {
  return get_token(text, kWord, start, len);
}

const char* QMXUtilStrGetHexString(const char* text, const char** start, uint32_t* len) {
  return get_token(text, kHexadecimal, start, len);
}

const char* QMXUtilStrGetAddress(const char* text, const char** start, uint32_t* len) {
  const char* const after_scheme = after_key(text, "://");
  return get_token(after_scheme != nullptr ? after_scheme : text, kWord, start, len);
}

const char* QMXUtilStrGetSafeString(const char* text, const char** start, uint32_t* len) {
  return get_token(text, kSafe, start, len);
}

const char* QMXUtilStrGetContext(const char* text, const char** start, uint32_t* len) {
  if (text == nullptr) return nullptr;
  *start = text + std::strspn(text, " ");
  const char* const end = strchrnul(*start, '\r');
  *len = static_cast<uint32_t>(end - *start);
  return end;
}

// ---- Hexadecimal text and start codes

namespace {

void move_cursor(const uint8_t** buf, uint32_t* len, size_t by) {
  *buf += by;
  *len -= static_cast<uint32_t>(by);
}

}  // namespace

uint32_t QMXUtil_ConvStrToBin(char* text, uint32_t len, uint8_t* out) {
  uint8_t* const digits = as_bytes(text);
  switch_case<'A'>(digits, len);  // what QMXUtilStrntolower() does, for any length
  digits_to_bytes(digits, len / 2, out);
  return len / 2;
}

char* QMXUtil_ConvBinToStr(const uint8_t* bin, uint32_t len) {
  const uint64_t size = uint64_t{len} * 2 + 1;
  if (size > UINT32_MAX) return nullptr;
  auto text = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_NONE);
  if (text == nullptr) return nullptr;
  bytes_to_digits(bin, len, as_bytes(text.get()));
  text.get()[size - 1] = '\0';
  return text.release();
}

int QMXUtil_FindStartCode(const uint8_t** buf, uint32_t* len, uint32_t* code) {
  if (*len <= kStartCodeSize) return 0;
  const size_t prefixes_end = *len - 2;  // a prefix that ends here has its code byte and one more after it
  const size_t at = find_start_code_prefix(*buf, 0, prefixes_end);
  if (at == prefixes_end) {
    move_cursor(buf, len, *len - kStartCodeSize);
    return 0;
  }
  move_cursor(buf, len, at);
  *code = 0x100u + (*buf)[3];
  return 1;
}

int QMXUtil_FindStartCode2(const uint8_t** buf, uint32_t* len, uint32_t code) {
  if (*len <= kStartCodeSize) return 0;
  uint8_t wanted[kStartCodeSize];
  store_be32(wanted, code);
  const size_t codes_end = *len - 1;
  const size_t at = find_bytes(*buf, 0, codes_end, wanted, sizeof wanted);
  const bool found = at != codes_end;
  move_cursor(buf, len, found ? at : *len - kStartCodeSize);
  return found;
}

// ---- Base64 (RFC 4648, section 4)

namespace {

// Only characters of the alphabet and '=', which counts 0, are looked up.
constexpr std::array<int32_t, 128> base64_decode = [] {
  std::array<int32_t, 128> values = {};
  for (int32_t v = 0; v < 64; ++v) values[static_cast<uint8_t>(base64_encode[v])] = v;
  return values;
}();

// The last one or two bytes: the bits that are missing are zero.
void encode_rest(const uint8_t* data, size_t count, char* out) {
  const uint32_t bits = uint32_t{data[0]} << 16 | (count > 1 ? uint32_t{data[1]} << 8 : 0);
  out[0] = base64_encode[bits >> 18];
  out[1] = base64_encode[bits >> 12 & 63];
  out[2] = count > 1 ? base64_encode[bits >> 6 & 63] : '=';
  out[3] = '=';
}

bool counts(uint8_t c) { return c == '=' || kSixBits[c] != kOutside; }

// Reads on until four characters that count are there; false when the text ends before.
bool gather_group(const uint8_t*& in, const uint8_t* end, uint8_t (&group)[4]) {
  for (size_t have = 0; have < 4;) {
    if (in == end) return false;
    const uint8_t c = *in++;
    if (counts(c)) group[have++] = c;
  }
  return true;
}

// Writes the bytes of a group in which '=' may stand; returns how many. Fewer than three end the decoding.
size_t decode_group(const uint8_t (&group)[4], uint8_t* out) {
  const int32_t v[] = {base64_decode[group[0]], base64_decode[group[1]], base64_decode[group[2]],
                       base64_decode[group[3]]};
  if (group[0] == '=') return 0;
  out[0] = static_cast<uint8_t>((v[0] << 2) + (v[1] >> 4));
  if (group[2] == '=') return 1;
  out[1] = static_cast<uint8_t>((v[1] << 4) + (v[2] >> 2));
  if (group[3] == '=') return 2;
  out[2] = static_cast<uint8_t>((v[2] << 6) + v[3]);
  return 3;
}

bool ends_segment(char c) { return is_line_end(c) || c == ',' || c == '='; }

}  // namespace

char* QMXUtilBase64Encoding(const uint8_t* data, int32_t len, uint32_t* outlen) {
  if (len < 0) return nullptr;
  const size_t count = static_cast<size_t>(len), groups = count / 3, rest = count % 3;
  const size_t room = (count + 2) * 4 / 3 + 2, length = (groups + (rest > 0)) * 4;
  auto text = NEW_BLOCK(char, static_cast<uint32_t>(room), QMX_FILL_ZERO);
  if (text == nullptr) return nullptr;
  encode_groups(data, groups, text.get());
  if (rest > 0) encode_rest(data + 3 * groups, rest, text.get() + 4 * groups);
  *outlen = static_cast<uint32_t>(length);
  return text.release();
}

const char* QMXUtilBase64Decoding(const char* text, uint8_t* out, uint32_t len, uint32_t* outlen) {
  const uint8_t* in = as_bytes(text);
  const uint8_t* const end = in + len;
  uint8_t* write = out;
  while (end - in >= 4) {
    if (*in == ',' && in != as_bytes(text)) break;
    while (in != end && !counts(*in)) ++in;
    const size_t groups = decode_groups(in, static_cast<size_t>(end - in) / 4, write);
    in += 4 * groups;
    write += 3 * groups;
    if (groups > 0 && (end - in < 4 || !counts(*in))) continue;
    uint8_t group[4];
    if (!gather_group(in, end, group)) break;
    const size_t written = decode_group(group, write);
    write += written;
    if (written < 3) break;
  }
  *outlen = static_cast<uint32_t>(write - out);
  return as_text(in);
}

const char* QMXUtilBase64GetString(const char* text, const char** start, uint32_t* len) {
  return get_token(text, kBase64List, start, len);
}

uint8_t* QMXUtilBase64ConvToBin(const char* text, uint32_t len, uint32_t* outlen) {
  if (text == nullptr) return nullptr;
  auto bin = NEW_BLOCK(uint8_t, len, QMX_FILL_NONE);
  if (bin == nullptr) return nullptr;
  QMXUtilBase64Decoding(text, bin.get(), len, outlen);
  return bin.release();
}

uint32_t QMXUtilBase64ConvToBinWLen(const char* text, uint32_t len, uint8_t* out) {
  const char* const end = text + len;
  uint8_t* write = out;
  while (text != end) {
    uint32_t size;
    const char* next = QMXUtilBase64Decoding(text, write + 2, static_cast<uint32_t>(end - text), &size);
    while (next != end && !ends_segment(*next)) ++next;
    if (next == text) break;  // a rest of fewer than four characters
    text = next;
    write[0] = static_cast<uint8_t>(size);
    write[1] = static_cast<uint8_t>(size >> 8);
    write += 2 + size_t{size};
  }
  return static_cast<uint32_t>(write - out);
}
