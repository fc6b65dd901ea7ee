// Command lines for the shell, and the lines that a command prints.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "handles.h"
#include "qmx_format.h"

namespace qmxutil {

// Whether the character means nothing to a shell, wherever in a word it stands.
inline bool is_harmless_to_shell(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("_./+:,@%-", c) != nullptr);
}

// Room for what quote_for_shell() makes of a command in `size` bytes: each byte of a word can become four.
constexpr size_t quoted_size(size_t size) { return 4 * size + 2; }

// Writes a word for the shell: as it is when it is harmless, the empty one too, otherwise in single quotes.
// The result is where the next character goes.
inline char* quote_for_shell(std::string_view word, char* out) {
  if (std::all_of(word.begin(), word.end(), is_harmless_to_shell))
    return std::copy(word.begin(), word.end(), out);
  *out++ = '\'';
  for (const char c : word) {
    constexpr std::string_view kQuote = "'\\''";  // leave the quotes, an escaped quote, enter them again
    if (c == '\'') {
      out = std::copy(kQuote.begin(), kQuote.end(), out);
    } else {
      *out++ = c;
    }
  }
  *out++ = '\'';
  return out;
}

// Formats a command about one word ("pidof %s") into `text`, cut where that ends, and starts it for reading
// what it prints. The shell gets the same command with the word quoted where it needs to be.
template <size_t size>
Pipe open_command(char (&text)[size], const char* format, const char* word) {
  QMX_snprintf(text, size, format, word);
  const auto begin = static_cast<size_t>(std::strstr(format, "%s") - format);
  const size_t end = begin + strnlen(word, std::strlen(text) - begin);
  char command[quoted_size(size)];
  char* const rest = quote_for_shell({text + begin, end - begin}, std::copy_n(text, begin, command));
  std::memcpy(rest, text + end, std::strlen(text + end) + 1);
  return Pipe(popen(command, "re"));  // "e": no child of another thread inherits it
}

// getc() that goes on after a signal handler interrupted it.
inline int read_char(FILE* pipe) {
  for (;;) {
    const int c = std::getc(pipe);
    if (c != EOF || !std::ferror(pipe) || errno != EINTR) return c;
    std::clearerr(pipe);
  }
}

enum class Line { kEnd, kWhole, kCut };

// Reads what `size` - 1 bytes hold of a line, without its newline, and no further. A signal that interrupts
// the wait costs nothing (fgets would lose the line's beginning).
inline Line read_line_start(FILE* pipe, char* line, size_t size) {
  for (size_t length = 0;; ++length) {
    line[length] = '\0';
    if (length + 1 == size) return Line::kCut;
    const int c = read_char(pipe);
    if (c == EOF && length == 0) return Line::kEnd;
    if (c == EOF || c == '\n') return Line::kWhole;
    line[length] = static_cast<char>(c);
  }
}

// Reads one line, without its newline; what `size` - 1 bytes do not hold is passed over.
inline Line read_line(FILE* pipe, char* line, size_t size) {
  const Line start = read_line_start(pipe, line, size);
  if (start != Line::kCut) return start;
  int c = read_char(pipe);
  if (c == EOF || c == '\n') return Line::kWhole;
  while (c != EOF && c != '\n') c = read_char(pipe);
  return Line::kCut;
}

}  // namespace qmxutil
