// qmxutil userdata: the user data records of a recording.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>

#include "commands.h"
#include "input.h"
#include "output.h"
#include "qmxutil_userdata.h"

namespace {

struct CloseUserData {
  void operator()(UserDataHandle* handle) const { QMXUtil_UserDataClose(handle); }
};

constexpr int kLastSecond = UINT32_MAX / 1000;  // the library counts milliseconds

struct UserDataOptions {
  std::string file;
  int32_t record_size = QMX_USERDATA_MAX_RECORD;
  std::optional<uint32_t> second;
  std::string export_dir;
  bool as_json = false;
};

std::string hex(const std::vector<uint8_t>& bytes, size_t count, const char* between) {
  std::string text;
  char digits[3];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
    if (i > 0) text += between;
    text += digits;
  }
  return text;
}

// The beginning of a record as a person reads it; the zeros that fill it up are left out.
std::string preview(const std::vector<uint8_t>& record) {
  constexpr size_t kOtherColumns = 25, kColumnsOfByte = 4;
  const size_t room = std::clamp<size_t>(terminal_columns(), 45, 89) - kOtherColumns;
  const size_t most = room / kColumnsOfByte;
  const auto last = std::find_if(record.rbegin(), record.rend(), [](uint8_t byte) { return byte != 0; });
  const auto length = static_cast<size_t>(record.rend() - last);
  const size_t shown = std::min(length, most);
  std::string text = hex(record, shown, " ");
  text.resize(most * 3 + 1, ' ');
  for (size_t i = 0; i < shown; ++i) {
    text += record[i] >= 0x20 && record[i] < 0x7F ? static_cast<char>(record[i]) : '.';
  }
  return text + (length > shown ? " ..." : "");
}

void write_record(const std::string& dir, int32_t index, const std::vector<uint8_t>& record) {
  char name[32];
  std::snprintf(name, sizeof name, "record-%06" PRId32 ".bin", index);
  write_file(std::filesystem::path(dir) / name, record);
}

using UserData = std::unique_ptr<UserDataHandle, CloseUserData>;

UserData open_recording(const UserDataOptions& options) {
  UserData handle(QMXUtil_UserDataOpen(options.file.c_str(), options.record_size));
  if (handle != nullptr) return handle;
  require_file(options.file);
  const std::optional<QMXReaderInfo> info = recording_info(options.file);
  if (!info) throw CommandError(options.file + ": no recording that the media file reader can read");
  const bool has_records = info->userDataPresent != 0 && info->userDataCount > 0;
  throw CommandError(options.file + (has_records ? ": not enough memory for its " +
                                                       std::to_string(info->userDataCount) + " records"
                                                 : ": a recording without user data"));
}

void run_userdata(const UserDataOptions& options) {
  const UserData handle = open_recording(options);
  if (!options.export_dir.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options.export_dir, error);
    if (error) throw CommandError("cannot create " + options.export_dir + ": " + error.message());
  }
  const int count = QMXUtil_UserDataCount(handle.get());
  Json records = Json::array();
  int failed = 0, exported = 0;
  if (!options.as_json) std::printf("%6s  %10s  record\n", "number", "time/s");
  for (int i = 0; i < (options.second ? 1 : count); ++i) {
    std::vector<uint8_t> record(static_cast<size_t>(options.record_size));
    if (options.second) {
      if (!QMXUtil_UserDataRead(handle.get(), *options.second, record.data())) {
        throw CommandError(options.file + ": no record at or after second " +
                           std::to_string(*options.second));
      }
    } else if (!QMXUtil_UserDataReadNext(handle.get(), record.data())) {
      ++failed;
      continue;
    }
    const int32_t index = handle->cur;
    const int32_t time = handle->index[index].timeMs;
    if (!options.export_dir.empty()) {
      write_record(options.export_dir, index, record);
      ++exported;
    }
    if (options.as_json) {
      records.push_back({{"number", index}, {"timeMs", time}, {"hex", hex(record, record.size(), "")}});
    } else {
      std::printf("%6" PRId32 "  %10.3f  %s\n", index, time / 1000.0, preview(record).c_str());
    }
  }
  if (options.as_json) {
    print_json({{"count", count},
                {"durationMs", handle->info.durationMs},
                {"recordSize", options.record_size},
                {"records", records}});
  }
  if (!options.export_dir.empty() && !options.as_json) {
    std::printf("%d of %d records written to %s, %" PRId32 " bytes each (--size)\n", exported, count,
                options.export_dir.c_str(), options.record_size);
  }
  if (failed > 0) {
    throw CommandError(options.file + ": " + std::to_string(failed) + " of " + std::to_string(count) +
                       " records cannot be read");
  }
}

}  // namespace

void add_userdata_command(const Command& app) {
  const auto options = std::make_shared<UserDataOptions>();
  const Command command = app.add("userdata", "List or export the user data records of a recording");
  command.option("FILE", options->file, "the recording (MP4, MOV, AVI)").required();
  command.option("--second", options->second, "only the first record at or after this second")
      .between(0, kLastSecond);
  command.option("--size", options->record_size, "bytes of one record")
      .between(1, QMX_USERDATA_MAX_RECORD)
      .shows_default();
  command.option("--export", options->export_dir,
                 "write each record to a file in this directory, --size bytes each");
  command.option("--json", options->as_json, "print JSON");
  command.footer("Example: qmxutil userdata trip.mp4 --second 30 --json");
  command.runs([options] { run_userdata(*options); });
}
