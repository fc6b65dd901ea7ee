// Media file reader: ISO base media files and AVI files. docs/recordings.md says what it looks for in them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "container.h"
#include "qmx_reader.h"

namespace qmxbase {

bool Source::read_block(uint64_t offset, uint8_t* to, uint64_t count) const {
  if (offset > size || count > size - offset) return false;
  while (count > 0) {
    const ssize_t got = pread(fd, to, count, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;  // the file has been cut since it was opened
    to += got;
    offset += static_cast<uint64_t>(got);
    count -= static_cast<uint64_t>(got);
  }
  return true;
}

void Source::begin_operation() {
  work_left = std::min(kWorkOfSmallFile + size / 2, kMostWork);
  gave_up = false;
}

bool Source::work(uint64_t amount) {
  gave_up = gave_up || work_left < amount;
  if (!gave_up) work_left -= amount;
  return !gave_up;
}

bool Source::read(uint64_t offset, uint8_t* to, uint32_t count) {
  if (offset > size || count > size - offset || !work(1)) return false;
  if (offset < window_start || offset - window_start + count > window_length) {
    if (!work(kWorkOfFilling)) return false;
    window_start = offset;
    window_length = static_cast<uint32_t>(std::min<uint64_t>(size - offset, sizeof window));
    if (!read_block(offset, window, window_length)) {
      window_length = 0;
      return false;
    }
  }
  std::memcpy(to, window + (offset - window_start), count);
  return true;
}

bool Table::take(Source& in, uint8_t* to, uint32_t entry_size) {
  if (count == 0 || !in.read(begin, to, entry_size)) return false;
  begin += entry_size;
  --count;
  return true;
}

void read_metadata(Source& in, uint64_t offset, uint64_t size, QMXReaderInfo& info) {
  uint8_t bytes[4];
  if (offset > UINT32_MAX) return;  // the record has no room to say where it is
  const bool is_byte = size == 1 && info.containerType == kAvi;
  if (!is_byte && size != 2 && size != 4) return;  // an update would write over what follows
  if (!in.read(offset, bytes, static_cast<uint32_t>(size))) return;
  info.metaPresent = 1;
  info.metaOffset = static_cast<uint32_t>(offset);
  info.metaValue = size == 4 ? be32(bytes) : size == 2 ? uint32_t{bytes[1]} << 8 | bytes[0] : bytes[0];
}

uint64_t narrow(Wide value) { return value > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(value); }

uint64_t scaled(uint64_t value, uint64_t numerator, uint32_t denominator) {
  return narrow(static_cast<Wide>(value) * numerator / denominator);
}

uint32_t to_32_bits(uint64_t value) { return static_cast<uint32_t>(std::min<uint64_t>(value, UINT32_MAX)); }

}  // namespace qmxbase

using namespace qmxbase;  // the functions below are its face

struct QMXReader {
  Source source;
  QMXReaderInfo info;
  IsoTrack iso;
  AviStream avi;
};

namespace {

bool open_container(QMXReader& reader) {
  Source& in = reader.source;
  uint8_t start[12];
  in.begin_operation();
  const bool is_avi =
      in.read(0, start, sizeof start) && be32(start) == fourcc("RIFF") && be32(start + 8) == fourcc("AVI ");
  reader.info.containerType = is_avi ? kAvi : kIso;
  const bool opened = is_avi ? reader.avi.open(in, reader.info) : reader.iso.open(in, reader.info);
  reader.info.userDataPresent = reader.info.userDataCount > 0;
  return opened && !in.gave_up;
}

}  // namespace

int QMXReaderOpen(QMXReader** out, QMXReaderParam* param) {
  *out = nullptr;
  const int fd = open(param->path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a named pipe is not waited for
  if (fd < 0) return -1;
  struct stat status;
  auto* const reader = static_cast<QMXReader*>(std::calloc(1, sizeof(QMXReader)));
  if (reader != nullptr && fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    reader->source.fd = fd;
    reader->source.size = static_cast<uint64_t>(status.st_size);
    if (open_container(*reader)) {
      *out = reader;
      return 0;
    }
  }
  std::free(reader);
  close(fd);
  return -1;
}

int QMXReaderGetInfo(QMXReader* handle, QMXReaderInfo* info) {
  *info = handle->info;
  return 0;
}

int QMXReaderReadFrame(QMXReader* handle, QMXReaderFrame* frame) {
  if (frame->kind != QMX_READER_KIND_USER_DATA) return -1;
  Source& in = handle->source;
  in.begin_operation();
  Record record;
  const bool is_avi = handle->info.containerType == kAvi;
  if (!(is_avi ? handle->avi.next(in, record) : handle->iso.next(in, record))) return -1;
  if (record.offset > in.size || record.size > in.size - record.offset) return -1;
  if (!in.read_block(record.offset, frame->data, std::min<uint64_t>(record.size, frame->capacity))) return -1;
  frame->timeMs = record.time_ms;
  return 0;
}

void QMXReaderClose(QMXReader* handle) {
  if (handle == nullptr) return;
  close(handle->source.fd);
  std::free(handle);
}
