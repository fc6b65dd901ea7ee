// The stand-in base library: its answers against plain models, its files with other processes.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>

#include "bytes.h"
#include "recording_base.h"

namespace {

using namespace qmxtest;
using std::string;

// The stand-in's own function, where the recording base library does not pass calls on.
#define STAND_IN(function) reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

TEST(PlatformMemory, ClearsWhatIsToBeClearAndRefusesWhatDoesNotFit) {
  for (int round = 0; round < 2; ++round) {  // the second block is the first one, used
    auto* block = static_cast<uint8_t*>(STAND_IN(QMX_Malloc)(1000, 0, QMX_FILL_ZERO, "", 0, ""));
    EXPECT_EQ(std::count(block, block + 1000, 0), 1000);
    std::memset(block, 0xA5, 1000);
    STAND_IN(QMX_Free)(block, 0);
  }
  for (const auto& [count, size] : {std::pair{65536, 65536}, {INT32_MAX, INT32_MAX}, {-1, 8}, {8, -1}}) {
    EXPECT_EQ(STAND_IN(QMX_Calloc)(count, size, 0, "", 0, ""), nullptr) << count;
  }
}

TEST(PlatformBits, ReadsAndWritesAsAModelOfSingleBitsDoes) {
  for (int round = 0; round < 2000; ++round) {
    const GuardedBytes bytes(string(below(40), '\xFF'));
    const uint64_t room = bytes.size() * 8u;
    std::vector<bool> model;  // what is put, then what is read
    QMXBit* out = QMXBitOpen(bytes.data(), bytes.size());
    while (model.size() < room) {
      const bool whole = chance(4);
      const uint32_t n = whole ? 24 : below(32) + 1, value = any_word();
      const uint8_t three[] = {uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
      whole ? QMXBitPutByte(out, 3, three) : QMXBitPutBit(out, n, value);
      for (uint32_t i = n; i-- > 0 && model.size() < room;) model.push_back(value >> i & 1);
      ASSERT_EQ(QMXBitGetProcessed(out), model.size());
      if (const size_t used = model.size() % 8; used != 0) {  // the rest of the last byte is clear
        ASSERT_EQ(bytes.data()[model.size() / 8] & (0xFF >> used), 0);
      }
    }
    QMXBitPutBit(out, 32, 0);  // no room left
    QMXBitPutByte(out, 1, bytes.data());
    QMXBitClose(out);

    QMXBit* in = QMXBitOpen(bytes.data(), bytes.size());
    for (uint64_t at = 0; at < room + 100;) {
      if (chance(8)) {
        QMXBitByteAlign(in);
        at = (at + 7) / 8 * 8;
      }
      const uint32_t n = below(33);
      uint64_t expected = 0;
      for (const uint64_t end = at + n; at < end; ++at)
        expected = expected << 1 | (at < room ? model[at] : 1);
      ASSERT_EQ(QMXBitShow(in, n), expected);
      ASSERT_EQ(QMXBitGetBit(in, n), expected);
      ASSERT_EQ(QMXBitGetProcessed(in), at);
    }
    for (int i = 0; i < 3; ++i) QMXBitGetBit(in, UINT32_MAX);  // a skip that would wrap 32 bits
    EXPECT_EQ(QMXBitGetBit(in, 8), 0xFFu);
    QMXBitClose(in);
  }
}

TEST(PlatformBytes, ReadAsAStringThatZerosFollow) {
  for (int round = 0; round < 1000; ++round) {
    const string text = any_bytes(below(30));
    const GuardedBytes bytes(text);
    const auto at = [&](uint64_t i) { return i < text.size() ? uint8_t(text[i]) : 0u; };
    QMXByte* in = QMXByte_Open(bytes.data(), bytes.size());
    int error = 0;
    uint64_t p = 0;
    for (int step = 0; step < 12; ++step) {
      uint8_t copy[8];
      const uint32_t n = below(9), skipped = step == 11 ? UINT32_MAX : n, kind = below(6);
      const uint64_t sizes[] = {1, 2, 2, 4, n, skipped};
      const uint32_t be16 = at(p) << 8 | at(p + 1), le16 = at(p + 1) << 8 | at(p),
                     le32 = at(p + 3) << 24 | at(p + 2) << 16 | le16;
      ASSERT_EQ(kind == 0 ? QMXByte_Get_char(in, &error) : at(p), at(p));
      ASSERT_EQ(kind == 1 ? QMXByte_Get_be_int16(in, &error) : be16, be16);
      ASSERT_EQ(kind == 2 ? QMXByte_Get_le_int16(in, &error) : le16, le16);
      ASSERT_EQ(kind == 3 ? QMXByte_Get_le_int32(in, &error) : le32, le32);
      if (kind == 4) QMXByte_Get_string(in, copy, n, &error);
      for (uint32_t i = 0; kind == 4 && i < n; ++i) ASSERT_EQ(copy[i], at(p + i));
      if (kind == 5) QMXByte_Skip(in, skipped, &error);
      p += sizes[kind];
      ASSERT_EQ(error != 0, p > text.size());
    }
    QMXByte_Close(in);
  }
}

TEST(PlatformLists, KeepTheirOrderWhicheverNodeGoes) {
  QMXList* list = QMX_ListCreate();
  std::vector<QMXListNode*> model;
  for (int step = 0; step < 2000 || !model.empty(); ++step) {
    if (model.empty() || (step < 1900 && chance(2))) {
      model.push_back(QMX_List_Node_new());
      ASSERT_EQ(model.back()->data, nullptr);
      QMX_ListAddTail(list, model.back());
    } else {
      const auto gone = model.begin() + below(model.size());
      QMX_ListDel(list, *gone);
      QMX_List_Node_delete(*gone);
      model.erase(gone);
    }
    std::vector<QMXListNode*> seen;
    for (auto* n = QMX_ListGetHead(list); n != nullptr; n = QMX_ListGetNext(list, n)) seen.push_back(n);
    ASSERT_EQ(seen, model);
  }
  QMX_ListDestroy(list);
}

TEST(PlatformFiles, EachModeOpensAndLeavesWhatItSays) {
  const TempDir dir;
  const struct {
    uint32_t mode;
    bool opens, creates;
    const char* after_writing;  // "XY" over "old text"
  } cases[] = {{QMX_FILE_READ, true, false, "old text"},
               {QMX_FILE_REPLACE, true, true, "XY"},
               {QMX_FILE_CREATE, true, true, "old textXY"},
               {QMX_FILE_WRITE_IN_PLACE, true, false, "XYd text"},
               {QMX_FILE_UPDATE, true, false, "XYd text"},
               {0, false, false, ""},
               {2, false, false, ""},
               {UINT32_MAX, false, false, ""}};
  for (const auto& c : cases) {
    const string path = dir.write("file", "old text"), missing = dir.file(std::to_string(c.mode));
    FILE* stream = QMX_FileOpen(missing.c_str(), c.mode);
    EXPECT_EQ(stream != nullptr, c.creates) << c.mode;
    if (stream != nullptr) QMX_FileClose(stream);
    EXPECT_EQ(access(missing.c_str(), F_OK) == 0, c.creates);

    errno = 0;
    stream = QMX_FileOpen(path.c_str(), c.mode);
    ASSERT_EQ(stream != nullptr, c.opens) << c.mode;
    EXPECT_EQ(errno, c.opens ? 0 : EINVAL);
    if (stream == nullptr) continue;
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(QMX_FileWrite(stream, "XY", 2) == 2, c.mode != QMX_FILE_READ);
    EXPECT_EQ(read_file(path), c.after_writing) << "when the write returns";
    EXPECT_EQ(QMX_FileSync(stream) + QMX_FileClose(stream), 0);
    EXPECT_EQ(read_file(path), c.after_writing);
  }
}

TEST(PlatformFiles, ReadSeekAndTellFollowAString) {
  const TempDir dir;
  const string text = any_bytes(300000);
  FILE* stream = QMX_FileOpen(dir.write("file", text).c_str(), QMX_FILE_READ);
  const auto size = static_cast<int64_t>(text.size());
  int64_t at = 0;
  string got(100000, '\0');
  for (int step = 0; step < 3000; ++step) {
    const int64_t n = below(step % 3 == 0 ? 100000 : 5000),
                  present = std::min(n, std::max<int64_t>(size - at, 0));
    ASSERT_EQ(QMX_FileRead(stream, got.data(), n), present);
    ASSERT_EQ(got.compare(0, size_t(present), text, size_t(std::min(at, size)), size_t(present)), 0);
    at += present;
    for (uint32_t seeks = below(3) + 1; seeks > 0; --seeks) {
      const int64_t to = below(text.size() + 10);
      const int whence = static_cast<int>(below(3));
      const int64_t origins[] = {0, at, size};
      ASSERT_EQ(QMX_FileSeek(stream, to - origins[whence], whence), 0);
      at = to;
      ASSERT_EQ(QMX_FileTell(stream), at);
    }
  }
  EXPECT_NE(QMX_FileSeek(stream, -1, 0), 0);
  for (int64_t n = 65534; n <= 65537; ++n) {  // to the end of what was read ahead, and a byte further
    ASSERT_EQ(QMX_FileSeek(stream, 0, 0), 0);
    ASSERT_EQ(QMX_FileRead(stream, got.data(), 1), 1);
    ASSERT_EQ(QMX_FileRead(stream, got.data() + 1, n), n);
    EXPECT_EQ(got.compare(0, size_t(n) + 1, text, 0, size_t(n) + 1), 0) << n;
    EXPECT_EQ(QMX_FileTell(stream), n + 1);
  }
  QMX_FileClose(stream);
  stream = QMX_FileOpen(dir.path().c_str(), QMX_FILE_READ);  // a folder opens, but cannot be read
  EXPECT_LT(QMX_FileRead(stream, got.data(), 10), 0);
  QMX_FileClose(stream);
}

TEST(PlatformFiles, WhatIsWrittenBecomesTheWholeFile) {
  const TempDir dir;
  const string path = dir.file("file");
  const std::pair<const char*, std::function<void(FILE*)>> cases[] = {
      {"", [](FILE*) {}},
      {"line\n", [](FILE* stream) { fputs("line\n", stream); }},
      {"a line",
       [](FILE* stream) {
         fputs("a ", stream);
         QMX_FileWrite(stream, "li", 2);
         fputs("ne", stream);
       }},
      // What another process wrote after the lock was released is not cut at close.
      {"the other's text", [&](FILE* stream) {
         QMX_FileWrite(stream, "", 0);
         dir.write("file", "the other's text");
       }}};
  for (const auto& [content, write] : cases) {
    dir.write("file", "a much longer old text");
    FILE* stream = QMX_FileOpen(path.c_str(), QMX_FILE_REPLACE);
    EXPECT_EQ(read_file(path).size(), 22u) << "the lock is not held yet";
    write(stream);
    QMX_FileClose(stream);
    EXPECT_EQ(read_file(path), content);
  }
}

TEST(PlatformSleep, OutlastsSignals) {
  signal(SIGALRM, [](int) {});
  const itimerval often = {{0, 2000}, {0, 2000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  const auto before = std::chrono::steady_clock::now();
  QMX_ThreadSleep(60);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(59));
  const itimerval never = {};
  setitimer(ITIMER_REAL, &never, nullptr);
  QMX_ThreadSleep(0);
  QMX_ThreadSleep(-1);
}

// What a child writes to standard error, one text a write().
std::vector<string> writes_of(const char* filter, const std::function<void()>& work) {
  int ends[2], status = -1;
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  const pid_t child = fork();
  if (child == 0) {
    filter != nullptr ? setenv("QMX_TRACE", filter, 1) : unsetenv("QMX_TRACE");
    dup2(ends[1], STDERR_FILENO);
    errno = 77;
    work();
    _exit(errno == 77 ? 0 : 1);
  }
  EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
  close(ends[1]);
  std::vector<string> texts;
  char text[4096];
  for (ssize_t n; (n = read(ends[0], text, sizeof text)) > 0;) texts.emplace_back(text, size_t(n));
  close(ends[0]);
  return texts;
}

TEST(PlatformTrace, IsOneWriteAMessageFilteredByModuleAndLevel) {
  const auto trace = STAND_IN(QMX_Trace);
  const std::pair<const char*, string> filters[] = {{nullptr, "a:1 b:1 "},       {"0", ""},
                                                    {"2", "a:1 a:2 b:1 b:2 "},   {"b=3", "a:1 b:1 b:2 b:3 "},
                                                    {"a=0,2,,bb=3", "b:1 b:2 "}, {"4,x,a=,=,b", "a:1 b:1 "}};
  for (const auto& [filter, want] : filters) {
    string shown;
    for (const string& text : writes_of(filter, [&] {
           for (const char* module : {"a", "b"}) {
             for (int level = 1; level <= 3; ++level) trace(module, level, "f.cpp", 7, "func", "text\n");
           }
         })) {
      shown += text.substr(0, 3) + ' ';
    }
    EXPECT_EQ(shown, want);
  }
  const string longest(5000, 'x');
  const auto texts = writes_of(nullptr, [&] {
    trace("mod", 1, "f.cpp", 7, "func", "%s %d\n", static_cast<const char*>(nullptr), 5);
    trace("mod", 1, "f.cpp", 7, "func", "%s\n", longest.c_str());
    trace("mod", 1, "f.cpp", 7, longest.c_str(), "text\n");
  });
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0], "mod:1 f.cpp:7 func: (null) 5\n");
  EXPECT_TRUE(texts[1].ends_with("x\n") && texts[2].ends_with("x\n"));
}

}  // namespace
