// What the subcommands read: a file or standard input, in order, whole or through a window.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "qmx_reader.h"

// A file, or standard input for "-". Failures are thrown with what the system says.
class Input {
 public:
  explicit Input(const std::string& path);

  const std::string& path() const { return path_; }
  const std::string& name() const { return name_; }  // for people
  FILE* stream() const { return file_.get(); }
  // A path by which the library can open the same file once more; throws when the input cannot seek.
  std::string reopenable_path() const;
  bool is_seekable() const;
  uint64_t size() const;  // of what can seek

  // Reads `count` bytes, fewer only at the end.
  size_t read(void* to, size_t count);
  // Reads up to the next line feed, which is left out. False at the end.
  bool read_line(std::string& line);
  void skip(uint64_t count);

 private:
  struct Close {
    void operator()(FILE* file) const {
      if (file != stdin) std::fclose(file);
    }
  };
  [[noreturn]] void fail() const;

  std::string path_;
  std::string name_;
  std::unique_ptr<FILE, Close> file_;
};

// What the media file reader tells of a recording; nothing when it cannot read it.
std::optional<QMXReaderInfo> recording_info(const std::string& path);

// A stretch of an input that moves on, so that an input of any size takes little memory.
class Window {
 public:
  static constexpr size_t kRoom = size_t{1} << 20;

  explicit Window(Input& input, size_t room = kRoom) : input_(input), room_(room) { fill(); }

  // What is in view, followed by a zero byte.
  std::span<const uint8_t> view() const { return {bytes_.data() + begin_, bytes_.size() - 1 - begin_}; }
  uint64_t offset() const { return offset_; }  // of the view in the input
  bool reaches_end() const { return ended_; }  // the view does
  Input& input() { return input_; }

  // Up to `count` bytes anywhere in an input that can seek, or of those in view in one that cannot.
  std::vector<uint8_t> bytes_at(uint64_t offset, size_t count) const;
  // Drops `count` bytes, more than are in view if need be.
  void advance(uint64_t count);
  // Makes the view as large as there is room.
  void fill();

 private:
  Input& input_;
  size_t room_;
  std::vector<uint8_t> bytes_ = {0};
  size_t begin_ = 0;
  uint64_t offset_ = 0;
  bool ended_ = false;
};
