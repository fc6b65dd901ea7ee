// What the subcommands share for output: checked once, JSON, the terminal's width, files written whole.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "json.h"

// Throws CommandError when anything printed so far cannot reach its reader.
void flush_output();

void print_json(const Json& document);

// Columns of the terminal that standard output is; 80 when it is none.
size_t terminal_columns();

// At most so many characters of a text, "..." at the end of one that is cut.
std::string fitted(const std::string& text, size_t columns);

// A text in lines that fit the terminal, those after the first indented.
std::string wrapped(const std::string& text, size_t indent);

// Makes the bytes the whole content of a file; "-" is standard output.
void write_file(const std::string& path, std::span<const uint8_t> bytes);
