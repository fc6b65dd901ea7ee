#include "input.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "error.h"

Input::Input(const std::string& path)
    : path_(path),
      name_(path == "-" ? "standard input" : path),
      file_(path == "-" ? stdin : std::fopen(path.c_str(), "rbe")) {
  if (file_ == nullptr) fail();
}

void Input::fail() const { fail_as_system_said(name_); }

bool Input::is_seekable() const {
  struct stat status = {};
  return fstat(fileno(stream()), &status) == 0 && S_ISREG(status.st_mode);
}

uint64_t Input::size() const {
  struct stat status = {};
  if (fstat(fileno(stream()), &status) != 0) fail();
  return static_cast<uint64_t>(status.st_size);
}

std::string Input::reopenable_path() const {
  if (!is_seekable()) throw CommandError(name_ + " cannot seek, which this takes: give a file");
  return path_ == "-" ? "/dev/stdin" : path_;
}

size_t Input::read(void* to, size_t count) {
  const size_t got = std::fread(to, 1, count, stream());
  if (std::ferror(stream()) != 0) fail();
  return got;
}

bool Input::read_line(std::string& line) {
  char* text = nullptr;
  size_t room = 0;
  errno = 0;
  const ssize_t length = getline(&text, &room, stream());
  if (length >= 0) line.assign(text, static_cast<size_t>(length) - (text[length - 1] == '\n'));
  std::free(text);
  if (length < 0 && std::feof(stream()) == 0) fail();
  return length >= 0;
}

void Input::skip(uint64_t count) {
  if (is_seekable()) {
    if (fseeko(stream(), static_cast<off_t>(count), SEEK_CUR) != 0) fail();
    return;
  }
  char passed[4096];
  while (count > 0) {
    const size_t got = read(passed, std::min<uint64_t>(count, sizeof passed));
    if (got == 0) return;
    count -= got;
  }
}

std::optional<QMXReaderInfo> recording_info(const std::string& path) {
  QMXReaderParam param = {};
  param.path = path.c_str();
  QMXReader* reader = nullptr;
  if (QMXReaderOpen(&reader, &param) < 0) return std::nullopt;
  QMXReaderInfo info = {};
  const bool is_read = QMXReaderGetInfo(reader, &info) >= 0;
  QMXReaderClose(reader);
  return is_read ? std::optional(info) : std::nullopt;
}

std::vector<uint8_t> Window::bytes_at(uint64_t offset, size_t count) const {
  std::vector<uint8_t> bytes(count);
  if (input_.is_seekable()) {
    const ssize_t got = pread(fileno(input_.stream()), bytes.data(), count, static_cast<off_t>(offset));
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  } else {
    const auto shown = view().subspan(std::min<uint64_t>(offset - offset_, view().size()));
    bytes.assign(shown.begin(), shown.begin() + static_cast<ptrdiff_t>(std::min(count, shown.size())));
  }
  return bytes;
}

void Window::advance(uint64_t count) {
  const size_t dropped = static_cast<size_t>(std::min<uint64_t>(count, view().size()));
  begin_ += dropped;
  if (count > dropped) input_.skip(count - dropped);
  offset_ += count;
}

void Window::fill() {
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(begin_));
  begin_ = 0;
  for (size_t held = bytes_.size() - 1; !ended_ && held < room_; held = bytes_.size() - 1) {
    const size_t wanted = std::min(room_ - held, kRoom);
    bytes_.resize(held + wanted + 1);
    const size_t got = input_.read(bytes_.data() + held, wanted);
    ended_ = got < wanted;
    bytes_.resize(held + got + 1);
    bytes_.back() = 0;
  }
}
