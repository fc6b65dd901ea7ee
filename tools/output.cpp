#include "output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "error.h"

void flush_output() {
  errno = 0;
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return;
  if (errno != 0) fail_as_system_said("standard output");
  throw CommandError("standard output: not all could be written");
}

void print_json(const Json& document) { std::printf("%s\n", document.in_lines().c_str()); }

size_t terminal_columns() {
  winsize window = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0 ? window.ws_col : 80;
}

std::string fitted(const std::string& text, size_t columns) {
  if (text.size() <= columns) return text;
  return columns < 3 ? text.substr(0, columns) : text.substr(0, columns - 3) + "...";
}

std::string wrapped(const std::string& text, size_t indent) {
  const size_t columns = std::max(terminal_columns(), indent + 20);
  std::string result, rest = text;
  while (rest.size() > columns) {
    const size_t blank = rest.rfind(' ', columns);
    if (blank == rest.npos || blank <= indent) break;
    result += rest.substr(0, blank) + "\n";
    rest = std::string(indent, ' ') + rest.substr(blank + 1);
  }
  return result + rest;
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
  if (path == "-") {
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    return;
  }
  FILE* const file = std::fopen(path.c_str(), "wbe");
  if (file == nullptr) fail_as_system_said(path);
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  const int error = errno;
  if (std::fclose(file) == 0 && written) return;
  if (!written) errno = error;
  fail_as_system_said(path);
}
