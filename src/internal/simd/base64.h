// Base64 (RFC 4648, section 4): whole groups, of three bytes and of four characters of the alphabet.
#pragma once

#include <array>

#include "bytes16.h"

namespace qmxutil {

constexpr char base64_encode[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr uint8_t kOutside = 0x80;  // the value of a character that is not of the alphabet
constexpr std::array<uint8_t, 256> kSixBits = [] {
  std::array<uint8_t, 256> values = {};
  values.fill(kOutside);
  for (uint8_t v = 0; v < 64; ++v) values[static_cast<uint8_t>(base64_encode[v])] = v;
  return values;
}();

namespace plain {

inline void encode_groups(const uint8_t* data, size_t groups, char* out) {
  for (; groups > 0; --groups, data += 3, out += 4) {
    out[0] = base64_encode[data[0] >> 2];
    out[1] = base64_encode[(data[0] & 3) << 4 | data[1] >> 4];
    out[2] = base64_encode[(data[1] & 15) << 2 | data[2] >> 6];
    out[3] = base64_encode[data[2] & 63];
  }
}

// Decodes up to the first group in which a character is not of the alphabet; returns how many groups that
// is.
inline size_t decode_groups(const uint8_t* text, size_t groups, uint8_t* out) {
  size_t i = 0;
  for (; i < groups; ++i, text += 4, out += 3) {
    const unsigned a = kSixBits[text[0]], b = kSixBits[text[1]], c = kSixBits[text[2]], d = kSixBits[text[3]];
    if (((a | b | c | d) & kOutside) != 0) break;
    out[0] = static_cast<uint8_t>(a << 2 | b >> 4);
    out[1] = static_cast<uint8_t>(b << 4 | c >> 2);
    out[2] = static_cast<uint8_t>(c << 6 | d);
  }
  return i;
}

}  // namespace plain

#if defined(QMX_NEON)

// Sixteen groups at a time, each byte of a group in a vector of its own. A table in four registers has 64
// entries; an index beyond them is left as it was, which for a character of 128 and above is outside, too.

inline void encode_16_groups(const uint8_t* data, char* out, const uint8x16x4_t& alphabet) {
  const uint8x16x3_t in = vld3q_u8(data);
  const uint8x16_t six_bits = vdupq_n_u8(63);
  uint8x16x4_t text;
  text.val[0] = vqtbl4q_u8(alphabet, vshrq_n_u8(in.val[0], 2));
  text.val[1] = vqtbl4q_u8(alphabet, vsliq_n_u8(vshrq_n_u8(in.val[1], 4), in.val[0], 4) & six_bits);
  text.val[2] = vqtbl4q_u8(alphabet, vsliq_n_u8(vshrq_n_u8(in.val[2], 6), in.val[1], 2) & six_bits);
  text.val[3] = vqtbl4q_u8(alphabet, in.val[2] & six_bits);
  vst4q_u8(reinterpret_cast<uint8_t*>(out), text);
}

inline void encode_groups(const uint8_t* data, size_t groups, char* out) {
  if (groups < 16) return plain::encode_groups(data, groups, out);
  const uint8x16x4_t alphabet = vld1q_u8_x4(reinterpret_cast<const uint8_t*>(base64_encode));
  for (size_t i = 0; i < groups - 16; i += 16) encode_16_groups(data + 3 * i, out + 4 * i, alphabet);
  const size_t last = groups - 16;  // some groups for the second time
  encode_16_groups(data + 3 * last, out + 4 * last, alphabet);
}

inline size_t decode_groups(const uint8_t* text, size_t groups, uint8_t* out) {
  if (groups < 16) return plain::decode_groups(text, groups, out);
  const uint8x16x4_t low = vld1q_u8_x4(kSixBits.data()), high = vld1q_u8_x4(kSixBits.data() + 64);
  size_t i = 0;
  for (; groups - i >= 16; i += 16) {
    const uint8x16x4_t in = vld4q_u8(text + 4 * i);
    const auto six_bits = [&](uint8x16_t c) { return vqtbx4q_u8(vqtbx4q_u8(c, low, c), high, c - 64); };
    const uint8x16_t a = six_bits(in.val[0]), b = six_bits(in.val[1]), c = six_bits(in.val[2]),
                     d = six_bits(in.val[3]);
    if (vmaxvq_u8(a | b | c | d) >= kOutside) break;
    uint8x16x3_t bytes;
    bytes.val[0] = vsliq_n_u8(vshrq_n_u8(b, 4), a, 2);
    bytes.val[1] = vsliq_n_u8(vshrq_n_u8(c, 2), b, 4);
    bytes.val[2] = vsliq_n_u8(d, c, 6);
    vst3q_u8(out + 3 * i, bytes);
  }
  return i + plain::decode_groups(text + 4 * i, groups - i, out + 3 * i);
}

#elif defined(QMX_SSE2)

// SSE2 has no look-up of bytes; tables for more bits at a time are what pays here.

// The two characters for each twelve bits.
constexpr std::array<std::array<char, 2>, 4096> kCharacterPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs = {};
  for (size_t v = 0; v < pairs.size(); ++v) pairs[v] = {base64_encode[v / 64], base64_encode[v % 64]};
  return pairs;
}();

inline void encode_twelve_bits(uint64_t bits, char* out) {
  std::memcpy(out, kCharacterPairs[bits & 0xFFF].data(), 2);
}

inline void encode_groups(const uint8_t* data, size_t groups, char* out) {
  for (; groups >= 3; groups -= 2, data += 6, out += 8) {  // of eight bytes read, six are encoded
    uint64_t bits;
    std::memcpy(&bits, data, sizeof bits);
    bits = __builtin_bswap64(bits);
    encode_twelve_bits(bits >> 52, out);
    encode_twelve_bits(bits >> 40, out + 2);
    encode_twelve_bits(bits >> 28, out + 4);
    encode_twelve_bits(bits >> 16, out + 6);
  }
  plain::encode_groups(data, groups, out);
}

// For each of the four places in a group: the bits that a character there contributes to the group's three
// bytes, the first byte lowest; kOutsideGroup for a character that is not of the alphabet.
constexpr uint32_t kOutsideGroup = 1u << 31;
constexpr std::array<std::array<uint32_t, 256>, 4> kPlaces = [] {
  std::array<std::array<uint32_t, 256>, 4> places = {};
  for (auto& place : places) place.fill(kOutsideGroup);
  for (uint32_t v = 0; v < 64; ++v) {
    const uint8_t c = static_cast<uint8_t>(base64_encode[v]);
    places[0][c] = v << 2;
    places[1][c] = v >> 4 | (v & 15) << 12;
    places[2][c] = v >> 2 << 8 | (v & 3) << 22;
    places[3][c] = v << 16;
  }
  return places;
}();

inline uint32_t group_bytes(const uint8_t* text) {
  return kPlaces[0][text[0]] | kPlaces[1][text[1]] | kPlaces[2][text[2]] | kPlaces[3][text[3]];
}

inline size_t decode_groups(const uint8_t* text, size_t groups, uint8_t* out) {
  size_t i = 0;
  for (; groups - i >= 2; i += 2, text += 8, out += 6) {
    const uint32_t first = group_bytes(text), second = group_bytes(text + 4);
    if (((first | second) & kOutsideGroup) != 0) break;
    const uint32_t low = first | second << 24;
    const uint16_t high = static_cast<uint16_t>(second >> 8);
    std::memcpy(out, &low, 4);
    std::memcpy(out + 4, &high, 2);
  }
  return i + plain::decode_groups(text, groups - i, out);
}

#else
using plain::decode_groups;
using plain::encode_groups;
#endif

}  // namespace qmxutil
