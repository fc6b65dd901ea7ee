// The line readers of INI files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qmxutil_ini.h"

constexpr size_t kIniLineRoom = 64;  // characters of a line that a write looks at

// Reads the line at `from`, at most its first kIniLineRoom characters, into `line`, which comes cleared and
// has room for a terminator too. Returns the start of the next line, past the blanks and line breaks before
// it, or null when there is none.
const char* ini_getline(const char* from, char* line);

// QMXUtil_INIParseLine() with the sizes of the buffers: a pair that does not fit them is passed over like a
// comment.
int ini_parse_line(INIHandle* handle, char* key, size_t key_size, char* value, size_t value_size,
                   uint8_t* is_pair);
