// INI files: real files against a plain model of reading, searching and writing, every failure, two writers.
#include "internal/ini.h"

#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
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

std::vector<string> flocks;  // operation and the base library call before it
int flock_interruptions = 0;

}  // namespace

// The system call, noted down; the library under test finds this one first.
extern "C" int flock(int fd, int operation) noexcept {
  flocks.push_back((operation == LOCK_EX ? "EX after " : "UN after ") + recording().calls().back());
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

int model_search(const string& text, size_t cursor, const string& key, string& buffer) {
  for (;;) {
    const Step step = model_step(text, cursor);
    if (step.result == 0) return buffer[0] = '\0', 0;
    if (step.is_pair == 1) buffer.replace(0, step.value.size() + 1, step.value + '\0');
    if (step.is_pair == 1 && step.key == key && key.size() < 64) return 1;
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

class IniTest : public qmxtest::BaseTest {
 protected:
  void SetUp() override {
    BaseTest::SetUp();
    flocks.clear();
  }
  INIHandle* open(const string& content, INIAttr attr = {1, 0, 0}) {
    return QMXUtil_INIOpenEx(dir.write("a.ini", content).c_str(), &attr);
  }
  qmxtest::TempDir dir;
  const string path = dir.file("a.ini");
};

Step next_step(INIHandle* handle, size_t length) {
  qmxtest::GuardedBytes key(length + 1), value(length + 1);
  uint8_t is_pair = 2;
  const int result = QMXUtil_INIParseLine(handle, key.text(), value.text(), &is_pair);
  if (is_pair != 1) return {result, is_pair};
  return {result, is_pair, key.text(), value.text()};
}

string repeated(char c, int count) { return string(static_cast<size_t>(count), c); }

class RandomText {
 public:
  explicit RandomText(unsigned seed) : random_(seed) {}
  int number(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }
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
    for (int n = number(number(4) == 0 ? 60 : 12); n > 0; --n) {
      if (number(3) == 0) text += one_of({"", " ", "\t ", "\n", "\v", "\r\n", "; ", "# ", "[s]", "= "});
      if (number(8) != 0) text += key();
      text += one_of({"", " ", "=", "=", " = ", " = ", " = ", "\t=\t", " x = "});
      text += value();
      if (number(10) == 0) text += repeated('l', number(80));
      text += one_of({"", "\n", "\n", "\n", "\n", "\r\n", "\n\n", "\n \n\t", "\r", " ; c\n", "\n\f\n"});
    }
    return text;
  }

 private:
  std::mt19937 random_;
};

// ---- Reading, searching and writing against the model

TEST_F(IniTest, RandomFilesReadSearchAndWriteAsTheModelDoes) {
  for (unsigned seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomText random(seed);
    const string text = random.text();
    const int fixed = random.number(2) == 0 ? 0 : 1 + random.number(9000);
    const string file = text + repeated('\0', random.number(3) == 0 ? random.number(3000) : 0);
    INIHandle* const handle = open(file, {1, fixed, static_cast<uint8_t>(random.number(2))});
    ASSERT_NE(handle, nullptr);
    ASSERT_EQ(handle->length, static_cast<int>(text.size()));

    if (!file.empty()) {
      size_t cursor = 0, longest = 0;
      for (Step step = {1}; step.result == 1;) {
        step = model_step(text, cursor);
        longest = std::max(longest, step.value.size());
        EXPECT_EQ(next_step(handle, text.size()), step);
      }
      for (int i = 0; i < 6; ++i) {
        QMXUtil_INIReset(handle);
        size_t from = 0;
        if (random.number(3) == 0) {  // from the second line on
          next_step(handle, text.size());
          model_step(text, from);
        }
        if (from == text.npos) continue;
        const string key = random.number(8) == 0 ? "" : random.key();
        string expected(longest + 1, '\xEE');
        const int found = model_search(text, from, key, expected);
        qmxtest::GuardedBytes value(string(longest + 1, '\xEE'));
        EXPECT_EQ(QMXUtil_INISearch(handle, key.c_str(), value.text()), found) << key;
        EXPECT_EQ(string(value.text(), longest + 1), expected) << key;
        EXPECT_EQ(handle->cursor, handle->text);
      }
    }

    string now = text;
    for (int i = random.number(5); i > 0; --i) {
      const string key = random.key(), value = random.value();
      std::vector<string> traces;
      const auto expected = model_write(now, key, value, traces);
      recording().clear_traces();
      recording().clear_calls();
      EXPECT_EQ(QMXUtil_INIWrite(handle, key.c_str(), value.c_str()), expected.has_value());
      EXPECT_EQ(recording().trace_texts(), traces);
      for (const auto& trace : recording().traces())
        EXPECT_EQ(trace.function, trace.text[0] == 'i' ? "ini_getline" : "QMXUtil_INIWrite");
      if (!now.empty()) {
        const size_t room = now.size() <= 2047 ? 2048 : 5 * now.size();
        EXPECT_EQ(recording().calls()[0], "Malloc " + std::to_string(room) + " 0");
        EXPECT_EQ(recording().calls_of("Malloc").size(), expected ? (expected->size() < room ? 2u : 3u) : 1u);
      }
      now = expected.value_or(now);
      ASSERT_EQ(handle->text == nullptr ? "" : handle->text, now) << key << " = " << value;
      ASSERT_EQ(handle->length, static_cast<int>(now.size()));
    }
    const size_t committed =
        fixed == 0 ? 0 : (std::max(file.size(), static_cast<size_t>(fixed)) + 2047) / 2048 * 2048;
    QMXUtil_INIClose(handle);
    string expected = now;
    if (expected.size() < committed) expected.resize(committed);
    EXPECT_EQ(read_file(path), now == text ? file : expected);
  }
}

TEST_F(IniTest, StatedExamplesOfWriting) {
  const string xs(62, 'x');
  const struct {
    string text, key, value, expected;
  } cases[] = {
      {"Volume = 3\nmute=0\n", "volume", "7", "Volume = 7\nmute=0\n"},
      {"a=1\nb =  2   \n\n   c=3\n", "b", "9", "a=1\nb =  9\n\nc=3\n"},
      {"a=1", "a", "2", "a=2\n"},
      {"a=1\n\n", "a", "2", "a=2\n"},
      {"a=1", "b", "2", "a=1\nb = 2\n"},
      {"a=1\r\n", "b", "2", "a=1\r\nb = 2\n"},
      {"a=1\n; the end", "a", "2", "a=2\n; the end\n"},    // lines after the last entry stay
      {"; a = 5\na = 1\n", "a", "2", "; a = 2\na = 1\n"},  // a comment is changed at its own '='
      {"a = #fff\nb = 1\n", "a", "#000", "a = #000\nb = 1\n"},
      {"a \nb = 1\n", "a", "2", "a \nb = 2\n"},  // the next '=' there is
      {xs + "a=1\n", "a", "2", xs + "a=2\n"},    // the key and the sign behind it within 64 characters
      {xs + "xa=1\n", "a", "2", xs + "xa=1\na = 2\n"},
  };
  for (const auto& c : cases) {
    INIHandle* const handle = open(c.text);
    EXPECT_EQ(QMXUtil_INIWrite(handle, c.key.c_str(), c.value.c_str()), 1) << c.text;
    QMXUtil_INIClose(handle);
    EXPECT_EQ(read_file(path), c.expected);
  }
}

TEST_F(IniTest, SizedParserPassesOverPairsThatDoNotFit) {
  INIHandle* const handle = open("four=1\nk=four\nkey=val\n");
  qmxtest::GuardedBytes key(4), value(4);
  uint8_t is_pair = 2;
  for (const int expected : {0, 0, 1}) {
    EXPECT_EQ(ini_parse_line(handle, key.text(), 4, value.text(), 4, &is_pair), 1);
    EXPECT_EQ(is_pair, expected);
  }
  EXPECT_STREQ(key.text(), "key");
  EXPECT_STREQ(value.text(), "val");
  QMXUtil_INIClose(handle);
}

// ---- Opening

TEST_F(IniTest, OpenReadsWholeFilesBelowOneMebibyte) {
  INIHandle* handle = QMXUtil_INIOpen(dir.write("a.ini", "a=1\n" + string(4092, '\0')).c_str());
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(
      recording().calls(),
      (std::vector<string>{"FileOpen " + path + " 0xF0000002", "FileSeek 0 2", "FileTell", "FileSeek 0 0",
                           "Malloc 64 0", "Malloc 4097 0", "FileRead 4096", "Malloc 4097 0", "FileClose"}));
  EXPECT_EQ(handle->length, 4);
  EXPECT_EQ(handle->fileSize, 4096);
  EXPECT_STREQ(handle->snapshot, "a=1\n");
  EXPECT_EQ(QMXUtil_INIWrite(handle, "a", "2"), 0);
  EXPECT_EQ(recording().trace_texts().back(), "No writable attribute!\n");
  QMXUtil_INIClose(handle);

  ASSERT_NE(handle = open(string(1048575, '\n')), nullptr);
  QMXUtil_INIClose(handle);
  for (const uintmax_t size : {uintmax_t{1048576}, uintmax_t{3} << 30}) {
    std::filesystem::resize_file(path, size);
    EXPECT_EQ(QMXUtil_INIOpen(path.c_str()), nullptr);
    const string shown = std::to_string(std::min<uintmax_t>(size, INT32_MAX));
    EXPECT_EQ(recording().trace_texts().back(),
              "Failed to handle " + path + " due to too large size (" + shown + " bytes)\n");
  }
  EXPECT_EQ(QMXUtil_INIOpen(dir.file("none").c_str()), nullptr);
  EXPECT_EQ(recording().trace_texts().back(),
            "Opening (" + dir.file("none") + ") failed! (2: No such file or directory\n");
}

TEST_F(IniTest, AnEmptyFileHasNothingToReadUntilItIsWrittenTo) {
  INIHandle* const handle = open("");
  char value[8] = "before";
  EXPECT_EQ(QMXUtil_INISearch(handle, "k", value), 0);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(QMXUtil_INISearch(nullptr, "k", value), 0);
  EXPECT_EQ(QMXUtil_INISearch(handle, "k", nullptr), 0);
  EXPECT_EQ(QMXUtil_INIWrite(handle, "", "v"), 0);
  EXPECT_EQ(QMXUtil_INIWrite(handle, "k", nullptr), 0);
  EXPECT_EQ(recording().trace_texts(),
            (std::vector<string>{"Invalid argument\n", "Invalid argument\n", "Invalid argument\n",
                                 "Length of 'key' is zero!\n", "Not opened or NULL argument\n"}));
  const auto first = recording().traces()[0];
  EXPECT_EQ(first.module + first.file + first.function, "qmxutil_iniqmxutil_ini.cppQMXUtil_INIParseLine");
  recording().clear_calls();
  EXPECT_EQ(QMXUtil_INIWrite(handle, "k", "v"), 1);
  EXPECT_EQ(recording().calls(), (std::vector<string>{"Malloc 8 0", "Malloc 7 0", "Free"}));
  EXPECT_EQ(QMXUtil_INISearch(handle, "k", value), 1);
  EXPECT_STREQ(value, "v");
  QMXUtil_INIClose(handle);
  EXPECT_EQ(read_file(path), "k = v\n");
  QMXUtil_INIClose(nullptr);
}

TEST_F(IniTest, CommittedSizeIsRoundedUpAndMissingFilesAreCreated) {
  const string folder = dir.file(string(60, 'd')), file = folder + "/new.ini";
  const struct {
    const char* content;
    int size, committed, fixed;
  } cases[] = {{"", 3000, 4096, 1}, {"", 0, 0, 0}, {"x", 0, 1, 0}, {"", 2048, 2048, 1}, {"x", -5, 2048, 1}};
  for (const auto& c : cases) {
    if (*c.content != '\0') dir.write(string(60, 'd') + "/new.ini", c.content);
    const INIAttr attr = {1, c.size, 0};
    INIHandle* const handle = QMXUtil_INIOpenEx(file.c_str(), &attr);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->attr.fixedSize, c.committed);
    EXPECT_EQ(handle->fixedMode, c.fixed);
    QMXUtil_INIClose(handle);
    EXPECT_EQ(read_file(file), c.content);
    std::filesystem::remove(file);
  }
  const INIAttr read_only = {0, 3000, 1};
  EXPECT_EQ(QMXUtil_INIOpenEx(file.c_str(), &read_only), nullptr);
}

// ---- Committing

TEST_F(IniTest, CommitCallsTheBaseLibraryInOrderAndTraces) {
  const struct {
    bool fixed, padded;
    const char *mode, *trace;
  } cases[] = {{false, false, " 0xF0000004", "0(0 bytes), padding: 0, fpmode:"},
               {true, true, " 0xF0000008", "1(4096 bytes), padding: 4090, fpmode:"},
               {true, false, " 0xF0000008", "1(4096 bytes), padding: 0, fpmode:"}};  // no memory for it
  for (const auto& c : cases) {
    INIHandle* const handle = open("", {1, c.fixed ? 3000 : 0, 1});
    QMXUtil_INIWrite(handle, "k", "v");
    recording().reset();
    if (c.fixed && !c.padded) recording().fail(Op::kMalloc);
    flocks.clear();
    flock_interruptions = 2;
    QMXUtil_INIClose(handle);
    const string opened = "FileOpen " + path + c.mode, locked = "EX after " + opened;
    std::vector<string> calls = {opened, "FileWrite 6", "FileSync", "FileClose"};
    if (c.padded) calls.insert(calls.begin() + 2, "FileWrite 4090");
    if (c.fixed) calls.insert(calls.begin(), "Malloc 4090 0");
    calls.insert(calls.end(), c.padded ? 3 : 2, "Free");
    EXPECT_EQ(recording().calls(), calls);
    const string unlocked = c.padded ? "UN after FileWrite 4090" : "UN after FileWrite 6";
    EXPECT_EQ(flocks, (std::vector<string>{locked, locked, locked, unlocked}));
    std::vector<string> traces = {"Closing '" + path + "' - fixed: " + c.trace + c.mode + "\n"};
    if (c.fixed && !c.padded) traces.insert(traces.begin(), "Alloc 4090 bytes for padding failed!\n");
    EXPECT_EQ(recording().trace_texts(), traces);
    EXPECT_EQ(recording().traces().back().level, 2);
    EXPECT_EQ(recording().traces().back().function, "QMXUtil_INIClose");
  }
}

TEST_F(IniTest, WritesThatFailOrPutBackWhatWasReadCommitNothing) {
  for (int n = 0; n <= 3; ++n) {  // the work buffer, the larger one that the value needs, the new text
    INIHandle* const handle = open("a = 1\n");
    recording().clear_traces();
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
    recording().clear_calls();
    QMXUtil_INIClose(handle);
    EXPECT_TRUE(recording().calls_of("File").empty());
  }
}

// Two processes change different keys under lock; a third that takes the lock finds every line whole.
// Values of one length, because the writers open without a lock.
TEST_F(IniTest, AFileChangedByTwoProcessesIsNeverSeenEmptyOrTorn) {
  for (const int fixed : {0, 4096}) {
    dir.write("a.ini", "[s]\nfirst = aaaaaaaa\nsecond = aaaaaaaa\nend = 1\n");
    std::vector<pid_t> writers;
    for (const char* const key : {"first", "second"}) {
      const pid_t pid = fork();
      if (pid == 0) {
        const INIAttr attr = {1, fixed, 1};
        for (int i = 0; i < 60; ++i) {
          INIHandle* const handle = QMXUtil_INIOpenEx(path.c_str(), &attr);
          if (handle == nullptr) _exit(1);
          QMXUtil_INIWrite(handle, key, string(8, static_cast<char>('a' + i % 26)).c_str());
          QMXUtil_INIClose(handle);
        }
        _exit(0);
      }
      writers.push_back(pid);
    }
    for (const pid_t writer : writers) {
      int status = 0;
      do {
        FILE* const file = std::fopen(path.c_str(), "r");
        syscall(SYS_flock, fileno(file), LOCK_SH);
        string text = read_file(path);
        std::fclose(file);
        text.resize(std::min(text.find('\0'), text.size()));
        ASSERT_EQ(text.size(), 47u) << text;
        const string first = text.substr(12, 8), second = text.substr(30, 8);
        EXPECT_EQ(first, string(8, first[0]));
        EXPECT_EQ(second, string(8, second[0]));
        EXPECT_EQ(text, "[s]\nfirst = " + first + "\nsecond = " + second + "\nend = 1\n");
      } while (waitpid(writer, &status, WNOHANG) == 0);
      EXPECT_EQ(status, 0);
    }
  }
}

}  // namespace
