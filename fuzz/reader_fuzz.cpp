// The stand-in's media file reader: opening, information, and every record of a file from memory.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "qmx_reader.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int file = memfd_create("input", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  check(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));

  QMXReaderParam param = {};
  param.path = path.c_str();
  QMXReader* reader;
  if (QMXReaderOpen(&reader, &param) < 0) {
    check(reader == nullptr);
    return 0;
  }
  QMXReaderInfo info = {};
  check(QMXReaderGetInfo(reader, &info) >= 0);
  check(info.containerType == 1 || info.containerType == 2);
  check(info.userDataCount <= size);
  check(info.metaPresent == 0 || info.metaOffset < size);
  uint32_t delivered = 0;
  for (uint32_t i = 0; i < info.userDataCount + 2; ++i) {
    uint8_t room[64];
    QMXReaderFrame frame = {};
    frame.data = room;
    frame.capacity = sizeof room;
    frame.kind = QMX_READER_KIND_USER_DATA;
    delivered += QMXReaderReadFrame(reader, &frame) >= 0;
  }
  check(delivered <= info.userDataCount);
  QMXReaderClose(reader);
  return 0;
}
