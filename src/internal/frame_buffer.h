// Frames read from a file into a caller's buffer.
#pragma once

#include <algorithm>
#include <cstdio>
#include <optional>

#include "qmx_file.h"
#include "start_code.h"

namespace qmxutil {

// The caller's buffer and what the file put into it. A frame's room ends one byte short of the buffer; a
// frame that reaches this end does not fit. All results are those of a reader that takes one byte at a time
// and stops as soon as it can tell: what was read beyond that is given back.
class FrameBuffer {
 public:
  FrameBuffer(FILE* file, uint8_t* buffer, uint32_t size) : file_(file), buffer_(buffer), room_(size - 1) {}

  // Position of the next NAL unit header after the last one; none when the data or the room ends before that.
  std::optional<size_t> next_header() {
    for (;;) {
      const size_t prefix = find_start_code_prefix(buffer_, scanned_, filled_);
      if (filled_ - prefix > kStartCodePrefixSize) {
        scanned_ = prefix + kStartCodePrefixSize;
        return scanned_;
      }
      if (filled_ >= kStartCodePrefixSize) {
        scanned_ = std::max(scanned_, std::min(prefix, filled_ - (kStartCodePrefixSize - 1)));
      }
      if (!read_more()) return std::nullopt;
    }
  }

  // Whether a slice's header and the byte after it still leave room.
  bool has_room_for_slice(size_t header) const { return header + 2 < room_; }

  bool has(size_t position) {
    while (filled_ <= position) {
      if (!read_more()) return false;
    }
    return true;
  }

  // The frame ends before the start code of this NAL unit header.
  uint32_t end_before(size_t header) {
    size_t start_code = header - kStartCodePrefixSize;
    if (buffer_[start_code - 1] == 0) --start_code;
    give_back_from(start_code);
    return static_cast<uint32_t>(start_code);
  }

  // The frame does not fit: the file is left after the byte at which that showed.
  uint32_t give_up_after(size_t position) {
    give_back_from(position + 1);
    return 0;
  }

  // There is no further NAL unit: what is left is the last frame, unless it fills the room.
  uint32_t end_of_data() const { return filled_ < room_ ? static_cast<uint32_t>(filled_) : 0; }

 private:
  static constexpr size_t kFirstBlock = 1024;
  static constexpr size_t kUsualBlock = 8192;

  // The block grows with the frame: a small frame is not read many times over, and a large one not in many
  // pieces, yet little of what is read is given back.
  bool read_more() {
    const size_t block = std::max({kFirstBlock, std::min(filled_, kUsualBlock), filled_ / 4});
    const size_t wanted = std::min(room_ - filled_, block);
    if (wanted == 0) return false;
    const int64_t got = QMX_FileRead(file_, buffer_ + filled_, static_cast<int64_t>(wanted));
    if (got <= 0) return false;
    filled_ += static_cast<size_t>(got);
    return true;
  }

  void give_back_from(size_t position) {
    if (position < filled_) QMX_FileSeek(file_, -static_cast<int64_t>(filled_ - position), SEEK_CUR);
  }

  FILE* file_;
  uint8_t* buffer_;
  size_t room_;
  size_t filled_ = 0;
  size_t scanned_ = 0;  // no prefix begins before this, but for those already found
};

}  // namespace qmxutil
