// The stand-in base library: its answers against plain models, its files with other processes.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
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
#include <random>

#include "recording_base.h"

namespace {

using qmxtest::read_file;
using qmxtest::TempDir;

// The stand-in's own function, where the recording base library does not pass calls on.
template <class F>
F stand_in(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}
#define STAND_IN(function) stand_in<decltype(&function)>(#function)

int run_in_child(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PlatformMemory, ClearsWhatIsToBeClearAndRefusesWhatDoesNotFit) {
  for (uint32_t size : {1u, 24u, 1000u, 200000u}) {
    for (const int fill : {QMX_FILL_NONE, QMX_FILL_ZERO}) {
      auto* block = static_cast<uint8_t*>(STAND_IN(QMX_Malloc)(size, 0, fill, "", 0, ""));
      EXPECT_TRUE(fill == QMX_FILL_NONE || std::count(block, block + size, 0) == size) << size;
      std::memset(block, 0xA5, size);
      STAND_IN(QMX_Free)(block, 0);
    }
  }
  for (const auto& [count, size] : {std::pair{65536, 65536}, {INT32_MAX, INT32_MAX}, {-1, 8}, {8, -1}}) {
    EXPECT_EQ(STAND_IN(QMX_Calloc)(count, size, 0, "", 0, ""), nullptr) << count;
  }
}

TEST(PlatformBits, ReadsAndWritesAsAModelOfSingleBitsDoes) {
  std::mt19937 random(1);
  for (int round = 0; round < 2000; ++round) {
    qmxtest::GuardedBytes bytes(random() % 40);
    const uint64_t room = bytes.size() * 8u;
    std::vector<bool> model;  // what is put, then what is read
    QMXBit* out = QMXBitOpen(bytes.data(), bytes.size());
    const auto put = [&](uint32_t value, uint32_t n) {
      for (uint32_t i = n; i-- > 0 && model.size() < room;) model.push_back(value >> i & 1);
    };
    std::memset(bytes.data(), 0xFF, bytes.size());
    while (model.size() < room) {
      if (random() % 4 == 0) {
        const std::vector<uint8_t> some = {uint8_t(random()), uint8_t(random()), uint8_t(random())};
        QMXBitPutByte(out, 3, some.data());
        for (const uint8_t byte : some) put(byte, 8);
      } else {
        const uint32_t n = random() % 32 + 1, value = static_cast<uint32_t>(random());
        QMXBitPutBit(out, n, value);
        put(value, n);
      }
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
      if (random() % 8 == 0) {
        QMXBitByteAlign(in);
        at = (at + 7) / 8 * 8;
      }
      const auto n = static_cast<uint32_t>(random() % 33);
      uint64_t expected = 0;
      for (uint32_t i = 0; i < n; ++i) expected = expected << 1 | (at + i < room ? model[at + i] : true);
      ASSERT_EQ(QMXBitShow(in, n), expected);
      ASSERT_EQ(QMXBitGetBit(in, n), expected);
      at += n;
      ASSERT_EQ(QMXBitGetProcessed(in), at);
    }
    QMXBitClose(in);
  }
  const uint8_t byte = 0;
  QMXBit* in = QMXBitOpen(&byte, 1);
  for (int i = 0; i < 3; ++i) QMXBitGetBit(in, UINT32_MAX);  // a skip that would wrap 32 bits
  EXPECT_EQ(QMXBitGetBit(in, 8), 0xFFu);
  QMXBitClose(in);
}

TEST(PlatformBytes, ReadAsAStringThatZerosFollow) {
  std::mt19937 random(2);
  for (int round = 0; round < 1000; ++round) {
    std::string text(random() % 30, '\0');
    for (char& c : text) c = static_cast<char>(random());
    const qmxtest::GuardedBytes bytes(text);
    const auto at = [&](uint64_t i) { return i < text.size() ? uint8_t(text[i]) : 0u; };
    QMXByte* in = QMXByte_Open(bytes.data(), bytes.size());
    int error = 0;
    uint64_t p = 0;
    const auto little = [&](int n) {
      uint32_t value = 0;
      while (n-- > 0) value = value << 8 | at(p + static_cast<uint64_t>(n));
      return value;
    };
    for (int step = 0; step < 12; ++step) {
      uint8_t copy[8];
      const auto n = static_cast<uint32_t>(random() % 9);
      const uint32_t skipped = step == 11 ? UINT32_MAX : n;
      const uint64_t sizes[] = {1, 2, 2, 4, n, skipped}, kind = random() % 6;
      const uint32_t big16 = at(p) << 8 | at(p + 1);
      ASSERT_TRUE(kind != 0 || QMXByte_Get_char(in, &error) == at(p));
      ASSERT_TRUE(kind != 1 || QMXByte_Get_be_int16(in, &error) == big16);
      ASSERT_TRUE(kind != 2 || QMXByte_Get_le_int16(in, &error) == little(2));
      ASSERT_TRUE(kind != 3 || QMXByte_Get_le_int32(in, &error) == little(4));
      if (kind == 4) {
        QMXByte_Get_string(in, copy, n, &error);
        for (uint32_t i = 0; i < n; ++i) ASSERT_EQ(copy[i], at(p + i));
      }
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
  std::mt19937 random(4);
  for (int step = 0; step < 2000; ++step) {
    if (model.empty() || (step < 1900 && random() % 2 == 0)) {
      model.push_back(QMX_List_Node_new());
      ASSERT_EQ(model.back()->data, nullptr);
      QMX_ListAddTail(list, model.back());
    } else {
      const auto gone = model.begin() + static_cast<ptrdiff_t>(random() % model.size());
      QMX_ListDel(list, *gone);
      QMX_List_Node_delete(*gone);
      model.erase(gone);
    }
    std::vector<QMXListNode*> seen;
    for (auto* n = QMX_ListGetHead(list); n != nullptr; n = QMX_ListGetNext(list, n)) seen.push_back(n);
    ASSERT_EQ(seen, model);
  }
  for (QMXListNode* node : model) {
    QMX_ListDel(list, node);
    QMX_List_Node_delete(node);
  }
  QMX_ListDestroy(list);
}

TEST(PlatformFiles, EachModeOpensAndLeavesWhatItSays) {
  const TempDir dir;
  const struct {
    uint32_t mode;
    bool creates;
    const char* after_writing;  // "XY" over "old text"
  } cases[] = {{QMX_FILE_READ, false, "old text"},
               {QMX_FILE_REPLACE, true, "XY"},
               {QMX_FILE_CREATE, true, "old textXY"},
               {QMX_FILE_WRITE_IN_PLACE, false, "XYd text"},
               {QMX_FILE_UPDATE, false, "XYd text"}};
  for (const auto& c : cases) {
    const std::string path = dir.write("file", "old text"), missing = dir.file(std::to_string(c.mode));
    FILE* stream = QMX_FileOpen(path.c_str(), c.mode);
    ASSERT_NE(stream, nullptr) << c.mode;
    EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(QMX_FileWrite(stream, "XY", 2) == 2, c.mode != QMX_FILE_READ);
    EXPECT_EQ(read_file(path), c.after_writing) << "when the write returns";
    if (c.mode == QMX_FILE_UPDATE) {
      EXPECT_EQ(QMX_FileSeek(stream, 0, 0), 0);
      EXPECT_EQ(QMX_FileWrite(stream, "XY", 2), 2);
    }
    EXPECT_EQ(QMX_FileSync(stream), 0);
    EXPECT_EQ(QMX_FileClose(stream), 0);
    EXPECT_EQ(read_file(path), c.after_writing);

    stream = QMX_FileOpen(missing.c_str(), c.mode);
    EXPECT_EQ(stream != nullptr, c.creates) << c.mode;
    if (stream != nullptr) QMX_FileClose(stream);
    EXPECT_EQ(access(missing.c_str(), F_OK) == 0, c.creates);
  }
  const std::string path = dir.write("file", "old text");
  for (const uint32_t mode : {0u, 2u, 0xF0000000u, UINT32_MAX}) {
    errno = 0;
    EXPECT_EQ(QMX_FileOpen(path.c_str(), mode), nullptr);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(PlatformFiles, ReadSeekAndTellFollowAString) {
  const TempDir dir;
  std::mt19937 random(3);
  std::string text(300000, '\0');
  for (char& c : text) c = static_cast<char>(random());
  FILE* stream = QMX_FileOpen(dir.write("file", text).c_str(), QMX_FILE_READ);
  const auto size = static_cast<int64_t>(text.size());
  int64_t at = 0;
  std::string got(100000, '\0');
  for (int step = 0; step < 3000; ++step) {
    const int64_t n = static_cast<int64_t>(random() % (step % 3 == 0 ? 100000 : 5000));
    const int64_t present = std::min(n, std::max<int64_t>(size - at, 0));
    ASSERT_EQ(QMX_FileRead(stream, got.data(), n), present);
    ASSERT_EQ(got.compare(0, size_t(present), text, size_t(std::min(at, size)), size_t(present)), 0);
    at += present;
    const int64_t to = static_cast<int64_t>(random()) % (size + 10);
    const int64_t back = std::min(at, to % 6000);
    const int whence = static_cast<int>(random() % 3);
    const int64_t offset = whence == 0 ? to : whence == 1 ? -back : to - size;
    ASSERT_EQ(QMX_FileSeek(stream, offset, whence), 0);
    at = whence == 1 ? at - back : to;
    ASSERT_EQ(QMX_FileTell(stream), at);
  }
  EXPECT_NE(QMX_FileSeek(stream, -1, 0), 0);
  QMX_FileClose(stream);
  stream = QMX_FileOpen(dir.path().c_str(), QMX_FILE_READ);  // a folder opens, but cannot be read
  EXPECT_LT(QMX_FileRead(stream, got.data(), 10), 0);
  QMX_FileClose(stream);
}

TEST(PlatformFiles, WhatIsWrittenBecomesTheWholeFile) {
  const TempDir dir;
  const std::pair<const char*, std::function<void(FILE*)>> cases[] = {
      {"", [](FILE*) {}},
      {"", [](FILE* stream) { QMX_FileWrite(stream, "x", 0); }},
      {"line\n", [](FILE* stream) { fputs("line\n", stream); }},
      {"a line", [](FILE* stream) {
         fputs("a ", stream);
         QMX_FileWrite(stream, "li", 2);
         fputs("ne", stream);
       }}};
  for (const auto& [content, write] : cases) {
    const std::string path = dir.write("file", "a much longer old text");
    FILE* stream = QMX_FileOpen(path.c_str(), QMX_FILE_REPLACE);
    EXPECT_EQ(read_file(path).size(), 22u) << "the lock is not held yet";
    write(stream);
    QMX_FileClose(stream);
    EXPECT_EQ(read_file(path), content);
  }
  // What another process wrote after the lock was released is not cut at close.
  const std::string path = dir.write("file", "a much longer old text");
  FILE* stream = QMX_FileOpen(path.c_str(), QMX_FILE_REPLACE);
  QMX_FileWrite(stream, "", 0);
  dir.write("file", "the other's text");
  QMX_FileClose(stream);
  EXPECT_EQ(read_file(path), "the other's text");
}

TEST(PlatformFiles, AThirdProcessWithTheLockSeesWholeTextsOnly) {
  const TempDir dir;
  const std::string path = dir.write("file", "0");
  const auto is_whole = [](const std::string& text) {
    return !text.empty() && text.find_first_not_of(text[0]) == text.npos &&
           text.size() == 1 + 4000u * static_cast<size_t>(text[0] - '0');
  };
  for (int writer = 0; writer < 2; ++writer) {
    if (fork() != 0) continue;
    for (int i = 0; i < 500; ++i) {
      const int length = (i * 7 + writer) % 4;
      const std::string text(1 + 4000u * static_cast<size_t>(length), static_cast<char>('0' + length));
      FILE* stream = QMX_FileOpen(path.c_str(), QMX_FILE_REPLACE);
      flock(fileno(stream), LOCK_EX);
      QMX_FileWrite(stream, text.data(), static_cast<int64_t>(text.size()));
      flock(fileno(stream), LOCK_UN);
      QMX_FileClose(stream);
    }
    _exit(0);
  }
  int torn = 0, seen = 0;
  for (int gone = 0; gone < 2; ++seen) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    flock(fd, LOCK_SH);
    torn += !is_whole(read_file(path));
    close(fd);
    gone += waitpid(-1, nullptr, WNOHANG) > 0;
  }
  EXPECT_EQ(torn, 0) << "of " << seen;
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
std::vector<std::string> writes_of(const char* filter, const std::function<void()>& work) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends), 0);
  EXPECT_EQ(run_in_child([&] {
              filter != nullptr ? setenv("QMX_TRACE", filter, 1) : unsetenv("QMX_TRACE");
              dup2(ends[1], STDERR_FILENO);
              errno = 77;
              work();
              return errno == 77 ? 0 : 1;
            }),
            0);
  close(ends[1]);
  std::vector<std::string> texts;
  char text[4096];
  for (ssize_t n; (n = read(ends[0], text, sizeof text)) > 0;) texts.emplace_back(text, size_t(n));
  close(ends[0]);
  return texts;
}

TEST(PlatformTrace, IsOneWriteAMessageFilteredByModuleAndLevel) {
  const auto trace = STAND_IN(QMX_Trace);
  const auto shown = [&](const char* filter) {
    std::string levels;
    for (const auto& text : writes_of(filter, [&] {
           for (const char* module : {"a", "b"}) {
             for (int level = 1; level <= 3; ++level) trace(module, level, "f.cpp", 7, "func", "text\n");
           }
         })) {
      levels += text.substr(0, 3) + ' ';
    }
    return levels;
  };
  EXPECT_EQ(shown(nullptr), "a:1 b:1 ");
  EXPECT_EQ(shown("0"), "");
  EXPECT_EQ(shown("2"), "a:1 a:2 b:1 b:2 ");
  EXPECT_EQ(shown("b=3"), "a:1 b:1 b:2 b:3 ");
  EXPECT_EQ(shown("a=0,2,,bb=3"), "b:1 b:2 ");
  EXPECT_EQ(shown("4,x,a=,=,b"), "a:1 b:1 ");

  const std::string longest(5000, 'x');
  const auto texts = writes_of(nullptr, [&] {
    trace("mod", 1, "f.cpp", 7, "func", "%s %d\n", static_cast<const char*>(nullptr), 5);
    trace("mod", 1, "f.cpp", 7, "func", "%s\n", longest.c_str());
    trace("mod", 1, "f.cpp", 7, longest.c_str(), "text\n");
  });
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts[0], "mod:1 f.cpp:7 func: (null) 5\n");
  for (const auto& text : {texts[1], texts[2]}) EXPECT_EQ(text.substr(text.size() - 2), "x\n");
}

}  // namespace
