#include "json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace {

// Bytes of the character that the text begins with (RFC 3629, 4); 0 when it is none.
size_t character_length(std::string_view text) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : 0; };
  const int first = byte(0), second = byte(1);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  const int least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  const int most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  if (second < least || second > most) return 0;
  const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  for (size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

std::string quoted(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const size_t length = character_length(text);
    const char c = text[0];
    char escaped[8];
    if (length == 0) {
      result += "\xEF\xBF\xBD";
    } else if (c == '"' || c == '\\') {
      result.append({'\\', c});
    } else if (c == '\n') {
      result += "\\n";
    } else if (c == '\t') {
      result += "\\t";
    } else if (static_cast<uint8_t>(c) < 0x20) {
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      result += escaped;
    } else {
      result += text.substr(0, length);
    }
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return result + '"';
}

}  // namespace

Json::Json(double value) {
  if (!std::isfinite(value)) return;  // JSON has no such numbers
  char text[32];
  text_.assign(text, std::to_chars(text, text + sizeof text, value).ptr);
  if (text_.find_first_of(".e") == text_.npos) text_ += ".0";
}

Json::Json(std::initializer_list<std::pair<std::string, Json>> members)
    : kind_(Kind::kObject), members_(members) {}

Json Json::array() {
  Json result;
  result.kind_ = Kind::kArray;
  return result;
}

Json& Json::operator[](const std::string& name) {
  const auto it = std::ranges::find(members_, name, &std::pair<std::string, Json>::first);
  return it != members_.end() ? it->second : members_.emplace_back(name, Json()).second;
}

void Json::push_back(Json item) { members_.emplace_back("", std::move(item)); }

void Json::write(std::string& to, const std::string& line_break, const char* colon) const {
  if (kind_ == Kind::kPlain || kind_ == Kind::kText) {
    to += kind_ == Kind::kText ? quoted(text_) : text_;
    return;
  }
  const std::string inner_break = line_break.empty() ? "" : line_break + "  ";
  to += kind_ == Kind::kObject ? '{' : '[';
  for (const auto& [name, value] : members_) {
    if (&value != &members_.front().second) to += ',';
    to += inner_break;
    if (kind_ == Kind::kObject) to += quoted(name) + colon;
    value.write(to, inner_break, colon);
  }
  if (!members_.empty()) to += line_break;
  to += kind_ == Kind::kObject ? '}' : ']';
}

std::string Json::in_one_line() const {
  std::string result;
  write(result, "", ":");
  return result;
}

std::string Json::in_lines() const {
  std::string result;
  write(result, "\n", ": ");
  return result;
}
