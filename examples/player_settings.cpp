// A C++ program's way to the C interface: a handle with an owner, a setting read and changed.
#include <cstdio>
#include <memory>

#include "qmxutil_ini.h"

struct CloseINI {
  void operator()(INIHandle* ini) const { QMXUtil_INIClose(ini); }
};
using INI = std::unique_ptr<INIHandle, CloseINI>;

int main(int argc, char** argv) {
  INIAttr attr = {};
  attr.writable = 1;
  const INI ini(QMXUtil_INIOpenEx(argc > 1 ? argv[1] : "player.ini", &attr));
  if (ini == nullptr || !QMXUtil_INIWrite(ini.get(), "volume", "11")) return 1;
  std::printf("%d bytes of text, committed at the end of main()\n", ini->length);
}
