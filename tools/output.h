// What the subcommands share for output: checked once, JSON, the terminal's width, files written whole.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

// Throws CommandError when anything printed so far cannot reach its reader.
void flush_output();

// Bytes that are no UTF-8 become U+FFFD. An indent of -1 prints one line.
void print_json(const nlohmann::ordered_json& document, int indent = 2);

// Columns of the terminal that standard output is; 80 when it is none.
size_t terminal_columns();

// At most so many characters of a text, "..." at the end of one that is cut.
std::string fitted(const std::string& text, size_t columns);

// A text in lines that fit the terminal, those after the first indented.
std::string wrapped(const std::string& text, size_t indent);

// Makes the bytes the whole content of a file; "-" is standard output.
void write_file(const std::string& path, std::span<const uint8_t> bytes);
