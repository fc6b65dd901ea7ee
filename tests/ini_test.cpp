// INI files: real files against a plain model of reading, searching and writing, every failure, two writers.
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <random>

#include "qmxutil_ini.h"
#include "recording_base.h"

using qmxtest::Op;
using qmxtest::read_file;
using qmxtest::recording;
using std::string;

namespace {

std::vector<string> flocks;  // operation, the base library call before it, and the file's size
int flock_interruptions = 0;
std::vector<int64_t> portions;  // what reads deliver, one after the other

}  // namespace

// The system call, noted down; the library under test finds this one first.
extern "C" int flock(int fd, int operation) noexcept {
  struct stat status;
  fstat(fd, &status);
  flocks.push_back((operation == LOCK_EX ? "EX after " : "UN after ") + recording().calls().back() + " at " +
                   std::to_string(status.st_size));
  if (flock_interruptions > 0 && flock_interruptions-- > 0) {
    errno = EINTR;
    return -1;
  }
  return static_cast<int>(syscall(SYS_flock, fd, operation));
}

namespace {

// ---- The model: the rules of reading and writing, one after the other, on strings

constexpr char kSpace[] = " \t\n\v\f\r";

struct Step {
  int result = 0;
  int is_pair = 2;  // 2: not told
  string key = {}, value = {};
  bool operator==(const Step&) const = default;
};
void PrintTo(const Step& step, std::ostream* out) {
  *out << step.result << step.is_pair << '[' << step.key << "][" << step.value << ']';
}

Step model_step(const string& text, size_t& cursor) {  // npos: null
  if (cursor == text.npos || (cursor != 0 && cursor == text.size())) return {};
  if (text.find_first_of("=\n", cursor) == text.npos) return cursor = text.npos, Step{0, 0};
  cursor = std::min(text.find_first_not_of(kSpace, cursor), text.size());
  const size_t line_feed = text.find('\n', cursor);
  const string line = text.substr(cursor, line_feed - cursor);
  const bool is_pair = line.find_first_of("[;#") == line.npos && line.find('=') != line.npos;
  if (!is_pair && line_feed == text.npos) return cursor = text.npos, Step{0, 0};
  cursor = std::min(text.find_first_not_of(kSpace, line_feed), text.size());
  if (!is_pair) return {1, 0};
  const size_t key_end = line.find_first_of(" \t=");
  const size_t value = line.find_first_not_of(" \t", line.find('=', key_end) + 1);
  return {1, 1, line.substr(0, key_end),
          value == line.npos ? "" : line.substr(value, line.find('\r', value) - value)};
}

std::optional<string> model_search(const string& text, const string& key) {
  for (size_t cursor = 0;;) {
    const Step step = model_step(text, cursor);
    if (step.result == 0) return std::nullopt;
    if (step.is_pair == 1 && step.key == key && key.size() < 64) return step.value;
  }
}

std::optional<string> model_write(const string& text, const string& key, const string& value,
                                  std::vector<string>& traces) {
  const string pair = key + " = " + value + "\n";
  if (text.empty()) return pair;
  for (size_t at = 0; at != text.npos;) {
    const size_t line_feed = text.find('\n', at);
    const string line = text.substr(at, line_feed - at), seen = line.substr(0, 64);
    if (line.size() > 64) {
      traces.push_back("insufficient size of line buf (" + std::to_string(line.size()) + " > 64)\n");
    }
    const char* const hit = strcasestr(seen.c_str(), key.c_str());
    const char behind = hit == nullptr ? '\0' : hit[key.size()];
    if (behind == ' ' || behind == '\t' || behind == '=') {
      const bool marked = strpbrk(hit, "[]#;") != nullptr;
      const size_t equals = text.find('=', at + static_cast<size_t>(hit - seen.c_str()));
      if (equals == text.npos || (marked && equals > line_feed)) {
        traces.push_back("Check invalid line! (" + key + " = ?)\n");
        return std::nullopt;
      }
      const size_t old = std::min(text.find_first_not_of(" \t", equals + 1), text.size());
      string rest = text.substr(std::min(text.find_first_of("\r\n", old), text.size()));
      const string head = text.substr(0, old) + value;
      const bool last = text.find('=', old) == text.npos;
      if (last && rest.find_first_not_of(kSpace) == rest.npos) return head + "\n";
      const size_t content = std::min(rest.find_first_not_of(" \t\r\n"), rest.size());
      string breaks = rest.substr(0, content);
      std::erase_if(breaks, [](char c) { return c == ' ' || c == '\t'; });
      rest = breaks + rest.substr(content);
      return head + rest + (last && rest.back() != '\n' ? "\n" : "");
    }
    at = line_feed == text.npos ? text.npos : text.find_first_not_of(" \t\r\n", line_feed);
  }
  return text + (text.ends_with('\n') || text.ends_with('\r') ? "" : "\n") + pair;
}

// ---- Helpers

using Texts = std::vector<string>;

string repeated(char c, size_t count) { return string(count, c); }

class IniTest : public qmxtest::BaseTest {
 protected:
  INIHandle* open(const string& content, INIAttr attr = {1, 0, 0}) {
    return QMXUtil_INIOpenEx(dir.write("a.ini", content).c_str(), &attr);
  }
  unsigned number(unsigned below) { return static_cast<unsigned>(random_() % below); }
  template <size_t n>
  string one_of(const char* const (&choice)[n]) {
    return choice[number(n)];
  }
  string key() {
    if (number(12) == 0) return repeated('k', 61 + number(5));
    return one_of({"a", "b", "key", "Key", "key2", "a.b", "volume", "VOLUME", "[s]", "#", "a=b", "e\r"});
  }
  string value() {
    if (number(30) == 0) return repeated('v', number(12000));
    return one_of({"", "1", "x y ", "a=b", "longer value", "\ttab", "50%", "v\r", "\xff\x80"});
  }
  string text() {
    string text;
    for (unsigned n = number(number(4) == 0 ? 60 : 12); n > 0; --n) {
      if (number(3) == 0) text += one_of({"", " ", "\t ", "\n", "\v", "\r\n", "; ", "# ", "[s]", "= "});
      if (number(8) != 0) text += key();
      text += one_of({"", " ", "=", "=", " = ", " = ", " = ", "\t=\t", " x = "}) + value();
      if (number(10) == 0) text += repeated('l', number(80));
      text += one_of({"", "\n", "\n", "\n", "\n", "\r\n", "\n\n", "\n \n\t", "\r", " ; c\n", "\n\f\n"});
    }
    return text + one_of({"", "", "", "; the end", "no pair"});  // behind the last entry
  }

  qmxtest::TempDir dir;
  const string path = dir.file("a.ini");
  std::mt19937 random_{5};
};

Step next_step(INIHandle* handle, size_t length) {
  qmxtest::GuardedBytes key(length + 1), value(length + 1);
  uint8_t is_pair = 2;
  const int result = QMXUtil_INIParseLine(handle, key.text(), value.text(), &is_pair);
  if (is_pair != 1) return {result, is_pair};
  return {result, is_pair, key.text(), value.text()};
}

// ---- Reading, searching and writing against the model

TEST_F(IniTest, RandomFilesReadSearchAndWriteAsTheModelDoes) {
  for (int round = 0; round < 400; ++round) {
    string now = text();
    const unsigned fixed = number(2) * number(9000);
    const string file = now + repeated('\0', number(3) == 0 ? number(3000) : 0);
    INIHandle* const handle = open(file, {1, static_cast<int32_t>(fixed), static_cast<uint8_t>(number(2))});
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(handle->length, static_cast<int>(now.size()));

    if (!file.empty()) {
      size_t cursor = 0;
      for (Step step = {1}; step.result == 1;) {
        step = model_step(now, cursor);
        EXPECT_EQ(next_step(handle, now.size()), step);
      }
      QMXUtil_INIReset(handle);
      for (const string& wanted : {string(), key(), key(), key(), key()}) {
        const auto expected = model_search(now, wanted);
        qmxtest::GuardedBytes found(expected.value_or("").size() + 1);
        EXPECT_EQ(QMXUtil_INISearch(handle, wanted.c_str(), found.text()), expected.has_value()) << wanted;
        EXPECT_EQ(found.text(), expected.value_or("")) << wanted;
      }
    }

    const string before = now;
    for (unsigned i = number(5); i > 0; --i) {
      const string wanted = key(), new_value = value();
      Texts traces;
      const auto expected = model_write(now, wanted, new_value, traces);
      recording().clear_traces();
      recording().clear_calls();
      EXPECT_EQ(QMXUtil_INIWrite(handle, wanted.c_str(), new_value.c_str()), expected.has_value());
      EXPECT_EQ(recording().trace_texts(), traces);
      for (const auto& trace : recording().traces())
        EXPECT_EQ(trace.function, trace.text[0] == 'i' ? "ini_getline" : "QMXUtil_INIWrite");
      if (!now.empty()) {
        const size_t room = now.size() <= 2047 ? 2048 : 5 * now.size();
        EXPECT_EQ(recording().calls()[0], "Malloc " + std::to_string(room) + " 0");
        EXPECT_EQ(recording().calls_of("Malloc").size(), expected ? 2u : 1u);
      }
      now = expected.value_or(now);
      ASSERT_EQ(handle->text == nullptr ? "" : handle->text, now) << wanted << " = " << new_value;
      ASSERT_EQ(handle->length, static_cast<int>(now.size()));
    }
    QMXUtil_INIClose(handle);
    const size_t size = fixed == 0 ? 0 : (std::max(file.size(), size_t{fixed}) + 2047) / 2048 * 2048;
    const string padded = now + repeated('\0', size > now.size() ? size - now.size() : 0);
    EXPECT_EQ(read_file(path), now == before ? file : padded);
  }
}

// Eight times the text takes about eight times as long, not 64 times.
TEST_F(IniTest, SearchIsLinearInTheText) {
  const string many(63, 'k');
  string value(1000001, '\0');
  for (const auto& [piece, key] : {std::pair{"=", "k"},
                                   {"=", ""},
                                   {"k", many.c_str()},
                                   {"k ", "k"},
                                   {"\v", "\v"},
                                   {" k\n", "k"},
                                   {"kk=;", "kk"}}) {
    std::clock_t best[2] = {1 << 30, 1 << 30};
    for (int attempt = 0; attempt < 10; ++attempt) {
      const size_t size = attempt % 2 == 0 ? 125000 : 1000000;
      string text;
      while (text.size() < size) text += piece;
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
  INIHandle* handle = QMXUtil_INIOpen(dir.write("a.ini", "a=1\n" + string(4092, '\0')).c_str());
  EXPECT_EQ(recording().calls(),
            (Texts{"FileOpen " + path + " 0xF0000002", "FileSeek 0 2", "FileTell", "FileSeek 0 0",
                   "Malloc 64 0", "Malloc 4097 0", "FileRead 4096", "Malloc 4097 0", "FileClose"}));
  EXPECT_EQ(recording().malloc_places(), 3u);
  EXPECT_EQ(handle->fileSize, 4096);
  EXPECT_STREQ(handle->snapshot, "a=1\n");
  EXPECT_EQ(QMXUtil_INIWrite(handle, "a", "2"), 0);
  QMXUtil_INIClose(handle);
  ASSERT_NE(handle = open(string(1048575, '\n')), nullptr);
  QMXUtil_INIClose(handle);
  for (const uintmax_t size : {uintmax_t{1048576}, uintmax_t{3} << 30}) {
    std::filesystem::resize_file(path, size);
    EXPECT_EQ(QMXUtil_INIOpen(path.c_str()), nullptr);
  }
  const string none = dir.file("none"), large = "Failed to handle " + path + " due to too large size (";
  const INIAttr writable = {1, 0, 0};
  for (const char* const bad : {none.c_str(), dir.path().c_str()}) EXPECT_EQ(QMXUtil_INIOpen(bad), nullptr);
  EXPECT_EQ(QMXUtil_INIOpenEx(nullptr, &writable), nullptr);
  EXPECT_EQ(recording().trace_texts(),
            (Texts{"No writable attribute!\n", large + "1048576 bytes)\n", large + "2147483647 bytes)\n",
                   "Opening (" + none + ") failed! (2: No such file or directory\n",
                   "Opening (" + dir.path() + ") failed! (21: Is a directory\n",
                   "Opening ((null)) failed! (14: Bad address\n"}));
}

// As from /sys, which tells 4096 bytes and delivers 23, or from a file that is cut while it is read.
TEST_F(IniTest, WhatIsReadUntilNothingMoreComesIsTheText) {
  const auto deliver = [](FILE* stream, void* buffer, int64_t) {
    const int64_t count = portions.front();
    portions.erase(portions.begin());
    return count > 0 ? static_cast<int64_t>(std::fread(buffer, 1, static_cast<size_t>(count), stream))
                     : count;
  };
  using Portions = std::vector<int64_t>;
  for (const auto& [delivered, text] :
       {std::pair{Portions{3, 3, 2}, "a=1\nb=2\n"}, {{3, 3, 0}, "a=1\nb="}, {{0}, ""}, {{3, -1}, nullptr}}) {
    recording().transfer_with(deliver, nullptr);
    portions = delivered;
    INIHandle* const handle = open("a=1\nb=2\n");
    EXPECT_TRUE(portions.empty());
    ASSERT_EQ(handle != nullptr, text != nullptr);
    if (handle == nullptr) continue;
    EXPECT_STREQ(handle->text, text);
    EXPECT_STREQ(handle->snapshot, text);
    EXPECT_EQ(handle->fileSize, 8);
    QMXUtil_INIClose(handle);
  }
  EXPECT_EQ(recording().trace_texts(), Texts{"Failed to read " + path + "\n"});
}

TEST_F(IniTest, AnEmptyFileHasNothingToReadUntilItIsWrittenTo) {
  INIHandle* const handle = open("");
  char value[8] = "before";
  EXPECT_EQ(QMXUtil_INISearch(handle, "k", value), 0);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(QMXUtil_INISearch(nullptr, "k", value) + QMXUtil_INISearch(handle, "k", nullptr), 0);
  EXPECT_EQ(QMXUtil_INIWrite(handle, "", "v") + QMXUtil_INIWrite(handle, "k", nullptr), 0);
  EXPECT_EQ(recording().trace_texts(),
            (Texts{"Invalid argument\n", "Invalid argument\n", "Invalid argument\n",
                   "Length of 'key' is zero!\n", "Not opened or NULL argument\n"}));
  const auto first = recording().traces()[0];
  EXPECT_EQ(first.module + first.file + first.function, "qmxutil_iniqmxutil_ini.cppQMXUtil_INIParseLine");
  recording().clear_calls();
  EXPECT_EQ(QMXUtil_INIWrite(handle, "k", "v"), 1);
  EXPECT_EQ(recording().calls(), (Texts{"Malloc 8 0", "Malloc 7 0", "Free"}));
  QMXUtil_INIClose(handle);
  EXPECT_EQ(read_file(path), "k = v\n");
  QMXUtil_INIClose(nullptr);
}

TEST_F(IniTest, MissingFilesAreCreatedOnlyToBeWrittenAndSizesAreRoundedUp) {
  const string file = dir.file(string(60, 'd')) + "/new.ini";
  for (const auto& [writable, size, committed] :
       {std::tuple{0, 3000, -1}, {1, 0, 0}, {1, -5, 0}, {1, 2048, 2048}}) {
    std::filesystem::remove(file);
    const INIAttr attr = {static_cast<uint8_t>(writable), size, 0};
    INIHandle* const handle = QMXUtil_INIOpenEx(file.c_str(), &attr);
    ASSERT_EQ(handle != nullptr, writable != 0);
    if (handle == nullptr) continue;
    EXPECT_EQ(handle->attr.fixedSize, committed);
    EXPECT_EQ(handle->fixedMode, size != 0);
    QMXUtil_INIClose(handle);
    EXPECT_EQ(read_file(file), "");
  }
}

// ---- Committing

TEST_F(IniTest, CommitCallsTheBaseLibraryInOrderAndTraces) {
  const auto hold_back = [](FILE* stream, const void* data, int64_t count) {  // until the stream is flushed
    static char room[8192];
    std::setvbuf(stream, room, _IOFBF, sizeof room);
    return static_cast<int64_t>(std::fwrite(data, 1, static_cast<size_t>(count), stream));
  };
  for (const auto& [fixed, padding] : {std::pair{0, 0}, {3000, 4090}, {3000, 0}}) {  // no memory for it
    INIHandle* const handle = open("", {1, fixed, 1});
    QMXUtil_INIWrite(handle, "k", "v");
    recording().reset();
    recording().transfer_with(nullptr, hold_back);
    if (fixed && !padding) recording().fail(Op::kMalloc);
    flocks.clear();
    flock_interruptions = 2;
    QMXUtil_INIClose(handle);
    const string mode = fixed ? "0xF0000008" : "0xF0000004";
    Texts calls = {"FileOpen " + path + " " + mode, "FileWrite 6", "FileSync", "FileClose"};
    Texts traces = {"Closing '" + path + "' - fixed: " + (fixed ? "1(4096" : "0(0") +
                    " bytes), padding: " + std::to_string(padding) + ", fpmode: " + mode + "\n"};
    const string locked = "EX after " + calls[0] + " at 0";
    if (padding) calls.insert(calls.begin() + 2, "FileWrite 4090");
    if (fixed) calls.insert(calls.begin(), "Malloc 4090 0");
    if (fixed && !padding) traces.insert(traces.begin(), "Alloc 4090 bytes for padding failed!\n");
    calls.insert(calls.end(), padding ? 3 : 2, "Free");
    EXPECT_EQ(recording().calls(), calls);
    EXPECT_EQ(flocks, (Texts{locked, locked, locked,
                             padding ? "UN after FileWrite 4090 at 4096" : "UN after FileWrite 6 at 6"}));
    EXPECT_EQ(recording().trace_texts(), traces);
    EXPECT_EQ(recording().traces().back().level, 2);
    EXPECT_EQ(recording().traces().back().function, "QMXUtil_INIClose");
  }
}

TEST_F(IniTest, WritesThatFailOrPutBackWhatWasReadCommitNothing) {
  for (int n = 0; n <= 2; ++n) {  // the work buffer, the new text
    INIHandle* const handle = open("a = 1\n");
    recording().reset();
    if (n == 0) {
      EXPECT_EQ(QMXUtil_INIWrite(handle, "a", "2") + QMXUtil_INIWrite(handle, "a", "1"), 2);
    } else {
      recording().fail(Op::kMalloc, n);
      EXPECT_EQ(QMXUtil_INIWrite(handle, "a", string(3000, 'v').c_str()), 0);
      EXPECT_EQ(recording().trace_texts().at(0),
                n == 1 ? "malloc (2048) error!\n" : "malloc (3006) error!\n");
    }
    EXPECT_STREQ(handle->text, "a = 1\n");
    EXPECT_EQ(handle->length, 6);
    EXPECT_EQ(handle->modified, n == 0);
    QMXUtil_INIClose(handle);
    EXPECT_TRUE(recording().calls_of("File").empty());
  }
}

// Two processes change different keys under lock; a third that takes the lock finds every line whole.
// Values of one length, because the writers open without a lock.
TEST_F(IniTest, AFileChangedByTwoProcessesIsNeverSeenEmptyOrTorn) {
  for (const int fixed : {0, 4096}) {
    dir.write("a.ini", "[s]\nfirst = aaaaaaaa\nsecond = aaaaaaaa\nend = 1\n");
    pid_t writers[2];
    for (pid_t& writer : writers) {
      if ((writer = fork()) != 0) continue;
      const INIAttr attr = {1, fixed, 1};
      for (int i = 0; i < 60; ++i) {
        INIHandle* const handle = QMXUtil_INIOpenEx(path.c_str(), &attr);
        if (handle == nullptr) _exit(1);
        const string value(8, static_cast<char>('a' + i % 26));
        QMXUtil_INIWrite(handle, &writer == writers ? "first" : "second", value.c_str());
        QMXUtil_INIClose(handle);
      }
      _exit(0);
    }
    for (const pid_t writer : writers) {
      int status = 0;
      do {
        FILE* const file = std::fopen(path.c_str(), "r");
        syscall(SYS_flock, fileno(file), LOCK_SH);
        const string text = read_file(path).c_str();
        std::fclose(file);
        ASSERT_EQ(text.size(), 47u) << text;
        EXPECT_EQ(text, "[s]\nfirst = " + string(8, text[12]) + "\nsecond = " + string(8, text[30]) +
                            "\nend = 1\n");
      } while (waitpid(writer, &status, WNOHANG) == 0);
      EXPECT_EQ(status, 0);
    }
  }
}

}  // namespace
