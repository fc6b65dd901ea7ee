// The line reader of INI writes.
#pragma once

#include <cstddef>

constexpr size_t kIniLineRoom = 64;  // characters of a line that a write looks at

// Reads the line at `from`, at most its first kIniLineRoom characters, into `line`, which comes cleared and
// has room for a terminator too. Returns the start of the next line, past the blanks and line breaks before
// it, or null when there is none.
const char* ini_getline(const char* from, char* line);
