// The base library's readers and writers of bits and bytes, held against single bits and a text.
#include <algorithm>
#include <cstring>
#include <vector>

#include "basecheck.h"
#include "qmx_bits.h"
#include "qmx_bytes.h"
#include "qmxutil_video.h"

namespace basecheck {
namespace {

template <class Handle, auto release>
struct Owner {
  Handle* handle;
  ~Owner() { release(handle); }
};

struct Bits : Owner<QMXBit, QMXBitClose> {
  explicit Bits(const Guarded& bytes) : Owner{QMXBitOpen(bytes.data(), bytes.size())} {
    expect(handle != nullptr, "QMXBitOpen gives null");
  }
  uint32_t get(uint32_t n) { return QMXBitGetBit(handle, n); }
  uint32_t show(uint32_t n) { return QMXBitShow(handle, n); }
  uint32_t processed() { return QMXBitGetProcessed(handle); }
};

struct Bytes : Owner<QMXByte, QMXByte_Close> {
  explicit Bytes(const Guarded& bytes) : Owner{QMXByte_Open(bytes.data(), bytes.size())} {
    expect(handle != nullptr, "QMXByte_Open gives null");
  }
  int error = 0;
};

// ---- Bits

// Bits of a text, as a number; those after its end are 1s.
uint32_t bits_of(const std::string& text, uint64_t at, uint32_t n) {
  uint64_t value = 0;
  for (const uint64_t end = at + n; at < end; ++at) {
    const bool present = at / 8 < text.size();
    value = value << 1 | (present ? text[at / 8] >> (7 - at % 8) & 1 : 1);
  }
  return static_cast<uint32_t>(value);
}

void expect_reads(uint32_t beyond_end) {
  for (int round = 0; round < 500; ++round) {
    const std::string text = any_bytes(below(40));
    const Guarded bytes(text, round % 2 == 0);
    Bits in(bytes);
    uint64_t at = 0;
    for (;;) {
      const uint32_t n = below(33);
      if (at + n > text.size() * 8 + beyond_end) break;
      const uint32_t got = in.get(n), want = bits_of(text, at, n);
      expect(got == want, "%u bits at %u of %zu are 0x%X and not 0x%X", n, static_cast<uint32_t>(at),
             text.size() * 8, got, want);
      at += n;
    }
  }
}

void bits_in_order() { expect_reads(0); }
void missing_bits() {
  expect_reads(400);
  QMXBit* const none = QMXBitOpen(nullptr, 0);
  expect(none != nullptr && QMXBitGetBit(none, 8) == 0xFF,
         "without a buffer there is no handle, or other bits");
}

void no_bits() {
  const Guarded bytes("\xA5");
  Bits in(bytes);
  in.get(3);
  expect(in.get(0) == 0 && in.show(0) == 0 && in.get(5) == 5, "0 bits are not 0, or consume something");
}

void bits_shown() {
  const std::string text = any_bytes(20);
  const Guarded bytes(text);
  Bits in(bytes);
  for (uint32_t at = 0; at + 32 < text.size() * 8; ++at) {
    const uint32_t n = 32 - at % 2 * below(32), got = in.show(n), want = bits_of(text, at, n);
    expect(got == want, "%u bits at %u are shown as 0x%X and not 0x%X", n, at, got, want);
    expect(in.get(1) == bits_of(text, at, 1), "after them the next bit is another");
  }
}

// Peeks at the end of a short header, and headers that are cut short, ask for more than there is.
void bits_outside() {
  for (uint32_t size = 0; size < 20; ++size) {
    for (const bool at_end : {true, false}) {
      const Guarded bytes(std::string(size, '\0'), at_end);
      Bits in(bytes);
      for (uint32_t i = 0; i < 200 + size * 8; ++i) {
        in.show(32);
        in.get(i % 7);
      }
    }
  }
}

void align_at_boundary() {
  const Guarded bytes("\x12\x34");
  Bits in(bytes);
  for (const uint32_t want : {0x12u, 0x34u}) {
    QMXBitByteAlign(in.handle);
    const uint32_t got = in.get(8);
    expect(got == want, "then 8 bits are 0x%X and not 0x%X", got, want);
  }
}

void align_elsewhere() {
  const Guarded bytes("\x12\x34");
  for (uint32_t n = 1; n < 8; ++n) {
    Bits in(bytes);
    in.get(n);
    QMXBitByteAlign(in.handle);
    const uint32_t got = in.get(8);
    expect(got == 0x34, "after %u bits and a move, 8 bits are 0x%X and not 0x34", n, got);
  }
}

// Puts numbers, and bytes at byte boundaries or anywhere, into room that was not clear.
void expect_puts(bool bytes_anywhere, bool overfill, bool rest_is_clear) {
  for (int round = 0; round < 500; ++round) {
    const Guarded bytes(std::string(below(40), '\xFF'));
    const uint64_t room = bytes.size() * 8u;
    std::vector<bool> model;
    Bits out(bytes);
    for (int step = 0; step < 40; ++step) {
      const bool whole = below(3) == 0 && (bytes_anywhere || model.size() % 8 == 0);
      const uint32_t n = whole ? 24 : below(32) + 1, value = any_word();
      if (!overfill && model.size() + n > room) break;
      const uint8_t three[] = {uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
      whole ? QMXBitPutByte(out.handle, 3, three) : QMXBitPutBit(out.handle, n, value);
      for (uint32_t i = n; i-- > 0 && model.size() < room;) model.push_back(value >> i & 1);
      expect(out.processed() == model.size(), "%u bits are counted of %zu", out.processed(), model.size());
    }
    if (overfill) {  // after the end as well
      out.get(32);
      QMXBitPutBit(out.handle, 8, 0);
      QMXBitPutByte(out.handle, 1, bytes.data());
    }
    for (size_t i = 0; i < model.size(); ++i) {
      expect((bytes.data()[i / 8] >> (7 - i % 8) & 1) == model[i], "bit %zu of %zu is another", i,
             model.size());
    }
    if (rest_is_clear && model.size() % 8 != 0) {
      const int last = bytes.data()[model.size() / 8] & (0xFF >> model.size() % 8);
      expect(last == 0, "after the last bit the byte holds 0x%02X", last);
    }
  }
}

void bits_put() { expect_puts(false, false, false); }
void bytes_put_anywhere() { expect_puts(true, false, false); }
void bits_that_do_not_fit() { expect_puts(true, true, false); }
void bits_after_the_last() { expect_puts(true, false, true); }

void bits_counted() {
  const Guarded bytes("text");
  Bits in(bytes);
  uint32_t at = 0;
  for (const uint32_t n : {0u, 3u, 5u, 1u, 17u}) {
    in.get(n);
    at += n;
    expect(in.processed() == at, "%u bits are counted of %u", in.processed(), at);
  }
}

// libqmxutil's two readers of them: bit by bit, and from 32 bits that are shown.
void golomb_codes() {
  std::vector<uint32_t> values;
  for (uint32_t bit = 0; bit < 32; ++bit)
    values.insert(values.end(), {(1u << bit) - 1, (1u << bit) + bit / 2});
  const Guarded bytes(std::string(600, '\0'));
  Bits out(bytes);
  for (const uint32_t value : values) {
    const auto length = static_cast<uint32_t>(32 - __builtin_clz(value + 1));
    if (length > 1) QMXBitPutBit(out.handle, length - 1, 0);
    QMXBitPutBit(out.handle, length, value + 1);
  }
  for (const auto& [name, read] : {std::pair{"UtilGetUE", &UtilGetUE}, {"vlc_Golomb", &vlc_Golomb}}) {
    Bits in(bytes);
    for (const uint32_t want : values) {
      const uint32_t got = read(in.handle);
      expect(got == want, "%s reads %u and not %u", name, got, want);
    }
  }
}

// ---- Bytes

// Any run of reads of a text that zeros follow, as far as `limit`.
void expect_bytes(uint64_t beyond_end, bool tell_missing) {
  for (int round = 0; round < 300; ++round) {
    const std::string text = any_bytes(below(30));
    const Guarded bytes(text, round % 2 == 0), room(std::string(8, '#'));
    const auto at = [&](uint64_t i) { return i < text.size() ? uint8_t(text[i]) : 0u; };
    Bytes in(bytes);
    for (uint64_t p = 0;;) {
      const uint32_t n = below(9), kind = below(6);
      const uint32_t skipped = beyond_end > 0 && below(20) == 0 ? UINT32_MAX : n;
      const uint64_t sizes[] = {1, 2, 2, 4, n, skipped};
      if (p + sizes[kind] > text.size() + beyond_end) break;
      const uint32_t be16 = at(p) << 8 | at(p + 1), le16 = at(p + 1) << 8 | at(p);
      const uint32_t wanted[] = {at(p), be16, le16, at(p + 3) << 24 | at(p + 2) << 16 | le16, 0, 0};
      uint8_t* const copy = room.data() + room.size() - n;
      uint32_t got = 0;
      switch (kind) {
        case 0:
          got = QMXByte_Get_char(in.handle, &in.error);
          break;
        case 1:
          got = QMXByte_Get_be_int16(in.handle, &in.error);
          break;
        case 2:
          got = QMXByte_Get_le_int16(in.handle, &in.error);
          break;
        case 3:
          got = QMXByte_Get_le_int32(in.handle, &in.error);
          break;
        case 4:
          std::memset(room.data(), '#', room.size());
          QMXByte_Get_string(in.handle, copy, n, &in.error);
          break;
        default:
          QMXByte_Skip(in.handle, skipped, &in.error);
      }
      static const char* const kNames[] = {"char", "be_int16", "le_int16", "le_int32", "string", "skip"};
      expect(got == wanted[kind], "%s at %u of %zu gives 0x%X and not 0x%X", kNames[kind],
             static_cast<uint32_t>(p), text.size(), got, wanted[kind]);
      for (uint32_t i = 0; kind == 4 && i < n; ++i) {
        expect(copy[i] == at(p + i), "byte %u of a string at %u is another", i, static_cast<uint32_t>(p));
      }
      p += sizes[kind];
      expect(!tell_missing || (in.error != 0) == (p > text.size()), "error is %d after byte %u of %zu",
             in.error, static_cast<uint32_t>(p), text.size());
    }
  }
}

void bytes_in_order() { expect_bytes(0, false); }
void missing_bytes() {
  int error = 0;
  expect_bytes(UINT64_C(2) << 32, false);
  QMXByte* const none = QMXByte_Open(nullptr, 0);
  expect(none != nullptr && QMXByte_Get_char(none, &error) == 0, "without a buffer there is no handle");
}
void missing_bytes_told() { expect_bytes(20, true); }

void bytes_outside() {
  for (uint32_t size = 0; size < 10; ++size) {
    for (const bool at_end : {true, false}) {
      const Guarded bytes(std::string(size, '\0'), at_end), copy(std::string(7, '#'));
      Bytes in(bytes);
      for (int i = 0; i < 5; ++i) {
        QMXByte_Get_char(in.handle, &in.error);
        QMXByte_Get_be_int16(in.handle, &in.error);
        QMXByte_Get_le_int16(in.handle, &in.error);
        QMXByte_Get_le_int32(in.handle, &in.error);
        QMXByte_Get_string(in.handle, copy.data(), copy.size(), &in.error);
        QMXByte_Skip(in.handle, 3, &in.error);
      }
    }
  }
}

const Check kChecks[] = {
    {"bits", "up to 32 bits, the most significant first", true, "headers of video streams are misread",
     bits_in_order},
    {"bits", "0 bits are 0 and consume nothing", true, "headers of video streams are misread", no_bits},
    {"bits", "QMXBitShow() consumes nothing, anywhere in a byte", true,
     "headers of H.264 and H.265 streams are misread", bits_shown},
    {"bits", "Exp-Golomb codes of up to 31 zeros are read", true,
     "headers of H.264 and H.265 streams are misread", golomb_codes},
    {"bits", "nothing outside the buffer is read", true, "short headers end the process", bits_outside},
    {"bits", "missing bits are 1s", false,
     "headers cut short give other values; UtilGetUE counts 524,280 zeros first", missing_bits},
    {"bits", "QMXBitByteAlign() at a byte boundary does nothing", true, "headers lose their first byte",
     align_at_boundary},
    {"bits", "QMXBitByteAlign() elsewhere moves to the next one", false, nullptr, align_elsewhere},
    {"bits", "bits and whole bytes are put in order and counted", true, "UtilSetMPEG4Info writes rubbish",
     bits_put},
    {"bits", "bytes are put at any bit", false, nullptr, bytes_put_anywhere},
    {"bits", "what does not fit is dropped", false, nullptr, bits_that_do_not_fit},
    {"bits", "the rest of the last byte is clear", false, nullptr, bits_after_the_last},
    {"bits", "bits that were read are counted", false, nullptr, bits_counted},
    {"bytes", "numbers in both orders, strings and skips", true, "H.265 decoder configuration is misread",
     bytes_in_order},
    {"bytes", "nothing outside the buffer is touched", true, "short records end the process", bytes_outside},
    {"bytes", "missing bytes are 0, in strings too", false, nullptr, missing_bytes},
    {"bytes", "error tells that bytes are missing", false, nullptr, missing_bytes_told},
};

}  // namespace

std::span<const Check> bit_checks() { return kChecks; }

}  // namespace basecheck
