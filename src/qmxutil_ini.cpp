// INI files: a text in memory, read line by line, changed by whole values, written back under a lock.
#include "qmxutil_ini.h"

#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "internal/handles.h"
#include "internal/ini.h"
#include "internal/lock.h"
#include "internal/trace.h"
#include "qmx_format.h"

using namespace qmxutil;

static_assert(sizeof(INIAttr) == 12 && offsetof(INIAttr, fixedSize) == 4 && offsetof(INIAttr, lock) == 8);
static_assert(offsetof(INIHandle, length) == 4 * sizeof(char*) && offsetof(INIHandle, modified) == 40 &&
              offsetof(INIHandle, attr) == 44 && offsetof(INIHandle, fixedMode) == 56 &&
              sizeof(INIHandle) == 64);

namespace {

using std::string_view;

constinit char MODULE[] = "qmxutil_ini";

// ---- Characters and stretches of text

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_line_break(char c) { return c == '\r' || c == '\n'; }
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }  // isspace() in the C locale
bool ends_key(char c) { return is_blank(c) || c == '='; }
char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

template <class Predicate>
const char* skip(const char* from, const char* end, Predicate in_class) {
  return std::find_if_not(from, end, in_class);
}

string_view between(const char* from, const char* end) { return {from, static_cast<size_t>(end - from)}; }

// The first `c` in [from, end), or `end`.
const char* find(const char* from, const char* end, char c) {
  const void* const hit = std::memchr(from, c, static_cast<size_t>(end - from));
  return hit != nullptr ? static_cast<const char*>(hit) : end;
}

bool holds(string_view text, char c) { return std::memchr(text.data(), c, text.size()) != nullptr; }

// Copies without a terminator; returns the number of characters.
size_t put(char* out, string_view text) {
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  return text.size();
}

string_view text_of(const INIHandle& handle) { return {handle.text, static_cast<size_t>(handle.length)}; }
const char* end_of(const INIHandle& handle) { return handle.text + handle.length; }

// ---- Memory

void trace_no_memory(uint64_t size, const char* function) {
  TRACE_AS(function, QMX_TRACE_ERROR, "malloc (%d) error!\n",
           static_cast<int>(std::min<uint64_t>(size, INT32_MAX)));
}

// Releases a handle and all that it owns.
void release(INIHandle* handle) {
  if (handle->text != nullptr) QMX_Free(handle->text, 0);
  if (handle->snapshot != nullptr) QMX_Free(handle->snapshot, 0);
  std::free(handle->path);
  QMX_Free(handle, 0);
}
using HandleOwner = std::unique_ptr<INIHandle, Releaser<release>>;

}  // namespace

// ---- Opening

namespace {

constexpr int64_t kLargestFile = 1024 * 1024 - 1;
constexpr int32_t kSizeUnit = 2048;  // committed sizes are multiples of it

bool is_directory(FILE* file) {
  struct stat status;
  return fstat(fileno(file), &status) == 0 && S_ISDIR(status.st_mode);
}

// Opens a file for reading. A directory can be opened, but has no text.
FileStream open_file(const char* path, const char* function) {
  FileStream file(path != nullptr ? QMX_FileOpen(path, QMX_FILE_READ) : nullptr);
  int error = path != nullptr ? errno : EFAULT;
  if (file != nullptr && is_directory(file.get())) {
    file.reset();
    error = EISDIR;
  }
  if (file == nullptr) {
    TRACE_AS(function, QMX_TRACE_ERROR, "Opening (%s) failed! (%d: %s\n", path != nullptr ? path : "(null)",
             error, std::strerror(error));
  }
  return file;
}

// Size of the file, negative when it cannot be told; the stream is at the start again.
int64_t measure(FILE* file) {
  if (QMX_FileSeek(file, 0, SEEK_END) != 0) return -1;
  const int64_t size = QMX_FileTell(file);
  return QMX_FileSeek(file, 0, SEEK_SET) == 0 ? size : -1;
}

// Reads up to `size` bytes; false when that fails. Fewer are no failure: what the kernel makes up as it is
// read (/sys, /proc) is shorter than its size says, and another process may have cut the file since.
bool read_up_to(FILE* file, char* text, int64_t size) {
  int64_t got = 1;
  for (int64_t length = 0; length < size && got > 0; length += got) {
    got = QMX_FileRead(file, text + length, size - length);
  }
  return got >= 0;
}

// Reads the text into the handle.
bool load(INIHandle& handle, FILE* file, int64_t size, const char* path, const char* function) {
  const auto room = static_cast<uint32_t>(size) + 1;
  handle.text = NEW_BLOCK_AS(function, char, room, QMX_FILL_ZERO).release();
  if (handle.text == nullptr) {
    trace_no_memory(room, function);
    return false;
  }
  if (!read_up_to(file, handle.text, size)) {
    TRACE_AS(function, QMX_TRACE_ERROR, "Failed to read %s\n", path);
    return false;
  }
  handle.cursor = handle.text;
  handle.length = static_cast<int32_t>(std::strlen(handle.text));
  handle.fileSize = static_cast<int32_t>(size);
  handle.snapshot = NEW_BLOCK_AS(function, char, room, QMX_FILL_ZERO).release();
  if (handle.snapshot == nullptr) {
    trace_no_memory(room, function);
    return false;
  }
  put(handle.snapshot, text_of(handle));
  return true;
}

// Creates an empty file, and its directory if that is missing; the open that follows reports a failure.
void create(const char* path) {
  const CString directory(strdup(path));
  if (directory == nullptr) return;
  if (char* const slash = std::strrchr(directory.get(), '/'); slash != nullptr) {
    *slash = '\0';
    if (access(directory.get(), R_OK) != 0) mkdir(directory.get(), 0755);
  }
  FileStream(QMX_FileOpen(path, QMX_FILE_CREATE));
}

int32_t round_up_to_unit(int32_t size) {
  constexpr uint32_t kUnit = kSizeUnit;
  return static_cast<int32_t>((static_cast<uint32_t>(size) + kUnit - 1) / kUnit * kUnit);
}

}  // namespace

INIHandle* QMXUtil_INIOpen(const char* path) {
  FileStream file = open_file(path, __func__);
  if (file == nullptr) return nullptr;
  const int64_t size = measure(file.get());
  if (size > kLargestFile) {
    TRACE_ERROR("Failed to handle %s due to too large size (%d bytes)\n", path,
                static_cast<int>(std::min<int64_t>(size, INT32_MAX)));
    return nullptr;
  }
  if (size < 0) {
    TRACE_ERROR("Failed to tell the size of %s\n", path);
    return nullptr;
  }

  HandleOwner handle(NEW_BLOCK(INIHandle, sizeof(INIHandle), QMX_FILL_ZERO).release());
  if (handle == nullptr) {
    trace_no_memory(sizeof(INIHandle), __func__);
    return nullptr;
  }
  if (size > 0 && !load(*handle, file.get(), size, path, __func__)) return nullptr;
  file.reset();
  handle->path = strdup(path);
  if (handle->path == nullptr) {
    trace_no_memory(std::strlen(path) + 1, __func__);
    return nullptr;
  }
  return handle.release();
}

INIHandle* QMXUtil_INIOpenEx(const char* path, const INIAttr* attr) {
  const bool may_create = path != nullptr && attr != nullptr && attr->writable != 0;
  if (may_create && access(path, F_OK) != 0) create(path);
  INIHandle* const handle = QMXUtil_INIOpen(path);
  if (handle == nullptr || attr == nullptr) return handle;
  handle->attr = *attr;
  if (attr->writable != 0) {
    handle->fixedMode = attr->fixedSize != 0;
    handle->attr.fixedSize = attr->fixedSize != 0
                                 ? round_up_to_unit(std::max(handle->fileSize, attr->fixedSize))
                                 : handle->fileSize;
  }
  return handle;
}

// ---- Reading line by line

namespace {

struct Pair {
  string_view key;
  string_view value;
};

// Takes a line (from its first character that is no white space to before its line feed) apart.
bool parse_pair(string_view line, Pair& pair) {
  if (holds(line, '[') || holds(line, ';') || holds(line, '#')) return false;
  const char* const end = line.data() + line.size();
  const char* const key_end = std::find_if(line.data(), end, ends_key);
  const char* const equals = find(key_end, end, '=');
  if (equals == end) return false;
  const char* const value = skip(equals + 1, end, is_blank);
  pair = {between(line.data(), key_end), between(value, find(value, end, '\r'))};
  return true;
}

void store(char* out, string_view text) { out[put(out, text)] = '\0'; }

}  // namespace

int QMXUtil_INIParseLine(INIHandle* handle, char* key, char* value, uint8_t* isPair) {
  if (handle == nullptr || handle->cursor == nullptr || key == nullptr || value == nullptr) {
    TRACE_ERROR("Invalid argument\n");
    return 0;
  }
  const char* const end = end_of(*handle);
  if (handle->cursor != handle->text && handle->cursor == end) return 0;
  const char* const line = skip(static_cast<const char*>(handle->cursor), end, is_space);
  const char* const line_end = find(line, end, '\n');
  Pair pair;
  *isPair = parse_pair(between(line, line_end), pair);
  if (*isPair) {
    store(key, pair.key);
    store(value, pair.value);
  } else if (line_end == end) {
    handle->cursor = nullptr;
    return 0;
  }
  handle->cursor = handle->text + (skip(line_end, end, is_space) - handle->text);
  return 1;
}

void QMXUtil_INIReset(INIHandle* handle) {
  if (handle != nullptr) handle->cursor = handle->text;
}

// ---- Search

namespace {

constexpr size_t kLongestSearchedKey = 63;  // characters

// Finds the first pair with this key from the cursor on. Only lines in which the key's text stands are taken
// apart, each of them once.
bool find_pair(const INIHandle& handle, string_view key, Pair& pair) {
  if (key.size() > kLongestSearchedKey) return false;
  const string_view probe = key.empty() ? "=" : key;
  const char* const end = end_of(handle);
  for (const char* from = handle.cursor; from < end;) {  // the start of a line
    const auto* const hit =
        static_cast<const char*>(memmem(from, static_cast<size_t>(end - from), probe.data(), probe.size()));
    if (hit == nullptr) return false;
    const void* const line_feed = memrchr(from, '\n', static_cast<size_t>(hit - from));
    const char* const line = line_feed != nullptr ? static_cast<const char*>(line_feed) + 1 : from;
    const char* const line_end = find(hit, end, '\n');
    const string_view content = between(skip(line, line_end, is_space), line_end);
    if (parse_pair(content, pair) && pair.key == key) return true;
    from = line_end + 1;
  }
  return false;
}

}  // namespace

int QMXUtil_INISearch(INIHandle* handle, const char* key, char* value) {
  Pair pair;
  bool found = false;
  if (handle == nullptr || handle->cursor == nullptr || key == nullptr || value == nullptr) {
    TRACE_AS("QMXUtil_INIParseLine", QMX_TRACE_ERROR, "Invalid argument\n");  // the line reader's own refusal
  } else {
    found = find_pair(*handle, key, pair);
  }
  if (value != nullptr) store(value, found ? pair.value : "");
  QMXUtil_INIReset(handle);
  return found;
}

// ---- The line that a write changes

namespace {

constexpr char kNoEntryMarks[] = "[]#;";  // a line with one of them is written to at its own '=' only

// The first occurrence of `key` in `line`, ignoring case, or npos.
size_t find_ignoring_case(string_view line, string_view key) {
  const auto same = [](char a, char b) { return folded(a) == folded(b); };
  const auto at = std::search(line.begin(), line.end(), key.begin(), key.end(), same);
  return at != line.end() ? static_cast<size_t>(at - line.begin()) : line.npos;
}

// Where a write found its key.
struct Match {
  const char* key = nullptr;  // in the text; null when no line has it
  bool marked = false;        // the line is a comment or a section, or its value looks like one
};

Match find_matching_line(const char* text, string_view key) {
  for (const char* at = text; at != nullptr;) {
    char line[kIniLineRoom + 1] = {};
    const char* const next = ini_getline(at, line);
    const size_t found = find_ignoring_case(line, key);
    if (found != string_view::npos && ends_key(line[found + key.size()])) {
      return {at + found, std::strpbrk(line + found, kNoEntryMarks) != nullptr};
    }
    at = next;
  }
  return {};
}

// The beginning of the value to replace, or null when no '=' marks one.
const char* find_old_value(const Match& match, const char* end) {
  const char* const limit = match.marked ? find(match.key, end, '\n') : end;
  const char* const equals = find(match.key, limit, '=');
  return equals != limit ? skip(equals + 1, end, is_blank) : nullptr;
}

}  // namespace

const char* ini_getline(const char* from, char* line) {
  const char* const line_feed = std::strchr(from, '\n');
  const size_t length = line_feed != nullptr ? static_cast<size_t>(line_feed - from) : std::strlen(from);
  if (length > kIniLineRoom) {
    TRACE_ERROR("insufficient size of line buf (%d > %d)\n", static_cast<int>(length),
                static_cast<int>(kIniLineRoom));
  }
  std::memcpy(line, from, std::min(length, kIniLineRoom));
  if (line_feed == nullptr) return nullptr;
  return line_feed + std::strspn(line_feed, " \t\r\n");
}

// ---- Writing

namespace {

constexpr uint32_t kWorkRoom = 2048;         // work buffer of a write for a text shorter than that
constexpr uint64_t kWorkFactor = 5;          // and for a longer one, times its length
constexpr char kPairFormat[] = "%s = %s\n";  // what a write appends
constexpr size_t kPairFormatLength = 4;      // without the key and the value

// Puts a text together; what does not fit is counted only.
class TextBuilder {
 public:
  TextBuilder(char* room, uint64_t size) : room_(room), size_(size) {}

  void add(string_view piece) {
    if (has_room(piece.size())) put(room_ + length_, piece);
    length_ += piece.size();
  }
  void add_pair(const char* key, const char* value) {
    const size_t length = std::strlen(key) + std::strlen(value) + kPairFormatLength;
    if (has_room(length)) {
      QMX_snprintf(room_ + length_, static_cast<uint32_t>(size_ - length_), kPairFormat, key, value);
    }
    length_ += length;
  }
  uint64_t length() const { return length_; }
  bool fits() const { return length_ < size_; }  // with a terminator

 private:
  bool has_room(size_t count) const { return length_ < size_ && count < size_ - length_; }

  char* room_;
  uint64_t size_;
  uint64_t length_ = 0;
};

// A change of the text: a new value in the place of the old one, or a new pair at the end.
struct Edit {
  string_view text;
  const char* old_value;  // null: there is none
  const char* key;
  const char* value;

  void build(TextBuilder& out) const {
    if (old_value != nullptr) {
      replace(out);
    } else {
      append(out);
    }
  }

 private:
  void replace(TextBuilder& out) const {
    const char* const end = text.data() + text.size();
    out.add(between(text.data(), old_value));
    out.add(value);
    const bool is_last_entry = find(old_value, end, '=') == end;
    const char* at = std::find_if(old_value, end, is_line_break);
    if (is_last_entry && skip(at, end, is_space) == end) {
      out.add("\n");
      return;
    }
    for (; at != end && (is_line_break(*at) || is_blank(*at)); ++at) {
      if (is_line_break(*at)) out.add({at, 1});
    }
    out.add(between(at, end));
    if (is_last_entry && text.back() != '\n') out.add("\n");
  }
  void append(TextBuilder& out) const {
    out.add(text);
    if (!text.empty() && !is_line_break(text.back())) out.add("\n");
    out.add_pair(key, value);
  }
};

uint32_t work_room(const Edit& edit) {
  const uint64_t pair = std::strlen(edit.key) + std::strlen(edit.value) + kPairFormatLength + 2;
  const uint64_t copy = edit.text.size() < kWorkRoom ? kWorkRoom : kWorkFactor * edit.text.size();
  return static_cast<uint32_t>(std::min<uint64_t>(edit.text.empty() ? pair : copy, INT32_MAX));
}

}  // namespace

int QMXUtil_INIWrite(INIHandle* handle, const char* key, const char* value) {
  if (handle == nullptr || key == nullptr || value == nullptr) {
    TRACE_ERROR("Not opened or NULL argument\n");
    return 0;
  }
  if (handle->attr.writable == 0) {
    TRACE_ERROR("No writable attribute!\n");
    return 0;
  }
  if (*key == '\0') {
    TRACE_ERROR("Length of 'key' is zero!\n");
    return 0;
  }

  Edit edit{text_of(*handle), nullptr, key, value};
  const uint32_t room = work_room(edit);
  QMXUtil_INIReset(handle);
  const Block<char> work = NEW_BLOCK(char, room, QMX_FILL_ZERO);
  if (work == nullptr) {
    trace_no_memory(room, __func__);
    return 0;
  }

  const Match match = edit.text.empty() ? Match{} : find_matching_line(handle->text, key);
  if (match.key != nullptr) {
    edit.old_value = find_old_value(match, end_of(*handle));
    if (edit.old_value == nullptr) {
      TRACE_ERROR("Check invalid line! (%s = ?)\n", key);
      return 0;
    }
  }

  TextBuilder out(work.get(), room);
  edit.build(out);
  const uint64_t size = out.length() + 1;
  Block<char> text;
  if (size <= INT32_MAX) text = NEW_BLOCK(char, static_cast<uint32_t>(size), QMX_FILL_ZERO);
  if (text == nullptr) {
    trace_no_memory(size, __func__);
    return 0;
  }
  if (out.fits()) {
    std::memcpy(text.get(), work.get(), out.length());
  } else {
    TextBuilder whole(text.get(), size);
    edit.build(whole);
  }
  if (handle->text != nullptr) QMX_Free(handle->text, 0);
  handle->text = text.release();
  handle->length = static_cast<int32_t>(out.length());
  handle->modified = 1;
  QMXUtil_INIReset(handle);
  return 1;
}

// ---- Closing

namespace {

// Held while any handle's file is rewritten.
constinit pthread_mutex_t inilock = PTHREAD_MUTEX_INITIALIZER;

bool is_changed(const INIHandle& handle) {
  return handle.modified != 0 &&
         (handle.snapshot == nullptr || std::strcmp(handle.snapshot, handle.text) != 0);
}

void lock_file(FILE* file) {
  while (flock(fileno(file), LOCK_EX) != 0 && errno == EINTR) {  // a signal must not leave it unlocked
  }
}

// A base library may hold back what it was given to write: that must not reach the file later.
void unlock_file(FILE* file) {
  std::fflush(file);
  flock(fileno(file), LOCK_UN);
}

// Writes the text to the file. Traces in the name of the close.
void commit(const INIHandle& handle, const char* function) {
  const INIAttr& attr = handle.attr;
  const bool fixed = handle.fixedMode != 0;
  const uint32_t mode = fixed ? QMX_FILE_WRITE_IN_PLACE : QMX_FILE_REPLACE;
  int32_t padding = fixed && handle.length < attr.fixedSize ? attr.fixedSize - handle.length : 0;
  Block<char> zeros;
  if (padding != 0) {
    zeros = NEW_BLOCK_AS(function, char, static_cast<uint32_t>(padding), QMX_FILL_ZERO);
    if (zeros == nullptr) {
      TRACE_AS(function, QMX_TRACE_ERROR, "Alloc %d bytes for padding failed!\n", padding);
      padding = 0;
    }
  }

  const MutexLock one_commit(inilock);
  FileStream file(QMX_FileOpen(handle.path, mode));
  if (file == nullptr) return;
  if (attr.lock != 0) lock_file(file.get());
  QMX_FileWrite(file.get(), handle.text, handle.length);
  if (padding != 0) QMX_FileWrite(file.get(), zeros.get(), padding);
  if (attr.lock != 0) unlock_file(file.get());
  QMX_FileSync(file.get());
  file.reset();
  TRACE_AS(function, QMX_TRACE_EVENT, "Closing '%s' - fixed: %d(%d bytes), padding: %d, fpmode: 0x%X\n",
           handle.path, fixed, attr.fixedSize, padding, mode);
}

}  // namespace

void QMXUtil_INIClose(INIHandle* handle) {
  if (handle == nullptr) return;
  const HandleOwner owner(handle);
  if (is_changed(*handle)) commit(*handle, __func__);
}
