#include "probe_report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

std::string text(const char* format, ...) {
  char buffer[200];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return buffer;
}

std::string name_of(std::span<const Named> names, uint32_t code) {
  const auto it = std::ranges::find(names, code, &Named::code);
  return it != names.end() ? it->name : "unnamed";
}

void Report::line(const char* label, const std::string& shown) {
  lines.push_back(text("  %-20s ", label) + shown);
}

void Report::number(const char* key, uint64_t value, const char* label) {
  values[key] = value;
  line(label, std::to_string(value));
}

void Report::flag(const char* key, uint32_t value, const char* label) {
  values[key] = value != 0;
  line(label, value != 0 ? "yes" : "no");
}

void Report::named(const char* key, uint32_t value, const char* label, const std::string& name) {
  values[key] = value;
  line(label, name + " (" + std::to_string(value) + ")");
}

void Report::size(uint32_t width, uint32_t height, const char* label) {
  values["width"] = width;
  values["height"] = height;
  line(label, text("%u x %u", width, height));
}
