// Text and bytes: numbers, string helpers, keyed values, hexadecimal text and start codes, Base64.
//
// Texts are bytes: characters are looked at unsigned, and only ASCII letters have a case. Nothing here reads
// past a text's NUL or past a count. Where a text ends is asked of strnlen() a stretch at a time, so that
// bulk work never runs far ahead of what a short answer needs.
#include "qmxutil_string.h"

#include <locale.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include "internal/handles.h"
#include "internal/simd/bytes16.h"
#include "internal/simd/find_bytes.h"
#include "internal/start_code.h"

using namespace qmxutil;

static_assert(std::endian::native == std::endian::little, "vectors and tables hold bytes in memory order");

namespace {

const uint8_t* as_bytes(const char* text) { return reinterpret_cast<const uint8_t*>(text); }
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
  if (s != nullptr) std::reverse(s, s + strlen(s));
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

constexpr uint8_t kCaseBit = 'a' - 'A';

// Switches the case of the letters from kFirst to kFirst + 25.
template <uint8_t kFirst>
constexpr uint8_t switch_case(uint8_t c) {
  return static_cast<uint8_t>(c - kFirst) < 26 ? c ^ kCaseBit : c;
}

template <uint8_t kFirst>
Bytes16 switch_case(Bytes16 c) {
  return c ^ (reinterpret_cast<Bytes16>(c - kFirst < 26) & kCaseBit);
}

template <uint8_t kFirst>
void switch_case(uint8_t* bytes, size_t count) {
  size_t i = 0;
  for (; count - i >= 16; i += 16) store16(bytes + i, switch_case<kFirst>(load16<Bytes16>(bytes + i)));
  for (; i < count; ++i) bytes[i] = switch_case<kFirst>(bytes[i]);
}

// The C locale, whose letters are those of ASCII; null until it is asked for.
constinit std::atomic<locale_t> c_locale = nullptr;

// The C library has it ready: asking cannot fail.
void ask_for_c_locale() { c_locale.store(newlocale(LC_ALL_MASK, "C", nullptr), std::memory_order_relaxed); }

[[gnu::noinline]] int first_stricmp(const char* a, const char* b) {
  ask_for_c_locale();
  return QMXUtilStricmp(a, b);
}

[[gnu::noinline]] int first_strnicmp(const char* a, const char* b, uint32_t n) {
  ask_for_c_locale();
  return QMXUtilStrnicmp(a, b, n);
}

// How many bytes, in 128s, are certainly before a line end: most characters are above CR.
size_t pass_over_text(const uint8_t* text, size_t count) {
  size_t i = 0;
  for (; count - i >= 128; i += 128) {
    Bytes16 least = load16<Bytes16>(text + i);
    for (size_t k = i + 16; k < i + 128; k += 16) {
      const Bytes16 bytes = load16<Bytes16>(text + k);
      least = bytes < least ? bytes : least;
    }
    if (qmxutil::any(reinterpret_cast<Bytes16>(least <= '\r'))) break;
  }
  return i;
}

// Bytes before the first NUL, LF or CR.
size_t first_line_length(const char* text) {
  size_t length = 0;
  for (size_t stretch = 120;; stretch = 1024) {  // most lines are short
    const size_t readable = strnlen(text + length, stretch);
    const size_t passed = pass_over_text(as_bytes(text + length), readable);
    const char* const from = text + length + passed;
    size_t count = readable - passed;
    for (const char line_end : {'\n', '\r'}) {
      if (const void* at = memchr(from, line_end, count)) {
        count = static_cast<size_t>(static_cast<const char*>(at) - from);
      }
    }
    length += passed + count;
    if (passed + count < stretch) return length;
  }
}

}  // namespace

char* QMXUtilStrntolower(char* s, int32_t n) {
  if (s != nullptr && n > 0) switch_case<'A'>(reinterpret_cast<uint8_t*>(s), static_cast<size_t>(n));
  return s;
}

char* QMXUtilStrntoupper(char* s, int32_t n) {
  if (s != nullptr && n > 0) switch_case<'a'>(reinterpret_cast<uint8_t*>(s), static_cast<size_t>(n));
  return s;
}

// POSIX promises only the sign of these results; glibc gives the difference of the folded bytes.
int QMXUtilStricmp(const char* a, const char* b) {
  const locale_t locale = c_locale.load(std::memory_order_relaxed);
  return locale != nullptr ? strcasecmp_l(a, b, locale) : first_stricmp(a, b);
}

int QMXUtilStrnicmp(const char* a, const char* b, uint32_t n) {
  const locale_t locale = c_locale.load(std::memory_order_relaxed);
  return locale != nullptr ? strncasecmp_l(a, b, n, locale) : first_strnicmp(a, b, n);
}

char* QMXUtilStrdupn(const char* src, uint32_t n) {
  if (src == nullptr || n == UINT32_MAX) return nullptr;
  auto copy = NEW_BLOCK(char, n + 1, QMX_FILL_NONE);
  if (copy == nullptr) return nullptr;
  const size_t length = strnlen(src, n);
  memcpy(copy.get(), src, length);
  memset(copy.get() + length, 0, n + size_t{1} - length);
  return copy.release();
}

char* QMXUtilStrdup(const char* src) {
  if (src == nullptr) return nullptr;
  const size_t size = strlen(src) + 1;
  if (size > UINT32_MAX) return nullptr;
  auto copy = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_NONE);
  if (copy == nullptr) return nullptr;
  memcpy(copy.get(), src, size);
  return copy.release();
}

char* QMXUtilStrmcat(const char* a, const char* b) {
  if (a == nullptr) return nullptr;
  const size_t a_length = strlen(a);
  const size_t b_length = b != nullptr ? strlen(b) : 0;
  const size_t size = a_length + b_length + 1;
  if (size > UINT32_MAX) return nullptr;
  auto joined = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_NONE);
  if (joined == nullptr) return nullptr;
  memcpy(joined.get(), a, a_length);
  if (b != nullptr) memcpy(joined.get() + a_length, b, b_length);
  joined.get()[size - 1] = '\0';
  return joined.release();
}

int QMXUtilStrIsDecNumber(const char* s) {
  if (s == nullptr) return 0;
  s += strspn(s, " ");
  return *s >= '0' && *s <= '9';
}

const char* QMXUtilStrFindString(const char* text, const char* pattern) {
  if (text == nullptr) return nullptr;
  const size_t size = pattern != nullptr ? strlen(pattern) : 0;
  if (size == 0) return text;
  const size_t line = first_line_length(text);
  const size_t limit = line + strnlen(text + line, size);  // a match may begin at the line end
  if (size == 1) return static_cast<const char*>(memchr(text, *pattern, limit));
  const size_t at = find_bytes(as_bytes(text), 0, limit, as_bytes(pattern), size);
  return at < limit ? text + at : nullptr;
}

char* QMXUtilStrGetLine(char* text, uint32_t* len) {
  if (text == nullptr) return nullptr;
  char* const line = text + strspn(text, " ");
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
  return at != nullptr ? at + strlen(key) : nullptr;
}

// Takes a run of digits and converts its first 23 characters, which is more than 32 bits can tell apart.
template <class Number>
const char* convert_run(const char* run, Class members, Number (*convert)(const char*), Number& value) {
  const char* const end = end_of_run(run, members);
  char copy[24];
  const size_t length = std::min(static_cast<size_t>(end - run), sizeof copy - 1);
  memcpy(copy, run, length);
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
  *start = text + strspn(text, " ");
  const char* const end = strchrnul(*start, '\r');
  *len = static_cast<uint32_t>(end - *start);
  return end;
}

// ---- Hexadecimal text and start codes

namespace {

constexpr uint8_t kLetterGap = 'a' - '9' - 1;  // between the digits and the letters

// What a lower-case character counts, whether it is a hexadecimal digit or not.
uint8_t nibble_value(uint8_t c) {
  return static_cast<uint8_t>(c - '0' - (c >= 'a' && c <= 'f' ? kLetterGap : 0));
}

Bytes16 nibble_values(Bytes16 c) { return c - '0' - (reinterpret_cast<Bytes16>(c - 'a' < 6) & kLetterGap); }

char nibble_digit(int nibble) { return "0123456789abcdef"[nibble]; }

Bytes16 nibble_digits(Bytes16 nibbles) {
  return nibbles + '0' + (reinterpret_cast<Bytes16>(nibbles > 9) & kLetterGap);
}

// The byte that each two characters make, in the low half of each pair.
Bytes16 join_nibbles(Bytes16 text) {
  const Pairs16 pairs = reinterpret_cast<Pairs16>(nibble_values(text));
  return reinterpret_cast<Bytes16>((pairs << 4) + (pairs >> 8));
}

// A cursor search needs one byte more than a start code has, and leaves this many when it finds nothing.

void move_cursor(const uint8_t** buf, uint32_t* len, size_t by) {
  *buf += by;
  *len -= static_cast<uint32_t>(by);
}

}  // namespace

uint32_t QMXUtil_ConvStrToBin(char* text, uint32_t len, uint8_t* out) {
  uint8_t* const digits = reinterpret_cast<uint8_t*>(text);
  switch_case<'A'>(digits, len);  // what QMXUtilStrntolower() does, for any length
  const size_t count = len / 2;
  size_t i = 0;
  for (; count - i >= 16; i += 16) {
    const Bytes16 first = join_nibbles(load16<Bytes16>(digits + 2 * i));
    const Bytes16 second = join_nibbles(load16<Bytes16>(digits + 2 * i + 16));
    store16(out + i, __builtin_shufflevector(first, second, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26,
                                             28, 30));
  }
  for (; i < count; ++i) {
    out[i] = static_cast<uint8_t>(nibble_value(digits[2 * i]) * 16 + nibble_value(digits[2 * i + 1]));
  }
  return len / 2;
}

char* QMXUtil_ConvBinToStr(const uint8_t* bin, uint32_t len) {
  const uint64_t size = uint64_t{len} * 2 + 1;
  if (size > UINT32_MAX) return nullptr;
  auto text = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_NONE);
  if (text == nullptr) return nullptr;
  char* out = text.get();
  size_t i = 0;
  for (; len - i >= 16; i += 16, out += 32) {
    const Bytes16 bytes = load16<Bytes16>(bin + i);
    const Bytes16 high = nibble_digits(bytes >> 4);
    const Bytes16 low = nibble_digits(bytes & 15);
    store16(out, __builtin_shufflevector(high, low, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23));
    store16(out + 16,
            __builtin_shufflevector(high, low, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14, 30, 15, 31));
  }
  for (; i < len; ++i) {
    *out++ = nibble_digit(bin[i] >> 4);
    *out++ = nibble_digit(bin[i] & 15);
  }
  *out = '\0';
  return text.release();
}

int QMXUtil_FindStartCode(const uint8_t** buf, uint32_t* len, uint32_t* code) {
  if (*len <= kStartCodeSize) return 0;
  const size_t prefixes_end = *len - 2;  // a prefix that ends here has its code byte and one more after it
  const size_t at = find_start_code_prefix(*buf, 0, prefixes_end);
  const bool found = at != prefixes_end;
  move_cursor(buf, len, found ? at : *len - kStartCodeSize);
  if (found) *code = 0x100u + (*buf)[3];
  return found;
}

int QMXUtil_FindStartCode2(const uint8_t** buf, uint32_t* len, uint32_t code) {
  if (*len <= kStartCodeSize) return 0;
  const uint8_t wanted[kStartCodeSize] = {static_cast<uint8_t>(code >> 24), static_cast<uint8_t>(code >> 16),
                                          static_cast<uint8_t>(code >> 8), static_cast<uint8_t>(code)};
  const size_t codes_end = *len - 1;
  const size_t at = find_bytes(*buf, 0, codes_end, wanted, sizeof wanted);
  const bool found = at != codes_end;
  move_cursor(buf, len, found ? at : *len - kStartCodeSize);
  return found;
}

// ---- Base64 (RFC 4648, section 4)

namespace {

constexpr char base64_encode[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Only characters of the alphabet and '=', which counts 0, are looked up.
constexpr std::array<int32_t, 128> base64_decode = [] {
  std::array<int32_t, 128> values = {};
  for (int32_t v = 0; v < 64; ++v) values[static_cast<uint8_t>(base64_encode[v])] = v;
  return values;
}();

// The two characters for each twelve bits.
constexpr std::array<std::array<char, 2>, 4096> kCharacterPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs = {};
  for (size_t v = 0; v < pairs.size(); ++v) pairs[v] = {base64_encode[v / 64], base64_encode[v % 64]};
  return pairs;
}();

// For each of the four places in a group: the bits that a character there contributes to the group's three
// bytes, the first byte lowest; kOutside for a character that is not of the alphabet.
constexpr uint32_t kOutside = 1u << 31;
constexpr std::array<std::array<uint32_t, 256>, 4> kPlaces = [] {
  std::array<std::array<uint32_t, 256>, 4> places = {};
  for (auto& place : places) place.fill(kOutside);
  for (uint32_t v = 0; v < 64; ++v) {
    const uint8_t c = static_cast<uint8_t>(base64_encode[v]);
    places[0][c] = v << 2;
    places[1][c] = v >> 4 | (v & 15) << 12;
    places[2][c] = v >> 2 << 8 | (v & 3) << 22;
    places[3][c] = v << 16;
  }
  return places;
}();

void encode_twelve_bits(uint64_t bits, char* out) { memcpy(out, kCharacterPairs[bits & 0xFFF].data(), 2); }

// Encodes whole groups of three bytes; returns how many bytes that were.
size_t encode_groups(const uint8_t* data, size_t count, char* out) {
  size_t i = 0;
  for (; count - i >= 8; i += 6, out += 8) {  // of eight bytes read, six are encoded
    uint64_t bits;
    memcpy(&bits, data + i, sizeof bits);
    bits = __builtin_bswap64(bits);
    encode_twelve_bits(bits >> 52, out);
    encode_twelve_bits(bits >> 40, out + 2);
    encode_twelve_bits(bits >> 28, out + 4);
    encode_twelve_bits(bits >> 16, out + 6);
  }
  for (; count - i >= 3; i += 3, out += 4) {
    const uint32_t bits = uint32_t{data[i]} << 16 | uint32_t{data[i + 1]} << 8 | data[i + 2];
    encode_twelve_bits(bits >> 12, out);
    encode_twelve_bits(bits, out + 2);
  }
  return i;
}

// The last one or two bytes: the bits that are missing are zero.
void encode_rest(const uint8_t* data, size_t count, char* out) {
  const uint32_t bits = uint32_t{data[0]} << 16 | (count > 1 ? uint32_t{data[1]} << 8 : 0);
  encode_twelve_bits(bits >> 12, out);
  out[2] = count > 1 ? base64_encode[bits >> 6 & 63] : '=';
  out[3] = '=';
}

// The three bytes of four characters, with kOutside when one is not of the alphabet.
uint32_t group_bytes(const uint8_t* text) {
  return kPlaces[0][text[0]] | kPlaces[1][text[1]] | kPlaces[2][text[2]] | kPlaces[3][text[3]];
}

// Decodes groups for as long as nothing but characters of the alphabet comes; returns how many groups.
size_t decode_plain_groups(const uint8_t* text, size_t count, uint8_t* out) {
  size_t groups = 0;
  for (; count >= 8; count -= 8, text += 8, out += 6, groups += 2) {
    const uint32_t first = group_bytes(text);
    const uint32_t second = group_bytes(text + 4);
    if (((first | second) & kOutside) != 0) break;
    const uint32_t low = first | second << 24;
    const uint16_t high = static_cast<uint16_t>(second >> 8);
    memcpy(out, &low, 4);
    memcpy(out + 4, &high, 2);
  }
  for (; count >= 4; count -= 4, text += 4, out += 3, ++groups) {
    const uint32_t bytes = group_bytes(text);
    if ((bytes & kOutside) != 0) break;
    memcpy(out, &bytes, 3);
  }
  return groups;
}

bool counts(uint8_t c) { return c == '=' || kPlaces[0][c] != kOutside; }

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

bool ends_segment(char c) { return is_in(c, kLineEnd) || c == ',' || c == '='; }

}  // namespace

char* QMXUtilBase64Encoding(const uint8_t* data, int32_t len, uint32_t* outlen) {
  if (len < 0) return nullptr;
  const size_t count = static_cast<size_t>(len);
  auto text = NEW_BLOCK(char, static_cast<uint32_t>((count + 2) * 4 / 3 + 2), QMX_FILL_ZERO);
  if (text == nullptr) return nullptr;
  const size_t whole = encode_groups(data, count, text.get());
  size_t length = whole / 3 * 4;
  if (whole < count) {
    encode_rest(data + whole, count - whole, text.get() + length);
    length += 4;
  }
  *outlen = static_cast<uint32_t>(length);
  return text.release();
}

const char* QMXUtilBase64Decoding(const char* text, uint8_t* out, uint32_t len, uint32_t* outlen) {
  const uint8_t* in = as_bytes(text);
  const uint8_t* const end = in + len;
  uint8_t* write = out;
  for (bool after_group = false; end - in >= 4; after_group = true) {
    if (after_group && *in == ',') break;
    while (in != end && !counts(*in)) ++in;
    if (const size_t groups = decode_plain_groups(in, static_cast<size_t>(end - in), write)) {
      in += 4 * groups;
      write += 3 * groups;
      continue;
    }
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
