// What an INI file holds when the disk is full in the middle of a commit, or the process is killed in one.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "qmxutil_ini.h"
#include "recording_base.h"

using qmxtest::read_file;
using std::string;

namespace {

constexpr int kCannotRun = 77;

int run_in_child(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

string text_of(int value_length) {
  return "a = 1\nb = " + string(static_cast<size_t>(value_length), 'v') + "\nc = 3\n";
}

INIHandle* changed(const string& path, int fixed, int value_length) {
  const INIAttr attr = {1, fixed, 1};
  INIHandle* const handle = QMXUtil_INIOpenEx(path.c_str(), &attr);
  if (handle == nullptr) _exit(99);
  QMXUtil_INIWrite(handle, "b", string(static_cast<size_t>(value_length), 'v').c_str());
  return handle;
}

// ---- Full disk

// Commits in a folder with room for two pages. Returns the line that went wrong, or 0.
#define CHECK_OR_RETURN(condition) \
  if (!(condition)) return std::fprintf(stderr, "line %d\n", __LINE__), 1

int commit_on_full_disk(const string& folder) {
  const string path = folder + "/a.ini";
  const auto store = [&](const string& content, const char* name = "/a.ini") {
    std::ofstream(folder + name) << content;
  };
  const string old = text_of(2000), padded = old + string(4096 - old.size(), '\0');

  store(old);  // an ordinary file stays as it was
  QMXUtil_INIClose(changed(path, 0, 9000));
  CHECK_OR_RETURN(read_file(path) == old);
  store(padded);  // a fixed-size file that would outgrow its size, too
  QMXUtil_INIClose(changed(path, 4096, 9000));
  CHECK_OR_RETURN(read_file(path) == padded);

  store(string(4096, 'f'), "/filler");
  QMXUtil_INIClose(changed(path, 4096, 3000));  // within its size it needs no room
  CHECK_OR_RETURN(read_file(path) == text_of(3000) + string(4096 - text_of(3000).size(), '\0'));
  std::filesystem::remove(folder + "/filler");

  std::filesystem::remove(path);  // a new one: the text without padding, or nothing
  QMXUtil_INIClose(changed(path, 12288, 1));
  CHECK_OR_RETURN(read_file(path) == "b = v\n");
  std::filesystem::remove(path);
  QMXUtil_INIClose(changed(path, 4096, 9000));
  CHECK_OR_RETURN(read_file(path).empty());
  return 0;
}

TEST(IniPowerTest, ATinyFileSystemThatIsFullLosesNothing) {
  const qmxtest::TempDir dir;
  const int result = run_in_child([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "size=8k") != 0) {
      return kCannotRun;
    }
    return commit_on_full_disk(dir.path());
  });
  if (result == kCannotRun) GTEST_SKIP() << "mounting is not permitted";
  EXPECT_EQ(result, 0);
}

TEST(IniPowerTest, ALimitOnTheSizeOfFilesLosesNothing) {
  const qmxtest::TempDir dir;
  const int result = run_in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {8192, 8192};
    setrlimit(RLIMIT_FSIZE, &limit);
    return commit_on_full_disk(dir.path());
  });
  EXPECT_EQ(result, 0);
}

// ---- Killed

// Starts a process that changes the file, and kills it when its commit is about to make its n-th system call.
// Returns 1 when it came to that, 0 when the commit was over before, kCannotRun without tracing.
int kill_at_call(int n, const string& path, int fixed, int value_length) {
  const pid_t pid = fork();
  if (pid == 0) {
    INIHandle* const handle = changed(path, fixed, value_length);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(kCannotRun);
    raise(SIGSTOP);
    QMXUtil_INIClose(handle);
    raise(SIGSTOP);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFSTOPPED(status)) return WEXITSTATUS(status);
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  constexpr int kSystemCallStop = SIGTRAP | 0x80;
  int stops = 0;  // on entry and on return
  ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
  while (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status) && WSTOPSIG(status) == kSystemCallStop) {
    if (++stops == 2 * n - 1) break;
    ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr);
  }
  kill(pid, SIGKILL);
  waitpid(pid, &status, 0);
  return stops == 2 * n - 1 && WIFSIGNALED(status) ? 1 : 0;
}

TEST(IniPowerTest, AProcessKilledInACommitLeavesTheOldTextOrTheNewOne) {
  const qmxtest::TempDir dir;
  for (const int fixed : {0, 4096}) {
    for (const int new_length : {100, 101, 1000, 6000, 3}) {
      const string old = text_of(100), wanted = text_of(new_length);
      int calls = 0, seen_old = 0, seen_new = 0;
      for (int killed = 1; killed == 1; ++calls) {
        const string path = dir.write("a.ini", fixed == 0 ? old : old + string(4096 - old.size(), '\0'));
        killed = kill_at_call(calls + 1, path, fixed, new_length);
        if (killed == kCannotRun) GTEST_SKIP() << "processes cannot be traced here";
        INIHandle* const handle = QMXUtil_INIOpen(path.c_str());
        ASSERT_NE(handle, nullptr);
        const string text = handle->text;
        const bool may_trail = fixed != 0 && new_length < 100;  // the old text, until the padding is written
        EXPECT_TRUE(text == old || (may_trail ? text.starts_with(wanted) : text == wanted)) << calls << text;
        EXPECT_GE(handle->fileSize, fixed);
        seen_old += text == old;
        seen_new += text == wanted;
        QMXUtil_INIClose(handle);
      }
      EXPECT_GT(calls, 5);  // open, lock, write, unlock, sync, close
      EXPECT_GT(seen_old, 0);
      EXPECT_GT(seen_new, 0);
    }
  }
}

}  // namespace
