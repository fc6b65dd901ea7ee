// Command lines for the shell, and the lines that a command prints.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace qmxutil {

// Writes `word` as one word of a POSIX shell command, in single quotes. False when `size` bytes do not hold
// it.
inline bool quote_for_shell(const char* word, char* out, size_t size) {
  size_t length = 0;
  const auto put = [&](char c) {
    if (length < size) out[length++] = c;
  };
  put('\'');
  for (; *word != '\0' && length < size; ++word) {
    if (*word == '\'') {  // leave the quotes, an escaped quote, enter them again
      put('\'');
      put('\\');
      put('\'');
    }
    put(*word);
  }
  put('\'');
  if (length == size) return false;
  out[length] = '\0';
  return true;
}

// Room for what quote_name() makes of a command in `size` bytes: each byte of a name can become four.
constexpr size_t quoted_size(size_t size) { return 4 * size + 3; }

// Copies a command whose first `tool_length` bytes are a tool and a blank, the rest the name that it is run
// for, with the name as one shell word.
template <size_t size>
void quote_name(const char (&command)[size], size_t tool_length, char (&quoted)[quoted_size(size)]) {
  std::memcpy(quoted, command, tool_length);
  quote_for_shell(command + tool_length, quoted + tool_length, sizeof quoted - tool_length);
}

enum class Line { kEnd, kWhole, kCut };

// Reads one line of a command's output, without its newline; what `size` - 1 bytes do not hold is passed
// over. A signal that interrupts the wait costs nothing (fgets would lose the line's beginning).
inline Line read_line(FILE* pipe, char* line, size_t size) {
  size_t length = 0;
  bool cut = false;
  bool any = false;
  for (;;) {
    const int c = getc(pipe);
    if (c == EOF && ferror(pipe) && errno == EINTR) {
      clearerr(pipe);
      continue;
    }
    if (c == EOF && !any) return Line::kEnd;
    if (c == EOF || c == '\n') break;
    any = true;
    if (length + 1 < size) {
      line[length++] = static_cast<char>(c);
    } else {
      cut = true;
    }
  }
  line[length] = '\0';
  return cut ? Line::kCut : Line::kWhole;
}

}  // namespace qmxutil
