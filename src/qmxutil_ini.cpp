// INI files: a text in memory, read line by line, changed by whole values, written back under a lock.
#include "qmxutil_ini.h"

#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "internal/byte_masks.h"
#include "internal/handles.h"
#include "internal/ini.h"
#include "internal/lock.h"
#include "internal/trace.h"
#include "qmx_format.h"

using namespace qmxutil;

namespace {

using std::string_view;

constinit char MODULE[] = "qmxutil_ini";

constexpr int64_t kLargestFile = 1024 * 1024 - 1;
constexpr int32_t kSizeUnit = 2048;          // committed sizes are multiples of it
constexpr uint32_t kWorkRoom = 2048;         // work buffer of a write for a text shorter than that
constexpr uint64_t kWorkFactor = 5;          // and for a longer one, times its length
constexpr size_t kLongestSearchedKey = 63;   // characters
constexpr char kNoEntryMarks[] = "[]#;";     // a line with one of them is written to at its own '=' only
constexpr char kPairFormat[] = "%s = %s\n";  // what a write appends
constexpr size_t kPairFormatLength = 4;      // without the key and the value

// Held while any handle's file is rewritten.
constinit pthread_mutex_t inilock = PTHREAD_MUTEX_INITIALIZER;

static_assert(sizeof(INIAttr) == 12 && offsetof(INIAttr, fixedSize) == 4 && offsetof(INIAttr, lock) == 8);
static_assert(offsetof(INIHandle, length) == 4 * sizeof(char*) && offsetof(INIHandle, modified) == 40 &&
              offsetof(INIHandle, attr) == 44 && offsetof(INIHandle, fixedMode) == 56 &&
              sizeof(INIHandle) == 64);

// ---- Characters and stretches of text

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_line_break(char c) { return c == '\r' || c == '\n'; }
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }       // isspace() in the C locale
bool makes_no_pair(char c) { return (c == '[') | (c == ';') | (c == '#'); }  // anywhere in the line
bool ends_key(char c) { return is_blank(c) || c == '='; }
char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

template <class Predicate>
const char* skip(const char* from, const char* end, Predicate in_class) {
  return std::find_if_not(from, end, in_class);
}

// The first `c` in [from, end), or `end`.
const char* find(const char* from, const char* end, char c) {
  const void* const hit = std::memchr(from, c, static_cast<size_t>(end - from));
  return hit != nullptr ? static_cast<const char*>(hit) : end;
}

// The last `c` in [from, end), or null.
const char* find_last(const char* from, const char* end, char c) {
  return static_cast<const char*>(memrchr(from, c, static_cast<size_t>(end - from)));
}

string_view between(const char* from, const char* end) { return {from, static_cast<size_t>(end - from)}; }

// Copies without a terminator; returns the number of characters.
size_t put(char* out, string_view text) {
  if (!text.empty()) std::memcpy(out, text.data(), text.size());
  return text.size();
}

string_view text_of(const INIHandle& handle) { return {handle.text, static_cast<size_t>(handle.length)}; }
const char* end_of(const INIHandle& handle) { return handle.text + handle.length; }

// ---- Pairs

struct Pair {
  string_view key;
  string_view value;
};

// Takes a line (from its first character that is no white space to before its line feed) apart.
bool parse_pair(string_view line, Pair& pair) {
  uint8_t marked = 0;  // without a way out of the loop it is done many characters at a time
  for (const char c : line) marked |= static_cast<uint8_t>(makes_no_pair(c));
  if (marked) return false;
  const char* const end = line.data() + line.size();
  const char* const key_end = std::find_if(line.data(), end, ends_key);
  const char* const equals = std::find(key_end, end, '=');
  if (equals == end) return false;
  const char* const value = skip(equals + 1, end, is_blank);
  pair = {between(line.data(), key_end), between(value, find(value, end, '\r'))};
  return true;
}

enum class Step { kEnd, kNoPair, kPair };

// Reads the line at the cursor, which is not null, and moves the cursor to the next.
Step next_line(INIHandle& handle, Pair& pair) {
  const char* const end = end_of(handle);
  const char* const line = skip(static_cast<const char*>(handle.cursor), end, is_space);
  const char* const line_end = find(line, end, '\n');
  const bool is_pair = parse_pair(between(line, line_end), pair);
  if (!is_pair && line_end == end) {
    handle.cursor = nullptr;
    return Step::kEnd;
  }
  handle.cursor += skip(line_end, end, is_space) - handle.cursor;
  return is_pair ? Step::kPair : Step::kNoPair;
}

// ---- Search

// The first place in [from, end) where `key` stands with a character that ends it behind it, or `end`. An
// empty key stands at each '='.
const char* find_key_text(const char* from, const char* end, string_view key) {
  const size_t behind = key.size();
  const string_view probe = key.empty() ? string_view("=") : key;
  const size_t last = probe.size() - 1;
  const char* at = from;
  for (; static_cast<size_t>(end - at) >= kMaskBytes + probe.size(); at += kMaskBytes) {
    uint64_t hits = (match_bytes(at, probe.front()) & match_bytes(at + last, probe.back())).bits();
    for (; hits != 0; hits &= hits - 1) {
      const char* const hit = at + std::countr_zero(hits);
      if (ends_key(hit[behind]) && between(hit, hit + behind) == key) return hit;
    }
  }
  for (; static_cast<size_t>(end - at) > behind; ++at) {
    if (*at == probe[0] && ends_key(at[behind]) && between(at, at + behind) == key) return at;
  }
  return end;
}

// Whether nothing but white space stands between `at` and the line feed or `from` before it.
bool begins_line(const char* from, const char* at) {
  while (at != from && is_space(at[-1]) && at[-1] != '\n') --at;
  return at == from || at[-1] == '\n';
}

// Finds the first pair with this key in [from, end), where lines are what next_line() makes of it. Returns
// the start of its line, or `end`.
const char* find_pair(const char* from, const char* end, string_view key, Pair& pair) {
  const auto is_foreign = [](char c) { return ends_key(c) || makes_no_pair(c) || c == '\n'; };
  const bool possible = key.size() <= kLongestSearchedKey &&
                        std::none_of(key.begin(), key.end(), is_foreign) &&
                        (key.empty() || !is_space(key[0]));
  if (!possible) return end;
  const char* at = find_key_text(from, end, key);
  while (at != end && !(begins_line(from, at) && parse_pair(between(at, find(at, end, '\n')), pair))) {
    at = find_key_text(at + 1, end, key);
  }
  return at;
}

// Whether the text behind an '=' and blanks goes on for `length` characters before the line or the text ends.
bool is_followed_by(const char* equals, const char* end, size_t length) {
  const char* const value = skip(equals + 1, end, is_blank);
  return static_cast<size_t>(end - value) >= length && find(value, value + length, '\n') == value + length;
}

// An '=' of the last line in [from, end) in which that many characters (at least 1) follow one, or null.
const char* find_long_value(const char* from, const char* end, size_t length) {
  const uint64_t close = ((uint64_t{1} << std::min<size_t>(length, 63)) - 1) << 1;
  const char* at = end;
  uint64_t next = 1;  // line feeds of the 64 bytes at `at`; the end of the text is as good as one
  for (; static_cast<size_t>(at - from) >= kMaskBytes; at -= kMaskBytes) {
    const char* const block = at - kMaskBytes;
    const uint64_t here = match_bytes(block, '\n').bits();
    const char* last = nullptr;
    for (uint64_t equals = match_bytes(block, '=').bits(); equals != 0; equals &= equals - 1) {
      const int i = std::countr_zero(equals);
      const uint64_t line_feeds = here >> i | next << 1 << (63 - i);
      if ((line_feeds & close) == 0 && is_followed_by(block + i, end, length)) last = block + i;
    }
    if (last != nullptr) return last;
    next = here;
  }
  while ((at = find_last(from, at, '=')) != nullptr && !is_followed_by(at, end, length)) {
  }
  return at;
}

// Leaves in `value` what the pairs of [from, end) would, had the value of each been copied there in turn,
// behind its first `written` bytes, which came later. From the last pair to the first, only a value longer
// than all after it has something to add.
void leave_passed_values(const char* from, const char* end, char* value, size_t written) {
  while (const char* const equals = find_long_value(from, end, written)) {
    const char* const line_feed = find_last(from, equals, '\n');
    const char* const line = line_feed != nullptr ? line_feed + 1 : from;
    const char* const line_end = find(equals, end, '\n');
    Pair pair;
    if (parse_pair(between(skip(line, line_end, is_space), line_end), pair) && pair.value.size() >= written) {
      std::memcpy(value + written, pair.value.data() + written, pair.value.size() - written);
      value[pair.value.size()] = '\0';
      written = pair.value.size() + 1;
    }
    end = line;
  }
}

// ---- Changing the text

// A cleared block. Traces in the name of the exported function when there is none to be had.
Block<char> new_block(uint64_t size, const char* function) {
  void* block = nullptr;
  if (size <= INT32_MAX) {  // the length of a text is an int32_t
    block = QMX_Malloc(static_cast<uint32_t>(size), 0, QMX_FILL_ZERO, __FILE_NAME__, __LINE__, function);
  }
  if (block == nullptr) {
    TRACE_AS(function, QMX_TRACE_ERROR, "malloc (%d) error!\n",
             static_cast<int>(std::min<uint64_t>(size, INT32_MAX)));
  }
  return Block<char>(static_cast<char*>(block));
}

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

// ---- Opening and closing

// Releases a handle and all that it owns.
void release(INIHandle* handle) {
  if (handle->text != nullptr) QMX_Free(handle->text, 0);
  if (handle->snapshot != nullptr) QMX_Free(handle->snapshot, 0);
  std::free(handle->path);
  QMX_Free(handle, 0);
}
using HandleOwner = std::unique_ptr<INIHandle, Releaser<release>>;

// Size of the file, negative when it cannot be told; the stream is at the start again.
int64_t measure(FILE* file) {
  if (QMX_FileSeek(file, 0, SEEK_END) != 0) return -1;
  const int64_t size = QMX_FileTell(file);
  return QMX_FileSeek(file, 0, SEEK_SET) == 0 ? size : -1;
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

bool is_changed(const INIHandle& handle) {
  return handle.modified != 0 &&
         (handle.snapshot == nullptr || std::strcmp(handle.snapshot, handle.text) != 0);
}

void lock_file(FILE* file) {
  while (flock(fileno(file), LOCK_EX) != 0 && errno == EINTR) {  // a signal must not leave it unlocked
  }
}

// Writes the text to the file. Traces in the name of the close.
void commit(const INIHandle& handle, const char* function) {
  const INIAttr& attr = handle.attr;
  const bool fixed = handle.fixedMode != 0;
  const uint32_t mode = fixed ? QMX_FILE_WRITE_IN_PLACE : QMX_FILE_REPLACE;
  int32_t padding = fixed && handle.length < attr.fixedSize ? attr.fixedSize - handle.length : 0;
  Block<char> zeros;
  if (padding != 0) {
    zeros.reset(static_cast<char*>(
        QMX_Malloc(static_cast<uint32_t>(padding), 0, QMX_FILL_ZERO, __FILE_NAME__, __LINE__, function)));
    if (zeros == nullptr) {
      TRACE_AS(function, QMX_TRACE_ERROR, "Alloc %d bytes for padding failed!\n", padding);
      padding = 0;
    }
  }

  pthread_mutex_lock(&inilock);
  if (FileStream file(QMX_FileOpen(handle.path, mode)); file != nullptr) {
    if (attr.lock != 0) lock_file(file.get());
    QMX_FileWrite(file.get(), handle.text, handle.length);
    if (padding != 0) QMX_FileWrite(file.get(), zeros.get(), padding);
    if (attr.lock != 0) flock(fileno(file.get()), LOCK_UN);
    QMX_FileSync(file.get());
    file.reset();
    TRACE_AS(function, QMX_TRACE_EVENT, "Closing '%s' - fixed: %d(%d bytes), padding: %d, fpmode: 0x%X\n",
             handle.path, fixed, attr.fixedSize, padding, mode);
  }
  pthread_mutex_unlock(&inilock);
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

int ini_parse_line(INIHandle* handle, char* key, size_t key_size, char* value, size_t value_size,
                   uint8_t* is_pair) {
  if (handle == nullptr || handle->cursor == nullptr || key == nullptr || value == nullptr) {
    TRACE_AS("QMXUtil_INIParseLine", QMX_TRACE_ERROR, "Invalid argument\n");
    return 0;
  }
  if (handle->cursor != handle->text && *handle->cursor == '\0') return 0;
  Pair pair;
  const Step step = next_line(*handle, pair);
  *is_pair = step == Step::kPair && pair.key.size() < key_size && pair.value.size() < value_size;
  if (*is_pair) {
    key[put(key, pair.key)] = '\0';
    value[put(value, pair.value)] = '\0';
  }
  return step != Step::kEnd;
}

INIHandle* QMXUtil_INIOpen(const char* path) {
  FileStream file(QMX_FileOpen(path, QMX_FILE_READ));
  if (file == nullptr) {
    const int error = errno;
    TRACE_ERROR("Opening (%s) failed! (%d: %s\n", path, error, strerror(error));
    return nullptr;
  }
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

  HandleOwner handle(reinterpret_cast<INIHandle*>(new_block(sizeof(INIHandle), __func__).release()));
  if (handle == nullptr) return nullptr;
  if (size > 0) {
    const auto room = static_cast<uint64_t>(size) + 1;
    handle->text = new_block(room, __func__).release();
    if (handle->text == nullptr) return nullptr;
    const int64_t got = QMX_FileRead(file.get(), handle->text, size);
    if (got != size) {
      TRACE_ERROR("Failed to read %s (%d of %d bytes)\n", path, static_cast<int>(got),
                  static_cast<int>(size));
      return nullptr;
    }
    handle->cursor = handle->text;
    handle->length = static_cast<int32_t>(std::strlen(handle->text));
    handle->fileSize = static_cast<int32_t>(size);
    handle->snapshot = new_block(room, __func__).release();
    if (handle->snapshot == nullptr) return nullptr;
    std::memcpy(handle->snapshot, handle->text, static_cast<size_t>(handle->length));
  }
  file.reset();
  handle->path = strdup(path);
  if (handle->path == nullptr) {
    TRACE_ERROR("malloc (%d) error!\n", static_cast<int>(std::strlen(path) + 1));
    return nullptr;
  }
  return handle.release();
}

INIHandle* QMXUtil_INIOpenEx(const char* path, const INIAttr* attr) {
  if (attr != nullptr && attr->writable != 0 && access(path, F_OK) != 0) create(path);
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

int QMXUtil_INIParseLine(INIHandle* handle, char* key, char* value, uint8_t* isPair) {
  return ini_parse_line(handle, key, SIZE_MAX, value, SIZE_MAX, isPair);
}

void QMXUtil_INIReset(INIHandle* handle) {
  if (handle != nullptr) handle->cursor = handle->text;
}

int QMXUtil_INISearch(INIHandle* handle, const char* key, char* value) {
  bool found = false;
  if (handle == nullptr || handle->cursor == nullptr || key == nullptr || value == nullptr) {
    TRACE_AS("QMXUtil_INIParseLine", QMX_TRACE_ERROR, "Invalid argument\n");  // the line reader's own refusal
    if (value != nullptr) *value = '\0';
  } else {
    const char* const end = end_of(*handle);
    Pair pair;
    const char* const line = find_pair(handle->cursor, end, key, pair);
    found = line != end;
    const size_t length = found ? put(value, pair.value) : 0;
    value[length] = '\0';
    leave_passed_values(handle->cursor, line, value, length + 1);
  }
  QMXUtil_INIReset(handle);
  return found;
}

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
  uint64_t room = std::strlen(key) + std::strlen(value) + kPairFormatLength + 2;
  if (!edit.text.empty()) {
    QMXUtil_INIReset(handle);
    room = edit.text.size() < kWorkRoom ? kWorkRoom : kWorkFactor * edit.text.size();
  }
  Block<char> work = new_block(room, __func__);
  if (work == nullptr) return 0;

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
  if (!out.fits()) {
    room = out.length() + 1;
    work.reset();
    work = new_block(room, __func__);
    if (work == nullptr) return 0;
    out = TextBuilder(work.get(), room);
    edit.build(out);
  }
  Block<char> text = new_block(out.length() + 1, __func__);
  if (text == nullptr) return 0;
  std::memcpy(text.get(), work.get(), out.length());
  if (handle->text != nullptr) QMX_Free(handle->text, 0);
  handle->text = text.release();
  handle->length = static_cast<int32_t>(out.length());
  handle->modified = 1;
  QMXUtil_INIReset(handle);
  return 1;
}

void QMXUtil_INIClose(INIHandle* handle) {
  if (handle == nullptr) return;
  const HandleOwner owner(handle);
  if (is_changed(*handle)) commit(*handle, __func__);
}
