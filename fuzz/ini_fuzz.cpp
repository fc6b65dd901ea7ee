// INI files: any text is read line by line, searched and written to. A search finds what reading line by line
// finds, and writes nothing else to the caller's room; a write keeps what stood before the value.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qmxutil_ini.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

// A file of its own for the process, in memory.
const std::string& file() {
  static const int fd = memfd_create("ini", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return path;
}

void store(const uint8_t* data, size_t size) {
  FILE* const stream = std::fopen(file().c_str(), "w");
  require(stream != nullptr && std::fwrite(data, 1, size, stream) == size && std::fclose(stream) == 0);
}

// What a search has to leave in `room`.
bool search_by_lines(INIHandle* handle, const std::string& wanted, std::string& room) {
  std::string key(room.size(), '\0'), value(room.size(), '\0');
  uint8_t is_pair = 0;
  bool found = false;
  while (!found && QMXUtil_INIParseLine(handle, key.data(), value.data(), &is_pair) == 1) {
    found = is_pair && wanted.size() < 64 && wanted == key.c_str();
  }
  std::strcpy(room.data(), found ? value.c_str() : "");
  return found;
}

void check_search(INIHandle* handle, const std::string& key) {
  const std::string fresh(static_cast<size_t>(handle->length) + 1, '\xEE');
  std::string expected = fresh, value = fresh;
  QMXUtil_INIReset(handle);
  const bool found = search_by_lines(handle, key, expected);
  QMXUtil_INIReset(handle);
  require(QMXUtil_INISearch(handle, key.c_str(), value.data()) == found);
  require(value == expected && handle->cursor == handle->text);
}

}  // namespace

// The first byte chooses the attributes, the first line is a key, the rest the file.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > 20000) return 0;
  const INIAttr attr = {static_cast<uint8_t>((data[0] & 8) == 0), static_cast<int32_t>((data[0] & 7) * 1000),
                        static_cast<uint8_t>(data[0] >> 7)};
  const uint8_t* const end = data + size;
  const uint8_t* const line_end = std::find(data + 1, end, '\n');
  const std::string key(std::string(data + 1, line_end).c_str());
  const uint8_t* const text = line_end == end ? end : line_end + 1;
  store(text, static_cast<size_t>(end - text));

  INIHandle* handle = QMXUtil_INIOpenEx(file().c_str(), &attr);
  require(handle != nullptr && handle->fileSize == end - text);
  if (handle->text != nullptr) {
    check_search(handle, key);
    check_search(handle, "");
    check_search(handle, "k");
  }
  const std::string long_value(3000, 'v');
  for (const char* const value : {"1", "", "a rather longer value = 5", long_value.c_str()}) {
    const std::string before = handle->text != nullptr ? handle->text : "";
    const int written = QMXUtil_INIWrite(handle, key.c_str(), value);
    const std::string after = handle->text != nullptr ? handle->text : "";
    require(!written || attr.writable);
    require(static_cast<size_t>(handle->length) == after.size());
    require(written ? after.find(value) != after.npos : after == before);
  }
  require(!QMXUtil_INIWrite(handle, nullptr, "1") && !QMXUtil_INISearch(handle, nullptr, nullptr));
  const std::string text_now = handle->text != nullptr ? handle->text : "";
  QMXUtil_INIClose(handle);
  handle = QMXUtil_INIOpen(file().c_str());
  require(handle != nullptr && text_now == (handle->text != nullptr ? handle->text : ""));
  QMXUtil_INIClose(handle);
  require(QMXUtil_INIOpen("") == nullptr);
  return 0;
}
