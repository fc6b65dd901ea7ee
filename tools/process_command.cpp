// qmxutil run, which, pid, kill: programs started, found and ended.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "commands.h"
#include "output.h"
#include "qmxutil_process.h"

namespace {

struct RunOptions {
  bool shell = false;
  bool no_wait = false;
};

// Ends as the program did. Without an exit code of its own a signal has ended it, or it could not be waited
// for.
[[noreturn]] void end_as(const std::string& program, int result) {
  if (result < 0) throw CommandError(program + ": ended without an exit code, by a signal");
  flush_output();
  std::exit(result);
}

void require_program(const std::string& path) {
  struct stat status;
  if (access(path.c_str(), X_OK) != 0 || stat(path.c_str(), &status) != 0) fail_as_system_said(path);
  if (!S_ISREG(status.st_mode)) throw CommandError(path + ": not a program");
}

void run_program(const RunOptions& options, const std::vector<std::string>& words) {
  if (words.empty()) throw UsageError("PROGRAM is required");
  if (options.shell) {
    if (words.size() != 1) throw UsageError("--shell: takes one command line");
    end_as(words[0], QMXUtil_ExecShell(words[0].c_str()));
  }
  if (options.no_wait) {
    if (words.size() > 2) throw UsageError("--no-wait: takes one argument at most");
    int pid;
    const char* const arg = words.size() == 2 ? words[1].c_str() : nullptr;
    if (QMXUtil_ProcessRun(words[0].c_str(), arg, 0, &pid) == 0) throw CommandError("cannot run " + words[0]);
    std::printf("%d\n", pid);
    return;
  }
  std::string args;
  for (size_t i = 1; i < words.size(); ++i) {
    if (words[i].empty() || words[i].find(' ') != std::string::npos) {
      throw CommandError("an argument that is empty or has a blank cannot be passed on; use --shell");
    }
    args.append(i > 1 ? " " : "").append(words[i]);
  }
  if (words.size() > 31 || args.size() > 511) {
    throw CommandError("more than 30 arguments or 511 bytes of them; use --shell");
  }
  require_program(words[0]);
  const int result = QMXUtil_ProcessRunEx(words[0].c_str(), args.c_str(), 1);
  if (result == ENOENT || result == ENOEXEC) {  // may also be the error number of a start that failed
    std::fprintf(stderr, "qmxutil: %s: ended with %d, or was not started: %s\n", words[0].c_str(), result,
                 std::strerror(result));
  }
  end_as(words[0], result);
}

// The library looks at the beginning of a name only: another program's, when it is longer.
void require_name(const std::string& name, size_t longest) {
  if (name.empty()) throw UsageError("NAME: is empty");
  if (name.size() > longest) throw CommandError(name + ": longer than " + std::to_string(longest) + " bytes");
}

void run_which(const std::vector<std::string>& names, bool as_json) {
  constexpr size_t kLongestCommand = 25;
  Json list = Json::array();
  std::string missing;
  for (const std::string& name : names) require_name(name, kLongestCommand);
  for (const std::string& name : names) {
    const bool found = QMXUtil_ProcessWhich(name.c_str()) != 0;
    if (!found) missing += " " + name;
    if (as_json) {
      list.push_back({{"name", name}, {"found", found}});
    } else {
      std::printf("%s: %s\n", name.c_str(), found ? "found" : "not found");
    }
  }
  if (as_json) print_json(list);
  if (!missing.empty()) throw CommandError("not found:" + missing);
}

int process_of(const std::string& name) {
  constexpr size_t kLongestProgram = 57;
  require_name(name, kLongestProgram);
  const int pid = QMXUtil_ProcessPID(name.c_str());
  if (pid == 0) throw CommandError(name + " is not running");
  return pid;
}

void run_pid(const std::string& name, bool as_json) {
  const int pid = process_of(name);
  if (as_json) {
    print_json({{"name", name}, {"pid", pid}});
  } else {
    std::printf("%d\n", pid);
  }
}

// To the library a process that is not there has ended as was asked for.
void run_kill(const std::optional<std::string>& name, int pid) {
  if (name.has_value() == (pid != 0)) throw UsageError("either NAME or --pid is required");
  const int target = name ? process_of(*name) : pid;
  const std::string shown = name.value_or("process " + std::to_string(pid));
  if (kill(target, 0) != 0) fail_as_system_said(shown);
  if (QMXUtil_ProcessKill(nullptr, target) == 0) throw CommandError(shown + ": could not be asked to end");
}

}  // namespace

void add_process_commands(const Command& app) {
  const Command run = app.add("run", "Run a program by its path and end with its exit code");
  const auto run_options = std::make_shared<RunOptions>();
  run.option("--shell", run_options->shell, "run one command line with the shell");
  run.option("--no-wait", run_options->no_wait,
             "find PROGRAM on the search path, start it with one argument at most, print its process id");
  run.footer(
      "Then PROGRAM and its arguments; a \"--\" may stand in front.\nExample: qmxutil run /bin/ls -l /tmp");
  run.runs_with_rest([run_options](const auto& words) { run_program(*run_options, words); });

  const Command which = app.add("which", "Tell whether commands exist");
  const auto commands = std::make_shared<std::vector<std::string>>();
  which.option("NAME", *commands, "the commands").required();
  which.footer("Example: qmxutil which ffmpeg find");
  const auto as_json = std::make_shared<bool>(false);
  which.option("--json", *as_json, "print JSON");
  which.runs([commands, as_json] { run_which(*commands, *as_json); });

  const Command pid = app.add("pid", "Print the process id of a running program");
  const auto wanted = std::make_shared<std::string>();
  pid.option("NAME", *wanted, "the program's name").required();
  pid.footer("Example: qmxutil pid recorder");
  pid.option("--json", *as_json, "print JSON");
  pid.runs([wanted, as_json] { run_pid(*wanted, *as_json); });

  const Command ending = app.add("kill", "Ask a process to end (SIGTERM)");
  const auto target = std::make_shared<std::pair<std::optional<std::string>, int>>();
  ending.option("NAME", target->first, "the program's name");
  ending.option("--pid", target->second, "its process id instead").between(1, INT_MAX);
  ending.footer("Example: qmxutil kill recorder");
  ending.runs([target] { run_kill(target->first, target->second); });
}
