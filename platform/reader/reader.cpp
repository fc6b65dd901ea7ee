// Media file reader.
#include "qmx_reader.h"

int QMXReaderOpen(QMXReader** out, QMXReaderParam*) {
  *out = nullptr;
  return -1;
}

int QMXReaderGetInfo(QMXReader*, QMXReaderInfo*) { return -1; }

int QMXReaderReadFrame(QMXReader*, QMXReaderFrame*) { return -1; }

void QMXReaderClose(QMXReader*) {}
