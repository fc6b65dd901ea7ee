// qmxutil meta: the metadata field of a recording.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <memory>

#include "commands.h"
#include "input.h"
#include "output.h"
#include "qmxutil_userdata.h"

namespace {

struct MetaOptions {
  std::string file;
  int32_t type = 0;
  std::string value;
  bool as_json = false;
};

bool is_byte(const MetaOptions& options) { return options.type == QMX_META_BYTE; }

// A 0 from QMXUtil_MetaDataRead() may be a value or a failure.
QMXReaderInfo require_field(const std::string& path) {
  require_file(path);
  const std::optional<QMXReaderInfo> info = recording_info(path);
  if (!info) throw CommandError(path + ": no recording that the media file reader can read");
  if (info->metaPresent == 0) throw CommandError(path + ": a recording without a metadata field");
  return *info;
}

[[noreturn]] void fail_for_type(const MetaOptions& options) {
  throw CommandError(options.file + ": the field was not made as type " + std::to_string(options.type) +
                     ", by what it holds");
}

void print_value(const MetaOptions& options, uint32_t value) {
  if (options.as_json) {
    print_json({{"file", options.file}, {"type", options.type}, {"value", value}});
  } else {
    std::printf("%" PRIu32 "\n", value);
  }
}

void run_get(const MetaOptions& options) {
  const QMXReaderInfo field = require_field(options.file);
  if (is_byte(options) && field.metaValue > UINT8_MAX) fail_for_type(options);
  print_value(options, QMXUtil_MetaDataRead(options.file.c_str(), options.type));
}

// Decimal, or hexadecimal after "0x"; a leading 0 does not make it octal.
uint32_t value_of(const MetaOptions& options) {
  const uint32_t most = is_byte(options) ? UINT8_MAX : UINT16_MAX;
  const bool is_hex = options.value.rfind("0x", 0) == 0 || options.value.rfind("0X", 0) == 0;
  const char* const begin = options.value.data() + (is_hex ? 2 : 0);
  const char* const end = options.value.data() + options.value.size();
  uint32_t value = 0;
  const auto [rest, error] = std::from_chars(begin, end, value, is_hex ? 16 : 10);
  if (error != std::errc() || rest != end || value > most) {
    throw UsageError("VALUE: " + options.value + " is no number from 0 to " + std::to_string(most) +
                     " for type " + std::to_string(options.type));
  }
  return value;
}

// The bytes at the field, so that they can be put back.
class Bytes {
 public:
  Bytes(const std::string& path, uint32_t offset)
      : path_(path), file_(open(path.c_str(), O_RDWR | O_CLOEXEC)), offset_(offset) {
    if (file_ < 0) fail_as_system_said(path);
    const ssize_t got = pread(file_, bytes_.data(), bytes_.size(), offset_);
    if (got < 0) fail_as_system_said(path);
    count_ = static_cast<size_t>(got);
  }
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;
  ~Bytes() { close(file_); }

  // Whether they are this value in the form that QMXUtil_MetaDataUpdate() writes.
  bool are(uint32_t value, int32_t type, uint32_t container) const {
    if (type != QMX_META_BYTE) return count_ >= 2 && (bytes_[0] | bytes_[1] << 8) == static_cast<int>(value);
    const size_t last = container == 1 ? 3 : 0;
    uint32_t read = 0;
    for (size_t i = 0; i <= last; ++i) read = read << 8 | bytes_[i];
    return count_ > last && read == value;
  }
  void put_back() const {
    if (pwrite(file_, bytes_.data(), count_, offset_) != static_cast<ssize_t>(count_))
      fail_as_system_said(path_);
  }

 private:
  const std::string& path_;
  int file_;
  off_t offset_;
  std::array<uint8_t, 4> bytes_ = {};
  size_t count_ = 0;
};

// A type other than the one that the field was made with would write what is read differently, or beyond it:
// then the file stays or becomes what it was.
void run_set(const MetaOptions& options) {
  const uint32_t value = value_of(options);
  const QMXReaderInfo before = require_field(options.file);
  const Bytes bytes(options.file, before.metaOffset);
  if (!bytes.are(before.metaValue, options.type, before.containerType)) fail_for_type(options);
  const bool updated = QMXUtil_MetaDataUpdate(options.file.c_str(), options.type, value) != 0;
  QMXReaderInfo after = {};
  try {
    after = require_field(options.file);
  } catch (const CommandError&) {  // it reads back as nothing
  }
  if (!updated || after.metaValue != value || after.metaOffset != before.metaOffset) {
    bytes.put_back();
    throw CommandError(options.file + ": " + std::to_string(value) + " could not be written: reads back as " +
                       std::to_string(after.metaValue) + "; the field is what it was");
  }
  if (options.as_json) print_value(options, value);
}

}  // namespace

void add_meta_command(const Command& app) {
  const auto options = std::make_shared<MetaOptions>();
  const Command command = app.add("meta", "Read or set the metadata field of a recording");
  command.footer("Example: qmxutil meta set trip.mp4 1 0x20");
  const Command get = command.add("get", "Print the field's value");
  const Command set = command.add("set", "Overwrite the field in place");
  for (const Command sub : {get, set}) {
    sub.option("FILE", options->file, "the recording (MP4, MOV, AVI)").required();
    sub.option("TYPE", options->type,
               "1: one byte; any other number: 16 bits. It must be what the field was made with")
        .required();
    sub.option("--json", options->as_json, "print JSON");
  }
  get.footer("Example: qmxutil meta get trip.mp4 1");
  get.runs([options] { run_get(*options); });
  set.option("VALUE", options->value,
             "0 to 255 for type 1, else 0 to 65535; decimal, or hexadecimal after 0x")
      .required();
  set.footer("Example: qmxutil meta set trip.mp4 1 0x20");
  set.runs([options] { run_set(*options); });
}
