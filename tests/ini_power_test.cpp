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
#include <functional>

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

string text_of(size_t value_length) { return "a = 1\nb = " + string(value_length, 'v') + "\nc = 3\n"; }
string padded(string text) {
  text.resize(4096);
  return text;
}

INIHandle* changed(const string& path, int fixed, size_t value_length) {
  const INIAttr attr = {1, fixed, 1};
  INIHandle* const handle = QMXUtil_INIOpenEx(path.c_str(), &attr);
  if (handle == nullptr) _exit(99);
  QMXUtil_INIWrite(handle, "b", string(value_length, 'v').c_str());
  return handle;
}

// ---- Full disk

// Commits in a folder with room for two pages. Returns which commit was the first to go wrong, or 0.
int commit_on_full_disk(const qmxtest::TempDir& dir) {
  const string path = dir.file("a.ini"), old = text_of(2000);
  int commits = 0, wrong = 0;
  const auto commit = [&](int fixed, size_t value_length, const string& expected) {
    QMXUtil_INIClose(changed(path, fixed, value_length));
    ++commits;
    if (wrong == 0 && read_file(path) != expected) wrong = commits;
  };
  dir.write("a.ini", old);  // an ordinary file stays as it was
  commit(0, 9000, old);
  dir.write("a.ini", padded(old));  // a fixed-size file that would outgrow its size, too
  commit(4096, 9000, padded(old));
  dir.write("filler", string(4096, 'f'));
  commit(4096, 3000, padded(text_of(3000)));  // within its size it needs no room
  std::filesystem::remove(dir.file("filler"));
  std::filesystem::remove(path);  // a new one: the text without padding, or nothing
  commit(12288, 1, "b = v\n");
  std::filesystem::remove(path);
  commit(4096, 9000, "");
  return wrong;
}

TEST(IniPowerTest, ATinyFileSystemThatIsFullLosesNothing) {
  const qmxtest::TempDir dir;
  const int result = run_in_child([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "size=8k") != 0) {
      return kCannotRun;
    }
    return commit_on_full_disk(dir);
  });
  if (result == kCannotRun) GTEST_SKIP() << "mounting is not permitted";
  EXPECT_EQ(result, 0);
}

TEST(IniPowerTest, ALimitOnTheSizeOfFilesLosesNothing) {
  const qmxtest::TempDir dir;
  EXPECT_EQ(run_in_child([&] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit = {8192, 8192};
              setrlimit(RLIMIT_FSIZE, &limit);
              return commit_on_full_disk(dir);
            }),
            0);
}

// ---- Killed

// Starts a process that changes the file, and kills it when its commit is about to make its n-th system call.
// Returns 1 when it came to that, 0 when the commit was over before, kCannotRun without tracing.
int kill_at_call(int n, const string& path, int fixed, size_t value_length) {
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
    for (const size_t new_length : {100, 101, 1000, 6000, 3}) {
      const string old = text_of(100), wanted = text_of(new_length);
      int calls = 0, seen_old = 0, seen_new = 0;
      for (int killed = 1; killed == 1; ++calls) {
        const string path = dir.write("a.ini", fixed == 0 ? old : padded(old));
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
      EXPECT_GT(std::min(seen_old, seen_new), 0);
    }
  }
}

}  // namespace
