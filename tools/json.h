// JSON as the subcommands print it: members stay in the order in which they came. The library that writes it
// takes long to compile, and is included in one file alone.
#pragma once

#include <concepts>
#include <initializer_list>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

class Json {
 public:
  Json() = default;  // null
  Json(bool value) : text_(value ? "true" : "false") {}
  Json(std::integral auto value) : text_(std::to_string(value)) {}
  Json(double value);
  Json(std::string text) : kind_(Kind::kText), text_(std::move(text)) {}
  Json(const char* text) : Json(std::string(text)) {}
  Json(std::initializer_list<std::pair<std::string, Json>> members);
  static Json array();

  Json& operator[](const std::string& name);  // of an object, to which it is added when it is not there
  void push_back(Json item);                  // onto an array
  const std::string& text() const { return text_; }  // of a string, a number or a constant

  // In one line, or each member on its own. Bytes that are no UTF-8 become U+FFFD.
  std::string in_one_line() const;
  std::string in_lines() const;

 private:
  enum class Kind { kPlain, kText, kArray, kObject };
  nlohmann::ordered_json as_library() const;

  Kind kind_ = Kind::kPlain;
  std::string text_ = "null";
  std::vector<std::pair<std::string, Json>> members_;  // without names in an array
};
