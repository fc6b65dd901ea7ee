// What `probe` has found out, and who finds out what.
#pragma once

#include <string>
#include <vector>

#include "json.h"
#include "stream_kind.h"

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...);

// Values for scripts, lines for people.
struct Report {
  Json values;
  std::vector<std::string> lines;
  std::vector<std::string> notes;

  void line(const char* label, const std::string& shown);
  void number(const char* key, uint64_t value, const char* label);
  void flag(const char* key, uint32_t value, const char* label);
  void named(const char* key, uint32_t value, const char* label, const std::string& name);
  void size(uint32_t width, uint32_t height, const char* label);
};

struct Named {
  uint32_t code;
  const char* name;
};
std::string name_of(std::span<const Named> names, uint32_t code);

void report_video(Report& report, const Stream& stream, Window& window);
void report_audio(Report& report, StreamKind kind, Window& window);
