// The base library's media file reader, on a recording that has user data records.
#include <algorithm>
#include <climits>
#include <cstring>
#include <optional>
#include <vector>

#include "basecheck.h"
#include "qmx_reader.h"

namespace basecheck {
namespace {

constexpr uint32_t kMostRoom = 1024;  // what libqmxutil asks for at most

struct Record {
  uint64_t time_ms;
  std::string data;
  bool operator==(const Record&) const = default;
};

// The records cross the border at the end of a page, so that a byte too many shows.
template <class T>
struct AtEnd {
  const Guarded bytes{std::string(sizeof(T), '\0')};
  T* operator->() const { return reinterpret_cast<T*>(bytes.data()); }
  operator T*() const { return reinterpret_cast<T*>(bytes.data()); }
};

// The path is gone once the file is open.
QMXReader* open_reader(const std::string& path) {
  const Guarded text(path + '\0');
  const AtEnd<QMXReaderParam> param;
  param->path = text.text();
  QMXReader* reader = nullptr;
  return QMXReaderOpen(&reader, param) < 0 ? nullptr : reader;
}

class Reader {
 public:
  Reader() : handle_(open_reader(media)) { expect(handle_ != nullptr, "it does not open"); }
  ~Reader() { QMXReaderClose(handle_); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  QMXReaderInfo info() const {
    const AtEnd<QMXReaderInfo> record;
    expect(QMXReaderGetInfo(handle_, record) >= 0, "QMXReaderGetInfo fails");
    return *record;
  }
  std::optional<Record> next(uint32_t room) const {
    const Guarded data(std::string(room, '-'));
    const AtEnd<QMXReaderFrame> frame;
    frame->data = data.data();
    frame->capacity = room;
    frame->kind = QMX_READER_KIND_USER_DATA;
    if (QMXReaderReadFrame(handle_, frame) < 0) return std::nullopt;
    return Record{frame->timeMs, {data.text(), room}};
  }

 private:
  QMXReader* handle_;
};

// As many as the information tells, and no more than that.
std::vector<Record> all_records(uint32_t room = kMostRoom) {
  const Reader reader;
  const uint32_t count = reader.info().userDataCount;
  std::vector<Record> records;
  while (records.size() <= count) {
    const std::optional<Record> record = reader.next(room);
    if (!record) break;
    records.push_back(*record);
  }
  return records;
}

void missing_recording() {
  expect(open_reader("missing recording") == nullptr, "a file that is not there opens");
  expect(open_reader(".") == nullptr, "a folder opens");
}

void not_a_recording() {
  QMXReader* const reader = open_reader(put("file", std::string(5000, 'x')));
  if (reader == nullptr) return;
  const AtEnd<QMXReaderInfo> info;
  const bool carries =
      QMXReaderGetInfo(reader, info) >= 0 && (info->userDataPresent | info->metaPresent) != 0;
  QMXReaderClose(reader);
  expect(!carries, "a text carries user data or metadata");
}

void information() {
  const Reader reader;
  const QMXReaderInfo info = reader.info(), again = reader.info();
  expect(info.userDataPresent != 0 && info.userDataCount != 0,
         "present %u, count %u: the fields lie elsewhere, or the file has no user data", info.userDataPresent,
         info.userDataCount);
  expect(info.userDataCount == again.userDataCount && info.durationMs == again.durationMs &&
             info.metaValue == again.metaValue,
         "the second time it tells something else");
}

void record_count() {
  const uint32_t count = Reader().info().userDataCount;
  const size_t delivered = all_records().size();
  expect(delivered == count, "%s than the %u records that it told of", delivered < count ? "fewer" : "more",
         count);
}

void record_times() {
  const std::vector<Record> records = all_records();
  const auto ordered = [](const Record& a, const Record& b) { return a.time_ms > b.time_ms; };
  const auto fault = std::adjacent_find(records.begin(), records.end(), ordered);
  expect(fault == records.end(), "record %zd comes at %llu ms, the next earlier", fault - records.begin(),
         fault == records.end() ? 0ULL : static_cast<unsigned long long>(fault->time_ms));
  const bool all_zero =
      std::all_of(records.begin(), records.end(), [](const Record& r) { return r.time_ms == 0; });
  expect(records.size() < 2 || !all_zero, "all %zu records come at 0 ms", records.size());
}

void times_within_recording() {
  const uint32_t duration = Reader().info().durationMs;
  for (const Record& record : all_records()) {
    expect(record.time_ms <= duration && record.time_ms <= INT_MAX, "a record comes at %llu of %u ms",
           static_cast<unsigned long long>(record.time_ms), duration);
  }
}

void cut_records() {
  const std::vector<Record> whole = all_records();
  for (const uint32_t room : {1u, 7u, 0u}) {
    std::vector<Record> want = whole;
    for (Record& record : want) record.data.resize(room);
    expect(all_records(room) == want, "with room for %u bytes others come", room);
  }
}

void two_handles() {
  const Reader one, other;
  const std::vector<Record> records = all_records();
  for (const Record& record : records) {
    expect(one.next(kMostRoom) == record && other.next(kMostRoom) == record, "they disturb each other");
  }
}

// The field as one of its forms: a byte, 16 bits little-endian, 32 bits big-endian.
void metadata() {
  const QMXReaderInfo info = Reader().info();
  if (info.metaPresent == 0) return;
  const std::string file = content(media.c_str());
  const auto at = [&](size_t i) {
    return info.metaOffset + i < file.size() ? uint8_t(file[info.metaOffset + i]) : 0u;
  };
  expect(info.metaOffset < file.size(), "the field lies at %u of %zu bytes", info.metaOffset, file.size());
  const uint32_t word = at(0) << 24 | at(1) << 16 | at(2) << 8 | at(3);
  expect(info.metaValue == word || info.metaValue == (at(1) << 8 | at(0)) || info.metaValue == at(0),
         "its value is 0x%X, at %u the file holds %02X %02X %02X %02X", info.metaValue, info.metaOffset,
         at(0), at(1), at(2), at(3));
}

void readers_released() {
  const int before = open_descriptors();
  for (int i = 0; i < 20; ++i) {
    Reader().next(kMostRoom);
    if (QMXReader* const folder = open_reader(".")) QMXReaderClose(folder);
  }
  const int more = open_descriptors() - before;
  expect(more == 0, "%d descriptors stay open after 20 closes", more);
}

const Check kChecks[] = {
    {"reader", "a file that is not there is refused", true, "a missing recording ends the process",
     missing_recording},
    {"reader", "a file that is no recording carries nothing", true, "files of other kinds are changed",
     not_a_recording},
    {"reader", "the recording opens and tells what it carries", true, "its user data is not found",
     information},
    {"reader", "as many records come as it tells, then none", true, "records are missing or made up",
     record_count},
    {"reader", "records come in the order of their times", true,
     "QMXUtil_UserDataRead finds records of other seconds", record_times},
    {"reader", "the times lie within the recording", false,
     "QMXUtil_UserDataRead does not reach the last records", times_within_recording},
    {"reader", "a record is cut to the room, and the next follows", true,
     "records that are larger than asked for overwrite others", cut_records},
    {"reader", "two handles on one file are independent", true, "two readers of a recording mix records",
     two_handles},
    {"reader", "the metadata value lies where it says", true, "QMXUtil_MetaDataUpdate damages recordings",
     metadata},
    {"reader", "a close releases its handle", true, "each recording costs a descriptor", readers_released},
};

}  // namespace

std::span<const Check> reader_checks() { return kChecks; }

}  // namespace basecheck
