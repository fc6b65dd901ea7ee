// Process control: starts programs and shell commands, finds programs by name, asks them to end.
//
// Children are started with posix_spawn: the child executes nothing of this process but its own exec.
#include "qmxutil_process.h"

#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "internal/handles.h"
#include "internal/shell.h"
#include "internal/trace.h"
#include "qmx_format.h"

using namespace qmxutil;

namespace {

constinit char MODULE[] = "qmxutil_proc";

const char* printable(const char* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

// ---- Programs and shell commands

namespace {

constexpr size_t kMaxArguments = 30;
constexpr size_t kArgumentText = 512;  // bytes, the end included

// waitpid() that goes on after a signal handler interrupted it, so that no child is left behind.
pid_t wait_for(pid_t child, int* status, int options) {
  pid_t result;
  do {
    result = waitpid(child, status, options);
  } while (result == -1 && errno == EINTR);
  return result;
}

// Program path, blank-separated arguments, terminating null. Points into itself: neither copied nor moved.
class ArgumentVector {
 public:
  ArgumentVector(const char* path, const char* args) {
    entries_[0] = const_cast<char*>(path);  // posix_spawn() does not write to it
    if (args == nullptr) return;
    std::memcpy(text_.data(), args, strnlen(args, text_.size() - 1));
    char* rest = nullptr;
    char* piece = strtok_r(text_.data(), " ", &rest);
    for (size_t i = 1; i <= kMaxArguments && piece != nullptr; ++i) {
      entries_[i] = piece;
      piece = strtok_r(nullptr, " ", &rest);
    }
  }
  ArgumentVector(const ArgumentVector&) = delete;
  ArgumentVector& operator=(const ArgumentVector&) = delete;

  char* const* entries() const { return entries_.data(); }

 private:
  std::array<char, kArgumentText> text_ = {};
  std::array<char*, kMaxArguments + 2> entries_ = {};
};

// posix_spawn() tells a failed exec in the child and a failed fork alike, by error number. These two are
// what a fork fails with.
bool is_fork_failure(int error) { return error == EAGAIN || error == ENOMEM; }

}  // namespace

int QMXUtil_ProcessRun(const char* file, const char* arg, uint8_t wait, int* pid) {
  if (file == nullptr) {
    TRACE_ERROR("NULL argument!\n");
    return 0;
  }
  char* const argv[] = {const_cast<char*>(file), const_cast<char*>(arg), nullptr};
  pid_t child;
  if (posix_spawnp(&child, file, nullptr, nullptr, argv, environ) != 0) {
    TRACE_ERROR("Failed to run process (%s %s)\n", file, printable(arg));
    return 0;
  }
  int status;
  if (wait != 0 && wait_for(child, &status, 0) != child) {
    TRACE_ERROR("Process (%s %s) executed, but waiting failed\n", file, printable(arg));
  }
  if (pid != nullptr) *pid = child;
  return 1;
}

int QMXUtil_ProcessRunEx(const char* path, const char* args, uint8_t wait) {
  if (path == nullptr) {
    TRACE_ERROR("Invalid path\n");
    return -1;
  }
  const ArgumentVector argv(path, args);
  pid_t child;
  const int error = posix_spawn(&child, path, nullptr, nullptr, argv.entries(), environ);
  if (error != 0) {
    TRACE_ERROR("posix_spawn failed: %d\n", error);
    return error;
  }
  int status;
  const pid_t waited = wait_for(child, &status, wait != 0 ? 0 : WNOHANG);
  if (waited == -1) {
    if (wait != 0) {
      TRACE_ERROR("waitpid failed\n");
    } else {
      TRACE_ERROR("waitpid(WNOHANG) failed\n");
    }
    return -1;
  }
  if (waited == 0) {
    TRACE_ERROR("Process still running: pid=%d\n", child);
    return child;
  }
  if (WIFEXITED(status)) {
    if (wait != 0) {
      TRACE_EVENT("Process exited with status %d\n", WEXITSTATUS(status));
    } else {
      TRACE_ERROR("Process already exited with status %d\n", WEXITSTATUS(status));
    }
    return WEXITSTATUS(status);
  }
  if (WIFSIGNALED(status)) {
    TRACE_ERROR("Process terminated by signal %d\n", WTERMSIG(status));
    return -1;
  }
  return 0;
}

int QMXUtil_ExecShell(const char* command) {
  if (command == nullptr || *command == '\0') {
    TRACE_ERROR("Invalid command\n");
    return -1;
  }
  constexpr int kNotExecuted = 127;  // a shell's own exit code for it
  char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command),
                        nullptr};
  pid_t child;
  const int error = posix_spawn(&child, "/bin/sh", nullptr, nullptr, argv, environ);
  if (is_fork_failure(error)) {
    TRACE_ERROR("vfork failed\n");
    return -1;
  }
  int code = kNotExecuted;
  if (error != 0) {
    TRACE_ERROR("execl failed for command: %s\n", command);
  } else {
    int status;
    if (wait_for(child, &status, 0) == -1) {
      TRACE_ERROR("waitpid failed\n");
      return -1;
    }
    if (WIFSIGNALED(status)) {
      TRACE_ERROR("Command terminated by signal %d\n", WTERMSIG(status));
      return -1;
    }
    code = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  }
  if (code != 0) TRACE_ERROR("Command exited with status %d\n", code);
  return code;
}

// ---- Processes by name

namespace {

constexpr int kKillAttempts = 10;
constexpr int kKillPause = 100;  // milliseconds

}  // namespace

int QMXUtil_ProcessPID(const char* name) {
  if (name == nullptr) {
    TRACE_ERROR("NULL argument!\n");
    return 0;
  }
  char text[64] = {};
  const Pipe output = open_command(text, "pidof %s", name);
  if (output == nullptr || read_line_start(output.get(), text, sizeof text) == Line::kEnd) {
    TRACE_EVENT("%s is not running\n", name);
    return 0;
  }
  const long pid = std::strtol(text, nullptr, 10);
  return pid >= INT_MIN && pid <= INT_MAX ? static_cast<int>(pid) : 0;
}

int QMXUtil_ProcessKill(const char* name, int pid) {
  if (name != nullptr) pid = QMXUtil_ProcessPID(name);
  if (pid <= 0) {  // kill() would take it for a group of processes, or all of them
    TRACE_ERROR("No such process (%s: %d) to kill!\n", printable(name), pid);
    return 0;
  }
  for (int attempt = 0; attempt < kKillAttempts; ++attempt) {
    if (kill(pid, SIGTERM) == 0) return 1;
    if (errno == ESRCH) {
      TRACE_ERROR("No such process (%s: %d) to kill! (Or... Zombie?)\n", printable(name), pid);
      return 1;
    }
    QMX_ThreadSleep(kKillPause);
  }
  TRACE_ERROR("Failed to kill (%s: %d)\n", printable(name), pid);
  return 0;
}

int QMXUtil_ProcessWhich(const char* name) {
  if (name == nullptr) return 0;
  char text[32];
  const Pipe output = open_command(text, "which %s", name);
  return output != nullptr && read_char(output.get()) != EOF ? 1 : 0;
}
