#include "json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using nlohmann::ordered_json;

namespace {

std::string dump(const ordered_json& document, int indent) {
  return document.dump(indent, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace

Json::Json(double value) : text_(dump(value, -1)) {}

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

ordered_json Json::as_library() const {
  if (kind_ == Kind::kPlain) return ordered_json::parse(text_);
  if (kind_ == Kind::kText) return text_;
  ordered_json all = kind_ == Kind::kArray ? ordered_json::array() : ordered_json::object();
  for (const auto& [name, value] : members_) {
    if (kind_ == Kind::kArray) {
      all.push_back(value.as_library());
    } else {
      all[name] = value.as_library();
    }
  }
  return all;
}

std::string Json::in_one_line() const { return dump(as_library(), -1); }

std::string Json::in_lines() const { return dump(as_library(), 2); }
