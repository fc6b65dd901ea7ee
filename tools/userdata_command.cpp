// qmxutil userdata, meta, find, gps: what recordings carry, and the two services beside it.
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "commands.h"
#include "qmxutil_userdata.h"

namespace {

using nlohmann::json;

struct CloseUserData {
  void operator()(UserDataHandle* handle) const { QMXUtil_UserDataClose(handle); }
};

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
  constexpr size_t kShown = 16;
  size_t length = record.size();
  while (length > 0 && record[length - 1] == 0) --length;
  const size_t shown = std::min(length, kShown);
  std::string text;
  for (size_t i = 0; i < shown; ++i) {
    text += record[i] >= 0x20 && record[i] < 0x7F ? static_cast<char>(record[i]) : '.';
  }
  char line[128];
  std::snprintf(line, sizeof line, "%-*s  %s%s", static_cast<int>(kShown * 3 - 1),
                hex(record, shown, " ").c_str(), text.c_str(), length > shown ? " ..." : "");
  return line;
}

void write_record(const std::string& dir, int32_t index, const std::vector<uint8_t>& record) {
  char name[32];
  std::snprintf(name, sizeof name, "record-%06" PRId32 ".bin", index);
  const auto path = std::filesystem::path(dir) / name;
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(record.data()), static_cast<std::streamsize>(record.size()));
  out.close();
  if (!out) throw CommandError("cannot write " + path.string());
}

void run_userdata(const UserDataOptions& options) {
  const std::unique_ptr<UserDataHandle, CloseUserData> handle(
      QMXUtil_UserDataOpen(options.file.c_str(), options.record_size));
  if (handle == nullptr) throw CommandError(options.file + ": no recording with user data");
  if (!options.export_dir.empty()) {
    std::error_code error;
    std::filesystem::create_directories(options.export_dir, error);
    if (error) throw CommandError("cannot create " + options.export_dir + ": " + error.message());
  }
  const int count = QMXUtil_UserDataCount(handle.get());
  json records = json::array();
  int failed = 0;
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
    if (!options.export_dir.empty()) write_record(options.export_dir, index, record);
    if (options.as_json) {
      records.push_back({{"number", index}, {"timeMs", time}, {"hex", hex(record, record.size(), "")}});
    } else {
      std::printf("%6" PRId32 "  %10.3f  %s\n", index, time / 1000.0, preview(record).c_str());
    }
  }
  if (options.as_json) {
    const json all = {{"count", count}, {"durationMs", handle->info.durationMs}, {"records", records}};
    std::printf("%s\n", all.dump(2).c_str());
  }
  if (failed > 0) {
    throw CommandError(options.file + ": " + std::to_string(failed) + " of " + std::to_string(count) +
                       " records cannot be read");
  }
}

void add_userdata(CLI::App& app) {
  const auto options = std::make_shared<UserDataOptions>();
  CLI::App* const command =
      app.add_subcommand("userdata", "List or export the user data records of a recording");
  command->add_option("FILE", options->file, "the recording (MP4, MOV, AVI)")->required();
  command->add_option("--second", options->second, "only the first record at or after this second");
  command->add_option("--size", options->record_size, "bytes of one record")
      ->check(CLI::Range(1, QMX_USERDATA_MAX_RECORD))
      ->capture_default_str();
  command->add_option("--export", options->export_dir, "write each record to a file in this directory");
  command->add_flag("--json", options->as_json, "print JSON");
  command->footer("Example: qmxutil userdata trip.mp4 --second 30 --json");
  command->callback([options] { run_userdata(*options); });
}

// A 0 from QMXUtil_MetaDataRead() may be a value or a failure.
bool has_field(const std::string& file) {
  QMXReaderParam param = {};
  param.path = file.c_str();
  QMXReader* reader = nullptr;
  if (QMXReaderOpen(&reader, &param) < 0) return false;
  QMXReaderInfo info = {};
  const bool found = QMXReaderGetInfo(reader, &info) >= 0 && info.metaPresent != 0;
  QMXReaderClose(reader);
  return found;
}

struct MetaOptions {
  std::string file;
  int32_t type = 0;
  uint32_t value = 0;
};

void add_meta(CLI::App& app) {
  const auto options = std::make_shared<MetaOptions>();
  CLI::App* const command = app.add_subcommand("meta", "Read or set the metadata field of a recording");
  command->require_subcommand(1);
  command->footer("Example: qmxutil meta set trip.mp4 1 0x20");
  CLI::App* const get = command->add_subcommand("get", "Print the field's value");
  CLI::App* const set = command->add_subcommand("set", "Overwrite the field in place");
  for (CLI::App* const sub : {get, set}) {
    sub->add_option("FILE", options->file, "the recording (MP4, MOV, AVI)")->required();
    sub->add_option("TYPE", options->type, "1: one byte; any other number: 16 bits")->required();
  }
  get->footer("Example: qmxutil meta get trip.mp4 1");
  get->callback([options] {
    const uint32_t value = QMXUtil_MetaDataRead(options->file.c_str(), options->type);
    if (value == 0 && !has_field(options->file)) {
      throw CommandError(options->file + ": no recording with a metadata field");
    }
    std::printf("%" PRIu32 "\n", value);
  });
  set->add_option("VALUE", options->value, "the new value; 0x in front makes it hexadecimal")->required();
  set->footer("Example: qmxutil meta set trip.mp4 1 0x20");
  set->callback([options] {
    if (!QMXUtil_MetaDataUpdate(options->file.c_str(), options->type, options->value)) {
      throw CommandError(options->file + ": no recording with a metadata field that can be written");
    }
  });
}

void add_find(CLI::App& app) {
  struct Options {
    std::string dir;
    std::string name;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "find", "Find the first subdirectory that contains an entry, and print the entry's path");
  command->add_option("DIR", options->dir, "the directory above")->required();
  command->add_option("NAME", options->name, "the entry's name")->required();
  command->footer("Example: qmxutil find /media/card DCIM");
  command->callback([options] {
    char path[128];
    if (!QMXUtil_FileSearch(options->dir.c_str(), options->name.c_str(), path, sizeof path)) {
      throw CommandError("no subdirectory of " + options->dir + " has " + options->name);
    }
    std::printf("%s\n", path);
  });
}

struct GpsOptions {
  float latitude = 0;
  std::string north_south;
  float longitude = 0;
  std::string east_west;
  bool as_json = false;
};

void add_gps(CLI::App& app) {
  const auto options = std::make_shared<GpsOptions>();
  CLI::App* const command = app.add_subcommand("gps", "Convert an NMEA 0183 position to decimal degrees");
  command->add_option("LAT", options->latitude, "ddmm.mmmm")->required();
  command->add_option("NS", options->north_south, "N or S")->required()->check(CLI::IsMember({"N", "S"}));
  command->add_option("LON", options->longitude, "dddmm.mmmm")->required();
  command->add_option("EW", options->east_west, "E or W")->required()->check(CLI::IsMember({"E", "W"}));
  command->add_flag("--json", options->as_json, "print JSON");
  command->footer("Example: qmxutil gps 4530.0 N 00915.5 W");
  command->callback([options] {
    const GpsMapPoint point = QMXUtil_GPSConvToMap(options->north_south == "N", options->east_west == "E",
                                                   options->latitude, options->longitude);
    if (options->as_json) {
      const json all = {{"latitude", point.latitude},
                        {"longitude", point.longitude},
                        {"latitudeE5", point.latitudeE5},
                        {"longitudeE5", point.longitudeE5}};
      std::printf("%s\n", all.dump(2).c_str());
    } else {
      std::printf("%.5f %.5f\n", static_cast<double>(point.latitude), static_cast<double>(point.longitude));
    }
  });
}

}  // namespace

void add_userdata_commands(CLI::App& app) {
  add_userdata(app);
  add_meta(app);
  add_find(app);
  add_gps(app);
}
