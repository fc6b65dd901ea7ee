// Reading of header fields, in the manner of the standards' syntax tables.
#pragma once

#include "handles.h"
#include "qmxutil_video.h"

namespace qmxutil {

// A handle at the first bit of the bytes; null when the base library has none to give.
inline BitHandle open_bits(const uint8_t* data, uint32_t length) {
  BitHandle handle(QMXBitOpen(data, length));
  if (handle != nullptr) QMXBitByteAlign(handle.get());
  return handle;
}

// Fields from where an open handle stands. What lies past the end of the bytes is the base library's to
// answer.
class BitReader {
 public:
  explicit BitReader(QMXBit* handle) : handle_(handle) {}

  uint32_t u(uint32_t n) { return QMXBitGetBit(handle_, n); }  // n up to 32
  uint8_t u8(uint32_t n) { return static_cast<uint8_t>(u(n)); }
  bool flag() { return u(1) != 0; }
  void marker() { u(1); }  // marker_bit

  // ue(v). Both give the same for every code of the standards, of 63 bits at most. What a damaged header has
  // in its place differs: ue() takes 31 zeros for its length and goes on, ue_by_bit() passes over all of its
  // zeros and gives 0. H.264 is read with the first, which is faster, H.265 with the second.
  uint32_t ue() { return vlc_Golomb(handle_); }
  uint32_t ue_by_bit() { return UtilGetUE(handle_); }

  int32_t se() {
    const uint32_t code = ue();
    const int32_t magnitude = static_cast<int32_t>(code / 2 + code % 2);
    return code % 2 != 0 ? magnitude : -magnitude;
  }

  void skip(uint32_t n) {
    for (; n > 32; n -= 32) u(32);
    u(n);
  }

 private:
  QMXBit* handle_;
};

}  // namespace qmxutil
