// User data and metadata of a recording from memory, through the stand-in's reader; GPS positions. The last
// bytes of the recording also say what is asked of it.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "qmxutil_userdata.h"

namespace {

void require(bool holds) {
  if (!holds) abort();
}

void read_records(const char* path, const std::string& questions, size_t file_size) {
  const int32_t record_size = questions.back() & 0x3F;
  UserDataHandle* const handle = QMXUtil_UserDataOpen(path, record_size);
  require(handle == nullptr || record_size > 0);
  if (QMXUtil_UserDataCount(handle) == 0) {
    require(!QMXUtil_UserDataRead(handle, 0, nullptr) && !QMXUtil_UserDataReadNext(handle, nullptr));
    return QMXUtil_UserDataClose(handle);
  }
  const int count = QMXUtil_UserDataCount(handle);
  require(count > 0 && static_cast<size_t>(count) <= file_size);
  std::vector<uint8_t> out(static_cast<size_t>(record_size));
  for (const char question : questions) {
    const auto second = static_cast<uint8_t>(question) / 2u;
    const bool in_turn = question & 1;
    const int32_t before = handle->cur;
    const int found = in_turn ? QMXUtil_UserDataReadNext(handle, out.data())
                              : QMXUtil_UserDataRead(handle, second, out.data());
    require(0 <= handle->loaded && handle->loaded <= count && handle->cur < count);
    require(in_turn || found == 1 || handle->cur == before);
    if (found == 0) continue;
    const UserDataIndexEntry& entry = handle->index[handle->cur];
    require(handle->cur < handle->loaded && entry.timeMs >= 0);
    require(std::memcmp(out.data(), entry.data, out.size()) == 0);
    require(in_turn || static_cast<uint32_t>(entry.timeMs) >= second * 1000);
  }
  QMXUtil_UserDataClose(handle);
}

// An update changes at most the four bytes of a field, next to each other.
void update_field(const char* path, int file, const std::string& content, uint32_t value) {
  const int32_t type = static_cast<int32_t>(value % 3);
  require(QMXUtil_MetaDataRead(path, QMX_META_BYTE) <= 0xFF);
  require(QMXUtil_MetaDataRead(nullptr, QMX_META_BYTE) == 0);
  const int updated = QMXUtil_MetaDataUpdate(path, type, value);
  std::string after(content.size() + 8, '\0');
  const ssize_t length = pread(file, after.data(), after.size(), 0);
  if (updated == 0) require(length == static_cast<ssize_t>(content.size()));
  const auto size = std::min(content.size(), static_cast<size_t>(length));
  const auto first =
      std::mismatch(content.begin(), content.begin() + static_cast<ssize_t>(size), after.begin());
  size_t last = size;
  while (last > 0 && content[last - 1] == after[last - 1]) --last;
  const auto from = static_cast<size_t>(first.first - content.begin());
  require(from >= last || (updated == 1 && last - from <= 4));
}

void convert_position(const uint8_t* data) {
  float position[2];
  std::memcpy(position, data, sizeof position);
  const GpsMapPoint point = QMXUtil_GPSConvToMap(data[0] & 1, data[4] & 1, position[0], position[1]);
  for (const auto& [degrees, e5] :
       {std::pair(point.latitude, point.latitudeE5), std::pair(point.longitude, point.longitudeE5)}) {
    require(std::isnan(degrees) ? e5 == 0 : e5 == 0 || (e5 > 0) == (degrees > 0));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int file = memfd_create("recording", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (size < 32) return 0;
  require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
  const std::string content(reinterpret_cast<const char*>(data), size);
  const std::string questions = content.substr(size - 24);
  read_records(path.c_str(), questions, size);
  uint32_t value;
  std::memcpy(&value, data + size - sizeof value, sizeof value);
  update_field(path.c_str(), file, content, value);
  convert_position(data + size - 8);
  return 0;
}
