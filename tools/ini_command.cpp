// qmxutil ini: settings of an INI file, read and changed.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "qmxutil_ini.h"

namespace {

using nlohmann::json;

struct CloseIni {
  void operator()(INIHandle* handle) const { QMXUtil_INIClose(handle); }
};
using Ini = std::unique_ptr<INIHandle, CloseIni>;

struct Pair {
  std::string key;
  std::string value;
};

struct IniOptions {
  std::string file;
  std::string key;
  std::string value;
  int32_t fixed_size = 0;
  bool lock = false;
  bool as_json = false;
};

Ini open_to_read(const std::string& file) {
  Ini ini(QMXUtil_INIOpen(file.c_str()));
  if (ini == nullptr) throw CommandError("cannot read '" + file + "'");
  return ini;
}

// Room for any key or value of the file.
std::vector<char> room_for(const Ini& ini) { return std::vector<char>(static_cast<size_t>(ini->length) + 1); }

bool search(const Ini& ini, const std::string& key, std::string& value) {
  if (ini->text == nullptr) return false;
  std::vector<char> room = room_for(ini);
  const bool found = QMXUtil_INISearch(ini.get(), key.c_str(), room.data()) == 1;
  value = room.data();
  return found;
}

std::vector<Pair> all_pairs(const Ini& ini) {
  std::vector<Pair> pairs;
  std::vector<char> key = room_for(ini), value = room_for(ini);
  uint8_t is_pair = 0;
  while (ini->cursor != nullptr && QMXUtil_INIParseLine(ini.get(), key.data(), value.data(), &is_pair) == 1) {
    if (is_pair) pairs.push_back({key.data(), value.data()});
  }
  return pairs;
}

void print_json(const json& document) {
  std::printf("%s\n", document.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

void get(const IniOptions& options) {
  std::string value;
  if (!search(open_to_read(options.file), options.key, value)) {
    throw CommandError("no key '" + options.key + "' in '" + options.file + "'");
  }
  if (options.as_json) {
    print_json({{"key", options.key}, {"value", value}});
  } else {
    std::printf("%s\n", value.c_str());
  }
}

void list(const IniOptions& options) {
  const std::vector<Pair> pairs = all_pairs(open_to_read(options.file));
  if (options.as_json) {
    json document = json::array();
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

// Changes nothing unless the value can be read back, and says so when it did not reach the file.
void set(const IniOptions& options) {
  const INIAttr attr = {1, options.fixed_size, options.lock};
  Ini ini(QMXUtil_INIOpenEx(options.file.c_str(), &attr));
  if (ini == nullptr) throw CommandError("cannot open '" + options.file + "'");
  std::string read_back;
  if (QMXUtil_INIWrite(ini.get(), options.key.c_str(), options.value.c_str()) != 1 ||
      !search(ini, options.key, read_back) || read_back != options.value) {
    ini->modified = 0;  // the close is not to write it
    throw CommandError("'" + options.key + " = " + options.value + "' could not be read back from '" +
                       options.file + "': left unchanged");
  }
  const std::string text(ini->text, static_cast<size_t>(ini->length));
  const int32_t committed = ini->fixedMode ? ini->attr.fixedSize : 0;
  ini.reset();

  const Ini now = open_to_read(options.file);
  if (now->text == nullptr || text != now->text) {
    throw CommandError("the change did not reach '" + options.file + "'");
  }
  if (options.as_json) {
    print_json({{"key", options.key},
                {"value", options.value},
                {"text", now->length},
                {"size", now->fileSize},
                {"fixed", committed != 0}});
  }
}

}  // namespace

void add_ini_commands(CLI::App& app) {
  auto options = std::make_shared<IniOptions>();
  CLI::App* const ini = app.add_subcommand("ini", "Read and change settings of an INI file");
  ini->require_subcommand(1);
  const auto add = [&](const char* name, const char* text, void (*run)(const IniOptions&)) {
    CLI::App* const command = ini->add_subcommand(name, text);
    command->add_option("file", options->file, "The INI file")->required();
    command->add_flag("--json", options->as_json, "Print JSON");
    command->callback([options, run] { run(*options); });
    return command;
  };
  CLI::App* const get_command = add("get", "Print the value of a key", get);
  get_command->add_option("key", options->key, "The key, exactly")->required();
  get_command->footer("Example: qmxutil ini get /etc/recorder.ini volume");

  add("list", "Print all keys and values", list)
      ->footer("Example: qmxutil ini list /etc/recorder.ini --json");

  CLI::App* const set_command = add("set", "Set the value of a key; a missing file is created", set);
  set_command->add_option("key", options->key, "The key, looked for ignoring case")->required();
  set_command->add_option("value", options->value, "Its new value")->required();
  set_command
      ->add_option("--fixed-size", options->fixed_size,
                   "Keep the file at this size, rounded up to 2048 bytes")
      ->check(CLI::Range(1, 1024 * 1024 - 1));
  set_command->add_flag("--lock", options->lock, "Hold a file lock while writing");
  set_command->footer("Example: qmxutil ini set /data/recorder.ini volume 7 --fixed-size 4096 --lock");
}
