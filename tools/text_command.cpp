// qmxutil text: Base64 and hexadecimal both ways, and values out of header and parameter lines.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "commands.h"
#include "input.h"
#include "output.h"
#include "qmx_memory.h"
#include "qmxutil_string.h"

namespace {

struct FreeBlock {
  void operator()(char* block) const { QMX_Free(block, 0); }
};
using NewText = std::unique_ptr<char, FreeBlock>;

// The next bytes, fewer than `count` only at the end.
std::string read_piece(Input& input, size_t count) {
  std::string bytes(count, '\0');
  bytes.resize(input.read(bytes.data(), count));
  return bytes;
}

// All characters but white space, which people and mail programs put between.
std::string read_dense(Input& input) {
  std::string all;
  for (std::string more; !(more = read_piece(input, 1 << 20)).empty();) {
    std::erase_if(more, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
    all += more;
    if (all.size() > INT32_MAX) throw CommandError(input.name() + ": too large");
  }
  return all;
}

void write_out(const void* bytes, size_t count) {
  if (count > 0 && std::fwrite(bytes, 1, count, stdout) != count) flush_output();  // which tells why
}

// Encodes piece by piece; a piece is a whole number of Base64 groups.
template <class Encode>
void encode(const std::string& path, Encode encode_piece) {
  constexpr size_t kPiece = 3 << 16;
  Input input(path);
  for (std::string piece; !(piece = read_piece(input, kPiece)).empty();) {
    uint32_t length = 0;
    const NewText text(encode_piece(reinterpret_cast<const uint8_t*>(piece.data()),
                                    static_cast<uint32_t>(piece.size()), length));
    if (text == nullptr) throw CommandError("out of memory");
    write_out(text.get(), length);
  }
  write_out("\n", 1);
}

void base64_encode(const std::string& path) {
  encode(path, [](const uint8_t* data, uint32_t size, uint32_t& length) {
    return QMXUtilBase64Encoding(data, static_cast<int32_t>(size), &length);
  });
}

void hex_encode(const std::string& path) {
  encode(path, [](const uint8_t* data, uint32_t size, uint32_t& length) {
    length = 2 * size;
    return QMXUtil_ConvBinToStr(data, size);
  });
}

using TokenGetter = const char* (*)(const char*, const char**, uint32_t*);

// The library's decoders take anything. A text is held to be what it should be when it is one token.
void require_one_token(const Input& input, const std::string& text, TokenGetter get_token, size_t multiple,
                       const char* what) {
  const char* start = text.c_str();
  uint32_t length = 0;
  get_token(text.c_str(), &start, &length);
  const size_t good = start == text.c_str() ? length : 0;
  if (good != text.size()) {
    throw CommandError(input.name() + ": not " + what + " at character " + std::to_string(good + 1));
  }
  if (text.size() % multiple != 0) throw CommandError(input.name() + ": " + what + " cut short");
}

// The library's decoder ends without a word at a ',' and at a '=', which may only be the last one or two.
void require_whole_base64(const Input& input, const std::string& text) {
  const size_t data = std::min(text.find_first_of(",="), text.size());
  const size_t other = text[data] == ',' ? data : text.find_first_not_of('=', data);
  if (other == text.npos && text.size() - data <= 2) return;
  throw CommandError(input.name() + ": Base64 ends at character " + std::to_string(data) + ", but \"" +
                     fitted(text.substr(data), 20) + "\" follows");
}

void base64_decode(const std::string& path) {
  Input input(path);
  const std::string text = read_dense(input);
  require_one_token(input, text, QMXUtilBase64GetString, 4, "Base64");
  require_whole_base64(input, text);
  std::vector<uint8_t> bytes(text.size());
  uint32_t length = 0;
  QMXUtilBase64Decoding(text.data(), bytes.data(), static_cast<uint32_t>(text.size()), &length);
  if (length != text.size() / 4 * 3 - static_cast<size_t>(std::ranges::count(text, '='))) {
    throw CommandError(input.name() + ": Base64 that the library does not decode whole");
  }
  write_out(bytes.data(), length);
}

void hex_decode(const std::string& path) {
  Input input(path);
  std::string text = read_dense(input);
  require_one_token(input, text, QMXUtilStrGetHexString, 2, "hexadecimal text");
  uint8_t* const bytes = reinterpret_cast<uint8_t*>(text.data());
  write_out(bytes, QMXUtil_ConvStrToBin(text.data(), static_cast<uint32_t>(text.size()), bytes));
}

// ---- field

using Getter = std::function<std::optional<Json>(const char* line, const char* key)>;

template <class Number>
Getter number(const char* (*get)(const char*, const char*, Number*)) {
  return [get](const char* line, const char* key) -> std::optional<Json> {
    Number value;
    if (get(line, key, &value) == nullptr) return std::nullopt;
    return value;
  };
}

Getter token(TokenGetter get) {
  return [get](const char* line, const char* key) -> std::optional<Json> {
    const char* from = line;
    if (key != nullptr) {
      from = QMXUtilStrFindString(line, key);
      if (from == nullptr) return std::nullopt;
      from += std::strlen(key);
    }
    const char* start;
    uint32_t length;
    if (get(from, &start, &length) == nullptr) return std::nullopt;
    return std::string(start, length);
  };
}

const std::map<std::string, Getter>& field_kinds() {
  static const std::map<std::string, Getter> kinds = {
      {"dec", number(QMXUtilStrGetDecNumber)},      {"int", number(QMXUtilStrGetIntNumber)},
      {"hex", number(QMXUtilStrGetHexNumber)},      {"float", number(QMXUtilStrGetFloatNumber)},
      {"time", number(QMXUtilStrGetTimeNumber)},    {"word", token(QMXUtilStrGetString)},
      {"hexstring", token(QMXUtilStrGetHexString)}, {"address", token(QMXUtilStrGetAddress)},
      {"safe", token(QMXUtilStrGetSafeString)},     {"rest", token(QMXUtilStrGetContext)},
      {"base64", token(QMXUtilBase64GetString)}};
  return kinds;
}

struct FieldOptions {
  std::string kind;
  std::optional<std::string> key;
  bool as_json = false;
};

void field(const FieldOptions& options) {
  const Getter& get = field_kinds().at(options.kind);
  size_t line_number = 0;
  bool found = false;
  Input input("-");
  for (std::string line; input.read_line(line);) {
    ++line_number;
    const auto value = get(line.c_str(), options.key ? options.key->c_str() : nullptr);
    if (!value) continue;
    found = true;
    const Json line_of_json = {{"line", line_number}, {"value", *value}};
    const std::string text = (options.as_json ? line_of_json.in_one_line() : value->text()) + '\n';
    write_out(text.data(), text.size());
  }
  if (!found) throw CommandError("no line has such a value");
}

void add_conversion(const Command& parent, const std::string& name, const std::string& help,
                    const std::string& example, void (*run)(const std::string&)) {
  const Command command = parent.add(name, help);
  const auto path = std::make_shared<std::string>("-");
  command.option("FILE", *path, "the input; standard input when it is missing or -");
  command.footer("Example:\n  " + example);
  command.runs([path, run] { run(*path); });
}

}  // namespace

void add_text_commands(const Command& app) {
  const Command text = app.add("text", "Base64, hexadecimal text, values out of lines");

  const Command base64 = text.add("base64", "Base64 (RFC 4648), either way");
  add_conversion(base64, "encode", "bytes to Base64, on one line", "qmxutil text base64 encode key.bin",
                 base64_encode);
  add_conversion(base64, "decode", "Base64 to bytes; white space is passed over, anything else is an error",
                 "echo aGVsbG8K | qmxutil text base64 decode", base64_decode);

  const Command hex = text.add("hex", "hexadecimal text, either way");
  add_conversion(hex, "encode", "bytes to hexadecimal text, on one line",
                 "head -c 16 clip.mp4 | qmxutil text hex encode", hex_encode);
  add_conversion(hex, "decode", "hexadecimal text to bytes; white space is passed over",
                 "echo 68656c6c6f0a | qmxutil text hex decode", hex_decode);

  const Command command =
      text.add("field", "The value after a key, of each line of standard input that has one");
  const auto options = std::make_shared<FieldOptions>();
  std::vector<std::string> kinds;
  for (const auto& [name, getter] : field_kinds()) kinds.push_back(name);
  command
      .option(
          "KIND", options->kind,
          "dec, int, hex: a number; float: in thousandths; time: hh:mm:ss in milliseconds; word, hexstring, "
          "address, safe, base64: a run of such characters; rest: all up to a carriage return")
      .required()
      .one_of(kinds);
  command.option("KEY", options->key, "text before the value; without it the first value of the line");
  command.option("--json", options->as_json, "an object a line: line number and value");
  command.footer("Example:\n  curl -sI http://localhost/ | qmxutil text field dec Content-Length:");
  command.runs([options] { field(*options); });
}
