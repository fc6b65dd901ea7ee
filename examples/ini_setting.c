/* Changes one setting of a recorder's fixed-size configuration and reads it back. */
#include <stdio.h>

#include "qmxutil_ini.h"

static int change(const char* path, const char* key, const char* value) {
  INIAttr attr = {0};
  INIHandle* ini;
  int written;
  attr.writable = 1;
  attr.fixedSize = 4096; /* the file keeps its blocks on the storage */
  attr.lock = 1;         /* other processes that lock the file wait */
  ini = QMXUtil_INIOpenEx(path, &attr);
  if (ini == NULL) return 0;
  written = QMXUtil_INIWrite(ini, key, value);
  QMXUtil_INIClose(ini); /* writes the file, if the text changed */
  return written;
}

static int show(const char* path, const char* key) {
  static char value[1024 * 1024]; /* no value of a file below 1 MiB is longer */
  INIHandle* const ini = QMXUtil_INIOpen(path);
  int found;
  if (ini == NULL) return 0;
  found = QMXUtil_INISearch(ini, key, value);
  if (found) printf("%s is %s; %d bytes of text in a file of %d\n", key, value, ini->length, ini->fileSize);
  QMXUtil_INIClose(ini);
  return found; /* 0 as well when the commit could not write */
}

int main(int argc, char** argv) {
  const char* const path = argc > 1 ? argv[1] : "recorder.ini";
  return change(path, "volume", "7") && show(path, "volume") ? 0 : 1;
}
