// The base library's files, looked at through other descriptors and by other processes.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "basecheck.h"

namespace basecheck {
namespace {

constexpr char kFile[] = "file";
constexpr char kMissing[] = "missing";
const std::string kOldText = "a much longer old text";

void expect_content(const std::string& want, const char* when, const char* path = kFile) {
  const std::string has = content(path);
  expect(has == want, "%s the file holds %zu bytes '%.24s' and not '%.24s'", when, has.size(), has.c_str(),
         want.c_str());
}

Stream over_old_text(uint32_t mode) { return open_stream(put(kFile, kOldText), mode); }

void write(const Stream& stream, const std::string& text) {
  QMX_FileWrite(stream.get(), text.data(), static_cast<int64_t>(text.size()));
}

// ---- Modes

void expect_existing_only(uint32_t mode) {
  unlink(kMissing);
  FILE* const stream = QMX_FileOpen(kMissing, mode);
  expect(stream == nullptr, "a missing file opens");
  expect(access(kMissing, F_OK) != 0, "a missing file is created");
}

void mode_read() {
  expect_existing_only(QMX_FILE_READ);
  char text[100];
  const Stream stream = over_old_text(QMX_FILE_READ);
  const int64_t got = QMX_FileRead(stream.get(), text, sizeof text);
  expect(got == static_cast<int64_t>(kOldText.size()) &&
             kOldText.compare(0, kOldText.npos, text, kOldText.size()) == 0,
         "%d bytes of %zu are read, or others", static_cast<int>(got), kOldText.size());
}

void mode_replace() {
  for (const std::string& text : {std::string("new"), std::string(100000, 'n'), std::string(1, '\0')}) {
    Stream stream = over_old_text(QMX_FILE_REPLACE);
    write(stream, text);
    stream.reset();
    expect_content(text, "after the close");
  }
  Stream stream = over_old_text(QMX_FILE_REPLACE);
  for (const char* piece : {"one ", "two", "", " three"}) write(stream, piece);
  stream.reset();
  expect_content("one two three", "after four writes");
}

void replace_with_nothing() {
  over_old_text(QMX_FILE_REPLACE).reset();
  expect_content("", "with nothing written");
  const Stream stream = over_old_text(QMX_FILE_REPLACE);
  write(stream, "");
  expect_content("", "after a write of no bytes");
}

void replace_a_missing_file() {
  unlink(kMissing);
  write(open_stream(kMissing, QMX_FILE_REPLACE), "new");
  expect_content("new", "after a write and the close", kMissing);
}

void replace_keeps_until_written() {
  const Stream stream = over_old_text(QMX_FILE_REPLACE);
  expect_content(kOldText, "after the open");
}

void replace_with_lines() {
  Stream stream = over_old_text(QMX_FILE_REPLACE);
  std::fputs("a ", stream.get());
  write(stream, "li");
  std::fputs("ne", stream.get());
  stream.reset();
  expect_content("a line", "after fputs(), a write and fputs()");
}

void mode_create() {
  unlink(kMissing);
  open_stream(kMissing, QMX_FILE_CREATE).reset();
  expect(access(kMissing, F_OK) == 0, "a missing file is not created");
  expect_content("", "after the open", kMissing);
}

void create_keeps() {
  Stream stream = over_old_text(QMX_FILE_CREATE);
  expect_content(kOldText, "after the open");
  write(stream, "XY");
  std::fputs("Z\n", stream.get());
  stream.reset();
  expect_content(kOldText + "XYZ\n", "after writes and the close");
}

void mode_write_in_place() {
  expect_existing_only(QMX_FILE_WRITE_IN_PLACE);
  Stream stream = over_old_text(QMX_FILE_WRITE_IN_PLACE);
  write(stream, "XY");
  write(stream, "Z");
  stream.reset();
  expect_content("XYZuch longer old text", "after writes and the close");
}

void mode_update() {
  expect_existing_only(QMX_FILE_UPDATE);
  for (const int64_t at : {INT64_C(7), INT64_C(0), INT64_C(20)}) {
    std::string want = kOldText;
    want.replace(static_cast<size_t>(at), 2, "XY");
    Stream stream = over_old_text(QMX_FILE_UPDATE);
    expect(QMX_FileSeek(stream.get(), at, SEEK_SET) == 0, "a seek fails");
    write(stream, "XY");
    stream.reset();
    expect_content(want, "after the close");
  }
}

void other_modes() {
  for (const uint32_t mode : {0u, 2u, UINT32_MAX}) {
    put(kFile, kOldText);
    errno = 0;
    expect(QMX_FileOpen(kFile, mode) == nullptr && errno != 0, "mode 0x%X opens, or leaves errno 0", mode);
  }
}

void errno_of_open() {
  unlink(kMissing);
  for (const uint32_t mode : {QMX_FILE_READ, QMX_FILE_WRITE_IN_PLACE, QMX_FILE_UPDATE}) {
    errno = 0;
    expect(QMX_FileOpen(kMissing, mode) == nullptr && errno == ENOENT, "a missing file gives errno %d",
           errno);
    expect(QMX_FileOpen("file/file", mode) == nullptr && errno == ENOTDIR, "a file as folder gives errno %d",
           errno);
  }
}

void closed_on_exec() {
  for (const uint32_t mode : {QMX_FILE_READ, QMX_FILE_REPLACE, QMX_FILE_CREATE, QMX_FILE_WRITE_IN_PLACE}) {
    const Stream stream = over_old_text(mode);
    expect((fcntl(fileno(stream.get()), F_GETFD) & FD_CLOEXEC) != 0, "mode 0x%X hands it on", mode);
  }
}

// ---- Reading

// Any run of seeks and reads, of sizes around powers of two too, held against the text itself.
void expect_positions(int64_t beyond_end) {
  const std::string text = any_bytes(300000);
  const auto size = static_cast<int64_t>(text.size());
  const Stream stream = open_stream(put(kFile, text), QMX_FILE_READ);
  const Guarded room(std::string(1 << 17, '\0'));
  int64_t at = 0;
  for (int step = 0; step < 1500; ++step) {
    const int64_t n = step % 2 == 0 ? (INT64_C(1) << below(17)) + below(3) - 1 : below(6000);
    char* const to = room.text() + room.size() - n;
    const int64_t want = std::clamp<int64_t>(size - at, 0, n);
    const int64_t got = QMX_FileRead(stream.get(), to, n);
    expect(std::max<int64_t>(got, 0) == want, "a read of %ld at %ld of %ld bytes gives %ld", n, at, size,
           got);
    expect(want == 0 || std::memcmp(to, text.data() + at, static_cast<size_t>(want)) == 0,
           "a read of %ld bytes at %ld delivers others", n, at);
    at += want;
    for (uint32_t seeks = below(4); seeks > 0; --seeks) {
      const int64_t next = below(static_cast<size_t>(size + beyond_end) + 1);
      const int whence = static_cast<int>(below(3));
      const int64_t origins[] = {0, at, size};
      expect(QMX_FileSeek(stream.get(), next - origins[whence], whence) == 0, "a seek to %ld fails", next);
      at = next;
      const int64_t told = QMX_FileTell(stream.get());
      expect(told == at, "after a seek to %ld, whence %d, it tells %ld", at, whence, told);
    }
    if (below(4) == 0) {  // not told after each: asking could put it right
      const int64_t told = QMX_FileTell(stream.get());
      expect(told == at, "at %ld it tells %ld", at, told);
    }
  }
}

void positions() { expect_positions(0); }
void positions_beyond_end() { expect_positions(1000); }

void seek_before_start() {
  const Stream stream = over_old_text(QMX_FILE_READ);
  expect(QMX_FileSeek(stream.get(), -1, SEEK_SET) != 0, "a seek to -1 gives 0");
}

void end_of_file() {
  char text[100];
  const Stream stream = over_old_text(QMX_FILE_READ);
  for (int i = 0; i < 30; ++i) {
    const int64_t got = QMX_FileRead(stream.get(), text, 10);
    const int64_t want = i == 0 || i == 1 ? 10 : i == 2 ? 2 : 0;
    expect(std::max<int64_t>(got, 0) == want, "read %d gives %ld bytes and not %ld", i, got, want);
  }
}

void folder_as_file() {
  char byte;
  const Stream stream(QMX_FileOpen(".", QMX_FILE_READ));
  expect(stream == nullptr || QMX_FileRead(stream.get(), &byte, 1) <= 0, "bytes are read from a folder");
}

void failed_read() {
  char byte;
  const Stream stream(QMX_FileOpen(".", QMX_FILE_READ));
  expect(stream == nullptr || QMX_FileRead(stream.get(), &byte, 1) < 0, "a folder reads as an empty file");
}

// A pipe whose second half comes when the first was taken.
void whole_reads() {
  unlink("pipe");
  expect(mkfifo("pipe", 0600) == 0, "cannot be checked: no pipe in this folder");
  signal(SIGPIPE, SIG_IGN);
  std::thread([] {
    const int out = open("pipe", O_WRONLY | O_CLOEXEC);
    for (int left = 1; const char* half : {"half ", "half"}) {
      [[maybe_unused]] const ssize_t written = ::write(out, half, std::strlen(half));
      while (ioctl(out, FIONREAD, &left) == 0 && left > 0) sched_yield();
    }
    close(out);
  }).detach();
  char text[20];
  const int64_t got = QMX_FileRead(open_stream("pipe", QMX_FILE_READ).get(), text, sizeof text);
  expect(got == 9, "%ld bytes come of 9", got);
}

// ---- Writing

void expect_in_file_at_once(bool flush) {
  for (const uint32_t mode : {QMX_FILE_REPLACE, QMX_FILE_WRITE_IN_PLACE, QMX_FILE_UPDATE, QMX_FILE_CREATE}) {
    const Stream stream = over_old_text(mode);
    write(stream, "new ");
    write(stream, "text");
    if (flush) std::fflush(stream.get());
    const std::string has = content(kFile);
    expect(has.find("new text") != has.npos, "with mode 0x%X the file holds '%.24s'", mode, has.c_str());
  }
}

void in_file_when_flushed() { expect_in_file_at_once(true); }
void in_file_at_once() { expect_in_file_at_once(false); }

// What a commit does: lock, write, flush, unlock, and only then sync and close.
void locked_writes() {
  for (const uint32_t mode : {QMX_FILE_REPLACE, QMX_FILE_WRITE_IN_PLACE}) {
    const Stream stream = over_old_text(mode);
    const std::string text(kOldText.size() + 5000, 'n');
    expect(flock(fileno(stream.get()), LOCK_EX) == 0, "it cannot be locked");
    write(stream, text.substr(0, 1000));
    write(stream, text.substr(1000));
    std::fflush(stream.get());
    flock(fileno(stream.get()), LOCK_UN);
    const bool whole = in_second_process([&] {
      const int other = open(kFile, O_RDONLY | O_CLOEXEC);
      return flock(other, LOCK_SH) == 0 && content(kFile) == text;
    });
    expect(whole, "with mode 0x%X another process that has the lock does not find the text", mode);
  }
}

void nothing_after_unlock() {
  for (const uint32_t mode : {QMX_FILE_REPLACE, QMX_FILE_WRITE_IN_PLACE}) {
    Stream stream = over_old_text(mode);
    write(stream, "new");
    std::fflush(stream.get());
    in_second_process([] { return put(kFile, "the other process's text") != nullptr; });
    QMX_FileSync(stream.get());
    stream.reset();
    expect_content("the other process's text", "another process wrote before the close, then");
  }
}

void lines() {
  Stream stream = open_stream(put(kFile, ""), QMX_FILE_CREATE);
  struct stat status = {}, other = {};
  expect(
      fstat(fileno(stream.get()), &status) == 0 && stat(kFile, &other) == 0 && status.st_ino == other.st_ino,
      "fileno() is of another file");
  std::fputs("one\n", stream.get());
  std::fputs("two\n", stream.get());
  std::fflush(stream.get());
  expect_content("one\ntwo\n", "after fflush()");
  std::fputs("three\n", stream.get());
  stream.reset();
  expect_content("one\ntwo\nthree\n", "after the close");
}

void write_results() {
  Stream stream = over_old_text(QMX_FILE_WRITE_IN_PLACE);
  for (const int64_t count : {INT64_C(2), INT64_C(0), INT64_C(-1), INT64_C(5)}) {
    const int64_t written = QMX_FileWrite(stream.get(), "a text", count);
    expect(written == std::max(count, INT64_C(0)), "%ld for %ld bytes", written, count);
  }
  expect(QMX_FileSync(stream.get()) == 0, "a sync does not give 0");
  expect(QMX_FileClose(stream.release()) == 0, "a close does not give 0");
  stream = open_stream(put(kFile, ""), QMX_FILE_CREATE);
  std::fputs("line\n", stream.get());
  QMX_FileSync(stream.get());
  expect_content("line\n", "after fputs() and a sync");
  stream = over_old_text(QMX_FILE_READ);
  char text[100];
  expect(QMX_FileRead(stream.get(), text, -1) <= 0, "less than no bytes are read");
  expect(QMX_FileWrite(stream.get(), "XY", 2) < 2, "a stream for reading takes a write");
}

// No file may grow, as on a full disk.
void refused_write() {
  const std::string text(5000, 'n');
  put(kFile, kOldText);
  const Stream streams[] = {open_stream(kFile, QMX_FILE_REPLACE),
                            open_stream(kFile, QMX_FILE_WRITE_IN_PLACE)};
  signal(SIGXFSZ, SIG_IGN);
  const rlimit none = {kOldText.size(), RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &none);
  for (const Stream& stream : streams) {
    for (int i = 0; i < 2; ++i) {
      errno = 0;
      const int64_t written = QMX_FileWrite(stream.get(), text.data(), 5000);
      const int error = errno;
      expect(written < 5000 && (error == EFBIG || error == ENOSPC), "the result is %ld, errno %d", written,
             error);
    }
  }
}

void refused_write_keeps() {
  for (const uint32_t mode : {QMX_FILE_REPLACE, QMX_FILE_WRITE_IN_PLACE}) {
    Stream stream = over_old_text(mode);
    signal(SIGXFSZ, SIG_IGN);
    rlimit usual;
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit none = {kOldText.size(), usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    write(stream, std::string(5000, 'n'));
    write(stream, "padding");
    stream.reset();
    setrlimit(RLIMIT_FSIZE, &usual);
    expect_content(kOldText, "after a refused write");
  }
}

void streams_released() {
  put(kFile, kOldText);
  const int before = open_descriptors();
  for (const uint32_t mode :
       {QMX_FILE_READ, QMX_FILE_REPLACE, QMX_FILE_CREATE, QMX_FILE_WRITE_IN_PLACE, QMX_FILE_UPDATE}) {
    for (int i = 0; i < 10; ++i) open_stream(kFile, mode).reset();
  }
  const int more = open_descriptors() - before;
  expect(more == 0, "%d descriptors stay open after 50 closes", more);
}

const Check kChecks[] = {
    {"file", "READ: an existing file, from its start", true, "INI files and frames are not read", mode_read},
    {"file", "REPLACE: what is written becomes the whole file", true,
     "an INI file that became shorter ends with old text", mode_replace},
    {"file", "CREATE: a missing file is created", true, "INI files and memory reports are not made",
     mode_create},
    {"file", "CREATE: written after what is there", true, "earlier memory reports are lost", create_keeps},
    {"file", "WRITE_IN_PLACE: from the start, not truncated", true, "fixed-size INI files change their size",
     mode_write_in_place},
    {"file", "UPDATE: a seek and a write change those bytes only", true,
     "QMXUtil_MetaDataUpdate damages recordings", mode_update},
    {"file", "REPLACE: a missing file is created", false, "an INI file removed while open stays so",
     replace_a_missing_file},
    {"file", "REPLACE: nothing written, nothing left", false, nullptr, replace_with_nothing},
    {"file", "REPLACE: the old content stays until a write", false,
     "who has the lock of an INI file may find it empty", replace_keeps_until_written},
    {"file", "REPLACE: fputs() and writes follow one another", false, nullptr, replace_with_lines},
    {"file", "another mode is refused", false, nullptr, other_modes},
    {"file", "a failed open leaves the reason in errno", true, "messages about INI files name wrong reasons",
     errno_of_open},
    {"file", "no started program inherits a stream", false, "programs that are started keep files open",
     closed_on_exec},
    {"file", "positions after any run of seeks and reads", true, "frames are cut in wrong places", positions},
    {"file", "positions beyond the end of the file", false, nullptr, positions_beyond_end},
    {"file", "a seek before the start is refused", false, nullptr, seek_before_start},
    {"file", "at the end 0 or less is read, again and again", true,
     "frame readers lose the last frame, or do not end", end_of_file},
    {"file", "a folder does not open, or gives no bytes", true, "a folder is taken for an INI file",
     folder_as_file},
    {"file", "a read that fails is negative", false, "an INI file that cannot be read counts as empty",
     failed_read},
    {"file", "a read is short at the end of the file only", false, nullptr, whole_reads},
    {"file", "a write is in the file once it is flushed", true, "the lock of a commit does not cover it",
     in_file_when_flushed},
    {"file", "a write is in the file when the call returns", false, nullptr, in_file_at_once},
    {"file", "who takes the lock after a write finds it whole", true,
     "processes that share an INI file find halves of it", locked_writes},
    {"file", "nothing is written or cut after the unlock", true, "a commit undoes that of the next process",
     nothing_after_unlock},
    {"file", "fileno(), fputs() and fflush() work on a stream", true,
     "INI files are not locked, memory reports are not written", lines},
    {"file", "read, write, sync and close tell how they went", false, nullptr, write_results},
    {"file", "a refused write leaves errno set", false, nullptr, refused_write},
    {"file", "a refused write leaves the old text", false, "a full disk costs an INI file its text",
     refused_write_keeps},
    {"file", "a close releases its stream", true, "each commit costs a descriptor", streams_released},
};

}  // namespace

std::span<const Check> file_checks() { return kChecks; }

}  // namespace basecheck
