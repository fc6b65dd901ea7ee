// qmxutil ini: settings of an INI file, read and changed.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "qmxutil_ini.h"

namespace {

struct CloseIni {
  void operator()(INIHandle* handle) const { QMXUtil_INIClose(handle); }
};
using Ini = std::unique_ptr<INIHandle, CloseIni>;

constexpr char kWhiteSpace[] = " \t\n\v\f\r";

struct Pair {
  std::string key;
  std::string value;
  size_t begin;  // of the key in the text
  size_t value_at;
};
using Pairs = std::vector<Pair>;

struct IniOptions {
  std::string file;
  std::string key;
  std::string value;
  int32_t fixed_size = 0;
  bool lock = false;
  bool as_json = false;
};

Ini require_open(Ini ini, const std::string& file) {
  if (ini != nullptr) return ini;
  require_file(file);
  throw CommandError(file + ": 1 MiB or more, or it cannot be read to its end");
}

Ini open_to_read(const std::string& file) { return require_open(Ini(QMXUtil_INIOpen(file.c_str())), file); }

// Room for any key or value of the file.
std::vector<char> room_for(const Ini& ini) { return std::vector<char>(static_cast<size_t>(ini->length) + 1); }

bool search(const Ini& ini, const std::string& key, std::string& value) {
  if (ini->text == nullptr) return false;
  std::vector<char> room = room_for(ini);
  const bool found = QMXUtil_INISearch(ini.get(), key.c_str(), room.data()) == 1;
  value = room.data();
  return found;
}

std::string text_of(const Ini& ini) { return ini->text == nullptr ? "" : ini->text; }

Pairs all_pairs(const Ini& ini) {
  Pairs pairs;
  const std::string text = text_of(ini);
  std::vector<char> key = room_for(ini), value = room_for(ini);
  uint8_t is_pair = 0;
  while (ini->cursor != nullptr) {
    const size_t begin = text.find_first_not_of(kWhiteSpace, static_cast<size_t>(ini->cursor - ini->text));
    if (QMXUtil_INIParseLine(ini.get(), key.data(), value.data(), &is_pair) != 1) break;
    if (!is_pair) continue;
    const size_t sign = text.find('=', begin);
    pairs.push_back({key.data(), value.data(), begin, text.find_first_not_of(" \t", sign + 1)});
  }
  QMXUtil_INIReset(ini.get());
  return pairs;
}

void get(const IniOptions& options) {
  std::string value;
  if (!search(open_to_read(options.file), options.key, value)) {
    throw CommandError(options.file + ": no key '" + options.key + "'");
  }
  if (options.as_json) {
    print_json({{"key", options.key}, {"value", value}});
  } else {
    std::printf("%s\n", value.c_str());
  }
}

void list(const IniOptions& options) {
  const Pairs pairs = all_pairs(open_to_read(options.file));
  if (options.as_json) {
    Json document = Json::array();
    for (const Pair& pair : pairs) document.push_back({{"key", pair.key}, {"value", pair.value}});
    print_json(document);
    return;
  }
  size_t width = 0;
  for (const Pair& pair : pairs) width = std::max(width, pair.key.size());
  for (const Pair& pair : pairs) {
    std::printf("%-*s  %s\n", static_cast<int>(width), pair.key.c_str(), pair.value.c_str());
  }
}

// Whether other readers of INI files take the line of a pair for more of the value above it, because it is
// indented deeper, or the line below for more of this one, because of a backslash.
bool is_part_of_longer_value(const std::string& text, const Pair& pair) {
  if (pair.value.ends_with('\\')) return true;
  size_t indent_above = text.npos;
  std::istringstream lines(text.substr(0, pair.begin));
  for (std::string line; std::getline(lines, line);) {
    const size_t indent = line.find_first_not_of(kWhiteSpace);
    if (indent == line.npos || line[indent] == '#' || line[indent] == ';') continue;
    indent_above = line[indent] == '[' ? text.npos : std::min(indent_above, indent);
  }
  return pair.begin - (text.rfind('\n', pair.begin) + 1) > indent_above;
}

// The text when nothing but the named pair changes: the value of the first with this key, or one more line.
std::optional<std::string> with_only_change(const Ini& ini, const IniOptions& options) {
  std::string text = text_of(ini);
  const Pairs pairs = all_pairs(ini);
  const auto old = std::ranges::find(pairs, options.key, &Pair::key);
  if (old == pairs.end()) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    return text + options.key + " = " + options.value;
  }
  if (is_part_of_longer_value(text, *old)) return std::nullopt;
  return text.replace(std::min(old->value_at, text.size()), old->value.size(), options.value);
}

// White space at the end of a text means nothing to anybody.
bool is_same_text(std::string a, std::string b) {
  for (std::string* const text : {&a, &b}) text->resize(text->find_last_not_of(kWhiteSpace) + 1);
  return a == b;
}

// The library reads up to the first zero byte and would drop what is after it, which in a fixed-size file is
// more of them.
bool hides_text(const Ini& ini, const std::string& file) {
  if (ini->length == ini->fileSize) return false;
  std::ifstream in(file, std::ios::binary);
  in.seekg(ini->length);
  for (char c; in.get(c);) {
    if (c != '\0') return true;
  }
  return false;
}

// A file and a directory that an open for writing makes; taken back if nothing is to be in it.
class NewFile {
 public:
  explicit NewFile(const std::string& file)
      : file_(file), directory_(std::filesystem::path(file).parent_path()) {
    std::error_code ignored;
    is_new_ = !std::filesystem::exists(file_, ignored);
    has_new_directory_ = !directory_.empty() && !std::filesystem::exists(directory_, ignored);
  }
  // Throws with the system's reason when it could not be made.
  void require_place() const {
    if (is_new_ && access(directory_.empty() ? "." : directory_.c_str(), W_OK) != 0)
      fail_as_system_said(file_);
  }
  void take_back() const {
    std::error_code ignored;
    if (is_new_) std::filesystem::remove(file_, ignored);
    if (has_new_directory_) std::filesystem::remove(directory_, ignored);
  }

 private:
  std::filesystem::path file_, directory_;
  bool is_new_, has_new_directory_;
};

void print_set(const IniOptions& options, const Ini& now, bool fixed, bool written) {
  if (!options.as_json) return;
  print_json({{"key", options.key},
              {"value", options.value},
              {"text", now->length},
              {"size", now->fileSize},
              {"fixed", fixed},
              {"written", written}});
}

// Whether the value is there already: then nothing is written.
bool is_set(const IniOptions& options) {
  std::error_code ignored;
  if (!std::filesystem::exists(options.file, ignored)) return false;  // no failure to open, and none traced
  const Ini ini(QMXUtil_INIOpen(options.file.c_str()));
  std::string value;
  if (ini == nullptr || !search(ini, options.key, value) || value != options.value) return false;
  if (options.fixed_size > ini->fileSize) {
    throw CommandError(options.file +
                       ": the value is there already, and nothing is written: the file stays at " +
                       std::to_string(ini->fileSize) + " bytes");
  }
  print_set(options, ini, options.fixed_size != 0, false);
  return true;
}

// Changes nothing unless it is the named pair alone that changes, and says so when that did not reach the
// file.
void set(const IniOptions& options) {
  if (is_set(options)) return;
  const NewFile created(options.file);
  const INIAttr attr = {1, options.fixed_size, options.lock};
  Ini ini(QMXUtil_INIOpenEx(options.file.c_str(), &attr));
  if (ini == nullptr) created.require_place();
  ini = require_open(std::move(ini), options.file);
  const std::optional<std::string> wanted = with_only_change(ini, options);
  std::string read_back;
  const bool changed = wanted && !hides_text(ini, options.file) &&
                       QMXUtil_INIWrite(ini.get(), options.key.c_str(), options.value.c_str()) == 1 &&
                       is_same_text(text_of(ini), *wanted) && search(ini, options.key, read_back) &&
                       read_back == options.value;
  if (!changed) {
    ini->modified = 0;  // the close is not to write it
    ini.reset();
    created.take_back();
    throw CommandError(options.file + ": '" + options.key + " = " + options.value +
                       "' would not read back, or would change more than this key: left unchanged");
  }
  const std::string text = text_of(ini);
  const bool fixed = ini->fixedMode != 0;
  ini.reset();

  const Ini now = open_to_read(options.file);
  if (text != text_of(now)) {
    require_file(options.file, O_WRONLY);
    created.take_back();
    throw CommandError(options.file + ": the change did not reach the file");
  }
  print_set(options, now, fixed, true);
}

}  // namespace

void add_ini_commands(const Command& app) {
  auto options = std::make_shared<IniOptions>();
  const Command ini = app.add("ini", "Read and change settings of an INI file");
  const auto add = [&](const char* name, const char* text, void (*run)(const IniOptions&)) {
    const Command command = ini.add(name, text);
    command.option("file", options->file, "The INI file").required();
    command.option("--json", options->as_json, "Print JSON");
    command.runs([options, run] { run(*options); });
    return command;
  };
  const Command get_command = add("get", "Print the value of a key", get);
  get_command.option("key", options->key, "The key, exactly").required();
  get_command.footer("Example: qmxutil ini get /etc/recorder.ini volume");

  add("list", "Print all keys and values", list).footer("Example: qmxutil ini list /etc/recorder.ini --json");

  const Command set_command = add("set", "Set the value of a key; a missing file is created", set);
  set_command.option("key", options->key, "The key, looked for ignoring case").required();
  set_command.option("value", options->value, "Its new value").required();
  set_command
      .option("--fixed-size", options->fixed_size, "Keep the file at this size, rounded up to 2048 bytes")
      .between(1, 1024 * 1024 - 1);
  set_command.option("--lock", options->lock, "Hold a file lock while writing");
  set_command.footer("Example: qmxutil ini set /data/recorder.ini volume 7 --fixed-size 4096 --lock");
}
