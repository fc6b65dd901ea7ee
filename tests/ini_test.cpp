// INI files: real files against a plain model of reading, searching, writing and committing, and what they
// hold when the disk is full in the middle of a commit, or the process ends in one.
#include <dlfcn.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <thread>

#include "qmxutil_ini.h"
#include "recording_base.h"

using qmxtest::GuardedBytes;
using qmxtest::read_file;
using qmxtest::recording;
using std::string;
using Texts = std::vector<string>;

namespace {

using Flock = std::tuple<int, string, string>;  // operation, base library call before it, the file's content
std::vector<Flock> flocks;
int flock_interruptions = 0;
std::vector<size_t> portions;      // what reads deliver, one after the other; SIZE_MAX: a failure
thread_local int calls_to_go = 0;  // of those below, until the process ends before one

// The C library's function.
template <class F>
F* next_call(const char* name) {
  if (--calls_to_go == 0) _exit(77);
  return reinterpret_cast<F*>(dlsym(RTLD_NEXT, name));
}
#define NEXT_CALL(function) next_call<decltype(function)>(#function)

}  // namespace

// The calls of a commit; the library and the stand-in find these first.
extern "C" {
int flock(int fd, int operation) noexcept {
  flocks.emplace_back(operation, recording().calls().back(), read_file("/dev/fd/" + std::to_string(fd)));
  if (flock_interruptions-- <= 0) return NEXT_CALL(flock)(fd, operation);
  errno = EINTR;
  return -1;
}
ssize_t pwritev(int fd, const iovec* parts, int n, off_t at) { return NEXT_CALL(pwritev)(fd, parts, n, at); }
size_t fwrite(const void* p, size_t size, size_t n, FILE* to) { return NEXT_CALL(fwrite)(p, size, n, to); }
int posix_fallocate(int fd, off_t at, off_t size) {  // without room the file has grown, as far as it went
  const int error = NEXT_CALL(posix_fallocate)(fd, at, size);
  return error == 0 ? 0 : error + ftruncate(fd, at + 1);
}
int ftruncate(int fd, off_t size) noexcept { return NEXT_CALL(ftruncate)(fd, size); }
int fsync(int) { return NEXT_CALL(fsync) == nullptr; }  // storage is not waited for
int fclose(FILE* file) { return NEXT_CALL(fclose)(file); }
}

namespace {

// ---- The model: the rules of reading and writing, one after the other, on strings

constexpr char kSpace[] = " \t\n\v\f\r";

using Step = std::tuple<int, int, string, string>;  // result, flag (2: not told), key, value

Step model_step(const string& text, size_t& cursor) {  // npos: null
  if (cursor == text.npos || (cursor != 0 && cursor == text.size())) return {0, 2, "", ""};
  cursor = std::min(text.find_first_not_of(kSpace, cursor), text.size());
  const size_t line_feed = text.find('\n', cursor);
  const string line = text.substr(cursor, line_feed - cursor);
  const bool is_pair = line.find_first_of("[;#") == line.npos && line.find('=') != line.npos;
  if (!is_pair && line_feed == text.npos) return cursor = text.npos, Step{0, 0, "", ""};
  cursor = std::min(text.find_first_not_of(kSpace, line_feed), text.size());
  if (!is_pair) return {1, 0, "", ""};
  const size_t key_end = line.find_first_of(" \t=");
  const size_t value = std::min(line.find_first_not_of(" \t", line.find('=', key_end) + 1), line.size());
  return {1, 1, line.substr(0, key_end), line.substr(value, line.find('\r', value) - value)};
}

std::optional<string> model_search(const string& text, const string& wanted) {
  for (size_t cursor = 0;;) {
    const auto [result, is_pair, key, value] = model_step(text, cursor);
    if (result == 0) return std::nullopt;
    if (is_pair == 1 && key == wanted && key.size() < 64) return value;
  }
}

std::optional<string> model_write(const string& text, const string& key, const string& value, Texts& traces) {
  const string pair = key + " = " + value + "\n";
  if (text.empty()) return pair;
  for (size_t at = 0; at != text.npos;) {
    const size_t line_feed = text.find('\n', at);
    const string line = text.substr(at, line_feed - at), seen = line.substr(0, 64);
    if (line.size() > 64) {
      traces.push_back("insufficient size of line buf (" + std::to_string(line.size()) + " > 64)\n");
    }
    const char* const hit = strcasestr(seen.c_str(), key.c_str());
    if (hit != nullptr && hit[key.size()] != '\0' && strchr(" \t=", hit[key.size()]) != nullptr) {
      const size_t equals = text.find('=', at + static_cast<size_t>(hit - seen.c_str()));
      if (equals == text.npos || (strpbrk(hit, "[]#;") != nullptr && equals > line_feed)) {
        traces.push_back("Check invalid line! (" + key + " = ?)\n");
        return std::nullopt;
      }
      const size_t old = std::min(text.find_first_not_of(" \t", equals + 1), text.size());
      const size_t end = std::min(text.find_first_of("\r\n", old), text.size());
      const size_t rest = std::min(text.find_first_not_of(" \t\r\n", end), text.size());
      const string head = text.substr(0, old) + value;
      const bool last = text.find('=', old) == text.npos;
      if (last && text.find_first_not_of(kSpace, end) == text.npos) return head + "\n";
      string breaks = text.substr(end, rest - end);
      std::erase_if(breaks, [](char c) { return c == ' ' || c == '\t'; });
      return head + breaks + text.substr(rest) + (last && text.back() != '\n' ? "\n" : "");
    }
    at = line_feed == text.npos ? text.npos : text.find_first_not_of(" \t\r\n", line_feed);
  }
  return text + (text.ends_with('\n') || text.ends_with('\r') ? "" : "\n") + pair;
}

// ---- Helpers

class IniTest : public qmxtest::BaseTest {
 protected:
  INIHandle* open(const string& content, INIAttr attr = {1, 0, 0}) {
    std::filesystem::remove_all(folder);  // a missing file comes into being with its folder
    if (!content.empty()) std::filesystem::create_directory(folder);
    if (!content.empty()) std::ofstream(path, std::ios::binary) << content;
    return QMXUtil_INIOpenEx(path.c_str(), &attr);
  }
  INIHandle* changed(const string& content, int fixed, size_t length) {
    INIHandle* const handle = open(content, {1, fixed, 1});
    QMXUtil_INIWrite(handle, "b", string(length, 'v').c_str());
    return handle;
  }
  unsigned number(unsigned below) { return static_cast<unsigned>(random_() % below); }
  template <size_t n>
  string one_of(const char* const (&choice)[n]) {
    return choice[number(n)];
  }
  string key() {
    if (number(12) == 0) return string(61 + number(5), 'k');
    return one_of(
        {"a", "b", "key", "Key", "key2", "a.b", "volume", "VOLUME", "[s]", "#", "a=b", "e\r", "\vb"});
  }
  string value() {
    if (number(30) == 0) return string(number(12000), 'v');
    return one_of({"", "1", "x y ", "a=b", "longer value", "\ttab", "50%", "v\r", "\xff\x80"});
  }
  string text() {
    string text;
    for (unsigned n = number(number(4) == 0 ? 60 : 12); n > 0; --n) {
      if (number(3) == 0) text += one_of({"", " ", "\t ", "\n", "\v", "\r\n", "; ", "# ", "[s]", "= "});
      if (number(8) != 0) text += key();
      text += one_of({"", " ", "=", "=", " = ", " = ", " = ", "\t=\t", " x = "}) + value();
      if (number(10) == 0) text += string(number(80), 'l');
      text += one_of({"", "\n", "\n", "\n", "\n", "\r\n", "\n\n", "\n \n\t", "\r", " ; c\n", "\n\f\n"});
    }
    return text + one_of({"", "", "", "; the end", "no pair"});  // after the last entry
  }

  qmxtest::TempDir dir;
  const string folder = dir.file(string(60, 'd')), path = folder + "/a.ini";
  std::mt19937 random_{5};

  void write(INIHandle* handle, string& now);
  void close(INIHandle* handle, const string& file, const string& now, bool changed);
};

// ---- Reading, searching and writing against the model

// Sets a value, sometimes that which is there, sometimes without memory for the work buffer or the new text.
void IniTest::write(INIHandle* handle, string& now) {
  const string wanted = key(), old_value = model_search(now, wanted).value_or("new");
  const string new_value = number(3) == 0 ? old_value : value();
  const size_t pair = wanted.size() + new_value.size() + 6;
  const size_t room = now.empty() ? pair : now.size() <= 2047 ? 2048 : 5 * now.size();
  Texts traces;
  auto expected = model_write(now, wanted, new_value, traces);
  const unsigned failing = number(10);
  if (failing == 1) traces.clear();
  if (failing == 1 || (failing == 2 && expected)) {
    traces.push_back("malloc (" + std::to_string(failing == 1 ? room : expected->size() + 1) + ") error!\n");
    expected.reset();
  }
  recording().reset();
  recording().fail(qmxtest::Op::kMalloc, static_cast<int>(failing));
  EXPECT_EQ(QMXUtil_INIWrite(handle, wanted.c_str(), new_value.c_str()), expected.has_value());
  EXPECT_EQ(recording().trace_texts(), traces);
  for (const auto& trace : recording().traces())
    EXPECT_EQ(trace.function, trace.text[0] == 'i' ? "ini_getline" : "QMXUtil_INIWrite");
  EXPECT_EQ(recording().calls()[0], "Malloc " + std::to_string(room) + " 0");
  now = expected.value_or(now);
  EXPECT_EQ(handle->length, static_cast<int>(now.size()));
  ASSERT_EQ(string(handle->text == nullptr ? "" : handle->text), now) << wanted << " = " << new_value;
}

// Commits, sometimes without memory for the padding or through a base library that holds writes back.
void IniTest::close(INIHandle* handle, const string& file, const string& now, bool changed) {
  const bool fixed = handle->fixedMode != 0, no_memory = number(4) == 0;
  const int size = handle->attr.fixedSize, length = static_cast<int>(now.size());
  int padding = fixed && size > length ? size - length : 0;
  Texts calls, traces;
  std::vector<Flock> expected_flocks;
  string content = file, closing = "QMXUtil_INIClose";
  if (changed) {
    const string mode = fixed ? "0xF0000008" : "0xF0000004", asked = std::to_string(padding);
    if (padding != 0) calls = {"Malloc " + asked + " 0"};
    if (padding != 0 && no_memory) traces = {"Alloc " + asked + " bytes for padding failed!\n"};
    if (no_memory) padding = 0;
    content = now + string(static_cast<size_t>(padding), '\0');
    if (fixed && content.size() < file.size()) content += file.substr(content.size());
    calls.push_back("FileOpen " + path + " " + mode);
    flock_interruptions = static_cast<int>(number(3));
    for (int i = 0; i <= flock_interruptions; ++i) expected_flocks.push_back({LOCK_EX, calls.back(), file});
    calls.push_back("FileWrite " + std::to_string(length));
    if (padding != 0) calls.push_back("FileWrite " + asked);
    expected_flocks.push_back({LOCK_UN, calls.back(), content});
    if (handle->attr.lock == 0) expected_flocks.clear();
    calls.insert(calls.end(), {"FileSync", "FileClose"});
    traces.push_back("Closing '" + path + "' - fixed: " + std::to_string(fixed) + "(" + std::to_string(size) +
                     " bytes), padding: " + std::to_string(padding) + ", fpmode: " + mode + "\n");
  }
  recording().reset();
  if (no_memory) recording().fail(qmxtest::Op::kMalloc);
  if (fixed && number(2) == 0) {
    recording().transfer_with(nullptr, [](FILE* stream, const void* data, int64_t count) {
      static char room[8192];
      std::setvbuf(stream, room, _IOFBF, sizeof room);
      return static_cast<int64_t>(std::fwrite(data, 1, static_cast<size_t>(count), stream));
    });
  }
  flocks.clear();
  QMXUtil_INIClose(handle);
  recording().stop_failing();
  Texts called = recording().calls();
  std::erase(called, "Free");
  EXPECT_EQ(called, calls);
  EXPECT_EQ(flocks, expected_flocks);
  EXPECT_EQ(recording().trace_texts(), traces);
  for (const auto& trace : recording().traces())
    EXPECT_EQ(std::to_string(trace.level) + trace.function, (trace.text[0] == 'A' ? "1" : "2") + closing);
  EXPECT_EQ(read_file(path), content);
}

TEST_F(IniTest, RandomFilesReadSearchWriteAndCommitAsTheModelDoes) {
  for (int round = 0; round < 400; ++round) {
    string now = text();
    const string before = now, file = now + string(number(3) == 0 ? number(3000) : 0, '\0');
    const int told = static_cast<int>(file.size());
    const int fixed = number(2) == 0 ? 0 : static_cast<int>(number(9000)) - 9;
    INIHandle* const handle = open(file, {1, fixed, static_cast<uint8_t>(number(2))});
    ASSERT_EQ(handle->length, static_cast<int>(now.size()));
    EXPECT_EQ(handle->attr.fixedSize, fixed == 0 ? told : (std::max(told, fixed) + 2047) / 2048 * 2048);
    EXPECT_EQ(handle->fixedMode, fixed != 0);
    for (unsigned i = number(5); i > 0; --i) write(handle, now);
    if (handle->text != nullptr) {
      size_t cursor = 0;
      for (Step step = {1, 0, "", ""}; std::get<0>(step) == 1;) {
        step = model_step(now, cursor);
        const GuardedBytes key(string(std::get<2>(step).size() + 1, 0)),
            value(string(std::get<3>(step).size() + 1, 0));
        uint8_t is_pair = 2;
        const int result = QMXUtil_INIParseLine(handle, key.text(), value.text(), &is_pair);
        EXPECT_EQ((Step{result, is_pair, key.text(), value.text()}), step);
      }
      QMXUtil_INIReset(handle);
      for (const string& wanted : {string(), key(), key(), key(), key()}) {
        const auto expected = model_search(now, wanted);
        GuardedBytes found(expected.value_or("").size() + 1);
        EXPECT_EQ(QMXUtil_INISearch(handle, wanted.c_str(), found.text()), expected.has_value()) << wanted;
        EXPECT_EQ(found.text(), expected.value_or("")) << wanted;
      }
    }
    close(handle, file, now, now != before);
  }
}

// Eight times the text takes about eight times as long, not 64 times.
TEST_F(IniTest, SearchIsLinearInTheText) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the checker looks at all of the text in each call of memmem()";
#endif
  string value(1000001, '\0');
  const string k63(63, 'k');
  const char* const cases[][2] = {{"=", "k"},   {"=", ""},     {"k", k63.c_str()}, {"k ", "k"},
                                  {"\v", "\v"}, {" k\n", "k"}, {"kk=;", "kk"}};
  for (const auto& [piece, key] : cases) {
    std::clock_t best[2] = {1 << 30, 1 << 30};
    for (int attempt = 0; attempt < 10; ++attempt) {
      string text;
      while (text.size() < (attempt % 2 == 0 ? 125000 : 1000000)) text += piece;
      INIHandle* const handle = open(text);
      const std::clock_t start = std::clock();
      QMXUtil_INISearch(handle, key, value.data());
      best[attempt % 2] = std::min(best[attempt % 2], std::clock() - start);
      QMXUtil_INIClose(handle);
    }
    EXPECT_LT(best[1], 24 * best[0] + 1000) << piece << " and " << key;
  }
}

// ---- Opening

TEST_F(IniTest, OpenReadsWholeFilesBelowOneMebibyte) {
  INIHandle* handle = QMXUtil_INIOpen(dir.write("b.ini", "a=1\n" + string(4092, '\0')).c_str());
  EXPECT_EQ(recording().calls(), (Texts{"FileOpen " + dir.file("b.ini") + " 0xF0000002", "FileSeek 0 2",
                                        "FileTell", "FileSeek 0 0", "Malloc 64 0", "Malloc 4097 0",
                                        "FileRead 4096", "Malloc 4097 0", "FileClose"}));
  EXPECT_EQ(recording().malloc_places(), 3u);
  EXPECT_EQ(std::to_string(handle->fileSize) + handle->snapshot, "4096a=1\n");
  EXPECT_EQ(QMXUtil_INIWrite(handle, "a", "2"), 0);
  QMXUtil_INIClose(handle);
  ASSERT_NE(handle = open(string(1048575, '\n')), nullptr);
  QMXUtil_INIClose(handle);
  const string large = dir.file("large"), huge = dir.write("huge", ""), none = dir.file("none");
  dir.write("large", string(1048576, '\n'));
  std::filesystem::resize_file(huge, uintmax_t{3} << 30);
  INIAttr attr = {1, 3000, 0};
  for (const char* const name :
       {large.c_str(), huge.c_str(), dir.path().c_str(), static_cast<const char*>(nullptr)})
    EXPECT_EQ(QMXUtil_INIOpenEx(name, &attr), nullptr);
  attr.writable = 0;
  EXPECT_EQ(QMXUtil_INIOpenEx(none.c_str(), &attr), nullptr);
  EXPECT_TRUE(recording().calls_of("FileOpen (null)").empty());
  EXPECT_FALSE(std::filesystem::exists(none));
  EXPECT_EQ(recording().trace_texts(),
            (Texts{"No writable attribute!\n",
                   "Failed to handle " + large + " due to too large size (1048576 bytes)\n",
                   "Failed to handle " + huge + " due to too large size (2147483647 bytes)\n",
                   "Opening (" + dir.path() + ") failed! (21: Is a directory\n",
                   "Opening ((null)) failed! (14: Bad address\n",
                   "Opening (" + none + ") failed! (2: No such file or directory\n"}));
}

// As from /sys, which tells 4096 bytes and delivers 23, or from a file that is cut while it is read.
TEST_F(IniTest, WhatIsReadUntilNothingMoreComesIsTheText) {
  const auto deliver = [](FILE* stream, void* buffer, int64_t) {
    const size_t count = portions.front();
    portions.erase(portions.begin());
    return count == SIZE_MAX ? -1 : static_cast<int64_t>(std::fread(buffer, 1, count, stream));
  };
  recording().transfer_with(deliver, nullptr);
  for (const auto& [first, second, text] :
       {std::tuple{3u, size_t{5}, "a=1\nb=2\n"}, {7, 0, "a=1\nb=2"}, {3, SIZE_MAX, nullptr}}) {
    portions = {first, second};
    INIHandle* const handle = open("a=1\nb=2\n");
    EXPECT_TRUE(portions.empty());
    ASSERT_EQ(handle != nullptr, text != nullptr);
    if (handle == nullptr) continue;
    EXPECT_EQ(std::to_string(handle->fileSize) + handle->text + handle->snapshot, string("8") + text + text);
    QMXUtil_INIClose(handle);
  }
  EXPECT_EQ(recording().trace_texts(), Texts{"Failed to read " + path + "\n"});
}

TEST_F(IniTest, AnEmptyFileHasNothingToRead) {
  umask(0);
  INIHandle* const handle = open("");
  EXPECT_EQ(std::filesystem::status(folder).permissions(), std::filesystem::perms(0755));
  char value[8] = "before";
  EXPECT_EQ(QMXUtil_INISearch(handle, "k", value), 0);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(QMXUtil_INISearch(nullptr, "k", value) + QMXUtil_INISearch(handle, "k", nullptr), 0);
  EXPECT_EQ(QMXUtil_INIWrite(handle, "", "v") + QMXUtil_INIWrite(handle, "k", nullptr), 0);
  const auto traces = recording().trace_texts();
  EXPECT_EQ(Texts(traces.begin(), traces.begin() + 3), Texts(3, "Invalid argument\n"));
  EXPECT_EQ(traces.at(3) + traces.at(4), "Length of 'key' is zero!\nNot opened or NULL argument\n");
  const auto first = recording().traces()[0];
  EXPECT_EQ(first.module + first.file + first.function, "qmxutil_iniqmxutil_ini.cppQMXUtil_INIParseLine");
  QMXUtil_INIClose(handle);
  QMXUtil_INIClose(nullptr);
}

// ---- A full disk, a process that ends

string text_of(size_t value_length) { return "a = 1\nb = " + string(value_length, 'v') + "\nc = 3\n"; }
string padded(const string& text) { return text + string(4096 - text.size(), '\0'); }

TEST_F(IniTest, CommitsOfAProcessGoOneAfterTheOther) {
  constexpr size_t kFiles = 100;
  std::vector<INIHandle*> handles;
  for (size_t i = 0; i < kFiles; ++i) handles.push_back(changed("a = 1\n", 0, 20));
  recording().clear_calls();
  std::vector<std::thread> threads;
  for (size_t first : {0, 1, 2, 3}) {
    threads.emplace_back([&, first] {
      for (size_t i = first; i < kFiles; i += 4) QMXUtil_INIClose(handles[i]);
    });
  }
  for (std::thread& thread : threads) thread.join();
  Texts order;
  for (const string& call : recording().calls_of("File")) order.push_back(call.substr(0, 7));
  Texts expected;
  for (size_t i = 0; i < kFiles; ++i)
    expected.insert(expected.end(), {"FileOpe", "FileWri", "FileSyn", "FileClo"});
  EXPECT_EQ(order, expected);
}

// What was there stays as it was; a new file holds the text without padding, or nothing.
TEST_F(IniTest, ALimitOnTheSizeOfFilesLosesNothing) {
  const string old = text_of(2000), old_fixed = padded(old);
  const std::tuple<string, int, size_t, string> rows[] = {{old, 0, 9000, old},
                                                          {old_fixed, 4096, 9000, old_fixed},
                                                          {"", 12288, 1, "b = v\n"},
                                                          {"", 4096, 9000, ""}};
  signal(SIGXFSZ, SIG_IGN);
  for (const auto& [content, fixed, length, expected] : rows) {
    const auto close = [handle = changed(content, fixed, length)] { QMXUtil_INIClose(handle); };
    qmxtest::with_limit(RLIMIT_FSIZE, close, 8192);
    EXPECT_EQ(read_file(path), expected);
  }
}

TEST_F(IniTest, AProcessThatEndsInACommitLeavesTheOldTextOrTheNewOne) {
  for (const auto& [fixed, length] :
       {std::pair{0, size_t{101}}, {0, 6000}, {0, 99}, {0, 3}, {4096, 101}, {4096, 6000}, {4096, 3}}) {
    const string old = text_of(100), wanted = text_of(length);
    int calls = 0, status = 0, seen_old = 0, seen_new = 0;
    do {
      INIHandle* handle = changed(fixed == 0 ? old : padded(old), fixed, length);
      if (const pid_t pid = fork(); pid != 0) {
        handle->modified = 0;
        waitpid(pid, &status, 0);
      } else {
        calls_to_go = calls + 1;
      }
      QMXUtil_INIClose(handle);
      if (calls_to_go > 0) _exit(0);
      handle = QMXUtil_INIOpen(path.c_str());
      const string text = handle->text;
      const bool may_trail = fixed != 0 && length < 100;  // the old text, until the padding is written
      EXPECT_TRUE(text == old || (may_trail ? text.starts_with(wanted) : text == wanted)) << calls << text;
      EXPECT_GE(handle->fileSize, fixed);
      seen_old += text == old;
      seen_new += text == wanted;
      QMXUtil_INIClose(handle);
    } while (status != 0 && ++calls < 100);
    EXPECT_GT(calls, 4);  // lock, write, unlock, sync, close
    EXPECT_GT(std::min(seen_old, seen_new), 0);
  }
}

}  // namespace
