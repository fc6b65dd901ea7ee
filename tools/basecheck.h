// What the checks of `qmxutil basecheck` share. Each runs in a process of its own, in a folder for its files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "qmx_file.h"

namespace basecheck {

struct Check {
  const char* group;
  const char* promise;    // at most 55 characters
  bool relied_on;         // by libqmxutil
  const char* otherwise;  // what becomes of libqmxutil's work when it does not hold; null: nothing
  void (*run)();          // throws Differs when it does not hold
};

std::span<const Check> memory_checks();
std::span<const Check> trace_checks();  // formatting and sleep too
std::span<const Check> file_checks();
std::span<const Check> bit_checks();  // bytes too
std::span<const Check> reader_checks();

struct Differs {
  std::string seen;
};

// Ends the check with what was seen unless it holds.
void expect(bool holds, const char* seen, ...) __attribute__((format(printf, 2, 3)));

// Numbers by chance, the same in every run of a check.
uint32_t any_word();
uint32_t below(size_t n);
std::string any_bytes(size_t size);

// Bytes with a page on either side that cannot be touched: next to the one after them, or to the one before.
class Guarded {
 public:
  explicit Guarded(const std::string& bytes, bool at_end = true);
  ~Guarded();
  Guarded(const Guarded&) = delete;
  Guarded& operator=(const Guarded&) = delete;
  uint8_t* data() const { return data_; }
  char* text() const { return reinterpret_cast<char*>(data_); }
  uint32_t size() const { return size_; }

 private:
  uint8_t* map_;
  size_t map_size_;
  uint8_t* data_;
  uint32_t size_;
};

// Files past the base library: what one holds, and one with that content.
std::string content(const char* path);
const char* put(const char* path, const std::string& bytes);

// A stream that must open.
struct CloseStream {
  void operator()(FILE* stream) const { QMX_FileClose(stream); }
};
using Stream = std::unique_ptr<FILE, CloseStream>;
Stream open_stream(const char* path, uint32_t mode);

// True when the part, in a second process, returned true.
bool in_second_process(const std::function<bool()>& part);

int open_descriptors();

inline std::string media;  // the recording for the reader's checks, empty when there is none

}  // namespace basecheck
