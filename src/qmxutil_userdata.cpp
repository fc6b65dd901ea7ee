// Recordings: user data records by time and in sequence, the metadata field read and updated in place; and
// two services beside them, the search of subdirectories and the conversion of GPS positions.
#include "qmxutil_userdata.h"

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "internal/handles.h"
#include "internal/shell.h"
#include "internal/trace.h"
#include "qmx_format.h"

using namespace qmxutil;

namespace {

constinit char MODULE[] = "qmxutiluserdata";

using OwnedUserData = std::unique_ptr<UserDataHandle, Releaser<QMXUtil_UserDataClose>>;

// A pointer as the messages print it, with %x.
unsigned low_bits(const void* pointer) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer)); }

ReaderHandle open_reader(const char* path) {
  QMXReaderParam param = {};
  param.path = path;
  QMXReader* reader = nullptr;
  if (QMXReaderOpen(&reader, &param) < 0) reader = nullptr;
  return ReaderHandle(reader);
}

}  // namespace

// ---- User data records

namespace {

constexpr uint64_t kBufferStep = 524288;  // 512 KiB

// Bytes of the one block that holds all records, 0 when 32 bits cannot express it.
uint32_t buffer_size(uint32_t count, uint32_t record_size) {
  const uint64_t size = (uint64_t{count} * record_size + (kBufferStep - 1)) & ~(kBufferStep - 1);
  return size <= std::numeric_limits<uint32_t>::max() ? static_cast<uint32_t>(size) : 0;
}

// A record that was asked for and came; its time then serves a search.
bool is_good(const UserDataIndexEntry& entry) { return entry.timeMs >= 0; }

// Asks the file for its next record; the entry tells how that went.
const UserDataIndexEntry& load_next(UserDataHandle& handle) {
  UserDataIndexEntry& entry = handle.index[handle.loaded++];
  QMXReaderFrame frame = {};
  frame.data = entry.data;
  frame.capacity = static_cast<uint32_t>(handle.recordSize);
  frame.kind = QMX_READER_KIND_USER_DATA;
  const int result = QMXReaderReadFrame(handle.reader, &frame);
  entry.timeMs = result < 0 ? -1 : static_cast<int32_t>(static_cast<uint32_t>(frame.timeMs));
  return entry;
}

void copy_record(const UserDataHandle& handle, const UserDataIndexEntry& entry, void* out) {
  std::memcpy(out, entry.data, static_cast<size_t>(handle.recordSize));
}

}  // namespace

UserDataHandle* QMXUtil_UserDataOpen(const char* path, int32_t recordSize) {
  if (path == nullptr || recordSize <= 0 || recordSize > QMX_USERDATA_MAX_RECORD) {
    TRACE_ERROR("Invalid arguments (%s, %d) for user data\n", path, recordSize);
    return nullptr;
  }
  OwnedUserData handle(NEW_BLOCK(UserDataHandle, sizeof(UserDataHandle), QMX_FILL_ZERO).release());
  if (handle == nullptr) return nullptr;
  handle->reader = open_reader(path).release();
  if (handle->reader == nullptr) {
    handle.reset();
    TRACE_ERROR("QMXReaderOpen ( %s ) failed\n", path);
    return nullptr;
  }
  const QMXReaderInfo& info = handle->info;
  if (QMXReaderGetInfo(handle->reader, &handle->info) < 0 || info.userDataPresent == 0 ||
      info.userDataCount == 0) {
    handle.reset();
    TRACE_ERROR("There's no userdata in %s file.\n", path);
    return nullptr;
  }
  const uint32_t count = info.userDataCount;
  const uint32_t size = buffer_size(count, static_cast<uint32_t>(recordSize));
  if (size == 0 || count > std::numeric_limits<uint32_t>::max() / sizeof(UserDataIndexEntry)) return nullptr;
  handle->buffer = NEW_BLOCK(uint8_t, size, QMX_FILL_ZERO).release();
  if (handle->buffer == nullptr) return nullptr;
  const auto index_size = static_cast<uint32_t>(count * sizeof(UserDataIndexEntry));
  handle->index = NEW_BLOCK(UserDataIndexEntry, index_size, QMX_FILL_ZERO).release();
  if (handle->index == nullptr) return nullptr;
  for (size_t i = 0; i < count; ++i) {
    handle->index[i].data = handle->buffer + i * static_cast<size_t>(recordSize);
  }
  handle->count = static_cast<int32_t>(count);
  handle->recordSize = recordSize;
  return handle.release();
}

int QMXUtil_UserDataRead(UserDataHandle* handle, uint32_t second, void* out) {
  if (handle == nullptr || out == nullptr) {
    TRACE_ERROR("Invalid arguments (%x, %x) for user data\n", low_bits(handle), low_bits(out));
    return 0;
  }
  const uint32_t ms = second * 1000;  // wraps
  if (handle->info.durationMs < ms) {
    TRACE_ERROR("%d second is over than total duration (%d).\n", static_cast<int>(second),
                static_cast<int>(handle->info.durationMs / 1000));
    return 0;
  }
  for (int32_t i = 0; i < handle->count; ++i) {
    const bool in_memory = i < handle->loaded;
    const UserDataIndexEntry& entry = in_memory ? handle->index[i] : load_next(*handle);
    if (!is_good(entry)) {
      if (in_memory) continue;
      TRACE_ERROR("Reading %dth data Failed.\n", i);
      return 0;
    }
    if (static_cast<uint32_t>(entry.timeMs) >= ms) {
      copy_record(*handle, entry, out);
      handle->cur = i;
      return 1;
    }
  }
  TRACE_ERROR("No data matching with %d sec.\n", static_cast<int>(second));
  return 0;
}

int QMXUtil_UserDataReadNext(UserDataHandle* handle, void* out) {
  if (handle == nullptr || out == nullptr) {
    TRACE_ERROR("Invalid arguments (%x, %x) for user data\n", low_bits(handle), low_bits(out));
    return 0;
  }
  const int32_t next = handle->loaded == 0 ? 0 : handle->cur + 1;
  if (next >= handle->count) {
    TRACE_ERROR("No more user data exist (end of data)\n");
    return 0;
  }
  handle->cur = next;
  // Whether it is in memory its position tells: the time of a record may well be 0.
  const UserDataIndexEntry& entry = next < handle->loaded ? handle->index[next] : load_next(*handle);
  if (!is_good(entry)) {
    TRACE_ERROR("Reading %dth data Failed.\n", next);
    return 0;
  }
  copy_record(*handle, entry, out);
  return 1;
}

int QMXUtil_UserDataCount(UserDataHandle* handle) {
  if (handle == nullptr) {
    TRACE_ERROR("Invalid arguments (%x) for user data\n", 0U);
    return 0;
  }
  return handle->count;
}

void QMXUtil_UserDataClose(UserDataHandle* handle) {
  if (handle == nullptr) return;
  if (handle->reader != nullptr) QMXReaderClose(handle->reader);
  if (handle->index != nullptr) QMX_Free(handle->index, 0);
  if (handle->buffer != nullptr) QMX_Free(handle->buffer, 0);
  QMX_Free(handle, 0);
}

// ---- Metadata field

namespace {

// Fills `info` for a file that has the field; traces as `caller` what stands in the way.
bool find_field(const char* path, QMXReaderInfo& info, const char* caller) {
  if (path == nullptr) {
    TRACE_AS(caller, QMX_TRACE_ERROR, "NULL arguments!\n");
    return false;
  }
  ReaderHandle reader = open_reader(path);
  if (reader == nullptr) {
    TRACE_AS(caller, QMX_TRACE_ERROR, "QMXReaderOpen ( %s ) failed\n", path);
    return false;
  }
  info = {};
  const bool found = QMXReaderGetInfo(reader.get(), &info) >= 0 && info.metaPresent != 0;
  reader.reset();
  if (!found) TRACE_AS(caller, QMX_TRACE_ERROR, "There's no data in %s file.\n", path);
  return found;
}

constexpr uint32_t kContainerWithWords = 1;  // stores a one-byte value as a big-endian 32-bit number

}  // namespace

uint32_t QMXUtil_MetaDataRead(const char* path, int32_t metaType) {
  QMXReaderInfo info;
  if (!find_field(path, info, __func__)) return 0;
  return metaType == QMX_META_BYTE ? info.metaValue & 0xFF : info.metaValue;
}

int QMXUtil_MetaDataUpdate(const char* path, int32_t metaType, uint32_t value) {
  QMXReaderInfo info;
  if (!find_field(path, info, __func__)) return 0;
  const FileStream file(QMX_FileOpen(path, QMX_FILE_UPDATE));
  if (file == nullptr) {
    TRACE_ERROR("open (%s) failed!\n", path);
    return 0;
  }
  if (QMX_FileSeek(file.get(), info.metaOffset, 0) != 0) {
    TRACE_ERROR("seek (%s, %d) failed!\n", path, static_cast<int>(info.metaOffset));
    return 0;
  }
  const auto low = static_cast<uint8_t>(value);
  const auto high = static_cast<uint8_t>(value >> 8);
  if (metaType != QMX_META_BYTE) {
    const uint8_t bytes[] = {low, high};
    QMX_FileWrite(file.get(), bytes, sizeof bytes);
  } else if (info.containerType == kContainerWithWords) {
    const uint8_t bytes[] = {0, 0, 0, low};
    QMX_FileWrite(file.get(), bytes, sizeof bytes);
  } else {
    QMX_FileWrite(file.get(), &low, sizeof low);
  }
  return 1;
}

// ---- Directory search

namespace {

constexpr size_t kSlots = 32;
constexpr size_t kPathSize = 63;  // 62 bytes and the NUL
constexpr size_t kCommandSize = 128;
constexpr size_t kCandidateSize = 128;
constexpr char kListSubdirectories[] = "find %s -maxdepth 1 -mindepth 1 -type d";
constexpr char kListSubdirectoriesHere[] = "find ./%s -maxdepth 1 -mindepth 1 -type d";

struct Subdirectories {
  char path[kSlots][kPathSize];
  size_t count;
};

void list_subdirectories(FILE* pipe, Subdirectories& list) {
  char line[kPathSize] = {};
  for (Line read; (read = read_line(pipe, line, sizeof line)) != Line::kEnd;) {
    if (read == Line::kWhole && list.count < kSlots) std::memcpy(list.path[list.count++], line, sizeof line);
  }
}

}  // namespace

int QMXUtil_FileSearch(const char* dir, const char* name, char* out, int32_t outSize) {
  if (dir == nullptr || name == nullptr) return 0;
  // find takes an argument that begins with one of these for a part of its expression.
  const bool is_expression = *dir != '\0' && std::strchr("-()!,", *dir) != nullptr;
  const char* const format = is_expression ? kListSubdirectoriesHere : kListSubdirectories;
  const size_t length = std::strlen(format) - std::strlen("%s") + std::strlen(dir);
  if (length >= kCommandSize) return 0;  // cut, the command could walk the whole tree
  char command[kCommandSize];
  Pipe pipe = open_command(command, format, dir);
  if (pipe == nullptr) return 0;
  Subdirectories list = {};
  list_subdirectories(pipe.get(), list);
  pipe.reset();
  for (size_t i = 0; i < list.count; ++i) {
    char candidate[kCandidateSize];
    if (std::strlen(list.path[i]) + 1 + std::strlen(name) >= sizeof candidate) continue;  // cut: another file
    QMX_snprintf(candidate, sizeof candidate, "%s/%s", list.path[i], name);
    if (access(candidate, F_OK) != 0) continue;
    if (out != nullptr && outSize > 0) QMX_snprintf(out, static_cast<uint32_t>(outSize), "%s", candidate);
    return 1;
  }
  return 0;
}

// ---- GPS

namespace {

int32_t to_int32(float value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483648.0F) return std::numeric_limits<int32_t>::max();
  if (value < -2147483648.0F) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(value);
}

// Degrees and minutes, dddmm.mmmm, to degrees.
float to_degrees(float value, bool positive) {
  const float degrees = static_cast<float>(to_int32(value / 100.0F));
  const float minutes = std::fmod(value, 100.0F);
  const float result = degrees + minutes / 60.0F;
  return positive ? result : 0.0F - result;  // a difference, so that 0 stays +0
}

}  // namespace

GpsMapPoint QMXUtil_GPSConvToMap(uint8_t latitudeFlag, uint8_t longitudeFlag, float latitude,
                                 float longitude) {
  GpsMapPoint point;
  point.latitude = to_degrees(latitude, latitudeFlag != 0);
  point.longitude = to_degrees(longitude, longitudeFlag != 0);
  point.latitudeE5 = to_int32(point.latitude * 100000.0F);
  point.longitudeE5 = to_int32(point.longitude * 100000.0F);
  return point;
}
